// A movie playing through SDL's disk driver, which records what it plays.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "audio_analysis.h"
#include "audio_out/audio_device.h"
#include "audio_out/output_audio_graph.h"
#include "media/media_test_support.h"
#include "movie/movie.h"

namespace {

using namespace std::chrono_literals;
using vn::test::kRealTime;
using vn::test::mediasOf;

constexpr int64_t kRate = VNAudioGraph::kSampleRate;
constexpr int64_t kChunkFrames = 2048;  // what one top-up item mixes
constexpr int64_t kDeviceFrames = vn::AudioDevice::kFramesPerCallback;
constexpr int64_t kSecond = 1000000;
constexpr int64_t kWindow = kRate / 100;

int64_t framesOf(int64_t microseconds) {
  return (microseconds * kRate + kSecond / 2) / kSecond;
}

// Per 10 ms: 'a' aac.m4a's 1 kHz, 'b' h264_aac.mp4's 440 Hz, '.' neither.
std::string toneMap(const std::vector<float>& signal) {
  std::string map;
  for (size_t at = 0; at + kWindow <= signal.size(); at += kWindow) {
    const std::vector<float> window(signal.begin() + at, signal.begin() + at + kWindow);
    const double a = vn::test::toneAmplitude(window, kRate, 1000);
    const double b = vn::test::toneAmplitude(window, kRate, 440);
    map += a > 0.03 && a > 3 * b ? 'a' : b > 0.03 && b > 3 * a ? 'b' : '.';
  }
  return map;
}

class MoviePlaybackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("SDL_AUDIODRIVER", "disk", 1);
    unsetenv("SDL_DISKAUDIODELAY");
    movie_ = VNFFMovie::create();
  }
  void TearDown() override { pause(); }
  // Audio is read only after a seek has given the streams a target.
  void open(std::vector<std::shared_ptr<VNFFMedia>> medias) {
    movie_->openMedias(std::move(medias));
    movie_->seek(0);
    movie_->flushOperation();
  }
  // Plays into a new recording (the driver reads the name as the device opens).
  void play(const std::string& name) {
    recording_ = vn::test::scratchDir() + "/" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name() + "-" + name +
                 ".raw";
    setenv("SDL_DISKAUDIOFILE", recording_.c_str(), 1);
    movie_->play();
    ASSERT_TRUE(movie_->isPlay()) << movie_->audioOutputGraph()->failureReason();
  }
  // Closes the recording and lets queued top-ups run: clock and buffer hold still.
  void pause() {
    movie_->pause();
    movie_->flushOperation();
  }
  // Until the clock reaches `time`; false after 3 s (60 s if too slow for real time).
  bool playUntil(int64_t time) {
    const auto deadline = std::chrono::steady_clock::now() + (kRealTime ? 3s : 60s);
    while (movie_->currentTime() < time) {
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      std::this_thread::sleep_for(5ms);
    }
    return true;
  }
  vn::test::Samples recorded() { return vn::test::readRawFloat(recording_, 2, kRate); }
  std::shared_ptr<VNFFMovie> movie_;
  std::string recording_;
};

}  // namespace

// A pause holds the buffer and the clock; playing again plays what waited first.
TEST_F(MoviePlaybackTest, ClockTracksThePlayedSamplesAndPauseKeepsTheBuffer) {
  open(mediasOf("aac.m4a"));
  auto graph = movie_->audioOutputGraph();
  ASSERT_TRUE(graph);
  play("before");
  ASSERT_TRUE(playUntil(700000));
  pause();
  EXPECT_FALSE(movie_->isPlay());
  const int64_t paused = movie_->currentTime();
  const uint64_t buffered = graph->bufferFrames();
  ASSERT_GT(buffered, 0u);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(graph->bufferFrames(), buffered);
  EXPECT_EQ(movie_->currentTime(), paused);
  // Note what waits (reading takes it out; it goes back unchanged).
  std::vector<float> waiting(2 * buffered);
  const uint64_t bytes = buffered * VNAudioGraph::kBytesPerFrame;
  ASSERT_EQ(graph->dataBuffer()->readBytes(waiting.data(), bytes), bytes);
  graph->dataBuffer()->appendBytes(waiting.data(), bytes);
  play("after");
  ASSERT_TRUE(playUntil(paused + 300000));
  pause();
  const vn::test::Samples after = recorded();
  if (kRealTime) {
    EXPECT_NEAR(double(after.frames()), double(framesOf(movie_->currentTime() - paused)),
                kChunkFrames + kDeviceFrames);
  }
  // After the device's own starting silence comes exactly what waited.
  size_t first = 0;
  while (first < after.data.size() && after.data[first] == 0.0f)
    ++first;
  first -= first % 2;
  ASSERT_GE(after.data.size() - first, waiting.size());
  EXPECT_TRUE(std::equal(waiting.begin(), waiting.end(), after.data.begin() + first));
}

// Of the old time's sound nothing is heard beyond what was played before the seek and a chunk.
TEST_F(MoviePlaybackTest, SeekWhilePlayingResumesAtTheNewTime) {
  auto first = mediasOf("aac.m4a");        // 1 kHz from 0 s
  auto second = mediasOf("h264_aac.mp4");  // 440 Hz from 5 s, its audio media the last
  ASSERT_EQ(first.size(), 1u);
  ASSERT_EQ(second.size(), 2u);
  second[1]->setMovie_position(5 * kSecond);
  open({first[0], second[1]});
  play("seek");
  ASSERT_TRUE(playUntil(400000));
  const int64_t before = framesOf(movie_->currentTime());
  constexpr int64_t kTarget = 6 * kSecond;
  movie_->seek(kTarget);
  // Frames buffered before the seek count until its item clears them; a chunk mixing may count.
  EXPECT_NEAR(double(movie_->currentTime()), double(kTarget), 2.0 * kChunkFrames * kSecond / kRate);
  ASSERT_TRUE(playUntil(kTarget + 400000));
  pause();
  const int64_t after = framesOf(movie_->currentTime() - kTarget);
  const std::string map = toneMap(recorded().channel(0));
  const size_t firstA = map.find('a'), lastA = map.rfind('a');
  const size_t firstB = map.find('b'), lastB = map.rfind('b');
  ASSERT_TRUE(firstA != std::string::npos && firstB != std::string::npos) << map;
  EXPECT_LT(lastA, firstB) << map;
  if (!kRealTime)
    return;
  // The old sound (plus the mix's first silent frames) ends within a chunk and device calls.
  constexpr int64_t kMixStartSilence = 2048;
  const int64_t heardBefore = int64_t(lastA - firstA + 1) * kWindow;
  EXPECT_GE(heardBefore, before - kChunkFrames - kDeviceFrames - 2 * kWindow) << map;
  EXPECT_LE(kMixStartSilence + heardBefore, before + kChunkFrames + 2 * kDeviceFrames + 2 * kWindow)
      << map;
  // The new: what the clock counted since, less the first pull's silence and a cleared chunk.
  const int64_t heardAfter = int64_t(lastB - firstB + 1) * kWindow;
  EXPECT_LE(heardAfter, after + kDeviceFrames + kWindow) << map;
  EXPECT_GE(heardAfter, after - 2 * kChunkFrames - kDeviceFrames - 2 * kWindow) << map;
}
