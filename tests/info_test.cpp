// End-to-end: `varnel info` against ffprobe on every generated medium.

#include <algorithm>
#include <filesystem>
#include <set>

#include "core/varnel.h"
#include "test_support.h"

namespace {

using nlohmann::json;
using vn::test::fixture;

// Inputs varnel refuses. A file cut short that FFmpeg still opens
// (truncated_faststart.mp4) is shown like any other.
const std::set<std::string> kBroken = {"empty.mp4", "text.mp4", "truncated.mp4"};

std::vector<std::string> fixtureNames() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(fixture(""))) {
    const std::string name = entry.path().filename().string();
    // Disc images are shown as discs, which ffprobe does not read.
    if (entry.is_regular_file() && name[0] != '.' && !kBroken.count(name) &&
        entry.path().extension() != ".iso")
      names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

TEST(InfoTest, AgreesWithFfprobeOnEveryFixture) {
  const std::vector<std::string> names = fixtureNames();
  ASSERT_GE(names.size(), 10u) << "fixtures missing in " << fixture("");
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const std::string path = fixture(name);
    vn::test::CommandResult info = vn::test::runVarnel({"info", path, "--json"});
    ASSERT_EQ(info.status, 0) << info.err;
    // Only the file cut short is warned about; a whole file's container
    // never claims more bytes than it has.
    if (name == "truncated_faststart.mp4") {
      EXPECT_EQ(info.err.rfind("varnel: warning: '" + path + "': truncated: ", 0), 0u) << info.err;
    } else {
      EXPECT_TRUE(info.err.empty()) << info.err;
    }
    const json ours = json::parse(info.out, nullptr, false);
    const json theirs = vn::test::ffprobe(path);
    ASSERT_FALSE(ours.is_discarded() || theirs.is_discarded());

    EXPECT_EQ(ours["path"], path);
    EXPECT_EQ(ours["format"], theirs["format"]["format_name"]);
    if (theirs["format"].contains("duration")) {
      EXPECT_NEAR(ours["duration"].get<double>(),
                  std::stod(theirs["format"]["duration"].get<std::string>()), 0.0005);
    } else {
      EXPECT_TRUE(ours["duration"].is_null());
    }
    if (theirs["format"].contains("start_time")) {
      EXPECT_NEAR(ours["start_time"].get<double>(),
                  std::stod(theirs["format"]["start_time"].get<std::string>()), 0.0005);
    }

    const json& streams = ours["streams"];
    ASSERT_EQ(streams.size(), theirs["streams"].size());
    for (size_t i = 0; i < streams.size(); ++i) {
      const json& a = streams[i];
      const json& b = theirs["streams"][i];
      SCOPED_TRACE("stream " + std::to_string(i));
      EXPECT_EQ(a["index"], b["index"]);
      EXPECT_EQ(a["type"], b["codec_type"]);
      EXPECT_EQ(a["codec"], b["codec_name"]);
      const std::string tag = b.contains("tags") && b["tags"].contains("language")
                                  ? b["tags"]["language"].get<std::string>()
                                  : "";
      EXPECT_EQ(a["language"], Varnel::displayStringForLanguage(tag));
      if (a["type"] == "video") {
        EXPECT_EQ(a["width"], b["width"]);
        EXPECT_EQ(a["height"], b["height"]);
        EXPECT_EQ(a["pix_fmt"], b["pix_fmt"]);
      } else if (a["type"] == "audio") {
        EXPECT_EQ(a["sample_rate"].get<int>(), std::stoi(b["sample_rate"].get<std::string>()));
        EXPECT_EQ(a["channels"], b["channels"]);
        EXPECT_EQ(a["sample_fmt"], b["sample_fmt"]);
      }
      // Cover pictures are never a video track.
      const bool cover = b.contains("disposition") && b["disposition"]["attached_pic"] == 1;
      if (cover) {
        EXPECT_EQ(a["enabled"], false);
      }
    }

    // Every enabled stream belongs to exactly one media, and each media
    // reads one kind.
    std::multiset<int> inMedias;
    for (const json& media : ours["medias"]) {
      for (const json& index : media["streams"]) {
        inMedias.insert(index.get<int>());
        EXPECT_EQ(streams[index.get<int>()]["type"], media["kind"]);
      }
    }
    for (const json& s : streams) {
      const bool played = s["type"] == "video" || s["type"] == "audio";
      if (!ours["medias"].empty()) {
        EXPECT_EQ(inMedias.count(s["index"].get<int>()), s["enabled"] == true ? 1u : 0u);
        if (!played) {
          EXPECT_EQ(s["enabled"], false);
        }
      }
    }
  }
}

TEST(InfoTest, TableOfAFileWithSeveralTracks) {
  vn::test::CommandResult info = vn::test::runVarnel({"info", fixture("multitrack.mkv")});
  ASSERT_EQ(info.status, 0) << info.err;
  EXPECT_TRUE(info.err.empty());
  for (const char* expected :
       {"matroska,webm, 6.000 s", "pcm_s16le", "French", "German", "22050 Hz mono",
        "video  at 0.000 s, streams 0", "audio  at 0.000 s, streams 1,2,3",
        "audio names:    English, French, German"}) {
    EXPECT_NE(info.out.find(expected), std::string::npos) << expected << "\n" << info.out;
  }
}
