#include "output/audio_converter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

namespace {

const VNFFAudioFormat kS16Stereo44 = {AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 44100};
const VNFFAudioFormat kFltStereo44 = {AV_SAMPLE_FMT_FLT, AV_CH_LAYOUT_STEREO, 44100};

class AudioConverterTest : public ::testing::Test {
 protected:
  std::shared_ptr<VNFFMpegAudioConverter> converter = VNFFMpegAudioConverter::create();

  // Pulls up to count packed stereo s16 sample frames.
  std::vector<int16_t> pullS16(int count) {
    std::vector<int16_t> out(static_cast<size_t>(count) * 2);
    uint8_t* planes[1] = {reinterpret_cast<uint8_t*>(out.data())};
    out.resize(static_cast<size_t>(converter->convertFrom(nullptr, 0, planes, count)) * 2);
    return out;
  }
};

TEST_F(AudioConverterTest, UnconfiguredConverterDoesNothing) {
  const int16_t samples[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  converter->writeData(samples, sizeof samples);
  converter->appendSilenceSample(1024);
  converter->clear();
  converter->convertFrame(nullptr, nullptr);
  EXPECT_EQ(converter->outputBufferFrames(), 0);
  EXPECT_TRUE(pullS16(4).empty());
  EXPECT_EQ(converter->outFormat().sample_rate, 0);

  // A format that cannot be set up keeps the converter unconfigured, with the formats it was given.
  const VNFFAudioFormat noLayout = {AV_SAMPLE_FMT_S16, 0, 44100};
  converter->convertFrom(noLayout, kS16Stereo44);
  converter->writeData(samples, sizeof samples);
  EXPECT_EQ(converter->outputBufferFrames(), 0);
  EXPECT_TRUE(isFFAudioFormatEqual(converter->inFormat(), noLayout));
}

// Identical formats still queue: what goes in comes out unchanged and in order, whatever the push
// and pull sizes, and a trailing partial sample frame of a chunk is lost.
TEST_F(AudioConverterTest, IdenticalFormatsQueueBytesInOrder) {
  converter->convertFrom(kS16Stereo44, kS16Stereo44);
  std::vector<int16_t> in(2 * 3000);
  std::iota(in.begin(), in.end(), 0);
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(in.data());
  std::vector<int16_t> expected;
  size_t offset = 0;
  // Chunk lengths in bytes; one sample frame is 4 bytes.
  for (size_t length : {400u, 1u, 3u, 4000u, 1234u, 4u, 4000u}) {
    converter->writeData(bytes + offset, length);
    const size_t whole = length / 4 * 4;
    expected.insert(expected.end(), in.begin() + offset / 2, in.begin() + (offset + whole) / 2);
    offset += length + (length % 2);  // keep chunks on sample boundaries
  }
  ASSERT_EQ(converter->outputBufferFrames(), static_cast<int32_t>(expected.size() / 2));
  std::vector<int16_t> out;
  for (int pull : {1, 7, 100, 1000, 5000}) {
    auto got = pullS16(pull);
    out.insert(out.end(), got.begin(), got.end());
  }
  EXPECT_EQ(out, expected);
  EXPECT_EQ(converter->outputBufferFrames(), 0);
}

// The same formats again keep what is held; another rate starts afresh, and what is held is counted
// at the output rate. Clear drops it; silence is appended after the samples.
TEST_F(AudioConverterTest, ReconfigureClearAndSilence) {
  converter->convertFrom(kS16Stereo44, kS16Stereo44);
  std::vector<int16_t> in(2 * 500, 9);
  converter->writeData(in.data(), in.size() * 2);
  converter->convertFrom(kS16Stereo44, kS16Stereo44);
  EXPECT_EQ(converter->outputBufferFrames(), 500);
  converter->clear();
  EXPECT_EQ(converter->outputBufferFrames(), 0);
  converter->writeData(in.data(), in.size() * 2);
  converter->appendSilenceSample(1024);
  EXPECT_EQ(converter->outputBufferFrames(), 1524);
  std::vector<int16_t> expected(2 * 1524, 0);
  std::fill_n(expected.begin(), 2 * 500, 9);
  EXPECT_EQ(pullS16(2000), expected);

  converter->writeData(in.data(), in.size() * 2);
  const VNFFAudioFormat in48 = {AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 48000};
  const VNFFAudioFormat out24 = {AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 24000};
  converter->convertFrom(in48, out24);
  EXPECT_EQ(std::pair(converter->outputBufferFrames(), converter->outFormat().sample_rate),
            std::pair(0, 24000));
  std::vector<int16_t> tone(2 * 4800, 100);
  converter->writeData(tone.data(), tone.size() * 2);
  EXPECT_NEAR(converter->outputBufferFrames(), 2400, 20);
}

// Planar input is read as consecutive planes of the chunk.
TEST_F(AudioConverterTest, PlanarChunksAreConsecutivePlanes) {
  const VNFFAudioFormat fltp = {AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 44100};
  converter->convertFrom(fltp, kFltStereo44);
  const float chunk[6] = {1, 2, 3, -1, -2, -3};  // left plane, then right plane
  converter->writeData(chunk, sizeof chunk);
  float out[6] = {};
  uint8_t* planes[1] = {reinterpret_cast<uint8_t*>(out)};
  ASSERT_EQ(converter->convertFrom(nullptr, 0, planes, 3), 3);
  const float expected[6] = {1, -1, 2, -2, 3, -3};
  EXPECT_EQ(std::memcmp(out, expected, sizeof out), 0);
}

// Resampling in the writer's rhythm (odd pushes, 1024-sample pulls while 1536 are held) must give a
// continuous tone: a pull must not flush the resampler and pad the stream.
TEST_F(AudioConverterTest, PullsWhileResamplingLeaveNoClicks) {
  const VNFFAudioFormat out48 = {AV_SAMPLE_FMT_FLT, AV_CH_LAYOUT_STEREO, 48000};
  converter->convertFrom(kFltStereo44, out48);
  std::vector<float> in(2 * 1000);
  std::vector<float> mono;
  std::vector<float> frame(2 * 1024);
  uint8_t* planes[1] = {reinterpret_cast<uint8_t*>(frame.data())};
  long t = 0;
  for (int chunk = 0; chunk < 60; ++chunk) {
    for (int i = 0; i < 1000; ++i, ++t)
      in[2 * i] = in[2 * i + 1] = 0.5f * std::sin(2 * M_PI * 440 * t / 44100.0);
    converter->writeData(in.data(), in.size() * sizeof(float));
    while (converter->outputBufferFrames() >= 1536) {
      ASSERT_EQ(converter->convertFrom(nullptr, 0, planes, 1024), 1024);
      for (int i = 0; i < 1024; ++i)
        mono.push_back(frame[2 * i]);
    }
  }
  ASSERT_GT(mono.size(), 50000u);
  // The second difference of a 440 Hz sine of amplitude 0.5 at 48 kHz stays under 0.5 * (2 pi 440 /
  // 48000)^2 = 0.0017; a discontinuity is far above.
  double worst = 0;
  for (size_t i = 100; i < mono.size(); ++i)
    worst = std::max(worst, std::abs(double(mono[i]) - 2 * mono[i - 1] + mono[i - 2]));
  EXPECT_LT(worst, 0.003);
}

}  // namespace
