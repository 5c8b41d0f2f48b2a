#include "core/log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

std::mutex& handlerLock() {
  static std::mutex lock;
  return lock;
}

std::function<void(const std::string&)>& handler() {
  static std::function<void(const std::string&)> h;
  return h;
}

}  // namespace

void vn_log(const char* format, ...) {
  char line[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  std::lock_guard<std::mutex> guard(handlerLock());
  if (handler()) {
    handler()(line);
  } else {
    std::fprintf(stderr, "%s\n", line);
  }
}

void vn_set_log_handler(std::function<void(const std::string&)> h) {
  std::lock_guard<std::mutex> guard(handlerLock());
  handler() = std::move(h);
}
