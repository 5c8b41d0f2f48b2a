#include "image/render_plan.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <variant>

#include "image/row_executor.h"

namespace vn {
namespace {

void compileInto(Program& program,
                 const NodePtr& node,
                 int dst,
                 const AffineTransform& inverse,
                 std::vector<Mask> masks,
                 const IntRect& region);

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

// The part of the region that a node's pixels can touch after `inverse`
// maps output to node space: the node-space bounding box of the region,
// grown by one pixel for the bilinear taps, inside the node's extent.
IntRect neededInNodeSpace(const Node& node, const AffineTransform& inverse, const IntRect& region) {
  const Rect out = transformedExtent(toRect(region), inverse);
  Rect grown{out.x - 1, out.y - 1, out.width + 2, out.height + 2};
  return integral(intersect(grown, node.extent));
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

// Samples a raster or pixels node. Crops right above the source (no
// transform between) remove source pixels by their centres; the others stay
// masks.
void compileSource(Program& program,
                   const NodePtr& node,
                   int dst,
                   const AffineTransform& inverse,
                   const std::vector<Mask>& masks) {
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
}

// The edges repeat: the resampling of what is under it (through crops only)
// takes its edge taps again; anything else is made first.
void compileClamp(Program& program,
                  const NodePtr& node,
                  int dst,
                  const AffineTransform& inverse,
                  std::vector<Mask> masks,
                  const IntRect& region) {
  for (Mask& m : masks)
    m.aboveClamp = true;
  NodePtr below = node->a;
  while (below->kind == Node::Kind::kCrop)
    below = below->a;
  program.clampNext = true;
  if (below->kind == Node::Kind::kRaster || below->kind == Node::Kind::kPixels) {
    compileInto(program, node->a, dst, inverse, std::move(masks), region);
    return;
  }
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

// A run of point operations, the innermost first, as the stages of one
// pass: consecutive colour matrices become one; neutral ones go.
std::vector<PointOp> fuseStages(const std::vector<PointOp>& run) {
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
  return stages;
}

// A run of point operations over what is under it, in output space.
void compilePointRun(Program& program,
                     const NodePtr& node,
                     int dst,
                     const AffineTransform& inverse,
                     std::vector<Mask> masks,
                     const IntRect& region) {
  std::vector<PointOp> run;
  NodePtr below = node;
  while (below->kind == Node::Kind::kPoint) {
    run.push_back(below->point);
    below = below->a;
  }
  std::reverse(run.begin(), run.end());
  compileInto(program, below, dst, inverse, std::move(masks), region);
  std::vector<PointOp> stages = fuseStages(run);
  if (stages.empty())
    return;
  RowOp op;
  op.kind = RowOp::Kind::kPoint;
  op.dst = dst;
  op.stages = std::move(stages);
  ++program.stats.colorPasses;
  program.ops.push_back(std::move(op));
}

// Source-over or source-in of two sides compiled into two registers, in
// output space.
void compileComposite(Program& program,
                      const NodePtr& node,
                      int dst,
                      const AffineTransform& inverse,
                      const std::vector<Mask>& masks,
                      const IntRect& region) {
  compileInto(program, node->b, dst, inverse, masks, region);
  const int fg = newRegister(program);
  compileInto(program, node->a, fg, inverse, masks, region);
  RowOp op;
  op.kind = node->kind == Node::Kind::kOver ? RowOp::Kind::kOver : RowOp::Kind::kIn;
  op.dst = dst;
  op.src = fg;
  program.ops.push_back(std::move(op));
}

// Adds the row operations that leave node's pixels in register dst: inverse
// maps output pixel centres to node space, and masks are the crops met on
// the way down.
void compileInto(Program& program,
                 const NodePtr& node,
                 int dst,
                 const AffineTransform& inverse,
                 std::vector<Mask> masks,
                 const IntRect& region) {
  const bool identity = inverse.isIdentity();
  switch (node->kind) {
    case Node::Kind::kRaster:
    case Node::Kind::kPixels:
      compileSource(program, node, dst, inverse, masks);
      return;
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
    case Node::Kind::kClamp:
      compileClamp(program, node, dst, inverse, std::move(masks), region);
      return;
    case Node::Kind::kTransform: {
      compileInto(program, node->a, dst, inverse.concatenated(node->transform.inverted()),
                  std::move(masks), region);
      return;
    }
    case Node::Kind::kPoint:
      if (!identity) {
        compileMaterialized(program, node, dst, inverse, std::move(masks), region);
        return;
      }
      compilePointRun(program, node, dst, inverse, std::move(masks), region);
      return;
    case Node::Kind::kKernel:
      compileMaterialized(program, node, dst, inverse, std::move(masks), region);
      return;
    case Node::Kind::kOver:
    case Node::Kind::kIn:
      if (!identity) {
        compileMaterialized(program, node, dst, inverse, std::move(masks), region);
        return;
      }
      compileComposite(program, node, dst, inverse, masks, region);
      return;
  }
}

}  // namespace

Program compile(const NodePtr& root, const IntRect& region, int threads) {
  Program program;
  program.region = region;
  program.threads = threads;
  program.result = newRegister(program);
  compileInto(program, root, program.result, AffineTransform::identity(), {}, region);
  return program;
}

std::optional<BytePass> bytePass(const Program& program) {
  const std::vector<RowOp>& ops = program.ops;
  if (ops.empty() || ops.size() > 2)
    return std::nullopt;
  const RowOp& sample = ops[0];
  if (sample.kind != RowOp::Kind::kSample || sample.dst != program.result || !sample.copy ||
      !sample.source.raster || sample.source.clamp || !sample.masks.empty())
    return std::nullopt;
  static const std::vector<PointOp> kNone;
  const std::vector<PointOp>* stages = &kNone;
  if (ops.size() == 2) {
    if (ops[1].kind != RowOp::Kind::kPoint || ops[1].dst != program.result)
      return std::nullopt;
    stages = &ops[1].stages;
  }
  std::shared_ptr<const PointTable> table = PointTable::forStages(*stages);
  if (!table)
    return std::nullopt;
  return BytePass{sample.source, sample.copyDx, sample.copyDy, std::move(table)};
}

void addStats(FilterImage::RenderStats* to, const FilterImage::RenderStats& from) {
  if (!to)
    return;
  to->resamplingPasses += from.resamplingPasses;
  to->colorPasses += from.colorPasses;
  to->neighbourhoodPasses += from.neighbourhoodPasses;
  to->materialized += from.materialized;
}

}  // namespace vn
