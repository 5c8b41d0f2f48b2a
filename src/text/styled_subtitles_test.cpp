// The styled subtitle renderer on its own: events, times, the image cache, style overrides.
#include "text/styled_subtitles.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// The script header FFmpeg's SRT decoder gives: one default style on a 288-line script.
const std::string kHeader =
    "[Script Info]\nScriptType: v4.00+\nPlayResX: 384\nPlayResY: 288\n"
    "ScaledBorderAndShadow: yes\n\n[V4+ Styles]\n"
    "Format: Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, OutlineColour, "
    "BackColour, Bold, Italic, Underline, StrikeOut, ScaleX, ScaleY, Spacing, Angle, "
    "BorderStyle, Outline, Shadow, Alignment, MarginL, MarginR, MarginV, Encoding\n"
    "Style: Default,DejaVu Sans,16,&Hffffff,&Hffffff,&H0,&H0,0,0,0,0,100,100,0,0,1,1,0,2,10,10,"
    "10,0\n\n[Events]\n"
    "Format: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n";

vn::SubtitleEvent event(int readOrder, int64_t start, int64_t duration, const std::string& text) {
  return {start, duration, std::to_string(readOrder) + ",0,Default,,0,0,0,," + text};
}

TEST(StyledSubtitleRendererTest, EventsShowInTheirTimesOnceEachAndImagesAreCachedPerSet) {
  auto renderer = vn::StyledSubtitleRenderer::create(kHeader, {}, std::nullopt);
  ASSERT_TRUE(renderer);
  EXPECT_EQ(renderer->playResY(), 288);
  renderer->addEvents({event(0, 1000, 1000, "Well, I think so."), event(1, 3000, 500, "Later")});
  // Read again from the start after a seek: the decoder counts from 0 again.
  renderer->addEvents({event(0, 1000, 1000, "Well, I think so.")});
  // The same read order with other text is another event.
  renderer->addEvents({event(1, 5000, 500, "{\\an8}Top")});
  EXPECT_EQ(renderer->eventCount(), 3);

  EXPECT_FALSE(renderer->imageAtTime(999, 640, 360));
  const std::optional<vn::FilterImage> first = renderer->imageAtTime(1000, 640, 360);
  ASSERT_TRUE(first);
  const int64_t renders = renderer->renderCount();
  // The same set of pictures: taken from the cache.
  EXPECT_TRUE(renderer->imageAtTime(1500, 640, 360));
  EXPECT_EQ(renderer->renderCount(), renders);
  // Ended (the end is not part of it), and nothing until the next.
  EXPECT_FALSE(renderer->imageAtTime(2000, 640, 360));
  EXPECT_FALSE(renderer->imageAtTime(2500, 640, 360));

  // Placed at the bottom, centred, inside the frame; twice the frame, twice the text.
  const vn::Rect e = first->extent();
  EXPECT_GE(e.y, 0);
  EXPECT_LT(e.y, 40);
  EXPECT_NEAR(e.x + e.width / 2, 320, 8);
  // Twice the frame, larger text (libass pads its pictures by a few pixels whatever the size).
  const vn::Rect twice = renderer->imageAtTime(1000, 1280, 720)->extent();
  EXPECT_GT(twice.height, 1.4 * e.height);
  EXPECT_GT(twice.width, 1.7 * e.width);
  // \an8: at the top (y up: its top edge near the frame's).
  const vn::Rect top = renderer->imageAtTime(5200, 640, 360)->extent();
  EXPECT_GT(top.y + top.height, 320);
  EXPECT_LE(top.y + top.height, 360);
  EXPECT_FALSE(renderer->imageAtTime(1000, 0, 360));
}

TEST(StyledSubtitleRendererTest, StyleOverridesScaleWithTheScriptAndApplyToEveryStyle) {
  vn::SubtitleStyle style;
  style.font = "DejaVu Serif";
  style.size = 0.1;
  style.bold = true;
  style.color = vn::FilterImage::Color{1, 1, 0, 0.5};
  style.outline = 0.01;
  style.position = 0.25;
  const std::vector<std::string> overrides = vn::styleOverrides(style, 288);
  const std::vector<std::string> expected = {
      "Fontname=DejaVu Serif",      "Fontsize=28.800", "Bold=1",    "PrimaryColour=&H7F00FFFF",
      "SecondaryColour=&H7F00FFFF", "Outline=2.880",   "MarginV=72"};
  EXPECT_EQ(overrides, expected);
  EXPECT_TRUE(vn::styleOverrides(vn::SubtitleStyle{}, 288).empty());
  EXPECT_EQ(vn::assColor({1, 0, 0, 1}), "&H000000FF");

  // A tenth of the frame's height: about 36 lines of text at 360, whatever the script's own.
  auto sized = vn::StyledSubtitleRenderer::create(kHeader, {}, style);
  ASSERT_TRUE(sized);
  sized->addEvents({event(0, 0, 1000, "Hx")});
  auto plain = vn::StyledSubtitleRenderer::create(kHeader, {}, std::nullopt);
  plain->addEvents({event(0, 0, 1000, "Hx")});
  const vn::Rect big = sized->imageAtTime(0, 640, 360)->extent();
  const vn::Rect small = plain->imageAtTime(0, 640, 360)->extent();
  EXPECT_GT(big.height, 1.25 * small.height);
  // Raised by a quarter of the frame.
  EXPECT_GT(big.y, 80);

  EXPECT_TRUE(vn::isFontAttachment("application/x-truetype-font", "a.bin"));
  EXPECT_TRUE(vn::isFontAttachment("application/octet-stream", "Title.OTF"));
  EXPECT_FALSE(vn::isFontAttachment("image/jpeg", "cover.jpg"));
}

}  // namespace
