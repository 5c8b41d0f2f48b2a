// The picture work of a conversion without its encoding: a movie over FILE
// composes every output picture of its first SECONDS with the full set of
// picture settings, and each is rendered into one reused 8-bit RGBA buffer
// of the output size, as `varnel convert` does before it hands the pixels to
// the encoder.
//
//   varnel_bench_compose FILE WATERMARK SECONDS [SAVE.png]
//
// Settings (those of `varnel convert --size 1280x720 --crop 100,50,1720,980
// --rotate 10 --hflip --saturation 0.6 --brightness 0.525 --contrast 0.275
// --hue 0.547771 --effect 1970 --watermark WATERMARK`): output 1280x720, the
// 1720x980 part at (100, 50) from the top left of a 1920x1080 source, turned
// 10 degrees counter-clockwise, mirrored left to right, fitted on black;
// colour controls (saturation x1.2, brightness +0.05, contrast x1.1), hue
// +0.3 rad, the preset "1970", and WATERMARK (a PNG) at its own size in the
// bottom-left corner.
//
// Output pictures are taken at the source's frame rate, each at the middle
// of its output frame; decodeImageAtTime decodes and composes it on the
// movie's decode queue and the provider renders it there with every core.
// Prints "open MS", "frames N", "compose MS" (all pictures) and "per_frame
// MS", milliseconds of wall time. With SAVE.png, the first picture is also
// written there, to look at. bench/compose_vs_ffmpeg.sh runs it next to the
// same chain of FFmpeg filters.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "varnel.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWidth = 1280, kHeight = 720;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// The exact frame rate of the video stream; 25/1 when it gives none.
AVRational frameRate(const std::shared_ptr<VNFFMedia>& video) {
  const std::shared_ptr<VNFFMediaStream> stream = video->videoStream();
  const AVStream* s = stream ? stream->stream() : nullptr;
  if (s) {
    for (AVRational r : {s->r_frame_rate, s->avg_frame_rate}) {
      if (r.num > 0 && r.den > 0 && av_q2d(r) >= 1 && av_q2d(r) <= 240)
        return r;
    }
  }
  return AVRational{25, 1};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: varnel_bench_compose FILE WATERMARK SECONDS [SAVE.png]\n");
    return 2;
  }
  const std::string path = argv[1];
  const double seconds = std::atof(argv[3]);
  const std::string saveAs = argc > 4 ? argv[4] : "";
  if (!(seconds > 0)) {
    std::fprintf(stderr, "varnel_bench_compose: SECONDS must be positive\n");
    return 2;
  }

  const Clock::time_point openStart = Clock::now();
  std::string reason;
  const std::optional<vn::FilterImage> watermark = vn::FilterImage::fromFile(argv[2], &reason);
  if (!watermark) {
    std::fprintf(stderr, "varnel_bench_compose: %s: %s\n", argv[2], reason.c_str());
    return 1;
  }
  auto medias = VNMediaSource::mediaWithPath(path)->createMedias();
  if (!medias) {
    std::fprintf(stderr, "varnel_bench_compose: cannot read %s\n", path.c_str());
    return 1;
  }
  auto movie = VNFFMovie::create();
  movie->openMedias(*medias);
  const VNFFMovie::Medias videos = movie->videos();
  if (videos.empty()) {
    std::fprintf(stderr, "varnel_bench_compose: %s has no video\n", path.c_str());
    return 1;
  }
  const std::shared_ptr<VNFFMedia> video = videos.front();
  const VNFFVideoFormat source = video->videoFormat();
  if (source.width < 1820 || source.height < 1030) {
    std::fprintf(stderr, "varnel_bench_compose: %s is %dx%d; the crop needs 1920x1080\n",
                 path.c_str(), source.width, source.height);
    return 1;
  }

  // The crop is given from the top left; the movie counts from the bottom
  // left.
  movie->setCropRect(vn::Rect{100, double(source.height) - 50 - 980, 1720, 980});
  movie->setRotate(10);
  movie->setHflip(true);
  movie->setSaturation(0.6f);
  movie->setBrightness(0.525f);
  movie->setContrast(0.275f);
  movie->setHue(0.547771f);
  movie->setEffectName("1970");
  movie->setWatermark(watermark);
  movie->setOutputVideoSize(vn::Size{kWidth, kHeight});
  movie->setExportMovie(true);
  movie->seek(0);
  movie->flushOperation();
  const double openMs = msSince(openStart);

  const AVRational rate = frameRate(video);
  const double frameSeconds = av_q2d(av_inv_q(rate));
  const double span = std::min(seconds, static_cast<double>(movie->duration()) / 1e6);
  const int64_t total = std::max<int64_t>(1, std::llround(span / frameSeconds));

  std::vector<uint8_t> out(size_t{kWidth} * kHeight * 4);
  const vn::Rect area{0, 0, kWidth, kHeight};
  int64_t rendered = 0;
  bool saved = saveAs.empty();
  auto provider = std::make_shared<VNFFMovieImageProvider>();
  provider->movieMediaEffectImage = [&](VNFFMovie&, std::optional<vn::FilterImage> image) {
    if (!image || !image->render(area, out.data(), kWidth * 4))
      return;
    ++rendered;
    if (!saved) {
      saved = true;
      std::string why;
      if (!image->writeToFile(saveAs, &why))
        std::fprintf(stderr, "varnel_bench_compose: %s: %s\n", saveAs.c_str(), why.c_str());
    }
  };

  const Clock::time_point start = Clock::now();
  for (int64_t n = 0; n < total; ++n) {
    const int64_t t = std::llround((n + 0.5) * frameSeconds * 1e6);
    movie->decodeImageAtTime(t, provider, true);
  }
  const double composeMs = msSince(start);
  if (rendered != total) {
    std::fprintf(stderr, "varnel_bench_compose: %lld of %lld pictures rendered\n",
                 static_cast<long long>(rendered), static_cast<long long>(total));
    return 1;
  }
  std::printf("open %.1f\n", openMs);
  std::printf("frames %lld\n", static_cast<long long>(total));
  std::printf("compose %.1f\n", composeMs);
  std::printf("per_frame %.2f\n", composeMs / total);
  return 0;
}
