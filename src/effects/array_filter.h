// ArrayFilter: an image filter that applies an ordered list of filters one
// after another, the output of each being the input of the next. Two of the
// effect presets (effect_manager.h) are built from it.
//
// Registered with the image-filter registry as "ArrayFilter" (display name
// "Array Filter") by initialize(), which the effect catalogue calls before
// it builds its presets. Its inputs are "filters" (a vn::FilterList) and
// "inputImage", reachable by key through setValue and value as well as by
// the accessors.
//
// Threads: the two fields are read and written under a lock, so any thread
// may use the accessors. outputImage() gives the listed filters their inputs
// in turn, so two threads must not ask the same ArrayFilter for output
// images of different inputs at once: give each its own copy(), which
// shares no filter with the original.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "image/image_filter.h"

class ArrayFilter : public vn::ImageFilter {
 public:
  // The key of the filter list.
  static constexpr char kFiltersKey[] = "filters";

  // Registers "ArrayFilter" with the image-filter registry, with
  // filterWithName as its constructor. Runs once per process, whichever
  // thread calls it first; later calls return at once.
  static void initialize();
  // A new ArrayFilter with no filters and no input image; name is ignored
  // (the registry's constructor).
  static std::shared_ptr<ArrayFilter> filterWithName(const std::string& name);

  ArrayFilter& operator=(const ArrayFilter&) = delete;
  // Lets go of the filters and the input image.
  ~ArrayFilter() override;

  // vn::ImageFilter: "filters" and "inputImage" are this class's fields;
  // setting std::monostate empties them.
  bool setValue(const std::string& key, vn::FilterValue value) override;
  vn::FilterValue value(const std::string& key) const override;
  std::vector<std::string> inputKeys() const override;
  // The filter list (when not empty), then the input image (when set).
  std::vector<std::pair<std::string, vn::FilterValue>> parameters() const override;
  // The input image passed through every filter in order (each filter's
  // input image is set to the previous output); the input image itself when
  // the list is empty; none without an input image.
  std::optional<vn::FilterImage> outputImage() const override;
  // A new ArrayFilter with the same input image and a copy of each filter,
  // in order (a filter whose copy fails is left out).
  std::shared_ptr<vn::ImageFilter> copy() const override;

  // The filters, first to last; null entries are kept but skipped.
  vn::FilterList filters() const;
  void setFilters(vn::FilterList filters);
  std::optional<vn::FilterImage> inputImage() const;
  void setInputImage(std::optional<vn::FilterImage> image);

 private:
  ArrayFilter();
  // The base class's copy and the input image; copy() adds the filters.
  ArrayFilter(const ArrayFilter& other);

  mutable std::mutex lock_;
  // Guarded by lock_.
  vn::FilterList filters_;                     // applied first to last
  std::optional<vn::FilterImage> inputImage_;  // fed to the first filter
};
