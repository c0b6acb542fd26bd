// Recognising and repairing half-made objects: what a create or a copy
// killed part-way leaves, members of the wrong kind or of another type, and
// debris a live process still holds. The unit is hidden in the library, so
// it is compiled into this program.

#include "objects/integrity.cpp"

#include <signal.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "objects_fixture.h"

namespace objects_test {
namespace {

using qor::objects::Finding;
using qor::objects::Inspection;
using qor::objects::Problem;

// A finding as text, for comparisons with readable failures:
// "missing .body", "wrong_kind .lock held", ...
std::string text(const Finding &f) {
    static const char *const names[] = {"missing", "wrong_kind", "extra",
                                        "differs", "stale_lock"};
    std::string t = names[static_cast<int>(f.problem)];
    t += " ";
    t += f.member;
    if (f.held) t += " held";
    return t;
}

// A record lock of this process on the whole file (F_WRLCK, F_UNLCK...);
// whether the kernel granted it.
bool set_lock(int fd, short type) {
    struct flock fl{};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    return fd >= 0 && fcntl(fd, F_SETLK, &fl) == 0;
}

// A file opened read-write (made when missing) and write-locked whole: its
// descriptor, or -1.
int open_write_locked(const std::string &os_path) {
    const int fd = ::open(os_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0 && !set_lock(fd, F_WRLCK)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

class Integrity : public Store {
  protected:
    void SetUp() override {
        Store::SetUp();
        alarm(30);
    }
    void TearDown() override {
        alarm(0);
        Store::TearDown();
    }
    // The findings of inspecting name as type (against reference).
    std::vector<std::string> inspect(const std::string &name, unsigned type,
                                     const char *reference = nullptr) {
        const int status = qor::objects::inspect_object(
            qor(name).c_str(), type, reference, &found_);
        EXPECT_EQ(status, 0) << name;
        std::vector<std::string> out;
        for (int i = 0; i < found_.count; ++i) out.push_back(text(found_.findings[i]));
        return out;
    }
    int repair(const std::string &name, int *left) {
        return qor::objects::repair_object(qor(name).c_str(), found_, left);
    }
    Inspection found_{};
};

using V = std::vector<std::string>;

TEST_F(Integrity, FinishedObjectsOfEveryTypeShowNothing) {
    MessageLog log;
    for (unsigned type = 0; type <= 4; ++type) {
        const std::string name = "t" + std::to_string(type);
        make_object(os(name), type);
        EXPECT_EQ(inspect(name, type), V{}) << type;
        EXPECT_FALSE(found_.other_entries) << type;
        int left = -1;
        EXPECT_EQ(repair(name, &left), 0);
        EXPECT_EQ(left, 0);
    }
    // Repair of a finished object removes nothing.
    EXPECT_EQ(entries(os("t4")), (V{".body", ".index", ".lock"}));
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Integrity, DbiLockAndFurtherObjectsAreNoDebris) {
    make_object(os("o"), 4);
    make_object(os("o/inner"), 3);
    EXPECT_EQ(inspect("o", 4), V{});
    EXPECT_TRUE(found_.other_entries);
    // "dbi.lock" is accepted but never removed: an unfinished object that
    // holds one is left whole.
    make_object(os("d"), 3);
    make_file(os("d/dbi.lock"));
    EXPECT_EQ(inspect("d", 3), V{});
    EXPECT_TRUE(found_.other_entries);
    EXPECT_EQ(inspect("d", 4), V{"missing .index"});
    int left = -1;
    EXPECT_EQ(repair("d", &left), 0);
    EXPECT_EQ(left, 1);
    EXPECT_EQ(entries(os("d")), (V{".body", ".lock", "dbi.lock"}));
}

TEST_F(Integrity, CreateKilledAfterTheLockLeavesAStaleLockThatRepairRemoves) {
    MessageLog log;
    make_object(os("c"), 2);  // what a cdir's create leaves after ".lock"
    EXPECT_EQ(inspect("c", 3), (V{"missing .body", "stale_lock .lock"}));
    EXPECT_EQ(inspect("c", 4),
              (V{"missing .body", "missing .index", "stale_lock .lock"}));
    int left = -1;
    EXPECT_EQ(repair("c", &left), 0);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(entries(tmp_.path()), V{});
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Integrity, CreateKilledAfterEachStepIsSeenForEveryType) {
    // After the directory and after each member, for each composite type.
    for (unsigned type = 2; type <= 4; ++type) {
        for (unsigned made = 1; made < type; ++made) {
            make_object(os("x"), made);
            const V got = inspect("x", type);
            EXPECT_FALSE(got.empty()) << type << " " << made;
            EXPECT_EQ(got.front(), "missing " + members_of(type)[made - 1])
                << type << " " << made;
            int left = -1;
            EXPECT_EQ(repair("x", &left), 0);
            EXPECT_EQ(left, 0);
            EXPECT_EQ(entries(tmp_.path()), V{}) << type << " " << made;
        }
    }
}

TEST_F(Integrity, CopyCutShortDiffersFromItsSourceAndRepairRemovesIt) {
    make_object(os("src"), 4);
    qor_test::write_file(os("src/.body"), "the whole body");
    qor_test::write_file(os("src/.index"), "ix");
    make_object(os("dst"), 4);
    qor_test::write_file(os("dst/.body"), "the wh");
    EXPECT_EQ(inspect("dst", 4, qor("src").c_str()),
              (V{"differs .body", "differs .index"}));
    // Without the source the cut is invisible.
    EXPECT_EQ(inspect("dst", 4), V{});
    inspect("dst", 4, qor("src").c_str());
    int left = -1;
    EXPECT_EQ(repair("dst", &left), 0);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(entries(tmp_.path()), V{"src"});
    EXPECT_EQ(qor_test::read_file(os("src/.body")), "the whole body");
}

TEST_F(Integrity, MembersOfTheWrongKindAreSeenAndRemovedNeverFollowed) {
    qor_test::write_file(os("victim"), "keep");
    ASSERT_EQ(::chmod(os("victim").c_str(), 0600), 0);
    make_object(os("o"), 4);
    ASSERT_EQ(::unlink(os("o/.body").c_str()), 0);
    ASSERT_EQ(symlink(os("victim").c_str(), os("o/.body").c_str()), 0);
    ASSERT_EQ(::unlink(os("o/.index").c_str()), 0);
    ASSERT_EQ(mkfifo(os("o/.index").c_str(), 0644), 0);
    ASSERT_EQ(::unlink(os("o/.lock").c_str()), 0);
    make_dir(os("o/.lock"));
    EXPECT_EQ(inspect("o", 4), (V{"wrong_kind .lock", "wrong_kind .body",
                                  "wrong_kind .index"}));
    int left = -1;
    EXPECT_EQ(repair("o", &left), 0);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(entries(tmp_.path()), V{"victim"});
    EXPECT_EQ(qor_test::read_file(os("victim")), "keep");
    EXPECT_EQ(mode_of(os("victim")), 0600u);
}

TEST_F(Integrity, SocketAndDanglingLinkAreOfTheWrongKind) {
    make_object(os("o"), 3);
    ASSERT_EQ(::unlink(os("o/.body").c_str()), 0);
    ASSERT_EQ(symlink(os("nowhere").c_str(), os("o/.body").c_str()), 0);
    EXPECT_EQ(inspect("o", 3), V{"wrong_kind .body"});
    ASSERT_EQ(::unlink(os("o/.body").c_str()), 0);
    ASSERT_EQ(mknod(os("o/.body").c_str(), S_IFSOCK | 0644, 0), 0);
    EXPECT_EQ(inspect("o", 3), V{"wrong_kind .body"});
    EXPECT_EQ(access(os("nowhere").c_str(), F_OK), -1);
}

TEST_F(Integrity, MembersOfAnotherTypeAreExtraAndRepairRemovesOnlyThem) {
    make_object(os("o"), 4);
    qor_test::write_file(os("o/.body"), "body");
    EXPECT_EQ(inspect("o", 3), V{"extra .index"});
    EXPECT_EQ(inspect("o", 2), (V{"extra .body", "extra .index"}));
    inspect("o", 3);
    int left = -1;
    EXPECT_EQ(repair("o", &left), 0);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(entries(os("o")), (V{".body", ".lock"}));
    EXPECT_EQ(qor_test::read_file(os("o/.body")), "body");
    // A plain directory with a ".lock" is a lockable directory's leftover.
    EXPECT_EQ(inspect("o", 1), (V{"extra .lock", "extra .body"}));
}

TEST_F(Integrity, AnObjectOfTheWrongKindIsReportedAndLeft) {
    make_object(os("f"), 0);
    make_object(os("d"), 1);
    EXPECT_EQ(inspect("f", 3), V{"wrong_kind "});
    int left = -1;
    EXPECT_EQ(repair("f", &left), 0);
    EXPECT_EQ(left, 1);
    EXPECT_EQ(inspect("d", 0), V{"wrong_kind "});
    EXPECT_EQ(repair("d", &left), 0);
    EXPECT_EQ(left, 1);
    EXPECT_EQ(entries(tmp_.path()), (V{"d", "f"}));
}

TEST_F(Integrity, AHalfMadeObjectHoldingFurtherObjectsIsLeft) {
    make_object(os("c"), 2);
    make_object(os("c/inner"), 0);
    EXPECT_EQ(inspect("c", 3), (V{"missing .body", "stale_lock .lock"}));
    EXPECT_TRUE(found_.other_entries);
    int left = -1;
    EXPECT_EQ(repair("c", &left), 0);
    EXPECT_EQ(left, 2);
    EXPECT_EQ(entries(os("c")), (V{".lock", "inner"}));
}

TEST_F(Integrity, DebrisAnotherProcessLocksIsHeldAndLeft) {
    make_object(os("c"), 2);
    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(ready[0]);
        close(done[1]);
        const int fd = ::open(os("c/.lock").c_str(), O_RDWR);
        const bool ok = set_lock(fd, F_WRLCK);
        char c = ok ? 'y' : 'n';
        (void)!write(ready[1], &c, 1);
        (void)!read(done[0], &c, 1);
        _exit(0);
    }
    close(ready[1]);
    close(done[0]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    ASSERT_EQ(c, 'y');
    EXPECT_EQ(inspect("c", 3), (V{"missing .body", "stale_lock .lock held"}));
    int left = -1;
    EXPECT_EQ(repair("c", &left), 0);
    EXPECT_EQ(left, 2);
    EXPECT_EQ(entries(os("c")), V{".lock"});
    close(done[1]);
    int ws = 0;
    ASSERT_EQ(waitpid(pid, &ws, 0), pid);
    close(ready[0]);
    // Once the holder is gone, it is debris.
    EXPECT_EQ(inspect("c", 3), (V{"missing .body", "stale_lock .lock"}));
    EXPECT_EQ(repair("c", &left), 0);
    EXPECT_EQ(entries(tmp_.path()), V{});
}

// The kernel makes /proc/locks a page at a time, and other processes change
// their locks between pages: a lock held all along must still be seen by
// every check, or a repair would take a held member for debris.
TEST_F(Integrity, ALockHeldAllAlongIsSeenWhileOthersChurnTheirs) {
    const int fd = open_write_locked(os("held"));
    ASSERT_GE(fd, 0);
    struct stat st{};
    ASSERT_EQ(fstat(fd, &st), 0);
    // Newer locks are listed before older ones: the churner's come first.
    constexpr int kFiles = 2000;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t churner = fork();
    ASSERT_GE(churner, 0);
    if (churner == 0) {
        close(ready[0]);
        std::vector<int> fds;
        for (int i = 0; i < kFiles; ++i) {
            const int f = open_write_locked(os("churn" + std::to_string(i)));
            if (f < 0) _exit(1);
            fds.push_back(f);
        }
        (void)!write(ready[1], "y", 1);
        for (unsigned i = 0;; i = i * 1103515245u + 12345u) {
            const int f = fds[(i >> 8) % kFiles];
            (void)set_lock(f, F_UNLCK);
            (void)set_lock(f, F_WRLCK);
        }
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);
    int missed = 0;
    for (int i = 0; i < 300; ++i) {
        if (!qor::objects::locked(st.st_dev, st.st_ino)) ++missed;
    }
    kill(churner, SIGKILL);
    int ws = 0;
    waitpid(churner, &ws, 0);
    close(fd);
    EXPECT_EQ(missed, 0);
}

// A list that cannot be read whole (open, read or the growth of the buffer
// failing) answers "held" for a file nobody locks: nothing is removed on a
// guess.
TEST_F(Integrity, AListThatCannotBeReadWhollyCountsAsHeld) {
    qor_test::write_file(os("free"), "x");
    struct stat st{};
    ASSERT_EQ(stat(os("free").c_str(), &st), 0);
    // Enough locks of this process's for a list longer than the first
    // buffer, so that it has to grow.
    std::vector<int> fds;
    for (int i = 0; i < 400; ++i) {
        const int f = open_write_locked(os("l" + std::to_string(i)));
        ASSERT_GE(f, 0);
        fds.push_back(f);
    }
    EXPECT_FALSE(qor::objects::locked(st.st_dev, st.st_ino));
    struct Case {
        const char *name;
        qor_fault_fn fn;
        int err;
    } const cases[] = {{"open", QF_open, EACCES},
                       {"read", QF_read, EIO},
                       {"realloc", QF_realloc, ENOMEM}};
    for (const Case &c : cases) {
        qor_fault_reset();
        if (c.fn == QF_open) qor_fault_filter_path(QF_open, "/proc/locks");
        qor_fault_fail(c.fn, c.err, 0, 1);
        const bool held = qor::objects::locked(st.st_dev, st.st_ino);
        const long injected = qor_fault_injected(c.fn);
        qor_fault_reset();
        EXPECT_TRUE(held) << c.name;
        EXPECT_EQ(injected, 1) << c.name;
    }
    for (const int f : fds) close(f);
}

TEST_F(Integrity, ThisProcesssOwnLockIsSeenAndNotDroppedByTheCheck) {
    make_object(os("o"), 4);
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 4, 3), 0);
    EXPECT_EQ(inspect("o", 3), V{"extra .index"});
    ASSERT_EQ(::unlink(os("o/.body").c_str()), 0);
    ASSERT_EQ(::unlink(os("o/.index").c_str()), 0);
    EXPECT_EQ(inspect("o", 3), (V{"missing .body", "stale_lock .lock held"}));
    int left = -1;
    EXPECT_EQ(repair("o", &left), 0);
    EXPECT_EQ(left, 2);
    // The check opened nothing, so the lock is still there.
    unsigned mode = 0;
    EXPECT_EQ(QOR_object_lock_mode(qor("o").c_str(), 4, &mode), 0);
    EXPECT_EQ(mode, 3u);
    const qor_test::ChildResult probe = qor_test::run_in_child([&] {
        const int fd = ::open(os("o/.lock").c_str(), O_RDONLY);
        struct flock fl{};
        fl.l_type = F_RDLCK;
        fl.l_whence = SEEK_SET;
        const bool held = fd >= 0 && fcntl(fd, F_GETLK, &fl) == 0 &&
                          fl.l_type != F_UNLCK;
        _exit(held ? 0 : 1);
    });
    EXPECT_TRUE(probe.exited && probe.exit_status == 0);
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 4), 0);
}

TEST_F(Integrity, MissingAndUntranslatablePaths) {
    MessageLog log;
    Inspection in{};
    EXPECT_EQ(qor::objects::inspect_object(qor("none").c_str(), 3, nullptr, &in),
              QOR_E_MISSING);
    EXPECT_EQ(qor::objects::inspect_object("rel", 3, nullptr, &in),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(qor::objects::inspect_object(nullptr, 3, nullptr, &in),
              QOR_E_UNTRANSLATABLE);
    int left = 0;
    EXPECT_EQ(qor::objects::repair_object(nullptr, in, &left),
              QOR_E_UNTRANSLATABLE);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Integrity, LockLinesAreMatchedByDeviceAndInode) {
    using qor::objects::line_names;
    const dev_t dev = makedev(0xfd, 0x01);
    EXPECT_TRUE(line_names("1: POSIX  ADVISORY  WRITE 12 fd:01:1234 0 EOF",
                           dev, 1234));
    EXPECT_TRUE(line_names("1: -> POSIX  ADVISORY  READ 13 fd:01:1234 1 1",
                           dev, 1234));
    EXPECT_FALSE(line_names("1: POSIX  ADVISORY  WRITE 12 fd:01:12345 0 EOF",
                            dev, 1234));
    EXPECT_FALSE(line_names("1: POSIX  ADVISORY  WRITE 12 fd:02:1234 0 EOF",
                            dev, 1234));
    EXPECT_FALSE(line_names("1: FLOCK  ADVISORY  WRITE 12 zz:01:1234 0 EOF",
                            dev, 1234));
    EXPECT_FALSE(line_names("", dev, 1234));
}

}  // namespace
}  // namespace objects_test
