#include "core/formats.h"

#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
}

TEST(FormatsTest, AudioFormatEqualityTimesAndLayouts) {
  const VNFFAudioFormat a{3, AV_CH_LAYOUT_STEREO, 44100};
  EXPECT_TRUE(isFFAudioFormatEqual(a, a));
  EXPECT_FALSE(isFFAudioFormatEqual(a, {3, AV_CH_LAYOUT_MONO, 44100}));
  EXPECT_FALSE(isFFAudioFormatEqual(a, {3, AV_CH_LAYOUT_STEREO, 48000}));
  EXPECT_DOUBLE_EQ(vn_ff_time_to_double(1500000), 1.5);
  EXPECT_DOUBLE_EQ(vn_ff_time_to_double(-250000), -0.25);
  std::vector<uint64_t> layouts;
  for (const char* name : {"stereo", "5.1", "5.1(side)", "downmix", "no such layout"})
    layouts.push_back(vn_get_channel_layout_by_name(name));
  EXPECT_EQ(layouts, (std::vector<uint64_t>{AV_CH_LAYOUT_STEREO, AV_CH_LAYOUT_5POINT1_BACK,
                                            AV_CH_LAYOUT_5POINT1, AV_CH_LAYOUT_STEREO_DOWNMIX, 0}));
  EXPECT_EQ(std::vector({vn_get_channel_layout_nb_channels(AV_CH_LAYOUT_5POINT1),
                         vn_get_channel_layout_nb_channels(0)}),
            std::vector({6, 0}));
  EXPECT_EQ(std::vector({vn::defaultChannelLayout(2), vn::defaultChannelLayout(6),
                         vn::defaultChannelLayout(0)}),
            (std::vector<uint64_t>{AV_CH_LAYOUT_STEREO, AV_CH_LAYOUT_5POINT1_BACK, 0}));
}
