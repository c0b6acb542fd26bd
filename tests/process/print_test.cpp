// QOR_print: the command text, the fake spooler first on PATH recording
// the argument vector it was given, the spooler's own status ignored, a
// missing spooler, a shell that cannot run, untranslatable paths, the
// shell hazard of the unquoted command, and the longest paths and names.
// Every print runs in a child with QOR_ROOT at a scratch root and PATH
// holding only the scratch "bin".

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fake_spooler.h"
#include "fault.h"
#include "harness.h"
#include "message_lines.h"
#include "qor/qor.h"

namespace {

using Args = std::vector<std::string>;

// What one print in a child did.
struct Printed {
    int status = -1;
    std::vector<qor_test::Message> messages;
    long system_calls = -1;
    qor_test::ChildResult child;
};

class Print : public testing::Test {
  protected:
    Print() {
        mkdir((tmp_ / "root").c_str(), 0755);
        mkdir((tmp_ / "bin").c_str(), 0755);
        qor_test::write_file(tmp_ / "root/report.txt", "the report\n");
    }

    // Puts a fake lp in bin: it writes each argument on a line of its own
    // to the record file and ends with exit_status.
    void fake_lp(int exit_status = 0) const {
        fake_spooler::install(tmp_ / "bin/lp", record(), exit_status);
    }
    std::string record() const { return tmp_ / "lp.args"; }
    // The argument vector the fake lp was given (without its name).
    Args recorded() const { return fake_spooler::recorded(record()); }

    // Runs before() and then QOR_print in a child set up as described at
    // the top, with a message log; the status, the messages and the calls
    // of system come back.
    Printed print(const std::string &path, const std::string &printer,
                  int copies, void (*before)() = nullptr) const {
        Printed p;
        p.child = qor_test::run_in_child([&] {
            setenv("QOR_ROOT", (tmp_ / "root").c_str(), 1);
            setenv("PATH", (tmp_ / "bin").c_str(), 1);
            qor_test::MessageLog log;
            if (before != nullptr) before();
            const long calls_before = qor_fault_calls(QF_system);
            const int status =
                QOR_print(path.c_str(), printer.c_str(), copies);
            const long calls = qor_fault_calls(QF_system) - calls_before;
            qor_fault_reset();
            // Status, calls, then each message: number, type, parameters.
            printf("%d\n%ld\n", status, calls);
            message_lines::write(stdout, log.messages);
        });
        FILE *f = fmemopen(const_cast<char *>(p.child.out.data()),
                           p.child.out.size() + 1, "r");
        if (f == nullptr) return p;
        p.status = atoi(message_lines::next_line(f).c_str());
        p.system_calls = atol(message_lines::next_line(f).c_str());
        p.messages = message_lines::read(f);
        fclose(f);
        return p;
    }

    std::string os(const std::string &rel) const { return tmp_ / ("root/" + rel); }

    qor_test::TempDir tmp_;
};

TEST_F(Print, LaserAndTwoCopiesOfTmpAFormTheCommandText) {
    // The shell is not asked: a planned result of system answers for it,
    // and only a command containing exactly this text is planned.
    const Printed p = print("@/tmp/a", "laser", 2, [] {
        qor_fault_filter_path(QF_system, "lp -s -c -dlaser -n2 /tmp/a");
        qor_fault_result(QF_system, 0, 0, 1);
    });
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(p.system_calls, 1);
    EXPECT_TRUE(p.messages.empty());
    EXPECT_EQ(p.child.err, "");
}

TEST_F(Print, TheSpoolerIsGivenTheOptionsAndTheHostPath) {
    fake_lp();
    const Printed p = print("_/report.txt", "laser", 2);
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(p.system_calls, 1);
    EXPECT_TRUE(p.messages.empty());
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-dlaser", "-n2", os("report.txt")}));
}

TEST_F(Print, CopiesAreFormattedAsGiven) {
    fake_lp();
    EXPECT_EQ(print("_/report.txt", "p", 0).status, 0);
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-dp", "-n0", os("report.txt")}));
    EXPECT_EQ(print("_/report.txt", "p", -3).status, 0);
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-dp", "-n-3", os("report.txt")}));
    EXPECT_EQ(print("_/report.txt", "p", 2147483647).status, 0);
    EXPECT_EQ(recorded(),
              (Args{"-s", "-c", "-dp", "-n2147483647", os("report.txt")}));
}

TEST_F(Print, ASpoolerThatFailsStillGivesZero) {
    fake_lp(1);
    const Printed p = print("_/report.txt", "laser", 1);
    EXPECT_EQ(p.status, 0);
    EXPECT_TRUE(p.messages.empty());
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-dlaser", "-n1", os("report.txt")}));
}

TEST_F(Print, AMissingSpoolerIsTheShellsExitStatus127AndStillGivesZero) {
    // No lp on PATH: the shell says so and ends with 127, which QOR_execute
    // hands back as an exit code with status 0; the spooler's status is
    // not examined, so printing "succeeds".
    const Printed p = print("_/report.txt", "laser", 1);
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(p.system_calls, 1);
    EXPECT_TRUE(p.messages.empty());
    EXPECT_NE(p.child.err.find("lp"), std::string::npos) << p.child.err;
    EXPECT_NE(p.child.err.find("not found"), std::string::npos) << p.child.err;
}

TEST_F(Print, AShellThatCannotRunGivesMessage71And2068) {
    // A raw 127 from system: the shell itself could not be run.
    const Printed p = print("@/tmp/a", "laser", 2, [] {
        qor_fault_result(QF_system, 127, 0, 1);
    });
    EXPECT_EQ(p.status, QOR_E_PRINT);
    ASSERT_EQ(p.messages.size(), 1u);
    EXPECT_EQ(p.messages[0],
              qor_test::msg("qor", 71, 7, {"lp -s -c -dlaser -n2 /tmp/a"}));
}

TEST_F(Print, AFailingSystemIsRecordedWithContext2131AndGives2068) {
    const Printed p = print("@/tmp/a", "laser", 2, [] {
        qor_fault_fail(QF_system, ENOMEM, 0, 1);
    });
    EXPECT_EQ(p.status, QOR_E_PRINT);
    ASSERT_EQ(p.messages.size(), 1u);
    EXPECT_EQ(p.messages[0].number, QOR_E_RESOURCE - 2000);
    EXPECT_EQ(p.messages[0].type, 71);
    ASSERT_GE(p.messages[0].parameters.size(), 2u);
    EXPECT_EQ(p.messages[0].parameters[0], "lp -s -c -dlaser -n2 /tmp/a");
    EXPECT_EQ(p.messages[0].parameters[1], qor_test::MessageLog::text_of(131));
}

TEST_F(Print, AShellEndedByASignalGives2068) {
    // The printer name ends the shell itself with signal 9 right after lp:
    // QOR_execute answers 2066, which printing turns into 2068.
    fake_lp();
    const Printed p = print("_/report.txt", "laser; kill -9 $$;", 1);
    EXPECT_EQ(p.status, QOR_E_PRINT);
    EXPECT_TRUE(p.messages.empty());
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-dlaser"}));
}

TEST_F(Print, AnUntranslatablePathGives2051AndRunsNothing) {
    fake_lp();
    const std::string too_long = "_/" + std::string(QOR_PATH_MAX, 'x');
    for (const std::string &path : {std::string("relative/report.txt"),
                                     std::string(""),
                                     std::string("$(QOR_NO_SUCH_VARIABLE)/x"),
                                     too_long}) {
        const Printed p = print(path, "laser", 1);
        EXPECT_EQ(p.status, QOR_E_UNTRANSLATABLE) << path;
        EXPECT_EQ(p.system_calls, 0) << path;
        EXPECT_TRUE(p.messages.empty()) << path;
        EXPECT_EQ(p.child.err, "") << path;
    }
    EXPECT_FALSE(qor_test::exists(record()));
}

TEST_F(Print, APrinterNameWithASpaceReachesTheShellUnquoted) {
    fake_lp();
    EXPECT_EQ(print("_/report.txt", "my printer", 1).status, 0);
    EXPECT_EQ(recorded(),
              (Args{"-s", "-c", "-dmy", "printer", "-n1", os("report.txt")}));
}

TEST_F(Print, APathWithASpaceReachesTheShellUnquoted) {
    fake_lp();
    mkdir(os("two words").c_str(), 0755);
    qor_test::write_file(os("two words/a b.txt"), "x");
    EXPECT_EQ(print("_/two words/a b.txt", "laser", 1).status, 0);
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-dlaser", "-n1",
                                os("two") , "words/a", "b.txt"}));
}

TEST_F(Print, ASemicolonInThePrinterNameRunsASecondCommand) {
    fake_lp();
    const std::string planted = tmp_ / "planted";
    const Printed p = print("_/report.txt", "laser; : > " + planted + ";", 1);
    EXPECT_EQ(p.status, 0);
    EXPECT_TRUE(qor_test::exists(planted));
    // lp ran first with only what came before the ";".
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-dlaser"}));
}

TEST_F(Print, TheLongestPathAndALongPrinterNameFitTheCommand) {
    fake_lp();
    // An OS path of QOR_PATH_MAX characters: the longest a translation
    // gives.
    std::string host = tmp_ / "root/";
    std::string rel;
    while (host.size() + rel.size() < QOR_PATH_MAX) {
        rel += std::string(std::min<size_t>(200, QOR_PATH_MAX - host.size() - rel.size()), 'p');
        if (host.size() + rel.size() < QOR_PATH_MAX) rel += "/";
    }
    ASSERT_EQ((host + rel).size(), static_cast<size_t>(QOR_PATH_MAX));
    const std::string printer(5000, 'q');
    const Printed p = print("_/" + rel, printer, 12);
    EXPECT_EQ(p.status, 0);
    EXPECT_TRUE(p.messages.empty());
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-d" + printer, "-n12", host + rel}));
    // The same path with a printer name that fits the local buffer.
    EXPECT_EQ(print("_/" + rel, "laser", 1).status, 0);
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-dlaser", "-n1", host + rel}));
}

TEST_F(Print, ANullPrinterIsAnAssertionFailure) {
    const auto r = qor_test::run_in_child([] {
        QOR_print("@/tmp/a", nullptr, 1);
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_NE(r.err.find("no printer name"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("qor_print"), std::string::npos) << r.err;
}

TEST_F(Print, TheSharedFreestoreIsLeftAsItWasFound) {
    fake_lp();
    const auto r = qor_test::run_in_child([&] {
        setenv("QOR_ROOT", (tmp_ / "root").c_str(), 1);
        setenv("PATH", (tmp_ / "bin").c_str(), 1);
        QOR_FS_mark before;
        QOR_FS_save(&QOR_SH_fs_allocator, &before);
        char *held = QOR_SH_qor_to_os("_/report.txt", 0);
        QOR_FS_mark after_scratch;
        QOR_FS_save(&QOR_SH_fs_allocator, &after_scratch);
        const int s1 = QOR_print("_/report.txt", "laser", 1);
        const int s2 = QOR_print("relative", "laser", 1);
        QOR_FS_mark end;
        QOR_FS_save(&QOR_SH_fs_allocator, &end);
        printf("%d %d %d %s", s1, s2,
               memcmp(&after_scratch, &end, sizeof end) == 0, held);
        QOR_FS_restore(&QOR_SH_fs_allocator, &before);
    });
    EXPECT_EQ(r.out, "0 2051 1 " + os("report.txt"));
}

}  // namespace
