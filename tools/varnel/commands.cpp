// The list of commands; each lives in its own cmd_*.cpp file.
#include "cli.h"

namespace varnel_cli {

Registration infoCommand();

std::vector<Registration> allCommands() {
  return {infoCommand()};
}

}  // namespace varnel_cli
