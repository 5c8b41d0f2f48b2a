// End-to-end: text and bitmap subtitles on the pictures of `varnel convert`,
// `varnel frame` and `varnel thumbnail`. A subtitle is found by comparing a
// picture with the same picture made without it: what differs strongly is
// what the subtitle drew. On the flat dark picture of cues_clip.mp4 every
// pixel of white text stands out (tests/fixtures/README.md lists the cues).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using vn::test::fixture;
using vn::test::psnr;
using vn::test::Raster;
using vn::test::readPicture;
using vn::test::runVarnel;

constexpr int kFrameMs = 40;  // cues_clip.mp4 is 25 fps
// Text of a size that suits 320x240 pictures (the default is for HD).
const std::string kFont = "Sans 24";

std::string out(const std::string& name) {
  return vn::test::scratchDir() + "/" + name;
}

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
  // pixels: a solid shape without the odd pixel that scaling a noisy
  // picture another way changes.
  Ink solid(int least) const {
    Ink box = *this;
    auto first = [&](const std::vector<int>& counts) {
      int i = 0;
      while (i < int(counts.size()) && counts[size_t(i)] < least)
        ++i;
      return i;
    };
    auto last = [&](const std::vector<int>& counts) {
      int i = int(counts.size()) - 1;
      while (i >= 0 && counts[size_t(i)] < least)
        --i;
      return i;
    };
    box.left = first(columns);
    box.right = last(columns);
    box.top = first(rows);
    box.bottom = last(rows);
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
  ink.left = with.width;
  ink.top = with.height;
  for (int y = 0; y < with.height; ++y) {
    for (int x = 0; x < with.width; ++x) {
      const uint8_t* a = with.at(x, y);
      const uint8_t* b = without.at(x, y);
      if (std::max({std::abs(a[0] - b[0]), std::abs(a[1] - b[1]), std::abs(a[2] - b[2])}) <=
          threshold)
        continue;
      ++ink.count;
      ++ink.rows[size_t(y)];
      ++ink.columns[size_t(x)];
      ink.left = std::min(ink.left, x);
      ink.right = std::max(ink.right, x);
      ink.top = std::min(ink.top, y);
      ink.bottom = std::max(ink.bottom, y);
    }
  }
  if (ink.empty())
    ink.left = ink.top = 0;
  return ink;
}

std::string describe(const Ink& ink) {
  if (ink.empty())
    return "nothing drawn";
  char text[96];
  std::snprintf(text, sizeof text, "%d pixels in x %d-%d, y %d-%d", ink.count, ink.left, ink.right,
                ink.top, ink.bottom);
  return text;
}

// One picture of `varnel frame` (the command's own arguments follow INPUT).
Raster frame(const std::string& input, const std::vector<std::string>& args) {
  static int counter = 0;
  const std::string o = out("frame-" + std::to_string(++counter) + ".png");
  std::vector<std::string> all = {"frame", input, "-o", o};
  all.insert(all.end(), args.begin(), args.end());
  const vn::test::CommandResult r = runVarnel(all);
  EXPECT_EQ(r.status, 0) << r.err;
  return readPicture(o);
}

// A SubRip file of one cue over all of cues_clip.mp4.
std::string wholeClipCue(const std::string& name, const std::string& text) {
  const std::string path = out(name);
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

struct Cue {
  int startMs, endMs;
  const char* text;
};
// cues.srt.
const Cue kCues[] = {
    {1010, 2030, "Alpha"}, {3000, 4000, "Bravo"}, {4500, 5500, "Charlie"},
    {5000, 6200, "Delta"}, {6300, 6300, "Echo"},  {6500, 7220, "{\\an8}Go, team"},
};
constexpr int kCueFrames = 200;

// convert takes each frame's picture and subtitle at the frame's middle.
int middleMs(int n) {
  return n * kFrameMs + kFrameMs / 2;
}

// The first frame whose middle is after a time and the last frame whose
// middle is before it, strictly.
int firstFrameAfter(int ms) {
  int n = 0;
  while (middleMs(n) <= ms)
    ++n;
  return n;
}
int lastFrameBefore(int ms) {
  int n = 0;
  while (middleMs(n + 1) < ms)
    ++n;
  return n;
}

// Cues whose time holds a frame's middle, one bit each.
unsigned cuesAt(int n) {
  unsigned shown = 0;
  for (size_t i = 0; i < std::size(kCues); ++i) {
    if (kCues[i].startMs < middleMs(n) && middleMs(n) < kCues[i].endMs)
      shown |= 1u << i;
  }
  return shown;
}

std::string frameName(int n) {
  char text[40];
  std::snprintf(text, sizeof text, "%d (%.2f s)", n, n * kFrameMs / 1000.0);
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

// Whether a cue's time overlaps another cue's.
bool overlaps(const Cue& cue) {
  for (const Cue& other : kCues) {
    if (&other != &cue && other.startMs < cue.endMs && cue.startMs < other.endMs)
      return true;
  }
  return false;
}

// Frames a cue's appearing and going touch: from the last frame before it
// to the first frame after it.
bool near(const Cue& cue, int n) {
  return firstFrameAfter(cue.startMs) - 1 <= n && n <= lastFrameBefore(cue.endMs) + 1;
}

}  // namespace

// cues_clip.mp4 converted with cues.srt and without subtitles, once for the
// tests that count its frames: what each frame of the first draws over the
// same frame of the second, and where that drawing changes from the frame
// before.
class ConvertedCuesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    const std::string plainPath = out("cues-plain.mp4");
    const std::string withPath = out("cues-with.mp4");
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

  // Where the picture changes nearest to frame n, other than where it should.
  std::string nearestChange(int n) const {
    int best = -1;
    for (int c : changes_) {
      if (cuesAt(c) == cuesAt(c - 1) && (best < 0 || std::abs(c - n) < std::abs(best - n)))
        best = c;
    }
    return best < 0 ? std::string("none") : frameName(best);
  }

  // A cue appears on the first frame after its start and is gone from the
  // first frame after its end: the picture changes on exactly those frames.
  void expectAppearsAndGoes(const Cue& cue) const {
    const int first = firstFrameAfter(cue.startMs);
    const int last = lastFrameBefore(cue.endMs);
    const int middle = ((cue.startMs + cue.endMs) / 2) / kFrameMs;
    EXPECT_FALSE(ink(middle).empty()) << "at its middle, frame " << frameName(middle);
    EXPECT_TRUE(changesAt(first)) << "should first show on frame " << frameName(first)
                                  << "; the picture changes instead at frame "
                                  << nearestChange(first);
    EXPECT_TRUE(changesAt(last + 1))
        << "should last show on frame " << frameName(last) << " and be gone on "
        << frameName(last + 1) << "; the picture changes instead at frame "
        << nearestChange(last + 1);
  }

  static std::vector<Ink> ink_;
  static std::set<int> changes_;
};

std::vector<Ink> ConvertedCuesTest::ink_;
std::set<int> ConvertedCuesTest::changes_;

// Every frame counted: a cue from s to e is on the frames whose middle is
// strictly after s and strictly before e, never half a frame early or late
// (on cues that start and end on frame times, exactly the frames FFmpeg's
// subtitles filter draws them on); a cue of no length is on none; and
// between cues nothing is drawn.
TEST_F(ConvertedCuesTest, CuesAreOnTheFramesWhoseMiddleIsInsideTheirTimes) {
  std::string wrong;
  for (int n = 0; n < kCueFrames; ++n) {
    if (std::any_of(std::begin(kCues), std::end(kCues),
                    [&](const Cue& cue) { return overlaps(cue) && near(cue, n); }))
      continue;  // OverlappingCuesAreShownOneAfterTheOther
    if (ink(n).empty() != (cuesAt(n) == 0))
      wrong += "\n  frame " + frameName(n) + ": " + describe(ink(n)) + ", expected " +
               (cuesAt(n) ? "text" : "none");
  }
  EXPECT_TRUE(wrong.empty()) << wrong;

  for (const Cue& cue : kCues) {
    if (overlaps(cue))
      continue;  // OverlappingCuesAreBothShown
    SCOPED_TRACE(std::string(cue.text) + " " + std::to_string(cue.startMs) + "-" +
                 std::to_string(cue.endMs) + " ms");
    if (cue.endMs <= cue.startMs) {
      // The frames either side of its time show what they would without it.
      const int before = lastFrameBefore(cue.startMs + 1);
      EXPECT_TRUE(ink(before).empty()) << describe(ink(before));
      EXPECT_TRUE(ink(before + 1).empty()) << describe(ink(before + 1));
      continue;
    }
    expectAppearsAndGoes(cue);
  }

  // No change anywhere else: the drawing holds still while the cue is on.
  std::string seen, wanted;
  for (int n = 1; n < kCueFrames; ++n) {
    if (std::any_of(std::begin(kCues), std::end(kCues),
                    [&](const Cue& cue) { return overlaps(cue) && near(cue, n); }))
      continue;
    if (changesAt(n))
      seen += " " + std::to_string(n);
    if (cuesAt(n) != cuesAt(n - 1))
      wanted += " " + std::to_string(n);
  }
  EXPECT_EQ(seen, wanted) << "frames where the drawing changes, away from the overlap";
}

// Cues whose times overlap are shown one at a time: the earlier one until
// it ends, then the later one for the rest of its time. Each shows at its
// own middle.
TEST_F(ConvertedCuesTest, OverlappingCuesAreShownOneAfterTheOther) {
  const Cue& charlie = kCues[2];
  const Cue& delta = kCues[3];
  ASSERT_TRUE(overlaps(charlie) && overlaps(delta));
  const int alone = 120, both = 130, later = 145;  // Charlie's, both cues', Delta's times
  ASSERT_EQ(cuesAt(alone), 1u << 2);
  ASSERT_EQ(cuesAt(both), (1u << 2) | (1u << 3));
  ASSERT_EQ(cuesAt(later), 1u << 3);
  // Charlie, from the first frame after its start, the same through the overlap.
  EXPECT_TRUE(changesAt(firstFrameAfter(charlie.startMs)));
  EXPECT_EQ(ink(alone).bands(), 1) << describe(ink(alone));
  EXPECT_TRUE(sameDrawing(ink(alone), ink(both)))
      << describe(ink(alone)) << " / " << describe(ink(both));
  // Gone on the first frame after its end; Delta then, to its own end.
  EXPECT_TRUE(changesAt(lastFrameBefore(charlie.endMs) + 1));
  const int middle = ((delta.startMs + delta.endMs) / 2) / kFrameMs;
  EXPECT_FALSE(ink(middle).empty()) << "at Delta's middle, frame " << frameName(middle);
  EXPECT_EQ(ink(later).bands(), 1) << describe(ink(later));
  EXPECT_FALSE(sameDrawing(ink(alone), ink(later))) << "Delta is not Charlie";
  for (int n = lastFrameBefore(charlie.endMs) + 2; n <= lastFrameBefore(delta.endMs); ++n)
    EXPECT_TRUE(sameDrawing(ink(n), ink(later))) << frameName(n) << ": " << describe(ink(n));
  EXPECT_TRUE(ink(lastFrameBefore(delta.endMs) + 1).empty());
}

// Override tags and markup are read, not drawn: the cue is as wide as its
// text alone. (What is shown is the part after the line's last comma or
// closing brace, " team" or "team" here; a tag drawn as text would widen it.)
TEST(SubtitleTest, OverrideTagsAreNotDrawn) {
  const std::string clip = fixture("cues_clip.mp4");
  const std::vector<std::string> at = {"-t", "2.5", "--subtitle-font", kFont};
  const Raster plain = frame(clip, {"-t", "2.5"});
  auto inkFor = [&](const std::string& srt) {
    std::vector<std::string> args = at;
    args.insert(args.end(), {"--subtitles", srt});
    return inkOf(frame(clip, args), plain);
  };
  const Ink text = inkFor(wholeClipCue("untagged.srt", "Go, team"));
  ASSERT_FALSE(text.empty());
  const char* const tagged[] = {"{\\an8}Go, team", "{\\b1}Go{\\b0}, team", "Go, {\\an8}team",
                                "<b>Go</b>, team", "<font color=\"#ffffff\">Go</font>, team"};
  for (const char* cue : tagged) {
    SCOPED_TRACE(cue);
    const Ink ink = inkFor(wholeClipCue("tagged.srt", cue));
    EXPECT_NEAR(ink.width(), text.width(), 3) << describe(ink) << " / " << describe(text);
    EXPECT_NEAR(ink.count, text.count, text.count / 10);
  }
  // The tagged cue of cues.srt itself.
  const Ink fromCues = inkOf(
      frame(clip, {"-t", "6.86", "--subtitle-font", kFont, "--subtitles", fixture("cues.srt")}),
      frame(clip, {"-t", "6.86"}));
  EXPECT_NEAR(fromCues.width(), text.width(), 3) << describe(fromCues) << " / " << describe(text);
}

// ---- appearance --------------------------------------------------------------

TEST(SubtitleTest, BlankCuesDrawNothing) {
  const std::string clip = fixture("cues_clip.mp4");
  const Raster plain = frame(clip, {"-t", "2.5"});
  const struct {
    const char* text;
    bool drawn;
  } cases[] = {
      {"Hm", true},  // the cue is on at this time
      {"   ", false}, {"\t \t", false}, {"<i> </i>", false}, {" \n ", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("\"") + c.text + "\"");
    const Raster got = frame(clip, {"-t", "2.5", "--subtitle-font", kFont, "--subtitles",
                                    wholeClipCue("blank.srt", c.text)});
    const Ink ink = inkOf(got, plain, 24);
    EXPECT_EQ(!ink.empty(), c.drawn) << describe(ink);
    if (!c.drawn) {
      EXPECT_GE(psnr(got, plain), 50);
    }
  }
}

// Text is centred across the frame with its bottom at position x height
// above the frame's bottom; a line too long for the frame wraps at its
// width and grows upwards, each line centred.
TEST(SubtitleTest, TextIsCentredWrappedAndPlacedAtItsPosition) {
  const std::string clip = fixture("cues_clip.mp4");
  const Raster plain = frame(clip, {"-t", "2.5"});
  constexpr int kWidth = 320, kHeight = 240;
  auto inkAt = [&](const std::string& srt, const std::string& position) {
    return inkOf(frame(clip, {"-t", "2.5", "--subtitle-font", kFont, "--subtitles", srt,
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

  const Ink wrapped = inkAt(wholeClipCue("long.srt",
                                         "the quick brown fox jumps over the lazy dog and "
                                         "keeps going happily"),
                            "0.1");
  EXPECT_GE(wrapped.bands(), 2) << describe(wrapped);
  EXPECT_GT(wrapped.height(), 2 * low.height()) << describe(wrapped);
  EXPECT_GE(wrapped.left, 1) << "the text stays inside the frame: " << describe(wrapped);
  EXPECT_LE(wrapped.right, kWidth - 2) << describe(wrapped);
  EXPECT_GT(wrapped.width(), kWidth / 2) << describe(wrapped);
  EXPECT_NEAR(wrapped.left, kWidth - 1 - wrapped.right, 5) << describe(wrapped);
  // Its last line has letters that reach down to the bottom, as "Gyp" does.
  EXPECT_NEAR(wrapped.bottom, low.bottom, 4) << describe(wrapped) << " / " << describe(low);
}

// White text on a white picture shows only through its outline and shadow;
// its colour is the one asked for.
TEST(SubtitleTest, OutlineShadowAndColour) {
  const std::string white = fixture("white.mp4");
  const std::string cue = wholeClipCue("seen.srt", "Seen");
  const Raster plain = frame(white, {"-t", "1"});
  ASSERT_TRUE(isWhite(plain.at(160, 200)));
  const struct {
    std::vector<std::string> args;
    bool visible;
  } cases[] = {
      {{}, true},  // the outline of 2 by default
      {{"--subtitle-outline", "0"}, false},
      {{"--subtitle-outline", "0", "--subtitle-shadow", "0"}, false},
      {{"--subtitle-outline", "0", "--subtitle-shadow", "3"}, true},
      {{"--subtitle-outline", "0", "--subtitle-color", "#000000"}, true},
  };
  for (const auto& c : cases) {
    std::string name;
    for (const std::string& a : c.args)
      name += a + " ";
    SCOPED_TRACE(name);
    std::vector<std::string> args = {"-t", "1", "--subtitle-font", kFont, "--subtitles", cue};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const Ink ink = inkOf(frame(white, args), plain, 40);
    if (c.visible)
      EXPECT_GT(ink.count, 50) << describe(ink);
    else
      EXPECT_EQ(ink.count, 0) << describe(ink);
  }
  // A wider outline darkens more pixels.
  auto outlined = [&](const char* width) {
    return inkOf(frame(white, {"-t", "1", "--subtitle-font", kFont, "--subtitles", cue,
                               "--subtitle-outline", width}),
                 plain, 40)
        .count;
  };
  EXPECT_GT(outlined("4"), outlined("1") * 3 / 2);

  // Colours, on the dark clip with no outline: the brightest drawn pixels
  // are the colour itself; a colour half transparent is half as strong.
  const std::string clip = fixture("cues_clip.mp4");
  const Raster dark = frame(clip, {"-t", "2.5"});
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
    const Raster got = frame(clip, {"-t", "2.5", "--subtitle-font", kFont, "--subtitles", cue,
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
    return frame(clip, args);
  };
  const Raster reference = draw("utf8.srt", "");
  const Ink text = inkOf(reference, frame(clip, {"-t", "3"}));
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
// settings take the pixels under it (x 280-439, y 400-447 of 720x480), and
// only while it is shown (2 to 4 s).
TEST(SubtitleTest, BitmapTracksAreLaidOverThePicture) {
  struct Box {
    int left, top, right, bottom;
  };
  const Box kSubpicture = {280, 400, 439, 447};
  auto expectBox = [](const Ink& changed, const Box& box) {
    const Ink ink = changed.solid(4);
    EXPECT_NEAR(ink.left, box.left, 2) << describe(ink);
    EXPECT_NEAR(ink.top, box.top, 2) << describe(ink);
    EXPECT_NEAR(ink.right, box.right, 2) << describe(ink);
    EXPECT_NEAR(ink.bottom, box.bottom, 2) << describe(ink);
  };
  const struct {
    const char* file;
    bool colours;  // false: the file carries no palette, so its colours are a guess
  } files[] = {{"dvdsub.mkv", true}, {"dvbsub.ts", true}, {"dvdsub.mpg", false}};
  for (const auto& f : files) {
    SCOPED_TRACE(f.file);
    const std::string in = fixture(f.file);
    for (const char* t : {"1", "3", "5"}) {
      SCOPED_TRACE(std::string("-t ") + t);
      const Raster got = frame(in, {"-t", t, "--subtitle-track", "0"});
      const Ink ink = inkOf(got, frame(in, {"-t", t}));
      if (std::string(t) != "3") {
        EXPECT_TRUE(ink.empty()) << describe(ink);
        continue;
      }
      expectBox(ink, kSubpicture);
      EXPECT_GT(ink.count, 160 * 48 / 2) << describe(ink);
      if (f.colours) {
        EXPECT_TRUE(isRed(got.at(288, 406)));  // the ring
        EXPECT_TRUE(isRed(got.at(431, 441)));
        EXPECT_TRUE(isWhite(got.at(360, 424)));  // the centre
      }
    }
  }

  // Cropped, mirrored and scaled with the picture.
  const struct {
    std::vector<std::string> args;
    Box box;
    int ring[2], centre[2];
  } settings[] = {
      {{"--crop", "200,300,320,180", "--size", "640x360"},
       {160, 200, 479, 295},
       {176, 212},
       {320, 248}},
      {{"--vflip"}, {280, 32, 439, 79}, {288, 73}, {360, 55}},
      {{"--size", "360x240"}, {140, 200, 219, 223}, {144, 203}, {180, 212}},
  };
  const std::string mkv = fixture("dvdsub.mkv");
  for (const auto& s : settings) {
    std::string name;
    for (const std::string& a : s.args)
      name += a + " ";
    SCOPED_TRACE(name);
    std::vector<std::string> args = {"-t", "3"};
    args.insert(args.end(), s.args.begin(), s.args.end());
    const Raster plain = frame(mkv, args);
    args.insert(args.end(), {"--subtitle-track", "0"});
    const Raster got = frame(mkv, args);
    expectBox(inkOf(got, plain), s.box);
    EXPECT_TRUE(isRed(got.at(s.ring[0], s.ring[1])));
    EXPECT_TRUE(isWhite(got.at(s.centre[0], s.centre[1])));
  }
}

// Thumbnails draw the subtitles too: a cue of a file and a bitmap track.
TEST(SubtitleTest, ThumbnailsShowTheSubtitleAtTheirTime) {
  const struct {
    const char* input;
    std::vector<std::string> subtitles;
    const char* time;
    bool drawn;
  } cases[] = {
      {"cues_clip.mp4",
       {"--subtitles", fixture("cues.srt"), "--subtitle-font", kFont},
       "1.5",
       true},
      {"cues_clip.mp4",
       {"--subtitles", fixture("cues.srt"), "--subtitle-font", kFont},
       "2.5",
       false},
      {"dvdsub.mkv", {"--subtitle-track", "0"}, "3", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.input) + " at " + c.time);
    auto thumbnail = [&](const std::vector<std::string>& extra) {
      const std::string o = out("thumb.png");
      std::vector<std::string> args = {"thumbnail", fixture(c.input), "-t", c.time, "-o", o};
      args.insert(args.end(), extra.begin(), extra.end());
      const vn::test::CommandResult r = runVarnel(args);
      EXPECT_EQ(r.status, 0) << r.err;
      return readPicture(o);
    };
    const Ink ink = inkOf(thumbnail(c.subtitles), thumbnail({}));
    EXPECT_EQ(!ink.empty(), c.drawn) << describe(ink);
  }
}
