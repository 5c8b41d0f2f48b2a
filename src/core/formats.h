// Format records and time helpers shared by every part of the library.
//
// Times are signed 64-bit microseconds (the default time base, 1/1000000 s)
// unless a comment says a value is in a stream's own time base.
#pragma once

#include <cstdint>
#include <string>

struct AVChannelLayout;

// An audio format. All zeros is what a missing object yields and means
// "no format"; sample_fmt -1 (AV_SAMPLE_FMT_NONE) means no audio.
struct VNFFAudioFormat {
  int32_t sample_fmt = 0;       // AVSampleFormat
  uint64_t channel_layout = 0;  // channel mask; 0 is none or unknown
  int32_t sample_rate = 0;      // Hz
};

// A picture format; pix_fmt -1 means the stream is not video.
struct VNFFVideoFormat {
  int32_t pix_fmt = 0;  // AVPixelFormat
  int32_t width = 0;
  int32_t height = 0;
};

// True only when all three fields are equal (compared in field order).
bool isFFAudioFormatEqual(VNFFAudioFormat a, VNFFAudioFormat b);

// Time base units per second: 1000000.
int32_t vn_default_time_base();

// The mask of one of FFmpeg's layout names ("mono", "stereo", "5.1", ...);
// 0 when the name is unknown or describes no plain channel mask.
uint64_t vn_get_channel_layout_by_name(const std::string& name);

// Number of channels of a mask.
int32_t vn_get_channel_layout_nb_channels(uint64_t layout);

// The library's default sample format: AV_SAMPLE_FMT_FLT (packed float).
int32_t vn_get_default_sample_fmt();

// Microseconds to seconds.
double vn_ff_time_to_double(int64_t time);

namespace vn {

// The mask FFmpeg uses by default for a channel count (stereo for 2,
// 5.1 for 6...); 0 for a count it has no default layout for.
uint64_t defaultChannelLayout(int channels);

// The channel mask of a layout in FFmpeg's native order; 0 for any other
// order (unspecified, custom, ambisonic).
uint64_t channelMask(const AVChannelLayout& layout);

}  // namespace vn
