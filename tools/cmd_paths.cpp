// qor commands and tour step for the paths subsystem.

#include "commands.h"

namespace qor_tool {

const Command paths_commands[] = {{nullptr, nullptr, nullptr, nullptr}};

int tour_paths() { return 0; }

}  // namespace qor_tool
