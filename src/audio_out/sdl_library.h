// SDL2, loaded the first time a sound device or a window is opened.
//
// SDL brings some twenty libraries of its own into a process (the sound
// servers' clients, D-Bus, Wayland, X11, systemd...), whose mapping and
// relocation at every start cost a one-picture command a twentieth of its
// time. Only playing opens a device or a window, so the library is opened
// with dlopen on first use and its functions are called through this table.
//
// Threads: get() may be called from any thread; the table never changes
// once made.
#pragma once

#include <string>

#include <SDL.h>

namespace vn {

struct SdlLibrary {
  // Sound.
  decltype(&::SDL_SetHint) SetHint;
  decltype(&::SDL_SetHintWithPriority) SetHintWithPriority;
  decltype(&::SDL_GetHint) GetHint;
  decltype(&::SDL_InitSubSystem) InitSubSystem;
  decltype(&::SDL_QuitSubSystem) QuitSubSystem;
  decltype(&::SDL_GetError) GetError;
  decltype(&::SDL_OpenAudioDevice) OpenAudioDevice;
  decltype(&::SDL_CloseAudioDevice) CloseAudioDevice;
  decltype(&::SDL_PauseAudioDevice) PauseAudioDevice;
  decltype(&::SDL_GetAudioDeviceStatus) GetAudioDeviceStatus;
  // Windows.
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

  // The library, loaded once per process. Null when it cannot be loaded,
  // with the reason in *reason (each call that fails gives it).
  static const SdlLibrary* get(std::string* reason = nullptr);
};

}  // namespace vn
