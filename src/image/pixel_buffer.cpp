#include "image/pixel_buffer.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace vn {
namespace {

// At most this many bytes wait in the pool.
constexpr size_t kPoolBytes = size_t{192} << 20;
// Blocks smaller than this are left to the allocator.
constexpr size_t kPoolMinimum = size_t{256} << 10;

class Pool {
 public:
  static Pool& shared() {
    static Pool* pool = new Pool();  // never destroyed: buffers may die at exit
    return *pool;
  }

  // A block of at least `floats` capacity, or an empty vector.
  std::vector<float> take(size_t floats) {
    std::lock_guard<std::mutex> hold(lock_);
    auto best = blocks_.end();
    for (auto it = blocks_.begin(); it != blocks_.end(); ++it) {
      if (it->capacity() >= floats && (best == blocks_.end() || it->capacity() < best->capacity()))
        best = it;
    }
    if (best == blocks_.end())
      return {};
    std::vector<float> block = std::move(*best);
    blocks_.erase(best);
    bytes_ -= block.capacity() * sizeof(float);
    return block;
  }

  void give(std::vector<float>&& block) {
    const size_t size = block.capacity() * sizeof(float);
    if (size < kPoolMinimum || size > kPoolBytes)
      return;
    std::lock_guard<std::mutex> hold(lock_);
    // Make room by dropping the smallest blocks first.
    std::sort(blocks_.begin(), blocks_.end(),
              [](const auto& a, const auto& b) { return a.capacity() > b.capacity(); });
    while (!blocks_.empty() && bytes_ + size > kPoolBytes) {
      bytes_ -= blocks_.back().capacity() * sizeof(float);
      blocks_.pop_back();
    }
    bytes_ += size;
    blocks_.push_back(std::move(block));
  }

 private:
  std::mutex lock_;
  std::vector<std::vector<float>> blocks_;  // guarded by lock_
  size_t bytes_ = 0;                        // guarded by lock_
};

}  // namespace

PixelBuffer::PixelBuffer(const IntRect& r) : PixelBuffer(r, Unset{}) {
  std::fill(pixels.begin(), pixels.end(), 0.0f);
}

PixelBuffer::PixelBuffer(const IntRect& r, Unset) : rect(r) {
  const size_t floats = r.isEmpty() ? 0 : static_cast<size_t>(r.width) * r.height * 4;
  if (floats * sizeof(float) >= kPoolMinimum)
    pixels = Pool::shared().take(floats);
  // Pooled blocks are kept at their full size: shrinking writes nothing.
  pixels.resize(floats);
}

PixelBuffer::~PixelBuffer() {
  if (pixels.capacity() * sizeof(float) >= kPoolMinimum) {
    pixels.resize(pixels.capacity());
    Pool::shared().give(std::move(pixels));
  }
}

}  // namespace vn
