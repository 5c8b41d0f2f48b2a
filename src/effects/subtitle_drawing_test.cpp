// The text subtitle of the effect stream: layout, placement, cache, and its place in the composed
// frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <tuple>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include "effects/effect_video_stream.h"
#include "ffmpeg/owners.h"
#include "media/media_test_support.h"
#include "text/text_image.h"

namespace {

using vn::FilterImage;
using vn::Rect;
using vn::test::Raster;

constexpr int kWidth = 320;
constexpr int kHeight = 240;

// A stream with an output of w x h and no picture: the subtitle needs only the output size.
std::shared_ptr<VNFFEffectVideoStream> stream(int w = kWidth, int h = kHeight) {
  auto s = VNFFEffectVideoStream::create();
  s->setOutputFormat({AV_PIX_FMT_RGBA, w, h});
  s->setSubtitleFont("Sans 20");
  return s;
}

// The image over its extent's whole pixels (a subtitle centred across the frame may start half way
// into one).
Raster rendered(const FilterImage& image) {
  const Rect e = image.extent();
  const double left = std::floor(e.x), bottom = std::floor(e.y);
  const Rect whole{left, bottom, std::ceil(e.x + e.width) - left,
                   std::ceil(e.y + e.height) - bottom};
  Raster r{int(whole.width), int(whole.height), {}};
  r.rgba = image.render(whole);
  return r;
}

// The box of the pixels that pass `ink`, in the raster (top row 0), edges inclusive.
struct Box {
  int left = 1 << 30, top = 1 << 30, right = -1, bottom = -1;
  bool empty() const { return right < 0; }
};

template <typename Ink>
Box boxOf(const Raster& r, Ink ink) {
  Box b;
  for (int y = 0; y < r.height; ++y)
    for (int x = 0; x < r.width; ++x)
      if (ink(r.at(x, y)))
        b = {std::min(b.left, x), std::min(b.top, y), std::max(b.right, x), std::max(b.bottom, y)};
  return b;
}

bool opaque(const uint8_t* p) {
  return p[3] > 128;
}

// The placed subtitle image for text, or none.
std::optional<FilterImage> subtitleFor(VNFFEffectVideoStream& s, const std::string& text) {
  s.setSubtitleCurrentString(text);
  return s.currentSubtitleImage();
}

const std::string kLong =
    "A line far too long for the width of a small frame, so that it has to wrap";

}  // namespace

TEST(SubtitleDrawingTest, TextIsPlacedByPositionWrappedAndClampedToTheFrame) {
  // What, text, position, shown, text lines expected by height (0: as many as fit).
  using Case = std::tuple<const char*, std::string, float, bool, int>;
  std::string many;
  for (int i = 0; i < 30; ++i)
    many += "line " + std::to_string(i) + "\n";
  const Case cases[] = {
      {"one word at the bottom", "Hello", 0, true, 1},
      {"trimmed ends", " \n\tHello \r\n", 0, true, 1},
      {"inner line break", "Hello\nWorld", 0, true, 2},
      {"raised to mid-height", "Hello", 0.5f, true, 1},
      {"long line wraps", kLong, 0, true, 3},
      {"white space only", " \t\n \xc2\xa0 ", 0, false, 0},
      {"position 1 leaves no room", "Hello", 1, false, 0},
      {"too many lines for the frame", many, 0, true, 0},
      {"too many lines for the upper half", many, 0.5f, true, 0},
      {"too many lines for the upper quarter", many, 0.75f, true, 0},
  };
  const int lineHeight =
      static_cast<int>(vn::textImage("Hg", "Sans 20", {1, 1, 1, 1}).extent().height);
  for (const auto& [name, text, position, shown, lines] : cases) {
    SCOPED_TRACE(name);
    auto s = stream();
    s->setSubtitlePosition(position);
    const std::optional<FilterImage> image = subtitleFor(*s, text);
    ASSERT_EQ(image.has_value(), shown);
    if (!shown)
      continue;
    const Rect e = image->extent();
    // Bottom edge at the position's height; never wider than the frame, nor taller than the room
    // above the position.
    EXPECT_DOUBLE_EQ(e.y, position * kHeight);
    EXPECT_LE(e.width, kWidth);
    const double room = (1 - position) * kHeight;
    EXPECT_LE(e.height, room);
    if (lines > 0) {
      EXPECT_NEAR(e.height, lines * lineHeight, lineHeight / 2.0);
    } else {
      EXPECT_GT(e.height, room - 40);
    }
    // Centred across the frame: equal margins of drawn pixels.
    const Raster r = rendered(*image);
    const Box ink = boxOf(r, opaque);
    ASSERT_FALSE(ink.empty());
    const double left = std::floor(e.x) + ink.left,
                 right = kWidth - (std::floor(e.x) + ink.right + 1);
    EXPECT_NEAR(left, right, 2.0) << "left " << left << " right " << right;
    // Transparent around the glyphs, white where they are.
    EXPECT_EQ(r.at(0, 0)[3], 0);
    int white = 0;
    for (size_t i = 0; i < r.rgba.size(); i += 4)
      white += r.rgba[i + 3] == 255 && std::min({r.rgba[i], r.rgba[i + 1], r.rgba[i + 2]}) > 200;
    EXPECT_GT(white, 10);
  }
}

TEST(SubtitleDrawingTest, ATextIsDrawnOncePerDistinctTextAndSetting) {
  auto s = stream();
  std::vector<int> draws;  // the render count after each text shown
  const auto show = [&](const std::string& text) {
    std::optional<FilterImage> image = subtitleFor(*s, text);
    draws.push_back(s->subtitleRenderCount());
    return image;
  };
  const std::optional<FilterImage> first = show("Hello");
  ASSERT_TRUE(first);
  show("Hello");  // the cached image
  // No text shows nothing and keeps the cache: the text coming back after the gap is not drawn.
  EXPECT_FALSE(subtitleFor(*s, ""));
  s->setSubtitleCurrentString(std::nullopt);
  EXPECT_FALSE(s->currentSubtitleImage());
  show("Hello");
  // A new font alone keeps the old picture until the text changes or the cache is emptied.
  s->setSubtitleFont("Sans 40");
  EXPECT_EQ(show("Hello")->extent().height, first->extent().height);
  s->updateSubtitle();
  EXPECT_GT(show("Hello")->extent().height, 1.6 * first->extent().height);
  show("World");
  EXPECT_EQ(draws, (std::vector<int>{1, 1, 1, 1, 2, 3}));
}

TEST(SubtitleDrawingTest, OutlineAndShadowMakeWhiteTextReadableOnWhite) {
  // Dark pixels in the drawn text: none for the bare look; around the glyphs with an outline; below
  // and to the right with a shadow.
  const auto dark = [](const uint8_t* p) {
    return p[3] > 128 && p[0] < 60 && p[1] < 60 && p[2] < 60;
  };
  using Case = std::tuple<float, float, bool>;
  for (const auto& [outline, shadow, darkPixels] :
       {Case{0, 0, false}, Case{2, 0, true}, Case{0, 3, true}, Case{2, 3, true}}) {
    auto s = stream();
    s->setSubtitleOutlineWidth(outline);
    s->setSubtitleShadowOffset(shadow);
    const Raster r = rendered(*subtitleFor(*s, "Hello"));
    const Box edge = boxOf(r, dark);
    const Box glyphs = boxOf(r, [](const uint8_t* p) { return p[3] > 200 && p[0] > 128; });
    EXPECT_EQ(!edge.empty(), darkPixels) << outline << " " << shadow;
    if (edge.empty())
      continue;
    // The dark ring reaches past the glyphs by the outline width (plus the shadow's offset to the
    // right and below).
    EXPECT_NEAR(glyphs.left - edge.left, outline > 0 ? outline : -shadow, 1.5);
    EXPECT_NEAR(edge.right - glyphs.right, outline + shadow, 1.5);
    EXPECT_NEAR(edge.bottom - glyphs.bottom, outline + shadow, 1.5);
  }
}

TEST(SubtitleDrawingTest, TheTextIsDrawnLastOverTheComposedPicture) {
  auto s = VNFFEffectVideoStream::create();
  s->setMedia(vn::test::openWhole("h264_aac.mp4"));
  s->setOutputFormat({AV_PIX_FMT_RGBA, kWidth, kHeight});
  s->setCropRect({0, 0, kWidth, kHeight});
  s->updateConverter();
  s->writeFrame(vn::test::yuvFrame(kWidth, kHeight, 16).get());  // black
  s->setSubtitleFont("Sans 30");
  s->setSubtitleCurrentString("Hello");
  // The settings that change the picture leave the text as it is: not flipped, not darkened.
  s->setHflip(true);
  s->setBrightness(0.2f);
  const Raster r = rendered(*s->currentEffectImage());
  ASSERT_EQ(r.width, kWidth);
  ASSERT_EQ(r.height, kHeight);
  // Where the text is solid, the frame shows exactly the text's pixels.
  const std::optional<FilterImage> text = s->currentSubtitleImage();
  ASSERT_TRUE(text);
  Raster alone{kWidth, kHeight, text->render(Rect{0, 0, kWidth, kHeight})};
  int solid = 0;
  for (size_t i = 0; i < alone.rgba.size(); i += 4)
    if (alone.rgba[i + 3] == 255 && ++solid) {
      ASSERT_EQ(0, std::memcmp(&alone.rgba[i], &r.rgba[i], 3)) << "pixel " << i / 4;
    }
  EXPECT_GT(solid, 100);
  // At the bottom of the frame, centred.
  const Box ink = boxOf(alone, opaque);
  EXPECT_GT(ink.top, kHeight / 2);
  EXPECT_NEAR(ink.left, kWidth - 1 - ink.right, 2);
}
