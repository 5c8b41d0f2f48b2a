#include "sdl_video.h"

#include "varnel.h"

namespace varnel_cli {

namespace {

constexpr const char* kSoname = "libSDL2-2.0.so.0";

vn::LoadedTable<SdlVideo> load() {
  return vn::loadTable<SdlVideo>(kSoname, [](SdlVideo& t, const vn::Binder& bind) {
#define VN_BIND(name) bind("SDL_" #name, &t.name)
    return VN_BIND(SetHint) && VN_BIND(GetHint) && VN_BIND(InitSubSystem) &&
           VN_BIND(QuitSubSystem) && VN_BIND(GetError) && VN_BIND(CreateWindow) &&
           VN_BIND(DestroyWindow) && VN_BIND(GetWindowFlags) && VN_BIND(SetWindowFullscreen) &&
           VN_BIND(PollEvent) && VN_BIND(Delay) && VN_BIND(GL_GetProcAddress) &&
           VN_BIND(CreateRenderer) && VN_BIND(DestroyRenderer) && VN_BIND(GetRendererInfo) &&
           VN_BIND(GetRendererOutputSize) && VN_BIND(SetRenderDrawColor) &&
           VN_BIND(SetRenderDrawBlendMode) && VN_BIND(RenderClear) && VN_BIND(RenderCopy) &&
           VN_BIND(RenderFillRect) && VN_BIND(RenderPresent) && VN_BIND(CreateTexture) &&
           VN_BIND(DestroyTexture) && VN_BIND(UpdateTexture) && VN_BIND(SetTextureBlendMode);
#undef VN_BIND
  });
}

}  // namespace

const SdlVideo* SdlVideo::get(std::string* reason) {
  return vn::tableOnce(&load, reason);
}

}  // namespace varnel_cli
