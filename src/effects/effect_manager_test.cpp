#include "effects/effect_manager.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "effects/array_filter.h"

namespace {

using vn::FilterImage;
using vn::FilterValue;
using vn::ImageFilter;

// An opaque picture whose every pixel differs from its neighbours.
FilterImage gradient(int width, int height, int seed) {
  std::vector<uint8_t> rgba(static_cast<size_t>(width) * height * 4);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = &rgba[(static_cast<size_t>(y) * width + x) * 4];
      p[0] = static_cast<uint8_t>(x * 9 + seed);
      p[1] = static_cast<uint8_t>(y * 5 + seed * 3);
      p[2] = static_cast<uint8_t>((x + y) * 3);
      p[3] = 255;
    }
  }
  return *FilterImage::fromRaster(rgba.data(), width, height, width * 4,
                                  FilterImage::ByteOrder::RGBA);
}

std::vector<uint8_t> renderThrough(ImageFilter& filter, const FilterImage& in) {
  filter.setValue(vn::kInputImageKey, in);
  std::optional<FilterImage> out = filter.outputImage();
  return out ? out->render(in.extent()) : std::vector<uint8_t>();
}

// A filter whose copy always fails.
class UncopyableFilter : public ImageFilter {
 public:
  UncopyableFilter() : ImageFilter("Uncopyable") {
    declareInput(vn::kInputImageKey, Kind::Image, {});
  }
  std::optional<FilterImage> outputImage() const override {
    FilterValue in = value(vn::kInputImageKey);
    if (FilterImage* image = std::get_if<FilterImage>(&in))
      return *image;
    return std::nullopt;
  }
  std::shared_ptr<ImageFilter> copy() const override { return nullptr; }
};

}  // namespace

TEST(EffectManagerTest, CatalogueListsEveryPresetInOrderAndLooksUpExactly) {
  const struct {
    const char* name;
    const char* filter;
  } presets[] = {
      {"1935", "ColorControls inputSaturation=0 inputBrightness=0.00949 inputContrast=1.353"},
      {"1955", "ColorControls inputSaturation=0 inputBrightness=0.3592 inputContrast=1.6258"},
      {"1960", "ColorControls inputSaturation=0.664 inputBrightness=0.2781 inputContrast=1.407"},
      {"1970", "ColorControls inputSaturation=0.8281 inputBrightness=0.1744 inputContrast=1.5788"},
      {"Color Invert", "ColorInvert"},
      {"Exposure", "ExposureAdjust inputEV=3"},
      {"Blur", "GaussianBlur inputRadius=10"},
      {"Sharpen", "SharpenLuminance inputSharpness=10"},
      {"Vibrance", "ColorControls inputSaturation=1.58 inputBrightness=-0.02 inputContrast=1.08"},
      {"Big Softie", "ColorControls inputSaturation=0.718 inputBrightness=0 inputContrast=1"},
      {"SpotLight",
       "SpotLight inputLightPosition=(400, 400, 1000) inputLightPointsAt=(200, 200, 0) "
       "inputBrightness=4.5 inputConcentration=1.5 inputColor=(1, 1, 1, 1)"},
      {"Line Screen",
       "LineScreen inputCenter=(0, 0) inputAngle=180 inputWidth=5 inputSharpness=0.7"},
      {"Black White", "ColorMonochrome inputColor=(0.6, 0.6, 0.6, 1) inputIntensity=1"},
      {"Blackout B&W",
       "ArrayFilter filters=[ColorMonochrome inputColor=(0.6, 0.6, 0.6, 1) inputIntensity=1, "
       "ExposureAdjust inputEV=2.5478]"},
      {"Color Control", "HueAdjust inputAngle=3.14"},
      {"Monochrome",
       "ColorMonochrome inputColor=(0.5176470588235295, 0.3803921568627451, 0.6, 1) "
       "inputIntensity=1"},
      {"Glow",
       "ArrayFilter filters=[Gloom inputRadius=30 inputIntensity=1, ColorControls "
       "inputSaturation=1 inputBrightness=0.25 inputContrast=2.2]"},
      {"Gloom", "Gloom inputRadius=30 inputIntensity=1"},
      {"Bloom", "Bloom inputRadius=40 inputIntensity=1"},
      {"Pixellate", "HexagonalPixellate inputCenter=(0, 0) inputScale=8"},
      {"Bright", "ColorControls inputSaturation=1.9 inputBrightness=0.3 inputContrast=1.78"},
      {"Copper",
       "ColorMonochrome inputColor=(0.16862745098039217, 0.8705882352941177, "
       "0.9725490196078431, 1) inputIntensity=1"},
      {"Classical", "SepiaTone inputIntensity=1"},
      {"New Effection",
       "ColorMonochrome inputColor=(0.9882352941176471, 0.5725490196078431, "
       "0.1607843137254902, 1) inputIntensity=1"},
  };
  const std::vector<std::string>& names = EffectManager::allFilterNames();
  const std::vector<std::shared_ptr<ImageFilter>> all = EffectManager::allFilters();
  ASSERT_EQ(all.size(), std::size(presets));
  std::vector<std::string> expected, listed, lookedUp;
  for (size_t i = 0; i < std::size(presets); ++i) {
    expected.push_back(std::string(presets[i].name) + ": " + presets[i].filter);
    listed.push_back(names.at(i) + ": " + all[i]->describe());
    std::shared_ptr<ImageFilter> byName = EffectManager::filterWithName(presets[i].name);
    lookedUp.push_back(presets[i].name + std::string(": ") + (byName ? byName->describe() : ""));
    EXPECT_NE(byName.get(), all[i].get());
  }
  EXPECT_EQ(listed, expected);
  EXPECT_EQ(lookedUp, expected);
  // Numbers are the floats of the catalogue, widened.
  std::shared_ptr<ImageFilter> f1935 = EffectManager::filterWithName("1935");
  EXPECT_EQ(std::get<double>(f1935->value(vn::kInputBrightnessKey)), double(0.00949f));
  EXPECT_NE(std::get<double>(f1935->value(vn::kInputBrightnessKey)), 0.00949);

  // Lookup is exact, and the name list is no filter.
  for (const char* name : {"bloom", "BLOOM", "Bloom ", "", "Blackout B&W ", "ColorControls"})
    EXPECT_FALSE(EffectManager::filterWithName(name)) << name;

  EXPECT_FALSE(EffectManager::filterWithName(EffectManager::kEffectNamesKey));
  std::shared_ptr<EffectManager> manager = EffectManager::manager();
  std::optional<EffectManager::Entry> list = manager->entryWithName("effectNames");
  ASSERT_TRUE(list);
  const auto* listNames = std::get_if<std::vector<std::string>>(&*list);
  ASSERT_TRUE(listNames);
  EXPECT_EQ(*listNames, names);
  EXPECT_NE(listNames, &names);
  EXPECT_FALSE(manager->entryWithName("nothing"));

  // The stored filters are never handed out, nor given an input.
  std::shared_ptr<ImageFilter> blur = EffectManager::filterWithName("Blur");
  blur->setValue(vn::kInputRadiusKey, 2.0);
  blur->setValue(vn::kInputImageKey, gradient(4, 4, 0));
  EXPECT_EQ(EffectManager::filterWithName("Blur")->describe(), "GaussianBlur inputRadius=10");
}

TEST(EffectManagerTest, GlowIsGloomThenColorControls) {
  const FilterImage in = gradient(40, 30, 7);
  std::shared_ptr<ImageFilter> glow = EffectManager::filterWithName("Glow");
  ASSERT_TRUE(dynamic_cast<ArrayFilter*>(glow.get()));

  const auto apply = [](const char* name, std::vector<std::pair<const char*, FilterValue>> settings,
                        const FilterImage& image) {
    std::shared_ptr<ImageFilter> filter = ImageFilter::withName(name);
    for (const auto& [key, value] : settings)
      filter->setValue(key, value);
    filter->setValue(vn::kInputImageKey, image);
    return *filter->outputImage();
  };
  const FilterImage gloom =
      apply("Gloom", {{vn::kInputRadiusKey, 30.0}, {vn::kInputIntensityKey, 1.0}}, in);
  const FilterImage expected = apply("ColorControls",
                                     {{vn::kInputSaturationKey, 1.0},
                                      {vn::kInputBrightnessKey, 0.25f},
                                      {vn::kInputContrastKey, 2.2f}},
                                     gloom);
  const std::vector<uint8_t> got = renderThrough(*glow, in);
  ASSERT_EQ(got.size(), 40u * 30u * 4u);
  EXPECT_EQ(got, expected.render(in.extent()));
  EXPECT_NE(got, in.render());
}

TEST(EffectManagerTest, CopiesFilterDifferentImagesOnTwoThreadsAtOnce) {
  for (const char* preset : {"Glow", "Blackout B&W", "Pixellate", "Sharpen"}) {
    const FilterImage images[2] = {gradient(48, 40, 1), gradient(48, 40, 90)};
    std::vector<uint8_t> expected[2];
    for (int i = 0; i < 2; ++i)
      expected[i] = renderThrough(*EffectManager::filterWithName(preset), images[i]);
    ASSERT_NE(expected[0], expected[1]);

    std::shared_ptr<ImageFilter> copies[2] = {EffectManager::filterWithName(preset),
                                              EffectManager::filterWithName(preset)};
    std::vector<uint8_t> got[2][3];
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([&, i] {
        for (auto& result : got[i])
          result = renderThrough(*copies[i], images[i]);
      });
    }
    for (std::thread& t : threads)
      t.join();
    for (int i = 0; i < 2; ++i) {
      for (const auto& result : got[i])
        EXPECT_EQ(result, expected[i]) << preset << " on image " << i;
    }
  }
}

TEST(ArrayFilterTest, AppliesItsFiltersInOrderAndCopiesShareNone) {
  ArrayFilter::initialize();
  std::shared_ptr<ImageFilter> made = ImageFilter::withName("ArrayFilter");
  auto* array = dynamic_cast<ArrayFilter*>(made.get());
  ASSERT_TRUE(array);
  EXPECT_TRUE(array->filters().empty());
  EXPECT_FALSE(made->outputImage());

  // An empty list gives the input back as it is.
  const FilterImage in = gradient(9, 7, 3).translated(-2, 5);
  made->setValue(vn::kInputImageKey, in);
  std::optional<FilterImage> same = made->outputImage();
  ASSERT_TRUE(same);
  EXPECT_DOUBLE_EQ(same->extent().x, -2);
  EXPECT_DOUBLE_EQ(same->extent().y, 5);
  EXPECT_EQ(same->render(), in.render());

  // "filters" set by key reaches the list; order matters (invert, then darken, is not darken, then
  // invert).
  std::shared_ptr<ImageFilter> invert = ImageFilter::withName("ColorInvert");
  std::shared_ptr<ImageFilter> darken = ImageFilter::withName("ExposureAdjust");
  darken->setValue(vn::kInputEVKey, -1.0);
  EXPECT_FALSE(made->setValue(ArrayFilter::kFiltersKey, 2.0));
  EXPECT_TRUE(made->setValue(ArrayFilter::kFiltersKey, vn::FilterList{invert, darken}));
  ASSERT_EQ(array->filters().size(), 2u);
  const FilterImage black = gradient(1, 1, 0);
  EXPECT_EQ(renderThrough(*made, black), (std::vector<uint8_t>{188, 188, 188, 255}));
  array->setFilters({darken, invert});
  EXPECT_EQ(renderThrough(*made, black), (std::vector<uint8_t>{255, 255, 255, 255}));

  // A copy shares no filter with its source; filters that cannot be copied are left out.
  std::shared_ptr<ArrayFilter> source = ArrayFilter::filterWithName("ignored");
  std::shared_ptr<ImageFilter> blur = ImageFilter::withName("GaussianBlur");
  blur->setValue(vn::kInputRadiusKey, 2.0);
  source->setFilters({blur, std::make_shared<UncopyableFilter>(), nullptr, invert});
  source->setInputImage(gradient(6, 6, 2));

  std::shared_ptr<ImageFilter> copied = source->copy();
  auto* copy = dynamic_cast<ArrayFilter*>(copied.get());
  ASSERT_TRUE(copy);
  const vn::FilterList filters = copy->filters();
  ASSERT_EQ(filters.size(), 2u);
  EXPECT_TRUE(filters[0] != blur && filters[1] != invert);
  EXPECT_EQ(filters[0]->describe() + ", " + filters[1]->name(),
            "GaussianBlur inputRadius=2, ColorInvert");
  ASSERT_TRUE(copy->inputImage());

  copy->setValue(vn::kInputImageKey, gradient(3, 3, 50));
  ASSERT_TRUE(copy->outputImage());
  EXPECT_TRUE(std::holds_alternative<std::monostate>(blur->value(vn::kInputImageKey)));  // alone
  source.reset();
  EXPECT_EQ(copy->filters().size(), 2u);
}
