// Shared set-up of the locator tests. The table of type defaults and the
// trace levels are read once per process, so every locate under test runs
// in a child of its own with the environment it is given, and reports its
// result on standard output and its trace on standard error.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "harness.h"

namespace locate_test {

// Variables to set (a value) or unset (nullopt) in the child.
using Environment = std::map<std::string, std::optional<std::string>>;

inline void apply(const Environment &env) {
    for (const auto &[name, value] : env) {
        if (value) {
            setenv(name.c_str(), value->c_str(), 1);
        } else {
            unsetenv(name.c_str());
        }
    }
}

// A give-text callback that answers every request with a failure other
// than "unavailable": the locator then uses its own texts, and nothing
// else is printed.
inline void refuse_texts(void *, void *, void *call) {
    static_cast<QOR_give_message_text_record *>(call)->result = 1;
}

// What one locate in a child did.
struct Located {
    std::string result;  // the result, or "<null>"
    std::string trace;   // all it wrote to standard error
    qor_test::ChildResult child;
};

// One locate call: name, object type, extra list (null for none), form,
// whether the _SH_ form is called, and the child's current directory
// (unchanged when empty).
struct Call {
    Call(std::string n) : name(std::move(n)) {}  // NOLINT: {"name"} reads well
    std::string name;
    unsigned type = 0;
    std::optional<std::string> extra;
    int form = QOR_FORM_QOR;
    bool in_shared = false;
    std::string cwd;
};

// Runs the call in a child with QOR_PATH and QOR_PATH_DEFAULTS unset, the
// trace at level 2, and then the environment applied. With own_texts the
// message system refuses the trace texts, so the locator's own are used.
inline Located locate_in_child(const Environment &env, const Call &call,
                               bool own_texts = true) {
    Located out;
    out.child = qor_test::run_in_child([&] {
        setenv("QOR_LOCATE_TRACE_LEVEL", "2", 1);
        unsetenv("QOR_PATH");
        unsetenv("QOR_PATH_DEFAULTS");
        apply(env);
        if (!call.cwd.empty() && chdir(call.cwd.c_str()) != 0) _exit(121);
        if (own_texts) {
            QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", refuse_texts,
                             nullptr);
        }
        const char *extra = call.extra ? call.extra->c_str() : nullptr;
        char *r = call.in_shared
                      ? QOR_SH_locate(call.name.c_str(), call.type, extra,
                                      call.form)
                      : QOR_locate(call.name.c_str(), call.type, extra,
                                   call.form);
        printf("%s", r != nullptr ? r : "<null>");
        if (r != nullptr && !call.in_shared) QOR_free(r);
    });
    out.result = out.child.out;
    out.trace = out.child.err;
    return out;
}

// The trace lines of probes, in order: (path, found).
using Probes = std::vector<std::pair<std::string, bool>>;

inline std::string trace_of(const Probes &probes,
                            const std::string &found = "-- succeeded",
                            const std::string &not_found = "-- failed") {
    std::string t;
    for (const auto &[path, ok] : probes) {
        t += path + " " + (ok ? found : not_found) + "\n";
    }
    return t;
}

// Only the failures, in order.
inline Probes failed(const std::vector<std::string> &paths) {
    Probes p;
    for (const auto &s : paths) p.emplace_back(s, false);
    return p;
}

}  // namespace locate_test
