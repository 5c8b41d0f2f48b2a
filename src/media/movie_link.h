// What a media reads of the movie it belongs to.
//
// A media keeps a non-owning reference to its movie; the movie implements
// this interface so that media/ does not depend on movie/.
#pragma once

#include <cstdint>

class VNMovieLink {
 public:
  virtual ~VNMovieLink() = default;

  // The movie clock, microseconds of movie time. Any thread; may be a moment
  // stale.
  virtual int64_t currentTime() = 0;
  // True while the movie is being written to a file: medias then read ahead
  // relative to what they have read, not to the playback clock.
  virtual bool exportMovie() = 0;
  // True when the movie is treated as audio-only: medias report no video and
  // drop video packets.
  virtual bool disableVideo() = 0;
  // At a time where one picture ends and the next starts, true takes the
  // one that starts there (the picture on screen at that time: its start
  // <= t < its end), false the one that ends there. False unless the owner
  // chooses otherwise.
  virtual bool startingPictureAtBoundary() { return false; }
  // How much later than their own times subtitles are shown, microseconds
  // (negative: earlier). 0 unless the owner sets one.
  virtual int64_t subtitleDelay() { return 0; }
};
