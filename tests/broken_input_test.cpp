// End-to-end: every command on broken inputs (tests/broken/README.md lists
// them). Each either does what can be done with what is readable (exit 0 and
// an output ffprobe reads) or fails with one error line, exit 1 and nothing
// left in its output folder; none crashes or takes more than ten seconds. The
// expectations follow FFmpeg: where ffprobe opens a file, info shows it; where
// ffmpeg decodes pictures, frame and thumbnail make one; where it converts,
// convert does (except what the README rules out: less than a second of a
// file known to be cut short).
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using vn::test::CommandResult;
using vn::test::lines;
using vn::test::shellQuote;

// Every run is stopped after this long; one that is stopped fails its case.
constexpr int kTimeout = 10;

enum Outcome {
  kOk,    // exit 0; the output is there and ffprobe reads it
  kFails  // exit 1, one error line (after any warnings), no output
};

struct Case {
  const char* group;  // the test the case runs in
  const char* file;   // in the fixtures' broken/ folder
  Outcome info, frame, thumbnail, convert;
  const char* at = "0.5";  // frame -t, inside the container's duration
  // The file is a subtitle: info reads it, the other commands draw it over
  // h264_aac.mp4.
  bool subtitles = false;
};

// clang-format off
const Case kCases[] = {
    // An MP4 or M4A keeps its index at the end: no cut of it opens, as in ffprobe.
    {"mp4", "cut1_h264_aac.mp4", kFails, kFails, kFails, kFails},
    {"mp4", "cut10_h264_aac.mp4", kFails, kFails, kFails, kFails},
    {"mp4", "cut50_h264_aac.mp4", kFails, kFails, kFails, kFails},
    {"mp4", "cut90_h264_aac.mp4", kFails, kFails, kFails, kFails},
    {"mp4", "cut1_aac.m4a", kFails, kFails, kFails, kFails},
    {"mp4", "cut10_aac.m4a", kFails, kFails, kFails, kFails},
    {"mp4", "cut50_aac.m4a", kFails, kFails, kFails, kFails},
    {"mp4", "cut90_aac.m4a", kFails, kFails, kFails, kFails},
    {"mp4", "moov_zeroed.mp4", kFails, kFails, kFails, kFails},
    {"mp4", "header_h264_aac.mp4", kFails, kFails, kFails, kFails},
    {"mp4", "prefix_h264_aac.mp4", kFails, kFails, kFails, kFails},
    {"mp4", "flips_h264_aac.mp4", kOk, kOk, kOk, kOk},
    // The index says 10 s; not one picture can be decoded.
    {"mp4", "first_frame.mp4", kOk, kFails, kFails, kFails},
    // Matroska states its size: a cut is known, read as far as it goes, and a
    // conversion of less than a second of it fails. 1 % holds 0.2 s, 10 % 0.68 s.
    {"mkv", "cut1_multitrack.mkv", kOk, kFails, kOk, kFails},
    {"mkv", "cut10_multitrack.mkv", kOk, kOk, kOk, kFails},
    {"mkv", "cut50_multitrack.mkv", kOk, kOk, kOk, kOk},
    {"mkv", "cut90_multitrack.mkv", kOk, kOk, kOk, kOk},
    {"mkv", "cues_zeroed.mkv", kOk, kOk, kOk, kOk},
    {"mkv", "header_multitrack.mkv", kFails, kFails, kFails, kFails},
    {"mkv", "flips_multitrack.mkv", kOk, kOk, kOk, kOk},
    // A transport stream has no size to miss: every cut is a shorter stream.
    {"ts", "cut1_h264_2997.ts", kOk, kOk, kOk, kOk},
    {"ts", "cut10_h264_2997.ts", kOk, kOk, kOk, kOk},
    {"ts", "cut50_h264_2997.ts", kOk, kOk, kOk, kOk},
    {"ts", "cut90_h264_2997.ts", kOk, kOk, kOk, kOk},
    {"ts", "flips_h264_2997.ts", kOk, kOk, kOk, kOk},
    {"ts", "prefix_h264_2997.ts", kOk, kOk, kOk, kOk},
    // Its audio, but no picture: ffmpeg gives up on the video, and so does convert.
    {"ts", "first_frame.ts", kOk, kFails, kFails, kFails, "0"},
    // A program stream cut at 1 % or 10 % is 0.04 s or 0.24 s long.
    {"mpg", "cut1_mpeg2_mp2.mpg", kOk, kOk, kOk, kOk, "0"},
    {"mpg", "cut10_mpeg2_mp2.mpg", kOk, kOk, kOk, kOk, "0"},
    {"mpg", "cut50_mpeg2_mp2.mpg", kOk, kOk, kOk, kOk},
    {"mpg", "cut90_mpeg2_mp2.mpg", kOk, kOk, kOk, kOk},
    {"mpg", "flips_mpeg2_mp2.mpg", kOk, kOk, kOk, kOk},
    // ASF states its size; cut before its index, it gives no duration.
    {"wmv", "cut1_wmv2_wmav2.wmv", kOk, kFails, kOk, kFails},
    {"wmv", "cut10_wmv2_wmav2.wmv", kOk, kFails, kOk, kFails},
    {"wmv", "cut50_wmv2_wmav2.wmv", kOk, kOk, kOk, kOk},
    {"wmv", "cut90_wmv2_wmav2.wmv", kOk, kOk, kOk, kOk},
    {"wmv", "header_wmv2_wmav2.wmv", kFails, kFails, kFails, kFails},
    // RealMedia keeps its duration in front; at 1 % no picture is whole.
    {"rm", "cut1_rv20_ac3.rm", kOk, kFails, kFails, kFails},
    {"rm", "cut10_rv20_ac3.rm", kOk, kFails, kOk, kFails},
    {"rm", "cut50_rv20_ac3.rm", kOk, kOk, kOk, kOk},
    {"rm", "cut90_rv20_ac3.rm", kOk, kOk, kOk, kOk},
    // Audio only: no picture to take. The MP3's cover is cut at 1 %, which
    // ffprobe cannot open either; its Xing header states its size.
    {"audio", "cut1_mp3_cover.mp3", kFails, kFails, kFails, kFails},
    {"audio", "cut10_mp3_cover.mp3", kOk, kFails, kFails, kFails},
    {"audio", "cut50_mp3_cover.mp3", kOk, kFails, kFails, kOk},
    {"audio", "cut90_mp3_cover.mp3", kOk, kFails, kFails, kOk},
    {"audio", "prefix_mp3_cover.mp3", kOk, kFails, kFails, kOk},
    {"audio", "cut1_ac3_51.ac3", kOk, kFails, kFails, kOk},
    {"audio", "cut10_ac3_51.ac3", kOk, kFails, kFails, kOk},
    {"audio", "cut50_ac3_51.ac3", kOk, kFails, kFails, kOk},
    {"audio", "cut90_ac3_51.ac3", kOk, kFails, kFails, kOk},
    // A disc image cut before its title set's IFO is no disc; after it, the
    // title reads as far as its VOBs go.
    {"dvd", "cut1_dvd.iso", kFails, kFails, kFails, kFails},
    {"dvd", "cut10_dvd.iso", kFails, kFails, kFails, kFails},
    {"dvd", "cut50_dvd.iso", kOk, kOk, kOk, kOk},
    {"dvd", "cut90_dvd.iso", kOk, kOk, kOk, kOk},
    // Cues that are not UTF-8 and times that make no sense are drawn or left out.
    {"other", "bad.srt", kOk, kOk, kOk, kOk, "1.5", true},
    {"other", "zero.mp4", kFails, kFails, kFails, kFails},
    {"other", "folder.mp4", kFails, kFails, kFails, kFails},
};
// clang-format on

// The folder of one case's outputs, made empty.
std::string outputFolder(const std::string& name) {
  const std::string dir = vn::test::scratchDir() + "/broken/" + name;
  fs::remove_all(dir);
  fs::create_directories(dir);
  // Writable by anyone: a run as another user writes here too.
  fs::permissions(dir, fs::perms::all);
  return dir;
}

std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(dir))
    names.push_back(e.path().filename().string());
  return names;
}

// Checks one run against its outcome; output is the file it writes ("" for
// info), in a folder of its own.
void check(const CommandResult& r, Outcome outcome, const std::string& output) {
  const std::vector<std::string> err = lines(r.err);
  const auto errors = std::count_if(err.begin(), err.end(), [](const std::string& l) {
    return l.rfind("varnel: error: ", 0) == 0;
  });
  const auto warnings = std::count_if(err.begin(), err.end(), [](const std::string& l) {
    return l.rfind("varnel: warning: ", 0) == 0;
  });
  const std::string folder = output.empty() ? "" : fs::path(output).parent_path().string();
  if (outcome == kOk) {
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(errors, 0) << r.err;
    if (output.empty()) {
      EXPECT_FALSE(r.out.empty());
      return;
    }
    ASSERT_TRUE(fs::exists(output)) << r.err;
    const nlohmann::json probe = vn::test::ffprobe(output);
    EXPECT_FALSE(probe.value("streams", nlohmann::json::array()).empty()) << output;
    EXPECT_EQ(entries(folder), std::vector<std::string>{fs::path(output).filename().string()});
  } else {
    ASSERT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(errors, 1) << r.err;
    EXPECT_EQ(errors + warnings, static_cast<long>(err.size())) << r.err;
    EXPECT_EQ(err.empty() ? "" : err.back().substr(0, 15), "varnel: error: ") << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
    if (!folder.empty()) {
      EXPECT_TRUE(entries(folder).empty()) << "left behind in " << folder;
    }
  }
}

// The four commands on input, as the case expects; run runs varnel.
template <typename Run>
void runCase(const std::string& input,
             const std::string& name,
             Outcome info,
             Outcome frame,
             Outcome thumbnail,
             Outcome convert,
             const std::string& at,
             bool subtitles,
             Run run) {
  const std::string dir = outputFolder(name);
  const std::string media = subtitles ? vn::test::fixture("h264_aac.mp4") : input;
  std::vector<std::string> extra;
  if (subtitles)
    extra = {"--subtitles", input};
  auto with = [&](std::vector<std::string> args) {
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  };
  {
    SCOPED_TRACE("info");
    check(run({"info", input}), info, "");
  }
  {
    SCOPED_TRACE("frame -t " + at);
    const std::string out = dir + "/frame.png";
    check(run(with({"frame", media, "-t", at, "-o", out})), frame, out);
    fs::remove(out);
  }
  {
    SCOPED_TRACE("thumbnail");
    const std::string out = dir + "/thumb.png";
    check(run(with({"thumbnail", media, "-o", out})), thumbnail, out);
    fs::remove(out);
  }
  {
    SCOPED_TRACE("convert --duration 1");
    const std::string out = dir + "/converted.mp4";
    check(run(with({"convert", media, out, "--duration", "1"})), convert, out);
    fs::remove(out);
  }
}

CommandResult runPlain(const std::vector<std::string>& args) {
  return vn::test::runVarnel(args, {}, kTimeout);
}

class BrokenInputTest : public testing::TestWithParam<std::string> {};

TEST_P(BrokenInputTest, EveryCommandReadsWhatItCanOrFailsCleanly) {
  int count = 0;
  for (const Case& c : kCases) {
    if (c.group != GetParam())
      continue;
    ++count;
    SCOPED_TRACE(c.file);
    const std::string input = vn::test::fixture(std::string("broken/") + c.file);
    // Not every ffmpeg writes RealMedia; without the good file there are no cuts of it.
    if (std::string(c.file).find(".rm") != std::string::npos &&
        !fs::exists(vn::test::fixture("rv20_ac3.rm"))) {
      std::cout << "[ SKIPPED  ] " << c.file << ": this ffmpeg cannot write RealMedia\n";
      continue;
    }
    ASSERT_TRUE(fs::exists(input)) << "made by tests/broken/make_broken.sh";
    runCase(input, c.file, c.info, c.frame, c.thumbnail, c.convert, c.at, c.subtitles, runPlain);
  }
  EXPECT_GT(count, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Groups,
    BrokenInputTest,
    testing::Values("mp4", "mkv", "ts", "mpg", "wmv", "rm", "audio", "dvd", "other"),
    [](const testing::TestParamInfo<std::string>& p) { return p.param; });

// Inputs that cannot be opened as files at all: a named pipe (opening it
// would wait for a writer forever) and a file without read permission.
TEST(BrokenInputSpecialTest, PipesAndUnreadableFilesFailAtOnce) {
  const std::string dir = vn::test::scratchDir() + "/special";
  fs::create_directories(dir);
  const std::string fifo = dir + "/pipe.mp4";
  fs::remove(fifo);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  {
    SCOPED_TRACE("a named pipe");
    runCase(fifo, "pipe", kFails, kFails, kFails, kFails, "0", false, runPlain);
  }

  // Root reads a file whatever its permission bits say: the runs are then
  // made as the user nobody, whom they stop.
  const std::string unreadable = vn::test::fixture("broken/unreadable.mp4");
  ASSERT_TRUE(fs::exists(unreadable));
  SCOPED_TRACE("a file without read permission");
  if (geteuid() != 0) {
    runCase(unreadable, "unreadable", kFails, kFails, kFails, kFails, "0.5", false, runPlain);
    return;
  }
  int status = 0;
  vn::test::runShell("command -v setpriv >/dev/null", &status);
  if (status != 0) {
    std::cout << "[ SKIPPED  ] the unreadable file: running as root and setpriv is missing\n";
    return;
  }
  const std::string err = vn::test::scratchDir() + "/special/stderr";
  auto asNobody = [&](const std::vector<std::string>& args) {
    std::string command = "setpriv --reuid=65534 --regid=65534 --clear-groups timeout -k 5 " +
                          std::to_string(kTimeout) + " " + shellQuote(VARNEL_CLI_PATH);
    for (const std::string& a : args)
      command += " " + shellQuote(a);
    CommandResult r;
    r.out = vn::test::runShell(command + " 2>" + shellQuote(err) + " </dev/null", &r.status);
    r.err = vn::test::runShell("cat " + shellQuote(err));
    return r;
  };
  runCase(unreadable, "unreadable", kFails, kFails, kFails, kFails, "0.5", false, asNobody);
}

}  // namespace
