// Image files: a FilterImage read from a file and written to one, through
// libvips (vips_library.h, loaded the first time it is needed).
#include "image/filter_image.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/log.h"
#include "image/filter_graph.h"
#include "image/vips_library.h"

namespace vn {
namespace {

struct GObjectUnref {
  void operator()(void* p) const {
    if (p)
      g_object_unref(p);
  }
};
using VipsHandle = std::unique_ptr<VipsImage, GObjectUnref>;

std::string vipsReason(const VipsLibrary& vips) {
  std::string text = vips.error_buffer();
  vips.error_clear();
  while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
    text.pop_back();
  const size_t newline = text.find('\n');
  if (newline != std::string::npos)
    text.resize(newline);
  return text.empty() ? "libvips failed" : text;
}

// Saves an sRGB image with alpha as PNG, or as JPEG laid over black;
// libvips' status.
int save(const VipsLibrary& vips, VipsImage* image, const char* path, bool png) {
  if (png)
    return vips.pngsave(image, path, nullptr);
  VipsImage* flat = nullptr;
  double black[3] = {0, 0, 0};
  VipsArrayDouble* background = vips.array_double_new(black, 3);
  int status = vips.flatten(image, &flat, "background", background, nullptr);
  vips.area_unref(VIPS_AREA(background));
  if (status == 0) {
    VipsHandle flattened(flat);
    status = vips.jpegsave(flattened.get(), path, "Q", 92, nullptr);
  }
  return status;
}

}  // namespace

void FilterImage::initializeLibrary() {
  VipsLibrary::get();
}

std::optional<FilterImage> FilterImage::fromFile(const std::string& path, std::string* reason) {
  std::string ignored;
  std::string& why = reason ? *reason : ignored;
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) {
    why = std::filesystem::exists(path, error) ? "not a regular file" : "no such file";
    return std::nullopt;
  }
  const VipsLibrary* vips = VipsLibrary::get(&why);
  if (!vips)
    return std::nullopt;
  VipsHandle image(vips->image_new_from_file(path.c_str(), nullptr));
  if (!image) {
    // libvips' reason names its loaders: the user hears what it means.
    logFailure("vips_image_new_from_file", vipsReason(*vips));
    why = "not a picture file that can be read";
    return std::nullopt;
  }
  const int width = vips->image_get_width(image.get()),
            height = vips->image_get_height(image.get());
  if (!withinLimits(IntRect{0, 0, width, height})) {
    why = "image too large (" + std::to_string(width) + "x" + std::to_string(height) +
          "; at most " + std::to_string(kMaxImageSide) + " pixels a side and " +
          std::to_string(kMaxImagePixels) + " pixels)";
    return std::nullopt;
  }
  // To 8-bit sRGB with an alpha band.
  VipsImage* step = nullptr;
  if (vips->colourspace(image.get(), &step, VIPS_INTERPRETATION_sRGB, nullptr) != 0) {
    why = vipsReason(*vips);
    return std::nullopt;
  }
  VipsHandle srgb(step);
  if (!vips->image_hasalpha(srgb.get())) {
    if (vips->bandjoin_const1(srgb.get(), &step, 255, nullptr) != 0) {
      why = vipsReason(*vips);
      return std::nullopt;
    }
    srgb.reset(step);
  }
  if (vips->cast(srgb.get(), &step, VIPS_FORMAT_UCHAR, nullptr) != 0) {
    why = vipsReason(*vips);
    return std::nullopt;
  }
  VipsHandle bytes(step);
  size_t size = 0;
  void* memory = vips->image_write_to_memory(bytes.get(), &size);
  if (!memory || size != size_t(width) * height * 4 || vips->image_get_bands(bytes.get()) != 4) {
    g_free(memory);
    why = memory ? "unexpected pixel layout" : vipsReason(*vips);
    return std::nullopt;
  }
  std::shared_ptr<uint8_t> owner(static_cast<uint8_t*>(memory), [](uint8_t* p) { g_free(p); });
  auto node = makeNode(Node::Kind::kRaster);
  node->bytes = owner.get();
  node->owner = owner;
  node->width = width;
  node->height = height;
  node->stride = width * 4;
  node->extent = Rect{0, 0, double(width), double(height)};
  return FilterImage(node);
}

bool FilterImage::writeToFile(const std::string& path, std::string* reason) const {
  std::string ignored;
  std::string& why = reason ? *reason : ignored;
  if (isInfinite() || isEmpty()) {
    why = isEmpty() ? "the picture is empty" : "the picture is endless";
    return false;
  }
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char ch) { return std::tolower(ch); });
  const bool png = ext == ".png", jpeg = ext == ".jpg" || ext == ".jpeg";
  if (!png && !jpeg) {
    why = "unknown image type for extension " + (ext.empty() ? std::string("(none)") : ext) +
          " (use .png, .jpg or .jpeg)";
    return false;
  }
  const IntRect region = integral(extent());
  if (!withinLimits(region)) {
    why = "image too large to write";
    return false;
  }
  const VipsLibrary* vips = VipsLibrary::get(&why);
  if (!vips)
    return false;
  std::vector<uint8_t> pixels = render(extent());
  if (pixels.empty()) {
    why = "the picture could not be rendered";
    return false;
  }
  VipsHandle image(vips->image_new_from_memory(pixels.data(), pixels.size(), region.width,
                                               region.height, 4, VIPS_FORMAT_UCHAR));
  if (!image) {
    why = vipsReason(*vips);
    return false;
  }
  VipsImage* tagged = nullptr;
  if (vips->copy(image.get(), &tagged, "interpretation", VIPS_INTERPRETATION_sRGB, nullptr) != 0) {
    why = vipsReason(*vips);
    return false;
  }
  image.reset(tagged);
  // Written beside the target under a hidden name and renamed when
  // complete, so that a failure leaves nothing behind.
  const std::filesystem::path target(path);
  const std::filesystem::path temp =
      target.parent_path() / ("." + target.filename().string() + ".varnel-" +
                              std::to_string(reinterpret_cast<uintptr_t>(&pixels)) + ext);
  const int status = save(*vips, image.get(), temp.c_str(), png);
  std::error_code error;
  if (status != 0) {
    why = vipsReason(*vips);
    std::filesystem::remove(temp, error);
    return false;
  }
  std::filesystem::rename(temp, target, error);
  if (error) {
    why = error.message();
    std::filesystem::remove(temp, error);
    return false;
  }
  return true;
}

}  // namespace vn
