// The host-call seam: the EINTR rule, the disc-full loop and recording.

#include "foundation/host.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "harness.h"

namespace {

// A host operation written the way the library's units write them.
int make_directory(const char *path) {
    if (qor::host::retry_disc_full([&] { return mkdir(path, 0777); }, path,
                                   QOR_CTX_CREATE_DIRECTORY) == -1) {
        return qor::host::record_errno(path, QOR_CTX_CREATE_DIRECTORY);
    }
    return 0;
}

int stat_path(const char *path) {
    struct stat st;
    if (qor::host::retry_eintr([&] { return stat(path, &st); }) == -1) {
        return qor::host::record_errno(path, QOR_CTX_READ_SIZE);
    }
    return 0;
}

TEST(RetryEintr, HundredInterruptionsThenSuccess) {
    qor_test::MessageLog log;
    qor_fault_fail(QF_stat, EINTR, 0, 100);
    EXPECT_EQ(stat_path("/"), 0);
    EXPECT_EQ(qor_fault_calls(QF_stat), 101);
    EXPECT_TRUE(log.messages.empty());
}

TEST(RetryEintr, HundredAndOneInterruptionsAreRecordedOnce) {
    qor_test::MessageLog log;
    qor_fault_fail(QF_stat, EINTR, 0, 101);
    EXPECT_EQ(stat_path("/"), 2063);
    EXPECT_EQ(qor_fault_calls(QF_stat), 101);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].number, 63);
    EXPECT_EQ(log.messages[0].type, 71);
    EXPECT_EQ(log.messages[0].parameters[0], "/");
}

TEST(RetryEintr, OtherErrorsAreNotRetried) {
    qor_test::MessageLog log;
    qor_fault_fail(QF_stat, EIO, 0, 1);
    EXPECT_EQ(stat_path("/"), 2056);
    EXPECT_EQ(qor_fault_calls(QF_stat), 1);
}

TEST(RetryEintr, PointerResultsCountNullAsFailure) {
    qor_fault_fail(QF_getcwd, EINTR, 0, 3);
    char buf[4096];
    char *r = qor::host::retry_eintr([&] { return getcwd(buf, sizeof buf); });
    EXPECT_EQ(r, buf);
    EXPECT_EQ(qor_fault_calls(QF_getcwd), 4);
}

TEST(RetryDiscFull, HandlerAnsweringZeroThenOneRetriesOnceThenRecords) {
    qor_test::TempDir dir;
    const std::string path = dir / "d";
    qor_test::MessageLog log;
    qor_test::DiscFullHandler handler({0, 1});
    qor_fault_fail(QF_mkdir, ENOSPC, 0, -1);
    EXPECT_EQ(make_directory(path.c_str()), 2058);
    EXPECT_EQ(qor_fault_calls(QF_mkdir), 2);
    ASSERT_EQ(handler.calls.size(), 2u);
    EXPECT_EQ(handler.calls[0].os_error, ENOSPC);
    EXPECT_EQ(handler.calls[0].path, path);
    EXPECT_EQ(handler.calls[0].context, 2102);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].number, 58);
    EXPECT_EQ(log.messages[0].parameters[0], path);
    EXPECT_FALSE(qor_test::exists(path));
}

TEST(RetryDiscFull, RetrySucceedsOnceSpaceIsBack) {
    qor_test::TempDir dir;
    const std::string path = dir / "d";
    qor_test::MessageLog log;
    qor_test::DiscFullHandler handler({0});
    qor_fault_fail(QF_mkdir, ENOSPC, 0, 2);
    EXPECT_EQ(make_directory(path.c_str()), 0);
    EXPECT_EQ(handler.calls.size(), 2u);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_TRUE(qor_test::exists(path));
}

TEST(RetryDiscFull, NoHandlerGivesUpAtOnce) {
    qor_test::TempDir dir;
    const std::string path = dir / "d";
    qor_test::MessageLog log;
    qor_fault_fail(QF_mkdir, ENOSPC, 0, -1);
    EXPECT_EQ(make_directory(path.c_str()), 2058);
    EXPECT_EQ(qor_fault_calls(QF_mkdir), 1);
    EXPECT_EQ(log.messages.size(), 1u);
}

TEST(RetryDiscFull, InterruptionsInsideAreRetriedToo) {
    qor_test::TempDir dir;
    const std::string path = dir / "d";
    qor_test::MessageLog log;
    qor_fault_fail(QF_mkdir, EINTR, 0, 100);
    EXPECT_EQ(make_directory(path.c_str()), 0);
    EXPECT_EQ(qor_fault_calls(QF_mkdir), 101);
}

}  // namespace
