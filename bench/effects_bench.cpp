// The cost of the picture work of a movie, without decoding: 100 pictures
// of FILE are decoded once into memory (8-bit RGBA, at 1920x1080 and scaled
// to 1280x720 with swscale), then only the image layer is timed.
//
//   varnel_bench_effects FILE WATERMARK [FRAMES [SAVE_DIR]]
//
// (a) Every effect preset, on the 1280x720 pictures: the preset applied as
//     a frame takes it (applyEffectPreset), its output cropped to the
//     picture, rendered into an RGBA buffer with every core.
// (b) The full chain of picture settings on the 1920x1080 pictures: crop
//     1720x980 at (100, 50) from the top left, rotate 10 degrees clockwise,
//     mirror left to right, fit into 1280x720 on black, colour controls
//     (saturation 1.2, brightness 0.05, contrast 1.1), hue 0.3 rad, the
//     preset "1970", and WATERMARK (a PNG) laid over 16 pixels in from the
//     bottom-right corner; rendered as in (a).
//
// Prints "preset<TAB>NAME<TAB>MS", one line per preset in catalogue order,
// "plain<TAB>MS" (the picture rendered with no effect: reading and writing
// 8-bit pixels alone) and "chain<TAB>MS", all milliseconds per picture.
// With SAVE_DIR, the first picture of the chain and of every preset is
// written there as PNG, to look at. bench/effects_vs_ffmpeg.sh runs it next
// to the same work done by FFmpeg's filters.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include "varnel.h"

namespace {

using Clock = std::chrono::steady_clock;
using vn::FilterImage;
using vn::Rect;

constexpr int kWidth = 1280, kHeight = 720;

// One picture in memory: 8-bit RGBA rows, packed.
struct Picture {
  int width = 0, height = 0;
  std::shared_ptr<std::vector<uint8_t>> rgba;

  FilterImage image() const {
    return *FilterImage::fromBitmap(
        vn::BitmapImage::borrow(rgba->data(), width, height, width * 4, rgba));
  }
};

// The first `count` pictures of path at their own size and at 1280x720.
bool decode(const std::string& path,
            int count,
            std::vector<Picture>* full,
            std::vector<Picture>* small) {
  AVFormatContext* format = nullptr;
  if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0)
    return false;
  std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> formatOwner(
      format, [](AVFormatContext* f) { avformat_close_input(&f); });
  if (avformat_find_stream_info(format, nullptr) < 0)
    return false;
  const AVCodec* codec = nullptr;
  const int index = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
  if (index < 0 || !codec)
    return false;
  std::unique_ptr<AVCodecContext, void (*)(AVCodecContext*)> context(
      avcodec_alloc_context3(codec), [](AVCodecContext* c) { avcodec_free_context(&c); });
  avcodec_parameters_to_context(context.get(), format->streams[index]->codecpar);
  context->thread_count = 0;
  if (avcodec_open2(context.get(), codec, nullptr) < 0)
    return false;
  std::unique_ptr<AVFrame, void (*)(AVFrame*)> frame(av_frame_alloc(),
                                                     [](AVFrame* f) { av_frame_free(&f); });
  std::unique_ptr<AVPacket, void (*)(AVPacket*)> packet(av_packet_alloc(),
                                                        [](AVPacket* p) { av_packet_free(&p); });
  SwsContext* toFull = nullptr;
  SwsContext* toSmall = nullptr;
  auto keep = [&](SwsContext** scaler, int w, int h, std::vector<Picture>* into) {
    *scaler = sws_getCachedContext(*scaler, frame->width, frame->height,
                                   static_cast<AVPixelFormat>(frame->format), w, h, AV_PIX_FMT_RGBA,
                                   SWS_BILINEAR, nullptr, nullptr, nullptr);
    Picture p{w, h, std::make_shared<std::vector<uint8_t>>(size_t(w) * h * 4)};
    uint8_t* planes[1] = {p.rgba->data()};
    const int strides[1] = {w * 4};
    sws_scale(*scaler, frame->data, frame->linesize, 0, frame->height, planes, strides);
    into->push_back(std::move(p));
  };
  bool draining = false;
  while (static_cast<int>(full->size()) < count) {
    const int got = avcodec_receive_frame(context.get(), frame.get());
    if (got == 0) {
      keep(&toFull, frame->width, frame->height, full);
      keep(&toSmall, kWidth, kHeight, small);
      continue;
    }
    if (got != AVERROR(EAGAIN) || draining)
      break;
    if (av_read_frame(format, packet.get()) < 0) {
      avcodec_send_packet(context.get(), nullptr);
      draining = true;
      continue;
    }
    if (packet->stream_index == index)
      avcodec_send_packet(context.get(), packet.get());
    av_packet_unref(packet.get());
  }
  sws_freeContext(toFull);
  sws_freeContext(toSmall);
  return static_cast<int>(full->size()) == count;
}

// Milliseconds per picture of building and rendering make(picture) into a
// 1280x720 RGBA buffer, over every picture.
double timePerPicture(const std::vector<Picture>& pictures,
                      const std::function<FilterImage(const Picture&)>& make,
                      const std::string& saveAs) {
  std::vector<uint8_t> out(size_t(kWidth) * kHeight * 4);
  const Rect area{0, 0, kWidth, kHeight};
  const Clock::time_point start = Clock::now();
  for (const Picture& p : pictures) {
    if (!make(p).render(area, out.data(), kWidth * 4)) {
      std::fprintf(stderr, "varnel_bench_effects: a render failed (%s)\n", saveAs.c_str());
      std::exit(1);
    }
  }
  const double ms =
      std::chrono::duration<double, std::milli>(Clock::now() - start).count() / pictures.size();
  if (!saveAs.empty()) {
    std::string reason;
    if (!make(pictures.front()).cropped(area).writeToFile(saveAs, &reason))
      std::fprintf(stderr, "varnel_bench_effects: %s: %s\n", saveAs.c_str(), reason.c_str());
  }
  return ms;
}

std::shared_ptr<vn::ImageFilter> filter(
    const char* name,
    std::initializer_list<std::pair<const char*, double>> settings) {
  std::shared_ptr<vn::ImageFilter> f = vn::ImageFilter::withName(name);
  if (!f) {
    std::fprintf(stderr, "varnel_bench_effects: no filter %s\n", name);
    std::exit(1);
  }
  for (const auto& [key, value] : settings)
    f->setValue(key, value);
  return f;
}

FilterImage through(const std::shared_ptr<vn::ImageFilter>& f, const FilterImage& image) {
  f->setValue(vn::kInputImageKey, image);
  return *f->outputImage();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: varnel_bench_effects FILE WATERMARK [FRAMES [SAVE_DIR]]\n");
    return 2;
  }
  const std::string path = argv[1];
  const int count = argc > 3 ? std::atoi(argv[3]) : 100;
  const std::string saveDir = argc > 4 ? argv[4] : "";
  auto saveAs = [&](const std::string& name) {
    return saveDir.empty() ? std::string() : saveDir + "/" + name + ".png";
  };

  std::string reason;
  const std::optional<FilterImage> watermark = FilterImage::fromFile(argv[2], &reason);
  if (!watermark) {
    std::fprintf(stderr, "varnel_bench_effects: %s: %s\n", argv[2], reason.c_str());
    return 1;
  }
  std::vector<Picture> full, small;
  if (count <= 0 || !decode(path, count, &full, &small)) {
    std::fprintf(stderr, "varnel_bench_effects: cannot decode %d pictures of %s\n", count,
                 path.c_str());
    return 1;
  }

  // (a) Every preset (or only the one VARNEL_BENCH_ONLY names, for profiling).
  const char* only = std::getenv("VARNEL_BENCH_ONLY");
  for (const std::string& name : EffectManager::allFilterNames()) {
    if (only && name != only)
      continue;
    // VARNEL_BENCH_REPEAT runs it that many times over and keeps the
    // fastest, for a profiler or a shared machine.
    const char* repeat = std::getenv("VARNEL_BENCH_REPEAT");
    double ms = 1e9;
    for (int r = 0; r < (only && repeat ? std::max(1, std::atoi(repeat)) : 1); ++r) {
      ms = std::min(ms, timePerPicture(
                            small,
                            [&](const Picture& p) {
                              std::optional<FilterImage> shown = applyEffectPreset(name, p.image());
                              if (!shown) {
                                std::fprintf(stderr, "varnel_bench_effects: no preset %s\n",
                                             name.c_str());
                                std::exit(1);
                              }
                              return *shown;
                            },
                            r == 0 ? saveAs("preset-" + name) : ""));
    }
    std::printf("preset\t%s\t%.2f\n", name.c_str(), ms);
    std::fflush(stdout);
  }
  const bool onlyChain = only && std::string(only) == "chain";
  if (only && !onlyChain)
    return 0;
  if (!onlyChain)
    std::printf("plain\t%.2f\n", timePerPicture(
                                     small, [](const Picture& p) { return p.image(); }, ""));

  // (b) The chain. The crop is given from the top left, as FFmpeg's is;
  // picture space counts from the bottom left.
  const Rect crop{100, 1080.0 - 50 - 980, 1720, 980};
  const double angle = -10 * std::numbers::pi / 180;  // clockwise
  const double boxWidth = crop.width * std::cos(angle) + crop.height * std::sin(-angle);
  const double boxHeight = crop.width * std::sin(-angle) + crop.height * std::cos(angle);
  const double fit = std::min(kWidth / boxWidth, kHeight / boxHeight);
  // Steps apply last-added first: centre the crop on the origin, turn it,
  // mirror it, scale it to fit, centre it in the output.
  const vn::AffineTransform place =
      vn::AffineTransform::makeTranslation(kWidth / 2.0, kHeight / 2.0)
          .scaled(fit, fit)
          .scaled(-1, 1)
          .rotated(angle)
          .translated(-(crop.x + crop.width / 2), -(crop.y + crop.height / 2));
  const FilterImage black =
      FilterImage::withColor({0, 0, 0, 1}).cropped(Rect{0, 0, kWidth, kHeight});
  const Rect mark = watermark->extent();
  const FilterImage placedMark =
      watermark->translated(kWidth - 16 - mark.width - mark.x, 16 - mark.y);
  const auto controls = filter("ColorControls", {{vn::kInputSaturationKey, 1.2},
                                                 {vn::kInputBrightnessKey, 0.05},
                                                 {vn::kInputContrastKey, 1.1}});
  const auto hue = filter("HueAdjust", {{vn::kInputAngleKey, 0.3}});
  const double chainMs = timePerPicture(
      full,
      [&](const Picture& p) {
        const FilterImage fitted = p.image().cropped(crop).transformed(place).sourceOver(black);
        const FilterImage coloured = through(hue, through(controls, fitted));
        return placedMark.sourceOver(*applyEffectPreset("1970", coloured));
      },
      saveAs("chain"));
  std::printf("chain\t%.2f\n", chainMs);
  return 0;
}
