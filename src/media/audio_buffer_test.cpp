#include "media/audio_buffer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <numeric>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

namespace {

constexpr VNFFAudioFormat kStereoFloat{AV_SAMPLE_FMT_FLT, AV_CH_LAYOUT_STEREO, 44100};

vn::ff::Frame makeAudio(VNFFAudioFormat format, int samples, int64_t pts) {
  vn::ff::Frame frame = vn::ff::makeFrame();
  frame->format = format.sample_fmt;
  frame->sample_rate = format.sample_rate;
  av_channel_layout_from_mask(&frame->ch_layout, format.channel_layout);
  frame->nb_samples = samples;
  frame->pts = pts;
  if (samples > 0) {
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
  }
  return frame;
}

void write(VNFFAudioBuffer& buffer, VNFFAudioFormat format, int samples, int64_t pts) {
  buffer.writeFrame(makeAudio(format, samples, pts).get());
}

}  // namespace

TEST(AudioBufferTest, QueuesFramesOfItsFormatInOrder) {
  VNFFAudioBuffer buffer;
  write(buffer, kStereoFloat, 512, 0);  // unconfigured: dropped
  buffer.config(kStereoFloat);
  EXPECT_FALSE(buffer.read());
  write(buffer, kStereoFloat, 1024, 100);
  write(buffer, kStereoFloat, 0, 200);  // empty: ignored
  write(buffer, kStereoFloat, 333, 300);
  vn::ff::Frame first = buffer.read();
  vn::ff::Frame second = buffer.read();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(std::vector(
                {int64_t{first->nb_samples}, first->pts, int64_t{second->nb_samples}, second->pts}),
            std::vector<int64_t>({1024, 100, 333, 300}));
  EXPECT_FALSE(buffer.read());
  // Reconfiguring drops the queue; only frames of the new format pass.
  write(buffer, kStereoFloat, 256, 0);
  const VNFFAudioFormat mono{AV_SAMPLE_FMT_S16P, AV_CH_LAYOUT_MONO, 22050};
  buffer.config(mono);
  EXPECT_FALSE(buffer.read());
  write(buffer, kStereoFloat, 256, 1);
  write(buffer, mono, 128, 2);
  vn::ff::Frame frame = buffer.read();
  EXPECT_EQ(frame ? frame->pts : -1, 2);
  EXPECT_FALSE(buffer.read());
}

TEST(AudioBufferTest, FormatsThatCannotBeBuiltLeaveItUnconfigured) {
  const VNFFAudioFormat unusable[] = {
      {AV_SAMPLE_FMT_NONE, AV_CH_LAYOUT_STEREO, 44100},  // no sample format name
      {AV_SAMPLE_FMT_FLT, AV_CH_LAYOUT_STEREO, 0},       // no rate
      {},                                                // what a missing object yields
  };
  for (const VNFFAudioFormat& format : unusable) {
    VNFFAudioBuffer buffer;
    buffer.config(format);
    write(buffer, kStereoFloat, 64, 0);
    EXPECT_FALSE(buffer.read()) << format.sample_fmt << " " << format.sample_rate;
  }
}

TEST(AudioBufferTest, DecoderAndMixerThreadsShareTheQueue) {
  VNFFAudioBuffer buffer;
  buffer.config(kStereoFloat);
  constexpr int kFrames = 400;
  std::thread decoder([&buffer] {
    for (int i = 0; i < kFrames; ++i)
      write(buffer, kStereoFloat, 64, i);
  });
  std::vector<int64_t> seen;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (seen.size() < kFrames && std::chrono::steady_clock::now() < deadline) {
    if (vn::ff::Frame frame = buffer.read()) {
      seen.push_back(frame->pts);
    } else {
      std::this_thread::yield();
    }
  }
  decoder.join();
  std::vector<int64_t> expected(kFrames);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(seen, expected);
}
