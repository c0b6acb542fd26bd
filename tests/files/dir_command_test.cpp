// The qor commands lsdir, cpdir and lockdir, and the directories' tour
// step, run as the built program.
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

TEST_F(DirTool, LsdirListsEveryEntryInListingOrderOrSorted) {
    make_dir(os("d"));
    for (const char *n : {"b", ".lock", "a", "$(HOME)"}) make_file(os("d/") + n);
    auto r = run_qor({"lsdir", os("d")});
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
    r = run_qor({"lsdir", "--sort", qor("d")});
    EXPECT_EQ(r.out, "$(HOME)\n.lock\na\nb\n");
    r = run_qor({"lsdir", "-s", "-v", os("d")});
    EXPECT_EQ(r.out, "$(HOME)\n.lock\na\nb\n4 entries\n");
    make_dir(os("empty"));
    r = run_qor({"lsdir", os("empty")});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "");
}

TEST_F(DirTool, LsdirOfAMissingDirectoryOrAFileFailsWithOneLineOfItsOwn) {
    auto r = run_qor({"lsdir", os("none")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("qor: error 2052: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\nqor lsdir: cannot list: " + os("none") +
                         ": it does not exist\n"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(lines(r.err), 2u) << r.err;
    make_file(os("f"));
    r = run_qor({"lsdir", os("f")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("qor lsdir: cannot list: " + os("f") + ": "),
              std::string::npos)
        << r.err;
}

TEST_F(DirTool, UsageErrorsDoNothing) {
    for (const std::vector<std::string> &args :
         std::vector<std::vector<std::string>>{{"lsdir"},
                                               {"lsdir", "a", "b"},
                                               {"cpdir", os("s")},
                                               {"cpdir", "--bogus", "a", "b"},
                                               {"lockdir", os("d")},
                                               {"lsdir", "--nope", "x"}}) {
        auto r = run_qor(args);
        EXPECT_EQ(r.exit_status, 2) << args[0];
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find("usage: qor " + args[0]), std::string::npos)
            << r.err;
    }
    EXPECT_TRUE(objects_test::entries(tmp_.path()).empty());
}

TEST_F(DirTool, CpdirCopiesATreeQuietly) {
    make_dir(os("s"));
    make_dir(os("s/n"));
    write_file(os("s/n/f"), "contents");
    ASSERT_EQ(symlink("../dangling", os("s/n/l").c_str()), 0);
    auto r = run_qor({"cpdir", os("s"), qor("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(read_file(os("t/n/f")), "contents");
    char buf[64];
    const ssize_t n = readlink(os("t/n/l").c_str(), buf, sizeof buf);
    EXPECT_EQ(std::string(buf, size_t(n)), "../dangling");
    r = run_qor({"cpdir", "-v", "-u", os("s"), os("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "'" + os("s") + "' -> '" + os("t") + "'\n");
}

TEST_F(DirTool, CpdirSaysHowManyEntriesWereLeftOut) {
    make_dir(os("s"));
    write_file(os("s/ok"), "ok");
    write_file(os("s/held"), "held");
    objects_test::Holder holder(os("s/held"), F_WRLCK);
    ASSERT_TRUE(holder.held());
    // A file locked elsewhere gives 2060, which records nothing: the copy
    // is complete as far as the library reports.
    auto r = run_qor({"cpdir", os("s"), os("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    holder.release();
    ASSERT_EQ(chmod(os("s/ok").c_str(), 0), 0);
    ASSERT_EQ(chmod(tmp_.path().c_str(), 0777), 0);
    ASSERT_EQ(chmod(os("s").c_str(), 0777), 0);
    const auto child = qor_test::run_as_unprivileged([&] {
        execl(qor_test::qor_program().c_str(), "qor", "cpdir", os("s").c_str(),
              os("u").c_str(), static_cast<char *>(nullptr));
        _exit(99);
    });
    EXPECT_EQ(child.exit_status, 1) << child.err;
    EXPECT_NE(child.err.find("qor cpdir: 1 entry not copied: " + os("u") + "\n"),
              std::string::npos)
        << child.err;
    EXPECT_EQ(read_file(os("u/held")), "held");
    EXPECT_FALSE(qor_test::exists(os("u/ok")));
}

TEST_F(DirTool, CpdirOfAMissingSourceFailsAndMakesNothing) {
    auto r = run_qor({"cpdir", os("none"), os("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("qor cpdir: cannot copy: " + os("none") +
                         ": it does not exist\n"),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(qor_test::exists(os("t")));
}

TEST_F(DirTool, CpdirBrokenOffByAFatalErrorEndsWithStatus1) {
    // A socket carries the directory bit: the copy tries to list it.
    make_dir(os("s"));
    const int s = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    const std::string at = os("s/sock");
    memcpy(addr.sun_path, at.c_str(), at.size() + 1);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ::close(s);
    auto r = run_qor({"cpdir", os("s"), os("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("status = 2057\n"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("QOR_open_links failed"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("qor cpdir: copy broken off: " + os("t") + "\n"),
              std::string::npos)
        << r.err;
}

TEST_F(DirTool, LockdirRunsTheCommandUnderTheLockAndPassesItsStatusOn) {
    const std::string dir = locked_dir("d");
    // The command sees the lock from outside: a second lockdir is refused.
    auto r = run_qor({"lockdir", dir, qor_test::qor_program(), "lockdir",
                      "--shared", dir, "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("qor lockdir: cannot lock: " + dir +
                         ": it is locked by another process\n"),
              std::string::npos)
        << r.err;
    // Shared: another shared holder is let in.
    r = run_qor({"lockdir", "-s", "-v", dir, qor_test::qor_program(),
                 "lockdir", "-s", dir, "sh", "-c", "echo inner; exit 5"});
    EXPECT_EQ(r.exit_status, 5) << r.err;
    EXPECT_EQ(r.out, "locked '" + dir + "' (shared)\ninner\n");
    // Downgraded: a reader comes in, a writer does not.
    r = run_qor({"lockdir", "--downgrade", "-v", dir, qor_test::qor_program(),
                 "lockdir", "-s", dir, qor_test::qor_program(), "lockdir",
                 "-x", dir, "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "locked '" + dir + "' (shared)\n");
    // Afterwards nothing is held.
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_UNLCK);
}

TEST_F(DirTool, LockdirWithoutALockFileOrACommandThatCannotRun) {
    make_dir(os("bare"));
    auto r = run_qor({"lockdir", os("bare"), "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor lockdir: cannot lock: " + os("bare") +
                         "/.lock: No such file or directory\n");
    EXPECT_FALSE(qor_test::exists(os("bare/.lock")));
    const std::string dir = locked_dir("d");
    r = run_qor({"lockdir", dir, os("no-such-program")});
    EXPECT_EQ(r.exit_status, 127);
    EXPECT_EQ(r.err, "qor lockdir: cannot run: " + os("no-such-program") +
                         ": No such file or directory\n");
    ASSERT_EQ(symlink(os("x").c_str(), (os("bare") + "/.lock").c_str()), 0);
    r = run_qor({"lockdir", os("bare"), "true"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("Too many levels of symbolic links"), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("qor lockdir: cannot lock: " + os("bare") + "/.lock\n"),
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
