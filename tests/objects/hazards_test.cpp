// Behaviours the object store keeps on purpose although they can surprise a
// user. Each test shows one, so that a change to it is noticed; the user's
// side of each is written up in docs/hardening.md.

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "contents_fixture.h"
#include "objects_fixture.h"

namespace objects_test {
namespace {

using Hazard = Store;

// Record locks are the host's advisory locks: closing any descriptor of the
// file in the process drops them, even one opened for something else.
TEST_F(Hazard, ClosingAnyDescriptorOfTheFileDropsTheLock) {
    qor_test::write_file(os("f"), "data");
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("f").c_str(), 0, 0x04, 3, &rec), 0);
    // Another process sees the lock...
    {
        Holder other(os("f"), F_RDLCK);
        EXPECT_FALSE(other.held());
    }
    // ...until this process opens and closes the file once more.
    const int fd = ::open(os("f").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ::close(fd);
    {
        Holder other(os("f"), F_RDLCK);
        EXPECT_TRUE(other.held());
    }
    EXPECT_EQ(rec->lock_mode, 3u);  // the record still believes it holds it
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

// Copying onto an existing plain file truncates and rewrites it in place:
// every other name of the same file sees the new bytes, and a reader in
// between sees an empty or half-written file.
TEST_F(Hazard, CopyOntoAnExistingTargetRewritesItInPlace) {
    qor_test::write_file(os("s"), "new bytes");
    qor_test::write_file(os("t"), "old bytes, longer");
    ASSERT_EQ(::link(os("t").c_str(), os("other-name").c_str()), 0);
    struct stat before;
    ASSERT_EQ(::stat(os("t").c_str(), &before), 0);
    EXPECT_EQ(QOR_copy_object(qor("s").c_str(), 0, qor("t").c_str()),
              QOR_E_TARGET_EXISTS);
    struct stat after;
    ASSERT_EQ(::stat(os("t").c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(qor_test::read_file(os("other-name")), "new bytes");
}

// New files and directories take their modes from 0777 and the umask: with
// a umask of 0 every member file is executable and writable by all.
TEST_F(Hazard, ModesComeFrom0777AndTheUmask) {
    const mode_t old = ::umask(0);
    EXPECT_EQ(QOR_create_object(qor("o").c_str(), 4), 0);
    ::umask(old);
    EXPECT_EQ(mode_of(os("o")), 0777u);
    for (const char *m : {"/.lock", "/.body", "/.index"}) {
        EXPECT_EQ(mode_of(os("o") + m), 0777u) << m;
    }
    ::umask(077);
    EXPECT_EQ(QOR_create_object(qor("p").c_str(), 3), 0);
    ::umask(022);
    EXPECT_EQ(mode_of(os("p/.body")), 0700u);
}


// A plain-file object is the path the caller names, and that path may be a
// link: a truncating open follows it and empties the file it names.
TEST_F(Hazard, TruncatingOpenOfAPlainFileObjectFollowsALinkAtItsPath) {
    qor_test::write_file(os("real"), "the real file's bytes");
    ASSERT_EQ(symlink(os("real").c_str(), os("f").c_str()), 0);
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("f").c_str(), 0, 0x14, 3, &rec), 0);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_test::read_file(os("real")), "");
    struct stat st;
    ASSERT_EQ(lstat(os("f").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
}

}  // namespace
}  // namespace objects_test
