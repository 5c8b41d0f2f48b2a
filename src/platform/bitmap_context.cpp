#include "platform/bitmap_context.h"

#include <new>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include "platform/bitmap_image.h"

namespace vn {

namespace {

// x × a / 255, rounded, for bytes.
inline uint8_t mul255(unsigned x, unsigned a) {
  unsigned t = x * a + 128;
  return static_cast<uint8_t>((t + (t >> 8)) >> 8);
}

}  // namespace

std::shared_ptr<BitmapContext> BitmapContext::create(int width, int height, Alpha alpha) {
  if (width <= 0 || height <= 0 || width > (1 << 28) / height) return nullptr;
  try {
    return std::shared_ptr<BitmapContext>(new BitmapContext(width, height, alpha));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

BitmapContext::BitmapContext(int width, int height, Alpha alpha)
    : width_(width), height_(height), alpha_(alpha) {
  pixels_.assign(static_cast<size_t>(width) * height * 4, 0);
  if (alpha_ == Alpha::kNoneSkipLast) {
    for (size_t i = 3; i < pixels_.size(); i += 4) pixels_[i] = 255;
  }
}

BitmapContext::~BitmapContext() = default;

void BitmapContext::drawImage(const BitmapImage& image, Composite mode) {
  if (image.isEmpty()) return;
  const uint8_t* src = image.data();
  int srcStride = image.bytesPerRow();
  if (image.width() != width_ || image.height() != height_) {
    try {
      scaled_.resize(pixels_.size());
    } catch (const std::bad_alloc&) {
      return;
    }
    SwsContext* scaler = scaler_.release();
    scaler = sws_getCachedContext(scaler, image.width(), image.height(), AV_PIX_FMT_RGBA,
                                  width_, height_, AV_PIX_FMT_RGBA, SWS_BILINEAR, nullptr,
                                  nullptr, nullptr);
    scaler_.reset(scaler);
    if (!scaler) return;
    const uint8_t* srcPlanes[4] = {src, nullptr, nullptr, nullptr};
    const int srcStrides[4] = {srcStride, 0, 0, 0};
    uint8_t* dstPlanes[4] = {scaled_.data(), nullptr, nullptr, nullptr};
    const int dstStrides[4] = {bytesPerRow(), 0, 0, 0};
    sws_scale(scaler, srcPlanes, srcStrides, 0, image.height(), dstPlanes, dstStrides);
    src = scaled_.data();
    srcStride = bytesPerRow();
  }

  // The image is straight alpha, the context premultiplied (or opaque), so
  // both modes premultiply the source; source-over then adds what shows
  // through.
  const bool hasAlpha = alpha_ == Alpha::kPremultipliedLast;
  for (int y = 0; y < height_; ++y) {
    const uint8_t* s = src + static_cast<size_t>(y) * srcStride;
    uint8_t* d = pixels_.data() + static_cast<size_t>(y) * bytesPerRow();
    for (int x = 0; x < width_; ++x, s += 4, d += 4) {
      const unsigned a = s[3];
      if (mode == Composite::kCopy || a == 255) {
        for (int c = 0; c < 3; ++c) d[c] = mul255(s[c], a);
        d[3] = hasAlpha ? static_cast<uint8_t>(a) : 255;
      } else {
        const unsigned keep = 255 - a;
        for (int c = 0; c < 3; ++c) d[c] = static_cast<uint8_t>(mul255(s[c], a) + mul255(d[c], keep));
        d[3] = hasAlpha ? static_cast<uint8_t>(a + mul255(d[3], keep)) : 255;
      }
    }
  }
}

}  // namespace vn
