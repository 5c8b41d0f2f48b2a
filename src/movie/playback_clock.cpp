#include "movie/playback_clock.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "core/varnel.h"
#include "movie/movie.h"

namespace {

double steadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

VNPlaybackClock::VNPlaybackClock(std::shared_ptr<VNFFMovie> movie, bool audio, Now now)
    : movie_(std::move(movie)), audio_(audio), steady_(now ? std::move(now) : Now(steadySeconds)) {
  since_ = steady_();
}

double VNPlaybackClock::now() {
  if (!audio_)
    return base_ + (running_ ? rate_ * elapsed() : 0.0);
  const double audio = vn_ff_time_to_double(movie_->currentTime());
  if (audio != lastAudio_) {
    lastAudio_ = audio;
    restart(audio);
    return audio;
  }
  return running_ ? audio + rate_ * std::min(elapsed(), VNFFMovie::playbackChunkSeconds()) : audio;
}

void VNPlaybackClock::seek(double seconds) {
  movie_->seek(static_cast<int64_t>(std::llround(seconds * 1e6)));
  restart(seconds);
}

void VNPlaybackClock::setRate(double rate) {
  if (audio_)
    movie_->setRate(static_cast<float>(rate));
  restart(now());
  rate_ = rate;
}

void VNPlaybackClock::setRunning(bool running) {
  if (audio_) {
    if (running)
      movie_->play();
    else
      movie_->pause();
  }
  restart(now());
  running_ = running;
}

double VNPlaybackClock::elapsed() const {
  return steady_() - since_;
}

void VNPlaybackClock::restart(double seconds) {
  base_ = seconds;
  since_ = steady_();
}
