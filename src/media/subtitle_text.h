// Helpers that turn decoded subtitles into the stream's text and times.
// Pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

extern "C" {
#include <libavutil/rational.h>
}

namespace vn {

// The shown text of an ASS dialogue line: the line is cut at every ',' and
// '}', the last piece is kept and each "\N" becomes a newline. So the text
// after the last comma or closing brace is shown; a comma inside the spoken
// text drops what comes before it ("Yes, sir" gives " sir"), as intended.
std::string subtitleTextFromAss(std::string_view line);

// Times of a decoded subtitle in time base tb: it starts startMs after pts
// (microseconds) and lasts endMs - startMs, that difference taken as an
// unsigned 32-bit count of milliseconds.
struct SubtitleTimes {
  int64_t pts = 0;
  int64_t duration = 0;
};
SubtitleTimes subtitleTimes(int64_t pts, uint32_t startMs, uint32_t endMs, AVRational tb);

}  // namespace vn
