#include "audio_out/audio_device.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "audio_out/sdl_library.h"
#include "base/dynamic_library.h"
#include "core/log.h"

namespace vn {

namespace {

// SDL, once initializeAudio has loaded it (every open device implies so).
const SdlLibrary& sdl() {
  return *SdlLibrary::get();
}

// ALSA's own error lines, at debug level instead of on the terminal.
void alsaError(const char* file, int line, const char* function, int err, const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  logDebug("ALSA %s:%d %s: %s (%d)", file ? file : "", line, function ? function : "", text, err);
}

// On a machine without a sound card, ALSA prints a screenful while SDL
// probes it; the failed open's reason says all the user needs. The library is
// opened only to install the handler: SDL's own opening of it shares it.
void quietAlsa() {
  constexpr char kAlsa[] = "libasound.so.2";
  std::string reason;
  void* alsa = openLibrary(kAlsa, &reason);
  using Handler = void (*)(const char*, int, const char*, int, const char*, ...);
  int (*setHandler)(Handler) = nullptr;
  if (alsa && bindFunction(alsa, kAlsa, "snd_lib_error_set_handler", &setHandler, &reason))
    setHandler(&alsaError);
  else
    logFailure("quieting ALSA", reason);
}

// SDL's audio subsystem is set up once per process and kept until exit;
// a failed set-up is tried again by the next open.
bool initializeAudio(std::string* reason) {
  static std::mutex lock;
  static bool initialized = false;
  std::lock_guard<std::mutex> guard(lock);
  if (initialized)
    return true;
  std::string why;
  if (!SdlLibrary::get(&why)) {
    *reason = "no sound device: " + why;
    return false;
  }
  // The audio subsystem brings up SDL's events, which would otherwise take
  // over SIGINT and SIGTERM from the application.
  sdl().SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  sdl().SetHintWithPriority(SDL_HINT_AUDIO_DEVICE_APP_NAME, "varnel", SDL_HINT_DEFAULT);
  quietAlsa();
  if (sdl().InitSubSystem(SDL_INIT_AUDIO) != 0) {
    *reason = std::string("no sound device: ") + sdl().GetError();
    return false;
  }
  initialized = true;
  return true;
}

}  // namespace

AudioDevice::AudioDevice(Render render, void* context) : render_(render), context_(context) {}

AudioDevice::~AudioDevice() {
  close();
}

bool AudioDevice::open() {
  if (isOpen())
    return true;
  if (!initializeAudio(&failureReason_))
    return false;
  SDL_AudioSpec want;
  std::memset(&want, 0, sizeof want);
  want.freq = kSampleRate;
  want.format = AUDIO_F32SYS;
  want.channels = kChannels;
  want.samples = kFramesPerCallback;
  want.callback = &AudioDevice::callback;
  want.userdata = this;
  SDL_AudioSpec have;
  // No change allowed: when the hardware differs, SDL converts behind the
  // callback, which always sees this format and this many frames.
  const SDL_AudioDeviceID id = sdl().OpenAudioDevice(nullptr, 0, &want, &have, 0);
  if (id == 0) {
    failureReason_ = std::string("no sound device: ") + sdl().GetError();
    return false;
  }
  device_ = id;
  return true;
}

void AudioDevice::close() {
  if (device_ != 0)
    sdl().CloseAudioDevice(device_);
  device_ = 0;
}

bool AudioDevice::isOpen() const {
  return device_ != 0;
}

bool AudioDevice::start() {
  if (device_ == 0) {
    failureReason_ = "the sound device is not open";
    return false;
  }
  sdl().PauseAudioDevice(device_, 0);
  return true;
}

void AudioDevice::stop() {
  // SDL pauses under the lock it holds around each render call, so no call
  // is in progress once this returns.
  if (device_ != 0)
    sdl().PauseAudioDevice(device_, 1);
}

bool AudioDevice::isRunning() const {
  return device_ != 0 && sdl().GetAudioDeviceStatus(device_) == SDL_AUDIO_PLAYING;
}

void AudioDevice::callback(void* self, uint8_t* stream, int length) {
  auto* device = static_cast<AudioDevice*>(self);
  const int32_t frames = length / static_cast<int32_t>(kChannels * sizeof(float));
  device->render_(device->context_, reinterpret_cast<float*>(stream), frames);
}

}  // namespace vn
