#include "image/filter_image.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include "image/bitmap_context.h"
#include "image/bitmap_image.h"
#include "image/pixel_buffer.h"
#include "image/srgb.h"

namespace {

using vn::AffineTransform;
using vn::FilterImage;
using vn::Rect;

// A 3x2 raster with a gap of 4 bytes after each row; pixel (x, y) has the bytes {10x+y, 100+x,
// 200+y, 255-x} in memory.
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

// Random pixels; opaque when asked, else any alpha above 0.
std::vector<uint8_t> noise(int width, int height, bool opaque, unsigned seed = 7) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(static_cast<size_t>(width) * height * 4);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(random());
  for (size_t i = 3; i < bytes.size(); i += 4)
    bytes[i] = opaque ? 255 : std::max<uint8_t>(bytes[i], 1);
  return bytes;
}

FilterImage picture(const std::vector<uint8_t>& bytes, int width, int height) {
  return *FilterImage::fromRaster(bytes.data(), width, height, width * 4,
                                  FilterImage::ByteOrder::RGBA);
}

int maxDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  int most = a.size() == b.size() ? 0 : 256;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
    most = std::max(most, std::abs(int(a[i]) - int(b[i])));
  return most;
}

vn::ColorMatrixOp saturation(float s) {
  vn::ColorMatrixOp op;
  const float w[3] = {0.2125f, 0.7154f, 0.0721f};
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c)
      op.m[r][c] = (1 - s) * w[c] + (r == c ? s : 0);
  }
  return op;
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
    std::vector<uint8_t> expected;
    const bool bgra = order == FilterImage::ByteOrder::BGRA;
    for (int y = 0; y < 2; ++y) {
      for (int x = 0; x < 3; ++x) {
        const uint8_t* in = &original[y * stride + x * 4];
        expected.insert(expected.end(), {in[bgra ? 2 : 0], in[1], in[bgra ? 0 : 2], in[3]});
      }
    }
    EXPECT_EQ(image->render(), expected);
    bytes = original;
  }
}

TEST(FilterImageTest, EveryCodeRoundTripsThroughLinearLight) {
  for (int code = 0; code < 256; ++code) {
    const uint8_t c = static_cast<uint8_t>(code);
    EXPECT_EQ(vn::linearToSrgb(vn::srgbToLinear(c)), c);
    // The encode is round-half-up of the exact curve.
    const double l = vn::srgbToLinear(c);
    EXPECT_EQ(vn::linearToSrgb(static_cast<float>(l)), std::floor(255 * vn::srgbOetf(l) + 0.5));
  }
  EXPECT_NEAR(vn::srgbToLinear(128), 0.215861, 1e-6);
  std::vector<int> codes;
  for (float linear : {0.5f, 0.25f, 0.75f, -3.0f, 7.0f, std::nanf("")})
    codes.push_back(vn::linearToSrgb(linear));
  EXPECT_EQ(codes, (std::vector{188, 137, 225, 0, 255, 0}));
}

// What cannot be pictured is refused, not rendered: nothing, endless, huge.
TEST(FilterImageTest, ImpossibleImagesAndRendersAreRefused) {
  const std::vector<uint8_t> bytes(64, 0);
  EXPECT_FALSE(FilterImage::fromRaster(nullptr, 2, 2, 8, FilterImage::ByteOrder::RGBA));
  EXPECT_FALSE(FilterImage::fromRaster(bytes.data(), 0, 2, 8, FilterImage::ByteOrder::RGBA));
  EXPECT_FALSE(FilterImage::fromRaster(bytes.data(), 2, -1, 8, FilterImage::ByteOrder::RGBA));
  EXPECT_FALSE(FilterImage::fromRaster(bytes.data(), 3, 2, 8, FilterImage::ByteOrder::BGRA));
  EXPECT_FALSE(
      FilterImage::fromRaster(bytes.data(), 16384, 16384, 16384 * 4, FilterImage::ByteOrder::RGBA));

  const FilterImage white = FilterImage::withColor({1, 1, 1, 1});
  EXPECT_TRUE(white.isInfinite());
  EXPECT_TRUE(white.render().empty() && white.render(Rect{0, 0, 16384, 16384}).empty() &&
              white.render(Rect{0, 0, 0, 5}).empty());
  const std::vector<uint8_t> two = white.render(Rect{0, 0, 2, 2});
  ASSERT_EQ(two.size(), 16u);
  EXPECT_EQ(two[3], 255);
  EXPECT_TRUE(white.cropped(Rect{5, 5, 0, 3}).isEmpty());
  // Nor is it drawn: an endless image has no rectangle to draw from.
  auto context = vn::BitmapContext::create(2, 2);
  white.draw(*context, Rect{0, 0, INFINITY, INFINITY});
  EXPECT_EQ(context->data()[0], 0);
  EXPECT_TRUE(picture(bytes, 4, 4).transformed(AffineTransform{}.scaled(0, 1)).isEmpty());
}

// Whole-pixel moves copy, neutral colour operations are free, and what the planner folds gives the
// source back where it should.
TEST(FilterImageTest, NeutralChainsGiveTheSourceBackExactly) {
  const int w = 37, h = 23;
  for (bool opaque : {true, false}) {
    SCOPED_TRACE(opaque ? "opaque" : "with alpha");
    const std::vector<uint8_t> bytes = noise(w, h, opaque);
    const FilterImage source = picture(bytes, w, h);
    EXPECT_EQ(source.render(), bytes);

    vn::ImageRenderStats stats;
    const FilterImage neutral = source.applying(vn::ColorMatrixOp{})
                                    .applying(vn::MonochromeOp{{0.3f, 0.2f, 0.1f}, 0})
                                    .applying(saturation(1));
    EXPECT_EQ(neutral.render(source.extent(), {0, &stats}), bytes);
    EXPECT_EQ(stats.colorPasses, 0);

    // Moved by whole pixels and back; moved out and rendered where it went.
    const FilterImage moved = source.translated(-5, 9);
    EXPECT_EQ(moved.render(moved.extent()), bytes);
    EXPECT_EQ(moved.translated(5, -9).render(), bytes);

    // A quarter turn and back, resampled through one matrix.
    const FilterImage turned = source.transformed(AffineTransform{}.rotated(M_PI / 2));
    EXPECT_DOUBLE_EQ(turned.extent().width, h);
    EXPECT_DOUBLE_EQ(turned.extent().height, w);
    const FilterImage back = turned.transformed(AffineTransform{}.rotated(-M_PI / 2));
    EXPECT_LE(maxDifference(back.render(source.extent()), bytes), 1);

    // A crop keeps the pixels whose centres it holds, and nothing else.
    const std::vector<uint8_t> part = source.cropped(Rect{3, 4, 10, 5}).render(Rect{3, 4, 10, 5});
    ASSERT_EQ(part.size(), 10u * 5 * 4);
    for (int j = 0; j < 5; ++j) {
      const int row = h - 4 - 5 + j;
      EXPECT_EQ(std::vector<uint8_t>(part.begin() + j * 40, part.begin() + j * 40 + 40),
                std::vector<uint8_t>(bytes.begin() + (row * w + 3) * 4,
                                     bytes.begin() + (row * w + 13) * 4));
    }
  }
}

// The composition's chain: crop, turn, flip, scale, then colour controls, hue and a point preset,
// over black. It must sample the source once and run one colour pass, whatever the number of steps.
TEST(FilterImageTest, GeometryAndPointColourFoldIntoOnePassEach) {
  const int w = 160, h = 90;
  const std::vector<uint8_t> bytes = noise(w, h, true);
  const FilterImage source = picture(bytes, w, h);
  const FilterImage geometry =
      source.cropped(Rect{10, 5, 120, 80})
          .translated(-70, -45)
          .transformed(AffineTransform{}.rotated(10 * M_PI / 180))
          .transformed(AffineTransform{}.scaled(-1, 1))
          .transformed(AffineTransform::makeTranslation(64, 36).scaled(0.5, 0.5));
  vn::ColorMatrixOp hue;  // a turn of the colour cube about the grey axis
  const double t = 0.7, a = (1 - std::cos(t)) / 3, q = std::sin(t) / std::sqrt(3.0);
  const double rows[3][3] = {{std::cos(t) + a, a - q, a + q},
                             {a + q, std::cos(t) + a, a - q},
                             {a - q, a + q, std::cos(t) + a}};
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c)
      hue.m[r][c] = static_cast<float>(rows[r][c]);
  const FilterImage composed = geometry.applying(saturation(1.4f))
                                   .applying(hue)
                                   .applying(vn::MonochromeOp{{0.32f, 0.17f, 0.07f}, 1})
                                   .sourceOver(FilterImage::withColor({0, 0, 0, 1}))
                                   .cropped(Rect{0, 0, 128, 72});
  vn::ImageRenderStats stats;
  const std::vector<uint8_t> one = composed.render(Rect{0, 0, 128, 72}, {1, &stats});
  EXPECT_EQ(stats.resamplingPasses, 1);
  EXPECT_EQ(stats.colorPasses, 1);
  EXPECT_EQ(stats.materialized, 0);

  // The same picture built step by step through intermediate pixels agrees within rounding: folding
  // changes nothing visible.
  const FilterImage stepped =
      FilterImage::fromPixels(
          std::make_shared<vn::PixelBuffer>(geometry.renderPixels(Rect{0, 0, 128, 72})))
          .applying(saturation(1.4f))
          .applying(hue)
          .applying(vn::MonochromeOp{{0.32f, 0.17f, 0.07f}, 1})
          .sourceOver(FilterImage::withColor({0, 0, 0, 1}));
  EXPECT_LE(maxDifference(stepped.render(Rect{0, 0, 128, 72}), one), 1);

  // One thread or all of them, and several renders at once: the same bytes.
  EXPECT_EQ(composed.render(Rect{0, 0, 128, 72}, {0, nullptr}), one);
  std::vector<std::vector<uint8_t>> results(3);
  std::vector<std::thread> threads;
  for (auto& r : results)
    threads.emplace_back([&] { r = composed.render(Rect{0, 0, 128, 72}); });
  for (auto& thread : threads)
    thread.join();
  for (const auto& r : results)
    EXPECT_EQ(r, one);
}

// Shrinking far below half size averages the source instead of skipping pixels: a fine checkerboard
// becomes an even grey of its mean light.
TEST(FilterImageTest, StrongShrinkingDoesNotAlias) {
  const int n = 256;
  std::vector<uint8_t> board(size_t(n) * n * 4, 255);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x)
      for (int k = 0; k < 3; ++k)
        board[(size_t(y) * n + x) * 4 + k] = (x + y) % 2 ? 255 : 0;
  for (double scale : {0.25, 0.1, 0.37}) {
    SCOPED_TRACE(scale);
    vn::ImageRenderStats stats;
    const FilterImage small =
        picture(board, n, n).transformed(AffineTransform{}.scaled(scale, scale));
    const int side = static_cast<int>(std::floor(n * scale));
    const std::vector<uint8_t> out =
        small.render(Rect{0, 0, double(side), double(side)}, {0, &stats});
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(stats.resamplingPasses, 1);
    for (int y = 1; y < side - 1; ++y)
      for (int x = 1; x < side - 1; ++x)
        ASSERT_NEAR(out[(size_t(y) * side + x) * 4], 188, 3) << x << "," << y;
  }
}

TEST(BitmapContextTest, LayoutAndStartingContents) {
  EXPECT_FALSE(vn::BitmapContext::create(0, 4));
  EXPECT_FALSE(vn::BitmapContext::create(4, -1));
  auto rgbx = vn::BitmapContext::create(3, 2);
  ASSERT_TRUE(rgbx);
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
