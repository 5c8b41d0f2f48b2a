#include "input.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

#include "cli.h"
#include "disc.h"

namespace varnel_cli {

std::string unreadableFile(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0)
    return std::strerror(errno);
  if (S_ISDIR(info.st_mode))
    return "is a directory";
  // A pipe or a device would block or never end.
  if (!S_ISREG(info.st_mode))
    return "not a regular file";
  if (access(path.c_str(), R_OK) != 0)
    return std::strerror(errno);
  if (info.st_size == 0)
    return "the file is empty";
  return {};
}

namespace {

// A movie whose times mean what a player shows: at the boundary of two
// frames, the one that starts there; whose sound starts where it is asked
// to, not a frame later; whose pictures are converted by the scaler alone
// (the same bytes, without loading the filter library); and whose plain
// pictures' thumbnails are scaled straight from the decoded picture.
std::shared_ptr<VNFFMovie> newMovie() {
  std::shared_ptr<VNFFMovie> movie = VNFFMovie::create();
  movie->setStartingPictureAtBoundary(true);
  movie->audioEffectStream().setExactStarts(true);
  movie->videoEffectStream().setConvertsWithScaler(true);
  movie->setThumbnailsFromDecodedPictures(true);
  return movie;
}

}  // namespace

bool Input::openTitle(const std::string& path, std::string* reason) {
  disc = openDisc(path, reason);
  if (!disc)
    return false;
  std::shared_ptr<VNDVDSource> chosen = chooseSource(*disc, title, reason);
  if (!chosen)
    return false;
  source = chosen;
  chosen->setDecodesSinglePictures(picturesOnly);
  const VNMediaSource::Medias medias = chosen->createMedias().value_or(VNMediaSource::Medias{});
  if (medias.empty()) {
    *reason = "title " + chosen->name() +
              " holds no audio or video that can be read (its VOB files are missing or unreadable)";
    return false;
  }
  movie = newMovie();
  movie->openMedias(medias);
  return true;
}

bool Input::open(const std::string& path, std::string* reason) {
  if (title || isDiscPath(path))
    return openTitle(path, reason);
  if (std::string why = unreadableFile(path); !why.empty()) {
    *reason = std::move(why);
    return false;
  }
  source = VNMediaSource::mediaWithPath(path);
  // A command that takes a few pictures decodes them one at a time.
  source->setDecodesSinglePictures(picturesOnly);
  source->open();
  if (!source->isOpen()) {
    *reason =
        source->lastError().empty() ? "not a media file FFmpeg can read" : source->lastError();
    return false;
  }
  std::optional<VNIndexSet> streams;
  if (!chooseStreams(&streams, reason))
    return false;
  auto medias = source->createMediasWithStreams(streams);
  truncation = source->truncation();
  if (!medias) {
    *reason = "no audio or video stream that can be decoded";
    return false;
  }
  movie = newMovie();
  movie->openMedias(*medias);
  return true;
}

namespace {

// Whether a picture of container stream `index` can be decoded, read on a
// copy of the source.
bool decodesPicture(VNMediaSource& source, uint32_t index) {
  const std::shared_ptr<VNMediaSource> copy = source.copy();
  const auto medias = copy->createMediasWithStreams(VNIndexSet{index});
  bool decoded = false;
  if (medias && !medias->empty() && medias->front()->videoStream()) {
    medias->front()->thumbnailAtTime(0, [&](AVFrame* frame) { decoded = frame && frame->data[0]; });
  }
  return decoded;
}

}  // namespace

bool Input::chooseStreams(std::optional<VNIndexSet>* streams, std::string* reason) {
  const AVFormatContext* context = source->formatContext();
  std::vector<uint32_t> videos;
  for (uint32_t i = 0; i < context->nb_streams; ++i) {
    const AVStream* stream = context->streams[i];
    if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
        !(stream->disposition & AV_DISPOSITION_ATTACHED_PIC))
      videos.push_back(i);
  }
  std::optional<uint32_t> chosen;
  if (videoTrack) {
    if (*videoTrack < 0 || static_cast<size_t>(*videoTrack) >= videos.size()) {
      badVideoTrack = true;
      *reason = videos.empty()
                    ? "the input has no video track"
                    : "the input's video tracks are 0 to " + std::to_string(videos.size() - 1);
      return false;
    }
    chosen = videos[*videoTrack];
  } else if (videos.size() > 1) {
    // The default track first, then the others in order: the first that
    // decodes a picture.
    std::stable_partition(videos.begin(), videos.end(), [&](uint32_t i) {
      return (context->streams[i]->disposition & AV_DISPOSITION_DEFAULT) != 0;
    });
    const auto decodes = std::find_if(videos.begin(), videos.end(),
                                      [&](uint32_t i) { return decodesPicture(*source, i); });
    chosen = decodes != videos.end() ? *decodes : videos.front();
  }
  videoStream_ = chosen ? chosen : videos.empty() ? std::nullopt : std::optional(videos.front());
  const bool soundLeftOut = picturesOnly && !videos.empty();
  if (!chosen && !soundLeftOut)
    return true;
  VNIndexSet kept;
  for (uint32_t i = 0; i < context->nb_streams; ++i) {
    const AVCodecParameters* codec = context->streams[i]->codecpar;
    if (soundLeftOut && codec->codec_type == AVMEDIA_TYPE_AUDIO)
      continue;
    if (i == videoStream_ || codec->codec_type != AVMEDIA_TYPE_VIDEO ||
        (context->streams[i]->disposition & AV_DISPOSITION_ATTACHED_PIC))
      kept.insert(i);
  }
  *streams = std::move(kept);
  return true;
}

bool Input::selectAudioTracks(const std::string& list, std::string* reason, bool rebuild) {
  std::optional<VNIndexSet> tracks;
  if (!parseIndexList(list, &tracks, reason))
    return false;
  const VNFFMovie::Medias audios = movie->audios();
  const size_t count = audios.empty() ? 0 : audios.front()->audioNames().size();
  if (tracks && !tracks->empty() && *tracks->rbegin() >= count) {
    *reason = count == 0 ? "the input has no audio track"
                         : "the input's audio tracks are 0 to " + std::to_string(count - 1);
    return false;
  }
  movie->setSelectAudioStreams(tracks);
  // A selection does not rebuild the mix by itself: rebuild it over the
  // streams now enabled.
  if (rebuild)
    movie->configOutputFormat(movie->audioEffectStream().outputParam());
  return true;
}

bool Input::videoDecodes() {
  return disc || !videoStream_ || decodesPicture(*source, *videoStream_);
}

int Input::openWithTracks(const std::string& path, const std::string& tracks, bool rebuild) {
  if (std::string reason; !open(path, &reason)) {
    if (badVideoTrack)
      return usage("bad --video-track", std::to_string(videoTrack.value_or(0)), reason);
    return fail("cannot open", path, reason);
  }
  if (std::string reason; !selectAudioTracks(tracks, &reason, rebuild))
    return usage("bad --audio-tracks", tracks, reason);
  return kExitOk;
}

Input::Extent Input::extent() {
  // A whole file's packets may stop a little before the duration its
  // container gives (a last frame without a duration, a header rounded up):
  // only a shortfall beyond this counts as cut short.
  constexpr double kSlack = 0.5;
  Extent e;
  const int64_t duration = movie->duration();
  e.duration = duration > 0 ? vn_ff_time_to_double(duration) : 0;
  // A disc's title is read piece by piece: it reaches as far as its
  // pieces do.
  e.readable = disc ? e.duration : vn_ff_time_to_double(source->readableDuration());
  e.cutShort = truncation.has_value() || (e.duration > 0 && e.readable < e.duration - kSlack);
  return e;
}

void Input::warnIfCutShort(const std::string& path, const Extent& extent) const {
  if (truncation) {
    warn(path, truncationText(*truncation));
  } else if (extent.cutShort) {
    char text[96];
    std::snprintf(text, sizeof text, "cut short: its audio and video stop at %.2f s of %.2f s",
                  extent.readable, extent.duration);
    warn(path, text);
  }
}

AVFormatContext* Input::formatContext() {
  if (source && source->formatContext())
    return source->formatContext();
  auto medias = movie ? movie->medias() : decltype(movie->medias()){};
  return medias.empty() ? nullptr : medias.front()->formatContext();
}

std::string truncationText(const VNTruncation& truncation) {
  return "truncated: " + std::to_string(truncation.presentBytes) + " of " +
         std::to_string(truncation.expectedBytes) + " bytes present";
}

bool parseIndexList(const std::string& text, std::optional<VNIndexSet>* out, std::string* reason) {
  if (text.empty() || text == "all") {
    out->reset();
    return true;
  }
  VNIndexSet set;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) {
    char* end = nullptr;
    const long value = std::strtol(item.c_str(), &end, 10);
    if (item.empty() || *end != '\0' || value < 0) {
      *reason = "expected a comma-separated list of track numbers such as 0,2";
      return false;
    }
    set.insert(static_cast<uint32_t>(value));
  }
  *out = std::move(set);
  return true;
}

}  // namespace varnel_cli
