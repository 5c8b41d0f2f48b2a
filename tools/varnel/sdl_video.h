// SDL2's windows, loaded the first time `play` opens one.
//
// SDL and the twenty libraries it brings (Wayland, X11, D-Bus, the sound
// servers' clients...) would otherwise be mapped and relocated by every
// command at its start; only a window needs them. The library's sound
// device loads them the same way for itself.
#pragma once

#include <SDL.h>

#include <string>

namespace varnel_cli {

struct SdlVideo {
  decltype(&::SDL_SetHint) SetHint;
  decltype(&::SDL_GetHint) GetHint;
  decltype(&::SDL_InitSubSystem) InitSubSystem;
  decltype(&::SDL_QuitSubSystem) QuitSubSystem;
  decltype(&::SDL_GetError) GetError;
  decltype(&::SDL_CreateWindow) CreateWindow;
  decltype(&::SDL_DestroyWindow) DestroyWindow;
  decltype(&::SDL_GetWindowFlags) GetWindowFlags;
  decltype(&::SDL_SetWindowFullscreen) SetWindowFullscreen;
  decltype(&::SDL_PollEvent) PollEvent;
  decltype(&::SDL_Delay) Delay;
  decltype(&::SDL_GL_GetProcAddress) GL_GetProcAddress;
  decltype(&::SDL_CreateRenderer) CreateRenderer;
  decltype(&::SDL_DestroyRenderer) DestroyRenderer;
  decltype(&::SDL_GetRendererInfo) GetRendererInfo;
  decltype(&::SDL_GetRendererOutputSize) GetRendererOutputSize;
  decltype(&::SDL_SetRenderDrawColor) SetRenderDrawColor;
  decltype(&::SDL_SetRenderDrawBlendMode) SetRenderDrawBlendMode;
  decltype(&::SDL_RenderClear) RenderClear;
  decltype(&::SDL_RenderCopy) RenderCopy;
  decltype(&::SDL_RenderFillRect) RenderFillRect;
  decltype(&::SDL_RenderPresent) RenderPresent;
  decltype(&::SDL_CreateTexture) CreateTexture;
  decltype(&::SDL_DestroyTexture) DestroyTexture;
  decltype(&::SDL_UpdateTexture) UpdateTexture;
  decltype(&::SDL_SetTextureBlendMode) SetTextureBlendMode;

  // The table, made once per process (any thread). Null when SDL cannot be
  // loaded, with the reason in *reason.
  static const SdlVideo* get(std::string* reason = nullptr);
};

}  // namespace varnel_cli
