// The list of commands; each lives in its own cmd_*.cpp file.
#include "cli.h"

namespace varnel_cli {

Registration infoCommand();
Registration convertCommand();
Registration playCommand();

std::vector<Registration> allCommands() {
  return {infoCommand(), convertCommand(), playCommand()};
}

}  // namespace varnel_cli
