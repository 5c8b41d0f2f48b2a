#include "image/filter_image.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <new>
#include <utility>

#include "base/parallel.h"
#include "image/bitmap_context.h"
#include "image/bitmap_image.h"
#include "image/image_kernels.h"
#include "image/pixel_buffer.h"
#include "image/srgb.h"
#include "image/vips_library.h"

namespace vn {

// ---------------------------------------------------------------------------
// The graph

struct FilterImage::Node {
  enum class Kind {
    kRaster,
    kPixels,
    kColor,
    kCrop,
    kClamp,
    kTransform,
    kPoint,
    kKernel,
    kOver,
    kIn
  };

  Kind kind;
  Rect extent;  // where the node's pixels lie; infinite for endless images

  // kRaster: 8-bit sRGB, straight alpha, top row first.
  std::shared_ptr<const void> owner;
  const uint8_t* bytes = nullptr;
  int width = 0;
  int height = 0;
  int stride = 0;
  bool bgra = false;
  // kPixels
  std::shared_ptr<const PixelBuffer> pixels;
  // kColor: linear, premultiplied
  float color[4] = {0, 0, 0, 0};
  // kCrop
  Rect rect;
  // kTransform
  AffineTransform transform;
  // kPoint, kKernel
  PointOp point;
  NeighbourhoodOp kernel;
  // Inputs: the one input, or the foreground (a) over / in the background (b).
  std::shared_ptr<const Node> a;
  std::shared_ptr<const Node> b;
};

namespace {

using Node = FilterImage::Node;
using NodePtr = std::shared_ptr<const Node>;

constexpr double kInf = std::numeric_limits<double>::infinity();
// An endless extent as whole pixels, for the kernels.
constexpr int kHugeOrigin = -(1 << 29);
constexpr int kHugeSize = 1 << 30;

// Rows a thread renders at a time.
constexpr int kBandRows = 16;

bool isInfiniteRect(const Rect& r) {
  return !std::isfinite(r.width) || !std::isfinite(r.height);
}

Rect infiniteRect() {
  return Rect{-kInf, -kInf, kInf, kInf};
}

Rect intersect(const Rect& p, const Rect& q) {
  if (isInfiniteRect(p))
    return q;
  if (isInfiniteRect(q))
    return p;
  const double l = std::max(p.x, q.x), r = std::min(p.x + p.width, q.x + q.width);
  const double b = std::max(p.y, q.y), t = std::min(p.y + p.height, q.y + q.height);
  if (r <= l || t <= b)
    return Rect{l, b, 0, 0};
  return Rect{l, b, r - l, t - b};
}

bool emptyRect(const Rect& r) {
  return !(r.width > 0) || !(r.height > 0);
}

Rect unite(const Rect& p, const Rect& q) {
  if (emptyRect(p))
    return q;
  if (emptyRect(q))
    return p;
  if (isInfiniteRect(p) || isInfiniteRect(q))
    return infiniteRect();
  const double l = std::min(p.x, q.x), r = std::max(p.x + p.width, q.x + q.width);
  const double b = std::min(p.y, q.y), t = std::max(p.y + p.height, q.y + q.height);
  return Rect{l, b, r - l, t - b};
}

// The whole pixels that touch r (floor of the minimum, ceiling of the
// maximum); endless or out-of-range rectangles give the huge rectangle.
IntRect integral(const Rect& r) {
  if (emptyRect(r))
    return IntRect{0, 0, 0, 0};
  const double l = std::floor(r.x), b = std::floor(r.y);
  const double rt = std::ceil(r.x + r.width), t = std::ceil(r.y + r.height);
  if (isInfiniteRect(r) || l < kHugeOrigin || b < kHugeOrigin ||
      rt > kHugeOrigin + double{kHugeSize} || t > kHugeOrigin + double{kHugeSize})
    return IntRect{kHugeOrigin, kHugeOrigin, kHugeSize, kHugeSize};
  return IntRect{static_cast<int>(l), static_cast<int>(b), static_cast<int>(rt - l),
                 static_cast<int>(t - b)};
}

Rect toRect(const IntRect& r) {
  if (r.width >= kHugeSize)
    return infiniteRect();
  return Rect{double(r.x), double(r.y), double(r.width), double(r.height)};
}

Rect transformedExtent(const Rect& e, const AffineTransform& t) {
  if (emptyRect(e))
    return Rect{0, 0, 0, 0};
  if (isInfiniteRect(e))
    return infiniteRect();
  const Point corners[4] = {t.apply({e.x, e.y}), t.apply({e.x + e.width, e.y}),
                            t.apply({e.x, e.y + e.height}),
                            t.apply({e.x + e.width, e.y + e.height})};
  double l = kInf, r = -kInf, b = kInf, top = -kInf;
  for (const Point& p : corners) {
    l = std::min(l, p.x);
    r = std::max(r, p.x);
    b = std::min(b, p.y);
    top = std::max(top, p.y);
  }
  // Coordinates that landed a rounding error away from a whole pixel (a turn
  // by 90 degrees) are taken as that pixel.
  auto snap = [](double v) {
    const double n = std::round(v);
    return std::abs(v - n) < 1e-9 ? n : v;
  };
  l = snap(l), r = snap(r), b = snap(b), top = snap(top);
  return Rect{l, b, r - l, top - b};
}

bool withinLimits(const IntRect& r) {
  return !r.isEmpty() && r.width <= kMaxImageSide && r.height <= kMaxImageSide &&
         int64_t{r.width} * r.height <= kMaxImagePixels;
}

std::shared_ptr<Node> makeNode(Node::Kind kind) {
  auto node = std::make_shared<Node>();
  node->kind = kind;
  return node;
}

bool isNeutral(const PointOp& op) {
  if (const auto* m = std::get_if<ColorMatrixOp>(&op)) {
    static const ColorMatrixOp identity;
    return std::memcmp(m->m, identity.m, sizeof identity.m) == 0;
  }
  if (const auto* mono = std::get_if<MonochromeOp>(&op))
    return mono->intensity == 0;
  return false;
}

// ---------------------------------------------------------------------------
// The render program: a list of row operations on a few row registers (one
// row of linear premultiplied RGBA floats each), compiled from the graph for
// one output rectangle and run band by band.

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

// Four floats handled as one value (one SSE register on x86-64).
typedef float Float4 __attribute__((vector_size(16)));

inline Float4 load4(const float* p) {
  Float4 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline void store4(float* p, Float4 v) {
  std::memcpy(p, &v, sizeof v);
}

// One source pixel as premultiplied linear light.
inline Float4 fetch(const Source& s, const float* lut, int c, int r) {
  if (s.raster) {
    const uint8_t* p = s.raster->bytes + size_t(r) * s.raster->stride + size_t(c) * 4;
    const float alpha = p[3] * (1.0f / 255);
    const int ri = s.raster->bgra ? 2 : 0;
    return Float4{lut[p[ri]] * alpha, lut[p[1]] * alpha, lut[p[2 - ri]] * alpha, alpha};
  }
  return load4(s.pixels->row(r) + size_t(c) * 4);
}

// A resampling source over pixels an earlier pass made.
Source pixelSource(const PixelBuffer& pixels) {
  Source s;
  s.pixels = &pixels;
  s.width = s.c1 = pixels.rect.width;
  s.height = s.r1 = pixels.rect.height;
  s.originX = pixels.rect.x;
  s.originY = pixels.rect.y;
  return s;
}

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

// The x range [x0, x1) of the output pixels of a row whose centres lie
// inside the row op's masks and near enough to its source for a tap.
struct Span {
  int x0, x1;
};

void compileInto(Program& program,
                 const NodePtr& node,
                 int dst,
                 const AffineTransform& inverse,
                 std::vector<Mask> masks,
                 const IntRect& region);
std::shared_ptr<const PixelBuffer> materialize(const NodePtr& node,
                                               const IntRect& region,
                                               int threads,
                                               FilterImage::RenderStats* stats);

// The part of the region that a node's pixels can touch after `inverse`
// maps output to node space: the node-space bounding box of the region,
// grown by one pixel for the bilinear taps, inside the node's extent.
IntRect neededInNodeSpace(const Node& node, const AffineTransform& inverse, const IntRect& region) {
  const Rect out = transformedExtent(toRect(region), inverse);
  Rect grown{out.x - 1, out.y - 1, out.width + 2, out.height + 2};
  return integral(intersect(grown, node.extent));
}

// Box-reduces the source pixels by whole factors (kx, ky) over what the
// region needs, so that the remaining resampling shrinks to half at most.
std::shared_ptr<const PixelBuffer> reduce(const Source& s, int kx, int ky, int threads) {
  const int w = (s.c1 - s.c0 + kx - 1) / kx, h = (s.r1 - s.r0 + ky - 1) / ky;
  // The reduced pixel (i, j) averages source columns c0 + i*kx .. and rows
  // r0 + j*ky ..; it is placed in its own raster space, mapped back by the
  // caller.
  auto out = std::make_shared<PixelBuffer>(IntRect{0, 0, w, h});
  const float* lut = srgbToLinearTable();
  const float scale = 1.0f / (kx * ky);
  parallelFor(h, threads, [&](int j) {
    float* o = out->row(j);
    for (int i = 0; i < w; ++i) {
      Float4 acc = {0, 0, 0, 0};
      for (int r = s.r0 + j * ky; r < std::min(s.r0 + (j + 1) * ky, s.r1); ++r) {
        for (int c = s.c0 + i * kx; c < std::min(s.c0 + (i + 1) * kx, s.c1); ++c) {
          acc += fetch(s, lut, c, r);
        }
      }
      store4(o + i * 4, acc * scale);
    }
  });
  return out;
}

int newRegister(Program& program) {
  return program.registers++;
}

void addSample(Program& program,
               Source source,
               const AffineTransform& inverse,
               std::vector<Mask> masks,
               int dst) {
  // The crops nearest the source, with no transform between, remove source
  // pixels; the others stay masks on the way.
  RowOp op;
  op.kind = RowOp::Kind::kSample;
  op.dst = dst;
  AffineTransform toSource = inverse;
  // Shrinking below half size: reduce by box averaging first.
  const double sx = std::hypot(inverse.a, inverse.b), sy = std::hypot(inverse.c, inverse.d);
  const int kx = sx > 2 ? static_cast<int>(std::floor(sx)) : 1;
  const int ky = sy > 2 ? static_cast<int>(std::floor(sy)) : 1;
  if ((kx > 1 || ky > 1) && source.c1 > source.c0 && source.r1 > source.r0) {
    auto reduced = reduce(source, kx, ky, program.threads);
    ++program.stats.materialized;
    // Source space to the reduced raster: columns from c0, rows from r0
    // (top), both divided by the factors. In picture terms the reduced
    // image's pixel (i, j) centre sits at source x = originX + c0 + (i+0.5)kx.
    const double left = source.originX + source.c0;
    const double top = source.originY + source.height - source.r0;
    const Source r = pixelSource(*reduced);  // placed at (0, 0)
    // Reduced space: x_r = (x - left) / kx, y_r = height_r - (top - y) / ky.
    const AffineTransform toReduced{1.0 / kx, 0, 0, 1.0 / ky, -left / kx, r.height - top / ky};
    toSource = inverse.concatenated(toReduced);
    program.keep.push_back(reduced);
    source = r;
  }
  source.clamp = program.clampNext;
  program.clampNext = false;
  op.source = source;
  op.inverse = toSource;
  const AffineTransform& t = toSource;
  if (t.a == 1 && t.b == 0 && t.c == 0 && t.d == 1 && t.tx == std::round(t.tx) &&
      t.ty == std::round(t.ty)) {
    op.copy = true;
    op.copyDx = static_cast<int>(t.tx);
    op.copyDy = static_cast<int>(t.ty);
  }
  op.masks = std::move(masks);
  ++program.stats.resamplingPasses;
  program.ops.push_back(std::move(op));
}

void addMasks(Program& program, int dst, std::vector<Mask> masks) {
  if (masks.empty())
    return;
  RowOp op;
  op.kind = RowOp::Kind::kMask;
  op.dst = dst;
  op.masks = std::move(masks);
  program.ops.push_back(std::move(op));
}

// Samples node's pixels made over what the region needs.
void compileMaterialized(Program& program,
                         const NodePtr& node,
                         int dst,
                         const AffineTransform& inverse,
                         std::vector<Mask> masks,
                         const IntRect& region) {
  const IntRect need = neededInNodeSpace(*node, inverse, region);
  if (need.isEmpty() || !withinLimits(need)) {
    RowOp fill;
    fill.kind = RowOp::Kind::kFill;
    fill.dst = dst;
    program.ops.push_back(std::move(fill));
    return;
  }
  auto pixels = materialize(node, need, program.threads, &program.stats);
  program.keep.push_back(pixels);
  addSample(program, pixelSource(*pixels), inverse, std::move(masks), dst);
}

void compileInto(Program& program,
                 const NodePtr& node,
                 int dst,
                 const AffineTransform& inverse,
                 std::vector<Mask> masks,
                 const IntRect& region) {
  const bool identity = inverse.isIdentity();
  switch (node->kind) {
    case Node::Kind::kRaster:
    case Node::Kind::kPixels: {
      Source s;
      if (node->kind == Node::Kind::kRaster) {
        s.raster = node.get();
        s.width = s.c1 = node->width;
        s.height = s.r1 = node->height;
        s.originX = node->extent.x;
        s.originY = node->extent.y;
      } else {
        s = pixelSource(*node->pixels);
      }
      // Crops right above the source (no transform between) remove source
      // pixels by their centres.
      std::vector<Mask> rest;
      for (const Mask& m : masks) {
        const AffineTransform& t = m.toCrop;
        if (t.a == inverse.a && t.b == inverse.b && t.c == inverse.c && t.d == inverse.d &&
            t.tx == inverse.tx && t.ty == inverse.ty && !isInfiniteRect(m.rect) && !m.aboveClamp) {
          // Source columns whose centres x = originX + c + 0.5 lie in the crop.
          const double cl = std::ceil(m.rect.x - s.originX - 0.5);
          const double cr = std::ceil(m.rect.x + m.rect.width - s.originX - 0.5);
          const double top = s.originY + s.height;
          const double rt = std::ceil(top - (m.rect.y + m.rect.height) - 0.5);
          const double rb = std::ceil(top - m.rect.y - 0.5);
          s.c0 = std::max(s.c0, static_cast<int>(std::clamp(cl, 0.0, double(s.width))));
          s.c1 = std::min(s.c1, static_cast<int>(std::clamp(cr, 0.0, double(s.width))));
          s.r0 = std::max(s.r0, static_cast<int>(std::clamp(rt, 0.0, double(s.height))));
          s.r1 = std::min(s.r1, static_cast<int>(std::clamp(rb, 0.0, double(s.height))));
        } else {
          rest.push_back(m);
        }
      }
      addSample(program, s, inverse, std::move(rest), dst);
      return;
    }
    case Node::Kind::kColor: {
      RowOp fill;
      fill.kind = RowOp::Kind::kFill;
      fill.dst = dst;
      std::copy(node->color, node->color + 4, fill.color);
      program.ops.push_back(std::move(fill));
      addMasks(program, dst, std::move(masks));
      return;
    }
    case Node::Kind::kCrop: {
      masks.push_back(Mask{inverse, node->rect,
                           inverse.a == 1 && inverse.b == 0 && inverse.c == 0 && inverse.d == 1});
      compileInto(program, node->a, dst, inverse, std::move(masks), region);
      return;
    }
    case Node::Kind::kClamp: {
      // The edges repeat: the resampling of what is under it (through crops
      // only) takes its edge taps again; anything else is made first.
      for (Mask& m : masks)
        m.aboveClamp = true;
      NodePtr below = node->a;
      while (below->kind == Node::Kind::kCrop)
        below = below->a;
      program.clampNext = true;
      if (below->kind == Node::Kind::kRaster || below->kind == Node::Kind::kPixels) {
        compileInto(program, node->a, dst, inverse, std::move(masks), region);
      } else {
        const IntRect need = neededInNodeSpace(*node->a, inverse, region);
        if (need.isEmpty() || !withinLimits(need)) {
          program.clampNext = false;
          compileInto(program, node->a, dst, inverse, std::move(masks), region);
          return;
        }
        auto pixels = materialize(node->a, need, program.threads, &program.stats);
        program.keep.push_back(pixels);
        addSample(program, pixelSource(*pixels), inverse, std::move(masks), dst);
      }
      return;
    }
    case Node::Kind::kTransform: {
      compileInto(program, node->a, dst, inverse.concatenated(node->transform.inverted()),
                  std::move(masks), region);
      return;
    }
    case Node::Kind::kPoint: {
      if (!identity) {
        compileMaterialized(program, node, dst, inverse, std::move(masks), region);
        return;
      }
      // A run of point operations, the innermost first.
      std::vector<PointOp> run;
      NodePtr below = node;
      while (below->kind == Node::Kind::kPoint) {
        run.push_back(below->point);
        below = below->a;
      }
      std::reverse(run.begin(), run.end());
      compileInto(program, below, dst, inverse, std::move(masks), region);
      // Consecutive colour matrices become one; neutral ones go.
      std::vector<PointOp> stages;
      for (const PointOp& op : run) {
        const auto* m = std::get_if<ColorMatrixOp>(&op);
        auto* last = stages.empty() ? nullptr : std::get_if<ColorMatrixOp>(&stages.back());
        if (m && last) {
          ColorMatrixOp product;
          for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 4; ++c) {
              float v = c == 3 ? m->m[r][3] : 0;
              for (int k = 0; k < 3; ++k)
                v += m->m[r][k] * last->m[k][c];
              product.m[r][c] = v;
            }
          }
          *last = product;
        } else {
          stages.push_back(op);
        }
        if (!stages.empty() && isNeutral(stages.back()))
          stages.pop_back();
      }
      if (stages.empty())
        return;
      RowOp op;
      op.kind = RowOp::Kind::kPoint;
      op.dst = dst;
      op.stages = std::move(stages);
      ++program.stats.colorPasses;
      program.ops.push_back(std::move(op));
      return;
    }
    case Node::Kind::kKernel:
      compileMaterialized(program, node, dst, inverse, std::move(masks), region);
      return;
    case Node::Kind::kOver:
    case Node::Kind::kIn: {
      if (!identity) {
        compileMaterialized(program, node, dst, inverse, std::move(masks), region);
        return;
      }
      compileInto(program, node->b, dst, inverse, masks, region);
      const int fg = newRegister(program);
      compileInto(program, node->a, fg, inverse, masks, region);
      RowOp op;
      op.kind = node->kind == Node::Kind::kOver ? RowOp::Kind::kOver : RowOp::Kind::kIn;
      op.dst = dst;
      op.src = fg;
      program.ops.push_back(std::move(op));
      return;
    }
  }
}

Program compile(const NodePtr& root, const IntRect& region, int threads) {
  Program program;
  program.region = region;
  program.threads = threads;
  program.result = newRegister(program);
  compileInto(program, root, program.result, AffineTransform::identity(), {}, region);
  return program;
}

// --- Row execution ---------------------------------------------------------

// Where the row's output pixels lie inside the op's axis-aligned masks.
Span maskSpan(const std::vector<Mask>& masks, double y, const IntRect& region) {
  Span s{region.x, region.right()};
  for (const Mask& m : masks) {
    if (!m.axisAligned || isInfiniteRect(m.rect))
      continue;
    const double cy = y + m.toCrop.ty;
    if (cy < m.rect.y || cy >= m.rect.y + m.rect.height)
      return Span{s.x0, s.x0};
    // Centres x + 0.5 + tx inside [rect.x, rect.x + width).
    const double lo = std::ceil(m.rect.x - m.toCrop.tx - 0.5);
    const double hi = std::ceil(m.rect.x + m.rect.width - m.toCrop.tx - 0.5);
    s.x0 =
        std::max(s.x0, static_cast<int>(std::clamp(lo, double(region.x), double(region.right()))));
    s.x1 =
        std::min(s.x1, static_cast<int>(std::clamp(hi, double(region.x), double(region.right()))));
  }
  if (s.x1 < s.x0)
    s.x1 = s.x0;
  return s;
}

bool insideOtherMasks(const std::vector<Mask>& masks, double x, double y) {
  for (const Mask& m : masks) {
    if (m.axisAligned)
      continue;
    const Point p = m.toCrop.apply({x, y});
    if (!(p.x >= m.rect.x && p.x < m.rect.x + m.rect.width && p.y >= m.rect.y &&
          p.y < m.rect.y + m.rect.height))
      return false;
  }
  return true;
}

// Limits [x0, x1) to the output pixels x whose centre maps within lo..hi of
// the source along one coordinate: v(x) = v0 + x * dv, v0 being where the
// centre of pixel 0 maps.
void limitSpan(Span& s, double v0, double dv, double lo, double hi) {
  if (dv == 0) {
    if (v0 < lo || v0 > hi)
      s.x1 = s.x0;
    return;
  }
  double a = (lo - v0) / dv, b = (hi - v0) / dv;
  if (a > b)
    std::swap(a, b);
  const double first = std::ceil(a), last = std::floor(b);
  s.x0 = std::max(s.x0, static_cast<int>(std::max(first, double(s.x0))));
  s.x1 = std::min(s.x1, static_cast<int>(std::min(last + 1, double(s.x1))));
  if (s.x1 < s.x0)
    s.x1 = s.x0;
}

// Clears the row outside [x0, x1).
void clearOutside(float* row, const IntRect& region, int x0, int x1) {
  x0 = std::clamp(x0, region.x, region.right());
  x1 = std::clamp(x1, x0, region.right());
  std::fill(row, row + size_t(x0 - region.x) * 4, 0.0f);
  std::fill(row + size_t(x1 - region.x) * 4, row + size_t(region.width) * 4, 0.0f);
}

void runSample(const RowOp& op, float* row, double y, const IntRect& region) {
  Span span = maskSpan(op.masks, y, region);
  const Source& s = op.source;
  if (s.c1 <= s.c0 || s.r1 <= s.r0) {
    clearOutside(row, region, region.x, region.x);
    return;
  }
  const AffineTransform& t = op.inverse;
  // Source position of the pixel whose centre is (x + 0.5, y): linear in x.
  const double sx0 = t.a * 0.5 + t.c * y + t.tx - s.originX;
  const double sy0 = t.b * 0.5 + t.d * y + t.ty - s.originY;
  // Keep the pixels whose position reaches a tap of the source's kept area.
  const double top = s.height;
  if (!s.clamp) {
    limitSpan(span, sx0, t.a, s.c0 - 0.5, s.c1 + 0.5);
    limitSpan(span, sy0, t.b, top - s.r1 - 0.5, top - s.r0 + 0.5);
  }
  const bool plainMasks =
      std::all_of(op.masks.begin(), op.masks.end(), [](const Mask& m) { return m.axisAligned; });
  if (op.copy && !s.clamp) {
    // Whole-pixel translation: output pixel x reads source column
    // x + dx - originX and row top - (y + dy - originY) - 0.5.
    const int r = static_cast<int>(std::floor(top - (y + op.copyDy - s.originY)));
    if (r < s.r0 || r >= s.r1) {
      clearOutside(row, region, region.x, region.x);
      return;
    }
    const float* lut = srgbToLinearTable();
    const int shift = op.copyDx - static_cast<int>(s.originX);
    const int x0 = std::max(span.x0, s.c0 - shift);
    const int x1 = std::max(x0, std::min(span.x1, s.c1 - shift));
    clearOutside(row, region, x0, x1);
    for (int x = x0; x < x1; ++x) {
      const bool kept = plainMasks || insideOtherMasks(op.masks, x + 0.5, y);
      store4(row + size_t(x - region.x) * 4, kept ? fetch(s, lut, x + shift, r) : Float4{});
    }
    return;
  }
  const float* lut = srgbToLinearTable();
  clearOutside(row, region, span.x0, span.x1);
  auto samplePixel = [&](int x) {
    if (!plainMasks && !insideOtherMasks(op.masks, x + 0.5, y)) {
      store4(row + size_t(x - region.x) * 4, Float4{});
      return;
    }
    const double px = sx0 + t.a * x, py = sy0 + t.b * x;
    // Bilinear taps at pixel centres; column c has its centre at c + 0.5,
    // row r at top - r - 0.5.
    const double fx = px - 0.5, fy = (top - py) - 0.5;
    const double cf = std::floor(fx), rf = std::floor(fy);
    const float wx = static_cast<float>(fx - cf), wy = static_cast<float>(fy - rf);
    int c = static_cast<int>(std::clamp(cf, -2.0, double(s.width + 1)));
    int r = static_cast<int>(std::clamp(rf, -2.0, double(s.height + 1)));
    Float4 p00, p10, p01, p11;
    if (c >= s.c0 && c + 1 < s.c1 && r >= s.r0 && r + 1 < s.r1) {
      // Inside: all four taps are source pixels.
      p00 = fetch(s, lut, c, r);
      p10 = fetch(s, lut, c + 1, r);
      p01 = fetch(s, lut, c, r + 1);
      p11 = fetch(s, lut, c + 1, r + 1);
    } else if (s.clamp) {
      // Beyond an edge both taps of that side read the edge pixel.
      const int c2 = std::clamp(c + 1, s.c0, s.c1 - 1), r2 = std::clamp(r + 1, s.r0, s.r1 - 1);
      c = std::clamp(c, s.c0, s.c1 - 1);
      r = std::clamp(r, s.r0, s.r1 - 1);
      p00 = fetch(s, lut, c, r);
      p10 = fetch(s, lut, c2, r);
      p01 = fetch(s, lut, c, r2);
      p11 = fetch(s, lut, c2, r2);
    } else {
      // At an edge the taps outside read transparent.
      const Float4 zero = {0, 0, 0, 0};
      const bool cIn0 = c >= s.c0 && c < s.c1, cIn1 = c + 1 >= s.c0 && c + 1 < s.c1;
      const bool rIn0 = r >= s.r0 && r < s.r1, rIn1 = r + 1 >= s.r0 && r + 1 < s.r1;
      p00 = rIn0 && cIn0 ? fetch(s, lut, c, r) : zero;
      p10 = rIn0 && cIn1 && wx != 0 ? fetch(s, lut, c + 1, r) : zero;
      p01 = rIn1 && cIn0 && wy != 0 ? fetch(s, lut, c, r + 1) : zero;
      p11 = rIn1 && cIn1 && wx != 0 && wy != 0 ? fetch(s, lut, c + 1, r + 1) : zero;
    }
    const Float4 upper = p00 + wx * (p10 - p00);
    const Float4 lower = p01 + wx * (p11 - p01);
    store4(row + size_t(x - region.x) * 4, upper + wy * (lower - upper));
  };

  int x = span.x0;
  if (plainMasks && !s.clamp && s.raster) {
    // The common case, kept tight: 8-bit taps all inside the source.
    const uint8_t* bytes = s.raster->bytes;
    const size_t stride = s.raster->stride;
    const int ri = s.raster->bgra ? 2 : 0;
    auto decode = [&](const uint8_t* p) {
      return Float4{lut[p[ri]], lut[p[1]], lut[p[2 - ri]], 1.0f} * (p[3] * (1.0f / 255));
    };
    // Column and row coordinates of the taps, stepped along the row; the
    // offset keeps them positive so that truncation floors.
    constexpr int kOffset = 4;
    double fx = sx0 + t.a * x - 0.5 + kOffset, fy = top - (sy0 + t.b * x) - 0.5 + kOffset;
    for (; x < span.x1; ++x, fx += t.a, fy -= t.b) {
      const int c = static_cast<int>(fx) - kOffset, r = static_cast<int>(fy) - kOffset;
      if (fx < 0 || fy < 0 || c < s.c0 || c + 1 >= s.c1 || r < s.r0 || r + 1 >= s.r1) {
        samplePixel(x);  // near an edge
        continue;
      }
      const float wx = static_cast<float>(fx - std::floor(fx)),
                  wy = static_cast<float>(fy - std::floor(fy));
      const uint8_t* p = bytes + size_t(r) * stride + size_t(c) * 4;
      const Float4 p00 = decode(p), p10 = decode(p + 4);
      const Float4 p01 = decode(p + stride), p11 = decode(p + stride + 4);
      const Float4 upper = p00 + wx * (p10 - p00);
      const Float4 lower = p01 + wx * (p11 - p01);
      store4(row + size_t(x - region.x) * 4, upper + wy * (lower - upper));
    }
  }
  for (; x < span.x1; ++x)
    samplePixel(x);
}

constexpr float kLumaR = 0.2125f, kLumaG = 0.7154f, kLumaB = 0.0721f;

// One point stage over a row of unpremultiplied colour (alpha lanes left
// alone), pixel i of the row having its centre at (x0 + i, y).
void runStage(const PointOp& op, float* row, int width, double x0, double y) {
  switch (op.index()) {
    case 0: {
      // Columns of the matrix as four-float values (alpha lanes 0).
      const auto& m = std::get<ColorMatrixOp>(op).m;
      const Float4 c0 = {m[0][0], m[1][0], m[2][0], 0}, c1 = {m[0][1], m[1][1], m[2][1], 0};
      const Float4 c2 = {m[0][2], m[1][2], m[2][2], 0}, c3 = {m[0][3], m[1][3], m[2][3], 0};
      for (int i = 0; i < width; ++i) {
        float* p = row + size_t(i) * 4;
        const Float4 v = load4(p);
        Float4 out = c0 * v[0] + c1 * v[1] + c2 * v[2] + c3;
        out[3] = v[3];
        store4(p, out);
      }
      return;
    }
    case 1: {
      const auto& mono = std::get<MonochromeOp>(op);
      const float k[3] = {mono.color[0], mono.color[1], mono.color[2]};
      const float t = mono.intensity;
      for (int i = 0; i < width; ++i) {
        float* c = row + size_t(i) * 4;
        const float luma = kLumaR * c[0] + kLumaG * c[1] + kLumaB * c[2];
        for (int n = 0; n < 3; ++n) {
          const float m = luma < 0.5f ? 2 * luma * k[n] : 1 - 2 * (1 - luma) * (1 - k[n]);
          c[n] += t * (m - c[n]);
        }
      }
      return;
    }
    case 2: {
      const auto& s = std::get<SpotLightOp>(op);
      const double ax = s.pointsAt[0] - s.position[0], ay = s.pointsAt[1] - s.position[1],
                   az = s.pointsAt[2] - s.position[2];
      const double an = std::sqrt(ax * ax + ay * ay + az * az);
      const float exponent = static_cast<float>(1 / std::max(s.concentration, 0.001));
      const double ly = s.position[1] - y, lz = s.position[2];
      for (int i = 0; i < width; ++i) {
        float* c = row + size_t(i) * 4;
        // From the surface point to the light, against the light's axis.
        const double lx = s.position[0] - (x0 + i);
        const double ln = std::sqrt(lx * lx + ly * ly + lz * lz);
        float factor = 0;
        if (ln > 0 && an > 0) {
          const double dot = -(lx * ax + ly * ay + lz * az) / (ln * an);
          const double lambert = lz / ln;
          if (dot > 0 && lambert > 0) {
            const float spot = std::exp2(exponent * std::log2(static_cast<float>(dot)));
            factor = static_cast<float>(s.brightness * lambert) * spot;
          }
        }
        for (int n = 0; n < 3; ++n)
          c[n] *= s.color[n] * factor;
      }
      return;
    }
    case 3: {
      const auto& ls = std::get<LineScreenOp>(op);
      // The signed distance across the lines grows along the row by -sin.
      const double nx = -std::sin(ls.angle), ny = std::cos(ls.angle);
      const double width1 = std::max(ls.width, 1.0);
      const double w = 1 - ls.sharpness;
      const double d0 = (x0 - ls.center[0]) * nx + (y - ls.center[1]) * ny;
      for (int i = 0; i < width; ++i) {
        float* c = row + size_t(i) * 4;
        const float luma = kLumaR * c[0] + kLumaG * c[1] + kLumaB * c[2];
        const double t = (d0 + i * nx) / width1;
        const double threshold = std::abs(2 * (t - std::floor(t)) - 1);
        const double o = w <= 1e-6 ? (luma >= threshold ? 1.0 : 0.0)
                                   : std::clamp((luma - threshold) / w + 0.5, 0.0, 1.0);
        c[0] = c[1] = c[2] = static_cast<float>(o);
      }
      return;
    }
  }
}

void runPoint(const RowOp& op, float* row, double y, const IntRect& region) {
  const int width = region.width;
  if (op.stages.size() == 1 && op.stages[0].index() == 0) {
    // The common case in one loop: one fused colour matrix, its columns as
    // four-float values (the alpha lane of each is 0; alpha is put back).
    const auto& m = std::get<ColorMatrixOp>(op.stages[0]).m;
    const Float4 c0 = {m[0][0], m[1][0], m[2][0], 0}, c1 = {m[0][1], m[1][1], m[2][1], 0};
    const Float4 c2 = {m[0][2], m[1][2], m[2][2], 0}, c3 = {m[0][3], m[1][3], m[2][3], 0};
    for (int i = 0; i < width; ++i) {
      float* p = row + size_t(i) * 4;
      const float a = p[3];
      if (!(a > 0)) {
        store4(p, Float4{0, 0, 0, 0});
        continue;
      }
      const Float4 v = load4(p);
      const float inv = 1 / a;
      Float4 out = (c0 * (v[0] * inv) + c1 * (v[1] * inv) + c2 * (v[2] * inv) + c3) * a;
      out[3] = a;
      store4(p, out);
    }
    return;
  }
  // Alpha is divided out once, the stages run one after another over the
  // row, and alpha goes back in once.
  for (int i = 0; i < width; ++i) {
    float* p = row + size_t(i) * 4;
    const float a = p[3];
    if (a > 0 && a != 1) {
      Float4 v = load4(p) * (1 / a);
      v[3] = a;
      store4(p, v);
    }
  }
  for (const PointOp& stage : op.stages)
    runStage(stage, row, width, region.x + 0.5, y);
  for (int i = 0; i < width; ++i) {
    float* p = row + size_t(i) * 4;
    const float a = p[3];
    if (!(a > 0)) {
      store4(p, Float4{0, 0, 0, 0});
    } else if (a != 1) {
      Float4 v = load4(p) * a;
      v[3] = a;
      store4(p, v);
    }
  }
}

void runMask(const RowOp& op, float* row, double y, const IntRect& region) {
  const Span span = maskSpan(op.masks, y, region);
  std::fill(row, row + size_t(span.x0 - region.x) * 4, 0.0f);
  std::fill(row + size_t(span.x1 - region.x) * 4, row + size_t(region.width) * 4, 0.0f);
  for (int x = span.x0; x < span.x1; ++x) {
    if (!insideOtherMasks(op.masks, x + 0.5, y))
      std::fill(row + size_t(x - region.x) * 4, row + size_t(x - region.x + 1) * 4, 0.0f);
  }
}

void runRow(const Program& program, std::vector<float>& registers, int j) {
  const IntRect& region = program.region;
  const size_t width4 = size_t(region.width) * 4;
  const double y = region.top() - j - 0.5;
  for (const RowOp& op : program.ops) {
    float* dst = registers.data() + op.dst * width4;
    switch (op.kind) {
      case RowOp::Kind::kSample:
        runSample(op, dst, y, region);
        break;
      case RowOp::Kind::kFill: {
        const Float4 color = load4(op.color);
        for (size_t i = 0; i < width4; i += 4)
          store4(dst + i, color);
        break;
      }
      case RowOp::Kind::kPoint:
        runPoint(op, dst, y, region);
        break;
      case RowOp::Kind::kMask:
        runMask(op, dst, y, region);
        break;
      case RowOp::Kind::kOver: {
        const float* src = registers.data() + op.src * width4;
        for (size_t i = 0; i < width4; i += 4) {
          if (src[i + 3] == 0)
            continue;
          store4(dst + i, load4(src + i) + load4(dst + i) * (1 - src[i + 3]));
        }
        break;
      }
      case RowOp::Kind::kIn: {
        const float* src = registers.data() + op.src * width4;
        for (size_t i = 0; i < width4; i += 4) {
          const float coverage = dst[i + 3];
          for (int k = 0; k < 4; ++k)
            dst[i + k] = src[i + k] * coverage;
        }
        break;
      }
    }
  }
}

// Runs the program band by band; `finish` gets each finished row (raster
// row j of the region) from the thread that made it.
template <typename Finish>
void execute(const Program& program, int threads, Finish&& finish) {
  const int rows = program.region.height;
  const int bands = (rows + kBandRows - 1) / kBandRows;
  const size_t width4 = size_t(program.region.width) * 4;
  parallelFor(bands, threads, [&](int band) {
    std::vector<float> registers(width4 * program.registers);
    for (int j = band * kBandRows; j < std::min(rows, (band + 1) * kBandRows); ++j) {
      runRow(program, registers, j);
      finish(j, registers.data() + program.result * width4);
    }
  });
}

std::shared_ptr<const PixelBuffer> materialize(const NodePtr& node,
                                               const IntRect& region,
                                               int threads,
                                               FilterImage::RenderStats* stats) {
  ++stats->materialized;
  if (node->kind == Node::Kind::kKernel) {
    const IntRect inputExtent = integral(node->a->extent);
    const IntRect need = region.grown(kernelReach(node->kernel)).intersected(inputExtent);
    const std::shared_ptr<const PixelBuffer> input =
        need.isEmpty() ? std::make_shared<const PixelBuffer>(IntRect{region.x, region.y, 0, 0})
                       : materialize(node->a, need, threads, stats);
    ++stats->neighbourhoodPasses;
    return std::make_shared<const PixelBuffer>(
        applyKernel(node->kernel, *input, inputExtent, region, threads));
  }
  Program program = compile(node, region, threads);
  // Every row is written below.
  auto out = std::make_shared<PixelBuffer>(region, PixelBuffer::Unset{});
  execute(program, threads, [&](int j, const float* row) {
    std::copy(row, row + size_t(region.width) * 4, out->row(j));
  });
  stats->resamplingPasses += program.stats.resamplingPasses;
  stats->colorPasses += program.stats.colorPasses;
  stats->neighbourhoodPasses += program.stats.neighbourhoodPasses;
  stats->materialized += program.stats.materialized;
  return out;
}

inline uint8_t alphaCode(float a) {
  if (!(a > 0))
    return 0;
  if (a >= 1)
    return 255;
  return static_cast<uint8_t>(a * 255 + 0.5f);
}

// Encodes one premultiplied linear row as straight-alpha sRGB bytes.
void encodeRow(const float* in, uint8_t* out, int width) {
  const SrgbEncodeTables codes = srgbEncodeTables();
  for (int i = 0; i < width; ++i, in += 4, out += 4) {
    const float a = in[3];
    if (a >= 1) {
      out[0] = codes.encode(in[0]);
      out[1] = codes.encode(in[1]);
      out[2] = codes.encode(in[2]);
      out[3] = 255;
    } else if (a > 0) {
      const float unpremultiply = 1 / a;
      out[0] = codes.encode(in[0] * unpremultiply);
      out[1] = codes.encode(in[1] * unpremultiply);
      out[2] = codes.encode(in[2] * unpremultiply);
      out[3] = alphaCode(a);
    } else {
      out[0] = out[1] = out[2] = out[3] = 0;
    }
  }
}

void addStats(FilterImage::RenderStats* to, const FilterImage::RenderStats& from) {
  if (!to)
    return;
  to->resamplingPasses += from.resamplingPasses;
  to->colorPasses += from.colorPasses;
  to->neighbourhoodPasses += from.neighbourhoodPasses;
  to->materialized += from.materialized;
}

struct GObjectUnref {
  void operator()(void* p) const {
    if (p)
      g_object_unref(p);
  }
};
using VipsHandle = std::unique_ptr<VipsImage, GObjectUnref>;

std::string vipsReason(const VipsLibrary& vips) {
  std::string text = vips.error_buffer();
  vips.error_clear();
  while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
    text.pop_back();
  const size_t newline = text.find('\n');
  if (newline != std::string::npos)
    text.resize(newline);
  return text.empty() ? "libvips failed" : text;
}

}  // namespace

// ---------------------------------------------------------------------------

void FilterImage::initializeLibrary() {
  VipsLibrary::get();
}

FilterImage::FilterImage(std::shared_ptr<const Node> node) : node_(std::move(node)) {}

FilterImage::~FilterImage() = default;

std::optional<FilterImage> FilterImage::fromRaster(const uint8_t* bytes,
                                                   int width,
                                                   int height,
                                                   int stride,
                                                   ByteOrder order) {
  if (!bytes || width <= 0 || height <= 0 || stride / 4 < width ||
      !withinLimits(IntRect{0, 0, width, height}))
    return std::nullopt;
  const size_t rowBytes = static_cast<size_t>(width) * 4;
  std::shared_ptr<std::vector<uint8_t>> copy;
  try {
    copy = std::make_shared<std::vector<uint8_t>>(rowBytes * height);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
  for (int row = 0; row < height; ++row)
    std::memcpy(copy->data() + row * rowBytes, bytes + static_cast<size_t>(row) * stride, rowBytes);
  auto node = makeNode(Node::Kind::kRaster);
  node->bytes = copy->data();
  node->owner = copy;
  node->width = width;
  node->height = height;
  node->stride = static_cast<int>(rowBytes);
  node->bgra = order == ByteOrder::BGRA;
  node->extent = Rect{0, 0, double(width), double(height)};
  return FilterImage(node);
}

std::optional<FilterImage> FilterImage::fromBitmap(const BitmapImage& bitmap) {
  if (bitmap.isEmpty() || !withinLimits(IntRect{0, 0, bitmap.width(), bitmap.height()}))
    return std::nullopt;
  auto node = makeNode(Node::Kind::kRaster);
  auto keep = std::make_shared<BitmapImage>(bitmap);
  node->bytes = bitmap.data();
  node->owner = keep;
  node->width = bitmap.width();
  node->height = bitmap.height();
  node->stride = bitmap.bytesPerRow();
  node->extent = Rect{0, 0, double(bitmap.width()), double(bitmap.height())};
  return FilterImage(node);
}

std::optional<FilterImage> FilterImage::fromFile(const std::string& path, std::string* reason) {
  std::string ignored;
  std::string& why = reason ? *reason : ignored;
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) {
    why = std::filesystem::exists(path, error) ? "not a regular file" : "no such file";
    return std::nullopt;
  }
  const VipsLibrary* vips = VipsLibrary::get(&why);
  if (!vips)
    return std::nullopt;
  VipsHandle image(vips->image_new_from_file(path.c_str(), nullptr));
  if (!image) {
    why = "not an image libvips can read (" + vipsReason(*vips) + ")";
    return std::nullopt;
  }
  const int width = vips->image_get_width(image.get()),
            height = vips->image_get_height(image.get());
  if (!withinLimits(IntRect{0, 0, width, height})) {
    why = "image too large (" + std::to_string(width) + "x" + std::to_string(height) +
          "; at most " + std::to_string(kMaxImageSide) + " pixels a side and " +
          std::to_string(kMaxImagePixels) + " pixels)";
    return std::nullopt;
  }
  // To 8-bit sRGB with an alpha band.
  VipsImage* step = nullptr;
  if (vips->colourspace(image.get(), &step, VIPS_INTERPRETATION_sRGB, nullptr) != 0) {
    why = vipsReason(*vips);
    return std::nullopt;
  }
  VipsHandle srgb(step);
  if (!vips->image_hasalpha(srgb.get())) {
    if (vips->bandjoin_const1(srgb.get(), &step, 255, nullptr) != 0) {
      why = vipsReason(*vips);
      return std::nullopt;
    }
    srgb.reset(step);
  }
  if (vips->cast(srgb.get(), &step, VIPS_FORMAT_UCHAR, nullptr) != 0) {
    why = vipsReason(*vips);
    return std::nullopt;
  }
  VipsHandle bytes(step);
  size_t size = 0;
  void* memory = vips->image_write_to_memory(bytes.get(), &size);
  if (!memory || size != size_t(width) * height * 4 || vips->image_get_bands(bytes.get()) != 4) {
    g_free(memory);
    why = memory ? "unexpected pixel layout" : vipsReason(*vips);
    return std::nullopt;
  }
  std::shared_ptr<uint8_t> owner(static_cast<uint8_t*>(memory), [](uint8_t* p) { g_free(p); });
  auto node = makeNode(Node::Kind::kRaster);
  node->bytes = owner.get();
  node->owner = owner;
  node->width = width;
  node->height = height;
  node->stride = width * 4;
  node->extent = Rect{0, 0, double(width), double(height)};
  return FilterImage(node);
}

FilterImage FilterImage::withColor(const Color& color) {
  auto node = makeNode(Node::Kind::kColor);
  const double alpha = std::clamp(color.alpha, 0.0, 1.0);
  node->color[0] = static_cast<float>(srgbEotf(color.red) * alpha);
  node->color[1] = static_cast<float>(srgbEotf(color.green) * alpha);
  node->color[2] = static_cast<float>(srgbEotf(color.blue) * alpha);
  node->color[3] = static_cast<float>(alpha);
  node->extent = infiniteRect();
  return FilterImage(node);
}

FilterImage FilterImage::fromPixels(std::shared_ptr<const PixelBuffer> pixels) {
  auto node = makeNode(Node::Kind::kPixels);
  node->extent = pixels ? toRect(pixels->rect) : Rect{0, 0, 0, 0};
  if (!pixels)
    pixels = std::make_shared<const PixelBuffer>();
  node->pixels = std::move(pixels);
  return FilterImage(node);
}

Rect FilterImage::extent() const {
  return node_->extent;
}

bool FilterImage::isInfinite() const {
  return isInfiniteRect(node_->extent);
}

bool FilterImage::isEmpty() const {
  return emptyRect(node_->extent);
}

FilterImage FilterImage::cropped(const Rect& rect) const {
  auto node = makeNode(Node::Kind::kCrop);
  node->rect = rect;
  node->a = node_;
  node->extent = intersect(node_->extent, rect);
  if (emptyRect(rect) || emptyRect(node->extent))
    node->extent = Rect{0, 0, 0, 0};
  return FilterImage(node);
}

FilterImage FilterImage::clampedToExtent() const {
  if (isEmpty() || isInfinite())
    return *this;
  auto node = makeNode(Node::Kind::kClamp);
  node->a = node_;
  node->extent = infiniteRect();
  return FilterImage(node);
}

FilterImage FilterImage::transformed(const AffineTransform& t) const {
  if (t.isIdentity())
    return *this;
  if (!t.isInvertible())
    return cropped(Rect{0, 0, 0, 0});
  auto node = makeNode(Node::Kind::kTransform);
  node->transform = t;
  node->a = node_;
  node->extent = transformedExtent(node_->extent, t);
  return FilterImage(node);
}

FilterImage FilterImage::translated(double dx, double dy) const {
  return transformed(AffineTransform::makeTranslation(dx, dy));
}

FilterImage FilterImage::sourceOver(const FilterImage& background) const {
  auto node = makeNode(Node::Kind::kOver);
  node->a = node_;
  node->b = background.node_;
  node->extent = unite(node_->extent, background.node_->extent);
  return FilterImage(node);
}

FilterImage FilterImage::sourceIn(const FilterImage& background) const {
  auto node = makeNode(Node::Kind::kIn);
  node->a = node_;
  node->b = background.node_;
  node->extent = intersect(node_->extent, background.node_->extent);
  if (emptyRect(node->extent))
    node->extent = Rect{0, 0, 0, 0};
  return FilterImage(node);
}

FilterImage FilterImage::applying(const PointOp& op) const {
  if (isNeutral(op))
    return *this;
  auto node = makeNode(Node::Kind::kPoint);
  node->point = op;
  node->a = node_;
  node->extent = node_->extent;
  return FilterImage(node);
}

FilterImage FilterImage::applying(const NeighbourhoodOp& op) const {
  auto node = makeNode(Node::Kind::kKernel);
  node->kernel = op;
  node->a = node_;
  node->extent = emptyRect(node_->extent) ? Rect{0, 0, 0, 0}
                                          : toRect(kernelOutputExtent(op, integral(node_->extent)));
  return FilterImage(node);
}

bool FilterImage::render(const Rect& rect,
                         uint8_t* out,
                         int stride,
                         const RenderOptions& options) const {
  if (isInfiniteRect(rect))
    return false;
  const IntRect region = integral(rect);
  if (!out || !withinLimits(region) || stride / 4 < region.width)
    return false;
  try {
    Program program = compile(node_, region, options.threads);
    execute(program, options.threads, [&](int j, const float* row) {
      encodeRow(row, out + size_t(j) * stride, region.width);
    });
    addStats(options.stats, program.stats);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

std::vector<uint8_t> FilterImage::render(const Rect& rect, const RenderOptions& options) const {
  if (isInfiniteRect(rect))
    return {};
  const IntRect region = integral(rect);
  if (!withinLimits(region))
    return {};
  std::vector<uint8_t> out;
  try {
    out.resize(size_t(region.width) * region.height * 4);
  } catch (const std::bad_alloc&) {
    return {};
  }
  if (!render(rect, out.data(), region.width * 4, options))
    return {};
  return out;
}

std::vector<uint8_t> FilterImage::render() const {
  return render(extent());
}

std::optional<FilterImage> FilterImage::rendered(const Rect& rect) const {
  PixelBuffer pixels = renderPixels(rect);
  if (pixels.pixels.empty())
    return std::nullopt;
  return fromPixels(std::make_shared<const PixelBuffer>(std::move(pixels)));
}

PixelBuffer FilterImage::renderPixels(const Rect& rect, const RenderOptions& options) const {
  if (isInfiniteRect(rect))
    return {};
  const IntRect region = integral(rect);
  if (!withinLimits(region))
    return {};
  try {
    RenderStats stats;
    auto pixels = materialize(node_, region, options.threads, &stats);
    --stats.materialized;  // the result itself is no intermediate
    addStats(options.stats, stats);
    return *pixels;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

void FilterImage::draw(BitmapContext& context,
                       const Rect& fromRect,
                       const RenderOptions& options) const {
  if (emptyRect(fromRect) || isInfiniteRect(fromRect))
    return;
  const int w = context.width(), h = context.height();
  // fromRect stretched over the context's (0, 0, w, h).
  const AffineTransform fit = AffineTransform::makeTranslation(0, 0)
                                  .scaled(w / fromRect.width, h / fromRect.height)
                                  .translated(-fromRect.x, -fromRect.y);
  // The edges repeat, so that a stretched picture does not fade at its
  // borders. A picture that already covers the context pixel for pixel is
  // drawn as it is, so its passes fold with the drawing.
  const bool inPlace =
      fromRect.x == 0 && fromRect.y == 0 && fromRect.width == w && fromRect.height == h;
  const FilterImage placed =
      inPlace ? cropped(fromRect) : cropped(fromRect).clampedToExtent().transformed(fit);
  const IntRect region{0, 0, w, h};
  const bool premultiplied = context.alpha() == BitmapContext::Alpha::kPremultipliedLast;
  const float* lut = srgbToLinearTable();
  const SrgbEncodeTables codes = srgbEncodeTables();
  try {
    Program program = compile(placed.node_, region, options.threads);
    execute(program, options.threads, [&](int j, const float* row) {
      uint8_t* d = context.data() + size_t(j) * context.bytesPerRow();
      for (int i = 0; i < w; ++i, d += 4) {
        const float* s = row + size_t(i) * 4;
        if (!(s[3] > 0))
          continue;
        if (s[3] >= 1) {
          // Opaque: it replaces what was there.
          for (int k = 0; k < 3; ++k)
            d[k] = codes.encode(s[k]);
          d[3] = 255;
          continue;
        }
        // What the context holds, as premultiplied linear colour.
        const float da = premultiplied ? d[3] / 255.0f : 1.0f;
        float dc[3];
        for (int k = 0; k < 3; ++k) {
          const int straight =
              premultiplied ? (d[3] ? std::min(255, (d[k] * 255 + d[3] / 2) / d[3]) : 0) : d[k];
          dc[k] = lut[straight] * da;
        }
        const float keep = 1 - s[3];
        const float a = s[3] + da * keep;
        float c[3];
        for (int k = 0; k < 3; ++k)
          c[k] = s[k] + dc[k] * keep;
        if (premultiplied) {
          const uint8_t ac = alphaCode(a);
          for (int k = 0; k < 3; ++k)
            d[k] = static_cast<uint8_t>((codes.encode(a > 0 ? c[k] / a : 0) * ac + 127) / 255);
          d[3] = ac;
        } else {
          // No alpha: the colour as laid over the opaque context.
          for (int k = 0; k < 3; ++k)
            d[k] = codes.encode(c[k]);
          d[3] = 255;
        }
      }
    });
    addStats(options.stats, program.stats);
  } catch (const std::bad_alloc&) {
  }
}

bool FilterImage::writeToFile(const std::string& path, std::string* reason) const {
  std::string ignored;
  std::string& why = reason ? *reason : ignored;
  if (isInfinite() || isEmpty()) {
    why = isEmpty() ? "the picture is empty" : "the picture is endless";
    return false;
  }
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char ch) { return std::tolower(ch); });
  const bool png = ext == ".png", jpeg = ext == ".jpg" || ext == ".jpeg";
  if (!png && !jpeg) {
    why = "unknown image type for extension " + (ext.empty() ? std::string("(none)") : ext) +
          " (use .png, .jpg or .jpeg)";
    return false;
  }
  const IntRect region = integral(extent());
  if (!withinLimits(region)) {
    why = "image too large to write";
    return false;
  }
  const VipsLibrary* vips = VipsLibrary::get(&why);
  if (!vips)
    return false;
  std::vector<uint8_t> pixels = render(extent());
  if (pixels.empty()) {
    why = "the picture could not be rendered";
    return false;
  }
  VipsHandle image(vips->image_new_from_memory(pixels.data(), pixels.size(), region.width,
                                               region.height, 4, VIPS_FORMAT_UCHAR));
  if (!image) {
    why = vipsReason(*vips);
    return false;
  }
  VipsImage* tagged = nullptr;
  if (vips->copy(image.get(), &tagged, "interpretation", VIPS_INTERPRETATION_sRGB, nullptr) != 0) {
    why = vipsReason(*vips);
    return false;
  }
  image.reset(tagged);
  // Written beside the target under a hidden name and renamed when
  // complete, so that a failure leaves nothing behind.
  const std::filesystem::path target(path);
  const std::filesystem::path temp =
      target.parent_path() / ("." + target.filename().string() + ".varnel-" +
                              std::to_string(reinterpret_cast<uintptr_t>(&pixels)) + ext);
  int status = 0;
  if (png) {
    status = vips->pngsave(image.get(), temp.c_str(), nullptr);
  } else {
    VipsImage* flat = nullptr;
    double black[3] = {0, 0, 0};
    VipsArrayDouble* background = vips->array_double_new(black, 3);
    status = vips->flatten(image.get(), &flat, "background", background, nullptr);
    vips->area_unref(VIPS_AREA(background));
    if (status == 0) {
      VipsHandle flattened(flat);
      status = vips->jpegsave(flattened.get(), temp.c_str(), "Q", 92, nullptr);
    }
  }
  std::error_code error;
  if (status != 0) {
    why = vipsReason(*vips);
    std::filesystem::remove(temp, error);
    return false;
  }
  std::filesystem::rename(temp, target, error);
  if (error) {
    why = error.message();
    std::filesystem::remove(temp, error);
    return false;
  }
  return true;
}

}  // namespace vn
