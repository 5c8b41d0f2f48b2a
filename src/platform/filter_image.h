// vn::FilterImage: an immutable, lazily evaluated picture placed in picture
// space (origin bottom left, y up), the form in which pictures travel between
// decoding, composition and output.
//
// A FilterImage is a cheap handle: copies share the pixels, every operation is
// const and returns a new image, and nothing is computed until a sink runs
// (render). Pixels are 8-bit RGBA, not premultiplied. Built on libvips.
// Any thread may use its own copies; libvips evaluates on its worker threads.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/rect.h"
#include "platform/ref_ptr.h"

typedef struct _VipsImage VipsImage;

namespace vn {

class FilterImage {
 public:
  // Byte order of a 32-bit raster in memory.
  enum class ByteOrder { BGRA, RGBA };

  // Starts libvips once per process and turns its operation cache off (the
  // cache would keep references to images over memory we recycle). Any
  // thread; the image functions call it themselves.
  static void initializeLibrary();

  // An image of width x height pixels copied from rows of `stride` bytes,
  // the top row first, placed with its bottom-left corner at (0, 0). Null
  // when a size is not positive, the stride is too small or libvips fails.
  static std::optional<FilterImage> fromRaster(const uint8_t* bytes, int width, int height,
                                               int stride, ByteOrder order);

  FilterImage(const FilterImage&) = default;
  FilterImage(FilterImage&&) noexcept = default;
  FilterImage& operator=(const FilterImage&) = default;
  FilterImage& operator=(FilterImage&&) noexcept = default;
  ~FilterImage();

  // Where the image lies in picture space, in pixels.
  Rect extent() const;

  // The same pixels moved by (dx, dy); y up.
  FilterImage translated(double dx, double dy) const;

  // Runs the pipeline: the extent's pixels as RGBA rows, the top row first,
  // width x 4 bytes each. Empty when libvips fails.
  std::vector<uint8_t> render() const;

 private:
  struct GObjectTraits {
    static void ref(VipsImage* p);
    static void unref(VipsImage* p);
  };
  using ImageRef = RefPtr<VipsImage, GObjectTraits>;

  FilterImage(ImageRef image, double x, double y);

  ImageRef image_;  // the pixels, top row first
  double x_ = 0;    // left edge in picture space
  double y_ = 0;    // bottom edge in picture space
};

}  // namespace vn
