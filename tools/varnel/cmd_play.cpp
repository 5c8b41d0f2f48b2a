// varnel play INPUT: plays the mix of the selected audio tracks on the
// default sound device and, when the input has video and a display is
// there, shows its composed picture in a window, in step with the sound.
//
// Keys (in the window, or on stdin when it is a terminal or a pipe): space
// pauses, left/right seek 10 s, + and - change the speed, up/down the
// volume, m mutes, s saves the picture on screen, . steps one frame while
// paused, f toggles full screen, q quits. Playback ends at the end of the
// input, or when the window is closed.
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "cli.h"
#include "disc.h"
#include "input.h"
#include "picture.h"
#include "subtitles.h"
#include "varnel.h"
#include "video_window.h"

namespace varnel_cli {
namespace {

struct PlayOptions {
  std::string input;
  std::optional<int> title;  // the DVD source to read
  double speed = 1.0;
  double volume = 1.0;
  double start = 0;
  std::string audioTracks;
  bool noVideo = false;
  std::string window;  // WxH
  bool fullscreen = false;
  PictureOptions picture;
  SubtitleOptions subtitles;
};

// Puts the terminal in single-key mode for the life of the object.
class RawTerminal {
 public:
  RawTerminal() {
    if (!isatty(0) || tcgetattr(0, &saved_) != 0)
      return;
    termios raw = saved_;
    raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    active_ = tcsetattr(0, TCSANOW, &raw) == 0;
  }
  ~RawTerminal() {
    if (active_)
      tcsetattr(0, TCSANOW, &saved_);
  }
  bool active() const { return active_; }

 private:
  termios saved_{};
  bool active_ = false;
};

using Key = VideoWindow::Event;

// The longest the first picture is waited for before playing starts.
constexpr double kPrerollSeconds = 2.0;

// Keys typed on stdin (a terminal in single-key mode, or a pipe); stops
// reading at the end of the input.
class KeyReader {
 public:
  explicit KeyReader(bool active) : active_(active) {}
  // The keys that arrive within timeoutMs (all that are waiting).
  std::vector<Key> read(int timeoutMs) {
    std::vector<Key> keys;
    if (!active_) {
      std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
      return keys;
    }
    pollfd fd{0, POLLIN, 0};
    if (poll(&fd, 1, timeoutMs) <= 0)
      return keys;
    char c[64] = {};
    const ssize_t n = ::read(0, c, sizeof c);
    if (n <= 0) {
      active_ = false;  // the end of a pipe
      return keys;
    }
    for (ssize_t i = 0; i < n; ++i) {
      if (c[i] == 27 && i + 2 < n && c[i + 1] == '[') {
        const char arrow = c[i + 2];
        i += 2;
        if (arrow == 'A')
          keys.push_back(Key::kVolumeUp);
        else if (arrow == 'B')
          keys.push_back(Key::kVolumeDown);
        else if (arrow == 'C')
          keys.push_back(Key::kForward);
        else if (arrow == 'D')
          keys.push_back(Key::kBack);
        continue;
      }
      switch (c[i]) {
        case ' ':
          keys.push_back(Key::kPause);
          break;
        case 'q':
        case 'Q':
          keys.push_back(Key::kQuit);
          break;
        case '+':
        case '=':
          keys.push_back(Key::kFaster);
          break;
        case '-':
        case '_':
          keys.push_back(Key::kSlower);
          break;
        case 'm':
          keys.push_back(Key::kMute);
          break;
        case 's':
          keys.push_back(Key::kSave);
          break;
        case '.':
          keys.push_back(Key::kStep);
          break;
        default:
          break;
      }
    }
    return keys;
  }

 private:
  bool active_;
};

// The size pictures are composed at: the picture as it is shown, fitted
// into the window asked for, or into 1280x720 when it is larger.
void pictureSize(VNFFMovie& movie, int windowW, int windowH, int* width, int* height) {
  const vn::Size shown = movie.shownVideoSize(movie.rotate(), true, true);
  *width = static_cast<int>(shown.width);
  *height = static_cast<int>(shown.height);
  const double boxW = windowW > 0 ? windowW : std::max(*width, 1280);
  const double boxH = windowH > 0 ? windowH : std::max(*height, 720);
  const double scale = std::min(boxW / *width, boxH / *height);
  if (scale < 1 || windowW > 0) {
    *width = std::max(2, static_cast<int>(std::lround(*width * scale / 2)) * 2);
    *height = std::max(2, static_cast<int>(std::lround(*height * scale / 2)) * 2);
  }
}

std::string clockText(double seconds) {
  char text[32];
  const int whole = static_cast<int>(seconds);
  std::snprintf(text, sizeof text, "%d:%02d:%04.1f", whole / 3600, whole / 60 % 60,
                std::fmod(std::max(0.0, seconds), 60.0));
  return text;
}

int run(const PlayOptions& o) {
  // Every value is checked before anything plays (a NaN fails each test).
  if (!(o.speed >= 0.25 && o.speed <= 4))
    return usage("bad --speed", numberText(o.speed), "use 0.25 to 4");
  if (!(o.volume >= 0 && o.volume <= 4))
    return usage("bad --volume", numberText(o.volume), "use 0 to 4");
  int windowW = 0, windowH = 0;
  if (!o.window.empty() && !parsePictureSize(o.window, &windowW, &windowH))
    return usage("bad --window", o.window, "expected WxH with positive numbers");
  Input input;
  input.title = o.title;
  if (const int status = input.openWithTracks(o.input, o.audioTracks); status != kExitOk)
    return status;
  VNFFMovie& movie = *input.movie;

  // The picture, when there is one to show and somewhere to show it.
  const bool video = movie.videoMedia() && !o.noVideo;
  std::string noWindow = video ? VideoWindow::unavailable() : std::string();
  // The picture settings are checked even when no picture will be shown.
  if (movie.videoMedia()) {
    if (const int status = o.picture.apply(input); status != kExitOk)
      return status;
    if (const int status = o.subtitles.apply(input); status != kExitOk)
      return status;
  }
  if (!movie.hasAudio() && (!video || !noWindow.empty())) {
    return fail(
        "cannot play", o.input,
        video ? "it has no audio track, and " + noWindow : "it has no audio or video to play");
  }
  // A file cut short plays as far as it goes.
  const Input::Extent extent = input.extent();
  // The start of the input is always there, even when its length is not
  // known: only another start is checked.
  if (o.start != 0) {
    if (const int status = checkTime("--start", o.start, extent, numberText(o.start), o.input);
        status != kExitOk)
      return status;
  }
  input.warnIfCutShort(o.input, extent);
  const double duration = extent.end();

  std::unique_ptr<VideoWindow> window;
  const AVRational rate = movie.exactFramerate();
  const double frameSeconds = av_q2d(av_inv_q(rate));
  if (video && noWindow.empty()) {
    int width = 0, height = 0;
    pictureSize(movie, windowW, windowH, &width, &height);
    VideoWindow::Options options;
    options.width = windowW;
    options.height = windowH;
    options.fullscreen = o.fullscreen;
    const std::string title = std::filesystem::path(o.input).filename().string() + " - varnel";
    // Nothing to compose: the decoded pictures go to the screen as they are.
    const bool plain = !o.picture.changesPicture(input) && !o.subtitles.shows();
    window = VideoWindow::open(input.movie, width, height, plain, frameSeconds, title, options,
                               &noWindow);
  }
  if (video && !window) {
    if (!movie.hasAudio())
      return fail("cannot play", o.input, "it has no audio track, and no window: " + noWindow);
    std::fprintf(stderr, "varnel: playing the sound only: %s\n", noWindow.c_str());
  }

  // The audio's clock, or without audio a wall clock.
  VNPlaybackClock clock(input.movie, movie.hasAudio());
  const auto seekTo = [&](double seconds) {
    clock.seek(std::clamp(seconds, 0.0, duration));
    if (window)
      window->seeked();
  };
  seekTo(o.start);
  movie.flushOperation();
  double volume = o.volume, unmuted = o.volume;
  movie.setVolume(volume);
  float speed = static_cast<float>(o.speed);
  clock.setRate(speed);
  // The first picture is on screen before the clock starts: none is late
  // from the start.
  if (window)
    window->preroll(clock.now(), kPrerollSeconds);
  clock.setRunning(true);
  if (movie.hasAudio() && !movie.isPlay()) {
    auto graph = movie.audioOutputGraph();
    return fail("cannot play", o.input, graph ? graph->failureReason() : "no sound device");
  }

  catchInterrupts();

  RawTerminal terminal;
  KeyReader keys(terminal.active() || !isatty(0));
  const bool tty = isatty(2);
  bool paused = false;
  bool quit = false;
  int saved = 0;
  const std::string stem = std::filesystem::path(o.input).stem().string();
  while (!quit && !interrupted()) {
    // A window is served at its next frame's start (every 4 ms at most),
    // the terminal alone ten times a second.
    int waitMs = 100;
    if (window) {
      const double now = clock.now();
      const double toNext = frameSeconds - std::fmod(std::max(now, 0.0), frameSeconds);
      waitMs = paused ? 4 : std::clamp(static_cast<int>(std::ceil(toNext / speed * 1000)), 1, 4);
    }
    std::vector<Key> pressed = keys.read(waitMs);
    if (window) {
      for (Key k : window->events())
        pressed.push_back(k);
    }
    double now = clock.now();
    bool changed = false;
    for (Key key : pressed) {
      changed = changed || key != Key::kSave;
      switch (key) {
        case Key::kQuit:
          quit = true;
          break;
        case Key::kPause:
          paused = !paused;
          clock.setRunning(!paused);
          break;
        case Key::kBack:
          seekTo(now - 10);
          break;
        case Key::kForward:
          seekTo(now + 10);
          break;
        case Key::kStep:
          if (paused && window)
            seekTo(now + frameSeconds);
          break;
        case Key::kFaster:
          speed = std::min(4.0f, speed + 0.25f);
          clock.setRate(speed);
          break;
        case Key::kSlower:
          speed = std::max(0.25f, speed - 0.25f);
          clock.setRate(speed);
          break;
        case Key::kVolumeUp:
        case Key::kVolumeDown:
          volume = std::clamp(volume + (key == Key::kVolumeUp ? 0.1 : -0.1), 0.0, 4.0);
          unmuted = volume;
          movie.setVolume(volume);
          break;
        case Key::kMute:
          volume = volume > 0 ? 0 : (unmuted > 0 ? unmuted : 1.0);
          movie.setVolume(volume);
          break;
        case Key::kSave:
          if (window) {
            char name[64];
            std::snprintf(name, sizeof name, "-%.3f-%d.png", now, ++saved);
            std::string reason;
            if (window->savePicture(stem + name, &reason))
              std::fprintf(stderr, "%svarnel: saved %s%s\n", tty ? "\r" : "", (stem + name).c_str(),
                           tty ? "            " : "");
            else
              warn(stem + name, "not saved: " + reason);
          }
          break;
        case Key::kFullscreen:
          break;
      }
      now = clock.now();
    }
    char status[160];
    std::snprintf(status, sizeof status, "%s / %s  x%.2f  vol %d%%  %s", clockText(now).c_str(),
                  clockText(duration).c_str(), speed, static_cast<int>(std::lround(volume * 100)),
                  paused ? "paused" : "playing");
    if (window) {
      if (changed)
        window->showStatus(status);
      window->update(now, paused ? 0.0 : speed);
    }
    if (tty)
      std::fprintf(stderr, "\r%s   ", status);
    if (!paused && now >= duration)
      break;
  }
  clock.setRunning(false);
  if (tty)
    std::fprintf(stderr, "\n");
  window.reset();
  return kExitOk;
}

}  // namespace

Registration playCommand() {
  return [](CLI::App& app, std::function<int()>& run_) {
    auto o = std::make_shared<PlayOptions>();
    CLI::App* sub = app.add_subcommand(
        "play", "Play INPUT: its sound on the default device, its picture in a window");
    sub->add_option("INPUT", o->input, "Input media file or DVD (folder, .iso, device)")
        ->required();
    addTitleOption(sub, &o->title);
    sub->add_option("--speed", o->speed, "Playback speed, 0.25 to 4 (pitch kept)");
    sub->add_option("--volume", o->volume, "Mix level, 0 to 4 (1 unchanged)");
    sub->add_option("--start", o->start, "Start time in seconds");
    sub->add_option("--audio-tracks", o->audioTracks,
                    "Audio tracks to mix, e.g. 0,2 (default: all)");
    sub->add_flag("--no-video", o->noVideo, "Play the sound only, without a window");
    sub->add_option("--window", o->window, "Window size WxH (default: the picture's)");
    sub->add_flag("--fullscreen", o->fullscreen, "Start in full screen");
    o->picture.addTo(sub);
    o->subtitles.addTo(sub);
    sub->footer(
        "Keys: space pause, left/right seek 10 s, +/- speed, up/down volume, m mute, s save the "
        "picture, . next frame (paused), f or double-click full screen, q quit.");
    sub->callback([o, &run_] { run_ = [o] { return run(*o); }; });
  };
}

}  // namespace varnel_cli
