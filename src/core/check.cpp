#include "core/check.h"

#include <cstdio>
#include <cstdlib>

#include "core/log.h"

namespace vn {

bool checksAbort() {
#if !defined(NDEBUG) || defined(VARNEL_DCHECK_ON)
  return true;
#else
  return false;
#endif
}

void checkFailed(const char* condition, const char* what, const char* file, int line) {
  if (checksAbort()) {
    std::fprintf(stderr, "varnel: check failed at %s:%d: %s (%s)\n", file, line, what, condition);
    std::abort();
  }
  logDebug("%s (%s at %s:%d)", what, condition, file, line);
}

}  // namespace vn
