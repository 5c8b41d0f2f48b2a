// sRGB transfer functions between 8-bit codes and linear light.
//
// The decode is a 256-entry table of the exact piecewise EOTF; the encode
// finds the code whose rounding interval holds the value, by a fine table
// and one comparison against the exact boundary, so that it equals
// round-half-up(255 * OETF(l)) computed in double precision, and every code
// round-trips. Values below 0 encode as 0, above 1 as 255. Thread-safe.
#pragma once

#include <cstdint>
#include <cstring>

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
// Values are put in bins by their float bits: 256 bins per octave from
// 2^-13 (below which every value is code 0) up to 1, each narrower than the
// distance between two code boundaries, so a bin holds at most one: its
// code, and one more from its edge on. Two loads that do not wait for each
// other, no multiply, and the exact code.
struct SrgbEncodeTables {
  static constexpr int kDropped = 23 - 8;            // mantissa bits not looked at
  static constexpr float kFloor = 1.0f / (1 << 13);  // the first bin's start
  static constexpr int32_t kFirstBin = (127 - 13) << (23 - kDropped);  // its bits >> kDropped
  const uint8_t* code;  // the code at each bin's start (the last bin is 1.0: 255), and three
                        // bytes more
  const float* edge;    // where in the bin the code is one more (2 where it is not)

  // The code of a value already put into [kFloor, 1] (see encode).
  uint8_t encodeClamped(float x) const {
    int32_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    const int32_t bin = (bits >> kDropped) - kFirstBin;
    return static_cast<uint8_t>(code[bin] + (x >= edge[bin]));
  }

  uint8_t encode(float linear) const {
    // Into [kFloor, 1]; NaN to kFloor (code 0).
    float x = linear > kFloor ? linear : kFloor;
    x = x < 1.0f ? x : 1.0f;
    return encodeClamped(x);
  }
};
SrgbEncodeTables srgbEncodeTables();

}  // namespace vn
