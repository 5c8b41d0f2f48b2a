// The presets rendered straight to 8-bit pixels against the same pictures
// made as linear floats and encoded afterwards: the renderer takes tables
// for runs of point operations on 8-bit pictures, and they must agree with
// the float rows within one code, whatever the thread count.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "effects/effect_manager.h"
#include "effects/preset_image.h"
#include "image/filter_image.h"
#include "image/image_filter.h"
#include "image/pixel_buffer.h"
#include "image/srgb.h"

namespace {

using vn::FilterImage;
using vn::Rect;

constexpr int kWidth = 256, kHeight = 64;

// Every level of each channel alone, of the three together and across
// other levels, then random colours; the last rows translucent at random,
// with a few transparent pixels.
std::vector<uint8_t> variedPicture() {
  std::vector<uint8_t> rgba(size_t(kWidth) * kHeight * 4);
  std::mt19937 random(26);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      uint8_t* p = &rgba[(size_t(y) * kWidth + x) * 4];
      const uint8_t v = static_cast<uint8_t>(x);
      const uint8_t other = static_cast<uint8_t>(y * 37);
      p[3] = 255;
      if (y < 3) {
        p[0] = p[1] = p[2] = 0;
        p[y] = v;
      } else if (y == 3) {
        p[0] = p[1] = p[2] = v;
      } else if (y < 16) {
        p[0] = p[1] = p[2] = other;
        p[y % 3] = v;
      } else {
        for (int k = 0; k < 3; ++k)
          p[k] = static_cast<uint8_t>(random());
        if (y >= 48)
          p[3] = static_cast<uint8_t>(random() % 4 == 0 ? 0 : random());
      }
    }
  }
  return rgba;
}

FilterImage picture(const std::vector<uint8_t>& rgba, FilterImage::ByteOrder order) {
  std::vector<uint8_t> bytes = rgba;
  if (order == FilterImage::ByteOrder::BGRA) {
    for (size_t i = 0; i < bytes.size(); i += 4)
      std::swap(bytes[i], bytes[i + 2]);
  }
  return *FilterImage::fromRaster(bytes.data(), kWidth, kHeight, kWidth * 4, order);
}

// The image made as floats and encoded afterwards, as straight-alpha RGBA.
std::vector<uint8_t> throughFloats(const FilterImage& image, const Rect& rect) {
  const vn::PixelBuffer pixels = image.renderPixels(rect);
  std::vector<uint8_t> out(pixels.pixels.size());
  for (size_t i = 0; i < pixels.pixels.size(); i += 4) {
    const float* p = &pixels.pixels[i];
    if (!(p[3] > 0))
      continue;
    for (int k = 0; k < 3; ++k)
      out[i + k] = vn::linearToSrgb(p[k] / p[3]);
    out[i + 3] = p[3] >= 1 ? 255 : static_cast<uint8_t>(p[3] * 255 + 0.5f);
  }
  return out;
}

// The largest difference of a colour channel, or 1000 when the alpha codes
// differ or the sizes do.
int largestDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  if (a.size() != b.size() || a.empty())
    return 1000;
  int worst = 0;
  for (size_t i = 0; i < a.size(); i += 4) {
    if (a[i + 3] != b[i + 3])
      return 1000;
    for (int k = 0; k < 3; ++k)
      worst = std::max(worst, std::abs(a[i + k] - b[i + k]));
  }
  return worst;
}

}  // namespace

// Every preset, in both byte orders, over every level and random colours:
// within one code of the float rows, and the same bytes on one thread as
// on all of them.
TEST(PresetBytesTest, EveryPresetAgreesWithTheFloatRowsWithinOneCode) {
  const std::vector<uint8_t> rgba = variedPicture();
  const Rect area{0, 0, kWidth, kHeight};
  for (const auto order : {FilterImage::ByteOrder::RGBA, FilterImage::ByteOrder::BGRA}) {
    const FilterImage in = picture(rgba, order);
    for (const std::string& name : EffectManager::allFilterNames()) {
      SCOPED_TRACE(name);
      const std::optional<FilterImage> out = applyEffectPreset(name, in);
      ASSERT_TRUE(out);
      const std::vector<uint8_t> bytes = out->render(area);
      EXPECT_LE(largestDifference(bytes, throughFloats(*out, area)), 1);
      FilterImage::RenderOptions one;
      one.threads = 1;
      EXPECT_EQ(out->render(area, one), bytes);
    }
    // No effect at all: the picture's own bytes, transparent pixels cleared.
    std::vector<uint8_t> expected = rgba;
    for (size_t i = 0; i < expected.size(); i += 4) {
      if (expected[i + 3] == 0)
        expected[i] = expected[i + 1] = expected[i + 2] = 0;
    }
    EXPECT_EQ(in.render(area), expected);
  }
}

// Runs the tables hold and runs they do not (two monochromes; a matrix
// before and after a monochrome; a position-dependent stage), on a picture
// moved by whole pixels and rendered over more than it covers: the
// uncovered pixels are transparent and the rest agrees with the floats.
TEST(PresetBytesTest, MovedPicturesAndLongerRunsAgreeWithTheFloatRows) {
  const FilterImage in = picture(variedPicture(), FilterImage::ByteOrder::RGBA).translated(-7, 5);
  auto apply = [](const FilterImage& image, const char* filter,
                  std::initializer_list<std::pair<const char*, double>> numbers) {
    std::shared_ptr<vn::ImageFilter> f = vn::ImageFilter::withName(filter);
    EXPECT_TRUE(f);
    f->setValue(vn::kInputImageKey, image);
    for (const auto& [key, value] : numbers)
      f->setValue(key, vn::FilterValue(value));
    return *f->outputImage();
  };
  const FilterImage controls = apply(in, "ColorControls",
                                     {{vn::kInputSaturationKey, 1.7},
                                      {vn::kInputBrightnessKey, -0.1},
                                      {vn::kInputContrastKey, 1.3}});
  const FilterImage mono = apply(controls, "ColorMonochrome", {{vn::kInputIntensityKey, 0.6}});
  const FilterImage hue = apply(mono, "HueAdjust", {{vn::kInputAngleKey, 1.1}});
  const FilterImage twice = apply(hue, "ColorMonochrome", {{vn::kInputIntensityKey, 0.3}});
  const FilterImage lit = apply(hue, "SpotLight", {});
  const Rect area{-20, -10, kWidth + 30, kHeight + 25};
  for (const FilterImage* image : {&in, &controls, &mono, &hue, &twice, &lit}) {
    const std::vector<uint8_t> bytes = image->render(area);
    EXPECT_LE(largestDifference(bytes, throughFloats(*image, area)), 1);
    // The corners lie outside the moved picture.
    ASSERT_EQ(bytes.size(), size_t(kWidth + 30) * (kHeight + 25) * 4);
    EXPECT_EQ(bytes[3], 0);
    EXPECT_EQ(bytes[bytes.size() - 1], 0);
  }
}
