// vn::PixelBuffer: pixels of an integral rectangle of picture space, as the
// image layer computes with them: linear light, premultiplied alpha, four
// 32-bit floats per pixel (red, green, blue, alpha), rows top first and
// packed. Values are not clamped: below 0 and above 1 are legal between
// filters. Outside its rectangle a buffer reads as transparent black.
#pragma once

#include <cstddef>
#include <vector>

namespace vn {

// A rectangle of whole pixels in picture space (origin bottom left, y up).
struct IntRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;

  bool isEmpty() const { return width <= 0 || height <= 0; }
  int right() const { return x + width; }
  int top() const { return y + height; }
  // The rectangle grown by n pixels on every side.
  IntRect grown(int n) const { return {x - n, y - n, width + 2 * n, height + 2 * n}; }
  IntRect intersected(const IntRect& o) const {
    const int l = x > o.x ? x : o.x, r = right() < o.right() ? right() : o.right();
    const int b = y > o.y ? y : o.y, t = top() < o.top() ? top() : o.top();
    return r > l && t > b ? IntRect{l, b, r - l, t - b} : IntRect{l, b, 0, 0};
  }
  bool operator==(const IntRect&) const = default;
};

// The storage of a buffer comes from a small process-wide pool of
// recycled blocks and goes back to it when the buffer dies: a picture
// rendered frame after frame reuses the same memory instead of asking the
// system for fresh pages each time (page faults cost more than the work).
struct PixelBuffer {
  IntRect rect;
  std::vector<float> pixels;  // rect.width * rect.height * 4 floats

  PixelBuffer() = default;
  // A transparent buffer over rect.
  explicit PixelBuffer(const IntRect& r);
  // A buffer over rect whose pixels are left as they come (recycled memory
  // holds an older picture): for a caller that writes every pixel.
  struct Unset {};
  PixelBuffer(const IntRect& r, Unset);
  PixelBuffer(const PixelBuffer&) = default;
  PixelBuffer(PixelBuffer&&) noexcept = default;
  PixelBuffer& operator=(const PixelBuffer&) = default;
  PixelBuffer& operator=(PixelBuffer&&) noexcept = default;
  ~PixelBuffer();

  // Raster row j (0 = top, the row whose centres are at y = rect.top() - j - 0.5).
  float* row(int j) { return pixels.data() + static_cast<size_t>(j) * rect.width * 4; }
  const float* row(int j) const { return pixels.data() + static_cast<size_t>(j) * rect.width * 4; }
  // The pixel whose centre is at (px + 0.5, py + 0.5) in picture space; null
  // outside the rectangle.
  const float* at(int px, int py) const {
    if (px < rect.x || px >= rect.right() || py < rect.y || py >= rect.top())
      return nullptr;
    return row(rect.top() - 1 - py) + static_cast<size_t>(px - rect.x) * 4;
  }
};

}  // namespace vn
