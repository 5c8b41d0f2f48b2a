#include "platform/vips_library.h"

#include <dlfcn.h>

#include <mutex>

namespace vn {

namespace {

struct Loaded {
  VipsLibrary table{};
  bool ok = false;
  std::string reason;
};

// Looks name up in handle into *slot; false (and the reason) when missing.
template <typename Function>
bool bind(void* handle, const char* name, Function* slot, std::string* reason) {
  *slot = reinterpret_cast<Function>(dlsym(handle, name));
  if (!*slot)
    *reason = std::string("libvips has no ") + name;
  return *slot != nullptr;
}

Loaded load() {
  Loaded loaded;
  // Kept open for the life of the process: images and their pixels may
  // outlive any one user.
  void* handle = dlopen(VARNEL_VIPS_SONAME, RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* error = dlerror();
    loaded.reason = std::string("libvips cannot be loaded (") + (error ? error : VARNEL_VIPS_SONAME) + ")";
    return loaded;
  }
  VipsLibrary& t = loaded.table;
  decltype(&::vips_init) init = nullptr;
  decltype(&::vips_cache_set_max) cacheSetMax = nullptr;
  std::string& why = loaded.reason;
  const bool all =
      bind(handle, "vips_init", &init, &why) && bind(handle, "vips_cache_set_max", &cacheSetMax, &why) &&
      bind(handle, "vips_error_buffer", &t.error_buffer, &why) &&
      bind(handle, "vips_error_clear", &t.error_clear, &why) &&
      bind(handle, "vips_image_new_from_file", &t.image_new_from_file, &why) &&
      bind(handle, "vips_image_new_from_memory", &t.image_new_from_memory, &why) &&
      bind(handle, "vips_image_get_width", &t.image_get_width, &why) &&
      bind(handle, "vips_image_get_height", &t.image_get_height, &why) &&
      bind(handle, "vips_image_get_bands", &t.image_get_bands, &why) &&
      bind(handle, "vips_image_hasalpha", &t.image_hasalpha, &why) &&
      bind(handle, "vips_image_write_to_memory", &t.image_write_to_memory, &why) &&
      bind(handle, "vips_colourspace", &t.colourspace, &why) &&
      bind(handle, "vips_bandjoin_const1", &t.bandjoin_const1, &why) &&
      bind(handle, "vips_cast", &t.cast, &why) && bind(handle, "vips_copy", &t.copy, &why) &&
      bind(handle, "vips_flatten", &t.flatten, &why) &&
      bind(handle, "vips_array_double_new", &t.array_double_new, &why) &&
      bind(handle, "vips_area_unref", &t.area_unref, &why) &&
      bind(handle, "vips_pngsave", &t.pngsave, &why) &&
      bind(handle, "vips_jpegsave", &t.jpegsave, &why);
  if (!all)
    return loaded;
  if (init("varnel") != 0)
    t.error_clear();
  // The cache would keep references to images that wrap memory we reuse.
  cacheSetMax(0);
  loaded.ok = true;
  return loaded;
}

}  // namespace

const VipsLibrary* VipsLibrary::get(std::string* reason) {
  static std::once_flag once;
  static Loaded loaded;
  std::call_once(once, [] { loaded = load(); });
  if (!loaded.ok && reason)
    *reason = loaded.reason;
  return loaded.ok ? &loaded.table : nullptr;
}

}  // namespace vn
