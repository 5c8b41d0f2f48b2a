// Overlays laid over YUV frames: the colours in the frame's matrix and range, the coverage of
// each chroma sample, and the edges of the frame.
#include "output/frame_overlay.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace {

// A frame of planes filled with one Y, U and V, chroma halved both ways as in yuv420p.
struct Planes {
  int width, height, chromaWidth, chromaHeight;
  std::vector<uint8_t> y, u, v;
  Planes(int w, int h, int sw, int sh, uint8_t Y, uint8_t U, uint8_t V)
      : width(w),
        height(h),
        chromaWidth((w + (1 << sw) - 1) >> sw),
        chromaHeight((h + (1 << sh) - 1) >> sh),
        y(size_t(w) * h, Y),
        u(size_t(chromaWidth) * chromaHeight, U),
        v(size_t(chromaWidth) * chromaHeight, V) {}
  void blend(const VNFFFrameOverlay& overlay) {
    uint8_t* const data[] = {y.data(), u.data(), v.data()};
    const int linesize[] = {width, chromaWidth, chromaWidth};
    overlay.blend(data, linesize);
  }
  int Y(int x, int row) const { return y[size_t(row) * width + x]; }
  int U(int x, int row) const { return u[size_t(row) * chromaWidth + x]; }
  int V(int x, int row) const { return v[size_t(row) * chromaWidth + x]; }
};

std::vector<uint8_t> solid(int w, int h, uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
  std::vector<uint8_t> rgba(size_t(w) * h * 4);
  for (size_t i = 0; i < rgba.size(); i += 4) {
    rgba[i] = r, rgba[i + 1] = g, rgba[i + 2] = b, rgba[i + 3] = a;
  }
  return rgba;
}

VNFFFrameOverlay::Layout layout(int format, int w, int h, int matrix, bool full) {
  VNFFFrameOverlay::Layout l;
  l.pix_fmt = format, l.width = w, l.height = h, l.matrix = matrix, l.fullRange = full;
  return l;
}

}  // namespace

TEST(FrameOverlayTest, OpaqueColoursTakeTheFramesMatrixAndRange) {
  const struct {
    int matrix;
    bool full;
    uint8_t r, g, b;
    int y, u, v;  // the codes an opaque pixel of that colour leaves
  } kCases[] = {
      {AVCOL_SPC_SMPTE170M, false, 255, 255, 255, 235, 128, 128},
      {AVCOL_SPC_SMPTE170M, true, 255, 255, 255, 255, 128, 128},
      {AVCOL_SPC_SMPTE170M, false, 0, 0, 0, 16, 128, 128},
      // Pure red: BT.601 and BT.709 weigh it apart.
      {AVCOL_SPC_SMPTE170M, false, 255, 0, 0, 81, 90, 240},
      {AVCOL_SPC_BT709, false, 255, 0, 0, 63, 102, 240},
      {AVCOL_SPC_BT709, true, 255, 255, 0, 237, 0, 139},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << "matrix " << c.matrix << (c.full ? " full" : " limited")
                                    << " rgb " << int(c.r) << "," << int(c.g) << "," << int(c.b));
    const std::vector<uint8_t> rgba = solid(4, 4, c.r, c.g, c.b, 255);
    const auto overlay = VNFFFrameOverlay::make(rgba.data(), 16, 2, 2, 4, 4,
                                                layout(AV_PIX_FMT_YUV420P, 8, 8, c.matrix, c.full));
    ASSERT_TRUE(overlay);
    Planes frame(8, 8, 1, 1, 100, 60, 200);
    frame.blend(*overlay);
    EXPECT_NEAR(frame.Y(3, 3), c.y, 1);
    EXPECT_NEAR(frame.U(1, 1), c.u, 1);
    EXPECT_NEAR(frame.V(1, 1), c.v, 1);
    // Outside the overlay the frame is as it was.
    EXPECT_EQ(frame.Y(1, 3), 100);
    EXPECT_EQ(frame.Y(6, 3), 100);
    EXPECT_EQ(frame.U(0, 1), 60);
    EXPECT_EQ(frame.V(3, 3), 200);
  }
}

TEST(FrameOverlayTest, ChromaTakesTheMeanCoverageOfThePixelsItStandsFor) {
  // One white pixel at (1, 1) of a 4:2:0 frame: luma takes it whole, the chroma sample of its
  // 2x2 block a quarter of it; half-transparent, half of that.
  for (const int alpha : {255, 128}) {
    SCOPED_TRACE(alpha);
    const std::vector<uint8_t> rgba = solid(1, 1, 255, 255, 255, uint8_t(alpha));
    const auto overlay = VNFFFrameOverlay::make(
        rgba.data(), 4, 1, 1, 1, 1, layout(AV_PIX_FMT_YUV420P, 4, 4, AVCOL_SPC_BT709, false));
    ASSERT_TRUE(overlay);
    Planes frame(4, 4, 1, 1, 16, 0, 255);
    frame.blend(*overlay);
    EXPECT_NEAR(frame.Y(1, 1), 16 + 219 * alpha / 255, 1);
    EXPECT_EQ(frame.Y(0, 0), 16);
    const double a = alpha / 255.0 / 4;
    EXPECT_NEAR(frame.U(0, 0), 128 * a, 1);
    EXPECT_NEAR(frame.V(0, 0), 255 * (1 - a) + 128 * a, 1);
    EXPECT_EQ(frame.U(1, 1), 0);
  }
}

TEST(FrameOverlayTest, ThePartOutsideTheFrameIsLeftOutAndOddSizesKeepTheirLastSamples) {
  // A 5x5 frame (chroma 3x3) and a 4x4 white square hanging over its bottom-right corner.
  const std::vector<uint8_t> rgba = solid(4, 4, 255, 255, 255, 255);
  const auto overlay = VNFFFrameOverlay::make(
      rgba.data(), 16, 3, 3, 4, 4, layout(AV_PIX_FMT_YUV420P, 5, 5, AVCOL_SPC_BT709, true));
  ASSERT_TRUE(overlay);
  Planes frame(5, 5, 1, 1, 0, 0, 0);
  frame.blend(*overlay);
  EXPECT_EQ(frame.Y(4, 4), 255);
  EXPECT_EQ(frame.Y(3, 3), 255);
  EXPECT_EQ(frame.Y(2, 2), 0);
  // The last chroma sample stands for the one pixel (4, 4), covered whole.
  EXPECT_EQ(frame.U(2, 2), 128);
  // The sample of (2..3, 2..3) has one covered pixel of four.
  EXPECT_NEAR(frame.U(1, 1), 32, 1);

  // Wholly outside, or transparent with nothing else: no overlay is needed.
  const auto l = layout(AV_PIX_FMT_YUV420P, 5, 5, AVCOL_SPC_BT709, true);
  EXPECT_FALSE(VNFFFrameOverlay::make(rgba.data(), 16, 5, 0, 4, 4, l));
  EXPECT_FALSE(VNFFFrameOverlay::make(rgba.data(), 16, -4, 0, 4, 4, l));
}
