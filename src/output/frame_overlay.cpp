#include "output/frame_overlay.h"

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavutil/pixdesc.h>
#include <libavutil/pixfmt.h>
}

namespace {

// The weights of red and blue in luma for a YUV matrix.
void lumaWeights(int matrix, double* kr, double* kb) {
  switch (matrix) {
    case AVCOL_SPC_BT709:
      *kr = 0.2126, *kb = 0.0722;
      return;
    case AVCOL_SPC_FCC:
      *kr = 0.30, *kb = 0.11;
      return;
    case AVCOL_SPC_SMPTE240M:
      *kr = 0.212, *kb = 0.087;
      return;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL:
      *kr = 0.2627, *kb = 0.0593;
      return;
    default:  // BT.601 (SMPTE 170M, BT.470 BG) and anything unknown
      *kr = 0.299, *kb = 0.114;
      return;
  }
}

// One sRGB colour's Y, Cb and Cr codes.
struct Yuv {
  double y, u, v;
};

class YuvOf {
 public:
  YuvOf(int matrix, bool fullRange) : full_(fullRange) { lumaWeights(matrix, &kr_, &kb_); }
  Yuv operator()(const uint8_t* rgb) const {
    const double r = rgb[0] / 255.0, g = rgb[1] / 255.0, b = rgb[2] / 255.0;
    const double y = kr_ * r + (1 - kr_ - kb_) * g + kb_ * b;
    const double cb = (b - y) / (2 * (1 - kb_)), cr = (r - y) / (2 * (1 - kr_));
    if (full_)
      return {y * 255, 128 + cb * 255, 128 + cr * 255};
    return {16 + y * 219, 128 + cb * 224, 128 + cr * 224};
  }

 private:
  bool full_;
  double kr_ = 0, kb_ = 0;
};

uint8_t byte(double v) {
  return static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 255L));
}

}  // namespace

bool VNFFFrameOverlay::supports(int pix_fmt) {
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(pix_fmt));
  if (!d || d->nb_components < 3 || !(d->flags & AV_PIX_FMT_FLAG_PLANAR) ||
      (d->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BE |
                   AV_PIX_FMT_FLAG_FLOAT | AV_PIX_FMT_FLAG_BAYER)) ||
      d->log2_chroma_w > 1 || d->log2_chroma_h > 1)
    return false;
  // Y, U and V in planes 0, 1 and 2, a byte each.
  for (int c = 0; c < 3; ++c) {
    if (d->comp[c].plane != c || d->comp[c].depth != 8 || d->comp[c].step != 1 ||
        d->comp[c].shift != 0)
      return false;
  }
  return true;
}

std::optional<VNFFFrameOverlay> VNFFFrameOverlay::make(const uint8_t* rgba,
                                                       int stride,
                                                       int x,
                                                       int y,
                                                       int width,
                                                       int height,
                                                       const Layout& layout) {
  if (!rgba || !supports(layout.pix_fmt) || layout.width <= 0 || layout.height <= 0)
    return std::nullopt;
  const int x0 = std::max(x, 0), y0 = std::max(y, 0);
  const int x1 = std::min(x + width, layout.width), y1 = std::min(y + height, layout.height);
  if (x0 >= x1 || y0 >= y1)
    return std::nullopt;
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(layout.pix_fmt));
  const int sw = d->log2_chroma_w, sh = d->log2_chroma_h;
  const YuvOf yuvOf(layout.matrix, layout.fullRange);
  const auto pixel = [&](int px, int py) { return rgba + (py - y) * stride + (px - x) * 4; };

  VNFFFrameOverlay overlay;
  overlay.layout_ = layout;
  // Luma: each pixel with its own coverage.
  Part& luma = overlay.parts_[0];
  luma.x = x0, luma.y = y0, luma.width = x1 - x0, luma.height = y1 - y0;
  const size_t lumaSize = static_cast<size_t>(luma.width) * luma.height;
  luma.alpha.assign(lumaSize, 0);
  luma.weighted.assign(lumaSize, 0);
  for (int py = y0; py < y1; ++py) {
    for (int px = x0; px < x1; ++px) {
      const uint8_t* p = pixel(px, py);
      if (p[3] == 0)
        continue;
      const size_t i = static_cast<size_t>(py - y0) * luma.width + (px - x0);
      luma.alpha[i] = p[3];
      luma.weighted[i] = static_cast<uint16_t>(byte(yuvOf(p).y) * p[3]);
    }
  }
  // Chroma: each sample with the mean coverage and colour of the pixels it
  // stands for (pixels outside the picture cover nothing).
  Part& u = overlay.parts_[1];
  Part& v = overlay.parts_[2];
  const int chromaWidth = -((-layout.width) >> sw), chromaHeight = -((-layout.height) >> sh);
  u.x = x0 >> sw, u.y = y0 >> sh;
  u.width = std::min(-((-x1) >> sw), chromaWidth) - u.x;
  u.height = std::min(-((-y1) >> sh), chromaHeight) - u.y;
  const size_t chromaSize = static_cast<size_t>(u.width) * u.height;
  u.alpha.assign(chromaSize, 0);
  u.weighted.assign(chromaSize, 0);
  v = u;
  for (int cy = 0; cy < u.height; ++cy) {
    for (int cx = 0; cx < u.width; ++cx) {
      const int fromX = (u.x + cx) << sw, fromY = (u.y + cy) << sh;
      const int toX = std::min(fromX + (1 << sw), layout.width);
      const int toY = std::min(fromY + (1 << sh), layout.height);
      double a = 0, ua = 0, va = 0;
      for (int py = std::max(fromY, y0); py < std::min(toY, y1); ++py) {
        for (int px = std::max(fromX, x0); px < std::min(toX, x1); ++px) {
          const uint8_t* p = pixel(px, py);
          if (p[3] == 0)
            continue;
          const Yuv c = yuvOf(p);
          a += p[3];
          ua += c.u * p[3];
          va += c.v * p[3];
        }
      }
      const double count = static_cast<double>(toX - fromX) * (toY - fromY);
      const long alpha = std::lround(a / count);
      if (alpha == 0)
        continue;
      const size_t i = static_cast<size_t>(cy) * u.width + cx;
      u.alpha[i] = v.alpha[i] = static_cast<uint8_t>(alpha);
      u.weighted[i] = static_cast<uint16_t>(std::clamp(std::lround(ua / count), 0L, alpha * 255));
      v.weighted[i] = static_cast<uint16_t>(std::clamp(std::lround(va / count), 0L, alpha * 255));
    }
  }
  // The covered run of each row, so that blending skips the bare ones.
  for (Part& part : overlay.parts_) {
    part.spans.assign(static_cast<size_t>(part.height), {0, 0});
    for (int row = 0; row < part.height; ++row) {
      const uint8_t* a = part.alpha.data() + static_cast<size_t>(row) * part.width;
      int first = 0, last = part.width;
      while (first < last && a[first] == 0)
        ++first;
      while (last > first && a[last - 1] == 0)
        --last;
      part.spans[row] = {first, last};
    }
  }
  return overlay;
}

void VNFFFrameOverlay::blendPart(const Part& part, uint8_t* plane, int linesize) {
  for (int row = 0; row < part.height; ++row) {
    const auto [first, last] = part.spans[row];
    const size_t offset = static_cast<size_t>(row) * part.width;
    const uint8_t* alpha = part.alpha.data() + offset;
    const uint16_t* weighted = part.weighted.data() + offset;
    uint8_t* out = plane + static_cast<ptrdiff_t>(part.y + row) * linesize + part.x;
    for (int i = first; i < last; ++i) {
      const unsigned a = alpha[i];
      out[i] = static_cast<uint8_t>((out[i] * (255 - a) + weighted[i] + 127) / 255);
    }
  }
}

void VNFFFrameOverlay::blend(uint8_t* const data[], const int linesize[]) const {
  for (int c = 0; c < 3; ++c) {
    if (data[c])
      blendPart(parts_[c], data[c], linesize[c]);
  }
}
