// Bytes as an external subtitle file, in any charset: the charset guess,
// the subtitle media read at increasing times and again after a seek, the
// texts drawn as the movie draws subtitles on its pictures, and each text
// laid out and drawn on its own.
//
// The first byte picks the file's extension and the charset asked for; the
// rest is the file. Pictures come from VARNEL_FUZZ_VIDEO (default: the
// fixtures' cues_clip.mp4); without it only the subtitle media is read.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"
#include "media/media.h"
#include "media/media_source.h"
#include "movie/movie.h"
#include "text/text_charset.h"
#include "text/text_image.h"

namespace {

constexpr const char* kExtensions[] = {".srt", ".ass", ".vtt", ".ssa"};
// None: UTF-8, UTF-16 with a byte-order mark, else detected.
const std::optional<std::string> kCharsets[] = {std::nullopt, std::nullopt, "WINDOWS-1252",
                                                "SHIFT_JIS",  "UTF-16LE",   "GB18030"};
// Cue times the fixtures' subtitles use, and a few past them (microseconds).
constexpr int64_t kTimes[] = {500'000,   1'500'000, 2'500'000, 3'000'000,
                              4'700'000, 5'500'000, 7'000'000, 65'000'000};
constexpr int64_t kPictureTimes[] = {2'500'000, 4'700'000, 5'500'000};

std::string videoPath() {
  if (const char* given = std::getenv("VARNEL_FUZZ_VIDEO"))
    return given;
#ifdef VARNEL_FIXTURES_DIR
  return VARNEL_FIXTURES_DIR "/cues_clip.mp4";
#else
  return {};
#endif
}

// The movie the subtitles are drawn on: its picture small, to keep each run
// short.
std::shared_ptr<VNFFMovie> makeMovie() {
  auto movie = VNFFMovie::create();
  const std::string video = videoPath();
  struct stat info;
  if (!video.empty() && ::stat(video.c_str(), &info) == 0) {
    if (auto medias = VNMediaSource::mediaWithPath(video)->createMedias())
      movie->openMedias(*medias);
  }
  movie->setOutputVideoSize({160, 120});
  movie->setSubtitleFont("Sans 16");
  movie->setSubtitleOutlineWidth(2);
  movie->setSubtitleShadowOffset(1);
  return movie;
}

void drawAlone(const std::string& text) {
  vn::StyledText styled;
  styled.text = text;
  styled.font = "Sans 14";
  styled.color = {1, 1, 0, 1};
  styled.alignment = vn::StyledText::Alignment::kCentre;
  styled.outlineWidth = 2;
  styled.shadowOffset = 2;
  const vn::Size box{160, 120};
  const vn::Rect bounds = vn::boundingRect(styled, box);
  vn::fuzz::renderBounded(vn::drawStyledText(styled, box, bounds));
  vn::trimmedText(text);
  vn::fuzz::renderBounded(vn::textImage(text, "Sans 10", {1, 1, 1, 1}), 4096.0 * 64.0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1)
    return 0;
  const uint8_t choice = data[0];
  const std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  vn::textCharset(bytes);

  const vn::fuzz::ScratchPath file(std::string("subtitle") +
                                   kExtensions[choice % std::size(kExtensions)]);
  if (!vn::fuzz::writeFile(file.path(), bytes))
    return 0;
  const std::optional<std::string>& charset = kCharsets[(choice / 4) % std::size(kCharsets)];

  // One movie for the process: opening the video for every input would
  // cost more than all the rest. Each input replaces its subtitle media and
  // starts its pictures from a seek to 0, so a run depends on its input.
  static const std::shared_ptr<VNFFMovie> movie = makeMovie();
  if (!movie->openSubtitle(file.path(), std::nullopt, charset))
    return 0;
  const std::shared_ptr<VNFFMedia> subtitle = movie->subtitle();

  std::set<std::string> texts;
  for (const int64_t t : kTimes) {
    if (std::optional<std::string> text = subtitle->subtitleStringAtTime(t))
      texts.insert(std::move(*text));
  }
  // Pictures taken out of order find their subtitles again from the start.
  auto provider = std::make_shared<VNFFMovieImageProvider>();
  provider->movieMediaEffectImage = [](VNFFMovie&, std::optional<vn::FilterImage> image) {
    vn::fuzz::renderBounded(image);
  };
  movie->seek(0);
  for (const int64_t t : kPictureTimes)
    movie->decodeImageAtTime(t, provider, true);
  movie->flushOperation();

  for (const std::string& text : texts)
    drawAlone(text);
  return 0;
}
