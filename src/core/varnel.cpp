#include "core/varnel.h"

#include <dlfcn.h>

#include <mutex>

#include <unicode/locid.h>
#include <unicode/unistr.h>

extern "C" {
#include <libavutil/log.h>
}

namespace {

// The display name of one code in the default locale, or "" when the
// locale does not know it (ICU then echoes the code back).
std::string displayName(const std::string& code) {
  // ICU reads "" as the root locale and names it "Unknown language".
  if (code.empty())
    return {};
  icu::Locale locale(code.c_str());
  if (locale.isBogus())
    return {};
  icu::UnicodeString name;
  locale.getDisplayLanguage(icu::Locale::getDefault(), name);
  std::string utf8;
  name.toUTF8String(utf8);
  if (utf8.empty())
    return {};
  // ICU answers with the (normalised) code itself when it has no name.
  icu::UnicodeString folded(name);
  folded.foldCase();
  icu::UnicodeString asked = icu::UnicodeString::fromUTF8(locale.getLanguage());
  asked.foldCase();
  if (folded == asked)
    return {};
  icu::UnicodeString given = icu::UnicodeString::fromUTF8(code);
  given.foldCase();
  if (folded == given)
    return {};
  return utf8;
}

}  // namespace

std::string Varnel::knownLanguageName(const std::string& code) {
  // "und" is the code for "no language stated", whatever name ICU has for it.
  if (code == "und")
    return {};
  if (std::string name = displayName(code); !name.empty())
    return name;
  if (code.size() >= 3)
    return displayName(code.substr(0, 2));
  return {};
}

std::string Varnel::displayStringForLanguage(const std::string& code) {
  if (std::string name = displayName(code); !name.empty())
    return name;
  if (code.size() >= 3) {
    if (std::string name = displayName(code.substr(0, 2)); !name.empty())
      return name;
  }
  if (std::string name = displayName("en"); !name.empty())
    return name;
  return code;
}

void Varnel::initialize() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Every demuxer, muxer, codec and filter is built into FFmpeg and
    // registered already. An extra H.264 encoder linked into the process
    // would be found here; FFmpeg registers it itself, so the lookup is
    // only a probe.
    if (void* handle = dlopen(nullptr, RTLD_LAZY)) {
      (void)dlsym(handle, "ff_libx264_encoder");
      dlclose(handle);
    }
    av_log_set_level(AV_LOG_FATAL);
  });
}
