#include "image/image_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <numbers>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "image/bitmap_context.h"
#include "image/bitmap_image.h"
#include "image/filter_image.h"
#include "image/pixel_buffer.h"
#include "image/point_table.h"
#include "image/row_executor.h"
#include "image/srgb.h"

namespace {

using vn::AffineTransform;
using vn::FilterImage;
using vn::FilterValue;
using vn::FilterVector;
using vn::ImageFilter;
using vn::Rect;
using Color = FilterImage::Color;
using Px = std::array<int, 4>;  // 8-bit RGBA, straight alpha
using Settings = std::vector<std::pair<std::string, FilterValue>>;

constexpr double kPi = std::numbers::pi;

// A picture at (0, 0); fill gives each pixel's colour by its bottom-left corner (y up).
FilterImage picture(int width, int height, const std::function<Px(int x, int y)>& fill) {
  std::vector<uint8_t> bytes(static_cast<size_t>(width) * height * 4);
  for (int row = 0; row < height; ++row) {
    for (int x = 0; x < width; ++x) {
      const Px p = fill(x, height - 1 - row);
      for (int i = 0; i < 4; ++i)
        bytes[(static_cast<size_t>(row) * width + x) * 4 + i] = static_cast<uint8_t>(p[i]);
    }
  }
  return *FilterImage::fromRaster(bytes.data(), width, height, width * 4,
                                  FilterImage::ByteOrder::RGBA);
}

FilterImage uniform(int width, int height, Px p) {
  return picture(width, height, [p](int, int) { return p; });
}

// The pixel whose bottom-left corner is (x, y) in picture space.
Px pixelAt(const FilterImage& image, int x, int y) {
  const std::vector<uint8_t> bytes = image.render(Rect{double(x), double(y), 1, 1});
  if (bytes.size() != 4)
    return {-1, -1, -1, -1};
  return {bytes[0], bytes[1], bytes[2], bytes[3]};
}

// A filter from the registry with settings applied in order.
std::shared_ptr<ImageFilter> makeFilter(const std::string& name, const Settings& settings) {
  std::shared_ptr<ImageFilter> filter = ImageFilter::withName(name);
  EXPECT_TRUE(filter) << name;
  if (!filter)
    return nullptr;
  for (const auto& [key, value] : settings)
    EXPECT_TRUE(filter->setValue(key, value)) << name << " " << key;
  return filter;
}

FilterImage filtered(const std::string& name, const Settings& settings, const FilterImage& in) {
  std::shared_ptr<ImageFilter> filter = makeFilter(name, settings);
  if (!filter)
    return in;
  filter->setValue(vn::kInputImageKey, in);
  std::optional<FilterImage> out = filter->outputImage();
  EXPECT_TRUE(out) << name;
  return out ? *out : in;
}

void expectExtent(const FilterImage& image, Rect r, double tolerance = 1e-9) {
  const Rect e = image.extent();
  EXPECT_TRUE(std::abs(e.x - r.x) <= tolerance && std::abs(e.y - r.y) <= tolerance &&
              std::abs(e.width - r.width) <= tolerance &&
              std::abs(e.height - r.height) <= tolerance)
      << e.x << "," << e.y << " " << e.width << "x" << e.height;
}

int code(double linear) {
  return vn::linearToSrgb(static_cast<float>(linear));
}

// Random pixels; opaque when asked, else any alpha above 0.
std::vector<uint8_t> noise(int width, int height, bool opaque, unsigned seed = 7) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(static_cast<size_t>(width) * height * 4);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(random());
  for (size_t i = 3; i < bytes.size(); i += 4)
    bytes[i] = opaque ? 255 : std::max<uint8_t>(bytes[i], 1);
  return bytes;
}

FilterImage picture(const std::vector<uint8_t>& bytes, int width, int height) {
  return *FilterImage::fromRaster(bytes.data(), width, height, width * 4,
                                  FilterImage::ByteOrder::RGBA);
}

int maxDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  int most = a.size() == b.size() ? 0 : 256;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
    most = std::max(most, std::abs(int(a[i]) - int(b[i])));
  return most;
}

vn::ColorMatrixOp saturation(float s) {
  vn::ColorMatrixOp op;
  const float w[3] = {0.2125f, 0.7154f, 0.0721f};
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c)
      op.m[r][c] = (1 - s) * w[c] + (r == c ? s : 0);
  }
  return op;
}

}  // namespace

TEST(ImageFilterTest, NeutralSettingsKeepEveryCode) {
  // Every code in every channel, and a second row with the channels swapped.
  const FilterImage in = picture(256, 2, [](int x, int y) {
    return y == 0 ? Px{x, 255 - x, (x * 7) & 255, 255} : Px{(x * 7) & 255, x, 255 - x, 255};
  });
  const std::vector<uint8_t> expected = in.render();
  const std::tuple<const char*, Settings> cases[] = {
      {"ColorControls", {}},
      {"HueAdjust", {}},
      {"ExposureAdjust", {}},
      {"ColorMonochrome", {{vn::kInputIntensityKey, 0.0}}},
      {"SepiaTone", {{vn::kInputIntensityKey, 0.0}}},
      {"Bloom", {{vn::kInputIntensityKey, 0.0}}},
      {"GaussianBlur", {{vn::kInputRadiusKey, 0.1}}},
      {"SharpenLuminance", {{vn::kInputSharpnessKey, 0.0}}},
  };
  for (const auto& [name, settings] : cases) {
    const FilterImage out = filtered(name, settings, in);
    expectExtent(out, in.extent());
    EXPECT_EQ(out.render(), expected) << name;
  }
}

TEST(ImageFilterTest, PointFiltersMatchReferenceColours) {
  const Settings none, darker = {{vn::kInputBrightnessKey, -0.4}},
                       half = {{vn::kInputIntensityKey, 0.5}},
                       all = {{vn::kInputSaturationKey, 1.2},
                              {vn::kInputBrightnessKey, 0.05},
                              {vn::kInputContrastKey, 1.1}};
  const std::tuple<const char*, Settings, Px, Px> cases[] = {
      // Saturation, brightness and contrast work on linear light about the linear mid-grey, in that
      // order.
      {"ColorControls", {{vn::kInputSaturationKey, 0.0}}, {255, 0, 0, 255}, {127, 127, 127, 255}},
      {"ColorControls", darker, {255, 255, 255, 255}, {203, 203, 203, 255}},
      {"ColorControls", {{vn::kInputContrastKey, 2.0}}, {128, 128, 128, 255}, {0, 0, 0, 255}},
      {"ColorControls", all, {180, 120, 60, 255}, {197, 124, 30, 255}},
      // Hue turns about the grey axis; positive angles take red to green.
      {"HueAdjust", {{vn::kInputAngleKey, 2 * kPi / 3}}, {255, 0, 0, 255}, {0, 255, 0, 255}},
      {"HueAdjust", {{vn::kInputAngleKey, 1.0}}, {128, 128, 128, 255}, {128, 128, 128, 255}},
      // Inversion of linear, unpremultiplied colour.
      {"ColorInvert", none, {200, 100, 50, 255}, {174, 240, 251, 255}},
      {"ColorInvert", none, {255, 0, 0, 128}, {0, 255, 255, 128}},
      {"ExposureAdjust", {{vn::kInputEVKey, 1.0}}, {128, 128, 128, 255}, {176, 176, 176, 255}},
      // Monochrome with its default colour (0.6, 0.45, 0.3).
      {"ColorMonochrome", none, {128, 128, 128, 255}, {104, 77, 50, 255}},
      {"ColorMonochrome", half, {128, 128, 128, 255}, {117, 106, 99, 255}},
      {"SepiaTone", none, {255, 255, 255, 255}, {255, 255, 248, 255}},
      {"SepiaTone", none, {200, 100, 50, 255}, {156, 148, 132, 255}},
  };
  for (const auto& [name, settings, in, want] : cases) {
    const FilterImage out = filtered(name, settings, uniform(2, 2, in));
    expectExtent(out, Rect{0, 0, 2, 2});
    EXPECT_EQ(pixelAt(out, 1, 1), want)
        << name << " on " << in[0] << "," << in[1] << "," << in[2] << "," << in[3];
  }
}

TEST(ImageFilterTest, PositionedPointFiltersMatchReferenceColours) {
  const Px white = {255, 255, 255, 255};
  const Px grey188 = {188, 188, 188, 255};
  const Settings screen = {{vn::kInputCenterKey, FilterVector::xy(0, 0)},
                           {vn::kInputAngleKey, 0.0},
                           {vn::kInputWidthKey, 6.0},
                           {vn::kInputSharpnessKey, 0.7}};
  Settings screenAcross = screen;
  screenAcross[1].second = kPi / 2;
  Settings screenHard = screen;
  screenHard[3].second = 1.0;
  const Settings redLight = {{vn::kInputColorKey, Color{1, 0, 0, 1}}};
  // name, settings, side of a square uniform picture, its colour, x, y (y up), output
  const std::tuple<const char*, Settings, int, Px, int, int, Px> cases[] = {
      // The spotlight's defaults on a 400 x 400 picture; y is up, so raster row 399 is y = 0.
      {"SpotLight", {}, 400, white, 199, 200, {250, 250, 250, 255}},
      {"SpotLight", {}, 400, white, 0, 0, {193, 193, 193, 255}},
      {"SpotLight", redLight, 400, white, 199, 200, {250, 0, 0, 255}},
      // Horizontal lines through the origin, six pixels apart.
      {"LineScreen", screen, 12, grey188, 0, 0, {0, 0, 0, 255}},
      {"LineScreen", screen, 12, grey188, 0, 1, {189, 189, 189, 255}},
      {"LineScreen", screen, 12, grey188, 0, 2, {255, 255, 255, 255}},
      {"LineScreen", screen, 12, grey188, 0, 6, {0, 0, 0, 255}},
      {"LineScreen", screenAcross, 12, grey188, 1, 0, {189, 189, 189, 255}},
      {"LineScreen", screenHard, 12, grey188, 0, 1, {255, 255, 255, 255}},
      {"LineScreen", screen, 12, {0, 0, 0, 255}, 0, 2, {0, 0, 0, 255}},
  };
  for (const auto& [name, settings, size, in, x, y, want] : cases) {
    const FilterImage out = filtered(name, settings, uniform(size, size, in));
    expectExtent(out, Rect{0, 0, double(size), double(size)});
    EXPECT_EQ(pixelAt(out, x, y), want) << name << " at " << x << "," << y;
  }
}

TEST(ImageFilterTest, BlurGrowsTheExtentAndFadesToTransparent) {
  // One white pixel in a transparent 7 x 7 field.
  const FilterImage dot = picture(7, 7, [](int x, int y) {
    return x == 3 && y == 3 ? Px{255, 255, 255, 255} : Px{0, 0, 0, 0};
  });
  const FilterImage blurredDot = filtered("GaussianBlur", {{vn::kInputRadiusKey, 1.0}}, dot);
  expectExtent(blurredDot, Rect{-3, -3, 13, 13});
  EXPECT_EQ((std::vector{pixelAt(blurredDot, 3, 3), pixelAt(blurredDot, 4, 3),
                         pixelAt(blurredDot, 2, 4)}),
            (std::vector<Px>{{255, 255, 255, 41}, {255, 255, 255, 25}, {255, 255, 255, 15}}));

  const FilterImage field = uniform(100, 100, {255, 255, 255, 255});
  const FilterImage blurred = filtered("GaussianBlur", {{vn::kInputRadiusKey, 10.0}}, field);
  expectExtent(blurred, Rect{-30, -30, 160, 160});
  // The middle of an edge, a corner, the first row outside, the middle.
  EXPECT_EQ(
      (std::vector{pixelAt(blurred, 0, 50), pixelAt(blurred, 99, 0), pixelAt(blurred, 50, 100),
                   pixelAt(blurred, 50, 50)}),
      (std::vector<Px>{
          {255, 255, 255, 133}, {255, 255, 255, 69}, {255, 255, 255, 122}, {255, 255, 255, 255}}));
  const FilterImage black = FilterImage::withColor(Color{0, 0, 0, 1}).cropped(blurred.extent());
  const FilterImage flat =
      filtered("SourceOverCompositing",
               {{vn::kInputImageKey, blurred}, {vn::kInputBackgroundImageKey, black}}, blurred);
  EXPECT_EQ(pixelAt(flat, 0, 50), (Px{191, 191, 191, 255}));
}

TEST(ImageFilterTest, NeighbourhoodFiltersMatchReferenceColours) {
  const auto dotIn = [](Px field) {
    return picture(21, 21, [field](int x, int y) {
      return x == 10 && y == 10 ? Px{255, 255, 255, 255} : field;
    });
  };
  // A black left half and a white right half.
  const FilterImage step = picture(8, 4, [](int x, int) {
    return x < 4 ? Px{0, 0, 0, 255} : Px{255, 255, 255, 255};
  });
  const FilterImage grey188 = uniform(8, 8, {188, 188, 188, 255});
  const Settings half = {{vn::kInputIntensityKey, 0.5}};
  const Settings narrowHalf = {{vn::kInputRadiusKey, 1.0}, {vn::kInputIntensityKey, 0.5}};
  // Red on the left half, blue on the right, cells centred on the middle.
  const FilterImage halves = picture(32, 32, [](int x, int) {
    return x < 16 ? Px{255, 0, 0, 255} : Px{0, 0, 255, 255};
  });
  const Settings cells = {{vn::kInputCenterKey, FilterVector::xy(16, 16)},
                          {vn::kInputScaleKey, 8.0}};
  const std::tuple<const char*, Settings, FilterImage, int, int, Px> cases[] = {
      // Luma detail is added to every channel, chroma kept.
      {"SharpenLuminance", {}, dotIn({188, 188, 188, 255}), 10, 10, {255, 255, 255, 255}},
      {"SharpenLuminance", {}, dotIn({188, 188, 188, 255}), 11, 10, {186, 186, 186, 255}},
      {"SharpenLuminance", {}, dotIn({200, 100, 50, 255}), 9, 10, {198, 94, 36, 255}},
      // A screen (bloom) or multiply (gloom) blend with a blurred copy.
      {"Bloom", half, grey188, 4, 4, {208, 208, 208, 255}},
      {"Gloom", half, grey188, 4, 4, {165, 165, 165, 255}},
      {"Bloom", narrowHalf, step, 3, 1, {108, 108, 108, 255}},
      {"Gloom", narrowHalf, step, 3, 1, {0, 0, 0, 255}},
      {"Bloom", narrowHalf, step, 4, 1, {255, 255, 255, 255}},
      {"Gloom", narrowHalf, step, 4, 1, {237, 237, 237, 255}},
      // A cell across the border holds the mean of its pixels in linear light.
      {"HexagonalPixellate", cells, halves, 16, 16, {188, 0, 188, 255}},
  };
  for (const auto& [name, settings, in, x, y, want] : cases) {
    const FilterImage out = filtered(name, settings, in);
    expectExtent(out, in.extent());
    EXPECT_EQ(pixelAt(out, x, y), want) << name << " at " << x << "," << y;
  }
}

TEST(ImageFilterTest, CompositingFollowsPorterDuffInLinearLight) {
  const auto colored = [](double r, double g, double b, double a) {
    return FilterImage::withColor(Color{r, g, b, a}).cropped(Rect{0, 0, 4, 4});
  };
  const FilterImage blue = uniform(4, 4, {0, 0, 255, 255});
  // Two half-covering layers given in linear light.
  const FilterImage s = colored(vn::srgbOetf(0.8), vn::srgbOetf(0.2), vn::srgbOetf(0.1), 0.5);
  const FilterImage d = colored(vn::srgbOetf(0.1), vn::srgbOetf(0.3), vn::srgbOetf(0.9), 0.5);
  const Px mixed = {code(0.425 / 0.75), code(0.175 / 0.75), code(0.275 / 0.75), 191};
  const std::tuple<const char*, FilterImage, FilterImage, Px> cases[] = {
      {"SourceOverCompositing", uniform(4, 4, {255, 0, 0, 128}), blue, {188, 0, 187, 255}},
      {"SourceOverCompositing", s, d, mixed},
      {"SourceInCompositing", colored(0, 1, 0, 1), uniform(4, 4, {9, 9, 9, 64}), {0, 255, 0, 64}},
      {"SourceOverCompositing", uniform(4, 4, {255, 0, 0, 0}), blue, {0, 0, 255, 255}},
  };
  for (const auto& [name, source, background, want] : cases) {
    const FilterImage out = filtered(name, {{vn::kInputBackgroundImageKey, background}}, source);
    EXPECT_EQ(pixelAt(out, 2, 2), want) << name;
  }

  // Over covers the union; outside both reads transparent. In covers the intersection.
  const FilterImage moved = blue.translated(2, 2);
  const FilterImage red = uniform(4, 4, {255, 0, 0, 255});
  const FilterImage over =
      filtered("SourceOverCompositing", {{vn::kInputBackgroundImageKey, moved}}, red);
  expectExtent(over, Rect{0, 0, 6, 6});
  const FilterImage in =
      filtered("SourceInCompositing", {{vn::kInputBackgroundImageKey, moved}}, red);
  expectExtent(in, Rect{2, 2, 2, 2});
  EXPECT_EQ((std::vector{pixelAt(over, 5, 5), pixelAt(over, 5, 0), pixelAt(in, 3, 3)}),
            (std::vector<Px>{{0, 0, 255, 255}, {0, 0, 0, 0}, {255, 0, 0, 255}}));

  std::shared_ptr<ImageFilter> lone = makeFilter("SourceOverCompositing", {});
  lone->setValue(vn::kInputImageKey, red);
  EXPECT_FALSE(lone->outputImage());  // no background
}

TEST(ImageFilterTest, TransformsPlaceTheExtentByItsCorners) {
  const FilterImage wide = uniform(100, 50, {255, 255, 255, 255});
  const FilterImage square = uniform(100, 100, {255, 255, 255, 255});
  expectExtent(wide.transformed(vn::AffineTransform{0, 1, -1, 0, 0, 0}), Rect{-50, 0, 50, 100});
  expectExtent(square.transformed(vn::AffineTransform::identity().rotated(kPi / 4)),
               Rect{-70.711, 0, 141.421, 141.421}, 1e-3);
  expectExtent(wide.transformed(vn::AffineTransform::identity().scaled(0.5, 0.5)),
               Rect{0, 0, 50, 25});

  // A quarter-pixel shift leaves partly covered columns at both sides.
  const FilterImage shifted = wide.translated(10.25, 0);
  expectExtent(shifted, Rect{10.25, 0, 100, 50});
  const std::vector<uint8_t> row = shifted.render(Rect{10, 20, 101, 1});
  std::vector<int> alpha, expected(101, 255);
  for (size_t i = 3; i < row.size(); i += 4)
    alpha.push_back(row[i]);
  expected.front() = 191, expected.back() = 64;
  EXPECT_EQ(alpha, expected);
}

TEST(ImageFilterTest, RegistryMakesIndependentFiltersByExactName) {
  for (const char* name :
       {"ColorControls", "HueAdjust", "ColorInvert", "ExposureAdjust", "GaussianBlur",
        "SharpenLuminance", "SpotLight", "LineScreen", "ColorMonochrome", "SepiaTone", "Gloom",
        "Bloom", "HexagonalPixellate", "SourceOverCompositing", "SourceInCompositing"}) {
    std::shared_ptr<ImageFilter> filter = ImageFilter::withName(name);
    ASSERT_TRUE(filter) << name;
    EXPECT_FALSE(filter->outputImage()) << name << " without an input image";
  }
  for (const char* name : {"bloom", "colorControls", "", "Bloom ", "ArrayFilter2"})
    EXPECT_FALSE(ImageFilter::withName(name)) << name;

  // Values are checked for kind and finiteness; a refused one changes nothing.
  std::shared_ptr<ImageFilter> controls = ImageFilter::withName("ColorControls");
  EXPECT_FALSE(controls->setValue(vn::kInputSaturationKey, FilterVector::xy(1, 2)));
  EXPECT_FALSE(controls->setValue(vn::kInputSaturationKey, std::nan("")));
  EXPECT_FALSE(controls->setValue(vn::kInputEVKey, 1.0));
  EXPECT_TRUE(controls->setValue(vn::kInputContrastKey, 2.0));
  EXPECT_TRUE(controls->setValue(vn::kInputSaturationKey, 0.5f));
  EXPECT_EQ(controls->describe(), "ColorControls inputContrast=2 inputSaturation=0.5");

  // A copy keeps the settings and goes its own way afterwards; none restores the default.
  std::shared_ptr<ImageFilter> copy = controls->copy();
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->describe(), controls->describe());
  copy->setValue(vn::kInputContrastKey, 3.0);
  copy->setValue(vn::kInputImageKey, uniform(1, 1, {1, 2, 3, 255}));
  EXPECT_TRUE(std::get<double>(controls->value(vn::kInputContrastKey)) == 2.0 &&
              !controls->outputImage());
  EXPECT_TRUE(controls->setValue(vn::kInputContrastKey, std::monostate()));
  EXPECT_EQ(std::get<double>(controls->value(vn::kInputContrastKey)), 1.0);
}

TEST(FilterImageTest, RasterIsCopiedIntoRgbaRowsTopFirst) {
  const int stride = 16;  // rows of 3 pixels; the fourth of each is padding
  std::vector<uint8_t> bytes = noise(4, 2, false);
  for (auto order : {FilterImage::ByteOrder::BGRA, FilterImage::ByteOrder::RGBA}) {
    std::optional<FilterImage> image = FilterImage::fromRaster(bytes.data(), 3, 2, stride, order);
    ASSERT_TRUE(image);
    // The source may be reused at once: the image holds its own copy.
    std::vector<uint8_t> original = bytes;
    std::fill(bytes.begin(), bytes.end(), 0);
    std::vector<uint8_t> expected;
    const bool bgra = order == FilterImage::ByteOrder::BGRA;
    for (int y = 0; y < 2; ++y) {
      for (int x = 0; x < 3; ++x) {
        const uint8_t* in = &original[y * stride + x * 4];
        expected.insert(expected.end(), {in[bgra ? 2 : 0], in[1], in[bgra ? 0 : 2], in[3]});
      }
    }
    EXPECT_EQ(image->render(), expected);
    bytes = original;
  }
}

TEST(FilterImageTest, EveryCodeRoundTripsThroughLinearLight) {
  for (int code = 0; code < 256; ++code) {
    const uint8_t c = static_cast<uint8_t>(code);
    EXPECT_EQ(vn::linearToSrgb(vn::srgbToLinear(c)), c);
    // The encode is round-half-up of the exact curve.
    const double l = vn::srgbToLinear(c);
    EXPECT_EQ(vn::linearToSrgb(static_cast<float>(l)), std::floor(255 * vn::srgbOetf(l) + 0.5));
  }
  EXPECT_NEAR(vn::srgbToLinear(128), 0.215861, 1e-6);
  std::vector<int> codes;
  for (float linear : {0.5f, 0.25f, 0.75f, -3.0f, 7.0f, std::nanf("")})
    codes.push_back(vn::linearToSrgb(linear));
  EXPECT_EQ(codes, (std::vector{188, 137, 225, 0, 255, 0}));
}

// What cannot be pictured is refused, not rendered: nothing, endless, huge.
TEST(FilterImageTest, ImpossibleImagesAndRendersAreRefused) {
  const std::vector<uint8_t> bytes(64, 0);
  EXPECT_FALSE(FilterImage::fromRaster(nullptr, 2, 2, 8, FilterImage::ByteOrder::RGBA));
  EXPECT_FALSE(FilterImage::fromRaster(bytes.data(), 0, 2, 8, FilterImage::ByteOrder::RGBA));
  EXPECT_FALSE(FilterImage::fromRaster(bytes.data(), 2, -1, 8, FilterImage::ByteOrder::RGBA));
  EXPECT_FALSE(FilterImage::fromRaster(bytes.data(), 3, 2, 8, FilterImage::ByteOrder::BGRA));
  EXPECT_FALSE(
      FilterImage::fromRaster(bytes.data(), 16384, 16384, 16384 * 4, FilterImage::ByteOrder::RGBA));

  const FilterImage white = FilterImage::withColor({1, 1, 1, 1});
  EXPECT_TRUE(white.isInfinite());
  EXPECT_TRUE(white.render().empty() && white.render(Rect{0, 0, 16384, 16384}).empty() &&
              white.render(Rect{0, 0, 0, 5}).empty());
  const std::vector<uint8_t> two = white.render(Rect{0, 0, 2, 2});
  EXPECT_TRUE(two.size() == 16u && two[3] == 255);
  EXPECT_TRUE(white.cropped(Rect{5, 5, 0, 3}).isEmpty());
  // Nor is it drawn: an endless image has no rectangle to draw from.
  auto context = vn::BitmapContext::create(2, 2);
  white.draw(*context, Rect{0, 0, INFINITY, INFINITY});
  EXPECT_EQ(context->data()[0], 0);
  EXPECT_TRUE(picture(bytes, 4, 4).transformed(AffineTransform{}.scaled(0, 1)).isEmpty());
}

// Whole-pixel moves copy, neutral colour operations are free, folded chains give the source back.
TEST(FilterImageTest, NeutralChainsGiveTheSourceBackExactly) {
  const int w = 37, h = 23;
  for (bool opaque : {true, false}) {
    SCOPED_TRACE(opaque ? "opaque" : "with alpha");
    const std::vector<uint8_t> bytes = noise(w, h, opaque);
    const FilterImage source = picture(bytes, w, h);
    EXPECT_EQ(source.render(), bytes);

    vn::ImageRenderStats stats;
    const FilterImage neutral = source.applying(vn::ColorMatrixOp{})
                                    .applying(vn::MonochromeOp{{0.3f, 0.2f, 0.1f}, 0})
                                    .applying(saturation(1));
    EXPECT_EQ(neutral.render(source.extent(), {0, &stats}), bytes);
    EXPECT_EQ(stats.colorPasses, 0);

    // Moved by whole pixels and back; moved out and rendered where it went.
    const FilterImage moved = source.translated(-5, 9);
    EXPECT_EQ(moved.render(moved.extent()), bytes);
    EXPECT_EQ(moved.translated(5, -9).render(), bytes);

    // A quarter turn and back, resampled through one matrix.
    const FilterImage turned = source.transformed(AffineTransform{}.rotated(M_PI / 2));
    EXPECT_EQ(std::pair(turned.extent().width, turned.extent().height),
              std::pair(double(h), double(w)));
    const FilterImage back = turned.transformed(AffineTransform{}.rotated(-M_PI / 2));
    EXPECT_LE(maxDifference(back.render(source.extent()), bytes), 1);

    // A crop keeps the pixels whose centres it holds.
    const Rect part{3, 4, 10, 5};
    EXPECT_EQ(source.cropped(part).render(part), source.render(part));
  }
}

// The composition's chain samples the source once and runs one colour pass.
TEST(FilterImageTest, GeometryAndPointColourFoldIntoOnePassEach) {
  const int w = 160, h = 90;
  const std::vector<uint8_t> bytes = noise(w, h, true);
  const FilterImage source = picture(bytes, w, h);
  const FilterImage geometry =
      source.cropped(Rect{10, 5, 120, 80})
          .translated(-70, -45)
          .transformed(AffineTransform{}.rotated(10 * M_PI / 180))
          .transformed(AffineTransform{}.scaled(-1, 1))
          .transformed(AffineTransform::makeTranslation(64, 36).scaled(0.5, 0.5));
  vn::ColorMatrixOp hue;  // a mix that does not commute with the saturation
  hue.m[0][1] = 0.3f, hue.m[1][2] = -0.2f, hue.m[2][0] = 0.1f;
  const FilterImage composed = geometry.applying(saturation(1.4f))
                                   .applying(hue)
                                   .applying(vn::MonochromeOp{{0.32f, 0.17f, 0.07f}, 1})
                                   .sourceOver(FilterImage::withColor({0, 0, 0, 1}))
                                   .cropped(Rect{0, 0, 128, 72});
  vn::ImageRenderStats stats;
  const std::vector<uint8_t> one = composed.render(Rect{0, 0, 128, 72}, {1, &stats});
  EXPECT_EQ(std::tuple(stats.resamplingPasses, stats.colorPasses, stats.materialized),
            std::tuple(1, 1, 0));

  // The same picture built step by step through intermediate pixels agrees within rounding: folding
  // changes nothing visible.
  const FilterImage stepped =
      FilterImage::fromPixels(
          std::make_shared<vn::PixelBuffer>(geometry.renderPixels(Rect{0, 0, 128, 72})))
          .applying(saturation(1.4f))
          .applying(hue)
          .applying(vn::MonochromeOp{{0.32f, 0.17f, 0.07f}, 1})
          .sourceOver(FilterImage::withColor({0, 0, 0, 1}));
  EXPECT_LE(maxDifference(stepped.render(Rect{0, 0, 128, 72}), one), 1);

  // One thread or all of them, and several renders at once: the same bytes.
  EXPECT_EQ(composed.render(Rect{0, 0, 128, 72}, {0, nullptr}), one);
  std::vector<std::vector<uint8_t>> results(3);
  std::vector<std::thread> threads;
  for (auto& r : results)
    threads.emplace_back([&] { r = composed.render(Rect{0, 0, 128, 72}); });
  for (auto& thread : threads)
    thread.join();
  for (const auto& r : results)
    EXPECT_EQ(r, one);
}

// Encoding gives round-half-up of 255 OETF(x) computed in double: over a sweep of every 61st float
// from below the first bin to 1, and a few floats either side of every code's boundary.
TEST(FilterImageTest, EncodingIsTheRoundedTransferFunction) {
  const auto expected = [](float x) {
    if (!(x > 0))
      return 0;
    if (x >= 1)
      return 255;
    return static_cast<int>(std::floor(255.0 * vn::srgbOetf(x) + 0.5));
  };
  std::vector<float> values = {0.0f,
                               -1.0f,
                               2.0f,
                               std::numeric_limits<float>::quiet_NaN(),
                               std::numeric_limits<float>::infinity(),
                               1e-30f};
  for (float x = 1.0f / (1 << 15); x <= 1.0f;)
    values.push_back(x = std::bit_cast<float>(std::bit_cast<int32_t>(x) + 61));
  for (int k = 0; k < 255; ++k) {
    float x = static_cast<float>(vn::srgbEotf((k + 0.5) / 255.0));
    for (int step = 0; step < 3; ++step)
      x = std::nextafter(x, 0.0f);
    for (int step = 0; step < 7; ++step, x = std::nextafter(x, 2.0f))
      values.push_back(x);
  }
  int wrong = 0;
  for (float x : values)
    wrong += vn::linearToSrgb(x) != expected(x);
  EXPECT_EQ(wrong, 0);

  // A row of pixels encodes each colour so (two pixels at a time where the
  // machine can, one at a time for the rest): opaque ones as they are,
  // translucent ones unpremultiplied, transparent ones (NaN alpha too) to 0.
  std::vector<float> row;
  std::vector<uint8_t> want;
  const float alphas[] = {1, 0.5f, 0, std::numeric_limits<float>::quiet_NaN()};
  for (size_t i = 0; i < values.size(); ++i) {
    // Halving and doubling are exact: a translucent pixel gives back x.
    const float a = alphas[i % 4], x = values[i], y = values[(i * 7) % values.size()];
    const float m = a > 0 && a < 1 ? a : 1;
    row.insert(row.end(), {x * m, y * m, 0.5f * m, a});
    if (a > 0)
      want.insert(want.end(),
                  {static_cast<uint8_t>(expected(x)), static_cast<uint8_t>(expected(y)),
                   static_cast<uint8_t>(expected(0.5f)), static_cast<uint8_t>(a == 1 ? 255 : 128)});
    else
      want.insert(want.end(), {0, 0, 0, 0});
  }
  std::vector<uint8_t> got(want.size());
  vn::encodeRow(row.data(), got.data(), static_cast<int>(want.size() / 4));
  EXPECT_EQ(got, want);
}

// A pixellation of a raster is made from its bytes straight to bytes: the same bytes as through the
// float pixels, for RGBA and BGRA rasters with any alpha, regions cut off by the extent or
// reaching past it, and any number of threads.
TEST(FilterImageTest, PixellatingARasterGivesTheBytesOfTheFloatPath) {
  const int w = 97, h = 61;
  const std::vector<uint8_t> bytes = noise(w, h, false);
  const FilterImage rgba = picture(bytes, w, h);
  const FilterImage bgra =
      *FilterImage::fromRaster(bytes.data(), w, h, w * 4, FilterImage::ByteOrder::BGRA);
  const std::tuple<vn::HexagonalPixellateOp, Rect> cases[] = {
      {{{0, 0}, 8}, Rect{0, 0, w, h}},         {{{150.3, 77.7}, 8}, Rect{13, 7, 40, 30}},
      {{{-5, 3}, 25}, Rect{-10, -4, 120, 70}}, {{{2, 2}, 1}, Rect{90, 50, 20, 20}},
      {{{40, 30}, 300}, Rect{0, 0, w, h}},     {{{0, 0}, 8}, Rect{200, 0, 8, 8}},
  };
  for (const FilterImage& source : {rgba, bgra}) {
    for (const auto& [op, region] : cases) {
      SCOPED_TRACE(op.scale);
      const FilterImage cells = source.applying(op).cropped(source.extent());
      vn::ImageRenderStats stats;
      const std::vector<uint8_t> direct = cells.render(region, {1, &stats});
      EXPECT_EQ(std::tuple(stats.neighbourhoodPasses, stats.materialized), std::tuple(1, 0));
      const FilterImage throughFloats = FilterImage::fromPixels(
          std::make_shared<vn::PixelBuffer>(source.applying(op).renderPixels(region)));
      EXPECT_EQ(direct, throughFloats.render(region));
      EXPECT_EQ(cells.render(region, {0, nullptr}), direct);
    }
  }
}

// A blur large enough to run on a reduced picture is made from a raster's bytes straight to bytes:
// the same bytes as through the float pixels, in either mode, for RGBA and BGRA rasters with any
// alpha, regions cut off by the extent or outside it, and any number of threads.
TEST(FilterImageTest, BlurringARasterGivesTheBytesOfTheFloatPath) {
  const int w = 97, h = 61;
  const std::vector<uint8_t> bytes = noise(w, h, false);
  const FilterImage rgba = picture(bytes, w, h);
  const FilterImage bgra =
      *FilterImage::fromRaster(bytes.data(), w, h, w * 4, FilterImage::ByteOrder::BGRA);
  const std::tuple<vn::GaussianBlurOp, Rect> cases[] = {
      {{10, true}, Rect{0, 0, w, h}},     {{10, false}, Rect{-31, -31, w + 62, h + 62}},
      {{17, true}, Rect{13, 7, 40, 30}},  {{24, false}, Rect{-80, 20, 120, 30}},
      {{12, true}, Rect{90, 50, 20, 20}}, {{10, true}, Rect{200, 0, 8, 8}},
  };
  for (const FilterImage& source : {rgba, bgra}) {
    for (const auto& [op, region] : cases) {
      SCOPED_TRACE(op.sigma);
      const FilterImage blurred = source.applying(op);
      const FilterImage kept = blurred.cropped(blurred.extent());
      vn::ImageRenderStats stats;
      const std::vector<uint8_t> direct = kept.render(region, {1, &stats});
      EXPECT_EQ(std::tuple(stats.neighbourhoodPasses, stats.materialized), std::tuple(1, 0));
      const FilterImage throughFloats =
          FilterImage::fromPixels(std::make_shared<vn::PixelBuffer>(blurred.renderPixels(region)));
      EXPECT_EQ(direct, throughFloats.render(region));
      EXPECT_EQ(kept.render(region, {0, nullptr}), direct);
    }
  }
}

// Colour runs compiled to tables give the same bytes through the wide loop and the plain one, for
// every pixel count, byte order and alpha (NaN and out-of-range sums included), in place too.
TEST(FilterImageTest, TheWideTableLoopGivesThePlainLoopsBytes) {
  vn::ColorMatrixOp mix;  // channels mixed, one pushed past 1 and one below 0
  mix.m[0][1] = 0.6f, mix.m[1][2] = -0.9f, mix.m[2][0] = 0.3f, mix.m[0][3] = 0.05f;
  vn::ColorMatrixOp nan;
  nan.m[1][1] = std::numeric_limits<float>::quiet_NaN();
  vn::SpotLightOp spot;
  spot.concentration = 0.4;
  vn::ColorMatrixOp invert;  // each channel one table
  for (int n = 0; n < 3; ++n)
    invert.m[n][n] = -1.3f + 0.2f * n, invert.m[n][3] = 1;
  const std::vector<vn::PointOp> runs[] = {
      {invert},
      {mix},
      {saturation(0.3f), vn::MonochromeOp{{0.8f, 0.3f, 0.1f}, 0.7f}, mix},
      {vn::MonochromeOp{{0.2f, 0.6f, 0.9f}, 1}},
      {mix, spot},
      {nan},
  };
  const int n = 301;  // odd: the wide loop leaves one
  std::vector<uint8_t> pixels = noise(n, 1, false, 3);
  for (int i = 0; i < n; i += 7)  // transparent pixels, in either place of a pair
    pixels[size_t(i) * 4 + 3] = 0;
  const vn::IntRect row{-7, 40, n, 1};
  EXPECT_TRUE(vn::PointTable::forStages(runs[0])->separable());
  for (const auto& stages : runs) {
    const std::shared_ptr<const vn::PointTable> table = vn::PointTable::forStages(stages);
    ASSERT_TRUE(table);
    std::shared_ptr<const std::vector<float>> factors;
    if (table->positional())
      factors = table->factorsFor(row, 1);
    for (bool bgra : {false, true}) {
      std::vector<uint8_t> plain(pixels.size()), wide(pixels.size()), inPlace = pixels;
      vn::PointTable::allowWideLoop(false);
      table->apply(pixels.data(), bgra, plain.data(), n, factors ? factors->data() : nullptr);
      vn::PointTable::allowWideLoop(true);
      table->apply(pixels.data(), bgra, wide.data(), n, factors ? factors->data() : nullptr);
      table->apply(inPlace.data(), bgra, inPlace.data(), n, factors ? factors->data() : nullptr);
      EXPECT_EQ(wide, plain);
      EXPECT_EQ(inPlace, plain);
      EXPECT_NE(plain, pixels);
    }
  }
}

// Sampling and decoding eight pixels at a time give what one at a time gives: a turned, shrunk and
// mirrored picture with translucent and transparent pixels, in either byte order, its edges within
// the region and rows of every length the wide loops leave a part of; decoded rows likewise.
TEST(FilterImageTest, TheWideSamplerGivesThePlainSamplersBytes) {
  const int w = 301, h = 203;
  std::vector<uint8_t> bytes = noise(w, h, false, 5);
  for (size_t i = 3; i < bytes.size(); i += 4 * 13)
    bytes[i] = 0;
  for (bool bgra : {false, true}) {
    for (int n : {1, 7, 8, 9, 23, w}) {
      std::vector<float> plain(size_t(n) * 4), wide(size_t(n) * 4);
      vn::allowWideSampling(false);
      vn::decodeRow(bytes.data() + 12, bgra, n, plain.data());
      vn::allowWideSampling(true);
      vn::decodeRow(bytes.data() + 12, bgra, n, wide.data());
      EXPECT_EQ(wide, plain);
    }
  }
  for (auto order : {FilterImage::ByteOrder::RGBA, FilterImage::ByteOrder::BGRA}) {
    const FilterImage turned = FilterImage::fromRaster(bytes.data(), w, h, w * 4, order)
                                   ->transformed(AffineTransform{}.rotated(10 * M_PI / 180))
                                   .transformed(AffineTransform{}.scaled(-0.74, 0.74))
                                   .transformed(AffineTransform::makeTranslation(180, 20));
    for (const Rect& region : {Rect{0, 0, 256, 200}, Rect{37, 11, 101, 77}, Rect{60, 40, 9, 3}}) {
      vn::allowWideSampling(false);
      const std::vector<uint8_t> plain = turned.render(region, {1, nullptr});
      vn::allowWideSampling(true);
      EXPECT_EQ(turned.render(region, {1, nullptr}), plain);
      EXPECT_GT(std::count(plain.begin(), plain.end(), 0), 0);
    }
  }
}

// Shrinking far below half size averages: a fine checkerboard becomes an even mid grey.
TEST(FilterImageTest, StrongShrinkingDoesNotAlias) {
  const int n = 256;
  std::vector<uint8_t> board(size_t(n) * n * 4, 255);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x)
      for (int k = 0; k < 3; ++k)
        board[(size_t(y) * n + x) * 4 + k] = (x + y) % 2 ? 255 : 0;
  for (double scale : {0.25, 0.1, 0.37}) {
    SCOPED_TRACE(scale);
    vn::ImageRenderStats stats;
    const FilterImage small =
        picture(board, n, n).transformed(AffineTransform{}.scaled(scale, scale));
    const int side = static_cast<int>(std::floor(n * scale));
    const std::vector<uint8_t> out =
        small.render(Rect{0, 0, double(side), double(side)}, {0, &stats});
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(stats.resamplingPasses, 1);
    for (int y = 1; y < side - 1; ++y)
      for (int x = 1; x < side - 1; ++x)
        ASSERT_NEAR(out[(size_t(y) * side + x) * 4], 188, 3) << x << "," << y;
  }
}

// Starting opaque (RGBX) or clear (RGBA), half-transparent white copied replaces, laid over blends.
TEST(BitmapContextTest, StartingContentsAndCompositingModes) {
  EXPECT_FALSE(vn::BitmapContext::create(0, 4) || vn::BitmapContext::create(4, -1));
  const uint8_t halfWhite[4] = {255, 255, 255, 128};
  const auto image = vn::BitmapImage::copyOf(halfWhite, 1, 1, 4);
  using Alpha = vn::BitmapContext::Alpha;
  using Composite = vn::BitmapContext::Composite;
  std::tuple<Alpha, Composite, int, int> cases[] = {
      {Alpha::kNoneSkipLast, Composite::kCopy, 128, 255},
      {Alpha::kNoneSkipLast, Composite::kSourceOver, 128, 255},
      {Alpha::kPremultipliedLast, Composite::kCopy, 128, 128},
      {Alpha::kPremultipliedLast, Composite::kSourceOver, 128, 128},
  };
  for (const auto& [alpha, mode, red, fourth] : cases) {
    auto context = vn::BitmapContext::create(2, 2, alpha);
    ASSERT_TRUE(context);
    EXPECT_EQ(context->data()[3], alpha == Alpha::kNoneSkipLast ? 255 : 0);
    context->drawImage(image, mode);
    EXPECT_EQ(std::pair(int(context->data()[0]), int(context->data()[3])), std::pair(red, fourth));
    // Twice over: white shows through more; a copy stays the same.
    context->drawImage(image, mode);
    EXPECT_EQ(context->data()[12], mode == Composite::kCopy ? 128 : 192);
  }
}

TEST(BitmapContextTest, ImagesAreStretched) {
  // 2 × 1: red, blue.
  const uint8_t pixels[8] = {255, 0, 0, 255, 0, 0, 255, 255};
  auto context = vn::BitmapContext::create(8, 4);
  context->drawImage(vn::BitmapImage::copyOf(pixels, 2, 1, 8), vn::BitmapContext::Composite::kCopy);
  const uint8_t* bottomLeft = context->data() + 3 * context->bytesPerRow();
  const uint8_t* bottomRight = bottomLeft + 7 * 4;
  EXPECT_TRUE(bottomLeft[0] > 200 && bottomLeft[2] < 50 && bottomRight[0] < 50 &&
              bottomRight[2] > 200);
  EXPECT_TRUE(vn::BitmapImage::copyOf(pixels, 3, 1, 8).isEmpty());  // rows too short
}
