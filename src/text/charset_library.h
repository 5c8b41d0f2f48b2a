// ICU's charset detector (libicui18n), loaded the first time a subtitle
// file that is not UTF-8 is read.
//
// The rest of ICU the library uses (locale names) is in libicuuc, which
// FFmpeg's own dependencies map into every process anyway; the detector's
// library is not, and most runs never read such a file.
//
// Threads: get() may be called from any thread; the table never changes
// once made.
#pragma once

#include <string>

#include <unicode/ucsdet.h>

namespace vn {

struct CharsetLibrary {
  decltype(&::ucsdet_open) open;
  decltype(&::ucsdet_close) close;
  decltype(&::ucsdet_enableInputFilter) enableInputFilter;
  decltype(&::ucsdet_setText) setText;
  decltype(&::ucsdet_detectAll) detectAll;
  decltype(&::ucsdet_getName) getName;

  // The library, loaded once per process. Null when it cannot be loaded,
  // with the reason in *reason (each call that fails gives it).
  static const CharsetLibrary* get(std::string* reason = nullptr);
};

}  // namespace vn
