// End-to-end: text subtitles drawn as their scripts style them, against ffmpeg's subtitles
// filter (both draw with libass), and bitmap subtitles that carry no end time.

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using vn::test::fixture;
using vn::test::psnr;
using vn::test::Raster;
using vn::test::readPicture;
using vn::test::runVarnel;
using vn::test::scratch;

Raster frame(const std::string& input,
             double t,
             const std::string& size,
             const std::vector<std::string>& extra = {}) {
  const std::string png = scratch("styled.png");
  std::remove(png.c_str());
  std::vector<std::string> args = {"frame", input, "-t", std::to_string(t), "-o", png};
  if (!size.empty())
    args.insert(args.end(), {"--size", size});
  args.insert(args.end(), extra.begin(), extra.end());
  const vn::test::CommandResult r = runVarnel(args);
  EXPECT_EQ(r.status, 0) << r.err;
  return readPicture(png);
}

// ffmpeg's picture at t: scaled to the size first, so that libass draws in the output frame as
// varnel's renderer does, and blended in RGB (not on subsampled YUV). -copyts keeps the
// picture's own time, which the filter renders at.
Raster ffmpegFrame(const std::string& input, double t, int w, int h, const std::string& subs) {
  std::string filters = "scale=" + std::to_string(w) + ":" + std::to_string(h) + ",format=rgb24";
  if (!subs.empty())
    filters += ",subtitles=" + subs;
  return readPicture(input, filters, "-copyts -ss " + std::to_string(t));
}

// The rows where two pictures differ (a subtitle over a plain background), with a margin; the
// whole picture when they do not.
Raster band(const Raster& picture, const Raster& blank, const Raster& drawn) {
  int top = drawn.height, bottom = -1;
  for (int y = 0; y < drawn.height; ++y) {
    for (int x = 0; x < drawn.width; ++x) {
      const uint8_t *a = drawn.at(x, y), *b = blank.at(x, y);
      if (std::abs(a[0] - b[0]) + std::abs(a[1] - b[1]) + std::abs(a[2] - b[2]) > 48) {
        top = std::min(top, y);
        bottom = std::max(bottom, y);
        break;
      }
    }
  }
  if (bottom < 0)
    return picture;
  top = std::max(0, top - 4);
  bottom = std::min(drawn.height - 1, bottom + 4);
  return picture.part(0, top, picture.width, bottom - top + 1);
}

struct Case {
  const char* file;
  std::vector<double> cues;  // times inside a cue (on a picture's start)
  std::vector<double> gaps;  // times between cues
};

TEST(StyledSubtitleTest, PicturesMatchFfmpegsSubtitlesFilterAtEveryCueAndSize) {
  const std::string clip = fixture("styled_clip.mp4");
  // Midpoints of the cues; the karaoke line (8.5-9.5 s, a syllable every 0.25 s) is taken
  // inside a syllable, as a picture starts at 9.12 s.
  const std::vector<Case> cases = {
      {"styled.srt", {1.52, 3.0, 4.52, 6.0, 7.52, 9.0}, {0.4, 2.2, 9.8}},
      {"styled.ass", {1.52, 3.0, 4.52, 6.0, 7.52, 9.12}, {3.8}},
      {"styled.vtt", {1.52, 4.52}, {3.0}},
  };
  const std::vector<std::pair<int, int>> sizes = {{1920, 1080}, {854, 480}, {320, 180}};
  for (const auto& [w, h] : sizes) {
    const std::string size = std::to_string(w) + "x" + std::to_string(h);
    const Raster blank = ffmpegFrame(clip, 0.4, w, h, "");
    const Raster plain = frame(clip, 0.4, size);
    for (const Case& c : cases) {
      const std::string subs = fixture(c.file);
      // Every cue at the two smaller sizes, where lines wrap and words were lost; the first
      // of each file at 1080 lines, where a picture costs the most to make.
      const std::vector<double> cues = h == 1080 ? std::vector<double>{c.cues.front()} : c.cues;
      for (const double t : cues) {
        SCOPED_TRACE(std::string(c.file) + " at " + std::to_string(t) + " s, " + size);
        const Raster ours = frame(clip, t, size, {"--subtitles", subs});
        const Raster theirs = ffmpegFrame(clip, t, w, h, subs);
        ASSERT_EQ(ours.width, w);
        ASSERT_EQ(ours.height, h);
        EXPECT_GE(psnr(ours, theirs), 30);
        // The lines the subtitle covers, where a missing or misplaced word shows (a missing
        // word gives less than 20 dB there; the edges of the glyphs, blended in linear light
        // here and in sRGB by the filter, keep it under 30 at the largest size).
        EXPECT_GE(psnr(band(ours, blank, theirs), band(theirs, blank, theirs)), 25);
        EXPECT_LT(psnr(band(ours, blank, theirs), band(plain, blank, theirs)), 25)
            << "nothing drawn";
      }
      for (const double t : h == 480 ? c.gaps : std::vector<double>{}) {
        SCOPED_TRACE(std::string(c.file) + " gap at " + std::to_string(t) + " s, " + size);
        EXPECT_GE(psnr(frame(clip, t, size, {"--subtitles", subs}), plain), 50);
      }
    }
  }
}

TEST(StyledSubtitleTest, StyleOptionsChangePlainTextOnlyAndScaleWithThePicture) {
  const std::string clip = fixture("styled_clip.mp4");
  const std::string srt = fixture("styled.srt"), ass = fixture("styled.ass");
  auto yellowPixels = [](const Raster& r) {
    int n = 0;
    for (int y = 0; y < r.height; ++y) {
      for (int x = 0; x < r.width; ++x) {
        const uint8_t* p = r.at(x, y);
        n += p[0] > 200 && p[1] > 200 && p[2] < 80;
      }
    }
    return n;
  };
  const std::vector<std::string> yellow = {"--subtitle-color", "yellow"};
  // An SRT cue takes the colour; an ASS script keeps its own white.
  EXPECT_EQ(yellowPixels(frame(clip, 1.52, "854x480", {"--subtitles", srt})), 0);
  std::vector<std::string> args = {"--subtitles", srt};
  args.insert(args.end(), yellow.begin(), yellow.end());
  EXPECT_GT(yellowPixels(frame(clip, 1.52, "854x480", args)), 200);
  args = {"--subtitles", ass};
  args.insert(args.end(), yellow.begin(), yellow.end());
  EXPECT_EQ(
      psnr(frame(clip, 1.52, "854x480", args), frame(clip, 1.52, "854x480", {"--subtitles", ass})),
      99);

  // "Sans 108" is a tenth of the picture's height at every size: the text's rows scale with it.
  auto inkRows = [](const Raster& r, const Raster& blank) {
    int rows = 0;
    for (int y = 0; y < r.height; ++y) {
      for (int x = 0; x < r.width; ++x) {
        if (std::abs(r.at(x, y)[0] - blank.at(x, y)[0]) > 60) {
          ++rows;
          break;
        }
      }
    }
    return rows;
  };
  const std::vector<std::string> big = {"--subtitles", srt, "--subtitle-font", "Sans 108"};
  const int large = inkRows(frame(clip, 1.52, "1920x1080", big), frame(clip, 0.4, "1920x1080"));
  const int small = inkRows(frame(clip, 1.52, "480x270", big), frame(clip, 0.4, "480x270"));
  EXPECT_NEAR(large, 108, 40);
  EXPECT_NEAR(small * 4, large, 16);

  vn::test::expectError(runVarnel({"frame", clip, "-t", "1", "-o", scratch("x.png"), "--subtitles",
                                   srt, "--subtitle-delay", "soon"}),
                        2, "--subtitle-delay");
}

TEST(StyledSubtitleTest, ADelayMovesEveryCue) {
  const std::string clip = fixture("styled_clip.mp4"), srt = fixture("styled.srt");
  const Raster plain = frame(clip, 0.4, "854x480");
  const Raster first = frame(clip, 1.52, "854x480", {"--subtitles", srt});
  // One second later: the first cue is at 2.52 s, and nothing at its own time.
  const std::vector<std::string> later = {"--subtitles", srt, "--subtitle-delay", "1"};
  EXPECT_GE(psnr(frame(clip, 1.52 - 1.1, "854x480", later), plain), 50);
  EXPECT_GE(psnr(frame(clip, 2.52, "854x480", later), first), 50);
  // Half a second earlier: at 1.02 s.
  const std::vector<std::string> earlier = {"--subtitles", srt, "--subtitle-delay", "-0.5"};
  EXPECT_GE(psnr(frame(clip, 1.02, "854x480", earlier), first), 50);
  EXPECT_GE(psnr(frame(clip, 1.6, "854x480", earlier), plain), 50);
}

// A convert whose only change to the picture is the subtitles lays them over the scaled frames:
// the frames that carry a cue are as many as ffmpeg's subtitles filter draws it on, from the same
// first frame unless the cue starts at a frame's middle, and they look alike.
TEST(StyledSubtitleTest, AConvertCarriesEachCueOnTheFramesFfmpegDrawsItOn) {
  const std::string clip = fixture("styled_clip.mp4"), srt = fixture("styled.srt");
  const std::string out = scratch("cues.mkv");
  std::remove(out.c_str());
  // 0.6 to 3.8 s: the first cue (1.0 to 2.0 s) and the second (2.5 to 3.5 s) whole.
  const vn::test::CommandResult r =
      runVarnel({"convert", clip, out, "--start", "0.6", "--duration", "3.2", "--size", "320x180",
                 "--no-audio", "--vcodec", "h264", "--crf", "10", "--subtitles", srt});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<Raster> ours = vn::test::readPictures(out, "null");
  const std::string scale = "scale=320:180,format=rgb24,";
  const std::string span = ",trim=start=0.6:end=3.8";
  const std::vector<Raster> theirs =
      vn::test::readPictures(clip, scale + "subtitles=" + srt + span);
  const std::vector<Raster> plain = vn::test::readPictures(clip, scale + "null" + span);
  ASSERT_EQ(ours.size(), 80u);
  ASSERT_EQ(theirs.size(), ours.size());
  ASSERT_EQ(plain.size(), ours.size());
  std::vector<size_t> carryOurs, carryTheirs;
  for (size_t i = 0; i < ours.size(); ++i) {
    if (psnr(ours[i], plain[i]) < 35)
      carryOurs.push_back(i);
    if (psnr(theirs[i], plain[i]) < 35) {
      carryTheirs.push_back(i);
      if (i != 47 && i != 72) {
        EXPECT_GE(psnr(ours[i], theirs[i]), 30) << "frame " << i;
      }
    }
  }
  // 25 frames a cue. The first cue starts on a frame's start (1.0 s) and is on frames 10 to 34
  // in both. The second starts at 2.5 s, the middle of frame 47 (2.48 to 2.52 s): convert takes
  // each frame's picture and subtitle at its middle and shows it there, ffmpeg at the frame's
  // start and from frame 48; each carries it on 25 frames.
  const auto cue = [](const std::vector<size_t>& frames, size_t from, size_t to) {
    std::vector<size_t> in;
    for (const size_t i : frames) {
      if (i >= from && i <= to)
        in.push_back(i);
    }
    return in;
  };
  std::vector<size_t> first(25), second(25);
  for (size_t i = 0; i < 25; ++i)
    first[i] = 10 + i, second[i] = 47 + i;
  EXPECT_EQ(cue(carryOurs, 0, 40), first);
  EXPECT_EQ(cue(carryTheirs, 0, 40), first);
  EXPECT_EQ(cue(carryOurs, 41, 79), second);
  for (size_t& i : second)
    ++i;
  EXPECT_EQ(cue(carryTheirs, 41, 79), second);
}

// Display sets without an end time stay up until the next set of the track, which clears them;
// ones with an end time keep it.
TEST(StyledSubtitleTest, BitmapSubtitlesWithoutAnEndStayUpUntilTheNextSet) {
  for (const char* name : {"dvbsub_open.ts", "dvbsub.ts"}) {
    SCOPED_TRACE(name);
    const std::string ts = fixture(name);
    const bool open = std::string(name) == "dvbsub_open.ts";
    // The page is shown from 2.000 s to 3.991 s after the first picture. The sets with an end
    // time are checked once inside and once after it.
    for (const double t : open ? std::vector<double>{2.1, 3.0, 3.9} : std::vector<double>{3.0}) {
      EXPECT_LT(psnr(frame(ts, t, "", {"--subtitle-track", "0"}), frame(ts, t, "")), 30)
          << "at " << t;
    }
    for (const double t : open ? std::vector<double>{1.5, 4.2, 5.5} : std::vector<double>{4.2})
      EXPECT_EQ(psnr(frame(ts, t, "", {"--subtitle-track", "0"}), frame(ts, t, "")), 99)
          << "at " << t;
    // At another output size the picture is scaled with the video.
    if (open) {
      EXPECT_LT(
          psnr(frame(ts, 3.0, "360x240", {"--subtitle-track", "0"}), frame(ts, 3.0, "360x240")),
          30);
    }
  }
}

// The pictures of a convert of the first `seconds` of `input` at 320x180, without sound.
std::vector<Raster> converted(const std::string& input,
                              double seconds,
                              const std::vector<std::string>& extra) {
  const std::string out = scratch("converted.mkv");
  std::remove(out.c_str());
  std::vector<std::string> args = {
      "convert", input,     out,          "--duration", std::to_string(seconds),
      "--size",  "320x180", "--no-audio", "--crf",      "10"};
  args.insert(args.end(), extra.begin(), extra.end());
  const vn::test::CommandResult r = runVarnel(args);
  EXPECT_EQ(r.status, 0) << r.err;
  return vn::test::readPictures(out, "null");
}

// The indices of the pictures of `drawn` that differ clearly from those of `plain`.
std::vector<size_t> framesCarrying(const std::vector<Raster>& drawn,
                                   const std::vector<Raster>& plain) {
  EXPECT_EQ(drawn.size(), plain.size());
  std::vector<size_t> frames;
  for (size_t i = 0; i < drawn.size() && i < plain.size(); ++i) {
    if (psnr(drawn[i], plain[i]) < 35)
      frames.push_back(i);
  }
  return frames;
}

// A delay moves the input's own text track as it moves a subtitle file.
TEST(StyledSubtitleTest, ADelayMovesTheInputsOwnTextTrack) {
  // The first cue of styled.srt (1.0 to 2.0 s) in a Matroska file's own text track.
  const std::string mkv = scratch("text_track.mkv");
  int status = 0;
  vn::test::runShell("ffmpeg -hide_banner -loglevel error -nostdin -y -i " +
                         vn::test::shellQuote(fixture("styled_clip.mp4")) + " -i " +
                         vn::test::shellQuote(fixture("styled.srt")) +
                         " -t 3.2 -map 0:v -map 1 -c:v copy -c:s srt " + vn::test::shellQuote(mkv),
                     &status);
  ASSERT_EQ(status, 0);
  // 25 frames a second, each taken at its middle: a second later the first cue is on frames 50
  // to 74 (the second is past the end); half a second earlier on frames 12 to 36 (its start
  // falls on the middle of frame 12), and the second (2.5 to 3.5 s) on frames 50 to 74.
  const std::vector<Raster> plain = converted(mkv, 3.2, {});
  const std::vector<size_t> later = framesCarrying(
      converted(mkv, 3.2, {"--subtitle-track", "0", "--subtitle-delay", "1"}), plain);
  ASSERT_EQ(later.size(), 25u);
  EXPECT_EQ(later.front(), 50u);
  EXPECT_EQ(later.back(), 74u);
  const std::vector<size_t> earlier = framesCarrying(
      converted(mkv, 3.2, {"--subtitle-track", "0", "--subtitle-delay", "-0.5"}), plain);
  ASSERT_EQ(earlier.size(), 50u);
  EXPECT_EQ(earlier[0], 12u);
  EXPECT_EQ(earlier[24], 36u);
  EXPECT_EQ(earlier[25], 50u);
}

// A delay moves an in-file bitmap track too, both ways: the page stays up after the stream has
// read the set that clears it, shows before the stream has read it, and is found after a seek
// that lands past its own start.
TEST(StyledSubtitleTest, ADelayMovesABitmapTrack) {
  const std::string ts = fixture("dvbsub_open.ts");
  // The page is up from 2.000 s to 3.991 s after the first picture.
  std::map<double, Raster> plain;
  auto plainAt = [&](double t) -> const Raster& {
    auto [at, made] = plain.try_emplace(t);
    if (made)
      at->second = frame(ts, t, "");
    return at->second;
  };
  struct Delayed {
    const char* delay;
    std::vector<double> shown, hidden;
  };
  for (const Delayed& c :
       {Delayed{"1", {4.1, 4.9}, {2.9, 5.1}}, Delayed{"-1", {1.1, 2.9}, {0.9, 3.1}}}) {
    SCOPED_TRACE(c.delay);
    const std::vector<std::string> track = {"--subtitle-track", "0", "--subtitle-delay", c.delay};
    for (const double t : c.shown)
      EXPECT_LT(psnr(frame(ts, t, "", track), plainAt(t)), 30) << "at " << t;
    for (const double t : c.hidden)
      EXPECT_EQ(psnr(frame(ts, t, "", track), plainAt(t)), 99) << "at " << t;
  }
  // In a convert the page keeps its length and moves by a second's pictures (30000/1001 a
  // second: 29 or 30 of them).
  const std::vector<Raster> plainConvert = converted(ts, 5.3, {});
  const std::vector<size_t> own =
      framesCarrying(converted(ts, 5.3, {"--subtitle-track", "0"}), plainConvert);
  ASSERT_GE(own.size(), 55u);
  const std::vector<size_t> moved = framesCarrying(
      converted(ts, 5.3, {"--subtitle-track", "0", "--subtitle-delay", "1"}), plainConvert);
  ASSERT_NEAR(static_cast<double>(moved.size()), static_cast<double>(own.size()), 1);
  EXPECT_NEAR(static_cast<double>(moved.front()) - static_cast<double>(own.front()), 29.97, 1);
  EXPECT_EQ(moved.back() - moved.front() + 1, moved.size()) << "one run of pictures";
}

// A font a Matroska file carries is used for the style that names its family, as ffmpeg's
// filter uses it; without it another font stands in.
TEST(StyledSubtitleTest, FontsAttachedToAMatroskaFileAreUsed) {
  // A serif font under a family no installed font has (the name table patched in place).
  std::ifstream in("/usr/share/fonts/truetype/dejavu/DejaVuSerif.ttf", std::ios::binary);
  if (!in)
    GTEST_SKIP() << "no DejaVu Serif here";
  std::string font((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto replaceAll = [&font](const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = font.find(from, at)) != std::string::npos; at += to.size())
      font.replace(at, from.size(), to);
  };
  auto utf16 = [](const std::string& ascii) {
    std::string wide;
    for (const char c : ascii)
      wide += std::string(1, '\0') + c;
    return wide;
  };
  replaceAll("DejaVu Serif", "VarnelTestSf");
  replaceAll(utf16("DejaVu Serif"), utf16("VarnelTestSf"));
  const std::string ttf = scratch("attached.ttf"), ass = scratch("attached.ass");
  std::ofstream(ttf, std::ios::binary) << font;
  std::ofstream(ass) << "[Script Info]\nScriptType: v4.00+\nPlayResX: 640\nPlayResY: 360\n\n"
                        "[V4+ Styles]\nFormat: Name, Fontname, Fontsize, PrimaryColour, "
                        "SecondaryColour, OutlineColour, BackColour, Bold, Italic, Underline, "
                        "StrikeOut, ScaleX, ScaleY, Spacing, Angle, BorderStyle, Outline, Shadow, "
                        "Alignment, MarginL, MarginR, MarginV, Encoding\n"
                        "Style: Default,VarnelTestSf,48,&H00FFFFFF,&H000000FF,&H00000000,"
                        "&H00000000,0,0,0,0,100,100,0,0,1,2,0,2,10,10,20,1\n\n"
                        "[Events]\nFormat: Layer, Start, End, Style, Name, MarginL, MarginR, "
                        "MarginV, Effect, Text\n"
                        "Dialogue: 0,0:00:00.50,0:00:02.50,Default,,0,0,0,,Serif glyphs ag\n";
  auto mux = [&](const std::string& name, const std::string& attach) {
    const std::string mkv = scratch(name);
    int status = 0;
    vn::test::runShell("ffmpeg -hide_banner -loglevel error -nostdin -y -i " +
                           vn::test::shellQuote(fixture("styled_clip.mp4")) + " -i " +
                           vn::test::shellQuote(ass) + " -t 3 -map 0:v -map 1 -c:v copy -c:s ass " +
                           attach + vn::test::shellQuote(mkv),
                       &status);
    EXPECT_EQ(status, 0);
    return mkv;
  };
  const std::string with = mux("with_font.mkv", "-attach " + vn::test::shellQuote(ttf) +
                                                    " -metadata:s:t "
                                                    "mimetype=application/x-truetype-font ");
  const std::string without = mux("without_font.mkv", "");
  const Raster blank = readPicture(with, "format=rgb24", "-ss 0.2");
  const Raster ours = frame(with, 1.52, "", {"--subtitle-track", "0"});
  const Raster theirs = readPicture(with, "format=rgb24,subtitles=" + with, "-copyts -ss 1.52");
  const Raster fallback = frame(without, 1.52, "", {"--subtitle-track", "0"});
  EXPECT_GE(psnr(band(ours, blank, theirs), band(theirs, blank, theirs)), 30);
  EXPECT_LT(psnr(band(fallback, blank, theirs), band(theirs, blank, theirs)), 25);
}

}  // namespace
