#include "image/vips_library.h"

#include "base/dynamic_library.h"
#include "core/log.h"

namespace vn {

namespace {

LoadedTable<VipsLibrary> load() {
  return loadTable<VipsLibrary>(VARNEL_VIPS_SONAME, [](VipsLibrary& t, const Binder& bind) {
    decltype(&::vips_init) init = nullptr;
    decltype(&::vips_cache_set_max) cacheSetMax = nullptr;
    const bool all = bind("vips_init", &init) && bind("vips_cache_set_max", &cacheSetMax) &&
                     bind("vips_error_buffer", &t.error_buffer) &&
                     bind("vips_error_clear", &t.error_clear) &&
                     bind("vips_image_new_from_file", &t.image_new_from_file) &&
                     bind("vips_image_get_width", &t.image_get_width) &&
                     bind("vips_image_get_height", &t.image_get_height) &&
                     bind("vips_image_get_bands", &t.image_get_bands) &&
                     bind("vips_image_hasalpha", &t.image_hasalpha) &&
                     bind("vips_image_write_to_memory", &t.image_write_to_memory) &&
                     bind("vips_colourspace", &t.colourspace) &&
                     bind("vips_bandjoin_const1", &t.bandjoin_const1) && bind("vips_cast", &t.cast);
    if (!all)
      return false;
    if (init("varnel") != 0) {
      logFailure("vips_init", t.error_buffer());
      t.error_clear();
    }
    // The cache would keep references to images that wrap memory we reuse.
    cacheSetMax(0);
    return true;
  });
}

}  // namespace

const VipsLibrary* VipsLibrary::get(std::string* reason) {
  return tableOnce(&load, reason);
}

}  // namespace vn
