// Opening an input the way every command does: a media source, the medias it
// splits into, and a movie over them.
#pragma once

#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

extern "C" {
#include <libavutil/rational.h>
}

#include "varnel.h"

namespace varnel_cli {

struct Input {
  std::shared_ptr<VNMediaSource> source;
  std::shared_ptr<VNFFMovie> movie;

  // Opens path; false with a one-line reason when it is missing, empty or
  // holds no audio or video that can be decoded.
  bool open(const std::string& path, std::string* reason);
  // Mixes only the listed audio tracks ("0,2", counted among the input's
  // audio tracks; "" or "all" for every track). False with a reason when the
  // list cannot be read.
  bool selectAudioTracks(const std::string& list, std::string* reason);
  // open, then selectAudioTracks, as every command starts: kExitOk, or the
  // command's exit status once the one-line error is printed.
  int openWithTracks(const std::string& path, const std::string& tracks);
  // The first media with video, or null.
  std::shared_ptr<VNFFMedia> videoMedia();
  // The exact frame rate of the video (30000/1001 stays 30000/1001); 25/1
  // when the container gives none.
  AVRational videoFrameRate();
};

// Seconds to the library's microseconds, rounded.
inline int64_t microseconds(double seconds) {
  return static_cast<int64_t>(std::llround(seconds * 1e6));
}

// "0,2" -> {0, 2}; "all" or "" -> no restriction. False with a reason on
// anything else.
bool parseIndexList(const std::string& text, std::optional<VNIndexSet>* out, std::string* reason);

}  // namespace varnel_cli
