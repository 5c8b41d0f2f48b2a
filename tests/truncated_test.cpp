// End-to-end: files cut short, as a partial download leaves them, are read
// as far as they go. Every good medium is cut at several points; what
// ffprobe opens, `varnel info` shows and `varnel convert` converts.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>

#include "test_support.h"

namespace {

using nlohmann::json;
using vn::test::entries;
using vn::test::lines;
using vn::test::shellQuote;
namespace fs = std::filesystem;

// Every CLI run is cut off after this long: a run that hangs on a file
// ending early fails instead of stalling the suite.
constexpr int kTimeout = 60;

struct Medium {
  const char* name;
  // Whether the container says how big the file is, so a cut copy is known
  // to be cut: an MP4 index at the front, a Matroska segment size, an ASF
  // file size, an MP3 Xing byte count. The MP4 and M4A files made by ffmpeg
  // keep their index at the end, so no cut of them opens.
  bool declaresSize;
};

const Medium kMedia[] = {
    {"h264_aac.mp4", false},  {"multitrack.mkv", true}, {"h264_23976.mp4", false},
    {"mpeg2_mp2.mpg", false}, {"wmv2_wmav2.wmv", true}, {"aac.m4a", false},
    {"mp3_cover.mp3", true},  {"faststart.mp4", true},
};

// Just past the headers (under a second of media), a little of the media,
// and most of it.
const int kPercents[] = {5, 30, 60, 90};

struct Cut {
  std::string path;  // .../30-faststart.mp4 for faststart.mp4 cut at 30 %
  int64_t size = 0;
  int64_t wholeSize = 0;
  bool declaresSize = false;
  bool ffprobeOpens = false;
  json probe;           // ffprobe's -show_format -show_streams
  double readable = 0;  // seconds of audio and video present
};

// The media as they were made, with the faststart copy made here: an MP4
// whose index comes before its media, as a file meant to be played while it
// downloads.
std::string wholeFile(const std::string& name) {
  if (name != "faststart.mp4")
    return vn::test::fixture(name);
  const std::string path = vn::test::scratchDir() + "/faststart.mp4";
  if (!fs::exists(path)) {
    vn::test::runShell("ffmpeg -hide_banner -loglevel error -nostdin -y -i " +
                       shellQuote(vn::test::fixture("h264_aac.mp4")) +
                       " -c copy -movflags +faststart " + shellQuote(path));
  }
  return path;
}

// The latest end (pts + duration) of the packets ffprobe lists for one kind
// of stream, in seconds; -1 when there are none.
double lastPacketEnd(const std::string& path, const char* streams) {
  const std::string rows = vn::test::runShell(
      std::string("ffprobe -v quiet -select_streams ") + streams +
      " -show_entries packet=pts_time,dts_time,duration_time -of csv=p=0 " + shellQuote(path));
  double end = -1;
  std::istringstream in(rows);
  for (std::string row; std::getline(in, row);) {
    double pts = NAN, dts = NAN, duration = 0;
    std::sscanf(row.c_str(), "%lf,%lf,%lf", &pts, &dts, &duration);
    const double at = std::isnan(pts) ? dts : pts;
    if (!std::isnan(at))
      end = std::max(end, at + (std::isnan(duration) ? 0 : duration));
  }
  return end;
}

// How much of a cut can be read: the end of the last audio or video packet
// the demuxer gives before the file runs out, after the start. Packets, not
// decoded frames, because they are what the file holds: a decoder's delay,
// ffmpeg's frame duplication and the encoder's padding in `ffmpeg -f null`
// each move a decoded end by a frame or more. "V" leaves cover pictures out;
// subtitles are not played, so they are left out too.
double readableSeconds(const std::string& path, const json& probe) {
  const double end = std::max(lastPacketEnd(path, "V"), lastPacketEnd(path, "a"));
  const json& format = probe["format"];
  const double start =
      format.contains("start_time") ? std::stod(format["start_time"].get<std::string>()) : 0;
  return std::max(0.0, end - start);
}

const std::vector<Cut>& cuts() {
  static const std::vector<Cut> all = [] {
    const std::string dir = vn::test::scratchDir() + "/cuts";
    fs::create_directories(dir);
    std::vector<Cut> list;
    for (const Medium& m : kMedia) {
      const std::string whole = wholeFile(m.name);
      for (int percent : kPercents) {
        Cut c;
        c.path = dir + "/" + std::to_string(percent) + "-" + m.name;
        c.wholeSize = static_cast<int64_t>(fs::file_size(whole));
        c.size = c.wholeSize * percent / 100;
        c.declaresSize = m.declaresSize;
        fs::copy_file(whole, c.path, fs::copy_options::overwrite_existing);
        fs::resize_file(c.path, static_cast<uintmax_t>(c.size));
        c.probe = vn::test::ffprobe(c.path);
        c.ffprobeOpens = c.probe.contains("format");
        if (c.ffprobeOpens)
          c.readable = readableSeconds(c.path, c.probe);
        list.push_back(c);
      }
    }
    return list;
  }();
  return all;
}

std::string warningFor(const Cut& c) {
  return "varnel: warning: '" + c.path + "': truncated: " + std::to_string(c.size) + " of " +
         std::to_string(c.wholeSize) + " bytes present";
}

}  // namespace

TEST(TruncatedTest, InfoShowsAndConvertWritesWhatCanBeRead) {
  int opened = 0, warned = 0, converted = 0, refused = 0;
  for (const Cut& c : cuts()) {
    SCOPED_TRACE(c.path + " (" + std::to_string(c.readable) + " s readable)");
    const std::vector<std::string> warning =
        c.declaresSize ? std::vector<std::string>{warningFor(c)} : std::vector<std::string>{};
    vn::test::CommandResult r = vn::test::runVarnel({"info", c.path, "--json"}, {}, kTimeout);
    if (!c.ffprobeOpens) {
      vn::test::expectError(r, 1, "cannot open '" + c.path + "': ");
    } else {
      ++opened;
      warned += c.declaresSize;
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_EQ(lines(r.err), warning);
      const json ours = json::parse(r.out, nullptr, false);
      ASSERT_FALSE(ours.is_discarded()) << r.out;
      EXPECT_EQ(ours["streams"].size(), c.probe["streams"].size());
      // The duration FFmpeg gives, not how much of it is there.
      if (c.probe["format"].contains("duration")) {
        ASSERT_TRUE(ours["duration"].is_number()) << r.out;
        EXPECT_NEAR(ours["duration"].get<double>(),
                    std::stod(c.probe["format"]["duration"].get<std::string>()), 0.01);
      } else {
        EXPECT_TRUE(ours["duration"].is_null()) << r.out;
      }
    }

    const std::string dir =
        vn::test::scratchDir() + "/converted-" + fs::path(c.path).stem().string();
    fs::create_directories(dir);
    const std::string output = dir + "/out.mkv";
    r = vn::test::runVarnel({"convert", c.path, output, "--progress", "json"}, {}, kTimeout);
    ASSERT_TRUE(r.status == 0 || r.status == 1) << r.status << "\n" << r.err;
    // The lines varnel itself writes on stderr (not progress).
    std::vector<std::string> said, progress;
    for (const std::string& line : lines(r.err)) {
      if (line.rfind("varnel: ", 0) == 0)
        said.push_back(line);
      else if (line.rfind("{", 0) == 0)
        progress.push_back(line);
    }
    if (r.status == 1) {
      ++refused;
      // A cut with a good second or more in it is converted.
      EXPECT_FALSE(c.ffprobeOpens && c.readable >= 1.2);
      ASSERT_EQ(said.size(), 1u) << r.err;
      EXPECT_EQ(said[0].rfind("varnel: error: cannot ", 0), 0u) << r.err;
      EXPECT_NE(said[0].find("'" + c.path + "': "), std::string::npos) << r.err;
      EXPECT_TRUE(entries(dir).empty()) << entries(dir).front();
      continue;
    }
    ++converted;
    ASSERT_TRUE(c.ffprobeOpens);
    // Less than a second of a file known to be cut is refused.
    EXPECT_FALSE(c.declaresSize && c.readable < 0.8);
    EXPECT_EQ(said, warning);
    EXPECT_EQ(entries(dir), std::vector<std::string>{"out.mkv"});
    EXPECT_NEAR(vn::test::probedDuration(output), c.readable, 1.0);
    // Progress ends at 100 % however early the input ended, and never goes
    // back or past it.
    double last = -1;
    for (const std::string& line : progress) {
      const json p = json::parse(line, nullptr, false);
      ASSERT_TRUE(p.is_object()) << line;
      EXPECT_GE(p["percent"].get<double>(), last);
      EXPECT_LE(p["percent"].get<double>(), 100.0);
      EXPECT_GE(p["eta"].get<double>(), 0.0);
      last = p["percent"].get<double>();
    }
    EXPECT_DOUBLE_EQ(last, 100.0);
  }
  // Every medium but the three with their index at the end opens at 30 %.
  EXPECT_GE(opened, 15);
  EXPECT_GE(warned, 12);
  EXPECT_GE(converted, 15);
  EXPECT_GE(refused, 9);  // the cuts ffprobe refuses, and those with under a second
}
