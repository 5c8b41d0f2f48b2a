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

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using vn::test::CommandResult;
using vn::test::entries;
using vn::test::lines;
using vn::test::shellQuote;

// Every run is stopped after this long; one that is stopped fails its case.
constexpr int kTimeout = 10;

struct Case {
  const char* group;  // the test the case runs in
  const char* files;  // in the fixtures' broken/ folder; cut% is each of the four cuts
  // Of info, frame, thumbnail and convert, each: o, exit 0 with the output
  // there and read by ffprobe; x, exit 1 with one error line (after any
  // warnings) and no output.
  const char* outcomes;
  const char* at = "0.5";  // frame -t, inside the container's duration
  // The file is a subtitle: info reads it, the other commands draw it over
  // h264_aac.mp4.
  bool subtitles = false;
};

// clang-format off
const Case kCases[] = {
    // An MP4 or M4A keeps its index at the end: no cut of it opens, as in ffprobe.
    {"mp4", "cut%_h264_aac.mp4 cut%_aac.m4a moov_zeroed.mp4 header_h264_aac.mp4 "
            "prefix_h264_aac.mp4", "xxxx"},
    {"mp4", "flips_h264_aac.mp4", "oooo"},
    // The index says 10 s; not one picture can be decoded.
    {"mp4", "first_frame.mp4", "oxxx"},
    // Matroska states its size: a cut is known, read as far as it goes, and a
    // conversion of less than a second of it fails. 1 % holds 0.2 s, 10 % 0.68 s.
    {"mkv", "cut1_multitrack.mkv", "oxox"},
    {"mkv", "cut10_multitrack.mkv", "ooox"},
    {"mkv", "cut50_multitrack.mkv cut90_multitrack.mkv cues_zeroed.mkv flips_multitrack.mkv", "oooo"},
    {"mkv", "header_multitrack.mkv", "xxxx"},
    // A transport stream has no size to miss: every cut is a shorter stream.
    {"ts", "cut%_h264_2997.ts flips_h264_2997.ts prefix_h264_2997.ts", "oooo"},
    // Its audio, but no picture: ffmpeg gives up on the video, and so does convert.
    {"ts", "first_frame.ts", "oxxx", "0"},
    // A program stream cut at 1 % or 10 % is 0.04 s or 0.24 s long.
    {"mpg", "cut1_mpeg2_mp2.mpg cut10_mpeg2_mp2.mpg", "oooo", "0"},
    {"mpg", "cut50_mpeg2_mp2.mpg cut90_mpeg2_mp2.mpg flips_mpeg2_mp2.mpg", "oooo"},
    // ASF states its size; cut before its index, it gives no duration.
    {"wmv", "cut1_wmv2_wmav2.wmv cut10_wmv2_wmav2.wmv", "oxox"},
    {"wmv", "cut50_wmv2_wmav2.wmv cut90_wmv2_wmav2.wmv", "oooo"},
    {"wmv", "header_wmv2_wmav2.wmv", "xxxx"},
    // RealMedia keeps its duration in front; at 1 % no picture is whole.
    {"rm", "cut1_rv20_ac3.rm", "oxxx"},
    {"rm", "cut10_rv20_ac3.rm", "oxox"},
    {"rm", "cut50_rv20_ac3.rm cut90_rv20_ac3.rm", "oooo"},
    // Audio only: no picture to take. The MP3's cover is cut at 1 %, which
    // ffprobe cannot open either; its Xing header states its size.
    {"audio", "cut1_mp3_cover.mp3", "xxxx"},
    {"audio", "cut10_mp3_cover.mp3", "oxxx"},
    {"audio", "cut50_mp3_cover.mp3 cut90_mp3_cover.mp3 prefix_mp3_cover.mp3 cut%_ac3_51.ac3", "oxxo"},
    // A disc image cut before its title set's IFO is no disc; after it, the
    // title reads as far as its VOBs go.
    {"dvd", "cut1_dvd.iso cut10_dvd.iso", "xxxx"},
    {"dvd", "cut50_dvd.iso cut90_dvd.iso", "oooo"},
    // Cues that are not UTF-8 and times that make no sense are drawn or left out.
    {"other", "bad.srt", "oooo", "1.5", true},
    {"other", "zero.mp4 folder.mp4", "xxxx"},
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

// Checks one run against its outcome; output is the file it writes ("" for
// info), in a folder of its own.
void check(const CommandResult& r, bool ok, const std::string& output) {
  const std::vector<std::string> err = lines(r.err);
  const auto errors = std::count_if(err.begin(), err.end(), [](const std::string& l) {
    return l.rfind("varnel: error: ", 0) == 0;
  });
  const auto warnings = std::count_if(err.begin(), err.end(), [](const std::string& l) {
    return l.rfind("varnel: warning: ", 0) == 0;
  });
  const std::string folder = output.empty() ? "" : fs::path(output).parent_path().string();
  if (ok) {
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
             const std::string& outcomes,
             const std::string& at,
             bool subtitles,
             Run run) {
  const std::string dir = outputFolder(name);
  const std::string media = subtitles ? vn::test::fixture("h264_aac.mp4") : input;
  const std::string out[] = {"", dir + "/frame.png", dir + "/thumb.png", dir + "/converted.mp4"};
  const std::vector<std::string> commands[] = {{"info", input},
                                               {"frame", media, "-t", at, "-o", out[1]},
                                               {"thumbnail", media, "-o", out[2]},
                                               {"convert", media, out[3], "--duration", "1"}};
  for (size_t i = 0; i < std::size(commands); ++i) {
    std::vector<std::string> args = commands[i];
    if (subtitles && i > 0)
      args.insert(args.end(), {"--subtitles", input});
    SCOPED_TRACE(args[0] + (i == 1 ? " -t " + at : ""));
    check(run(args), outcomes[i] == 'o', out[i]);
    if (!out[i].empty())
      fs::remove(out[i]);
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
    for (const std::string& pattern : vn::test::words(c.files)) {
      for (const char* percent : {"1", "10", "50", "90"}) {
        std::string file = pattern;
        if (const size_t at = file.find('%'); at != std::string::npos)
          file.replace(at, 1, percent);
        else if (percent != std::string("1"))
          break;
        ++count;
        SCOPED_TRACE(file);
        const std::string input = vn::test::fixture("broken/" + file);
        // Not every ffmpeg writes RealMedia; without the good file there are no cuts of it.
        if (file.find(".rm") != std::string::npos &&
            !fs::exists(vn::test::fixture("rv20_ac3.rm"))) {
          std::cout << "[ SKIPPED  ] " << file << ": this ffmpeg cannot write RealMedia\n";
          continue;
        }
        ASSERT_TRUE(fs::exists(input)) << "made by tests/broken/make_broken.sh";
        runCase(input, file, c.outcomes, c.at, c.subtitles, runPlain);
      }
    }
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
    runCase(fifo, "pipe", "xxxx", "0", false, runPlain);
  }

  // Root reads a file whatever its permission bits say: the runs are then
  // made as the user nobody, whom they stop.
  const std::string unreadable = vn::test::fixture("broken/unreadable.mp4");
  ASSERT_TRUE(fs::exists(unreadable));
  SCOPED_TRACE("a file without read permission");
  if (geteuid() != 0) {
    runCase(unreadable, "unreadable", "xxxx", "0.5", false, runPlain);
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
  runCase(unreadable, "unreadable", "xxxx", "0.5", false, asNobody);
}

}  // namespace
