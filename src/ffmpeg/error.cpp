#include "ffmpeg/error.h"

extern "C" {
#include <libavutil/error.h>
}

namespace vn::ff {

std::string errorText(int status) {
  // FFmpeg's own texts for these speak to its developers; a user reads what
  // they mean for the file.
  switch (status) {
    case AVERROR_INVALIDDATA:
      return "not media data FFmpeg can read";
    case AVERROR_PATCHWELCOME:
      return "it uses a feature FFmpeg cannot read yet";
    case AVERROR_DECODER_NOT_FOUND:
      return "FFmpeg has no decoder for its codec";
    case AVERROR_DEMUXER_NOT_FOUND:
      return "FFmpeg has no reader for its format";
    case AVERROR_ENCODER_NOT_FOUND:
      return "FFmpeg has no encoder for that codec";
    case AVERROR_MUXER_NOT_FOUND:
      return "FFmpeg has no writer for that format";
    case AVERROR_BUG:
    case AVERROR_BUG2:
      return "FFmpeg failed on it (an internal error)";
    default:
      break;
  }
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  if (av_strerror(status, text, sizeof text) < 0)
    return "error " + std::to_string(status);
  return text;
}

std::string callError(const char* call, int status) {
  return std::string(call) + ": " + errorText(status);
}

}  // namespace vn::ff
