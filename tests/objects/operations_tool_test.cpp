// The qor commands cp, mv, rm, lock, read and write, and the tour step of
// contents and object operations, run as the built program.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>

#include "contents_fixture.h"

namespace objects_test {
namespace {

using qor_test::qor_built;

// Runs "qor ARGS...", with input on its standard input.
qor_test::ChildResult qor_run(std::vector<std::string> args,
                              const std::string &input = "") {
    return qor_test::run_qor(std::move(args), input);
}

class QorTool : public Store {
  protected:
    void SetUp() override {
        Store::SetUp();
        if (!qor_built()) GTEST_SKIP() << "the qor command is not built";
    }
};

TEST_F(QorTool, CopyAnObjectAndAgainOntoItself) {
    make_object(os("s"), 3);
    qor_test::write_file(os("s/.body"), "body");
    auto r = qor_run({"cp", qor("s"), qor("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "");  // quiet by default
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "body");
    qor_test::write_file(os("s/.body"), "new body");
    r = qor_run({"cp", "--type=3", qor("s"), qor("t"), "-v"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "'" + qor("s") + "' -> '" + qor("t") + "'\n");
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "new body");
    // Nothing is left beside the target.
    EXPECT_EQ(entries(tmp_.path()), (std::vector<std::string>{"s", "t"}));
}

TEST_F(QorTool, CopyFailureSaysSoWithTheLibrarysMessage) {
    auto r = qor_run({"cp", "--type", "3", qor("none"), qor("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    // The library's line, then the command's: two lines, no status number
    // of the command's own.
    EXPECT_NE(r.err.find("qor: error 2052: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(os("none") + "/.body"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\nqor cp: cannot copy: " + qor("none") +
                         ": it does not exist\n"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 2) << r.err;
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_EQ(entries(tmp_.path()), std::vector<std::string>{});
}

TEST_F(QorTool, MissingObjectHasNoType) {
    auto r = qor_run({"cp", qor("none"), qor("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor cp: cannot tell the type: " + qor("none") +
                         ": it does not exist\n");
}

TEST_F(QorTool, MoveAndRemove) {
    make_object(os("s"), 4);
    auto r = qor_run({"mv", qor("s"), qor("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(qor_test::exists(os("s")));
    qor_test::write_file(os("t/link"), "");
    r = qor_run({"rm", qor("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("qor rm: cannot remove: " + qor("t") +
                         ": the directory is not empty\n"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(entries(os("t")), (std::vector<std::string>{
                                    ".body", ".index", ".lock", "link"}));
    r = qor_run({"rm", "-u", qor("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(entries(os("t")), std::vector<std::string>{"link"});
    ::unlink(os("t/link").c_str());
    r = qor_run({"rm", qor("t"), "--type=plain_directory", "--verbose"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "removed '" + qor("t") + "'\n");
    EXPECT_FALSE(qor_test::exists(os("t")));
}

TEST_F(QorTool, MoveOntoATargetThatMayNotBeReplacedSaysNothingMoved) {
    make_object(os("s"), 3);
    make_object(os("t"), 3);
    ASSERT_EQ(chmod(os("t").c_str(), 0555), 0);
    ASSERT_EQ(chmod(tmp_.path().c_str(), 0777), 0);  // the source may move
    const std::string program = qor_test::qor_program();
    const std::string s = qor("s"), t = qor("t");
    auto r = qor_test::run_as_unprivileged([&] {
        execl(program.c_str(), program.c_str(), "mv", s.c_str(), t.c_str(),
              (char *)nullptr);
        _exit(127);
    });
    ASSERT_EQ(chmod(os("t").c_str(), 0755), 0);
    EXPECT_EQ(r.exit_status, 1) << r.err;
    EXPECT_NE(r.err.find("qor mv: cannot move: " + s + ": the target " + t +
                         " may not be replaced\n"),
              std::string::npos)
        << r.err;
    EXPECT_TRUE(qor_test::exists(os("s/.body")));
}

TEST_F(QorTool, LockHeldElsewhereFailsWithAClearMessage) {
    make_object(os("o"), 3);
    const std::string program = qor_test::qor_program();
    // The inner qor is another process: the outer one's lock stops it.
    auto r = qor_run({"lock", qor("o"), program, "lock", "-n", qor("o"),
                      "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor lock: cannot lock: " + qor("o") +
                         ": it is locked by another process\n");
    r = qor_run({"lock", "-s", qor("o"), program, "lock", "-s", "-n", qor("o"),
                 "echo", "shared twice"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "shared twice\n");
}

TEST_F(QorTool, LockHeldByATestProcessAndWaitingOrNot) {
    make_object(os("o"), 2);
    ASSERT_EQ(QOR_lock_object(qor("o").c_str(), 2, 3), 0);
    auto r = qor_run({"lock", "-n", "-s", qor("o"), "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor lock: cannot lock: " + qor("o") +
                         ": it is locked by another process\n");
    ASSERT_EQ(QOR_unlock_object(qor("o").c_str(), 2), 0);
    r = qor_run({"lock", qor("o"), "sh", "-c", "exit 7"});
    EXPECT_EQ(r.exit_status, 7);
}

TEST_F(QorTool, TheCommandDoesNotInheritTheLock) {
    make_object(os("o"), 3);
    auto r = qor_run({"lock", qor("o"), "sh", "-c",
                      "for f in /proc/$$/fd/*; do readlink $f; done; exit 0"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out.find(os("o")), std::string::npos) << r.out;
}

TEST_F(QorTool, LockOfAPlainDirectoryIsRefused) {
    make_dir(os("d"));
    auto r = qor_run({"lock", qor("d"), "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("qor lock: cannot lock: " + qor("d") +
                         ": it is the wrong kind of thing for this "
                         "operation\n"),
              std::string::npos)
        << r.err;
}

TEST_F(QorTool, CommandThatCannotRunGives127) {
    make_object(os("o"), 3);
    auto r = qor_run({"lock", qor("o"), "/nonexistent/program"});
    EXPECT_EQ(r.exit_status, 127);
    EXPECT_NE(r.err.find("qor lock: cannot run: /nonexistent/program: No "
                         "such file or directory\n"),
              std::string::npos);
}

TEST_F(QorTool, WriteAndReadIdleBlocks) {
    auto r = qor_run({"write", "-c", qor("i"), "10", "hello"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    r = qor_run({"write", qor("i"), "0", "--index", "-vc"}, "from stdin");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "wrote 10 bytes at offset 0 of '" + qor("i") +
                         "' (index)\n");
    r = qor_run({"read", qor("i"), "10", "5"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "hello");
    r = qor_run({"read", "-i", qor("i"), "5", "5"});
    EXPECT_EQ(r.out, "stdin");
    EXPECT_EQ(qor_test::read_file(os("i/.body")),
              std::string(10, '\0') + "hello");
}

TEST_F(QorTool, ReadingPastTheEndShowsTheIdleMessages) {
    ASSERT_EQ(QOR_create_object(qor("i").c_str(), 4), 0);
    qor_test::write_file(os("i/.body"), "0123456789");
    auto r = qor_run({"read", qor("i"), "6", "8"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("4 of 8 bytes read"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("qor read: cannot read: " + qor("i") +
                         ": an idle block could not be read whole"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(r.err.find("status"), std::string::npos) << r.err;
}

TEST_F(QorTool, BadUsageGives2AndDoesNothing) {
    make_object(os("a"), 3);
    const auto before = entries(tmp_.path());
    struct Case {
        std::vector<std::string> args;
        std::string problem;
    };
    for (const auto &c : std::vector<Case>{
             {{"cp", qor("a")}, "missing destination operand after '" +
                                    qor("a") + "'"},
             {{"cp", "--type=9", qor("a"), qor("b")}, "invalid type '9' (0 "
              "to 4, or plain_file, plain_directory, lockable_directory, "
              "cdir, idle_object)"},
             {{"cp", "--frob", qor("a"), qor("b")}, "unknown option '--frob'"},
             {{"cp", "-q", qor("a"), qor("b")}, "unknown option '-q'"},
             {{"cp", qor("a"), qor("b"), "--type"},
              "option '--type' needs a value"},
             {{"cp", "-T", qor("a"), qor("b"), qor("c")},
              "extra operand '" + qor("c") + "'"},
             {{"mv", "-q", qor("a"), qor("b")}, "unknown option '-q'"},
             {{"mv", "--verbose=yes", qor("a"), qor("b")},
              "option '--verbose' takes no value"},
             {{"rm"}, "missing operand"},
             {{"lock", qor("a")}, "missing operand after '" + qor("a") + "'"},
             {{"read", qor("a"), "x", "1"},
              "invalid OFFSET 'x' (a number from 0 to 9223372036854775807)"},
             {{"read", qor("a"), "0", "1", "2"}, "extra operand '2'"},
             {{"write", qor("a")}, "missing operand after '" + qor("a") + "'"},
             {{"write", "-c", qor("n"), "1x", "x"},
              "invalid OFFSET '1x' (a number from 0 to 9223372036854775807)"},
             {{"write", "-c", qor("n"), "-1", "x"}, "unknown option '-1'"},
         }) {
        auto r = qor_run(c.args);
        EXPECT_EQ(r.exit_status, 2) << c.args[0];
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("qor " + c.args[0] + ": " + c.problem +
                                  "\nusage: qor " + c.args[0] + " ",
                              0),
                  0u)
            << r.err;
        EXPECT_NE(r.err.find("Try 'qor " + c.args[0] +
                             " --help' for more information.\n"),
                  std::string::npos);
    }
    EXPECT_EQ(entries(tmp_.path()), before);
}

TEST_F(QorTool, CopyIntoADirectoryAsCpDoes) {
    make_object(os("s"), 3);
    qor_test::write_file(os("s/.body"), "s");
    qor_test::write_file(os("f"), "plain");
    make_dir(os("d"));
    auto r = qor_run({"cp", qor("s"), qor("f"), qor("d")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(qor_test::read_file(os("d/s/.body")), "s");
    EXPECT_EQ(qor_test::read_file(os("d/f")), "plain");
    EXPECT_EQ(entries(os("d")), (std::vector<std::string>{"f", "s"}));
    // -t names the directory; options may come after operands.
    make_dir(os("e"));
    r = qor_run({"cp", qor("f"), "-t", qor("e")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(qor_test::read_file(os("e/f")), "plain");
    // More than one source needs a directory.
    r = qor_run({"cp", qor("s"), qor("f"), qor("none")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor cp: target: " + qor("none") +
                         ": not a plain directory\n");
    // An object is no directory to copy into: it is replaced.
    make_object(os("t"), 3);
    r = qor_run({"cp", qor("s"), qor("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "s");
    EXPECT_FALSE(qor_test::exists(os("t/s")));
}

TEST_F(QorTool, CopyKeepsTheSourcesPermissionBits) {
    qor_test::write_file(os("f"), "secret");
    ASSERT_EQ(chmod(os("f").c_str(), 0600), 0);
    auto r = qor_run({"cp", qor("f"), qor("g")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    struct stat st;
    ASSERT_EQ(stat(os("g").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    ASSERT_EQ(chmod(os("f").c_str(), 0751), 0);
    r = qor_run({"cp", qor("f"), qor("h")});
    ASSERT_EQ(stat(os("h").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0751u);
}

TEST_F(QorTool, FailedCopyLeavesTheTargetAsItWas) {
    qor_test::write_file(os("f"), "unreadable");
    ASSERT_EQ(chmod(os("f").c_str(), 0), 0);
    qor_test::write_file(os("g"), "keep me");
    ASSERT_EQ(chmod(os("g").c_str(), 0666), 0);
    ASSERT_EQ(chmod(tmp_.path().c_str(), 0777), 0);
    const std::string program = qor_test::qor_program();
    const std::string f = qor("f"), g = qor("g");
    auto r = qor_test::run_as_unprivileged([&] {
        execl(program.c_str(), program.c_str(), "cp", f.c_str(), g.c_str(),
              (char *)nullptr);
        _exit(127);
    });
    EXPECT_EQ(r.exit_status, 1) << r.err;
    EXPECT_NE(r.err.find("qor cp: cannot copy: " + f +
                         ": permission denied\n"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(qor_test::read_file(os("g")), "keep me");
    EXPECT_EQ(entries(tmp_.path()), (std::vector<std::string>{"f", "g"}));
}

TEST_F(QorTool, LockOfAPlainFileExcludesASecondLockAsFlockDoes) {
    const std::string program = qor_test::qor_program();
    // A missing file is made, as flock(1) makes it.
    auto r = qor_run({"lock", qor("f"), program, "lock", "-n", qor("f"),
                      "echo", "never"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qor lock: cannot lock: " + qor("f") +
                         ": it is locked by another process\n");
    EXPECT_TRUE(qor_test::exists(os("f")));
    r = qor_run({"lock", "--shared", qor("f"), program, "lock", "-sn",
                 qor("f"), "echo", "shared twice"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "shared twice\n");
    // Options after PATH belong to the command run.
    r = qor_run({"lock", qor("f"), "echo", "-n", "x"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "x");
}

TEST_F(QorTool, LockWaitsForAHolderInAnotherProcess) {
    qor_test::write_file(os("f"), "");
    const int fd = open(os("f").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    auto r = qor_run({"lock", "-n", qor("f"), "true"});
    EXPECT_EQ(r.exit_status, 1);
    ASSERT_EQ(flock(fd, LOCK_UN), 0);
    r = qor_run({"lock", qor("f"), "sh", "-c", "exit 5"});
    EXPECT_EQ(r.exit_status, 5);
    close(fd);
}

TEST_F(QorTool, TourStepShowsContentsLocksAndOperations) {
    auto r = qor_run({"tour"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    // The library's warnings come between the narration's lines, in order.
    EXPECT_NE(r.out.find("  read back at 4096 -> 0 \"block at 4 KiB\"\n"
                         "  read back at 100 -> 0 \"note\"\n"
                         "  body size 4110\n"
                         "qor: warning: short read of \""),
              std::string::npos)
        << r.out;
    const std::string expected =
        " left incomplete at offset 4110: 10 of 32 bytes read\n"
        "  reading 32 bytes at 4100, past the end -> 2401 (messages 403 and "
        "401 above)\n"
        "this process locks the object exclusively -> 0\n"
        "  another process asks for a shared lock -> 2060 (held elsewhere)\n"
        "this process converts its lock to shared -> 0 (mode 1)\n"
        "  another process asks for a shared lock -> 0\n"
        "this process unlocks -> 0; unlocking again -> 2061\n";
    EXPECT_NE(r.out.find(expected), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("copy it again -> 2054 (the target existed and was "
                         "replaced)\n  body sizes: 4110 and 4110\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("left incomplete at offset 4110: 10 of 32 bytes "
                         "read"),
              std::string::npos)
        << r.out;
}

}  // namespace
}  // namespace objects_test
