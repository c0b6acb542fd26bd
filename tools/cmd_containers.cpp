// qor commands and tour step for the containers subsystem.

#include "commands.h"

namespace qor_tool {

const Command containers_commands[] = {{nullptr, nullptr, nullptr, nullptr}};

int tour_containers() { return 0; }

}  // namespace qor_tool
