#include "output/output_format.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
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
  format->video_quality = -1;
  format->speed_preset.clear();
  format->pass = 0;
  format->pass_log.clear();
  format->keyframe_interval = 12;
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
      {"hevc", AV_CODEC_ID_HEVC},
      {"h265", AV_CODEC_ID_HEVC},
      {"vp8", AV_CODEC_ID_VP8},
      {"vp9", AV_CODEC_ID_VP9},
      {"av1", AV_CODEC_ID_AV1},
      {"prores", AV_CODEC_ID_PRORES},
      {"theora", AV_CODEC_ID_THEORA},
      {"gif", AV_CODEC_ID_GIF},
      {"opus", AV_CODEC_ID_OPUS},
      {"flac", AV_CODEC_ID_FLAC},
      {"pcm", AV_CODEC_ID_PCM_S16LE},
      {"wma", AV_CODEC_ID_WMAV2},
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

const AVCodec* vn_find_encoder(int32_t codecId) {
  // FFmpeg lists its own encoders first; for these codecs a library's is
  // the better (or the only non-experimental) one.
  static const std::pair<AVCodecID, const char*> kPreferred[] = {
      {AV_CODEC_ID_AV1, "libsvtav1"},    {AV_CODEC_ID_AV1, "libaom-av1"},
      {AV_CODEC_ID_VORBIS, "libvorbis"}, {AV_CODEC_ID_OPUS, "libopus"},
      {AV_CODEC_ID_PRORES, "prores_ks"}, {AV_CODEC_ID_MP3, "libmp3lame"},
  };
  for (const auto& [id, name] : kPreferred) {
    if (id == codecId) {
      if (const AVCodec* encoder = avcodec_find_encoder_by_name(name))
        return encoder;
    }
  }
  return avcodec_find_encoder(static_cast<AVCodecID>(codecId));
}

int vn_speed_preset_index(const std::string& name) {
  static const char* const kPresets[] = {"ultrafast", "superfast", "veryfast", "faster",  "fast",
                                         "medium",    "slow",      "slower",   "veryslow"};
  for (int i = 0; i < static_cast<int>(std::size(kPresets)); ++i) {
    if (name == kPresets[i])
      return i;
  }
  return -1;
}
