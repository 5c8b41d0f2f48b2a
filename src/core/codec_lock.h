// The process-wide recursive lock named "avcodec_open/close".
//
// Held around every avformat_find_stream_info, codec open and codec free of
// the library (FFmpeg's codec open/close is not safe to run concurrently
// with stream probing in every build), never while decoding or encoding.
#pragma once

#include <mutex>

namespace vn {

inline constexpr const char* kCodecLockName = "avcodec_open/close";

std::recursive_mutex& codecLock();

}  // namespace vn
