// Render planning: a FilterImage's graph, asked for one output rectangle,
// becomes a render program — a list of row operations on a few row
// registers (one row of linear premultiplied RGBA floats each) that
// row_executor.h runs band by band. Runs of transforms and crops fold into
// one resampling of a source, runs of point operations into one colour
// operation, composites into row operations on what both sides made;
// neighbourhood filters and what cannot fold are made first, and become
// sources. Internal to the image layer.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "image/filter_graph.h"
#include "image/point_table.h"

namespace vn {

// Where an output pixel is kept: inside every crop of the run, by its centre.
struct Mask {
  AffineTransform toCrop;  // output space to the crop's space
  Rect rect;
  bool axisAligned;         // toCrop is a translation: the mask limits the span
  bool aboveClamp = false;  // made after edges were repeated: never a source crop
};

// A source of pixels for a resampling: 8-bit raster or float pixels.
struct Source {
  const Node* raster = nullptr;         // kRaster
  const PixelBuffer* pixels = nullptr;  // kPixels or made by a pass
  // The source pixels whose taps count (crops made before any transform),
  // in raster columns [c0, c1) and rows [r0, r1), row 0 on top.
  int c0 = 0, c1 = 0, r0 = 0, r1 = 0;
  int width = 0, height = 0;        // raster size
  double originX = 0, originY = 0;  // picture-space position of the bottom-left corner
  bool clamp = false;  // taps outside repeat the edge pixels instead of reading transparent
};

// One operation on a row register.
struct RowOp {
  enum class Kind { kSample, kFill, kPoint, kOver, kIn, kMask } kind;
  int dst = 0;
  int src = 0;  // kOver / kIn: the foreground register
  // kSample
  Source source;
  AffineTransform inverse;  // output pixel centre to source space
  bool copy = false;        // a whole-pixel translation: no interpolation
  int copyDx = 0, copyDy = 0;
  std::vector<Mask> masks;
  // kFill
  float color[4] = {0, 0, 0, 0};
  // kPoint
  std::vector<PointOp> stages;
};

struct Program {
  IntRect region;
  std::vector<RowOp> ops;
  int registers = 0;
  int result = 0;
  // Pixels made by earlier passes; the ops point into them.
  std::vector<std::shared_ptr<const PixelBuffer>> keep;
  FilterImage::RenderStats stats;
  int threads = 0;
  bool clampNext = false;  // the next resampling repeats its source's edges
};

// The program that makes root's pixels over region; the neighbourhood
// filters and whatever else it samples as a source are made while it is
// compiled, with `threads` (0: every core).
Program compile(const NodePtr& root, const IntRect& region, int threads);

// A program whose result is a whole-pixel copy of an 8-bit raster, under a
// run of point operations that tables hold (or none), made for an 8-bit
// output: the bytes go through the table and no row of floats is made.
struct BytePass {
  Source source;  // as the program's resampling has it
  int copyDx = 0, copyDy = 0;
  std::shared_ptr<const PointTable> table;
};

// The byte pass that makes program's result, when there is one.
std::optional<BytePass> bytePass(const Program& program);

// Adds what a render did to *to, when to is set.
void addStats(FilterImage::RenderStats* to, const FilterImage::RenderStats& from);

}  // namespace vn
