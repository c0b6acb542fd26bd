// Working with an open-contents record: size, streams, flushing,
// truncation keeping the descriptor number and relocking, closing that
// always gives the record back, stream redirection and the path update
// after a move.

#include "contents_fixture.h"

namespace objects_test {
namespace {

class ContentsRecord : public Store {
  protected:
    void SetUp() override {
        Store::SetUp();
        qor_test::write_file(os("f"), "0123456789");
    }
    QOR_contents_record *open_f(unsigned flags, unsigned request = 0) {
        QOR_contents_record *rec = nullptr;
        EXPECT_EQ(QOR_open_file(qor("f").c_str(), 0, 0, flags, request, &rec),
                  0);
        return rec;
    }
};

// ---- Size ------------------------------------------------------------------

TEST_F(ContentsRecord, SizeIsTheCurrentSizeOfTheOpenFile) {
    QOR_contents_record *rec = open_f(0x04);
    uint64_t size = 0;
    EXPECT_EQ(QOR_read_open_contents_size(rec, &size), 0);
    EXPECT_EQ(size, 10u);
    ASSERT_EQ(pwrite(rec->fd, "abc", 3, 20), 3);
    EXPECT_EQ(QOR_read_open_contents_size(rec, &size), 0);
    EXPECT_EQ(size, 23u);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsRecord, FailingSizeIsRecordedAndLeavesTheSizeAlone) {
    QOR_contents_record *rec = open_f(0x01);
    MessageLog log;
    qor_fault_fail(QF_fstat, EIO, 0, 1);
    uint64_t size = 77;
    EXPECT_EQ(QOR_read_open_contents_size(rec, &size), QOR_E_IO);
    EXPECT_EQ(size, 77u);
    EXPECT_ONE_RECORDED(log, 2056, os("f"), QOR_CTX_READ_OPEN_SIZE, EIO);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

// ---- Streams ---------------------------------------------------------------

// glibc's stream flags: the stream's mode shows in them.
constexpr int kNoReads = 0x0004;
constexpr int kNoWrites = 0x0008;
constexpr int kAppending = 0x1000;

TEST_F(ContentsRecord, StreamIsMadeOnceAndKept) {
    QOR_contents_record *rec = open_f(0x04);
    FILE *first = nullptr, *second = nullptr;
    ASSERT_EQ(QOR_get_file_ptr(rec, &first), 0);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(rec->stream, first);
    EXPECT_EQ(fileno(first), rec->fd);
    qor_fault_reset();
    ASSERT_EQ(QOR_get_file_ptr(rec, &second), 0);
    EXPECT_EQ(second, first);
    EXPECT_EQ(qor_fault_calls(QF_fdopen), 0);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsRecord, StreamModeFollowsTheOpenMode) {
    const struct {
        unsigned flags;
        int expected;  // the mode bits of the stream
    } rows[] = {
        {0x01, kNoWrites},             // "r"
        {0x02, kNoReads},              // "w"
        {0x22, kNoReads | kAppending}, // "a"
        {0x04, 0},                     // "r+"
        {0x24, kAppending},            // "a+"
    };
    for (const auto &r : rows) {
        QOR_contents_record *rec = open_f(r.flags);
        FILE *s = nullptr;
        ASSERT_EQ(QOR_get_file_ptr(rec, &s), 0) << r.flags;
        EXPECT_EQ(s->_flags & (kNoReads | kNoWrites | kAppending), r.expected)
            << r.flags;
        EXPECT_EQ(QOR_close_contents(rec), 0);
    }
    // "w" over the descriptor truncates nothing.
    EXPECT_EQ(qor_test::read_file(os("f")), "0123456789");
}

TEST_F(ContentsRecord, StreamReadsAndWritesTheContents) {
    QOR_contents_record *rec = open_f(0x04);
    FILE *s = nullptr;
    ASSERT_EQ(QOR_get_file_ptr(rec, &s), 0);
    char line[8];
    ASSERT_NE(fgets(line, 5, s), nullptr);
    EXPECT_STREQ(line, "0123");
    ASSERT_EQ(fseek(s, 0, SEEK_END), 0);
    fputs("tail", s);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_test::read_file(os("f")), "0123456789tail");
}

TEST_F(ContentsRecord, FailingFdopenIsRecordedAndLeavesNoStream) {
    QOR_contents_record *rec = open_f(0x04);
    MessageLog log;
    qor_fault_fail(QF_fdopen, ENOMEM, 0, 1);
    FILE *s = nullptr;
    EXPECT_EQ(QOR_get_file_ptr(rec, &s), QOR_E_RESOURCE);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(rec->stream, nullptr);
    EXPECT_ONE_RECORDED(log, 2058, os("f"), QOR_CTX_OPEN, ENOMEM);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

// ---- Flushing ----------------------------------------------------------------

TEST_F(ContentsRecord, FlushWritesOutTheStream) {
    QOR_contents_record *rec = open_f(0x02);
    FILE *s = nullptr;
    ASSERT_EQ(QOR_get_file_ptr(rec, &s), 0);
    fputs("AB", s);
    EXPECT_EQ(qor_test::read_file(os("f")), "0123456789");
    qor_fault_reset();
    EXPECT_EQ(QOR_flush_contents(rec), 0);
    EXPECT_EQ(qor_fault_calls(QF_fflush), 1);
    EXPECT_EQ(qor_fault_calls(QF_fsync), 0);
    EXPECT_EQ(qor_test::read_file(os("f")), "AB23456789");
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsRecord, FlushWithoutAStreamSyncsAWritableRecord) {
    QOR_contents_record *ro = open_f(0x01);
    QOR_contents_record *rw = open_f(0x04);
    qor_fault_reset();
    EXPECT_EQ(QOR_flush_contents(ro), 0);
    EXPECT_EQ(qor_fault_calls(QF_fsync), 0);
    EXPECT_EQ(QOR_flush_contents(rw), 0);
    EXPECT_EQ(qor_fault_calls(QF_fsync), 1);
    EXPECT_EQ(QOR_close_contents(ro), 0);
    EXPECT_EQ(QOR_close_contents(rw), 0);
}

TEST_F(ContentsRecord, FailingFlushesAreRecorded) {
    QOR_contents_record *rw = open_f(0x04);
    MessageLog log;
    qor_fault_fail(QF_fsync, EIO, 0, 1);
    EXPECT_EQ(QOR_flush_contents(rw), QOR_E_IO);
    FILE *s = nullptr;
    ASSERT_EQ(QOR_get_file_ptr(rw, &s), 0);
    qor_fault_fail(QF_fflush, ENOSPC, 0, 1);
    EXPECT_EQ(QOR_flush_contents(rw), QOR_E_RESOURCE);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{
                  recorded(2056, os("f"), QOR_CTX_FLUSH, EIO),
                  recorded(2058, os("f"), QOR_CTX_FLUSH, ENOSPC)}));
    EXPECT_EQ(QOR_close_contents(rw), 0);
}

TEST_F(ContentsRecord, InterruptedFlushesAreMadeAgain) {
    QOR_contents_record *rw = open_f(0x04);
    qor_fault_fail(QF_fsync, EINTR, 0, 100);
    EXPECT_EQ(QOR_flush_contents(rw), 0);
    EXPECT_EQ(qor_fault_calls(QF_fsync), 101);
    FILE *s = nullptr;
    ASSERT_EQ(QOR_get_file_ptr(rw, &s), 0);
    qor_fault_reset();
    qor_fault_fail(QF_fflush, EINTR, 0, 100);
    EXPECT_EQ(QOR_flush_contents(rw), 0);
    EXPECT_EQ(qor_fault_calls(QF_fflush), 101);
    EXPECT_EQ(QOR_close_contents(rw), 0);
}

// ---- Truncation ------------------------------------------------------------

TEST_F(ContentsRecord, TruncateKeepsTheDescriptorNumberAndCloseOnExec) {
    QOR_contents_record *rec = open_f(0x04);
    const int fd = rec->fd;
    const int before = qor_test::open_descriptor_count();
    MessageLog log;
    EXPECT_EQ(QOR_truncate_contents(rec), 0);
    EXPECT_EQ(rec->fd, fd);
    EXPECT_EQ(size_of(rec->fd), 0);
    EXPECT_TRUE(close_on_exec(rec->fd));
    EXPECT_EQ(qor_test::open_descriptor_count(), before);
    EXPECT_EQ(inherited_below(tmp_.path()), std::vector<std::string>{});
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsRecord, TruncateKeepsADescriptorWithoutCloseOnExecSo) {
    QOR_contents_record *rec = open_f(0x04);
    ASSERT_EQ(fcntl(rec->fd, F_SETFD, 0), 0);
    qor_fault_reset();
    EXPECT_EQ(QOR_truncate_contents(rec), 0);
    // The reopen's F_SETFL (O_NONBLOCK off), then F_GETFD only.
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 2);
    EXPECT_FALSE(close_on_exec(rec->fd));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsRecord, TruncateLocksAgainInTheSameMode) {
    for (unsigned request : {1u, 3u}) {
        qor_test::write_file(os("f"), "0123456789");
        QOR_contents_record *rec = open_f(0x04, request);
        EXPECT_EQ(QOR_truncate_contents(rec), 0);
        EXPECT_EQ(rec->lock_mode, request);
        EXPECT_EQ(size_of(rec->fd), 0);
        EXPECT_EQ(Partner([&](Partner &) {
                      return conflicting_lock(os("f"), F_WRLCK);
                  }).finish(),
                  request == 1 ? F_RDLCK : F_WRLCK);
        EXPECT_EQ(QOR_close_contents(rec), 0);
    }
}

TEST_F(ContentsRecord, TruncateOfAnUnlockedRecordPlacesNoLock) {
    QOR_contents_record *rec = open_f(0x02);
    qor_fault_reset();
    EXPECT_EQ(QOR_truncate_contents(rec), 0);
    EXPECT_EQ(rec->lock_mode, 0u);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 3);  // F_SETFL, F_GETFD, F_SETFD
    EXPECT_EQ(Partner([&](Partner &) {
                  return conflicting_lock(os("f"), F_WRLCK);
              }).finish(),
              F_UNLCK);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsRecord, TruncateFlushesTheStreamFirst) {
    QOR_contents_record *rec = open_f(0x04);
    FILE *s = nullptr;
    ASSERT_EQ(QOR_get_file_ptr(rec, &s), 0);
    fputs("buffered", s);
    EXPECT_EQ(QOR_truncate_contents(rec), 0);
    // Nothing written before the truncation comes back afterwards.
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_test::read_file(os("f")), "");
}

TEST_F(ContentsRecord, TruncateOfAReadOnlyRecordGives2059) {
    QOR_contents_record *rec = open_f(0x01);
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(QOR_truncate_contents(rec), QOR_E_BAD_DESCRIPTOR);
    EXPECT_EQ(qor_fault_calls(QF_open), 0);
    EXPECT_ONE_RECORDED(log, 2059, os("f"), QOR_CTX_TRUNCATE, EBADF);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_test::read_file(os("f")), "0123456789");
}

TEST_F(ContentsRecord, TruncateReturnsAFailingFlush) {
    QOR_contents_record *rec = open_f(0x04);
    MessageLog log;
    qor_fault_fail(QF_fsync, EIO, 0, 1);
    EXPECT_EQ(QOR_truncate_contents(rec), QOR_E_IO);
    EXPECT_ONE_RECORDED(log, 2056, os("f"), QOR_CTX_FLUSH, EIO);
    EXPECT_EQ(size_of(rec->fd), 10);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsRecord, TruncateFailuresAndThePathsTheyAreRecordedWith) {
    struct Row {
        qor_fault_fn fn;
        int skip;
        int err;
        int status;
        std::string path;
    } rows[] = {
        {QF_open, 0, EACCES, 2055, os("f")}, // the reopen
        {QF_fcntl, 0, EIO, 2056, os("f")},   // the reopen's F_SETFL
        {QF_fcntl, 1, EBADF, 2059, ""},      // F_GETFD
        {QF_dup2, 0, EMFILE, 2058, os("f")},
        {QF_fcntl, 2, EINVAL, 2070, ""},     // F_SETFD
    };
    for (const Row &r : rows) {
        qor_test::write_file(os("f"), "0123456789");
        QOR_contents_record *rec = open_f(0x04);
        const int fd = rec->fd;
        const int before = qor_test::open_descriptor_count();
        MessageLog log;
        qor_fault_reset();
        qor_fault_fail(r.fn, r.err, r.skip, 1);
        EXPECT_EQ(QOR_truncate_contents(rec), r.status) << r.err;
        EXPECT_EQ(log.messages,
                  (std::vector<Message>{recorded(r.status, r.path,
                                                 QOR_CTX_TRUNCATE, r.err)}))
            << r.err;
        EXPECT_EQ(rec->fd, fd);
        // The new descriptor is never left behind.
        EXPECT_EQ(qor_test::open_descriptor_count(), before) << r.err;
        EXPECT_EQ(QOR_close_contents(rec), 0);
    }
}

TEST_F(ContentsRecord, TruncateRelockMayFindTheLockTaken) {
    QOR_contents_record *rec = open_f(0x04, 3);
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_fcntl, EAGAIN, 3, 1);  // after F_SETFL, F_GETFD, F_SETFD
    EXPECT_EQ(QOR_truncate_contents(rec), QOR_E_LOCKED);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsRecord, InterruptedCallsOfSizeTruncateAndRedirectAreMadeAgain) {
    QOR_contents_record *rec = open_f(0x04);
    MessageLog log;
    uint64_t size = 0;
    qor_fault_reset();
    qor_fault_fail(QF_fstat, EINTR, 0, 100);
    EXPECT_EQ(QOR_read_open_contents_size(rec, &size), 0);
    EXPECT_EQ(qor_fault_calls(QF_fstat), 101);
    for (qor_fault_fn fn : {QF_open, QF_fcntl, QF_dup2}) {
        qor_fault_reset();
        qor_fault_fail(fn, EINTR, 0, 100);
        EXPECT_EQ(QOR_truncate_contents(rec), 0) << fn;
        EXPECT_GE(qor_fault_calls(fn), 101) << fn;
    }
    FILE *former = fopen(os("former").c_str(), "w");
    for (qor_fault_fn fn : {QF_fflush, QF_fcntl, QF_dup2}) {
        qor_fault_reset();
        qor_fault_fail(fn, EINTR, 0, 100);
        QOR_contents_record *r = open_f(0x02);
        EXPECT_EQ(QOR_redirect_stream(r, former), 0) << fn;
        EXPECT_GE(qor_fault_calls(fn), 101) << fn;
        EXPECT_EQ(QOR_close_contents(r), 0);
    }
    fclose(former);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

// ---- Closing ---------------------------------------------------------------

TEST_F(ContentsRecord, ClosingWithAStreamClosesThroughIt) {
    QOR_contents_record *rec = open_f(0x04);
    FILE *s = nullptr;
    ASSERT_EQ(QOR_get_file_ptr(rec, &s), 0);
    fputs("X", s);
    qor_fault_reset();
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_fault_calls(QF_fclose), 1);
    EXPECT_EQ(qor_fault_calls(QF_close), 0);
    EXPECT_EQ(qor_test::read_file(os("f")), "X123456789");
}

TEST_F(ContentsRecord, FailingCloseIsRecordedAndStillReleasesTheRecord) {
    QOR_contents_record *rec = open_f(0x04);
    MessageLog log;
    qor_fault_fail(QF_close, EIO, 0, 1);
    EXPECT_EQ(QOR_close_contents(rec), QOR_E_IO);
    EXPECT_ONE_RECORDED(log, 2056, os("f"), QOR_CTX_CLOSE, EIO);
    close_descriptors_on(os("f"));  // the injected failure kept it open
    // The record went back to the pool: the next open takes it again.
    QOR_contents_record *again = open_f(0x01);
    EXPECT_EQ(again, rec);
    EXPECT_EQ(QOR_close_contents(again), 0);
}

TEST_F(ContentsRecord, FailingStreamCloseIsRecordedToo) {
    QOR_contents_record *rec = open_f(0x04);
    FILE *s = nullptr;
    ASSERT_EQ(QOR_get_file_ptr(rec, &s), 0);
    MessageLog log;
    qor_fault_fail(QF_fclose, EBADF, 0, 1);
    EXPECT_EQ(QOR_close_contents(rec), QOR_E_BAD_DESCRIPTOR);
    EXPECT_ONE_RECORDED(log, 2059, os("f"), QOR_CTX_CLOSE, EBADF);
    fclose(s);  // the injected failure left the stream open
}

TEST_F(ContentsRecord, RecordsAreReusedLowestFirst) {
    QOR_contents_record *a = open_f(0x01);
    QOR_contents_record *b = open_f(0x01);
    EXPECT_NE(a, b);
    EXPECT_EQ(QOR_close_contents(a), 0);
    QOR_contents_record *c = open_f(0x01);
    EXPECT_EQ(c, a);
    // A fresh record starts cleared: nothing of the last holder remains.
    EXPECT_EQ(c->stream, nullptr);
    EXPECT_EQ(c->lock_mode, 0u);
    EXPECT_EQ(QOR_close_contents(b), 0);
    EXPECT_EQ(QOR_close_contents(c), 0);
}

// ---- Redirection -----------------------------------------------------------

TEST_F(ContentsRecord, RedirectedStreamWritesTheContents) {
    QOR_contents_record *rec = open_f(0x02 | 0x20);
    FILE *former = fopen(os("former").c_str(), "w");
    ASSERT_NE(former, nullptr);
    fputs("before ", former);
    const int stream_fd = fileno(former);
    MessageLog log;
    ASSERT_EQ(QOR_redirect_stream(rec, former), 0);
    fputs("after", former);
    fflush(former);
    EXPECT_EQ(qor_test::read_file(os("f")), "0123456789after");
    EXPECT_EQ(qor_test::read_file(os("former")), "before ");
    EXPECT_EQ(fileno(former), stream_fd);
    // The record now stands for the stream's former file.
    EXPECT_NE(rec->fd, stream_fd);
    EXPECT_EQ(rec->lock_mode, 0u);
    EXPECT_EQ(rec->idle, 0u);
    EXPECT_EQ(rec->stream, nullptr);
    EXPECT_TRUE(close_on_exec(rec->fd));
    ASSERT_EQ(write(rec->fd, "kept", 4), 4);
    EXPECT_EQ(qor_test::read_file(os("former")), "before kept");
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(rec), 0);
    fclose(former);
    EXPECT_TRUE(descriptors_on(tmp_.path()).empty());
}

TEST_F(ContentsRecord, RedirectClosesTheRecordsOwnStream) {
    QOR_contents_record *rec = open_f(0x04, 0);
    FILE *own = nullptr;
    ASSERT_EQ(QOR_get_file_ptr(rec, &own), 0);
    FILE *former = fopen(os("former").c_str(), "w");
    qor_fault_reset();
    ASSERT_EQ(QOR_redirect_stream(rec, former), 0);
    EXPECT_EQ(qor_fault_calls(QF_fclose), 1);
    EXPECT_EQ(rec->stream, nullptr);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    fclose(former);
    EXPECT_TRUE(descriptors_on(tmp_.path()).empty());
}

TEST_F(ContentsRecord, RedirectOfALockedRecordGives2059) {
    QOR_contents_record *rec = open_f(0x04, 3);
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(QOR_redirect_stream(rec, stdout), QOR_E_BAD_DESCRIPTOR);
    EXPECT_EQ(qor_fault_calls(QF_fflush), 0);
    EXPECT_ONE_RECORDED(log, 2059, os("f"), QOR_CTX_REDIRECT, EBADF);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsRecord, RedirectFailuresLeaveTheRecordAndStreamAsTheyWere) {
    struct Row {
        qor_fault_fn fn;
        int skip;
        int err;
    } rows[] = {
        {QF_fflush, 0, EIO},   // flushing the stream
        {QF_fcntl, 0, EBADF},  // F_GETFD
        {QF_fcntl, 1, EINVAL}, // F_SETFD
        {QF_fcntl, 2, EMFILE}, // keeping the stream's file
        {QF_dup2, 0, EBUSY},
    };
    for (const Row &r : rows) {
        QOR_contents_record *rec = open_f(0x02);
        const int fd = rec->fd;
        FILE *former = fopen(os("former").c_str(), "w");
        const int before = qor_test::open_descriptor_count();
        MessageLog log;
        qor_fault_reset();
        qor_fault_fail(r.fn, r.err, r.skip, 1);
        const int status = QOR_redirect_stream(rec, former);
        EXPECT_NE(status, 0);
        EXPECT_EQ(log.messages,
                  (std::vector<Message>{recorded(status, os("f"),
                                                 QOR_CTX_REDIRECT, r.err)}))
            << r.err;
        EXPECT_EQ(rec->fd, fd);
        EXPECT_EQ(qor_test::open_descriptor_count(), before) << r.err;
        fputs("still", former);
        fclose(former);
        EXPECT_EQ(qor_test::read_file(os("former")), "still") << r.err;
        EXPECT_EQ(QOR_close_contents(rec), 0);
    }
}

TEST_F(ContentsRecord, RedirectWhoseOwnCloseFailsStillTakesTheNewFile) {
    QOR_contents_record *rec = open_f(0x02);
    const int own = rec->fd;
    FILE *former = fopen(os("former").c_str(), "w");
    MessageLog log;
    qor_fault_fail(QF_close, EIO, 0, 1);
    EXPECT_EQ(QOR_redirect_stream(rec, former), QOR_E_IO);
    EXPECT_ONE_RECORDED(log, 2056, os("f"), QOR_CTX_REDIRECT, EIO);
    EXPECT_NE(rec->fd, own);
    ::close(own);  // the injected failure kept it open
    EXPECT_EQ(QOR_close_contents(rec), 0);
    fclose(former);
}

// ---- Path update -------------------------------------------------------------

TEST_F(ContentsRecord, UpdatePathFollowsAMovedObject) {
    make_object(os("c"), QOR_CDIR);
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("c").c_str(), 3, 0x04, 3, &rec), 0);
    const int fd = rec->fd;
    ASSERT_EQ(rename(os("c").c_str(), os("moved").c_str()), 0);
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(QOR_update_file_path(&rec, qor("moved").c_str()), 0);
    EXPECT_EQ(std::string(rec->path), os("moved") + "/.body");
    EXPECT_EQ(rec->fd, fd);
    EXPECT_EQ(qor_fault_calls(QF_fcntl) + qor_fault_calls(QF_open), 0);
    // Later failures name the new place, and truncation reopens it.
    ASSERT_EQ(pwrite(rec->fd, "x", 1, 0), 1);
    EXPECT_EQ(QOR_truncate_contents(rec), 0);
    EXPECT_EQ(QOR_read_idle_block(rec, 0, nullptr, 0), QOR_E_INVALID);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(ContentsRecord, UpdatePathWithAnUntranslatablePathKeepsTheOldOne) {
    QOR_contents_record *rec = open_f(0x01);
    MessageLog log;
    EXPECT_EQ(QOR_update_file_path(&rec, "relative"), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_update_file_path(&rec, nullptr), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(std::string(rec->path), os("f"));
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

}  // namespace
}  // namespace objects_test
