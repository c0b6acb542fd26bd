// Object locks: the table keyed by absolute qor path, conversion in place,
// locks seen from another process, waiting requests, unlocking, and the
// refusals for plain files and directories.

#include "contents_fixture.h"

namespace objects_test {
namespace {

class ObjectLocks : public Store {
  protected:
    void SetUp() override {
        Store::SetUp();
        make_object(os("o"), 3);
    }
    void TearDown() override {
        // Leave no lock behind for the next test's process.
        QOR_unlock_object(qor("o").c_str(), 3);
        Store::TearDown();
    }
    unsigned mode_of_lock(const std::string &name) {
        unsigned mode = 99;
        EXPECT_EQ(QOR_object_lock_mode(qor(name).c_str(), 3, &mode), 0);
        return mode;
    }
    // Another process asking for an object lock; its exit status is the
    // status less 2000 (0 on success), 99 if it saw a message.
    int other_process_locks(unsigned request, const std::string &name = "o") {
        const std::string path = qor(name);
        return Partner([&](Partner &) {
                   MessageLog log;
                   const int status = QOR_lock_object(path.c_str(), 3, request);
                   if (!log.messages.empty()) return 99;
                   return status == 0 ? 0 : status - 2000;
               })
            .finish();
    }
};

TEST_F(ObjectLocks, PlainFilesAndDirectoriesCannotBeLocked) {
    make_object(os("f"), 0);
    make_object(os("d"), 1);
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(QOR_lock_object(qor("f").c_str(), 0, 3), QOR_E_WRONG_KIND);
    EXPECT_EQ(QOR_lock_object(qor("d").c_str(), 1, 1), QOR_E_WRONG_KIND);
    EXPECT_EQ(QOR_unlock_object(qor("d").c_str(), 1), QOR_E_WRONG_KIND);
    EXPECT_EQ(qor_fault_calls(QF_open), 0);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{
                  recorded(2057, os("f"), QOR_CTX_LOCK_OBJECT, ENOTDIR),
                  recorded(2057, os("d"), QOR_CTX_LOCK_OBJECT, ENOTDIR),
                  recorded(2057, os("d"), QOR_CTX_UNLOCK_OBJECT, ENOTDIR)}));
    EXPECT_EQ(QOR_lock_object("relative", 1, 1), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_unlock_object("relative", 0), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(log.messages.size(), 3u);
}

TEST_F(ObjectLocks, TypeAboveFourGives2070) {
    MessageLog log;
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 5, 3), QOR_E_INVALID);
    EXPECT_ONE_RECORDED(log, 2070, os("o"), QOR_CTX_LOCK_OBJECT, EINVAL);
}

TEST_F(ObjectLocks, UnlockingWhatThisProcessHasNotLockedGives2061) {
    MessageLog log;
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 3), QOR_E_NOT_LOCKED);
    EXPECT_EQ(QOR_unlock_object(qor("elsewhere").c_str(), 4),
              QOR_E_NOT_LOCKED);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(ObjectLocks, EveryCompositeTypeCanBeLocked) {
    make_object(os("l"), 2);
    make_object(os("i"), 4);
    MessageLog log;
    EXPECT_EQ(QOR_lock_object(qor("l").c_str(), 2, 3), 0);
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 3, 1), 0);
    EXPECT_EQ(QOR_lock_object(qor("i").c_str(), 4, 4), 0);
    EXPECT_EQ(mode_of_lock("l"), 3u);
    EXPECT_EQ(mode_of_lock("o"), 1u);
    EXPECT_EQ(mode_of_lock("i"), 3u);
    EXPECT_EQ(QOR_unlock_object(qor("l").c_str(), 2), 0);
    EXPECT_EQ(QOR_unlock_object(qor("i").c_str(), 4), 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(ObjectLocks, TheLockIsARecordLockOnTheLockMember) {
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), 0);
    EXPECT_EQ(descriptors_on(os("o")).size(), 1u);
    EXPECT_EQ(descriptors_on(os("o/.lock")).size(), 1u);
    EXPECT_EQ(Partner([&](Partner &) {
                  return conflicting_lock(os("o/.lock"), F_RDLCK);
              }).finish(),
              F_WRLCK);
    EXPECT_TRUE(close_on_exec(descriptors_on(os("o/.lock"))[0]));
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 3), 0);
    EXPECT_TRUE(descriptors_on(os("o")).empty());
}

TEST_F(ObjectLocks, SharedThenExclusiveConvertsAndAnotherProcessGets2060) {
    MessageLog log;
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 1), 0);
    EXPECT_EQ(other_process_locks(1), 0);
    EXPECT_EQ(other_process_locks(3), 60);
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), 0);
    EXPECT_EQ(mode_of_lock("o"), 3u);
    EXPECT_EQ(descriptors_on(os("o")).size(), 1u);  // the same entry
    EXPECT_EQ(other_process_locks(1), 60);
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 1), 0);  // and back
    EXPECT_EQ(mode_of_lock("o"), 1u);
    EXPECT_EQ(other_process_locks(1), 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(ObjectLocks, RequestZeroChangesNothing) {
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), 0);
    qor_fault_reset();
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 3, 0), 0);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 0);
    EXPECT_EQ(mode_of_lock("o"), 3u);
}

TEST_F(ObjectLocks, RequestZeroOnANewObjectKeepsAnEntryWithoutALock) {
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 3, 0), 0);
    EXPECT_EQ(mode_of_lock("o"), 0u);
    EXPECT_EQ(descriptors_on(os("o/.lock")).size(), 1u);
    EXPECT_EQ(other_process_locks(3), 0);
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 3), 0);
    EXPECT_TRUE(descriptors_on(os("o")).empty());
}

TEST_F(ObjectLocks, SpellingsOfOnePathShareOneEntry) {
    make_dir(os("sub"));
    const std::string other = qor("sub") + "/../o";
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 1), 0);
    ASSERT_EQ(QOR_lock_object(other.c_str(), 3, 3), 0);
    EXPECT_EQ(mode_of_lock("o"), 3u);
    EXPECT_EQ(descriptors_on(os("o")).size(), 1u);
    EXPECT_EQ(QOR_unlock_object(other.c_str(), 3), 0);
    EXPECT_EQ(mode_of_lock("o"), 0u);
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 3), QOR_E_NOT_LOCKED);
}

TEST_F(ObjectLocks, QueryIgnoresTheTypeAndAnswers0ForUnknownPaths) {
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 1), 0);
    unsigned mode = 9;
    EXPECT_EQ(QOR_object_lock_mode(qor("o").c_str(), 0, &mode), 0);
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(QOR_object_lock_mode(qor("p").c_str(), 3, &mode), 0);
    EXPECT_EQ(mode, 0u);
    mode = 9;
    EXPECT_EQ(QOR_object_lock_mode("relative", 3, &mode), 0);
    EXPECT_EQ(mode, 0u);
}

TEST_F(ObjectLocks, UnlockLetsAnotherProcessIn) {
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), 0);
    EXPECT_EQ(other_process_locks(1), 60);
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 3), 0);
    EXPECT_EQ(other_process_locks(3), 0);
    EXPECT_EQ(mode_of_lock("o"), 0u);
}

TEST_F(ObjectLocks, FailingUnlockStillRemovesTheEntry) {
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), 0);
    MessageLog log;
    qor_fault_fail(QF_fcntl, ENOLCK, 0, 1);
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 3), QOR_E_RESOURCE);
    EXPECT_ONE_RECORDED(log, 2058, os("o/.lock"), QOR_CTX_UNLOCK_CONTENTS, ENOLCK);
    EXPECT_EQ(mode_of_lock("o"), 0u);
    EXPECT_TRUE(descriptors_on(os("o")).empty());
}

// The failing unlock's message reaches an output callback that places 300
// more object locks, which regrows the table's index while the unlock is
// under way: the entry still goes, and every new lock is still found.
TEST_F(ObjectLocks, LocksPlacedByAnOutputCallbackDuringAnUnlockStayFound) {
    struct Placer {
        std::vector<std::string> paths;
        bool placed = false;
        static void output(void *, void *client, void *) {
            auto *self = static_cast<Placer *>(client);
            if (self->placed) return;
            self->placed = true;
            for (const std::string &p : self->paths) {
                QOR_lock_object(p.c_str(), 3, 1);
            }
        }
    } placer;
    for (int i = 0; i < 300; ++i) {
        const std::string name = "x" + std::to_string(i);
        make_object(os(name), 3);
        placer.paths.push_back(qor(name));
    }
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), 0);
    QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE", Placer::output, &placer);
    qor_fault_fail(QF_fcntl, ENOLCK, 0, 1);
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 3), QOR_E_RESOURCE);
    QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE", nullptr, nullptr);
    qor_fault_reset();
    ASSERT_TRUE(placer.placed);
    EXPECT_EQ(mode_of_lock("o"), 0u);
    EXPECT_TRUE(descriptors_on(os("o")).empty());
    // Nothing of the old entry is left to be found: a new one comes and goes.
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), 0);
    EXPECT_EQ(mode_of_lock("o"), 3u);
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 3), 0);
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 3), QOR_E_NOT_LOCKED);
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(mode_of_lock("x" + std::to_string(i)), 1u) << i;
        EXPECT_EQ(QOR_unlock_object(placer.paths[static_cast<size_t>(i)].c_str(), 3), 0);
    }
}

TEST_F(ObjectLocks, ConflictOnANewEntryGives2060AndMakesNoEntry) {
    Holder writer(os("o/.lock"), F_WRLCK);
    ASSERT_TRUE(writer.held());
    MessageLog log;
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 3, 1), QOR_E_LOCKED);
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), QOR_E_LOCKED);
    EXPECT_EQ(mode_of_lock("o"), 0u);
    EXPECT_TRUE(descriptors_on(os("o")).empty());
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(ObjectLocks, FailedConversionRemovesTheEntry) {
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 1), 0);
    Holder reader(os("o/.lock"), F_RDLCK);
    ASSERT_TRUE(reader.held());
    MessageLog log;
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), QOR_E_LOCKED);
    EXPECT_EQ(mode_of_lock("o"), 0u);
    EXPECT_TRUE(descriptors_on(os("o")).empty());
    EXPECT_EQ(QOR_unlock_object(qor("o").c_str(), 3), QOR_E_NOT_LOCKED);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(ObjectLocks, WaitingRequestBlocksUntilTheHolderLetsGo) {
    HolderUntilBlocked holder(os("o/.lock"), F_WRLCK);
    ASSERT_TRUE(holder.held());
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), QOR_E_LOCKED);
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 3, 2), 0);
    EXPECT_TRUE(holder.let_go_first());
    EXPECT_EQ(mode_of_lock("o"), 1u);
}

TEST_F(ObjectLocks, MissingObjectGivesTheOpenFailureAndNoEntry) {
    MessageLog log;
    EXPECT_EQ(QOR_lock_object(qor("none").c_str(), 3, 3), QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, 2052, os("none/.lock"), QOR_CTX_OPEN, ENOENT);
    EXPECT_EQ(QOR_unlock_object(qor("none").c_str(), 3), QOR_E_NOT_LOCKED);
}

// A caller that may read but not write the ".lock" gets shared locks
// through a read-only record, and no exclusive one.
TEST_F(ObjectLocks, ReadOnlyLockMemberTakesSharedLocksOnly) {
    ASSERT_EQ(chmod(os("o/.lock").c_str(), 0444), 0);
    const std::string path = qor("o"), lock_os = os("o");
    auto r = qor_test::run_as_unprivileged([&] {
        MessageLog log;
        const int shared = QOR_lock_object(path.c_str(), 3, 1);
        const int exclusive = QOR_lock_object(path.c_str(), 3, 3);
        unsigned mode = 9;
        QOR_object_lock_mode(path.c_str(), 3, &mode);
        printf("%d %d %u", shared, exclusive, mode);
        for (const auto &m : log.messages) {
            printf(" [%d %s %s]", m.number, m.parameters[0].c_str(),
                   m.parameters[1].c_str());
        }
        const int unlocked = QOR_unlock_object(path.c_str(), 3);
        const int fresh = QOR_lock_object(path.c_str(), 3, 3);
        printf(" %d %d %zu\n", unlocked, fresh, log.messages.size());
    });
    ASSERT_TRUE(r.exited) << r.err;
    // The refused exclusive request keeps the shared lock. A first request
    // that is exclusive opens the member for writing, which is refused.
    EXPECT_EQ(r.out, "0 2070 1 [70 " + lock_os + " " +
                         MessageLog::text_of(105) + "] 0 2055 2\n");
}

TEST_F(ObjectLocks, ManyObjectsAtOnce) {
    // More entries than the pool's first block holds.
    for (int i = 0; i < 80; ++i) {
        const std::string name = "m" + std::to_string(i);
        make_object(os(name), 2);
        ASSERT_EQ(QOR_lock_object(qor(name).c_str(), 2, i % 2 ? 1 : 3), 0);
    }
    for (int i = 0; i < 80; i += 3) {
        EXPECT_EQ(QOR_unlock_object(qor("m" + std::to_string(i)).c_str(), 2), 0);
    }
    for (int i = 0; i < 80; ++i) {
        const unsigned expected = i % 3 == 0 ? 0u : (i % 2 ? 1u : 3u);
        EXPECT_EQ(mode_of_lock("m" + std::to_string(i)), expected) << i;
    }
    for (int i = 0; i < 80; ++i) {
        const int status =
            QOR_unlock_object(qor("m" + std::to_string(i)).c_str(), 2);
        EXPECT_EQ(status, i % 3 == 0 ? QOR_E_NOT_LOCKED : 0) << i;
    }
    EXPECT_TRUE(descriptors_on(tmp_.path()).empty());
}

}  // namespace
}  // namespace objects_test
