// A fake print spooler for the printing tests: an "lp" script that writes
// each argument it was given on a line of its own to a record file and
// ends with a chosen exit status.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "harness.h"

namespace fake_spooler {

// Writes the script at `script` (made executable), recording into
// `record`.
inline void install(const std::string &script, const std::string &record,
                    int exit_status = 0) {
    qor_test::write_file(
        script, "#!/bin/sh\n: > '" + record +
                    "'\nfor a; do printf '%s\\n' \"$a\" >> '" + record +
                    "'; done\nexit " + std::to_string(exit_status) + "\n");
    chmod(script.c_str(), 0755);
}

// The argument vector the script was given (without its name), or
// {"<lp never ran>"}.
inline std::vector<std::string> recorded(const std::string &record) {
    if (!qor_test::exists(record)) return {"<lp never ran>"};
    std::vector<std::string> out;
    const std::string text = qor_test::read_file(record);
    size_t from = 0;
    while (from < text.size()) {
        const size_t nl = text.find('\n', from);
        out.push_back(text.substr(from, nl - from));
        from = nl + 1;
    }
    return out;
}

}  // namespace fake_spooler
