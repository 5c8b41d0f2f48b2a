#include "input.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <sstream>

extern "C" {
#include <libavformat/avformat.h>
}

#include "cli.h"

namespace varnel_cli {

bool Input::open(const std::string& path, std::string* reason) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    *reason = std::strerror(errno);
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    *reason = "is a directory";
    return false;
  }
  if (info.st_size == 0) {
    *reason = "the file is empty";
    return false;
  }
  source = VNMediaSource::mediaWithPath(path);
  auto medias = source->createMedias();
  if (!source->isOpen()) {
    *reason =
        source->lastError().empty() ? "not a media file FFmpeg can read" : source->lastError();
    return false;
  }
  if (!source->isComplete()) {
    *reason = source->lastError();
    return false;
  }
  if (!medias) {
    *reason = "no audio or video stream that can be decoded";
    return false;
  }
  movie = VNFFMovie::create();
  movie->openMedias(*medias);
  return true;
}

bool Input::selectAudioTracks(const std::string& list, std::string* reason) {
  std::optional<VNIndexSet> tracks;
  if (!parseIndexList(list, &tracks, reason))
    return false;
  movie->setSelectAudioStreams(tracks);
  // A selection does not rebuild the mix by itself: rebuild it over the
  // streams now enabled.
  movie->configOutputFormat(movie->audioEffectStream().outputParam());
  return true;
}

int Input::openWithTracks(const std::string& path, const std::string& tracks) {
  if (std::string reason; !open(path, &reason))
    return fail("cannot open", path, reason);
  if (std::string reason; !selectAudioTracks(tracks, &reason))
    return fail("bad --audio-tracks", tracks, reason);
  return kExitOk;
}

std::shared_ptr<VNFFMedia> Input::videoMedia() {
  auto videos = movie->videos();
  return videos.empty() ? nullptr : videos.front();
}

AVRational Input::videoFrameRate() {
  auto media = videoMedia();
  auto stream = media ? media->videoStream() : nullptr;
  if (!stream || !stream->stream())
    return AVRational{25, 1};
  const AVStream* s = stream->stream();
  for (AVRational r : {s->r_frame_rate, s->avg_frame_rate}) {
    if (r.num > 0 && r.den > 0 && av_q2d(r) >= 1 && av_q2d(r) <= 240)
      return r;
  }
  return AVRational{25, 1};
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
