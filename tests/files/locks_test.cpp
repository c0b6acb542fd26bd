// Lock files between real processes: the update right on byte 1, readers
// and the updater on byte 0, deferred handles, upgrade and its reopen.

#include "files_fixture.h"

namespace files_test {
namespace {

using qor_test::catch_fatal;
using qor_test::read_file;
using qor_test::write_file;

// The kind of lock another process holds on one byte of the file, as this
// process would see it: F_UNLCK when none.
short held_elsewhere(const std::string &p, int byte, short kind = F_WRLCK) {
    const int fd = ::open(p.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return -1;
    struct flock fl = {};
    fl.l_type = kind;
    fl.l_whence = SEEK_SET;
    fl.l_start = byte;
    fl.l_len = 1;
    const int r = fcntl(fd, F_GETLK, &fl);
    ::close(fd);
    return r == 0 ? fl.l_type : -1;
}

// The lock lines /proc/locks lists for a process: "READ 0-0" style, the
// kind and the byte range, blocked requests marked with "->". Adjacent
// locks of one kind are merged by the kernel ("WRITE 0-1").
std::vector<std::string> locks_of(pid_t pid) {
    std::vector<std::string> out;
    const std::string needle = " " + std::to_string(pid) + " ";
    for (const std::string &line : qor_test::lock_list_lines()) {
        if (line.find(needle) == std::string::npos) continue;
        std::istringstream in(line);
        std::vector<std::string> w;
        std::string word;
        while (in >> word) w.push_back(word);
        const bool blocked = line.find("->") != std::string::npos;
        // n: POSIX ADVISORY WRITE pid dev:inode start end
        const size_t base = blocked ? 2 : 1;
        // The pid field itself: the needle may also stand in another
        // process's line as a byte offset.
        if (w.size() < base + 7 || w[base + 3] != std::to_string(pid)) continue;
        out.push_back(std::string(blocked ? "-> " : "") + w[base + 2] + " " +
                      w[base + 5] + "-" + w[base + 6]);
    }
    return out;
}

class Locks : public Files {};

TEST_F(Locks, OpenWithCreatePadsTakesByte1AndStartsInState3) {
    QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 1);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->flags, 36u);
    EXPECT_EQ(h->lock_mode, 3u);
    EXPECT_EQ(h->idle, 1u);
    const auto r = run_in_child(
        [&] { printf("%d", held_elsewhere(path("l"), 1)); });
    EXPECT_EQ(r.out, std::to_string(F_WRLCK));
    EXPECT_EQ(locks_of(getpid()), std::vector<std::string>{"WRITE 1-1"});
    QOR_close_lock(h);
    EXPECT_TRUE(locks_of(getpid()).empty());
    // Read only now: opening and closing the file here would have dropped
    // this process's locks on it.
    EXPECT_EQ(read_file(path("l")), "  ");
}

TEST_F(Locks, LockFilesOfZeroOrOneByteArePaddedToTwoSpaces) {
    for (const std::string start : {"", "x"}) {
        write_file(path("l"), start);
        QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 1);
        QOR_close_lock(h);
        EXPECT_EQ(read_file(path("l")), "  ") << start;

        write_file(path("u"), start);
        h = QOR_open_lock(path("u").c_str(), 0);
        EXPECT_EQ(h->flags, 1u);
        EXPECT_EQ(QOR_upgrade_lock(h), 1);
        EXPECT_EQ(h->flags, 36u);
        QOR_close_lock(h);
        EXPECT_EQ(read_file(path("u")), "  ") << start;
    }
    write_file(path("long"), "abc");
    QOR_close_lock(QOR_open_lock(path("long").c_str(), 1));
    EXPECT_EQ(read_file(path("long")), "abc");
}

TEST_F(Locks, ASecondProcessIsRefusedTheUpdateRightAtOnce) {
    QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 1);
    const auto r = run_in_child([&] {
        QOR_file_handle *second = QOR_open_lock(path("l").c_str(), 1);
        printf("%s ", second == nullptr ? "null" : "held");
        QOR_file_handle *ro = QOR_open_lock(path("l").c_str(), 0);
        printf("%d %d %u", QOR_test_lock(ro), QOR_upgrade_lock(ro),
               ro->lock_mode);
        QOR_close_lock(ro);
    });
    EXPECT_EQ(r.out, "null 1 0 0");
    // Refused without waiting: the child never queued for the byte.
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 1);
    EXPECT_EQ(QOR_test_lock(h), 0);  // our own hold does not count
    EXPECT_EQ(QOR_downgrade_lock(h), 1);
    EXPECT_EQ(h->lock_mode, 0u);
    const auto after = run_in_child([&] {
        QOR_file_handle *second = QOR_open_lock(path("l").c_str(), 1);
        printf("%s", second == nullptr ? "null" : "held");
        if (second) QOR_close_lock(second);
    });
    EXPECT_EQ(after.out, "held");
    QOR_close_lock(h);
}

TEST_F(Locks, TestLockOnAMissingFileAnswers1) {
    QOR_file_handle *h = QOR_open_lock(path("none").c_str(), 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->fd, -1);
    EXPECT_EQ(h->flags, 1u);
    EXPECT_EQ(h->lock_mode, 0u);
    EXPECT_EQ(h->idle, 1u);
    EXPECT_EQ(h->stream, nullptr);
    EXPECT_EQ(std::string(h->path), path("none"));
    EXPECT_EQ(QOR_test_lock(h), 1);
    QOR_close_lock(h);
}

TEST_F(Locks, ADeferredHandleLocksWithoutASystemCall) {
    QOR_file_handle *h = QOR_open_lock(path("none").c_str(), 0);
    qor_fault_reset();
    EXPECT_EQ(QOR_set_read_lock(h), 1);
    EXPECT_EQ(QOR_clear_lock(h), 1);
    EXPECT_EQ(QOR_downgrade_lock(h), 1);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 0);
    EXPECT_EQ(qor_fault_calls(QF_open), 0);
    EXPECT_EQ(h->fd, -1);
    // A write lock is not granted while the file is missing.
    h->lock_mode = 3;
    EXPECT_EQ(QOR_set_update_lock(h), 0);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 0);
    EXPECT_FALSE(qor_test::exists(path("none")));
    QOR_close_lock(h);
    EXPECT_EQ(qor_fault_calls(QF_close), 0);
}

TEST_F(Locks, ADeferredHandleOpensTheFileOnceItAppears) {
    QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 0);
    ASSERT_EQ(h->fd, -1);
    write_file(path("l"), "  ");
    EXPECT_EQ(QOR_set_read_lock(h), 1);
    EXPECT_NE(h->fd, -1);
    EXPECT_EQ(fd_flags(h->fd) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(locks_of(getpid()), std::vector<std::string>{"READ 0-0"});
    QOR_close_lock(h);
}

TEST_F(Locks, UpgradingADeferredHandleCreatesTheLockFile) {
    QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 0);
    EXPECT_EQ(QOR_upgrade_lock(h), 1);
    EXPECT_EQ(h->lock_mode, 3u);
    EXPECT_EQ(read_file(path("l")), "  ");
    QOR_close_lock(h);
}

TEST_F(Locks, UpgradeOnAReadOnlyHandleLosesItsReadLockOnByte0) {
    write_file(path("l"), "  ");
    QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 0);
    EXPECT_EQ(QOR_set_read_lock(h), 1);
    EXPECT_EQ(locks_of(getpid()), std::vector<std::string>{"READ 0-0"});
    EXPECT_EQ(QOR_upgrade_lock(h), 1);
    EXPECT_EQ(h->flags, 36u);
    EXPECT_EQ(h->idle, 1u);
    // Only byte 1 is held now: the reopen dropped byte 0.
    EXPECT_EQ(locks_of(getpid()), std::vector<std::string>{"WRITE 1-1"});
    QOR_close_lock(h);
}

TEST_F(Locks, UpgradeOnAWritableHandleKeepsItsDescriptor) {
    QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 1);
    const int fd = h->fd;
    EXPECT_EQ(QOR_downgrade_lock(h), 1);
    EXPECT_EQ(QOR_upgrade_lock(h), 1);
    EXPECT_EQ(h->fd, fd);
    EXPECT_EQ(h->lock_mode, 3u);
    QOR_close_lock(h);
}

TEST_F(Locks, AnUpdaterWaitsForAReaderOnByte0) {
    write_file(path("l"), "  ");
    Partner reader([&](Partner &p) {
        QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 0);
        QOR_set_read_lock(h);
        p.tell('R');
        p.hear();
        // Still reading when the updater is seen waiting.
        p.tell(locks_of(getpid()) == std::vector<std::string>{"READ 0-0"}
                   ? 'Y' : 'N');
        QOR_clear_lock(h);
        p.hear();
        QOR_close_lock(h);
        return 0;
    });
    ASSERT_EQ(reader.receive(), 'R');
    Partner updater([&](Partner &p) {
        QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 1);
        if (h == nullptr) return 1;
        QOR_set_update_lock(h);  // waits for the reader
        p.tell('U');
        QOR_clear_lock(h);
        QOR_close_lock(h);
        return 0;
    });
    ASSERT_TRUE(wait_until_blocked(updater.pid()));
    const auto listed = locks_of(updater.pid());
    EXPECT_NE(std::find(listed.begin(), listed.end(), "-> WRITE 0-0"),
              listed.end());
    reader.send('?');
    EXPECT_EQ(reader.receive(), 'Y');  // the reader let go only now
    EXPECT_EQ(updater.receive(), 'U');
    reader.send('x');
    EXPECT_EQ(updater.finish(), 0);
    EXPECT_EQ(reader.finish(), 0);
}

TEST_F(Locks, ReadersWaitForAnUpdaterOnByte0) {
    QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 1);
    ASSERT_EQ(QOR_set_update_lock(h), 1);
    EXPECT_EQ(locks_of(getpid()),
              (std::vector<std::string>{"WRITE 0-1"}));
    Partner reader([&](Partner &p) {
        QOR_file_handle *r = QOR_open_lock(path("l").c_str(), 0);
        QOR_set_read_lock(r);
        p.tell('R');
        QOR_close_lock(r);
        return 0;
    });
    ASSERT_TRUE(wait_until_blocked(reader.pid()));
    EXPECT_EQ(locks_of(reader.pid()),
              std::vector<std::string>{"-> READ 0-0"});
    EXPECT_EQ(QOR_clear_lock(h), 1);
    EXPECT_EQ(reader.receive(), 'R');
    EXPECT_EQ(reader.finish(), 0);
    EXPECT_EQ(h->lock_mode, 3u);  // byte 0 steps leave the state alone
    QOR_close_lock(h);
}

TEST_F(Locks, UpdateLockWithoutTheUpdateRightIsFatal) {
    write_file(path("l"), "  ");
    const std::string expected =
        "Error: QOR Message System unavailable - output_message\n"
        "Untranslated message: set=File qor_files, Line [0-9]+: Attempt to "
        "start file update without lock, number=-1, type=4\n";
    const auto unarmed = run_in_child([&] {
        QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 0);
        QOR_set_update_lock(h);
    });
    EXPECT_EQ(unarmed.exit_status, 3);
    EXPECT_TRUE(std::regex_match(unarmed.err, std::regex(expected)))
        << unarmed.err;
    const auto armed = run_in_child([&] {
        QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 0);
        printf("%d", catch_fatal([&] { QOR_set_update_lock(h); }));
        QOR_close_lock(h);
    });
    EXPECT_EQ(armed.exit_status, 0);
    EXPECT_EQ(armed.out, "1");
    EXPECT_TRUE(std::regex_match(armed.err, std::regex(expected)))
        << armed.err;
}

TEST_F(Locks, RefusalsAnswer0AndOtherFcntlFailuresAreAccessFailures) {
    QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 1);
    for (int err : {EAGAIN, EACCES}) {
        qor_fault_fail(QF_fcntl, err, 0, 1);
        EXPECT_EQ(QOR_set_read_lock(h), 0);
        EXPECT_EQ(h->lock_mode, 3u);
        qor_fault_fail(QF_fcntl, err, 0, 1);
        EXPECT_EQ(QOR_downgrade_lock(h), 0);
        EXPECT_EQ(h->lock_mode, 3u);
    }
    QOR_close_lock(h);
    const auto r = run_in_child([&] {
        QOR_file_handle *l = QOR_open_lock(path("l").c_str(), 0);
        qor_fault_fail(QF_fcntl, ENOLCK, 0, 1);
        QOR_set_read_lock(l);
    });
    EXPECT_ACCESS_FAILURE(r, path("l"), ENOLCK);
    const auto t = run_in_child([&] {
        QOR_file_handle *l = QOR_open_lock(path("l").c_str(), 0);
        qor_fault_fail(QF_fcntl, EINTR, 0, 101);
        QOR_test_lock(l);
    });
    EXPECT_ACCESS_FAILURE(t, path("l"), EINTR);
}

TEST_F(Locks, AnUnreadableLockFileGivesADeferredHandle) {
    write_file(path("l"), "  ");
    ASSERT_EQ(::chmod(path("l").c_str(), 0600), 0);
    const auto r = qor_test::run_as_unprivileged([&] {
        QOR_file_handle *h = QOR_open_lock(path("l").c_str(), 0);
        printf("%d %d %d", h->fd, QOR_set_read_lock(h), QOR_test_lock(h));
        QOR_close_lock(h);
    });
    EXPECT_EQ(r.out, "-1 1 1") << r.err;
}

TEST_F(Locks, LockStepsOnAFileHandleOfTheTextKind) {
    // The multiuser opener leaves state 3 without locking, so an update
    // lock passes on a text handle opened without the lock flag.
    QOR_file_handle *t =
        QOR_open_multiuser_text_file(path("t").c_str(), 0, 0, 0);
    EXPECT_EQ(QOR_set_update_lock(t), 1);
    EXPECT_EQ(locks_of(getpid()), std::vector<std::string>{"WRITE 0-0"});
    EXPECT_EQ(QOR_clear_lock(t), 1);
    EXPECT_TRUE(locks_of(getpid()).empty());
    QOR_close_text_file(t);
}

}  // namespace
}  // namespace files_test
