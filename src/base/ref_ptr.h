// vn::RefPtr: a copyable handle on a reference-counted C object (a libvips
// image, later Pango and Cairo objects).
//
// Copying adds a reference, destruction drops one. Wrapping a raw pointer
// says whether the handle takes over the caller's reference (adopt) or adds
// its own (retain). Not thread-safe by itself: two threads may hold copies of
// one handle, but one handle object is used by one thread at a time.
#pragma once

#include <utility>

namespace vn {

// Traits: static void ref(T*) and static void unref(T*), both given non-null.
template <typename T, typename Traits>
class RefPtr {
 public:
  RefPtr() noexcept = default;
  // Takes over the reference the caller holds on p (null gives an empty handle).
  static RefPtr adopt(T* p) noexcept { return RefPtr(p); }
  // Adds a reference to p; the caller keeps its own.
  static RefPtr retain(T* p) noexcept {
    if (p)
      Traits::ref(p);
    return RefPtr(p);
  }

  RefPtr(const RefPtr& other) noexcept : p_(other.p_) {
    if (p_)
      Traits::ref(p_);
  }
  RefPtr(RefPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  RefPtr& operator=(RefPtr other) noexcept {
    std::swap(p_, other.p_);
    return *this;
  }
  ~RefPtr() {
    if (p_)
      Traits::unref(p_);
  }

  T* get() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

 private:
  explicit RefPtr(T* p) noexcept : p_(p) {}

  T* p_ = nullptr;  // one reference held, or null
};

}  // namespace vn
