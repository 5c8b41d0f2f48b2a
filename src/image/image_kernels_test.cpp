#include "image/image_kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Rgba = std::array<float, 4>;
using Picture = std::function<Rgba(int x, int y)>;

vn::PixelBuffer makeBuffer(const vn::IntRect& rect, const Picture& picture) {
  vn::PixelBuffer b(rect);
  for (int j = 0; j < rect.height; ++j)
    for (int i = 0; i < rect.width; ++i) {
      const Rgba p = picture(rect.x + i, rect.top() - 1 - j);
      std::copy(p.begin(), p.end(), b.row(j) + 4 * i);
    }
  return b;
}

Rgba pixelOf(const vn::PixelBuffer& b, int x, int y) {
  const float* p = b.at(x, y);
  return p ? Rgba{p[0], p[1], p[2], p[3]} : Rgba{};
}

// The kernel given what the renderer hands it: the picture over what out reads, inside its extent.
vn::PixelBuffer run(const vn::NeighbourhoodOp& op,
                    const vn::IntRect& extent,
                    const vn::IntRect& out,
                    const Picture& picture,
                    int threads = 0) {
  const vn::PixelBuffer in =
      makeBuffer(out.grown(vn::kernelReach(op)).intersected(extent), picture);
  return vn::applyKernel(op, in, extent, out, threads);
}

Picture uniform(Rgba c) {
  return [c](int, int) { return c; };
}

// Edges in every colour, thin lines, a ramp, a half-transparent part, values above 1.
Rgba pattern(int x, int y) {
  static const Rgba bars[] = {{1, 1, 1, 1}, {1, 1, 0, 1}, {0, 1, 1, 1}, {0, 1, 0, 1},
                              {1, 0, 1, 1}, {1, 0, 0, 1}, {0, 0, 1, 1}, {0, 0, 0, 1}};
  if (y >= 80)
    return bars[(x / 20) % 8];
  if (y >= 40)
    return (x / 4 + y / 4) % 2 ? Rgba{0.9f, 0.9f, 0.9f, 1} : Rgba{0.02f, 0.02f, 0.02f, 1};
  if (y >= 20) {
    const float a = 0.5f, v = (x % 64) / 64.0f;
    return {v * a, 0.3f * a, (1 - v) * a, a};
  }
  return x % 7 == 0 ? Rgba{3, 2, 1, 1} : Rgba{0.1f, 0.2f, 0.3f, 1};
}

// The blur computed plainly, in double: the reference for the fast paths.
vn::PixelBuffer referenceBlur(const vn::IntRect& extent,
                              const Picture& picture,
                              double sigma,
                              bool clamp,
                              const vn::IntRect& out) {
  const int reach = static_cast<int>(std::ceil(3 * sigma));
  std::vector<double> w(reach + 1);
  double sum = 0;
  for (int k = 0; k <= reach; ++k)
    sum += (k ? 2 : 1) * (w[k] = std::exp(-k * k / (2 * sigma * sigma)));
  auto read = [&](int x, int y) {
    if (clamp) {
      x = std::clamp(x, extent.x, extent.right() - 1);
      y = std::clamp(y, extent.y, extent.top() - 1);
    }
    return x >= extent.x && x < extent.right() && y >= extent.y && y < extent.top() ? picture(x, y)
                                                                                    : Rgba{};
  };
  const int rows = out.height + 2 * reach;
  std::vector<std::array<double, 4>> across(static_cast<size_t>(rows) * out.width);
  for (int r = 0; r < rows; ++r)
    for (int i = 0; i < out.width; ++i)
      for (int k = -reach; k <= reach; ++k) {
        const Rgba p = read(out.x + i + k, out.y - reach + r);
        for (int c = 0; c < 4; ++c)
          across[static_cast<size_t>(r) * out.width + i][c] += w[std::abs(k)] / sum * p[c];
      }
  vn::PixelBuffer b(out);
  for (int j = 0; j < out.height; ++j)
    for (int i = 0; i < out.width; ++i) {
      const int y = out.top() - 1 - j;
      if (clamp && !(y >= extent.y && y < extent.top() && out.x + i >= extent.x &&
                     out.x + i < extent.right()))
        continue;
      for (int k = -reach; k <= reach; ++k)
        for (int c = 0; c < 4; ++c)
          b.row(j)[4 * i + c] += static_cast<float>(
              w[std::abs(k)] / sum *
              across[static_cast<size_t>(y - out.y + reach + k) * out.width + i][c]);
    }
  return b;
}

float maxDifference(const vn::PixelBuffer& a, const vn::PixelBuffer& b) {
  EXPECT_EQ(a.rect, b.rect);
  float d = 0;
  for (size_t i = 0; i < std::min(a.pixels.size(), b.pixels.size()); ++i)
    d = std::max(d, std::abs(a.pixels[i] - b.pixels[i]));
  return d;
}

// Exact up to sigma 8, close above (reduced); the extent grows by ceil(3 sigma) unless clamped.
TEST(ImageKernelsTest, BlurMatchesTheExactKernel) {
  const vn::IntRect extent{0, 0, 160, 120};
  const std::tuple<double, bool, vn::IntRect, float> cases[] = {
      {1, false, {-4, -4, 40, 30}, 1e-5f},        {8, true, {-1, -1, 162, 122}, 1e-5f},
      {10, true, {-1, -1, 162, 122}, 2.5e-3f},    {10, false, {-30, -30, 220, 180}, 2.5e-3f},
      {16, false, {-48, -48, 256, 216}, 1.5e-3f}, {17, false, {-51, -51, 262, 222}, 1.5e-3f},
      {24, true, {0, 0, 80, 60}, 1.5e-3f},        {30, true, extent, 1.5e-3f},
      {40, true, {100, 60, 60, 60}, 1.5e-3f},     {40, false, {-120, -120, 90, 80}, 1.5e-3f},
      {50, false, {-40, 90, 70, 60}, 1.5e-3f},
  };
  for (const auto& [sigma, clamp, out, bound] : cases) {
    SCOPED_TRACE(sigma);
    const vn::GaussianBlurOp op{sigma, clamp};
    const int reach = static_cast<int>(std::ceil(3 * sigma));
    EXPECT_EQ(vn::kernelOutputExtent(op, extent), clamp ? extent : extent.grown(reach));
    EXPECT_GE(vn::kernelReach(op), reach);
    const vn::PixelBuffer b = run(op, extent, out, pattern);
    EXPECT_LE(maxDifference(b, referenceBlur(extent, pattern, sigma, clamp, out)), bound);
  }
}

const vn::NeighbourhoodOp kPresets[] = {
    vn::GaussianBlurOp{10, false},
    vn::GaussianBlurOp{10, true},
    vn::GaussianBlurOp{30, false},
    vn::SharpenLuminanceOp{10, 1.69},
    vn::GlowOp{30, 0.5, true},
    vn::GlowOp{40, 0.5, false},
    vn::HexagonalPixellateOp{{150.3, 77.7}, 8},
    vn::HexagonalPixellateOp{{0, 0}, 25},
};

// One thread or all, the whole picture or a tile of it: the same bits.
TEST(ImageKernelsTest, ThreadsAndTilesGiveTheSameBits) {
  const vn::IntRect extent{0, 0, 300, 170};
  const vn::IntRect tile{37, 23, 101, 77};
  for (const vn::NeighbourhoodOp& op : kPresets) {
    SCOPED_TRACE(op.index());
    const vn::IntRect all = vn::kernelOutputExtent(op, extent);
    const vn::PixelBuffer in = makeBuffer(extent, pattern);
    const vn::PixelBuffer one = vn::applyKernel(op, in, extent, all, 1);
    const vn::PixelBuffer many = vn::applyKernel(op, in, extent, all, 0);
    ASSERT_EQ(one.pixels.size(), many.pixels.size());
    EXPECT_EQ(std::memcmp(one.pixels.data(), many.pixels.data(), one.pixels.size() * 4), 0);
    const vn::PixelBuffer part = run(op, extent, tile, pattern, 3);
    int differing = 0;
    for (int y = tile.y; y < tile.top(); ++y)
      for (int x = tile.x; x < tile.right(); ++x)
        differing += pixelOf(part, x, y) != pixelOf(one, x, y);
    EXPECT_EQ(differing, 0);
  }
}

// Uniform pictures stay through sharpening, pixellation, clamped blur; gloom multiplies the colour.
TEST(ImageKernelsTest, UniformPictures) {
  const vn::IntRect extent{0, 0, 64, 48};
  const float grey = 0.502886f;  // code 188
  const std::tuple<vn::NeighbourhoodOp, Rgba, Rgba> cases[] = {
      {vn::SharpenLuminanceOp{2, 1.69}, {0.1f, 0.2f, 0.3f, 0.5f}, {0.1f, 0.2f, 0.3f, 0.5f}},
      {vn::HexagonalPixellateOp{{5, 7}, 8}, {0.1f, 0.2f, 0.3f, 0.5f}, {0.1f, 0.2f, 0.3f, 0.5f}},
      {vn::GaussianBlurOp{10, true}, {grey, grey, grey, 1}, {grey, grey, grey, 1}},
      {vn::GlowOp{10, 1, true},
       {grey / 2, grey / 2, grey / 2, 0.5f},
       {grey * grey / 2, grey * grey / 2, grey * grey / 2, 0.5f}},
  };
  for (const auto& [op, in, expected] : cases) {
    SCOPED_TRACE(op.index());
    EXPECT_EQ(vn::kernelOutputExtent(op, extent), extent);
    const vn::PixelBuffer b = run(op, extent, extent.grown(2), uniform(in));
    for (int y = extent.y - 2; y < extent.top() + 2; ++y)
      for (int x = extent.x - 2; x < extent.right() + 2; ++x) {
        const bool inside = x >= 0 && x < extent.right() && y >= 0 && y < extent.top();
        for (int ch = 0; ch < 4; ++ch)
          ASSERT_NEAR(pixelOf(b, x, y)[ch], inside ? expected[ch] : 0, 1e-5) << x << "," << y;
      }
  }
}

// The blur's weights add up to exactly 1: an opaque picture stays exactly opaque, so that its
// pixels are encoded as opaque ones.
TEST(ImageKernelsTest, BlurredOpaquePicturesStayExactlyOpaque) {
  const vn::IntRect extent{0, 0, 96, 64};
  for (double sigma : {1.0, 3.0, 8.0, 10.0, 16.0, 30.0}) {
    SCOPED_TRACE(sigma);
    const vn::PixelBuffer b =
        run(vn::GaussianBlurOp{sigma, true}, extent, extent, [](int x, int y) {
          return Rgba{x % 7 * 0.14f, y % 5 * 0.2f, (x + y) % 3 * 0.4f, 1};
        });
    int notOpaque = 0;
    for (size_t i = 3; i < b.pixels.size(); i += 4)
      notOpaque += b.pixels[i] != 1.0f;
    EXPECT_EQ(notOpaque, 0);
  }
}

TEST(ImageKernelsTest, HexagonalCells) {
  const vn::HexagonalPixellateOp op{{150, 150}, 8};
  // The last two: equally near (-1, 1) and (0, 1); a vertex of three cells.
  const std::tuple<double, double, int, int> points[] = {
      {153.9, 150, 0, 0}, {154.1, 150, 1, 0}, {150.8, 154.8, 0, 1},
      {146, 143, 0, -1},  {150, 157, -1, 1},  {150, 150 - 8 / std::sqrt(3.0), 0, -1},
  };
  for (const auto& [x, y, m, n] : points) {
    const vn::HexCell c = vn::hexagonalCell(op, x, y);
    EXPECT_EQ(c, (vn::HexCell{m, n})) << x << "," << y << " -> " << c.m << "," << c.n;
  }
}

// Outputs of one pixel, none, or outside the extent; an endless extent.
TEST(ImageKernelsTest, DegenerateOutputsAndEndlessExtents) {
  const vn::IntRect one{0, 0, 1, 1};
  for (const vn::NeighbourhoodOp& op : kPresets) {
    SCOPED_TRACE(op.index());
    const vn::PixelBuffer tiny = run(op, one, one, uniform({0.25f, 0.5f, 0.75f, 1}));
    EXPECT_TRUE(tiny.pixels.size() == 4 && tiny.pixels[3] > 0);
    const vn::IntRect empty{3, 4, 0, 5};
    const vn::PixelBuffer none = run(op, one, empty, uniform({1, 1, 1, 1}));
    EXPECT_TRUE(none.rect == empty && none.pixels.empty());
    const vn::PixelBuffer far = run(op, one, {500, 500, 2, 2}, uniform({1, 1, 1, 1}));
    EXPECT_EQ(std::count(far.pixels.begin(), far.pixels.end(), 0.0f), 16);
  }
  // A lone pixel blurred: the centre tap, squared.
  EXPECT_NEAR(run(vn::GaussianBlurOp{1, false}, one, one, uniform({1, 1, 1, 1})).pixels[3],
              0.399050f * 0.399050f, 1e-6);

  const vn::IntRect endless{-(1 << 29), -(1 << 29), 1 << 30, 1 << 30};
  EXPECT_EQ(vn::kernelOutputExtent(vn::GaussianBlurOp{10, false}, endless), endless);
  for (const vn::NeighbourhoodOp& op : {vn::NeighbourhoodOp{vn::GaussianBlurOp{30, true}},
                                        vn::NeighbourhoodOp{vn::SharpenLuminanceOp{1, 2}}}) {
    const vn::PixelBuffer b = run(op, endless, {-70, 20, 40, 30}, uniform({0.5f, 0.5f, 0.5f, 1}));
    for (size_t i = 0; i < b.pixels.size(); ++i)
      ASSERT_NEAR(b.pixels[i], i % 4 == 3 ? 1 : 0.5f, 1e-5);
  }
}

}  // namespace
