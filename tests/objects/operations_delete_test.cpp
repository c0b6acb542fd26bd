// Deleting objects: checked and unchecked, member by member in a fixed
// order, missing members accepted, "dbi.lock" tolerated by the check but
// never removed, object locks dropped on the way, and no undo.

#include "contents_fixture.h"

namespace objects_test {
namespace {

using Names = std::vector<std::string>;

class Delete : public Store {
  protected:
    int del(const std::string &name, unsigned type) {
        return QOR_delete_object(qor(name).c_str(), type);
    }
    int unchecked(const std::string &name, unsigned type) {
        return QOR_unchecked_delete_object(qor(name).c_str(), type);
    }
};

TEST_F(Delete, EveryTypeIsRemovedWhole) {
    MessageLog log;
    for (unsigned type = 0; type <= 4; ++type) {
        const std::string a = "a" + std::to_string(type);
        const std::string b = "b" + std::to_string(type);
        make_object(os(a), type);
        make_object(os(b), type);
        EXPECT_EQ(del(a, type), 0) << type;
        EXPECT_EQ(unchecked(b, type), 0) << type;
        EXPECT_FALSE(qor_test::exists(os(a))) << type;
        EXPECT_FALSE(qor_test::exists(os(b))) << type;
    }
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Delete, MissingPlainFileIsRecorded) {
    MessageLog log;
    EXPECT_EQ(del("f", 0), QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, 2052, os("f"), QOR_CTX_DELETE_FILE, ENOENT);
}

TEST_F(Delete, PlainDirectoryIsNotCheckedButMustBeEmpty) {
    make_dir(os("d"));
    qor_test::write_file(os("d/link"), "x");
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(del("d", 1), QOR_E_NOT_EMPTY);
    EXPECT_EQ(qor_fault_calls(QF_opendir), 0);  // no check
    EXPECT_ONE_RECORDED(log, 2065, os("d"), QOR_CTX_REMOVE_DIRECTORY, ENOTEMPTY);
}

TEST_F(Delete, CheckedDeletionOfACdirWithALinkRemovesNothing) {
    make_object(os("c"), 3);
    qor_test::write_file(os("c/link"), "x");
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(del("c", 3), QOR_E_NOT_EMPTY);
    EXPECT_EQ(qor_fault_calls(QF_unlink) + qor_fault_calls(QF_rmdir), 0);
    EXPECT_EQ(entries(os("c")), (Names{".body", ".lock", "link"}));
    EXPECT_ONE_RECORDED(log, 2065, os("c"), QOR_CTX_REMOVE_DIRECTORY, ENOTEMPTY);
}

TEST_F(Delete, UncheckedDeletionOfACdirWithALinkRemovesTheMembersAndFails) {
    make_object(os("c"), 3);
    qor_test::write_file(os("c/link"), "x");
    MessageLog log;
    EXPECT_EQ(unchecked("c", 3), QOR_E_NOT_EMPTY);
    EXPECT_EQ(entries(os("c")), Names{"link"});
    EXPECT_ONE_RECORDED(log, 2065, os("c"), QOR_CTX_REMOVE_DIRECTORY, ENOTEMPTY);
}

TEST_F(Delete, CheckAllowsExactlyTheMembersOfTheType) {
    // A name that belongs to a richer type is a foreign entry here.
    const struct {
        unsigned type;
        const char *extra;
    } rows[] = {{2, ".body"}, {2, ".index"}, {3, ".index"}, {3, "dbi.lock"},
                {2, "dbi.lock"}, {4, "link"}};
    for (const auto &r : rows) {
        const std::string name = "o" + std::to_string(r.type) + r.extra;
        make_object(os(name), r.type);
        qor_test::write_file(os(name) + "/" + r.extra, "");
        MessageLog log;
        EXPECT_EQ(del(name, r.type), QOR_E_NOT_EMPTY) << name;
        EXPECT_EQ(log.messages.size(), 1u) << name;
        EXPECT_TRUE(qor_test::exists(os(name) + "/.lock")) << name;
    }
}

TEST_F(Delete, DbiLockPassesTheCheckButTheDirectoryRemovalFails) {
    make_object(os("i"), 4);
    qor_test::write_file(os("i/dbi.lock"), "");
    MessageLog log;
    EXPECT_EQ(del("i", 4), QOR_E_NOT_EMPTY);
    EXPECT_EQ(entries(os("i")), Names{"dbi.lock"});
    EXPECT_ONE_RECORDED(log, 2065, os("i"), QOR_CTX_REMOVE_DIRECTORY, ENOTEMPTY);
}

TEST_F(Delete, MissingMembersAreAccepted) {
    make_dir(os("i"));
    qor_test::write_file(os("i/.body"), "");
    MessageLog log;
    EXPECT_EQ(del("i", 4), 0);
    EXPECT_FALSE(qor_test::exists(os("i")));
    make_dir(os("c"));
    EXPECT_EQ(unchecked("c", 3), 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Delete, MembersGoInTheOrderIndexBodyLock) {
    make_object(os("i"), 4);
    // Each member's removal is made to fail in turn: what went before it
    // is gone, it and what comes after stay, and nothing is undone.
    const char *members[] = {".index", ".body", ".lock"};
    for (int failing = 0; failing < 3; ++failing) {
        make_dir(os("o" + std::to_string(failing)));
        for (const char *m : members) {
            qor_test::write_file(os("o" + std::to_string(failing)) + "/" + m,
                                 "");
        }
        const std::string name = "o" + std::to_string(failing);
        const std::string member = os(name) + "/" + members[failing];
        MessageLog log;
        qor_fault_reset();
        qor_fault_fail(QF_unlink, EPERM, 0, 1);
        qor_fault_filter_path(QF_unlink, member.c_str());
        EXPECT_EQ(del(name, 4), QOR_E_PERMISSION);
        Names left;
        for (int k = failing; k < 3; ++k) left.push_back(members[k]);
        std::sort(left.begin(), left.end());
        EXPECT_EQ(entries(os(name)), left) << failing;
        EXPECT_ONE_RECORDED(log, 2055, member, QOR_CTX_DELETE_FILE, EPERM);
    }
    EXPECT_EQ(del("i", 4), 0);
}

TEST_F(Delete, DeletionDropsThisProcesssObjectLock) {
    make_object(os("i"), 4);
    ASSERT_EQ(QOR_lock_object(qor("i").c_str(), 4, 3), 0);
    unsigned mode = 0;
    QOR_object_lock_mode(qor("i").c_str(), 4, &mode);
    ASSERT_EQ(mode, 3u);
    MessageLog log;
    EXPECT_EQ(del("i", 4), 0);
    QOR_object_lock_mode(qor("i").c_str(), 4, &mode);
    EXPECT_EQ(mode, 0u);
    EXPECT_TRUE(descriptors_on(tmp_.path()).empty());
    EXPECT_EQ(QOR_unlock_object(qor("i").c_str(), 4), QOR_E_NOT_LOCKED);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Delete, UntranslatablePathGives2051) {
    MessageLog log;
    EXPECT_EQ(QOR_unchecked_delete_object("relative", 4),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_delete_object("relative", 0), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_delete_object("relative", 1), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_delete_object("relative", 3), QOR_E_UNTRANSLATABLE);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Delete, TypeAboveFourGives2070) {
    make_object(os("i"), 4);
    MessageLog log;
    EXPECT_EQ(del("i", 9), QOR_E_INVALID);
    EXPECT_ONE_RECORDED(log, 2070, os("i"), QOR_CTX_DELETE_FILE, EINVAL);
    EXPECT_EQ(entries(os("i")), (Names{".body", ".index", ".lock"}));
}

}  // namespace
}  // namespace objects_test
