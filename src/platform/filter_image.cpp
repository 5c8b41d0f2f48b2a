#include "platform/filter_image.h"

#include <algorithm>
#include <mutex>

#include <vips/vips.h>

namespace vn {

void FilterImage::GObjectTraits::ref(VipsImage* p) { g_object_ref(p); }
void FilterImage::GObjectTraits::unref(VipsImage* p) { g_object_unref(p); }

void FilterImage::initializeLibrary() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (vips_init("varnel") != 0) vips_error_clear();
    // The cache would keep references to images that wrap memory we reuse.
    vips_cache_set_max(0);
  });
}

std::optional<FilterImage> FilterImage::fromRaster(const uint8_t* bytes, int width, int height,
                                                   int stride, ByteOrder order) {
  if (!bytes || width <= 0 || height <= 0 || stride < width * 4) return std::nullopt;
  initializeLibrary();
  // One pass copies the rows into a packed RGBA buffer for libvips, swapping
  // red and blue on the way when the source is BGRA.
  const size_t rowBytes = static_cast<size_t>(width) * 4;
  std::vector<uint8_t> packed(rowBytes * height);
  for (int row = 0; row < height; ++row) {
    const uint8_t* in = bytes + static_cast<size_t>(row) * stride;
    uint8_t* out = packed.data() + row * rowBytes;
    if (order == ByteOrder::RGBA) {
      std::copy(in, in + rowBytes, out);
      continue;
    }
    for (int x = 0; x < width; ++x, in += 4, out += 4) {
      out[0] = in[2];
      out[1] = in[1];
      out[2] = in[0];
      out[3] = in[3];
    }
  }
  VipsImage* raw = vips_image_new_from_memory_copy(packed.data(), packed.size(), width, height, 4,
                                                   VIPS_FORMAT_UCHAR);
  if (!raw) {
    vips_error_clear();
    return std::nullopt;
  }
  ImageRef memory = ImageRef::adopt(raw);
  VipsImage* tagged = nullptr;
  if (vips_copy(memory.get(), &tagged, "interpretation", VIPS_INTERPRETATION_sRGB, nullptr) != 0) {
    vips_error_clear();
    return std::nullopt;
  }
  return FilterImage(ImageRef::adopt(tagged), 0, 0);
}

FilterImage::FilterImage(ImageRef image, double x, double y)
    : image_(std::move(image)), x_(x), y_(y) {}

FilterImage::~FilterImage() = default;

Rect FilterImage::extent() const {
  return Rect{x_, y_, static_cast<double>(vips_image_get_width(image_.get())),
              static_cast<double>(vips_image_get_height(image_.get()))};
}

FilterImage FilterImage::translated(double dx, double dy) const {
  return FilterImage(image_, x_ + dx, y_ + dy);
}

std::vector<uint8_t> FilterImage::render() const {
  size_t size = 0;
  void* pixels = vips_image_write_to_memory(image_.get(), &size);
  if (!pixels) {
    vips_error_clear();
    return {};
  }
  const uint8_t* begin = static_cast<const uint8_t*>(pixels);
  std::vector<uint8_t> out(begin, begin + size);
  g_free(pixels);
  return out;
}

}  // namespace vn
