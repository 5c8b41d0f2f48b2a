// Row execution: a render program (render_plan.h) run over its region in
// bands of rows, the bands spread over the worker pool, each thread with
// its own row registers; and the few passes that make whole buffers of
// pixels (a node made over a region, a source box-reduced before it is
// shrunk). Internal to the image layer.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/parallel.h"
#include "image/render_plan.h"

namespace vn {

// Rows a thread renders at a time.
inline constexpr int kBandRows = 16;

// Runs every operation of the program over raster row j of its region;
// the result register is `result` when that is given.
void runRow(const Program& program, std::vector<float>& registers, int j, float* result = nullptr);

// Raster row j of the program's result as it lies in the pixels the program
// copies, when the program is one whole-pixel copy of float pixels that
// keeps every pixel of the row; null otherwise.
const float* directRow(const Program& program, int j);

// Runs the program band by band; `finish` gets each finished row (raster
// row j of the region) from the thread that made it.
template <typename Finish>
void execute(const Program& program, int threads, Finish&& finish) {
  const int rows = program.region.height;
  const int bands = (rows + kBandRows - 1) / kBandRows;
  const size_t width4 = size_t(program.region.width) * 4;
  parallelFor(bands, threads, [&](int band) {
    std::vector<float> registers;
    for (int j = band * kBandRows; j < std::min(rows, (band + 1) * kBandRows); ++j) {
      if (const float* row = directRow(program, j)) {
        finish(j, row);
        continue;
      }
      if (registers.empty())
        registers.resize(width4 * program.registers);
      runRow(program, registers, j);
      finish(j, registers.data() + program.result * width4);
    }
  });
}

// Makes the program's result as 8-bit straight-alpha RGBA rows (row j of
// the region at out + j * stride) by its byte pass, band by band.
void executeBytes(const Program& program,
                  const BytePass& pass,
                  int threads,
                  uint8_t* out,
                  size_t stride);

// Makes node's pixels over region as 8-bit straight-alpha RGBA rows (row j
// at out + j * stride) straight from the bytes of an 8-bit raster, when node
// is a hexagonal pixellation of one under crops that keep the whole region:
// the bytes the float pixels would encode to. False, with nothing written,
// for any other node.
bool renderKernelBytes(const NodePtr& node,
                       const IntRect& region,
                       int threads,
                       uint8_t* out,
                       size_t stride,
                       FilterImage::RenderStats* stats);

// node's pixels over region, in the layer's own form; stats are added to.
std::shared_ptr<const PixelBuffer> materialize(const NodePtr& node,
                                               const IntRect& region,
                                               int threads,
                                               FilterImage::RenderStats* stats);

// Box-reduces the source pixels by whole factors (kx, ky) over what the
// region needs, so that the remaining resampling shrinks to half at most.
std::shared_ptr<const PixelBuffer> reduce(const Source& s, int kx, int ky, int threads);

// The 8-bit code of an alpha value.
inline uint8_t alphaCode(float a) {
  if (!(a > 0))
    return 0;
  if (a >= 1)
    return 255;
  return static_cast<uint8_t>(a * 255 + 0.5f);
}

// Encodes one premultiplied linear row as straight-alpha sRGB bytes.
void encodeRow(const float* in, uint8_t* out, int width);
// An 8-bit straight-alpha sRGB pixel (red at p[ri], ri 0 or 2) as
// premultiplied linear light, red, green, blue, alpha; lut is
// srgbToLinearTable().
typedef float LinearPixel __attribute__((vector_size(16)));
inline LinearPixel decodePixel(const uint8_t* p, int ri, const float* lut) {
  const float alpha = p[3] * (1.0f / 255);
  return LinearPixel{lut[p[ri]] * alpha, lut[p[1]] * alpha, lut[p[2 - ri]] * alpha, alpha};
}
// Decodes n straight-alpha sRGB pixels (RGBA, or BGRA when bgra is set) to
// premultiplied linear RGBA floats.
void decodeRow(const uint8_t* in, bool bgra, int n, float* out);

// Whether sampling an 8-bit source and decodeRow may take eight pixels at a
// time on a machine with AVX2 (the default) or keep to one at a time; both
// give the same results. For tests and benchmarks.
void allowWideSampling(bool allow);

}  // namespace vn
