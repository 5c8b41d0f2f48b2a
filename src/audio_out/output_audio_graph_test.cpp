#include "audio_out/output_audio_graph.h"
#include "audio_out/time_pitch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <future>
#include <numbers>
#include <vector>

#include "audio_analysis.h"
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
  for (int32_t i = 0; i < 2 * count; ++i)
    out[i] = signal(first + i / 2, i % 2);
  return out;
}

// Frequency of the left channel from its rising zero crossings.
double frequency(const std::vector<float>& stereo) {
  int crossings = 0;
  for (size_t i = 2; i < stereo.size(); i += 2) {
    if (stereo[i - 2] < 0 && stereo[i] >= 0)
      ++crossings;
  }
  return crossings * static_cast<double>(kRate) / static_cast<double>(stereo.size() / 2);
}

// The movie, offline: counts top-ups; with a signal, appends a chunk while less is buffered.
struct InlineMovie : VNOutputAudioGraphDelegate {
  void decodeMoreAudioDataToAudioOutput() override {
    ++requests;
    if (!signal || graph->bufferFrames() >= kChunkFrames)
      return;
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

  std::shared_ptr<VNOutputAudioGraph> graph_;
  InlineMovie movie_;
};

bool isSilent(const std::vector<float>& out) {
  return std::all_of(out.begin(), out.end(), [](float s) { return s == 0; });
}

// A time-pitch source handing out the ramp from frame `next` on.
struct RampSource {
  static void fill(void* self, float* out, int32_t count) {
    auto* source = static_cast<RampSource*>(self);  // allocates nothing
    for (int32_t i = 0; i < 2 * count; ++i)
      out[i] = ramp(source->next + i / 2, i % 2);
    source->next += count;
  }
  int64_t next = 0;
};

}  // namespace

TEST(TimePitchTest, NormalRateIsExactBeforeAndAfterStretching) {
  vn::TimePitch stretch(kRate, 2);
  RampSource source;
  std::vector<float> out(2 * 2048);
  // At 1.0 the source writes straight through, whatever the call size.
  for (int32_t count : {512, 1, 2048, 300}) {
    const int64_t first = source.next;
    stretch.process(out.data(), count, &RampSource::fill, &source);
    EXPECT_EQ(std::vector(out.begin(), out.begin() + 2 * count), frames(ramp, first, count));
    EXPECT_EQ(source.next, first + count);
  }
  // While stretching, a call takes only its share of input, even while the stretcher fills up.
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
  EXPECT_EQ(std::vector(out.begin(), out.begin() + 1024), frames(ramp, first, 512));
  // Rates the pipeline cannot feed are clamped; NaN changes nothing.
  stretch.setRate(100.0f);
  stretch.setRate(std::nanf(""));
  EXPECT_EQ(stretch.rate(), vn::TimePitch::kMaxRate);
}

TEST(TimePitchTest, SteadyStretchingAllocatesNothing) {
  for (float rate : {1.0f, 0.5f, 1.5f, 2.0f}) {
    vn::TimePitch stretch(kRate, 2);
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

// A render asks for one top-up; a FIFO short of the frames asked for is emptied and gives silence.
TEST_F(OutputAudioGraphTest, RenderIsAllOrNothing) {
  struct Case {
    int32_t buffered;
    bool plays;
    uint64_t left;
  };
  for (const Case& c :
       {Case{0, false, 0}, Case{1000, false, 0}, Case{1024, true, 0}, Case{3000, true, 1976}}) {
    SCOPED_TRACE(c.buffered);
    graph_->clearBuffer();
    graph_->writeSample(frames(ramp, 0, c.buffered).data(), c.buffered);
    const int requestsBefore = movie_.requests;
    const std::vector<float> out = render(1024);
    EXPECT_EQ(movie_.requests - requestsBefore, 1);
    EXPECT_EQ(out, c.plays ? frames(ramp, 0, 1024) : std::vector<float>(2 * 1024, 0.0f));
    EXPECT_EQ(graph_->bufferFrames(), c.left);
  }
}

// At rate 1.0 chunks come out bit for bit, never two held; a volume (at most 1) scales the samples.
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

  graph_->setVolume(0.25f);
  std::vector<float> quarter = frames(ramp, played, 512);
  std::transform(quarter.begin(), quarter.end(), quarter.begin(), [](float v) { return v / 4; });
  EXPECT_EQ(render(512), quarter);

  graph_->setVolume(3.0f);  // a device level is at most 1
  EXPECT_EQ(graph_->volume(), 1.0f);
}

// A 440 Hz tone stays at 440 Hz while the FIFO is drained rate times as fast as the output plays.
TEST_F(OutputAudioGraphTest, RateChangesSpeedNotPitch) {
  movie_.signal = tone440;
  for (float rate : {0.5f, 1.5f, 2.0f}) {
    graph_->clearBuffer();
    graph_->setRate(rate);
    for (int i = 0; i < 40; ++i)
      render(512);
    const int64_t consumedBefore = movie_.produced - static_cast<int64_t>(graph_->bufferFrames());
    std::vector<float> played;  // three seconds, once the time-pitch unit has filled
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
  const int32_t a =
      graph->createAUNode(VNAudioGraph::kTypeFormatConverter, VNAudioGraph::kSubTypeConverter);
  const int32_t b =
      graph->createAUNode(VNAudioGraph::kTypeFormatConverter, VNAudioGraph::kSubTypeTimePitch);
  ASSERT_TRUE(a && b);
  graph->connectNode(a, b);
  graph->connectNode(b, a);  // would close a loop
  graph->connectNode(a, a);
  std::vector<float> out(2 * 64);
  vn::AudioBuffer buffer{2, static_cast<uint32_t>(out.size() * sizeof(float)), out.data()};
  // Renders b over stale bytes; true when it gives silence.
  const auto rendersSilence = [&] {
    std::fill(out.begin(), out.end(), 9.0f);
    return graph->renderNode(b, vn::AudioBufferList(&buffer, 1), 64) && isSilent(out);
  };
  EXPECT_TRUE(rendersSilence());      // a has no input
  graph->setInputCallbackForNode(a);  // the base graph answers no render callback
  EXPECT_TRUE(rendersSilence());
  graph->removeAUNode(a);
  EXPECT_EQ(graph->audioUnitForNode(a), nullptr);
  EXPECT_TRUE(rendersSilence());
  EXPECT_FALSE(graph->renderNode(b, vn::AudioBufferList(&buffer, 1), 65));  // too small
  // Without an output unit there is nothing to start.
  graph->start();
  EXPECT_EQ(std::pair(graph->isStart(), graph->failureReason()),
            std::pair(false, std::string("the audio graph has no output unit")));
}

// ---- playback on the device thread, fed from a decode queue ----------------

namespace {

using namespace std::chrono_literals;

// Posts top-ups on a decode queue; counts the device thread's allocations outside the posts.
class QueuedMovie : public VNOutputAudioGraphDelegate {
 public:
  static constexpr int kRecords = 4096;

  // clearBefore: the chunk before which the buffer is dropped, as a seek does; -1 for none.
  QueuedMovie(VNOutputAudioGraph* graph, Signal signal, int chunkLimit, int clearBefore)
      : graph_(graph), signal_(signal), chunkLimit_(chunkLimit), clearBefore_(clearBefore) {}

  void decodeMoreAudioDataToAudioOutput() override {
    const uint64_t before = vn::test::allocationCount();
    const int n = requests_.load(std::memory_order_relaxed);
    queue_.addOperation([this] { topUp(); });
    if (n > 0 && n < kRecords)
      outside_[n] = before - lastAfter_;
    lastAfter_ = vn::test::allocationCount();
    requests_.store(n + 1, std::memory_order_release);
  }

  // Waits until every chunk was made and played; false after 20 s.
  bool waitUntilPlayedOut() {
    return playedOut_.get_future().wait_for(20s) == std::future_status::ready;
  }

  // After the graph stopped: the allocations noted for requests from..end.
  uint64_t allocationsOutsidePosts(int from) {
    uint64_t sum = 0;
    for (int i = from; i < std::min(requests_.load(std::memory_order_acquire), kRecords); ++i)
      sum += outside_[i];
    return sum;
  }

  void finish() { queue_.waitUntilAllOperationsAreFinished(); }
  const std::vector<float>& producedSamples() const { return produced_; }

 private:
  void topUp() {  // decode queue
    if (chunks_ < chunkLimit_ && graph_->bufferFrames() < kChunkFrames) {
      if (chunks_ == clearBefore_) {
        graph_->clearBuffer();
        produced_.clear();
      }
      const std::vector<float> chunk =
          frames(signal_, int64_t{chunks_} * kChunkFrames, kChunkFrames);
      graph_->writeSample(chunk.data(), kChunkFrames);
      produced_.insert(produced_.end(), chunk.begin(), chunk.end());
      ++chunks_;
    }
    if (chunks_ == chunkLimit_ && graph_->bufferFrames() == 0 && !playedOutSet_) {
      playedOutSet_ = true;
      playedOut_.set_value();
    }
  }

  VNOutputAudioGraph* const graph_;  // outlives this
  const Signal signal_;
  const int chunkLimit_;
  const int clearBefore_;
  // Device thread.
  uint64_t lastAfter_ = 0;
  std::array<uint64_t, kRecords> outside_{};  // allocations between two posts
  std::atomic<int> requests_{0};
  // Decode queue.
  int chunks_ = 0;
  bool playedOutSet_ = false;
  std::promise<void> playedOut_;
  std::vector<float> produced_;  // since the last clear
  vn::SerialQueue queue_{"test decode"};
};

class PlaybackDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recording_ = vn::test::scratch(
        std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".raw");
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", recording_.c_str(), 1);
    unsetenv("SDL_DISKAUDIODELAY");
    graph_ = VNOutputAudioGraph::create();
  }

  // Plays `chunks` of the signal to their end, then stops the device (closing the recording).
  void playOut(Signal signal, int chunks, int clearBefore = -1) {
    movie_ = std::make_unique<QueuedMovie>(graph_.get(), signal, chunks, clearBefore);
    graph_->setDelegate(movie_.get());
    graph_->start();
    ASSERT_TRUE(graph_->isStart()) << graph_->failureReason();
    ASSERT_TRUE(movie_->waitUntilPlayedOut());
    graph_->stop();
    movie_->finish();
  }

  void TearDown() override {
    graph_->stop();
    if (movie_)
      movie_->finish();
  }

  // What the device played, from the first sound on.
  std::vector<float> recorded() {
    const std::vector<float> samples = vn::test::readRawFloat(recording_, 2, kRate).data;
    const auto first = std::find_if(samples.begin(), samples.end(), [](float s) { return s != 0; });
    return std::vector<float>(samples.begin() + (first - samples.begin()) / 2 * 2, samples.end());
  }

  std::string recording_;
  std::shared_ptr<VNOutputAudioGraph> graph_;
  std::unique_ptr<QueuedMovie> movie_;
};

}  // namespace

// The device plays exactly what was made and its thread allocates nothing but the top-up posts.
TEST_F(PlaybackDeviceTest, PlaysExactlyWhatWasProduced) {
  ASSERT_NO_FATAL_FAILURE(playOut(ramp, 16));  // about 0.75 s
  std::vector<float> played = recorded();
  const std::vector<float>& produced = movie_->producedSamples();
  ASSERT_GE(played.size(), produced.size());
  EXPECT_TRUE(!vn::test::kRealTime ||
              (std::equal(produced.begin(), produced.end(), played.begin()) &&
               isSilent(std::vector(played.begin() + ptrdiff_t(produced.size()), played.end()))));
  EXPECT_EQ(movie_->allocationsOutsidePosts(10), 0u);
}

// Stretched, scaled playback with a seek keeps the pitch and allocates nothing but the posts.
TEST_F(PlaybackDeviceTest, RateVolumeAndSeekWhilePlaying) {
  graph_->setRate(1.5f);
  graph_->setVolume(0.5f);
  ASSERT_NO_FATAL_FAILURE(playOut(tone440, 24, 12));
  EXPECT_EQ(movie_->allocationsOutsidePosts(40), 0u);
  std::vector<float> played = recorded();
  ASSERT_GT(played.size(), 2u * kRate / 2);
  played.resize(2 * kRate / 2);
  EXPECT_TRUE(!vn::test::kRealTime || std::abs(frequency(played) - 440.0) < 4.0)
      << frequency(played);
  EXPECT_NEAR(*std::max_element(played.begin(), played.end()), 0.25f, 0.05f);
}
