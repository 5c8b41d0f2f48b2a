#include "audio_out/time_pitch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "test_support.h"

namespace {

// A stream every frame of which can be recognised: frame i holds (i + 1) / 65536 on the left and
// its negative on the right.
struct RampSource {
  static float sample(int64_t frame, int channel) {
    const float v = static_cast<float>(frame + 1) / 65536.0f;
    return channel == 0 ? v : -v;
  }
  static void fill(void* self, float* out, int32_t frames) {
    auto* source = static_cast<RampSource*>(self);
    for (int32_t i = 0; i < frames; ++i) {
      out[2 * i] = sample(source->next + i, 0);
      out[2 * i + 1] = sample(source->next + i, 1);
    }
    source->next += frames;
  }
  int64_t next = 0;  // the next frame to hand out
};

// True when out holds frames frames of the ramp from frame first on.
bool isRamp(const std::vector<float>& out, int64_t first, int32_t frames) {
  for (int32_t i = 0; i < 2 * frames; ++i)
    if (out[i] != RampSource::sample(first + i / 2, i % 2))
      return false;
  return true;
}

}  // namespace

TEST(TimePitchTest, NormalRateIsExactBeforeAndAfterStretching) {
  vn::TimePitch stretch(44100, 2);
  RampSource source;
  std::vector<float> out(2 * 2048);

  // At 1.0 the source writes straight through, whatever the call size.
  for (int32_t frames : {512, 1, 2048, 300}) {
    const int64_t first = source.next;
    stretch.process(out.data(), frames, &RampSource::fill, &source);
    EXPECT_TRUE(isRamp(out, first, frames)) << frames;
    EXPECT_EQ(source.next, first + frames);
  }

  // While stretching, a call takes only its share of input, in whole slices, even while the
  // stretcher is still filling up.
  stretch.setRate(1.5f);
  for (int i = 0; i < 40; ++i) {
    const int64_t before = source.next;
    stretch.process(out.data(), 512, &RampSource::fill, &source);
    EXPECT_LE(source.next - before, 1024) << "call " << i;
  }

  // Back at 1.0 the output is the source again, exactly, from where it is.
  stretch.setRate(1.0f);
  const int64_t first = source.next;
  stretch.process(out.data(), 512, &RampSource::fill, &source);
  EXPECT_TRUE(isRamp(out, first, 512));

  // Rates the pipeline cannot feed are clamped; NaN changes nothing.
  for (float rate : {100.0f, std::nanf("")}) {
    stretch.setRate(rate);
    EXPECT_EQ(stretch.rate(), vn::TimePitch::kMaxRate);
  }
}

TEST(TimePitchTest, SteadyStretchingAllocatesNothing) {
  for (float rate : {1.0f, 0.5f, 1.5f, 2.0f}) {
    vn::TimePitch stretch(44100, 2);
    stretch.setRate(rate);
    RampSource source;
    std::vector<float> out(2 * 512);
    // Two seconds let the stretcher's buffers grow to their working size.
    for (int i = 0; i < 172; ++i)
      stretch.process(out.data(), 512, &RampSource::fill, &source);
    const uint64_t before = vn::test::allocationCount();
    for (int i = 0; i < 172; ++i)
      stretch.process(out.data(), 512, &RampSource::fill, &source);
    EXPECT_EQ(vn::test::allocationCount(), before) << "rate " << rate;
  }
}
