// The scratch directory every benchmark program works in: made on first
// use under /tmp, removed with everything in it at exit.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <string>

namespace qor_bench {

// Kept in plain storage: the exit handler runs after static strings are
// gone.
inline char scratch_dir[64];

inline void remove_scratch() {
    const std::string cmd = std::string("rm -rf ") + scratch_dir;
    if (system(cmd.c_str()) != 0) fprintf(stderr, "cleanup failed\n");
}

inline std::string scratch() {
    if (scratch_dir[0] == '\0') {
        snprintf(scratch_dir, sizeof scratch_dir, "/tmp/qor-bench-XXXXXX");
        if (mkdtemp(scratch_dir) == nullptr) abort();
        atexit(remove_scratch);
    }
    return scratch_dir;
}

inline std::string os_path(const std::string &name) {
    return scratch() + "/" + name;
}

}  // namespace qor_bench
