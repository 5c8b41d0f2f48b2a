#include "image/bitmap_image.h"

#include <cstring>
#include <new>
#include <vector>

namespace vn {

namespace {

bool validLayout(const uint8_t* rgba, int width, int height, int bytesPerRow) {
  return rgba && width > 0 && height > 0 && bytesPerRow / 4 >= width;
}

}  // namespace

BitmapImage::BitmapImage(const uint8_t* data,
                         int width,
                         int height,
                         int bytesPerRow,
                         std::shared_ptr<const void> owner)
    : data_(data),
      width_(width),
      height_(height),
      bytesPerRow_(bytesPerRow),
      owner_(std::move(owner)) {}

BitmapImage BitmapImage::copyOf(const uint8_t* rgba, int width, int height, int bytesPerRow) {
  if (!validLayout(rgba, width, height, bytesPerRow))
    return {};
  const size_t rowBytes = static_cast<size_t>(width) * 4;
  std::shared_ptr<std::vector<uint8_t>> pixels;
  try {
    pixels = std::make_shared<std::vector<uint8_t>>(rowBytes * height);
  } catch (const std::bad_alloc&) {
    return {};
  }
  // The copy is packed: its rows are exactly width × 4 bytes.
  for (int y = 0; y < height; ++y)
    std::memcpy(pixels->data() + y * rowBytes, rgba + static_cast<size_t>(y) * bytesPerRow,
                rowBytes);
  const uint8_t* first = pixels->data();
  return BitmapImage(first, width, height, static_cast<int>(rowBytes), std::move(pixels));
}

BitmapImage BitmapImage::borrow(const uint8_t* rgba,
                                int width,
                                int height,
                                int bytesPerRow,
                                std::shared_ptr<const void> owner) {
  if (!validLayout(rgba, width, height, bytesPerRow))
    return {};
  return BitmapImage(rgba, width, height, bytesPerRow, std::move(owner));
}

}  // namespace vn
