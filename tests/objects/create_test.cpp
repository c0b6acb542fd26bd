// Creating objects: what each type makes, existing objects, the undo of a
// failed member, a full disc, interruptions and a race between processes.

#include <sys/wait.h>

#include "objects_fixture.h"

namespace objects_test {
namespace {

using Create = Store;
using Names = std::vector<std::string>;

// Closes this process's descriptors open on the (possibly removed) file.
void close_descriptors_of(const std::string &path) {
    for (int fd = 3; fd < 1024; ++fd) {
        char link[64], target[4096];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        const ssize_t n = readlink(link, target, sizeof target - 1);
        if (n <= 0) continue;
        target[n] = '\0';
        if (std::string(target).rfind(path, 0) == 0) close(fd);
    }
}

int create(const std::string &qor_path, unsigned type) {
    return QOR_create_object(qor_path.c_str(), type);
}

TEST_F(Create, IdleObjectMakesDirectoryAndThreeEmptyMembers) {
    MessageLog log;
    EXPECT_EQ(create(qor("o"), 4), 0);
    EXPECT_EQ(entries(os("o")), (Names{".body", ".index", ".lock"}));
    for (const char *m : {"/.lock", "/.body", "/.index"}) {
        EXPECT_EQ(qor_test::read_file(os("o") + m), "") << m;
        EXPECT_EQ(mode_of(os("o") + m), 0755u) << m;  // 0777 under umask 022
    }
    EXPECT_EQ(mode_of(os("o")), 0755u);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Create, CreatingAgainGives2053AndChangesNothing) {
    ASSERT_EQ(create(qor("o"), 4), 0);
    qor_test::write_file(os("o/.body"), "contents");
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(create(qor("o"), 4), QOR_E_EXISTS);
    EXPECT_EQ(create(qor("o"), 1), QOR_E_EXISTS);
    EXPECT_EQ(entries(os("o")), (Names{".body", ".index", ".lock"}));
    EXPECT_EQ(qor_test::read_file(os("o/.body")), "contents");
    EXPECT_EQ(qor_fault_calls(QF_unlink) + qor_fault_calls(QF_rmdir), 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Create, EachTypeMakesItsOwnMembers) {
    MessageLog log;
    const Names expected[] = {{}, {}, {".lock"}, {".body", ".lock"},
                              {".body", ".index", ".lock"}};
    for (unsigned t = 1; t <= 4; ++t) {
        const std::string name = "t" + std::to_string(t);
        ASSERT_EQ(create(qor(name), t), 0) << t;
        EXPECT_EQ(entries(os(name)), expected[t]) << t;
        unsigned detected = 99;
        EXPECT_EQ(QOR_type_of_object(qor(name).c_str(), &detected), 0);
        EXPECT_EQ(detected, t);
    }
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Create, PlainDirectoryMakesOnlyTheDirectory) {
    qor_fault_reset();
    EXPECT_EQ(create(qor("d"), 1), 0);
    struct stat st;
    ASSERT_EQ(stat(os("d").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(entries(os("d")), Names{});
    EXPECT_EQ(qor_fault_calls(QF_open), 0);
}

TEST_F(Create, PlainFileIsAnEmptyFile) {
    MessageLog log;
    EXPECT_EQ(create(qor("f"), 0), 0);
    struct stat st;
    ASSERT_EQ(stat(os("f").c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(create(qor("f"), 0), QOR_E_EXISTS);
    // An existing directory is in the way of a file too.
    make_dir(os("d"));
    EXPECT_EQ(create(qor("d"), 0), QOR_E_EXISTS);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Create, ExistingFileIsInTheWayOfADirectory) {
    make_file(os("f"));
    MessageLog log;
    EXPECT_EQ(create(qor("f"), 3), QOR_E_EXISTS);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_TRUE(qor_test::exists(os("f")));
}

TEST_F(Create, UmaskApplies) {
    umask(077);
    ASSERT_EQ(create(qor("o"), 2), 0);
    ASSERT_EQ(create(qor("f"), 0), 0);
    umask(022);
    EXPECT_EQ(mode_of(os("o")), 0700u);
    EXPECT_EQ(mode_of(os("o/.lock")), 0700u);
    EXPECT_EQ(mode_of(os("f")), 0700u);
}

TEST_F(Create, ThirdArgumentIsNotRead) {
    EXPECT_EQ(QOR_create_object(qor("c").c_str(), 3, "cdir"), 0);
    EXPECT_EQ(QOR_create_object(qor("i").c_str(), 4, "idle_object"), 0);
    EXPECT_EQ(QOR_create_object(qor("x").c_str(), 2, nullptr), 0);
    EXPECT_EQ(entries(os("c")), (Names{".body", ".lock"}));
    EXPECT_EQ(entries(os("x")), (Names{".lock"}));
}

TEST_F(Create, UntranslatablePathGives2051WithoutMessage) {
    MessageLog log;
    for (unsigned t = 0; t <= 4; ++t) {
        EXPECT_EQ(QOR_create_object("relative", t), QOR_E_UNTRANSLATABLE);
        EXPECT_EQ(QOR_create_object("$(QOR_OBJECTS_UNSET)/x", t),
                  QOR_E_UNTRANSLATABLE);
    }
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Create, TypeAboveFourIsRefusedAfterRecordingEinval) {
    MessageLog log;
    EXPECT_EQ(create(qor("o"), 5), QOR_E_INVALID);
    EXPECT_EQ(create(qor("o"), 0xffffffffu), QOR_E_INVALID);
    EXPECT_FALSE(qor_test::exists(os("o")));
    ASSERT_EQ(log.messages.size(), 2u);
    EXPECT_EQ(log.messages[0], recorded(QOR_E_INVALID, os("o"), 2101, EINVAL));
}

TEST_F(Create, MissingParentIsRecordedByMakeDirectory) {
    MessageLog log;
    EXPECT_EQ(create(qor("none/o"), 4), QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, QOR_E_MISSING, os("none/o"), 2102, ENOENT);
    EXPECT_EQ(create(qor("none/f"), 0), QOR_E_MISSING);
    ASSERT_EQ(log.messages.size(), 2u);
    EXPECT_EQ(log.messages[1],
              recorded(QOR_E_MISSING, os("none/f"), 2101, ENOENT));
}

TEST_F(Create, ParentNotWritableAsUnprivilegedUser) {
    make_dir(os("ro"), 0755);
    const auto r = qor_test::run_as_unprivileged([&] {
        MessageLog log;
        const int s = create(qor("ro/o"), 4);
        printf("%d %zu %d\n", s, log.messages.size(),
               log.messages.size() == 1 &&
                   log.messages[0] ==
                       recorded(QOR_E_PERMISSION, os("ro/o"), 2102, EACCES));
    });
    EXPECT_EQ(r.out, "2055 1 1\n") << r.err;
    EXPECT_FALSE(qor_test::exists(os("ro/o")));
}

// ---- Undo --------------------------------------------------------------------

TEST_F(Create, FailureAtEachMemberLeavesNothingBehind) {
    const char *const members[] = {".lock", ".body", ".index"};
    for (unsigned type = 2; type <= 4; ++type) {
        for (unsigned failing = 0; failing + 1 < type; ++failing) {
            const std::string name =
                "o" + std::to_string(type) + std::to_string(failing);
            const std::string member = std::string("/") + members[failing];
            MessageLog log;
            qor_fault_reset();
            qor_fault_filter_path(QF_open, member.c_str());
            qor_fault_fail(QF_open, EIO, 0, 1);
            EXPECT_EQ(create(qor(name), type), QOR_E_IO) << name;
            EXPECT_FALSE(qor_test::exists(os(name))) << name;
            // ".body" and ".lock" were removed, in that order, then the
            // directory; a missing one quietly; ".index" never.
            EXPECT_EQ(qor_fault_calls(QF_unlink), 2) << name;
            EXPECT_EQ(qor_fault_calls(QF_rmdir), 1) << name;
            ASSERT_EQ(log.messages.size(), 1u) << name;
            EXPECT_EQ(log.messages[0],
                      recorded(QOR_E_IO, os(name) + member, 2101, EIO));
        }
    }
}

// The undo of a failing ".index" (here a name one byte over the host's
// limit) removes ".body" and ".lock" and the directory, and records only
// the failure that started it; the parent is empty afterwards. The same
// for a failure at each of the other members.
TEST_F(Create, UndoRecordsOneMessageAndEmptiesTheParentForEachMember) {
    make_dir(os("parent"));
    for (const char *member : {"/.lock", "/.body", "/.index"}) {
        MessageLog log;
        qor_fault_reset();
        qor_fault_filter_path(QF_open, member);
        qor_fault_fail(QF_open, ENAMETOOLONG, 0, 1);
        qor_fault_filter_path(QF_unlink, nullptr);
        EXPECT_EQ(create(qor("parent/o"), 4), QOR_E_RESOURCE) << member;
        ASSERT_EQ(log.messages.size(), 1u) << member;
        EXPECT_EQ(log.messages[0], recorded(QOR_E_RESOURCE,
                                            os("parent/o") + member, 2101,
                                            ENAMETOOLONG))
            << member;
        EXPECT_EQ(entries(os("parent")), Names{}) << member;
        EXPECT_EQ(qor_fault_calls(QF_unlink), 2) << member;
        EXPECT_EQ(qor_fault_calls(QF_rmdir), 1) << member;
    }
}

TEST_F(Create, UndoFailuresAreRecordedAndLeaveTheRest) {
    MessageLog log;
    qor_fault_filter_path(QF_open, "/.body");
    qor_fault_fail(QF_open, ENOENT, 0, 1);
    // The undo's own removals run in reverse order: ".body" is missing and
    // passed over, ".lock" fails here and is recorded, so the directory
    // removal that follows fails as well.
    qor_fault_filter_path(QF_unlink, "/.lock");
    qor_fault_fail(QF_unlink, EPERM, 0, 1);
    EXPECT_EQ(create(qor("c"), 3), QOR_E_MISSING);
    ASSERT_EQ(log.messages.size(), 3u);
    EXPECT_EQ(log.messages[0],
              recorded(QOR_E_MISSING, os("c/.body"), 2101, ENOENT));
    EXPECT_EQ(log.messages[1],
              recorded(QOR_E_PERMISSION, os("c/.lock"), 2103, EPERM));
    EXPECT_EQ(log.messages[2],
              recorded(QOR_E_NOT_EMPTY, os("c"), 2104, ENOTEMPTY));
    EXPECT_EQ(entries(os("c")), Names{".lock"});
}

TEST_F(Create, MemberThatVanishedDuringUndoIsPassedOverQuietly) {
    // Another process removed ".lock" before the undo got to it.
    MessageLog log;
    qor_fault_filter_path(QF_unlink, "/.lock");
    qor_fault_fail(QF_unlink, ENOENT, 0, 1);
    qor_fault_filter_path(QF_open, "/.body");
    qor_fault_fail(QF_open, EIO, 0, 1);
    EXPECT_EQ(create(qor("c"), 3), QOR_E_IO);
    ASSERT_EQ(log.messages.size(), 2u);  // the failure, then rmdir's
    EXPECT_EQ(log.messages[1],
              recorded(QOR_E_NOT_EMPTY, os("c"), 2104, ENOTEMPTY));
}

TEST_F(Create, MemberPathThatDoesNotTranslateUndoesTheDirectory) {
    // A directory path that translates, whose "/.lock" is too long to.
    std::string dir = os("");
    dir.pop_back();
    while (dir.size() < 4093 - 200) {
        dir += "/" + std::string(199, 'd');
        make_dir(dir);
    }
    dir += "/" + std::string(4093 - dir.size() - 1, 'e');
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(create("@" + dir, 2), QOR_E_UNTRANSLATABLE);
    EXPECT_FALSE(qor_test::exists(dir));
    EXPECT_EQ(qor_fault_calls(QF_mkdir), 1);
    EXPECT_EQ(qor_fault_calls(QF_rmdir), 1);
    EXPECT_TRUE(log.messages.empty());
}

// ---- A full disc ----------------------------------------------------------------

TEST_F(Create, FullDiscOnMakeDirectoryRetriesOnceThenRecords) {
    qor_test::DiscFullHandler handler({0, 1});
    MessageLog log;
    qor_fault_fail(QF_mkdir, ENOSPC, 0, -1);
    EXPECT_EQ(create(qor("o"), 4), QOR_E_RESOURCE);
    EXPECT_EQ(qor_fault_calls(QF_mkdir), 2);
    ASSERT_EQ(handler.calls.size(), 2u);
    for (const auto &c : handler.calls) {
        EXPECT_EQ(c.reason, "QOR_GIVE_MESSAGE_TEXT");
        EXPECT_EQ(c.os_error, ENOSPC);
        EXPECT_EQ(c.context, 2102);
        EXPECT_EQ(c.path, os("o"));
    }
    EXPECT_ONE_RECORDED(log, QOR_E_RESOURCE, os("o"), 2102, ENOSPC);
    EXPECT_FALSE(qor_test::exists(os("o")));
}

TEST_F(Create, FullDiscOnEachMemberRetriesOnceThenRecordsAndUndoes) {
    for (const char *member : {"/.lock", "/.body", "/.index"}) {
        const std::string name = std::string("o") + (member + 2);
        qor_test::DiscFullHandler handler({0, 1});
        MessageLog log;
        qor_fault_reset();
        qor_fault_filter_path(QF_open, member);
        qor_fault_fail(QF_open, ENOSPC, 0, -1);
        EXPECT_EQ(create(qor(name), 4), QOR_E_RESOURCE) << member;
        EXPECT_EQ(qor_fault_injected(QF_open), 2) << member;
        ASSERT_EQ(handler.calls.size(), 2u) << member;
        EXPECT_EQ(handler.calls[1].context, 2101);
        EXPECT_EQ(handler.calls[1].path, os(name) + member);
        ASSERT_EQ(log.messages.size(), 1u) << member;
        EXPECT_EQ(log.messages[0],
                  recorded(QOR_E_RESOURCE, os(name) + member, 2101, ENOSPC));
        EXPECT_FALSE(qor_test::exists(os(name))) << member;
    }
}

TEST_F(Create, FullDiscOnPlainFileRetriesOnceThenRecords) {
    qor_test::DiscFullHandler handler({0, 1});
    MessageLog log;
    qor_fault_fail(QF_open, ENOSPC, 0, -1);
    EXPECT_EQ(create(qor("f"), 0), QOR_E_RESOURCE);
    EXPECT_EQ(qor_fault_calls(QF_open), 2);
    EXPECT_EQ(handler.calls.size(), 2u);
    EXPECT_ONE_RECORDED(log, QOR_E_RESOURCE, os("f"), 2101, ENOSPC);
}

TEST_F(Create, FullDiscThatClearsSucceedsWithoutMessage) {
    qor_test::DiscFullHandler handler({0});
    MessageLog log;
    qor_fault_fail(QF_mkdir, ENOSPC, 0, 1);
    EXPECT_EQ(create(qor("o"), 4), 0);
    EXPECT_EQ(handler.calls.size(), 1u);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(entries(os("o")), (Names{".body", ".index", ".lock"}));
}

TEST_F(Create, FullDiscWithoutHandlerIsRecordedAtOnce) {
    MessageLog log;
    qor_fault_fail(QF_mkdir, ENOSPC, 0, -1);
    EXPECT_EQ(create(qor("o"), 1), QOR_E_RESOURCE);
    EXPECT_EQ(qor_fault_calls(QF_mkdir), 1);
    EXPECT_EQ(log.messages.size(), 1u);
}

// ---- Interruptions ----------------------------------------------------------------

TEST_F(Create, HundredInterruptedOpensThenSuccess) {
    MessageLog log;
    qor_fault_filter_path(QF_open, "/.body");
    qor_fault_fail(QF_open, EINTR, 0, 100);
    EXPECT_EQ(create(qor("o"), 4), 0);
    EXPECT_EQ(qor_fault_injected(QF_open), 100);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(entries(os("o")), (Names{".body", ".index", ".lock"}));
}

TEST_F(Create, HundredAndOneInterruptedOpensAreRecorded) {
    MessageLog log;
    qor_fault_filter_path(QF_open, "/.index");
    qor_fault_fail(QF_open, EINTR, 0, 101);
    EXPECT_EQ(create(qor("o"), 4), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_injected(QF_open), 101);
    EXPECT_ONE_RECORDED(log, QOR_E_INTERRUPTED, os("o/.index"), 2101, EINTR);
    EXPECT_FALSE(qor_test::exists(os("o")));
}

TEST_F(Create, InterruptedMkdirIsNotRetried) {
    MessageLog log;
    qor_fault_fail(QF_mkdir, EINTR, 0, 1);
    EXPECT_EQ(create(qor("o"), 4), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_calls(QF_mkdir), 1);
    EXPECT_ONE_RECORDED(log, QOR_E_INTERRUPTED, os("o"), 2102, EINTR);
}

TEST_F(Create, FailingCloseOfANewMemberIsRecordedAndUndone) {
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_close, EIO, 1, 1);  // the ".body" just made
    EXPECT_EQ(create(qor("o"), 3), QOR_E_IO);
    EXPECT_ONE_RECORDED(log, QOR_E_IO, os("o/.body"), 2101, EIO);
    EXPECT_FALSE(qor_test::exists(os("o")));
    // The injected failure kept the real close from running.
    qor_fault_reset();
    close_descriptors_of(os("o/.body"));
}

// ---- Two processes ------------------------------------------------------------------

// Forks a process that waits for a byte on go, then creates the object and
// exits with 0 for success, 1 for 2053, 2 for anything else.
pid_t racer(int go, const std::string &qor_path, unsigned type) {
    const pid_t pid = fork();
    if (pid == 0) {
        char c;
        if (read(go, &c, 1) != 1) _exit(3);
        const int s = QOR_create_object(qor_path.c_str(), type);
        _exit(s == 0 ? 0 : s == QOR_E_EXISTS ? 1 : 2);
    }
    return pid;
}

TEST_F(Create, TwoProcessesCreatingOneObjectOneSucceeds) {
    for (unsigned type : {0u, 1u, 4u}) {
        for (int round = 0; round < 10; ++round) {
            const std::string name =
                "race" + std::to_string(type) + "-" + std::to_string(round);
            int pipe_fds[2];
            ASSERT_EQ(pipe(pipe_fds), 0);
            const pid_t a = racer(pipe_fds[0], qor(name), type);
            const pid_t b = racer(pipe_fds[0], qor(name), type);
            ASSERT_GT(a, 0);
            ASSERT_GT(b, 0);
            close(pipe_fds[0]);
            // Both are released by one write of two bytes.
            ASSERT_EQ(write(pipe_fds[1], "gg", 2), 2);
            close(pipe_fds[1]);
            int sa = 0, sb = 0;
            ASSERT_EQ(waitpid(a, &sa, 0), a);
            ASSERT_EQ(waitpid(b, &sb, 0), b);
            ASSERT_TRUE(WIFEXITED(sa) && WIFEXITED(sb));
            const int ea = WEXITSTATUS(sa), eb = WEXITSTATUS(sb);
            EXPECT_TRUE((ea == 0 && eb == 1) || (ea == 1 && eb == 0))
                << name << ": " << ea << " " << eb;
            unsigned t = 99;
            EXPECT_EQ(QOR_type_of_object(qor(name).c_str(), &t), 0);
            EXPECT_EQ(t, type);
        }
    }
}

}  // namespace
}  // namespace objects_test
