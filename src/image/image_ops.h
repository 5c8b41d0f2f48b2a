// The operations a vn::FilterImage records, as plain parameter records. The
// image filters (image_filter.h) build them from their key-value parameters;
// the renderer (render_plan.h, row_executor.h) and the neighbourhood kernels
// (image_kernels.h) carry them out. Colours here are linear light, not
// premultiplied; positions are picture space (y up), pixels.
#pragma once

#include <variant>

namespace vn {

// Point operations: each output pixel depends on the input pixel at the
// same place only (and on where it is). They act on unpremultiplied linear
// colour c = (r, g, b) and keep alpha.

// c' = M · (r, g, b, 1): colour controls, hue, invert, exposure, sepia.
struct ColorMatrixOp {
  float m[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
};

// Grey by luma, overlay-blended with a colour, mixed with the input.
struct MonochromeOp {
  float color[3] = {0, 0, 0};  // linear
  float intensity = 1;
};

// A spotlight on the flat picture (diffuse, with a beam exponent).
struct SpotLightOp {
  double position[3] = {400, 600, 150};
  double pointsAt[3] = {200, 200, 0};
  double brightness = 3;
  double concentration = 0.1;  // at least 0.001
  float color[3] = {1, 1, 1};  // linear
};

// A monochrome line halftone.
struct LineScreenOp {
  double center[2] = {150, 150};
  double angle = 0;  // radians; 0 gives horizontal lines
  double width = 6;  // at least 1
  double sharpness = 0.7;
};

using PointOp = std::variant<ColorMatrixOp, MonochromeOp, SpotLightOp, LineScreenOp>;

// Neighbourhood operations: an output pixel reads the input around it.

// A Gaussian of standard deviation sigma. Transparent mode reads
// transparent black outside the input and grows the extent by the kernel's
// reach; clamp mode replicates the edge pixels and keeps the extent.
struct GaussianBlurOp {
  double sigma = 10;
  bool clamp = false;
};

// Unsharp mask on luma: the luma detail, times sharpness, added to r, g, b.
struct SharpenLuminanceOp {
  double sharpness = 0.4;
  double sigma = 1.69;
};

// Bloom (screen blend of a blurred copy) or Gloom (multiply blend).
struct GlowOp {
  double radius = 10;
  double intensity = 0.5;
  bool gloom = false;
};

// Hexagonal cells filled with the mean of the pixels they cover.
struct HexagonalPixellateOp {
  double center[2] = {150, 150};
  double scale = 8;  // at least 1
};

using NeighbourhoodOp =
    std::variant<GaussianBlurOp, SharpenLuminanceOp, GlowOp, HexagonalPixellateOp>;

}  // namespace vn
