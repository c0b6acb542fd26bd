// Text and binary files: openers, transfers, streams, the access failure,
// the fatal errors of a wrong kind of handle, and the OS-path queries.
#include <sys/socket.h>
#include <sys/un.h>

#include "files_fixture.h"

namespace files_test {
namespace {

using qor_test::catch_fatal;
using qor_test::DiscFullHandler;
using qor_test::read_file;
using qor_test::write_file;

TEST_F(Files, CreateBinaryFileKeepsContentsAndOpensReadWrite) {
    write_file(path("b"), "old");
    QOR_file_handle *h = QOR_create_binary_file(path("b").c_str());
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(std::string(h->path), path("b"));
    EXPECT_EQ(h->flags, 36u);
    EXPECT_EQ(h->lock_mode, 0u);
    EXPECT_EQ(h->idle, 1u);
    EXPECT_EQ(h->stream, nullptr);
    EXPECT_EQ(fd_flags(h->fd) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fd_flags(h->fd) & O_APPEND, 0);
    QOR_close_binary_file(h);
    EXPECT_EQ(read_file(path("b")), "old");
}

TEST_F(Files, CreateBinaryFileMakesAMissingFileWithBits0777UnderTheUmask) {
    ::umask(027);
    QOR_file_handle *h = QOR_create_binary_file(path("new").c_str());
    ASSERT_NE(h, nullptr);
    QOR_close_binary_file(h);
    EXPECT_EQ(mode_of(path("new")), 0750u);
}

TEST_F(Files, OpenBinaryFileReadOnlyAndReadWrite) {
    write_file(path("b"), "x");
    QOR_file_handle *r = QOR_open_binary_file(path("b").c_str(), 1);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->flags, 1u);
    EXPECT_EQ(fd_flags(r->fd) & O_ACCMODE, O_RDONLY);
    QOR_file_handle *w = QOR_open_binary_file(path("b").c_str(), 0);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(w->flags, 36u);
    EXPECT_EQ(fd_flags(w->fd) & O_ACCMODE, O_RDWR);
    QOR_close_binary_file(r);
    QOR_close_binary_file(w);
}

TEST_F(Files, OpeningAMissingFileIsAnAccessFailure) {
    for (int read_only : {0, 1}) {
        EXPECT_ACCESS_FAILURE(run_in_child([&] {
                                  QOR_open_binary_file(path("none").c_str(),
                                                       read_only);
                              }),
                              path("none"), ENOENT);
        EXPECT_ACCESS_FAILURE(run_in_child([&] {
                                  QOR_open_text_file(path("none").c_str(),
                                                     read_only);
                              }),
                              path("none"), ENOENT);
    }
    EXPECT_FALSE(qor_test::exists(path("none")));
}

TEST_F(Files, AnArmedHandlerGetsTheAccessFailureAsStatus1) {
    const auto r = run_in_child([&] {
        const int jumped = catch_fatal(
            [&] { QOR_open_binary_file(path("none").c_str(), 1); });
        printf("%d", jumped);
    });
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "1");
    EXPECT_EQ(r.err, access_report(path("none"), ENOENT));
}

TEST_F(Files, TheMultiuserReadOnlyOpenAnswersNullForAMissingFile) {
    EXPECT_EQ(QOR_open_multiuser_text_file(path("none").c_str(), 1, 0, 0),
              nullptr);
    EXPECT_EQ(QOR_open_multiuser_text_file(path("none").c_str(), 1, 1, 0),
              nullptr);
    EXPECT_FALSE(qor_test::exists(path("none")));
}

TEST_F(Files, EveryOpenerAnswersNullOnEacces) {
    write_file(path("secret"), "s");
    ASSERT_EQ(::chmod(path("secret").c_str(), 0600), 0);
    const auto r = qor_test::run_as_unprivileged([&] {
        const std::string secret = path("secret");
        const char *p = secret.c_str();
        int nulls = 0;
        nulls += QOR_create_binary_file(p) == nullptr;
        nulls += QOR_open_binary_file(p, 1) == nullptr;
        nulls += QOR_open_binary_file(p, 0) == nullptr;
        nulls += QOR_create_text_file(p) == nullptr;
        nulls += QOR_open_text_file(p, 1) == nullptr;
        nulls += QOR_open_multiuser_text_file(p, 1, 0, 0) == nullptr;
        nulls += QOR_open_multiuser_text_file(p, 0, 1, 0) == nullptr;
        printf("%d", nulls);
    });
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "7");
    EXPECT_EQ(read_file(path("secret")), "s");
}

TEST_F(Files, AnUntranslatablePathIsFatalAndMakesNothing) {
    const char *bad = "$(QOR_FILES_TEST_NO_SUCH_VARIABLE)/f";
    ASSERT_EQ(QOR_qor_to_os(bad, 0), nullptr);
    const std::function<void()> calls[] = {
        [&] { QOR_create_binary_file(bad); },
        [&] { QOR_open_binary_file(bad, 1); },
        [&] { QOR_create_text_file(bad); },
        [&] { QOR_open_text_file(bad, 0); },
        [&] { QOR_open_multiuser_text_file(bad, 0, 1, 1); },
        [&] { QOR_create_dir(bad); },
        [&] { QOR_open_lock(bad, 1); },
    };
    for (const auto &call : calls) {
        EXPECT_FATAL(run_in_child(call), "qor_files", "Invalid path");
    }
    // Without create, the accessibility question comes first.
    EXPECT_FATAL(run_in_child([&] { QOR_open_lock(bad, 0); }), "qor_files",
                 "QOR_is_accessible failed");
    const auto r = run_in_child([&] {
        printf("%d", catch_fatal([&] { QOR_create_text_file(bad); }));
    });
    EXPECT_EQ(r.out, "1");
}

TEST_F(Files, CreateTextFileTruncatesAndAttachesAnAppendingStream) {
    write_file(path("t"), "old contents\n");
    QOR_file_handle *h = QOR_create_text_file(path("t").c_str());
    ASSERT_NE(h, nullptr);
    ASSERT_NE(h->stream, nullptr);
    EXPECT_EQ(h->flags, 36u);
    EXPECT_EQ(qor_fault_calls(QF_fdopen), 1);
    FILE *again = nullptr;
    EXPECT_EQ(QOR_get_file_ptr(h, &again), 0);
    EXPECT_EQ(again, h->stream);  // made once, kept
    EXPECT_EQ(fd_flags(h->fd) & O_APPEND, O_APPEND);  // "a+"
    EXPECT_GE(QOR_write_text_string(h, "one\n"), 0);
    QOR_close_text_file(h);
    EXPECT_EQ(read_file(path("t")), "one\n");
}

TEST_F(Files, OpenTextFileReadsLinesAndEndsWithZero) {
    write_file(path("t"), "alpha\nbeta");
    QOR_file_handle *h = QOR_open_text_file(path("t").c_str(), 1);
    ASSERT_NE(h, nullptr);
    char buf[64];
    ASSERT_EQ(QOR_read_text_line(h, buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "alpha\n");
    ASSERT_EQ(QOR_read_text_line(h, buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "beta");
    EXPECT_EQ(QOR_read_text_line(h, buf, sizeof buf), 0);
    EXPECT_EQ(QOR_rewind_text_file(h), 0);
    ASSERT_EQ(QOR_read_text_line(h, buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "alpha\n");
    QOR_close_text_file(h);
}

TEST_F(Files, ALineLongerThanTheBufferComesInPieces) {
    write_file(path("t"), "abcdefghij\n");
    QOR_file_handle *h = QOR_open_text_file(path("t").c_str(), 1);
    char buf[5];
    std::string pieces;
    while (QOR_read_text_line(h, buf, sizeof buf) == 1) {
        EXPECT_LE(strlen(buf), 4u);
        pieces += std::string(buf) + "|";
    }
    EXPECT_EQ(pieces, "abcd|efgh|ij\n|");
    QOR_close_text_file(h);
}

TEST_F(Files, MultiuserOpenFlagsTruncationAndRewind) {
    write_file(path("m"), "keep\n");
    QOR_file_handle *h =
        QOR_open_multiuser_text_file(path("m").c_str(), 0, 0, 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->flags, 36u);
    EXPECT_EQ(h->lock_mode, 3u);  // no lock asked: state 3 without locking
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 0);
    EXPECT_EQ(ftell(h->stream), 0);
    QOR_close_text_file(h);
    EXPECT_EQ(read_file(path("m")), "keep\n");

    h = QOR_open_multiuser_text_file(path("m").c_str(), 0, 0, 1);
    QOR_close_text_file(h);
    EXPECT_EQ(read_file(path("m")), "");

    h = QOR_open_multiuser_text_file(path("fresh").c_str(), 0, 0, 0);
    ASSERT_NE(h, nullptr);
    QOR_close_text_file(h);
    EXPECT_TRUE(qor_test::exists(path("fresh")));

    h = QOR_open_multiuser_text_file(path("m").c_str(), 1, 0, 0);
    EXPECT_EQ(h->flags, 1u);
    EXPECT_EQ(fd_flags(h->fd) & O_ACCMODE, O_RDONLY);
    QOR_close_text_file(h);
}

TEST_F(Files, MultiuserOpenWithLockTakesByte1OrAnswersNull) {
    write_file(path("m"), "x\n");
    QOR_file_handle *h =
        QOR_open_multiuser_text_file(path("m").c_str(), 0, 1, 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->lock_mode, 3u);
    const auto r = run_in_child([&] {
        QOR_file_handle *other =
            QOR_open_multiuser_text_file(path("m").c_str(), 0, 1, 0);
        printf("%s", other == nullptr ? "null" : "opened");
        // A read-only open with the lock flag takes no lock.
        QOR_file_handle *reader =
            QOR_open_multiuser_text_file(path("m").c_str(), 1, 1, 0);
        printf(" %u", reader->lock_mode);
        QOR_close_text_file(reader);
    });
    EXPECT_EQ(r.out, "null 0");
    QOR_close_text_file(h);
}

TEST_F(Files, PositionedBinaryTransfers) {
    QOR_file_handle *h = QOR_create_binary_file(path("b").c_str());
    EXPECT_EQ(QOR_write_binary_data(h, 4, 6, "abcdef"), 6);
    EXPECT_EQ(QOR_get_binary_file_size(h), 10);
    char buf[8] = {};
    EXPECT_EQ(QOR_read_binary_data(h, 6, 4, buf), 4);
    EXPECT_EQ(std::string(buf, 4), "cdef");
    EXPECT_EQ(QOR_read_binary_data(h, 10, 0, buf), 0);
    QOR_close_binary_file(h);
    EXPECT_EQ(read_file(path("b")), std::string(4, '\0') + "abcdef");
}

TEST_F(Files, ShortTransfersAreContinuedAndTheLastResultReturned) {
    QOR_file_handle *h = QOR_create_binary_file(path("b").c_str());
    qor_fault_short(QF_write, 2, 0, 3);
    EXPECT_EQ(QOR_write_binary_data(h, 0, 8, "12345678"), 2);
    EXPECT_EQ(qor_fault_calls(QF_write), 4);
    qor_fault_short(QF_read, 3, 0, 2);
    char buf[9] = {};
    EXPECT_EQ(QOR_read_binary_data(h, 0, 8, buf), 2);
    EXPECT_EQ(qor_fault_calls(QF_read), 3);
    EXPECT_STREQ(buf, "12345678");
    QOR_close_binary_file(h);
}

TEST_F(Files, AReadPastTheEndIsAnAccessFailure) {
    write_file(path("b"), "1234");
    const auto r = run_in_child([&] {
        QOR_file_handle *h = QOR_open_binary_file(path("b").c_str(), 1);
        char buf[8];
        QOR_read_binary_data(h, 2, 4, buf);
    });
    EXPECT_ACCESS_FAILURE(r, path("b"), ENODATA);
}

TEST_F(Files, AWriteThatMovesNothingIsAnAccessFailure) {
    const auto r = run_in_child([&] {
        QOR_file_handle *h = QOR_create_binary_file(path("b").c_str());
        qor_fault_short(QF_write, 0, 0, -1);
        QOR_write_binary_data(h, 0, 4, "1234");
    });
    EXPECT_ACCESS_FAILURE(r, path("b"), EIO);
}

TEST_F(Files, AFailingSeekIsAnAccessFailure) {
    write_file(path("b"), "1234");
    const auto r = run_in_child([&] {
        QOR_file_handle *h = QOR_open_binary_file(path("b").c_str(), 1);
        qor_fault_fail(QF_lseek, EIO, 0, 1);
        char buf[4];
        QOR_read_binary_data(h, 0, 4, buf);
    });
    EXPECT_ACCESS_FAILURE(r, path("b"), EIO);
}

// The retry rule: 100 repetitions after an interruption pass, the 101st
// interruption is an access failure.
struct Retried {
    const char *name;
    qor_fault_fn fn;
    std::function<void(const std::string &)> call;
};

std::vector<Retried> retried_calls() {
    return {
        {"open", QF_open,
         [](const std::string &p) {
             QOR_close_binary_file(QOR_open_binary_file(p.c_str(), 1));
         }},
        {"close", QF_close,
         [](const std::string &p) {
             QOR_file_handle *h = QOR_open_binary_file(p.c_str(), 1);
             QOR_close_binary_file(h);
         }},
        {"read", QF_read,
         [](const std::string &p) {
             QOR_file_handle *h = QOR_open_binary_file(p.c_str(), 1);
             char b[2];
             QOR_read_binary_data(h, 0, 2, b);
             QOR_close_binary_file(h);
         }},
        {"write", QF_write,
         [](const std::string &p) {
             QOR_file_handle *h = QOR_open_binary_file(p.c_str(), 0);
             QOR_write_binary_data(h, 0, 2, "zz");
             QOR_close_binary_file(h);
         }},
        {"fclose", QF_fclose,
         [](const std::string &p) {
             QOR_file_handle *h = QOR_open_text_file(p.c_str(), 1);
             QOR_close_text_file(h);
         }},
        {"fgets", QF_fgets,
         [](const std::string &p) {
             QOR_file_handle *h = QOR_open_text_file(p.c_str(), 1);
             char line[8];
             QOR_read_text_line(h, line, sizeof line);
             QOR_close_text_file(h);
         }},
        {"fseek", QF_fseek,
         [](const std::string &p) {
             QOR_file_handle *h = QOR_open_text_file(p.c_str(), 1);
             QOR_rewind_text_file(h);
             QOR_close_text_file(h);
         }},
        {"fflush", QF_fflush,
         [](const std::string &p) {
             QOR_file_handle *h = QOR_open_text_file(p.c_str(), 0);
             QOR_flush_text_file(h);
             QOR_close_text_file(h);
         }},
        {"remove", QF_remove,
         [](const std::string &p) { QOR_delete_file(p.c_str()); }},
        {"fcntl", QF_fcntl,
         [](const std::string &p) {
             QOR_file_handle *h = QOR_open_lock(p.c_str(), 0);
             QOR_set_read_lock(h);
             QOR_close_lock(h);
         }},
    };
}

TEST_F(Files, EveryRetriedCallSurvivesAStormOf100Interruptions) {
    for (const auto &c : retried_calls()) {
        write_file(path("f"), "ab\n");
        const auto r = run_in_child([&] {
            qor_fault_fail(c.fn, EINTR, 0, 100);
            c.call(path("f"));
            printf("%ld", qor_fault_injected(c.fn));
        });
        EXPECT_EQ(r.out, "100") << c.name;
        EXPECT_EQ(r.exit_status, 0) << c.name << r.err;
        EXPECT_EQ(r.err, "") << c.name;
    }
}

TEST_F(Files, The101stInterruptionIsAnAccessFailure) {
    for (const auto &c : retried_calls()) {
        write_file(path("f"), "ab\n");
        const auto r = run_in_child([&] {
            qor_fault_fail(c.fn, EINTR, 0, 101);
            c.call(path("f"));
        });
        EXPECT_ACCESS_FAILURE(r, path("f"), EINTR);
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << c.name;
            break;
        }
    }
}

TEST_F(Files, AnyOtherFailureOfARetriedCallIsAnAccessFailureAtOnce) {
    write_file(path("f"), "ab\n");
    const auto r = run_in_child([&] {
        qor_fault_fail(QF_read, EIO, 0, 1);
        QOR_file_handle *h = QOR_open_binary_file(path("f").c_str(), 1);
        char b[2];
        QOR_read_binary_data(h, 0, 2, b);
    });
    EXPECT_ACCESS_FAILURE(r, path("f"), EIO);
}

TEST_F(Files, CreatesAndWritesAskTheDiscFullHandlerOnEnospc) {
    DiscFullHandler handler({0});
    qor_fault_fail(QF_open, ENOSPC, 0, 2);
    QOR_file_handle *h = QOR_create_binary_file(path("b").c_str());
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(handler.calls.size(), 2u);
    EXPECT_EQ(handler.calls[0].os_error, ENOSPC);
    EXPECT_EQ(handler.calls[0].context, QOR_CTX_OPEN);
    EXPECT_EQ(handler.calls[0].path, path("b"));
    qor_fault_fail(QF_write, ENOSPC, 0, 1);
    EXPECT_EQ(QOR_write_binary_data(h, 0, 3, "abc"), 3);
    ASSERT_EQ(handler.calls.size(), 3u);
    EXPECT_EQ(handler.calls[2].context, QOR_CTX_WRITE);
    QOR_close_binary_file(h);
    EXPECT_EQ(read_file(path("b")), "abc");

    QOR_file_handle *t = QOR_create_text_file(path("t").c_str());
    QOR_write_text_string(t, "line\n");
    qor_fault_fail(QF_fflush, ENOSPC, 0, 1);
    EXPECT_EQ(QOR_flush_text_file(t), 0);
    EXPECT_EQ(handler.calls.size(), 4u);
    EXPECT_EQ(handler.calls[3].context, QOR_CTX_FLUSH);
    QOR_close_text_file(t);
    EXPECT_EQ(read_file(path("t")), "line\n");
}

TEST_F(Files, ADiscFullHandlerThatGivesUpLeadsToTheAccessFailure) {
    const auto r = run_in_child([&] {
        DiscFullHandler handler({1});
        qor_fault_fail(QF_open, ENOSPC, 0, -1);
        QOR_create_text_file(path("t").c_str());
    });
    EXPECT_ACCESS_FAILURE(r, path("t"), ENOSPC);
}

TEST_F(Files, AWrongKindOfHandleIsFatal) {
    write_file(path("f"), "ab\n");
    struct Case {
        bool text;
        std::function<void(QOR_file_handle *)> call;
        const char *message;
    };
    const Case cases[] = {
        {true, [](QOR_file_handle *h) { QOR_close_binary_file(h); },
         "QOR_close_binary_file called for text file"},
        {true, [](QOR_file_handle *h) { QOR_get_binary_file_size(h); },
         "QOR_get_binary_file-size called for text file"},
        {true, [](QOR_file_handle *h) { QOR_write_binary_data(h, 0, 1, "a"); },
         "QOR_write_binary_data called for text file"},
        {true,
         [](QOR_file_handle *h) {
             char b[1];
             QOR_read_binary_data(h, 0, 1, b);
         },
         "QOR_read_binary_data called for text file"},
        {false, [](QOR_file_handle *h) { QOR_rewind_text_file(h); },
         "QOR_rewind_text_file called for binary file"},
        {false, [](QOR_file_handle *h) { QOR_flush_text_file(h); },
         "QOR_flush_text_file called for binary file"},
        {false, [](QOR_file_handle *h) { QOR_close_text_file(h); },
         "QOR_close_text_file called for binary file"},
        {false, [](QOR_file_handle *h) { QOR_write_text_string(h, "a"); },
         "QOR_write_text_string called for binary file"},
        {false,
         [](QOR_file_handle *h) {
             char b[4];
             QOR_read_text_line(h, b, 4);
         },
         "QOR_read_text_line called for binary file"},
    };
    for (const auto &c : cases) {
        const auto r = run_in_child([&] {
            QOR_file_handle *h =
                c.text ? QOR_open_text_file(path("f").c_str(), 0)
                       : QOR_open_binary_file(path("f").c_str(), 0);
            c.call(h);
        });
        EXPECT_FATAL(r, "qor_files", c.message);
    }
    EXPECT_EQ(read_file(path("f")), "ab\n");
}

TEST_F(Files, ClearFileRewindsATextFileAndTruncates) {
    write_file(path("t"), "some text\n");
    QOR_file_handle *t = QOR_open_text_file(path("t").c_str(), 0);
    char buf[8];
    QOR_read_text_line(t, buf, sizeof buf);
    EXPECT_EQ(QOR_clear_file(t), 0);
    EXPECT_EQ(ftell(t->stream), 0);
    EXPECT_EQ(qor_fault_calls(QF_fseek), 1);  // the clear's rewind
    QOR_write_text_string(t, "new\n");
    QOR_close_text_file(t);
    EXPECT_EQ(read_file(path("t")), "new\n");

    QOR_file_handle *b = QOR_open_binary_file(path("t").c_str(), 0);
    EXPECT_EQ(QOR_clear_file(b), 0);
    EXPECT_EQ(QOR_get_binary_file_size(b), 0);
    QOR_close_binary_file(b);
}

TEST_F(Files, AFailingTruncateIsFatal) {
    write_file(path("t"), "x");
    const auto r = run_in_child([&] {
        QOR_file_handle *b = QOR_open_binary_file(path("t").c_str(), 0);
        qor_fault_fail(QF_ftruncate, EIO, 0, 1);
        QOR_clear_file(b);
    });
    EXPECT_FATAL(r, "qor_files", "Unable to truncate file");
    EXPECT_EQ(read_file(path("t")), "x");
}

TEST_F(Files, FileHandlesServeTheObjectStoresRecordFunctions) {
    QOR_file_handle *h = QOR_create_binary_file(path("b").c_str());
    int fd = -1;
    EXPECT_EQ(QOR_get_fd(h, &fd), 0);
    EXPECT_EQ(fd, h->fd);
    EXPECT_EQ(QOR_write_idle_block(h, 0, "idle", 4), 0);
    char buf[5] = {};
    EXPECT_EQ(QOR_read_idle_block(h, 0, buf, 4), 0);
    EXPECT_STREQ(buf, "idle");
    FILE *s = nullptr;
    EXPECT_EQ(QOR_get_file_ptr(h, &s), 0);
    EXPECT_EQ(s, h->stream);
    // Closing through the object store gives the record back to basic
    // space, where it came from (ASan and the debug checks would object).
    EXPECT_EQ(QOR_close_contents(h), 0);
}

TEST_F(Files, ClosingAContentsRecordThroughTheFileLayerReturnsItToItsPool) {
    write_file(path("c"), "c");
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_file(("@" + path("c")).c_str(), 0, 0, QOR_OPEN_READ,
                            0, &rec),
              0);
    QOR_close_binary_file(rec);
    // The pool hands the same record out again.
    QOR_contents_record *again = nullptr;
    ASSERT_EQ(QOR_open_file(("@" + path("c")).c_str(), 0, 0, QOR_OPEN_READ,
                            0, &again),
              0);
    EXPECT_EQ(again, rec);
    QOR_close_contents(again);
}

TEST_F(Files, ReadSymlink) {
    ASSERT_EQ(::symlink("target/text", path("l").c_str()), 0);
    char *t = QOR_read_symlink(path("l").c_str());
    ASSERT_NE(t, nullptr);
    EXPECT_STREQ(t, "target/text");
    QOR_free(t);
    write_file(path("plain"), "");
    EXPECT_EQ(QOR_read_symlink(path("plain").c_str()), nullptr);
}

TEST_F(Files, ALinkTextOfMoreThan1000BytesIsCutAt1000) {
    const std::string text(1500, 'x');
    ASSERT_EQ(::symlink(text.c_str(), path("l").c_str()), 0);
    char *t = QOR_read_symlink(path("l").c_str());
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(std::string(t), text.substr(0, 1000));
    QOR_free(t);
}

TEST_F(Files, ReadSymlinkOfAMissingPathIsFatal) {
    EXPECT_FATAL(run_in_child([&] { QOR_read_symlink(path("none").c_str()); }),
                 "qor_files", "Unable to read link");
}

TEST_F(Files, IsSymlinkAndIsDirectory) {
    write_file(path("f"), "");
    ASSERT_EQ(::mkdir(path("d").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("d", path("ld").c_str()), 0);
    EXPECT_EQ(QOR_is_symlink(path("ld").c_str()), 1);
    EXPECT_EQ(QOR_is_symlink(path("d").c_str()), 0);
    EXPECT_EQ(QOR_is_symlink(path("none").c_str()), 0);
    EXPECT_EQ(QOR_is_directory(path("d").c_str()), 1);
    EXPECT_EQ(QOR_is_directory(path("ld").c_str()), 1);  // followed
    EXPECT_EQ(QOR_is_directory(path("f").c_str()), 0);
    EXPECT_EQ(QOR_is_directory(path("none").c_str()), 0);
}

TEST_F(Files, IsDirectoryTestsOneBitSoSocketsAndBlockDevicesCount) {
    const int s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(s, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    const std::string sp = path("sock");
    ASSERT_LT(sp.size(), sizeof addr.sun_path);
    strcpy(addr.sun_path, sp.c_str());
    ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    EXPECT_EQ(QOR_is_directory(sp.c_str()), 1);
    ::close(s);
    ASSERT_EQ(::mknod(path("blk").c_str(), S_IFBLK | 0600, makedev(7, 200)),
              0);
    EXPECT_EQ(QOR_is_directory(path("blk").c_str()), 1);
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(QOR_is_directory(path("fifo").c_str()), 0);
}

TEST_F(Files, ModificationTime) {
    write_file(path("f"), "");
    struct timespec times[2] = {{1000, 0}, {123456789, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path("f").c_str(), times, 0), 0);
    EXPECT_EQ(QOR_get_mod_time(path("f").c_str()), 123456789);
    EXPECT_EQ(QOR_get_mod_time(path("none").c_str()), 0);
}

TEST_F(Files, FilesSameComparesInodesOnly) {
    write_file(path("a"), "");
    write_file(path("b"), "");
    ASSERT_EQ(::link(path("a").c_str(), path("hard").c_str()), 0);
    EXPECT_EQ(QOR_files_same(path("a").c_str(), path("hard").c_str()), 1);
    EXPECT_EQ(QOR_files_same(path("a").c_str(), path("b").c_str()), 0);
    EXPECT_EQ(QOR_files_same(path("a").c_str(), path("none").c_str()), 0);
    EXPECT_EQ(QOR_files_same(path("none").c_str(), path("a").c_str()), 0);
}

TEST_F(Files, FilesSameAnswers1ForEqualInodesOnDifferentDevices) {
    // The roots of proc and sysfs both carry inode 1.
    struct stat a, b;
    if (::stat("/proc", &a) != 0 || ::stat("/sys", &b) != 0 ||
        a.st_ino != b.st_ino || a.st_dev == b.st_dev) {
        GTEST_SKIP() << "no two file systems with equal root inodes";
    }
    EXPECT_EQ(QOR_files_same("/proc", "/sys"), 1);
}

TEST_F(Files, DeleteFile) {
    write_file(path("f"), "");
    EXPECT_EQ(QOR_delete_file(path("f").c_str()), 0);
    EXPECT_FALSE(qor_test::exists(path("f")));
    EXPECT_ACCESS_FAILURE(
        run_in_child([&] { QOR_delete_file(path("f").c_str()); }), path("f"),
        ENOENT);
}

TEST_F(Files, CreateDirAcceptsAnExistingEntryQuietly) {
    QOR_create_dir(path("d").c_str());
    struct stat st;
    ASSERT_EQ(::stat(path("d").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0755u);
    QOR_create_dir(path("d").c_str());
    write_file(path("f"), "file");
    QOR_create_dir(path("f").c_str());
    EXPECT_EQ(read_file(path("f")), "file");
}

TEST_F(Files, CreateDirOnAFullDiscAsksTheHandler) {
    DiscFullHandler handler({0});
    qor_fault_fail(QF_mkdir, ENOSPC, 0, 1);
    QOR_create_dir(path("d").c_str());
    ASSERT_EQ(handler.calls.size(), 1u);
    EXPECT_EQ(handler.calls[0].context, QOR_CTX_CREATE_DIRECTORY);
    EXPECT_EQ(handler.calls[0].path, path("d"));
    EXPECT_EQ(qor_fault_calls(QF_mkdir), 2);
    EXPECT_TRUE(QOR_is_directory(path("d").c_str()));
}

TEST_F(Files, CreateDirFailingOtherwiseIsAnAccessFailure) {
    EXPECT_ACCESS_FAILURE(
        run_in_child([&] { QOR_create_dir(path("no/such").c_str()); }),
        path("no/such"), ENOENT);
}

}  // namespace
}  // namespace files_test
