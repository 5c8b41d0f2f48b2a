// The list of commands; each lives in its own cmd_*.cpp file.
#include "cli.h"

namespace varnel_cli {

std::vector<Registration> allCommands() {
  return {};
}

}  // namespace varnel_cli
