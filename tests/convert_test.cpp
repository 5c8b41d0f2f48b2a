// End-to-end: `varnel convert`, checked with ffprobe and the ffmpeg command line.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "audio_analysis.h"
#include "test_support.h"

namespace {

using nlohmann::json;
using vn::test::fixture;
using vn::test::noTemporaryFiles;
using vn::test::streamOf;
namespace fs = std::filesystem;

double number(const json& value) {
  return value.is_string() ? std::stod(value.get<std::string>()) : value.get<double>();
}

double rate(const json& stream) {
  int num = 0, den = 1;
  std::sscanf(stream["r_frame_rate"].get<std::string>().c_str(), "%d/%d", &num, &den);
  return den ? double(num) / den : 0;
}

int videoFrames(const std::string& path) {
  return std::atoi(vn::test::runShell("ffprobe -v error -select_streams v:0 -count_packets "
                                      "-show_entries stream=nb_read_packets -of csv=p=0 '" +
                                      path + "'")
                       .c_str());
}

// Mean PSNR of the output's pictures against the input's, both brought to
// the output size; frames are compared in order.
double psnr(const std::string& output, const std::string& input, int w, int h) {
  const std::string log = vn::test::runShell(
      "ffmpeg -hide_banner -nostats -i '" + output + "' -i '" + input +
      "' -lavfi \"[0:v]settb=1/1000,setpts=N,format=yuv420p[a];[1:v]settb=1/1000,setpts=N,scale=" +
      std::to_string(w) + ":" + std::to_string(h) +
      ",format=yuv420p[b];[a][b]psnr\" -f null - 2>&1");
  const auto at = log.find("average:");
  return at == std::string::npos ? 0 : std::atof(log.c_str() + at + 8);
}

struct RoundTrip {
  const char* input;
  const char* output;
  const char* codecs;       // options; none keeps the container's
  const char* expectVideo;  // ffprobe codec name, "" for no video
  const char* expectAudio;
  double minPsnr;
};

// PSNR floors: a lossy codec keeps over 30 dB at 20 Mb/s, the lossless one loses only the
// colour conversion; a wrong size, a shifted or dropped frame gives under 15 dB.
const RoundTrip kRoundTrips[] = {
    {"h264_aac.mp4", "h264.mp4", "--vcodec h264 --acodec aac", "h264", "aac", 32},
    {"multitrack.mkv", "default.mkv", "", "h264", "aac", 32},
    {"h264_aac.mp4", "animation.mov", "--vcodec animation --acodec alac", "qtrle", "alac", 35},
    {"h264_aac.mp4", "mpeg4.avi", "--vcodec mpeg4 --acodec mp3", "mpeg4", "mp3", 30},
    {"mpeg2_mp2.mpg", "mpeg2.mpg", "--vcodec mpeg2 --acodec mp2", "mpeg2video", "mp2", 30},
    {"h264_23976.mp4", "mpeg1.mpg", "--vcodec mpeg1 --acodec mp2", "mpeg1video", "mp2", 30},
    // Its video starts 46 ms after its audio: no frame-by-frame pairing, the count only.
    {"wmv2_wmav2.wmv", "wma.wmv", "--acodec wma2", "msmpeg4v3", "wmav2", 0},
    {"aac.m4a", "audio.m4a", "", "", "aac", 0},
    {"aac.m4a", "ringtone.M4R", "", "", "aac", 0},
    {"mp3_cover.mp3", "audio.mp3", "", "", "mp3", 0},
    {"cues_clip.mp4", "video-only.mkv", "", "h264", "", 35},
};

}  // namespace

TEST(ConvertTest, RoundTripsKeepCodecsSizeRateDurationPictureAndSound) {
  for (const RoundTrip& t : kRoundTrips) {
    SCOPED_TRACE(std::string(t.input) + " -> " + t.output);
    const std::string in = fixture(t.input), o = vn::test::scratch(t.output);
    vn::test::CommandResult r =
        vn::test::runVarnel(vn::test::words("convert " + in + " " + o + " " + t.codecs));
    ASSERT_EQ(r.status, 0) << r.err;

    const json src = vn::test::ffprobe(in), dst = vn::test::ffprobe(o);
    const json* v = streamOf(dst, "video");
    const json* a = streamOf(dst, "audio");
    if (*t.expectVideo) {
      ASSERT_TRUE(v);
      const json* sv = streamOf(src, "video");
      EXPECT_EQ((*v)["codec_name"], t.expectVideo);
      EXPECT_EQ(std::pair((*v)["width"], (*v)["height"]),
                std::pair((*sv)["width"], (*sv)["height"]));
      EXPECT_NEAR(rate(*v), rate(*sv), 0.01);
      // As long as the input, within one frame.
      EXPECT_NEAR(videoFrames(o) / rate(*v), number(src["format"]["duration"]), 1.01 / rate(*v));
      EXPECT_GT(t.minPsnr > 0 ? psnr(o, in, (*v)["width"], (*v)["height"]) : 1, t.minPsnr);
    } else {
      EXPECT_FALSE(v && (*v)["disposition"]["attached_pic"] != 1);
    }
    if (!*t.expectAudio) {
      EXPECT_FALSE(a);
      continue;
    }
    ASSERT_TRUE(a);
    EXPECT_EQ((*a)["codec_name"], t.expectAudio);
    // The input's sound, where the codec takes it.
    const json* sa = streamOf(src, "audio");
    EXPECT_EQ(number((*a)["sample_rate"]), number((*sa)["sample_rate"]));
    EXPECT_EQ((*a)["channels"], (*sa)["channels"]);

    if (std::string(t.input) == "multitrack.mkv")
      continue;  // three tones, mixed
    // The tone and its level survive.
    const auto before =
        vn::test::audible(vn::test::decodeWithFfmpeg(in, "-map 0:a:0 -t 3", 1, 44100).channel(0));
    const auto after =
        vn::test::audible(vn::test::decodeWithFfmpeg(o, "-t 3", 1, 44100).channel(0));
    ASSERT_GT(after.size(), 44100u);
    EXPECT_NEAR(vn::test::zeroCrossingFrequency(after, 44100),
                vn::test::zeroCrossingFrequency(before, 44100), 3);
    EXPECT_NEAR(vn::test::rms(after) / vn::test::rms(before), 1.0, 0.1);
  }
  EXPECT_TRUE(noTemporaryFiles());
}

TEST(ConvertTest, SizeRateStartAndDuration) {
  const std::string o = vn::test::scratch("cut.mp4");
  vn::test::CommandResult r = vn::test::runVarnel(
      {"convert", fixture("h264_aac.mp4"), o, "--size", "160x120", "--fps", "30000/1001", "--start",
       "2", "--duration", "3", "--sample-rate", "48000", "--channels", "1", "--progress", "json"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json dst = vn::test::ffprobe(o);
  const json* v = streamOf(dst, "video");
  const json* a = streamOf(dst, "audio");
  ASSERT_TRUE(v && a);
  EXPECT_EQ(std::pair((*v)["width"], (*v)["height"]), std::pair(json(160), json(120)));
  EXPECT_EQ((*v)["r_frame_rate"], "30000/1001");
  EXPECT_NEAR(number(dst["format"]["duration"]), 3.0, 0.1);
  EXPECT_EQ(number((*a)["sample_rate"]), 48000);
  EXPECT_EQ((*a)["channels"], 1);
  // Progress comes as JSON lines on stderr, the last at 100 %.
  const auto last = r.err.rfind("{\"percent\":");
  ASSERT_NE(last, std::string::npos) << r.err;
  const json line = json::parse(r.err.substr(last, r.err.find('\n', last) - last), nullptr, false);
  EXPECT_DOUBLE_EQ(line["percent"].get<double>(), 100.0);
}

// A size of the picture's shape scales it whole; one of another shape fits it
// between black bars, as a player shows it.
TEST(ConvertTest, AResizeKeepsThePictureShape) {
  const std::string in = fixture("h264_aac.mp4");  // 320x240
  const std::string same = vn::test::scratch("same.mp4"), wide = vn::test::scratch("wide.mp4");
  ASSERT_EQ(vn::test::runVarnel({"convert", in, same, "--size", "160x120"}).status, 0);
  EXPECT_GT(psnr(same, in, 160, 120), 30);
  ASSERT_EQ(vn::test::runVarnel({"convert", in, wide, "--size", "320x180"}).status, 0);
  // The first picture's luma, a byte a pixel: 40-pixel bars left and right of
  // a 240x180 picture.
  const std::string luma = vn::test::runShell("ffmpeg -v error -i '" + wide +
                                              "' -frames:v 1 -vf format=gray -f rawvideo -");
  ASSERT_EQ(luma.size(), 320u * 180);
  auto meanOfColumns = [&](int from, int to) {
    double sum = 0;
    for (int y = 0; y < 180; ++y) {
      for (int x = from; x < to; ++x)
        sum += static_cast<uint8_t>(luma[y * 320 + x]);
    }
    return sum / (180.0 * (to - from));
  };
  EXPECT_LT(std::max(meanOfColumns(0, 38), meanOfColumns(282, 320)), 20);
  EXPECT_GT(meanOfColumns(60, 260), 40);
}

// Ctrl-C stops the conversion and removes what was written.
TEST(ConvertTest, InterruptRemovesThePartialFile) {
  const std::string o = vn::test::scratch("interrupted.mkv");
  const pid_t pid = fork();
  if (pid == 0) {
    const std::string in = fixture("multitrack.mkv");
    execl(VARNEL_CLI_PATH, "varnel", "convert", in.c_str(), o.c_str(), "--size", "1920x1080",
          "--vcodec", "mpeg4", static_cast<char*>(nullptr));
    _exit(127);
  }
  // Interrupt once the partial file is there (a loaded machine may take a while).
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (noTemporaryFiles() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  kill(pid, SIGINT);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_FALSE(fs::exists(o));
  EXPECT_TRUE(noTemporaryFiles());
}
