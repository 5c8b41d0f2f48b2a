// The graph under a vn::FilterImage: one immutable node an operation, shared
// between the images built on it, and the arithmetic of the extents the
// operations give (endless, empty, whole-pixel and transformed rectangles).
// Internal to the image layer.
#pragma once

#include <cmath>
#include <limits>
#include <memory>

#include "image/affine_transform.h"
#include "image/filter_image.h"
#include "image/image_ops.h"
#include "image/pixel_buffer.h"
#include "image/rect.h"

namespace vn {

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

using Node = FilterImage::Node;
using NodePtr = std::shared_ptr<const Node>;

inline constexpr double kInf = std::numeric_limits<double>::infinity();
// An endless extent as whole pixels, for the kernels.
inline constexpr int kHugeOrigin = -(1 << 29);
inline constexpr int kHugeSize = 1 << 30;

inline bool isInfiniteRect(const Rect& r) {
  return !std::isfinite(r.width) || !std::isfinite(r.height);
}

inline Rect infiniteRect() {
  return Rect{-kInf, -kInf, kInf, kInf};
}

inline bool emptyRect(const Rect& r) {
  return !(r.width > 0) || !(r.height > 0);
}

Rect intersect(const Rect& p, const Rect& q);
Rect unite(const Rect& p, const Rect& q);
// The whole pixels that touch r (floor of the minimum, ceiling of the
// maximum); endless or out-of-range rectangles give the huge rectangle.
IntRect integral(const Rect& r);
Rect toRect(const IntRect& r);
// The bounding box of e's corners mapped by t.
Rect transformedExtent(const Rect& e, const AffineTransform& t);
// Not empty and no larger than a render may be.
bool withinLimits(const IntRect& r);

std::shared_ptr<Node> makeNode(Node::Kind kind);
// True for a point operation that changes nothing.
bool isNeutral(const PointOp& op);

}  // namespace vn
