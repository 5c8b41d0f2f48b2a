// End-to-end: the subtitle settings of `varnel convert`, `frame` and
// `thumbnail` — which subtitle reaches the picture, and the errors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using vn::test::fixture;
using vn::test::psnr;
using vn::test::Raster;
using vn::test::readPicture;
using vn::test::runVarnel;
namespace fs = std::filesystem;

std::string out(const std::string& name) {
  return vn::test::scratchDir() + "/" + name;
}

Raster frame(const std::string& input, double seconds, const std::vector<std::string>& options) {
  static int count = 0;
  const std::string o = out("subtitle-frame-" + std::to_string(++count) + ".png");
  char time[32];
  std::snprintf(time, sizeof time, "%.3f", seconds);
  std::vector<std::string> args = {"frame", input, "-t", time, "-o", o};
  args.insert(args.end(), options.begin(), options.end());
  const vn::test::CommandResult r = runVarnel(args);
  EXPECT_EQ(r.status, 0) << r.err;
  return readPicture(o);
}

// The subpicture of dvdsub.mkv (tests/fixtures/README.md): 160x48 at
// (280, 400), a red ring 16 px wide left and right and 12 px high top and
// bottom around a white centre.
constexpr int kSpuX = 280, kSpuY = 400, kSpuW = 160, kSpuH = 48;

bool near(const uint8_t* p, int r, int g, int b) {
  return std::abs(p[0] - r) < 24 && std::abs(p[1] - g) < 24 && std::abs(p[2] - b) < 24;
}

TEST(SubtitleCliTest, BadSettingsAreOneLineAndLeaveNothing) {
  const std::string in = fixture("multitrack.mkv");
  const std::string srt = fixture("subs.srt");
  const std::string png = out("bad-subtitle.png");
  const std::string mp4 = out("bad-subtitle.mp4");
  const std::string missing = out("missing.srt");
  const struct {
    std::vector<std::string> options;
    int status;
    std::string named;  // what the error line names
  } cases[] = {
      {{"--subtitle-track", "x"}, 2, "x"},
      {{"--subtitle-track", "-1"}, 2, "-1"},
      {{"--subtitle-track", "2"}, 2, "2"},  // two subtitle tracks: 0 and 1
      {{"--subtitles", srt, "--subtitle-track", "0"}, 2, "0"},
      {{"--subtitles", srt, "--subtitle-charset", "NO-SUCH-CHARSET"}, 2, "NO-SUCH-CHARSET"},
      {{"--subtitle-outline", "-1"}, 2, "-1"},
      {{"--subtitle-outline", "2px"}, 2, "2px"},
      {{"--subtitle-shadow", "nan"}, 2, "nan"},
      {{"--subtitle-color", "#12345"}, 2, "#12345"},
      {{"--subtitle-color", "#gg0000"}, 2, "#gg0000"},
      {{"--subtitle-color", "purple"}, 2, "purple"},
      {{"--subtitle-position", "1"}, 2, "1"},
      {{"--subtitle-position", "-0.1"}, 2, "-0.1"},
      {{"--subtitle-font", " "}, 2, " "},
      {{"--subtitles", missing}, 1, missing},
      {{"--subtitles", vn::test::scratchDir()}, 1, vn::test::scratchDir()},
      {{"--subtitles", fixture("empty.mp4")}, 1, fixture("empty.mp4")},
      {{"--subtitles", fixture("aac.m4a")}, 1, fixture("aac.m4a")},  // no subtitle stream
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options.front() + " " + c.options.back());
    for (const char* command : {"frame", "thumbnail", "convert"}) {
      SCOPED_TRACE(command);
      std::vector<std::string> args = {command, in};
      if (std::string(command) == "convert")
        args.push_back(mp4);
      else
        args.insert(args.end(), {"-t", "1", "-o", png});
      args.insert(args.end(), c.options.begin(), c.options.end());
      const vn::test::CommandResult r = runVarnel(args);
      EXPECT_EQ(r.status, c.status) << r.err;
      EXPECT_EQ(r.err.rfind("varnel: error: ", 0), 0u) << r.err;
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
      EXPECT_NE(r.err.find("'" + c.named + "'"), std::string::npos) << r.err;
      EXPECT_FALSE(fs::exists(png));
      EXPECT_FALSE(fs::exists(mp4));
    }
  }
  // An input without subtitle tracks has no track 0.
  const vn::test::CommandResult r =
      runVarnel({"frame", fixture("h264_aac.mp4"), "-t", "1", "-o", png, "--subtitle-track", "0"});
  EXPECT_EQ(r.status, 2) << r.err;
  EXPECT_FALSE(fs::exists(png));
}

// Without a subtitle setting the input's own bitmap subtitle is not laid
// over the picture: the frame is the decoded picture, as ffmpeg gives it.
// With its track it is, where the subpicture says, and nowhere else.
TEST(SubtitleCliTest, BitmapTrackIsShownOnlyWhenAskedFor) {
  const std::string in = fixture("dvdsub.mkv");
  // The picture that covers 3 s starts at 2.970 s (29.97 fps, in
  // milliseconds).
  const Raster decoded = readPicture(in, "", "-ss 2.965");
  ASSERT_EQ(decoded.width, 720);
  const Raster plain = frame(in, 3, {});
  const Raster shown = frame(in, 3, {"--subtitle-track", "0"});
  ASSERT_EQ(plain.width, 720);
  ASSERT_EQ(shown.width, 720);

  const Raster decodedSpu = decoded.part(kSpuX, kSpuY, kSpuW, kSpuH);
  EXPECT_GE(psnr(plain.part(kSpuX, kSpuY, kSpuW, kSpuH), decodedSpu), 30);
  EXPECT_GE(psnr(plain, decoded), 30);
  // The ring and the centre, away from their edges.
  const int ring[][2] = {
      {kSpuX + 8, kSpuY + 24}, {kSpuX + 80, kSpuY + 6}, {kSpuX + 152, kSpuY + 40}};
  const int centre[][2] = {{kSpuX + 40, kSpuY + 20}, {kSpuX + 120, kSpuY + 30}};
  for (const auto& p : ring) {
    EXPECT_TRUE(near(shown.at(p[0], p[1]), 255, 0, 0)) << p[0] << "," << p[1];
    EXPECT_FALSE(near(plain.at(p[0], p[1]), 255, 0, 0)) << p[0] << "," << p[1];
  }
  for (const auto& p : centre)
    EXPECT_TRUE(near(shown.at(p[0], p[1]), 255, 255, 255)) << p[0] << "," << p[1];
  // Above the subpicture the two frames are the same picture.
  EXPECT_GE(psnr(shown.part(0, 0, 720, kSpuY), plain.part(0, 0, 720, kSpuY)), 40);

  // Before the subpicture starts there is nothing to lay over.
  EXPECT_GE(psnr(frame(in, 1, {"--subtitle-track", "0"}), frame(in, 1, {})), 40);
}

// A text track of the input reaches the picture while a cue is shown, in a
// frame and in a conversion (which then composes its pictures).
TEST(SubtitleCliTest, TextTrackOfTheInputIsDrawn) {
  const std::string in = fixture("multitrack.mkv");
  const Raster cue = frame(in, 4.7, {"--subtitle-track", "0"});
  ASSERT_EQ(cue.width, 320);
  EXPECT_LT(psnr(cue, frame(in, 4.7, {})), 35);
  const std::string o = out("with-track.mp4");
  const vn::test::CommandResult r =
      runVarnel({"convert", in, o, "--subtitle-track", "1", "--start", "4", "--duration", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_LT(psnr(readPicture(o, "", "-ss 0.7"), readPicture(in, "", "-ss 4.7")), 35);
}

}  // namespace
