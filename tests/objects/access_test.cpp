// Ownership, permissions and accessibility: the edge cases of testing,
// reading and setting accessibility, the grant and revoke orders, the plain
// setters and readers, names of ids, sizes, times, identity and the
// supplementary-group cache.

#include <grp.h>
#include <pwd.h>
#include <sys/time.h>

#include "objects_fixture.h"

namespace objects_test {
namespace {

using Access = Store;

int32_t accessible(const std::string &qor_path, unsigned type, unsigned kind,
                   int *status = nullptr) {
    int32_t flag = 77;
    const int s = QOR_is_accessible(qor_path.c_str(), type, kind, &flag);
    if (status != nullptr) *status = s;
    return flag;
}

int32_t readable_for(const std::string &qor_path, unsigned type, int cls,
                     unsigned kind, int *status = nullptr) {
    int32_t flag = 77;
    const int s =
        QOR_read_accessibility(qor_path.c_str(), type, cls, kind, &flag);
    if (status != nullptr) *status = s;
    return flag;
}

// Runs fn in a child that has become the unprivileged user with the given
// supplementary groups; returns what it printed.
std::string as_user_with_groups(std::vector<gid_t> groups,
                                const std::function<void()> &fn) {
    const auto r = qor_test::run_in_child([&] {
        if (setgroups(groups.size(), groups.data()) != 0 ||
            setgid(qor_test::unprivileged_gid()) != 0 ||
            setuid(qor_test::unprivileged_uid()) != 0) {
            printf("cannot drop privileges\n");
            return;
        }
        fn();
    });
    return r.out + r.err;
}

// ---- Testing ---------------------------------------------------------------

TEST_F(Access, CdirWithoutLockIsStillReadable) {
    make_object(os("c"), 3, 0755);
    ASSERT_EQ(unlink(os("c/.lock").c_str()), 0);
    MessageLog log;
    int s = -1;
    EXPECT_EQ(accessible(qor("c"), 3, 1, &s), 1);
    EXPECT_EQ(s, 0);
    EXPECT_EQ(accessible(qor("c"), 3, 0), 1);
    EXPECT_EQ(accessible(qor("c"), 3, 2), 1);
    EXPECT_EQ(accessible(qor("c"), 3, 3), 1);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, LockableDirectoryWithoutLockDoesNotExist) {
    make_dir(os("d"));
    MessageLog log;
    int s = -1;
    EXPECT_EQ(accessible(qor("d"), 2, 0, &s), 0);
    EXPECT_EQ(s, 0);
    EXPECT_EQ(accessible(qor("d"), 1, 0), 1);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, IdleObjectNeedsEveryMember) {
    for (const char *m : {".lock", ".body", ".index"}) {
        const std::string name = std::string("o") + (m + 1);
        make_object(os(name), 4);
        ASSERT_EQ(unlink((os(name) + "/" + m).c_str()), 0);
        for (unsigned kind = 0; kind <= 3; ++kind) {
            EXPECT_EQ(accessible(qor(name), 4, kind), 0) << m << kind;
        }
    }
}

TEST_F(Access, MissingObjectAnswers0WithoutMessage) {
    MessageLog log;
    for (unsigned type = 0; type <= 4; ++type) {
        for (unsigned kind = 0; kind <= 3; ++kind) {
            int s = -1;
            EXPECT_EQ(accessible(qor("none"), type, kind, &s), 0);
            EXPECT_EQ(s, 0);
        }
    }
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, FileIsNotADirectoryAndTheOtherWayRound) {
    make_file(os("f"));
    make_dir(os("d"));
    EXPECT_EQ(accessible(qor("f"), 0, 0), 1);
    EXPECT_EQ(accessible(qor("f"), 1, 0), 0);
    EXPECT_EQ(accessible(qor("d"), 1, 0), 1);
    EXPECT_EQ(accessible(qor("d"), 0, 0), 0);
}

TEST_F(Access, ModeChecksJudgeEvenRootByItsClassBits) {
    // The checks that test a mode read the permission bits of the caller's
    // own class: root owning a file without owner bits may not read it.
    make_file(os("f"), 0077);
    make_dir(os("d"), 0077);
    EXPECT_EQ(accessible(qor("f"), 0, 0), 1);
    EXPECT_EQ(accessible(qor("f"), 0, 1), 0);
    EXPECT_EQ(accessible(qor("f"), 0, 2), 0);
    EXPECT_EQ(accessible(qor("d"), 1, 1), 0);
    ASSERT_EQ(chmod(os("f").c_str(), 0400), 0);
    ASSERT_EQ(chmod(os("d").c_str(), 0500), 0);
    EXPECT_EQ(accessible(qor("f"), 0, 1), 1);
    EXPECT_EQ(accessible(qor("f"), 0, 2), 0);
    EXPECT_EQ(accessible(qor("d"), 1, 1), 1);
    EXPECT_EQ(accessible(qor("d"), 1, 3), 1);
    EXPECT_EQ(accessible(qor("d"), 1, 2), 0);
}

TEST_F(Access, DirectoryReadNeedsReadAndSearch) {
    make_dir(os("r"), 0755);
    make_dir(os("rx"), 0755);
    ASSERT_EQ(chown(os("r").c_str(), 4000, 4000), 0);
    ASSERT_EQ(chmod(os("r").c_str(), 0400), 0);
    ASSERT_EQ(chown(os("rx").c_str(), 4000, 4000), 0);
    ASSERT_EQ(chmod(os("rx").c_str(), 0500), 0);
    const std::string out = as_user_with_groups({}, [&] {
        // The unprivileged user is not the owner: class "others" applies.
        printf("%d %d\n", accessible(qor("r"), 1, 1),
               accessible(qor("rx"), 1, 1));
    });
    EXPECT_EQ(out, "0 0\n");
    ASSERT_EQ(chmod(os("r").c_str(), 0004), 0);
    ASSERT_EQ(chmod(os("rx").c_str(), 0005), 0);
    EXPECT_EQ(as_user_with_groups({}, [&] {
                  printf("%d %d\n", accessible(qor("r"), 1, 1),
                         accessible(qor("rx"), 1, 1));
              }),
              "0 1\n");
}

TEST_F(Access, OwnerClassUsesTheRealUserId) {
    make_file(os("f"), 0600);
    ASSERT_EQ(chown(os("f").c_str(), qor_test::unprivileged_uid(), 0), 0);
    EXPECT_EQ(as_user_with_groups({}, [&] {
                  printf("%d %d %d\n", accessible(qor("f"), 0, 1),
                         accessible(qor("f"), 0, 2),
                         accessible(qor("f"), 0, 3));
              }),
              "1 1 0\n");
}

TEST_F(Access, GroupClassUsesTheRealGroupAndSupplementaryGroups) {
    make_file(os("real"), 0040);
    ASSERT_EQ(chown(os("real").c_str(), 0, qor_test::unprivileged_gid()), 0);
    make_file(os("extra"), 0040);
    ASSERT_EQ(chown(os("extra").c_str(), 0, 4242), 0);
    make_file(os("other"), 0040);
    ASSERT_EQ(chown(os("other").c_str(), 0, 4343), 0);
    EXPECT_EQ(as_user_with_groups({4242}, [&] {
                  printf("%d %d %d\n", accessible(qor("real"), 0, 1),
                         accessible(qor("extra"), 0, 1),
                         accessible(qor("other"), 0, 1));
              }),
              "1 1 0\n");
}

TEST_F(Access, SupplementaryGroupsAreReadOnceAndKept) {
    make_file(os("extra"), 0040);
    ASSERT_EQ(chown(os("extra").c_str(), 4000, 4242), 0);
    const auto r = qor_test::run_in_child([&] {
        // Root, not the owner, in group 4242 through its supplementary list.
        gid_t g = 4242;
        if (setgroups(1, &g) != 0) return;
        qor_fault_reset();
        const int a = accessible(qor("extra"), 0, 1);
        // Leaving the group later is not seen: the list is never refreshed.
        if (setgroups(0, nullptr) != 0) return;
        const int b = accessible(qor("extra"), 0, 1);
        printf("%d %d %ld\n", a, b, qor_fault_calls(QF_getgroups));
    });
    EXPECT_EQ(r.out, "1 1 1\n") << r.err;
}

TEST_F(Access, FailingGroupReadLeavesAnEmptyListForGood) {
    make_file(os("extra"), 0040);
    ASSERT_EQ(chown(os("extra").c_str(), 0, 4242), 0);
    EXPECT_EQ(as_user_with_groups({4242}, [&] {
                  qor_fault_reset();
                  qor_fault_fail(QF_getgroups, EINVAL, 0, 1);
                  const int a = accessible(qor("extra"), 0, 1);
                  const int b = accessible(qor("extra"), 0, 1);
                  printf("%d %d %ld\n", a, b, qor_fault_calls(QF_getgroups));
              }),
              "0 0 1\n");
}

TEST_F(Access, GroupsAreNotReadForTheOwner) {
    make_file(os("f"));
    qor_fault_reset();
    EXPECT_EQ(accessible(qor("f"), 0, 1), 1);
    EXPECT_EQ(qor_fault_calls(QF_getgroups), 0);
}

TEST_F(Access, ExecuteOnACompositeNeverChecksTheDirectory) {
    for (unsigned type = 2; type <= 4; ++type) {
        const std::string name = "o" + std::to_string(type);
        make_object(os(name), type, 0755, 0);
        ASSERT_EQ(chmod(os(name).c_str(), 0), 0);
        EXPECT_EQ(accessible(qor(name), type, 3), 1) << type;
        EXPECT_EQ(accessible(qor(name), type, 1), 0) << type;
        // Nor does setting it touch the directory.
        ASSERT_EQ(QOR_set_accessibility(qor(name).c_str(), type, 2, 3, 1), 0);
        EXPECT_EQ(mode_of(os(name)), 0u);
        for (const auto &m : members_of(type)) {
            EXPECT_EQ(mode_of(os(name) + "/" + m), 0755u) << m;
        }
        ASSERT_EQ(QOR_set_accessibility(qor(name).c_str(), type, 2, 3, 0), 0);
        EXPECT_EQ(mode_of(os(name)), 0u);
        for (const auto &m : members_of(type)) {
            EXPECT_EQ(mode_of(os(name) + "/" + m), 0754u) << m;
        }
    }
}

TEST_F(Access, ParentKindsOfAPathWithoutParentGive2051) {
    MessageLog log;
    for (const char *p : {"/", "/tmp", "@/tmp"}) {
        for (unsigned kind : {4u, 5u}) {
            int s = 0;
            EXPECT_EQ(accessible(p, 0, kind, &s), 77) << p;
            EXPECT_EQ(s, QOR_E_UNTRANSLATABLE) << p;
            EXPECT_EQ(readable_for(p, 1, 0, kind, &s), 0) << p;
            EXPECT_EQ(s, QOR_E_UNTRANSLATABLE) << p;
            EXPECT_EQ(QOR_set_accessibility(p, 0, 0, kind, 1),
                      QOR_E_UNTRANSLATABLE);
        }
    }
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, CreateAndRemoveAskForTheParentDirectory) {
    make_dir(os("p"), 0755);
    make_object(os("p/o"), 4);
    ASSERT_EQ(chown(os("p").c_str(), qor_test::unprivileged_uid(), 0), 0);
    EXPECT_EQ(as_user_with_groups({}, [&] {
                  printf("%d %d %d\n", accessible(qor("p/new"), 0, 4),
                         accessible(qor("p/o"), 4, 5),
                         accessible(qor("o"), 4, 4));
              }),
              // The object directory itself is root's: removing needs it.
              "1 0 0\n");
    ASSERT_EQ(chown(os("p/o").c_str(), qor_test::unprivileged_uid(), 0), 0);
    EXPECT_EQ(as_user_with_groups({}, [&] {
                  printf("%d\n", accessible(qor("p/o"), 4, 5));
              }),
              "1\n");
}

TEST_F(Access, UntranslatablePathGives2051WithoutMessage) {
    MessageLog log;
    for (unsigned type = 0; type <= 4; ++type) {
        for (unsigned kind = 0; kind <= 5; ++kind) {
            int s = 0;
            EXPECT_EQ(accessible("rel/x", type, kind, &s), 77);
            EXPECT_EQ(s, QOR_E_UNTRANSLATABLE);
            EXPECT_EQ(readable_for("rel/x", type, 0, kind, &s), 0);
            EXPECT_EQ(s, QOR_E_UNTRANSLATABLE);
            EXPECT_EQ(QOR_set_accessibility("rel/x", type, 0, kind, 1),
                      QOR_E_UNTRANSLATABLE);
        }
    }
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, TypesAndKindsOutsideTheTableAreRefused) {
    make_object(os("o"), 4);
    MessageLog log;
    int s = 0;
    EXPECT_EQ(accessible(qor("o"), 5, 0, &s), 77);
    EXPECT_EQ(s, QOR_E_INVALID);
    EXPECT_EQ(accessible(qor("o"), 0xffffffffu, 1, &s), 77);
    EXPECT_EQ(s, QOR_E_INVALID);
    EXPECT_EQ(accessible(qor("o"), 4, 6, &s), 77);
    EXPECT_EQ(s, QOR_E_INVALID);
    EXPECT_EQ(readable_for(qor("o"), 9, 0, 1, &s), 0);
    EXPECT_EQ(s, QOR_E_INVALID);
    EXPECT_EQ(QOR_set_accessibility(qor("o").c_str(), 4, 0, 99, 1),
              QOR_E_INVALID);
    ASSERT_EQ(log.messages.size(), 5u);
    EXPECT_EQ(log.messages[0], recorded(QOR_E_INVALID, os("o"), 2109, EINVAL));
    EXPECT_EQ(log.messages[4], recorded(QOR_E_INVALID, os("o"), 2110, EINVAL));
    EXPECT_EQ(accessible("rel", 7, 0, &s), 77);
    EXPECT_EQ(s, QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(log.messages.size(), 5u);
}

// ---- Reading for a class -----------------------------------------------------

TEST_F(Access, ReadingKindZeroAnswers0) {
    make_object(os("o"), 4, 0777, 0777);
    MessageLog log;
    for (unsigned type = 1; type <= 4; ++type) {
        for (int cls = 0; cls <= 2; ++cls) {
            int s = -1;
            EXPECT_EQ(readable_for(qor("o"), type, cls, 0, &s), 0);
            EXPECT_EQ(s, 0);
        }
    }
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, ReadingNeedsOneOfTheBitsOnEveryFile) {
    make_object(os("o"), 4, 0644, 0711);
    // Search alone passes the read-and-search test of the directory.
    EXPECT_EQ(readable_for(qor("o"), 4, 2, 1), 1);
    EXPECT_EQ(readable_for(qor("o"), 4, 1, 1), 1);
    EXPECT_EQ(readable_for(qor("o"), 4, 2, 2), 0);
    EXPECT_EQ(readable_for(qor("o"), 4, 0, 2), 1);
    ASSERT_EQ(chmod(os("o/.body").c_str(), 0640), 0);
    EXPECT_EQ(readable_for(qor("o"), 4, 2, 1), 0);
    EXPECT_EQ(readable_for(qor("o"), 4, 1, 1), 1);
    // A class outside 0 to 2 has no bits.
    EXPECT_EQ(readable_for(qor("o"), 4, 3, 1), 0);
    EXPECT_EQ(readable_for(qor("o"), 4, -1, 1), 0);
}

TEST_F(Access, ReadingPassesOverTheMissingLockOfACdirOnly) {
    make_object(os("c"), 3);
    ASSERT_EQ(unlink(os("c/.lock").c_str()), 0);
    MessageLog log;
    EXPECT_EQ(readable_for(qor("c"), 3, 0, 1), 1);
    EXPECT_TRUE(log.messages.empty());
    // A lockable directory's ".lock" is required: its stat is recorded.
    int s = 0;
    EXPECT_EQ(readable_for(qor("c"), 2, 0, 1, &s), 0);
    EXPECT_EQ(s, QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, QOR_E_MISSING, os("c/.lock"), 2109, ENOENT);
}

// ---- Setting for a class ------------------------------------------------------

TEST_F(Access, SettingKindZeroRecordsEinval) {
    make_object(os("o"), 4);
    make_file(os("f"));
    MessageLog log;
    EXPECT_EQ(QOR_set_accessibility(qor("o").c_str(), 4, 1, 0, 1),
              QOR_E_INVALID);
    EXPECT_EQ(QOR_set_accessibility(qor("f").c_str(), 0, 1, 0, 0),
              QOR_E_INVALID);
    ASSERT_EQ(log.messages.size(), 2u);
    EXPECT_EQ(log.messages[0], recorded(QOR_E_INVALID, os("o"), 2110, EINVAL));
    EXPECT_EQ(log.messages[1], recorded(QOR_E_INVALID, os("f"), 2110, EINVAL));
    EXPECT_EQ(mode_of(os("o")), 0755u);
}

// Which of the files had the bit when the n-th chmod failed.
// The object's directory is changed with chmod, its members through a
// checked descriptor with fchmod: fn says which of the two fails.
std::string after_failing_chmod(const std::string &dir, qor_fault_fn fn,
                                int n, int32_t grant, mode_t bit) {
    qor_fault_reset();
    qor_fault_fail(fn, EPERM, n, 1);
    MessageLog log;
    const int s = QOR_set_accessibility(("@" + dir).c_str(), 4, 1, 2, grant);
    std::string seen = std::to_string(s) + ":";
    for (const char *f : {"", "/.lock", "/.body", "/.index"}) {
        seen += (mode_of(dir + f) & bit) ? "1" : "0";
    }
    if (log.messages.size() == 1) {
        seen += " " + log.messages[0].parameters[0].substr(dir.size());
    }
    return seen;
}

TEST_F(Access, GrantOpensTheDirectoryFirstThenLockBodyIndex) {
    make_object(os("o"), 4);
    const std::string d = os("o");
    // The n-th chmod fails: the ones before it have been made.
    // (The failed file follows the status and the bits: nothing for the
    // directory itself.)
    EXPECT_EQ(after_failing_chmod(d, QF_chmod, 0, 1, 020), "2055:0000 ");
    make_object(os("p"), 4);
    const std::string p = os("p");
    EXPECT_EQ(after_failing_chmod(p, QF_fchmod, 0, 1, 020),
              "2055:1000 /.lock");
    EXPECT_EQ(after_failing_chmod(p, QF_fchmod, 1, 1, 020),
              "2055:1100 /.body");
    EXPECT_EQ(after_failing_chmod(p, QF_fchmod, 1, 1, 020),
              "2055:1110 /.index");
    qor_fault_reset();
    EXPECT_EQ(QOR_set_accessibility(("@" + p).c_str(), 4, 1, 2, 1), 0);
    EXPECT_EQ(mode_of(p + "/.index"), 0664u);
    // All set: granting again makes no call at all.
    qor_fault_reset();
    EXPECT_EQ(QOR_set_accessibility(("@" + p).c_str(), 4, 1, 2, 1), 0);
    EXPECT_EQ(qor_fault_calls(QF_chmod), 0);
    EXPECT_EQ(qor_fault_calls(QF_fchmod), 0);
    EXPECT_EQ(qor_fault_calls(QF_stat), 4);
}

TEST_F(Access, RevokeClosesIndexBodyLockThenTheDirectory) {
    make_object(os("o"), 4, 0775, 0775);
    const std::string d = os("o");
    EXPECT_EQ(after_failing_chmod(d, QF_fchmod, 0, 0, 020),
              "2055:1111 /.index");
    EXPECT_EQ(after_failing_chmod(d, QF_fchmod, 1, 0, 020),
              "2055:1110 /.body");
    EXPECT_EQ(after_failing_chmod(d, QF_fchmod, 1, 0, 020),
              "2055:1100 /.lock");
    EXPECT_EQ(after_failing_chmod(d, QF_chmod, 0, 0, 020), "2055:1000 ");
    qor_fault_reset();
    EXPECT_EQ(QOR_set_accessibility(("@" + d).c_str(), 4, 1, 2, 0), 0);
    for (const char *f : {"", "/.lock", "/.body", "/.index"}) {
        EXPECT_EQ(mode_of(d + f), 0755u) << f;
    }
    qor_fault_reset();
    EXPECT_EQ(QOR_set_accessibility(("@" + d).c_str(), 4, 1, 2, 0), 0);
    EXPECT_EQ(qor_fault_calls(QF_chmod), 0);
}

TEST_F(Access, GrantAndRevokeChangeOnlyTheClassBits) {
    make_object(os("o"), 3, 04640, 02750);
    ASSERT_EQ(chmod(os("o/.body").c_str(), 04640), 0);
    ASSERT_EQ(QOR_set_accessibility(qor("o").c_str(), 3, 2, 1, 1), 0);
    EXPECT_EQ(mode_of(os("o")), 02755u);  // read and search: 05
    EXPECT_EQ(mode_of(os("o/.body")), 04644u);
    EXPECT_EQ(mode_of(os("o/.lock")), 04644u);
    ASSERT_EQ(QOR_set_accessibility(qor("o").c_str(), 3, 0, 1, 0), 0);
    EXPECT_EQ(mode_of(os("o")), 02255u);
    EXPECT_EQ(mode_of(os("o/.body")), 04244u);
    // A class outside 0 to 2 changes nothing and succeeds.
    qor_fault_reset();
    ASSERT_EQ(QOR_set_accessibility(qor("o").c_str(), 3, 7, 1, 1), 0);
    EXPECT_EQ(qor_fault_calls(QF_chmod), 0);
}

TEST_F(Access, SettingPassesOverTheMissingLockOfACdir) {
    make_object(os("c"), 3, 0600, 0700);
    ASSERT_EQ(unlink(os("c/.lock").c_str()), 0);
    MessageLog log;
    EXPECT_EQ(QOR_set_accessibility(qor("c").c_str(), 3, 2, 2, 1), 0);
    EXPECT_EQ(mode_of(os("c")), 0702u);
    EXPECT_EQ(mode_of(os("c/.body")), 0602u);
    EXPECT_FALSE(qor_test::exists(os("c/.lock")));
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, SettingRecordsStatAndChmodFailures) {
    make_object(os("o"), 2);
    MessageLog log;
    ASSERT_EQ(unlink(os("o/.lock").c_str()), 0);
    // Revoking reaches ".lock" first: missing.
    EXPECT_EQ(QOR_set_accessibility(qor("o").c_str(), 2, 0, 1, 0),
              QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, QOR_E_MISSING, os("o/.lock"), 2109, ENOENT);
    EXPECT_EQ(mode_of(os("o")), 0755u);
    // Granting reaches the directory first and changes it before failing.
    EXPECT_EQ(QOR_set_accessibility(qor("o").c_str(), 2, 2, 2, 1),
              QOR_E_MISSING);
    EXPECT_EQ(mode_of(os("o")), 0757u);
    qor_fault_fail(QF_chmod, EROFS, 0, 1);
    EXPECT_EQ(QOR_set_accessibility(qor("o").c_str(), 2, 1, 2, 1),
              QOR_E_PERMISSION);
    ASSERT_EQ(log.messages.size(), 3u);
    EXPECT_EQ(log.messages[2],
              recorded(QOR_E_PERMISSION, os("o"), 2110, EROFS));
}

TEST_F(Access, RemoveKindTouchesTheObjectDirectoryAndTheParent) {
    make_dir(os("p"), 0700);
    make_object(os("p/o"), 3, 0600, 0700);
    ASSERT_EQ(QOR_set_accessibility(qor("p/o").c_str(), 3, 1, 5, 1), 0);
    EXPECT_EQ(mode_of(os("p")), 0720u);
    EXPECT_EQ(mode_of(os("p/o")), 0720u);
    EXPECT_EQ(mode_of(os("p/o/.body")), 0600u);
    ASSERT_EQ(QOR_set_accessibility(qor("p/o").c_str(), 3, 1, 4, 0), 0);
    EXPECT_EQ(mode_of(os("p")), 0700u);
    EXPECT_EQ(mode_of(os("p/o")), 0720u);
}

// ---- Plain setters and readers -------------------------------------------------

TEST_F(Access, PermissionsAreSetAndReadWithTheTypeBits) {
    make_file(os("f"));
    make_dir(os("d"));
    MessageLog log;
    EXPECT_EQ(QOR_set_permissions(qor("f").c_str(), 0, 0640), 0);
    EXPECT_EQ(QOR_set_permissions(qor("d").c_str(), 1, 02711), 0);
    uint32_t mode = 0;
    EXPECT_EQ(QOR_read_permissions(qor("f").c_str(), 0, &mode), 0);
    EXPECT_EQ(mode, S_IFREG | 0640u);
    EXPECT_EQ(QOR_read_permissions(qor("d").c_str(), 1, &mode), 0);
    EXPECT_EQ(mode, S_IFDIR | 02711u);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, PermissionFailuresAreRecorded) {
    MessageLog log;
    uint32_t mode = 5;
    EXPECT_EQ(QOR_set_permissions(qor("none").c_str(), 0, 0600),
              QOR_E_MISSING);
    EXPECT_EQ(QOR_read_permissions(qor("none").c_str(), 1, &mode),
              QOR_E_MISSING);
    EXPECT_EQ(mode, 5u);
    ASSERT_EQ(log.messages.size(), 2u);
    EXPECT_EQ(log.messages[0],
              recorded(QOR_E_MISSING, os("none"), 2110, ENOENT));
    EXPECT_EQ(log.messages[1],
              recorded(QOR_E_MISSING, os("none"), 2109, ENOENT));
    EXPECT_EQ(QOR_set_permissions("rel", 0, 0600), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_read_permissions("rel", 1, &mode), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(log.messages.size(), 2u);
}

TEST_F(Access, ChmodOfSomeoneElsesFileIsRefusedAsUnprivilegedUser) {
    make_file(os("f"));
    EXPECT_EQ(as_user_with_groups({}, [&] {
                  MessageLog log;
                  const int s = QOR_set_permissions(qor("f").c_str(), 0, 0777);
                  printf("%d %d\n", s,
                         log.messages.size() == 1 &&
                             log.messages[0] == recorded(QOR_E_PERMISSION,
                                                         os("f"), 2110,
                                                         EPERM));
              }),
              "2055 1\n");
}

TEST_F(Access, OwnershipIsSetAndReadCutTo16Bits) {
    make_file(os("f"));
    MessageLog log;
    const QOR_ownership o{1234, 5678};
    EXPECT_EQ(QOR_ref_set_ownership(qor("f").c_str(), 0, &o), 0);
    QOR_ownership got{0, 0};
    EXPECT_EQ(QOR_read_ownership(qor("f").c_str(), 0, &got), 0);
    EXPECT_EQ(got.user, 1234);
    EXPECT_EQ(got.group, 5678);
    ASSERT_EQ(chown(os("f").c_str(), 70000, 65535), 0);
    EXPECT_EQ(QOR_read_ownership(qor("f").c_str(), 0, &got), 0);
    EXPECT_EQ(got.user, static_cast<int16_t>(70000 & 0xffff));
    EXPECT_EQ(got.group, -1);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, OwnershipWithUserMinusOneChangesOnlyTheGroup) {
    make_dir(os("d"));
    ASSERT_EQ(chown(os("d").c_str(), 1234, 5678), 0);
    EXPECT_EQ(QOR_set_ownership(qor("d").c_str(), 1, QOR_ownership{-1, 42}),
              0);
    struct stat st;
    ASSERT_EQ(stat(os("d").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 1234u);
    EXPECT_EQ(st.st_gid, 42u);
    EXPECT_EQ(QOR_set_ownership(qor("d").c_str(), 1, QOR_ownership{77, -1}),
              0);
    ASSERT_EQ(stat(os("d").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 77u);
    EXPECT_EQ(st.st_gid, 42u);
}

TEST_F(Access, OwnershipByValueIsOneWordWithTheUserInTheLowHalf) {
    make_file(os("f"));
    // Called as the suite's C code calls it: a 32-bit word.
    auto by_word = reinterpret_cast<int (*)(const char *, int32_t, uint32_t)>(
        reinterpret_cast<void (*)()>(&QOR_set_ownership));
    EXPECT_EQ(by_word(qor("f").c_str(), 0, (4321u << 16) | 1234u), 0);
    struct stat st;
    ASSERT_EQ(stat(os("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 1234u);
    EXPECT_EQ(st.st_gid, 4321u);
    EXPECT_EQ(by_word(qor("f").c_str(), 0, 0xffff0000u | 99u), 0);
    ASSERT_EQ(stat(os("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 99u);
    EXPECT_EQ(st.st_gid, 4321u);
}

TEST_F(Access, OwnershipFailuresAreRecorded) {
    make_file(os("f"));
    MessageLog log;
    QOR_ownership o{1, 1};
    EXPECT_EQ(QOR_read_ownership(qor("none").c_str(), 0, &o), QOR_E_MISSING);
    EXPECT_EQ(o.user, 1);
    qor_fault_fail(QF_chown, EPERM, 0, 1);
    EXPECT_EQ(QOR_set_ownership(qor("f").c_str(), 0, o), QOR_E_PERMISSION);
    ASSERT_EQ(log.messages.size(), 2u);
    EXPECT_EQ(log.messages[0],
              recorded(QOR_E_MISSING, os("none"), 2111, ENOENT));
    EXPECT_EQ(log.messages[1],
              recorded(QOR_E_PERMISSION, os("f"), 2112, EPERM));
    EXPECT_EQ(QOR_ref_set_ownership("rel", 0, &o), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_read_ownership("rel", 1, &o), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(log.messages.size(), 2u);
}

// ---- Names of ids -----------------------------------------------------------------

TEST_F(Access, NamesOfKnownIdsInBasicSpace) {
    MessageLog log;
    QOR_ownership_names n{nullptr, nullptr};
    EXPECT_EQ(QOR_read_ownership_name(QOR_ownership{0, 0}, &n), 0);
    EXPECT_STREQ(n.user, "root");
    EXPECT_STREQ(n.group, "root");
    QOR_free(n.user);
    QOR_free(n.group);
    ASSERT_NE(getpwuid(1), nullptr);
    ASSERT_NE(getgrgid(2), nullptr);
    const QOR_ownership o{1, 2};
    EXPECT_EQ(QOR_ref_read_ownership_name(&o, &n), 0);
    EXPECT_STREQ(n.user, getpwuid(1)->pw_name);
    EXPECT_STREQ(n.group, getgrgid(2)->gr_name);
    QOR_free(n.user);
    QOR_free(n.group);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, NamesInTheSharedFreestore) {
    QOR_FS_mark m;
    QOR_FS_save(&QOR_SH_fs_allocator, &m);
    QOR_ownership_names n{nullptr, nullptr};
    EXPECT_EQ(QOR_SH_read_ownership_name(QOR_ownership{0, 0}, &n), 0);
    EXPECT_STREQ(n.user, "root");
    EXPECT_STREQ(n.group, "root");
    const QOR_ownership o{0, 0};
    EXPECT_EQ(QOR_SH_ref_read_ownership_name(&o, &n), 0);
    EXPECT_STREQ(n.user, "root");
    QOR_FS_restore(&QOR_SH_fs_allocator, &m);
}

TEST_F(Access, UnknownIdsGive2070WithoutMessage) {
    ASSERT_EQ(getpwuid(31111), nullptr);
    ASSERT_EQ(getgrgid(31111), nullptr);
    MessageLog log;
    QOR_ownership_names n{nullptr, nullptr};
    EXPECT_EQ(QOR_read_ownership_name(QOR_ownership{31111, 0}, &n),
              QOR_E_INVALID);
    // The user is known, the group not: the user's copy is freed again
    // (the sanitizer build would report it otherwise).
    EXPECT_EQ(QOR_read_ownership_name(QOR_ownership{0, 31111}, &n),
              QOR_E_INVALID);
    EXPECT_EQ(n.user, nullptr);
    EXPECT_EQ(n.group, nullptr);
    QOR_FS_mark m;
    QOR_FS_save(&QOR_SH_fs_allocator, &m);
    EXPECT_EQ(QOR_SH_read_ownership_name(QOR_ownership{0, 31111}, &n),
              QOR_E_INVALID);
    EXPECT_EQ(QOR_SH_read_ownership_name(QOR_ownership{-2, 0}, &n),
              QOR_E_INVALID);
    QOR_FS_restore(&QOR_SH_fs_allocator, &m);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, IdsAbove32767ComeBackNegativeAndNameNoOne) {
    // 16-bit ids: "nobody" (65534) reads as -2, which is looked up as the
    // host id 4294967294.
    make_file(os("f"));
    ASSERT_EQ(chown(os("f").c_str(), 65534, 65534), 0);
    QOR_ownership o{0, 0};
    ASSERT_EQ(QOR_read_ownership(qor("f").c_str(), 0, &o), 0);
    EXPECT_EQ(o.user, -2);
    EXPECT_EQ(o.group, -2);
    MessageLog log;
    QOR_ownership_names n{nullptr, nullptr};
    EXPECT_EQ(QOR_read_ownership_name(o, &n), QOR_E_INVALID);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, MinusOneIsLookedUpSignExtended) {
    qor_fault_reset();
    QOR_ownership_names n{nullptr, nullptr};
    // uid_t -1 names no user.
    EXPECT_EQ(QOR_read_ownership_name(QOR_ownership{-1, 0}, &n),
              QOR_E_INVALID);
    EXPECT_EQ(qor_fault_calls(QF_getpwuid), 1);
    EXPECT_EQ(qor_fault_calls(QF_getgrgid), 0);
}

TEST_F(Access, InterruptedLookupsAreTriedAgain) {
    QOR_ownership_names n{nullptr, nullptr};
    qor_fault_fail(QF_getpwuid, EINTR, 0, 100);
    qor_fault_fail(QF_getgrgid, EINTR, 0, 100);
    EXPECT_EQ(QOR_read_ownership_name(QOR_ownership{0, 0}, &n), 0);
    EXPECT_STREQ(n.user, "root");
    EXPECT_STREQ(n.group, "root");
    QOR_free(n.user);
    QOR_free(n.group);
    EXPECT_EQ(qor_fault_calls(QF_getpwuid), 101);
    EXPECT_EQ(qor_fault_calls(QF_getgrgid), 101);
}

TEST_F(Access, HundredAndOneInterruptedLookupsGive2070) {
    MessageLog log;
    QOR_ownership_names n{nullptr, nullptr};
    qor_fault_fail(QF_getpwuid, EINTR, 0, 101);
    EXPECT_EQ(QOR_read_ownership_name(QOR_ownership{0, 0}, &n),
              QOR_E_INVALID);
    EXPECT_EQ(qor_fault_calls(QF_getpwuid), 101);
    qor_fault_reset();
    qor_fault_fail(QF_getgrgid, EINTR, 0, 101);
    EXPECT_EQ(QOR_read_ownership_name(QOR_ownership{0, 0}, &n),
              QOR_E_INVALID);
    EXPECT_EQ(qor_fault_calls(QF_getgrgid), 101);
    // A lookup failing otherwise is not tried again.
    qor_fault_reset();
    qor_fault_fail(QF_getpwuid, EIO, 0, 1);
    EXPECT_EQ(QOR_read_ownership_name(QOR_ownership{0, 0}, &n),
              QOR_E_INVALID);
    EXPECT_EQ(qor_fault_calls(QF_getpwuid), 1);
    EXPECT_TRUE(log.messages.empty());
}

// ---- Sizes, times, identity -----------------------------------------------------

TEST_F(Access, ContentsSizeOfFileAndBody) {
    qor_test::write_file(os("f"), "12345");
    make_object(os("c"), 3);
    qor_test::write_file(os("c/.body"), "abc");
    make_object(os("i"), 4);
    qor_test::write_file(os("i/.body"), std::string(70000, 'x'));
    MessageLog log;
    uint64_t size = 9;
    EXPECT_EQ(QOR_read_contents_size(qor("f").c_str(), 0, &size), 0);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(QOR_read_contents_size(qor("c").c_str(), 3, &size), 0);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(QOR_read_contents_size(qor("i").c_str(), 4, &size), 0);
    EXPECT_EQ(size, 70000u);
    // Types above 4 read the ".body" as well.
    EXPECT_EQ(QOR_read_contents_size(qor("c").c_str(), 9, &size), 0);
    EXPECT_EQ(size, 3u);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, ContentsSizeOfADirectoryTypeIsEisdir) {
    make_object(os("d"), 1);
    MessageLog log;
    uint64_t size = 9;
    EXPECT_EQ(QOR_read_contents_size(qor("d").c_str(), 1, &size),
              QOR_E_WRONG_KIND);
    EXPECT_EQ(QOR_read_contents_size(qor("none").c_str(), 2, &size),
              QOR_E_WRONG_KIND);
    EXPECT_EQ(size, 9u);
    ASSERT_EQ(log.messages.size(), 2u);
    EXPECT_EQ(log.messages[0],
              recorded(QOR_E_WRONG_KIND, os("d"), 2113, EISDIR));
    EXPECT_EQ(QOR_read_contents_size("rel", 1, &size), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(log.messages.size(), 2u);
}

TEST_F(Access, ContentsSizeFailureIsRecorded) {
    MessageLog log;
    uint64_t size = 9;
    EXPECT_EQ(QOR_read_contents_size(qor("c").c_str(), 3, &size),
              QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, QOR_E_MISSING, os("c/.body"), 2113, ENOENT);
}

void set_times(const std::string &path, time_t atime, time_t mtime) {
    struct timeval tv[2] = {{atime, 0}, {mtime, 0}};
    ASSERT_EQ(utimes(path.c_str(), tv), 0);
}

TEST_F(Access, AccessTimesComeFromTheFileDirectoryOrBody) {
    make_file(os("f"));
    make_object(os("l"), 2);
    make_object(os("i"), 4);
    set_times(os("f"), 1000, 2000);
    set_times(os("l"), 3000, 4000);
    set_times(os("i/.body"), 5000, 6000);
    set_times(os("i"), 7000, 8000);
    struct stat st;
    ASSERT_EQ(stat(os("i/.body").c_str(), &st), 0);
    MessageLog log;
    int64_t t[3] = {0, 0, 0};
    EXPECT_EQ(QOR_read_access_times(qor("f").c_str(), 0, t), 0);
    EXPECT_EQ(t[0], 1000);
    EXPECT_EQ(t[2], 2000);
    EXPECT_EQ(QOR_read_access_times(qor("l").c_str(), 2, t), 0);
    EXPECT_EQ(t[QOR_TIME_ACCESS], 3000);
    EXPECT_EQ(t[QOR_TIME_MODIFY], 4000);
    EXPECT_EQ(QOR_read_access_times(qor("l").c_str(), 1, t), 0);
    EXPECT_EQ(t[0], 3000);
    EXPECT_EQ(QOR_read_access_times(qor("i").c_str(), 4, t), 0);
    EXPECT_EQ(t[0], 5000);
    EXPECT_EQ(t[1], st.st_ctime);
    EXPECT_EQ(t[2], 6000);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, AccessTimesFailureIsRecorded) {
    make_object(os("l"), 2);
    MessageLog log;
    int64_t t[3] = {1, 2, 3};
    EXPECT_EQ(QOR_read_access_times(qor("l").c_str(), 3, t), QOR_E_MISSING);
    EXPECT_EQ(t[0], 1);
    EXPECT_ONE_RECORDED(log, QOR_E_MISSING, os("l/.body"), 2114, ENOENT);
    EXPECT_EQ(QOR_read_access_times("rel", 0, t), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(log.messages.size(), 1u);
}

TEST_F(Access, IdentityIsDeviceAndInode) {
    make_file(os("f"));
    ASSERT_EQ(link(os("f").c_str(), os("hard").c_str()), 0);
    ASSERT_EQ(symlink(os("f").c_str(), os("soft").c_str()), 0);
    make_file(os("g"));
    struct stat st;
    ASSERT_EQ(stat(os("f").c_str(), &st), 0);
    const std::string expected = std::to_string(st.st_dev) + "_" +
                                 std::to_string(st.st_ino);
    MessageLog log;
    std::vector<std::string> ids;
    for (const char *n : {"f", "hard", "soft", "g"}) {
        char *id = nullptr;
        ASSERT_EQ(QOR_read_identity(qor(n).c_str(), 0, &id), 0);
        ids.emplace_back(id);
        QOR_free(id);
    }
    EXPECT_EQ(ids[0], expected);
    EXPECT_EQ(ids[1], expected);
    EXPECT_EQ(ids[2], expected);
    EXPECT_NE(ids[3], expected);
    QOR_FS_mark m;
    QOR_FS_save(&QOR_SH_fs_allocator, &m);
    char *id = nullptr;
    ASSERT_EQ(QOR_SH_read_identity(qor("f").c_str(), 1, &id), 0);
    EXPECT_EQ(id, expected);
    QOR_FS_restore(&QOR_SH_fs_allocator, &m);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Access, IdentityFailureIsRecorded) {
    MessageLog log;
    char *id = nullptr;
    EXPECT_EQ(QOR_read_identity(qor("none").c_str(), 1, &id), QOR_E_MISSING);
    EXPECT_EQ(QOR_SH_read_identity(qor("none").c_str(), 0, &id),
              QOR_E_MISSING);
    EXPECT_EQ(id, nullptr);
    ASSERT_EQ(log.messages.size(), 2u);
    EXPECT_EQ(log.messages[0],
              recorded(QOR_E_MISSING, os("none"), 2115, ENOENT));
    EXPECT_EQ(QOR_read_identity("rel", 1, &id), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(log.messages.size(), 2u);
}

}  // namespace
}  // namespace objects_test
