// Temporary objects created atomically under unpredictable names.

#include <errno.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

#include "path_fixture.h"

namespace paths_test {
namespace {

class Temporary : public testing::Test {
  protected:
    void SetUp() override { setenv("QOR_TMP", dir_.path().c_str(), 1); }
    void TearDown() override { unsetenv("QOR_TMP"); }
    // The leaf of a created qor path, which must lie in the directory.
    std::string leaf_of(const std::string &path) {
        const std::string d = dir_.path() + "/";
        EXPECT_EQ(path.substr(0, d.size()), d);
        return path.substr(d.size());
    }
    qor_test::TempDir dir_;
};

// The names in a host directory.
std::set<std::string> entries_in(const std::string &dir) {
    std::set<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d)) {
            const std::string n = e->d_name;
            if (n != "." && n != "..") names.insert(n);
        }
        closedir(d);
    }
    return names;
}

bool random_part_ok(const std::string &s) {
    if (s.size() != 13) return false;
    for (char c : s) {
        if (!((c >= 'a' && c <= 'z') || (c >= '2' && c <= '7'))) return false;
    }
    return true;
}

TEST_F(Temporary, FileIsCreatedPrivateAndOpenForReadingAndWriting) {
    qor_test::MessageLog log;
    char *path = nullptr;
    int fd = -2;
    ASSERT_EQ(QOR_create_temporary_object("pre", 0, "txt", &path, &fd), 0);
    ASSERT_NE(path, nullptr);
    ASSERT_GE(fd, 0);
    const std::string leaf = leaf_of(path);
    ASSERT_EQ(leaf.size(), 3u + 13u + 4u);
    EXPECT_EQ(leaf.substr(0, 3), "pre");
    EXPECT_TRUE(random_part_ok(leaf.substr(3, 13))) << leaf;
    EXPECT_EQ(leaf.substr(16), ".txt");
    const std::string os = dir_ / leaf;
    struct stat st;
    ASSERT_EQ(lstat(os.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    ASSERT_EQ(write(fd, "abc", 3), 3);
    EXPECT_EQ(qor_test::read_file(os), "abc");
    EXPECT_TRUE(log.messages.empty());
    close(fd);
    QOR_free(path);
}

TEST_F(Temporary, DirectoryIsCreatedPrivateAndOpen) {
    char *path = nullptr;
    int fd = -2;
    ASSERT_EQ(QOR_create_temporary_object(nullptr, 1, nullptr, &path, &fd),
              0);
    const std::string leaf = leaf_of(path);
    ASSERT_EQ(leaf.size(), 14u);
    EXPECT_TRUE(random_part_ok(leaf.substr(0, 13))) << leaf;
    EXPECT_EQ(leaf[13], '.');
    struct stat st;
    ASSERT_EQ(lstat((dir_ / leaf).c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    struct stat by_fd;
    ASSERT_EQ(fstat(fd, &by_fd), 0);
    EXPECT_EQ(by_fd.st_ino, st.st_ino);
    close(fd);
    QOR_free(path);
}

TEST_F(Temporary, NamesDifferFromCallToCall) {
    std::set<std::string> seen;
    for (int i = 0; i < 50; ++i) {
        char *path = nullptr;
        int fd = -1;
        ASSERT_EQ(QOR_create_temporary_object("t", 0, "x", &path, &fd), 0);
        seen.insert(path);
        close(fd);
        QOR_free(path);
    }
    EXPECT_EQ(seen.size(), 50u);
}

TEST_F(Temporary, NameThatExistsIsDrawnAgain) {
    qor_test::MessageLog log;
    qor_fault_fail(QF_open, EEXIST, 0, 3);
    qor_fault_fail(QF_open64, EEXIST, 0, 3);
    char *path = nullptr;
    int fd = -1;
    ASSERT_EQ(QOR_create_temporary_object("t", 0, "x", &path, &fd), 0);
    EXPECT_EQ(qor_fault_calls(QF_open) + qor_fault_calls(QF_open64), 4);
    EXPECT_TRUE(log.messages.empty());
    close(fd);
    QOR_free(path);
}

TEST_F(Temporary, HundredNamesThatExistAreRecordedOnce) {
    qor_test::MessageLog log;
    qor_fault_fail(QF_mkdir, EEXIST, 0, -1);
    char *path = reinterpret_cast<char *>(1);
    int fd = 7;
    EXPECT_EQ(QOR_create_temporary_object("t", 1, "x", &path, &fd),
              QOR_E_EXISTS);
    EXPECT_EQ(qor_fault_calls(QF_mkdir), 100);
    EXPECT_EQ(path, nullptr);
    EXPECT_EQ(fd, -1);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].number, QOR_E_EXISTS - 2000);
    EXPECT_TRUE(entries_in(dir_.path()).empty());
}

TEST_F(Temporary, FailingCreateIsRecordedWithItsContext) {
    qor_test::MessageLog log;
    qor_fault_fail(QF_open, EACCES, 0, 1);
    qor_fault_fail(QF_open64, EACCES, 0, 1);
    char *path = nullptr;
    int fd = -1;
    EXPECT_EQ(QOR_create_temporary_object("t", 0, nullptr, &path, &fd),
              QOR_E_PERMISSION);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].number, QOR_E_PERMISSION - 2000);
    EXPECT_EQ(log.messages[0].parameters[1],
              qor_test::MessageLog::text_of(QOR_CTX_CREATE_FILE - 2000));
    EXPECT_EQ(path, nullptr);
}

TEST_F(Temporary, DirectoryThatCannotBeOpenedIsRemovedAgain) {
    qor_test::MessageLog log;
    qor_fault_fail(QF_open, EMFILE, 0, 1);
    qor_fault_fail(QF_open64, EMFILE, 0, 1);
    char *path = nullptr;
    int fd = -1;
    EXPECT_EQ(QOR_create_temporary_object("t", 1, nullptr, &path, &fd),
              QOR_E_RESOURCE);
    EXPECT_EQ(log.messages.size(), 1u);
    EXPECT_TRUE(entries_in(dir_.path()).empty());
}

TEST_F(Temporary, FullDiscAsksTheHandler) {
    qor_test::MessageLog log;
    qor_test::DiscFullHandler handler({0});
    qor_fault_fail(QF_mkdir, ENOSPC, 0, 1);
    char *path = nullptr;
    int fd = -1;
    ASSERT_EQ(QOR_create_temporary_object("t", 1, nullptr, &path, &fd), 0);
    ASSERT_EQ(handler.calls.size(), 1u);
    EXPECT_EQ(handler.calls[0].context, QOR_CTX_CREATE_DIRECTORY);
    close(fd);
    QOR_free(path);
}

TEST_F(Temporary, MissingResultsGive2051WithoutMessage) {
    qor_test::MessageLog log;
    char *path = nullptr;
    int fd = -1;
    EXPECT_EQ(QOR_create_temporary_object("t", 0, nullptr, nullptr, &fd),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(QOR_create_temporary_object("t", 0, nullptr, &path, nullptr),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(path, nullptr);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_TRUE(entries_in(dir_.path()).empty());
}

TEST_F(Temporary, InterruptedRandomSourceOrCreateIsMadeAgain) {
    qor_fault_fail(QF_open, EINTR, 0, 5);
    qor_fault_fail(QF_open64, EINTR, 0, 5);
    char *path = nullptr;
    int fd = -1;
    ASSERT_EQ(QOR_create_temporary_object("t", 0, nullptr, &path, &fd), 0);
    close(fd);
    QOR_free(path);
}

}  // namespace
}  // namespace paths_test

namespace paths_test {
namespace {

// The proposed names are predictable from the process id, and a dangling
// link at one counts as free: whoever creates that name without O_EXCL
// creates the link's target instead. (Kept on purpose; see
// QOR_create_temporary_object.)
TEST_F(Temporary, ProposedNameIsPredictableAndADanglingLinkCountsAsFree) {
    char digits[16];
    snprintf(digits, sizeof digits, "%05d", static_cast<int>(getpid() % 100000));
    const std::string first = dir_ / (std::string("pa") + digits + ".x");
    ASSERT_EQ(symlink((dir_ / "target").c_str(), first.c_str()), 0);
    char *name = QOR_temporary_object_name("p", 0, "x");
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(std::string(name), first);
    QOR_free(name);
}


// Kept on purpose by the path grammar: a component starting with "@" is a
// host path of its own, so a QOR_TMP whose path holds a directory "@t"
// names the directory "t" beside it. Temporary objects are then made
// there, in a directory the owner of QOR_TMP's value may not control.
TEST_F(Temporary, TemporaryDirectoryWithAComponentStartingWithAtNamesAnother) {
    const std::string at = dir_.path() + "/@t";
    const std::string plain = dir_.path() + "/t";
    ASSERT_EQ(mkdir(at.c_str(), 0700), 0);
    ASSERT_EQ(mkdir(plain.c_str(), 0700), 0);
    setenv("QOR_TMP", at.c_str(), 1);
    char *path = nullptr;
    int fd = -1;
    ASSERT_EQ(QOR_create_temporary_object(nullptr, 0, nullptr, &path, &fd), 0);
    close(fd);
    QOR_free(path);
    EXPECT_TRUE(entries_in(at).empty());
    const std::set<std::string> made = entries_in(plain);
    ASSERT_EQ(made.size(), 1u);
    EXPECT_EQ(unlink((plain + "/" + *made.begin()).c_str()), 0);
    rmdir(at.c_str());
    rmdir(plain.c_str());
    // A component whose second character is ":" (a drive in the grammar)
    // counts as "." when it is not first: the objects land in its parent.
    const std::string drive = dir_.path() + "/a:b";
    ASSERT_EQ(mkdir(drive.c_str(), 0700), 0);
    setenv("QOR_TMP", drive.c_str(), 1);
    ASSERT_EQ(QOR_create_temporary_object("d", 0, nullptr, &path, &fd), 0);
    close(fd);
    QOR_free(path);
    EXPECT_TRUE(entries_in(drive).empty());
    std::set<std::string> beside = entries_in(dir_.path());
    beside.erase("a:b");
    ASSERT_EQ(beside.size(), 1u);
    EXPECT_EQ(beside.begin()->substr(0, 1), "d");
    EXPECT_EQ(unlink((dir_.path() + "/" + *beside.begin()).c_str()), 0);
    rmdir(drive.c_str());
}


// The made object is always one new entry of the temporary directory: a
// prefix or suffix that would put it elsewhere (a "/" restarting the path
// at the root, a leading "@" taken as a host path) is refused
// before anything is made.
TEST_F(Temporary, PrefixOrSuffixThatLeavesTheDirectoryIsRefused) {
    qor_test::MessageLog log;
    struct Case {
        const char *prefix;
        const char *suffix;
    };
    for (const Case c : {Case{"/y", nullptr}, Case{"a/b", "t"},
                         Case{nullptr, "t/../../x"}, Case{"@", nullptr},
                         Case{"@/etc/", nullptr}, Case{"@x", "t"}}) {
        char *path = reinterpret_cast<char *>(1);
        int fd = 5;
        EXPECT_EQ(QOR_create_temporary_object(c.prefix, 0, c.suffix, &path,
                                              &fd),
                  QOR_E_INVALID)
            << (c.prefix ? c.prefix : "") << " " << (c.suffix ? c.suffix : "");
        EXPECT_EQ(path, nullptr);
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(QOR_create_temporary_object(c.prefix, 1, c.suffix, &path,
                                              &fd),
                  QOR_E_INVALID);
    }
    EXPECT_TRUE(entries_in(dir_.path()).empty());
    EXPECT_TRUE(log.messages.empty());
    // Characters the grammar reads only at a leaf's start are fine inside.
    char *path = nullptr;
    int fd = -1;
    ASSERT_EQ(QOR_create_temporary_object("$(HOME)a@~", 0, "x@", &path, &fd),
              0);
    close(fd);
    EXPECT_EQ(leaf_of(path).substr(0, 10), "$(HOME)a@~");
    QOR_free(path);
}

}  // namespace
}  // namespace paths_test
