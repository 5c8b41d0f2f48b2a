// varnel info INPUT [--json]: what an input holds and how the library reads
// it: container, duration, streams, and the medias the input splits into.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

#include "cli.h"
#include "disc.h"
#include "input.h"
#include "picture.h"
#include "varnel.h"

namespace varnel_cli {

namespace {

using Json = nlohmann::ordered_json;

// One container stream as the library sees it.
struct StreamInfo {
  std::shared_ptr<VNFFMediaStream> stream;  // from the first media enabling it
  bool enabled = false;
};

std::string typeName(int32_t type) {
  const char* name = av_get_media_type_string(static_cast<AVMediaType>(type));
  return name ? name : "unknown";
}

// FFmpeg's codec name (not the decoder's: "mp3", not "mp3float").
std::string codecName(const VNFFMediaStream& stream) {
  return avcodec_get_name(stream.codecContext()->codec_id);
}

std::string layoutName(uint64_t mask) {
  AVChannelLayout layout{};
  if (mask == 0 || av_channel_layout_from_mask(&layout, mask) < 0)
    return "unknown";
  char text[64] = {};
  av_channel_layout_describe(&layout, text, sizeof text);
  av_channel_layout_uninit(&layout);
  return text;
}

Json seconds(int64_t microseconds) {
  if (microseconds == AV_NOPTS_VALUE)
    return nullptr;
  return vn_ff_time_to_double(microseconds);
}

// A rational as "num/den", the way FFmpeg's tools write rates.
std::string fraction(AVRational r) {
  return std::to_string(r.num) + "/" + std::to_string(r.den);
}

// A ratio as "num:den"; null when unknown.
Json ratio(AVRational r) {
  if (r.num <= 0 || r.den <= 0)
    return nullptr;
  return std::to_string(r.num) + ":" + std::to_string(r.den);
}

// A number with up to three decimals, trailing zeros dropped: 12.5, 23.976, 25.
std::string decimals(double value) {
  char text[48];
  std::snprintf(text, sizeof text, "%.3f", value);
  std::string out = text;
  out.erase(out.find_last_not_of('0') + 1);
  if (!out.empty() && out.back() == '.')
    out.pop_back();
  return out;
}

// Every tag of a metadata dictionary, as stored.
Json tags(const AVDictionary* metadata) {
  Json out = Json::object();
  const AVDictionaryEntry* entry = nullptr;
  while ((entry = av_dict_get(metadata, "", entry, AV_DICT_IGNORE_SUFFIX)))
    out[entry->key] = entry->value ? entry->value : "";
  return out;
}

Json tagOrNull(const AVDictionary* metadata, const char* key) {
  const AVDictionaryEntry* entry = av_dict_get(metadata, key, nullptr, 0);
  return entry && entry->value ? Json(entry->value) : Json(nullptr);
}

// The name of a language code for the user, without guessing: "unknown"
// when the stream states none ("" or "und"), the code itself when the
// locale has no name for it.
std::string languageText(const std::string& code) {
  if (code.empty() || code == "und")
    return "unknown";
  const std::string name = Varnel::knownLanguageName(code);
  return name.empty() ? code : name;
}

Json nameOrNull(const char* name) {
  return name && std::string(name) != "unknown" ? Json(name) : Json(nullptr);
}

// Colour facts as FFmpeg names them; null when the stream leaves them unset.
void addColour(Json& j, const AVCodecParameters& par) {
  auto named = [](bool unset, const char* name) {
    return unset ? Json(nullptr) : nameOrNull(name);
  };
  j["color_range"] =
      named(par.color_range == AVCOL_RANGE_UNSPECIFIED, av_color_range_name(par.color_range));
  j["color_space"] =
      named(par.color_space == AVCOL_SPC_UNSPECIFIED, av_color_space_name(par.color_space));
  j["color_transfer"] =
      named(par.color_trc == AVCOL_TRC_UNSPECIFIED, av_color_transfer_name(par.color_trc));
  j["color_primaries"] = named(par.color_primaries == AVCOL_PRI_UNSPECIFIED,
                               av_color_primaries_name(par.color_primaries));
}

// The side data a player needs to show the picture: its display matrix
// (rotation, mirror) and the HDR metadata of mastering display and content
// light level.
void addSideData(Json& j, const AVStream& stream) {
  j["rotation"] = nullptr;
  j["mirrored"] = false;
  if (const uint8_t* data = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr)) {
    const auto* matrix = reinterpret_cast<const int32_t*>(data);
    const double rotation = av_display_rotation_get(matrix);
    if (!std::isnan(rotation)) {
      // Counter-clockwise degrees, as FFmpeg's tools report them.
      j["rotation"] = static_cast<int>(std::lround(rotation));
    }
    j["mirrored"] = mirrorsPicture(matrix);
  }
  j["mastering_display"] = nullptr;
  if (const uint8_t* data =
          av_stream_get_side_data(&stream, AV_PKT_DATA_MASTERING_DISPLAY_METADATA, nullptr)) {
    const auto* m = reinterpret_cast<const AVMasteringDisplayMetadata*>(data);
    Json d = Json::object();
    if (m->has_primaries) {
      const char* names[] = {"red", "green", "blue"};
      for (int c = 0; c < 3; ++c) {
        d[std::string(names[c]) + "_x"] = fraction(m->display_primaries[c][0]);
        d[std::string(names[c]) + "_y"] = fraction(m->display_primaries[c][1]);
      }
      d["white_point_x"] = fraction(m->white_point[0]);
      d["white_point_y"] = fraction(m->white_point[1]);
    }
    if (m->has_luminance) {
      d["min_luminance"] = fraction(m->min_luminance);
      d["max_luminance"] = fraction(m->max_luminance);
    }
    j["mastering_display"] = d;
  }
  j["content_light_level"] = nullptr;
  if (const uint8_t* data =
          av_stream_get_side_data(&stream, AV_PKT_DATA_CONTENT_LIGHT_LEVEL, nullptr)) {
    const auto* c = reinterpret_cast<const AVContentLightMetadata*>(data);
    j["content_light_level"] = {{"max_content", c->MaxCLL}, {"max_average", c->MaxFALL}};
  }
}

Json streamJson(uint32_t index, const StreamInfo& info, AVFormatContext* context) {
  const VNFFMediaStream& s = *info.stream;
  // The facts FFmpeg found on opening the input; a media's own demuxer
  // may have probed less of it.
  AVStream& stream = index < context->nb_streams ? *context->streams[index] : *s.stream();
  const AVCodecParameters& par = *stream.codecpar;
  Json j;
  j["index"] = index;
  j["type"] = typeName(s.mediaType());
  j["codec"] = codecName(s);
  j["language"] = languageText(s.languageCode());
  j["language_code"] = s.languageCode();
  j["title"] = tagOrNull(stream.metadata, "title");
  j["enabled"] = info.enabled;
  j["attached_pic"] = (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
  j["bit_rate"] = par.bit_rate > 0 ? Json(par.bit_rate) : Json(nullptr);
  if (s.isVideo()) {
    const VNFFVideoFormat f = s.videoFormat();
    const char* pixfmt = av_get_pix_fmt_name(static_cast<AVPixelFormat>(f.pix_fmt));
    j["width"] = f.width;
    j["height"] = f.height;
    j["pix_fmt"] = pixfmt ? Json(pixfmt) : Json(nullptr);
    // The rate a viewer sees: the average one, else the container's base
    // rate; exact as a fraction, to three decimals as a number.
    const AVRational rate = stream.avg_frame_rate.num > 0 && stream.avg_frame_rate.den > 0
                                ? stream.avg_frame_rate
                                : stream.r_frame_rate;
    const bool known = rate.num > 0 && rate.den > 0;
    j["frame_rate"] = known ? Json(fraction(rate)) : Json(nullptr);
    j["framerate"] = known ? Json(std::round(av_q2d(rate) * 1000.0) / 1000.0) : Json(nullptr);
    j["r_frame_rate"] = fraction(stream.r_frame_rate);
    j["avg_frame_rate"] = fraction(stream.avg_frame_rate);
    // The picture's aspect as it is shown: its pixels' shape and the frame's.
    const AVRational sar = av_guess_sample_aspect_ratio(context, &stream, nullptr);
    j["sample_aspect_ratio"] = ratio(sar);
    AVRational dar{0, 0};
    if (sar.num > 0 && sar.den > 0 && par.width > 0 && par.height > 0) {
      av_reduce(&dar.num, &dar.den, int64_t{par.width} * sar.num, int64_t{par.height} * sar.den,
                1024 * 1024);
    }
    j["display_aspect_ratio"] = ratio(dar);
    addColour(j, par);
    addSideData(j, stream);
  } else if (s.isAudio()) {
    const VNFFAudioFormat f = s.audioFormat();
    const char* sampleFmt = av_get_sample_fmt_name(static_cast<AVSampleFormat>(f.sample_fmt));
    j["sample_rate"] = f.sample_rate;
    j["channels"] = vn_get_channel_layout_nb_channels(f.channel_layout);
    j["channel_layout"] = layoutName(f.channel_layout);
    j["sample_fmt"] = sampleFmt ? Json(sampleFmt) : Json(nullptr);
  }
  j["tags"] = tags(stream.metadata);
  return j;
}

// What a file carries besides its tracks: cover pictures and attached
// files (fonts of a subtitle track, for one).
Json attachmentJson(const Json& s, const AVStream& stream) {
  Json a;
  a["index"] = s["index"];
  a["kind"] = s["attached_pic"].get<bool>() ? "picture" : "file";
  a["codec"] = s["codec"];
  a["title"] = s["title"];
  a["filename"] = tagOrNull(stream.metadata, "filename");
  a["mimetype"] = tagOrNull(stream.metadata, "mimetype");
  a["comment"] = tagOrNull(stream.metadata, "comment");
  if (s.contains("width")) {
    a["width"] = s["width"];
    a["height"] = s["height"];
  }
  if (stream.disposition & AV_DISPOSITION_ATTACHED_PIC)
    a["size"] = stream.attached_pic.size;
  return a;
}

Json chapterJson(const AVChapter& chapter) {
  return {{"id", chapter.id},
          {"start", av_q2d(chapter.time_base) * static_cast<double>(chapter.start)},
          {"end", av_q2d(chapter.time_base) * static_cast<double>(chapter.end)},
          {"title", tagOrNull(chapter.metadata, "title")},
          {"tags", tags(chapter.metadata)}};
}

std::string text(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string bitRateText(const Json& bitRate) {
  return bitRate.is_null() ? "" : std::to_string((bitRate.get<int64_t>() + 500) / 1000) + " kb/s";
}

std::string details(const Json& s) {
  std::vector<std::string> parts;
  if (s["type"] == "video") {
    std::string picture = std::to_string(s["width"].get<int>()) + "x" +
                          std::to_string(s["height"].get<int>()) + " " +
                          (s["pix_fmt"].is_null() ? "-" : s["pix_fmt"].get<std::string>());
    if (!s["frame_rate"].is_null()) {
      const std::string rate = s["frame_rate"].get<std::string>();
      const double value =
          std::stod(rate.substr(0, rate.find('/'))) / std::stod(rate.substr(rate.find('/') + 1));
      picture += " " + decimals(value) + " fps";
    }
    parts.push_back(picture);
    if (!s["sample_aspect_ratio"].is_null())
      parts.push_back("SAR " + text(s["sample_aspect_ratio"]) + " DAR " +
                      text(s["display_aspect_ratio"]));
  } else if (s["type"] == "audio") {
    parts.push_back(std::to_string(s["sample_rate"].get<int>()) + " Hz " +
                    s["channel_layout"].get<std::string>() + " " +
                    (s["sample_fmt"].is_null() ? "-" : s["sample_fmt"].get<std::string>()));
  }
  if (!s["bit_rate"].is_null())
    parts.push_back(bitRateText(s["bit_rate"]));
  if (s["type"] == "video") {
    std::string colour;
    for (const auto& [key, label] : {std::pair{"color_primaries", "primaries"},
                                     {"color_transfer", "transfer"},
                                     {"color_space", "matrix"},
                                     {"color_range", "range"}}) {
      if (!s[key].is_null())
        colour += std::string(colour.empty() ? "" : " ") + label + " " + text(s[key]);
    }
    if (!colour.empty())
      parts.push_back(colour);
    if (!s["rotation"].is_null() && s["rotation"].get<int>() != 0)
      parts.push_back("rotation " + std::to_string(s["rotation"].get<int>()) + "°");
    if (s["mirrored"].get<bool>())
      parts.push_back("mirrored");
    if (!s["mastering_display"].is_null()) {
      const Json& m = s["mastering_display"];
      std::string hdr = "mastering display";
      if (m.contains("min_luminance"))
        hdr += " " + text(m["min_luminance"]) + "-" + text(m["max_luminance"]) + " cd/m2";
      parts.push_back(hdr);
    }
    if (!s["content_light_level"].is_null()) {
      parts.push_back("max light " + text(s["content_light_level"]["max_content"]) +
                      ", frame average " + text(s["content_light_level"]["max_average"]) +
                      " cd/m2");
    }
  }
  std::string out;
  for (const std::string& part : parts)
    out += (out.empty() ? "" : ", ") + part;
  return out;
}

bool isAttachment(const Json& s) {
  return s["attached_pic"].get<bool>() || s["type"] == "attachment";
}

std::string joined(const Json& list, const char* separator) {
  std::string text;
  for (const auto& item : list) {
    if (!text.empty())
      text += separator;
    text += item.is_string() ? item.get<std::string>() : item.dump();
  }
  return text.empty() ? "-" : text;
}

std::string secondsText(const Json& value) {
  if (value.is_null())
    return "unknown";
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", value.get<double>());
  return text;
}

void printTable(const Json& info) {
  std::string header = info["path"].get<std::string>() + ": " + info["format"].get<std::string>() +
                       ", " + secondsText(info["duration"]) + " (starts at " +
                       secondsText(info["start_time"]) + ")";
  if (!info["bit_rate"].is_null())
    header += ", " + bitRateText(info["bit_rate"]);
  std::printf("%s\n", header.c_str());
  if (!info["tags"].empty()) {
    std::printf("\ntags:\n");
    for (const auto& [key, value] : info["tags"].items())
      std::printf("  %s: %s\n", key.c_str(), text(value).c_str());
  }
  // Columns as wide as their longest cell.
  std::vector<std::vector<std::string>> rows{
      {"#", "type", "codec", "language", "title", "enabled", "details"}};
  for (const auto& s : info["streams"]) {
    if (isAttachment(s))
      continue;
    rows.push_back({std::to_string(s["index"].get<int>()), s["type"].get<std::string>(),
                    s["codec"].get<std::string>(), s["language"].get<std::string>(),
                    s["title"].is_null() ? "-" : s["title"].get<std::string>(),
                    s["enabled"].get<bool>() ? "yes" : "no", details(s)});
  }
  std::vector<size_t> widths(rows.front().size(), 0);
  for (const auto& row : rows) {
    for (size_t c = 0; c < row.size(); ++c)
      widths[c] = std::max(widths[c], row[c].size());
  }
  std::printf("\n");
  for (const auto& row : rows) {
    std::string line = " ";
    for (size_t c = 0; c < row.size(); ++c) {
      line += " " + row[c];
      if (c + 1 < row.size())
        line += std::string(widths[c] - row[c].size() + 1, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::printf("%s\n", line.c_str());
  }
  if (!info["attachments"].empty()) {
    std::printf("\nattachments:\n");
    for (const auto& a : info["attachments"]) {
      std::string line = "  #" + text(a["index"]) + " " +
                         (a["kind"] == "picture" ? "cover picture" : "file") + ", " +
                         text(a["codec"]);
      if (a.contains("width"))
        line += " " + text(a["width"]) + "x" + text(a["height"]);
      for (const char* key : {"filename", "title", "comment", "mimetype"}) {
        if (!a[key].is_null())
          line += ", " + text(a[key]);
      }
      if (a.contains("size"))
        line += ", " + text(a["size"]) + " bytes";
      std::printf("%s\n", line.c_str());
    }
  }
  if (!info["chapters"].empty()) {
    std::printf("\nchapters:\n");
    int number = 0;
    for (const auto& c : info["chapters"]) {
      std::printf("  %2d  %s - %s%s\n", ++number, secondsText(c["start"]).c_str(),
                  secondsText(c["end"]).c_str(),
                  c["title"].is_null() ? "" : ("  " + text(c["title"])).c_str());
    }
  }
  std::printf("\nmedias:\n");
  if (info["medias"].empty())
    std::printf("  none (no audio or video to play)\n");
  for (const auto& m : info["medias"]) {
    std::printf("  %-6s at %s, streams %s\n", m["kind"].get<std::string>().c_str(),
                secondsText(m["movie_position"]).c_str(), joined(m["streams"], ",").c_str());
  }
  std::printf("\naudio names:    %s\n", joined(info["audio_names"], ", ").c_str());
  std::printf("subtitle names: %s\n", joined(info["subtitle_names"], ", ").c_str());
}

// The names a movie offers for its audio or subtitle tracks: the source's
// own when it names them, else each track's language, "unknown" when it
// states none.
std::vector<std::string> trackNames(const std::optional<std::vector<std::string>>& given,
                                    const Json& streams,
                                    const char* type,
                                    bool enabledOnly) {
  if (given)
    return *given;
  std::vector<std::string> names;
  for (const auto& s : streams) {
    if (s["type"] == type && !isAttachment(s) && (!enabledOnly || s["enabled"].get<bool>()))
      names.push_back(s["language"].get<std::string>());
  }
  return names;
}

int info(const std::string& path, bool json) {
  if (isDiscPath(path))
    return discInfo(path, json);
  if (std::string why = unreadableFile(path); !why.empty())
    return fail("cannot open", path, why);
  std::shared_ptr<VNMediaSource> source = VNMediaSource::mediaWithPath(path);
  // Its decoders are opened only to learn whether they open: the lightest way.
  source->setDecodesSinglePictures(true);
  source->open();
  if (!source->isOpen())
    return fail("cannot open", path, source->lastError());
  AVFormatContext* context = source->formatContext();
  if (context->nb_streams == 0)
    return fail("cannot read", path, "no streams found");
  // A file cut short is shown as FFmpeg reads it, its duration the one its
  // container gives; the warning says how much is missing.
  if (const std::optional<VNTruncation> cut = source->truncation())
    warn(path, truncationText(*cut));

  // The medias a movie would read; a file with neither video nor audio (a
  // subtitle file) is read as one media over all its streams.
  std::vector<std::shared_ptr<VNFFMedia>> medias =
      source->createMedias().value_or(std::vector<std::shared_ptr<VNFFMedia>>{});
  std::shared_ptr<VNFFMedia> whole;
  if (medias.empty()) {
    whole = VNFFMedia::create();
    whole->setSource(source);
    whole->open();
  }
  const std::vector<std::shared_ptr<VNFFMedia>> readers =
      medias.empty() ? std::vector<std::shared_ptr<VNFFMedia>>{whole} : medias;

  std::vector<StreamInfo> streams(readers.front()->streams().size());
  for (const auto& media : readers) {
    for (size_t i = 0; i < media->streams().size() && i < streams.size(); ++i) {
      const auto& stream = media->streams()[i];
      if (!streams[i].stream || (stream->enable() && !streams[i].enabled)) {
        streams[i].stream = stream;
        streams[i].enabled = stream->enable();
      }
    }
  }

  Json out;
  out["path"] = path;
  out["format"] = context->iformat ? context->iformat->name : "";
  out["duration"] = seconds(readers.front()->duration());
  out["start_time"] = seconds(readers.front()->start_time());
  out["bit_rate"] = context->bit_rate > 0 ? Json(context->bit_rate) : Json(nullptr);
  out["tags"] = tags(context->metadata);
  out["streams"] = Json::array();
  out["attachments"] = Json::array();
  for (size_t i = 0; i < streams.size(); ++i) {
    out["streams"].push_back(streamJson(static_cast<uint32_t>(i), streams[i], context));
    if (isAttachment(out["streams"].back()))
      out["attachments"].push_back(attachmentJson(
          out["streams"].back(),
          i < context->nb_streams ? *context->streams[i] : *streams[i].stream->stream()));
  }
  out["chapters"] = Json::array();
  for (unsigned i = 0; i < context->nb_chapters; ++i)
    out["chapters"].push_back(chapterJson(*context->chapters[i]));
  out["medias"] = Json::array();
  for (const auto& media : medias) {
    Json m;
    m["kind"] = media->hasVideo() ? "video" : "audio";
    m["movie_position"] = vn_ff_time_to_double(media->movie_position());
    m["streams"] = Json::array();
    for (const auto& stream : media->streams()) {
      if (stream->enable())
        m["streams"].push_back(stream->stream()->index);
    }
    out["medias"].push_back(m);
  }
  // The names a movie offers: the audio tracks it plays and every subtitle
  // track it can show.
  out["audio_names"] = trackNames(source->audioNames(), out["streams"], "audio", true);
  out["subtitle_names"] = trackNames(source->subtitleNames(), out["streams"], "subtitle", false);

  if (json) {
    std::printf("%s\n", out.dump(2).c_str());
  } else {
    printTable(out);
  }
  return kExitOk;
}

}  // namespace

Registration infoCommand() {
  return [](CLI::App& app, std::function<int()>& run) {
    struct Options {
      std::string input;
      bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* cmd = app.add_subcommand(
        "info", "Show the container, duration, streams and the medias an input is read as");
    cmd->add_option("INPUT", options->input, "media file or DVD (folder, .iso, device)")
        ->required();
    cmd->add_flag("--json", options->json, "print one JSON object");
    cmd->callback(
        [&run, options] { run = [options] { return info(options->input, options->json); }; });
  };
}

}  // namespace varnel_cli
