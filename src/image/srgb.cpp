#include "image/srgb.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

namespace vn {
namespace {

// Bins of the encode table: from kFloor up to 1.0, which has a bin of its
// own.
constexpr int32_t kOneBits = 127 << 23;
constexpr int kEncodeBins =
    (kOneBits >> SrgbEncodeTables::kDropped) - SrgbEncodeTables::kFirstBin + 1;

struct Tables {
  std::array<float, 256> decode;
  // boundary[k]: the least linear value whose code is k + 1 (k < 255).
  std::array<float, 255> boundary;
  // Three bytes more: the wide encode reads four bytes at a bin.
  std::array<uint8_t, kEncodeBins + 3> code{};
  std::array<float, kEncodeBins> edge;

  // The code of x by the boundaries.
  int codeOf(float x) const {
    return static_cast<int>(std::upper_bound(boundary.begin(), boundary.end(), x) -
                            boundary.begin());
  }

  Tables() {
    for (int k = 0; k < 256; ++k)
      decode[k] = static_cast<float>(srgbEotf(k / 255.0));
    for (int k = 0; k < 255; ++k) {
      // The linear value where 255 * OETF(l) reaches k + 0.5 (rounding
      // half up gives k + 1 from there), then nudged to the first float
      // that really encodes as k + 1.
      const double edgeValue = srgbEotf((k + 0.5) / 255.0);
      float f = static_cast<float>(edgeValue);
      while (f > 0 && std::floor(255.0 * srgbOetf(std::nextafter(f, 0.0f)) + 0.5) >= k + 1)
        f = std::nextafter(f, 0.0f);
      while (std::floor(255.0 * srgbOetf(f) + 0.5) < k + 1)
        f = std::nextafter(f, 2.0f);
      boundary[k] = f;
    }
    for (int b = 0; b < kEncodeBins; ++b) {
      const int32_t first = (SrgbEncodeTables::kFirstBin + b) << SrgbEncodeTables::kDropped;
      const float lo = std::bit_cast<float>(first);
      const float hi = std::bit_cast<float>(first + (1 << SrgbEncodeTables::kDropped));
      const int c = codeOf(lo);
      code[b] = static_cast<uint8_t>(c);
      // A bin is narrower than the space between two boundaries (checked
      // by the tests), so at most this one lies inside it.
      edge[b] = c < 255 && boundary[c] < hi ? boundary[c] : 2.0f;
    }
  }
};

const Tables& tables() {
  static const Tables t;
  return t;
}

}  // namespace

double srgbEotf(double v) {
  return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

double srgbOetf(double l) {
  return l <= 0.0031308 ? 12.92 * l : 1.055 * std::pow(l, 1 / 2.4) - 0.055;
}

const float* srgbToLinearTable() {
  return tables().decode.data();
}

float srgbToLinear(uint8_t code) {
  return tables().decode[code];
}

SrgbEncodeTables srgbEncodeTables() {
  const Tables& t = tables();
  return SrgbEncodeTables{t.code.data(), t.edge.data()};
}

uint8_t linearToSrgb(float linear) {
  return srgbEncodeTables().encode(linear);  // NaN gives 0
}

}  // namespace vn
