#include "picture.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

namespace varnel_cli {
namespace {

// Placements by name; a number gives the zoom type itself.
const std::map<std::string, int32_t> kZoomNames = {
    {"stretch", VNFFEffectVideoStream::kZoomStretch}, {"fit", VNFFEffectVideoStream::kZoomFit},
    {"16:9", VNFFEffectVideoStream::kZoom16x9},       {"4:3", VNFFEffectVideoStream::kZoom4x3},
    {"panscan", VNFFEffectVideoStream::kZoomPanscan},
};

// The neutral colour settings: the picture passes unchanged.
constexpr double kNeutralSaturation = 0.5;
constexpr double kNeutralBrightness = 0.5;
constexpr double kNeutralContrast = 0.25;
constexpr double kNeutralHue = 0.5;

bool parseZoom(const std::string& text, int32_t* zoom) {
  if (auto it = kZoomNames.find(text); it != kZoomNames.end()) {
    *zoom = it->second;
    return true;
  }
  // A number is a zoom type itself: 0 (the background only) to the last.
  char end = 0;
  return std::sscanf(text.c_str(), "%d%c", zoom, &end) == 1 && *zoom >= 0 &&
         *zoom <= VNFFEffectVideoStream::kZoomPanscan;
}

bool parseCrop(const std::string& text, double crop[4]) {
  char end = 0;
  return std::sscanf(text.c_str(), "%lf,%lf,%lf,%lf%c", &crop[0], &crop[1], &crop[2], &crop[3],
                     &end) == 4 &&
         std::isfinite(crop[0]) && std::isfinite(crop[1]) && std::isfinite(crop[2]) &&
         std::isfinite(crop[3]);
}

}  // namespace

bool parsePictureSize(const std::string& text, int* width, int* height) {
  char end = 0;
  return std::sscanf(text.c_str(), "%dx%d%c", width, height, &end) == 2 && *width > 0 &&
         *height > 0 && *width <= vn::kMaxImageSide && *height <= vn::kMaxImageSide;
}

void PictureOptions::addTo(CLI::App* command) {
  const auto unit = CLI::Range(0.0, 1.0);
  command->add_option("--crop", crop,
                      "Keep X,Y,W,H of the source picture (pixels from its top left)");
  command->add_option("--rotate", rotate,
                      "Turn the picture DEG degrees counter-clockwise (default: the video's own "
                      "rotation)");
  command->add_flag("--hflip", hflip, "Mirror left to right");
  command->add_flag("--vflip", vflip, "Mirror top to bottom");
  command->add_option("--saturation", saturation, "0..1, neutral 0.5")->check(unit);
  command->add_option("--brightness", brightness, "0..1, neutral 0.5")->check(unit);
  command->add_option("--contrast", contrast, "0..1, neutral 0.25")->check(unit);
  command->add_option("--hue", hue, "0..1, neutral 0.5")->check(unit);
  command->add_option("--effect", effect, "An effect preset ('varnel effects' lists them)");
  command->add_option("--watermark", watermark,
                      "A picture laid over the output at its own size, bottom left");
  command->add_option("--zoom", zoom,
                      "Placement in the output frame: stretch, fit (default), 16:9, 4:3, "
                      "panscan, or a zoom type number");
}

// The video's own turn and mirror, unless --rotate replaces them.
DisplayTurn PictureOptions::turn(Input& input) const {
  if (rotate)
    return DisplayTurn{*rotate, false};
  return displayTurn(input);
}

bool PictureOptions::changesPicture(Input& input) const {
  const DisplayTurn shown = turn(input);
  return !crop.empty() || shown.degrees != 0 || shown.mirrored || hflip || vflip ||
         saturation.value_or(kNeutralSaturation) != kNeutralSaturation ||
         brightness.value_or(kNeutralBrightness) != kNeutralBrightness ||
         contrast.value_or(kNeutralContrast) != kNeutralContrast ||
         hue.value_or(kNeutralHue) != kNeutralHue || !effect.empty() || !watermark.empty() ||
         (!zoom.empty() && zoom != "fit" && zoom != "5" && zoom != "2");
}

int PictureOptions::apply(Input& input) const {
  VNFFMovie& movie = *input.movie;
  const vn::Size decoded = movie.videoSize();
  const int width = static_cast<int>(decoded.width), height = static_cast<int>(decoded.height);
  if (!crop.empty()) {
    double c[4];
    if (!parseCrop(crop, c))
      return usage("bad --crop", crop, "expected X,Y,W,H in pixels");
    if (c[2] < 1 || c[3] < 1)
      return usage("bad --crop", crop, "the width and height must be at least one pixel");
    if (c[0] < 0 || c[1] < 0 || c[0] + c[2] > width || c[1] + c[3] > height) {
      return usage(
          "bad --crop", crop,
          "outside the " + std::to_string(width) + "x" + std::to_string(height) + " picture");
    }
    // The library counts from the bottom-left corner.
    movie.setCropRect(vn::Rect{c[0], height - c[1] - c[3], c[2], c[3]});
  }
  int32_t zoomType = VNFFEffectVideoStream::kZoomDefault;
  if (!zoom.empty() && !parseZoom(zoom, &zoomType))
    return usage("bad --zoom", zoom, "use stretch, fit, 16:9, 4:3, panscan or a number 0 to 6");
  movie.setZoomType(zoomType);
  const DisplayTurn shown = turn(input);
  if (!std::isfinite(shown.degrees))
    return usage("bad --rotate", std::to_string(shown.degrees), "not a number");
  movie.setRotate(static_cast<float>(shown.degrees));
  // --hflip mirrors the picture as it comes, as the video's own mirror does.
  movie.setHflip(hflip != shown.mirrored);
  movie.setVflip(vflip);
  movie.setSaturation(static_cast<float>(saturation.value_or(kNeutralSaturation)));
  movie.setBrightness(static_cast<float>(brightness.value_or(kNeutralBrightness)));
  movie.setContrast(static_cast<float>(contrast.value_or(kNeutralContrast)));
  movie.setHue(static_cast<float>(hue.value_or(kNeutralHue)));
  if (!effect.empty()) {
    if (!EffectManager::filterWithName(effect))
      return usage("unknown effect", effect, "'varnel effects' lists the presets");
    movie.setEffectName(effect);
  }
  if (!watermark.empty()) {
    std::string reason;
    std::optional<vn::FilterImage> mark = vn::FilterImage::fromFile(watermark, &reason);
    if (!mark)
      return fail("cannot read watermark", watermark, reason);
    movie.setWatermark(mark);
  }
  return kExitOk;
}

int openForPictures(Input& input, const std::string& path, Input::Extent* extent) {
  input.picturesOnly = true;
  if (const int status = input.openWithTracks(path, ""); status != kExitOk)
    return status;
  if (!input.movie->videoMedia())
    return fail("cannot take a picture from", path, "it has no video");
  *extent = input.extent();
  input.warnIfCutShort(path, *extent);
  return kExitOk;
}

int checkTime(const std::string& option,
              double seconds,
              const Input::Extent& extent,
              const std::string& text,
              const std::string& path) {
  if (!std::isfinite(seconds) || seconds < 0)
    return usage("bad " + option, text, "expected seconds from the start");
  // Nothing of the video can be read: the file is at fault, at any time.
  if (extent.end() <= 0)
    return fail("cannot read", path, "no picture of its video can be decoded");
  if (seconds >= extent.end()) {
    // Inside a file that is cut short, the time is good and the file is
    // not: the work fails.
    const bool cut = extent.cutShort && (extent.duration <= 0 || seconds < extent.duration);
    char reason[96];
    std::snprintf(reason, sizeof reason,
                  cut ? "cut short: its video can be read up to %.3f s"
                      : "past the end (the video can be read up to %.3f s)",
                  extent.end());
    return cut ? fail("cannot read", path, reason) : usage("bad " + option, text, reason);
  }
  return kExitOk;
}

std::string numberText(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

bool isPictureName(const std::string& output) {
  std::string ext = std::filesystem::path(output).extension().string();
  for (char& c : ext)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".png" || ext == ".jpg" || ext == ".jpeg";
}

int writePicture(const vn::FilterImage& picture, const std::string& output) {
  std::string reason;
  if (!picture.writeToFile(output, &reason))
    return fail("cannot write", output, reason);
  return kExitOk;
}

namespace {

// The video's display matrix, or null.
const int32_t* displayMatrix(Input& input) {
  const std::shared_ptr<VNFFMedia> video = input.movie->videoMedia();
  const std::shared_ptr<VNFFMediaStream> stream = video ? video->videoStream() : nullptr;
  const AVStream* s = stream ? stream->stream() : nullptr;
  if (!s)
    return nullptr;
  size_t size = 0;
  const uint8_t* matrix = av_stream_get_side_data(s, AV_PKT_DATA_DISPLAYMATRIX, &size);
  if (!matrix || size < 9 * sizeof(int32_t))
    return nullptr;
  return reinterpret_cast<const int32_t*>(matrix);
}

}  // namespace

bool mirrorsPicture(const int32_t* m) {
  return double(m[0]) * m[4] - double(m[1]) * m[3] < 0;
}

DisplayTurn displayTurn(Input& input) {
  const int32_t* m = displayMatrix(input);
  if (!m)
    return {};
  // The matrix maps a point (x, y) of the picture, y down, to
  // (a x + c y, b x + d y). With y up, as the picture is turned, that is
  // [a -c; -b d]: a turn R, or a turn after a mirror, R * [-1 0; 0 1], when
  // its determinant is negative.
  const double a = m[0], b = m[1];
  DisplayTurn turn;
  turn.mirrored = mirrorsPicture(m);
  const double angle = turn.mirrored ? std::atan2(b, -a) : std::atan2(-b, a);
  if (std::isfinite(angle))
    turn.degrees = angle * 180 / M_PI;
  // A quarter turn given in 16.16 numbers is a quarter turn.
  const double quarters = std::round(turn.degrees / 90);
  if (std::abs(turn.degrees - quarters * 90) < 0.01)
    turn.degrees = quarters * 90 == 0 ? 0 : quarters * 90;
  return turn;
}

}  // namespace varnel_cli
