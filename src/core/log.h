// The library's log: a few fixed lines, to stderr unless the application
// installs a handler. Any thread.
//
// Debug lines (failures the library meets and gets over: a call of FFmpeg,
// libvips or Pango that failed, a misuse refused) are written only when the
// environment holds VARNEL_LOG=debug; the public calls still answer as they
// always do (null, false, silence).
#pragma once

#include <functional>
#include <string>

// printf-style; one line per call (a newline is added).
void vn_log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Sends every later line to handler instead of stderr; an empty handler
// restores stderr. The handler may be called from any thread, one line at
// a time; it must not log itself.
void vn_set_log_handler(std::function<void(const std::string&)> handler);

namespace vn {

// True while the environment holds VARNEL_LOG=debug (read on each call).
bool debugLogEnabled();

// At debug level, "<call> failed: <reason>" — a call that failed and whose
// failure the caller gets over.
void logFailure(const char* call, const std::string& reason);
// The same for a negative FFmpeg status, with FFmpeg's text for it.
void logFailure(const char* call, int status);

// printf-style line at debug level.
void logDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace vn
