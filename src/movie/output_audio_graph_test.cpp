#include "movie/output_audio_graph.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iterator>
#include <mutex>
#include <numbers>
#include <vector>

#include "core/serial_queue.h"
#include "test_support.h"

namespace {

constexpr int32_t kChunkFrames = 2048;  // what the movie appends at a time
constexpr int32_t kRate = VNAudioGraph::kSampleRate;

// The samples a test feeds: frame i of a recognisable ramp, or of a tone.
using Signal = float (*)(int64_t frame, int channel);

float ramp(int64_t frame, int channel) {
  const float v = static_cast<float>(frame % 60000 + 1) / 65536.0f;
  return channel == 0 ? v : -v;
}

float tone440(int64_t frame, int /*channel*/) {
  return 0.5f * static_cast<float>(std::sin(2 * std::numbers::pi * 440.0 * frame / kRate));
}

std::vector<float> frames(Signal signal, int64_t first, int32_t count) {
  std::vector<float> out(2 * static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) {
    out[2 * i] = signal(first + i, 0);
    out[2 * i + 1] = signal(first + i, 1);
  }
  return out;
}

// Frequency of the left channel from its rising zero crossings.
double frequency(const std::vector<float>& stereo) {
  int crossings = 0;
  for (size_t i = 2; i < stereo.size(); i += 2) {
    if (stereo[i - 2] < 0 && stereo[i] >= 0) ++crossings;
  }
  return crossings * static_cast<double>(kRate) / static_cast<double>(stereo.size() / 2);
}

// Stands in for the movie when the graph is driven offline: counts the
// top-up requests and, if it has a signal, tops the FIFO up at once by the
// movie's rule (one chunk while fewer than a chunk's worth are buffered).
struct InlineMovie : VNOutputAudioGraphDelegate {
  void decodeMoreAudioDataToAudioOutput() override {
    ++requests;
    if (!signal || graph->bufferFrames() >= kChunkFrames) return;
    const std::vector<float> chunk = frames(signal, produced, kChunkFrames);
    graph->writeSample(chunk.data(), kChunkFrames);
    produced += kChunkFrames;
  }

  VNOutputAudioGraph* graph = nullptr;
  Signal signal = nullptr;
  int64_t produced = 0;
  int requests = 0;
};

class OutputAudioGraphTest : public ::testing::Test {
 protected:
  void SetUp() override {
    graph_ = VNOutputAudioGraph::create();
    movie_.graph = graph_.get();
    graph_->setDelegate(&movie_);
  }

  // One render call of the whole chain, as the device makes it.
  std::vector<float> render(int32_t count, float fill = 9.0f) {
    std::vector<float> out(2 * static_cast<size_t>(count), fill);
    vn::AudioBuffer buffer{2, static_cast<uint32_t>(out.size() * sizeof(float)), out.data()};
    EXPECT_TRUE(graph_->renderNode(graph_->outputNode(), vn::AudioBufferList(&buffer, 1), count));
    return out;
  }

  void fill(int32_t count) {
    const std::vector<float> data = frames(ramp, 0, count);
    graph_->writeSample(data.data(), count);
  }

  std::shared_ptr<VNOutputAudioGraph> graph_;
  InlineMovie movie_;
};

bool isSilent(const std::vector<float>& out) {
  for (float s : out) {
    if (s != 0.0f) return false;
  }
  return true;
}

}  // namespace

// A render call asks for one top-up and plays only whole answers: a FIFO
// short of the frames asked for is emptied all the same and gives silence.
TEST_F(OutputAudioGraphTest, RenderIsAllOrNothing) {
  struct Case {
    int32_t buffered;
    int32_t asked;
    bool plays;
    uint64_t left;
  };
  for (const Case& c : {Case{0, 1024, false, 0}, Case{1000, 1024, false, 0},
                        Case{1024, 1024, true, 0}, Case{3000, 1024, true, 1976}}) {
    graph_->clearBuffer();
    fill(c.buffered);
    const int requestsBefore = movie_.requests;
    const std::vector<float> out = render(c.asked);
    EXPECT_EQ(movie_.requests - requestsBefore, 1) << c.buffered;
    EXPECT_EQ(isSilent(out), !c.plays) << c.buffered;
    if (c.plays) {
      EXPECT_EQ(out, frames(ramp, 0, c.asked)) << c.buffered;
    }
    EXPECT_EQ(graph_->bufferFrames(), c.left) << c.buffered;
  }
}

// At rate 1.0 and full volume, chunk after chunk comes out bit for bit, with
// the FIFO never holding two chunks.
TEST_F(OutputAudioGraphTest, NormalRatePlaysChunksBackToBack) {
  movie_.signal = ramp;
  int64_t played = 0;
  for (int call = 0; call < 60; ++call) {
    const int32_t count = call % 3 == 0 ? 700 : 512;
    EXPECT_EQ(render(count), frames(ramp, played, count)) << "call " << call;
    played += count;
    EXPECT_LT(graph_->bufferFrames(), 2u * kChunkFrames);
  }
  EXPECT_EQ(movie_.produced - static_cast<int64_t>(graph_->bufferFrames()), played);
}

TEST_F(OutputAudioGraphTest, VolumeScalesTheOutput) {
  EXPECT_EQ(graph_->volume(), 1.0f);
  graph_->setVolume(0.25f);
  EXPECT_EQ(graph_->volume(), 0.25f);
  movie_.signal = ramp;
  const std::vector<float> out = render(512);
  const std::vector<float> in = frames(ramp, 0, 512);
  for (size_t i = 0; i < in.size(); ++i) ASSERT_EQ(out[i], in[i] * 0.25f) << i;

  graph_->setVolume(3.0f);  // a device level is at most 1
  EXPECT_EQ(graph_->volume(), 1.0f);
}

// Speed changes without pitch change: a 440 Hz tone stays at 440 Hz while
// the FIFO is drained rate times as fast as the output plays.
TEST_F(OutputAudioGraphTest, RateChangesSpeedNotPitch) {
  movie_.signal = tone440;
  for (float rate : {0.5f, 1.5f, 2.0f}) {
    graph_->clearBuffer();
    graph_->setRate(rate);
    EXPECT_EQ(graph_->rate(), rate);
    // Let the time-pitch unit fill up, then measure over three seconds.
    for (int i = 0; i < 40; ++i) render(512);
    const int64_t consumedBefore = movie_.produced - static_cast<int64_t>(graph_->bufferFrames());
    std::vector<float> played;
    for (int i = 0; i < 3 * kRate / 512; ++i) {
      const std::vector<float> out = render(512);
      played.insert(played.end(), out.begin(), out.end());
    }
    const int64_t consumed =
        movie_.produced - static_cast<int64_t>(graph_->bufferFrames()) - consumedBefore;
    EXPECT_NEAR(static_cast<double>(consumed) / static_cast<double>(played.size() / 2), rate,
                0.02 * rate);
    EXPECT_NEAR(frequency(played), 440.0, 4.0) << "rate " << rate;
  }
}

// The graph refuses shapes it could not render and forgets removed units.
TEST(AudioGraphTest, ShapesThatCannotRenderAreRefused) {
  auto graph = VNAudioGraph::create();
  EXPECT_EQ(graph->createAUNode(vn::fourCC("aumx"), vn::fourCC("mcmx")), 0);
  const int32_t a = graph->createAUNode(VNAudioGraph::kTypeFormatConverter,
                                        VNAudioGraph::kSubTypeConverter);
  const int32_t b = graph->createAUNode(VNAudioGraph::kTypeFormatConverter,
                                        VNAudioGraph::kSubTypeTimePitch);
  ASSERT_NE(a, 0);
  ASSERT_NE(b, 0);
  graph->connectNode(a, b);
  graph->connectNode(b, a);  // would close a loop
  graph->connectNode(a, a);
  std::vector<float> out(2 * 64, 9.0f);
  vn::AudioBuffer buffer{2, static_cast<uint32_t>(out.size() * sizeof(float)), out.data()};
  EXPECT_TRUE(graph->renderNode(b, vn::AudioBufferList(&buffer, 1), 64));
  EXPECT_TRUE(isSilent(out));  // a has no input: silence

  // The base graph answers no render callback: silence, not stale bytes.
  graph->setInputCallbackForNode(a);
  std::fill(out.begin(), out.end(), 9.0f);
  EXPECT_TRUE(graph->renderNode(b, vn::AudioBufferList(&buffer, 1), 64));
  EXPECT_TRUE(isSilent(out));

  graph->removeAUNode(a);
  EXPECT_EQ(graph->audioUnitForNode(a), nullptr);
  std::fill(out.begin(), out.end(), 9.0f);
  EXPECT_TRUE(graph->renderNode(b, vn::AudioBufferList(&buffer, 1), 64));
  EXPECT_TRUE(isSilent(out));
  EXPECT_FALSE(graph->renderNode(b, vn::AudioBufferList(&buffer, 1), 65));  // too small
  // Without an output unit there is nothing to start.
  graph->start();
  EXPECT_FALSE(graph->isStart());
  EXPECT_EQ(graph->failureReason(), "the audio graph has no output unit");
}
