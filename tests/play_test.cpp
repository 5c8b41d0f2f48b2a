// End-to-end: `varnel play` recorded through SDL's disk audio driver, which
// writes what the device was given as raw float32 stereo 44100 Hz, in real
// time. Timing-sensitive, so the ThreadSanitizer run leaves it out, and a
// sanitizer build checks only what holds at any speed.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "audio_analysis.h"
#include "test_support.h"

namespace {

using vn::test::fixture;
using vn::test::kRealTime;

struct Played {
  vn::test::CommandResult result;
  vn::test::Samples recording;
};

Played play(const std::vector<std::string>& extra, const std::string& name) {
  const std::string file = vn::test::scratchDir() + "/" + name + ".raw";
  std::vector<std::string> args = {"play", fixture("aac.m4a")};
  args.insert(args.end(), extra.begin(), extra.end());
  Played p;
  p.result = vn::test::runVarnel(args, {{"SDL_AUDIODRIVER", "disk"}, {"SDL_DISKAUDIOFILE", file}});
  p.recording = vn::test::readRawFloat(file, 2, 44100);
  return p;
}

// Longest run of silent samples inside a signal.
size_t longestGap(const std::vector<float>& signal) {
  size_t longest = 0, run = 0;
  for (float s : signal) {
    run = std::abs(s) < 1e-4 ? run + 1 : 0;
    longest = std::max(longest, run);
  }
  return longest;
}

}  // namespace

// The 1 kHz tone of the last three seconds, played from 2 s: the recording
// holds the tone at its level, without a gap.
TEST(PlayCommandTest, RecordsTheMixWithoutGaps) {
  Played p = play({"--start", "2"}, "normal");
  ASSERT_EQ(p.result.status, 0) << p.result.err;
  const auto tone = vn::test::audible(p.recording.channel(0));
  EXPECT_NEAR(vn::test::zeroCrossingFrequency(tone, 44100), 1000, 5);
  if (!kRealTime)
    return;
  EXPECT_NEAR(tone.size() / 44100.0, 3.0, 0.25);
  const auto source = vn::test::decodeWithFfmpeg(fixture("aac.m4a"), "-ss 2.5 -t 1", 2, 44100);
  EXPECT_NEAR(vn::test::rms(tone) / vn::test::rms(source.channel(0)), 1.0, 0.05);
  // A sine crosses zero every half period; a gap in the sound would show
  // as a run of silence far longer than that.
  EXPECT_LT(longestGap(tone), 30u);
}

// At 1.5 times the speed the same three seconds take two, and the tone keeps
// its pitch.
TEST(PlayCommandTest, SpeedKeepsThePitch) {
  Played p = play({"--start", "2", "--speed", "1.5"}, "fast");
  ASSERT_EQ(p.result.status, 0) << p.result.err;
  const auto tone = vn::test::audible(p.recording.channel(0));
  EXPECT_NEAR(vn::test::zeroCrossingFrequency(tone, 44100), 1000, 10);
  if (kRealTime) {
    EXPECT_NEAR(tone.size() / 44100.0, 2.0, 0.25);
  }
}

TEST(PlayCommandTest, VolumeAndErrors) {
  Played p = play({"--start", "4", "--volume", "0.5"}, "quiet");
  ASSERT_EQ(p.result.status, 0) << p.result.err;
  if (kRealTime) {
    const auto source = vn::test::decodeWithFfmpeg(fixture("aac.m4a"), "-ss 4 -t 0.5", 2, 44100);
    EXPECT_NEAR(
        vn::test::rms(vn::test::audible(p.recording.channel(0))) / vn::test::rms(source.channel(0)),
        0.5, 0.05);
  }

  // No sound device: one line, status 1.
  vn::test::CommandResult r = vn::test::runVarnel(
      {"play", fixture("aac.m4a")},
      {{"SDL_AUDIODRIVER", "disk"}, {"SDL_DISKAUDIOFILE", "/nonexistent/dir/x.raw"}});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("varnel: error: cannot play"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("no sound device"), std::string::npos) << r.err;

  EXPECT_EQ(vn::test::runVarnel({"play", fixture("missing.m4a")}).status, 1);
  EXPECT_EQ(vn::test::runVarnel({"play", fixture("aac.m4a"), "--speed", "9"}).status, 2);
}
