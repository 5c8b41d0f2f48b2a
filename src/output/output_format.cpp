#include "output/output_format.h"

#include <algorithm>
#include <cctype>
#include <utility>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "core/formats.h"

void movieFileOutputFormatToDefaults(VNFFMovieFileOutputFormat* format) {
  format->width = 0;
  format->height = 0;
  format->video_codec = AV_CODEC_ID_NONE;
  format->video_bitrate = 20000000;
  format->framerate = 0;
  format->frameTime = 1;
  format->channel_layout = vn::defaultChannelLayout(2);
  format->sample_rate = 44100;
  format->audio_codec = AV_CODEC_ID_NONE;
  format->audio_bitrate = 192000;
}

int32_t vn_get_codec_id_by_name(const std::string& name) {
  // Searched in this order; the first equal name decides.
  static const std::pair<const char*, AVCodecID> kNames[] = {
      {"h264", AV_CODEC_ID_H264},
      {"mpeg4", AV_CODEC_ID_MPEG4},
      {"mpeg1video", AV_CODEC_ID_MPEG1VIDEO},
      {"mpeg1", AV_CODEC_ID_MPEG1VIDEO},
      {"mpeg2video", AV_CODEC_ID_MPEG2VIDEO},
      {"mpeg2", AV_CODEC_ID_MPEG2VIDEO},
      {"animation", AV_CODEC_ID_QTRLE},
      {"mp2", AV_CODEC_ID_MP2},
      {"mp3", AV_CODEC_ID_MP3},
      {"aac", AV_CODEC_ID_AAC},
      {"alac", AV_CODEC_ID_ALAC},
      {"ac3", AV_CODEC_ID_AC3},
      {"ac-3", AV_CODEC_ID_AC3},
      {"vorbis", AV_CODEC_ID_VORBIS},
      {"wma1", AV_CODEC_ID_WMAV1},
      {"wma2", AV_CODEC_ID_WMAV2},
  };
  std::string lower = name;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const auto& [known, id] : kNames) {
    if (lower == known)
      return id;
  }
  return AV_CODEC_ID_NONE;
}
