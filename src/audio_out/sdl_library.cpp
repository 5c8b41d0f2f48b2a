#include "audio_out/sdl_library.h"

#include "base/dynamic_library.h"

namespace vn {

namespace {

// The name the build's SDL2 is found under.
constexpr const char* kSoname = "libSDL2-2.0.so.0";

LoadedTable<SdlLibrary> load() {
  LoadedTable<SdlLibrary> loaded;
  std::string& why = loaded.reason;
  void* handle = openLibrary(kSoname, &why);
  if (!handle)
    return loaded;
  SdlLibrary& t = loaded.table;
  const auto bind = [handle, &why](const char* name, auto* slot) {
    return bindFunction(handle, kSoname, name, slot, &why);
  };
#define VN_BIND(name) bind("SDL_" #name, &t.name)
  loaded.ok = VN_BIND(SetHint) && VN_BIND(SetHintWithPriority) && VN_BIND(InitSubSystem) &&
              VN_BIND(GetError) && VN_BIND(OpenAudioDevice) && VN_BIND(CloseAudioDevice) &&
              VN_BIND(PauseAudioDevice) && VN_BIND(GetAudioDeviceStatus);
#undef VN_BIND
  return loaded;
}

}  // namespace

const SdlLibrary* SdlLibrary::get(std::string* reason) {
  return tableOnce(&load, reason);
}

}  // namespace vn
