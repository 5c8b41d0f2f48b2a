#include "core/formats.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

bool isFFAudioFormatEqual(VNFFAudioFormat a, VNFFAudioFormat b) {
  if (a.sample_fmt != b.sample_fmt)
    return false;
  if (a.channel_layout != b.channel_layout)
    return false;
  return a.sample_rate == b.sample_rate;
}

int32_t vn_default_time_base() {
  return 1000000;
}

uint64_t vn_get_channel_layout_by_name(const std::string& name) {
  AVChannelLayout layout{};
  if (av_channel_layout_from_string(&layout, name.c_str()) < 0)
    return 0;
  const uint64_t mask = vn::channelMask(layout);
  av_channel_layout_uninit(&layout);
  return mask;
}

int32_t vn_get_channel_layout_nb_channels(uint64_t layout) {
  AVChannelLayout ch{};
  if (av_channel_layout_from_mask(&ch, layout) < 0)
    return 0;
  return ch.nb_channels;
}

int32_t vn_get_default_sample_fmt() {
  return AV_SAMPLE_FMT_FLT;
}

double vn_ff_time_to_double(int64_t time) {
  return static_cast<double>(time) / 1000000.0;
}

namespace vn {

uint64_t defaultChannelLayout(int channels) {
  if (channels <= 0)
    return 0;
  AVChannelLayout layout{};
  av_channel_layout_default(&layout, channels);
  const uint64_t mask = vn::channelMask(layout);
  av_channel_layout_uninit(&layout);
  return mask;
}

uint64_t channelMask(const AVChannelLayout& layout) {
  return layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
}

}  // namespace vn
