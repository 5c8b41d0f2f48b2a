// vn::BitmapImage: an RGBA raster image.
//
// 8 bits per component in the order red, green, blue, alpha, not
// premultiplied; row 0 is the top row; rows may be padded (bytesPerRow is at
// least width × 4). Copies are cheap and share the pixels.
//
// The pixels either belong to the image (copyOf) or are borrowed from another
// owner without copying (borrow), in which case the image keeps that owner
// alive and shows whatever the owner writes there later. Reading an image is
// safe from any thread as long as nobody writes the borrowed memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace vn {

class BitmapImage {
 public:
  // The empty image: 0 × 0, no pixels.
  BitmapImage() = default;

  // An image owning a copy of width × height pixels read from rgba, whose rows
  // are bytesPerRow apart. The empty image when a size is not positive,
  // bytesPerRow < width × 4, rgba is null or memory runs out.
  static BitmapImage copyOf(const uint8_t* rgba, int width, int height, int bytesPerRow);

  // An image over memory that stays owner's: nothing is copied, and owner
  // (which may be null when the caller guarantees the memory outlives every
  // copy of the image) is kept alive as long as the image. The same checks
  // as copyOf apply.
  static BitmapImage borrow(const uint8_t* rgba,
                            int width,
                            int height,
                            int bytesPerRow,
                            std::shared_ptr<const void> owner);

  bool isEmpty() const { return data_ == nullptr; }
  int width() const { return width_; }
  int height() const { return height_; }
  int bytesPerRow() const { return bytesPerRow_; }
  const uint8_t* data() const { return data_; }
  // First byte of row y (0 = top); y must be in [0, height).
  const uint8_t* row(int y) const { return data_ + static_cast<size_t>(y) * bytesPerRow_; }

 private:
  BitmapImage(const uint8_t* data,
              int width,
              int height,
              int bytesPerRow,
              std::shared_ptr<const void> owner);

  const uint8_t* data_ = nullptr;      // first pixel of the top row
  int width_ = 0;                      // pixels
  int height_ = 0;                     // rows
  int bytesPerRow_ = 0;                // distance between rows in bytes
  std::shared_ptr<const void> owner_;  // keeps the pixels alive (ours or borrowed)
};

}  // namespace vn
