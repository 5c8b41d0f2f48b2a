#include "audio_out/sdl_library.h"

#include "base/dynamic_library.h"

namespace vn {

namespace {

// The name the build's SDL2 is found under.
constexpr const char* kSoname = "libSDL2-2.0.so.0";

LoadedTable<SdlLibrary> load() {
  return loadTable<SdlLibrary>(kSoname, [](SdlLibrary& t, const Binder& bind) {
#define VN_BIND(name) bind("SDL_" #name, &t.name)
    return VN_BIND(SetHint) && VN_BIND(SetHintWithPriority) && VN_BIND(InitSubSystem) &&
           VN_BIND(GetError) && VN_BIND(OpenAudioDevice) && VN_BIND(CloseAudioDevice) &&
           VN_BIND(PauseAudioDevice) && VN_BIND(GetAudioDeviceStatus);
#undef VN_BIND
  });
}

}  // namespace

const SdlLibrary* SdlLibrary::get(std::string* reason) {
  return tableOnce(&load, reason);
}

}  // namespace vn
