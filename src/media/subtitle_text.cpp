#include "media/subtitle_text.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace vn {

std::string subtitleTextFromAss(std::string_view line) {
  const size_t cut = line.find_last_of(",}");
  std::string_view last = cut == std::string_view::npos ? line : line.substr(cut + 1);
  std::string text;
  text.reserve(last.size());
  for (size_t i = 0; i < last.size(); ++i) {
    if (last[i] == '\\' && i + 1 < last.size() && last[i + 1] == 'N') {
      text += '\n';
      ++i;
    } else {
      text += last[i];
    }
  }
  return text;
}

SubtitleTimes subtitleTimes(int64_t pts, uint32_t startMs, uint32_t endMs, AVRational tb) {
  const AVRational microseconds{1, 1000000}, milliseconds{1, 1000};
  SubtitleTimes times;
  times.pts = av_rescale_q(pts, microseconds, tb) + av_rescale_q(startMs, milliseconds, tb);
  times.duration = av_rescale_q(static_cast<uint32_t>(endMs - startMs), milliseconds, tb);
  return times;
}

}  // namespace vn
