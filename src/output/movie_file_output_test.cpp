#include "output/movie_file_output.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include "audio_analysis.h"
#include "image/bitmap_context.h"
#include "image/bitmap_image.h"
#include "image/filter_image.h"
#include "output/audio_converter.h"
#include "output/image_colorspace_converter.h"
#include "output/movie_file_output_internal.h"
#include "output/output_format.h"
#include "test_support.h"

namespace {

using vn::test::scratch;

constexpr AVCodecID kNone = AV_CODEC_ID_NONE;
constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr int kFps = 25;
constexpr int kFrames = 2 * kFps;
constexpr int kRate = 44100;
constexpr int kSamplesPerFrame = kRate / kFps;  // 1764
constexpr int kSamples = kFrames * kSamplesPerFrame;
constexpr double kToneHz = 440;
constexpr double kToneAmplitude = 0.5;  // RMS 0.354, -9.0 dBFS

// A smooth RGBX picture that moves a lot: a frame out of place costs far more than the codecs'
// loss.
void drawPattern(uint8_t* rgbx, int bytesPerRow, int frame) {
  const double t = frame;
  for (int y = 0; y < kHeight; ++y) {
    uint8_t* p = rgbx + y * bytesPerRow;
    for (int x = 0; x < kWidth; ++x, p += 4) {
      p[0] = static_cast<uint8_t>(128 + 100 * std::sin(x / 23.0 + t * 0.4));
      p[1] = static_cast<uint8_t>(128 + 100 * std::sin(y / 17.0 - t * 0.3));
      p[2] = static_cast<uint8_t>(128 + 100 * std::sin((x + y) / 31.0 + t * 0.5));
      p[3] = 255;
    }
  }
}

// The tone, packed float stereo, samples [from, from + count).
std::vector<float> tone(int from, int count) {
  std::vector<float> pcm(static_cast<size_t>(count) * 2);
  for (int i = 0; i < count; ++i)
    pcm[2 * i] = pcm[2 * i + 1] =
        static_cast<float>(kToneAmplitude * std::sin(2 * M_PI * kToneHz * (from + i) / kRate));
  return pcm;
}

nlohmann::json probe(const std::string& path) {
  const std::string out = vn::test::runShell(
      "ffprobe -v error -count_frames -count_packets -show_format -show_streams -of json " +
      vn::test::shellQuote(path));
  auto json = nlohmann::json::parse(out, nullptr, false);
  return json.is_discarded() || !json.contains("streams") ? nlohmann::json{{"streams", {}}} : json;
}

int64_t asInt(const nlohmann::json& s, const char* key) {
  if (!s.contains(key))
    return -1;
  return s[key].is_string() ? std::stoll(s[key].get<std::string>()) : s[key].get<int64_t>();
}

// PSNR of path's first video stream against the raw RGBA reference, frame by frame; +inf if equal.
double psnr(const std::string& path, const std::string& reference) {
  const std::string out = vn::test::runShell(
      "ffmpeg -hide_banner -nostats -i " + vn::test::shellQuote(path) +
      " -f rawvideo -pix_fmt rgba -s " + std::to_string(kWidth) + "x" + std::to_string(kHeight) +
      " -r " + std::to_string(kFps) + " -i " + vn::test::shellQuote(reference) +
      " -lavfi '[0:v]settb=1/25,setpts=N[a];[1:v]settb=1/25,setpts=N[b];[a][b]psnr'"
      " -f null - 2>&1");
  const size_t at = out.find("average:");
  if (at == std::string::npos)
    return 0;
  const std::string value = out.substr(at + 8, out.find(' ', at) - at - 8);
  return value == "inf" ? INFINITY : std::atof(value.c_str());
}

enum class Pictures { kContext, kImage, kFilterImage, kFrame };

struct Case {
  const char* file;
  const char* videoCodec;  // name for vn_get_codec_id_by_name; "" = container default
  const char* audioCodec;
  bool video;
  const char* expectVideo;  // ffprobe codec names
  const char* expectAudio;
  int audioFrameSize;  // the encoder's frame size
  int codecShortfall;  // samples the codec itself loses at the end
  double minPsnr;
  Pictures pictures;
};

// Writes kFrames pictures (also to reference, RGBA) and kSamples of tone, interleaved.
template <typename Writer>
void writeMovie(Writer& writer, const Case& c, const std::string& reference) {
  VNFFMovieFileOutputFormat format = writer.movieFormat();
  format.width = kWidth;
  format.height = kHeight;
  format.framerate = kFps;
  format.frameTime = 1;
  format.video_bitrate = 4000000;
  format.video_codec = vn_get_codec_id_by_name(c.videoCodec);
  format.audio_codec = vn_get_codec_id_by_name(c.audioCodec);
  writer.setMovieFormat(format);
  if (c.video)
    writer.openVideo();
  writer.openAudio();
  ASSERT_EQ(writer.isVideoOpen(), c.video) << writer.failureReason();
  ASSERT_TRUE(writer.isAudioOpen()) << writer.failureReason();
  ASSERT_TRUE(writer.startOutput()) << writer.failureReason();

  std::ofstream ref(reference, std::ios::binary);
  auto context = writer.createCGContext();
  ASSERT_EQ(context != nullptr, c.video);
  for (int i = 0; i < kFrames; ++i) {
    if (c.video) {
      drawPattern(context->data(), context->bytesPerRow(), i);
      ref.write(reinterpret_cast<const char*>(context->data()),
                static_cast<std::streamsize>(context->byteCount()));
      if (c.pictures == Pictures::kContext) {
        writer.writeCGContext(*context);
      } else if (c.pictures == Pictures::kImage) {
        writer.writeImage(
            vn::BitmapImage::copyOf(context->data(), kWidth, kHeight, context->bytesPerRow()));
      } else if (c.pictures == Pictures::kFilterImage) {
        auto image =
            vn::FilterImage::fromRaster(context->data(), kWidth, kHeight, context->bytesPerRow(),
                                        vn::FilterImage::ByteOrder::RGBA);
        ASSERT_TRUE(image);
        writer.writeImage(*image);
      } else if constexpr (std::is_same_v<Writer, VNFFMovieFileOutputInternal>) {
        auto frame = vn::ff::makeFrame();
        frame->format = AV_PIX_FMT_RGBA;
        frame->width = kWidth;
        frame->height = kHeight;
        frame->data[0] = context->data();
        frame->linesize[0] = context->bytesPerRow();
        writer.writeVideoFrame(frame.get());
      }
    }
    const auto pcm = tone(i * kSamplesPerFrame, kSamplesPerFrame);
    writer.writeAudioData(pcm.data(), pcm.size() * sizeof(float));
  }
  writer.stopOutput();
}

void checkMovie(const Case& c, const std::string& path, const std::string& reference) {
  const auto probed = probe(path);
  const auto* video = vn::test::streamOf(probed, "video");
  const auto* audio = vn::test::streamOf(probed, "audio");
  ASSERT_TRUE(audio) << probed.dump();
  EXPECT_EQ(std::tuple(audio->value("codec_name", ""), asInt(*audio, "sample_rate"),
                       audio->value("channels", 0)),
            std::tuple(std::string(c.expectAudio), int64_t{kRate}, 2));

  // The writer keeps 512 to 512 + frame size - 1 samples back; the file may be longer by the
  // priming (at most 2048) and the last frame's padding. Pitch and level away from the ends.
  const std::vector<float> left =
      vn::test::decodeWithFfmpeg(path, "-map 0:a:0", 2, kRate).channel(0);
  const long lost = long(kSamples) - long(left.size());
  EXPECT_LE(lost, 512 + c.audioFrameSize + c.codecShortfall);
  EXPECT_GE(lost, -(c.audioFrameSize + 2048));
  ASSERT_GT(left.size(), size_t(kRate));
  const std::vector<float> middle(left.begin() + kRate / 5, left.end() - kRate / 5);
  EXPECT_NEAR(vn::test::zeroCrossingFrequency(middle, kRate), kToneHz, 1.0);
  EXPECT_NEAR(20 * std::log10(vn::test::rms(middle) / (kToneAmplitude / std::sqrt(2.0))), 0, 0.5);
  if (!c.video) {
    EXPECT_FALSE(video);
    return;
  }
  ASSERT_TRUE(video) << probed.dump();
  EXPECT_EQ(std::tuple(video->value("codec_name", ""), video->value("width", 0),
                       video->value("height", 0), video->value("r_frame_rate", "")),
            std::tuple(std::string(c.expectVideo), kWidth, kHeight, std::string("25/1")));
  if (video->value("codec_name", "") == "h264") {
    EXPECT_EQ(video->value("profile", "") + " " + video->value("color_space", ""),
              "Main smpte170m");
  }
  EXPECT_NEAR(asInt(*video, "nb_read_frames"), kFrames, 1);
  EXPECT_GT(psnr(path, reference), c.minPsnr);
}

// Lossy codecs measure 49-57 dB; a frame off 20, mirrored 17.5, red and blue swapped 10. WMA's
// encoder cannot be drained: its last frame is lost.
const Case kCases[] = {
    {"movie.mp4", "", "", true, "h264", "aac", 1024, 0, 35, Pictures::kContext},
    {"movie.mkv", "", "", true, "h264", "vorbis", 64, 0, 35, Pictures::kImage},
    {"movie.mov", "animation", "alac", true, "qtrle", "alac", 4096, 0, 60, Pictures::kFrame},
    {"movie.avi", "", "", true, "mpeg4", "mp3", 1152, 0, 35, Pictures::kContext},
    {"movie.mpg", "", "", true, "mpeg1video", "mp2", 1152, 0, 35, Pictures::kFilterImage},
    {"movie.wmv", "", "wma2", true, "msmpeg4v3", "wmav2", 2048, 2048, 35, Pictures::kContext},
    {"tone.m4a", "", "", false, "", "aac", 1024, 0, 0, Pictures::kContext},
};

class MovieFileOutputRoundTrip : public ::testing::TestWithParam<Case> {};

TEST_P(MovieFileOutputRoundTrip, WritesWhatWasAsked) {
  const Case& c = GetParam();
  const std::string path = scratch(c.file), reference = path + ".rgba";
  auto write = [&](auto writer) {
    writer->setPath(path);
    writeMovie(*writer, c, reference);
  };
  if (c.pictures == Pictures::kFrame)
    write(VNFFMovieFileOutputInternal::create());
  else
    write(VNFFMovieFileOutput::create());
  if (HasFatalFailure())
    return;
  checkMovie(c, path, reference);
}

INSTANTIATE_TEST_SUITE_P(Containers,
                         MovieFileOutputRoundTrip,
                         ::testing::ValuesIn(kCases),
                         [](const auto& test) {
                           std::string name = test.param.file;
                           std::replace(name.begin(), name.end(), '.', '_');
                           return name;
                         });

class MovieFileOutputTest : public ::testing::Test {
 protected:
  std::shared_ptr<VNFFMovieFileOutputInternal> writer = VNFFMovieFileOutputInternal::create();

  // A fresh writer to path, with size, rate and codecs on top of the defaults.
  void start(const std::string& path,
             int32_t video = 0,
             int32_t audio = 0,
             int rate = kFps,
             int frameTime = 1) {
    writer = VNFFMovieFileOutputInternal::create();
    writer->setPath(path);
    VNFFMovieFileOutputFormat format;
    movieFileOutputFormatToDefaults(&format);
    format.width = kWidth;
    format.height = kHeight;
    format.framerate = rate;
    format.frameTime = frameTime;
    format.video_codec = video;
    format.audio_codec = audio;
    writer->setMovieFormat(format);
  }
  void writeSamples(int count) {
    const auto pcm = tone(0, count);
    writer->writeAudioData(pcm.data(), pcm.size() * sizeof(float));
  }
};

// The container comes from the extension, the codecs from the container unless named.
TEST_F(MovieFileOutputTest, ContainerAndCodecChoice) {
  // File, codecs asked for, container (null: none), codecs chosen, reason.
  const std::tuple<const char*, AVCodecID, AVCodecID, const char*, AVCodecID, AVCodecID,
                   const char*>
      cases[] = {
          {"a.mp4", kNone, kNone, "mp4", AV_CODEC_ID_H264, AV_CODEC_ID_AAC, ""},
          {"b.mp4", AV_CODEC_ID_MPEG4, AV_CODEC_ID_MP3, "mp4", AV_CODEC_ID_MPEG4, AV_CODEC_ID_MP3,
           ""},
          {"RING.M4R", kNone, kNone, "ipod", AV_CODEC_ID_H264, AV_CODEC_ID_AAC, ""},
          {"ring.m4r.mp3", kNone, kNone, "mp3", AV_CODEC_ID_PNG, AV_CODEC_ID_MP3, ""},
          {"d.xyz", kNone, kNone, nullptr, kNone, kNone, "unknown container for extension .xyz"},
          {"noextension", kNone, kNone, nullptr, kNone, kNone,
           "no file extension to choose a container by"},
      };
  for (const auto& [file, video, audio, container, chosenVideo, chosenAudio, reason] : cases) {
    SCOPED_TRACE(file);
    start(scratch(file), video, audio);
    writer->createMovieOutput();
    EXPECT_EQ(std::tuple(writer->isMovieOpen(), writer->failureReason(), writer->videoCodec(),
                         writer->audioCodec()),
              std::tuple(container != nullptr, std::string(reason), chosenVideo, chosenAudio));
    if (!container) {
      writer->openAudio();
      writer->openVideo();
      EXPECT_FALSE(writer->isAudioOpen() || writer->isVideoOpen());
      continue;
    }
    EXPECT_STREQ(writer->formatContext()->oformat->name, container);
    EXPECT_EQ(writer->formatContext()->url, scratch(file));  // the file keeps its name
  }
}

// Streams are numbered from 1 in opening order; only the last of two audio streams receives audio.
TEST_F(MovieFileOutputTest, StreamsInOpeningOrder) {
  const std::string path = scratch("streams.mkv");
  start(path, AV_CODEC_ID_MPEG4);
  writer->openVideo();
  writer->openAudio();
  writer->openAudio();
  ASSERT_TRUE(writer->isVideoOpen() && writer->isAudioOpen());
  const AVFormatContext* container = writer->formatContext();
  ASSERT_EQ(container->nb_streams, 3u);
  for (unsigned i = 0; i < 3; ++i)
    EXPECT_EQ(container->streams[i]->id, int(i) + 1);
  EXPECT_EQ(writer->videoStream()->index, 0);
  EXPECT_EQ(writer->audioStream()->index, 2);
  ASSERT_TRUE(writer->startOutput());
  writeSamples(kRate / 2);
  writer->stopOutput();

  std::vector<bool> audioPackets;  // ffprobe leaves out a count of 0
  const nlohmann::json probed = probe(path);
  for (const auto& st : probed["streams"])
    if (st.value("codec_type", "") == "audio")
      audioPackets.push_back(asInt(st, "nb_read_packets") > 10);
  EXPECT_EQ(audioPackets, (std::vector<bool>{false, true}));
}

// Audio leaves in whole encoder frames (else 1024) while 512 samples stay behind.
TEST_F(MovieFileOutputTest, AudioFramesKeepAReserve) {
  for (const char* file : {"framing.m4a", "framing.wav"}) {
    SCOPED_TRACE(file);
    start(scratch(file));
    writer->openAudio();
    ASSERT_TRUE(writer->startOutput()) << writer->failureReason();
    std::vector<std::pair<int64_t, int>> got;  // pts, samples held after each write
    for (int write : {1535, 1, 1023, 1, 4096}) {
      writeSamples(write);
      got.emplace_back(writer->audio_pts(), writer->audioConverter().outputBufferFrames());
    }
    EXPECT_EQ(got, (std::vector<std::pair<int64_t, int>>{
                       {0, 1535}, {1024, 512}, {1024, 1535}, {2048, 512}, {6144, 512}}));
    writer->stopOutput();
  }
  // Timestamps count samples from 0, raised by the encoder's delay, which it takes off again.
  const std::string first = vn::test::runShell(
      "ffprobe -v error -select_streams a:0 -show_entries packet=pts -read_intervals %+#1 "
      "-of csv=p=0 " +
      vn::test::shellQuote(scratch("framing.m4a")));
  EXPECT_EQ(first, "0\n");
}

// Pictures are numbered 0, 1, 2...; one lasting n ticks of framerate moves the next by n /
// frameTime.
TEST_F(MovieFileOutputTest, VideoTimestamps) {
  // framerate, frameTime, durations (0: one frame), video_pts after each, the times read back
  const std::tuple<int, int, std::vector<int>, std::vector<int64_t>, const char*> cases[] = {
      {25,
       1,
       {0, 0, 0, 3, 0},
       {1, 2, 3, 6, 7},
       "0.000000\n0.040000\n0.080000\n0.120000\n0.240000\n"},
      {30000, 1001, {0, 2002, 0}, {1, 3, 4}, "0.000000\n0.033000\n0.100000\n"},
  };
  for (const auto& [framerate, frameTime, durations, pts, times] : cases) {
    const std::string path = scratch("timestamps" + std::to_string(framerate) + ".mkv");
    start(path, AV_CODEC_ID_MPEG4, 0, framerate, frameTime);
    writer->openVideo();
    ASSERT_TRUE(writer->startOutput()) << writer->failureReason();
    auto context = writer->createCGContext();
    ASSERT_TRUE(context);
    std::vector<int64_t> got;
    for (size_t i = 0; i < durations.size(); ++i) {
      drawPattern(context->data(), context->bytesPerRow(), int(i));
      if (durations[i] == 0)
        writer->writeCGContext(*context);
      else
        writer->writeCGContext(*context, durations[i]);
      got.push_back(writer->video_pts());
    }
    EXPECT_EQ(got, pts);
    writer->stopOutput();
    EXPECT_EQ(vn::test::runShell("ffprobe -v error -select_streams v:0 -show_entries "
                                 "frame=best_effort_timestamp_time -of csv=p=0 " +
                                 vn::test::shellQuote(path)),
              times);
  }
}

// Constant quality and the speed preset reach the encoder: x264 writes the settings it ran with
// into the stream, and a higher CRF or quantiser gives a smaller file.
TEST_F(MovieFileOutputTest, QualityAndSpeedPresetReachTheEncoder) {
  auto encode = [&](const std::string& name, AVCodecID codec, double quality,
                    const std::string& preset, int keyframes = 12) {
    const std::string path = scratch(name);
    start(path, codec);
    VNFFMovieFileOutputFormat format = writer->movieFormat();
    format.video_quality = quality;
    format.speed_preset = preset;
    format.keyframe_interval = keyframes;
    writer->setMovieFormat(format);
    writer->openVideo();
    EXPECT_TRUE(writer->startOutput()) << writer->failureReason();
    auto context = writer->createCGContext();
    for (int i = 0; context && i < 10; ++i) {
      drawPattern(context->data(), context->bytesPerRow(), i);
      writer->writeCGContext(*context);
    }
    writer->stopOutput();
    return path;
  };
  const std::string fine = encode("crf18.mkv", AV_CODEC_ID_H264, 18, "ultrafast");
  const std::string coarse = encode("crf40.mkv", AV_CODEC_ID_H264, 40, "");
  const std::string settings = vn::test::readFile(fine);
  EXPECT_NE(settings.find("rc=crf"), std::string::npos);
  EXPECT_NE(settings.find("crf=18.0"), std::string::npos);
  EXPECT_NE(settings.find("subme=0"), std::string::npos);  // ultrafast's
  // Without a preset H.264 stays at the library's "fast" (subme 6), a keyframe every 12
  // pictures unless the encoder is left its own interval.
  EXPECT_NE(vn::test::readFile(coarse).find("subme=6"), std::string::npos);
  EXPECT_NE(vn::test::readFile(coarse).find("keyint=12 "), std::string::npos);
  EXPECT_NE(vn::test::readFile(encode("own.mkv", AV_CODEC_ID_H264, 30, "", 0)).find("keyint=250 "),
            std::string::npos);
  EXPECT_GT(std::filesystem::file_size(fine), std::filesystem::file_size(coarse));
  // Bit-rate mode is the library's default.
  EXPECT_NE(vn::test::readFile(encode("abr.mkv", AV_CODEC_ID_H264, -1, "")).find("rc=abr"),
            std::string::npos);
  EXPECT_GT(std::filesystem::file_size(encode("q2.mkv", AV_CODEC_ID_MPEG4, 2, "")),
            std::filesystem::file_size(encode("q20.mkv", AV_CODEC_ID_MPEG4, 20, "")));
}

// The front end prints failureReason after a false startOutput or a stream that did not open.
TEST_F(MovieFileOutputTest, FailuresKeepAReason) {
  // Path (under the scratch directory unless absolute), codecs, whether the streams open, reason.
  const std::tuple<const char*, AVCodecID, AVCodecID, bool, const char*> cases[] = {
      {"frames.png", kNone, kNone, true, "the image2 container writes no file of its own"},
      {"/nonexistent-directory/x.mp4", kNone, kNone, true, "No such file or directory"},
      {"wma.mp4", kNone, AV_CODEC_ID_WMAV2, true, "the mp4 container cannot hold wmav2"},
      {"rate.mpg", kNone, kNone, false, "cannot open the mpeg1video encoder"},
  };
  for (const auto& [name, video, audio, opens, reason] : cases) {
    SCOPED_TRACE(name);
    const std::string path = name[0] == '/' ? name : scratch(name);
    start(path, video, audio, opens ? kFps : 7);  // MPEG-1 knows no 7 frames per second
    writer->openVideo();
    if (!opens) {
      EXPECT_FALSE(writer->isVideoOpen());
      EXPECT_EQ(writer->formatContext()->nb_streams, 1u);  // the stream stays
      EXPECT_EQ(writer->failureReason().rfind(reason, 0), 0u) << writer->failureReason();
      continue;
    }
    if (writer->audioCodec() != AV_CODEC_ID_NONE) {
      writer->openAudio();
      ASSERT_TRUE(writer->isAudioOpen()) << writer->failureReason();
    }
    ASSERT_TRUE(writer->isVideoOpen()) << writer->failureReason();
    EXPECT_FALSE(writer->startOutput());
    EXPECT_EQ(writer->failureReason(), reason);
    // Nothing that follows may crash or write.
    writeSamples(4096);
    if (auto context = writer->createCGContext())
      writer->writeCGContext(*context);
    writer->stopOutput();
    EXPECT_FALSE(name[0] != '/' && std::string(name) != "wma.mp4" && std::filesystem::exists(path));
  }
}

// Writes before startOutput go nowhere; after stopOutput the writer is spent and writes nothing.
TEST_F(MovieFileOutputTest, SpentWriter) {
  start(scratch("spent.m4a"));
  writer->openAudio();
  writeSamples(4096);
  EXPECT_EQ(writer->audio_pts(), 0);
  ASSERT_TRUE(writer->startOutput());
  writeSamples(4096);
  writer->stopOutput();
  const auto size = std::filesystem::file_size(scratch("spent.m4a"));
  EXPECT_TRUE(writer->isMovieOpen());
  EXPECT_FALSE(writer->isAudioOpen());
  writer->openAudio();
  EXPECT_FALSE(writer->isAudioOpen());
  EXPECT_FALSE(writer->startOutput());
  writeSamples(4096);
  writer->stopOutput();
  EXPECT_EQ(std::filesystem::file_size(scratch("spent.m4a")), size);
}

// Names in any case and their aliases; unknown names give none, so the container's default is used.
TEST(OutputFormatTest, CodecNames) {
  const std::tuple<const char*, AVCodecID> cases[] = {
      {"H264", AV_CODEC_ID_H264},
      {"Mpeg4", AV_CODEC_ID_MPEG4},
      {"mpeg1", AV_CODEC_ID_MPEG1VIDEO},
      {"mpeg1video", AV_CODEC_ID_MPEG1VIDEO},
      {"mpeg2", AV_CODEC_ID_MPEG2VIDEO},
      {"MPEG2VIDEO", AV_CODEC_ID_MPEG2VIDEO},
      {"AC-3", AV_CODEC_ID_AC3},
      {"wma1", AV_CODEC_ID_WMAV1},
      {" h264", AV_CODEC_ID_NONE},
      {"h.264", AV_CODEC_ID_NONE},
      {"HEVC", AV_CODEC_ID_HEVC},
      {"h265", AV_CODEC_ID_HEVC},
      {"vp8", AV_CODEC_ID_VP8},
      {"VP9", AV_CODEC_ID_VP9},
      {"av1", AV_CODEC_ID_AV1},
      {"prores", AV_CODEC_ID_PRORES},
      {"opus", AV_CODEC_ID_OPUS},
      {"flac", AV_CODEC_ID_FLAC},
      {"pcm", AV_CODEC_ID_PCM_S16LE},
      {"wma", AV_CODEC_ID_WMAV2},
      {"", AV_CODEC_ID_NONE},
  };
  for (const auto& [name, id] : cases)
    EXPECT_EQ(vn_get_codec_id_by_name(name), id) << '"' << name << '"';
}

// The encoder that serves a codec best, where FFmpeg would list another first.
TEST(OutputFormatTest, PreferredEncoders) {
  const std::tuple<AVCodecID, const char*> encoders[] = {
      {AV_CODEC_ID_AV1, "libsvtav1"}, {AV_CODEC_ID_VORBIS, "libvorbis"},
      {AV_CODEC_ID_OPUS, "libopus"},  {AV_CODEC_ID_PRORES, "prores_ks"},
      {AV_CODEC_ID_H264, "libx264"},  {AV_CODEC_ID_MP3, "libmp3lame"},
      {AV_CODEC_ID_FLAC, "flac"},
  };
  for (const auto& [id, name] : encoders) {
    const AVCodec* encoder = vn_find_encoder(id);
    ASSERT_TRUE(encoder) << name;
    EXPECT_STREQ(encoder->name, name);
  }
  EXPECT_EQ(vn_find_encoder(AV_CODEC_ID_NONE), nullptr);
}

// ---- the audio and picture converters ----------------------------------------

const VNFFAudioFormat kS16Stereo44 = {AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 44100};
const VNFFAudioFormat kFltStereo44 = {AV_SAMPLE_FMT_FLT, AV_CH_LAYOUT_STEREO, 44100};

class AudioConverterTest : public ::testing::Test {
 protected:
  std::shared_ptr<VNFFMpegAudioConverter> converter = VNFFMpegAudioConverter::create();

  // Pulls up to count packed stereo s16 sample frames.
  std::vector<int16_t> pullS16(int count) {
    std::vector<int16_t> out(static_cast<size_t>(count) * 2);
    uint8_t* planes[1] = {reinterpret_cast<uint8_t*>(out.data())};
    out.resize(static_cast<size_t>(converter->convertFrom(nullptr, 0, planes, count)) * 2);
    return out;
  }
};

TEST_F(AudioConverterTest, UnconfiguredConverterDoesNothing) {
  const int16_t samples[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  converter->writeData(samples, sizeof samples);
  converter->appendSilenceSample(1024);
  converter->clear();
  converter->convertFrame(nullptr, nullptr);
  EXPECT_EQ(converter->outputBufferFrames(), 0);
  EXPECT_TRUE(pullS16(4).empty());
  // A format that cannot be set up keeps the converter unconfigured, with the formats it was given.
  const VNFFAudioFormat noLayout = {AV_SAMPLE_FMT_S16, 0, 44100};
  converter->convertFrom(noLayout, kS16Stereo44);
  converter->writeData(samples, sizeof samples);
  EXPECT_EQ(converter->outputBufferFrames(), 0);
  EXPECT_TRUE(isFFAudioFormatEqual(converter->inFormat(), noLayout));
}

// Identical formats queue bytes in order, whatever the sizes; a partial sample frame is lost.
TEST_F(AudioConverterTest, IdenticalFormatsQueueBytesInOrder) {
  converter->convertFrom(kS16Stereo44, kS16Stereo44);
  std::vector<int16_t> in(2 * 3000);
  std::iota(in.begin(), in.end(), 0);
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(in.data());
  std::vector<int16_t> expected;
  size_t offset = 0;
  // Chunk lengths in bytes; one sample frame is 4 bytes.
  for (size_t length : {400u, 1u, 3u, 4000u, 1234u, 4u, 4000u}) {
    converter->writeData(bytes + offset, length);
    const size_t whole = length / 4 * 4;
    expected.insert(expected.end(), in.begin() + offset / 2, in.begin() + (offset + whole) / 2);
    offset += length + (length % 2);  // keep chunks on sample boundaries
  }
  ASSERT_EQ(converter->outputBufferFrames(), static_cast<int32_t>(expected.size() / 2));
  std::vector<int16_t> out;
  for (int pull : {1, 7, 100, 1000, 5000}) {
    auto got = pullS16(pull);
    out.insert(out.end(), got.begin(), got.end());
  }
  EXPECT_EQ(out, expected);
  EXPECT_EQ(converter->outputBufferFrames(), 0);
}

// The same formats keep what is held, another rate starts afresh; clear drops it; silence appends.
TEST_F(AudioConverterTest, ReconfigureClearAndSilence) {
  converter->convertFrom(kS16Stereo44, kS16Stereo44);
  std::vector<int16_t> in(2 * 500, 9);
  converter->writeData(in.data(), in.size() * 2);
  converter->convertFrom(kS16Stereo44, kS16Stereo44);
  EXPECT_EQ(converter->outputBufferFrames(), 500);
  converter->clear();
  EXPECT_EQ(converter->outputBufferFrames(), 0);
  converter->writeData(in.data(), in.size() * 2);
  converter->appendSilenceSample(1024);
  EXPECT_EQ(converter->outputBufferFrames(), 1524);
  std::vector<int16_t> expected(2 * 1524, 0);
  std::fill_n(expected.begin(), 2 * 500, 9);
  EXPECT_EQ(pullS16(2000), expected);

  converter->writeData(in.data(), in.size() * 2);
  const VNFFAudioFormat in48 = {AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 48000};
  const VNFFAudioFormat out24 = {AV_SAMPLE_FMT_S16, AV_CH_LAYOUT_STEREO, 24000};
  converter->convertFrom(in48, out24);
  EXPECT_EQ(std::pair(converter->outputBufferFrames(), converter->outFormat().sample_rate),
            std::pair(0, 24000));
  std::vector<int16_t> level(2 * 4800, 100);
  converter->writeData(level.data(), level.size() * 2);
  EXPECT_NEAR(converter->outputBufferFrames(), 2400, 20);
}

// Planar input is read as consecutive planes of the chunk.
TEST_F(AudioConverterTest, PlanarChunksAreConsecutivePlanes) {
  const VNFFAudioFormat fltp = {AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 44100};
  converter->convertFrom(fltp, kFltStereo44);
  const float chunk[6] = {1, 2, 3, -1, -2, -3};  // left plane, then right plane
  converter->writeData(chunk, sizeof chunk);
  float out[6] = {};
  uint8_t* planes[1] = {reinterpret_cast<uint8_t*>(out)};
  ASSERT_EQ(converter->convertFrom(nullptr, 0, planes, 3), 3);
  const float expected[6] = {1, -1, 2, -2, 3, -3};
  EXPECT_EQ(std::memcmp(out, expected, sizeof out), 0);
}

// Pulls in the writer's rhythm while resampling must not flush the resampler: the tone stays
// smooth.
TEST_F(AudioConverterTest, PullsWhileResamplingLeaveNoClicks) {
  const VNFFAudioFormat out48 = {AV_SAMPLE_FMT_FLT, AV_CH_LAYOUT_STEREO, 48000};
  converter->convertFrom(kFltStereo44, out48);
  std::vector<float> in(2 * 1000);
  std::vector<float> mono;
  std::vector<float> frame(2 * 1024);
  uint8_t* planes[1] = {reinterpret_cast<uint8_t*>(frame.data())};
  long t = 0;
  for (int chunk = 0; chunk < 60; ++chunk) {
    for (int i = 0; i < 1000; ++i, ++t)
      in[2 * i] = in[2 * i + 1] = 0.5f * std::sin(2 * M_PI * 440 * t / 44100.0);
    converter->writeData(in.data(), in.size() * sizeof(float));
    while (converter->outputBufferFrames() >= 1536) {
      ASSERT_EQ(converter->convertFrom(nullptr, 0, planes, 1024), 1024);
      for (int i = 0; i < 1024; ++i)
        mono.push_back(frame[2 * i]);
    }
  }
  ASSERT_GT(mono.size(), 50000u);
  // The second difference of a 440 Hz sine of amplitude 0.5 at 48 kHz stays under 0.5 * (2 pi 440 /
  // 48000)^2 = 0.0017; a discontinuity is far above.
  double worst = 0;
  for (size_t i = 100; i < mono.size(); ++i)
    worst = std::max(worst, std::abs(double(mono[i]) - 2 * mono[i - 1] + mono[i - 2]));
  EXPECT_LT(worst, 0.003);
}

// A packed RGBA picture whose every pixel differs from its neighbours.
std::vector<uint8_t> gradient(int width, int height, int seed) {
  std::vector<uint8_t> rgba(static_cast<size_t>(width) * height * 4);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      uint8_t* p = &rgba[(static_cast<size_t>(y) * width + x) * 4];
      p[0] = static_cast<uint8_t>(x * 7 + seed);
      p[1] = static_cast<uint8_t>(y * 5 + seed);
      p[2] = static_cast<uint8_t>((x + y) * 3);
      p[3] = 255;
    }
  return rgba;
}

std::vector<uint8_t> outputPixels(VNFFImageColorspaceConverter& c) {
  const AVFrame* f = c.outputFrame();
  std::vector<uint8_t> rgba;
  for (int y = 0; y < f->height; ++y)
    rgba.insert(rgba.end(), f->data[0] + y * f->linesize[0],
                f->data[0] + y * f->linesize[0] + f->width * 4);
  return rgba;
}

class ImageColorspaceConverterTest : public ::testing::Test {
 protected:
  std::shared_ptr<VNFFImageColorspaceConverter> converter = VNFFImageColorspaceConverter::create();
  void setOutput(int pixFmt, int width, int height) {
    converter->setOutputFormat({pixFmt, width, height});
  }
};

TEST_F(ImageColorspaceConverterTest, ZeroSizeStaysEmpty) {
  const auto pixels = gradient(8, 8, 0);
  for (auto size : {std::pair{0, 0}, std::pair{8, 0}, std::pair{0, 8}}) {
    setOutput(AV_PIX_FMT_RGBA, size.first, size.second);
    converter->convertBytes(pixels.data(), AV_PIX_FMT_RGBA);
    converter->convertBitmapImage(vn::BitmapImage::copyOf(pixels.data(), 8, 8, 32));
    EXPECT_TRUE(converter->isOutputEmpty());
    EXPECT_FALSE(converter->outputImage());
    EXPECT_FALSE(converter->createCGContext());
  }
}

// Bytes come through unchanged into an output fixed at the first conversion, shared by its image.
TEST_F(ImageColorspaceConverterTest, BytesComeThroughIntoASharedFixedOutput) {
  setOutput(AV_PIX_FMT_RGBA, 16, 8);
  const auto first = gradient(16, 8, 3), second = gradient(16, 8, 100);
  converter->convertBytes(first.data(), AV_PIX_FMT_RGBA);
  ASSERT_FALSE(converter->isOutputEmpty());
  EXPECT_EQ(outputPixels(*converter), first);
  auto image = converter->outputImage();
  ASSERT_TRUE(image);
  EXPECT_EQ(image->row(3)[4 * 2], first[(3 * 16 + 2) * 4]);
  converter->convertBytes(second.data(), AV_PIX_FMT_RGBA);
  EXPECT_EQ(image->row(3)[4 * 2], second[(3 * 16 + 2) * 4]);

  setOutput(AV_PIX_FMT_YUV420P, 32, 32);
  const auto bigger = gradient(32, 32, 1);
  converter->convertBytes(bigger.data(), AV_PIX_FMT_RGBA);
  const AVFrame* f = converter->outputFrame();
  EXPECT_EQ(std::tuple(f->width, f->height, f->format), std::tuple(16, 8, int(AV_PIX_FMT_RGBA)));
  const std::vector<uint8_t> last = outputPixels(*converter);
  converter.reset();
  EXPECT_EQ(image->row(7)[4 * 15 + 1], last[(7 * 16 + 15) * 4 + 1]);
}

// Frames of another size and format are scaled to the output, stretched.
TEST_F(ImageColorspaceConverterTest, FramesAreScaledAndConverted) {
  setOutput(AV_PIX_FMT_YUV420P, 64, 32);
  auto frame = vn::ff::makeFrame();
  frame->width = frame->height = 16;
  frame->format = AV_PIX_FMT_RGBA;
  ASSERT_GE(av_frame_get_buffer(frame.get(), 0), 0);
  // Left half white, right half black.
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 16; ++x)
      for (int c = 0; c < 4; ++c)
        frame->data[0][y * frame->linesize[0] + x * 4 + c] = x < 8 ? 255 : (c == 3 ? 255 : 0);
  converter->convertFrame(frame.get());
  const AVFrame* out = converter->outputFrame();
  ASSERT_EQ(out->format, AV_PIX_FMT_YUV420P);
  // Limited-range luma: white 235, black 16; the edge lands mid-picture.
  EXPECT_NEAR(out->data[0][10 * out->linesize[0] + 5], 235, 2);
  EXPECT_NEAR(out->data[0][10 * out->linesize[0] + 58], 16, 2);
  // Rows of a planar output are too short to read as RGBA.
  EXPECT_FALSE(converter->outputImage());

  // A format the scaler cannot read leaves the previous picture.
  const uint8_t before = out->data[0][10 * out->linesize[0] + 5];
  frame->format = AV_PIX_FMT_NONE;
  converter->convertFrame(frame.get());
  EXPECT_EQ(out->data[0][10 * out->linesize[0] + 5], before);
}

// A context is read as RGBA of the output size (padding becomes alpha); one too small is not read.
TEST_F(ImageColorspaceConverterTest, ContextsAreReadAsRGBA) {
  setOutput(AV_PIX_FMT_RGBA, 8, 4);
  auto context = converter->createCGContext();
  ASSERT_TRUE(context);
  EXPECT_EQ(std::pair(context->width(), context->bytesPerRow()), std::pair(8, 32));
  const auto pixels = gradient(8, 4, 9);
  context->drawImage(vn::BitmapImage::copyOf(pixels.data(), 8, 4, 32),
                     vn::BitmapContext::Composite::kCopy);
  converter->convertContext(*context);
  EXPECT_EQ(outputPixels(*converter), pixels);

  converter->convertContext(*vn::BitmapContext::create(4, 4));
  EXPECT_EQ(outputPixels(*converter), pixels);
}

// Images are drawn stretched: convertBitmapImage lays over, convertImage replaces (filter images:
// over).
TEST_F(ImageColorspaceConverterTest, ImagesAreDrawnOverOrReplace) {
  setOutput(AV_PIX_FMT_RGBA, 4, 4);
  const uint8_t red[4] = {255, 0, 0, 255};
  const uint8_t halfBlue[4] = {0, 0, 255, 128};
  const auto redImage = vn::BitmapImage::copyOf(red, 1, 1, 4);
  const auto blueImage = vn::BitmapImage::copyOf(halfBlue, 1, 1, 4);

  converter->convertImage(redImage);
  converter->convertBitmapImage(blueImage);
  auto over = outputPixels(*converter);
  ASSERT_EQ(over.size(), 64u);
  EXPECT_NEAR(over[0], 127, 1);
  EXPECT_NEAR(over[2], 128, 1);
  EXPECT_EQ((std::pair<int, int>(over[1], over[3])), (std::pair<int, int>(0, 255)));

  converter->convertImage(redImage);
  converter->convertImage(blueImage);
  auto copy = outputPixels(*converter);
  EXPECT_EQ(copy[0], 0);
  EXPECT_NEAR(copy[2], 128, 1);  // premultiplied onto nothing: darkened
  EXPECT_EQ(copy[60], copy[0]);  // stretched over the whole context

  // A filter image's extent is rendered and laid over, stretched: 2 x 1, placed away from the
  // origin: half-transparent blue, opaque green.
  const uint8_t pixels[8] = {0, 0, 255, 128, 0, 255, 0, 255};
  converter->convertImage(redImage);
  auto image = vn::FilterImage::fromRaster(pixels, 2, 1, 8, vn::FilterImage::ByteOrder::RGBA);
  ASSERT_TRUE(image);
  converter->convertImage(image->translated(50, -20));
  const auto out = outputPixels(*converter);
  // Top left: red under half blue, mixed in linear light; bottom right: green.
  EXPECT_EQ(std::vector(out.begin(), out.begin() + 4), (std::vector<uint8_t>{187, 0, 188, 255}));
  EXPECT_EQ(std::vector(out.end() - 4, out.end()), (std::vector<uint8_t>{0, 255, 0, 255}));
}

}  // namespace
