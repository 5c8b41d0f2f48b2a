// vn::BitmapContext: a drawing surface in memory.
//
// Owns width × height pixels of 8-bit red, green, blue and a fourth byte
// that is either padding (kNoneSkipLast, "RGBX": always written as 255) or
// premultiplied alpha (kPremultipliedLast, "RGBA"); 32 bits per pixel, rows
// of exactly width × 4 bytes, row 0 on top. An RGBX context starts opaque
// black, an RGBA context transparent black.
//
// Not thread-safe: one thread at a time draws into or reads a context.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace vn {

class BitmapImage;

class BitmapContext {
 public:
  enum class Alpha {
    kNoneSkipLast,       // RGBX: no alpha, the fourth byte is padding
    kPremultipliedLast,  // RGBA with premultiplied alpha
  };
  enum class Composite {
    kCopy,        // the image replaces what the context held, transparency included
    kSourceOver,  // the image is laid over what the context held
  };

  // A context of the given size; null when a size is not positive or memory
  // runs out.
  static std::shared_ptr<BitmapContext> create(int width,
                                               int height,
                                               Alpha alpha = Alpha::kNoneSkipLast);

  BitmapContext(const BitmapContext&) = delete;
  BitmapContext& operator=(const BitmapContext&) = delete;
  ~BitmapContext();

  // Draws image stretched over the whole context (bilinear, in premultiplied
  // space), composited as mode says. An empty image draws nothing.
  void drawImage(const BitmapImage& image, Composite mode);

  int width() const { return width_; }
  int height() const { return height_; }
  int bitsPerPixel() const { return 32; }
  int bytesPerRow() const { return width_ * 4; }
  Alpha alpha() const { return alpha_; }
  // The pixels: bytesPerRow() × height() bytes.
  uint8_t* data() { return pixels_.data(); }
  const uint8_t* data() const { return pixels_.data(); }
  size_t byteCount() const { return pixels_.size(); }

 private:
  BitmapContext(int width, int height, Alpha alpha);

  int width_;                    // pixels
  int height_;                   // rows
  Alpha alpha_;                  // meaning of the fourth byte
  std::vector<uint8_t> pixels_;  // the surface
};

}  // namespace vn
