// Fuzzes the path translations: every input runs through every translation
// in both its owned and its shared-freestore form, and each result is
// checked against the invariants in path_invariants.h, the fast path
// against the general algorithm included (this target links the static
// library, where the switch between them is at hand). Any violation aborts
// with the input's problems on standard error.

#include <stdio.h>
#include <stdlib.h>

#include "paths/general_path.h"
#include "tests/fuzz/path_invariants.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Anchors are read once per process: set them before the first input.
    path_check::set_fuzz_environment();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::vector<std::string> problems =
        path_check::check_input(data, size, qor::paths::set_general_path_only);
    if (!problems.empty()) {
        for (const auto &p : problems) fprintf(stderr, "%s\n", p.c_str());
        abort();
    }
    return 0;
}
