// Messages carried out of a child process as lines of text: a head line
// "number type count", then each parameter on a line of its own. The
// process tests run their calls in children and read the messages the
// output callback received there back in the parent.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

#include "harness.h"

namespace message_lines {

// One line of f without its newline; "" at the end.
inline std::string next_line(FILE *f) {
    char line[8192];
    if (fgets(line, sizeof line, f) == nullptr) return std::string();
    std::string s = line;
    if (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
}

inline void write(FILE *f, const std::vector<qor_test::Message> &messages) {
    for (const auto &m : messages) {
        fprintf(f, "%d %d %zu\n", m.number, m.type, m.parameters.size());
        for (const auto &p : m.parameters) fprintf(f, "%s\n", p.c_str());
    }
}

// The messages written by write, up to the end of f (set "qor").
inline std::vector<qor_test::Message> read(FILE *f) {
    std::vector<qor_test::Message> messages;
    for (std::string head = next_line(f); !head.empty(); head = next_line(f)) {
        qor_test::Message m;
        size_t n = 0;
        if (sscanf(head.c_str(), "%d %d %zu", &m.number, &m.type, &n) != 3) {
            break;
        }
        m.set = "qor";
        for (size_t i = 0; i < n; ++i) m.parameters.push_back(next_line(f));
        messages.push_back(m);
    }
    return messages;
}

}  // namespace message_lines
