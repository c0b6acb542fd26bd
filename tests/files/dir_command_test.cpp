// The qor command dir (its actions ls, cp and lock), and the directories'
// tour step, run as the built program.
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>

#include "dir_fixture.h"

namespace dir_test {
namespace {

using qor_test::run_qor;

class DirTool : public Dirs {
  protected:
    void SetUp() override {
        Dirs::SetUp();
        if (!qor_test::qor_built()) GTEST_SKIP() << "the qor command is not built";
    }
};

size_t lines(const std::string &s) {
    return static_cast<size_t>(std::count(s.begin(), s.end(), '\n'));
}

TEST_F(DirTool, LsListsEveryEntryInListingOrderOrSorted) {
    make_dir(os("d"));
    for (const char *n : {"b", ".lock", "a", "$(HOME)"}) make_file(os("d/") + n);
    auto r = run_qor({"dir", "ls", os("d")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    std::string want;
    DIR *raw = opendir(os("d").c_str());
    while (struct dirent *e = readdir(raw)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") want += n + "\n";
    }
    closedir(raw);
    EXPECT_EQ(r.out, want);
    r = run_qor({"dir", "ls", "--sort", qor("d")});
    EXPECT_EQ(r.out, "$(HOME)\n.lock\na\nb\n");
    r = run_qor({"dir", "ls", "-s", "-v", os("d")});
    EXPECT_EQ(r.out, "$(HOME)\n.lock\na\nb\n4 entries\n");
    make_dir(os("empty"));
    r = run_qor({"dir", "ls", os("empty")});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "");
}

TEST_F(DirTool, LsOfAMissingDirectoryOrAFileFailsWithOneLineOfItsOwn) {
    auto r = run_qor({"dir", "ls", os("none")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("qor: error 2052: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\nqor dir: cannot list: " + os("none") +
                         ": it does not exist\n"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(lines(r.err), 2u) << r.err;
    make_file(os("f"));
    r = run_qor({"dir", "ls", os("f")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("qor dir: cannot list: " + os("f") + ": "),
              std::string::npos)
        << r.err;
}

const char kDirUsage[] =
    "usage: qor dir ls [-s|--sort] DIRECTORY\n"
    "   or: qor dir cp [-u|--unlocked] SOURCE TARGET\n"
    "   or: qor dir lock [--shared|-x/--exclusive|-d/--downgrade] DIRECTORY "
    "COMMAND [ARGUMENT]...\n"
    "Try 'qor dir --help' for more information.\n";

struct UsageCase {
    std::vector<std::string> args;  // after "dir"
    std::string problem;            // the first line, after "qor dir: "
};

// Each case: status 2, nothing on standard output, the problem and the
// usage lines on standard error, and nothing made, copied or run.
void expect_usage_errors(const std::vector<UsageCase> &cases,
                         const std::string &tmp) {
    const std::vector<std::string> before = objects_test::entries(tmp);
    for (const UsageCase &c : cases) {
        std::vector<std::string> args{"dir"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        auto r = run_qor(args);
        EXPECT_EQ(r.exit_status, 2) << c.problem;
        EXPECT_EQ(r.out, "") << c.problem;
        EXPECT_EQ(r.err, "qor dir: " + c.problem + "\n" + kDirUsage);
        EXPECT_EQ(objects_test::entries(tmp), before) << c.problem;
    }
}

TEST_F(DirTool, AMissingOrUnknownActionIsAUsageError) {
    make_dir(os("d"));
    expect_usage_errors(
        {{{}, "missing operand"},
         {{"list", os("d")}, "unknown action 'list' (ls, cp or lock)"},
         {{"LS", os("d")}, "unknown action 'LS' (ls, cp or lock)"},
         {{"--sort", "lsdir", os("d")},
          "unknown action 'lsdir' (ls, cp or lock)"},
         {{"--nope", "ls", os("d")}, "unknown option '--nope'"}},
        tmp_.path());
}

TEST_F(DirTool, LsUsageErrors) {
    make_dir(os("d"));
    expect_usage_errors(
        {{{"ls"}, "missing operand after 'ls'"},
         {{"ls", os("d"), os("d")}, "extra operand '" + os("d") + "'"},
         // Options end after DIRECTORY.
         {{"ls", os("d"), "-s"}, "extra operand '-s'"},
         {{"ls", "-u", os("d")}, "option --unlocked (-u) does not apply to 'ls'"},
         {{"ls", "--shared", os("d")}, "option --shared does not apply to 'ls'"},
         {{"ls", "-x", os("d")},
          "option --exclusive (-x) does not apply to 'ls'"},
         {{"-d", "ls", os("d")},
          "option --downgrade (-d) does not apply to 'ls'"}},
        tmp_.path());
}

TEST_F(DirTool, CpUsageErrorsCopyNothing) {
    make_dir(os("s"));
    write_file(os("s/f"), "f");
    expect_usage_errors(
        {{{"cp"}, "missing operand after 'cp'"},
         {{"cp", os("s")}, "missing operand after '" + os("s") + "'"},
         {{"cp", os("s"), os("t"), os("u")}, "extra operand '" + os("u") + "'"},
         // Options end after SOURCE: -u is taken for TARGET.
         {{"cp", os("s"), "-u", os("t")}, "extra operand '" + os("t") + "'"},
         {{"cp", "-s", os("s"), os("t")},
          "option --sort (-s) does not apply to 'cp'"},
         {{"cp", "--shared", os("s"), os("t")},
          "option --shared does not apply to 'cp'"},
         {{"cp", "-d", os("s"), os("t")},
          "option --downgrade (-d) does not apply to 'cp'"}},
        tmp_.path());
    EXPECT_FALSE(qor_test::exists(os("t")));
}

TEST_F(DirTool, LockUsageErrorsRunNothing) {
    const std::string dir = locked_dir("d");
    const std::string marker = os("ran");
    expect_usage_errors(
        {{{"lock"}, "missing operand after 'lock'"},
         {{"lock", dir}, "missing command after '" + dir + "'"},
         {{"lock", "--shared", dir}, "missing command after '" + dir + "'"},
         // -s is --sort: --shared has no short form.
         {{"lock", "-s", dir, "touch", marker},
          "option --sort (-s) does not apply to 'lock'"},
         {{"lock", "-u", dir, "touch", marker},
          "option --unlocked (-u) does not apply to 'lock'"},
         {{"lock", "--sorted", dir, "touch", marker},
          "unknown option '--sorted'"}},
        tmp_.path());
    EXPECT_FALSE(qor_test::exists(marker));
    EXPECT_EQ(objects_test::entries(dir), std::vector<std::string>{".lock"});
}

TEST_F(DirTool, HelpShowsTheThreeFormsAndWhereOptionsEnd) {
    auto r = run_qor({"dir", "--help"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err, "");
    const std::string usage(kDirUsage, strlen(kDirUsage) -
                                           strlen("Try 'qor dir --help' for "
                                                  "more information.\n"));
    EXPECT_EQ(r.out.rfind(usage + "\nlist, copy or lock a directory.\n", 0),
              0u)
        << r.out;
    EXPECT_NE(r.out.find("\n      --shared              lock: a shared "
                         "lock\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("\nOptions end after the first 2 operands: what "
                         "follows them is taken as\noperands, options or "
                         "not.\n"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(run_qor({"dir", "lock", "--help"}).out, r.out);
}

TEST_F(DirTool, CpCopiesATreeQuietly) {
    make_dir(os("s"));
    make_dir(os("s/n"));
    write_file(os("s/n/f"), "contents");
    ASSERT_EQ(symlink("../dangling", os("s/n/l").c_str()), 0);
    auto r = run_qor({"dir", "cp", os("s"), qor("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(read_file(os("t/n/f")), "contents");
    char buf[64];
    const ssize_t n = readlink(os("t/n/l").c_str(), buf, sizeof buf);
    EXPECT_EQ(std::string(buf, size_t(n)), "../dangling");
    r = run_qor({"dir", "cp", "-v", "-u", os("s"), os("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "'" + os("s") + "' -> '" + os("t") + "'\n");
}

TEST_F(DirTool, CpSaysHowManyEntriesWereLeftOut) {
    make_dir(os("s"));
    write_file(os("s/ok"), "ok");
    write_file(os("s/held"), "held");
    objects_test::Holder holder(os("s/held"), F_WRLCK);
    ASSERT_TRUE(holder.held());
    // A file locked elsewhere gives 2060, which records nothing: the copy
    // is complete as far as the library reports.
    auto r = run_qor({"dir", "cp", os("s"), os("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    holder.release();
    ASSERT_EQ(chmod(os("s/ok").c_str(), 0), 0);
    ASSERT_EQ(chmod(tmp_.path().c_str(), 0777), 0);
    ASSERT_EQ(chmod(os("s").c_str(), 0777), 0);
    const auto child = qor_test::run_as_unprivileged([&] {
        execl(qor_test::qor_program().c_str(), "qor", "dir", "cp",
              os("s").c_str(), os("u").c_str(), static_cast<char *>(nullptr));
        _exit(99);
    });
    EXPECT_EQ(child.exit_status, 1) << child.err;
    EXPECT_NE(child.err.find("qor dir: 1 entry not copied: " + os("u") + "\n"),
              std::string::npos)
        << child.err;
    EXPECT_EQ(read_file(os("u/held")), "held");
    EXPECT_FALSE(qor_test::exists(os("u/ok")));
}

TEST_F(DirTool, CpOfAMissingSourceFailsAndMakesNothing) {
    auto r = run_qor({"dir", "cp", os("none"), os("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("qor dir: cannot copy: " + os("none") +
                         ": it does not exist\n"),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(qor_test::exists(os("t")));
}

TEST_F(DirTool, CpBrokenOffByAFatalErrorEndsWithStatus1) {
    // A socket carries the directory bit: the copy tries to list it.
    make_dir(os("s"));
    const int s = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    const std::string at = os("s/sock");
    memcpy(addr.sun_path, at.c_str(), at.size() + 1);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ::close(s);
    auto r = run_qor({"dir", "cp", os("s"), os("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("status = 2057\n"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("QOR_open_links failed"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("qor dir: copy broken off: " + os("t") + "\n"),
              std::string::npos)
        << r.err;
}

TEST_F(DirTool, LockRunsTheCommandUnderTheLockAndPassesItsStatusOn) {
    const std::string dir = locked_dir("d");
    const std::string qor = qor_test::qor_program();
    // The command sees the lock from outside: a second dir lock is refused.
    auto r = run_qor({"dir", "lock", dir, qor, "dir", "lock", "--shared", dir,
                      "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("qor dir: cannot lock: " + dir +
                         ": it is locked by another process\n"),
              std::string::npos)
        << r.err;
    // Shared: another shared holder is let in. The options after DIRECTORY
    // are the command's own (sh -c, and the inner qor's --shared).
    r = run_qor({"dir", "lock", "--shared", "-v", dir, qor, "dir", "lock",
                 "--shared", dir, "sh", "-c", "echo inner; exit 5"});
    EXPECT_EQ(r.exit_status, 5) << r.err;
    EXPECT_EQ(r.out, "locked '" + dir + "' (shared)\ninner\n");
    // Downgraded: a reader comes in, a writer does not.
    r = run_qor({"dir", "lock", "--downgrade", "-v", dir, qor, "dir", "lock",
                 "--shared", dir, qor, "dir", "lock", "-x", dir, "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "locked '" + dir + "' (shared)\n");
    EXPECT_NE(r.err.find("qor dir: cannot lock: " + dir +
                         ": it is locked by another process\n"),
              std::string::npos)
        << r.err;
    // After DIRECTORY everything is the command, even what looks like an
    // option of ours.
    r = run_qor({"dir", "lock", "--shared", dir, "-x", "true"});
    EXPECT_EQ(r.exit_status, 127);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qor dir: cannot run: -x: No such file or directory\n");
    // --exclusive wins over --shared; options may come before the action.
    r = run_qor({"dir", "-v", "lock", "--shared", "--exclusive", dir, qor,
                 "dir", "lock", "--shared", dir, "true"});
    EXPECT_EQ(r.exit_status, 1) << r.err;
    EXPECT_EQ(r.out, "locked '" + dir + "' (exclusive)\n");
    // Afterwards nothing is held.
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_UNLCK);
}

TEST_F(DirTool, LockWithoutALockFileOrACommandThatCannotRun) {
    make_dir(os("bare"));
    auto r = run_qor({"dir", "lock", os("bare"), "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor dir: cannot lock: " + os("bare") +
                         "/.lock: No such file or directory\n");
    EXPECT_FALSE(qor_test::exists(os("bare/.lock")));
    const std::string dir = locked_dir("d");
    r = run_qor({"dir", "lock", dir, os("no-such-program")});
    EXPECT_EQ(r.exit_status, 127);
    EXPECT_EQ(r.err, "qor dir: cannot run: " + os("no-such-program") +
                         ": No such file or directory\n");
    ASSERT_EQ(symlink(os("x").c_str(), (os("bare") + "/.lock").c_str()), 0);
    r = run_qor({"dir", "lock", os("bare"), "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("Too many levels of symbolic links"), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("qor dir: cannot lock: " + os("bare") + "/.lock\n"),
              std::string::npos)
        << r.err;
}

TEST_F(DirTool, TheTourCopiesATreeAndLocksIt) {
    auto r = run_qor({"tour"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.out.find("== Directories: listing, copying, locking =="),
              std::string::npos);
    EXPECT_NE(r.out.find("the dangling link was made again: -> nowhere\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("exclusive lock on the copy: granted\n"
                         "  downgraded to shared: yes\n"),
              std::string::npos);
}

}  // namespace
}  // namespace dir_test
