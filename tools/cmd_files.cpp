// qor commands and tour step for the files subsystem.

#include "commands.h"

namespace qor_tool {

const Command files_commands[] = {{}};

int tour_files() { return 0; }

}  // namespace qor_tool
