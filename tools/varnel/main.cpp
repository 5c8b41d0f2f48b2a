// varnel: the command-line front end of libvarnel. The commands are a
// library of their own, which the program (tools/launcher) loads and enters
// through varnel_commands_main.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include "cli.h"
#include "varnel.h"

namespace varnel_cli {

namespace {
volatile sig_atomic_t gInterrupted = 0;
void onInterrupt(int) {
  gInterrupted = 1;
}
}  // namespace

void catchInterrupts() {
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() {
  return gInterrupted != 0;
}

int fail(const std::string& what, const std::string& path, const std::string& reason) {
  std::fprintf(stderr, "varnel: error: %s '%s': %s\n", what.c_str(), path.c_str(), reason.c_str());
  return kExitFailed;
}

int usage(const std::string& what, const std::string& value, const std::string& reason) {
  fail(what, value, reason);
  return kExitUsage;
}

std::string unwritableOutput(const std::string& output, const std::string& input) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::file_status status = fs::status(output, ec);
  if (fs::is_directory(status))
    return "is a directory";
  if (fs::exists(status) && !fs::is_regular_file(status))
    return "not a regular file";
  const fs::path parent = fs::path(output).has_parent_path() ? fs::path(output).parent_path() : ".";
  if (!fs::is_directory(parent, ec))
    return "no such directory";
  if (access(parent.c_str(), W_OK) != 0)
    return "the directory is not writable";
  if (fs::exists(status) && fs::equivalent(input, output, ec))
    return "the output is the input";
  return {};
}

void warn(const std::string& path, const std::string& message) {
  std::fprintf(stderr, "varnel: warning: '%s': %s\n", path.c_str(), message.c_str());
}

}  // namespace varnel_cli

extern "C" __attribute__((visibility("default"))) int varnel_commands_main(int argc, char** argv) {
  using namespace varnel_cli;
  CLI::App app{"varnel: open, inspect, play and convert media files"};
  app.set_version_flag("--version", std::string("varnel ") + VARNEL_VERSION);
  app.require_subcommand(1);

  std::function<int()> run;
  for (const Registration& add : allCommands())
    add(app, run);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    // One line, as every error: the command, what is wrong, where help is.
    const std::vector<CLI::App*> named = app.get_subcommands();
    const std::string command = named.empty() ? "varnel" : "varnel " + named.front()->get_name();
    return usage("bad usage of", command,
                 std::string(e.what()) + " ('" + command + " --help' lists the options)");
  }
  if (!run)
    return kExitUsage;
  // The library's log lines are for diagnosis (VARNEL_LOG=1 shows them):
  // stderr carries the front end's own progress, warnings and errors.
  if (!std::getenv("VARNEL_LOG"))
    vn_set_log_handler([](const std::string&) {});
  try {
    Varnel::initialize();
    return run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "varnel: error: %s\n", e.what());
    return kExitFailed;
  }
}
