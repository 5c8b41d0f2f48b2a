#include "effects/array_filter.h"

#include <utility>

void ArrayFilter::initialize() {
  static const bool registered = [] {
    vn::ImageFilter::registerFilter(
        "ArrayFilter", [](const std::string& name) { return filterWithName(name); },
        vn::FilterAttributes{
            "Array Filter",
            {vn::kCategoryColorAdjustment, vn::kCategoryVideo, vn::kCategoryStillImage,
             vn::kCategoryInterlaced, vn::kCategoryNonSquarePixels}});
    return true;
  }();
  (void)registered;
}

std::shared_ptr<ArrayFilter> ArrayFilter::filterWithName(const std::string&) {
  return std::shared_ptr<ArrayFilter>(new ArrayFilter());
}

ArrayFilter::ArrayFilter() : vn::ImageFilter("ArrayFilter") {}

ArrayFilter::ArrayFilter(const ArrayFilter& other)
    : vn::ImageFilter(other), inputImage_(other.inputImage()) {}

ArrayFilter::~ArrayFilter() {
  setFilters({});
  setInputImage(std::nullopt);
}

bool ArrayFilter::setValue(const std::string& key, vn::FilterValue value) {
  const bool none = std::holds_alternative<std::monostate>(value);
  if (key == kFiltersKey) {
    if (none) {
      setFilters({});
      return true;
    }
    vn::FilterList* list = std::get_if<vn::FilterList>(&value);
    if (!list)
      return false;
    setFilters(std::move(*list));
    return true;
  }
  if (key == vn::kInputImageKey) {
    if (none) {
      setInputImage(std::nullopt);
      return true;
    }
    vn::FilterImage* image = std::get_if<vn::FilterImage>(&value);
    if (!image)
      return false;
    setInputImage(std::move(*image));
    return true;
  }
  return vn::ImageFilter::setValue(key, std::move(value));
}

vn::FilterValue ArrayFilter::value(const std::string& key) const {
  if (key == kFiltersKey)
    return filters();
  if (key == vn::kInputImageKey) {
    std::optional<vn::FilterImage> image = inputImage();
    if (!image)
      return {};
    return *std::move(image);
  }
  return vn::ImageFilter::value(key);
}

std::vector<std::string> ArrayFilter::inputKeys() const {
  std::vector<std::string> keys = {kFiltersKey, vn::kInputImageKey};
  for (std::string& key : vn::ImageFilter::inputKeys())
    keys.push_back(std::move(key));
  return keys;
}

std::vector<std::pair<std::string, vn::FilterValue>> ArrayFilter::parameters() const {
  std::vector<std::pair<std::string, vn::FilterValue>> out;
  {
    std::lock_guard<std::mutex> hold(lock_);
    if (!filters_.empty())
      out.emplace_back(kFiltersKey, filters_);
    if (inputImage_)
      out.emplace_back(vn::kInputImageKey, *inputImage_);
  }
  for (auto& parameter : vn::ImageFilter::parameters())
    out.push_back(std::move(parameter));
  return out;
}

std::optional<vn::FilterImage> ArrayFilter::outputImage() const {
  vn::FilterList list;
  std::optional<vn::FilterImage> image;
  {
    std::lock_guard<std::mutex> hold(lock_);
    list = filters_;
    image = inputImage_;
  }
  // The filters are called without the lock: each takes its own.
  for (const auto& filter : list) {
    if (!filter)
      continue;
    filter->setValue(vn::kInputImageKey,
                     image ? vn::FilterValue(*image) : vn::FilterValue(std::monostate()));
    image = filter->outputImage();
  }
  return image;
}

std::shared_ptr<vn::ImageFilter> ArrayFilter::copy() const {
  std::shared_ptr<ArrayFilter> out(new ArrayFilter(*this));
  vn::FilterList copies;
  for (const auto& filter : filters()) {
    if (!filter)
      continue;
    if (std::shared_ptr<vn::ImageFilter> c = filter->copy())
      copies.push_back(std::move(c));
  }
  out->setFilters(std::move(copies));
  return out;
}

vn::FilterList ArrayFilter::filters() const {
  std::lock_guard<std::mutex> hold(lock_);
  return filters_;
}

void ArrayFilter::setFilters(vn::FilterList filters) {
  // The old list is released after the lock: its filters may be the last
  // references to large images.
  std::lock_guard<std::mutex> hold(lock_);
  filters_.swap(filters);
}

std::optional<vn::FilterImage> ArrayFilter::inputImage() const {
  std::lock_guard<std::mutex> hold(lock_);
  return inputImage_;
}

void ArrayFilter::setInputImage(std::optional<vn::FilterImage> image) {
  std::lock_guard<std::mutex> hold(lock_);
  inputImage_.swap(image);
}
