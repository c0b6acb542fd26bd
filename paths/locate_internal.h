// A switch of the locator for the library's own tests and fuzz target. Not
// installed and not exported: the programs that use it link the static
// library.
#pragma once

namespace qor::paths {

// Drops the table of type defaults, so that the next locate that searches
// reads QOR_PATH_DEFAULTS again. Lets one process try many tables.
void forget_locate_defaults();

}  // namespace qor::paths
