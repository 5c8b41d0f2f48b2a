#include "output/output_format.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/channel_layout.h>
}

TEST(OutputFormatTest, Defaults) {
  VNFFMovieFileOutputFormat f;
  f.width = 99;
  f.video_codec = 5;
  f.framerate = 7;
  movieFileOutputFormatToDefaults(&f);
  EXPECT_EQ(f.width, 0);
  EXPECT_EQ(f.height, 0);
  EXPECT_EQ(f.video_codec, 0);
  EXPECT_EQ(f.video_bitrate, 20000000);
  EXPECT_EQ(f.framerate, 0);
  EXPECT_EQ(f.frameTime, 1);
  EXPECT_EQ(f.channel_layout, AV_CH_LAYOUT_STEREO);
  EXPECT_EQ(f.sample_rate, 44100);
  EXPECT_EQ(f.audio_codec, 0);
  EXPECT_EQ(f.audio_bitrate, 192000);
}

TEST(OutputFormatTest, CodecNames) {
  const struct {
    const char* name;
    AVCodecID id;
  } cases[] = {
      {"h264", AV_CODEC_ID_H264},
      {"H264", AV_CODEC_ID_H264},
      {"Mpeg4", AV_CODEC_ID_MPEG4},
      {"mpeg1", AV_CODEC_ID_MPEG1VIDEO},
      {"mpeg1video", AV_CODEC_ID_MPEG1VIDEO},
      {"mpeg2", AV_CODEC_ID_MPEG2VIDEO},
      {"MPEG2VIDEO", AV_CODEC_ID_MPEG2VIDEO},
      {"animation", AV_CODEC_ID_QTRLE},
      {"mp2", AV_CODEC_ID_MP2},
      {"mp3", AV_CODEC_ID_MP3},
      {"aac", AV_CODEC_ID_AAC},
      {"alac", AV_CODEC_ID_ALAC},
      {"ac3", AV_CODEC_ID_AC3},
      {"AC-3", AV_CODEC_ID_AC3},
      {"vorbis", AV_CODEC_ID_VORBIS},
      {"wma1", AV_CODEC_ID_WMAV1},
      {"wma2", AV_CODEC_ID_WMAV2},
      // Not in the table: the container's default codec is used.
      {" h264", AV_CODEC_ID_NONE},
      {"h.264", AV_CODEC_ID_NONE},
      {"", AV_CODEC_ID_NONE},
      {"flac", AV_CODEC_ID_NONE},
      {"pcm_s16le", AV_CODEC_ID_NONE},
      {"vp8", AV_CODEC_ID_NONE},
  };
  for (const auto& c : cases)
    EXPECT_EQ(vn_get_codec_id_by_name(c.name), c.id) << '"' << c.name << '"';
}
