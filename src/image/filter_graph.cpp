#include "image/filter_graph.h"

#include <algorithm>
#include <cstring>
#include <variant>

namespace vn {

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

}  // namespace vn
