// The library's log: a few fixed lines, to stderr unless the application
// installs a handler. Any thread.
#pragma once

#include <functional>
#include <string>

// printf-style; one line per call (a newline is added).
void vn_log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Sends every later line to handler instead of stderr; an empty handler
// restores stderr. The handler may be called from any thread.
void vn_set_log_handler(std::function<void(const std::string&)> handler);
