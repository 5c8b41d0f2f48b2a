#include "image/bitmap_context.h"

#include <new>
#include <vector>

#include "image/bitmap_image.h"

namespace vn {

namespace {

// x × a / 255, rounded, for bytes.
inline uint8_t mul255(unsigned x, unsigned a) {
  unsigned t = x * a + 128;
  return static_cast<uint8_t>((t + (t >> 8)) >> 8);
}

}  // namespace

std::shared_ptr<BitmapContext> BitmapContext::create(int width, int height, Alpha alpha) {
  if (width <= 0 || height <= 0 || width > (1 << 28) / height)
    return nullptr;
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
    for (size_t i = 3; i < pixels_.size(); i += 4)
      pixels_[i] = 255;
  }
}

BitmapContext::~BitmapContext() = default;

void BitmapContext::drawImage(const BitmapImage& image, Composite mode) {
  if (image.isEmpty())
    return;
  // Bilinear resampling in premultiplied space (so transparent pixels lend
  // no colour to their neighbours), with 8-bit fixed-point weights; at equal
  // sizes every weight but the first is 0, so each pixel is taken from its
  // one source pixel without the weighted sum.
  struct Tap {
    int first;      // left (top) source pixel
    int second;     // right (bottom) source pixel
    unsigned frac;  // weight of the second, 0..256
  };
  auto taps = [](int from, int to) {
    std::vector<Tap> result(to);
    for (int i = 0; i < to; ++i) {
      double pos = (i + 0.5) * from / to - 0.5;
      if (pos < 0)
        pos = 0;
      int first = static_cast<int>(pos);
      if (first > from - 1)
        first = from - 1;
      const int second = first + 1 < from ? first + 1 : first;
      result[i] = {first, second, static_cast<unsigned>((pos - first) * 256 + 0.5)};
    }
    return result;
  };
  std::vector<Tap> columns;
  std::vector<Tap> rows;
  try {
    columns = taps(image.width(), width_);
    rows = taps(image.height(), height_);
  } catch (const std::bad_alloc&) {
    return;
  }

  const bool hasAlpha = alpha_ == Alpha::kPremultipliedLast;
  const bool sameSize = image.width() == width_ && image.height() == height_;
  for (int y = 0; y < height_; ++y) {
    const Tap& ty = rows[y];
    const uint8_t* top = image.row(ty.first);
    const uint8_t* bottom = image.row(ty.second);
    uint8_t* d = pixels_.data() + static_cast<size_t>(y) * bytesPerRow();
    for (int x = 0; x < width_; ++x, d += 4) {
      const Tap& tx = columns[x];
      const uint8_t* p[4] = {top + tx.first * 4, top + tx.second * 4, bottom + tx.first * 4,
                             bottom + tx.second * 4};
      const unsigned w[4] = {(256 - tx.frac) * (256 - ty.frac), tx.frac * (256 - ty.frac),
                             (256 - tx.frac) * ty.frac, tx.frac * ty.frac};
      unsigned premultiplied[4];
      if (sameSize) {
        for (int c = 0; c < 3; ++c)
          premultiplied[c] = mul255(p[0][c], p[0][3]);
        premultiplied[3] = p[0][3];
      } else {
        for (int c = 0; c < 4; ++c) {
          unsigned sum = 0;
          for (int k = 0; k < 4; ++k)
            sum += w[k] * (c == 3 ? p[k][3] : mul255(p[k][c], p[k][3]));
          premultiplied[c] = (sum + 32768) >> 16;
        }
      }
      const unsigned a = premultiplied[3];
      if (mode == Composite::kCopy || a == 255) {
        for (int c = 0; c < 3; ++c)
          d[c] = static_cast<uint8_t>(premultiplied[c]);
        d[3] = hasAlpha ? static_cast<uint8_t>(a) : 255;
      } else {
        const unsigned keep = 255 - a;
        for (int c = 0; c < 3; ++c)
          d[c] = static_cast<uint8_t>(premultiplied[c] + mul255(d[c], keep));
        d[3] = hasAlpha ? static_cast<uint8_t>(a + mul255(d[3], keep)) : 255;
      }
    }
  }
}

}  // namespace vn
