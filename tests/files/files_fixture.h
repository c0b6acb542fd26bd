// Shared set-up of the file layer's tests: a scratch directory, the texts
// of the access failure report and of assertion failures, and children
// that must end through one of them.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "../objects/contents_fixture.h"
#include "harness.h"

namespace files_test {

using objects_test::Partner;
using objects_test::wait_until_blocked;
using qor_test::ChildResult;
using qor_test::run_in_child;

// What the access failure writes to standard error.
inline std::string access_report(const std::string &os_path, int err) {
    return "\n\n\n\tProblem accessing file: " + os_path +
           "\n\n\tProblem description: " + strerror(err) +
           "\n\n\tProgram aborting\n\n\n\n";
}

// What an assertion failure of a unit writes to standard error when no
// output callback is registered, the line number left open (texts holding
// regular-expression characters are not used with it).
inline std::string fatal_pattern(const std::string &unit,
                                 const std::string &text) {
    return "Error: QOR Message System unavailable - output_message\n"
           "Untranslated message: set=File " +
           unit + ", Line [0-9]+: " + text + ", number=-1, type=4\n";
}

// The child ended unarmed through the access failure for the path.
#define EXPECT_ACCESS_FAILURE(result, os_path, os_error)                   \
    do {                                                                   \
        const ::qor_test::ChildResult &r_ = (result);                      \
        EXPECT_TRUE(r_.exited);                                            \
        EXPECT_EQ(r_.exit_status, 3);                                      \
        EXPECT_EQ(r_.err,                                                  \
                  ::files_test::access_report((os_path), (os_error)));     \
    } while (0)

// The child ended unarmed through the assertion failure of a unit.
#define EXPECT_FATAL(result, unit, text)                                   \
    do {                                                                   \
        const ::qor_test::ChildResult &r_ = (result);                      \
        EXPECT_TRUE(r_.exited);                                            \
        EXPECT_EQ(r_.exit_status, 3);                                      \
        EXPECT_TRUE(std::regex_match(                                      \
            r_.err, std::regex(::files_test::fatal_pattern((unit), (text))))) \
            << r_.err;                                                     \
    } while (0)

class Files : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(::chmod(tmp_.path().c_str(), 0755), 0);
        ::umask(022);
    }
    std::string path(const std::string &name) const { return tmp_ / name; }
    qor_test::TempDir tmp_;
};

// The open flags of a descriptor, access mode and status flags.
inline int fd_flags(int fd) { return fcntl(fd, F_GETFL); }

inline mode_t mode_of(const std::string &p) {
    struct stat st;
    return ::lstat(p.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

}  // namespace files_test
