// End-to-end: DVD-Video discs in `varnel info`, `convert` and `frame`, lsdvd reading them too.

#include <cmath>
#include <cstdio>
#include <set>
#include <sstream>

#include "audio_analysis.h"
#include "core/varnel.h"
#include "test_support.h"

namespace {

using vn::test::fixture;
using vn::test::frameOf;
using vn::test::probedDuration;
using vn::test::runVarnel;
using vn::test::scratch;
using Json = nlohmann::json;

// Title 1's English subpicture: 160x48 at (280, 400), a red ring 16 px wide around white.
constexpr int kSpuCentreX = 280 + 80, kSpuCentreY = 400 + 24, kSpuRingX = 280 + 8;

// What lsdvd says of a title: its title set and number in it, standard, aspect, cells, languages.
struct LsdvdTitle {
  int vts = 0, ttn = 0, cells = 0;
  std::string format, aspect;
  std::vector<std::string> audioCodes, subtitleCodes;
  double length = 0;             // seconds
  std::vector<double> chapters;  // each chapter's length, seconds
};

double clockSeconds(const std::string& text) {  // "hh:mm:ss.mmm"
  int h = 0, m = 0;
  double s = 0;
  EXPECT_EQ(std::sscanf(text.c_str(), "%d:%d:%lf", &h, &m, &s), 3) << text;
  return h * 3600.0 + m * 60.0 + s;
}

struct Lsdvd {
  std::string volume;
  std::vector<LsdvdTitle> titles;
};

// The text after "key: " in an lsdvd line, up to the first of `ends`; empty without the key.
std::string field(const std::string& line, const std::string& key, const char* ends = ",") {
  const size_t at = line.find(key + ": ");
  if (at == std::string::npos)
    return {};
  const size_t from = at + key.size() + 2;
  return line.substr(from, line.find_first_of(ends, from) - from);
}

Lsdvd lsdvd(const std::string& path) {
  int status = 0;
  const std::string text = vn::test::runShell(
      "lsdvd -a -s -v -c " + vn::test::shellQuote(path) + " 2>/dev/null", &status);
  EXPECT_EQ(status, 0) << text;
  Lsdvd disc;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const bool indented = !line.empty() && line[0] == '\t';
    if (line.rfind("Disc Title: ", 0) == 0) {
      disc.volume = line.substr(12);
    } else if (line.rfind("Title: ", 0) == 0) {
      disc.titles.push_back({});
      disc.titles.back().cells = std::stoi(field(line, "Cells"));
      disc.titles.back().length = clockSeconds(field(line, "Length", " "));
    } else if (!indented || disc.titles.empty()) {
      continue;
    } else if (line.find("VTS: ") != std::string::npos) {
      LsdvdTitle& t = disc.titles.back();
      t.vts = std::stoi(field(line, "VTS"));
      t.ttn = std::stoi(field(line, "TTN"));
      t.format = field(line, "Format");
      t.aspect = field(line, "Aspect ratio");
    } else if (line.find("\tAudio: ") == 0) {
      disc.titles.back().audioCodes.push_back(field(line, "Language", " "));
    } else if (line.find("\tSubtitle: ") == 0) {
      disc.titles.back().subtitleCodes.push_back(field(line, "Language", " "));
    } else if (line.find("\tChapter: ") == 0) {
      disc.titles.back().chapters.push_back(clockSeconds(field(line, "Length")));
    }
  }
  return disc;
}

// The image's titles as lsdvd reads them (its folder gives the same model: a unit test).
TEST(DvdCliTest, InfoAgreesWithLsdvd) {
  const std::string path = fixture("dvd.iso");
  const vn::test::CommandResult r = runVarnel({"info", path, "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const Json info = Json::parse(r.out, nullptr, false);
  ASSERT_FALSE(info.is_discarded());
  const Lsdvd reference = lsdvd(path);
  EXPECT_EQ(Json::array({info["volume"], info["region"], info["playable_regions"].size()}),
            Json::array({reference.volume, 0, 8}));

  size_t titlesWithCells = 0;
  for (const LsdvdTitle& t : reference.titles) {
    if (t.cells == 0)
      continue;
    ++titlesWithCells;
    SCOPED_TRACE("title set " + std::to_string(t.vts) + " title " + std::to_string(t.ttn));
    ASSERT_LE(t.vts, static_cast<int>(info["title_sets"].size()));
    const Json& set = info["title_sets"][t.vts - 1];
    EXPECT_EQ(set["format"], t.format == "PAL" ? "pal" : t.format == "NTSC" ? "ntsc" : "?");
    EXPECT_EQ(set["aspect_ratio"], t.aspect == "4/3" ? "4:3" : t.aspect == "16/9" ? "16:9" : "?");
    // A title lists the streams its chain uses, the title set all it has.
    auto names = [](const Json& given, const std::vector<std::string>& codes, bool named) {
      std::vector<std::string> got = given.get<std::vector<std::string>>(), want = codes;
      got.resize(codes.size());
      for (std::string& code : want)
        code = named ? Varnel::displayStringForLanguage(code) : code;
      EXPECT_EQ(got, want);
    };
    EXPECT_EQ(set["audio_languages"].size(), t.audioCodes.size());
    names(set["audio_languages"], t.audioCodes, true);
    names(set["audio_language_codes"], t.audioCodes, false);
    names(set["subtitle_languages"], t.subtitleCodes, true);
    names(set["subtitle_language_codes"], t.subtitleCodes, false);
    // The title's and its chapters' playing times the disc states (lsdvd cuts to milliseconds).
    bool found = false;
    for (const Json& title : set["titles"]) {
      if (title["title"] != t.ttn)
        continue;
      found = true;
      EXPECT_NEAR(title["playback_time"].get<double>(), t.length, 0.0015);
      ASSERT_EQ(title["chapters"].size(), t.chapters.size());
      for (size_t c = 0; c < t.chapters.size(); ++c)
        EXPECT_NEAR(title["chapters"][c]["length"].get<double>(), t.chapters[c], 0.0015);
    }
    EXPECT_TRUE(found);
  }
  size_t ours = 0;
  for (const Json& set : info["title_sets"])
    ours += set["titles"].size();
  EXPECT_EQ(std::pair(ours, titlesWithCells), std::pair(size_t{4}, size_t{4}));

  // One source per title, the ten-piece title piece by piece, each with a name of its own.
  ASSERT_EQ(info["sources"].size(), 13u);
  std::set<std::string> names;
  for (size_t i = 0; i < info["sources"].size(); ++i) {
    EXPECT_TRUE(info["sources"][i]["number"] == i + 1 && info["sources"][i]["duration"] > 0.3)
        << info["sources"][i];
    names.insert(info["sources"][i]["name"].get<std::string>());
  }
  EXPECT_EQ(names.size(), 13u);
  // A cut image still lists what it holds.
  EXPECT_EQ(runVarnel({"info", fixture("dvd_truncated.iso")}, {}, 60).status, 0);
  // The table names the same sources.
  const vn::test::CommandResult table = runVarnel({"info", fixture("dvd.iso")});
  EXPECT_EQ(table.status, 0);
  for (const char* expected :
       {"title set 2: pal 16:9, audio de (German), es (Spanish); subtitles none",
        "title 2: 0:00:05.033, 2 chapters", "12  VARNEL_DVD_1_3_10  title set 1, title 3 piece 10",
        "13  VARNEL_DVD_2_1"}) {
    EXPECT_NE(table.out.find(expected), std::string::npos) << expected << "\n" << table.out;
  }
}

TEST(DvdCliTest, DiscWithoutVobsAndIfoPathsStillTellTheTitles) {
  // No VOB to read: the lengths come from the IFOs, as lsdvd reads them.
  const vn::test::CommandResult bare = runVarnel({"info", fixture("dvd_novobs")});
  ASSERT_EQ(bare.status, 0) << bare.err;
  const Lsdvd reference = lsdvd(fixture("dvd_novobs"));
  ASSERT_FALSE(reference.titles.empty());
  for (const LsdvdTitle& t : reference.titles) {
    char line[96];
    std::snprintf(line, sizeof line, "title %d: 0:%02d:%06.3f", t.ttn,
                  static_cast<int>(t.length) / 60, std::fmod(t.length, 60.0));
    EXPECT_NE(bare.out.find(line), std::string::npos) << line << "\n" << bare.out;
  }
  EXPECT_NE(bare.out.find("no VOB readable"), std::string::npos) << bare.out;

  // An IFO of the disc, in any case, names the disc it belongs to.
  const Json folder = Json::parse(runVarnel({"info", fixture("dvd_folder"), "--json"}).out);
  for (const char* ifo : {"VIDEO_TS.IFO", "VTS_02_0.IFO"}) {
    SCOPED_TRACE(ifo);
    const std::string path = fixture("dvd_folder") + "/VIDEO_TS/" + ifo;
    const vn::test::CommandResult r = runVarnel({"info", path, "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json info = Json::parse(r.out, nullptr, false);
    ASSERT_FALSE(info.is_discarded());
    EXPECT_EQ(info["path"], path);
    info["path"] = folder["path"];
    EXPECT_EQ(info["title_sets"], folder["title_sets"]);
    EXPECT_EQ(info["sources"].size(), folder["sources"].size());
  }
  // A file named .IFO outside a VIDEO_TS folder is read as a media file.
  const std::string stray = scratch("stray.IFO");
  vn::test::runShell("cp " + vn::test::shellQuote(fixture("h264_aac.mp4")) + " " +
                     vn::test::shellQuote(stray));
  const vn::test::CommandResult media = runVarnel({"info", stray, "--json"});
  EXPECT_EQ(media.status, 0) << media.err;
  EXPECT_EQ(Json::parse(media.out, nullptr, false)["format"], "mov,mp4,m4a,3gp,3g2,mj2");
}

TEST(DvdCliTest, ConvertedTitleHasItsLengthSoundAndPictures) {
  // Title 2: two VOBs, each a clip of its own; the second starts 0.2 s before the first ends.
  const std::string mp4 = scratch("dvd-title2.mp4");
  const vn::test::CommandResult r =
      runVarnel({"convert", fixture("dvd.iso"), mp4, "--title", "2", "--audio-tracks", "0"});
  ASSERT_EQ(r.status, 0) << r.err;
  const double first = probedDuration(fixture("dvd_t2a.mpg"));
  const double second = probedDuration(fixture("dvd_t2b.mpg"));
  const double frame = 1001.0 / 30000;
  EXPECT_NEAR(probedDuration(mp4), first + second - 0.2, 2 * frame);

  // Without a title, the longest the disc states: title 2 (5 s), not title 1 (4 s, more sectors).
  const std::string longest = scratch("dvd-longest.mp4");
  ASSERT_EQ(runVarnel({"convert", fixture("dvd.iso"), longest, "--acodec", "aac"}).status, 0);
  EXPECT_NEAR(probedDuration(longest), probedDuration(mp4), frame);

  // The English track's tone, not the French one's.
  const auto sound = vn::test::decodeWithFfmpeg(mp4, "-ss 0.5 -t 1", 1, 44100);
  EXPECT_NEAR(vn::test::zeroCrossingFrequency(sound.channel(0), 44100), 440, 5);

  // A picture of the second VOB matches its source.
  char ss[32];
  std::snprintf(ss, sizeof ss, "-ss %.3f", first + 1.0);
  EXPECT_GE(vn::test::psnr(vn::test::readPicture(mp4, "", ss),
                           vn::test::readPicture(fixture("dvd_t2b.mpg"), "", "-ss 1.2")),
            35.0);
}

// Which VOB a time falls in: the converted title above, DvdDiscTest and MovieSeekTest.
TEST(DvdCliTest, FramesShowTheTitlesSubpicture) {
  const auto frame = [](const std::vector<std::string>& args) {
    return frameOf(fixture("dvd_folder"), args);
  };
  // The English subpicture of title 1, in the title's colours, while its cue is on, not before.
  const vn::test::Raster shown = frame({"--title", "1", "-t", "2.0", "--subtitle-track", "0"});
  const vn::test::Raster before = frame({"--title", "1", "-t", "0.5", "--subtitle-track", "0"});
  const vn::test::Raster plain = frame({"--title", "1", "-t", "2.0"});
  ASSERT_EQ(shown.width, 720);
  const uint8_t *centre = shown.at(kSpuCentreX, kSpuCentreY),
                *ring = shown.at(kSpuRingX, kSpuCentreY);
  EXPECT_TRUE(centre[0] > 200 && centre[1] > 200 && centre[2] > 200) << "white centre";
  EXPECT_TRUE(ring[0] > 180 && ring[1] < 80) << "red ring";
  EXPECT_LT(vn::test::psnr(shown, plain), 30.0);
  EXPECT_GE(vn::test::psnr(before, frame({"--title", "1", "-t", "0.5"})), 45.0);
}

}  // namespace
