// The list of commands; each lives in its own cmd_*.cpp file.
#include "cli.h"

namespace varnel_cli {

Registration infoCommand();
Registration convertCommand();
Registration thumbnailCommand();
Registration frameCommand();
Registration playCommand();
Registration effectsCommand();

std::vector<Registration> allCommands() {
  return {infoCommand(),  convertCommand(), thumbnailCommand(),
          frameCommand(), playCommand(),    effectsCommand()};
}

}  // namespace varnel_cli
