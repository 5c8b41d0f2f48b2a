// SDL2's sound, loaded the first time a sound device is opened.
//
// SDL brings some twenty libraries of its own into a process (the sound
// servers' clients, D-Bus, Wayland, X11, systemd...), whose mapping and
// relocation at every start cost a one-picture command a twentieth of its
// time. Only playing opens a device, so the library is opened with dlopen
// on first use and its functions are called through this table.
//
// Threads: get() may be called from any thread; the table never changes
// once made.
#pragma once

#include <string>

#include <SDL.h>

namespace vn {

struct SdlLibrary {
  decltype(&::SDL_SetHint) SetHint;
  decltype(&::SDL_SetHintWithPriority) SetHintWithPriority;
  decltype(&::SDL_InitSubSystem) InitSubSystem;
  decltype(&::SDL_GetError) GetError;
  decltype(&::SDL_OpenAudioDevice) OpenAudioDevice;
  decltype(&::SDL_CloseAudioDevice) CloseAudioDevice;
  decltype(&::SDL_PauseAudioDevice) PauseAudioDevice;
  decltype(&::SDL_GetAudioDeviceStatus) GetAudioDeviceStatus;

  // The library, loaded once per process. Null when it cannot be loaded,
  // with the reason in *reason (each call that fails gives it).
  static const SdlLibrary* get(std::string* reason = nullptr);
};

}  // namespace vn
