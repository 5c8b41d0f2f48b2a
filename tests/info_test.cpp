// End-to-end: `varnel info` against ffprobe, on one generated medium of each kind.

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "core/varnel.h"
#include "test_support.h"

namespace {

using nlohmann::json;
using vn::test::fixture;

// One medium of each container, codec and fact info shows.
std::vector<std::string> fixtureNames() {
  std::vector<std::string> names = vn::test::words(
      "aac.m4a ac3_51.ac3 counter_1x64.mp4 dvbsub.ts dvd_pal.mpg dvdsub.mkv dvdsub.mpg "
      "h264_23976.mp4 h264_2997.ts h264_aac.mp4 info_facts.mkv info_rotated.mp4 "
      "mirror_transpose.mp4 mirror_left_right.mp4 mp3_cover.mp3 mpeg2_24p.ts mpeg2_mp2.mpg "
      "multitrack.mkv subs.ass utf16.srt truncated_faststart.mp4 vfr.mkv wmv2_wmav2.wmv");
  // Not every ffmpeg writes RealMedia.
  if (std::filesystem::exists(fixture("rv20_ac3.rm")))
    names.push_back("rv20_ac3.rm");
  return names;
}

// A value ffprobe gives as a string, or null when it leaves it out.
json probed(const json& object, const char* key) {
  return object.contains(key) ? object[key] : json(nullptr);
}

json tagsOf(const json& object) {
  return object.contains("tags") ? object["tags"] : json::object();
}

}  // namespace

TEST(InfoTest, AgreesWithFfprobeOnEveryFixture) {
  const std::vector<std::string> names = fixtureNames();
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const std::string path = fixture(name);
    vn::test::CommandResult info = vn::test::runVarnel({"info", path, "--json"});
    ASSERT_EQ(info.status, 0) << info.err;
    // Only the file cut short is warned about.
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
    if (theirs["format"].contains("bit_rate")) {
      EXPECT_EQ(ours["bit_rate"].dump(), theirs["format"]["bit_rate"].get<std::string>());
    } else {
      EXPECT_TRUE(ours["bit_rate"].is_null());
    }
    EXPECT_EQ(ours["tags"], tagsOf(theirs["format"]));

    // Chapters: the same times, titles and tags.
    ASSERT_EQ(ours["chapters"].size(), theirs["chapters"].size());
    for (size_t c = 0; c < ours["chapters"].size(); ++c) {
      const json& a = ours["chapters"][c];
      const json& b = theirs["chapters"][c];
      EXPECT_NEAR(a["start"].get<double>(), std::stod(b["start_time"].get<std::string>()), 1e-6);
      EXPECT_NEAR(a["end"].get<double>(), std::stod(b["end_time"].get<std::string>()), 1e-6);
      EXPECT_EQ(json::array({a["id"], a["tags"], a["title"]}),
                json::array({b["id"], tagsOf(b), probed(tagsOf(b), "title")}));
    }

    const json& streams = ours["streams"];
    ASSERT_EQ(streams.size(), theirs["streams"].size());
    for (size_t i = 0; i < streams.size(); ++i) {
      const json& a = streams[i];
      const json& b = theirs["streams"][i];
      SCOPED_TRACE("stream " + std::to_string(i));
      EXPECT_EQ(json::array({a["index"], a["type"], a["codec"], a["tags"], a["title"]}),
                json::array({b["index"], b["codec_type"], b["codec_name"], tagsOf(b),
                             probed(tagsOf(b), "title")}));
      // The code as stored; its name, or "unknown" when none is stated.
      const std::string tag = tagsOf(b).value("language", "");
      EXPECT_EQ(a["language_code"], tag);
      EXPECT_EQ(a["language"],
                tag.empty() || tag == "und" ? "unknown" : Varnel::displayStringForLanguage(tag));
      // Stored rates are equal; a decoder's estimate (AAC in TS) within 1 %.
      if (b.contains("bit_rate")) {
        const double given = std::stod(b["bit_rate"].get<std::string>());
        EXPECT_NEAR(a["bit_rate"].get<double>(), given, given * 0.01);
      } else {
        EXPECT_TRUE(a["bit_rate"].is_null());
      }
      if (a["type"] == "video") {
        // Rates exact, as fractions; the one shown is the average when known.
        EXPECT_EQ(
            json::array({a["width"], a["height"], a["pix_fmt"], a["r_frame_rate"],
                         a["avg_frame_rate"], a["sample_aspect_ratio"], a["display_aspect_ratio"]}),
            json::array({b["width"], b["height"], b["pix_fmt"], b["r_frame_rate"],
                         b["avg_frame_rate"], probed(b, "sample_aspect_ratio"),
                         probed(b, "display_aspect_ratio")}));
        EXPECT_EQ(a["frame_rate"],
                  b["avg_frame_rate"] != "0/0" ? b["avg_frame_rate"] : b["r_frame_rate"]);
        for (const char* key :
             {"color_range", "color_space", "color_transfer", "color_primaries"}) {
          const json given = probed(b, key);
          EXPECT_EQ(a[key], given == "unknown" ? json(nullptr) : given) << key;
        }
        json rotation = nullptr;
        for (const json& side : b.value("side_data_list", json::array())) {
          if (side.contains("rotation"))
            rotation = side["rotation"];
        }
        EXPECT_EQ(a["rotation"], rotation);
      } else if (a["type"] == "audio") {
        EXPECT_EQ(a["sample_rate"].get<int>(), std::stoi(b["sample_rate"].get<std::string>()));
        EXPECT_EQ(std::pair(a["channels"], a["sample_fmt"]),
                  std::pair(b["channels"], b["sample_fmt"]));
      }
      // Cover pictures are never a video track, but an attachment.
      const bool cover = b.contains("disposition") && b["disposition"]["attached_pic"] == 1;
      EXPECT_EQ(a["attached_pic"], cover);
      EXPECT_TRUE(!cover || a["enabled"] == false);
      bool attached = false;
      for (const json& attachment : ours["attachments"])
        attached = attached || attachment["index"] == a["index"];
      EXPECT_EQ(attached, cover || b["codec_type"] == "attachment");
    }
  }
}

TEST(InfoTest, TableTellsTheFactsUsersLookFor) {
  struct Case {
    const char* name;
    std::vector<const char*> shown, absent;
  } cases[] = {
      {"multitrack.mkv",
       {"matroska,webm, 6.000 s", "pcm_s16le", "French", "German", "22050 Hz mono",
        "video  at 0.000 s, streams 0", "audio  at 0.000 s, streams 1,2,3",
        "audio names:    English, French, German"},
       {}},
      {"info_facts.mkv",
       {"title: Facts of a film", "ARTIST: varnel", "Main picture",
        "320x240 yuv420p 12.5 fps, SAR 4:3 DAR 16:9",
        "primaries bt709 transfer bt709 matrix bt709 range tv", "flac    unknown   Tone, untagged",
        "subrip  French", "cover picture, png 64x64, cover.png", " 1  0.000 s - 1.500 s  Opening",
        " 2  1.500 s - 4.000 s  The end", "audio names:    unknown", "subtitle names: French"},
       {"English", "  3  video"}},
      {"info_rotated.mp4",
       {"160x120 yuv420p 23.976 fps", "rotation -90°", "aac    unknown"},
       {"English", "mirrored", "chapters:"}},
      {"mp3_cover.mp3",
       {"cover picture, png 240x240, Cover (front)", "audio names:    unknown"},
       {"video", "fps"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const vn::test::CommandResult info = vn::test::runVarnel({"info", fixture(c.name)});
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_TRUE(info.err.empty()) << info.err;
    for (const char* expected : c.shown)
      EXPECT_NE(info.out.find(expected), std::string::npos) << expected << "\n" << info.out;
    for (const char* unexpected : c.absent)
      EXPECT_EQ(info.out.find(unexpected), std::string::npos) << unexpected << "\n" << info.out;
  }
}
