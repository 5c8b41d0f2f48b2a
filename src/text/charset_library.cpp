#include "text/charset_library.h"

#include "base/dynamic_library.h"

namespace vn {

namespace {

// ICU's functions carry its version in their names (ucsdet_open_72): the
// header's renaming gives the name to look up.
#define VN_ICU_NAME(name) VN_ICU_NAME_OF(name)
#define VN_ICU_NAME_OF(name) #name

LoadedTable<CharsetLibrary> load() {
  return loadTable<CharsetLibrary>(VARNEL_ICU_I18N_SONAME, [](CharsetLibrary& t,
                                                              const Binder& bind) {
    return bind(VN_ICU_NAME(ucsdet_open), &t.open) && bind(VN_ICU_NAME(ucsdet_close), &t.close) &&
           bind(VN_ICU_NAME(ucsdet_enableInputFilter), &t.enableInputFilter) &&
           bind(VN_ICU_NAME(ucsdet_setText), &t.setText) &&
           bind(VN_ICU_NAME(ucsdet_detectAll), &t.detectAll) &&
           bind(VN_ICU_NAME(ucsdet_getName), &t.getName);
  });
}

#undef VN_ICU_NAME_OF
#undef VN_ICU_NAME

}  // namespace

const CharsetLibrary* CharsetLibrary::get(std::string* reason) {
  return tableOnce(&load, reason);
}

}  // namespace vn
