// vn::AffineTransform: an affine map of the picture plane (y up).
//
//   x' = a·x + c·y + tx
//   y' = b·x + d·y + ty
//
// translated, rotated and scaled return a transform that applies the new
// step before the existing ones (a point is moved, turned or scaled first and
// then mapped by the original), as the composition builds its transforms.
// Angles are radians, counter-clockwise.
#pragma once

namespace vn {

struct Point {
  double x = 0;
  double y = 0;
};

struct AffineTransform {
  double a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;

  static AffineTransform identity() { return {}; }
  static AffineTransform makeTranslation(double dx, double dy) { return {1, 0, 0, 1, dx, dy}; }

  AffineTransform translated(double dx, double dy) const;
  AffineTransform rotated(double angle) const;
  AffineTransform scaled(double sx, double sy) const;
  // This transform followed by `then`.
  AffineTransform concatenated(const AffineTransform& then) const;
  // The inverse; the identity when the map is singular (isInvertible false).
  AffineTransform inverted() const;
  bool isInvertible() const;
  bool isIdentity() const;
  Point apply(Point p) const { return {a * p.x + c * p.y + tx, b * p.x + d * p.y + ty}; }
};

}  // namespace vn
