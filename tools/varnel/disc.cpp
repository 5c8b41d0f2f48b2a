#include "disc.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>

#include <nlohmann/json.hpp>

#include "cli.h"

namespace varnel_cli {

namespace {

using Json = nlohmann::ordered_json;

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// Where the medias of a source end on the movie timeline, in seconds: the
// length a player shows for it.
double durationOf(const VNMediaSource::Medias& medias) {
  int64_t end = 0;
  for (const auto& media : medias)
    end = std::max(end, media->movie_position() + std::max<int64_t>(media->duration(), 0));
  return vn_ff_time_to_double(end);
}

// What the medias of a title tell: its length, and the length of each of
// its VOB pieces by the piece's first sector.
struct TitleTimes {
  double duration = 0;
  std::map<int32_t, double> pieces;
};

TitleTimes titleTimes(const std::shared_ptr<VNDVD>& disc,
                      const std::shared_ptr<VNDVDTitleSet>& set,
                      const std::shared_ptr<VNDVDTitle>& title) {
  TitleTimes times;
  const VNMediaSource::Medias medias =
      VNDVDSource::create(disc, set, title)->createMedias().value_or(VNMediaSource::Medias{});
  times.duration = durationOf(medias);
  for (const auto& media : medias) {
    auto piece = std::dynamic_pointer_cast<VNDVDSource>(media->source());
    if (piece)
      times.pieces[piece->start_sector()] = vn_ff_time_to_double(media->duration());
  }
  return times;
}

Json orNull(const std::optional<std::string>& text) {
  return text ? Json(*text) : Json(nullptr);
}

std::string listText(const Json& list) {
  std::string text;
  for (const auto& item : list)
    text += (text.empty() ? "" : ", ") + (item.is_string() ? item.get<std::string>() : item.dump());
  return text.empty() ? "none" : text;
}

std::string sizeText(int64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  return text;
}

// How long the VOBs read play, or that they cannot be read.
std::string durationText(const Json& seconds) {
  if (seconds.get<double>() <= 0)
    return "no VOB readable";
  char text[32];
  std::snprintf(text, sizeof text, "reads %.3f s", seconds.get<double>());
  return text;
}

// A playing time as a disc states it: h:mm:ss.mmm.
std::string clockText(double seconds) {
  const auto ms = static_cast<int64_t>(std::llround(seconds * 1000.0));
  char text[48];
  std::snprintf(text, sizeof text, "%lld:%02lld:%02lld.%03lld",
                static_cast<long long>(ms / 3600000), static_cast<long long>(ms / 60000 % 60),
                static_cast<long long>(ms / 1000 % 60), static_cast<long long>(ms % 1000));
  return text;
}

// A track's language for the user: its name, "unknown" when the disc
// states none or a code no language has ("xx"), with the code as stored.
std::string languageText(const std::string& code) {
  const std::string name = Varnel::knownLanguageName(code);
  if (code.empty())
    return "unknown";
  return code + " (" + (name.empty() ? "unknown" : name) + ")";
}

Json languageNames(const std::vector<std::string>& codes) {
  Json names = Json::array();
  for (const std::string& code : codes) {
    const std::string name = Varnel::knownLanguageName(code);
    names.push_back(name.empty() ? "unknown" : name);
  }
  return names;
}

std::string languagesText(const Json& codes) {
  std::string text;
  for (const auto& code : codes)
    text += (text.empty() ? "" : ", ") + languageText(code.get<std::string>());
  return text.empty() ? "none" : text;
}

// The path of the disc a path names: the VIDEO_TS folder of an .IFO file
// in one, else the path itself.
std::string discPathOf(const std::string& path) {
  const std::filesystem::path file(path);
  if (lowered(file.extension().string()) == ".ifo" &&
      lowered(file.parent_path().filename().string()) == "video_ts") {
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode))
      return file.parent_path().string();
  }
  return path;
}

void printDisc(const Json& out) {
  std::printf("%s: DVD-Video \"%s\", region mask 0x%02x (plays in regions %s)\n",
              out["path"].get<std::string>().c_str(), out["volume"].get<std::string>().c_str(),
              out["region"].get<int>(), listText(out["playable_regions"]).c_str());
  for (const auto& set : out["title_sets"]) {
    std::printf(
        "\ntitle set %d: %s %s, audio %s; subtitles %s\n", set["title_set"].get<int>(),
        set["format"].is_null() ? "unknown standard" : set["format"].get<std::string>().c_str(),
        set["aspect_ratio"].is_null() ? "unknown aspect"
                                      : set["aspect_ratio"].get<std::string>().c_str(),
        languagesText(set["audio_language_codes"]).c_str(),
        languagesText(set["subtitle_language_codes"]).c_str());
    for (const auto& t : set["titles"]) {
      const size_t chapters = t["chapters"].size();
      std::printf("  title %d: %s, %zu chapter%s, sectors %d-%d (%s), %d VOB piece%s, %s\n",
                  t["title"].get<int>(), clockText(t["playback_time"].get<double>()).c_str(),
                  chapters, chapters == 1 ? "" : "s", t["start_sector"].get<int>(),
                  t["start_sector"].get<int>() + t["sector_count"].get<int>() - 1,
                  sizeText(t["size"].get<int64_t>()).c_str(), t["pieces"].get<int>(),
                  t["pieces"].get<int>() == 1 ? "" : "s", durationText(t["duration"]).c_str());
      std::string lengths;
      for (const auto& c : t["chapters"])
        lengths += (lengths.empty() ? "" : ", ") + clockText(c["length"].get<double>());
      if (!lengths.empty())
        std::printf("    chapters: %s\n", lengths.c_str());
    }
    if (set["titles"].empty())
      std::printf("  no titles\n");
  }
  std::printf("\nsources (--title N):\n");
  for (const auto& s : out["sources"]) {
    const std::string length =
        s["playback_time"].is_null() ? "" : clockText(s["playback_time"].get<double>()) + ", ";
    std::printf("  %2d  %s  title set %d, title %d%s, %ssectors %d-%d, %s\n",
                s["number"].get<int>(), s["name"].get<std::string>().c_str(),
                s["title_set"].get<int>(), s["title"].get<int>(),
                s["piece"].is_null() ? "" : (" piece " + s["piece"].dump()).c_str(), length.c_str(),
                s["start_sector"].get<int>(),
                s["start_sector"].get<int>() + s["sector_count"].get<int>() - 1,
                durationText(s["duration"]).c_str());
  }
  if (out["sources"].empty())
    std::printf("  none\n");
}

}  // namespace

bool isDiscPath(const std::string& given) {
  const std::string path = discPathOf(given);
  struct stat info {};
  if (stat(path.c_str(), &info) != 0)
    return false;
  if (S_ISDIR(info.st_mode) || S_ISBLK(info.st_mode))
    return true;
  const std::string extension = lowered(std::filesystem::path(path).extension().string());
  return S_ISREG(info.st_mode) && (extension == ".iso" || extension == ".img");
}

std::shared_ptr<VNDVD> openDisc(const std::string& given, std::string* reason) {
  const std::string path = discPathOf(given);
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    *reason = std::strerror(errno);
    return nullptr;
  }
  std::shared_ptr<VNDVD> disc = VNDVD::open(path);
  if (!disc || disc->title_sets.empty()) {
    *reason = "not a DVD-Video disc (no VIDEO_TS.IFO with title sets that can be read)";
    return nullptr;
  }
  return disc;
}

std::shared_ptr<VNDVDSource> chooseSource(VNDVD& disc,
                                          std::optional<int> title,
                                          std::string* reason) {
  const std::vector<std::shared_ptr<VNDVDSource>> sources = disc.titleSources();
  if (sources.empty()) {
    *reason = "the disc has no titles";
    return nullptr;
  }
  if (title) {
    if (*title < 1 || *title > static_cast<int>(sources.size())) {
      *reason = "no title " + std::to_string(*title) + ": the disc offers titles 1 to " +
                std::to_string(sources.size()) + " (see varnel info)";
      return nullptr;
    }
    return sources[static_cast<size_t>(*title - 1)];
  }
  // The disc states how long each title plays; a piece gets its share by
  // sectors. Equal times go to the larger.
  const auto length = [](const std::shared_ptr<VNDVDSource>& s) {
    const VNDVDTitle& t = *s->title();
    const double share = t.sector_count > 0 ? double(s->sector_count()) / t.sector_count : 1.0;
    return std::pair(static_cast<double>(t.playback_time) * share, s->sector_count());
  };
  return *std::max_element(sources.begin(), sources.end(),
                           [&](const auto& a, const auto& b) { return length(a) < length(b); });
}

void addTitleOption(CLI::App* command, std::optional<int>* title) {
  command->add_option(
      "--title", *title,
      "On a DVD: the title to read, numbered from 1 as 'varnel info' lists the "
      "disc's sources (default: the longest, as the disc states its titles' playing times)");
}

int discInfo(const std::string& path, bool json) {
  std::string reason;
  std::shared_ptr<VNDVD> disc = openDisc(path, &reason);
  if (!disc)
    return fail("cannot open", path, reason);

  Json out;
  out["path"] = path;
  out["format"] = "dvd-video";
  out["volume"] = disc->volume;
  out["region"] = disc->region;
  out["playable_regions"] = Json::array();
  for (int r = 0; r < 8; ++r) {
    if (!(disc->region & (1 << r)))
      out["playable_regions"].push_back(r + 1);
  }
  std::map<const VNDVDTitle*, TitleTimes> times;
  out["title_sets"] = Json::array();
  for (const auto& set : disc->title_sets) {
    Json s;
    s["title_set"] = set->title_set;
    s["format"] = orNull(set->dvdFormat);
    s["aspect_ratio"] = orNull(set->display_aspect_ratio);
    s["audio_languages"] = languageNames(set->audioLanguageCodes);
    s["subtitle_languages"] = languageNames(set->subtitleLanguageCodes);
    s["audio_language_codes"] = set->audioLanguageCodes;
    s["subtitle_language_codes"] = set->subtitleLanguageCodes;
    s["vobs"] = Json::array();
    for (size_t i = 0; i < set->medias.size(); ++i) {
      s["vobs"].push_back({{"vob", i + 1},
                           {"start_sector", set->medias[i]->start_sector},
                           {"sector_count", set->medias[i]->sector_count}});
    }
    s["titles"] = Json::array();
    for (const auto& title : set->titles) {
      const TitleTimes& t = times[title.get()] = titleTimes(disc, set, title);
      const size_t pieces = VNDVDSource::create(disc, set, title)->dvdMediaSources().size();
      Json chapters = Json::array();
      double start = 0;
      for (const int64_t length : title->chapters) {
        chapters.push_back({{"chapter", chapters.size() + 1},
                            {"start", start},
                            {"length", vn_ff_time_to_double(length)}});
        start += vn_ff_time_to_double(length);
      }
      s["titles"].push_back({{"title", title->title + 1},
                             {"start_sector", title->start_sector},
                             {"sector_count", title->sector_count},
                             {"size", title->filesize()},
                             {"pieces", pieces},
                             {"playback_time", vn_ff_time_to_double(title->playback_time)},
                             {"duration", t.duration},
                             {"chapters", chapters}});
    }
    out["title_sets"].push_back(s);
  }
  out["sources"] = Json::array();
  int number = 0;
  std::map<const VNDVDTitle*, int> piecesSeen;
  for (const auto& source : disc->titleSources()) {
    const TitleTimes& t = times[source->title().get()];
    double duration = t.duration;
    // The pieces of a title offered one by one are told apart by their
    // number in the title; the disc states no time of its own for a piece.
    Json piece = nullptr;
    Json playbackTime = vn_ff_time_to_double(source->title()->playback_time);
    std::string name = source->name();
    if (source->media()) {
      const auto found = t.pieces.find(source->start_sector());
      duration = found == t.pieces.end() ? 0 : found->second;
      piece = ++piecesSeen[source->title().get()];
      name += "_" + piece.dump();
      playbackTime = nullptr;
    }
    out["sources"].push_back({{"number", ++number},
                              {"name", name},
                              {"piece", piece},
                              {"playback_time", playbackTime},
                              {"title_set", source->title_set()->title_set},
                              {"title", source->title()->title + 1},
                              {"start_sector", source->start_sector()},
                              {"sector_count", source->sector_count()},
                              {"size", source->filesize()},
                              {"duration", duration}});
  }

  if (json) {
    std::printf("%s\n", out.dump(2).c_str());
  } else {
    printDisc(out);
  }
  return kExitOk;
}

}  // namespace varnel_cli
