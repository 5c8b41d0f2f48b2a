// Arbitrary bytes as a media file, read the way an application reads one:
// a source becomes medias, a movie opens them with every audio and subtitle
// track selected, seeks to a few times, asks each media for its picture and
// subtitles there, mixes a little of every audio track for export, and
// composes one picture.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/formats.h"
#include "core/serial_queue.h"
#include "fuzz_support.h"
#include "media/media.h"
#include "media/media_source.h"
#include "movie/movie.h"

namespace {

// Demuxers mostly probe the content; a few also weigh the file name.
constexpr const char* kExtensions[] = {"",     ".mp4", ".mkv", ".ts",  ".mpg", ".mp3",
                                       ".ac3", ".wmv", ".rm",  ".m4a", ".avi"};
constexpr int kSeeks = 3;
constexpr int kAudioChunks = 4;
constexpr int kAudioChunkFrames = 1024;

VNIndexSet everyTrack(size_t count) {
  VNIndexSet tracks;
  for (size_t i = 0; i < count; ++i)
    tracks.insert(static_cast<uint32_t>(i));
  return tracks;
}

// A time to look at: mostly inside the movie, sometimes just before its start
// or past its end.
int64_t timeFor(uint64_t hash, int64_t duration) {
  const int64_t span = std::clamp<int64_t>(duration, 0, 3'600'000'000) + 2'000'000;
  return static_cast<int64_t>(hash % static_cast<uint64_t>(span)) - 1'000'000;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string extension = kExtensions[size ? data[size - 1] % std::size(kExtensions) : 0];
  const vn::fuzz::ScratchPath file("media" + extension);
  if (!vn::fuzz::writeFile(file.path(),
                           std::string_view(reinterpret_cast<const char*>(data), size)))
    return 0;

  std::shared_ptr<VNMediaSource> source = VNMediaSource::mediaWithPath(file.path());
  std::optional<VNMediaSource::Medias> medias = source->createMedias();
  if (source->isOpen()) {
    source->truncation();
    source->readableDuration();
  }
  if (!medias)
    return 0;

  auto movie = VNFFMovie::create();
  movie->openMedias(*medias);
  // An application may choose its tracks while a seek is still on its way.
  movie->seek(0);
  movie->setSelectAudioStreams(everyTrack(movie->audioStreams().size()));
  movie->setSelectSubtitleStreams(everyTrack(movie->subtitleStreams().size()));
  // A selection does not rebuild the mix by itself.
  movie->configOutputFormat(VNFFMovie::defaultOutputFormat());
  movie->setExportMovie(true);
  // Pictures are composed small: a picture size comes from the file.
  movie->setOutputVideoSize({64, 48});
  movie->setSubtitleFont("Sans 12");

  const int64_t duration = movie->duration();
  std::vector<float> audio(size_t{2} * kAudioChunkFrames);
  for (int i = 0; i < kSeeks; ++i) {
    const int64_t t = timeFor(vn::fuzz::inputHash(data, size, i), duration);
    movie->seek(t);
    movie->flushOperation();
    // Each media on the decode queue, where the movie reads them.
    movie->decodeQueue()
        .addOperation([&] {
          for (const std::shared_ptr<VNFFMedia>& media : movie->medias()) {
            const int64_t local = t - media->movie_position();
            media->videoFrameAtTime(local);
            media->subtitleStringAtTime(local);
            media->subtitleAtTime(local);
          }
        })
        ->wait();
    for (int chunk = 0; chunk < kAudioChunks; ++chunk)
      movie->readSample(audio.data(), kAudioChunkFrames);
  }

  auto provider = std::make_shared<VNFFMovieImageProvider>();
  provider->movieFormatSize = [](VNFFMovie&, VNFFVideoFormat, int32_t bytes) {
    return std::make_shared<std::vector<uint8_t>>(static_cast<size_t>(std::max(bytes, 0)));
  };
  provider->movieMediaEffectImage = [](VNFFMovie&, std::optional<vn::FilterImage> image) {
    vn::fuzz::renderBounded(image);
  };
  movie->decodeImageAtTime(timeFor(vn::fuzz::inputHash(data, size, kSeeks), duration), provider,
                           true);
  movie->flushOperation();
  movie->close();
  return 0;
}
