// Shared set-up of the font alias tests. The alias table and the path
// anchors are read once per process, so every group of lookups runs in a
// child of its own, with QOR_ROOT at a scratch root whose "etc" holds the
// alias file under test, QOR_PATH and QOR_PATH_DEFAULTS unset, and a
// message log registered. The child hands back every answer and the number
// of messages the library output.
#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "harness.h"
#include "qor/qor.h"

namespace font_test {

// What one child did.
struct Lookups {
    std::vector<std::string> answers;  // one per lookup, in order
    long messages = -1;                // messages output through the log
    qor_test::ChildResult child;
};

// Inside the child: looks name up, checks that the answer is a fresh text
// of the caller's, and sends it to the parent.
inline void look_up(const std::string &name) {
    char *answer = QOR_look_up_font(name.c_str());
    fwrite(answer, 1, strlen(answer) + 1, stdout);
    QOR_free(answer);
}

class FontAliases : public testing::Test {
  protected:
    FontAliases() {
        mkdir(root().c_str(), 0755);
        mkdir(etc().c_str(), 0755);
    }
    std::string root() const { return tmp_ / "root"; }
    std::string etc() const { return tmp_ / "root/etc"; }
    std::string alias_file() const { return tmp_ / "root/etc/fonts.alias"; }
    void write_aliases(const std::string &content) const {
        qor_test::write_file(alias_file(), content);
    }

    // Runs body in a child set up as described above (as an unprivileged
    // user when asked). body calls look_up for every answer it wants.
    Lookups in_child(const std::function<void()> &body,
                 bool unprivileged = false) const {
        const auto fn = [&] {
            setenv("QOR_ROOT", root().c_str(), 1);
            unsetenv("QOR_PATH");
            unsetenv("QOR_PATH_DEFAULTS");
            unsetenv("QOR_LOCATE_TRACE_LEVEL");
            qor_test::MessageLog log;
            body();
            fprintf(stdout, "%c%zu", 1, log.messages.size());
        };
        Lookups run;
        run.child = unprivileged ? qor_test::run_as_unprivileged(fn)
                                 : qor_test::run_in_child(fn);
        const std::string &out = run.child.out;
        const size_t tail = out.rfind('\1');
        if (tail == std::string::npos) return run;
        run.messages = strtol(out.c_str() + tail + 1, nullptr, 10);
        size_t from = 0;
        while (from < tail) {
            const size_t end = out.find('\0', from);
            if (end == std::string::npos || end > tail) break;
            run.answers.push_back(out.substr(from, end - from));
            from = end + 1;
        }
        return run;
    }

    // The answers to names, looked up in order in one child; the child must
    // end normally, silently and without messages.
    std::vector<std::string> answers(const std::vector<std::string> &names) {
        const Lookups run = in_child([&] {
            for (const auto &n : names) look_up(n);
        });
        EXPECT_TRUE(run.child.exited);
        EXPECT_EQ(run.child.exit_status, 0);
        EXPECT_EQ(run.child.err, "");
        EXPECT_EQ(run.messages, 0);
        return run.answers;
    }
    // The answer to one name.
    std::string answer(const std::string &name) {
        const auto a = answers({name});
        return a.size() == 1 ? a[0] : "<no answer>";
    }

    qor_test::TempDir tmp_;
};

}  // namespace font_test
