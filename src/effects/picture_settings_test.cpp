#include "effects/picture_settings.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include "effects/effect_manager.h"
#include "effects/effect_video_stream.h"
#include "ffmpeg/owners.h"
#include "media/media_test_support.h"

namespace {

// A preset that, when the composition takes its copy (half-way through a picture), calls back; it
// changes nothing in the picture.
class Hook final : public vn::ImageFilter {
 public:
  explicit Hook(std::function<void()> onCopy) : ImageFilter("Hook"), onCopy_(std::move(onCopy)) {}
  std::optional<vn::FilterImage> outputImage() const override { return std::nullopt; }
  std::shared_ptr<vn::ImageFilter> copy() const override {
    onCopy_();
    return std::make_shared<Hook>(onCopy_);
  }

 private:
  std::function<void()> onCopy_;
};

// Settings changed together while pictures are composed, by another thread and by the composition's
// own preset half-way through it: every picture shows all of the settings it started with, never
// the crop of one value with the flip or the watermark of the other.
TEST(PictureSettingsTest, ACompositionSeesOneWholeValue) {
  constexpr int kWidth = 320, kHeight = 240, kOutW = 32, kOutH = 24;
  const vn::ff::Frame frame = vn::test::yuvFrame(kWidth, kHeight, 128, kHeight / 4);
  ASSERT_TRUE(frame);

  // whole: the whole picture, upright; rows (top first) 0-5 white. topHalf: the top half upside
  // down under a white strip; rows 8-9 and 12-23 white. Any mix of the two gives another pattern.
  PictureSettings whole;
  whole.outputFormat = {AV_PIX_FMT_RGBA, kOutW, kOutH};
  whole.zoomType = VNFFEffectVideoStream::kZoomStretch;
  whole.cropRect = {0, 0, kWidth, kHeight};
  whole.effectName = "Hook";
  PictureSettings topHalf = whole;
  topHalf.cropRect = {0, kHeight / 2, kWidth, kHeight / 2};
  topHalf.vflip = true;
  topHalf.watermark = vn::FilterImage::withColor({1, 1, 1, 1}).cropped({0, 14, kOutW, 2});
  const std::string wholeRows = "WWWWWW..................";
  const std::string topHalfRows = "........WW..WWWWWWWWWWWW";

  auto stream = VNFFEffectVideoStream::create();
  // The preset turns the settings over while each picture is composed.
  const std::shared_ptr<EffectManager> manager = EffectManager::manager();
  const std::shared_ptr<const EffectManager::EffectTable> presets = manager->effects();
  EffectManager::EffectTable withHook = *presets;
  withHook["Hook"] = std::make_shared<Hook>(
      [&] { stream->setPictureSettings(stream->pictureSettings().vflip ? whole : topHalf); });
  manager->setEffects(std::move(withHook));
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
  for (int i = 0; i < 100; ++i) {
    const std::optional<vn::FilterImage> image = stream->currentEffectImage();
    ASSERT_TRUE(image);
    const std::vector<uint8_t> rgba = image->render(vn::Rect{0, 0, kOutW, kOutH});
    ASSERT_EQ(rgba.size(), size_t{kOutW * kOutH * 4});
    std::string rows;
    for (int y = 0; y < kOutH; ++y)
      rows += rgba[(size_t(y) * kOutW + kOutW / 2) * 4] > 200 ? 'W' : '.';
    ASSERT_TRUE(rows == wholeRows || rows == topHalfRows) << "picture " << i << ": " << rows;
  }
  stop.store(true);
  setter.join();
  manager->setEffects(*presets);
  const PictureSettings last = stream->pictureSettings();
  EXPECT_EQ(last.vflip, last.cropRect.height == kHeight / 2);
  EXPECT_EQ(last.saturation, 0.5f);
}

}  // namespace
