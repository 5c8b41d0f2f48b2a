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
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

#include "cli.h"
#include "disc.h"
#include "input.h"
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

Json streamJson(uint32_t index, const StreamInfo& info) {
  const VNFFMediaStream& s = *info.stream;
  Json j;
  j["index"] = index;
  j["type"] = typeName(s.mediaType());
  j["codec"] = codecName(s);
  j["language"] = s.language();
  j["enabled"] = info.enabled;
  if (s.isVideo()) {
    const VNFFVideoFormat f = s.videoFormat();
    const char* pixfmt = av_get_pix_fmt_name(static_cast<AVPixelFormat>(f.pix_fmt));
    j["width"] = f.width;
    j["height"] = f.height;
    j["pix_fmt"] = pixfmt ? Json(pixfmt) : Json(nullptr);
    // The library's float rate, without float noise (29.97, not 29.9699993).
    j["framerate"] = std::round(static_cast<double>(s.framerate()) * 1000.0) / 1000.0;
  } else if (s.isAudio()) {
    const VNFFAudioFormat f = s.audioFormat();
    const char* sampleFmt = av_get_sample_fmt_name(static_cast<AVSampleFormat>(f.sample_fmt));
    j["sample_rate"] = f.sample_rate;
    j["channels"] = vn_get_channel_layout_nb_channels(f.channel_layout);
    j["channel_layout"] = layoutName(f.channel_layout);
    j["sample_fmt"] = sampleFmt ? Json(sampleFmt) : Json(nullptr);
  }
  return j;
}

std::string details(const Json& s) {
  char text[160] = {};
  if (s["type"] == "video") {
    std::snprintf(text, sizeof text, "%dx%d %s %g fps", s["width"].get<int>(),
                  s["height"].get<int>(),
                  s["pix_fmt"].is_null() ? "-" : s["pix_fmt"].get<std::string>().c_str(),
                  s["framerate"].get<double>());
  } else if (s["type"] == "audio") {
    std::snprintf(text, sizeof text, "%d Hz %s %s", s["sample_rate"].get<int>(),
                  s["channel_layout"].get<std::string>().c_str(),
                  s["sample_fmt"].is_null() ? "-" : s["sample_fmt"].get<std::string>().c_str());
  }
  return text;
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
  std::printf("%s: %s, %s (starts at %s)\n", info["path"].get<std::string>().c_str(),
              info["format"].get<std::string>().c_str(), secondsText(info["duration"]).c_str(),
              secondsText(info["start_time"]).c_str());
  // Columns as wide as their longest cell.
  std::vector<std::vector<std::string>> rows{
      {"#", "type", "codec", "language", "enabled", "details"}};
  for (const auto& s : info["streams"]) {
    rows.push_back({std::to_string(s["index"].get<int>()), s["type"].get<std::string>(),
                    s["codec"].get<std::string>(), s["language"].get<std::string>(),
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

int info(const std::string& path, bool json) {
  if (isDiscPath(path))
    return discInfo(path, json);
  if (std::string why = unreadableFile(path); !why.empty())
    return fail("cannot open", path, why);
  std::shared_ptr<VNMediaSource> source = VNMediaSource::mediaWithPath(path);
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
  out["streams"] = Json::array();
  for (size_t i = 0; i < streams.size(); ++i) {
    out["streams"].push_back(streamJson(static_cast<uint32_t>(i), streams[i]));
  }
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
  // The names a movie offers: those of the media that reads each kind.
  std::vector<std::string> audioNames, subtitleNames;
  for (const auto& media : readers) {
    if (audioNames.empty())
      audioNames = media->audioNames();
    if (subtitleNames.empty())
      subtitleNames = media->subtitleNames();
  }
  out["audio_names"] = audioNames;
  out["subtitle_names"] = subtitleNames;

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
