// vn::TimePitch: plays interleaved float audio faster or slower without
// changing its pitch (SoundTouch's time stretch).
//
// It pulls: process() asks a source for rate × frames input frames a call on
// average, in slices of kSliceFrames. At rate 1.0 the stretcher is bypassed
// and the source writes straight into the output, bit for bit. At any other
// rate the stretcher first fills up (about 0.1 s; silence is given
// meanwhile) and then gives stretched audio from a reserve of about one of
// its processing batches.
//
// Threads: setRate and rate on any thread; process and reset on one thread
// at a time (the audio device's, or the owner's while the device is
// stopped). process allocates nothing once the stretcher's buffers have
// grown to the working size for a rate.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace soundtouch {
class SoundTouch;
}

namespace vn {

class TimePitch {
 public:
  static constexpr float kMinRate = 0.25f;
  static constexpr float kMaxRate = 4.0f;
  // Input frames asked of the source per pull while stretching.
  static constexpr int32_t kSliceFrames = 512;

  // Fills frames frames (frames × channels floats) at out.
  using Source = void (*)(void* context, float* out, int32_t frames);

  TimePitch(int32_t sampleRate, int32_t channels);
  TimePitch(const TimePitch&) = delete;
  TimePitch& operator=(const TimePitch&) = delete;
  ~TimePitch();

  // Speed factor (1.0 normal, 2.0 twice as fast), clamped to
  // [kMinRate, kMaxRate]; NaN is ignored. Takes effect at the next process().
  void setRate(float rate);
  float rate() const;

  // Writes frames output frames at out, pulling input from source(context).
  void process(float* out, int32_t frames, Source source, void* context);

  // Drops the audio held inside the stretcher.
  void reset();

 private:
  void applyRate(float rate);

  const int32_t channels_;
  std::unique_ptr<soundtouch::SoundTouch> stretch_;
  std::vector<float> slice_;       // one pull of input, kSliceFrames frames
  std::atomic<float> rate_{1.0f};  // the rate asked for
  // The rest belongs to the thread of process().
  float appliedRate_ = 1.0f;  // the rate process() works at
  double credit_ = 0;         // input frames due but not yet pulled
  unsigned reserve_ = 0;      // output frames held back before giving any
  bool flowing_ = false;      // the reserve was reached and output flows
};

}  // namespace vn
