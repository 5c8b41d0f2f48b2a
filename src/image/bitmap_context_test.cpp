#include "image/bitmap_context.h"

#include <gtest/gtest.h>

#include "image/bitmap_image.h"

namespace {

TEST(BitmapContextTest, LayoutAndStartingContents) {
  EXPECT_FALSE(vn::BitmapContext::create(0, 4));
  EXPECT_FALSE(vn::BitmapContext::create(4, -1));
  auto rgbx = vn::BitmapContext::create(3, 2);
  ASSERT_TRUE(rgbx);
  EXPECT_EQ(rgbx->bitsPerPixel(), 32);
  EXPECT_EQ(rgbx->bytesPerRow(), 12);
  EXPECT_EQ(rgbx->byteCount(), 24u);
  EXPECT_EQ(rgbx->data()[3], 255);  // opaque black
  auto rgba = vn::BitmapContext::create(3, 2, vn::BitmapContext::Alpha::kPremultipliedLast);
  EXPECT_EQ(rgba->data()[3], 0);  // transparent
}

// Half-transparent white: copied it replaces (premultiplied), laid over black it blends; an RGBA
// context keeps the coverage, RGBX stays opaque.
TEST(BitmapContextTest, CompositingModes) {
  const uint8_t halfWhite[4] = {255, 255, 255, 128};
  const auto image = vn::BitmapImage::copyOf(halfWhite, 1, 1, 4);
  using Alpha = vn::BitmapContext::Alpha;
  using Composite = vn::BitmapContext::Composite;
  std::tuple<Alpha, Composite, int, int> cases[] = {
      {Alpha::kNoneSkipLast, Composite::kCopy, 128, 255},
      {Alpha::kNoneSkipLast, Composite::kSourceOver, 128, 255},
      {Alpha::kPremultipliedLast, Composite::kCopy, 128, 128},
      {Alpha::kPremultipliedLast, Composite::kSourceOver, 128, 128},
  };
  for (const auto& [alpha, mode, red, fourth] : cases) {
    auto context = vn::BitmapContext::create(2, 2, alpha);
    context->drawImage(image, mode);
    EXPECT_EQ(context->data()[0], red);
    EXPECT_EQ(context->data()[3], fourth);
    // Twice over: white shows through more; a copy stays the same.
    context->drawImage(image, mode);
    EXPECT_EQ(context->data()[12], mode == Composite::kCopy ? 128 : 192);
  }
}

TEST(BitmapContextTest, ImagesAreStretched) {
  // 2 × 1: red, blue.
  const uint8_t pixels[8] = {255, 0, 0, 255, 0, 0, 255, 255};
  auto context = vn::BitmapContext::create(8, 4);
  context->drawImage(vn::BitmapImage::copyOf(pixels, 2, 1, 8), vn::BitmapContext::Composite::kCopy);
  const uint8_t* bottomLeft = context->data() + 3 * context->bytesPerRow();
  const uint8_t* bottomRight = bottomLeft + 7 * 4;
  EXPECT_GT(bottomLeft[0], 200);
  EXPECT_LT(bottomLeft[2], 50);
  EXPECT_LT(bottomRight[0], 50);
  EXPECT_GT(bottomRight[2], 200);
  EXPECT_TRUE(vn::BitmapImage::copyOf(pixels, 3, 1, 8).isEmpty());  // rows too short
}

}  // namespace
