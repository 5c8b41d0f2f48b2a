// vn::AudioDevice: the default playback device, through SDL2.
//
// Plays interleaved 32-bit float stereo at 44 100 Hz. SDL's audio thread
// pulls: it calls the render function for a fixed number of frames each time
// and plays what it wrote. SDL picks the backend (PipeWire, PulseAudio, ALSA,
// JACK, or the "disk" driver that records to a file, selected with
// SDL_AUDIODRIVER=disk and SDL_DISKAUDIOFILE=path).
//
//   closed ──open()──► open, paused ──start()──► running
//     ▲                  │   ▲                     │
//     └────close()───────┘   └──────stop()─────────┘
//
// Threads: every call on one thread at a time (the application's). The
// render function runs on SDL's audio thread, never concurrently with
// itself; once stop() or close() has returned it is not running and does
// not run again before start().
#pragma once

#include <cstdint>
#include <string>

namespace vn {

class AudioDevice {
 public:
  static constexpr int32_t kSampleRate = 44100;
  static constexpr int32_t kChannels = 2;
  // Frames asked of the render function per call (about 11.6 ms).
  static constexpr int32_t kFramesPerCallback = 512;

  // Writes frames frames (frames × kChannels floats) at out; SDL's audio
  // thread. It must fill the whole buffer and must not block.
  using Render = void (*)(void* context, float* out, int32_t frames);

  // render and context are kept for the device's life; context outlives it.
  AudioDevice(Render render, void* context);
  AudioDevice(const AudioDevice&) = delete;
  AudioDevice& operator=(const AudioDevice&) = delete;
  // Closes the device.
  ~AudioDevice();

  // Opens the default playback device, paused. True when it is open (also
  // when it already was); false with failureReason() set otherwise.
  bool open();
  // Closes the device; waits for a render call in progress to return.
  void close();
  bool isOpen() const;

  // Lets SDL's thread pull. False when the device is not open.
  bool start();
  // Pauses the device: SDL plays silence and no longer calls render.
  void stop();
  // True while the device is open, started and still connected.
  bool isRunning() const;

  // Why the last open() or start() failed, e.g. "no sound device: ...".
  std::string failureReason() const { return failureReason_; }

 private:
  static void callback(void* self, uint8_t* stream, int length);

  const Render render_;
  void* const context_;
  uint32_t device_ = 0;  // SDL device id; 0 while closed
  std::string failureReason_;
};

}  // namespace vn
