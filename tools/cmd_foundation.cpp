// qor commands and tour step for the foundation.

#include <qor/catalog.h>

#include "commands.h"

namespace qor_tool {

const Command foundation_commands[] = {{nullptr, nullptr, nullptr, nullptr}};

int use_catalogue() { return QOR_catalog_install(nullptr); }

int tour_foundation() { return 0; }

}  // namespace qor_tool
