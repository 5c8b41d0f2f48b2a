// varnel effects: the catalogue of effect presets.
//
//   varnel effects [--json]                      every preset, its filters and their settings
//   varnel effects --apply NAME IMAGE -o OUT     one preset on a still picture
//   varnel effects --sheet INPUT -t T -o OUT [--tile WxH]
//                                                a contact sheet: the picture of INPUT at T
//                                                as it is, then under every preset
//
// A preset is applied with applyEffectPreset, the step a decoded frame takes
// too. Pictures are written with FilterImage::writeToFile, under a hidden
// name beside OUT that is renamed when the file is complete.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include "cli.h"
#include "input.h"
#include "picture.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

using Json = nlohmann::ordered_json;
using vn::FilterImage;
using vn::Rect;

// The sheet: five columns of five tiles, the first one the picture as it is.
constexpr int kColumns = 5;
constexpr int kRows = 5;
// Under each picture, a band that holds its name.
constexpr int kLabelHeight = 24;
constexpr char kLabelFont[] = "Sans 14";
constexpr char kOriginalLabel[] = "Original";
// The largest tile side: a whole sheet stays within the image layer's limits.
constexpr int kMinTileSide = 16;
constexpr int kMaxTileSide = 1600;

struct EffectsOptions {
  bool json = false;
  std::string preset;  // --apply
  std::string image;   // the picture --apply reads
  std::string sheet;   // --sheet INPUT
  double time = 0;
  std::string tile = "320x180";
  std::string output;
};

bool parseTile(const std::string& text, int* width, int* height) {
  char end = 0;
  return std::sscanf(text.c_str(), "%dx%d%c", width, height, &end) == 2 && *width >= kMinTileSide &&
         *width <= kMaxTileSide && *height >= kMinTileSide && *height <= kMaxTileSide;
}

// ---- the list ---------------------------------------------------------------------

// The filters a preset runs, in order: the members of a filter list, or the
// preset's filter itself.
vn::FilterList stepsOf(const std::shared_ptr<vn::ImageFilter>& filter) {
  const vn::FilterValue members = filter->value(ArrayFilter::kFiltersKey);
  if (const auto* list = std::get_if<vn::FilterList>(&members)) {
    vn::FilterList steps;
    for (const auto& step : *list) {
      if (step)
        steps.push_back(step);
    }
    return steps;
  }
  return {filter};
}

// The settings of a filter: every input but images and filter lists, with
// the value in force (its default where the preset leaves it).
std::vector<std::pair<std::string, vn::FilterValue>> settingsOf(const vn::ImageFilter& filter) {
  std::vector<std::pair<std::string, vn::FilterValue>> settings;
  for (const std::string& key : filter.inputKeys()) {
    vn::FilterValue value = filter.value(key);
    if (std::holds_alternative<double>(value) || std::holds_alternative<vn::FilterVector>(value) ||
        std::holds_alternative<FilterImage::Color>(value)) {
      settings.emplace_back(key, std::move(value));
    }
  }
  return settings;
}

// The catalogue keeps single-precision numbers widened to double: such a
// number is written as the float it was (0.00949, not 0.009490000158...).
Json numberJson(double v) {
  const float f = static_cast<float>(v);
  if (!std::isfinite(f) || static_cast<double>(f) != v)
    return v;
  char text[32];
  const std::to_chars_result r = std::to_chars(text, text + sizeof text, f);
  *r.ptr = '\0';
  return std::strtod(text, nullptr);
}

Json valueJson(const vn::FilterValue& value) {
  if (const double* d = std::get_if<double>(&value))
    return numberJson(*d);
  if (const auto* v = std::get_if<vn::FilterVector>(&value)) {
    Json j = Json::array({numberJson(v->x), numberJson(v->y)});
    if (v->count > 2)
      j.push_back(numberJson(v->z));
    return j;
  }
  if (const auto* c = std::get_if<FilterImage::Color>(&value)) {
    return Json::array(
        {numberJson(c->red), numberJson(c->green), numberJson(c->blue), numberJson(c->alpha)});
  }
  return nullptr;
}

// A setting as the list shows it: describeValue's text, but an opaque
// colour of whole 8-bit codes (as the catalogue gives them) as #rrggbb.
std::string settingText(const vn::FilterValue& value) {
  if (const auto* c = std::get_if<FilterImage::Color>(&value)) {
    int codes[3];
    bool whole = c->alpha == 1;
    const double components[3] = {c->red, c->green, c->blue};
    for (int i = 0; i < 3; ++i) {
      codes[i] = static_cast<int>(std::lround(components[i] * 255));
      whole = whole && codes[i] >= 0 && codes[i] <= 255 &&
              std::abs(components[i] * 255 - codes[i]) < 1e-6;
    }
    if (whole) {
      char text[8];
      std::snprintf(text, sizeof text, "#%02x%02x%02x", codes[0], codes[1], codes[2]);
      return text;
    }
  }
  return vn::ImageFilter::describeValue(value);
}

std::string presetNames() {
  std::string text;
  for (const std::string& name : EffectManager::allFilterNames())
    text += (text.empty() ? "" : ", ") + name;
  return text;
}

int list(bool json) {
  const std::vector<std::string>& names = EffectManager::allFilterNames();
  Json out = Json::array();
  for (const std::string& name : names) {
    Json preset;
    preset["name"] = name;
    preset["filters"] = Json::array();
    if (const std::shared_ptr<vn::ImageFilter> filter = EffectManager::filterWithName(name)) {
      for (const auto& step : stepsOf(filter)) {
        Json parameters = Json::object();
        for (const auto& [key, value] : settingsOf(*step))
          parameters[key] = valueJson(value);
        preset["filters"].push_back({{"filter", step->name()}, {"parameters", parameters}});
      }
    }
    out.push_back(preset);
  }
  if (json) {
    std::printf("%s\n", out.dump(2).c_str());
    return kExitOk;
  }
  size_t width = 0;
  for (const std::string& name : names)
    width = std::max(width, name.size());
  for (const std::string& name : names) {
    std::string line = name + std::string(width - name.size() + 2, ' ');
    const std::shared_ptr<vn::ImageFilter> filter = EffectManager::filterWithName(name);
    if (!filter) {
      line += "(not available)";
    } else {
      const vn::FilterList steps = stepsOf(filter);
      for (size_t i = 0; i < steps.size(); ++i) {
        line += (i > 0 ? ", then " : "") + steps[i]->name();
        for (const auto& [key, value] : settingsOf(*steps[i]))
          line += " " + key + "=" + settingText(value);
      }
    }
    std::printf("%s\n", line.c_str());
  }
  return kExitOk;
}

// ---- pictures ---------------------------------------------------------------------

// kExitOk when a PNG or JPEG file can be made at path from input; else the
// error line.
int checkOutput(const std::string& path, const std::string& input) {
  if (!isPictureName(path))
    return usage("bad -o", path, "the picture is written as .png, .jpg or .jpeg");
  if (const std::string why = unwritableOutput(path, input); !why.empty())
    return fail("cannot write", path, why);
  return kExitOk;
}

int checkPreset(const std::string& name) {
  if (!EffectManager::filterWithName(name))
    return usage("unknown effect", name, "the effects are " + presetNames());
  return kExitOk;
}

int apply(const EffectsOptions& o) {
  if (const int status = checkPreset(o.preset); status != kExitOk)
    return status;
  if (const int status = checkOutput(o.output, o.image); status != kExitOk)
    return status;
  std::string reason;
  const std::optional<FilterImage> picture = FilterImage::fromFile(o.image, &reason);
  if (!picture)
    return fail("cannot read", o.image, reason);
  const std::optional<FilterImage> result = applyEffectPreset(o.preset, *picture);
  if (!result)
    return fail("cannot apply", o.preset, "the effect made no picture");
  if (!result->writeToFile(o.output, &reason))
    return fail("cannot write", o.output, reason);
  return kExitOk;
}

// A picture to lay out, and the shape of its pixels (width over height).
struct Picture {
  FilterImage image;
  double pixelAspect = 1;
};

// FFmpeg's demuxers of single pictures: "image2" for numbered files, and
// the "<codec>_pipe" family it probes still images with.
bool isStillImageFormat(const AVFormatContext* context) {
  if (!context || !context->iformat || !context->iformat->name)
    return false;
  const std::string name = context->iformat->name;
  return name == "image2" || (name.size() > 5 && name.compare(name.size() - 5, 5, "_pipe") == 0);
}

// The picture of input at time (seconds of the movie): a still image as it
// is, a movie's frame that covers the time (the last one past the end).
std::optional<Picture> pictureAt(const std::string& path, double time, int* status) {
  Input input;
  input.picturesOnly = true;
  std::string reason;
  const bool opened = input.open(path, &reason);
  // Pictures go to the image layer's reader, which keeps their alpha and
  // reads what FFmpeg does not (SVG); a movie never reaches it.
  if (!opened || isStillImageFormat(input.source->formatContext())) {
    std::string ignored;
    if (std::optional<FilterImage> still = FilterImage::fromFile(path, &ignored))
      return Picture{*still, 1};
  }
  if (!opened) {
    *status = fail("cannot open", path, reason);
    return std::nullopt;
  }
  const std::shared_ptr<VNFFMedia> video = input.movie->videoMedia();
  if (!video) {
    *status = fail("cannot open", path, "no video stream to take a picture from");
    return std::nullopt;
  }
  const Input::Extent extent = input.extent();
  input.warnIfCutShort(path, extent);
  // Past where a file cut short can be read, its last picture, as past the
  // end of a whole file.
  if (extent.cutShort && time > extent.end())
    time = std::max(0.0, extent.end() - 0.001);
  // The movie seeks every media on its decode queue; the picture is taken
  // there too, as the movie's own readers do. Exporting, reading is not held
  // back to the playback clock.
  VNFFMovie& movie = *input.movie;
  movie.setExportMovie(true);
  const int64_t at = microseconds(time);
  movie.seek(at);
  movie.flushOperation();
  auto converter = VNFFImageColorspaceConverter::create();
  AVRational sar{0, 1};
  bool decoded = false;
  movie.decodeQueue()
      .addOperation([&] {
        // Times of a media are counted from where it starts in the movie.
        const AVFrame* frame = video->videoFrameAtTime(at - video->movie_position());
        if (!frame || !frame->data[0] || frame->width <= 0 || frame->height <= 0)
          return;
        converter->setOutputFormat(VNFFVideoFormat{AV_PIX_FMT_RGBA, frame->width, frame->height});
        converter->convertFrame(frame);
        sar = frame->sample_aspect_ratio;
        decoded = true;
      })
      ->wait();
  if (!decoded) {
    *status = fail("cannot read", path, "no picture could be decoded at that time");
    return std::nullopt;
  }
  // The bitmap keeps the converter, and so its pixels, alive.
  const std::optional<vn::BitmapImage> bitmap = converter->outputImage();
  std::optional<FilterImage> image = bitmap ? FilterImage::fromBitmap(*bitmap) : std::nullopt;
  if (!image) {
    *status = fail("cannot read", path, "the picture could not be converted to RGBA");
    return std::nullopt;
  }
  const double aspect = sar.num > 0 && sar.den > 0 ? av_q2d(sar) : 1;
  return Picture{*image, aspect};
}

// The picture scaled to fit width x height, keeping its shape, computed
// once (linear, premultiplied, so nothing is lost) for every tile to share.
// Whole pixels from (0, 0): presets that depend on where a pixel lies see
// each tile alike.
std::optional<FilterImage> fitted(const Picture& picture, int width, int height) {
  const Rect e = picture.image.extent();
  const double shownWidth = e.width * picture.pixelAspect;
  const double scale = std::min(width / shownWidth, height / e.height);
  const int w = std::clamp(static_cast<int>(std::lround(shownWidth * scale)), 1, width);
  const int h = std::clamp(static_cast<int>(std::lround(e.height * scale)), 1, height);
  const FilterImage scaled =
      picture.image.translated(-e.x, -e.y)
          .transformed(vn::AffineTransform::identity().scaled(w / e.width, h / e.height));
  return scaled.rendered(Rect{0, 0, double(w), double(h)});
}

FilterImage blackOver(const FilterImage& image, int width, int height) {
  return image.sourceOver(
      FilterImage::withColor({0, 0, 0, 1}).cropped(Rect{0, 0, double(width), double(height)}));
}

// A name centred in a band of width x kLabelHeight, made smaller when it is
// wider than the band.
FilterImage label(const std::string& text, int width) {
  FilterImage name = vn::textImage(text, kLabelFont, {1, 1, 1, 1});
  if (name.isEmpty())
    return blackOver(name, width, kLabelHeight);
  Rect e = name.extent();
  const double room = width - 8.0;
  if (e.width > room) {
    const double s = room / e.width;
    name = name.transformed(vn::AffineTransform::identity().scaled(s, s));
    e = name.extent();
  }
  // On whole pixels, so that the glyphs stay as sharp as they were drawn.
  const double dx = std::round((width - e.width) / 2 - e.x);
  const double dy = std::round((kLabelHeight - e.height) / 2 - e.y);
  return blackOver(name.translated(dx, dy), width, kLabelHeight);
}

int sheet(const EffectsOptions& o) {
  int tileWidth = 0, tileHeight = 0;
  parseTile(o.tile, &tileWidth, &tileHeight);  // checked while parsing
  if (!(o.time >= 0)) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", o.time);
    return usage("bad -t", text, "expected seconds from the start");
  }
  if (const int status = checkOutput(o.output, o.sheet); status != kExitOk)
    return status;
  int status = kExitOk;
  const std::optional<Picture> picture = pictureAt(o.sheet, o.time, &status);
  if (!picture)
    return status;
  const std::optional<FilterImage> base = fitted(*picture, tileWidth, tileHeight);
  if (!base)
    return fail("cannot read", o.sheet, "the picture could not be scaled to the tile size");
  const Rect b = base->extent();
  // Centred in the tile, on whole pixels.
  const double dx = std::floor((tileWidth - b.width) / 2);
  const double dy = std::floor((tileHeight - b.height) / 2);

  std::vector<std::string> names{kOriginalLabel};
  const std::vector<std::string>& presets = EffectManager::allFilterNames();
  names.insert(names.end(), presets.begin(), presets.end());
  names.resize(std::min<size_t>(names.size(), kColumns * kRows));

  const int cellHeight = tileHeight + kLabelHeight;
  const int sheetWidth = kColumns * tileWidth, sheetHeight = kRows * cellHeight;
  const int stride = sheetWidth * 4;
  std::vector<uint8_t> pixels(static_cast<size_t>(stride) * sheetHeight, 0);
  for (uint8_t* p = pixels.data() + 3; p < pixels.data() + pixels.size(); p += 4)
    *p = 255;  // cells left over are opaque black

  for (size_t i = 0; i < names.size(); ++i) {
    const int column = static_cast<int>(i) % kColumns, row = static_cast<int>(i) / kColumns;
    uint8_t* cell = pixels.data() + static_cast<size_t>(row) * cellHeight * stride +
                    static_cast<size_t>(column) * tileWidth * 4;
    std::optional<FilterImage> shown = i == 0 ? base : applyEffectPreset(names[i], *base);
    std::string caption = names[i];
    if (!shown) {
      warn(o.sheet, "the effect '" + names[i] + "' is not available; its tile is left black");
      shown = base->cropped(Rect{});
      caption += " (not available)";
    }
    const FilterImage tile = blackOver(shown->translated(dx, dy), tileWidth, tileHeight);
    const Rect tileRect{0, 0, double(tileWidth), double(tileHeight)};
    const Rect labelRect{0, 0, double(tileWidth), double(kLabelHeight)};
    if (!tile.render(tileRect, cell, stride) ||
        !label(caption, tileWidth)
             .render(labelRect, cell + static_cast<size_t>(tileHeight) * stride, stride)) {
      return fail("cannot make the sheet of", o.sheet,
                  "the tile of '" + names[i] + "' did not render");
    }
  }

  const std::optional<FilterImage> whole = FilterImage::fromRaster(
      pixels.data(), sheetWidth, sheetHeight, stride, FilterImage::ByteOrder::RGBA);
  std::string reason;
  if (!whole)
    return fail("cannot write", o.output, "the sheet is too large");
  if (!whole->writeToFile(o.output, &reason))
    return fail("cannot write", o.output, reason);
  return kExitOk;
}

}  // namespace

Registration effectsCommand() {
  return [](CLI::App& app, std::function<int()>& run) {
    auto o = std::make_shared<EffectsOptions>();
    CLI::App* cmd = app.add_subcommand(
        "effects",
        "List the effect presets, apply one to a picture, or make a contact sheet of them all");
    CLI::Option* jsonFlag = cmd->add_flag("--json", o->json, "Print the list as one JSON array");
    CLI::Option* applyOption =
        cmd->add_option("--apply", o->preset,
                        "Apply the preset NAME to IMAGE (PNG, JPEG) and write -o")
            ->type_name("NAME");
    CLI::Option* imageOption =
        cmd->add_option("IMAGE", o->image, "The picture --apply reads")->type_name("");
    CLI::Option* sheetOption =
        cmd->add_option(
               "--sheet", o->sheet,
               "Write a contact sheet of INPUT (a movie or a picture) under every preset to -o")
            ->type_name("INPUT");
    CLI::Option* timeOption =
        cmd->add_option("-t,--time", o->time, "With --sheet: the time of the picture, seconds")
            ->type_name("SECONDS");
    CLI::Option* tileOption =
        cmd->add_option("--tile", o->tile,
                        "With --sheet: the size of a tile, WxH (default 320x180)")
            ->check(CLI::Validator(
                [](std::string& text) -> std::string {
                  int w = 0, h = 0;
                  return parseTile(text, &w, &h)
                             ? std::string()
                             : "expected WxH, each side from " + std::to_string(kMinTileSide) +
                                   " to " + std::to_string(kMaxTileSide);
                },
                ""))
            ->type_name("WxH");
    CLI::Option* outputOption =
        cmd->add_option("-o,--output", o->output, "The PNG or JPEG file to write")
            ->type_name("OUT");
    applyOption->excludes(sheetOption);
    jsonFlag->excludes(applyOption)->excludes(sheetOption);
    applyOption->needs(imageOption)->needs(outputOption);
    sheetOption->needs(timeOption)->needs(outputOption);
    imageOption->needs(applyOption);
    timeOption->needs(sheetOption);
    tileOption->needs(sheetOption);
    cmd->callback([&run, o, outputOption, applyOption, sheetOption] {
      if (outputOption->count() > 0 && applyOption->count() == 0 && sheetOption->count() == 0)
        throw CLI::ValidationError("--output", "is written only with --apply or --sheet");
      const bool applying = applyOption->count() > 0, sheeting = sheetOption->count() > 0;
      run = [o, applying, sheeting] {
        if (applying)
          return apply(*o);
        if (sheeting)
          return sheet(*o);
        return list(o->json);
      };
    });
  };
}

}  // namespace varnel_cli
