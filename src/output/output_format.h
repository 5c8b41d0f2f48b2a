// The record describing the movie file an application wants written, its
// defaults, and the user-facing codec names.
#pragma once

#include <cstdint>
#include <string>

struct AVCodec;

struct VNFFMovieFileOutputFormat {
  int32_t width = 0;            // encoded picture width
  int32_t height = 0;           // encoded picture height
  int32_t video_codec = 0;      // AVCodecID; 0 keeps the container's default
  int32_t video_bitrate = 0;    // bits per second
  int32_t framerate = 0;        // ticks per second of the video clock
  int32_t frameTime = 0;        // ticks per frame; time base frameTime/framerate
  uint64_t channel_layout = 0;  // channel mask of the encoded audio
  int32_t sample_rate = 0;      // Hz
  int32_t audio_codec = 0;      // AVCodecID; 0 keeps the container's default
  int32_t audio_bitrate = 0;    // bits per second

  // Encoder settings beyond the bit rates; the defaults leave every
  // encoder as the fields above configure it.
  //
  // Constant quality on the video encoder's own scale: the CRF of x264,
  // x265, VP8, VP9 and AV1 (lower is better), the quantiser scale of MPEG-1,
  // MPEG-2 and MPEG-4 Visual (1 to 31, lower is better), Theora's 0 to 10
  // (higher is better). Below 0: bit-rate mode at video_bitrate. VP8 keeps
  // video_bitrate as its ceiling; ProRes, Animation and GIF have no
  // quality to set.
  double video_quality = -1;
  // "ultrafast", "superfast", "veryfast", "faster", "fast", "medium",
  // "slow", "slower" or "veryslow", turned into each encoder's own speed
  // setting; empty keeps the encoder's default (H.264: "fast").
  std::string speed_preset;
  // Two-pass bit-rate encoding: 1 writes the encoder's statistics of a
  // first run to pass_log, 2 reads them back for the run that counts; 0
  // encodes in one pass.
  int32_t pass = 0;
  std::string pass_log;
  // Pictures from one keyframe to the next; 0 keeps the encoder's own
  // (x264 and x265: up to 250).
  int32_t keyframe_interval = 12;
};

// The colour description a YUV video is written with: AVColorPrimaries,
// AVColorTransferCharacteristic, AVColorSpace and AVColorRange values,
// FFmpeg's "unspecified" by default. A matrix given is also the one the
// pictures are converted with; with none, the writer tags and converts as
// BT.601.
struct VNFFColorProperties {
  int32_t primaries = 2;  // AVCOL_PRI_UNSPECIFIED
  int32_t transfer = 2;   // AVCOL_TRC_UNSPECIFIED
  int32_t matrix = 2;     // AVCOL_SPC_UNSPECIFIED
  int32_t range = 0;      // AVCOL_RANGE_UNSPECIFIED
  bool operator==(const VNFFColorProperties&) const = default;
};

// Overwrites every field with the library's defaults: stereo 44100 Hz at
// 192 kb/s, 20 Mb/s video, frameTime 1, a keyframe every 12 pictures, no
// constant quality, preset or passes, everything else 0 (the caller sets
// the size and frame rate before opening video).
void movieFileOutputFormatToDefaults(VNFFMovieFileOutputFormat* format);

// The AVCodecID of a user-facing codec name, matched case-insensitively but
// otherwise exactly: video "h264", "hevc"/"h265", "vp8", "vp9", "av1",
// "mpeg4", "mpeg1"/"mpeg1video", "mpeg2"/"mpeg2video", "animation",
// "prores", "theora", "gif"; audio "aac", "mp3", "opus", "vorbis", "flac",
// "alac", "ac3"/"ac-3", "pcm" (16-bit little-endian), "mp2", "wma"/"wma2",
// "wma1". 0 for any other name.
int32_t vn_get_codec_id_by_name(const std::string& name);

// The encoder the writer uses for a codec: the one this FFmpeg has that
// serves it best (libsvtav1 before libaom-av1, libvorbis and libopus before
// FFmpeg's experimental ones, prores_ks), else FFmpeg's first. Null when
// there is none.
const AVCodec* vn_find_encoder(int32_t codecId);

// 0 ("ultrafast") to 8 ("veryslow") for the names of speed_preset; -1 for
// any other name.
int vn_speed_preset_index(const std::string& name);
