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
  loaded.ok = VN_BIND(SetHint) && VN_BIND(SetHintWithPriority) && VN_BIND(GetHint) &&
              VN_BIND(InitSubSystem) && VN_BIND(QuitSubSystem) && VN_BIND(GetError) &&
              VN_BIND(OpenAudioDevice) && VN_BIND(CloseAudioDevice) &&
              VN_BIND(PauseAudioDevice) && VN_BIND(GetAudioDeviceStatus) &&
              VN_BIND(CreateWindow) && VN_BIND(DestroyWindow) && VN_BIND(GetWindowFlags) &&
              VN_BIND(SetWindowFullscreen) && VN_BIND(PollEvent) && VN_BIND(Delay) &&
              VN_BIND(GL_GetProcAddress) && VN_BIND(CreateRenderer) &&
              VN_BIND(DestroyRenderer) && VN_BIND(GetRendererInfo) &&
              VN_BIND(GetRendererOutputSize) && VN_BIND(SetRenderDrawColor) &&
              VN_BIND(SetRenderDrawBlendMode) && VN_BIND(RenderClear) && VN_BIND(RenderCopy) &&
              VN_BIND(RenderFillRect) && VN_BIND(RenderPresent) && VN_BIND(CreateTexture) &&
              VN_BIND(DestroyTexture) && VN_BIND(UpdateTexture) && VN_BIND(SetTextureBlendMode);
#undef VN_BIND
  return loaded;
}

}  // namespace

const SdlLibrary* SdlLibrary::get(std::string* reason) {
  return tableOnce(&load, reason);
}

}  // namespace vn
