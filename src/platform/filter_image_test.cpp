#include "platform/filter_image.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using vn::FilterImage;

// A 3x2 raster with a gap of 4 bytes after each row; pixel (x, y) has the
// bytes {10x+y, 100+x, 200+y, 255-x} in memory.
std::vector<uint8_t> paddedRaster(int* stride) {
  *stride = 3 * 4 + 4;
  std::vector<uint8_t> bytes(*stride * 2, 0xee);
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 3; ++x) {
      uint8_t* p = &bytes[y * *stride + x * 4];
      p[0] = static_cast<uint8_t>(10 * x + y);
      p[1] = static_cast<uint8_t>(100 + x);
      p[2] = static_cast<uint8_t>(200 + y);
      p[3] = static_cast<uint8_t>(255 - x);
    }
  }
  return bytes;
}

}  // namespace

TEST(FilterImageTest, RasterIsCopiedIntoRgbaRowsTopFirst) {
  int stride = 0;
  std::vector<uint8_t> bytes = paddedRaster(&stride);
  for (auto order : {FilterImage::ByteOrder::BGRA, FilterImage::ByteOrder::RGBA}) {
    std::optional<FilterImage> image = FilterImage::fromRaster(bytes.data(), 3, 2, stride, order);
    ASSERT_TRUE(image);
    // The source may be reused at once: the image holds its own copy.
    std::vector<uint8_t> original = bytes;
    std::fill(bytes.begin(), bytes.end(), 0);
    std::vector<uint8_t> rgba = image->render();
    ASSERT_EQ(rgba.size(), 3u * 2u * 4u);
    for (int y = 0; y < 2; ++y) {
      for (int x = 0; x < 3; ++x) {
        const uint8_t* in = &original[y * stride + x * 4];
        const uint8_t* out = &rgba[(y * 3 + x) * 4];
        const bool bgra = order == FilterImage::ByteOrder::BGRA;
        EXPECT_EQ(out[0], bgra ? in[2] : in[0]) << x << "," << y;
        EXPECT_EQ(out[1], in[1]);
        EXPECT_EQ(out[2], bgra ? in[0] : in[2]);
        EXPECT_EQ(out[3], in[3]);
      }
    }
    bytes = original;
  }
}

TEST(FilterImageTest, TranslationMovesTheExtentOnly) {
  const std::vector<uint8_t> pixel(4 * 4 * 2, 7);
  std::optional<FilterImage> image =
      FilterImage::fromRaster(pixel.data(), 4, 2, 16, FilterImage::ByteOrder::RGBA);
  ASSERT_TRUE(image);
  FilterImage moved = image->translated(10, -3).translated(0.5, 1);
  EXPECT_DOUBLE_EQ(moved.extent().x, 10.5);
  EXPECT_DOUBLE_EQ(moved.extent().y, -2);
  EXPECT_DOUBLE_EQ(moved.extent().width, 4);
  EXPECT_DOUBLE_EQ(moved.extent().height, 2);
  // The original is unchanged, and both share the same pixels.
  EXPECT_DOUBLE_EQ(image->extent().x, 0);
  EXPECT_EQ(moved.render(), image->render());
}

TEST(FilterImageTest, ImpossibleRastersGiveNoImage) {
  const std::vector<uint8_t> bytes(64, 0);
  EXPECT_FALSE(FilterImage::fromRaster(nullptr, 2, 2, 8, FilterImage::ByteOrder::RGBA));
  EXPECT_FALSE(FilterImage::fromRaster(bytes.data(), 0, 2, 8, FilterImage::ByteOrder::RGBA));
  EXPECT_FALSE(FilterImage::fromRaster(bytes.data(), 2, -1, 8, FilterImage::ByteOrder::RGBA));
  EXPECT_FALSE(FilterImage::fromRaster(bytes.data(), 3, 2, 8, FilterImage::ByteOrder::BGRA));
}
