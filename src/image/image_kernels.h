// The neighbourhood filters of the image layer, on pixel buffers (linear,
// premultiplied; pixel_buffer.h). The renderer materialises a filter's input
// over what the filter reads, runs the kernel once, and samples the result.
//
// Each kernel computes the pixels of `out` (an integral rectangle) from
// `in`, which holds the filter's input image over at least
// out.grown(reach(op)) intersected with `inputExtent` (the input image's
// whole extent, which clamp-mode edges replicate; it may be larger than the
// pixels given when nothing near its edge is needed). Anything outside `in`
// reads transparent. Kernels run on the calling thread and may split their
// rows over the machine's cores (parallel.h); the result is the same, bit
// for bit, whatever the number of threads and however a picture is cut into
// output rectangles.
//
// The filters:
//  - Gaussian blur of standard deviation sigma: the separable kernel
//    w_k ~ exp(-k^2 / 2 sigma^2), |k| <= R = ceil(3 sigma), normalised to a
//    sum of 1, along rows then columns, on all four premultiplied channels.
//    sigma < 0.16 is the identity; sigma is capped at 1024. The float
//    weights are made to add up to exactly 1 in the order they are applied
//    (the outermost pair takes the rest), so an opaque picture stays exactly
//    opaque. Up to sigma = 8 the kernel runs as it is. Above, the picture
//    is box-averaged by the whole factor f = max(2, floor(sigma / 8))
//    (blocks aligned to multiples of f in picture space), the small picture
//    blurred exactly with sigma_s = sqrt(sigma^2 - (f^2 - 1) / 12 - v) / f,
//    where v is the mean variance the bilinear enlargement adds
//    ((f^2 - 1) / 6 for odd f, (2 f^2 + 1) / 12 for even f), and enlarged
//    bilinearly (pixel centres aligned); its reach is then
//    (ceil(3 sigma_s) + 2) f, a little over R. Measured against the exact
//    kernel on a test card of hard edges, thin lines and values above 1:
//    largest difference 2.3e-3 in linear units at sigma 10, 1.5e-3 from 16
//    up, in both modes; a lone pixel comes out spread a little wider than
//    the exact kernel spreads it.
//  - Luma sharpening: Y = 0.2125 r + 0.7154 g + 0.0721 b of the
//    unpremultiplied colour (0 for transparent pixels), Yb its clamp-mode
//    blur, and sharpness (Y - Yb) added to r, g and b; alpha is kept, a
//    transparent pixel stays transparent.
//  - Bloom and gloom: the clamp-mode blur b of the picture (cropped to its
//    extent, unpremultiplied) screen-blended (c + b - c b) or multiplied
//    (c b) with the colour c, mixed with c by the intensity; alpha is kept.
//  - Hexagonal pixellation: every pixel of the extent whose centre falls in
//    a cell (hexagonalCell) takes the mean of those pixels, all four
//    premultiplied channels. The reach covers a whole cell:
//    ceil(2 scale / sqrt 3) + 1 (a cell is 2 s / sqrt 3 high, s wide), at
//    most 1 << 15; larger cells average only the pixels within that reach.
//
// Sharpening, bloom, gloom and pixellation keep the input extent (pixels of
// `out` outside it are transparent), and so does a clamp-mode blur.
#pragma once

#include <cstddef>
#include <cstdint>

#include "image/image_ops.h"
#include "image/pixel_buffer.h"

namespace vn {

// How far, in whole pixels, an output pixel of op reads from its position
// (0 for an identity blur).
int kernelReach(const NeighbourhoodOp& op);

// The extent of op's output for an input of the given extent: a
// transparent-mode blur grows it by R = ceil(3 sigma), every other op keeps
// it. The endless extent (x = y = -(1 << 29), width = height = 1 << 30)
// stays as it is.
IntRect kernelOutputExtent(const NeighbourhoodOp& op, const IntRect& inputExtent);

// The pixels of out after op; threads as in parallel.h (0 = all cores).
PixelBuffer applyKernel(const NeighbourhoodOp& op,
                        const PixelBuffer& in,
                        const IntRect& inputExtent,
                        const IntRect& out,
                        int threads);

// The cell of a hexagonal pixellation that the point (x, y) falls in: the
// lattice point center + scale (m + n / 2, n sqrt(3) / 2) nearest to it.
// Points as good as equally near two or three cells (squared distances, in
// units of the scale, within 1e-9) go to the smaller n, then the smaller m.
// A scale below 1 counts as 1.
struct HexCell {
  int64_t m = 0;
  int64_t n = 0;
  bool operator==(const HexCell&) const = default;
};
HexCell hexagonalCell(const HexagonalPixellateOp& op, double x, double y);

// An 8-bit straight-alpha sRGB raster, RGBA (BGRA when bgra is set), row 0
// on top, lying over (0, 0, width, height) in picture space.
struct Raster8 {
  const uint8_t* bytes = nullptr;
  int width = 0;
  int height = 0;
  size_t stride = 0;
  bool bgra = false;
};

// The hexagonal pixellation of a raster made over region straight into
// 8-bit straight-alpha RGBA rows (raster row j of the region at
// out + j * stride): the bytes that applyKernel's pixels encode to, without
// a float pixel of the picture being made.
void hexagonalPixellateBytes(const HexagonalPixellateOp& op,
                             const Raster8& in,
                             const IntRect& region,
                             uint8_t* out,
                             size_t stride,
                             int threads);

// The Gaussian blur of a raster made over region straight into 8-bit rows
// in the same way, when its plan blurs a reduced picture (which reads each
// input pixel once); false, and nothing written, for an exact blur.
bool gaussianBlurBytes(const GaussianBlurOp& op,
                       const Raster8& in,
                       const IntRect& region,
                       uint8_t* out,
                       size_t stride,
                       int threads);

}  // namespace vn
