#include "ffmpeg/error.h"

extern "C" {
#include <libavutil/error.h>
}

namespace vn::ff {

std::string errorText(int status) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  if (av_strerror(status, text, sizeof text) < 0)
    return "error " + std::to_string(status);
  return text;
}

std::string callError(const char* call, int status) {
  return std::string(call) + ": " + errorText(status);
}

}  // namespace vn::ff
