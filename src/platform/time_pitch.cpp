#include "platform/time_pitch.h"

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
  if (std::isnan(rate)) return;
  rate_.store(std::clamp(rate, kMinRate, kMaxRate), std::memory_order_relaxed);
}

float TimePitch::rate() const {
  return rate_.load(std::memory_order_relaxed);
}

void TimePitch::applyRate(float rate) {
  // What the stretcher holds was stretched for the old rate; on the way back
  // to 1.0 it is dropped (tens of milliseconds) so the bypass stays exact.
  if (rate == 1.0f) {
    stretch_->clear();
  } else {
    stretch_->setTempo(rate);
  }
  appliedRate_ = rate;
}

void TimePitch::process(float* out, int32_t frames, Source source, void* context) {
  if (frames <= 0) return;
  const float rate = rate_.load(std::memory_order_relaxed);
  if (rate != appliedRate_) applyRate(rate);
  if (rate == 1.0f) {
    source(context, out, frames);
    return;
  }
  // Pull no more than this call's share of input (plus the last slice), even
  // while the stretcher is still filling: the source upstream holds only a
  // few thousand frames and is topped up between calls, not during one.
  const auto wanted = static_cast<unsigned>(frames);
  const double share = std::ceil(static_cast<double>(frames) * rate);
  double pulled = 0;
  while (stretch_->numSamples() < wanted && pulled < share) {
    source(context, slice_.data(), kSliceFrames);
    stretch_->putSamples(slice_.data(), kSliceFrames);
    pulled += kSliceFrames;
  }
  if (stretch_->numSamples() >= wanted) {
    stretch_->receiveSamples(out, wanted);
  } else {
    std::memset(out, 0, static_cast<size_t>(frames) * static_cast<size_t>(channels_) * sizeof(float));
  }
}

void TimePitch::reset() {
  stretch_->clear();
}

}  // namespace vn
