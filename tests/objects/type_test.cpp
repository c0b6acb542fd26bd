// Object layout: type detection by readable member files, member paths,
// and the check of an object directory's entries.

#include <stdlib.h>
#include <sys/sysmacros.h>

#include "objects_fixture.h"

namespace objects_test {
namespace {

using Type = Store;

constexpr unsigned kUntouched = 77;

unsigned type_of(const std::string &qor_path, int *status = nullptr) {
    unsigned t = kUntouched;
    const int s = QOR_type_of_object(qor_path.c_str(), &t);
    if (status != nullptr) *status = s;
    return t;
}

// ---- Type detection ------------------------------------------------------

TEST_F(Type, HostFileIsPlainFile) {
    make_file(os("f"));
    MessageLog log;
    int s = -1;
    EXPECT_EQ(type_of(qor("f"), &s), 0u);
    EXPECT_EQ(s, 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Type, SymbolicLinkToFileIsPlainFile) {
    make_file(os("f"));
    ASSERT_EQ(symlink(os("f").c_str(), os("l").c_str()), 0);
    EXPECT_EQ(type_of(qor("l")), 0u);
}

TEST_F(Type, SymbolicLinkToDirectoryIsFollowed) {
    make_object(os("o"), 4);
    ASSERT_EQ(symlink(os("o").c_str(), os("l").c_str()), 0);
    EXPECT_EQ(type_of(qor("l")), 4u);
}

TEST_F(Type, FifoIsPlainFile) {
    ASSERT_EQ(mkfifo(os("p").c_str(), 0644), 0);
    EXPECT_EQ(type_of(qor("p")), 0u);
}

TEST_F(Type, DeviceIsPlainFile) {
    ASSERT_EQ(mknod(os("null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    EXPECT_EQ(type_of(qor("null")), 0u);
    EXPECT_EQ(type_of("@/dev/null"), 0u);
}

TEST_F(Type, EmptyDirectoryIsPlainDirectory) {
    make_dir(os("d"));
    EXPECT_EQ(type_of(qor("d")), 1u);
}

TEST_F(Type, EveryLayoutGivesItsType) {
    for (unsigned t = 0; t <= 4; ++t) {
        const std::string name = "o" + std::to_string(t);
        make_object(os(name), t);
        EXPECT_EQ(type_of(qor(name)), t) << name;
    }
}

TEST_F(Type, LockAndIndexWithoutBodyIsLockableDirectory) {
    make_dir(os("d"));
    make_file(os("d/.lock"));
    make_file(os("d/.index"));
    EXPECT_EQ(type_of(qor("d")), 2u);
}

TEST_F(Type, BodyWithoutLockIsPlainDirectory) {
    make_dir(os("d"));
    make_file(os("d/.body"));
    make_file(os("d/.index"));
    EXPECT_EQ(type_of(qor("d")), 1u);
}

TEST_F(Type, LockAndBodyIsCdirAndIndexMakesIdleObject) {
    make_object(os("d"), 3);
    EXPECT_EQ(type_of(qor("d")), 3u);
    make_file(os("d/.index"));
    EXPECT_EQ(type_of(qor("d")), 4u);
}

TEST_F(Type, DbiLockHasNoEffect) {
    make_object(os("c"), 3);
    make_file(os("c/dbi.lock"));
    EXPECT_EQ(type_of(qor("c")), 3u);
    make_object(os("i"), 4);
    make_file(os("i/dbi.lock"));
    EXPECT_EQ(type_of(qor("i")), 4u);
}

TEST_F(Type, MemberDirectoriesCountWhenReadable) {
    // Readability is all that is asked: a ".lock" directory will do.
    make_dir(os("d"));
    make_dir(os("d/.lock"));
    EXPECT_EQ(type_of(qor("d")), 2u);
}

TEST_F(Type, UnreadableMembersDecideAsUnprivilegedUser) {
    make_object(os("lock"), 4);
    ASSERT_EQ(chmod(os("lock/.lock").c_str(), 0), 0);
    make_object(os("body"), 4);
    ASSERT_EQ(chmod(os("body/.body").c_str(), 0), 0);
    make_object(os("index"), 4);
    ASSERT_EQ(chmod(os("index/.index").c_str(), 0), 0);
    make_object(os("all"), 4);
    const auto r = qor_test::run_as_unprivileged([&] {
        printf("%u %u %u %u\n", type_of(qor("lock")), type_of(qor("body")),
               type_of(qor("index")), type_of(qor("all")));
    });
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "1 2 3 4\n");
}

TEST_F(Type, MissingObjectGives2052WithoutMessageAndKeepsType) {
    MessageLog log;
    int s = 0;
    EXPECT_EQ(type_of(qor("missing"), &s), kUntouched);
    EXPECT_EQ(s, QOR_E_MISSING);
    EXPECT_EQ(type_of(qor("missing/deeper"), &s), kUntouched);
    EXPECT_EQ(s, QOR_E_MISSING);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Type, UntranslatablePathGives2051WithoutMessage) {
    MessageLog log;
    for (const char *p : {"relative/x", "", "$(QOR_OBJECTS_UNSET)/x", "/..",
                          "@"}) {
        int s = 0;
        EXPECT_EQ(type_of(p, &s), kUntouched) << p;
        EXPECT_EQ(s, QOR_E_UNTRANSLATABLE) << p;
    }
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Type, MemberPathTooLongGives2051) {
    // A directory whose own path translates but whose "/.lock" is longer
    // than a path may be.
    std::string dir = os("");
    dir.pop_back();
    while (dir.size() < 4093 - 200) {
        dir += "/" + std::string(199, 'd');
        make_dir(dir);
    }
    dir += "/" + std::string(4093 - dir.size() - 1, 'e');
    make_dir(dir);
    ASSERT_EQ(dir.size(), 4093u);
    MessageLog log;
    int s = 0;
    EXPECT_EQ(type_of("@" + dir, &s), kUntouched);
    EXPECT_EQ(s, QOR_E_UNTRANSLATABLE);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Type, StatFailureIsRecordedWithContext2128) {
    make_dir(os("d"));
    MessageLog log;
    qor_fault_fail(QF_stat, EIO, 0, 1);
    int s = 0;
    EXPECT_EQ(type_of(qor("d"), &s), kUntouched);
    EXPECT_EQ(s, QOR_E_IO);
    EXPECT_ONE_RECORDED(log, QOR_E_IO, os("d"), 2128, EIO);
}

TEST_F(Type, SearchDeniedIsRecordedAsUnprivilegedUser) {
    make_dir(os("closed"), 0700);
    make_object(os("closed/o"), 4);
    const auto r = qor_test::run_as_unprivileged([&] {
        MessageLog log;
        int s = 0;
        const unsigned t = type_of(qor("closed/o"), &s);
        printf("%u %d %zu %d\n", t, s, log.messages.size(),
               log.messages.size() == 1 &&
                   log.messages[0] == recorded(QOR_E_PERMISSION,
                                               os("closed/o"), 2128, EACCES));
    });
    EXPECT_EQ(r.out, "77 2055 1 1\n") << r.err;
}

TEST_F(Type, MembersAreTestedInOrderLockBodyIndex) {
    make_object(os("o"), 4);
    qor_fault_reset();
    EXPECT_EQ(type_of(qor("o")), 4u);
    EXPECT_EQ(qor_fault_calls(QF_stat), 1);
    EXPECT_EQ(qor_fault_calls(QF_access), 3);
    // A failing ".body" test stops before ".index".
    qor_fault_reset();
    qor_fault_filter_path(QF_access, "/.body");
    qor_fault_fail(QF_access, EACCES, 0, 1);
    EXPECT_EQ(type_of(qor("o")), 2u);
    EXPECT_EQ(qor_fault_calls(QF_access), 2);
    // Any failure of access() counts as unreadable.
    qor_fault_reset();
    qor_fault_filter_path(QF_access, "/.index");
    qor_fault_fail(QF_access, EIO, 0, 1);
    EXPECT_EQ(type_of(qor("o")), 3u);
}

TEST_F(Type, MemberPathsFollowTheQorPathAsGiven) {
    make_object(os("o"), 4);
    make_dir(os("o/sub"));
    make_dir(os("plain"));
    setenv("QOR_OBJECTS_STORE", os("").c_str(), 1);
    setenv("QOR_ROOT", os("").c_str(), 1);
    for (const std::string &p :
         {qor("o/sub/.."), qor("o/."), qor("o/"), qor("plain/../o"),
          std::string("$(QOR_OBJECTS_STORE)/o"), std::string("_/o"),
          std::string("_/plain/_/o"), "/tmp/../" + os("o").substr(1),
          "/nowhere//" + os("o").substr(1)}) {
        EXPECT_EQ(type_of(p), 4u) << p;
    }
    EXPECT_EQ(type_of("_/plain"), 1u);
}

TEST_F(Type, RootDirectoryIsPlainDirectory) {
    EXPECT_EQ(type_of("/"), 1u);
}

// ---- Member paths ----------------------------------------------------------

TEST_F(Type, MemberPathsAreAbsoluteQorPathsInBasicSpace) {
    setenv("QOR_ROOT", "/opt/q", 1);
    struct Row {
        char *(*fn)(const char *);
        const char *expected;
    };
    for (const Row &r : {Row{QOR_lock_path, "/opt/q/data/x/.lock"},
                         Row{QOR_body_path, "/opt/q/data/x/.body"},
                         Row{QOR_index_path, "/opt/q/data/x/.index"}}) {
        char *p = r.fn("_/data/y/../x");
        ASSERT_NE(p, nullptr);
        EXPECT_STREQ(p, r.expected);
        QOR_free(p);
        EXPECT_EQ(r.fn("relative"), nullptr);
        EXPECT_EQ(r.fn(nullptr), nullptr);
    }
}

TEST_F(Type, SharedMemberPathsLiveInTheSharedFreestore) {
    setenv("QOR_ROOT", "/opt/q", 1);
    QOR_FS_mark m;
    QOR_FS_save(&QOR_SH_fs_allocator, &m);
    EXPECT_STREQ(QOR_SH_lock_path("_/x"), "/opt/q/x/.lock");
    EXPECT_STREQ(QOR_SH_body_path("_/x"), "/opt/q/x/.body");
    EXPECT_STREQ(QOR_SH_index_path("_/x"), "/opt/q/x/.index");
    EXPECT_STREQ(QOR_SH_lock_path("/"), "//.lock");
    EXPECT_EQ(QOR_SH_lock_path("x"), nullptr);
    QOR_FS_restore(&QOR_SH_fs_allocator, &m);
}

// ---- Checking a directory --------------------------------------------------

TEST_F(Type, CheckOfEmptyDirectoryWithNoNamesSucceeds) {
    make_dir(os("d"));
    MessageLog log;
    EXPECT_EQ(QOR_check_directory(qor("d").c_str(), nullptr), 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Type, CheckWithOneEntryAndNoNamesRecordsTheDirectory) {
    make_dir(os("d"));
    make_file(os("d/x"));
    MessageLog log;
    EXPECT_EQ(QOR_check_directory(qor("d").c_str(), nullptr),
              QOR_E_NOT_EMPTY);
    EXPECT_ONE_RECORDED(log, QOR_E_NOT_EMPTY, os("d"), 2104, ENOTEMPTY);
}

TEST_F(Type, CheckAcceptsExactlyTheNamesGiven) {
    make_object(os("o"), 4);
    make_file(os("o/dbi.lock"));
    MessageLog log;
    EXPECT_EQ(QOR_check_directory(qor("o").c_str(), ".", "..", ".lock",
                                  ".body", ".index", "dbi.lock", nullptr),
              0);
    EXPECT_TRUE(log.messages.empty());
    // Byte for byte: no prefix, no case folding.
    EXPECT_EQ(QOR_check_directory(qor("o").c_str(), ".lock", ".body",
                                  ".index", "dbi.loc", "DBI.LOCK", nullptr),
              QOR_E_NOT_EMPTY);
    EXPECT_EQ(log.messages.size(), 1u);
}

TEST_F(Type, CheckWithSeventeenOrMoreNamesBehavesAsWithFewer) {
    make_dir(os("d"));
    std::vector<std::string> names;
    for (int i = 0; i < 20; ++i) names.push_back("n" + std::to_string(i));
    for (int i = 0; i < 20; i += 2) make_file(os("d/" + names[i]));
    auto n = [&](int i) { return names[i].c_str(); };
    MessageLog log;
    EXPECT_EQ(QOR_check_directory(qor("d").c_str(), n(0), n(1), n(2), n(3),
                                  n(4), n(5), n(6), n(7), n(8), n(9), n(10),
                                  n(11), n(12), n(13), n(14), n(15), n(16),
                                  n(17), n(18), n(19), nullptr),
              0);
    // The last of 17 names is matched as well as the first.
    make_file(os("d/n16"));
    EXPECT_EQ(QOR_check_directory(qor("d").c_str(), n(0), n(1), n(2), n(3),
                                  n(4), n(5), n(6), n(7), n(8), n(9), n(10),
                                  n(11), n(12), n(13), n(14), n(15), n(16),
                                  n(18), nullptr),
              0);
    EXPECT_TRUE(log.messages.empty());
    // Leaving one present name out of 19 fails.
    EXPECT_EQ(QOR_check_directory(qor("d").c_str(), n(0), n(1), n(2), n(3),
                                  n(4), n(5), n(6), n(7), n(8), n(9), n(10),
                                  n(11), n(12), n(13), n(14), n(15), n(16),
                                  n(17), n(19), nullptr),
              QOR_E_NOT_EMPTY);
    EXPECT_ONE_RECORDED(log, QOR_E_NOT_EMPTY, os("d"), 2104, ENOTEMPTY);
}

TEST_F(Type, CheckOfMissingDirectoryKeepsTheListingStatus) {
    MessageLog log;
    EXPECT_EQ(QOR_check_directory(qor("none").c_str(), nullptr),
              QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, QOR_E_MISSING, os("none"), 2120, ENOENT);
}

TEST_F(Type, CheckOfUntranslatablePathGives2051WithoutMessage) {
    MessageLog log;
    EXPECT_EQ(QOR_check_directory("nowhere", ".lock", nullptr),
              QOR_E_UNTRANSLATABLE);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Type, CheckKeepsAFailingReadOfTheListing) {
    make_dir(os("d"));
    make_file(os("d/x"));
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_readdir, EIO, 0, 1);
    EXPECT_EQ(QOR_check_directory(qor("d").c_str(), "x", nullptr), QOR_E_IO);
    EXPECT_ONE_RECORDED(log, QOR_E_IO, os("d"), 2132, EIO);
    EXPECT_EQ(qor_fault_calls(QF_closedir), 1);
}

}  // namespace
}  // namespace objects_test
