#include "text/text_image.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace {

using vn::FilterImage;
using vn::textImage;

}  // namespace

TEST(TextImageTest, OneLineOfTextInItsColourOnTransparentBlack) {
  const FilterImage word = textImage("Glow", "Sans 20", {1, 0, 0, 1});
  const vn::Rect e = word.extent();
  EXPECT_EQ(std::pair(e.x, e.y), std::pair(0.0, 0.0));
  // A 20-pixel font: a line about 23 pixels tall, four letters wider than tall.
  EXPECT_GE(e.height, 20);
  EXPECT_LE(e.height, 30);
  EXPECT_GT(e.width, e.height);

  // Ink pixels are the colour, at any coverage (straight alpha, red first); the rest is transparent
  // black.
  const std::vector<uint8_t> rgba = word.render();
  int solid = 0, clear = 0;
  for (size_t i = 0; i < rgba.size(); i += 4) {
    const uint8_t* p = &rgba[i];
    if (p[3] == 0) {
      EXPECT_EQ(p[0] + p[1] + p[2], 0);
      ++clear;
      continue;
    }
    EXPECT_GE(p[0], 250) << "pixel " << i / 4 << " alpha " << int(p[3]);
    EXPECT_LE(std::max(p[1], p[2]), 3);
    solid += p[3] == 255;
  }
  EXPECT_GT(solid, 20);
  EXPECT_GT(clear, solid);

  // Longer text is wider; a larger size is taller; a line break does not start a second line.
  EXPECT_GT(textImage("Glow Glow", "Sans 20", {1, 1, 1, 1}).extent().width, e.width);
  EXPECT_GT(textImage("Glow", "Sans 40", {1, 1, 1, 1}).extent().height, 1.6 * e.height);
  EXPECT_EQ(textImage("Gl\now", "Sans 20", {1, 1, 1, 1}).extent().height, e.height);
}

TEST(TextImageTest, NothingToDrawGivesAnEmptyImage) {
  EXPECT_TRUE(textImage("", "Sans 14", {1, 1, 1, 1}).isEmpty());
  // Bytes that are not UTF-8 still draw (as replacement characters).
  EXPECT_FALSE(textImage("\xff\xfe", "Sans 14", {1, 1, 1, 1}).isEmpty());
  // An unknown family falls back to a font that has the letters.
  EXPECT_GT(textImage("Bloom", "NoSuchFamily 14", {1, 1, 1, 1}).extent().width, 20);
}
