// Image files: a FilterImage read from a file through libvips (vips_library.h,
// loaded the first time it is needed), and written to a PNG or JPEG file
// with libpng and libjpeg, which a one-picture command has mapped already.
#include "image/filter_image.h"

#include <jpeglib.h>
#include <png.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
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

// libjpeg reports a fatal error by calling error_exit, which must not
// return: it jumps back to where the file was started, with its reason.
struct JpegError {
  jpeg_error_mgr manager;
  std::jmp_buf back;
  char reason[JMSG_LENGTH_MAX];
};

void jpegFailed(j_common_ptr jpeg) {
  JpegError* error = reinterpret_cast<JpegError*>(jpeg->err);
  error->manager.format_message(jpeg, error->reason);
  std::longjmp(error->back, 1);
}

// Writes rows of 8-bit RGB as a baseline JPEG of the given quality, chroma
// kept whole from quality 90 up. No object with a destructor lives in this
// frame: libjpeg's errors jump out of it.
bool writeJpeg(std::FILE* file,
               const uint8_t* rgb,
               int width,
               int height,
               int quality,
               char (&reason)[JMSG_LENGTH_MAX]) {
  jpeg_compress_struct jpeg;
  JpegError error;
  jpeg.err = jpeg_std_error(&error.manager);
  error.manager.error_exit = jpegFailed;
  error.reason[0] = 0;
  if (setjmp(error.back)) {
    std::snprintf(reason, sizeof reason, "%s", error.reason);
    jpeg_destroy_compress(&jpeg);
    return false;
  }
  jpeg_create_compress(&jpeg);
  jpeg_stdio_dest(&jpeg, file);
  jpeg.image_width = static_cast<JDIMENSION>(width);
  jpeg.image_height = static_cast<JDIMENSION>(height);
  jpeg.input_components = 3;
  jpeg.in_color_space = JCS_RGB;
  jpeg_set_defaults(&jpeg);
  jpeg_set_quality(&jpeg, quality, TRUE);
  if (quality >= 90) {
    for (int c = 0; c < jpeg.num_components; ++c) {
      jpeg.comp_info[c].h_samp_factor = 1;
      jpeg.comp_info[c].v_samp_factor = 1;
    }
  }
  jpeg_start_compress(&jpeg, TRUE);
  while (jpeg.next_scanline < jpeg.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(rgb + size_t(jpeg.next_scanline) * width * 3);
    jpeg_write_scanlines(&jpeg, &row, 1);
  }
  jpeg_finish_compress(&jpeg);
  jpeg_destroy_compress(&jpeg);
  return true;
}

// Saves 8-bit sRGB pixels with alpha (rows of width * 4 bytes) as PNG,
// without the alpha channel when every pixel is opaque, or as JPEG laid
// over black; false with the reason.
bool save(std::vector<uint8_t>& rgba,
          int width,
          int height,
          std::FILE* file,
          bool png,
          std::string* reason) {
  const size_t pixels = size_t(width) * height;
  bool opaque = true;
  for (size_t i = 0; i < pixels && opaque; ++i)
    opaque = rgba[i * 4 + 3] == 255;
  if (!png || opaque) {
    // Packed to RGB in place; over black, a colour is weighted by its alpha.
    for (size_t i = 0; i < pixels; ++i) {
      const uint8_t* from = &rgba[i * 4];
      const unsigned a = from[3];
      for (int c = 0; c < 3; ++c)
        rgba[i * 3 + c] = opaque ? from[c] : static_cast<uint8_t>((from[c] * a + 127) / 255);
    }
  }
  if (png) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(height);
    image.format = opaque ? PNG_FORMAT_RGB : PNG_FORMAT_RGBA;
    image.flags = PNG_IMAGE_FLAG_FAST;
    const int written = png_image_write_to_stdio(&image, file, 0, rgba.data(), 0, nullptr);
    if (!written)
      *reason = image.message[0] ? image.message : "libpng failed";
    png_image_free(&image);
    return written != 0;
  }
  char why[JMSG_LENGTH_MAX] = "";
  if (!writeJpeg(file, rgba.data(), width, height, 92, why)) {
    *reason = why[0] ? why : "libjpeg failed";
    return false;
  }
  return true;
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
  std::vector<uint8_t> pixels = render(extent());
  if (pixels.empty()) {
    why = "the picture could not be rendered";
    return false;
  }
  // Written beside the target under a hidden name and renamed when
  // complete, so that a failure leaves nothing behind.
  const std::filesystem::path target(path);
  const std::filesystem::path temp =
      target.parent_path() / ("." + target.filename().string() + ".varnel-" +
                              std::to_string(reinterpret_cast<uintptr_t>(&pixels)) + ext);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(temp.c_str(), "wb"),
                                                       &std::fclose);
  if (!file) {
    why = std::error_code(errno, std::generic_category()).message();
    return false;
  }
  bool saved = save(pixels, region.width, region.height, file.get(), png, &why);
  if (std::fclose(file.release()) != 0 && saved) {
    why = std::error_code(errno, std::generic_category()).message();
    saved = false;
  }
  std::error_code error;
  if (!saved) {
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
