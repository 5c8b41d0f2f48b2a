// A run of point operations compiled for 8-bit pixels: what the renderer
// uses when the run reads 8-bit source bytes pixel for pixel and its result
// goes straight to 8-bit bytes, so that no row of floats is made.
//
// The run, its colour matrices fused, must have the form [matrix] [one
// monochrome] [matrix], any part absent (the colour controls, hue, invert,
// exposure, sepia and the monochrome presets are), or [matrix] [spotlight].
// A spotlight's factor depends only on where a pixel is: it is worked out
// once per picture rectangle and kept with the tables. Every output channel is
// then, in linear light, a sum of one term per input channel plus, for the
// monochrome, a piecewise linear function of a luma that is itself such a
// sum; the terms are tables of the 256 codes, worked out once in linear
// light from the same formulas, and the sum is encoded once. Where no
// channel reaches into another (no monochrome, diagonal matrices) each
// channel is one table of 256 output codes. The result is that of the
// float rows within one code (the same bytes where each channel is one
// table), the alpha code is kept, and a transparent pixel becomes
// transparent black. Internal to the image layer.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "image/image_ops.h"
#include "image/pixel_buffer.h"

namespace vn {

// The factor by which a spotlight multiplies the colour of the pixels of a
// row (before the light's own colour), pixel i having its centre at
// (x0 + i, y).
void spotLightFactors(const SpotLightOp& op, double x0, double y, int width, float* out);

class PointTable {
 public:
  // The tables of a fused run of stages (empty: the identity), or null when
  // the run does not have the form above. Tables are shared: the same
  // stages give the same tables without working them out again.
  static std::shared_ptr<const PointTable> forStages(const std::vector<PointOp>& stages);

  // Applies the run to n pixels of 8-bit straight-alpha sRGB, RGBA (or BGRA
  // when bgra is set), writing RGBA; in and out may be the same.
  // factors: the spotlight's factors of the row's pixels (see factorsFor),
  // for a run that has one.
  void apply(const uint8_t* in, bool bgra, uint8_t* out, int n, const float* factors) const;

  // The run has a spotlight: apply needs the factors of each row.
  bool positional() const { return spot_; }
  // The spotlight's factors of every pixel of region, row after row from
  // the top, made on `threads` (parallel.h) the first time they are asked
  // for over that region.
  std::shared_ptr<const std::vector<float>> factorsFor(const IntRect& region, int threads) const;

  // Every channel is one table of output codes.
  bool separable() const { return separable_; }

  // Whether apply may take several pixels at a time (two pixels' eight
  // lanes with AVX2; sixteen pixels of one table per channel with AVX-512's
  // byte permutes) where the machine has them (the default) or keeps to
  // the plain loops; both give the same bytes. For tests and benchmarks.
  static void allowWideLoop(bool allow);

  // Only for forStages (and std::make_shared).
  struct Terms;
  explicit PointTable(const Terms& terms);

 private:
  typedef float Float4 __attribute__((vector_size(16)));

  void applySeparable(const uint8_t* in, bool bgra, uint8_t* out, int n) const;
  // applySeparable sixteen pixels at a time; returns how many were done.
  int applySeparableWide(const uint8_t* in, bool bgra, uint8_t* out, int n) const;
  // The mixing run over pixels [from, n).
  void applyPlain(const uint8_t* in, bool bgra, uint8_t* out, int from, int n, const float* factors)
      const;
  // The mixing run two pixels at a time; returns how many were done (the
  // rest are left for applyPlain).
  int applyWide(const uint8_t* in, bool bgra, uint8_t* out, int n, const float* factors) const;
  // applyWide's loop for a run with or without a monochrome and a spotlight.
  template <bool kMono, bool kSpot>
  int applyWideAs(const uint8_t* in, bool bgra, uint8_t* out, int n, const float* factors) const;

  bool separable_ = false;
  bool mono_ = false;
  bool spot_ = false;
  SpotLightOp spotLight_;
  Float4 spotColor_;
  mutable std::mutex factorsMutex_;
  mutable IntRect factorsRegion_;
  mutable std::shared_ptr<const std::vector<float>> factors_;
  uint8_t codes_[3][256];  // separable: output code of each input code
  // Otherwise: lanes 0-2 the linear output channels, lane 3 the luma of the
  // monochrome, for each input channel and code; the constant part; the
  // monochrome's addition below and above a luma of 1/2 (slope, base).
  Float4 terms_[3][256];
  Float4 offset_;
  Float4 lowSlope_, highBase_, highSlope_;
};

}  // namespace vn
