#include "audio_out/time_pitch.h"

#include <SoundTouch.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vn {

TimePitch::TimePitch(int32_t sampleRate, int32_t channels)
    : channels_(channels),
      stretch_(std::make_unique<soundtouch::SoundTouch>()),
      slice_(static_cast<size_t>(kSliceFrames) * static_cast<size_t>(channels)) {
  stretch_->setSampleRate(static_cast<unsigned>(sampleRate));
  stretch_->setChannels(static_cast<unsigned>(channels));
}

TimePitch::~TimePitch() = default;

void TimePitch::setRate(float rate) {
  if (std::isnan(rate))
    return;
  rate_.store(std::clamp(rate, kMinRate, kMaxRate), std::memory_order_relaxed);
}

float TimePitch::rate() const {
  return rate_.load(std::memory_order_relaxed);
}

void TimePitch::applyRate(float rate) {
  // What the stretcher holds was stretched for the old rate; on the way back
  // to 1.0 it is dropped (tens of milliseconds) so the bypass stays exact.
  if (rate == 1.0f) {
    reset();
  } else {
    stretch_->setTempo(rate);
    // The stretcher gives its output in batches; holding one batch plus a
    // call's worth back keeps the output flowing between batches.
    reserve_ = static_cast<unsigned>(stretch_->getSetting(SETTING_NOMINAL_OUTPUT_SEQUENCE));
  }
  appliedRate_ = rate;
}

void TimePitch::process(float* out, int32_t frames, Source source, void* context) {
  if (frames <= 0)
    return;
  const float rate = rate_.load(std::memory_order_relaxed);
  if (rate != appliedRate_)
    applyRate(rate);
  if (rate == 1.0f) {
    source(context, out, frames);
    return;
  }
  // Input is pulled at a steady pace, rate × frames a call on average, never
  // in bursts: the source upstream holds only a few thousand frames and is
  // topped up between calls, not during one.
  credit_ += static_cast<double>(rate) * frames;
  while (credit_ >= kSliceFrames) {
    source(context, slice_.data(), kSliceFrames);
    stretch_->putSamples(slice_.data(), kSliceFrames);
    credit_ -= kSliceFrames;
  }
  const auto wanted = static_cast<unsigned>(frames);
  if (!flowing_ && stretch_->numSamples() >= reserve_ + wanted)
    flowing_ = true;
  unsigned got = 0;
  if (flowing_) {
    got = stretch_->receiveSamples(out, wanted);
    // Ran dry: fill up again before giving more.
    if (got < wanted)
      flowing_ = false;
  }
  std::memset(out + static_cast<size_t>(got) * static_cast<size_t>(channels_), 0,
              static_cast<size_t>(wanted - got) * static_cast<size_t>(channels_) * sizeof(float));
}

void TimePitch::reset() {
  stretch_->clear();
  credit_ = 0;
  flowing_ = false;
}

}  // namespace vn
