#include "effects/effect_manager.h"

#include <initializer_list>
#include <utility>

#include "effects/array_filter.h"

namespace {

using vn::FilterValue;
using vn::FilterVector;
using Color = vn::FilterImage::Color;

struct Setting {
  const char* key;
  FilterValue value;
};

// The catalogue's numbers are single precision; they are stored as the
// double the float widens to.
FilterValue number(float v) {
  return static_cast<double>(v);
}

Color opaque(double r, double g, double b) {
  return Color{r, g, b, 1};
}

// A new filter of a registered name with settings applied in order; null
// when the registry cannot make it.
std::shared_ptr<vn::ImageFilter> configured(const char* filterName,
                                            std::initializer_list<Setting> settings) {
  std::shared_ptr<vn::ImageFilter> filter = vn::ImageFilter::withName(filterName);
  if (!filter)
    return nullptr;
  for (const Setting& s : settings)
    filter->setValue(s.key, s.value);
  return filter;
}

std::shared_ptr<vn::ImageFilter> colorControls(float saturation, float brightness, float contrast) {
  return configured("ColorControls", {{vn::kInputSaturationKey, number(saturation)},
                                      {vn::kInputBrightnessKey, number(brightness)},
                                      {vn::kInputContrastKey, number(contrast)}});
}

std::shared_ptr<vn::ImageFilter> monochrome(const Color& color) {
  return configured("ColorMonochrome",
                    {{vn::kInputColorKey, color}, {vn::kInputIntensityKey, number(1)}});
}

// An ArrayFilter over the given filters (those that could be made).
std::shared_ptr<vn::ImageFilter> chain(
    std::initializer_list<std::shared_ptr<vn::ImageFilter>> list) {
  vn::FilterList filters;
  for (const auto& filter : list) {
    if (filter)
      filters.push_back(filter);
  }
  return configured("ArrayFilter", {{ArrayFilter::kFiltersKey, std::move(filters)}});
}

}  // namespace

std::shared_ptr<EffectManager> EffectManager::manager() {
  // ArrayFilter must be in the registry before the catalogue asks it for
  // the two presets built on it.
  static const std::shared_ptr<EffectManager> shared = [] {
    ArrayFilter::initialize();
    return create();
  }();
  return shared;
}

std::shared_ptr<EffectManager> EffectManager::create() {
  return std::shared_ptr<EffectManager>(new EffectManager());
}

EffectManager::EffectManager() : effects_(std::make_shared<const EffectTable>(makeEffects())) {}

EffectManager::~EffectManager() = default;

EffectManager::EffectTable EffectManager::makeEffects() {
  EffectTable table;
  table[kEffectNamesKey] = std::vector<std::string>();
  // A map's elements stay where they are as others are added.
  auto& names = std::get<std::vector<std::string>>(table[kEffectNamesKey]);
  auto add = [&](const char* preset, std::shared_ptr<vn::ImageFilter> filter) {
    if (filter)
      table[preset] = std::move(filter);
    names.push_back(preset);
  };

  add("1935", colorControls(0, 0.00949f, 1.353f));
  add("1955", colorControls(0, 0.3592f, 1.6258f));
  add("1960", colorControls(0.664f, 0.2781f, 1.407f));
  add("1970", colorControls(0.8281f, 0.1744f, 1.5788f));
  add("Color Invert", configured("ColorInvert", {}));
  add("Exposure", configured("ExposureAdjust", {{vn::kInputEVKey, number(3)}}));
  add("Blur", configured("GaussianBlur", {{vn::kInputRadiusKey, number(10)}}));
  add("Sharpen", configured("SharpenLuminance", {{vn::kInputSharpnessKey, number(10)}}));
  add("Vibrance", colorControls(1.58f, -0.02f, 1.08f));
  add("Big Softie", colorControls(0.718f, 0, 1));
  add("SpotLight",
      configured("SpotLight", {{vn::kInputLightPositionKey, FilterVector::xyz(400, 400, 1000)},
                               {vn::kInputLightPointsAtKey, FilterVector::xyz(200, 200, 0)},
                               {vn::kInputBrightnessKey, number(4.5f)},
                               {vn::kInputConcentrationKey, number(1.5f)},
                               {vn::kInputColorKey, Color{1, 1, 1, 1}}}));
  // The angle is read in radians; 180 stands as it is.
  add("Line Screen", configured("LineScreen", {{vn::kInputCenterKey, FilterVector::xy(0, 0)},
                                               {vn::kInputAngleKey, number(180)},
                                               {vn::kInputWidthKey, number(5)},
                                               {vn::kInputSharpnessKey, number(0.7f)}}));
  add("Black White", monochrome(opaque(153 / 255.0, 153 / 255.0, 153 / 255.0)));
  add("Blackout B&W", chain({monochrome(opaque(153 / 255.0, 153 / 255.0, 153 / 255.0)),
                             configured("ExposureAdjust", {{vn::kInputEVKey, number(2.5478f)}})}));
  add("Color Control", configured("HueAdjust", {{vn::kInputAngleKey, number(3.14f)}}));
  add("Monochrome", monochrome(opaque(132 / 255.0, 97 / 255.0, 153 / 255.0)));
  add("Glow", chain({configured("Gloom", {{vn::kInputRadiusKey, number(30)},
                                          {vn::kInputIntensityKey, number(1)}}),
                     colorControls(1, 0.25f, 2.2f)}));
  add("Gloom", configured("Gloom", {{vn::kInputRadiusKey, number(30)},
                                    {vn::kInputIntensityKey, number(1)}}));
  add("Bloom", configured("Bloom", {{vn::kInputRadiusKey, number(40)},
                                    {vn::kInputIntensityKey, number(1)}}));
  // Centred at the picture-space origin, not at the picture's centre.
  add("Pixellate", configured("HexagonalPixellate", {{vn::kInputCenterKey, FilterVector::xy(0, 0)},
                                                     {vn::kInputScaleKey, number(8)}}));
  add("Bright", colorControls(1.9f, 0.3f, 1.78f));
  // A light cyan, whatever the name says.
  add("Copper", monochrome(opaque(43 / 255.0, 222 / 255.0, 248 / 255.0)));
  add("Classical", configured("SepiaTone", {{vn::kInputIntensityKey, number(1)}}));
  add("New Effection", monochrome(opaque(252 / 255.0, 146 / 255.0, 41 / 255.0)));
  return table;
}

std::shared_ptr<vn::ImageFilter> EffectManager::filterWithName(const std::string& name) {
  return manager()->newFilterWithName(name);
}

const std::vector<std::string>& EffectManager::allFilterNames() {
  return manager()->effectNames();
}

std::vector<std::shared_ptr<vn::ImageFilter>> EffectManager::allFilters() {
  std::vector<std::shared_ptr<vn::ImageFilter>> filters;
  for (const std::string& name : allFilterNames()) {
    if (std::shared_ptr<vn::ImageFilter> filter = filterWithName(name))
      filters.push_back(std::move(filter));
  }
  return filters;
}

std::shared_ptr<vn::ImageFilter> EffectManager::newFilterWithName(const std::string& name) const {
  const std::shared_ptr<const EffectTable> table = effects();
  auto it = table->find(name);
  if (it == table->end())
    return nullptr;
  const auto* filter = std::get_if<std::shared_ptr<vn::ImageFilter>>(&it->second);
  return filter && *filter ? (*filter)->copy() : nullptr;
}

std::optional<EffectManager::Entry> EffectManager::entryWithName(const std::string& name) const {
  const std::shared_ptr<const EffectTable> table = effects();
  auto it = table->find(name);
  if (it == table->end())
    return std::nullopt;
  std::optional<Entry> entry;
  if (const auto* filter = std::get_if<std::shared_ptr<vn::ImageFilter>>(&it->second))
    entry.emplace(std::in_place_index<0>, *filter ? (*filter)->copy() : nullptr);
  else
    entry.emplace(std::in_place_index<1>, std::get<1>(it->second));
  return entry;
}

const std::vector<std::string>& EffectManager::effectNames() const {
  static const std::vector<std::string> kNone;
  std::lock_guard<std::mutex> hold(lock_);
  auto it = effects_->find(kEffectNamesKey);
  if (it == effects_->end())
    return kNone;
  const auto* names = std::get_if<std::vector<std::string>>(&it->second);
  return names ? *names : kNone;
}

std::shared_ptr<const EffectManager::EffectTable> EffectManager::effects() const {
  std::lock_guard<std::mutex> hold(lock_);
  return effects_;
}

void EffectManager::setEffects(EffectTable effects) {
  auto table = std::make_shared<const EffectTable>(std::move(effects));
  std::lock_guard<std::mutex> hold(lock_);
  retired_.push_back(std::move(effects_));
  effects_ = std::move(table);
}
