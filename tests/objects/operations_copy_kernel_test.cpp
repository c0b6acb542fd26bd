// Copying contents in the kernel (copy_file_range) and through the
// 4096-byte buffer where the host refuses that: the same bytes on disc, the
// same disc-full handler calls, the same recorded errors and the same locks
// whichever way a copy takes; a refusal at the first call, a first answer
// of 0, short kernel copies, interruptions, a full disc, other failures,
// sources that grow or shrink, sparse, empty and large files, and a copy
// across file systems.

#include <sys/stat.h>
#include <sys/syscall.h>

#include <tuple>

#include "contents_fixture.h"

namespace objects_test {
namespace {

using Names = std::vector<std::string>;

// The two ways a file copy can go.
enum class Way { kernel, buffer };

const char *name_of(Way w) { return w == Way::kernel ? "kernel" : "buffer"; }

class KernelCopy : public Store {
  protected:
    int copy(const std::string &from, unsigned type, const std::string &to) {
        return QOR_copy_object(qor(from).c_str(), type, qor(to).c_str());
    }
    // The host refuses the kernel copy of every file with err, as a kernel
    // without it (ENOSYS) or across file systems (EXDEV).
    static void refuse_kernel(int err = EXDEV) {
        qor_fault_fail(QF_copy_file_range, err, 0, -1);
    }
    // Makes the next copies take the way.
    static void take(Way w) {
        if (w == Way::buffer) refuse_kernel();
    }
    // Read and write calls of a copy through the buffer of n bytes: one
    // per 4096 bytes and the read of the end.
    static long buffer_reads(size_t n) {
        return static_cast<long>((n + 4095) / 4096 + 1);
    }
    static long buffer_writes(size_t n) {
        return static_cast<long>((n + 4095) / 4096);
    }
    // The calls of the copy just made, taken before the test reads any
    // file itself (its reads are counted too).
    struct Calls {
        long kernel, read, write;
    };
    static Calls calls() {
        return {qor_fault_calls(QF_copy_file_range), qor_fault_calls(QF_read),
                qor_fault_calls(QF_write)};
    }
    static off_t size_of(const std::string &path) {
        struct stat st;
        return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
    }
};

// A disc-full handler call as something comparable.
using HandlerCall = std::tuple<std::string, int, int, std::string>;
std::vector<HandlerCall> calls_of(const qor_test::DiscFullHandler &h) {
    std::vector<HandlerCall> v;
    for (const auto &c : h.calls) {
        v.emplace_back(c.reason, c.os_error, c.context, c.path);
    }
    return v;
}

// ---- Which way a copy takes --------------------------------------------------

TEST_F(KernelCopy, TheKernelCopiesAndNothingPassesThroughTheBuffer) {
    const std::string data = random_bytes(100000, 1);
    qor_test::write_file(os("s"), data);
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(copy("s", 0, "t"), 0);
    const Calls c = calls();
    EXPECT_EQ(qor_test::read_file(os("t")), data);
    // All of it, then the end.
    EXPECT_EQ(c.kernel, 2);
    EXPECT_EQ(c.read, 0);
    EXPECT_EQ(c.write, 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, EveryMemberOfAnIdleObjectIsCopiedInTheKernel) {
    make_object(os("s"), 4);
    const std::string body = random_bytes(70000, 2), index = random_bytes(9000, 3);
    qor_test::write_file(os("s/.body"), body);
    qor_test::write_file(os("s/.index"), index);
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(copy("s", 4, "t"), 0);
    const Calls c = calls();
    EXPECT_EQ(entries(os("t")), (Names{".body", ".index", ".lock"}));
    EXPECT_EQ(qor_test::read_file(os("t/.body")), body);
    EXPECT_EQ(qor_test::read_file(os("t/.index")), index);
    EXPECT_EQ(c.kernel, 4);
    EXPECT_EQ(c.read, 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, ARefusalAtTheFirstCallLeavesTheWholeFileToTheBuffer) {
    const std::string data = random_bytes(10000, 4);
    qor_test::write_file(os("s"), data);
    for (int err : {ENOSYS, EXDEV, EINVAL, EOPNOTSUPP, EBADF}) {
        SCOPED_TRACE(strerror(err));
        MessageLog log;
        qor_fault_reset();
        // Only the first call is refused: the copy does not ask again.
        qor_fault_fail(QF_copy_file_range, err, 0, 1);
        EXPECT_EQ(copy("s", 0, "t"), 0);
        const Calls c = calls();
        EXPECT_EQ(qor_test::read_file(os("t")), data);
        EXPECT_EQ(c.kernel, 1);
        EXPECT_EQ(c.read, buffer_reads(data.size()));
        EXPECT_EQ(c.write, buffer_writes(data.size()));
        EXPECT_TRUE(log.messages.empty());
        ASSERT_EQ(::unlink(os("t").c_str()), 0);
    }
}

TEST_F(KernelCopy, EachFileOfACopyAsksTheKernelAgain) {
    make_object(os("s"), 4);
    qor_test::write_file(os("s/.body"), "body");
    qor_test::write_file(os("s/.index"), "index");
    MessageLog log;
    qor_fault_reset();
    // The body's first call is refused; the index is still copied in the
    // kernel.
    qor_fault_fail(QF_copy_file_range, EXDEV, 0, 1);
    EXPECT_EQ(copy("s", 4, "t"), 0);
    const Calls c = calls();
    EXPECT_EQ(c.kernel, 3);
    EXPECT_EQ(c.read, 2);  // "body", then its end
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "body");
    EXPECT_EQ(qor_test::read_file(os("t/.index")), "index");
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, AnEmptySourceCostsOneReadToConfirmItsEnd) {
    make_object(os("s"), 0);
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(copy("s", 0, "t"), 0);
    const Calls c = calls();
    EXPECT_TRUE(qor_test::exists(os("t")));
    EXPECT_EQ(size_of(os("t")), 0);
    EXPECT_EQ(c.kernel, 1);
    EXPECT_EQ(c.read, 1);
    EXPECT_EQ(c.write, 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, AnEmptySourceEmptiesAnExistingTarget) {
    make_object(os("s"), 3);
    make_object(os("t"), 3);
    qor_test::write_file(os("t/.body"), std::string(5000, 'x'));
    for (Way w : {Way::kernel, Way::buffer}) {
        SCOPED_TRACE(name_of(w));
        MessageLog log;
        qor_fault_reset();
        take(w);
        EXPECT_EQ(copy("s", 3, "t"), QOR_E_TARGET_EXISTS);
        EXPECT_EQ(size_of(os("t/.body")), 0);
        EXPECT_TRUE(log.messages.empty());
    }
}

TEST_F(KernelCopy, AFirstAnswerOf0IsCheckedByReading) {
    // Files of pseudo file systems answer 0 to the kernel copy while read
    // still gives their data.
    const std::string data = random_bytes(10000, 5);
    qor_test::write_file(os("s"), data);
    MessageLog log;
    qor_fault_reset();
    qor_fault_short(QF_copy_file_range, 0, 0, 1);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    const Calls c = calls();
    EXPECT_EQ(qor_test::read_file(os("t")), data);
    EXPECT_EQ(c.kernel, 1);
    EXPECT_EQ(c.read, buffer_reads(data.size()));
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, AFileOfAPseudoFileSystemIsCopiedWhole) {
    // /proc/version reports a size of 0 and is read all the same.
    const std::string expected = qor_test::read_file("/proc/version");
    ASSERT_FALSE(expected.empty());
    MessageLog log;
    EXPECT_EQ(QOR_copy_object("@/proc/version", 0, qor("t").c_str()), 0);
    EXPECT_EQ(qor_test::read_file(os("t")), expected);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, ShortKernelCopiesGoOnFromWhereTheyStopped) {
    const std::string data = random_bytes(50000, 6);
    qor_test::write_file(os("s"), data);
    MessageLog log;
    qor_fault_reset();
    qor_fault_short(QF_copy_file_range, 1000, 0, 20);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    const Calls c = calls();
    EXPECT_EQ(qor_test::read_file(os("t")), data);
    // 20 short ones, the remaining 30000 bytes, the end.
    EXPECT_EQ(c.kernel, 22);
    EXPECT_EQ(c.read, 0);
    EXPECT_TRUE(log.messages.empty());
}

// ---- Sources that change while they are copied --------------------------------

// The source's OS path and what to do to it before the n-th kernel copy.
std::string changing_path;
long change_before_call;
long kernel_calls_seen;
enum class Change { grow, shrink } change;
std::string appended;

void change_source(qor_fault_fn fn, const char *, int, int) {
    if (fn != QF_copy_file_range) return;
    if (++kernel_calls_seen != change_before_call) return;
    // A raw system call, so that the change is no mutation seen here.
    const int fd = static_cast<int>(syscall(
        SYS_openat, AT_FDCWD, changing_path.c_str(), O_WRONLY | O_APPEND));
    if (fd < 0) abort();
    if (change == Change::grow) {
        if (syscall(SYS_write, fd, appended.data(), appended.size()) !=
            static_cast<long>(appended.size())) {
            abort();
        }
    } else if (syscall(SYS_ftruncate, fd, 3000) != 0) {
        abort();
    }
    syscall(SYS_close, fd);
}

TEST_F(KernelCopy, ASourceThatGrowsIsCopiedUntilTheKernelFindsItsEnd) {
    const std::string data = random_bytes(20000, 7);
    qor_test::write_file(os("s"), data);
    changing_path = os("s");
    appended = random_bytes(5000, 8);
    change = Change::grow;
    change_before_call = 2;  // after the first call has copied all there was
    kernel_calls_seen = 0;
    MessageLog log;
    qor_fault_reset();
    qor_fault_on_mutation(change_source);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    const Calls c = calls();
    qor_fault_on_mutation(nullptr);
    EXPECT_EQ(qor_test::read_file(os("t")), data + appended);
    EXPECT_EQ(c.kernel, 3);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, ASourceThatShrinksIsCopiedAsFarAsItGoes) {
    const std::string data = random_bytes(20000, 9);
    qor_test::write_file(os("s"), data);
    changing_path = os("s");
    change = Change::shrink;
    change_before_call = 2;  // cut after 1000 bytes went over
    kernel_calls_seen = 0;
    MessageLog log;
    qor_fault_reset();
    qor_fault_short(QF_copy_file_range, 1000, 0, 1);
    qor_fault_on_mutation(change_source);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    const Calls c = calls();
    qor_fault_on_mutation(nullptr);
    EXPECT_EQ(qor_test::read_file(os("t")), data.substr(0, 3000));
    EXPECT_EQ(c.kernel, 3);
    EXPECT_TRUE(log.messages.empty());
}

// ---- What ends on disc, either way ---------------------------------------------

TEST_F(KernelCopy, ASparseFileIsCopiedToTheSameBytesEitherWay) {
    const off_t size = off_t{8} << 20;
    const int fd = ::open(os("s").c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, size), 0);
    ASSERT_EQ(pwrite(fd, "head", 4, 0), 4);
    ASSERT_EQ(pwrite(fd, "middle", 6, (off_t{3} << 20) + 17), 6);
    ASSERT_EQ(pwrite(fd, "tail", 4, size - 4), 4);
    ::close(fd);
    const std::string data = qor_test::read_file(os("s"));
    for (Way w : {Way::kernel, Way::buffer}) {
        SCOPED_TRACE(name_of(w));
        MessageLog log;
        qor_fault_reset();
        take(w);
        EXPECT_EQ(copy("s", 0, "t"), 0);
        EXPECT_EQ(size_of(os("t")), size);
        EXPECT_TRUE(qor_test::read_file(os("t")) == data);
        EXPECT_TRUE(log.messages.empty());
        ASSERT_EQ(::unlink(os("t").c_str()), 0);
    }
}

TEST_F(KernelCopy, A64MiBFileIsCopiedByteForByteEitherWay) {
    // Each MiB differs, so that a piece out of place shows.
    std::string data;
    data.reserve(size_t{64} << 20);
    for (unsigned i = 0; i < 64; ++i) data += random_bytes(size_t{1} << 20, 100 + i);
    qor_test::write_file(os("s"), data);
    for (Way w : {Way::kernel, Way::buffer}) {
        SCOPED_TRACE(name_of(w));
        MessageLog log;
        qor_fault_reset();
        take(w);
        EXPECT_EQ(copy("s", 0, "t"), 0);
        const Calls c = calls();
        EXPECT_TRUE(qor_test::read_file(os("t")) == data);
        if (w == Way::kernel) {
            EXPECT_EQ(c.read, 0);
        } else {
            EXPECT_EQ(c.read, buffer_reads(data.size()));
        }
        EXPECT_TRUE(log.messages.empty());
        ASSERT_EQ(::unlink(os("t").c_str()), 0);
    }
}

// A scratch directory on a file system of its own (tmpfs at /dev/shm).
class ShmDir {
  public:
    ShmDir() {
        char name[] = "/dev/shm/qor-test-XXXXXX";
        if (mkdtemp(name) != nullptr) path_ = name;
    }
    ~ShmDir() {
        if (path_.empty()) return;
        for (const auto &n : entries(path_)) ::unlink((path_ + "/" + n).c_str());
        ::rmdir(path_.c_str());
    }
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

bool same_file_system(const std::string &a, const std::string &b) {
    struct stat sa, sb;
    return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 &&
           sa.st_dev == sb.st_dev;
}

TEST_F(KernelCopy, ACopyAcrossFileSystemsGivesTheSameBytesBothWays) {
    ShmDir shm;
    if (shm.path().empty() || same_file_system(shm.path(), tmp_.path())) {
        GTEST_SKIP() << "no second file system at /dev/shm";
    }
    const std::string data = random_bytes(300000, 10);
    qor_test::write_file(shm.path() + "/s", data);
    const std::string there = "@" + shm.path();
    MessageLog log;
    // Whether the host copies across file systems in the kernel (older
    // kernels do) or refuses (EXDEV), the bytes are the same.
    EXPECT_EQ(QOR_copy_object((there + "/s").c_str(), 0, qor("t").c_str()), 0);
    EXPECT_TRUE(qor_test::read_file(os("t")) == data);
    EXPECT_EQ(QOR_copy_object(qor("t").c_str(), 0, (there + "/u").c_str()), 0);
    EXPECT_TRUE(qor_test::read_file(shm.path() + "/u") == data);
    EXPECT_TRUE(log.messages.empty());
}

// ---- A full disc ---------------------------------------------------------------------

// The handler's calls and the messages of a copy that meets a full disc,
// in the kernel (copy_file_range fails) or in the buffer (write fails).
struct FullDiscRun {
    int status;
    std::vector<HandlerCall> calls;
    std::vector<Message> messages;
    long failing_calls;
};

TEST_F(KernelCopy, AFullDiscAsksTheHandlerAlikeEitherWayAndGivesUpWhenItAnswers1) {
    make_object(os("s"), 3);
    qor_test::write_file(os("s/.body"), random_bytes(30000, 11));
    FullDiscRun runs[2];
    for (Way w : {Way::kernel, Way::buffer}) {
        SCOPED_TRACE(name_of(w));
        FullDiscRun &run = runs[static_cast<int>(w)];
        MessageLog log;
        {
            qor_test::DiscFullHandler handler({0, 1});
            qor_fault_reset();
            take(w);
            const qor_fault_fn failing =
                w == Way::kernel ? QF_copy_file_range : QF_write;
            qor_fault_fail(failing, ENOSPC, 0, -1);
            run.status = copy("s", 3, "t");
            run.calls = calls_of(handler);
            run.failing_calls = qor_fault_calls(failing);
        }
        run.messages = log.messages;
        EXPECT_FALSE(qor_test::exists(os("t")));
    }
    const HandlerCall expected{"QOR_GIVE_MESSAGE_TEXT", ENOSPC,
                               QOR_CTX_COPY_CONTENTS, os("t/.body")};
    EXPECT_EQ(runs[0].status, QOR_E_RESOURCE);
    EXPECT_EQ(runs[0].calls, (std::vector<HandlerCall>{expected, expected}));
    EXPECT_EQ(runs[0].messages,
              (std::vector<Message>{recorded(2058, os("t/.body"),
                                             QOR_CTX_COPY_CONTENTS, ENOSPC)}));
    EXPECT_EQ(runs[0].failing_calls, 2);
    EXPECT_EQ(runs[1].status, runs[0].status);
    EXPECT_EQ(runs[1].calls, runs[0].calls);
    EXPECT_EQ(runs[1].messages, runs[0].messages);
    EXPECT_EQ(runs[1].failing_calls, runs[0].failing_calls);
}

TEST_F(KernelCopy, AFullDiscThatTheHandlerClearsEndsInAWholeCopyEitherWay) {
    const std::string data = random_bytes(30000, 12);
    qor_test::write_file(os("s"), data);
    std::vector<HandlerCall> seen[2];
    for (Way w : {Way::kernel, Way::buffer}) {
        SCOPED_TRACE(name_of(w));
        MessageLog log;
        {
            qor_test::DiscFullHandler handler({0});
            qor_fault_reset();
            take(w);
            qor_fault_fail(w == Way::kernel ? QF_copy_file_range : QF_write,
                           ENOSPC, 0, 3);
            EXPECT_EQ(copy("s", 0, "t"), 0);
            seen[static_cast<int>(w)] = calls_of(handler);
        }
        EXPECT_TRUE(qor_test::read_file(os("t")) == data);
        EXPECT_TRUE(log.messages.empty());
        ASSERT_EQ(::unlink(os("t").c_str()), 0);
    }
    EXPECT_EQ(seen[0].size(), 3u);
    EXPECT_EQ(seen[0], seen[1]);
}

TEST_F(KernelCopy, AFullDiscAfterSomeDataGoesOnWhereTheCopyStopped) {
    const std::string data = random_bytes(30000, 13);
    qor_test::write_file(os("s"), data);
    MessageLog log;
    qor_test::DiscFullHandler handler({0});
    qor_fault_reset();
    // The first call copies all, the second meets the full disc.
    qor_fault_fail(QF_copy_file_range, ENOSPC, 1, 1);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    const Calls c = calls();
    EXPECT_EQ(handler.calls.size(), 1u);
    EXPECT_EQ(c.kernel, 3);
    EXPECT_TRUE(qor_test::read_file(os("t")) == data);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, AFullDiscInTheKernelKeepsATargetThatExisted) {
    make_object(os("s"), 0);
    qor_test::write_file(os("s"), "new");
    qor_test::write_file(os("t"), "old");
    MessageLog log;
    qor_test::DiscFullHandler handler({1});
    qor_fault_reset();
    qor_fault_fail(QF_copy_file_range, ENOSPC, 0, 1);
    EXPECT_EQ(copy("s", 0, "t"), QOR_E_RESOURCE);
    EXPECT_EQ(handler.calls.size(), 1u);
    EXPECT_TRUE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2058, os("t"), QOR_CTX_COPY_CONTENTS, ENOSPC);
}

TEST_F(KernelCopy, TheKernelCopyHoldsTheSameLocksAsTheBuffer) {
    const std::string data = random_bytes(30000, 14);
    qor_test::write_file(os("s"), data);
    const LocksMidCopy seen = locks_seen_mid_copy(os("s"), os("t"), [&] {
        qor_fault_fail(QF_copy_file_range, ENOSPC, 0, 1);
        EXPECT_EQ(copy("s", 0, "t"), 0);
    });
    EXPECT_EQ(seen.on_source, F_RDLCK);
    EXPECT_EQ(seen.on_target, F_WRLCK);
    EXPECT_TRUE(qor_test::read_file(os("t")) == data);
}

// ---- Interruptions -----------------------------------------------------------------

TEST_F(KernelCopy, AnInterruptedKernelCopyIsMadeAgain101CallsInARow) {
    const std::string data = random_bytes(30000, 15);
    qor_test::write_file(os("s"), data);
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_copy_file_range, EINTR, 0, 100);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    const Calls c = calls();
    // 100 interrupted, the data, the end.
    EXPECT_EQ(c.kernel, 102);
    EXPECT_EQ(c.read, 0);
    EXPECT_TRUE(qor_test::read_file(os("t")) == data);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, After101InterruptionsTheBufferTakesOver) {
    const std::string data = random_bytes(30000, 16);
    qor_test::write_file(os("s"), data);
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_copy_file_range, EINTR, 0, 101);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    const Calls c = calls();
    EXPECT_EQ(c.kernel, 101);
    EXPECT_EQ(c.read, buffer_reads(data.size()));
    EXPECT_TRUE(qor_test::read_file(os("t")) == data);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, AnEndlessStormIsRecordedAsTheBufferRecordsIt) {
    qor_test::write_file(os("s"), "file of s");
    MessageLog log;
    // Interrupted in the kernel and then in every read: the loop records
    // the read's EINTR against the source.
    qor_fault_reset();
    qor_fault_fail(QF_copy_file_range, EINTR, 0, -1);
    qor_fault_fail(QF_read, EINTR, 0, -1);
    EXPECT_EQ(copy("s", 0, "u"), QOR_E_INTERRUPTED);
    const Calls c = calls();
    EXPECT_EQ(c.kernel, 101);
    EXPECT_EQ(c.read, 101);
    // Refused in the kernel, interrupted in every write: against the
    // target.
    qor_fault_reset();
    refuse_kernel(ENOSYS);
    qor_fault_fail(QF_write, EINTR, 0, -1);
    EXPECT_EQ(copy("s", 0, "v"), QOR_E_INTERRUPTED);
    const Calls refused = calls();
    EXPECT_EQ(refused.kernel, 1);
    EXPECT_EQ(refused.write, 101);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{
                  recorded(2063, os("s"), QOR_CTX_COPY_CONTENTS, EINTR),
                  recorded(2063, os("v"), QOR_CTX_COPY_CONTENTS, EINTR)}));
    EXPECT_FALSE(qor_test::exists(os("u")));
    EXPECT_FALSE(qor_test::exists(os("v")));
}

TEST_F(KernelCopy, InterruptedReadsAndWritesOfTheBufferAreMadeAgain) {
    qor_test::write_file(os("s"), "file of s");
    MessageLog log;
    qor_fault_reset();
    refuse_kernel(EXDEV);
    qor_fault_fail(QF_read, EINTR, 0, 100);
    qor_fault_fail(QF_write, EINTR, 0, 100);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    const Calls c = calls();
    EXPECT_EQ(c.kernel, 1);
    EXPECT_EQ(c.write, 101);
    EXPECT_EQ(c.read, 102);
    EXPECT_EQ(qor_test::read_file(os("t")), "file of s");
    EXPECT_TRUE(log.messages.empty());
}

// ---- Other failures ------------------------------------------------------------------

TEST_F(KernelCopy, AFailureTheBufferDoesNotMeetAgainIsNoFailure) {
    const std::string data = random_bytes(30000, 17);
    qor_test::write_file(os("s"), data);
    MessageLog log;
    qor_fault_reset();
    qor_fault_fail(QF_copy_file_range, EIO, 0, 1);
    EXPECT_EQ(copy("s", 0, "t"), 0);
    EXPECT_TRUE(qor_test::read_file(os("t")) == data);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(KernelCopy, AFailureInTheMiddleIsRecordedAgainstTheFileThatFails) {
    const std::string data = random_bytes(30000, 18);
    qor_test::write_file(os("s"), data);
    MessageLog log;
    // The kernel copies 1000 bytes, then fails; the buffer's write fails
    // too: recorded against the target, which is removed.
    qor_fault_reset();
    qor_fault_short(QF_copy_file_range, 1000, 0, 1);
    qor_fault_on_mutation([](qor_fault_fn fn, const char *, int, int) {
        if (fn == QF_copy_file_range && qor_fault_calls(fn) == 1) {
            qor_fault_fail(QF_copy_file_range, EIO, 0, -1);
            qor_fault_fail(QF_write, EIO, 0, 1);
        }
    });
    EXPECT_EQ(copy("s", 0, "t"), QOR_E_IO);
    const Calls c = calls();
    qor_fault_on_mutation(nullptr);
    EXPECT_EQ(c.kernel, 2);
    EXPECT_EQ(c.write, 1);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2056, os("t"), QOR_CTX_COPY_CONTENTS, EIO);

    // The same with the read failing: against the source.
    log.messages.clear();
    qor_fault_reset();
    qor_fault_fail(QF_copy_file_range, EIO, 0, -1);
    qor_fault_fail(QF_read, EIO, 0, 1);
    EXPECT_EQ(copy("s", 0, "t"), QOR_E_IO);
    EXPECT_EQ(qor_fault_calls(QF_copy_file_range), 1);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_ONE_RECORDED(log, 2056, os("s"), QOR_CTX_COPY_CONTENTS, EIO);
}

TEST_F(KernelCopy, ADirectoryNamedAsAPlainFileFailsAlikeEitherWay) {
    make_dir(os("d"));
    std::vector<Message> messages[2];
    int status[2];
    for (Way w : {Way::kernel, Way::buffer}) {
        SCOPED_TRACE(name_of(w));
        MessageLog log;
        qor_fault_reset();
        take(w);
        status[static_cast<int>(w)] = copy("d", 0, "t");
        messages[static_cast<int>(w)] = log.messages;
        EXPECT_FALSE(qor_test::exists(os("t")));
    }
    EXPECT_EQ(status[0], QOR_E_WRONG_KIND);
    EXPECT_EQ(messages[0], (std::vector<Message>{recorded(
                               QOR_E_WRONG_KIND, os("d"),
                               QOR_CTX_COPY_CONTENTS, EISDIR)}));
    EXPECT_EQ(status[1], status[0]);
    EXPECT_EQ(messages[1], messages[0]);
}

TEST_F(KernelCopy, AFifoIsNeverCopied) {
    ASSERT_EQ(mkfifo(os("f").c_str(), 0644), 0);
    MessageLog log;
    qor_fault_reset();
    EXPECT_NE(copy("f", 0, "t"), 0);
    const Calls c = calls();
    EXPECT_EQ(c.kernel, 0);
    EXPECT_EQ(c.read, 0);
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_EQ(log.messages.size(), 1u);
}

}  // namespace
}  // namespace objects_test
