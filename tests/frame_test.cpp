// End-to-end: `varnel frame` and `thumbnail` on output pixels against the ffmpeg command line.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "test_support.h"

namespace {

using vn::test::fixture;
using vn::test::frameOf;
using vn::test::psnr;
using vn::test::Raster;
using vn::test::readPicture;
using vn::test::runShell;
using vn::test::runVarnel;
using vn::test::shellQuote;

using vn::test::scratch;

// The picture ffmpeg decodes with an accurate seek to a time, as RGBA.
Raster ffmpegAt(const std::string& path, double seconds, const std::string& filters = "") {
  char ss[40];
  std::snprintf(ss, sizeof ss, "-ss %.6f", seconds);
  return readPicture(path, filters, ss);
}

}  // namespace

// Crop as ffmpeg's, a watermark file, a turned phone video (the rest: EffectVideoStreamTest).
TEST(FrameTest, PictureSettingsShowOnTheOutput) {
  const std::string in = fixture("h264_aac.mp4");  // 320x240, 4:3
  // A crop counts from the top left, as ffmpeg's does.
  const Raster cropped =
      frameOf(in, {"-t", "3.01", "--crop", "40,30,160,120", "--size", "160x120"});
  EXPECT_GE(psnr(cropped, ffmpegAt(in, 3, "crop=160:120:40:30")), 40);
  // Zoom 0: the background and the watermark only.
  const std::string mark = scratch("mark.png");
  runShell("ffmpeg -v error -y -f lavfi -i color=c=white:size=32x16 -frames:v 1 " +
           shellQuote(mark));
  const Raster background = frameOf(in, {"-t", "3.01", "--zoom", "0", "--watermark", mark});
  ASSERT_EQ(background.height, 240);
  EXPECT_GT(background.at(5, 235)[0], 250) << "the mark, in the bottom-left corner";
  EXPECT_LT(background.at(100, 100)[0], 64);
  // A phone video turned a quarter gives a portrait picture, as ffmpeg shows it.
  const std::string phone = scratch("phone.mp4");
  const std::string plain = scratch("plain.mp4");
  runShell(
      "ffmpeg -v error -y -f lavfi -i testsrc2=size=320x240:rate=25:duration=2 "
      "-c:v libx264 -pix_fmt yuv420p " +
      shellQuote(plain) + " && ffmpeg -v error -y -i " + shellQuote(plain) +
      " -c copy -metadata:s:v:0 rotate=90 " + shellQuote(phone));
  const Raster portrait = frameOf(phone, {"-t", "1.02"});
  EXPECT_EQ(std::pair(portrait.width, portrait.height), std::pair(240, 320));
  EXPECT_GE(psnr(portrait, ffmpegAt(phone, 1.0)), 40);
}

TEST(FrameTest, ThumbnailsFitTheirBox) {
  struct Case {
    std::string input;
    std::vector<std::string> args;
    int width, height;
  };
  const Case cases[] = {
      {"h264_2997.ts", {"-t", "4"}, 160, 90},        // 638x358, wide
      {"mpeg2_mp2.mpg", {"-t", "50%"}, 160, 120},    // 720x480 with 8:9 pixels: 4:3
      {"h264_aac.mp4", {"-s", "100x300"}, 100, 75},  // 10 % in by default
      {"h264_aac.mp4", {"--sheet", "--count", "4"}, 2 * 164 + 4, 2 * 142 + 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input + " " + c.args[0]);
    const std::string o = scratch("thumb.png");
    std::vector<std::string> args = {"thumbnail", fixture(c.input), "-o", o};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const vn::test::CommandResult r = runVarnel(args);
    ASSERT_EQ(r.status, 0) << r.err;
    const Raster thumb = readPicture(o);
    EXPECT_EQ(std::pair(thumb.width, thumb.height), std::pair(c.width, c.height));
  }
  // Several times in one run: one file each, numbered; all or nothing.
  const std::string numbered = scratch("many-%d.png");
  ASSERT_EQ(
      runVarnel({"thumbnail", fixture("h264_aac.mp4"), "-t", "1,5.5,90%", "-o", numbered}).status,
      0);
  for (int i = 1; i <= 3; ++i)
    EXPECT_EQ(readPicture(scratch("many-" + std::to_string(i) + ".png")).width, 160);
}

// Where one frame ends and the next starts, the one starting there, to the byte as ffmpeg decodes
// it; at 29.97 fps the time over the frame length falls a hair short of the frame's number.
TEST(FrameTest, AFrameStartShowsTheFrameStartingThere) {
  const std::pair<const char*, std::vector<const char*>> cases[] = {
      {"rate_2997.mp4", {"0.5005", "1.001", "2.002"}},  // frames 15, 30, 60
      {"rate_30.mp4", {"1.1"}},                         // frame 33
  };
  for (const auto& [name, times] : cases) {
    const std::string path = fixture(name);
    std::string all;
    for (const char* time : times)
      all += (all.empty() ? "" : ",") + std::string(time);
    // Every time in one thumbnail run, one file each.
    const std::string thumbs = scratch("boundary-%d.png");
    ASSERT_EQ(runVarnel({"thumbnail", path, "-t", all, "-s", "320x240", "-o", thumbs}).status, 0);
    for (size_t i = 0; i < times.size(); ++i) {
      SCOPED_TRACE(std::string(name) + " at " + times[i]);
      // Every frame differs from the one before (a moving pattern): off by one shows.
      const Raster expected = ffmpegAt(path, std::atof(times[i]));
      ASSERT_EQ(expected.width, 320);
      EXPECT_EQ(frameOf(path, {"-t", times[i]}).rgba, expected.rgba);
      EXPECT_EQ(readPicture(scratch("boundary-" + std::to_string(i + 1) + ".png")).rgba,
                expected.rgba);
    }
  }
}

// A display matrix that turns and mirrors is applied whole, as ffmpeg does, by every command.
TEST(FrameTest, AMirroringDisplayMatrixIsShownWhole) {
  struct Case {
    const char* name;
    const char* turn;  // the matrix's turn alone, as --rotate
    int width, height;
  } cases[] = {{"mirror_transpose.mp4", "-90", 180, 320},
               {"mirror_left_right.mp4", "-180", 320, 180},
               {"mirror_antitranspose.mp4", "90", 180, 320}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = fixture(c.name);
    // ffmpeg turns and mirrors by default.
    const Raster shown = ffmpegAt(path, 1);
    ASSERT_EQ(std::pair(shown.width, shown.height), std::pair(c.width, c.height));
    // The same picture only turned (the mirror left out) is far from it.
    EXPECT_LT(psnr(frameOf(path, {"-t", "1", "--rotate", c.turn}), shown), 20);
    EXPECT_EQ(frameOf(path, {"-t", "1"}).rgba, shown.rgba);
    const std::string thumb = scratch("mirrored-thumb.png");
    const std::string box = std::to_string(c.width) + "x" + std::to_string(c.height);
    ASSERT_EQ(runVarnel({"thumbnail", path, "-t", "1", "-s", box, "-o", thumb}).status, 0);
    EXPECT_EQ(readPicture(thumb).rgba, shown.rgba);
    const std::string converted = scratch("mirrored.mkv");
    const vn::test::CommandResult r = runVarnel({"convert", path, converted});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_GE(psnr(ffmpegAt(converted, 1), shown), 28);
  }
}
