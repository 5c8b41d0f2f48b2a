#include "base/dynamic_library.h"

namespace vn {

void* openLibrary(const char* soname, std::string* reason) {
  void* library = dlopen(soname, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    const char* error = dlerror();
    *reason =
        std::string(soname) + " cannot be loaded (" + (error ? error : "no reason given") + ")";
  }
  return library;
}

}  // namespace vn
