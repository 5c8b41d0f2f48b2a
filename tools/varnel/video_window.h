// The picture of `varnel play`: an SDL window showing the movie's composed
// picture at the movie's clock.
//
// Pictures are decoded two ahead on the movie's decode queue (a picture
// queue), rendered to RGBA at the size they take on screen there, and
// uploaded and shown on the main thread when the clock reaches their frame.
// A picture that arrives after its frame has passed is skipped: the sound is
// never held back for the picture.
//
// Threads: every call on the main thread; the picture queue meets the decode
// queue.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "varnel.h"

struct SDL_Window;
struct SDL_Renderer;
struct SDL_Texture;

namespace varnel_cli {

class VideoWindow {
 public:
  struct Options {
    int width = 0;  // the window's size; 0: the picture's
    int height = 0;
    bool fullscreen = false;
  };
  enum class Event {
    kPause,
    kBack,
    kForward,
    kFaster,
    kSlower,
    kVolumeUp,
    kVolumeDown,
    kMute,
    kSave,
    kStep,
    kFullscreen,
    kQuit
  };

  // Why no window can be opened here (no display: neither DISPLAY nor
  // WAYLAND_DISPLAY is set), or empty.
  static std::string unavailable();
  // Opens a window over the movie's pictures, which are composed at
  // width x height (the movie's output size is set to it); frames are
  // frameSeconds long. A `plain` window shows the decoded pictures as they
  // are, scaled by the renderer (no setting changes them, and composing
  // would only scale them). Null with a reason when SDL cannot open one.
  static std::unique_ptr<VideoWindow> open(std::shared_ptr<VNFFMovie> movie,
                                           int width,
                                           int height,
                                           bool plain,
                                           double frameSeconds,
                                           const std::string& title,
                                           const Options& options,
                                           std::string* reason);
  VideoWindow(const VideoWindow&) = delete;
  VideoWindow& operator=(const VideoWindow&) = delete;
  // Waits for the pictures being decoded, then closes the window.
  ~VideoWindow();

  // What the user did in the window since the last call.
  std::vector<Event> events();
  // Shows the picture of the frame that covers `clock` (seconds) once it is
  // decoded, and asks for the next one. `rate` is the playback speed, 0
  // while paused.
  void update(double clock, double rate);
  // The clock jumped: pictures asked for before are not shown.
  void seeked();
  // With the clock standing at `clock`, waits until its frame's picture is
  // on screen and the next ones are decoded (or the movie has no picture
  // there), for at most `seconds`: a clock started afterwards finds its
  // first pictures in time.
  void preroll(double clock, double seconds);
  // A line of text over the picture for two seconds.
  void showStatus(const std::string& text);
  // Writes the picture on screen as PNG; false with a reason.
  bool savePicture(const std::string& path, std::string* reason) const;

  int64_t shownCount() const { return shownCount_; }
  int64_t skippedCount() const { return skippedCount_; }

 private:
  VideoWindow() = default;
  // The frame that covers the clock (seconds).
  int64_t frameAt(double clock) const;
  // Asks for the picture of frame index; false when enough are asked.
  bool request(int64_t index);
  void present();
  // One line of the trace: what happened to a picture, at which clock.
  void trace(const char* what, int64_t index, double clock);

  std::shared_ptr<VNFFMovie> movie_;
  std::unique_ptr<VNFFPictureQueue> pictures_;
  double frameSeconds_ = 0.04;
  int width_ = 0, height_ = 0;   // of the pictures, and of the texture
  int shownW_ = 0, shownH_ = 0;  // the picture's size as shown (its aspect)
  SDL_Window* window_ = nullptr;
  SDL_Renderer* renderer_ = nullptr;
  SDL_Texture* texture_ = nullptr;
  SDL_Texture* status_ = nullptr;
  int statusWidth_ = 0, statusHeight_ = 0;
  double statusUntil_ = 0;  // steady seconds
  bool statusShown_ = false;
  std::vector<uint8_t> onScreen_;  // RGBA of the picture shown
  int64_t shownIndex_ = -1;        // the frame on screen
  int64_t lastRequested_ = -1;     // the last frame asked for
  int64_t shownCount_ = 0;
  int64_t skippedCount_ = 0;
  uint32_t lastClick_ = 0;
  FILE* trace_ = nullptr;  // VARNEL_PLAY_TRACE: one line per picture shown or skipped
};

}  // namespace varnel_cli
