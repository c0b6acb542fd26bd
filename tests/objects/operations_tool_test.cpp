// The qor commands cp, mv, rm, lock, read and write, and the tour step of
// contents and object operations, run as the built program.

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
    EXPECT_EQ(r.out, "copied " + qor("s") + " to " + qor("t") + "\n");
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "body");
    r = qor_run({"cp", "-t", "3", qor("s"), qor("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "copied " + qor("s") + " to " + qor("t") +
                         " (replaced the existing target)\n");
}

TEST_F(QorTool, CopyFailureSaysSoWithTheLibrarysMessage) {
    auto r = qor_run({"cp", "-t3", qor("none"), qor("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find(os("none") + "/.body"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("qor cp: " + qor("none") +
                         ": failed with status 2052\n"),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(qor_test::exists(os("t")));
}

TEST_F(QorTool, MissingObjectHasNoType) {
    auto r = qor_run({"cp", qor("none"), qor("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor cp: " + qor("none") +
                         ": no such object (status 2052)\n");
}

TEST_F(QorTool, MoveAndRemove) {
    make_object(os("s"), 4);
    auto r = qor_run({"mv", qor("s"), qor("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "moved " + qor("s") + " to " + qor("t") + "\n");
    EXPECT_FALSE(qor_test::exists(os("s")));
    qor_test::write_file(os("t/link"), "");
    r = qor_run({"rm", qor("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("failed with status 2065"), std::string::npos);
    EXPECT_EQ(entries(os("t")), (std::vector<std::string>{
                                    ".body", ".index", ".lock", "link"}));
    r = qor_run({"rm", "-u", qor("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(entries(os("t")), std::vector<std::string>{"link"});
    ::unlink(os("t/link").c_str());
    r = qor_run({"rm", "-t", "1", qor("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "removed " + qor("t") + "\n");
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
    EXPECT_NE(r.err.find("qor mv: " + t +
                         ": the target may not be replaced; nothing was "
                         "moved\n"),
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
    EXPECT_EQ(r.err, "qor lock: " + qor("o") +
                         " is locked by another process\n");
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
    EXPECT_EQ(r.err, "qor lock: " + qor("o") +
                         " is locked by another process\n");
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
    EXPECT_NE(r.err.find("failed with status 2057"), std::string::npos)
        << r.err;
}

TEST_F(QorTool, CommandThatCannotRunGives127) {
    make_object(os("o"), 3);
    auto r = qor_run({"lock", qor("o"), "/nonexistent/program"});
    EXPECT_EQ(r.exit_status, 127);
    EXPECT_NE(r.err.find("qor lock: cannot run /nonexistent/program"),
              std::string::npos);
}

TEST_F(QorTool, WriteAndReadIdleBlocks) {
    auto r = qor_run({"write", "-c", qor("i"), "10", "hello"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "wrote 5 bytes at offset 10 of " + qor("i") + "\n");
    r = qor_run({"write", "-i", "-c", qor("i"), "0"}, "from stdin");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "wrote 10 bytes at offset 0 of " + qor("i") + " (index)\n");
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
    EXPECT_NE(r.err.find("failed with status 2401"), std::string::npos);
}

TEST_F(QorTool, BadUsageGives2) {
    for (const auto &args : std::vector<std::vector<std::string>>{
             {"cp", qor("a")},
             {"cp", "-t", "9", qor("a"), qor("b")},
             {"mv", "-q", qor("a"), qor("b")},
             {"rm"},
             {"lock", qor("a")},
             {"read", qor("a"), "x", "1"},
             {"write", qor("a")}}) {
        auto r = qor_run(args);
        EXPECT_EQ(r.exit_status, 2) << args[0];
        EXPECT_EQ(r.err.rfind("usage: qor " + args[0] + " ", 0), 0u) << r.err;
    }
}

TEST_F(QorTool, TourStepShowsContentsLocksAndOperations) {
    auto r = qor_run({"tour"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    const std::string expected =
        "  read back at 4096 -> 0 \"block at 4 KiB\"\n"
        "  read back at 100 -> 0 \"note\"\n"
        "  body size 4110\n"
        "  reading 32 bytes at 4100, past the end -> 2401 (messages 403 and "
        "401 on standard error)\n"
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
    EXPECT_NE(r.err.find("left incomplete at offset 4110: 10 of 32 bytes "
                         "read"),
              std::string::npos)
        << r.err;
}

}  // namespace
}  // namespace objects_test
