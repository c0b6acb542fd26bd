// QOR_start and QOR_call: programs of the object store, compiled ones and
// shell scripts, found on QOR_PATH, in the hash area "#" and in "_/tools";
// what the child is given (its argument vector, QOR_HASH, only the
// caller's descriptors); exit codes, signals, an exec that fails, other
// children of the caller, no children left, and the failures of fork and
// wait.

#include <algorithm>

#include "run_fixture.h"

namespace {

using run_test::call;
using run_test::kUnwritten;
using run_test::Outcome;
using run_test::recorded;

class Call : public run_test::Programs {};

TEST_F(Call, CompiledProgramOnTheSearchPathGetsItsArgumentsAndExitCode) {
    const std::string dir = program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        return call("report", {"first", "exit=5", "last"}, code);
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, 5);
    EXPECT_TRUE(o.messages.empty());
    const auto r = o.report();
    EXPECT_EQ(r.at("argv0"), dir + "/.body");
    EXPECT_EQ(r.at("argc"), "4");
    EXPECT_EQ(r.at("arg1"), "first");
    EXPECT_EQ(r.at("arg2"), "exit=5");
    EXPECT_EQ(r.at("arg3"), "last");
    EXPECT_EQ(r.at("hash"), dir);
}

TEST_F(Call, ShellScriptInTheHashAreaReachesItsCompanionThroughHash) {
    const std::string dir =
        program(hash(), "greet",
                "#!/bin/sh\n"
                "echo \"argv0=$0\"\n"
                "echo \"args=$*\"\n"
                "echo \"hash=$QOR_HASH\"\n"
                "cat \"$QOR_HASH/greeting\"\n"
                "exit 7\n");
    qor_test::write_file(dir + "/greeting", "hello from the companion\n");
    const Outcome o = run([](int32_t *code) {
        return call("greet", {"a", "b"}, code);
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, 7);
    EXPECT_EQ(o.child.out, "argv0=" + dir + "/.body\nargs=a b\nhash=" + dir +
                               "\nhello from the companion\n");
}

TEST_F(Call, CompiledProgramInRootToolsWithoutASearchPath) {
    const std::string dir = program(tools(), "tool");
    const Outcome o = run(
        [](int32_t *code) { return call("tool", {"exit=0"}, code); }, "");
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, 0);
    EXPECT_EQ(o.report().at("argv0"), dir + "/.body");
    EXPECT_EQ(o.report().at("hash"), dir);
}

TEST_F(Call, ShellScriptInRootTools) {
    const std::string dir = program(
        tools(), "script", "#!/bin/sh\necho \"$0 $QOR_HASH $#\"\nexit 1\n");
    const Outcome o = run(
        [](int32_t *code) { return call("script", {"x"}, code); }, "");
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, 1);
    EXPECT_EQ(o.child.out, dir + "/.body " + dir + " 1\n");
}

// The search path first, then "#", then "_/tools".
TEST_F(Call, SearchPathComesBeforeHashWhichComesBeforeTools) {
    const std::string in_path =
        program(path(), "dup", "#!/bin/sh\necho path\n");
    const std::string in_hash =
        program(hash(), "dup", "#!/bin/sh\necho hash\n");
    program(tools(), "dup", "#!/bin/sh\necho tools\n");
    auto once = [&](const std::string &search) {
        return run([](int32_t *code) { return call("dup", {}, code); }, search)
            .child.out;
    };
    EXPECT_EQ(once("path"), "path\n");
    EXPECT_EQ(once(""), "hash\n");
    ASSERT_EQ(unlink((in_hash + "/.body").c_str()), 0);
    ASSERT_EQ(rmdir(in_hash.c_str()), 0);
    EXPECT_EQ(once(""), "tools\n");
    (void)in_path;
}

TEST_F(Call, InterpreterBodyRunsWhenTheProgramHasNoBody) {
    const std::string dir = interpreted(path(), "interp");
    const Outcome o = run([](int32_t *code) {
        return call("interp", {"exit=4"}, code);
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, 4);
    // Element 0 is the interpreter's host path; QOR_HASH the program's.
    EXPECT_EQ(o.report().at("argv0"), dir + "/.interp/.body");
    EXPECT_EQ(o.report().at("arg1"), "exit=4");
    EXPECT_EQ(o.report().at("hash"), dir);
}

TEST_F(Call, NeitherBodyNorInterpreterRecordsTheMissingBody) {
    mkdir((path() + "/empty").c_str(), 0755);
    const Outcome o = run([](int32_t *code) {
        const long forks = qor_fault_calls(QF_fork);
        const int status = call("empty", {}, code);
        note("forks", std::to_string(qor_fault_calls(QF_fork) - forks));
        return status;
    });
    EXPECT_EQ(o.status, QOR_E_MISSING);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.notes.at("forks"), "0");
    EXPECT_EQ(o.messages,
              std::vector<run_test::Message>{recorded(
                  QOR_E_MISSING, path() + "/empty/.body", 2121, ENOENT)});
}

TEST_F(Call, ProgramNotFoundIs2052WithoutAMessage) {
    // A plain file of that name is not a program: it must be a directory.
    qor_test::write_file(path() + "/plain", "#!/bin/sh\nexit 0\n");
    chmod((path() + "/plain").c_str(), 0755);
    const Outcome o = run([](int32_t *code) {
        const long forks = qor_fault_calls(QF_fork);
        const int a = call("nowhere", {}, code);
        const int b = call("plain", {}, code);
        note("b", std::to_string(b));
        note("forks", std::to_string(qor_fault_calls(QF_fork) - forks));
        return a;
    });
    EXPECT_EQ(o.status, QOR_E_MISSING);
    EXPECT_EQ(o.notes.at("b"), std::to_string(QOR_E_MISSING));
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.notes.at("forks"), "0");
    EXPECT_TRUE(o.messages.empty());
    EXPECT_EQ(o.child.out, "");
}

// A body that cannot be executed: the child records why and ends with
// 255, which the caller turns into ENOENT against the program (2052).
TEST_F(Call, ExecThatFailsIs2052WithENOENTRecordedAgainstTheProgram) {
    const std::string dir = program(hash(), "noexec");
    chmod((dir + "/.body").c_str(), 0644);
    const Outcome o = run([](int32_t *code) {
        // Named by a qor path, the program is recorded by its host path.
        return call("#/noexec", {"exit=0"}, code);
    });
    EXPECT_EQ(o.status, QOR_E_MISSING);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.messages, std::vector<run_test::Message>{recorded(
                              QOR_E_MISSING, dir, 2121, ENOENT)});
    EXPECT_EQ(o.child.out, "");
}

TEST_F(Call, ExecvFailingInTheChildIsReportedThere) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        // The plan is copied into the child by fork: its execv fails.
        qor_fault_fail(QF_execv, ENOEXEC, 0, 1);
        return call("report", {"exit=0"}, code);
    });
    EXPECT_EQ(o.status, QOR_E_MISSING);
    EXPECT_EQ(o.code, kUnwritten);
    ASSERT_EQ(o.messages.size(), 1u);
    EXPECT_EQ(o.messages[0],
              recorded(QOR_E_MISSING, "report", 2121, ENOENT));
    // A bare name is not a qor path: the record names it as it is. The
    // child's own record of ENOEXEC went to its copy of the log, and
    // nothing of the program ran.
    EXPECT_EQ(o.child.out, "");
}

TEST_F(Call, ProgramEndingWith255Is2052NotZero) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        return call("report", {"exit=255"}, code);
    });
    EXPECT_EQ(o.status, QOR_E_MISSING);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.messages,
              std::vector<run_test::Message>{recorded(
                  QOR_E_MISSING, "report", 2121, ENOENT)});
    EXPECT_EQ(o.report().at("arg1"), "exit=255");
}

TEST_F(Call, ProgramKilledBySignal9Is2066WithCode9) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        return call("report", {"signal=9"}, code);
    });
    EXPECT_EQ(o.status, QOR_E_SIGNALLED);
    EXPECT_EQ(o.code, 9);
    EXPECT_TRUE(o.messages.empty());
}

TEST_F(Call, ShellScriptEndedByTerminateIs2066WithCode15) {
    program(path(), "victim", "#!/bin/sh\nkill -TERM $$\nexit 0\n");
    const Outcome o =
        run([](int32_t *code) { return call("victim", {}, code); });
    EXPECT_EQ(o.status, QOR_E_SIGNALLED);
    EXPECT_EQ(o.code, SIGTERM);
}

// Another child of the caller ends while the program runs: its status is
// dropped and the call waits on for its own child. The program only ends
// once the other child has been reaped, so the order is certain.
TEST_F(Call, AnotherChildEndingFirstIsReapedAndDropped) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        const pid_t other = fork();
        if (other == 0) _exit(9);
        const int status = call(
            "report", {"await=" + std::to_string(other), "exit=6"}, code);
        errno = 0;
        const pid_t again = waitpid(other, nullptr, WNOHANG);
        note("other", std::to_string(again) + " " + strerror(errno));
        note("waits", std::to_string(qor_fault_calls(QF_wait)));
        return status;
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, 6);
    EXPECT_EQ(o.notes.at("other"), std::string("-1 ") + strerror(ECHILD));
    EXPECT_EQ(o.notes.at("waits"), "2");
}

// With SIGCHLD ignored the host reaps children itself: the wait finds no
// child (ECHILD) and the call answers 0 with the code unwritten.
TEST_F(Call, NoChildLeftToWaitForIsZeroWithTheCodeUnwritten) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        signal(SIGCHLD, SIG_IGN);
        const int status = call("report", {"exit=5"}, code);
        signal(SIGCHLD, SIG_DFL);
        return status;
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_TRUE(o.messages.empty());
    EXPECT_EQ(o.report().at("arg1"), "exit=5");
}

TEST_F(Call, EchildFromWaitIsZeroWithTheCodeUnwritten) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        qor_fault_fail(QF_wait, ECHILD, 0, 1);
        const int status = call("report", {"exit=5"}, code);
        qor_fault_reset();
        const pid_t child = wait(nullptr);  // the program, reaped here instead
        note("reaped", child > 0 ? "yes" : "no");
        return status;
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.notes.at("reaped"), "yes");
}

TEST_F(Call, InterruptedWaitsAreRetried) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        qor_fault_fail(QF_wait, EINTR, 0, 100);
        const int status = call("report", {"exit=3"}, code);
        note("waits", std::to_string(qor_fault_calls(QF_wait)));
        return status;
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, 3);
    EXPECT_EQ(o.notes.at("waits"), "101");
    EXPECT_TRUE(o.messages.empty());
}

TEST_F(Call, WaitInterrupted101TimesIsRecordedAgainstTheProgram) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        qor_fault_fail(QF_wait, EINTR, 0, -1);
        const int status = call("report", {"exit=3"}, code);
        note("waits", std::to_string(qor_fault_calls(QF_wait)));
        qor_fault_reset();
        wait(nullptr);
        return status;
    });
    EXPECT_EQ(o.status, QOR_E_INTERRUPTED);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.notes.at("waits"), "101");
    EXPECT_EQ(o.messages,
              std::vector<run_test::Message>{recorded(
                  QOR_E_INTERRUPTED, "report", 2121, EINTR)});
}

TEST_F(Call, WaitFailingOtherwiseIsRecordedAtOnce) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        qor_fault_fail(QF_wait, EINVAL, 0, 1);
        const int status = call("report", {}, code);
        note("waits", std::to_string(qor_fault_calls(QF_wait)));
        qor_fault_reset();
        wait(nullptr);
        return status;
    });
    EXPECT_EQ(o.status, QOR_E_INVALID);
    EXPECT_EQ(o.notes.at("waits"), "1");
    EXPECT_EQ(o.messages, std::vector<run_test::Message>{recorded(
                              QOR_E_INVALID, "report", 2121, EINVAL)});
}

TEST_F(Call, ForkFailingIsRecordedAgainstTheBody) {
    const std::string dir = program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        qor_fault_fail(QF_fork, EAGAIN, 0, 1);
        return call("report", {}, code);
    });
    EXPECT_EQ(o.status, QOR_E_RESOURCE);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.messages,
              std::vector<run_test::Message>{recorded(
                  QOR_E_RESOURCE, dir + "/.body", 2121, EAGAIN)});
    EXPECT_EQ(o.child.out, "");
}

TEST_F(Call, NullVectorAndNullCodeRunTheBodyWithoutArguments) {
    const std::string dir = program(path(), "report");
    const Outcome o = run([](int32_t *) {
        return QOR_call("report", nullptr, nullptr);
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.report().at("argc"), "1");
    EXPECT_EQ(o.report().at("argv0"), dir + "/.body");
}

// The caller's vector, its own QOR_HASH and the shared freestore are as
// they were.
TEST_F(Call, CallerKeepsItsVectorItsHashAndItsFreestore) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        char placeholder[] = "mine";
        char *argv[] = {placeholder, nullptr};
        QOR_FS_malloc(&QOR_SH_fs_allocator, 8);  // a chunk to compare
        QOR_FS_mark before;
        QOR_FS_save(&QOR_SH_fs_allocator, &before);
        const int status = QOR_call("report", argv, code);
        QOR_FS_mark after;
        QOR_FS_save(&QOR_SH_fs_allocator, &after);
        const bool same =
            before.chunk == after.chunk && before.used == after.used &&
            before.oversized_count == after.oversized_count;
        note("argv0", argv[0]);
        note("hash", getenv("QOR_HASH"));
        note("freestore", same ? "same" : "moved");
        return status;
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.notes.at("argv0"), "mine");
    EXPECT_EQ(o.notes.at("hash"), hash());
    EXPECT_EQ(o.notes.at("freestore"), "same");
}

// What the caller has buffered goes out once, before the program's output.
TEST_F(Call, BufferedOutputIsWrittenOnceBeforeTheProgram) {
    program(path(), "report");
    const Outcome o = run([](int32_t *code) {
        printf("pending;");
        return call("report", {}, code);
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.child.out.rfind("pending;argv0=", 0), 0u) << o.child.out;
    EXPECT_EQ(o.child.out.find("pending;", 1), std::string::npos);
}

TEST_F(Call, StartReturnsTheChildWithoutWaiting) {
    const std::string dir = program(path(), "report");
    const Outcome o = run([](int32_t *) {
        pid_t pid = 0;
        const int status = QOR_start("report", nullptr, &pid);
        int wait_status = 0;
        note("same", waitpid(pid, &wait_status, 0) == pid ? "yes" : "no");
        note("exit", std::to_string(WEXITSTATUS(wait_status)));
        // The process id may be left out.
        char exit_arg[] = "exit=2";
        char *argv[] = {exit_arg, exit_arg, nullptr};
        const int second = QOR_start("report", argv, nullptr);
        wait(&wait_status);
        note("second", std::to_string(second) + " " +
                           std::to_string(WEXITSTATUS(wait_status)));
        return status;
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.notes.at("same"), "yes");
    EXPECT_EQ(o.notes.at("exit"), "0");
    EXPECT_EQ(o.notes.at("second"), "0 2");
    EXPECT_EQ(o.report(0).at("argv0"), dir + "/.body");
    EXPECT_EQ(o.report(1).at("arg1"), "exit=2");
}

TEST_F(Call, StartOfAMissingProgramIs2052AndLeavesThePidAlone) {
    const Outcome o = run([](int32_t *) {
        pid_t pid = 77;
        const int status = QOR_start("nowhere", nullptr, &pid);
        note("pid", std::to_string(pid));
        return status;
    });
    EXPECT_EQ(o.status, QOR_E_MISSING);
    EXPECT_EQ(o.notes.at("pid"), "77");
    EXPECT_TRUE(o.messages.empty());
}

// Every kind of descriptor the library holds open (a binary file, a text
// file, a lock file) stays behind in the caller; a descriptor the caller
// opened without close-on-exec is handed on, as the host does.
TEST_F(Call, NoDescriptorOfTheLibraryReachesTheProgram) {
    program(path(), "report");
    const Outcome o = run([&](int32_t *code) {
        // The descriptors the child may see: those open now without
        // close-on-exec, and the caller's own one, in ascending order.
        std::vector<int> inherited;
        for (int fd = 0; fd < 1024; ++fd) {
            const int flags = fcntl(fd, F_GETFD);
            if (flags >= 0 && (flags & FD_CLOEXEC) == 0) inherited.push_back(fd);
        }
        const int own = open((tmp_ / "work/own").c_str(),
                             O_WRONLY | O_CREAT, 0644);
        inherited.push_back(own);
        std::sort(inherited.begin(), inherited.end());
        std::string expected;
        for (int fd : inherited) {
            expected += (expected.empty() ? "" : ",") + std::to_string(fd);
        }
        const int before = qor_test::open_descriptor_count();
        QOR_file_handle *bin =
            QOR_create_binary_file((tmp_ / "work/binary").c_str());
        QOR_file_handle *txt =
            QOR_create_text_file((tmp_ / "work/text").c_str());
        QOR_file_handle *lock = QOR_open_lock((tmp_ / "work/lock").c_str(), 1);
        note("library", std::to_string(qor_test::open_descriptor_count() -
                                        before));
        note("expected", expected);
        const int status = call("report", {}, code);
        QOR_close_binary_file(bin);
        QOR_close_text_file(txt);
        QOR_close_lock(lock);
        close(own);
        return status;
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.notes.at("library"), "3");
    EXPECT_EQ(o.report().at("fds"), o.notes.at("expected"));
}

}  // namespace
