// The private make and remove steps, tested directly: the unit that holds
// them is compiled into this program, since the library keeps them hidden.

#include "objects/steps.cpp"

#include "objects_fixture.h"

namespace objects_test {
namespace {

using Steps = Store;
namespace steps = qor::objects;

TEST_F(Steps, NullOrUntranslatablePathGives2051WithoutMessage) {
    MessageLog log;
    for (const char *p : {static_cast<const char *>(nullptr), "rel", ""}) {
        EXPECT_EQ(steps::make_directory(p), QOR_E_UNTRANSLATABLE);
        EXPECT_EQ(steps::make_empty_file(p), QOR_E_UNTRANSLATABLE);
        EXPECT_EQ(steps::remove_file(p, true), QOR_E_UNTRANSLATABLE);
        EXPECT_EQ(steps::remove_file(p, false), QOR_E_UNTRANSLATABLE);
        EXPECT_EQ(steps::remove_directory(p), QOR_E_UNTRANSLATABLE);
    }
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Steps, MakeAndRemoveAFileAndADirectory) {
    MessageLog log;
    EXPECT_EQ(steps::make_directory(qor("d").c_str()), 0);
    EXPECT_EQ(steps::make_empty_file(qor("d/f").c_str()), 0);
    EXPECT_EQ(qor_test::read_file(os("d/f")), "");
    EXPECT_EQ(steps::make_directory(qor("d").c_str()), QOR_E_EXISTS);
    EXPECT_EQ(steps::make_empty_file(qor("d/f").c_str()), QOR_E_EXISTS);
    EXPECT_EQ(steps::remove_file(qor("d/f").c_str(), false), 0);
    EXPECT_EQ(steps::remove_directory(qor("d").c_str()), 0);
    EXPECT_FALSE(qor_test::exists(os("d")));
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Steps, QuietRemovalOfAMissingFileGives2052WithoutMessage) {
    MessageLog log;
    EXPECT_EQ(steps::remove_file(qor("none").c_str(), true), QOR_E_MISSING);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Steps, LoudRemovalOfAMissingFileIsRecorded) {
    MessageLog log;
    EXPECT_EQ(steps::remove_file(qor("none").c_str(), false), QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, QOR_E_MISSING, os("none"), 2103, ENOENT);
}

TEST_F(Steps, QuietRemovalRecordsEveryOtherFailure) {
    make_dir(os("d"));
    MessageLog log;
    // Linux refuses to unlink a directory with EISDIR.
    EXPECT_EQ(steps::remove_file(qor("d").c_str(), true), QOR_E_WRONG_KIND);
    EXPECT_ONE_RECORDED(log, QOR_E_WRONG_KIND, os("d"), 2103, EISDIR);
}

TEST_F(Steps, RemovingANonEmptyDirectoryGives2065) {
    make_dir(os("d"));
    make_file(os("d/x"));
    MessageLog log;
    EXPECT_EQ(steps::remove_directory(qor("d").c_str()), QOR_E_NOT_EMPTY);
    EXPECT_ONE_RECORDED(log, QOR_E_NOT_EMPTY, os("d"), 2104, ENOTEMPTY);
    EXPECT_EQ(steps::remove_directory(qor("none").c_str()), QOR_E_MISSING);
    EXPECT_EQ(log.messages.size(), 2u);
}

TEST_F(Steps, MakeDirectoryTranslatesWithRenderMode1AndRemoveAsDirectory) {
    // Both translations give the same text on this host: an anchored path
    // reaches the same directory either way.
    setenv("QOR_ROOT", os("").c_str(), 1);
    EXPECT_EQ(steps::make_directory("_/a"), 0);
    EXPECT_TRUE(qor_test::exists(os("a")));
    EXPECT_EQ(steps::remove_directory("_/a/../a"), 0);
    EXPECT_FALSE(qor_test::exists(os("a")));
}

TEST_F(Steps, StepsRestoreTheSharedFreestore) {
    QOR_FS_mark m;
    QOR_FS_save(&QOR_SH_fs_allocator, &m);
    const QOR_FS_chunk *chunk = QOR_SH_fs_allocator.current_chunk;
    const uint32_t used = chunk != nullptr ? chunk->used : 0;
    EXPECT_EQ(steps::make_directory(qor("d").c_str()), 0);
    EXPECT_EQ(steps::make_empty_file(qor("d/f").c_str()), 0);
    EXPECT_EQ(steps::remove_file(qor("d/f").c_str(), true), 0);
    EXPECT_EQ(steps::remove_directory(qor("d").c_str()), 0);
    EXPECT_EQ(QOR_SH_fs_allocator.current_chunk, chunk);
    if (chunk != nullptr) {
        EXPECT_EQ(chunk->used, used);
    }
}

}  // namespace
}  // namespace objects_test
