// Environment variables, the current and temporary directories, and
// temporary object names.

#include <errno.h>
#include <setjmp.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "path_fixture.h"

// The process id the library sees, so that names can be checked for ids of
// any length. 0 passes the real id through.
static pid_t g_fake_pid = 0;
extern "C" pid_t getpid(void) {
    return g_fake_pid != 0 ? g_fake_pid
                           : static_cast<pid_t>(syscall(SYS_getpid));
}

namespace paths_test {
namespace {

// ---- getenv / putenv -------------------------------------------------------

TEST(Getenv, OwnedCopy) {
    setenv("QOR_TEST_VAR", "value 1", 1);
    char *v = QOR_getenv("QOR_TEST_VAR");
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(v, "value 1");
    EXPECT_NE(v, getenv("QOR_TEST_VAR"));
    QOR_free(v);
}

TEST(Getenv, UnsetAndNullGiveNull) {
    unsetenv("QOR_TEST_VAR");
    EXPECT_EQ(QOR_getenv("QOR_TEST_VAR"), nullptr);
    EXPECT_EQ(QOR_getenv(nullptr), nullptr);
    EXPECT_EQ(QOR_SH_getenv("QOR_TEST_VAR"), nullptr);
    EXPECT_EQ(QOR_SH_getenv(nullptr), nullptr);
}

TEST(Getenv, EmptyValueIsNotUnset) {
    setenv("QOR_TEST_VAR", "", 1);
    char *v = QOR_getenv("QOR_TEST_VAR");
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(v, "");
    QOR_free(v);
}

TEST(Getenv, SharedCopyLivesInFreestore) {
    setenv("QOR_TEST_VAR", "abc", 1);
    path_check::warm_freestore();
    QOR_FS_mark mark;
    QOR_FS_save(&QOR_SH_fs_allocator, &mark);
    const path_check::FsState before = path_check::fs_state();
    char *v = QOR_SH_getenv("QOR_TEST_VAR");
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(v, "abc");
    EXPECT_EQ(v, reinterpret_cast<char *>(before.chunk) + before.used);
    EXPECT_EQ(path_check::fs_state().used, before.used + 4);
    QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
}

TEST(Putenv, SetsVariable) {
    qor_test::MessageLog log;
    EXPECT_EQ(QOR_putenv("QOR_TEST_VAR", "v=2"), 0);
    EXPECT_STREQ(getenv("QOR_TEST_VAR"), "v=2");
    // The first string leaves the environment but is never freed: keep it
    // reachable for the leak checker.
    static const char *replaced = getenv("QOR_TEST_VAR");
    EXPECT_NE(replaced, nullptr);
    EXPECT_EQ(QOR_putenv("QOR_TEST_VAR", ""), 0);
    EXPECT_STREQ(getenv("QOR_TEST_VAR"), "");
    EXPECT_TRUE(log.messages.empty());
}

TEST(Putenv, NullValueRecordsInvalidArgument) {
    qor_test::MessageLog log;
    EXPECT_EQ(QOR_putenv("QOR_TEST_VAR", nullptr), QOR_E_INVALID);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0],
              qor_test::msg("qor", 70, 71,
                            {"QOR_TEST_VAR",
                             qor_test::MessageLog::text_of(130),
                             strerror(EINVAL),
                             qor_test::MessageLog::text_of(3) + " $0=22"}));
    EXPECT_EQ(getenv("QOR_TEST_VAR"), nullptr);
}

TEST(Putenv, NullNameRecordsWithoutParameters) {
    qor_test::MessageLog log;
    EXPECT_EQ(QOR_putenv(nullptr, "x"), QOR_E_INVALID);
    EXPECT_EQ(QOR_putenv(nullptr, nullptr), QOR_E_INVALID);
    ASSERT_EQ(log.messages.size(), 2u);
    EXPECT_EQ(log.messages[0], qor_test::msg("qor", 70, 71, {}));
    EXPECT_EQ(log.messages[1], qor_test::msg("qor", 70, 71, {}));
}

TEST(Putenv, FailureIsFatal) {
    const auto r = qor_test::run_in_child([] {
        qor_fault_fail(QF_putenv, ENOMEM, 0, 1);
        QOR_putenv("QOR_TEST_VAR", "x");
        printf("returned\n");
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=11, type=4\n");
}

TEST(Putenv, FailureJumpsToHandler) {
    qor_test::MessageLog log;
    volatile int jumped = 0;
    QOR_exception_handler_state = 1;
    const int value = setjmp(QOR_fatal_handler);
    if (value == 0) {
        qor_fault_fail(QF_putenv, ENOMEM, 0, 1);
        QOR_putenv("QOR_TEST_VAR", "x");
        ADD_FAILURE() << "putenv failure did not jump";
    } else {
        jumped = value;
    }
    qor_fault_reset();
    QOR_exception_handler_state = 0;
    EXPECT_EQ(jumped, QOR_E_NO_MEMORY);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].number, 11);
    EXPECT_EQ(log.messages[0].type, QOR_MSG_FATAL);
    EXPECT_EQ(getenv("QOR_TEST_VAR"), nullptr);
}

// ---- Current and temporary directories ---------------------------------------

using Directories = Anchored;

TEST_F(Directories, CurrentDirectoryIsDotZero) {
    EXPECT_EQ(checked("current_directory", QOR_current_directory,
                      QOR_SH_current_directory),
              cwd());
    EXPECT_EQ(to_abs(".0"), cwd());
}

TEST_F(Directories, CurrentDirectoryFollowsChdir) {
    ASSERT_EQ(chdir(".."), 0);
    EXPECT_EQ(checked("current_directory", QOR_current_directory,
                      QOR_SH_current_directory),
              work());
}

TEST_F(Directories, CurrentDirectoryFailsWithGetcwd) {
    qor_fault_fail(QF_getcwd, ENOENT, 0, -1);
    EXPECT_EQ(QOR_current_directory(), nullptr);
    EXPECT_EQ(QOR_SH_current_directory(), nullptr);
}

std::string tmpdir() {
    return checked("temporary_directory", QOR_temporary_directory,
                   QOR_SH_temporary_directory);
}

TEST_F(Directories, TemporaryDirectoryDefaultsToTmp) {
    unsetenv("QOR_TMP");
    EXPECT_EQ(tmpdir(), "/tmp");
    EXPECT_EQ(qor_fault_calls(QF_getcwd), 0);
}

TEST_F(Directories, TemporaryDirectoryFromQorTmp) {
    setenv("QOR_TMP", "/var//tmp/./q/", 1);
    EXPECT_EQ(tmpdir(), "/var/tmp/q");
}

TEST_F(Directories, RelativeQorTmpIsUnderCurrentDirectory) {
    setenv("QOR_TMP", "scratch/t", 1);
    EXPECT_EQ(tmpdir(), cwd("/scratch/t"));
    // Read again at every call: not an anchor.
    setenv("QOR_TMP", "other", 1);
    EXPECT_EQ(tmpdir(), cwd("/other"));
}

TEST_F(Directories, UntranslatableQorTmpGivesNull) {
    setenv("QOR_TMP", "", 1);
    EXPECT_EQ(tmpdir(), "<null>");
    setenv("QOR_TMP", "/..", 1);
    EXPECT_EQ(tmpdir(), "<null>");
}

// ---- Temporary object names ----------------------------------------------------

class TempNames : public Anchored {
  protected:
    void SetUp() override {
        Anchored::SetUp();
        dir_ = tmp_ / "t";
        ASSERT_EQ(mkdir(dir_.c_str(), 0777), 0);
        setenv("QOR_TMP", dir_.c_str(), 1);
        g_fake_pid = 4711;
    }
    void TearDown() override {
        g_fake_pid = 0;
        Anchored::TearDown();
    }
    std::string name(const char *prefix, int is_directory,
                     const char *suffix) {
        return checked(
            "temporary_object_name",
            [&] {
                return QOR_temporary_object_name(prefix, is_directory, suffix);
            },
            [&] {
                return QOR_SH_temporary_object_name(prefix, is_directory,
                                                    suffix);
            });
    }
    std::string dir_;
};

TEST_F(TempNames, LetterThenFiveDigits) {
    EXPECT_EQ(name("ed", 0, "tmp"), dir_ + "/eda04711.tmp");
    EXPECT_FALSE(qor_test::exists(dir_ + "/eda04711.tmp"));
}

TEST_F(TempNames, InTmpByDefault) {
    unsetenv("QOR_TMP");
    g_fake_pid = 99999;
    const std::string n = name("qor-paths-test-", 0, "x");
    // Free in /tmp at the time of the call (unless another run holds it).
    EXPECT_EQ(n.substr(0, 20), "/tmp/qor-paths-test-");
    EXPECT_EQ(n.substr(21), "99999.x");
}

TEST_F(TempNames, NullPrefix) {
    EXPECT_EQ(name(nullptr, 0, "tmp"), dir_ + "/a04711.tmp");
}

TEST_F(TempNames, NullSuffixLeavesTrailingDot) {
    EXPECT_EQ(name("ed", 0, nullptr), dir_ + "/eda04711.");
    EXPECT_EQ(name(nullptr, 1, nullptr), dir_ + "/a04711.");
}

TEST_F(TempNames, EmptySuffix) {
    EXPECT_EQ(name("p", 0, ""), dir_ + "/pa04711.");
}

TEST_F(TempNames, ShortProcessIdIsPaddedWithZeros) {
    g_fake_pid = 7;
    EXPECT_EQ(name("ed", 0, "tmp"), dir_ + "/eda00007.tmp");
    g_fake_pid = 12345;
    EXPECT_EQ(name("ed", 0, "tmp"), dir_ + "/eda12345.tmp");
}

TEST_F(TempNames, LongProcessIdKeepsFiveLowestDigits) {
    g_fake_pid = 1234567;
    EXPECT_EQ(name("ed", 0, "tmp"), dir_ + "/eda34567.tmp");
    g_fake_pid = 123456;
    EXPECT_EQ(name("ed", 0, "tmp"), dir_ + "/eda23456.tmp");
}

TEST_F(TempNames, RealProcessIdIsUsed) {
    g_fake_pid = 0;
    char digits[16];
    snprintf(digits, sizeof digits, "%06ld",
             static_cast<long>(syscall(SYS_getpid)) % 1000000);
    EXPECT_EQ(name("ed", 0, "tmp"),
              dir_ + "/eda" + std::string(digits + 1) + ".tmp");
}

TEST_F(TempNames, DottedSuffixTakesLetterInPlaceOfLastDot) {
    EXPECT_EQ(name("ed", 0, "tar.gz"), dir_ + "/edXXXXXX.taragz");
    EXPECT_EQ(name(nullptr, 0, "a.b.c"), dir_ + "/XXXXXX.a.bac");
}

TEST_F(TempNames, SuffixEndingInXsTakesDigits) {
    // The run of "X" before the last "." lies inside the suffix.
    EXPECT_EQ(name("p", 0, "XX.s"), dir_ + "/pXXXXXX.a1.s");
}

TEST_F(TempNames, PrefixEndingInXsExtendsTheRun) {
    EXPECT_EQ(name("aXX", 0, "t"), dir_ + "/aa0004711.t");
}

TEST_F(TempNames, DottedPrefixIsKept) {
    EXPECT_EQ(name("a.b", 0, "t"), dir_ + "/a.ba04711.t");
}

TEST_F(TempNames, SecondCandidateDiffersOnlyInLetter) {
    qor_test::write_file(dir_ + "/eda04711.tmp", "");
    EXPECT_EQ(name("ed", 0, "tmp"), dir_ + "/edb04711.tmp");
    qor_test::write_file(dir_ + "/edb04711.tmp", "");
    EXPECT_EQ(name("ed", 0, "tmp"), dir_ + "/edc04711.tmp");
}

TEST_F(TempNames, ExistingDirectoryIsTakenToo) {
    ASSERT_EQ(mkdir((dir_ + "/da04711.").c_str(), 0777), 0);
    EXPECT_EQ(name("d", 1, nullptr), dir_ + "/db04711.");
    EXPECT_EQ(name("d", 0, nullptr), dir_ + "/db04711.");
}

TEST_F(TempNames, AllLettersTakenGivesNull) {
    for (char c = 'a'; c <= 'z'; ++c) {
        qor_test::write_file(dir_ + "/ed" + c + "04711.tmp", "");
    }
    qor_fault_reset();
    EXPECT_EQ(name("ed", 0, "tmp"), "<null>");
    // 26 tries for each of the two forms.
    EXPECT_EQ(qor_fault_calls(QF_access), 52);
}

TEST_F(TempNames, LastLetterIsStillTried) {
    for (char c = 'a'; c < 'z'; ++c) {
        qor_test::write_file(dir_ + "/ed" + c + "04711.tmp", "");
    }
    EXPECT_EQ(name("ed", 0, "tmp"), dir_ + "/edz04711.tmp");
}

TEST_F(TempNames, UncheckableNameCountsAsFree) {
    qor_test::write_file(dir_ + "/eda04711.tmp", "");
    qor_fault_fail(QF_access, EACCES, 0, -1);
    EXPECT_EQ(name("ed", 0, "tmp"), dir_ + "/eda04711.tmp");
}

TEST_F(TempNames, RelativeQorTmp) {
    ASSERT_EQ(mkdir("rt", 0777), 0);
    setenv("QOR_TMP", "rt", 1);
    EXPECT_EQ(name("x", 0, "y"), cwd("/rt/xa04711.y"));
}

TEST_F(TempNames, UntranslatableDirectoryGivesNull) {
    setenv("QOR_TMP", "/..", 1);
    EXPECT_EQ(name("ed", 0, "tmp"), "<null>");
}

TEST_F(TempNames, OverlongNameGivesNull) {
    const std::string prefix(QOR_PATH_MAX, 'p');
    EXPECT_EQ(name(prefix.c_str(), 0, "tmp"), "<null>");
}

TEST_F(TempNames, NameWithAnchorComponentTranslatesThroughIt) {
    // The candidate is a qor path: an anchor in the prefix restarts it, so
    // the name tested is under QOR_ROOT, while the name handed back keeps
    // the text.
    EXPECT_EQ(name("s/_/", 0, "t"), dir_ + "/s/_/a04711.t");
}

TEST_F(TempNames, NothingIsCreated) {
    const std::string n = name("ed", 1, "d");
    EXPECT_FALSE(qor_test::exists(n));
}

}  // namespace
}  // namespace paths_test
