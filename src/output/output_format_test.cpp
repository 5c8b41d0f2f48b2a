#include "output/output_format.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

// Names in any case; the last three are not in the table, so the container's default codec is used.
TEST(OutputFormatTest, CodecNames) {
  const std::tuple<const char*, AVCodecID> cases[] = {
      {"H264", AV_CODEC_ID_H264},        {"Mpeg4", AV_CODEC_ID_MPEG4},
      {"mpeg1", AV_CODEC_ID_MPEG1VIDEO}, {"mpeg1video", AV_CODEC_ID_MPEG1VIDEO},
      {"mpeg2", AV_CODEC_ID_MPEG2VIDEO}, {"MPEG2VIDEO", AV_CODEC_ID_MPEG2VIDEO},
      {"animation", AV_CODEC_ID_QTRLE},  {"mp2", AV_CODEC_ID_MP2},
      {"mp3", AV_CODEC_ID_MP3},          {"aac", AV_CODEC_ID_AAC},
      {"alac", AV_CODEC_ID_ALAC},        {"ac3", AV_CODEC_ID_AC3},
      {"AC-3", AV_CODEC_ID_AC3},         {"vorbis", AV_CODEC_ID_VORBIS},
      {"wma1", AV_CODEC_ID_WMAV1},       {"wma2", AV_CODEC_ID_WMAV2},
      {" h264", AV_CODEC_ID_NONE},       {"", AV_CODEC_ID_NONE},
      {"flac", AV_CODEC_ID_NONE},
  };
  for (const auto& [name, id] : cases)
    EXPECT_EQ(vn_get_codec_id_by_name(name), id) << '"' << name << '"';
}
