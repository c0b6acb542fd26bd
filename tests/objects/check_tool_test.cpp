// The qor command check on objects damaged on purpose: half-made by a
// create or copy, members of the wrong kind, extra members, debris a live
// process still holds; and repairs. Run as the built program.

#include <sys/stat.h>

#include "contents_fixture.h"

namespace objects_test {
namespace {

using qor_test::run_qor;

class CheckTool : public Store {
  protected:
    void SetUp() override {
        Store::SetUp();
        if (!qor_test::qor_built()) GTEST_SKIP() << "the qor command is not built";
    }
};

TEST_F(CheckTool, FinishedObjectsOfEveryTypeAreClean) {
    qor_test::write_file(os("f"), "data");
    make_dir(os("d"));
    for (unsigned t = 2; t <= 4; ++t) {
        ASSERT_EQ(QOR_create_object(qor("o" + std::to_string(t)).c_str(), t), 0);
    }
    auto r = run_qor({"check", qor("f"), qor("d"), qor("o2"), qor("o3"), qor("o4")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    r = run_qor({"check", "-v", qor("o3"), "--type=cdir"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, qor("o3") + ": checked as a cdir\n");
}

TEST_F(CheckTool, HalfMadeCdirIsFoundOnlyWhenToldItsType) {
    make_dir(os("c"));
    qor_test::write_file(os("c/.lock"), "");
    // Detected, it reads as a finished lockable directory.
    auto r = run_qor({"check", "-v", qor("c")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, qor("c") + ": checked as a lockable_directory\n");
    r = run_qor({"check", "--type=3", qor("c")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, qor("c") + ": .body: missing\n" + qor("c") +
                         ": .lock: all that is left of a cdir (a stale "
                         "lock)\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(entries(os("c")), std::vector<std::string>{".lock"});  // untouched
    r = run_qor({"check", "--type=cdir", "--repair", qor("c")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, qor("c") + ": .body: missing\n" + qor("c") +
                         ": .lock: all that is left of a cdir (a stale "
                         "lock)\n" + qor("c") +
                         ": repaired (the unfinished object was removed)\n");
    EXPECT_FALSE(qor_test::exists(os("c")));
}

TEST_F(CheckTool, MembersOfTheWrongKindAndExtraMembers) {
    make_object(os("o"), 3);
    ASSERT_EQ(symlink("/etc/passwd", os("o/.index").c_str()), 0);
    auto r = run_qor({"check", "--type=cdir", qor("o")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, qor("o") + ": .index: not a regular file\n");
    ::unlink(os("o/.index").c_str());
    qor_test::write_file(os("o/.index"), "");
    r = run_qor({"check", "--type=cdir", qor("o")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, qor("o") + ": .index: does not belong to a cdir\n");
    r = run_qor({"check", "--type=cdir", "-r", qor("o")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, qor("o") + ": .index: does not belong to a cdir\n" +
                         qor("o") + ": repaired\n");
    EXPECT_EQ(entries(os("o")), (std::vector<std::string>{".body", ".lock"}));
    EXPECT_EQ(run_qor({"check", "--type=cdir", qor("o")}).exit_status, 0);
}

TEST_F(CheckTool, ObjectOfTheWrongKindIsReportedAndLeft) {
    qor_test::write_file(os("f"), "plain");
    make_dir(os("d"));
    auto r = run_qor({"check", "--type=idle_object", "--repair", qor("f")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, qor("f") + ": not a directory\n" + qor("f") +
                         ": repaired; 1 left in place\n");
    EXPECT_EQ(qor_test::read_file(os("f")), "plain");
    r = run_qor({"check", "--type=0", qor("d")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, qor("d") + ": a directory, not a plain file\n");
}

TEST_F(CheckTool, ACopyCutShortDiffersFromItsSource) {
    make_object(os("s"), 4);
    qor_test::write_file(os("s/.body"), "0123456789");
    make_object(os("t"), 4);
    qor_test::write_file(os("t/.body"), "01234");
    auto r = run_qor({"check", "--type=4", "--source", qor("s"), qor("t")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, qor("t") + ": .body: differs in size from " + qor("s") + "\n");
    r = run_qor({"check", "--type=4", "--source=" + qor("s"), "--repair", qor("t")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_FALSE(qor_test::exists(os("t")));
    EXPECT_EQ(qor_test::read_file(os("s/.body")), "0123456789");
}

TEST_F(CheckTool, WhatALiveProcessHoldsIsLeft) {
    make_dir(os("c"));
    qor_test::write_file(os("c/.lock"), "");
    const std::string lock = os("c/.lock");
    Partner holder([&](Partner &p) {
        const int fd = open(lock.c_str(), O_RDWR | O_CLOEXEC);
        struct flock fl{};
        fl.l_type = F_WRLCK;
        fl.l_whence = SEEK_SET;
        p.tell(fd >= 0 && fcntl(fd, F_SETLK, &fl) == 0 ? 'L' : 'n');
        p.hear();
        return 0;
    });
    ASSERT_EQ(holder.receive(), 'L');
    auto r = run_qor({"check", "--type=cdir", "--repair", qor("c")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, qor("c") + ": .body: missing\n" + qor("c") +
                         ": .lock: all that is left of a cdir (a stale lock) "
                         "(held by a live process)\n" + qor("c") +
                         ": repaired; 2 left in place\n");
    EXPECT_EQ(entries(os("c")), std::vector<std::string>{".lock"});
    holder.send('g');
    EXPECT_EQ(holder.finish(), 0);
    r = run_qor({"check", "--type=cdir", "--repair", qor("c")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_FALSE(qor_test::exists(os("c")));
}

TEST_F(CheckTool, OtherEntriesKeepTheObject) {
    make_dir(os("c"));
    qor_test::write_file(os("c/.lock"), "");
    qor_test::write_file(os("c/link"), "");
    auto r = run_qor({"check", "--type=cdir", "--repair", "-v", qor("c")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, qor("c") + ": checked as a cdir; it holds other entries "
                                "too\n" + qor("c") + ": .body: missing\n" +
                         qor("c") + ": .lock: all that is left of a cdir (a "
                                    "stale lock)\n" + qor("c") +
                         ": repaired; 2 left in place\n");
    EXPECT_EQ(entries(os("c")), (std::vector<std::string>{".lock", "link"}));
}

TEST_F(CheckTool, EachPathIsCheckedAndMissingOnesReported) {
    make_object(os("good"), 2);
    auto r = run_qor({"check", qor("none"), qor("good")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qor check: cannot tell the type: " + qor("none") +
                         ": it does not exist\n");
    r = run_qor({"check", "--type=2", qor("none")});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor check: cannot check: " + qor("none") +
                         ": it does not exist\n");
}

TEST_F(CheckTool, BadCommandLinesDoNothing) {
    make_dir(os("c"));
    qor_test::write_file(os("c/.lock"), "");
    const std::string usage = "usage: qor check [OPTION]... PATH...\n"
                              "Try 'qor check --help' for more information.\n";
    auto r = run_qor({"check", "--repair", qor("c")});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err, "qor check: --repair needs --type: the type a half-made "
                     "object seems to have can be wrong\n" + usage);
    r = run_qor({"check", "--type=5", "--repair", qor("c")});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err, "qor check: invalid type '5' (0 to 4, or plain_file, "
                     "plain_directory, lockable_directory, cdir, "
                     "idle_object)\n" + usage);
    r = run_qor({"check"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err, "qor check: missing operand\n" + usage);
    r = run_qor({"check", "--source", qor("c")});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(entries(os("c")), std::vector<std::string>{".lock"});
}

TEST_F(CheckTool, TourStepFindsAndRemovesAHalfMadeCdir) {
    auto r = run_qor({"tour"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.out.find("== Half-made objects ==\n"
                         "a create of the cdir ledger killed after its first "
                         "member leaves an object\nthat reads as a "
                         "lockable_directory\n"
                         "checked as the cdir it should be (qor check "
                         "--type=cdir):\n"
                         "  ledger: .body: missing\n"
                         "  ledger: .lock: all that is left of a cdir (a "
                         "stale lock)\n"
                         "repair (qor check --type=cdir --repair) -> 0, 0 "
                         "left; ledger is gone\n"),
              std::string::npos)
        << r.out;
}

TEST_F(CheckTool, CopyLeavesNoTemporaryBehindAndTmpnameSaysItIsPredictable) {
    make_object(os("s"), 4);
    qor_test::write_file(os("s/.body"), "body");
    make_dir(os("into"));
    auto r = run_qor({"cp", qor("s"), qor("into")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(entries(os("into")), std::vector<std::string>{"s"});
    EXPECT_EQ(run_qor({"check", "--type=4", "--source", qor("s"),
                       qor("into/s")}).exit_status,
              0);
    // A target directory nobody may write to: nothing is made, nothing left.
    ASSERT_EQ(chmod(os("into").c_str(), 0555), 0);
    const std::string program = qor_test::qor_program();
    const std::string s = qor("s"), t = qor("into/t");
    r = qor_test::run_as_unprivileged([&] {
        execl(program.c_str(), program.c_str(), "cp", s.c_str(), t.c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    });
    ASSERT_EQ(chmod(os("into").c_str(), 0755), 0);
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("qor cp: cannot copy: " + s + ": permission denied"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(entries(os("into")), std::vector<std::string>{"s"});
    r = run_qor({"tmpname", "--help"});
    EXPECT_NE(r.out.find("The name is predictable"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace objects_test
