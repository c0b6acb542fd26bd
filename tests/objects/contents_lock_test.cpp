// Record locks on open contents between real processes: conflicts without
// waiting, waiting requests that block until the holder lets go, conversion
// of a held lock in place, unlocking, and the failures of each call.

#include "contents_fixture.h"

namespace objects_test {
namespace {

class ContentsLock : public Store {
  protected:
    void SetUp() override {
        Store::SetUp();
        qor_test::write_file(os("f"), "contents");
    }
    QOR_contents_record *open_f(unsigned flags, unsigned request) {
        QOR_contents_record *rec = nullptr;
        EXPECT_EQ(QOR_open_file(qor("f").c_str(), 0, 0, flags, request, &rec),
                  0);
        return rec;
    }
    // A second process opening "f" through the library with a request;
    // its exit status is the status of the open (0 or 2060 - 2000 = 60).
    int other_process_opens(unsigned flags, unsigned request) {
        const std::string path = qor("f");
        Partner p([&](Partner &) {
            MessageLog log;
            QOR_contents_record *rec = nullptr;
            const int status =
                QOR_open_file(path.c_str(), 0, 0, flags, request, &rec);
            if (status == 0) QOR_close_contents(rec);
            // A message would be a failure of its own.
            if (!log.messages.empty()) return 99;
            return status == 0 ? 0 : status - 2000;
        });
        return p.finish();
    }
};

TEST_F(ContentsLock, ExclusiveRequestAgainstASharedHolderGives2060WithNoMessage) {
    Holder reader(os("f"), F_RDLCK);
    ASSERT_TRUE(reader.held());
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_file(qor("f").c_str(), 0, 0, 0x04, 3, &rec),
              QOR_E_LOCKED);
    EXPECT_EQ(rec, nullptr);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_TRUE(descriptors_on(os("f")).empty());
}

TEST_F(ContentsLock, SharedRequestAgainstAnExclusiveHolderGives2060) {
    Holder writer(os("f"), F_WRLCK);
    ASSERT_TRUE(writer.held());
    MessageLog log;
    QOR_contents_record *rec = open_f(0x01, 0);
    EXPECT_EQ(QOR_lock_contents(rec, 1), QOR_E_LOCKED);
    EXPECT_EQ(rec->lock_mode, 0u);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, SharedLocksOfTwoProcessesCoexist) {
    Holder reader(os("f"), F_RDLCK);
    ASSERT_TRUE(reader.held());
    QOR_contents_record *rec = open_f(0x01, 1);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->lock_mode, 1u);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, SecondProcessGets2060AgainstOurLocks) {
    QOR_contents_record *rec = open_f(0x04, 1);
    EXPECT_EQ(other_process_opens(0x04, 3), 60);
    EXPECT_EQ(other_process_opens(0x01, 1), 0);
    ASSERT_EQ(QOR_lock_contents(rec, 3), 0);
    EXPECT_EQ(other_process_opens(0x01, 1), 60);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(other_process_opens(0x04, 3), 0);
}

// A waiting request at opening returns only after the holder let go.
void waits_for_holder(const std::string &os_path, short held, unsigned flags,
                      unsigned request, const std::string &qor_path) {
    HolderUntilBlocked holder(os_path, held);
    ASSERT_TRUE(holder.held());
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_file(qor_path.c_str(), 0, 0, flags, request, &rec), 0);
    EXPECT_TRUE(holder.let_go_first());
    EXPECT_EQ(rec->lock_mode, request <= 2 ? 1u : 3u);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, ExclusiveWaitingRequestBlocksUntilTheSharedHolderLetsGo) {
    waits_for_holder(os("f"), F_RDLCK, 0x04, 4, qor("f"));
}

TEST_F(ContentsLock, ExclusiveWaitingRequestBlocksUntilTheExclusiveHolderLetsGo) {
    waits_for_holder(os("f"), F_WRLCK, 0x04, 4, qor("f"));
}

TEST_F(ContentsLock, SharedWaitingRequestBlocksUntilTheExclusiveHolderLetsGo) {
    waits_for_holder(os("f"), F_WRLCK, 0x01, 2, qor("f"));
}

TEST_F(ContentsLock, WaitingConversionBlocksUntilTheOtherReaderLetsGo) {
    QOR_contents_record *rec = open_f(0x04, 1);
    HolderUntilBlocked reader(os("f"), F_RDLCK);
    ASSERT_TRUE(reader.held());
    EXPECT_EQ(QOR_lock_contents(rec, 3), QOR_E_LOCKED);
    EXPECT_EQ(rec->lock_mode, 1u);
    ASSERT_EQ(QOR_lock_contents(rec, 4), 0);
    EXPECT_TRUE(reader.let_go_first());
    EXPECT_EQ(rec->lock_mode, 3u);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, ConversionInPlaceBothWays) {
    QOR_contents_record *rec = open_f(0x04, 1);
    const int fd = rec->fd;
    ASSERT_EQ(QOR_lock_contents(rec, 3), 0);
    EXPECT_EQ(rec->lock_mode, 3u);
    EXPECT_EQ(rec->fd, fd);
    EXPECT_EQ(other_process_opens(0x01, 1), 60);
    ASSERT_EQ(QOR_lock_contents(rec, 1), 0);
    EXPECT_EQ(rec->lock_mode, 1u);
    EXPECT_EQ(other_process_opens(0x01, 1), 0);
    EXPECT_EQ(other_process_opens(0x04, 3), 60);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, RequestZeroKeepsTheLockHeld) {
    QOR_contents_record *rec = open_f(0x04, 3);
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(QOR_lock_contents(rec, 0), 0);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 0);
    EXPECT_EQ(rec->lock_mode, 3u);
    EXPECT_EQ(other_process_opens(0x01, 1), 60);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, WrongRequestForTheOpenModeGives2059) {
    MessageLog log;
    QOR_contents_record *ro = open_f(0x01, 0);
    QOR_contents_record *wo = open_f(0x02, 0);
    qor_fault_reset();
    EXPECT_EQ(QOR_lock_contents(ro, 3), QOR_E_BAD_DESCRIPTOR);
    EXPECT_EQ(QOR_lock_contents(ro, 4), QOR_E_BAD_DESCRIPTOR);
    EXPECT_EQ(QOR_lock_contents(wo, 1), QOR_E_BAD_DESCRIPTOR);
    EXPECT_EQ(QOR_lock_contents(wo, 2), QOR_E_BAD_DESCRIPTOR);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 0);
    const Message m = recorded(2059, os("f"), QOR_CTX_LOCK_CONTENTS, EBADF);
    EXPECT_EQ(log.messages, (std::vector<Message>(4, m)));
    // The request the mode allows still works.
    EXPECT_EQ(QOR_lock_contents(ro, 1), 0);
    EXPECT_EQ(QOR_lock_contents(wo, 3), 0);
    EXPECT_EQ(QOR_close_contents(ro), 0);
    EXPECT_EQ(QOR_close_contents(wo), 0);
}

TEST_F(ContentsLock, UntranslatableRecordPathGives2051) {
    QOR_contents_record *rec = open_f(0x04, 0);
    char *saved = rec->path;
    const std::string long_path = "/" + std::string(QOR_PATH_MAX + 10, 'x');
    rec->path = QOR_copy_string(long_path.c_str());
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(QOR_lock_contents(rec, 3), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 0);
    EXPECT_EQ(rec->lock_mode, 0u);
    EXPECT_TRUE(log.messages.empty());
    QOR_free(rec->path);
    rec->path = saved;
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, InterruptedLockingIsMadeAgain101CallsInAll) {
    QOR_contents_record *rec = open_f(0x04, 0);
    MessageLog log;
    for (unsigned request : {1u, 2u, 3u, 4u}) {
        qor_fault_reset();
        qor_fault_fail(QF_fcntl, EINTR, 0, 100);
        EXPECT_EQ(QOR_lock_contents(rec, request), 0) << request;
        EXPECT_EQ(qor_fault_calls(QF_fcntl), 101) << request;
    }
    qor_fault_reset();
    qor_fault_fail(QF_fcntl, EINTR, 0, 101);
    EXPECT_EQ(QOR_lock_contents(rec, 1), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 101);
    EXPECT_EQ(rec->lock_mode, 3u);  // as the last success left it
    EXPECT_ONE_RECORDED(log, 2063, os("f"), QOR_CTX_LOCK_CONTENTS, EINTR);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, DeadlockIsRecorded) {
    MessageLog log;
    QOR_contents_record *rec = open_f(0x04, 0);
    qor_fault_fail(QF_fcntl, EDEADLK, 0, 1);
    EXPECT_EQ(QOR_lock_contents(rec, 4), QOR_E_DEADLOCK);
    EXPECT_ONE_RECORDED(log, 2064, os("f"), QOR_CTX_LOCK_CONTENTS, EDEADLK);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, UnlockingAnUnlockedRecordMakesNoSystemCall) {
    QOR_contents_record *rec = open_f(0x04, 0);
    qor_fault_reset();
    EXPECT_EQ(QOR_unlock_contents(rec), 0);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 0);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, UnlockingLetsAnotherProcessIn) {
    QOR_contents_record *rec = open_f(0x04, 3);
    EXPECT_EQ(other_process_opens(0x04, 3), 60);
    qor_fault_reset();
    EXPECT_EQ(QOR_unlock_contents(rec), 0);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 1);
    EXPECT_EQ(rec->lock_mode, 0u);
    EXPECT_EQ(other_process_opens(0x04, 3), 0);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, InterruptedUnlockIsMadeAgain) {
    QOR_contents_record *rec = open_f(0x04, 3);
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_fcntl, EINTR, 0, 100);
    EXPECT_EQ(QOR_unlock_contents(rec), 0);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 101);
    EXPECT_EQ(rec->lock_mode, 0u);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(other_process_opens(0x04, 3), 0);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, UnlockInterruptedEveryTimeIsRecordedOnce) {
    QOR_contents_record *rec = open_f(0x04, 3);
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_fcntl, EINTR, 0, 101);
    EXPECT_EQ(QOR_unlock_contents(rec), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 101);
    EXPECT_EQ(rec->lock_mode, 3u);
    EXPECT_ONE_RECORDED(log, 2063, os("f"), QOR_CTX_UNLOCK_CONTENTS, EINTR);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, FailingUnlockIsRecordedOnceAndNotMadeAgain) {
    QOR_contents_record *rec = open_f(0x04, 3);
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_fcntl, EIO, 0, 1);
    EXPECT_EQ(QOR_unlock_contents(rec), 2056);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 1);
    EXPECT_EQ(rec->lock_mode, 3u);
    EXPECT_ONE_RECORDED(log, 2056, os("f"), QOR_CTX_UNLOCK_CONTENTS, EIO);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsLock, ClosingDropsTheLock) {
    QOR_contents_record *rec = open_f(0x04, 3);
    EXPECT_EQ(other_process_opens(0x01, 1), 60);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(other_process_opens(0x04, 3), 0);
}

}  // namespace
}  // namespace objects_test
