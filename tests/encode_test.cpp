// End-to-end: how `varnel convert` encodes — codecs by name, each
// extension's codecs, constant quality and bit rates, GIFs, and care for an
// output that exists already.

#include <sys/stat.h>

#include <filesystem>

#include "test_support.h"

namespace {

using nlohmann::json;
using vn::test::fixture;
using vn::test::runVarnel;
using vn::test::scratch;
using vn::test::streamOf;
namespace fs = std::filesystem;

std::string codecOf(const json& probe, const std::string& type) {
  const json* stream = streamOf(probe, type);
  return stream ? (*stream)["codec_name"].get<std::string>() : "";
}

int64_t number(const json& value) {
  return value.is_string() ? std::stoll(value.get<std::string>()) : value.get<int64_t>();
}

// Half a second of the small test clip (320x240, 25 frames a second, a
// tone at 44100 Hz in stereo) into output with the options.
vn::test::CommandResult convertShort(const std::string& output, const std::string& options) {
  return runVarnel(vn::test::words("convert " + fixture("h264_aac.mp4") + " " + output +
                                   " --duration 0.5 " + options));
}

struct Encoding {
  const char* output;
  const char* options;
  const char* video;  // ffprobe's codec name; "" for no video
  const char* audio;  // "" for no audio
  int sampleRate;     // 0: not checked
};

// Every codec name in a container that holds it, and what each extension
// gets when no codec is named.
const Encoding kEncodings[] = {
    {"named.mp4", "--vcodec h264 --acodec aac", "h264", "aac", 44100},
    {"named-hevc.mkv", "--vcodec hevc --acodec flac", "hevc", "flac", 44100},
    {"named-h265.mp4", "--vcodec h265 --acodec mp3", "hevc", "mp3", 44100},
    {"named-vp8.webm", "--vcodec vp8 --acodec vorbis", "vp8", "vorbis", 44100},
    {"named-vp9.mkv", "--vcodec vp9 --acodec opus", "vp9", "opus", 48000},
    {"named-av1.mkv", "--vcodec av1 --acodec ac3 --preset ultrafast", "av1", "ac3", 44100},
    {"named-mpeg4.avi", "--vcodec mpeg4 --acodec pcm", "mpeg4", "pcm_s16le", 44100},
    {"named-mpeg2.mpg", "--vcodec mpeg2 --acodec mp2", "mpeg2video", "mp2", 44100},
    {"named-mpeg1.mpg", "--vcodec mpeg1 --acodec mp2", "mpeg1video", "mp2", 44100},
    {"named-qtrle.mov", "--vcodec animation --acodec alac", "qtrle", "alac", 44100},
    {"named-prores.mov", "--vcodec prores --acodec pcm", "prores", "pcm_s16le", 44100},
    {"named-theora.ogv", "--vcodec theora --acodec opus", "theora", "opus", 48000},
    {"named-wma.wmv", "--acodec wma", "msmpeg4v3", "wmav2", 44100},
    {"default.mp4", "", "h264", "aac", 44100},
    {"default.mkv", "", "h264", "aac", 44100},
    {"default.mov", "", "h264", "aac", 44100},
    {"default.webm", "", "vp9", "opus", 48000},
    {"default.avi", "", "mpeg4", "mp3", 44100},
    {"default.mpg", "", "mpeg2video", "mp2", 44100},
    {"default.ogv", "", "theora", "vorbis", 44100},
    {"default.ts", "", "h264", "aac", 44100},
    {"default.gif", "", "gif", "", 0},
    {"default.wav", "", "", "pcm_s16le", 44100},
    {"default.flac", "", "", "flac", 44100},
    {"default.opus", "", "", "opus", 48000},
    {"default.ogg", "", "", "vorbis", 44100},
    {"default.m4a", "", "", "aac", 44100},
};

}  // namespace

TEST(EncodeTest, CodecNamesAndExtensionDefaultsGiveFilesOfThoseCodecs) {
  for (const Encoding& e : kEncodings) {
    SCOPED_TRACE(std::string(e.output) + " " + e.options);
    const std::string out = scratch(e.output);
    const vn::test::CommandResult r = convertShort(out, e.options);
    ASSERT_EQ(r.status, 0) << r.err;
    // No encoder's chatter: stderr carries progress and errors only.
    EXPECT_EQ(r.err, "");
    const json probe = vn::test::ffprobe(out);
    EXPECT_EQ(codecOf(probe, "video"), e.video);
    EXPECT_EQ(codecOf(probe, "audio"), e.audio);
    if (e.sampleRate) {
      EXPECT_EQ(number((*streamOf(probe, "audio"))["sample_rate"]), e.sampleRate);
    }
    fs::remove(out);
  }
  EXPECT_TRUE(vn::test::noTemporaryFiles());
}

// The input's channels, as many as the codec takes; its rate moved to one
// the codec takes.
TEST(EncodeTest, SoundKeepsTheInputsChannelsAndRateWhereTheCodecAllows) {
  const struct {
    const char* output;
    int channels;
    int sampleRate;
  } cases[] = {{"surround.m4a", 6, 48000}, {"surround.mp3", 2, 48000}, {"surround.opus", 6, 48000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.output);
    const std::string out = scratch(c.output);
    const vn::test::CommandResult r =
        runVarnel({"convert", fixture("ac3_51.ac3"), out, "--duration", "0.5"});
    ASSERT_EQ(r.status, 0) << r.err;
    const json probe = vn::test::ffprobe(out);
    const json* audio = streamOf(probe, "audio");
    ASSERT_TRUE(audio);
    EXPECT_EQ((*audio)["channels"], c.channels);
    EXPECT_EQ(number((*audio)["sample_rate"]), c.sampleRate);
  }
}

// A higher --crf (or quantiser) never gives a bigger file of the same input.
TEST(EncodeTest, HigherCrfNeverGivesABiggerFile) {
  const struct {
    const char* codec;
    std::vector<const char*> values;
  } scales[] = {
      {"h264", {"15", "23", "30", "40"}}, {"vp9", {"20", "35", "50"}}, {"mpeg4", {"2", "7", "20"}}};
  for (const auto& scale : scales) {
    uintmax_t previous = UINTMAX_MAX;
    for (const char* crf : scale.values) {
      SCOPED_TRACE(std::string(scale.codec) + " --crf " + crf);
      const std::string out = scratch(std::string("crf-") + scale.codec + "-" + crf + ".mkv");
      const vn::test::CommandResult r =
          runVarnel({"convert", fixture("h264_aac.mp4"), out, "--duration", "1", "--no-audio",
                     "--vcodec", scale.codec, "--crf", crf, "--preset", "veryfast"});
      ASSERT_EQ(r.status, 0) << r.err;
      const uintmax_t size = fs::file_size(out);
      EXPECT_LT(size, previous);
      previous = size;
    }
  }
}

// Bit rates in bits, k or M; a video bit rate turns constant quality off.
TEST(EncodeTest, BitRatesTakeSuffixesAndAreKept) {
  const std::string out = scratch("rates.mp4");
  vn::test::CommandResult r = runVarnel({"convert", fixture("h264_aac.mp4"), out, "--duration", "3",
                                         "--vbitrate", "0.4M", "--abitrate", "96k"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json probe = vn::test::ffprobe(out);
  EXPECT_NEAR(number((*streamOf(probe, "video"))["bit_rate"]), 400000, 120000);
  EXPECT_NEAR(number((*streamOf(probe, "audio"))["bit_rate"]), 96000, 16000);

  // Two passes spend the same rate and leave nothing behind.
  const std::string twice = scratch("two-pass.mp4");
  r = runVarnel({"convert", fixture("h264_aac.mp4"), twice, "--duration", "3", "--vbitrate", "250k",
                 "--two-pass"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json probedTwice = vn::test::ffprobe(twice);
  EXPECT_NEAR(number((*streamOf(probedTwice, "video"))["bit_rate"]), 250000, 75000);
  EXPECT_TRUE(vn::test::noTemporaryFiles());

  const std::string refused = scratch("refused.mov");
  const struct {
    std::vector<std::string> options;
    const char* says;
  } bad[] = {
      {{"--vbitrate", "2X"}, "--vbitrate"},
      {{"--vbitrate", "0k"}, "--vbitrate"},
      {{"--abitrate", "M"}, "--abitrate"},
      {{"--crf", "20", "--vbitrate", "1M"}, "constant quality or a bit rate"},
      {{"--crf", "60"}, "0 to 51"},
      {{"--vcodec", "animation", "--crf", "20"}, "no quality"},
      {{"--preset", "quick"}, "ultrafast"},
      {{"--two-pass"}, "--vbitrate"},
      {{"--vcodec", "h265x"}, "hevc"},
  };
  for (const auto& b : bad) {
    std::vector<std::string> args = {"convert", fixture("h264_aac.mp4"), refused};
    args.insert(args.end(), b.options.begin(), b.options.end());
    SCOPED_TRACE(b.options.front());
    vn::test::expectError(runVarnel(args), 2, b.says);
  }
  // A codec the container cannot hold fails, naming what it takes.
  r = runVarnel({"convert", fixture("h264_aac.mp4"), scratch("wrong.webm"), "--vcodec", "h264"});
  vn::test::expectError(r, 1, "cannot hold h264; it takes vp8 vp9 av1");
  r = runVarnel({"convert", fixture("h264_aac.mp4"), scratch("wrong.gif"), "--vcodec", "h264"});
  vn::test::expectError(r, 1, "holds gif only");
  r = runVarnel({"convert", fixture("h264_aac.mp4"), refused, "--acodec", "wma"});
  vn::test::expectError(r, 1, "the mov container cannot hold wma; it takes aac");
  EXPECT_FALSE(fs::exists(scratch("wrong.webm")));
  EXPECT_FALSE(fs::exists(refused));
}

// The GIF looks like the clip: its own palette, the rate and size asked for.
TEST(EncodeTest, GifHasAPaletteOfTheClipAtTheRateAndSizeAskedFor) {
  const std::string out = scratch("clip.gif");
  const vn::test::CommandResult r = runVarnel({"convert", fixture("h264_aac.mp4"), out, "--start",
                                               "1", "--duration", "2", "--size", "160x120"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json probe = vn::test::ffprobe(out);
  const json* video = streamOf(probe, "video");
  ASSERT_TRUE(video);
  EXPECT_EQ(std::pair((*video)["width"], (*video)["height"]), std::pair(json(160), json(120)));
  const auto frames = vn::test::readPictures(out, "null");
  EXPECT_NEAR(static_cast<double>(frames.size()), 20, 1);  // 10 a second by default
  // The first picture against the clip's in the middle of its tenth of a second, both at
  // 160x120.
  const vn::test::Raster expected =
      vn::test::frameOf(fixture("h264_aac.mp4"), {"--time", "1.05", "--size", "160x120"});
  ASSERT_FALSE(frames.empty());
  // The palette costs a few dB (23.6 measured); the picture a tenth of a second away gives 13.
  EXPECT_GT(vn::test::psnr(frames.front(), expected), 20);

  const std::string faster = scratch("fast.gif");
  ASSERT_EQ(runVarnel({"convert", fixture("h264_aac.mp4"), faster, "--duration", "1", "--fps", "20",
                       "--size", "160x120"})
                .status,
            0);
  EXPECT_NEAR(static_cast<double>(vn::test::readPictures(faster, "null").size()), 20, 1);
}

TEST(EncodeTest, AnExistingOutputIsReplacedWithCare) {
  const std::string out = scratch("kept.mp4");
  fs::remove(out);
  auto write = [&](std::vector<std::string> flags, const char* duration = "0.3") {
    std::vector<std::string> args = {"convert", fixture("h264_aac.mp4"), out, "--duration",
                                     duration};
    args.insert(args.end(), flags.begin(), flags.end());
    return runVarnel(args);
  };
  auto mode = [&] { return fs::status(out).permissions() & fs::perms::all; };

  // -n writes a new file, then refuses to replace it.
  ASSERT_EQ(write({"-n"}).status, 0);
  const auto size = fs::file_size(out);
  vn::test::expectError(write({"--no-overwrite"}, "0.6"), 1, "exists");
  EXPECT_EQ(fs::file_size(out), size);

  // A private file stays private once replaced.
  fs::permissions(out, fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_EQ(write({}).status, 0);
  EXPECT_EQ(mode(), fs::perms::owner_read | fs::perms::owner_write);

  // A read-only file is refused unless -y; replaced, it stays read-only.
  fs::permissions(out, fs::perms::owner_read | fs::perms::group_read);
  const auto before = fs::last_write_time(out);
  vn::test::expectError(write({}), 1, "read-only");
  EXPECT_EQ(fs::last_write_time(out), before);
  ASSERT_EQ(write({"-y"}, "0.6").status, 0);
  EXPECT_NE(fs::file_size(out), size);
  EXPECT_EQ(mode(), fs::perms::owner_read | fs::perms::group_read);
  fs::permissions(out, fs::perms::owner_all);
  vn::test::expectError(write({"-y", "-n"}), 2);
  EXPECT_TRUE(vn::test::noTemporaryFiles());
}

// --progress line prints the line even to a file.
TEST(EncodeTest, ProgressLineIsPrintedWhenStderrIsNotATerminal) {
  const std::string out = scratch("progress.mp4");
  const vn::test::CommandResult quiet = convertShort(out, "-y");
  ASSERT_EQ(quiet.status, 0) << quiet.err;
  EXPECT_EQ(quiet.err.find("frames/s"), std::string::npos);
  const vn::test::CommandResult shown = convertShort(out, "-y --progress line");
  ASSERT_EQ(shown.status, 0) << shown.err;
  EXPECT_NE(shown.err.find("100.0%"), std::string::npos) << shown.err;
}
