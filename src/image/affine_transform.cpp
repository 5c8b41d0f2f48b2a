#include "image/affine_transform.h"

#include <cmath>

namespace vn {

AffineTransform AffineTransform::translated(double dx, double dy) const {
  return {a, b, c, d, a * dx + c * dy + tx, b * dx + d * dy + ty};
}

AffineTransform AffineTransform::rotated(double angle) const {
  const double cs = std::cos(angle), sn = std::sin(angle);
  return {a * cs + c * sn, b * cs + d * sn, c * cs - a * sn, d * cs - b * sn, tx, ty};
}

AffineTransform AffineTransform::scaled(double sx, double sy) const {
  return {a * sx, b * sx, c * sy, d * sy, tx, ty};
}

AffineTransform AffineTransform::concatenated(const AffineTransform& t) const {
  return {t.a * a + t.c * b, t.b * a + t.d * b,          t.a * c + t.c * d,
          t.b * c + t.d * d, t.a * tx + t.c * ty + t.tx, t.b * tx + t.d * ty + t.ty};
}

bool AffineTransform::isInvertible() const {
  const double det = a * d - b * c;
  return std::isfinite(det) && det != 0;
}

AffineTransform AffineTransform::inverted() const {
  const double det = a * d - b * c;
  if (!std::isfinite(det) || det == 0)
    return identity();
  const double ia = d / det, ib = -b / det, ic = -c / det, id = a / det;
  return {ia, ib, ic, id, -(ia * tx + ic * ty), -(ib * tx + id * ty)};
}

bool AffineTransform::isIdentity() const {
  return a == 1 && b == 0 && c == 0 && d == 1 && tx == 0 && ty == 0;
}

}  // namespace vn
