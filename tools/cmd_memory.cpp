// qor commands and tour step for the memory subsystem.

#include "commands.h"

namespace qor_tool {

const Command memory_commands[] = {{nullptr, nullptr, nullptr, nullptr}};

int tour_memory() { return 0; }

}  // namespace qor_tool
