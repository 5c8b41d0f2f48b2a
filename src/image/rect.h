// vn::Rect: a rectangle in picture space (origin bottom left, y up).
#pragma once

namespace vn {

struct Rect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
};

struct Size {
  double width = 0;
  double height = 0;
};

}  // namespace vn
