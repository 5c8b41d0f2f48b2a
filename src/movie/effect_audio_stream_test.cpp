#include "movie/effect_audio_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

#include "audio_analysis.h"
#include "media/media_test_support.h"
#include "movie/movie.h"

namespace {

using Medias = std::vector<std::shared_ptr<VNFFMedia>>;

const VNFFAudioFormat kPlayback{AV_SAMPLE_FMT_FLT, AV_CH_LAYOUT_STEREO, 44100};

// The audio media of a fixture (its last), sought to 0: audio is queued only after a seek.
std::shared_ptr<VNFFMedia> audioMedia(const std::string& name) {
  Medias medias = vn::test::mediasOf(name);
  if (medias.empty())
    return nullptr;
  medias.back()->seek(0);
  return medias.back();
}

vn::test::Samples read(VNFFEffectAudioStream& mix, int frames) {
  vn::test::Samples s;
  s.data.assign(static_cast<size_t>(frames) * 2, 123.0f);
  EXPECT_TRUE(mix.readSample(s.data.data(), frames));
  return s;
}

}  // namespace

TEST(MixGraphTest, StagesFollowTheStreamCount) {
  VNFFEffectAudioStream mix;
  mix.setOutputParam(kPlayback);
  // One stream: no mixer, no compensation.
  mix.setInputStreams({audioMedia("aac.m4a")});
  EXPECT_EQ(
      std::tuple(mix.sourceCount(), mix.stageArguments("amix"), mix.stageArguments("volumeFix")),
      std::tuple(1, "", "1"));
  // Forty streams: only the first 32 are mixed, the level made up for all 32.
  Medias forty;
  for (int i = 0; i < 40; ++i)
    forty.push_back(audioMedia("aac.m4a"));
  mix.setInputStreams(forty);
  EXPECT_EQ(
      std::tuple(mix.sourceCount(), mix.stageArguments("amix"), mix.stageArguments("volumeFix")),
      std::tuple(32, "32", "32"));
  // No stream: the graph cannot be configured; reads give silence.
  mix.setInputStreams({});
  EXPECT_EQ(mix.sourceCount(), 0);
  EXPECT_EQ(vn::test::rms(read(mix, 512).data), 0.0);
  // A layout without a name leaves the format stage unconfigurable: silence.
  mix.setOutputParam({AV_SAMPLE_FMT_FLT, 0x1, 44100});
  mix.setInputStreams({audioMedia("aac.m4a")});
  EXPECT_EQ(mix.sourceCount(), 0);
}

TEST(MixGraphTest, LayoutNames) {
  std::vector<std::string> names;
  for (uint64_t layout : {0x3, 0x4, 0x3f, 0x60f, 0x13f, 0x60000000, 0x1})
    names.push_back(VNFFEffectAudioStream::channelLayoutName(layout));
  EXPECT_EQ(names,
            (std::vector<std::string>{"stereo", "mono", "5.1", "5.1(side)", "6.1", "downmix", ""}));
}

TEST(MixGraphTest, VolumeChangesTheNextSamples) {
  VNFFEffectAudioStream mix;
  mix.setOutputParam(kPlayback);
  mix.setInputStreams({audioMedia("aac.m4a")});
  read(mix, 8192);  // past the start of the stream
  const double full = vn::test::rms(read(mix, 8192).data);
  ASSERT_GT(full, 0.05);
  mix.setVolume(0.5);
  const double half = vn::test::rms(read(mix, 8192).data);
  EXPECT_EQ(mix.stageArguments("volume"), "0.500000");
  EXPECT_NEAR(half / full, 0.5, 0.02);
}

// A planar output holds the packed format's samples plane after plane.
TEST(MixGraphTest, PlanarOutputHoldsThePackedSamplesPlaneByPlane) {
  constexpr int kFrames = 4096;
  VNFFEffectAudioStream packed;
  packed.setOutputParam(kPlayback);
  packed.setInputStreams({audioMedia("aac.m4a")});
  VNFFEffectAudioStream planar;
  planar.setOutputParam({AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 44100});
  planar.setInputStreams({audioMedia("aac.m4a")});
  for (int chunk = 0; chunk < 3; ++chunk) {
    const vn::test::Samples a = read(packed, kFrames);
    const vn::test::Samples b = read(planar, kFrames);
    for (int i = 0; i < 2 * kFrames; ++i)
      ASSERT_EQ(a.data[i], b.data[i % 2 * kFrames + i / 2]) << "chunk " << chunk << " sample " << i;
  }
}

// An exhausted stream gives silence in blocks of 1024, its position moving on by each.
TEST(MixGraphTest, ExhaustedStreamGivesSilenceInBlocksOf1024) {
  auto media = audioMedia("aac.m4a");
  media->seek(60 * 1000000LL);  // far past the end
  VNFFEffectAudioStream mix;
  mix.setOutputParam(kPlayback);
  mix.setInputStreams({media});
  auto stream = media->audios().front();
  const int64_t before = stream->sync_pts();
  EXPECT_EQ(vn::test::rms(read(mix, 4096).data), 0.0);
  const int64_t advanced = stream->sync_pts() - before;
  EXPECT_TRUE(advanced >= 4096 && advanced % 1024 == 0) << advanced;
}

// Three tracks at three rates mix as FFmpeg's amix without normalisation.
TEST(MixGraphTest, MixMatchesFfmpegAmixWithoutNormalisation) {
  auto media = audioMedia("multitrack.mkv");
  ASSERT_TRUE(media);
  ASSERT_EQ(media->audios().size(), 3u);
  VNFFEffectAudioStream mix;
  mix.setOutputParam(kPlayback);
  mix.setInputStreams({media});
  ASSERT_EQ(mix.sourceCount(), 3);
  read(mix, 44100);  // skip the first second: start-up differs by design
  vn::test::Samples ours = read(mix, 3 * 44100);
  vn::test::Samples theirs = vn::test::decodeWithFfmpeg(
      vn::test::fixture("multitrack.mkv"),
      "-filter_complex '[0:a:0][0:a:1][0:a:2]amix=inputs=3:normalize=0' -ss 1 -t 3", 2, 44100);
  ASSERT_GT(theirs.frames(), 44100u);
  const auto left = ours.channel(0), refLeft = theirs.channel(0);
  for (double hz : {440.0, 660.0, 880.0}) {
    const double a = vn::test::toneAmplitude(left, 44100, hz);
    const double b = vn::test::toneAmplitude(refLeft, 44100, hz);
    EXPECT_GT(a, 0.05) << hz;
    EXPECT_NEAR(a / b, 1.0, 0.05) << hz << " Hz: ours " << a << ", ffmpeg " << b;
  }
  EXPECT_NEAR(vn::test::rms(left) / vn::test::rms(refLeft), 1.0, 0.05);
}

// Audio read right after a seek is the seek point's: the read waits for the seek.
TEST(MixGraphTest, MovieReadSampleRightAfterASeekReadsFromIt) {
  auto read = [](bool flush) {
    auto movie = VNFFMovie::create();
    movie->openMedias(vn::test::mediasOf("aac.m4a"));
    movie->configOutputFormat(kPlayback);
    movie->setExportMovie(true);
    movie->seek(2'000'250);  // a quarter period off a second: other audio differs
    if (flush)
      movie->flushOperation();
    std::vector<float> chunk(2 * 4410);
    movie->readSample(chunk.data(), 4410);
    return chunk;
  };
  const std::vector<float> waited = read(true);
  ASSERT_GT(vn::test::rms(waited), 0.02);
  for (int run = 0; run < 5; ++run) {
    const std::vector<float> rushed = read(false);
    float worst = 0;
    for (size_t i = 0; i < waited.size(); ++i)
      worst = std::max(worst, std::fabs(rushed[i] - waited[i]));
    EXPECT_LT(worst, 1e-6f) << "run " << run;
  }
}
