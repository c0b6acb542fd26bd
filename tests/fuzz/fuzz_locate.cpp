// Fuzzes the locator's two list grammars (QOR_PATH and the extra list, and
// the table QOR_PATH_DEFAULTS with the subdirectory lists inside it): every
// input is one locate, whose level-2 trace and result must be exactly what
// the model of locate_model.h says (see locate_check.h for the input's
// layout). Any difference aborts with the input's problems on standard
// error.

#include <stdio.h>
#include <stdlib.h>

#include "tests/fuzz/locate_check.h"
#include "tests/fuzz/path_invariants.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Anchors are read once per process: set them before the first input.
    path_check::set_fuzz_environment();
    unsetenv("QOR_LOCATE_TRACE_LEVEL");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::vector<std::string> problems =
        locate_check::check_input(data, size);
    if (!problems.empty()) {
        for (const auto &p : problems) fprintf(stderr, "%s\n", p.c_str());
        abort();
    }
    return 0;
}
