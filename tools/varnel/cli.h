// Shared pieces of the varnel command-line front end.
//
// Results go to stdout, progress and errors to stderr. Exit status: 0 done,
// 1 the work failed, 2 bad usage. An error is one line:
//   varnel: error: <what> '<path>': <reason>
// and a warning (the work goes on) too:
//   varnel: warning: '<path>': <what is wrong>
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

namespace varnel_cli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// Prints the one error line and returns kExitFailed.
int fail(const std::string& what, const std::string& path, const std::string& reason);
// Prints the one error line of a bad value and returns kExitUsage.
int usage(const std::string& what, const std::string& value, const std::string& reason);
// Why output cannot be written as a file for this input, before any work
// starts: a folder, something other than a file (a device, a pipe: the
// output is written beside it and renamed over it), a folder that is missing
// or not writable, or the input itself. Empty when it can be tried.
std::string unwritableOutput(const std::string& output, const std::string& input);
// Prints the one warning line.
void warn(const std::string& path, const std::string& message);

// From now on Ctrl-C (SIGINT) and SIGTERM only set a flag that long work
// polls, so it can stop cleanly and remove what it wrote.
void catchInterrupts();
bool interrupted();

// A subcommand: adds itself to the application and sets `run` to what it
// does once the arguments are parsed.
using Registration = std::function<void(CLI::App& app, std::function<int()>& run)>;

// Every command of the front end, in the order --help lists them.
std::vector<Registration> allCommands();

}  // namespace varnel_cli
