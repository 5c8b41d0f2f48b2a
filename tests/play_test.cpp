// End-to-end: `varnel play` recorded through SDL's disk audio driver (raw float32 stereo 44100 Hz,
// in real time); lengths and levels only when the machine keeps up (kRealTime).

#include "audio_analysis.h"
#include "test_support.h"

namespace {

using vn::test::fixture;
using vn::test::kRealTime;

// Longest run of silent samples inside a signal.
size_t longestGap(const std::vector<float>& signal) {
  size_t longest = 0;
  for (size_t run = 0; float s : signal)
    longest = std::max(longest, run = std::abs(s) < 1e-4 ? run + 1 : 0);
  return longest;
}

}  // namespace

// The input's tone from its start, at its pitch at any speed, as long and loud as asked, unbroken.
TEST(PlayCommandTest, RecordsTheSoundAtItsPitchLengthAndLevel) {
  const struct {
    std::string args;
    double pitch, tolerance;
    double seconds;  // of sound recorded; 0 for not checked
    double level;    // against the source from --start; 0 for not checked
  } cases[] = {
      // The 1 kHz tone of the last three seconds.
      {"aac.m4a --start 2", 1000, 5, 3.0, 1.0},
      // At 1.5 times the speed the same three seconds take two.
      {"aac.m4a --start 2 --speed 1.5", 1000, 10, 2.0, 0},
      {"aac.m4a --start 4 --volume 0.5", 1000, 10, 0, 0.5},
      // A disc's title, in the audio track asked for: French.
      {"dvd.iso --title 1 --audio-tracks 1", 660, 8, 0, 0},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    const std::string raw = vn::test::scratch("played-" + std::to_string(++n) + ".raw");
    std::vector<std::string> args = vn::test::words("play " + c.args);
    args[1] = fixture(args[1]);
    const vn::test::CommandResult r =
        vn::test::runVarnel(args, {{"SDL_AUDIODRIVER", "disk"}, {"SDL_DISKAUDIOFILE", raw}}, 60);
    ASSERT_EQ(r.status, 0) << r.err;
    const auto tone = vn::test::audible(vn::test::readRawFloat(raw, 2, 44100).channel(0));
    EXPECT_NEAR(vn::test::zeroCrossingFrequency(tone, 44100), c.pitch, c.tolerance);
    if (kRealTime && c.seconds > 0) {
      EXPECT_NEAR(tone.size() / 44100.0, c.seconds, 0.25);
      // A gap shows as a run of silence far longer than a half period.
      EXPECT_LT(longestGap(tone), 30u);
    }
    if (kRealTime && c.level > 0) {
      const auto source = vn::test::decodeWithFfmpeg(fixture("aac.m4a"), "-ss 4 -t 0.5", 2, 44100);
      EXPECT_NEAR(vn::test::rms(tone) / vn::test::rms(source.channel(0)), c.level, 0.05);
    }
  }
}
