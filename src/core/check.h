// VN_DCHECK: a rule a caller must keep, checked where it can be broken.
//
// In checking builds (without NDEBUG, and every build that makes the tests:
// VARNEL_DCHECK_ON) a broken rule prints what was broken and aborts; in the
// others it is logged at debug level (VARNEL_LOG=debug) and the call goes
// on as it always did. The condition is evaluated in every build, so it
// must be cheap and free of side effects.
#pragma once

#define VN_DCHECK(condition, what)                             \
  do {                                                         \
    if (!(condition))                                          \
      ::vn::checkFailed(#condition, what, __FILE__, __LINE__); \
  } while (false)

namespace vn {

// True when a broken rule aborts (a checking build).
bool checksAbort();

// Reports a broken rule: aborts in a checking build, logs at debug level
// otherwise.
void checkFailed(const char* condition, const char* what, const char* file, int line);

}  // namespace vn
