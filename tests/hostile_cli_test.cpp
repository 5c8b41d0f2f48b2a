// End-to-end: command lines a user gets wrong. Every option of every
// command given a malformed value, options without values, too many or too
// few arguments, and outputs that cannot be written: a missing folder, a
// device (/dev/full), the input itself. Each gives one error line, exit 2 for
// bad usage and 1 for work that fails, leaves its inputs as they were and
// writes nothing; play refuses before it plays.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;

constexpr int kTimeout = 10;
constexpr int kUsage = 2;
constexpr int kFailed = 1;

// {in} is a movie, {pic} a picture, {dvd} a disc image and {dir} the case's
// own output folder.
struct Case {
  std::vector<std::string> args;
  int status;
};

// The inputs a case may name, copied so that a run that writes over one
// cannot spoil the fixtures.
struct Inputs {
  std::string in, pic, dvd;
};

const Inputs& inputs() {
  static const Inputs all = [] {
    const std::string dir = vn::test::scratchDir() + "/hostile-inputs";
    fs::create_directories(dir);
    Inputs i{dir + "/in.mp4", dir + "/pic.png", vn::test::fixture("dvd.iso")};
    fs::copy_file(vn::test::fixture("h264_aac.mp4"), i.in, fs::copy_options::overwrite_existing);
    vn::test::runShell("ffmpeg -hide_banner -loglevel error -nostdin -y -i " +
                       vn::test::shellQuote(i.in) + " -frames:v 1 " + vn::test::shellQuote(i.pic));
    return i;
  }();
  return all;
}

// What tells a file apart from a changed one: its bytes and its time.
struct Stamp {
  std::string bytes;
  fs::file_time_type time;
  bool operator==(const Stamp&) const = default;
};

Stamp stampOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return {s.str(), fs::last_write_time(path)};
}

bool isCharacterDevice(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISCHR(info.st_mode);
}

std::string substituted(std::string arg, const std::string& dir) {
  const Inputs& i = inputs();
  for (const auto& [key, value] : {std::pair<std::string, std::string>{"{in}", i.in},
                                   {"{pic}", i.pic},
                                   {"{dvd}", i.dvd},
                                   {"{dir}", dir}}) {
    for (size_t at; (at = arg.find(key)) != std::string::npos;)
      arg.replace(at, key.size(), value);
  }
  return arg;
}

std::string joined(const std::vector<std::string>& args) {
  std::string text;
  for (const std::string& a : args)
    text += (text.empty() ? "" : " ") + a;
  return text;
}

void runTable(const std::string& name, const std::vector<Case>& cases) {
  const Inputs& i = inputs();
  ASSERT_TRUE(fs::exists(i.pic));
  const Stamp movie = stampOf(i.in), picture = stampOf(i.pic);
  // No window, and a sound device that writes a file into the output folder,
  // so that a play that should have been refused shows.
  const std::string base = vn::test::scratchDir() + "/hostile-" + name;
  for (size_t n = 0; n < cases.size(); ++n) {
    const Case& c = cases[n];
    SCOPED_TRACE(joined(c.args));
    const std::string dir = base + "/" + std::to_string(n);
    fs::create_directories(dir);
    std::vector<std::string> args;
    for (const std::string& a : c.args)
      args.push_back(substituted(a, dir));
    const vn::test::CommandResult r =
        vn::test::runVarnel(args,
                            {{"SDL_AUDIODRIVER", "disk"},
                             {"SDL_DISKAUDIOFILE", dir + "/played.raw"},
                             {"DISPLAY", ""},
                             {"WAYLAND_DISPLAY", ""}},
                            kTimeout);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(r.err.rfind("varnel: error: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
    EXPECT_TRUE(fs::is_empty(dir)) << "written in " << dir;
    EXPECT_TRUE(stampOf(i.in) == movie) << "the movie was changed";
    EXPECT_TRUE(stampOf(i.pic) == picture) << "the picture was changed";
    ASSERT_TRUE(isCharacterDevice("/dev/full")) << "/dev/full was replaced";
  }
}

TEST(HostileCliTest, Convert) {
  const std::vector<std::string> run = {"convert", "{in}", "{dir}/o.mp4"};
  auto with = [&](std::vector<std::string> extra) {
    std::vector<std::string> args = run;
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  };
  runTable("convert", {
                          {with({"--size", "-2x-2"}), kUsage},
                          {with({"--size", "0x0"}), kUsage},
                          {with({"--size", "10"}), kUsage},
                          {with({"--size", "11x11"}), kUsage},  // encoders want even sides
                          {with({"--fps", "0"}), kUsage},
                          {with({"--fps", "-1"}), kUsage},
                          {with({"--fps", "abc"}), kUsage},
                          {with({"--fps", "30abc"}), kUsage},
                          {with({"--fps", "1/0"}), kUsage},
                          {with({"--fps", "100000"}), kUsage},
                          {with({"--crop", "0,0,400,400"}), kUsage},
                          {with({"--crop", "1,2,3"}), kUsage},
                          {with({"--audio-tracks", ","}), kUsage},
                          {with({"--audio-tracks", "9"}), kUsage},
                          {with({"--audio-tracks", "-1"}), kUsage},
                          {with({"--vcodec", "nosuch"}), kUsage},
                          {with({"--acodec", "nosuch"}), kUsage},
                          {with({"--vcodec", "mp3"}), kUsage},
                          {with({"--acodec", "h264"}), kUsage},
                          {with({"--start", "-5"}), kUsage},
                          {with({"--start", "nan"}), kUsage},
                          {with({"--start", "inf"}), kUsage},
                          {with({"--start", "50"}), kUsage},
                          {with({"--duration", "0"}), kUsage},
                          {with({"--duration", "-1"}), kUsage},
                          {with({"--duration", "nan"}), kUsage},
                          {with({"--vbitrate", "-5"}), kUsage},
                          {with({"--abitrate", "0"}), kUsage},
                          {with({"--sample-rate", "-1"}), kUsage},
                          {with({"--channels", "0"}), kUsage},
                          {with({"--channels", "9"}), kUsage},
                          {with({"--progress", "xml"}), kUsage},
                          {with({"--subtitle-position", "1.5"}), kUsage},
                          {with({"--subtitle-outline", "-1"}), kUsage},
                          {with({"--subtitle-track", "5"}), kUsage},
                          {with({"--saturation", "2"}), kUsage},
                          {with({"--rotate", "nan"}), kUsage},
                          {with({"--zoom", "999"}), kUsage},
                          {with({"--effect", "nosuch"}), kUsage},
                          {with({"--nosuch"}), kUsage},
                          {with({"--size"}), kUsage},
                          {{"convert", "{in}"}, kUsage},
                          {with({"extra"}), kUsage},
                          {{"convert", "{in}", "{dir}/missing/o.mp4"}, kFailed},
                          {{"convert", "{in}", "/dev/full"}, kFailed},
                          {{"convert", "{in}", "{in}"}, kFailed},
                          {{"convert", "{in}", "{dir}"}, kFailed},
                          {{"convert", "{in}", "{dir}/o"}, kFailed},
                          {{"convert", "{dvd}", "{dir}/o.mp4", "--title", "0"}, kFailed},
                      });
}

TEST(HostileCliTest, FrameAndThumbnail) {
  runTable(
      "frame",
      {
          {{"frame", "{in}", "-t", "20", "-o", "{dir}/o.png"}, kUsage},
          {{"frame", "{in}", "-t", "nan", "-o", "{dir}/o.png"}, kUsage},
          {{"frame", "{in}", "-t", "inf", "-o", "{dir}/o.png"}, kUsage},
          {{"frame", "{in}", "-t", "-1", "-o", "{dir}/o.png"}, kUsage},
          {{"frame", "{in}", "-t", "abc", "-o", "{dir}/o.png"}, kUsage},
          {{"frame", "{in}", "-t", "1", "-o", "{dir}/o.png", "--size", "0x0"}, kUsage},
          {{"frame", "{in}", "-t", "1", "-o", "{dir}/o.png", "--size", "10"}, kUsage},
          {{"frame", "{in}", "-t", "1", "-o", "{dir}/o.png", "--crop", "1,2,3"}, kUsage},
          {{"frame", "{in}", "-t", "1", "-o", "{dir}/o.png", "--crop", "300,0,100,100"}, kUsage},
          {{"frame", "{in}", "-t", "1", "-o", "{dir}/o.png", "--subtitle-position", "1.5"}, kUsage},
          {{"frame", "{in}", "-t", "1", "-o", "{dir}/o.png", "--subtitle-outline", "-1"}, kUsage},
          {{"frame", "{in}", "-t", "1", "-o", "{dir}/o.bmp"}, kUsage},
          {{"frame", "{in}", "-t", "1", "-o", "/dev/full"}, kUsage},  // not a picture name
          {{"frame", "{in}", "-t", "1"}, kUsage},
          {{"frame", "{in}", "-o", "{dir}/o.png"}, kUsage},
          {{"frame", "{in}", "-t", "1", "-o"}, kUsage},
          {{"frame", "{in}", "extra", "-t", "1", "-o", "{dir}/o.png"}, kUsage},
          {{"frame", "-t", "1", "-o", "{dir}/o.png"}, kUsage},
          {{"frame", "{in}", "-t", "1", "-o", "{dir}/missing/o.png"}, kFailed},
          {{"frame", "{pic}", "-t", "0", "-o", "{pic}"}, kFailed},
          {{"frame", "{dvd}", "-t", "1", "-o", "{dir}/o.png", "--title", "0"}, kFailed},
      });
  runTable("thumbnail",
           {
               {{"thumbnail", "{in}", "-o", "{dir}/o.png", "-t", "20"}, kUsage},
               {{"thumbnail", "{in}", "-o", "{dir}/o.png", "-t", "nan"}, kUsage},
               {{"thumbnail", "{in}", "-o", "{dir}/o.png", "-t", "-5%"}, kUsage},
               {{"thumbnail", "{in}", "-o", "{dir}/o.png", "-t", "100%"}, kUsage},
               {{"thumbnail", "{in}", "-o", "{dir}/o.png", "-t", "1,2"}, kUsage},  // no %d
               {{"thumbnail", "{in}", "-o", "{dir}/o.png", "-s", "0x0"}, kUsage},
               {{"thumbnail", "{in}", "-o", "{dir}/o.png", "-s", "10"}, kUsage},
               {{"thumbnail", "{in}", "-o", "{dir}/o.png", "--sheet", "--count", "-3"}, kUsage},
               {{"thumbnail", "{in}", "-o", "{dir}/o.png", "--count", "5"}, kUsage},
               {{"thumbnail", "{in}", "-o", "{dir}/o.png", "--crop", "1,2,3"}, kUsage},
               {{"thumbnail", "{in}", "-o", "/dev/full"}, kUsage},
               {{"thumbnail", "{in}"}, kUsage},
               {{"thumbnail", "{in}", "extra", "-o", "{dir}/o.png"}, kUsage},
               {{"thumbnail", "{in}", "-o", "{dir}/missing/o.png"}, kFailed},
               {{"thumbnail", "{pic}", "-t", "0", "-o", "{pic}"}, kFailed},
               {{"thumbnail", "{dvd}", "-o", "{dir}/o.png", "--title", "0"}, kFailed},
           });
}

TEST(HostileCliTest, PlayRefusesBeforePlaying) {
  runTable("play", {
                       {{"play", "{in}", "--speed", "0"}, kUsage},
                       {{"play", "{in}", "--speed", "-1"}, kUsage},
                       {{"play", "{in}", "--speed", "nan"}, kUsage},
                       {{"play", "{in}", "--volume", "-1"}, kUsage},
                       {{"play", "{in}", "--volume", "nan"}, kUsage},
                       {{"play", "{in}", "--start", "-5"}, kUsage},
                       {{"play", "{in}", "--start", "nan"}, kUsage},
                       {{"play", "{in}", "--start", "50"}, kUsage},
                       {{"play", "{in}", "--window", "0x0"}, kUsage},
                       {{"play", "{in}", "--audio-tracks", ","}, kUsage},
                       {{"play", "{in}", "--audio-tracks", "9"}, kUsage},
                       // Checked though there is no window to show the picture in.
                       {{"play", "{in}", "--crop", "1,2,3"}, kUsage},
                       {{"play", "{in}", "--subtitle-position", "1.5"}, kUsage},
                       {{"play", "{in}", "--subtitle-outline", "-1"}, kUsage},
                       {{"play", "{in}", "--nosuch"}, kUsage},
                       {{"play"}, kUsage},
                       {{"play", "{in}", "extra"}, kUsage},
                       {{"play", "{dvd}", "--title", "0"}, kFailed},
                   });
}

TEST(HostileCliTest, InfoEffectsAndNoCommand) {
  runTable(
      "others",
      {
          {{}, kUsage},
          {{"nosuch"}, kUsage},
          {{"info"}, kUsage},
          {{"info", "{in}", "extra"}, kUsage},
          {{"info", "{in}", "--nosuch"}, kUsage},
          {{"info", "{in}", "--title", "1"}, kUsage},
          {{"info", "/dev/full"}, kFailed},
          {{"effects", "--apply", "Glow", "{pic}"}, kUsage},
          {{"effects", "--apply", "Glow", "-o", "{dir}/o.png"}, kUsage},
          {{"effects", "--sheet", "{in}", "-t", "1", "-o", "{dir}/o.png", "--tile", "0x0"}, kUsage},
          {{"effects", "--apply", "Glow", "{pic}", "--sheet", "{in}", "-o", "{dir}/o.png"}, kUsage},
          {{"effects", "--nosuch"}, kUsage},
          {{"effects", "--json", "extra"}, kUsage},
          // Documented as failed work: a name that is not a preset, a
          // negative time, an output that cannot be written.
          {{"effects", "--apply", "nosuch", "{pic}", "-o", "{dir}/o.png"}, kFailed},
          {{"effects", "--sheet", "{in}", "-t", "-1", "-o", "{dir}/o.png"}, kFailed},
          {{"effects", "--apply", "Glow", "{pic}", "-o", "/dev/full"}, kFailed},
          {{"effects", "--apply", "Glow", "{pic}", "-o", "{dir}/missing/o.png"}, kFailed},
          {{"effects", "--apply", "Glow", "{pic}", "-o", "{pic}"}, kFailed},
          {{"effects", "--sheet", "{pic}", "-t", "0", "-o", "{pic}"}, kFailed},
      });
}

}  // namespace
