// Shared set-up of the path tests: the anchors of the worked examples, a
// current directory of known name, and translation helpers that run the
// owned and the shared-freestore form of each call and check what both did
// to the shared freestore.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "harness.h"
#include "tests/fuzz/path_invariants.h"

namespace paths_test {

// The text of a result, "<null>" for a failure.
inline std::string text_of(const std::optional<std::string> &r) {
    return r ? *r : std::string("<null>");
}

inline std::string checked(const std::string &what,
                           const std::function<char *()> &owned,
                           const std::function<char *()> &shared) {
    std::vector<std::string> problems;
    const auto r = path_check::both_forms(what, owned, shared, problems);
    for (const auto &p : problems) ADD_FAILURE() << p;
    return text_of(r);
}

inline std::string to_abs(const char *p) {
    return checked(std::string("qor_to_absolute_qor ") + (p ? p : "null"),
                   [&] { return QOR_qor_to_absolute_qor(p); },
                   [&] { return QOR_SH_qor_to_absolute_qor(p); });
}
inline std::string to_os(const char *p, unsigned mode = 0) {
    return checked(std::string("qor_to_os ") + (p ? p : "null"),
                   [&] { return QOR_qor_to_os(p, mode); },
                   [&] { return QOR_SH_qor_to_os(p, mode); });
}
inline std::string to_os_dir(const char *p) {
    return checked(std::string("qor_to_os_dir ") + (p ? p : "null"),
                   [&] { return QOR_qor_to_os_dir(p); },
                   [&] { return QOR_SH_qor_to_os_dir(p); });
}
inline std::string from_os(const char *p) {
    return checked(std::string("os_to_qor ") + (p ? p : "null"),
                   [&] { return QOR_os_to_qor(p); },
                   [&] { return QOR_SH_os_to_qor(p); });
}
inline std::string linkname(const char *p) {
    return checked(std::string("os_to_qor_linkname ") + (p ? p : "null"),
                   [&] { return QOR_os_to_qor_linkname(p); },
                   [&] { return QOR_SH_os_to_qor_linkname(p); });
}
inline std::string concat(const char *base, const char *tail,
                          unsigned form = 0, unsigned mode = 0) {
    return checked("concat_os_paths",
                   [&] { return QOR_concat_os_paths(base, tail, mode, form); },
                   [&] {
                       return QOR_SH_concat_os_paths(base, tail, mode, form);
                   });
}
inline std::string composite(const char *dir, const char *name) {
    return checked("composite_path",
                   [&] { return QOR_composite_path(dir, name); },
                   [&] { return QOR_SH_composite_path(dir, name); });
}

// QOR_ROOT="/opt/q", QOR_HASH="/var/q/hash", HOME="/home/u", X="/data",
// Y="sub", the current directory ".../work/d" inside a scratch directory.
class Anchored : public testing::Test {
  protected:
    void SetUp() override {
        path_check::set_fuzz_environment();
        ASSERT_EQ(mkdir((tmp_ / "work").c_str(), 0777), 0);
        ASSERT_EQ(mkdir((tmp_ / "work/d").c_str(), 0777), 0);
        ASSERT_EQ(chdir((tmp_ / "work/d").c_str()), 0);
        char buf[4097];
        ASSERT_NE(getcwd(buf, sizeof buf), nullptr);
        cwd_ = buf;
        qor_fault_reset();
    }
    void TearDown() override { ASSERT_EQ(chdir("/"), 0); }

    // The current directory, then the rest.
    std::string cwd(const std::string &rest = "") const { return cwd_ + rest; }
    // The parent of the current directory.
    std::string work() const { return cwd_.substr(0, cwd_.size() - 2); }

    qor_test::TempDir tmp_;
    std::string cwd_;
};

}  // namespace paths_test
