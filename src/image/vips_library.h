// libvips, loaded the first time an image file is read.
//
// libvips brings some forty libraries into a process (OpenEXR, HDF5, FITS,
// MAT files, curl, ...). Linked in, the dynamic loader maps and relocates
// them on every start, which costs a short command such as `varnel info`
// about as much time again as probing its movie, although most runs never
// touch an image file. So the library is opened with dlopen on first use and
// its functions are called through this table.
//
// Threads: get() may be called from any thread; the table never changes
// once made.
#pragma once

#include <string>

#include <vips/vips.h>

namespace vn {

struct VipsLibrary {
  decltype(&::vips_error_buffer) error_buffer;
  decltype(&::vips_error_clear) error_clear;
  decltype(&::vips_image_new_from_file) image_new_from_file;
  decltype(&::vips_image_get_width) image_get_width;
  decltype(&::vips_image_get_height) image_get_height;
  decltype(&::vips_image_get_bands) image_get_bands;
  decltype(&::vips_image_hasalpha) image_hasalpha;
  decltype(&::vips_image_write_to_memory) image_write_to_memory;
  decltype(&::vips_colourspace) colourspace;
  decltype(&::vips_bandjoin_const1) bandjoin_const1;
  decltype(&::vips_cast) cast;

  // The library, started (vips_init) with its operation cache off; loaded
  // once per process. Null when it cannot be loaded, with the reason in
  // *reason (each call that fails gives it).
  static const VipsLibrary* get(std::string* reason = nullptr);
};

}  // namespace vn
