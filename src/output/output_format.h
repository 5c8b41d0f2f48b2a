// The record describing the movie file an application wants written, its
// defaults, and the user-facing codec names.
#pragma once

#include <cstdint>
#include <string>

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
// 192 kb/s, 20 Mb/s video, frameTime 1, everything else 0 (the caller sets
// the size and frame rate before opening video).
void movieFileOutputFormatToDefaults(VNFFMovieFileOutputFormat* format);

// The AVCodecID of a user-facing codec name, matched case-insensitively but
// otherwise exactly ("h264", "mpeg4", "mpeg1"/"mpeg1video", "mpeg2"/
// "mpeg2video", "animation", "mp2", "mp3", "aac", "alac", "ac3"/"ac-3",
// "vorbis", "wma1", "wma2"); 0 for any other name.
int32_t vn_get_codec_id_by_name(const std::string& name);
