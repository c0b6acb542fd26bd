// qor commands and tour step for the process subsystem.

#include "commands.h"

namespace qor_tool {

const Command process_commands[] = {{}};

int tour_process() { return 0; }

}  // namespace qor_tool
