// The qor command's process subcommands (locate, whoami, run, call, exec)
// and tour
// step, run as the built program (skipped when the tools are not built).
// The search path of each run is set in this process, which run_qor's
// child inherits, and removed again.

#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

using qor_test::run_qor;

class QorProcessTool : public testing::Test {
  protected:
    QorProcessTool() {
        mkdir((tmp_ / "help").c_str(), 0755);
        qor_test::write_file(tmp_ / "help/intro.hlp", "welcome\n");
        qor_test::write_file(tmp_ / "plain.txt", "plain\n");
        mkdir((tmp_ / "prog").c_str(), 0755);
        body_ = tmp_ / "prog/.body";
        qor_test::write_file(body_,
                             "#!/bin/sh\n"
                             // Started, not waited for: it says nothing
                             // on the streams it shares with the test.
                             "if [ \"$1\" = pid ]; then\n"
                             "  echo $$ >\"$2.part\" && mv \"$2.part\" \"$2\"\n"
                             "  exit 0\n"
                             "fi\n"
                             "echo \"$0|$#|$*|$QOR_HASH\"\n"
                             "case $1 in\n"
                             "  kill) kill -9 $$ ;;\n"
                             "  *) exit ${1:-0} ;;\n"
                             "esac\n");
        chmod(body_.c_str(), 0755);
        setenv("QOR_PATH", tmp_.path().c_str(), 1);
        setenv("QOR_PATH_DEFAULTS", "hlp=(help)", 1);
        unsetenv("QOR_LOCATE_TRACE_LEVEL");
    }
    ~QorProcessTool() override {
        unsetenv("QOR_PATH");
        unsetenv("QOR_PATH_DEFAULTS");
    }
    void SetUp() override {
        if (!qor_test::qor_built()) GTEST_SKIP() << "qor not built";
    }

    qor_test::TempDir tmp_;
    std::string body_;
};

TEST_F(QorProcessTool, LocatePrintsTheHostPathFoundThroughTheDefaults) {
    auto r = run_qor({"locate", "intro.hlp"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, tmp_ / "help/intro.hlp\n");
    EXPECT_EQ(r.err, "");
    r = run_qor({"locate", "plain.txt", "--qor"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, tmp_ / "plain.txt\n");
}

TEST_F(QorProcessTool, LocateADirectoryWithTypeAndAnExtraList) {
    auto r = run_qor({"locate", "--type=plain_directory", "help"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, tmp_ / "help\n");
    unsetenv("QOR_PATH");
    r = run_qor({"locate", "--extra", "/nowhere, @" + tmp_.path(), "--type",
                 "1", "prog"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, tmp_ / "prog\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(QorProcessTool, LocateTracesEveryProbeAtLevel2) {
    auto r = run_qor({"locate", "--trace=2", "intro.hlp"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, tmp_ / "help/intro.hlp\n");
    EXPECT_EQ(r.err, "intro.hlp -- not found\n" + (tmp_ / "help/intro.hlp") +
                         " -- found\n");
    // Level 1: only what exists.
    r = run_qor({"locate", "--trace", "1", "intro.hlp"});
    EXPECT_EQ(r.err, tmp_ / "help/intro.hlp -- found\n");
}

TEST_F(QorProcessTool, LocateNotFoundIsStatus1WithOneLine) {
    auto r = run_qor({"locate", "missing.txt"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "qor locate: cannot locate: missing.txt: not found on the "
              "search path\n");
}

// A usage error of qor locate: status 2, nothing found or printed, the
// problem and the usage lines.
void expect_locate_usage_error(const std::vector<std::string> &args,
                               const std::string &problem) {
    const auto r = run_qor(args);
    EXPECT_EQ(r.exit_status, 2) << problem;
    EXPECT_EQ(r.out, "") << problem;
    EXPECT_EQ(r.err, "qor locate: " + problem +
                         "\nusage: qor locate [OPTION]... NAME\n"
                         "Try 'qor locate --help' for more information.\n");
}

TEST_F(QorProcessTool, LocateUsageErrors) {
    expect_locate_usage_error({"locate", "--trace=3", "intro.hlp"},
                              "invalid LEVEL '3' (a number from 1 to 2)");
    auto r = run_qor({"locate", "--type=dir", "help"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err.rfind("qor locate: invalid type 'dir'", 0), 0u) << r.err;
    r = run_qor({"locate"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err.rfind("qor locate: missing operand\n", 0), 0u) << r.err;
    r = run_qor({"locate", "a", "b"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.out, "");
}

TEST_F(QorProcessTool, WhoamiShowsProcessHostAndOwner) {
    auto r = run_qor({"whoami"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err, "");
    struct utsname u;
    ASSERT_EQ(uname(&u), 0);
    const struct passwd *pw = getpwuid(getuid());
    ASSERT_NE(pw, nullptr);
    const std::string tail = std::string("\nhost    ") + u.nodename +
                             "\nowner   " + pw->pw_name + "\n";
    ASSERT_EQ(r.out.rfind("process ", 0), 0u) << r.out;
    const size_t nl = r.out.find('\n');
    const std::string pid = r.out.substr(8, nl - 8);
    EXPECT_FALSE(pid.empty());
    EXPECT_EQ(pid.find_first_not_of("0123456789"), std::string::npos) << pid;
    EXPECT_NE(pid, std::to_string(getpid()));
    EXPECT_EQ(r.out.substr(nl), tail);
    EXPECT_EQ(run_qor({"whoami", "extra"}).exit_status, 2);
}

TEST_F(QorProcessTool, LocateOsIsTheDefaultFormAndRefusesQor) {
    auto r = run_qor({"locate", "--os", "plain.txt"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, tmp_ / "plain.txt\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(run_qor({"locate", "plain.txt"}).out, r.out);
    expect_locate_usage_error({"locate", "--os", "--qor", "plain.txt"},
                              "cannot combine --os and --qor");
    expect_locate_usage_error({"locate", "-q", "plain.txt", "--os"},
                              "cannot combine --os and --qor");
    // Long only: -o is no option of locate.
    expect_locate_usage_error({"locate", "-o", "plain.txt"},
                              "unknown option '-o'");
}

TEST_F(QorProcessTool, RunStartsTheProgramAndPrintsItsProcessId) {
    const std::string done = tmp_ / "started";
    auto r = run_qor({"run", "prog", "pid", done});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    ASSERT_EQ(r.out.size() > 1 && r.out.back() == '\n', true) << r.out;
    const std::string pid = r.out.substr(0, r.out.size() - 1);
    EXPECT_EQ(pid.find_first_not_of("0123456789"), std::string::npos) << pid;
    // qor did not wait: the program writes its own process id when it
    // runs, which may be after qor ended. Bounded: about ten seconds.
    for (int i = 0; i < 1000 && !qor_test::exists(done); ++i) usleep(10000);
    ASSERT_TRUE(qor_test::exists(done)) << "the started program never ran";
    EXPECT_EQ(qor_test::read_file(done), pid + "\n");
}

TEST_F(QorProcessTool, RunOfAMissingProgramIsStatus1) {
    auto r = run_qor({"run", "absent", "1"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qor run: cannot run: absent: it does not exist\n");
    // A program directory without a body cannot be started.
    mkdir((tmp_ / "hollow").c_str(), 0755);
    r = run_qor({"run", "hollow"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qor: error 2052: cannot run a program, or find the "
                     "process owner of \"" + (tmp_ / "hollow/.body") +
                         "\": it does not exist (No such file or directory, "
                         "OS error 2)\n"
                         "qor run: cannot run: hollow: it does not exist\n");
    r = run_qor({"run"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err.rfind("qor run: missing operand\n", 0), 0u) << r.err;
}

TEST_F(QorProcessTool, CallPassesArgumentsAndTheExitStatusOn) {
    auto r = run_qor({"call", "prog", "4", "-x", "--y"});
    EXPECT_EQ(r.exit_status, 4);
    EXPECT_EQ(r.out, body_ + "|3|4 -x --y|" + (tmp_ / "prog") + "\n");
    EXPECT_EQ(r.err, "");
    r = run_qor({"call", "prog"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, body_ + "|0||" + (tmp_ / "prog") + "\n");
    r = run_qor({"call", "prog", "0"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err, "");
    r = run_qor({"call", "prog", "3"});
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err, "");
    r = run_qor({"call", "-v", "prog", "3"});
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.out, body_ + "|1|3|" + (tmp_ / "prog") +
                         "\nprog ended with exit status 3\n");
}

TEST_F(QorProcessTool, CallTakesAnExitStatusOf255ForAProgramThatCouldNotRun) {
    // The child of a program whose body cannot be run ends with 255; the
    // library cannot tell a program's own 255 from that.
    auto r = run_qor({"call", "prog", "255"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, body_ + "|1|255|" + (tmp_ / "prog") + "\n");
    EXPECT_EQ(r.err, "qor: error 2052: cannot run a program, or find the "
                     "process owner of \"prog\": it does not exist (No such "
                     "file or directory, OS error 2)\n"
                     "qor call: cannot run: prog: it does not exist\n");
}

TEST_F(QorProcessTool, CallOfAProgramKilledBySignalIs128PlusTheSignal) {
    auto r = run_qor({"call", "prog", "kill"});
    EXPECT_EQ(r.exit_status, 128 + 9);
    EXPECT_EQ(r.err,
              "qor call: cannot run: prog: the program was ended by a "
              "signal\n");
}

TEST_F(QorProcessTool, CallOfAMissingProgramIsStatus1) {
    auto r = run_qor({"call", "absent", "1"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qor call: cannot run: absent: it does not exist\n");
    r = run_qor({"call"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err.rfind("qor call: missing operand\n", 0), 0u) << r.err;
}

TEST_F(QorProcessTool, ExecEndsWithTheShellsExitStatus) {
    auto r = run_qor({"exec", "echo from the shell; exit 6"});
    EXPECT_EQ(r.exit_status, 6);
    EXPECT_EQ(r.out, "from the shell\n");
    EXPECT_EQ(r.err, "");
    r = run_qor({"exec", "true"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    r = run_qor({"exec", "false"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "");
    r = run_qor({"exec", "no-such-command-qor-tool"});
    EXPECT_EQ(r.exit_status, 127);
    EXPECT_NE(r.err.find("no-such-command-qor-tool"), std::string::npos)
        << r.err;
    r = run_qor({"exec", "kill -9 $$"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err,
              "qor exec: cannot run: kill -9 $$: the program was ended by a "
              "signal\n");
    r = run_qor({"exec", "true", "false"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err.rfind("qor exec: extra operand 'false'\n", 0), 0u)
        << r.err;
}

TEST(QorTour, ProcessStepLocatesThroughDefaultsAndRunsAProgram) {
    if (!qor_test::qor_built()) GTEST_SKIP() << "qor not built";
    auto r = run_qor({"tour"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    const size_t at =
        r.out.find("== Processes: locating files and running programs ==\n");
    ASSERT_NE(at, std::string::npos) << r.out;
    const std::string step = r.out.substr(at);
    const size_t dir_at = step.find("/tmp/qor-tour-process-");
    ASSERT_NE(dir_at, std::string::npos) << step;
    const std::string dir = step.substr(dir_at, 28);
    EXPECT_NE(step.find("intro.hlp -- not found\n" + dir +
                        "/help/intro.hlp -- found\n  found " + dir +
                        "/help/intro.hlp\n"),
              std::string::npos)
        << step;
    EXPECT_NE(step.find("  hello: I am " + dir + "/hello/.body\n"
                        "  hello: QOR_HASH is " + dir + "/hello\n"
                        "  hello: my arguments: one two\n"),
              std::string::npos)
        << step;
    EXPECT_NE(step.find("  QOR_call: status 0, exit code 3\n"
                        "  sh: hello from the shell\n"
                        "  QOR_execute: status 0, exit code 5\n"),
              std::string::npos)
        << step;
    struct stat st;
    EXPECT_NE(stat(dir.c_str(), &st), 0) << "the tour's directory is left";
}

}  // namespace
