// Helpers shared by the unit and end-to-end tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace vn::test {

// Whether playback tests check what the sound device recorded: only with VARNEL_REALTIME_TESTS=1
// in a plain build (a device starved by a sanitizer build or a busy machine plays silence).
bool realTimeChecks();
inline const bool kRealTime = realTimeChecks();

// Path of a generated test medium (tests/fixtures/README.md lists them).
std::string fixture(const std::string& name);

// A scratch directory of this test run, created on first use, and a path in it.
std::string scratchDir();
std::string scratch(const std::string& name);
// Whether the scratch directory holds no temporary file of a failed or stopped run.
bool noTemporaryFiles();
// The names in a directory; the bytes of a file (empty when unreadable); the lines of a text.
std::vector<std::string> entries(const std::string& dir);
std::string readFile(const std::string& path);
std::vector<std::string> lines(const std::string& text);

// Runs the varnel binary with the arguments; captures stdout and stderr.
struct CommandResult {
  int status = -1;  // exit status, or -1 when it did not exit normally
  std::string out;
  std::string err;
};
// A run longer than timeoutSeconds (0: no limit) is killed: status 124, `timeout`'s. The wrapper
// is a command that runs it (e.g. as another user).
CommandResult runVarnel(const std::vector<std::string>& args,
                        const std::map<std::string, std::string>& env = {},
                        int timeoutSeconds = 0,
                        const std::string& wrapper = "");

// Checks that a run failed with the status and one error line holding `says`.
void expectError(const CommandResult& r, int status, const std::string& says = "");

// The words of a command line, split at spaces; a 'quoted' word keeps its own.
std::vector<std::string> words(const std::string& line);
// A word for the shell: s in single quotes.
std::string shellQuote(const std::string& s);

// ffprobe's -show_streams -show_format -show_chapters of a file as JSON (discarded on failure),
// its first stream of a type (null when none) and its duration.
nlohmann::json ffprobe(const std::string& path);
const nlohmann::json* streamOf(const nlohmann::json& probe, const std::string& type);
double probedDuration(const std::string& path);

// RGBA pixels of a picture, the top row first.
struct Raster {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgba;

  const uint8_t* at(int x, int y) const { return &rgba[(size_t(y) * width + x) * 4]; }
  // The part at (x, y) of w x h.
  Raster part(int x, int y, int w, int h) const;
};

// The first picture of a file (a still, or a movie frame the -vf filters pick) as ffmpeg decodes it
// to RGBA; inputOptions go before -i (e.g. "-ss 2.5").
Raster readPicture(const std::string& path,
                   const std::string& filters = "",
                   const std::string& inputOptions = "");

// Every picture the -vf filters let through, in order, decoded to RGBA.
std::vector<Raster> readPictures(const std::string& path, const std::string& filters);
// The picture `varnel frame input -o PNG args...` writes.
Raster frameOf(const std::string& input, const std::vector<std::string>& args);
// PSNR of the colour bytes of two pictures in dB; 99 if equal, 0 if sized apart.
double psnr(const Raster& a, const Raster& b);
// Number of operator new calls made so far on the calling thread.
uint64_t allocationCount();
// Runs a shell command line and returns its stdout; status in *status.
std::string runShell(const std::string& command, int* status = nullptr);

}  // namespace vn::test
