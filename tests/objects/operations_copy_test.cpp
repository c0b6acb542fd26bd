// Copying objects: what each type copies, targets that exist, the locks
// taken while copying (QOR_lock_on_copy), the undo of every step, a full
// disc, interruptions and short writes.

#include "contents_fixture.h"

namespace objects_test {
namespace {

using Names = std::vector<std::string>;

class Copy : public Store {
  protected:
    void TearDown() override {
        QOR_lock_on_copy = 1;
        Store::TearDown();
    }
    int copy(const std::string &from, unsigned type, const std::string &to) {
        return QOR_copy_object(qor(from).c_str(), type, qor(to).c_str());
    }
    // An object of the type with recognisable member contents.
    void make_source(const std::string &name, unsigned type) {
        make_object(os(name), type);
        if (type == 0) qor_test::write_file(os(name), "file of " + name);
        if (type >= 3) qor_test::write_file(os(name) + "/.body", "body of " + name);
        if (type == 4) qor_test::write_file(os(name) + "/.index", "index of " + name);
    }
};

TEST_F(Copy, PlainFileOntoAMissingTargetGives0) {
    make_source("s", 0);
    MessageLog log;
    EXPECT_EQ(copy("s", 0, "t"), 0);
    EXPECT_EQ(qor_test::read_file(os("t")), "file of s");
    EXPECT_EQ(mode_of(os("t")), 0755u);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, PlainFileOntoAnExistingTargetGives2054AndReplacesIt) {
    make_source("s", 0);
    qor_test::write_file(os("t"), std::string(10000, 'x'));
    ASSERT_EQ(chmod(os("t").c_str(), 0600), 0);
    MessageLog log;
    EXPECT_EQ(copy("s", 0, "t"), QOR_E_TARGET_EXISTS);
    EXPECT_EQ(qor_test::read_file(os("t")), "file of s");
    EXPECT_EQ(mode_of(os("t")), 0600u);  // the same file, rewritten
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, CdirOntoAMissingTargetGives0) {
    make_source("s", 3);
    MessageLog log;
    EXPECT_EQ(copy("s", 3, "t"), 0);
    EXPECT_EQ(entries(os("t")), (Names{".body", ".lock"}));
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "body of s");
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, CdirOntoAnExistingTargetGives2054AndRewritesItsBody) {
    make_source("s", 3);
    make_object(os("t"), 3);
    qor_test::write_file(os("t/.body"), std::string(9000, 'o'));
    MessageLog log;
    EXPECT_EQ(copy("s", 3, "t"), QOR_E_TARGET_EXISTS);
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "body of s");
    EXPECT_EQ(entries(os("t")), (Names{".body", ".lock"}));
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, IdleObjectCopiesBodyAndIndex) {
    make_source("s", 4);
    MessageLog log;
    EXPECT_EQ(copy("s", 4, "t"), 0);
    EXPECT_EQ(entries(os("t")), (Names{".body", ".index", ".lock"}));
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "body of s");
    EXPECT_EQ(qor_test::read_file(os("t/.index")), "index of s");
    EXPECT_EQ(copy("s", 4, "t"), QOR_E_TARGET_EXISTS);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, LockableDirectoryIntoADirectoryWithoutLockGives0) {
    make_source("s", 2);
    make_dir(os("t"));
    MessageLog log;
    EXPECT_EQ(copy("s", 2, "t"), 0);  // not 2054
    EXPECT_EQ(entries(os("t")), Names{".lock"});
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, LockableDirectoryOntoAnExistingOneGives2053) {
    make_source("s", 2);
    make_object(os("t"), 2);
    MessageLog log;
    EXPECT_EQ(copy("s", 2, "t"), QOR_E_EXISTS);
    EXPECT_EQ(copy("s", 2, "n"), 0);
    EXPECT_EQ(entries(os("n")), Names{".lock"});
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, PlainDirectoryMakesOnlyTheDirectory) {
    make_dir(os("s"));
    qor_test::write_file(os("s/link"), "a link");
    MessageLog log;
    EXPECT_EQ(copy("s", 1, "t"), 0);
    EXPECT_EQ(entries(os("t")), Names{});
    EXPECT_EQ(copy("s", 1, "t"), QOR_E_TARGET_EXISTS);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, LinksOfCompositeObjectsAreNotCopied) {
    make_source("s", 3);
    qor_test::write_file(os("s/link"), "a link");
    EXPECT_EQ(copy("s", 3, "t"), 0);
    EXPECT_EQ(entries(os("t")), (Names{".body", ".lock"}));
}

TEST_F(Copy, TypeAboveFourGives2070) {
    make_source("s", 4);
    MessageLog log;
    EXPECT_EQ(copy("s", 5, "t"), QOR_E_INVALID);
    EXPECT_ONE_RECORDED(log, 2070, os("t"), QOR_CTX_COPY_CONTENTS, EINVAL);
    EXPECT_FALSE(qor_test::exists(os("t")));
}

TEST_F(Copy, UntranslatablePathsGive2051AndUndoTheTarget) {
    make_source("s", 3);
    MessageLog log;
    EXPECT_EQ(QOR_copy_object("relative", 3, qor("t").c_str()),
              QOR_E_UNTRANSLATABLE);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_EQ(QOR_copy_object(qor("s").c_str(), 3, "relative"),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_copy_object("relative", 0, qor("t").c_str()),
              QOR_E_UNTRANSLATABLE);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, MissingSourceLeavesNoTarget) {
    MessageLog log;
    EXPECT_EQ(copy("s", 3, "t"), QOR_E_MISSING);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2052, os("s/.body"), QOR_CTX_OPEN, ENOENT);
}

// ---- Failures while writing ------------------------------------------------

TEST_F(Copy, FailedWriteRemovesATargetFileItCreated) {
    make_source("s", 0);
    MessageLog log;
    qor_fault_fail(QF_write, EIO, 0, 1);
    EXPECT_EQ(copy("s", 0, "t"), QOR_E_IO);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2056, os("t"), QOR_CTX_COPY_CONTENTS, EIO);
}

TEST_F(Copy, FailedWriteKeepsATargetFileThatExisted) {
    make_source("s", 0);
    qor_test::write_file(os("t"), "old");
    MessageLog log;
    qor_fault_fail(QF_write, EIO, 0, 1);
    EXPECT_EQ(copy("s", 0, "t"), QOR_E_IO);
    EXPECT_TRUE(qor_test::exists(os("t")));
    EXPECT_EQ(log.messages.size(), 1u);
}

TEST_F(Copy, FailedReadIsRecordedWithTheSource) {
    make_source("s", 0);
    MessageLog log;
    qor_fault_fail(QF_read, EIO, 0, 1);
    EXPECT_EQ(copy("s", 0, "t"), QOR_E_IO);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2056, os("s"), QOR_CTX_COPY_CONTENTS, EIO);
}

TEST_F(Copy, ShortWritesGoOnQuietly) {
    const std::string data = random_bytes(50000, 7);
    qor_test::write_file(os("s"), data);
    MessageLog log;
    qor_fault_short(QF_write, 1000, 0, 20);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    EXPECT_EQ(qor_test::read_file(os("t")), data);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, InterruptedReadsAndWritesAreMadeAgain101CallsInARow) {
    make_source("s", 0);
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_read, EINTR, 0, 100);
    qor_fault_fail(QF_write, EINTR, 0, 100);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    EXPECT_EQ(qor_fault_calls(QF_write), 101);
    EXPECT_EQ(qor_fault_calls(QF_read), 102);  // 100 interrupted, data, end
    EXPECT_EQ(qor_test::read_file(os("t")), "file of s");

    qor_fault_reset();
    qor_fault_fail(QF_write, EINTR, 0, 101);
    EXPECT_EQ(copy("s", 0, "u"), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_calls(QF_write), 101);
    qor_fault_reset();
    qor_fault_fail(QF_read, EINTR, 0, 101);
    EXPECT_EQ(copy("s", 0, "v"), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_calls(QF_read), 101);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{
                  recorded(2063, os("u"), QOR_CTX_COPY_CONTENTS, EINTR),
                  recorded(2063, os("s"), QOR_CTX_COPY_CONTENTS, EINTR)}));
    EXPECT_FALSE(qor_test::exists(os("u")));
    EXPECT_FALSE(qor_test::exists(os("v")));
}

TEST_F(Copy, FullDiscAsksTheHandlerThenGivesUpWhenItAnswers1) {
    make_source("s", 3);
    MessageLog log;
    {
        qor_test::DiscFullHandler handler({0, 1});
        qor_fault_reset();
        qor_fault_fail(QF_write, ENOSPC, 0, -1);
        EXPECT_EQ(copy("s", 3, "t"), QOR_E_RESOURCE);
        ASSERT_EQ(handler.calls.size(), 2u);
        for (const auto &c : handler.calls) {
            EXPECT_EQ(c.os_error, ENOSPC);
            EXPECT_EQ(c.context, QOR_CTX_COPY_CONTENTS);
            EXPECT_EQ(c.path, os("t/.body"));
        }
        EXPECT_EQ(qor_fault_calls(QF_write), 2);
    }
    EXPECT_ONE_RECORDED(log, 2058, os("t/.body"), QOR_CTX_COPY_CONTENTS, ENOSPC);
    EXPECT_FALSE(qor_test::exists(os("t")));
    {
        qor_test::DiscFullHandler handler({0});
        qor_fault_reset();
        qor_fault_fail(QF_write, ENOSPC, 0, 3);
        EXPECT_EQ(copy("s", 3, "t"), 0);
        EXPECT_EQ(handler.calls.size(), 3u);
    }
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "body of s");
    EXPECT_EQ(log.messages.size(), 1u);
}

TEST_F(Copy, FullDiscOnAnExistingTargetKeepsIt) {
    make_source("s", 0);
    qor_test::write_file(os("t"), "old");
    MessageLog log;
    qor_test::DiscFullHandler handler({1});
    qor_fault_fail(QF_write, ENOSPC, 0, 1);
    EXPECT_EQ(copy("s", 0, "t"), QOR_E_RESOURCE);
    EXPECT_EQ(handler.calls.size(), 1u);
    EXPECT_TRUE(qor_test::exists(os("t")));
}

// ---- Undo of each step -----------------------------------------------------

TEST_F(Copy, FailedDirectoryMakesNothing) {
    make_source("s", 4);
    MessageLog log;
    qor_fault_fail(QF_mkdir, EACCES, 0, 1);
    EXPECT_EQ(copy("s", 4, "t"), QOR_E_PERMISSION);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2055, os("t"), QOR_CTX_CREATE_DIRECTORY, EACCES);
}

TEST_F(Copy, FailedLockRemovesTheDirectoryItMade) {
    make_source("s", 3);
    MessageLog log;
    qor_fault_fail(QF_open, EACCES, 0, 1);
    qor_fault_filter_path(QF_open, (os("t") + "/.lock").c_str());
    EXPECT_EQ(copy("s", 3, "t"), QOR_E_PERMISSION);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2055, os("t/.lock"), QOR_CTX_CREATE_FILE, EACCES);
}

TEST_F(Copy, FailedLockKeepsADirectoryThatExisted) {
    make_source("s", 3);
    make_dir(os("t"));
    qor_test::write_file(os("t/link"), "mine");
    MessageLog log;
    qor_fault_fail(QF_open, EACCES, 0, 1);
    qor_fault_filter_path(QF_open, (os("t") + "/.lock").c_str());
    EXPECT_EQ(copy("s", 3, "t"), QOR_E_PERMISSION);
    EXPECT_EQ(entries(os("t")), Names{"link"});
    EXPECT_ONE_RECORDED(log, 2055, os("t/.lock"), QOR_CTX_CREATE_FILE, EACCES);
}

TEST_F(Copy, FailedBodyRemovesTheLockAndDirectoryItMade) {
    make_source("s", 3);
    MessageLog log;
    qor_fault_fail(QF_write, EIO, 0, 1);
    EXPECT_EQ(copy("s", 3, "t"), QOR_E_IO);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2056, os("t/.body"), QOR_CTX_COPY_CONTENTS, EIO);
}

TEST_F(Copy, FailedBodyKeepsTheLockThatExisted) {
    make_source("s", 3);
    make_object(os("t"), 2);
    MessageLog log;
    qor_fault_fail(QF_write, EIO, 0, 1);
    EXPECT_EQ(copy("s", 3, "t"), QOR_E_IO);
    EXPECT_EQ(entries(os("t")), Names{".lock"});
    EXPECT_ONE_RECORDED(log, 2056, os("t/.body"), QOR_CTX_COPY_CONTENTS, EIO);
}

TEST_F(Copy, FailedIndexRemovesTheBodyLockAndDirectoryItMade) {
    make_source("s", 4);
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_write, EIO, 1, 1);  // the body's write passes
    EXPECT_EQ(copy("s", 4, "t"), QOR_E_IO);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2056, os("t/.index"), QOR_CTX_COPY_CONTENTS, EIO);
}

TEST_F(Copy, FailedIndexKeepsTheMembersThatExisted) {
    make_source("s", 4);
    make_object(os("t"), 3);
    qor_test::write_file(os("t/.body"), "old body");
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_write, EIO, 1, 1);
    EXPECT_EQ(copy("s", 4, "t"), QOR_E_IO);
    // The body existed: rewritten, kept; the index did not: gone.
    EXPECT_EQ(entries(os("t")), (Names{".body", ".lock"}));
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "body of s");
    EXPECT_ONE_RECORDED(log, 2056, os("t/.index"), QOR_CTX_COPY_CONTENTS, EIO);
}

TEST_F(Copy, FailedIndexRemovesANewBodyButKeepsAnExistingLock) {
    make_source("s", 4);
    make_object(os("t"), 2);
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_write, EIO, 1, 1);
    EXPECT_EQ(copy("s", 4, "t"), QOR_E_IO);
    EXPECT_EQ(entries(os("t")), Names{".lock"});
    EXPECT_ONE_RECORDED(log, 2056, os("t/.index"), QOR_CTX_COPY_CONTENTS, EIO);
}

// Every host call of a copy made to fail in turn, for each composite type
// and for a target that is missing or present: a failed copy leaves no
// target that did not exist, keeps every member of one that did, and
// leaves no descriptor open.
TEST_F(Copy, FailingEachCallInTurnUndoesWhatTheCopyMade) {
    const qor_fault_fn fns[] = {QF_open,  QF_close, QF_read, QF_write,
                                QF_mkdir, QF_fcntl, QF_stat, QF_access};
    int failures_seen = 0;
    for (unsigned type = 0; type <= 4; ++type) {
        for (bool present : {false, true}) {
            make_source("s", type);
            // A plain run counts the calls of each function.
            if (present) make_source("t", type);
            qor_fault_reset();
            const int clean = copy("s", type, "t");
            ASSERT_TRUE(clean == 0 || clean == 2053 || clean == 2054) << clean;
            long calls[QF_COUNT];
            for (auto fn : fns) calls[fn] = qor_fault_calls(fn);
            ASSERT_EQ(system(("rm -rf " + os("t")).c_str()), 0);

            for (auto fn : fns) {
                for (long k = 0; k < calls[fn]; ++k) {
                    if (present) make_source("t", type);
                    const Names before = present ? entries(os("t")) : Names{};
                    MessageLog log;
                    qor_fault_reset();
                    qor_fault_fail(fn, fn == QF_fcntl ? ENOLCK : EIO,
                                   static_cast<int>(k), 1);
                    const int status = copy("s", type, "t");
                    qor_fault_reset();
                    close_descriptors_on(tmp_.path());  // injected closes
                    const std::string where = "type " + std::to_string(type) +
                                              (present ? " present" : " missing") +
                                              " call " + std::to_string(fn) +
                                              "#" + std::to_string(k);
                    if (status == 0 || status == 2053 || status == 2054) {
                        // Some failures only change an answer (a stat
                        // failing says "absent"); the copy then went on.
                    } else {
                        ++failures_seen;
                        if (present) {
                            EXPECT_TRUE(qor_test::exists(os("t"))) << where;
                            EXPECT_EQ(entries(os("t")), before) << where;
                        } else {
                            EXPECT_FALSE(qor_test::exists(os("t"))) << where;
                        }
                        // Exactly one recorded message for the failure, or
                        // none for the expected outcomes.
                        EXPECT_LE(log.messages.size(), 1u) << where;
                    }
                    ASSERT_EQ(system(("rm -rf " + os("t")).c_str()), 0);
                }
            }
            ASSERT_EQ(system(("rm -rf " + os("s")).c_str()), 0);
        }
    }
    EXPECT_GT(failures_seen, 50);
}

// ---- Locks while copying ---------------------------------------------------

TEST_F(Copy, SourceLockedExclusivelyElsewhereGives2060AndNoTarget) {
    make_source("s", 3);
    Holder writer(os("s/.body"), F_WRLCK);
    ASSERT_TRUE(writer.held());
    MessageLog log;
    EXPECT_EQ(copy("s", 3, "t"), QOR_E_LOCKED);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, TargetLockedElsewhereGives2060AndStaysIntact) {
    make_source("s", 3);
    make_object(os("t"), 3);
    const std::string precious = random_bytes(100000, 3);
    qor_test::write_file(os("t/.body"), precious);
    for (short held : {F_RDLCK, F_WRLCK}) {
        Holder holder(os("t/.body"), held);
        ASSERT_TRUE(holder.held());
        MessageLog log;
        EXPECT_EQ(copy("s", 3, "t"), QOR_E_LOCKED);
        EXPECT_TRUE(log.messages.empty());
        holder.release();
        EXPECT_EQ(qor_test::read_file(os("t/.body")), precious);
    }
}

TEST_F(Copy, NewTargetLockedAtOnceIsRemovedAgain) {
    make_source("s", 0);
    MessageLog log;
    // The source's shared lock passes, the target's exclusive one fails
    // (the source's open takes O_NONBLOCK off with one F_SETFL before its
    // lock; the new target, created exclusively, needs none).
    qor_fault_fail(QF_fcntl, ENOLCK, 2, 1);
    EXPECT_EQ(copy("s", 0, "t"), QOR_E_RESOURCE);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2058, os("t"), QOR_CTX_LOCK_CONTENTS, ENOLCK);
}

TEST_F(Copy, WhileCopyingSourceIsSharedAndTargetExclusive) {
    const std::string data = random_bytes(3 * 4096 + 17, 5);
    qor_test::write_file(os("s"), data);
    // The disc-full handler runs in the middle of the copy: from there a
    // second process looks at the locks.
    const LocksMidCopy seen = locks_seen_mid_copy(os("s"), os("t"), [&] {
        qor_fault_fail(QF_write, ENOSPC, 1, 1);
        EXPECT_EQ(copy("s", 0, "t"), 0);
    });
    EXPECT_EQ(seen.on_source, F_RDLCK);
    EXPECT_EQ(seen.on_target, F_WRLCK);
    EXPECT_EQ(qor_test::read_file(os("t")), data);
}

TEST_F(Copy, WithoutLockOnCopyNothingIsLocked) {
    make_source("s", 4);
    make_object(os("t"), 4);
    Holder writer(os("s/.body"), F_WRLCK);
    Holder reader(os("t/.index"), F_RDLCK);
    ASSERT_TRUE(writer.held());
    ASSERT_TRUE(reader.held());
    QOR_lock_on_copy = 0;
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(copy("s", 4, "t"), QOR_E_TARGET_EXISTS);
    // Only the F_SETFL of each of the four opens: no lock.
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 4);
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "body of s");
    EXPECT_EQ(qor_test::read_file(os("t/.index")), "index of s");
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, LockOnCopyStartsAt1) {
    EXPECT_EQ(QOR_lock_on_copy, 1);
}

}  // namespace
}  // namespace objects_test
