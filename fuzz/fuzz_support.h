// What the fuzz targets share: a scratch folder for the files an input
// becomes, parameters read from an input's bytes, and a bounded render of a
// lazy picture so that its drawing really runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "image/filter_image.h"

namespace vn::fuzz {

// A folder of this process's own, in memory when /dev/shm is there, emptied
// and removed when the process exits. Made on first use.
const std::string& scratchDir();

// A file (or folder tree) under the scratch folder that is removed when it
// goes out of scope, so that no input leaves anything behind.
class ScratchPath {
 public:
  explicit ScratchPath(const std::string& name);
  ~ScratchPath();
  ScratchPath(const ScratchPath&) = delete;
  ScratchPath& operator=(const ScratchPath&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Writes bytes to path; false when it cannot.
bool writeFile(const std::string& path, std::string_view bytes);

// A small number taken from an input without consuming it: an FNV-1a hash
// of its bytes, mixed with `salt`, so that different inputs ask for
// different times while the file's bytes stay as the fuzzer made them.
uint64_t inputHash(const uint8_t* data, size_t size, uint64_t salt);

// Renders the image's extent when it is finite and at most `maxPixels`
// pixels, so that every lazy step of it is evaluated. Returns whether it
// rendered something.
bool renderBounded(const std::optional<vn::FilterImage>& image, double maxPixels = 320.0 * 240.0);

}  // namespace vn::fuzz
