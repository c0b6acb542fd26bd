// Shared set-up of the tests that run programs: a scratch tree with a root
// ("_", holding "tools"), a hash area ("#") and a search-path directory,
// programs of the object store made in them (compiled ones, copies of the
// reporting child, and shell scripts), and one call made in a child of the
// test whose outcome (status, exit code, messages, notes) comes back
// through a file while standard output holds what the programs printed.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "fault.h"
#include "harness.h"
#include "message_lines.h"
#include "qor/qor.h"
#include "tests/objects/objects_fixture.h"

namespace qor_test {
// Messages shown readably when a comparison fails.
inline void PrintTo(const Message &m, std::ostream *os) {
    *os << m.set << " " << m.number << " type " << m.type << " {";
    for (const auto &p : m.parameters) *os << "\"" << p << "\" ";
    *os << "}";
}
}  // namespace qor_test

namespace run_test {

using qor_test::Message;
using qor_test::MessageLog;

// The one message of type 71 that recording errno err against a name in
// a context outputs.
using objects_test::recorded;

// What one call in a child did.
struct Outcome {
    int status = -1;
    int32_t code = 0;              // the exit code after the call
    std::vector<Message> messages;  // what the output callback received
    std::map<std::string, std::string> notes;  // what the call's code noted
    qor_test::ChildResult child;    // out: what the programs printed
    // The reporting child's lines "key=value" from standard output, for
    // the n-th program run (0 first).
    std::map<std::string, std::string> report(size_t n = 0) const {
        std::vector<std::map<std::string, std::string>> reports;
        size_t from = 0;
        while (from < child.out.size()) {
            size_t nl = child.out.find('\n', from);
            if (nl == std::string::npos) nl = child.out.size();
            const std::string line = child.out.substr(from, nl - from);
            from = nl + 1;
            const size_t eq = line.find('=');
            if (eq == std::string::npos) continue;
            const std::string key = line.substr(0, eq);
            if (key == "argv0") reports.emplace_back();
            if (!reports.empty()) reports.back()[key] = line.substr(eq + 1);
        }
        return n < reports.size() ? reports[n]
                                  : std::map<std::string, std::string>{};
    }
};

// A sentinel the calls must leave alone when they do not write the code.
constexpr int32_t kUnwritten = 0x1234;

class Programs : public testing::Test {
  protected:
    Programs() {
        for (const char *d : {"root", "root/tools", "hash", "path", "work"}) {
            mkdir((tmp_ / d).c_str(), 0755);
        }
    }

    std::string root() const { return tmp_ / "root"; }
    std::string hash() const { return tmp_ / "hash"; }
    std::string path() const { return tmp_ / "path"; }
    std::string tools() const { return tmp_ / "root/tools"; }

    // A program object NAME in DIR (a host directory): its ".body" is a
    // copy of the reporting child, or the script when one is given.
    // Returns the program's host directory.
    std::string program(const std::string &dir, const std::string &name,
                        const std::string &script = "") const {
        const std::string object = dir + "/" + name;
        mkdir(object.c_str(), 0755);
        put_body(object + "/.body", script);
        return object;
    }
    // A program NAME in DIR that has no ".body" but an interpreter object
    // ".interp" whose ".body" is the reporting child.
    std::string interpreted(const std::string &dir,
                            const std::string &name) const {
        const std::string object = dir + "/" + name;
        mkdir(object.c_str(), 0755);
        mkdir((object + "/.interp").c_str(), 0755);
        put_body(object + "/.interp/.body", "");
        return object;
    }
    static void put_body(const std::string &body, const std::string &script) {
        qor_test::write_file(body, script.empty()
                                       ? qor_test::read_file(QOR_REPORT_CHILD)
                                       : script);
        chmod(body.c_str(), 0755);
    }

    // Runs call in a child of the test: the anchors at the scratch root and
    // hash area, QOR_PATH as given (unset when empty), the current
    // directory "work", a message log, and the exit code set to kUnwritten
    // first. note() records a value the parent can look at.
    Outcome run(const std::function<int(int32_t *)> &call,
                const std::string &search = "path") const {
        const std::string results = tmp_ / "results";
        Outcome o;
        o.child = qor_test::run_in_child([&] {
            setenv("QOR_ROOT", root().c_str(), 1);
            setenv("QOR_HASH", hash().c_str(), 1);
            if (search.empty()) {
                unsetenv("QOR_PATH");
            } else {
                setenv("QOR_PATH", (tmp_ / search).c_str(), 1);
            }
            if (chdir((tmp_ / "work").c_str()) != 0) _exit(121);
            notes().clear();
            qor_fault_reset();  // counters from zero, whatever came before
            MessageLog log;
            int32_t code = kUnwritten;
            const int status = call(&code);
            qor_fault_reset();
            FILE *f = fopen(results.c_str(), "we");
            if (f == nullptr) _exit(122);
            fprintf(f, "%d\n%d\n%zu\n", status, code, notes().size());
            for (const auto &[k, v] : notes()) {
                fprintf(f, "%s\n%s\n", k.c_str(), v.c_str());
            }
            message_lines::write(f, log.messages);
            fclose(f);
        });
        FILE *f = fopen(results.c_str(), "re");
        if (f == nullptr) return o;
        o.status = atoi(message_lines::next_line(f).c_str());
        o.code = atoi(message_lines::next_line(f).c_str());
        const size_t n_notes =
            strtoul(message_lines::next_line(f).c_str(), nullptr, 10);
        for (size_t i = 0; i < n_notes; ++i) {
            const std::string k = message_lines::next_line(f);
            o.notes[k] = message_lines::next_line(f);
        }
        o.messages = message_lines::read(f);
        fclose(f);
        unlink(results.c_str());
        return o;
    }

    // Values noted by the code under test, in the child.
    static std::map<std::string, std::string> &notes() {
        static std::map<std::string, std::string> n;
        return n;
    }
    static void note(const std::string &key, const std::string &value) {
        notes()[key] = value;
    }

    qor_test::TempDir tmp_;
};

// QOR_call of name with the arguments after the placeholder.
inline int call(const char *name, std::vector<std::string> args,
                int32_t *code) {
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>("placeholder"));
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return QOR_call(name, argv.data(), code);
}

}  // namespace run_test
