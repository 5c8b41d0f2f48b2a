// A movie playing through SDL's disk driver, which records what the device
// was given (raw float stereo 44100 Hz) at about the speed of a sound card.
// Each test plays well under three seconds.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "audio_analysis.h"
#include "audio_out/audio_device.h"
#include "audio_out/output_audio_graph.h"
#include "media/media_test_support.h"
#include "movie/movie.h"

namespace {

using namespace std::chrono_literals;

constexpr int64_t kRate = VNAudioGraph::kSampleRate;
constexpr int64_t kChunkFrames = 2048;  // what one top-up item mixes
// One device call: the most the device takes between two looks at the clock.
constexpr int64_t kDeviceFrames = vn::AudioDevice::kFramesPerCallback;
constexpr int64_t kSecond = 1000000;

using vn::test::kRealTime;

int64_t framesOf(int64_t microseconds) {
  return (microseconds * kRate + kSecond / 2) / kSecond;
}

using vn::test::mediasOf;

// Which tone is heard in each 10 ms of a recording: 'a' for aac.m4a's 1 kHz,
// 'b' for h264_aac.mp4's 440 Hz, '.' for silence or neither clearly.
std::string toneMap(const std::vector<float>& signal) {
  constexpr size_t kWindow = kRate / 100;
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

  // Opens the medias and seeks to the start, as a player does before it
  // plays: audio is read only after a seek has given the streams a target.
  void open(std::vector<std::shared_ptr<VNFFMedia>> medias) {
    movie_->openMedias(std::move(medias));
    movie_->seek(0);
    movie_->flushOperation();
  }

  // Starts playing into a new recording named after the test and `name`.
  void play(const std::string& name) {
    recording_ = vn::test::scratchDir() + "/" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name() + "-" + name +
                 ".raw";
    // The disk driver reads the file name when the device opens, in play().
    setenv("SDL_DISKAUDIOFILE", recording_.c_str(), 1);
    movie_->play();
    ASSERT_TRUE(movie_->isPlay()) << movie_->audioOutputGraph()->failureReason();
  }

  // Stops the device (which closes the recording) and lets the top-up items
  // already queued run, so the clock and the output buffer hold still.
  void pause() {
    movie_->pause();
    movie_->flushOperation();
  }

  // Holds until the clock reaches `time` while the device plays; false after
  // three seconds (a minute in a build too slow for real time).
  bool playUntil(int64_t time) {
    const auto deadline = std::chrono::steady_clock::now() + (kRealTime ? 3s : 60s);
    while (movie_->currentTime() < time) {
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      std::this_thread::sleep_for(5ms);
    }
    return true;
  }

  // The left channel of the last recording, from its first frame.
  std::vector<float> recorded() { return vn::test::readRawFloat(recording_, 2, kRate).channel(0); }

  std::shared_ptr<VNFFMovie> movie_;
  std::string recording_;
};

}  // namespace

// The clock counts what the device has played: after a pause it matches the
// length of the recording to within one chunk and one device call (calls
// that found nothing to play, the device's own silence as it starts and
// stops), and the sound is the file's tone at its level.
TEST_F(MoviePlaybackTest, ClockTracksThePlayedSamples) {
  open(mediasOf("aac.m4a"));
  play("clock");
  ASSERT_TRUE(playUntil(700000));
  pause();
  const int64_t clock = framesOf(movie_->currentTime());

  // A device call that found the buffer short played silence that the
  // clock rightly does not count (it happens when the machine is slow, as
  // under a sanitizer): leave such calls out once the sound has begun.
  const std::vector<float> recording = recorded();
  std::vector<float> all;
  bool begun = false;
  for (size_t at = 0; at < recording.size(); at += kDeviceFrames) {
    const auto from = recording.begin() + at;
    const auto to = recording.begin() + std::min(recording.size(), at + kDeviceFrames);
    const bool silent = std::all_of(from, to, [](float v) { return v == 0.0f; });
    if (begun && silent && to - from == kDeviceFrames)
      continue;
    begun = begun || !silent;
    all.insert(all.end(), from, to);
  }
  const std::vector<float> sound = vn::test::audible(all);
  if (kRealTime) {
    EXPECT_NEAR(static_cast<double>(all.size()), static_cast<double>(clock),
                kChunkFrames + kDeviceFrames);
    EXPECT_GE(static_cast<int64_t>(sound.size()), clock - kChunkFrames - kDeviceFrames);
  }
  EXPECT_NEAR(vn::test::zeroCrossingFrequency(sound, kRate), 1000, 5);
  const auto source = vn::test::decodeWithFfmpeg(vn::test::fixture("aac.m4a"), "-t 1", 2, kRate);
  EXPECT_NEAR(vn::test::rms(sound) / vn::test::rms(source.channel(0)), 1.0, 0.05);
}

// A pause keeps what waits in the output buffer; playing again plays it
// first, and the clock goes on from where it stood.
TEST_F(MoviePlaybackTest, PauseKeepsTheBufferAndPlayResumes) {
  open(mediasOf("aac.m4a"));
  auto graph = movie_->audioOutputGraph();
  ASSERT_TRUE(graph);
  play("before");
  ASSERT_TRUE(playUntil(400000));
  pause();
  EXPECT_FALSE(movie_->isPlay());
  const uint64_t buffered = graph->bufferFrames();
  const int64_t paused = movie_->currentTime();
  ASSERT_GT(buffered, 0u);
  // Nothing drains a paused output.
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
  const int64_t resumed = framesOf(movie_->currentTime() - paused);
  const vn::test::Samples after = vn::test::readRawFloat(recording_, 2, kRate);
  if (kRealTime) {
    EXPECT_NEAR(static_cast<double>(after.frames()), static_cast<double>(resumed),
                kChunkFrames + kDeviceFrames);
  }
  // The device may play a call or two of silence as it starts; then comes
  // exactly what waited.
  size_t first = 0;
  while (first < after.data.size() && after.data[first] == 0.0f)
    ++first;
  first -= first % 2;
  ASSERT_GE(after.data.size() - first, waiting.size());
  EXPECT_TRUE(std::equal(waiting.begin(), waiting.end(), after.data.begin() + first));
}

// Two medias on the timeline: aac.m4a's 1 kHz from 0 s, h264_aac.mp4's
// 440 Hz from 5 s. A seek while playing moves the clock at once, and after
// the seek only the new time's sound is heard: nothing from before it beyond
// what was played before the call and one chunk.
TEST_F(MoviePlaybackTest, SeekWhilePlayingResumesAtTheNewTime) {
  auto first = mediasOf("aac.m4a");
  auto second = mediasOf("h264_aac.mp4");  // the audio media is the last
  ASSERT_EQ(first.size(), 1u);
  ASSERT_EQ(second.size(), 2u);
  second[1]->setMovie_position(5 * kSecond);
  open({first[0], second[1]});
  play("seek");
  ASSERT_TRUE(playUntil(400000));
  const int64_t before = framesOf(movie_->currentTime());
  constexpr int64_t kTarget = 6 * kSecond;
  movie_->seek(kTarget);
  // Buffered frames from before the seek are subtracted until its item
  // clears them, and a chunk mixed as the seek came may be counted.
  EXPECT_NEAR(static_cast<double>(movie_->currentTime()), static_cast<double>(kTarget),
              2.0 * kChunkFrames * kSecond / kRate);
  ASSERT_TRUE(playUntil(kTarget + 400000));
  pause();
  const int64_t after = framesOf(movie_->currentTime() - kTarget);

  const std::string map = toneMap(recorded());
  const size_t firstA = map.find('a'), lastA = map.rfind('a');
  const size_t firstB = map.find('b'), lastB = map.rfind('b');
  ASSERT_NE(firstA, std::string::npos) << map;
  ASSERT_NE(firstB, std::string::npos) << map;
  EXPECT_LT(lastA, firstB) << map;
  if (!kRealTime)
    return;
  constexpr int64_t kWindow = kRate / 100;
  // Before the seek: what the clock had counted, give or take the silence
  // of the start. That silence is partly the device's own while it waited
  // for the first top-up (which the clock does not count, and which a busy
  // machine makes long) and partly the mix's first 2048 frames (which it
  // does), so the old sound is measured from where it begins and the mix's
  // silence added back. It ends within one chunk after the clock reading
  // (the mix may still hold a little of it), the call the device was making
  // and one more it may have made between the reading and the seek.
  constexpr int64_t kMixStartSilence = 2048;
  const int64_t heardBefore = static_cast<int64_t>(lastA - firstA + 1) * kWindow;
  EXPECT_GE(heardBefore, before - kChunkFrames - kDeviceFrames - 2 * kWindow) << map;
  EXPECT_LE(kMixStartSilence + heardBefore, before + kChunkFrames + 2 * kDeviceFrames + 2 * kWindow)
      << map;
  // After it: what the clock counted since, less the silence of the first
  // pull and, when a top-up was mixing as the seek came, a chunk counted but
  // cleared.
  const int64_t heardAfter = static_cast<int64_t>(lastB - firstB + 1) * kWindow;
  EXPECT_LE(heardAfter, after + kDeviceFrames + kWindow) << map;
  EXPECT_GE(heardAfter, after - 2 * kChunkFrames - kDeviceFrames - 2 * kWindow) << map;
}

// At rate 1.5 the clock tells media time: it advances one and a half times
// as fast as the device plays, and the tone keeps its pitch.
TEST_F(MoviePlaybackTest, RateMovesTheClockFasterThanTheDevice) {
  open(mediasOf("aac.m4a"));
  movie_->setRate(1.5f);
  play("rate");
  ASSERT_TRUE(playUntil(2200000));
  pause();
  const int64_t clock = framesOf(movie_->currentTime());
  const std::vector<float> all = recorded();
  // The time-pitch stage takes 1.5 frames for every frame played, from the
  // first call on (it plays silence while it fills), so the whole recording
  // counts; its ends add a device call or two of silence.
  if (kRealTime) {
    EXPECT_NEAR(static_cast<double>(clock) / static_cast<double>(all.size()), 1.5, 0.08);
  }
  EXPECT_NEAR(vn::test::zeroCrossingFrequency(vn::test::audible(all), kRate), 1000, 10);
}
