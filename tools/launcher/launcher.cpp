// varnel: the program users run. `varnel --version` is answered here; every
// other command line goes to the commands, which live in a library of their
// own beside the program (libvarnel-commands.so, or lib/varnel/ of an
// installed tree) and are loaded only then: the media libraries they link
// (FFmpeg and every codec library it brings) are not mapped for a question
// about the version.
//
// Only the C library is used here, so that the program itself maps nothing
// else.
#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

using CommandsMain = int (*)(int, char**);

// Exit status of a failure that is not the user's (as the commands use).
constexpr int kExitFailed = 1;

// The folder of the running program, with its slash; empty when unknown.
bool programFolder(char (&folder)[PATH_MAX]) {
  const ssize_t n = readlink("/proc/self/exe", folder, sizeof folder - 1);
  if (n <= 0)
    return false;
  folder[n] = 0;
  char* slash = std::strrchr(folder, '/');
  if (!slash)
    return false;
  slash[1] = 0;
  return true;
}

// Loads the libraries FFmpeg's dependencies look up most, where they are
// there, into the global scope: every later look-up searches them right
// after the program and the C library. They are libraries the commands
// load anyway, written in C, and none defines a name another one does, so
// every symbol still binds where it would have.
void loadLookedUpFirst() {
  char names[] = VARNEL_LOOKED_UP_FIRST;  // "libA.so.1:libB.so.2:..."
  for (char* name = std::strtok(names, ":"); name; name = std::strtok(nullptr, ":"))
    (void)dlopen(name, RTLD_LAZY | RTLD_GLOBAL);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::puts("varnel " VARNEL_VERSION);
    return 0;
  }
  char folder[PATH_MAX];
  if (!programFolder(folder)) {
    std::fprintf(stderr, "varnel: error: cannot find where the program is installed\n");
    return kExitFailed;
  }
  loadLookedUpFirst();
  // Beside the program in a build tree; under the library folder when
  // installed.
  const char* const places[] = {"libvarnel-commands.so", VARNEL_COMMANDS_FROM_BIN};
  void* commands = nullptr;
  char path[PATH_MAX + 256];
  const char* reason = "not found";
  for (const char* place : places) {
    std::snprintf(path, sizeof path, "%s%s", folder, place);
    if (access(path, R_OK) != 0)
      continue;
    // Bound lazily: of the hundred and more libraries FFmpeg brings, a
    // command calls few functions, and the libraries that allow it then
    // bind only those (a tenth of the loading time).
    commands = dlopen(path, RTLD_LAZY | RTLD_LOCAL);
    if (commands)
      break;
    reason = dlerror();
  }
  CommandsMain run =
      commands ? reinterpret_cast<CommandsMain>(dlsym(commands, "varnel_commands_main")) : nullptr;
  if (!run) {
    std::fprintf(stderr, "varnel: error: cannot load the commands '%s': %s\n", path,
                 commands ? "no entry point" : reason);
    return kExitFailed;
  }
  return run(argc, argv);
}

// Highway (the SIMD library that libjxl, and so FFmpeg, brings) measures at
// load the resolution of its timer, for its benchmarking functions alone,
// which nothing here calls: its own measure spins for about 3 ms, a tenth
// of a one-shot command. Its initialiser calls the function through its
// exported name, so this program's definition (exported for that purpose
// alone) is the one it binds: the same measure, the least of a few back to
// back reads of the time-stamp counter, in a microsecond.
#ifdef VARNEL_ANSWERS_TIMER_MEASURE
namespace hwy::platform {
uint64_t TimerResolution() {
#if defined(__x86_64__)
  uint64_t least = UINT64_MAX;
  for (int i = 0; i < 16; ++i) {
    const uint64_t start = __builtin_ia32_rdtsc();
    unsigned processor;
    const uint64_t stop = __builtin_ia32_rdtscp(&processor);
    if (stop > start && stop - start < least)
      least = stop - start;
  }
  return least == UINT64_MAX ? 1 : least;
#else
  return 1;
#endif
}
}  // namespace hwy::platform
#endif
