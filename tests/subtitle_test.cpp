// End-to-end: subtitles on the pictures of `varnel convert`, `frame` and `thumbnail`.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include "test_support.h"

namespace {

using vn::test::fixture;
using vn::test::psnr;
using vn::test::Raster;
using vn::test::readPicture;
using vn::test::runVarnel;
using vn::test::scratch;

constexpr int kFrameMs = 40;  // cues_clip.mp4 is 25 fps
// Text of a size that suits 320x240 pictures: 24 pixels there (sizes are given for 1080 lines).
const std::string kFont = "Sans 108";

// The picture `varnel frame` (or thumbnail) takes of input with the arguments, in kFont.
Raster frameOf(const std::string& input, const std::string& args, const char* command = "frame") {
  const std::string png = scratch("picture.png");
  std::remove(png.c_str());
  std::vector<std::string> all =
      vn::test::words(std::string(command) + " " + input + " -o " + png + " " + args);
  all.insert(all.end(), {"--subtitle-font", kFont});
  const vn::test::CommandResult r = runVarnel(all);
  EXPECT_EQ(r.status, 0) << r.err;
  return readPicture(png);
}

// Where a picture differs strongly from the one without subtitles: count, box, rows and columns.
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
  // The box of the rows and columns with at least `least` changed pixels.
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

// The largest change of a colour byte between two pixels.
int change(const uint8_t* a, const uint8_t* b) {
  return std::max({std::abs(a[0] - b[0]), std::abs(a[1] - b[1]), std::abs(a[2] - b[2])});
}

Ink inkOf(const Raster& with, const Raster& without, int threshold = 96) {
  Ink ink;
  EXPECT_EQ(std::pair(with.width, with.height), std::pair(without.width, without.height));
  if (with.width != without.width || with.height != without.height || with.rgba.empty())
    return ink;
  ink.rows.assign(size_t(with.height), 0);
  ink.columns.assign(size_t(with.width), 0);
  for (int y = 0; y < with.height; ++y) {
    for (int x = 0; x < with.width; ++x) {
      if (change(with.at(x, y), without.at(x, y)) > threshold) {
        ++ink.count;
        ++ink.rows[size_t(y)];
        ++ink.columns[size_t(x)];
      }
    }
  }
  return ink.solid(1);
}

std::string describe(const Ink& ink) {
  return ink.empty() ? "nothing drawn"
                     : std::to_string(ink.count) + " pixels in x " + std::to_string(ink.left) +
                           "-" + std::to_string(ink.right) + ", y " + std::to_string(ink.top) +
                           "-" + std::to_string(ink.bottom);
}

// A SubRip file of one cue over all of cues_clip.mp4.
std::string wholeClipCue(const std::string& name, const std::string& text) {
  std::ofstream(scratch(name), std::ios::binary) << "1\n00:00:00,000 --> 00:00:08,000\n"
                                                 << text << "\n";
  return scratch(name);
}

bool isRed(const uint8_t* p) {
  return p[0] > 200 && p[1] < 70 && p[2] < 70;
}
bool isWhite(const uint8_t* p) {
  return p[0] > 200 && p[1] > 200 && p[2] > 200;
}

// ---- timing ----------------------------------------------------------------

// cues.srt: Alpha, Bravo, Charlie, Delta, Echo (no length), "{\\an8}Go, team".
const int kCues[][2] = {{1010, 2030}, {3000, 4000}, {4500, 5500},
                        {5000, 6200}, {6300, 6300}, {6500, 7220}};
constexpr int kCueFrames = 200;

// One bit for each cue shown at frame n's middle: from its start, up to but not including its
// end (a cue of no length is never shown).
unsigned cuesAt(int n) {
  const int middle = n * kFrameMs + kFrameMs / 2;
  unsigned shown = 0;
  for (size_t i = 0; i < std::size(kCues); ++i) {
    if (kCues[i][0] <= middle && middle < kCues[i][1])
      shown |= 1u << i;
  }
  return shown;
}

// The same drawing: the same box, give or take a pixel of encoding noise.
bool sameDrawing(const Ink& a, const Ink& b) {
  if (a.empty() || b.empty())
    return a.empty() == b.empty();
  return std::abs(a.left - b.left) <= 2 && std::abs(a.right - b.right) <= 2 &&
         std::abs(a.top - b.top) <= 2 && std::abs(a.bottom - b.bottom) <= 2;
}

}  // namespace

// A cue from s to e is on the frames whose middle is strictly inside (s, e), a cue of no length on
// none; overlapping cues one at a time (Charlie 113-136, then Delta to 154).
TEST(SubtitleTest, ConvertedCuesAreOnTheFramesWhoseMiddleIsInsideTheirTimes) {
  const std::string plainPath = scratch("cues-plain.mp4"), withPath = scratch("cues-with.mp4");
  vn::test::CommandResult r = runVarnel({"convert", fixture("cues_clip.mp4"), plainPath});
  ASSERT_EQ(r.status, 0) << r.err;
  r = runVarnel({"convert", fixture("cues_clip.mp4"), withPath, "--subtitles", fixture("cues.srt"),
                 "--subtitle-font", kFont});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<Raster> plain = vn::test::readPictures(plainPath, "null");
  const std::vector<Raster> with = vn::test::readPictures(withPath, "null");
  ASSERT_TRUE(plain.size() == size_t(kCueFrames) && with.size() == size_t(kCueFrames));
  std::vector<Ink> ink;
  std::string wrong, seen, wanted;
  for (int n = 0; n < kCueFrames; ++n) {
    ink.push_back(inkOf(with[size_t(n)], plain[size_t(n)]));
    if (n >= 112 && n <= 155)
      continue;  // the overlap, below
    if (ink.back().empty() != (cuesAt(n) == 0))
      wrong += "\n  frame " + std::to_string(n) + ": " + describe(ink.back()) + ", expected " +
               (cuesAt(n) ? "text" : "none");
    if (n > 0 && !sameDrawing(ink[size_t(n)], ink[size_t(n - 1)]))
      seen += " " + std::to_string(n);
    if (n > 0 && cuesAt(n) != cuesAt(n - 1))
      wanted += " " + std::to_string(n);
  }
  EXPECT_TRUE(wrong.empty()) << wrong;
  EXPECT_EQ(seen, wanted) << "frames where the drawing changes";

  // Charlie alone from 112, Delta above it from 125, Delta alone from 137 until 154.
  EXPECT_TRUE(ink[111].empty() && ink[155].empty());
  EXPECT_TRUE(ink[120].bands() == 1 && ink[145].bands() == 1 && !sameDrawing(ink[120], ink[145]))
      << describe(ink[120]) << " / " << describe(ink[145]);
  for (size_t n = 112; n <= 154; ++n) {
    if (n >= 125 && n <= 136) {
      EXPECT_EQ(ink[n].bands(), 2) << "frame " << n << ": " << describe(ink[n]);
    } else {
      EXPECT_TRUE(sameDrawing(ink[n], ink[n < 125 ? 120 : 145]))
          << "frame " << n << ": " << describe(ink[n]);
    }
  }
}

// ---- appearance --------------------------------------------------------------

// The text's bottom is at position x height (centring: SubtitleDrawingTest); tags and markup are
// read, not drawn as text (nothing is cut at a comma); blanks draw nothing.
TEST(SubtitleTest, TextIsPlacedAtItsPositionAndMarkupIsReadNotDrawn) {
  const std::string clip = fixture("cues_clip.mp4");
  const Raster plain = frameOf(clip, "-t 2.5");
  auto draw = [&](const std::string& text, const std::string& extra = "") {
    return frameOf(clip, "-t 2.5 --subtitles " + wholeClipCue("cue.srt", text) + extra);
  };
  // "y" and "p" reach down to the bottom of the line.
  const Ink low = inkOf(draw("Gyp", " --subtitle-position 0.1"), plain);
  const Ink middle = inkOf(draw("Gyp", " --subtitle-position 0.5"), plain);
  ASSERT_FALSE(low.empty() || middle.empty());
  EXPECT_NEAR(middle.bottom, 240 / 2 - 1, 4) << describe(middle);
  EXPECT_NEAR(low.bottom - middle.bottom, int(0.4 * 240), 2)
      << describe(low) << " / " << describe(middle);

  const Ink text = inkOf(draw("Go, team"), plain);
  ASSERT_FALSE(text.empty());
  // Bold is drawn bold: wider, and more of it.
  const Ink bold = inkOf(draw("<b>Go</b>, team"), plain);
  EXPECT_GT(bold.width(), text.width()) << describe(bold) << " / " << describe(text);
  EXPECT_GT(bold.count, text.count);
  for (const char* cue : {"{\\an8}Go, team", "Go, {\\an8}team",
                          "<font color=\"#ffffff\">Go</font>, team", "   ", "<i> </i>", " \n "}) {
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
}

// White text on white shows only through its outline and shadow; its colour is the one asked.
TEST(SubtitleTest, OutlineShadowAndColour) {
  const std::string white = fixture("white.mp4");
  const std::string cue = " --subtitles " + wholeClipCue("seen.srt", "Seen") + " ";
  const Raster plain = frameOf(white, "-t 1");
  ASSERT_TRUE(isWhite(plain.at(160, 200)));
  // The default style has an outline (the plain renderer's widths: SubtitleDrawingTest).
  const std::pair<const char*, bool> cases[] = {
      {"", true},
      {"--subtitle-outline 0 --subtitle-shadow 0", false},
      {"--subtitle-outline 0 --subtitle-shadow 14", true},
  };
  for (const auto& [extra, visible] : cases) {
    const int count = inkOf(frameOf(white, "-t 1" + cue + extra), plain, 40).count;
    EXPECT_TRUE(visible ? count > 50 : count == 0) << extra << ": " << count;
  }

  // On the dark clip without outline the brightest drawn pixel is the colour,
  // half as strong when half transparent.
  const Raster dark = frameOf(fixture("cues_clip.mp4"), "-t 2.5");
  const struct {
    const char* colour;
    int lowest[3], highest[3];  // of the drawn pixel with the largest sum
  } colours[] = {
      {"#ff0000", {230, 0, 0}, {255, 60, 60}},
      {"#ffffff80", {100, 100, 100}, {220, 220, 220}},
  };
  for (const auto& c : colours) {
    SCOPED_TRACE(c.colour);
    const Raster got =
        frameOf(fixture("cues_clip.mp4"),
                "-t 2.5" + cue + "--subtitle-outline 0 --subtitle-color " + c.colour);
    // Among the pixels the text changed (the grey box is no text).
    const uint8_t* strongest = nullptr;
    for (size_t i = 0; i < got.rgba.size(); i += 4) {
      const uint8_t* p = &got.rgba[i];
      if (change(p, &dark.rgba[i]) > 40 &&
          (!strongest || p[0] + p[1] + p[2] > strongest[0] + strongest[1] + strongest[2]))
        strongest = p;
    }
    ASSERT_NE(strongest, nullptr);
    for (int i = 0; i < 3; ++i)
      EXPECT_TRUE(strongest[i] >= c.lowest[i] && strongest[i] <= c.highest[i])
          << "channel " << i << ": " << int(strongest[i]);
  }
}

// A cue in UTF-8 or Windows-1252 draws the same; a wrong charset asked for other letters.
TEST(SubtitleTest, SubtitleFilesAreReadInTheirCharset) {
  const std::string clip = fixture("cues_clip.mp4");
  auto draw = [&](const std::string& file) {
    return frameOf(clip, "-t 3 --subtitles " + fixture(file));
  };
  const Raster reference = draw("utf8.srt");
  const Ink text = inkOf(reference, frameOf(clip, "-t 3"));
  EXPECT_TRUE(text.height() > 40 && text.count > 300) << "two lines: " << describe(text);
  EXPECT_GE(psnr(draw("cp1252.srt"), reference), 50);  // guessed; every guess is the unit tests'
  EXPECT_LT(psnr(draw("cp1252.srt --subtitle-charset ISO-8859-5"), reference), 40);
}

// ---- subtitle tracks -----------------------------------------------------------

// A subpicture (x 280-439, y 400-447 of 720x480, 2-4 s) goes where the settings take its pixels.
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
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + c.settings);
    const std::string in = fixture(c.file);
    for (const char* t : {"3", "1", "5"}) {
      const std::string args = std::string("-t ") + t + " " + c.settings;
      SCOPED_TRACE(args);
      const Raster got = frameOf(in, args + " --subtitle-track 0");
      const Ink ink = inkOf(got, frameOf(in, args));
      if (std::string(t) != "3") {
        EXPECT_TRUE(ink.empty()) << describe(ink);
        continue;
      }
      const Ink solid = ink.solid(4);
      EXPECT_LE(std::max({std::abs(solid.left - c.box[0]), std::abs(solid.top - c.box[1]),
                          std::abs(solid.right - c.box[2]), std::abs(solid.bottom - c.box[3])}),
                2)
          << describe(solid);
      EXPECT_GT(ink.count, (c.box[2] - c.box[0]) * (c.box[3] - c.box[1]) / 2) << describe(ink);
      EXPECT_TRUE(c.ring[0] < 0 || (isRed(got.at(c.ring[0], c.ring[1])) &&
                                    isWhite(got.at(c.centre[0], c.centre[1]))));
      if (*c.settings)
        break;
    }
  }
}

// Thumbnails, frames and conversions draw a file's or a track's subtitles while a cue is on.
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
    const std::string in = fixture(c.input), at = std::string("-t ") + c.time;
    const Ink ink =
        inkOf(frameOf(in, at + " " + c.subtitles, c.command), frameOf(in, at, c.command));
    EXPECT_EQ(!ink.empty(), c.drawn) << describe(ink);
  }
  const std::string in = fixture("multitrack.mkv"), o = scratch("with-track.mp4");
  const vn::test::CommandResult r =
      runVarnel({"convert", in, o, "--subtitle-track", "1", "--start", "4", "--duration", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_LT(psnr(readPicture(o, "", "-ss 0.7"), readPicture(in, "", "-ss 4.7")), 35);
}
