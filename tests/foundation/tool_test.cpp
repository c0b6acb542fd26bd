// The qor command's foundation subcommands and tour step, run as the built
// program.

#if defined(QOR_HAVE_TOOLS)

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

using qor_test::run_qor;

TEST(QorStatus, ExplainsAStatusCode) {
    auto r = run_qor({"status", "2052"});
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out,
              "2052 QOR_E_MISSING: status code: the thing does not exist "
              "(ENOENT, ENXIO, ENODEV)\n"
              "message 52 of set \"qor\": cannot $1 \"$0\": it does not "
              "exist\n");
    EXPECT_EQ(r.err, "");
}

TEST(QorStatus, ExplainsAContextCode) {
    auto r = run_qor({"status", "2116"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out,
              "2116 QOR_CTX_OPEN: context code: the operation that failed "
              "was: open a file or contents\n"
              "message 116 of set \"qor\": open a file or contents\n");
}

TEST(QorStatus, SuccessHasNoMessage) {
    auto r = run_qor({"status", "0"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "0 QOR_OK: status code: success\n");
}

TEST(QorStatus, UnknownCodeSaysSo) {
    auto r = run_qor({"status", "2099"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qor status: cannot explain: 2099: not a status or "
                     "context code of libqor\n");
}

TEST(QorStatus, BadArgumentIsAUsageError) {
    auto r = run_qor({"status", "20x2"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "qor status: invalid CODE '20x2' (a number from -2147483648 "
              "to 2147483647)\nusage: qor status CODE\n"
              "Try 'qor status --help' for more information.\n");

    auto none = run_qor({"status"});
    EXPECT_EQ(none.exit_status, 2);
    EXPECT_EQ(none.err,
              "qor status: missing operand\nusage: qor status CODE\n"
              "Try 'qor status --help' for more information.\n");
}

TEST(QorErrno, MissingFile) {
    auto r = run_qor({"errno", "2"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out,
              "errno 2 (ENOENT): No such file or directory\n"
              "maps to status 2052 QOR_E_MISSING: the thing does not exist "
              "(ENOENT, ENXIO, ENODEV)\n"
              "recorded as: qor: error 2052: cannot open a file or contents "
              "\"FILE\": it does not exist (No such file or directory, OS "
              "error 2)\n");
    EXPECT_EQ(r.err, "");
}

TEST(QorErrno, UnlistedValueIsAnyOtherError) {
    auto r = run_qor({"errno", "44"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out,
              "errno 44 (ECHRNG): Channel number out of range\n"
              "maps to status 2073 QOR_E_OTHER: any other OS error\n"
              "recorded as: qor: error 2073: cannot open a file or contents "
              "\"FILE\": the operating system reported an error (Channel "
              "number out of range, OS error 44)\n");
}

TEST(QorErrno, NameAndContextAreUsed) {
    auto r = run_qor({"errno", "39", "/tmp/d", "2104"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_NE(r.out.find("recorded as: qor: error 2065: cannot remove a "
                         "directory \"/tmp/d\": the directory is not empty "
                         "(Directory not empty, OS error 39)\n"),
              std::string::npos)
        << r.out;
}

TEST(QorErrno, BadArgumentIsAUsageError) {
    auto r = run_qor({"errno", "two"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "qor errno: invalid ERRNO 'two' (a number from 0 to "
              "2147483647)\nusage: qor errno ERRNO [NAME [CONTEXT]]\n"
              "Try 'qor errno --help' for more information.\n");

    auto context = run_qor({"errno", "2", "x", "2052"});
    EXPECT_EQ(context.exit_status, 2);
    EXPECT_EQ(context.err,
              "qor errno: invalid CONTEXT '2052' (a number from 2101 to "
              "2132)\nusage: qor errno ERRNO [NAME [CONTEXT]]\n"
              "Try 'qor errno --help' for more information.\n");
}

TEST(QorTour, RunsToTheEnd) {
    auto r = run_qor({"tour"});
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("Tour finished.\n"), std::string::npos) << r.out;
}

TEST(QorTour, FoundationStepShowsMessagesAndFatalErrors) {
    auto r = run_qor({"tour"});
    EXPECT_NE(r.out.find("  it gave status 2052\n"), std::string::npos);
    EXPECT_NE(r.out.find("  caught it: jump value 1, handler state was 2\n"),
              std::string::npos);
    EXPECT_NE(r.out.find("(QOR_cat_strings): \"qor/tour\"\n"),
              std::string::npos);
    EXPECT_NE(r.out.find("qor: note: at line "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("qor: error 2052: cannot open a file or contents "
                         "\"/nonexistent-qor-tour/missing.txt\": it does not "
                         "exist (No such file or directory, OS error 2)\n"),
              std::string::npos)
        << r.out;
    // Redirected, the tour reads as on a terminal: the library's line comes
    // between the narration before and after it.
    const size_t told = r.out.find("A failed system call, recorded once");
    const size_t said = r.out.find("qor: error 2052: cannot open");
    const size_t after = r.out.find("  it gave status 2052\n");
    EXPECT_LT(told, said) << r.out;
    EXPECT_LT(said, after) << r.out;
    EXPECT_EQ(r.err, "");
    // The first fatal error goes through the catalogue, the second one,
    // after the library stopped trusting the message system, does not.
    const std::string fatal =
        "QOR_malloc called to allocate zero or negative bytes\n";
    const size_t first = r.out.find("qor: fatal: File basic_space, Line ");
    ASSERT_NE(first, std::string::npos) << r.out;
    const size_t second = r.out.find("\nFile basic_space, Line ", first);
    ASSERT_NE(second, std::string::npos) << r.out;
    EXPECT_NE(r.out.find(fatal, second), std::string::npos) << r.out;
}

}  // namespace

#endif  // QOR_HAVE_TOOLS
