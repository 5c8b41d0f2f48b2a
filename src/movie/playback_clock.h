// VNPlaybackClock: the clock that pictures follow while a movie plays, in
// seconds of movie time.
//
// With audio it is the movie's own clock (currentTime), which moves a chunk
// of mixed audio at a time; between two steps it is carried on at the
// playback speed, for at most one step (VNFFMovie::playbackChunkSeconds),
// so that pictures move smoothly and never run ahead of the sound for
// long. Without audio it is a wall clock that runs at the playback speed.
// It also drives the movie: seek, speed, play and pause go through it.
//
//   stopped ──setRunning(true)──► running ──setRunning(false)──► stopped
//          (seek and setRate in either state)
//
// Threads: one thread (the application's) calls it.
#pragma once

#include <functional>
#include <memory>

class VNFFMovie;

class VNPlaybackClock {
 public:
  // Steady seconds, from any origin; the process's steady clock unless
  // given (tests).
  using Now = std::function<double()>;

  // Follows movie's audio when audio is set, else a wall clock. Stopped,
  // at 0, at speed 1.
  VNPlaybackClock(std::shared_ptr<VNFFMovie> movie, bool audio, Now now = {});
  VNPlaybackClock(const VNPlaybackClock&) = delete;
  VNPlaybackClock& operator=(const VNPlaybackClock&) = delete;

  // The clock, seconds of movie time.
  double now();
  // Seeks the movie and sets the clock there at once.
  void seek(double seconds);
  // The playback speed (1 normal); the movie plays at it.
  void setRate(double rate);
  double rate() const { return rate_; }
  // Plays or pauses the movie (with audio); a stopped clock stands still.
  void setRunning(bool running);
  bool isRunning() const { return running_; }

 private:
  double elapsed() const;
  void restart(double seconds);

  std::shared_ptr<VNFFMovie> movie_;
  bool audio_;
  Now steady_;
  double lastAudio_ = -1;  // the movie's clock when it last moved
  double base_ = 0;        // the clock at since_
  double since_ = 0;       // steady seconds
  double rate_ = 1;
  bool running_ = false;
};
