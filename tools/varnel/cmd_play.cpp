// varnel play INPUT: plays the mix of the selected audio tracks on the
// default sound device and shows the clock.
//
// Keys (when stdin is a terminal): space pauses, left/right seek 10 s, + and
// - change the speed, q quits. Playback ends at the end of the input.
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

#include "cli.h"
#include "disc.h"
#include "input.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

struct PlayOptions {
  std::string input;
  std::optional<int> title;  // the DVD source to read
  double speed = 1.0;
  double volume = 1.0;
  double start = 0;
  std::string audioTracks;
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

enum class Key { kNone, kPause, kBack, kForward, kFaster, kSlower, kQuit };

// Waits up to timeout for a key.
Key readKey(int timeoutMs) {
  pollfd fd{0, POLLIN, 0};
  if (poll(&fd, 1, timeoutMs) <= 0)
    return Key::kNone;
  char c[3] = {};
  const ssize_t n = read(0, c, sizeof c);
  if (n <= 0)
    return Key::kNone;
  if (c[0] == ' ')
    return Key::kPause;
  if (c[0] == 'q' || c[0] == 'Q')
    return Key::kQuit;
  if (c[0] == '+' || c[0] == '=')
    return Key::kFaster;
  if (c[0] == '-' || c[0] == '_')
    return Key::kSlower;
  if (n == 3 && c[0] == 27 && c[1] == '[') {
    if (c[2] == 'C')
      return Key::kForward;
    if (c[2] == 'D')
      return Key::kBack;
  }
  return Key::kNone;
}

std::string clock(double seconds) {
  char text[32];
  const int whole = static_cast<int>(seconds);
  std::snprintf(text, sizeof text, "%d:%02d:%04.1f", whole / 3600, whole / 60 % 60,
                std::fmod(std::max(0.0, seconds), 60.0));
  return text;
}

int run(const PlayOptions& o) {
  if (o.speed < 0.25 || o.speed > 4)
    return fail("bad --speed", std::to_string(o.speed), "use 0.25 to 4");
  if (o.volume < 0 || o.volume > 4)
    return fail("bad --volume", std::to_string(o.volume), "use 0 to 4");
  Input input;
  input.title = o.title;
  if (const int status = input.openWithTracks(o.input, o.audioTracks); status != kExitOk)
    return status;
  VNFFMovie& movie = *input.movie;
  if (!movie.hasAudio())
    return fail("cannot play", o.input, "it has no audio track to play");
  // A file cut short plays as far as it goes.
  const Input::Extent extent = input.extent();
  input.warnIfCutShort(o.input, extent);
  const double duration = extent.end();
  const auto seekTo = [&](double seconds) {
    seconds = std::clamp(seconds, 0.0, duration);
    movie.seek(microseconds(seconds));
  };
  seekTo(o.start);
  movie.flushOperation();
  movie.setVolume(o.volume);
  movie.setRate(static_cast<float>(o.speed));
  movie.play();
  if (!movie.isPlay()) {
    auto graph = movie.audioOutputGraph();
    return fail("cannot play", o.input, graph ? graph->failureReason() : "no sound device");
  }

  catchInterrupts();

  RawTerminal terminal;
  const bool tty = isatty(2);
  bool paused = false;
  float speed = static_cast<float>(o.speed);
  bool quit = false;
  while (!quit && !interrupted()) {
    const Key key = terminal.active() ? readKey(100) : Key::kNone;
    if (!terminal.active())
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const double now = vn_ff_time_to_double(movie.currentTime());
    switch (key) {
      case Key::kQuit:
        quit = true;
        break;
      case Key::kPause:
        paused = !paused;
        paused ? movie.pause() : movie.play();
        break;
      case Key::kBack:
        seekTo(now - 10);
        break;
      case Key::kForward:
        seekTo(now + 10);
        break;
      case Key::kFaster:
        speed = std::min(4.0f, speed + 0.25f);
        movie.setRate(speed);
        break;
      case Key::kSlower:
        speed = std::max(0.25f, speed - 0.25f);
        movie.setRate(speed);
        break;
      case Key::kNone:
        break;
    }
    if (tty) {
      std::fprintf(stderr, "\r%s / %s  x%.2f  %s   ", clock(now).c_str(), clock(duration).c_str(),
                   speed, paused ? "paused " : "playing");
    }
    if (!paused && now >= duration)
      break;
  }
  movie.pause();
  if (tty)
    std::fprintf(stderr, "\n");
  return kExitOk;
}

}  // namespace

Registration playCommand() {
  return [](CLI::App& app, std::function<int()>& run_) {
    auto o = std::make_shared<PlayOptions>();
    CLI::App* sub =
        app.add_subcommand("play", "Play the audio of INPUT on the default sound device");
    sub->add_option("INPUT", o->input, "Input media file or DVD (folder, .iso, device)")
        ->required();
    addTitleOption(sub, &o->title);
    sub->add_option("--speed", o->speed, "Playback speed, 0.25 to 4 (pitch kept)");
    sub->add_option("--volume", o->volume, "Mix level, 0 to 4 (1 unchanged)");
    sub->add_option("--start", o->start, "Start time in seconds");
    sub->add_option("--audio-tracks", o->audioTracks,
                    "Audio tracks to mix, e.g. 0,2 (default: all)");
    sub->footer("Keys: space pause, left/right seek 10 s, +/- speed, q quit.");
    sub->callback([o, &run_] { run_ = [o] { return run(*o); }; });
  };
}

}  // namespace varnel_cli
