// Opening contents: open-mode flags and the host flags they give, lock
// requests at opening, truncation only once the lock is held, the contents
// of each object type, idle indexes, close-on-exec, and every failure path
// closing what it opened.

#include "contents_fixture.h"

namespace objects_test {
namespace {

using Names = std::vector<std::string>;

class ContentsOpen : public Store {
  protected:
    int open_file(const std::string &name, unsigned flags, unsigned request,
                  QOR_contents_record **rec, int idle = 0) {
        return QOR_open_file(qor(name).c_str(), 0, idle, flags, request, rec);
    }
};

TEST_F(ContentsOpen, ReadOnlyWithTruncateGives2070AfterOneMessageAndCreatesNothing) {
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x11, 0, &rec), QOR_E_INVALID);
    EXPECT_EQ(open_file("g", 0x51, 3, &rec), QOR_E_INVALID);
    EXPECT_EQ(rec, nullptr);
    EXPECT_FALSE(qor_test::exists(os("f")));
    EXPECT_FALSE(qor_test::exists(os("g")));
    EXPECT_EQ(log.messages,
              (std::vector<Message>{
                  recorded(2070, os("f"), QOR_CTX_OPEN, EINVAL),
                  recorded(2070, os("g"), QOR_CTX_OPEN, EINVAL)}));
}

TEST_F(ContentsOpen, ReadOnlyWithTruncateLeavesAnExistingFileAlone) {
    qor_test::write_file(os("f"), "keep");
    MessageLog log;
    qor_fault_reset();
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x11, 0, &rec), QOR_E_INVALID);
    EXPECT_EQ(qor_fault_calls(QF_open), 0);
    EXPECT_EQ(qor_test::read_file(os("f")), "keep");
    EXPECT_EQ(log.messages.size(), 1u);
}

TEST_F(ContentsOpen, RecordHoldsWhatWasAskedFor) {
    qor_test::write_file(os("f"), "abc");
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(open_file("f", 0x04, 0, &rec, 1), 0);
    EXPECT_EQ(std::string(rec->path), os("f"));
    EXPECT_EQ(rec->flags, 0x04u);
    EXPECT_EQ(rec->lock_mode, 0u);
    EXPECT_EQ(rec->idle, 1u);
    EXPECT_GE(rec->fd, 0);
    EXPECT_EQ(rec->stream, nullptr);
    int fd = -1;
    unsigned mode = 9;
    EXPECT_EQ(QOR_get_fd(rec, &fd), 0);
    EXPECT_EQ(fd, rec->fd);
    EXPECT_EQ(QOR_contents_lock_mode(rec, &mode), 0);
    EXPECT_EQ(mode, 0u);
    EXPECT_EQ(fcntl(rec->fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(ContentsOpen, FlagsMapToHostFlags) {
    qor_test::write_file(os("f"), "abc");
    struct Row {
        unsigned flags;
        int access;
        bool append;
    } rows[] = {{0x01, O_RDONLY, false}, {0x02, O_WRONLY, false},
                {0x04, O_RDWR, false},   {0x22, O_WRONLY, true},
                {0x24, O_RDWR, true},    {0x00, O_RDONLY, false}};
    for (const Row &r : rows) {
        QOR_contents_record *rec = nullptr;
        ASSERT_EQ(open_file("f", r.flags, 0, &rec), 0) << r.flags;
        const int fl = fcntl(rec->fd, F_GETFL);
        EXPECT_EQ(fl & O_ACCMODE, r.access) << r.flags;
        EXPECT_EQ((fl & O_APPEND) != 0, r.append) << r.flags;
        EXPECT_EQ(QOR_close_contents(rec), 0);
    }
    EXPECT_EQ(qor_test::read_file(os("f")), "abc");
}

TEST_F(ContentsOpen, CreateMakesAMissingFileWithModeUnderUmask) {
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(open_file("f", 0x42, 0, &rec), 0);
    EXPECT_EQ(mode_of(os("f")), 0755u);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    qor_test::write_file(os("f"), "abc");
    ASSERT_EQ(open_file("f", 0x42, 0, &rec), 0);  // no truncation
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_test::read_file(os("f")), "abc");
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(ContentsOpen, CreateExclusivelyOnAnExistingFileGives2053) {
    qor_test::write_file(os("f"), "abc");
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x82, 0, &rec), QOR_E_EXISTS);
    EXPECT_ONE_RECORDED(log, 2053, os("f"), QOR_CTX_OPEN, EEXIST);
    EXPECT_EQ(qor_test::read_file(os("f")), "abc");
}

TEST_F(ContentsOpen, MissingFileGives2052AfterOneMessage) {
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x01, 1, &rec), QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, 2052, os("f"), QOR_CTX_OPEN, ENOENT);
}

TEST_F(ContentsOpen, UntranslatablePathGives2051WithNoMessage) {
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_file("relative/name", 0, 0, 0x42, 0, &rec),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_open_file(nullptr, 1, 0, 0x42, 0, &rec),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_open_file("$(QOR_TEST_SURELY_UNSET)/x", 0, 0, 0x42, 3, &rec),
              QOR_E_UNTRANSLATABLE);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(ContentsOpen, DirectoryFlagTranslatesAsADirectory) {
    make_dir(os("d"));
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_file(qor("d").c_str(), 1, 0, 0x01, 0, &rec), 0);
    struct stat st;
    ASSERT_EQ(fstat(rec->fd, &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(std::string(rec->path), os("d"));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsOpen, EachRequestLeavesItsLockMode) {
    qor_test::write_file(os("f"), "abc");
    const struct {
        unsigned request;
        unsigned mode;
        short held;
    } rows[] = {{0, 0, F_UNLCK},
                {1, 1, F_RDLCK},
                {2, 1, F_RDLCK},
                {3, 3, F_WRLCK},
                {4, 3, F_WRLCK}};
    for (const auto &r : rows) {
        QOR_contents_record *rec = nullptr;
        ASSERT_EQ(open_file("f", 0x04, r.request, &rec), 0) << r.request;
        EXPECT_EQ(rec->lock_mode, r.mode) << r.request;
        // What another process sees in the way of an exclusive lock.
        Partner probe([&](Partner &) {
            return conflicting_lock(os("f"), F_WRLCK);
        });
        EXPECT_EQ(probe.finish(), r.held) << r.request;
        EXPECT_EQ(QOR_close_contents(rec), 0);
    }
}

TEST_F(ContentsOpen, SharedRequestOnAWriteOnlyRecordGives2059) {
    qor_test::write_file(os("f"), "abc");
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x02, 1, &rec), QOR_E_BAD_DESCRIPTOR);
    EXPECT_EQ(open_file("f", 0x02, 2, &rec), QOR_E_BAD_DESCRIPTOR);
    const Message m = recorded(2059, os("f"), QOR_CTX_LOCK_CONTENTS, EBADF);
    EXPECT_EQ(log.messages, (std::vector<Message>{m, m}));
}

TEST_F(ContentsOpen, ExclusiveRequestOnAReadOnlyRecordGives2059) {
    qor_test::write_file(os("f"), "abc");
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x01, 3, &rec), QOR_E_BAD_DESCRIPTOR);
    EXPECT_EQ(open_file("f", 0x01, 4, &rec), QOR_E_BAD_DESCRIPTOR);
    const Message m = recorded(2059, os("f"), QOR_CTX_LOCK_CONTENTS, EBADF);
    EXPECT_EQ(log.messages, (std::vector<Message>{m, m}));
}

TEST_F(ContentsOpen, LockRequestAboveFourGives2070) {
    qor_test::write_file(os("f"), "abc");
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x04, 5, &rec), QOR_E_INVALID);
    EXPECT_ONE_RECORDED(log, 2070, os("f"), QOR_CTX_LOCK_CONTENTS, EINVAL);
}

TEST_F(ContentsOpen, TruncateWithExclusiveRequestWaitsForTheLock) {
    qor_test::write_file(os("f"), "precious");
    Holder reader(os("f"), F_RDLCK);
    ASSERT_TRUE(reader.held());
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    // The lock is refused, so the file is not touched.
    EXPECT_EQ(open_file("f", 0x14, 3, &rec), QOR_E_LOCKED);
    EXPECT_EQ(qor_test::read_file(os("f")), "precious");
    EXPECT_TRUE(log.messages.empty());
    reader.release();
    ASSERT_EQ(open_file("f", 0x14, 3, &rec), 0);
    EXPECT_EQ(size_of(rec->fd), 0);
    EXPECT_EQ(rec->lock_mode, 3u);
    // Still held after the reopen that emptied the file.
    EXPECT_EQ(Partner([&](Partner &) {
                  return conflicting_lock(os("f"), F_RDLCK);
              }).finish(),
              F_WRLCK);
    EXPECT_TRUE(close_on_exec(rec->fd));
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(ContentsOpen, TruncateWithSharedRequestOnAWritableRecord) {
    qor_test::write_file(os("f"), "precious");
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(open_file("f", 0x14, 1, &rec), 0);
    EXPECT_EQ(size_of(rec->fd), 0);
    EXPECT_EQ(rec->lock_mode, 1u);
    EXPECT_EQ(Partner([&](Partner &) {
                  return conflicting_lock(os("f"), F_WRLCK);
              }).finish(),
              F_RDLCK);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsOpen, TruncateWithoutALockRequestTruncatesAtOnce) {
    qor_test::write_file(os("f"), "precious");
    Holder reader(os("f"), F_RDLCK);
    ASSERT_TRUE(reader.held());
    qor_fault_reset();
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(open_file("f", 0x14, 0, &rec), 0);
    EXPECT_EQ(qor_test::read_file(os("f")), "");
    EXPECT_EQ(qor_fault_calls(QF_open), 1);   // no reopen
    // One fcntl: the F_SETFL that takes O_NONBLOCK off again; no lock.
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 1);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsOpen, TruncatingOpenChangesTheDescriptorAndKeepsNoOther) {
    qor_test::write_file(os("f"), "precious");
    const int before = qor_test::open_descriptor_count();
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(open_file("f", 0x14, 3, &rec), 0);
    EXPECT_EQ(qor_test::open_descriptor_count(), before + 1);
    EXPECT_EQ(descriptors_on(os("f")), std::vector<int>{rec->fd});
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsOpen, FailingTruncatingReopenClosesTheRecord) {
    qor_test::write_file(os("f"), "precious");
    MessageLog log;
    qor_fault_fail(QF_open, EACCES, 1, 1);
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x14, 3, &rec), QOR_E_PERMISSION);
    EXPECT_EQ(rec, nullptr);
    EXPECT_EQ(qor_test::read_file(os("f")), "precious");
    EXPECT_ONE_RECORDED(log, 2055, os("f"), QOR_CTX_OPEN, EACCES);
    EXPECT_TRUE(descriptors_on(os("f")).empty());
}

TEST_F(ContentsOpen, FailingCloseOfTheFirstDescriptorClosesTheRecord) {
    qor_test::write_file(os("f"), "precious");
    MessageLog log;
    qor_fault_fail(QF_close, EIO, 0, 1);
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x14, 3, &rec), QOR_E_IO);
    EXPECT_ONE_RECORDED(log, 2056, os("f"), QOR_CTX_OPEN, EIO);
    // The injected failure kept the first descriptor open; the record's
    // own was closed with it.
    EXPECT_EQ(descriptors_on(os("f")).size(), 1u);
    close_descriptors_on(os("f"));
}

TEST_F(ContentsOpen, RelockAfterTheReopenMayFindTheLockTaken) {
    qor_test::write_file(os("f"), "precious");
    MessageLog log;
    // First lock granted, the one after the reopen refused, as when another
    // process slips in between: 2060, the file already emptied. (Each
    // open takes O_NONBLOCK off again with one fcntl before the lock.)
    qor_fault_fail(QF_fcntl, EAGAIN, 3, 1);
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x14, 3, &rec), QOR_E_LOCKED);
    EXPECT_EQ(qor_test::read_file(os("f")), "");
    EXPECT_TRUE(log.messages.empty());
    EXPECT_TRUE(descriptors_on(os("f")).empty());
}

TEST_F(ContentsOpen, LockFailureOtherThanAConflictIsRecordedAndClosesTheRecord) {
    qor_test::write_file(os("f"), "abc");
    MessageLog log;
    qor_fault_fail(QF_fcntl, ENOLCK, 1, 1);  // after the F_SETFL of the open
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x04, 3, &rec), QOR_E_RESOURCE);
    EXPECT_ONE_RECORDED(log, 2058, os("f"), QOR_CTX_LOCK_CONTENTS, ENOLCK);
    EXPECT_TRUE(descriptors_on(os("f")).empty());
}

TEST_F(ContentsOpen, ConflictFromEitherErrnoGives2060WithNoMessage) {
    qor_test::write_file(os("f"), "abc");
    MessageLog log;
    for (int err : {EAGAIN, EACCES}) {
        qor_fault_reset();
        qor_fault_fail(QF_fcntl, err, 1, 1);  // after the open's F_SETFL
        QOR_contents_record *rec = nullptr;
        EXPECT_EQ(open_file("f", 0x04, 1, &rec), QOR_E_LOCKED) << err;
    }
    EXPECT_TRUE(log.messages.empty());
    EXPECT_TRUE(descriptors_on(os("f")).empty());
}

TEST_F(ContentsOpen, InterruptedOpenIsMadeAgain101CallsInAll) {
    qor_test::write_file(os("f"), "abc");
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    qor_fault_fail(QF_open, EINTR, 0, 100);
    ASSERT_EQ(open_file("f", 0x01, 0, &rec), 0);
    EXPECT_EQ(qor_fault_calls(QF_open), 101);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    qor_fault_reset();
    qor_fault_fail(QF_open, EINTR, 0, 101);
    EXPECT_EQ(open_file("f", 0x01, 0, &rec), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_calls(QF_open), 101);
    EXPECT_ONE_RECORDED(log, 2063, os("f"), QOR_CTX_OPEN, EINTR);
}

TEST_F(ContentsOpen, InterruptedLockIsMadeAgain101CallsInAll) {
    qor_test::write_file(os("f"), "abc");
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    for (unsigned request : {3u, 4u}) {
        qor_fault_reset();
        // The open's F_SETFL first, then the lock.
        qor_fault_fail(QF_fcntl, EINTR, 1, 100);
        ASSERT_EQ(open_file("f", 0x04, request, &rec), 0);
        EXPECT_EQ(qor_fault_calls(QF_fcntl), 102);
        EXPECT_EQ(rec->lock_mode, 3u);
        EXPECT_EQ(QOR_close_contents(rec), 0);
    }
    qor_fault_reset();
    qor_fault_fail(QF_fcntl, EINTR, 1, 101);
    EXPECT_EQ(open_file("f", 0x04, 4, &rec), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 102);
    EXPECT_ONE_RECORDED(log, 2063, os("f"), QOR_CTX_LOCK_CONTENTS, EINTR);
}

TEST_F(ContentsOpen, InterruptedTruncatingReopenIsMadeAgain) {
    qor_test::write_file(os("f"), "abc");
    QOR_contents_record *rec = nullptr;
    qor_fault_fail(QF_open, EINTR, 1, 100);
    ASSERT_EQ(open_file("f", 0x14, 3, &rec), 0);
    EXPECT_EQ(qor_fault_calls(QF_open), 102);
    EXPECT_EQ(qor_test::read_file(os("f")), "");
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsOpen, FullDiscOnACreatingOpenAsksTheHandler) {
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    {
        qor_test::DiscFullHandler handler({0});
        // The first open looks for an existing file; the second creates.
        qor_fault_fail(QF_open, ENOSPC, 1, 1);
        ASSERT_EQ(open_file("f", 0x42, 0, &rec), 0);
        ASSERT_EQ(handler.calls.size(), 1u);
        EXPECT_EQ(handler.calls[0].os_error, ENOSPC);
        EXPECT_EQ(handler.calls[0].context, QOR_CTX_OPEN);
        EXPECT_EQ(handler.calls[0].path, os("f"));
        EXPECT_EQ(QOR_close_contents(rec), 0);
    }
    {
        qor_test::DiscFullHandler handler({1});
        qor_fault_reset();
        qor_fault_fail(QF_open, ENOSPC, 1, 1);
        EXPECT_EQ(open_file("g", 0x42, 0, &rec), QOR_E_RESOURCE);
        EXPECT_EQ(handler.calls.size(), 1u);
    }
    EXPECT_ONE_RECORDED(log, 2058, os("g"), QOR_CTX_OPEN, ENOSPC);
    EXPECT_FALSE(qor_test::exists(os("g")));
}

TEST_F(ContentsOpen, FullDiscOnAPlainOpenIsRecordedAtOnce) {
    qor_test::write_file(os("f"), "abc");
    MessageLog log;
    qor_test::DiscFullHandler handler({0});
    qor_fault_fail(QF_open, ENOSPC, 0, 1);
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(open_file("f", 0x02, 0, &rec), QOR_E_RESOURCE);
    EXPECT_TRUE(handler.calls.empty());
    EXPECT_EQ(log.messages.size(), 1u);
}

TEST_F(ContentsOpen, EveryDescriptorCarriesCloseOnExec) {
    make_object(os("c"), QOR_CDIR);
    make_object(os("i"), QOR_IDLE_OBJECT);
    qor_test::write_file(os("f"), "abc");
    QOR_contents_record *recs[5] = {};
    ASSERT_EQ(open_file("f", 0x04, 0, &recs[0]), 0);
    ASSERT_EQ(open_file("f", 0x14, 3, &recs[1]), 0);  // the reopened one
    ASSERT_EQ(QOR_open_contents(qor("c").c_str(), 3, 0x01, 1, &recs[2]), 0);
    ASSERT_EQ(QOR_open_contents(qor("n").c_str(), 4, 0x42, 0, &recs[3]), 0);
    ASSERT_EQ(QOR_open_idle_index(qor("i").c_str(), 0x04, 0, &recs[4]), 0);
    for (auto *rec : recs) EXPECT_TRUE(close_on_exec(rec->fd)) << rec->path;
    // And a program started now finds none of them.
    EXPECT_EQ(inherited_below(tmp_.path()), std::vector<std::string>{});
    // While a descriptor without the flag shows that the check can see one.
    const int plain = ::open(os("f").c_str(), O_RDONLY);
    EXPECT_EQ(inherited_below(tmp_.path()), std::vector<std::string>{os("f")});
    ::close(plain);
    for (auto *rec : recs) EXPECT_EQ(QOR_close_contents(rec), 0);
}

// ---- Contents of objects ---------------------------------------------------

TEST_F(ContentsOpen, PlainFileContentsAreTheFileItself) {
    qor_test::write_file(os("f"), "abc");
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("f").c_str(), 0, 0x01, 1, &rec), 0);
    EXPECT_EQ(std::string(rec->path), os("f"));
    EXPECT_EQ(rec->idle, 0u);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsOpen, CdirContentsAreItsBody) {
    make_object(os("c"), QOR_CDIR);
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("c").c_str(), 3, 0x04, 3, &rec), 0);
    EXPECT_EQ(std::string(rec->path), os("c") + "/.body");
    EXPECT_EQ(rec->idle, 0u);
    EXPECT_EQ(rec->lock_mode, 3u);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsOpen, IdleObjectContentsAreItsBodyWithTheIdleFlag) {
    make_object(os("i"), QOR_IDLE_OBJECT);
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("i").c_str(), 4, 0x01, 0, &rec), 0);
    EXPECT_EQ(std::string(rec->path), os("i") + "/.body");
    EXPECT_EQ(rec->idle, 1u);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsOpen, CreatingACdirMakesDirectoryLockAndBodyButNoIndex) {
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("c").c_str(), 3, 0x42, 0, &rec), 0);
    EXPECT_EQ(entries(os("c")), (Names{".body", ".lock"}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
    unsigned type = 9;
    EXPECT_EQ(QOR_type_of_object(qor("c").c_str(), &type), 0);
    EXPECT_EQ(type, 3u);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(ContentsOpen, CreatingAnIdleObjectMakesNoIndexEither) {
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("i").c_str(), 4, 0x84, 3, &rec), 0);
    EXPECT_EQ(entries(os("i")), (Names{".body", ".lock"}));
    EXPECT_EQ(rec->idle, 1u);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsOpen, CreatingWithAnExistingBodyKeepsIt) {
    make_object(os("c"), QOR_CDIR);
    qor_test::write_file(os("c/.body"), "body");
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("c").c_str(), 3, 0x42, 0, &rec), 0);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_test::read_file(os("c/.body")), "body");
}

TEST_F(ContentsOpen, CreatingExclusivelyOnAnExistingObjectGives2053) {
    make_object(os("c"), QOR_CDIR);
    MessageLog log;
    qor_fault_reset();
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_contents(qor("c").c_str(), 3, 0x82, 0, &rec),
              QOR_E_EXISTS);
    EXPECT_ONE_RECORDED(log, 2053, os("c"), QOR_CTX_OPEN, EEXIST);
    EXPECT_EQ(qor_fault_calls(QF_open), 0);
    EXPECT_EQ(entries(os("c")), (Names{".body", ".lock"}));
}

TEST_F(ContentsOpen, TypesWithoutContentsGive2057) {
    make_object(os("d"), QOR_PLAIN_DIRECTORY);
    make_object(os("l"), QOR_LOCKABLE_DIRECTORY);
    MessageLog log;
    qor_fault_reset();
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_contents(qor("d").c_str(), 1, 0x01, 0, &rec),
              QOR_E_WRONG_KIND);
    EXPECT_EQ(QOR_open_contents(qor("l").c_str(), 2, 0x42, 0, &rec),
              QOR_E_WRONG_KIND);
    EXPECT_EQ(QOR_open_contents(qor("x").c_str(), 5, 0x01, 0, &rec),
              QOR_E_WRONG_KIND);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{
                  recorded(2057, os("d"), QOR_CTX_OPEN, EISDIR),
                  recorded(2057, os("l"), QOR_CTX_OPEN, EISDIR),
                  recorded(2057, os("x"), QOR_CTX_OPEN, EISDIR)}));
    EXPECT_EQ(qor_fault_calls(QF_open), 0);
    EXPECT_EQ(entries(os("l")), (Names{".lock"}));
    EXPECT_EQ(QOR_open_contents("nowhere", 1, 0x01, 0, &rec),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(log.messages.size(), 3u);
}

TEST_F(ContentsOpen, MissingObjectWithoutCreateFlagsGives2052) {
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_contents(qor("c").c_str(), 3, 0x04, 0, &rec),
              QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, 2052, os("c") + "/.body", QOR_CTX_OPEN, ENOENT);
    EXPECT_FALSE(qor_test::exists(os("c")));
}

TEST_F(ContentsOpen, FailedCreationIsReturned) {
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_contents(qor("no/c").c_str(), 3, 0x42, 0, &rec),
              QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, 2052, os("no/c"), QOR_CTX_CREATE_DIRECTORY, ENOENT);
}

TEST_F(ContentsOpen, FailedDetectionIsReturned) {
    MessageLog log;
    qor_fault_fail(QF_stat, EIO, 0, 1);
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_contents(qor("c").c_str(), 3, 0x42, 0, &rec),
              QOR_E_IO);
    EXPECT_ONE_RECORDED(log, 2056, os("c"), QOR_CTX_FIND_TYPE, EIO);
    EXPECT_FALSE(qor_test::exists(os("c")));
}

TEST_F(ContentsOpen, IdleIndexIsOpenedWithTheIdleFlag) {
    make_object(os("i"), QOR_IDLE_OBJECT);
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_idle_index(qor("i").c_str(), 0x04, 3, &rec), 0);
    EXPECT_EQ(std::string(rec->path), os("i") + "/.index");
    EXPECT_EQ(rec->idle, 1u);
    EXPECT_EQ(rec->lock_mode, 3u);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsOpen, IdleIndexIsCreatedOnlyThroughTheCreateFlags) {
    make_object(os("c"), QOR_CDIR);
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_idle_index(qor("c").c_str(), 0x04, 0, &rec),
              QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, 2052, os("c") + "/.index", QOR_CTX_OPEN, ENOENT);
    ASSERT_EQ(QOR_open_idle_index(qor("c").c_str(), 0x44, 0, &rec), 0);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(entries(os("c")), (Names{".body", ".index", ".lock"}));
    EXPECT_EQ(QOR_open_idle_index("nowhere", 0x44, 0, &rec),
              QOR_E_UNTRANSLATABLE);
}

}  // namespace
}  // namespace objects_test
