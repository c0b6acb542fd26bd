// The qor commands cat, save and lockfile, and the tour step of shared text
// files and lock files, run as the built program.

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <sstream>

#include "txt_fixture.h"

namespace files_test {
namespace {

using qor_test::qor_built;
using qor_test::run_qor;

// A qor command running alongside the test: its standard input and output
// are pipes, its standard error goes to the test's.
class Running {
  public:
    explicit Running(std::vector<std::string> args) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) abort();
        const std::string program = qor_test::qor_program();
        std::vector<char *> argv{const_cast<char *>(program.c_str())};
        for (std::string &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        fflush(stdout);
        fflush(stderr);
        pid_ = fork();
        if (pid_ < 0) abort();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            unsetenv("NLSPATH");
            execv(program.c_str(), argv.data());
            _exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        in_ = in[1];
        out_ = out[0];
    }
    ~Running() {
        if (in_ >= 0) ::close(in_);
        wait();
        ::close(out_);
    }
    pid_t pid() const { return pid_; }
    // One line of its standard output (without the newline), "" at the end.
    std::string line() {
        std::string l;
        char c;
        while (::read(out_, &c, 1) == 1 && c != '\n') l += c;
        return l;
    }
    // All the rest of its standard output.
    std::string rest() {
        std::string s;
        char buffer[4096];
        ssize_t n;
        while ((n = ::read(out_, buffer, sizeof buffer)) > 0) s.append(buffer, n);
        return s;
    }
    // Closes its standard input.
    void end_input() {
        ::close(in_);
        in_ = -1;
    }
    // Its exit status (-1 when it did not exit).
    int wait() {
        if (pid_ > 0) {
            int status = 0;
            while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
            }
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            pid_ = 0;
        }
        return status_;
    }

  private:
    pid_t pid_ = 0;
    int in_ = -1;
    int out_ = -1;
    int status_ = -1;
};

// Whether /proc/locks shows a granted write lock of the process on bytes
// first..last of the file.
bool holds_write_lock(pid_t pid, const std::string &file, int first, int last) {
    struct stat st;
    if (stat(file.c_str(), &st) != 0) return false;
    char id[64];
    snprintf(id, sizeof id, ":%llu %d %d", static_cast<unsigned long long>(st.st_ino),
             first, last);
    const std::string needle = " WRITE " + std::to_string(pid) + " ";
    for (const std::string &l : qor_test::lock_list_lines()) {
        if (l.find("->") == std::string::npos && l.find(needle) != std::string::npos &&
            l.size() >= strlen(id) && l.find(id) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> names_in(const std::string &dir) {
    return objects_test::entries(dir);
}

class TxtTool : public Files {
  protected:
    void SetUp() override {
        Files::SetUp();
        if (!qor_built()) GTEST_SKIP() << "the qor command is not built";
    }
    std::string q(const std::string &name) const { return "@" + path(name); }
    // A saver of another process that dies in the middle of its rewrite,
    // having written `partial` over the old contents.
    void crash_during_save(const std::string &p, const std::string &partial) {
        auto r = run_in_child([&] {
            QOR_txt_handle *t = QOR_txt_open(p.c_str(), 0, 1);
            if (t == nullptr) _exit(1);
            QOR_txt_start_save(t);
            QOR_txt_clear_file(t);
            QOR_txt_write_string(t, partial.c_str());
            QOR_flush_text_file(t->file);
            _exit(0);
        });
        ASSERT_EQ(r.exit_status, 0) << r.err;
    }
};

TEST_F(TxtTool, SaveThenCatRoundTrip) {
    auto r = run_qor({"save", q("notes")}, "one\ntwo\n");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(qor_test::read_file(path("notes")), "one\ntwo\n");
    // Nothing is left beside the file.
    EXPECT_EQ(names_in(tmp_.path()), std::vector<std::string>{"notes"});
    r = run_qor({"cat", q("notes")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "one\ntwo\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(TxtTool, SaveReplacesAndSaysSoWithVerbose) {
    qor_test::write_file(path("notes"), "a much longer old text\n");
    auto r = run_qor({"save", "-v", q("notes")}, "new\n");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "saved 4 bytes to '" + q("notes") + "'\n");
    EXPECT_EQ(qor_test::read_file(path("notes")), "new\n");
    r = run_qor({"save", q("notes"), "--sync", "--verbose"}, "");
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "saved 0 bytes to '" + q("notes") + "' (durable)\n");
    EXPECT_EQ(qor_test::read_file(path("notes")), "");
    EXPECT_EQ(names_in(tmp_.path()), std::vector<std::string>{"notes"});
}

TEST_F(TxtTool, CatNeverCreatesTheTargetOfADanglingLink) {
    ASSERT_EQ(symlink(path("victim").c_str(), path("link").c_str()), 0);
    auto r = run_qor({"cat", q("link")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor cat: cannot read: " + q("link") +
                         ": it does not exist\n");
    EXPECT_FALSE(qor_test::exists(path("victim")));
}

TEST_F(TxtTool, CatOfSeveralFilesAndLongLines) {
    const std::string long_line = std::string(10000, 'x') + "\n";
    save_file(path("a"), long_line);
    save_file(path("b"), "no newline at the end");
    auto r = run_qor({"cat", q("a"), q("b")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, long_line + "no newline at the end");
}

TEST_F(TxtTool, CatOfAMissingFileGoesOnWithTheOthers) {
    save_file(path("b"), "b\n");
    auto r = run_qor({"cat", q("none"), q("b")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "b\n");
    EXPECT_EQ(r.err, "qor cat: cannot read: " + q("none") +
                         ": it does not exist\n");
    EXPECT_FALSE(qor_test::exists(path("none")));  // not made by the reader
}

TEST_F(TxtTool, AfterACrashedSaveCatRepairsAndReadOnlyCatDoesNot) {
    save_file(path("notes"), "old contents\n");
    crash_during_save(path("notes"), "new con");
    EXPECT_EQ(names_in(tmp_.path()),
              (std::vector<std::string>{"notes", "notes.bak", "notes.ctrl"}));
    EXPECT_EQ(qor_test::read_file(path("notes")), "new con");

    auto r = run_qor({"cat", "--read-only", "-v", q("notes")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "old contents\n'" + q("notes") +
                         "': a save was interrupted: its backup was read and "
                         "left in place\n");
    EXPECT_EQ(names_in(tmp_.path()),
              (std::vector<std::string>{"notes", "notes.bak", "notes.ctrl"}));
    EXPECT_EQ(qor_test::read_file(path("notes")), "new con");

    r = run_qor({"cat", q("notes"), "-v"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "old contents\n'" + q("notes") +
                         "': an interrupted save was undone from its backup\n");
    EXPECT_EQ(names_in(tmp_.path()), std::vector<std::string>{"notes"});
    EXPECT_EQ(qor_test::read_file(path("notes")), "old contents\n");
}

TEST_F(TxtTool, CatOfAFileItMayNotWriteReadsTheBackupAndLeavesIt) {
    save_file(path("notes"), "old\n");
    crash_during_save(path("notes"), "ne");
    ASSERT_EQ(chmod(path("notes").c_str(), 0644), 0);
    ASSERT_EQ(chmod(path("notes.bak").c_str(), 0644), 0);
    const std::string program = qor_test::qor_program();
    const std::string file = q("notes");
    auto r = qor_test::run_as_unprivileged([&] {
        execl(program.c_str(), program.c_str(), "cat", "-v", file.c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    });
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "old\n'" + file + "' may not be written: read without "
                     "repairs\n'" + file + "': a save was interrupted: its "
                     "backup was read and left in place\n");
    EXPECT_EQ(names_in(tmp_.path()),
              (std::vector<std::string>{"notes", "notes.bak", "notes.ctrl"}));
}

TEST_F(TxtTool, ControlFileWithoutBackupStopsCatWithStatus1) {
    save_file(path("notes"), "x\n");
    qor_test::write_file(path("notes.ctrl"), "");
    auto r = run_qor({"cat", q("notes")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, access_report(path("notes.bak"), ENOENT) +
                         "qor cat: cannot read: " + q("notes") +
                         ": stopped by the library's fatal error (see "
                         "above)\n");
}

TEST_F(TxtTool, SaveIntoAMissingDirectoryStopsWithStatus1) {
    auto r = run_qor({"save", q("nodir/notes")}, "x\n");
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, access_report(path("nodir/notes"), ENOENT) +
                         "qor save: cannot save: " + q("nodir/notes") +
                         ": stopped by the library's fatal error (see "
                         "above)\n");
    EXPECT_EQ(names_in(tmp_.path()), std::vector<std::string>{});
}

TEST_F(TxtTool, CatWaitsForASaveInProgress) {
    save_file(path("notes"), "before\n");
    // This process saves: byte 0 is write-locked from the start of the save.
    QOR_txt_handle *t = QOR_txt_open(path("notes").c_str(), 0, 1);
    ASSERT_NE(t, nullptr);
    QOR_txt_start_save(t);
    QOR_txt_clear_file(t);
    QOR_txt_write_string(t, "half");
    {
        Running cat({"cat", q("notes")});
        ASSERT_TRUE(wait_until_blocked(cat.pid()));
        QOR_txt_write_string(t, " and after\n");
        QOR_txt_end_save(t);
        EXPECT_EQ(cat.rest(), "half and after\n");
        EXPECT_EQ(cat.wait(), 0);
    }
    QOR_txt_close(t);
}

TEST_F(TxtTool, SaveFailsAtOnceWhileAnotherProcessIsTheWriter) {
    save_file(path("notes"), "mine\n");
    QOR_txt_handle *t = QOR_txt_open(path("notes").c_str(), 0, 1);
    ASSERT_NE(t, nullptr);
    auto r = run_qor({"save", q("notes")}, "theirs\n");
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qor save: cannot save: " + q("notes") +
                         ": it is locked by another process\n");
    EXPECT_EQ(qor_test::read_file(path("notes")), "mine\n");
    // A reader is no writer: cat goes ahead.
    r = run_qor({"cat", q("notes")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "mine\n");
    QOR_txt_close(t);
}

TEST_F(TxtTool, SaveWhereItMayNotWriteIsRefused) {
    const std::string program = qor_test::qor_program();
    const std::string file = q("notes");
    auto r = qor_test::run_as_unprivileged([&] {
        const int in = open("/dev/null", O_RDONLY);
        dup2(in, 0);
        execl(program.c_str(), program.c_str(), "save", file.c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    });
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor save: cannot save: " + file +
                         ": Permission denied\n");
    EXPECT_EQ(names_in(tmp_.path()), std::vector<std::string>{});
}

TEST_F(TxtTool, SaveOfANulByteDoesNothing) {
    save_file(path("notes"), "kept\n");
    auto r = run_qor({"save", q("notes")}, std::string("a\0b", 3));
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor save: cannot save: " + q("notes") +
                         ": standard input holds a NUL byte, which a text "
                         "file cannot\n");
    EXPECT_EQ(qor_test::read_file(path("notes")), "kept\n");
    EXPECT_EQ(names_in(tmp_.path()), std::vector<std::string>{"notes"});
}

TEST_F(TxtTool, PathsTheProtocolCannotNameAreRefused) {
    // "_" restarts the path at the root anchor: the host path does not read
    // the same as a qor path, so the backup would be made elsewhere.
    objects_test::make_dir(path("_"));
    auto r = run_qor({"save", q("_/notes")}, "x\n");
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor save: cannot save: " + q("_/notes") +
                         ": the host path " + path("_/notes") +
                         " does not read the same as a qor path\n");
    EXPECT_EQ(names_in(path("_")), std::vector<std::string>{});
    r = run_qor({"cat", "$(QOR_TOOL_TEST_UNSET_VARIABLE)/x"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor cat: cannot read: $(QOR_TOOL_TEST_UNSET_VARIABLE)/x: "
                     "the qor path does not translate to a host path\n");
}

TEST_F(TxtTool, RelativePathsAreTakenAgainstTheCurrentDirectory) {
    const std::string program = qor_test::qor_program();
    const std::string dir = tmp_.path();
    auto r = run_in_child([&] {
        if (chdir(dir.c_str()) != 0) _exit(126);
        const int in = open("/dev/null", O_RDONLY);
        dup2(in, 0);
        execl(program.c_str(), program.c_str(), "save", "@rel",
              static_cast<char *>(nullptr));
        _exit(127);
    });
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(names_in(tmp_.path()), std::vector<std::string>{"rel"});
}

TEST_F(TxtTool, BadCommandLinesDoNothing) {
    struct Case {
        std::vector<std::string> args;
        std::string first_line;
    } cases[] = {
        {{"cat"}, "qor cat: missing operand"},
        {{"cat", "--bogus", q("x")}, "qor cat: unknown option '--bogus'"},
        {{"save"}, "qor save: missing operand"},
        {{"save", q("x"), q("y")}, "qor save: extra operand '" + q("y") + "'"},
        {{"save", "--sync=1", q("x")}, "qor save: option '--sync' takes no value"},
        {{"lockfile"}, "qor lockfile: missing operand"},
        {{"lockfile", "grab", q("x")}, "qor lockfile: unknown action 'grab' (test or hold)"},
        {{"lockfile", "test"}, "qor lockfile: missing operand after 'test'"},
        {{"lockfile", "test", q("x"), q("y")}, "qor lockfile: extra operand '" + q("y") + "'"},
        {{"lockfile", "hold", q("x")}, "qor lockfile: missing command after '" + q("x") + "'"},
    };
    for (const Case &c : cases) {
        auto r = run_qor(c.args, "input\n");
        EXPECT_EQ(r.exit_status, 2) << c.first_line;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.substr(0, r.err.find('\n')), c.first_line);
        EXPECT_NE(r.err.find("\nusage: qor " + c.args[0] + " "), std::string::npos)
            << r.err;
    }
    EXPECT_EQ(names_in(tmp_.path()), std::vector<std::string>{});
}

TEST_F(TxtTool, LockfileHoldRunsTheCommandWhileHoldingTheUpdateRight) {
    const std::string lock = path("job.lock");
    {
        // The command says it runs, then waits for a line on its input.
        Running holder({"lockfile", "hold", q("job.lock"), "sh", "-c",
                        "echo running; read line; exit 4"});
        ASSERT_EQ(holder.line(), "running");
        // The lock file was made, two bytes, and byte 1 is held by qor.
        EXPECT_EQ(qor_test::read_file(lock), "  ");
        EXPECT_TRUE(holds_write_lock(holder.pid(), lock, 1, 1));
        auto r = run_qor({"lockfile", "test", q("job.lock")});
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "");
        r = run_qor({"lockfile", "-v", "test", q("job.lock")});
        EXPECT_EQ(r.out, "'" + q("job.lock") +
                             "': another process holds the update right\n");
        // A second holder fails at once and runs nothing.
        r = run_qor({"lockfile", "hold", q("job.lock"), "touch", path("ran")});
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.err, "qor lockfile: cannot hold: " + q("job.lock") +
                             ": it is locked by another process\n");
        EXPECT_FALSE(qor_test::exists(path("ran")));
        holder.end_input();
        EXPECT_EQ(holder.wait(), 4);  // the command's status
    }
    auto r = run_qor({"lockfile", "--verbose", "test", q("job.lock")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "'" + q("job.lock") +
                         "': no other process holds the update right\n");
    r = run_qor({"lockfile", "-v", "hold", q("job.lock"), "echo", "again"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "holding the update right of '" + q("job.lock") +
                         "'\nagain\n");
}

TEST_F(TxtTool, LockfileSeesTheLibrarysUpdateRightInAnotherProcess) {
    const std::string lock = path("l");
    Partner holder([&](Partner &p) {
        QOR_file_handle *h = QOR_open_lock(lock.c_str(), 1);
        p.tell(h != nullptr ? 'L' : 'n');
        p.hear();
        return 0;
    });
    ASSERT_EQ(holder.receive(), 'L');
    auto r = run_qor({"lockfile", "test", q("l")});
    EXPECT_EQ(r.exit_status, 1);
    r = run_qor({"lockfile", "hold", q("l"), "true"});
    EXPECT_EQ(r.exit_status, 1);
    holder.send('g');
    EXPECT_EQ(holder.finish(), 0);
    r = run_qor({"lockfile", "test", q("l")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
}

TEST_F(TxtTool, LockfileCommandDoesNotInheritTheLockFile) {
    auto r = run_qor({"lockfile", "hold", q("l"), "sh", "-c",
                      "for f in /proc/$$/fd/*; do readlink $f; done; exit 0"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out.find(path("l")), std::string::npos) << r.out;
}

TEST_F(TxtTool, LockfileTestOfAMissingFileSaysSo) {
    auto r = run_qor({"lockfile", "test", q("none")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor lockfile: cannot test: " + q("none") +
                         ": it does not exist\n");
    EXPECT_FALSE(qor_test::exists(path("none")));
    r = run_qor({"lockfile", "hold", q("l"), "/nonexistent/program"});
    EXPECT_EQ(r.exit_status, 127);
    EXPECT_EQ(r.err, "qor lockfile: cannot run: /nonexistent/program: No such "
                     "file or directory\n");
}

TEST_F(TxtTool, TourStepSavesCrashesAndRepairs) {
    auto r = run_qor({"tour"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    const std::string expected =
        "== Shared text files and lock files ==\n"
        "open notes.txt, in a new temporary directory, as its one writer (the "
        "update\nright: a record lock on byte 1 of the file)\n"
        "save \"first line\": the backup and the control file come and go\n"
        "  in the directory: notes.txt\n"
        "start another save: the old contents are in notes.txt.bak, and "
        "notes.txt.ctrl\nsays a rewrite is under way\n"
        "  in the directory: notes.txt notes.txt.bak notes.txt.ctrl\n"
        "end the save: both are gone\n"
        "  in the directory: notes.txt\n"
        "another process starts a save, writes \"third li\" and dies\n"
        "  in the directory: notes.txt notes.txt.bak notes.txt.ctrl\n"
        "  notes.txt on disk: \"third li\"\n"
        "  a read-only reader, from the backup, reads \"second line\\n\"\n"
        "  in the directory: notes.txt notes.txt.bak notes.txt.ctrl\n"
        "  a writable reader repairs the file and reads \"second line\\n\"\n"
        "  in the directory: notes.txt\n"
        "  notes.txt on disk: \"second line\\n\"\n"
        "\ntake the update right of the lock file job.lock -> held\n"
        "  another process asks for it -> refused at once (no waiting)\n"
        "release it (close the lock file)\n"
        "  another process asks for it -> granted\n";
    EXPECT_NE(r.out.find(expected), std::string::npos) << r.out;
}

}  // namespace
}  // namespace files_test
