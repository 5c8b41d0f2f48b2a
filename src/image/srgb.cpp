#include "image/srgb.h"

#include <array>
#include <cmath>

namespace vn {
namespace {

// Entries of the encode table over [0, 1]; fine enough that no bin holds
// more than one code boundary (the steepest part of the curve, near 0,
// moves 12.92 * 255 codes per unit).
constexpr int kEncodeBins = SrgbEncodeTables::kBins;

struct Tables {
  std::array<float, 256> decode;
  // boundary[k]: the least linear value whose code is k + 1 (k < 255).
  std::array<float, 256> boundary;
  std::array<uint8_t, kEncodeBins + 1> lowest;  // the code at each bin's start

  Tables() {
    for (int k = 0; k < 256; ++k)
      decode[k] = static_cast<float>(srgbEotf(k / 255.0));
    for (int k = 0; k < 255; ++k) {
      // The linear value where 255 * OETF(l) reaches k + 0.5 (rounding
      // half up gives k + 1 from there), then nudged to the first float
      // that really encodes as k + 1.
      const double edge = srgbEotf((k + 0.5) / 255.0);
      float f = static_cast<float>(edge);
      while (f > 0 && std::floor(255.0 * srgbOetf(std::nextafter(f, 0.0f)) + 0.5) >= k + 1)
        f = std::nextafter(f, 0.0f);
      while (std::floor(255.0 * srgbOetf(f) + 0.5) < k + 1)
        f = std::nextafter(f, 2.0f);
      boundary[k] = f;
    }
    boundary[255] = 2.0f;  // never reached: 255 is the last code
    int code = 0;
    for (int i = 0; i <= kEncodeBins; ++i) {
      const float start = static_cast<float>(i) / kEncodeBins;
      while (code < 255 && start >= boundary[code])
        ++code;
      lowest[i] = static_cast<uint8_t>(code);
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
  return SrgbEncodeTables{t.boundary.data(), t.lowest.data()};
}

uint8_t linearToSrgb(float linear) {
  return srgbEncodeTables().encode(linear);  // NaN gives 0
}

}  // namespace vn
