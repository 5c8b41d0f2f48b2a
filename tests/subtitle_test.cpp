// End-to-end: text and bitmap subtitles on the pictures of `varnel convert`,
// `varnel frame` and `varnel thumbnail`. A subtitle is found by comparing a
// picture with the same picture made without it: what differs strongly is
// what the subtitle drew. On the flat dark picture of cues_clip.mp4 every
// pixel of white text stands out (tests/fixtures/README.md lists the cues).

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>

#include "test_support.h"

namespace {

using vn::test::fixture;
using vn::test::frameOf;
using vn::test::psnr;
using vn::test::Raster;
using vn::test::readPicture;
using vn::test::runVarnel;

constexpr int kFrameMs = 40;  // cues_clip.mp4 is 25 fps
// Text of a size that suits 320x240 pictures (the default is for HD).
const std::string kFont = "Sans 24";

using vn::test::scratch;

// Where a picture differs strongly from the same picture without subtitles:
// how many pixels, the box around them and how many are on each row and
// column. Encoding leaves differences of a few levels; drawn text and
// subpictures differ by far more.
struct Ink {
  int count = 0;
  int left = 0, top = 0, right = -1, bottom = -1;  // inclusive
  std::vector<int> rows, columns;

  bool empty() const { return count == 0; }
  int width() const { return right - left + 1; }
  int height() const { return bottom - top + 1; }
  // Runs of rows with changed pixels, separated by clear rows: lines of text.
  int bands() const {
    int n = 0;
    for (size_t y = 0; y < rows.size(); ++y)
      n += rows[y] && (y == 0 || !rows[y - 1]);
    return n;
  }
  // The box around the rows and columns with at least `least` changed
  // pixels; with more than one, a solid shape without the odd pixel that
  // scaling a noisy picture another way changes.
  Ink solid(int least) const {
    Ink box = *this;
    auto first = [&](const std::vector<int>& counts, int from, int step) {
      while (from >= 0 && from < int(counts.size()) && counts[size_t(from)] < least)
        from += step;
      return from;
    };
    box.left = first(columns, 0, 1);
    box.right = first(columns, int(columns.size()) - 1, -1);
    box.top = first(rows, 0, 1);
    box.bottom = first(rows, int(rows.size()) - 1, -1);
    return box;
  }
};

Ink inkOf(const Raster& with, const Raster& without, int threshold = 96) {
  Ink ink;
  EXPECT_EQ(with.width, without.width);
  EXPECT_EQ(with.height, without.height);
  if (with.width != without.width || with.height != without.height || with.rgba.empty())
    return ink;
  ink.rows.assign(size_t(with.height), 0);
  ink.columns.assign(size_t(with.width), 0);
  for (int y = 0; y < with.height; ++y) {
    for (int x = 0; x < with.width; ++x) {
      const uint8_t* a = with.at(x, y);
      const uint8_t* b = without.at(x, y);
      if (std::max({std::abs(a[0] - b[0]), std::abs(a[1] - b[1]), std::abs(a[2] - b[2])}) >
          threshold) {
        ++ink.count;
        ++ink.rows[size_t(y)];
        ++ink.columns[size_t(x)];
      }
    }
  }
  return ink.solid(1);
}

std::string describe(const Ink& ink) {
  if (ink.empty())
    return "nothing drawn";
  char text[96];
  std::snprintf(text, sizeof text, "%d pixels in x %d-%d, y %d-%d", ink.count, ink.left, ink.right,
                ink.top, ink.bottom);
  return text;
}

// A SubRip file of one cue over all of cues_clip.mp4.
std::string wholeClipCue(const std::string& name, const std::string& text) {
  const std::string path = scratch(name);
  std::ofstream(path, std::ios::binary) << "1\n00:00:00,000 --> 00:00:08,000\n" << text << "\n";
  return path;
}

bool isRed(const uint8_t* p) {
  return p[0] > 200 && p[1] < 70 && p[2] < 70;
}
bool isWhite(const uint8_t* p) {
  return p[0] > 200 && p[1] > 200 && p[2] > 200;
}

// ---- timing ----------------------------------------------------------------

// cues.srt: Alpha 1.010-2.030 s, Bravo 3-4 s, Charlie 4.5-5.5 s, Delta 5.0-6.2 s,
// Echo of no length at 6.3 s and "{\\an8}Go, team" 6.5-7.22 s.
const int kCues[][2] = {{1010, 2030}, {3000, 4000}, {4500, 5500},
                        {5000, 6200}, {6300, 6300}, {6500, 7220}};
constexpr int kCueFrames = 200;

// Cues whose time holds a frame's middle, strictly, one bit each: convert
// takes each frame's picture and subtitle at the frame's middle.
unsigned cuesAt(int n) {
  const int middle = n * kFrameMs + kFrameMs / 2;
  unsigned shown = 0;
  for (size_t i = 0; i < std::size(kCues); ++i) {
    if (kCues[i][0] < middle && middle < kCues[i][1])
      shown |= 1u << i;
  }
  return shown;
}

// Charlie and Delta overlap: the frames from the one before Charlie shows
// (113) to the one after Delta has gone (155) are the overlap's own test's.
bool inOverlap(int n) {
  return n >= 112 && n <= 155;
}

std::string frameName(int n) {
  char text[40];
  std::snprintf(text, sizeof text, " %d (%.2f s)", n, n * kFrameMs / 1000.0);
  return text;
}

// The same drawing in two pictures: the same box, give or take the pixel
// that encoding noise moves across the threshold.
bool sameDrawing(const Ink& a, const Ink& b) {
  if (a.empty() || b.empty())
    return a.empty() == b.empty();
  return std::abs(a.left - b.left) <= 2 && std::abs(a.right - b.right) <= 2 &&
         std::abs(a.top - b.top) <= 2 && std::abs(a.bottom - b.bottom) <= 2;
}

}  // namespace

// cues_clip.mp4 converted with cues.srt and without subtitles, once for the
// tests that count its frames: what each frame of the first draws over the
// same frame of the second, and where that drawing changes from the frame
// before.
class ConvertedCuesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    const std::string plainPath = scratch("cues-plain.mp4");
    const std::string withPath = scratch("cues-with.mp4");
    vn::test::CommandResult r = runVarnel({"convert", fixture("cues_clip.mp4"), plainPath});
    ASSERT_EQ(r.status, 0) << r.err;
    r = runVarnel({"convert", fixture("cues_clip.mp4"), withPath, "--subtitles",
                   fixture("cues.srt"), "--subtitle-font", kFont});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::vector<Raster> plain = vn::test::readPictures(plainPath, "null");
    const std::vector<Raster> with = vn::test::readPictures(withPath, "null");
    ASSERT_EQ(plain.size(), size_t(kCueFrames));
    ASSERT_EQ(with.size(), size_t(kCueFrames));
    for (int n = 0; n < kCueFrames; ++n) {
      ink_.push_back(inkOf(with[size_t(n)], plain[size_t(n)]));
      if (n > 0 && !sameDrawing(ink_[size_t(n)], ink_[size_t(n - 1)]))
        changes_.insert(n);
    }
  }

  void SetUp() override { ASSERT_EQ(ink_.size(), size_t(kCueFrames)) << "no conversion"; }

  const Ink& ink(int n) const { return ink_[size_t(n)]; }
  bool changesAt(int n) const { return changes_.count(n) > 0; }

  static std::vector<Ink> ink_;
  static std::set<int> changes_;
};

std::vector<Ink> ConvertedCuesTest::ink_;
std::set<int> ConvertedCuesTest::changes_;

// Every frame counted: a cue from s to e is on the frames whose middle is
// strictly after s and strictly before e, never half a frame early or late
// (on cues that start and end on frame times, exactly the frames FFmpeg's
// subtitles filter draws them on); a cue of no length is on none; between
// cues nothing is drawn; and the drawing changes only where a cue comes or
// goes.
TEST_F(ConvertedCuesTest, CuesAreOnTheFramesWhoseMiddleIsInsideTheirTimes) {
  std::string wrong, seen, wanted;
  for (int n = 0; n < kCueFrames; ++n) {
    if (inOverlap(n))
      continue;
    if (ink(n).empty() != (cuesAt(n) == 0))
      wrong += "\n  frame" + frameName(n) + ": " + describe(ink(n)) + ", expected " +
               (cuesAt(n) ? "text" : "none");
    if (changesAt(n))
      seen += frameName(n);
    if (n > 0 && cuesAt(n) != cuesAt(n - 1))
      wanted += frameName(n);
  }
  EXPECT_TRUE(wrong.empty()) << wrong;
  EXPECT_EQ(seen, wanted) << "frames where the drawing changes";
}

// Cues whose times overlap are shown one at a time: Charlie from frame 113
// until it ends (frame 136), the same through the overlap, then Delta from
// the frame after for the rest of its time (to frame 154).
TEST_F(ConvertedCuesTest, OverlappingCuesAreShownOneAfterTheOther) {
  ASSERT_EQ(cuesAt(113), 1u << 2);
  ASSERT_EQ(cuesAt(130), (1u << 2) | (1u << 3));
  ASSERT_EQ(cuesAt(145), 1u << 3);
  EXPECT_TRUE(ink(112).empty()) << describe(ink(112));
  EXPECT_EQ(ink(120).bands(), 1) << describe(ink(120));
  for (int n = 113; n <= 136; ++n)
    EXPECT_TRUE(sameDrawing(ink(n), ink(120))) << frameName(n) << ": " << describe(ink(n));
  EXPECT_EQ(ink(145).bands(), 1) << describe(ink(145));
  EXPECT_FALSE(sameDrawing(ink(120), ink(145))) << "Delta is not Charlie";
  EXPECT_TRUE(changesAt(137)) << "Charlie is gone after its end";
  for (int n = 138; n <= 154; ++n)
    EXPECT_TRUE(sameDrawing(ink(n), ink(145))) << frameName(n) << ": " << describe(ink(n));
  EXPECT_TRUE(ink(155).empty()) << describe(ink(155));
}

// Override tags and markup are read, not drawn: the cue is as wide as its
// text alone. (What is shown is the part after the line's last comma or
// closing brace, " team" or "team" here; a tag drawn as text would widen it.)
// A cue of blanks draws nothing.
TEST(SubtitleTest, MarkupIsReadNotDrawn) {
  const std::string clip = fixture("cues_clip.mp4");
  const Raster plain = frameOf(clip, {"-t", "2.5"});
  auto draw = [&](const std::string& text) {
    return frameOf(clip, {"-t", "2.5", "--subtitle-font", kFont, "--subtitles",
                          wholeClipCue("cue.srt", text)});
  };
  const Ink text = inkOf(draw("Go, team"), plain);
  ASSERT_FALSE(text.empty());
  for (const char* cue :
       {"{\\an8}Go, team", "{\\b1}Go{\\b0}, team", "Go, {\\an8}team", "<b>Go</b>, team",
        "<font color=\"#ffffff\">Go</font>, team", "   ", "\t \t", "<i> </i>", " \n "}) {
    SCOPED_TRACE(cue);
    const Raster got = draw(cue);
    if (std::string(cue).find("Go") == std::string::npos) {
      EXPECT_TRUE(inkOf(got, plain, 24).empty()) << describe(inkOf(got, plain, 24));
      EXPECT_GE(psnr(got, plain), 50);
      continue;
    }
    const Ink ink = inkOf(got, plain);
    EXPECT_NEAR(ink.width(), text.width(), 3) << describe(ink) << " / " << describe(text);
    EXPECT_NEAR(ink.count, text.count, text.count / 10);
  }
  // The tagged cue of cues.srt itself.
  const Ink fromCues = inkOf(
      frameOf(clip, {"-t", "6.86", "--subtitle-font", kFont, "--subtitles", fixture("cues.srt")}),
      frameOf(clip, {"-t", "6.86"}));
  EXPECT_NEAR(fromCues.width(), text.width(), 3) << describe(fromCues) << " / " << describe(text);
}

// ---- appearance --------------------------------------------------------------

// Text is centred across the frame with its bottom at position x height
// above the frame's bottom.
TEST(SubtitleTest, TextIsCentredAndPlacedAtItsPosition) {
  const std::string clip = fixture("cues_clip.mp4");
  const Raster plain = frameOf(clip, {"-t", "2.5"});
  constexpr int kWidth = 320, kHeight = 240;
  auto inkAt = [&](const std::string& srt, const std::string& position) {
    return inkOf(frameOf(clip, {"-t", "2.5", "--subtitle-font", kFont, "--subtitles", srt,
                                "--subtitle-position", position}),
                 plain);
  };
  // "y" and "p" reach down to the bottom of the line.
  const std::string shortLine = wholeClipCue("short.srt", "Gyp");
  const Ink low = inkAt(shortLine, "0.1");
  const Ink middle = inkAt(shortLine, "0.5");
  ASSERT_FALSE(low.empty());
  ASSERT_FALSE(middle.empty());
  EXPECT_NEAR(middle.bottom, kHeight / 2 - 1, 4) << describe(middle);
  EXPECT_NEAR(low.bottom - middle.bottom, int(0.4 * kHeight), 2)
      << describe(low) << " / " << describe(middle);
  EXPECT_NEAR(middle.left, low.left, 1);
  EXPECT_NEAR(middle.left, kWidth - 1 - middle.right, 3) << describe(middle);
  EXPECT_EQ(middle.bands(), 1);
}

// White text on a white picture shows only through its outline and shadow;
// its colour is the one asked for.
TEST(SubtitleTest, OutlineShadowAndColour) {
  const std::string white = fixture("white.mp4");
  const std::string cue = wholeClipCue("seen.srt", "Seen");
  const Raster plain = frameOf(white, {"-t", "1"});
  ASSERT_TRUE(isWhite(plain.at(160, 200)));
  // The outline is 2 by default; a wider one darkens more pixels.
  const std::pair<const char*, bool> cases[] = {
      {"", true},
      {"--subtitle-outline 0", false},
      {"--subtitle-outline 0 --subtitle-shadow 0", false},
      {"--subtitle-outline 0 --subtitle-shadow 3", true},
      {"--subtitle-outline 0 --subtitle-color #000000", true},
      {"--subtitle-outline 1", true},
      {"--subtitle-outline 4", true},
  };
  std::vector<int> counts;
  for (const auto& [extra, visible] : cases) {
    SCOPED_TRACE(extra);
    std::vector<std::string> args = vn::test::words("-t 1 --subtitles " + cue + " " + extra);
    args.insert(args.end(), {"--subtitle-font", kFont});
    counts.push_back(inkOf(frameOf(white, args), plain, 40).count);
    if (visible)
      EXPECT_GT(counts.back(), 50);
    else
      EXPECT_EQ(counts.back(), 0);
  }
  EXPECT_GT(counts[6], counts[5] * 3 / 2);

  // Colours, on the dark clip with no outline: the brightest drawn pixels
  // are the colour itself; a colour half transparent is half as strong.
  const std::string clip = fixture("cues_clip.mp4");
  const Raster dark = frameOf(clip, {"-t", "2.5"});
  const struct {
    const char* colour;
    int lowest[3], highest[3];  // of the drawn pixel with the largest sum
  } colours[] = {
      {"#ff0000", {230, 0, 0}, {255, 60, 60}},
      {"#00ff00", {0, 230, 0}, {60, 255, 60}},
      {"#ffffff", {245, 245, 245}, {255, 255, 255}},
      {"#ffffff80", {100, 100, 100}, {220, 220, 220}},
  };
  for (const auto& c : colours) {
    SCOPED_TRACE(c.colour);
    const Raster got = frameOf(clip, {"-t", "2.5", "--subtitle-font", kFont, "--subtitles", cue,
                                      "--subtitle-outline", "0", "--subtitle-color", c.colour});
    ASSERT_GT(inkOf(got, dark, 40).count, 50);
    // Among the pixels the text changed (the grey box is no text).
    const uint8_t* strongest = nullptr;
    int most = -1;
    for (int y = 0; y < got.height; ++y) {
      for (int x = 0; x < got.width; ++x) {
        const uint8_t* p = got.at(x, y);
        const uint8_t* under = dark.at(x, y);
        const int sum = p[0] + p[1] + p[2];
        if (sum > most && std::max({std::abs(p[0] - under[0]), std::abs(p[1] - under[1]),
                                    std::abs(p[2] - under[2])}) > 40) {
          most = sum;
          strongest = p;
        }
      }
    }
    ASSERT_NE(strongest, nullptr);
    for (int i = 0; i < 3; ++i) {
      EXPECT_GE(strongest[i], c.lowest[i]) << "channel " << i;
      EXPECT_LE(strongest[i], c.highest[i]) << "channel " << i;
    }
  }
}

// The same cue in UTF-8, Windows-1252 and UTF-16 draws the same picture; a
// wrong charset asked for draws other letters.
TEST(SubtitleTest, SubtitleFilesAreReadInTheirCharset) {
  const std::string clip = fixture("cues_clip.mp4");
  auto draw = [&](const std::string& file, const std::string& charset) {
    std::vector<std::string> args = {"-t",  "3",           "--subtitle-font",
                                     kFont, "--subtitles", fixture(file)};
    if (!charset.empty())
      args.insert(args.end(), {"--subtitle-charset", charset});
    return frameOf(clip, args);
  };
  const Raster reference = draw("utf8.srt", "");
  const Ink text = inkOf(reference, frameOf(clip, {"-t", "3"}));
  EXPECT_GT(text.height(), 40) << "two lines: " << describe(text);
  EXPECT_GT(text.count, 300) << describe(text);
  const struct {
    const char* file;
    const char* charset;
    bool same;
  } cases[] = {
      {"utf8.srt", "UTF-8", true},          {"cp1252.srt", "", true},
      {"cp1252.srt", "windows-1252", true}, {"utf16.srt", "", true},
      {"cp1252.srt", "ISO-8859-5", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + c.charset);
    const Raster got = draw(c.file, c.charset);
    if (c.same) {
      EXPECT_GE(psnr(got, reference), 50);
    } else {
      EXPECT_LT(psnr(got, reference), 40);
      EXPECT_FALSE(inkOf(got, reference).empty());
    }
  }
}

// ---- subtitle tracks -----------------------------------------------------------

// A bitmap subpicture is part of the picture: it lands where the picture
// settings take the pixels under it (x 280-439, y 400-447 of 720x480), in
// its colours, a red ring around a white centre, and only while it is shown
// (2 to 4 s).
TEST(SubtitleTest, BitmapTracksAreLaidOverThePicture) {
  const struct {
    const char* file;
    const char* settings;
    int box[4];              // left, top, right, bottom
    int ring[2], centre[2];  // {-1}: the file carries no palette, its colours are a guess
  } cases[] = {
      {"dvdsub.mkv", "", {280, 400, 439, 447}, {288, 406}, {360, 424}},
      {"dvbsub.ts", "", {280, 400, 439, 447}, {288, 406}, {360, 424}},
      {"dvdsub.mpg", "", {280, 400, 439, 447}, {-1}, {-1}},
      // Cropped, mirrored and scaled with the picture.
      {"dvdsub.mkv",
       "--crop 200,300,320,180 --size 640x360",
       {160, 200, 479, 295},
       {176, 212},
       {320, 248}},
      {"dvdsub.mkv", "--vflip", {280, 32, 439, 79}, {288, 73}, {360, 55}},
      {"dvdsub.mkv", "--size 360x240", {140, 200, 219, 223}, {144, 203}, {180, 212}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + c.settings);
    const std::string in = fixture(c.file);
    for (const char* t : {"3", "1", "5"}) {
      SCOPED_TRACE(std::string("-t ") + t);
      std::vector<std::string> args = vn::test::words(std::string("-t ") + t + " " + c.settings);
      const Raster plain = frameOf(in, args);
      args.insert(args.end(), {"--subtitle-track", "0"});
      const Raster got = frameOf(in, args);
      const Ink ink = inkOf(got, plain);
      if (std::string(t) != "3") {
        EXPECT_TRUE(ink.empty()) << describe(ink);
        continue;
      }
      const Ink solid = ink.solid(4);
      EXPECT_NEAR(solid.left, c.box[0], 2) << describe(solid);
      EXPECT_NEAR(solid.top, c.box[1], 2) << describe(solid);
      EXPECT_NEAR(solid.right, c.box[2], 2) << describe(solid);
      EXPECT_NEAR(solid.bottom, c.box[3], 2) << describe(solid);
      EXPECT_GT(ink.count, (c.box[2] - c.box[0]) * (c.box[3] - c.box[1]) / 2) << describe(ink);
      if (c.ring[0] >= 0) {
        EXPECT_TRUE(isRed(got.at(c.ring[0], c.ring[1])));
        EXPECT_TRUE(isWhite(got.at(c.centre[0], c.centre[1])));
      }
      if (*c.settings)
        break;
    }
  }
}

// Thumbnails and frames draw the subtitles of a file and of a track of the
// input, a text or a bitmap one, while a cue is on.
TEST(SubtitleTest, SubtitlesOfAFileOrATrackReachThePicture) {
  const std::string cues = "--subtitles " + fixture("cues.srt");
  const struct {
    const char* command;
    const char* input;
    std::string subtitles;
    const char* time;
    bool drawn;
  } cases[] = {
      {"thumbnail", "cues_clip.mp4", cues, "1.5", true},
      {"thumbnail", "cues_clip.mp4", cues, "2.5", false},
      {"thumbnail", "dvdsub.mkv", "--subtitle-track 0", "3", true},
      {"frame", "multitrack.mkv", "--subtitle-track 0", "4.7", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.command) + " " + c.input + " at " + c.time);
    auto picture = [&](const std::string& extra) {
      const std::string o = scratch("subtitled.png");
      std::vector<std::string> args =
          vn::test::words(std::string(c.command) + " " + fixture(c.input) + " -t " + c.time +
                          " -o " + o + " " + extra);
      args.insert(args.end(), {"--subtitle-font", kFont});
      const vn::test::CommandResult r = runVarnel(args);
      EXPECT_EQ(r.status, 0) << r.err;
      return readPicture(o);
    };
    const Ink ink = inkOf(picture(c.subtitles), picture(""));
    EXPECT_EQ(!ink.empty(), c.drawn) << describe(ink);
  }
  // A conversion with a text track composes its pictures.
  const std::string in = fixture("multitrack.mkv"), o = scratch("with-track.mp4");
  const vn::test::CommandResult r =
      runVarnel({"convert", in, o, "--subtitle-track", "1", "--start", "4", "--duration", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_LT(psnr(readPicture(o, "", "-ss 0.7"), readPicture(in, "", "-ss 4.7")), 35);
}
