#include "core/formats.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/channel_layout.h>
}

TEST(FormatsTest, AudioFormatEqualityTimesAndLayouts) {
  VNFFAudioFormat a{3, AV_CH_LAYOUT_STEREO, 44100};
  VNFFAudioFormat b = a;
  EXPECT_TRUE(isFFAudioFormatEqual(a, b));
  b.channel_layout = AV_CH_LAYOUT_MONO;
  EXPECT_FALSE(isFFAudioFormatEqual(a, b));
  b = a;
  b.sample_rate = 48000;
  EXPECT_FALSE(isFFAudioFormatEqual(a, b));
  EXPECT_TRUE(isFFAudioFormatEqual(VNFFAudioFormat{}, VNFFAudioFormat{}));
  EXPECT_DOUBLE_EQ(vn_ff_time_to_double(1500000), 1.5);
  EXPECT_DOUBLE_EQ(vn_ff_time_to_double(-250000), -0.25);
  EXPECT_EQ(vn_get_channel_layout_by_name("stereo"), AV_CH_LAYOUT_STEREO);
  EXPECT_EQ(vn_get_channel_layout_by_name("mono"), AV_CH_LAYOUT_MONO);
  EXPECT_EQ(vn_get_channel_layout_by_name("5.1"), AV_CH_LAYOUT_5POINT1_BACK);
  EXPECT_EQ(vn_get_channel_layout_by_name("5.1(side)"), AV_CH_LAYOUT_5POINT1);
  EXPECT_EQ(vn_get_channel_layout_by_name("downmix"), AV_CH_LAYOUT_STEREO_DOWNMIX);
  EXPECT_EQ(vn_get_channel_layout_by_name("no such layout"), 0u);
  EXPECT_EQ(vn_get_channel_layout_nb_channels(AV_CH_LAYOUT_5POINT1), 6);
  EXPECT_EQ(vn_get_channel_layout_nb_channels(AV_CH_LAYOUT_STEREO), 2);
  EXPECT_EQ(vn_get_channel_layout_nb_channels(0), 0);
  EXPECT_EQ(vn::defaultChannelLayout(2), AV_CH_LAYOUT_STEREO);
  EXPECT_EQ(vn::defaultChannelLayout(6), AV_CH_LAYOUT_5POINT1_BACK);
  EXPECT_EQ(vn::defaultChannelLayout(0), 0u);
}
