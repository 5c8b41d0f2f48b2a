// End-to-end: `varnel play` in a window on Xvfb; screenshots read back through the frame
// counter of counter.mp4, matched with the player's trace (VARNEL_PLAY_TRACE).
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

#include "test_support.h"

extern char** environ;

namespace {

using vn::test::fixture;
using Clock = std::chrono::steady_clock;

// A sanitizer build's player cannot keep up: only what holds at any speed is checked.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kTimed = false;
#else
constexpr bool kTimed = true;
#endif

constexpr int kScreenW = 640, kScreenH = 480;
constexpr double kFrame = 0.04;  // counter.mp4 runs at 25 fps

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

void sleepSeconds(double s) {
  std::this_thread::sleep_for(std::chrono::duration<double>(s));
}

// argv with extra environment, keys on stdin, its output to a file; ended at destruction.
class Process {
 public:
  Process(const std::vector<std::string>& argv,
          const std::vector<std::string>& env,
          const std::string& log) {
    int fds[2];
    if (pipe(fds) != 0)
      return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    std::vector<char*> args = {const_cast<char*>("/usr/bin/env")};
    for (const auto& a : env)
      args.push_back(const_cast<char*>(a.c_str()));
    for (const auto& a : argv)
      args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0)
      pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[0]);
    input_ = fds[1];
  }
  ~Process() {
    if (input_ >= 0)
      close(input_);
    // Asked to end first (an X server removes its socket and lock then), else killed.
    if (pid_ > 0 && !exited_) {
      kill(pid_, SIGTERM);
      if (wait(5) < 0 && !exited_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
      }
    }
  }
  bool started() const { return pid_ > 0; }
  // Keys to the player; one that has ended takes none (SIGPIPE is ignored).
  void send(const std::string& keys) {
    signal(SIGPIPE, SIG_IGN);
    if (write(input_, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size()))
      ADD_FAILURE() << "the player took no keys";
  }
  // The exit status, or -1 when it does not end within the time.
  int wait(double seconds) {
    for (const auto until = Clock::now() + std::chrono::duration<double>(seconds);
         Clock::now() < until; sleepSeconds(0.02)) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
    }
    return -1;
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  bool exited_ = false;
};

// A virtual X display for the life of the object, on a number no other server holds.
class VirtualDisplay {
 public:
  VirtualDisplay() {
    static int instances = 0;
    struct stat info {};
    for (int tries = 0; tries < 20; ++tries) {
      number_ = std::to_string(40 + static_cast<int>(getpid() % 400) * 8 + (instances++ % 8));
      if (stat(("/tmp/.X" + number_ + "-lock").c_str(), &info) != 0)
        break;
    }
    server_ = std::make_unique<Process>(
        std::vector<std::string>{"/usr/bin/Xvfb", name(), "-screen", "0",
                                 std::to_string(kScreenW) + "x" + std::to_string(kScreenH) + "x24",
                                 "-nolisten", "tcp"},
        std::vector<std::string>{}, vn::test::scratch("xvfb" + number_ + ".log"));
    for (int i = 0; i < 250 && !(ready_ = stat(("/tmp/.X11-unix/X" + number_).c_str(), &info) == 0);
         ++i)
      sleepSeconds(0.02);
  }
  bool ready() const { return ready_; }
  std::string name() const { return ":" + number_; }

 private:
  std::string number_;
  std::unique_ptr<Process> server_;
  bool ready_ = false;
};

// One screenshot of the whole screen, RGB, and when it was taken.
struct Shot {
  std::vector<uint8_t> rgb;
  int64_t before = 0, after = 0;
  const uint8_t* at(int x, int y) const { return &rgb[(size_t(y) * kScreenW + x) * 3]; }
};

Shot screenshot(const VirtualDisplay& display) {
  Shot shot;
  shot.before = nowNs();
  const std::string bytes =
      vn::test::runShell("ffmpeg -v error -f x11grab -video_size " + std::to_string(kScreenW) +
                         "x" + std::to_string(kScreenH) + " -i " + display.name() +
                         " -frames:v 1 -f rawvideo -pix_fmt rgb24 -");
  shot.after = nowNs();
  shot.rgb.assign(bytes.begin(), bytes.end());
  return shot;
}

// Where a w x h picture lands on the screen, fitted and centred.
struct Placed {
  int x = 0, y = 0, width = 0, height = 0;
};

Placed placed(int w, int h) {
  const double scale = std::min(double(kScreenW) / w, double(kScreenH) / h);
  const int width = std::max(1, int(std::lround(w * scale))),
            height = std::max(1, int(std::lround(h * scale)));
  return {(kScreenW - width) / 2, (kScreenH - height) / 2, width, height};
}

// Whether the grey lower half of a counter clip is on screen.
bool counterShown(const Shot& shot, const Placed& p) {
  if (shot.rgb.size() != size_t(kScreenW) * kScreenH * 3)
    return false;
  const uint8_t grey = shot.at(p.x + p.width / 2, p.y + p.height * 3 / 4)[0];
  return grey > 100 && grey < 156;
}

// The frame number of a counter clip on screen: its stripes across the top half, or down it.
int counterNumber(const Shot& shot, const Placed& p, bool down = false) {
  if (shot.rgb.size() != size_t(kScreenW) * kScreenH * 3)
    return -1;
  int n = 0;
  for (int bit = 0; bit < 10; ++bit) {
    const int x = down ? p.x + p.width / 2 : p.x + int((bit + 0.5) * p.width / 10);
    const int y = down ? p.y + int((bit + 0.5) * p.height / 20) : p.y + p.height / 4;
    n |= (shot.at(x, y)[0] > 128) << bit;
  }
  return n;
}

// counter.mp4 in a window that fills the screen.
const Placed kFull = placed(320, 240);

// The player's trace: per line, when, "shown" or not, the frame, its time and the clock.
struct TraceLine {
  int64_t ns = 0;
  bool shown = false;
  int64_t index = 0;
  double time = 0, clock = 0;
};

std::vector<TraceLine> readTrace(const std::string& path) {
  std::vector<TraceLine> lines;
  std::ifstream in(path);
  std::string kind;
  for (TraceLine l; in >> l.ns >> kind >> l.index >> l.time >> l.clock;) {
    l.shown = kind == "shown";
    lines.push_back(l);
  }
  return lines;
}

// Whether frame n can be in a shot: the last one shown before it, or one shown during it.
bool onScreenDuring(const std::vector<TraceLine>& trace, const Shot& shot, int64_t n) {
  std::vector<int64_t> frames;
  for (const TraceLine& l : trace) {
    if (l.shown && l.ns <= shot.before)
      frames.assign(1, l.index);
    else if (l.shown && l.ns <= shot.after)
      frames.push_back(l.index);
  }
  return std::find(frames.begin(), frames.end(), n) != frames.end();
}

std::vector<std::string> playerEnv(const VirtualDisplay& display, const std::string& name) {
  std::vector<std::string> env{"DISPLAY=" + display.name(), "SDL_AUDIODRIVER=disk",
                               "SDL_DISKAUDIOFILE=" + vn::test::scratch(name + ".raw"),
                               "VARNEL_PLAY_TRACE=" + vn::test::scratch(name + ".trace")};
#ifdef VARNEL_KEEP_LOADED
  // The sanitizer's runtime comes first, then the library that keeps the
  // GL driver loaded (tests/sanitizers/keep_loaded.c).
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    const size_t at = line.find('/');
    if (at != std::string::npos && line.find("/libasan.so") != std::string::npos) {
      env.push_back("LD_PRELOAD=" + line.substr(at) + " " + VARNEL_KEEP_LOADED);
      break;
    }
  }
#endif
  return env;
}

// `varnel play` of counter.mp4 on the display, into name.trace, name.log and name.raw.
Process play(const VirtualDisplay& display,
             const std::string& name,
             const std::vector<std::string>& args) {
  std::vector<std::string> argv = {VARNEL_CLI_PATH, "play", fixture("counter.mp4")};
  argv.insert(argv.end(), args.begin(), args.end());
  return Process(argv, playerEnv(display, name), vn::test::scratch(name + ".log"));
}

// The player's output, for a failure message.
std::string logOf(const std::string& name) {
  return "player output:\n" + vn::test::readFile(vn::test::scratch(name + ".log"));
}

TEST(PlayWindowTest, ShowsTheFrameOfTheAudioClock) {
  VirtualDisplay display;
  ASSERT_TRUE(display.ready()) << "Xvfb did not start";
  Process player = play(display, "window", {"--window", "640x480"});
  ASSERT_TRUE(player.started());

  std::vector<std::pair<std::string, Shot>> shots;
  sleepSeconds(1.5);
  shots.emplace_back("at 1.0 speed", screenshot(display));
  player.send("++++");  // 2.0
  sleepSeconds(1.5);
  shots.emplace_back("at 2.0 speed", screenshot(display));
  player.send("----\x1b[C");  // 1.0, then 10 s on
  sleepSeconds(1.0);
  shots.emplace_back("after a seek", screenshot(display));
  player.send(" ");
  sleepSeconds(0.5);
  const Shot paused = screenshot(display);
  sleepSeconds(0.6);
  const Shot stillPaused = screenshot(display);
  player.send(" ");
  sleepSeconds(1.0);
  shots.emplace_back("after pause and resume", screenshot(display));
  player.send("q");
  ASSERT_EQ(player.wait(20), 0) << logOf("window");

  // A sanitizer build only shows that every scene runs and ends cleanly.
  if (!kTimed)
    return;
  const std::vector<TraceLine> trace = readTrace(vn::test::scratch("window.trace"));
  ASSERT_GT(trace.size(), 50u);
  // Playing starts on the first frame, shown before the clock runs.
  EXPECT_EQ(std::tuple(trace.front().shown, trace.front().index, trace.front().clock),
            std::tuple(true, 0, 0.0));
  for (const auto& [what, shot] : shots) {
    SCOPED_TRACE(what);
    const int n = counterNumber(shot, kFull);
    EXPECT_TRUE(onScreenDuring(trace, shot, n)) << "screen shows frame " << n;
  }
  // While paused the picture stands still.
  EXPECT_TRUE(counterNumber(paused, kFull) >= 0 &&
              counterNumber(paused, kFull) == counterNumber(stillPaused, kFull));

  // Every picture shown covers the clock within a frame; the seek jumped about 10 s.
  int64_t last = -1;
  bool jumped = false;
  for (const TraceLine& l : trace) {
    if (!l.shown)
      continue;
    EXPECT_TRUE(l.clock - l.time >= -0.001 && l.clock - l.time < kFrame) << "frame " << l.index;
    jumped = jumped || (last >= 0 && l.index - last > 200);
    last = l.index;
  }
  EXPECT_TRUE(jumped);
}

TEST(PlayWindowTest, PictureSettingsAndSubtitlesReachTheScreen) {
  VirtualDisplay display;
  ASSERT_TRUE(display.ready()) << "Xvfb did not start";
  // utf8.srt shows its two lines from 1 s to 7 s.
  Process player = play(display, "settings",
                        {"--window", "640x480", "--rotate", "90", "--subtitles",
                         fixture("utf8.srt"), "--subtitle-font", "Sans 24", "--start", "2"});
  ASSERT_TRUE(player.started());
  sleepSeconds(1.5);
  const Shot shot = screenshot(display);
  player.send("q");
  ASSERT_EQ(player.wait(20), 0) << logOf("settings");
  ASSERT_EQ(shot.rgb.size(), size_t(kScreenW) * kScreenH * 3);
  if (!kTimed)
    return;

  // Turned a quarter: 360 wide, between black bars.
  for (const int x : {10, 100, 540, 630})
    EXPECT_LT(shot.at(x, 240)[0] + shot.at(x, 240)[1] + shot.at(x, 240)[2], 30) << x;
  // The subtitle: white text on the picture's lower part, which is grey or black.
  int white = 0;
  for (int y = 300; y < 480; ++y) {
    for (int x = 140; x < 500; ++x) {
      const uint8_t* p = shot.at(x, y);
      white += p[0] > 235 && p[1] > 235 && p[2] > 235;
    }
  }
  EXPECT_GT(white, 100);
}

TEST(PlayWindowTest, EndsWithTheInputAndSavesThePicture) {
  VirtualDisplay display;
  ASSERT_TRUE(display.ready()) << "Xvfb did not start";
  // The last 1.5 s, paused for `s` to save the picture into the working folder.
  const std::string saved = vn::test::scratch("saved");
  std::filesystem::create_directories(saved);
  Process player(
      {"/bin/sh", "-c",
       "cd " + vn::test::shellQuote(saved) + " && exec " + VARNEL_CLI_PATH + " play " +
           vn::test::shellQuote(fixture("counter.mp4")) + " --window 320x240 --start 22.5"},
      playerEnv(display, "end"), vn::test::scratch("end.log"));
  ASSERT_TRUE(player.started());
  sleepSeconds(0.5);
  player.send(" s ");
  EXPECT_EQ(player.wait(20), 0) << logOf("end");
  if (!kTimed)
    return;
  const std::vector<std::string> pictures = vn::test::entries(saved);
  ASSERT_EQ(pictures.size(), 1u);
  const vn::test::Raster picture = vn::test::readPicture(saved + "/" + pictures[0]);
  EXPECT_EQ(std::pair(picture.width, picture.height), std::pair(320, 240));
}

TEST(PlayWindowTest, NoDisplayMeansSoundOnly) {
  const vn::test::CommandResult r =
      vn::test::runVarnel({"play", fixture("counter.mp4"), "--start", "22.5"},
                          {{"DISPLAY", ""},
                           {"WAYLAND_DISPLAY", ""},
                           {"SDL_AUDIODRIVER", "disk"},
                           {"SDL_DISKAUDIOFILE", vn::test::scratch("nodisplay.raw")}},
                          60);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("varnel: playing the sound only: no display"), std::string::npos) << r.err;
  // A clip without sound needs a window.
  const vn::test::CommandResult silent = vn::test::runVarnel(
      {"play", fixture("cues_clip.mp4")}, {{"DISPLAY", ""}, {"WAYLAND_DISPLAY", ""}}, 60);
  EXPECT_EQ(silent.status, 1);
  EXPECT_NE(silent.err.find("no audio track, and no display"), std::string::npos) << silent.err;
}

// Every size reaches the screen by GL and software: padded rows, one pixel wide, 4K.
TEST(PlayWindowTest, ShowsEveryPictureSize) {
  const std::pair<int, int> cases[] = {{1, 64}, {636, 360}, {642, 362}, {854, 480}, {3840, 2160}};
  VirtualDisplay display;
  ASSERT_TRUE(display.ready()) << "Xvfb did not start";
  for (const char* renderer : {"opengl", "software"}) {
    for (const auto& [width, height] : cases) {
      const std::string size = std::to_string(width) + "x" + std::to_string(height);
      const std::string name = "size-" + size + "-" + renderer;
      SCOPED_TRACE(name);
      std::vector<std::string> env = playerEnv(display, name);
      env.push_back(std::string("SDL_RENDER_DRIVER=") + renderer);
      Process player(
          {VARNEL_CLI_PATH, "play", fixture("counter_" + size + ".mp4"), "--window", "640x480"},
          env, vn::test::scratch(name + ".log"));
      ASSERT_TRUE(player.started());
      // Paused a second in; a loaded machine may take a while to show it.
      sleepSeconds(1.0);
      player.send(" ");
      const Placed p = placed(width, height);
      for (const auto until = Clock::now() + std::chrono::seconds(10);
           Clock::now() < until && !counterShown(screenshot(display), p);) {
        sleepSeconds(0.25);
      }
      // A picture under ten pixels wide has its top stripes under the status
      // line, which goes two seconds after the pause key.
      sleepSeconds(width < 10 ? 2.3 : 0.3);
      const Shot shot = screenshot(display);
      player.send("q");
      ASSERT_EQ(player.wait(20), 0) << logOf(name);
      EXPECT_TRUE(counterShown(shot, p)) << "the screen shows no picture";
      const int n = counterNumber(shot, p, width < 10);
      EXPECT_TRUE(onScreenDuring(readTrace(vn::test::scratch(name + ".trace")), shot, n))
          << "screen shows frame " << n;
    }
  }
}

// Playing from a frame's start shows that frame first, at 29.97 fps too (1.001 s is frame 30).
TEST(PlayWindowTest, StartsOnTheFrameStartingThere) {
  VirtualDisplay display;
  ASSERT_TRUE(display.ready()) << "Xvfb did not start";
  Process player({VARNEL_CLI_PATH, "play", fixture("rate_2997.mp4"), "--start", "1.001"},
                 playerEnv(display, "start"), vn::test::scratch("start.log"));
  ASSERT_TRUE(player.started());
  player.send(" ");
  sleepSeconds(0.5);
  player.send("q");
  ASSERT_EQ(player.wait(20), 0) << logOf("start");
  const std::vector<TraceLine> trace = readTrace(vn::test::scratch("start.trace"));
  ASSERT_FALSE(trace.empty());
  EXPECT_EQ(std::pair(trace.front().shown, trace.front().index), std::pair(true, int64_t{30}));
}

}  // namespace
