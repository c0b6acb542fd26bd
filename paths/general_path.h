// A switch of the path translations for the library's own tests. Not
// installed and not exported: the tests that use it link the static
// library.
#pragma once

namespace qor::paths {

// While on, every translation takes the general algorithm and never the
// fast path for plain absolute paths, so that tests can compare the two on
// the same text and the same freestore. Returns the previous setting.
bool set_general_path_only(bool on);

}  // namespace qor::paths
