#include "core/codec_lock.h"

namespace vn {

std::recursive_mutex& codecLock() {
  static std::recursive_mutex lock;
  return lock;
}

}  // namespace vn
