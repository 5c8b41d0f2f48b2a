#include "fuzz_support.h"

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace vn::fuzz {

namespace {

std::string makeScratchDir() {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path base =
      fs::is_directory("/dev/shm", error) ? fs::path("/dev/shm") : fs::temp_directory_path(error);
  const fs::path dir = base / ("varnel-fuzz-" + std::to_string(::getpid()));
  fs::remove_all(dir, error);
  fs::create_directories(dir, error);
  return dir.string();
}

void removeScratchDir() {
  std::error_code error;
  std::filesystem::remove_all(scratchDir(), error);
}

}  // namespace

const std::string& scratchDir() {
  // Never destroyed: the folder is removed at exit, after static objects
  // may already be gone.
  static const std::string* dir = [] {
    auto* made = new std::string(makeScratchDir());
    std::atexit(removeScratchDir);
    return made;
  }();
  return *dir;
}

ScratchPath::ScratchPath(const std::string& name) : path_(scratchDir() + "/" + name) {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

ScratchPath::~ScratchPath() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

bool writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

uint64_t inputHash(const uint8_t* data, size_t size, uint64_t salt) {
  uint64_t hash = 14695981039346656037ull ^ salt;
  for (size_t i = 0; i < size; ++i) {
    hash ^= data[i];
    hash *= 1099511628211ull;
  }
  return hash;
}

bool renderBounded(const std::optional<vn::FilterImage>& image, double maxPixels) {
  if (!image || image->isInfinite() || image->isEmpty())
    return false;
  const vn::Rect extent = image->extent();
  if (!(extent.width >= 1 && extent.height >= 1) || extent.width * extent.height > maxPixels)
    return false;
  return !image->render(extent).empty();
}

}  // namespace vn::fuzz
