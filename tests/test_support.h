// Helpers shared by the unit and end-to-end tests.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vn::test {

// False in a sanitizer build. It decodes several times slower than a plain
// one, so a sound device playing in real time often finds the buffer short:
// its calls of silence fall anywhere in a recording. Tests of real-time
// playback still play every scene there, for the sanitizers' sake, but check
// the lengths, levels and gaps of what was recorded only when this is true.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool kRealTime = false;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
inline constexpr bool kRealTime = false;
#else
inline constexpr bool kRealTime = true;
#endif
#else
inline constexpr bool kRealTime = true;
#endif

// Path of a generated test medium (tests/fixtures/README.md lists them).
std::string fixture(const std::string& name);

// A scratch directory of this test run, created on first use.
std::string scratchDir();

// Runs the varnel binary with the arguments; captures stdout and stderr.
struct CommandResult {
  int status = -1;  // exit status, or -1 when it did not exit normally
  std::string out;
  std::string err;
};
CommandResult runVarnel(const std::vector<std::string>& args,
                        const std::map<std::string, std::string>& env = {});

// ffprobe's -show_streams -show_format of a file as JSON (discarded on
// failure).
nlohmann::json ffprobe(const std::string& path);

// Number of operator new calls made so far on the calling thread.
uint64_t allocationCount();

// Runs a shell command line and returns its stdout; status in *status.
std::string runShell(const std::string& command, int* status = nullptr);

}  // namespace vn::test
