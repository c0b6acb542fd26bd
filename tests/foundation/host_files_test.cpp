// Member files through the seam: links, FIFOs, devices and sockets where a
// member file belongs are refused; creates never go through a link; chmod,
// chown and truncate work on the checked descriptor.

// The unit is compiled into this program, since the library keeps it hidden.
#include "foundation/host_files.cpp"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "harness.h"

namespace {

using qor::host::MemberKind;
using qor::host::MemberOpen;

struct Fixture : ::testing::Test {
    qor_test::TempDir dir;
    std::string victim = dir / "victim";
    std::string member = dir / ".body";
    void SetUp() override {
        qor_test::write_file(victim, "victim bytes");
        ASSERT_EQ(::chmod(victim.c_str(), 0640), 0);
        // Nothing below may hang: a FIFO that blocked would end the test.
        alarm(20);
    }
    void TearDown() override { alarm(0); }
    mode_t victim_mode() {
        struct stat st;
        EXPECT_EQ(::stat(victim.c_str(), &st), 0);
        return st.st_mode & 07777;
    }
    void expect_victim_unchanged() {
        EXPECT_EQ(qor_test::read_file(victim), "victim bytes");
        EXPECT_EQ(victim_mode(), 0640u);
    }
};

using HostFiles = Fixture;

TEST_F(HostFiles, OpensARegularFileAndClearsNonBlocking) {
    qor_test::write_file(member, "abc");
    const int fd = qor::host::open_member(member.c_str(), O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    char buf[8];
    EXPECT_EQ(read(fd, buf, sizeof buf), 3);
    close(fd);
}

TEST_F(HostFiles, KeepsNonBlockingWhenAskedFor) {
    qor_test::write_file(member, "abc");
    const int fd =
        qor::host::open_member(member.c_str(), O_RDONLY | O_NONBLOCK, 0);
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    close(fd);
}

TEST_F(HostFiles, KeepsAppendWhenClearingNonBlocking) {
    qor_test::write_file(member, "abc");
    const int fd =
        qor::host::open_member(member.c_str(), O_WRONLY | O_APPEND, 0);
    ASSERT_GE(fd, 0);
    const int fl = fcntl(fd, F_GETFL);
    EXPECT_NE(fl & O_APPEND, 0);
    EXPECT_EQ(fl & O_NONBLOCK, 0);
    close(fd);
}

TEST_F(HostFiles, LinkToVictimIsRefusedWithEloopForEveryMode) {
    ASSERT_EQ(symlink(victim.c_str(), member.c_str()), 0);
    for (int flags : {O_RDONLY, O_WRONLY, O_RDWR, O_WRONLY | O_TRUNC,
                      O_RDWR | O_CREAT, O_RDWR | O_CREAT | O_TRUNC}) {
        errno = 0;
        EXPECT_EQ(qor::host::open_member(member.c_str(), flags, 0777), -1)
            << flags;
        EXPECT_EQ(errno, ELOOP) << flags;
    }
    expect_victim_unchanged();
}

TEST_F(HostFiles, FollowedLinkReachesTheFileWhenTheCallerNamedIt) {
    ASSERT_EQ(symlink(victim.c_str(), member.c_str()), 0);
    MemberOpen how;
    how.follow = true;
    const int fd = qor::host::open_member(member.c_str(), O_RDONLY, 0, how);
    ASSERT_GE(fd, 0);
    close(fd);
}

TEST_F(HostFiles, ExclusiveCreateThroughAnyLinkFails) {
    ASSERT_EQ(symlink((dir / "absent").c_str(), member.c_str()), 0);
    errno = 0;
    EXPECT_EQ(qor::host::open_member(member.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL, 0777),
              -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(qor_test::exists(dir / "absent"));
}

TEST_F(HostFiles, DanglingLinkIsNeverCreatedThrough) {
    ASSERT_EQ(symlink((dir / "absent").c_str(), member.c_str()), 0);
    errno = 0;
    EXPECT_EQ(qor::host::open_member(member.c_str(), O_RDWR | O_CREAT, 0777),
              -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(qor_test::exists(dir / "absent"));
}

TEST_F(HostFiles, FollowedDanglingLinkIsStillNotCreatedThrough) {
    ASSERT_EQ(symlink((dir / "absent").c_str(), member.c_str()), 0);
    MemberOpen how;
    how.follow = true;
    qor_fault_reset();
    errno = 0;
    EXPECT_EQ(qor::host::open_member(member.c_str(), O_RDWR | O_CREAT, 0777,
                                     how),
              -1);
    EXPECT_EQ(errno, EEXIST);
    // Three rounds of open-then-create, then it gives up.
    EXPECT_EQ(qor_fault_calls(QF_open) + qor_fault_calls(QF_open64), 6);
    EXPECT_FALSE(qor_test::exists(dir / "absent"));
}

TEST_F(HostFiles, CreateIfMissingCreatesExclusively) {
    qor_fault_reset();
    const int fd =
        qor::host::open_member(member.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    struct stat st;
    ASSERT_EQ(::stat(member.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    // The open that found nothing, then the exclusive create.
    EXPECT_EQ(qor_fault_calls(QF_open) + qor_fault_calls(QF_open64), 2);
}

TEST_F(HostFiles, CreateIfMissingOpensAnExistingFileWithoutReplacingIt) {
    qor_test::write_file(member, "kept");
    const int fd =
        qor::host::open_member(member.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(qor_test::read_file(member), "kept");
}

TEST_F(HostFiles, FifoIsRefusedWithoutHangingForReadAndWrite) {
    ASSERT_EQ(mkfifo(member.c_str(), 0666), 0);
    for (int flags : {O_RDONLY, O_WRONLY, O_RDWR, O_RDWR | O_CREAT}) {
        errno = 0;
        EXPECT_EQ(qor::host::open_member(member.c_str(), flags, 0777), -1)
            << flags;
        EXPECT_EQ(errno, EINVAL) << flags;
    }
}

TEST_F(HostFiles, DeviceIsRefused) {
    MemberOpen how;
    how.follow = true;  // /dev/null itself, not a link to it
    for (int flags : {O_RDONLY, O_WRONLY | O_TRUNC}) {
        errno = 0;
        EXPECT_EQ(qor::host::open_member("/dev/null", flags, 0, how), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(HostFiles, LinkToDeviceIsRefusedWithEloop) {
    ASSERT_EQ(symlink("/dev/zero", member.c_str()), 0);
    errno = 0;
    EXPECT_EQ(qor::host::open_member(member.c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(HostFiles, SocketIsRefused) {
    const int s = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(s, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(member.size(), sizeof addr.sun_path);
    memcpy(addr.sun_path, member.c_str(), member.size() + 1);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    errno = 0;
    EXPECT_EQ(qor::host::open_member(member.c_str(), O_RDONLY, 0), -1);
    // Opening a socket fails on its own (ENXIO); it is reported as the
    // wrong kind of file like the others.
    EXPECT_EQ(errno, EINVAL);
    close(s);
}

TEST_F(HostFiles, DirectoryWhereAFileBelongsIsRefused) {
    ASSERT_EQ(mkdir(member.c_str(), 0777), 0);
    errno = 0;
    EXPECT_EQ(qor::host::open_member(member.c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(HostFiles, DirectoryKindOpensADirectoryAndRefusesAFile) {
    ASSERT_EQ(mkdir(member.c_str(), 0777), 0);
    MemberOpen how;
    how.kind = MemberKind::directory;
    const int fd = qor::host::open_member(member.c_str(), O_RDONLY, 0, how);
    ASSERT_GE(fd, 0);
    close(fd);
    errno = 0;
    EXPECT_EQ(qor::host::open_member(victim.c_str(), O_RDONLY, 0, how), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(HostFiles, FstatFailureClosesAndReports) {
    qor_test::write_file(member, "abc");
    qor_fault_fail(QF_fstat, EIO, 0, 1);
    errno = 0;
    EXPECT_EQ(qor::host::open_member(member.c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(HostFiles, ClearingNonBlockingFailureClosesAndReports) {
    qor_test::write_file(member, "abc");
    qor_fault_fail(QF_fcntl, EIO, 0, 1);
    errno = 0;
    EXPECT_EQ(qor::host::open_member(member.c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(HostFiles, InterruptedCallsAreRetried) {
    qor_test::write_file(member, "abc");
    qor_fault_fail(QF_open, EINTR, 0, 3);
    qor_fault_fail(QF_open64, EINTR, 0, 3);
    qor_fault_fail(QF_fstat, EINTR, 0, 3);
    qor_fault_fail(QF_fcntl, EINTR, 0, 3);
    const int fd = qor::host::open_member(member.c_str(), O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    close(fd);
    qor_fault_reset();
    qor_fault_fail(QF_fchmod, EINTR, 0, 3);
    qor_fault_fail(QF_fchown, EINTR, 0, 3);
    qor_fault_fail(QF_ftruncate, EINTR, 0, 3);
    EXPECT_EQ(qor::host::chmod_member(member.c_str(), 0600), 0);
    EXPECT_EQ(qor::host::chown_member(member.c_str(), getuid(), getgid()), 0);
    EXPECT_EQ(qor::host::truncate_member(member.c_str()), 0);
    EXPECT_EQ(qor_test::read_file(member), "");
}

TEST_F(HostFiles, CreateMeetsAFullDiscAndAsksTheHandler) {
    qor_test::MessageLog log;
    qor_test::DiscFullHandler handler({0});
    qor_fault_fail(QF_open, ENOSPC, 0, 1);
    qor_fault_fail(QF_open64, ENOSPC, 0, 1);
    MemberOpen how;
    how.disc_full_context = QOR_CTX_CREATE_FILE;
    const int fd = qor::host::open_member(
        member.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600, how);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(handler.calls.size(), 1u);
    EXPECT_EQ(handler.calls[0].context, QOR_CTX_CREATE_FILE);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(HostFiles, ChmodThroughALinkLeavesTheVictimAlone) {
    ASSERT_EQ(symlink(victim.c_str(), member.c_str()), 0);
    errno = 0;
    EXPECT_EQ(qor::host::chmod_member(member.c_str(), 0777), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(qor::host::chown_member(member.c_str(), 1, 1), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(qor::host::truncate_member(member.c_str()), -1);
    EXPECT_EQ(errno, ELOOP);
    expect_victim_unchanged();
}

TEST_F(HostFiles, ChmodAndChownWorkOnTheDescriptor) {
    qor_test::write_file(member, "abc");
    qor_fault_reset();
    EXPECT_EQ(qor::host::chmod_member(member.c_str(), 0604), 0);
    EXPECT_EQ(qor::host::chown_member(member.c_str(), 1, 2), 0);
    EXPECT_EQ(qor_fault_calls(QF_fchmod), 1);
    EXPECT_EQ(qor_fault_calls(QF_fchown), 1);
    EXPECT_EQ(qor_fault_calls(QF_chmod), 0);
    EXPECT_EQ(qor_fault_calls(QF_chown), 0);
    struct stat st;
    ASSERT_EQ(::stat(member.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0604u);
    EXPECT_EQ(st.st_uid, 1u);
    EXPECT_EQ(st.st_gid, 2u);
}

TEST_F(HostFiles, ChmodFailureIsReportedAndClosed) {
    qor_test::write_file(member, "abc");
    qor_fault_fail(QF_fchmod, EPERM, 0, 1);
    errno = 0;
    EXPECT_EQ(qor::host::chmod_member(member.c_str(), 0600), -1);
    EXPECT_EQ(errno, EPERM);
    qor_fault_fail(QF_ftruncate, EIO, 0, 1);
    EXPECT_EQ(qor::host::truncate_member(member.c_str()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(qor_test::read_file(member), "abc");
}

TEST_F(HostFiles, OwnerWithoutReadPermissionCanStillChangeTheMode) {
    // The owner may chmod a file it may not read: the change then goes
    // through a path-only descriptor of the checked file.
    const std::string d = dir.path();
    ASSERT_EQ(::chmod(d.c_str(), 0777), 0);
    const auto result = qor_test::run_as_unprivileged([&] {
        const int fd = ::open(member.c_str(), O_WRONLY | O_CREAT, 0200);
        if (fd < 0) _exit(10);
        close(fd);
        if (qor::host::chmod_member(member.c_str(), 0644) != 0) _exit(11);
        struct stat st;
        if (::stat(member.c_str(), &st) != 0) _exit(12);
        _exit((st.st_mode & 07777) == 0644 ? 0 : 13);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST_F(HostFiles, PathOnlyDescriptorStillRefusesALink) {
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    const auto result = qor_test::run_as_unprivileged([&] {
        // A link the unprivileged user planted to a file it may not read.
        if (symlink(victim.c_str(), member.c_str()) != 0) _exit(10);
        errno = 0;
        if (qor::host::chmod_member(member.c_str(), 0666) != -1) _exit(11);
        _exit(errno == ELOOP ? 0 : 12);
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
    expect_victim_unchanged();
}

}  // namespace
