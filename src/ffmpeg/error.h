// FFmpeg status codes as text.
#pragma once

#include <string>

namespace vn::ff {

// av_strerror's text for a negative status ("Invalid data found when
// processing input"); "error N" when FFmpeg has none.
std::string errorText(int status);

// "<call>: <text>", the form the library keeps as a failure reason.
std::string callError(const char* call, int status);

}  // namespace vn::ff
