#include "core/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "ffmpeg/error.h"

namespace {

std::mutex& handlerLock() {
  static std::mutex lock;
  return lock;
}

std::function<void(const std::string&)>& handler() {
  static std::function<void(const std::string&)> h;
  return h;
}

void writeLine(const char* line) {
  std::lock_guard<std::mutex> guard(handlerLock());
  if (handler()) {
    handler()(line);
  } else {
    std::fprintf(stderr, "%s\n", line);
  }
}

}  // namespace

void vn_log(const char* format, ...) {
  char line[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  writeLine(line);
}

void vn_set_log_handler(std::function<void(const std::string&)> h) {
  std::lock_guard<std::mutex> guard(handlerLock());
  handler() = std::move(h);
}

namespace vn {

bool debugLogEnabled() {
  const char* level = std::getenv("VARNEL_LOG");
  return level && std::strcmp(level, "debug") == 0;
}

void logFailure(const char* call, const std::string& reason) {
  if (debugLogEnabled())
    logDebug("%s failed: %s", call, reason.c_str());
}

void logFailure(const char* call, int status) {
  if (debugLogEnabled())
    logDebug("%s failed: %s", call, ff::errorText(status).c_str());
}

void logDebug(const char* format, ...) {
  if (!debugLogEnabled())
    return;
  char line[1024];
  const int prefix = std::snprintf(line, sizeof line, "varnel: debug: ");
  va_list args;
  va_start(args, format);
  std::vsnprintf(line + prefix, sizeof line - static_cast<size_t>(prefix), format, args);
  va_end(args);
  writeLine(line);
}

}  // namespace vn
