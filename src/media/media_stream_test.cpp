#include "media/media_stream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mathematics.h>
}

#include "media/media_test_support.h"

namespace {

using vn::test::fixture;
using vn::test::openWhole;

constexpr AVRational kMicroseconds{1, 1000000};

// A stream of a demuxer that was never opened: only its fields matter.
struct SyntheticStream {
  SyntheticStream(AVMediaType type, AVCodecID codec) : context(avformat_alloc_context()) {
    stream = avformat_new_stream(context.get(), nullptr);
    stream->codecpar->codec_type = type;
    stream->codecpar->codec_id = codec;
  }
  vn::ff::OutputFormatContext context;
  AVStream* stream;
};

// Packs the first `count` packets of a stream into one, timed as the first.
vn::ff::Packet joinPackets(VNFFMedia& media, int streamIndex, int count) {
  std::vector<uint8_t> bytes;
  int64_t pts = AV_NOPTS_VALUE;
  int joined = 0;
  vn::test::readPackets(media, [&](VNFFMediaStream& stream, AVPacket* packet) {
    if (stream.stream()->index != streamIndex || joined == count)
      return;
    if (joined++ == 0)
      pts = packet->pts;
    bytes.insert(bytes.end(), packet->data, packet->data + packet->size);
  });
  vn::ff::Packet packet = vn::ff::makePacket();
  EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(bytes.size())), 0);
  std::memcpy(packet->data, bytes.data(), bytes.size());
  packet->pts = packet->dts = pts;
  packet->stream_index = streamIndex;
  return packet;
}

// Rewinds a media's demuxer to its start.
void rewind(VNFFMedia& media) {
  ASSERT_GE(av_seek_frame(media.formatContext(), -1, 0, AVSEEK_FLAG_BACKWARD), 0);
}

}  // namespace

// The average rate, when known, is an integer quotient.
TEST(MediaStreamTest, FramerateRules) {
  const std::tuple<AVRational, AVRational, float> cases[] = {
      // real, average, rate
      {{24000, 1001}, {0, 0}, 23.97f},
      {{2997, 100}, {0, 0}, 29},
      {{25, 1}, {0, 0}, 25},
      {{120, 1}, {24, 1}, 24},
      {{0, 0}, {0, 0}, 30},
      {{0, 0}, {50, 1}, 50},
      {{60000, 1001}, {0, 0}, 30},
      {{60000, 1001}, {30000, 1001}, 29},
  };
  for (const auto& [real, average, rate] : cases) {
    SyntheticStream s(AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_RAWVIDEO);
    s.stream->r_frame_rate = real;
    s.stream->avg_frame_rate = average;
    auto stream = VNFFMediaStream::create({}, s.stream);
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->framerate(), rate) << real.num << "/" << real.den;
  }
}

TEST(MediaStreamTest, AccessorsOfAStreamWithoutADecoder) {
  SyntheticStream s(AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_NONE);
  s.stream->time_base = AVRational{0, -5};
  s.stream->codecpar->sample_rate = 8000;
  s.stream->codecpar->format = AV_SAMPLE_FMT_S16;
  av_channel_layout_default(&s.stream->codecpar->ch_layout, 6);
  auto stream = VNFFMediaStream::create({}, s.stream);
  ASSERT_TRUE(stream);
  stream->open();
  EXPECT_FALSE(stream->isOpen());
  EXPECT_EQ(std::tuple(stream->timebase().num, stream->timebase().den, stream->framebase().den),
            std::tuple(1, 1, 8000));
  EXPECT_EQ(stream->audioFormat().channel_layout, vn::defaultChannelLayout(6));
  EXPECT_EQ(stream->language(), "English");
  EXPECT_FALSE(stream->forward());
  EXPECT_NE(stream->abuffer(), nullptr) << "an audio stream gets its queue even without a decoder";
}

TEST(MediaStreamTest, PaletteTextKeepsTheUnclampedArithmetic) {
  SyntheticStream s(AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_DVD_SUBTITLE);
  auto stream = VNFFMediaStream::create({}, s.stream);
  // Black, white, then colours whose components spill past their bytes (Y 255, U 127, V -128 is
  // R 74.84, G 302.88, B 480.93; U -128, V 127 is R 433.75, G 208.18, B 27.29); the rest all zero.
  uint32_t palette[16] = {0x00108080, 0x00eb8080, 0x00ff00ff, 0x00ffff00};
  stream->fillPalette(palette);
  std::string expected = "palette:101010,ebebeb,4b2fe0,1b1d01b,";
  for (int i = 4; i < 16; ++i)
    expected += "ffffff1d,";
  expected += "\n\r";
  AVCodecContext* context = stream->codecContext();
  ASSERT_EQ(context->extradata_size, 256);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(context->extradata)), expected);
  // The palette survives closing and opening the decoder.
  stream->open();
  ASSERT_TRUE(stream->isOpen());
  stream->close();
  EXPECT_EQ(std::string(reinterpret_cast<char*>(stream->codecContext()->extradata)), expected);
}

TEST(MediaStreamTest, AudioFramesOfOnePacketGetIncreasingTimes) {
  // MPEG audio at 44100 Hz in a program stream (time base 1/90000).
  const std::string path = vn::test::scratchDir() + "/mp2_44100.mpg";
  int status = -1;
  vn::test::runShell(
      "ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi "
      "-i sine=sample_rate=44100:duration=1 -c:a mp2 -f mpeg '" +
          path + "'",
      &status);
  ASSERT_EQ(status, 0);
  std::shared_ptr<VNFFMedia> media = VNFFMedia::create();
  media->setSource(VNMediaSource::mediaWithPath(path));
  media->open();
  std::shared_ptr<VNFFMediaStream> audio = media->audioStream();
  ASSERT_TRUE(audio);
  ASSERT_EQ(audio->timebase().den, 90000);
  vn::ff::Packet three = joinPackets(*media, 0, 3);
  const int64_t p = three->pts;
  audio->seek(0);
  ASSERT_TRUE(audio->decodePacket(three.get()));
  EXPECT_GT(three->size, 0) << "the caller's packet is not consumed";
  const int64_t expected[] = {p, p + 2351, p + 4702};
  for (int64_t pts : expected) {
    ASSERT_TRUE(audio->forward());
    EXPECT_EQ(
        std::tuple(audio->frame()->pts, audio->frame()->nb_samples, audio->frame()->pkt_duration),
        std::tuple(pts, 1152, int64_t{2351}));
  }
  EXPECT_FALSE(audio->forward());
}

TEST(MediaStreamTest, AudioIsQueuedOnlyFromTheSeekTargetOn) {
  std::shared_ptr<VNFFMedia> media = openWhole("h264_aac.mp4");
  std::shared_ptr<VNFFMediaStream> audio = media->audioStream();
  ASSERT_TRUE(audio);
  // Before any seek, packets decode but nothing is queued.
  int decoded = 0;
  vn::test::readPackets(
      *media, [&](VNFFMediaStream& s, AVPacket* p) { decoded += s.isAudio() && s.decodePacket(p); },
      40);
  EXPECT_GT(decoded, 5);
  EXPECT_FALSE(audio->forward());
  const int64_t target = av_rescale_q(4000000, kMicroseconds, audio->timebase());
  audio->seek(target);
  EXPECT_EQ(std::tuple(audio->seek_pts(), audio->sync_pts(), audio->last_pts()),
            std::tuple(target, av_rescale_q(target, audio->timebase(), audio->framebase()),
                       int64_t{AV_NOPTS_VALUE}));
  rewind(*media);
  std::vector<int64_t> queued;
  vn::test::readPackets(*media, [&](VNFFMediaStream& s, AVPacket* p) {
    if (!s.isAudio())
      return;
    s.decodePacket(p);
    while (s.forward())
      queued.push_back(s.frame()->pts);
  });
  ASSERT_FALSE(queued.empty());
  // The first frame queued covers the target; times only go forward.
  const int64_t frame = av_rescale_q(1024, audio->framebase(), audio->timebase());
  EXPECT_GE(queued.front() + frame / 2, target);
  EXPECT_LT(queued.front() - frame, target);
  for (size_t i = 1; i < queued.size(); ++i)
    EXPECT_GT(queued[i], queued[i - 1]);
  EXPECT_EQ(audio->last_pts(), queued.back());
}

TEST(MediaStreamTest, TextSubtitlesKeepTheirTimesAndCleanedText) {
  struct Cue {
    int64_t pts, duration;
    std::string text;
    bool operator==(const Cue&) const = default;
  };
  std::shared_ptr<VNFFMedia> media = openWhole("multitrack.mkv");
  std::vector<Cue> subrip, ass;
  vn::test::readPackets(*media, [&](VNFFMediaStream& s, AVPacket* p) {
    if (!s.isSubtitle() || !s.decodePacket(p))
      return;
    Cue cue{s.frame()->pts, s.frame()->pkt_duration, s.subtitleString().value_or("(none)")};
    (s.stream()->index == 4 ? subrip : ass).push_back(cue);
  });
  // Matroska times are milliseconds; the SubRip italic line ends in a closing
  // tag, so nothing of it is left; commas cut the text.
  EXPECT_EQ(subrip,
            (std::vector<Cue>{{2000, 2000, ""}, {4500, 500, " sir"}, {5200, 600, " très bien"}}));
  EXPECT_EQ(ass, (std::vector<Cue>{
                     {2000, 2000, "Hello\nWorld"}, {4500, 500, " sir"}, {5200, 600, " bien"}}));
}
