#include "image/image_filter.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <numbers>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "image/srgb.h"

namespace {

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

}  // namespace

TEST(ImageFilterTest, NeutralSettingsKeepEveryCode) {
  // Every code in every channel, and a second row with the channels swapped.
  const FilterImage in = picture(256, 2, [](int x, int y) {
    return y == 0 ? Px{x, 255 - x, (x * 7) & 255, 255} : Px{(x * 7) & 255, x, 255 - x, 255};
  });
  const std::vector<uint8_t> expected = in.render();
  const std::tuple<const char*, Settings> cases[] = {
      {"ColorControls", {}},
      {"ColorControls", {{vn::kInputSaturationKey, 1.0}, {vn::kInputContrastKey, 1.0}}},
      {"HueAdjust", {}},
      {"ExposureAdjust", {}},
      {"ColorMonochrome", {{vn::kInputIntensityKey, 0.0}}},
      {"SepiaTone", {{vn::kInputIntensityKey, 0.0}}},
      {"Bloom", {{vn::kInputIntensityKey, 0.0}}},
      {"Gloom", {{vn::kInputIntensityKey, 0.0}}},
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
      {"ColorControls", {{vn::kInputSaturationKey, 1.5}}, {200, 100, 50, 255}, {226, 81, 0, 255}},
      {"ColorControls", darker, {255, 255, 255, 255}, {203, 203, 203, 255}},
      {"ColorControls", {{vn::kInputContrastKey, 2.0}}, {128, 128, 128, 255}, {0, 0, 0, 255}},
      {"ColorControls", all, {180, 120, 60, 255}, {197, 124, 30, 255}},
      // Hue turns about the grey axis; positive angles take red to green.
      {"HueAdjust", {{vn::kInputAngleKey, 2 * kPi / 3}}, {255, 0, 0, 255}, {0, 255, 0, 255}},
      {"HueAdjust", {{vn::kInputAngleKey, kPi / 2}}, {200, 100, 50, 255}, {121, 197, 0, 255}},
      {"HueAdjust", {{vn::kInputAngleKey, 1.0}}, {128, 128, 128, 255}, {128, 128, 128, 255}},
      // Inversion of linear, unpremultiplied colour.
      {"ColorInvert", none, {200, 100, 50, 255}, {174, 240, 251, 255}},
      {"ColorInvert", none, {255, 0, 0, 128}, {0, 255, 255, 128}},
      {"ExposureAdjust", {{vn::kInputEVKey, 1.0}}, {128, 128, 128, 255}, {176, 176, 176, 255}},
      {"ExposureAdjust", {{vn::kInputEVKey, -2.0}}, {64, 128, 192, 255}, {30, 66, 102, 255}},
      // Monochrome with its default colour (0.6, 0.45, 0.3).
      {"ColorMonochrome", none, {128, 128, 128, 255}, {104, 77, 50, 255}},
      {"ColorMonochrome", half, {128, 128, 128, 255}, {117, 106, 99, 255}},
      {"ColorMonochrome", none, {255, 255, 255, 255}, {255, 255, 255, 255}},
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
  const Px grey128 = {128, 128, 128, 255};
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
      {"SpotLight", {}, 400, grey128, 0, 0, {95, 95, 95, 255}},
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
      {"SharpenLuminance", {}, dotIn({188, 188, 188, 255}), 0, 0, {188, 188, 188, 255}},
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

  const FilterImage plain = uniform(24, 24, {200, 100, 50, 255});
  for (const char* name : {"SharpenLuminance", "HexagonalPixellate"})  // uniform: unchanged
    EXPECT_EQ(filtered(name, {}, plain).render(), plain.render()) << name;
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
  EXPECT_EQ(std::get<double>(controls->value(vn::kInputContrastKey)), 2.0);
  EXPECT_FALSE(controls->outputImage());
  EXPECT_TRUE(controls->setValue(vn::kInputContrastKey, std::monostate()));
  EXPECT_EQ(std::get<double>(controls->value(vn::kInputContrastKey)), 1.0);
}
