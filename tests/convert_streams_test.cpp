// End-to-end: the tracks `varnel convert` chooses and keeps (each audio track its own stream,
// subtitles, languages, titles, dispositions, chapters, tags, colour) and the packets it copies,
// checked with ffprobe and the ffmpeg command line. tests/fixtures/README.md describes the media.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <regex>

#include "audio_analysis.h"
#include "test_support.h"

namespace {

using nlohmann::json;
using vn::test::fixture;
using vn::test::scratch;
namespace fs = std::filesystem;

// film.mkv's audio tracks, eng, fre (the default) and ger, are tones of these frequencies.
const double kTones[] = {440, 660, 880};
const char* const kChapters = "0.0-1.2 1.2-2.5 2.5-3.4 3.4-3.7 3.7-4.0";

json probe(const std::string& path,
           const std::string& options = "-show_streams -show_format -show_chapters") {
  return json::parse(
      vn::test::runShell("ffprobe -v error -of json " + options + " " + vn::test::shellQuote(path)),
      nullptr, false);
}

double number(const json& value) {
  return value.is_string() ? std::stod(value.get<std::string>()) : value.get<double>();
}

// A tag of a stream or of the format, whatever its case (Matroska writes most in capitals).
std::string tag(const json& object, const std::string& key) {
  const json tags = object.value("tags", json::object());
  for (const auto& [name, value] : tags.items()) {
    if (std::equal(name.begin(), name.end(), key.begin(), key.end(), [](char a, char b) {
          return std::tolower(static_cast<unsigned char>(a)) ==
                 std::tolower(static_cast<unsigned char>(b));
        }))
      return value.get<std::string>();
  }
  return "";
}

// The video, audio and subtitle streams (an MP4's chapter track is a data stream).
std::vector<json> mediaStreams(const json& p) {
  std::vector<json> all;
  for (const json& s : p.value("streams", json::array())) {
    if (s["codec_type"] == "video" || s["codec_type"] == "audio" || s["codec_type"] == "subtitle")
      all.push_back(s);
  }
  return all;
}

// Each stream as type:codec:language, with a * when it is a default one.
std::string streamList(const json& p) {
  std::string list;
  for (const json& s : mediaStreams(p)) {
    const std::string language = tag(s, "language");
    list += std::string(list.empty() ? "" : " ") + s["codec_type"].get<std::string>()[0] + ":" +
            s["codec_name"].get<std::string>() + ":" + (language.empty() ? "und" : language) +
            (s["disposition"]["default"] == 1 ? "*" : "");
  }
  return list;
}

// Whether a stream list is the one expected, where a ? stands for any codec or language.
bool listed(const std::string& expected, const std::string& list) {
  std::string pattern;
  for (char c : expected)
    pattern += c == '?' ? std::string("[^ :]*") : c == '*' ? std::string("\\*") : std::string(1, c);
  return std::regex_match(list, std::regex(pattern));
}

std::string titles(const json& p) {
  std::string all;
  for (const json& s : mediaStreams(p))
    all += "|" + tag(s, "title");
  return all.substr(std::min<size_t>(1, all.size()));
}

// The packets of one stream ("v:0", "a:1"...): time, duration, flags and data hash.
std::vector<json> packets(const std::string& path, const std::string& stream) {
  return probe(path, "-select_streams " + stream +
                         " -show_data_hash md5 -show_entries "
                         "packet=pts_time,duration_time,flags,data_hash")
      .value("packets", std::vector<json>{});
}

// Chapters as start-end, cues as start+duration, in seconds to the tenth (an encoder's priming
// may move a whole file by a few milliseconds).
std::string spans(const std::vector<json>& all, const char* from, const char* to, char sign) {
  std::string text;
  char span[40];
  for (const json& one : all) {
    std::snprintf(span, sizeof span, "%s%.1f%c%.1f", text.empty() ? "" : " ",
                  number(one.value(from, "nan")), sign, number(one.value(to, "0")));
    text += span;
  }
  return text;
}

std::string cues(const std::string& path, const char* stream) {
  return spans(packets(path, stream), "pts_time", "duration_time", '+');
}

// `varnel convert INPUT scratch(name) ARGS`, run once for every test that reads the output: one
// name, one command line.
struct Converted {
  std::string args;
  std::string path;
  vn::test::CommandResult run;
};
const Converted& converted(const std::string& input,
                           const std::string& name,
                           const std::string& args) {
  static std::map<std::string, Converted> made;
  const auto [at, fresh] = made.try_emplace(name);
  if (fresh) {
    at->second.args = args;
    at->second.path = scratch(name);
    at->second.run = vn::test::runVarnel(
        vn::test::words("convert " + fixture(input) + " " + at->second.path + " " + args));
  }
  EXPECT_EQ(at->second.args, args) << name;
  EXPECT_EQ(at->second.run.status, 0) << args << "\n" << at->second.run.err;
  return at->second;
}

// A conversion that fails with the exit status, one error line and no file.
void expectRefused(const char* input, const char* output, const char* args, int status) {
  SCOPED_TRACE(std::string(output) + " " + args);
  const std::string path = scratch(output);
  vn::test::expectError(
      vn::test::runVarnel(vn::test::words("convert " + fixture(input) + " " + path + " " + args)),
      status);
  EXPECT_FALSE(fs::exists(path));
}

// Signal-to-noise ratio of b against a, in dB, over their common length.
double snr(const std::vector<float>& a, const std::vector<float>& b) {
  double signal = 0, noise = 0;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    signal += double(a[i]) * a[i];
    noise += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
  }
  return a.empty() || b.empty() ? 0 : noise == 0 ? 99 : 10 * std::log10(signal / noise);
}

std::vector<float> track(const std::string& path, int audio) {
  return vn::test::decodeWithFfmpeg(path, "-map 0:a:" + std::to_string(audio), 1, 44100).channel(0);
}

}  // namespace

TEST(ConvertStreamsTest, KeepsTracksLanguagesTitlesDispositionsChaptersTagsAndColour) {
  struct Case {
    const char* output;
    const char* args;
    const char* streams;   // streamList, ? for any codec or language
    const char* titles;    // null: not checked (FFmpeg's MP4 writer keeps no track title)
    const char* chapters;  // start-end of each
    bool tags;             // title, artist, date and comment: all kept, or none left
    size_t warnings;       // one for each subtitle track the container cannot hold
  } cases[] = {
      {"default.mkv", "", "v:h264:und* a:aac:fre* s:subrip:eng* s:dvd_subtitle:fre",
       "|French stereo|English|French pictures", kChapters, true, 0},
      // MP4 holds DVD subpictures too, as FFmpeg writes them.
      {"default.mp4", "", "v:h264:und* a:aac:fre* s:mov_text:eng* s:dvd_subtitle:fre", nullptr,
       kChapters, true, 0},
      {"all.mkv", "--audio-tracks all --acodec alac",
       "v:h264:und* a:alac:eng a:alac:fre* a:alac:ger s:subrip:eng* s:dvd_subtitle:fre",
       "|English stereo|French stereo|German stereo|English|French pictures", kChapters, true, 0},
      {"all.mp4", "--audio-tracks all --subtitle-tracks 0",
       "v:h264:und* a:aac:eng a:aac:fre* a:aac:ger s:mov_text:eng*", nullptr, kChapters, true, 0},
      {"mix.mkv", "--audio-tracks 0,2 --mix --subtitle-tracks 1",
       "v:h264:und* a:aac:? s:dvd_subtitle:fre", nullptr, kChapters, true, 0},
      {"bare.mkv", "--no-metadata --subtitle-tracks none", "v:h264:und* a:aac:fre*",
       "|French stereo", "", false, 0},
      {"cut.mkv", "--start 1 --duration 2.6",
       "v:h264:und* a:aac:fre* s:subrip:eng* s:dvd_subtitle:fre",
       "|French stereo|English|French pictures", "0.0-0.2 0.2-1.5 1.5-2.4 2.4-2.6", true, 0},
      // Listed out of order, written in the input's.
      {"audio.mka", "--no-video --audio-tracks 2,1 --subtitle-tracks none", "a:?:fre* a:?:ger",
       "French stereo|German stereo", kChapters, true, 0},
      {"film.mpg", "", "v:mpeg2video:und a:mp2:und s:dvd_subtitle:und", nullptr, "", false, 1},
  };
  const json input = probe(fixture("film.mkv"))["format"];
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.output) + " " + c.args);
    const Converted& out = converted("film.mkv", c.output, c.args);
    if (out.run.status != 0)
      continue;
    const json p = probe(out.path);
    EXPECT_TRUE(listed(c.streams, streamList(p))) << streamList(p);
    if (c.titles) {
      EXPECT_EQ(titles(p), c.titles);
    }
    EXPECT_EQ(spans(p.value("chapters", std::vector<json>{}), "start_time", "end_time", '-'),
              c.chapters);
    for (const char* key : {"title", "artist", "date", "comment"})
      EXPECT_EQ(tag(p["format"], key), c.tags ? tag(input, key) : "") << key;
    size_t warnings = 0;
    for (const std::string& line : vn::test::lines(out.run.err))
      warnings += line.rfind("varnel: warning: ", 0) == 0;
    EXPECT_EQ(warnings, c.warnings) << out.run.err;
    // MPEG-1 video has nowhere to carry them.
    if (const json* v = vn::test::streamOf(p, "video"); v && (*v)["codec_name"] == "h264") {
      EXPECT_EQ(v->value("color_primaries", "") + " " + v->value("color_transfer", "") + " " +
                    v->value("color_space", "") + " " + v->value("color_range", ""),
                "bt709 bt709 bt709 tv");
    }
  }
  EXPECT_TRUE(vn::test::noTemporaryFiles());
}

// Each chosen track decodes to its own input track (ALAC is lossless); a mix is their average.
TEST(ConvertStreamsTest, AudioStreamsHoldTheirOwnTracks) {
  const std::string in = fixture("film.mkv");
  const Converted& all = converted("film.mkv", "all.mkv", "--audio-tracks all --acodec alac");
  for (int i = 0; i < 3; ++i)
    EXPECT_GE(snr(track(in, i), track(all.path, i)), 40) << "stream " << i;

  const Converted& mix =
      converted("film.mkv", "mix.mkv", "--audio-tracks 0,2 --mix --subtitle-tracks 1");
  const std::vector<float> mixed = track(mix.path, 0);
  const double full = vn::test::toneAmplitude(track(in, 0), 44100, kTones[0]);
  EXPECT_NEAR(vn::test::toneAmplitude(mixed, 44100, kTones[0]), full / 2, full / 8);
  EXPECT_NEAR(vn::test::toneAmplitude(mixed, 44100, kTones[2]), full / 2, full / 8);
  EXPECT_LT(vn::test::toneAmplitude(mixed, 44100, kTones[1]), full / 20);
}

// Cues keep their times on a whole conversion and move with a cut; those outside it are left out.
TEST(ConvertStreamsTest, SubtitleTimesFollowTheCut) {
  const Converted& whole = converted("film.mkv", "default.mkv", "");
  EXPECT_EQ(cues(whole.path, "s:0"), "0.3+0.6 1.6+0.8 3.7+0.2");
  EXPECT_EQ(cues(whole.path, "s:1"), "1.5+2.0");
  const Converted& cut = converted("film.mkv", "cut.mkv", "--start 1 --duration 2.6");
  EXPECT_EQ(cues(cut.path, "s:0"), "0.6+0.8");
  EXPECT_EQ(cues(cut.path, "s:1"), "0.5+2.0");
  EXPECT_NEAR(vn::test::probedDuration(cut.path), 2.6, 0.1);
}

TEST(ConvertStreamsTest, AudioOnlyContainersHoldTheDefaultTrackAlone) {
  const std::pair<const char*, const char*> cases[] = {
      {"audio.m4a", "aac"},   {"audio.wav", "pcm_s16le"}, {"audio.flac", "flac"},
      {"audio.opus", "opus"}, {"audio.mp3", "mp3"},       {"audio.ogg", "vorbis"},
  };
  for (const auto& [name, codec] : cases) {
    SCOPED_TRACE(name);
    const Converted& out = converted("film.mkv", name, "");
    if (out.run.status != 0)
      continue;
    const json p = probe(out.path);
    EXPECT_EQ(vn::test::streamOf(p, "video"), nullptr);  // nor a cover picture
    const json* audio = vn::test::streamOf(p, "audio");
    ASSERT_TRUE(audio);
    EXPECT_EQ(streamList(p).find(" a:"), std::string::npos) << streamList(p);  // one audio stream
    EXPECT_EQ((*audio)["codec_name"], codec);
    if (std::string(codec) == "opus") {
      EXPECT_EQ(number((*audio)["sample_rate"]), 48000);
    }
    EXPECT_NEAR(number(p["format"]["duration"]), 4.0, 0.1);
    // The tone of the default track, from the first sample on (no lost packet).
    const std::vector<float> sound = track(out.path, 0);
    const auto first =
        std::find_if(sound.begin(), sound.end(), [](float x) { return std::abs(x) > 1e-2f; });
    EXPECT_LT(first - sound.begin(), 441) << "samples of silence before the tone";
    EXPECT_GT(vn::test::toneAmplitude(sound, 44100, kTones[1]), 0.1);
    EXPECT_LT(vn::test::toneAmplitude(sound, 44100, kTones[0]), 0.01);
  }
}

// two_video.mkv: a good track, then an empty one that claims to be the default.
TEST(ConvertStreamsTest, VideoTrackThatDecodesIsChosen) {
  const std::string in = fixture("two_video.mkv");
  const Converted& out = converted("two_video.mkv", "two_video.mkv", "");
  ASSERT_EQ(out.run.status, 0);
  const json p = probe(out.path, "-count_packets -show_streams");
  ASSERT_TRUE(listed("v:h264:? a:?:fre*", streamList(p))) << streamList(p);
  EXPECT_EQ(number((*vn::test::streamOf(p, "video"))["nb_read_packets"]),
            packets(in, "v:0").size());
  expectRefused("two_video.mkv", "empty_track.mkv", "--video-track 1", 1);
}

TEST(ConvertStreamsTest, UsageErrorsWriteNothing) {
  const std::pair<const char*, const char*> cases[] = {
      {"film.mkv", "--audio-tracks 3"},     {"film.mkv", "--audio-tracks 0,x"},
      {"film.mkv", "--audio-tracks 0,,1"},  {"film.mkv", "--subtitle-tracks 2"},
      {"film.mkv", "--video-track 1"},      {"two_video.mkv", "--video-track 2"},
      {"film.mkv", "--no-video --no-audio"}};
  for (const auto& [input, args] : cases)
    expectRefused(input, "usage.mkv", args, 2);
}

TEST(ConvertStreamsTest, CopyKeepsEveryPacket) {
  const auto hashes = [](const std::string& path, const char* stream) {
    std::vector<json> all = packets(path, stream);
    for (json& packet : all)
      packet = packet["data_hash"];
    return all;
  };
  const struct {
    const char *input, *output, *args;
    std::vector<std::pair<const char*, const char*>> streams;  // of the output, of the input
  } cases[] = {
      {"dubbed.mp4",
       "dubbed.mkv",
       "--audio-tracks all",
       {{"v:0", "v:0"}, {"a:0", "a:0"}, {"a:1", "a:1"}}},
      {"film.mkv", "film_copy.mkv", "", {{"v:0", "v:0"}, {"a:0", "a:1"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.output);
    const Converted& out =
        converted(c.input, c.output, std::string("--vcodec copy --acodec copy ") + c.args);
    for (const auto& [ours, theirs] : c.streams)
      EXPECT_EQ(hashes(out.path, ours), hashes(fixture(c.input), theirs)) << ours;
  }

  // From the keyframe at or before the start (dubbed.mp4 has one every 0.8 s), to the end.
  const std::vector<json> source = packets(fixture("dubbed.mp4"), "v:0");
  size_t key = 0;
  for (size_t i = 0; i < source.size(); ++i) {
    if (source[i]["flags"].get<std::string>()[0] == 'K' && number(source[i]["pts_time"]) <= 1.0)
      key = i;
  }
  ASSERT_NEAR(number(source[key]["pts_time"]), 0.8, 1e-6);
  const std::vector<json> cut =
      packets(converted("dubbed.mp4", "start.mp4", "--vcodec copy --start 1").path, "v:0");
  ASSERT_FALSE(cut.empty());
  EXPECT_EQ(cut[0]["flags"].get<std::string>()[0], 'K');
  EXPECT_EQ(cut[0]["data_hash"], source[key]["data_hash"]);
  EXPECT_EQ(cut.size(), source.size() - key);

  // H.264 in Ogg video, AAC in Ogg.
  expectRefused("film.mkv", "h264.ogv", "--vcodec copy", 1);
  expectRefused("dubbed.mp4", "aac.ogg", "--acodec copy", 1);
}
