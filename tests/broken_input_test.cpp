// End-to-end: every command on broken inputs (tests/broken/README.md) does what it can with what is
// readable, or fails within ten seconds with one error line naming the input, exit 1, nothing left.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using vn::test::CommandResult;
using vn::test::entries;
using vn::test::lines;
using vn::test::shellQuote;

constexpr int kTimeout = 10;

struct Case {
  const char* group;  // the test the case runs in
  const char* files;  // in the fixtures' broken/ folder
  // Of info, frame, thumbnail and convert, each: o, exit 0 with an output ffprobe reads; x, exit 1
  // with one error line (after any warnings) and no output.
  const char* outcomes;
  // Every run that opens the cut says how many of its bytes are there.
  bool declaresSize = false;
  const char* at = "0.5";  // frame -t, inside the container's duration
  bool subtitles = false;  // info reads it, the others draw it over h264_aac.mp4
};

// One file for each way a container breaks; a second cut that behaves as the first is left out.
// clang-format off
const Case kCases[] = {
    // An MP4 keeps its index at the end: no cut of it opens, as in ffprobe.
    {"mp4", "cut50_h264_aac.mp4 moov_zeroed.mp4 header_h264_aac.mp4 prefix_h264_aac.mp4", "xxxx"},
    {"mp4", "flips_h264_aac.mp4", "oooo"},
    // The index says 10 s; not one picture can be decoded.
    {"mp4", "first_frame.mp4", "oxxx", true},
    // With its index in front, 30 % of it opens and converts as far as it goes.
    {"mp4", "../truncated_faststart.mp4", "oooo", true},
    // Matroska states its size: a cut is known and read as far as it goes; converting less than a
    // second of it fails. 1 % holds 0.2 s, 10 % 0.68 s.
    {"mkv", "cut1_multitrack.mkv", "oxox", true},
    {"mkv", "cut10_multitrack.mkv", "ooox", true},
    {"mkv", "cues_zeroed.mkv flips_multitrack.mkv", "oooo"},
    {"mkv", "header_multitrack.mkv", "xxxx"},
    // A transport stream has no size to miss: a cut is a shorter stream.
    {"ts", "cut1_h264_2997.ts flips_h264_2997.ts prefix_h264_2997.ts", "oooo"},
    // Its audio, but no picture: ffmpeg gives up on the video, and so does convert.
    {"ts", "first_frame.ts", "oxxx", false, "0"},
    // A program stream cut at 1 % is 0.04 s long.
    {"mpg", "cut1_mpeg2_mp2.mpg", "oooo", false, "0"},
    {"mpg", "cut50_mpeg2_mp2.mpg flips_mpeg2_mp2.mpg", "oooo"},
    // ASF states its size; cut before its index, it gives no duration.
    {"wmv", "cut1_wmv2_wmav2.wmv", "oxox", true},
    {"wmv", "cut50_wmv2_wmav2.wmv", "oooo", true},
    {"wmv", "header_wmv2_wmav2.wmv", "xxxx"},
    // RealMedia keeps its duration in front; at 1 % no picture is whole.
    {"rm", "cut1_rv20_ac3.rm", "oxxx"},
    {"rm", "cut50_rv20_ac3.rm", "oooo"},
    // Audio only: no picture. The MP3's cover is cut at 1 % (nor does ffprobe open it); its Xing
    // header states its size.
    {"audio", "cut1_mp3_cover.mp3", "xxxx"},
    {"audio", "cut10_mp3_cover.mp3", "oxxx", true},
    {"audio", "prefix_mp3_cover.mp3 cut50_ac3_51.ac3", "oxxo"},
    // A disc image cut before its title set's IFO is no disc; after it, its VOBs read to the cut.
    {"dvd", "cut10_dvd.iso", "xxxx"},
    {"dvd", "cut50_dvd.iso", "oooo"},
    // Cues that are not UTF-8 and times that make no sense are drawn or left out.
    {"other", "bad.srt", "oooo", false, "1.5", true},
    {"other", "zero.mp4 folder.mp4", "xxxx"},
};
// clang-format on

// The folder of one case's outputs, made empty.
std::string outputFolder(const std::string& name) {
  const std::string dir = vn::test::scratchDir() + "/broken/" + fs::path(name).filename().string();
  fs::remove_all(dir);
  fs::create_directories(dir);
  // Writable by anyone: a run as another user writes here too.
  fs::permissions(dir, fs::perms::all);
  return dir;
}

// What every run on a cut of a medium that states its size says.
std::string truncation(const std::string& input) {
  const std::string name = fs::path(input).filename().string();
  const std::string whole =
      name.rfind("cut", 0) == 0 ? name.substr(name.find('_') + 1) : std::string("h264_aac.mp4");
  return "'" + input + "': truncated: " + std::to_string(fs::file_size(input)) + " of " +
         std::to_string(fs::file_size(vn::test::fixture(whole))) + " bytes present";
}

// One run's output file, alone in its folder ("" for info); what a cut input's lines say, or "".
void check(const CommandResult& r,
           bool ok,
           const std::string& input,
           const std::string& output,
           const std::string& says) {
  const std::vector<std::string> err = lines(r.err);
  auto count = [&](const std::string& prefix) {
    return std::count_if(err.begin(), err.end(),
                         [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
  };
  const auto errors = count("varnel: error: "), warnings = count("varnel: warning: ");
  const bool truncated = r.err.find("truncated: ") != std::string::npos;
  EXPECT_TRUE(says.empty() ? !truncated : !truncated || r.err.find(says) != std::string::npos)
      << r.err;
  const std::string folder = output.empty() ? "" : fs::path(output).parent_path().string();
  if (ok) {
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(errors, 0) << r.err;
    EXPECT_TRUE(says.empty() || err == std::vector<std::string>{"varnel: warning: " + says})
        << r.err;
    if (output.empty()) {
      // The streams and the duration FFmpeg gives, not how much of it is there.
      const json ours = json::parse(r.out, nullptr, false), theirs = vn::test::ffprobe(input);
      ASSERT_TRUE(ours.is_object()) << r.out;
      if (fs::path(input).extension() == ".iso")
        return;  // a disc, which ffprobe reads as one stream file
      EXPECT_EQ(ours["streams"].size(), theirs["streams"].size());
      if (theirs["format"].contains("duration"))
        EXPECT_NEAR(ours["duration"].is_number() ? ours["duration"].get<double>() : -1,
                    std::stod(theirs["format"]["duration"].get<std::string>()), 0.01);
      else
        EXPECT_TRUE(ours["duration"].is_null()) << r.out;
      return;
    }
    ASSERT_TRUE(fs::exists(output)) << r.err;
    const json probe = vn::test::ffprobe(output);
    EXPECT_FALSE(probe.value("streams", json::array()).empty()) << output;
    EXPECT_EQ(entries(folder), std::vector<std::string>{fs::path(output).filename().string()});
  } else {
    ASSERT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(std::pair(errors, errors + warnings),
              std::pair(long{1}, static_cast<long>(err.size())))
        << r.err;
    EXPECT_EQ(err.empty() ? "" : err.back().substr(0, 15), "varnel: error: ") << r.err;
    EXPECT_NE(r.err.find("'" + input + "'"), std::string::npos) << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
    EXPECT_TRUE(folder.empty() || entries(folder).empty()) << "left behind in " << folder;
  }
}

// The four commands on input, as the case expects.
void runCase(const std::string& input, const Case& c, bool asNobody = false) {
  SCOPED_TRACE(input);
  const std::string dir = outputFolder(input);
  const std::string media = c.subtitles ? vn::test::fixture("h264_aac.mp4") : input;
  const std::string says = c.declaresSize ? truncation(input) : "";
  const std::string out[] = {"", dir + "/frame.png", dir + "/thumb.png", dir + "/converted.mp4"};
  const std::vector<std::string> commands[] = {{"info", input, "--json"},
                                               {"frame", media, "-t", c.at, "-o", out[1]},
                                               {"thumbnail", media, "-o", out[2]},
                                               {"convert", media, out[3], "--duration", "1"}};
  for (size_t i = 0; i < std::size(commands); ++i) {
    std::vector<std::string> args = commands[i];
    if (c.subtitles && i > 0)
      args.insert(args.end(), {"--subtitles", input});
    SCOPED_TRACE(args[0] + (i == 1 ? std::string(" -t ") + c.at : ""));
    // As the user nobody when asked: root reads a file whatever its bits say.
    const CommandResult r = vn::test::runVarnel(
        args, {}, kTimeout, asNobody ? "setpriv --reuid=65534 --regid=65534 --clear-groups" : "");
    check(r, c.outcomes[i] == 'o', input, out[i], says);
    if (!out[i].empty())
      fs::remove(out[i]);
  }
}

class BrokenInputTest : public testing::TestWithParam<std::string> {};

TEST_P(BrokenInputTest, EveryCommandReadsWhatItCanOrFailsCleanly) {
  int count = 0;
  for (const Case& c : kCases) {
    if (c.group != GetParam())
      continue;
    for (const std::string& file : vn::test::words(c.files)) {
      ++count;
      const std::string input = vn::test::fixture("broken/" + file);
      // Not every ffmpeg writes RealMedia; without the good file there are no cuts of it.
      if (file.find(".rm") != std::string::npos && !fs::exists(vn::test::fixture("rv20_ac3.rm"))) {
        std::cout << "[ SKIPPED  ] " << file << ": this ffmpeg cannot write RealMedia\n";
        continue;
      }
      ASSERT_TRUE(fs::exists(input)) << "made by tests/broken/make_broken.sh";
      runCase(input, c);
    }
  }
  EXPECT_GT(count, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Groups,
    BrokenInputTest,
    testing::Values("mp4", "mkv", "ts", "mpg", "wmv", "rm", "audio", "dvd", "other"),
    [](const testing::TestParamInfo<std::string>& p) { return p.param; });

// The latest end (pts + duration) of a cut file's packets after its start ("V": no covers).
double readableSeconds(const std::string& path) {
  double end = -1;
  for (const char* streams : {"V", "a"}) {
    for (const std::string& row : lines(vn::test::runShell(
             std::string("ffprobe -v quiet -select_streams ") + streams +
             " -show_entries packet=pts_time,dts_time,duration_time -of csv=p=0 " +
             shellQuote(path)))) {
      double pts = NAN, dts = NAN, duration = 0;
      std::sscanf(row.c_str(), "%lf,%lf,%lf", &pts, &dts, &duration);
      const double at = std::isnan(pts) ? dts : pts;
      if (!std::isnan(at))
        end = std::max(end, at + (std::isnan(duration) ? 0 : duration));
    }
  }
  const json format = vn::test::ffprobe(path)["format"];
  return end -
         (format.contains("start_time") ? std::stod(format["start_time"].get<std::string>()) : 0);
}

// A cut file converts as far as it can be read; progress ends at 100 %, never going back.
TEST(TruncatedTest, ConversionsRunToTheEndOfWhatCanBeRead) {
  for (const char* file :
       {"cut50_multitrack.mkv", "cut90_wmv2_wmav2.wmv", "cut50_mp3_cover.mp3",
        "cut50_mpeg2_mp2.mpg", "cut10_h264_2997.ts", "../truncated_faststart.mp4"}) {
    SCOPED_TRACE(file);
    const std::string input = vn::test::fixture(std::string("broken/") + file);
    const std::string output = outputFolder(input) + "/whole.mkv";
    const CommandResult r =
        vn::test::runVarnel({"convert", input, output, "--progress", "json"}, {}, 60);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NEAR(vn::test::probedDuration(output), readableSeconds(input), 1.0);
    double last = -1;
    for (const std::string& line : lines(r.err)) {
      if (line.rfind("{", 0) != 0)
        continue;
      const json p = json::parse(line, nullptr, false);
      ASSERT_TRUE(p.is_object()) << line;
      EXPECT_TRUE(p["percent"] >= last && p["percent"] <= 100.0 && p["eta"] >= 0.0) << line;
      last = p["percent"].get<double>();
    }
    EXPECT_DOUBLE_EQ(last, 100.0);
  }
}

// A named pipe (opening it would wait forever) and a file without read permission.
TEST(BrokenInputSpecialTest, PipesAndUnreadableFilesFailAtOnce) {
  const std::string fifo = vn::test::scratch("pipe.mp4");
  fs::remove(fifo);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  const Case failing = {"", "", "xxxx"};
  runCase(fifo, failing);
  int status = 0;
  vn::test::runShell("command -v setpriv >/dev/null", &status);
  if (geteuid() == 0 && status != 0)
    GTEST_SKIP() << "the unreadable file: running as root and setpriv is missing";
  runCase(vn::test::fixture("broken/unreadable.mp4"), failing, geteuid() == 0);
}

}  // namespace
