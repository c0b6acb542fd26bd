// The fault injection serves a fortified build too: libc's checked entry
// points (what _FORTIFY_SOURCE turns the library's calls into) go through
// the same plans as the plain calls, and keep libc's check.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "fault.h"
#include "harness.h"

extern "C" {
int __open_2(const char *path, int flags);
ssize_t __read_chk(int fd, void *buf, size_t n, size_t room);
ssize_t __pread_chk(int fd, void *buf, size_t n, off_t off, size_t room);
char *__fgets_chk(char *s, size_t room, int n, FILE *f);
ssize_t __readlink_chk(const char *p, char *buf, size_t n, size_t room);
char *__getcwd_chk(char *buf, size_t n, size_t room);
}

namespace {

using qor_test::run_in_child;
using qor_test::TempDir;

class CheckedEntries : public ::testing::Test {
protected:
    void SetUp() override {
        qor_fault_reset();
        path_ = dir_ / "data";
        qor_test::write_file(path_, "line one\nline two\n");
    }
    void TearDown() override { qor_fault_reset(); }
    TempDir dir_;
    std::string path_;
};

TEST_F(CheckedEntries, OpenCountsAndFailsAsOpen) {
    qor_fault_fail(QF_open, EACCES, 1, 1);
    const int fd = __open_2(path_.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    close(fd);
    errno = 0;
    EXPECT_EQ(__open_2(path_.c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(qor_fault_calls(QF_open), 2);
    EXPECT_EQ(qor_fault_injected(QF_open), 1);
}

TEST_F(CheckedEntries, ReadAndPreadFollowThePlans) {
    const int fd = open(path_.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char buf[64];
    qor_fault_short(QF_read, 4, 0, 1);
    EXPECT_EQ(__read_chk(fd, buf, sizeof buf, sizeof buf), 4);
    qor_fault_fail(QF_pread, EIO, 0, 1);
    errno = 0;
    EXPECT_EQ(__pread_chk(fd, buf, sizeof buf, 0, sizeof buf), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(__pread_chk(fd, buf, 4, 5, sizeof buf), 4);
    EXPECT_EQ(std::string(buf, 4), "one\n");
    EXPECT_EQ(qor_fault_calls(QF_read), 1);
    EXPECT_EQ(qor_fault_calls(QF_pread), 2);
    close(fd);
}

TEST_F(CheckedEntries, FgetsReadlinkGetcwdFollowThePlans) {
    FILE *f = fopen(path_.c_str(), "r");
    ASSERT_NE(f, nullptr);
    char line[32];
    ASSERT_NE(__fgets_chk(line, sizeof line, sizeof line, f), nullptr);
    EXPECT_STREQ(line, "line one\n");
    qor_fault_fail(QF_fgets, EIO, 0, 1);
    EXPECT_EQ(__fgets_chk(line, sizeof line, sizeof line, f), nullptr);
    fclose(f);
    EXPECT_EQ(qor_fault_calls(QF_fgets), 2);

    const std::string link = dir_ / "link";
    ASSERT_EQ(symlink("data", link.c_str()), 0);
    char target[16];
    EXPECT_EQ(__readlink_chk(link.c_str(), target, sizeof target, sizeof target), 4);
    qor_fault_fail(QF_readlink, ENOENT, 0, 1);
    EXPECT_EQ(__readlink_chk(link.c_str(), target, sizeof target, sizeof target), -1);
    EXPECT_EQ(qor_fault_injected(QF_readlink), 1);

    char cwd[4096];
    EXPECT_NE(__getcwd_chk(cwd, sizeof cwd, sizeof cwd), nullptr);
    qor_fault_fail(QF_getcwd, ERANGE, 0, 1);
    EXPECT_EQ(__getcwd_chk(cwd, sizeof cwd, sizeof cwd), nullptr);
    EXPECT_EQ(errno, ERANGE);
}

TEST_F(CheckedEntries, AnOverflowingRequestAbortsAsLibcDoes) {
    const int fd = open(path_.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    auto r = run_in_child([&] {
        char buf[8];
        (void)__read_chk(fd, buf, 16, sizeof buf);
    });
    close(fd);
    EXPECT_FALSE(r.exited);
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_EQ(r.err, "*** buffer overflow detected ***: terminated\n");
    EXPECT_EQ(r.out, "");
}

}  // namespace
