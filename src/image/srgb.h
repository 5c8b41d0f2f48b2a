// sRGB transfer functions between 8-bit codes and linear light.
//
// The decode is a 256-entry table of the exact piecewise EOTF; the encode
// finds the code whose rounding interval holds the value, by a fine table
// and one comparison against the exact boundary, so that it equals
// round-half-up(255 * OETF(l)) computed in double precision, and every code
// round-trips. Values below 0 encode as 0, above 1 as 255. Thread-safe.
#pragma once

#include <cstdint>

namespace vn {

// Linear light of an 8-bit sRGB code.
float srgbToLinear(uint8_t code);
// The table behind srgbToLinear: 256 entries.
const float* srgbToLinearTable();
// The exact transfer functions on doubles (no clamping).
double srgbEotf(double v);
double srgbOetf(double l);
// The 8-bit code of a linear value, clamped to [0, 1] first.
uint8_t linearToSrgb(float linear);

// The tables behind linearToSrgb, for loops that encode many values inline.
struct SrgbEncodeTables {
  static constexpr int kBins = 16384;
  const float* boundary;  // boundary[k]: the least linear value whose code is k + 1
  const uint8_t* lowest;  // the code at the start of each of kBins + 1 bins over [0, 1]

  uint8_t encode(float linear) const {
    if (!(linear > 0))
      return 0;
    if (linear >= 1)
      return 255;
    int code = lowest[static_cast<int>(linear * kBins)];
    code += linear >= boundary[code];
    return static_cast<uint8_t>(code);
  }
};
SrgbEncodeTables srgbEncodeTables();

}  // namespace vn
