#include "effects/picture_settings.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include "effects/effect_video_stream.h"
#include "ffmpeg/owners.h"

namespace {

// Settings changed together while pictures are composed on another thread:
// every picture shows all of one settings value, never a crop of one with
// the flip of the other.
TEST(PictureSettingsTest, ACompositionSeesOneWholeValue) {
  constexpr int kWidth = 320, kHeight = 240, kOutW = 32, kOutH = 24;
  // Grey with its top quarter white.
  vn::ff::Frame frame(av_frame_alloc());
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = kWidth;
  frame->height = kHeight;
  ASSERT_GE(av_frame_get_buffer(frame.get(), 0), 0);
  for (int y = 0; y < kHeight; ++y)
    std::memset(frame->data[0] + y * frame->linesize[0], y < kHeight / 4 ? 235 : 128, kWidth);
  for (int p = 1; p < 3; ++p) {
    for (int y = 0; y < kHeight / 2; ++y)
      std::memset(frame->data[p] + y * frame->linesize[p], 128, kWidth / 2);
  }

  // whole: the whole picture, upright (a white top quarter). topHalf: the
  // top half turned upside down (a white bottom half). Half of one and half
  // of the other gives a white bottom quarter or a white top half.
  PictureSettings whole;
  whole.outputFormat = {AV_PIX_FMT_RGBA, kOutW, kOutH};
  whole.zoomType = VNFFEffectVideoStream::kZoomStretch;
  whole.cropRect = {0, 0, kWidth, kHeight};
  PictureSettings topHalf = whole;
  topHalf.cropRect = {0, kHeight / 2, kWidth, kHeight / 2};
  topHalf.vflip = true;

  auto stream = VNFFEffectVideoStream::create();
  stream->setPictureSettings(whole);
  stream->updateConverter();  // no media: the first picture gives the format
  stream->writeFrame(frame.get());

  std::atomic<bool> stop{false};
  std::thread setter([&] {
    for (int i = 0; !stop.load(); ++i) {
      if (i % 2)
        stream->setPictureSettings(topHalf);
      else
        stream->changePictureSettings([&](PictureSettings& s) { s = whole; });
      // A single setter changes its field of the whole value only.
      stream->setSaturation(0.5f);
    }
  });
  for (int i = 0; i < 200; ++i) {
    const std::optional<vn::FilterImage> image = stream->currentEffectImage();
    ASSERT_TRUE(image);
    const std::vector<uint8_t> rgba = image->render(vn::Rect{0, 0, kOutW, kOutH});
    ASSERT_EQ(rgba.size(), size_t{kOutW * kOutH * 4});
    // Rows sampled in the middle column, top first: white or grey.
    int firstWhite = -1, whiteRows = 0;
    for (int y = 0; y < kOutH; ++y) {
      if (rgba[(size_t(y) * kOutW + kOutW / 2) * 4] > 200) {
        whiteRows += 1;
        if (firstWhite < 0)
          firstWhite = y;
      }
    }
    const bool isWhole = firstWhite == 0 && std::abs(whiteRows - kOutH / 4) <= 1;
    const bool isTopHalf = firstWhite >= kOutH / 2 - 1 && std::abs(whiteRows - kOutH / 2) <= 1;
    ASSERT_TRUE(isWhole || isTopHalf)
        << "picture " << i << ": " << whiteRows << " white rows from row " << firstWhite;
  }
  stop.store(true);
  setter.join();
  const PictureSettings last = stream->pictureSettings();
  EXPECT_EQ(last.vflip, last.cropRect.height == kHeight / 2);
  EXPECT_EQ(last.saturation, 0.5f);
}

}  // namespace
