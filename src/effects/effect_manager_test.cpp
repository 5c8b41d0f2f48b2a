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

// Names and filters agree; lookups are exact and hand out copies, never the stored filters.
TEST(EffectManagerTest, CatalogueLooksUpExactlyAndHandsOutCopies) {
  const std::vector<std::string>& names = EffectManager::allFilterNames();
  const std::vector<std::shared_ptr<ImageFilter>> all = EffectManager::allFilters();
  ASSERT_EQ(all.size(), names.size());
  std::vector<std::string> listed, lookedUp;
  for (size_t i = 0; i < names.size(); ++i) {
    listed.push_back(names[i] + ": " + all[i]->describe());
    std::shared_ptr<ImageFilter> byName = EffectManager::filterWithName(names[i]);
    lookedUp.push_back(names[i] + ": " + (byName ? byName->describe() : ""));
    EXPECT_NE(byName.get(), all[i].get());
  }
  EXPECT_EQ(lookedUp, listed);
  for (const char* name : {"bloom", "BLOOM", "Bloom ", "", "Blackout B&W ", "ColorControls",
                           EffectManager::kEffectNamesKey})
    EXPECT_FALSE(EffectManager::filterWithName(name)) << name;

  std::shared_ptr<EffectManager> manager = EffectManager::manager();
  std::optional<EffectManager::Entry> list = manager->entryWithName("effectNames");
  const auto* listNames = list ? std::get_if<std::vector<std::string>>(&*list) : nullptr;
  EXPECT_TRUE(listNames && *listNames == names);
  EXPECT_FALSE(manager->entryWithName("nothing"));

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
    for (int i = 0; i < 2; ++i)
      threads.emplace_back([&, i] {
        for (auto& result : got[i])
          result = renderThrough(*copies[i], images[i]);
      });
    for (std::thread& t : threads)
      t.join();
    for (int i = 0; i < 2; ++i)
      for (const auto& result : got[i])
        EXPECT_EQ(result, expected[i]) << preset << " on image " << i;
  }
}

TEST(ArrayFilterTest, AppliesItsFiltersInOrderAndCopiesShareNone) {
  ArrayFilter::initialize();
  std::shared_ptr<ImageFilter> made = ImageFilter::withName("ArrayFilter");
  auto* array = dynamic_cast<ArrayFilter*>(made.get());
  ASSERT_TRUE(array);
  // An empty list gives the input back as it is.
  const FilterImage in = gradient(9, 7, 3).translated(-2, 5);
  made->setValue(vn::kInputImageKey, in);
  std::optional<FilterImage> same = made->outputImage();
  ASSERT_TRUE(same);
  EXPECT_EQ(std::tuple(same->extent().x, same->extent().y, same->render()),
            std::tuple(-2.0, 5.0, in.render()));

  // "filters" set by key reaches the list; order matters.
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
