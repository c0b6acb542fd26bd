// QOR_execute: the shell's exit codes 0, 1, 3 and 127, a raw 127 (the
// shell could not run at all) as message 71 and 2071, a shell ended by a
// signal with the exit code only masked (kept on purpose), a failing
// system(), interruptions, and a null command.

#include "run_fixture.h"

namespace {

using run_test::kUnwritten;
using run_test::Outcome;
using run_test::recorded;

class Execute : public run_test::Programs {
  protected:
    Outcome execute(const std::string &command, int32_t start = kUnwritten,
                    void (*before)() = nullptr) const {
        return run([&](int32_t *code) {
            *code = start;
            if (before != nullptr) before();
            const int status = QOR_execute(command.c_str(), code);
            note("systems", std::to_string(qor_fault_calls(QF_system)));
            return status;
        });
    }
};

TEST_F(Execute, ExitCodesZeroOneAndThreeAreStoredWithStatusZero) {
    for (int code : {0, 1, 3}) {
        const Outcome o = execute("echo ran; exit " + std::to_string(code));
        EXPECT_EQ(o.status, 0) << code;
        EXPECT_EQ(o.code, code);
        EXPECT_EQ(o.child.out, "ran\n");
        EXPECT_TRUE(o.messages.empty());
        EXPECT_EQ(o.notes.at("systems"), "1");
    }
}

// The shell ran and did not find the command: its own exit status 127
// comes back as an exit code, with status 0 and no message.
TEST_F(Execute, UnknownCommandIsExitCode127WithStatusZero) {
    const Outcome o = execute("no-such-command-anywhere-qor");
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, 127);
    EXPECT_TRUE(o.messages.empty());
    EXPECT_NE(o.child.err.find("no-such-command-anywhere-qor"),
              std::string::npos);
}

// A raw result of exactly 127 from system(): the shell could not run.
TEST_F(Execute, RawResult127IsMessage71AndStatus2071) {
    const Outcome o = execute("true && echo never", kUnwritten, [] {
        qor_fault_result(QF_system, 127, 0, 1);
    });
    EXPECT_EQ(o.status, QOR_E_SHELL);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.messages,
              std::vector<run_test::Message>{qor_test::msg(
                  "qor", 71, QOR_MSG_INFORMATION, {"true && echo never"})});
    EXPECT_EQ(o.child.out, "");
}

// A shell ended by a signal: 2066, and the caller's exit code keeps its
// own low seven bits instead of getting the signal number.
TEST_F(Execute, ShellEndedBySignalMasksTheCodeInsteadOfSettingIt) {
    const Outcome o = execute("kill -9 $$", 0x1234);
    EXPECT_EQ(o.status, QOR_E_SIGNALLED);
    EXPECT_EQ(o.code, 0x1234 & 127);
    EXPECT_TRUE(o.messages.empty());
    const Outcome t = execute("kill -TERM $$", 5);
    EXPECT_EQ(t.status, QOR_E_SIGNALLED);
    EXPECT_EQ(t.code, 5);
}

TEST_F(Execute, SystemFailingIsRecordedAgainstTheCommand) {
    const Outcome o = execute("exit 0", kUnwritten, [] {
        qor_fault_fail(QF_system, EAGAIN, 0, 1);
    });
    EXPECT_EQ(o.status, QOR_E_RESOURCE);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.notes.at("systems"), "1");
    EXPECT_EQ(o.messages, std::vector<run_test::Message>{recorded(
                              QOR_E_RESOURCE, "exit 0", 2131, EAGAIN)});
}

TEST_F(Execute, InterruptedSystemIsCalledAgain) {
    const Outcome o = execute("exit 2", kUnwritten, [] {
        qor_fault_fail(QF_system, EINTR, 0, 100);
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.code, 2);
    EXPECT_EQ(o.notes.at("systems"), "101");
}

TEST_F(Execute, SystemInterrupted101TimesIsRecorded) {
    const Outcome o = execute("exit 2", kUnwritten, [] {
        qor_fault_fail(QF_system, EINTR, 0, -1);
    });
    EXPECT_EQ(o.status, QOR_E_INTERRUPTED);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.notes.at("systems"), "101");
    EXPECT_EQ(o.messages, std::vector<run_test::Message>{recorded(
                              QOR_E_INTERRUPTED, "exit 2", 2131, EINTR)});
}

// A null command would ask system() only whether a shell exists: refused,
// recorded without a name (the parameter list ends at once).
TEST_F(Execute, NullCommandIsInvalid) {
    const Outcome o = run([](int32_t *code) {
        const int status = QOR_execute(nullptr, code);
        note("systems", std::to_string(qor_fault_calls(QF_system)));
        return status;
    });
    EXPECT_EQ(o.status, QOR_E_INVALID);
    EXPECT_EQ(o.code, kUnwritten);
    EXPECT_EQ(o.notes.at("systems"), "0");
    ASSERT_EQ(o.messages.size(), 1u);
    EXPECT_EQ(o.messages[0].number, QOR_E_INVALID - 2000);
    EXPECT_EQ(o.messages[0].type, QOR_MSG_RECORDED);
    EXPECT_TRUE(o.messages[0].parameters.empty());
}

TEST_F(Execute, NullExitCodeIsAllowed) {
    const Outcome o = run([](int32_t *) {
        const int a = QOR_execute("exit 4", nullptr);
        const int b = QOR_execute("kill -9 $$", nullptr);
        note("b", std::to_string(b));
        return a;
    });
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.notes.at("b"), std::to_string(QOR_E_SIGNALLED));
}

}  // namespace
