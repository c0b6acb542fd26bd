// qor commands and tour step for the objects subsystem.

#include "commands.h"

namespace qor_tool {

const Command objects_commands[] = {{nullptr, nullptr, nullptr, nullptr}};

int tour_objects() { return 0; }

}  // namespace qor_tool
