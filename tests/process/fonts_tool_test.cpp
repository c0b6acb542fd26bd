// The qor commands font and print, and the tour step of font aliases and
// printing, run as the built program. Printing goes to a fake spooler: an
// "lp" script first on PATH that records the arguments it was given.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "fake_spooler.h"
#include "harness.h"
#include "qor/qor.h"

namespace {

using Args = std::vector<std::string>;
using qor_test::run_qor;

class FontTool : public testing::Test {
  protected:
    void SetUp() override {
        if (!qor_test::qor_built()) GTEST_SKIP() << "the qor command is not built";
        mkdir((tmp_ / "root").c_str(), 0755);
        mkdir((tmp_ / "root/etc").c_str(), 0755);
        mkdir((tmp_ / "bin").c_str(), 0755);
        // Each test is a process of its own: the environment is its own.
        setenv("QOR_ROOT", (tmp_ / "root").c_str(), 1);
        unsetenv("QOR_PATH");
        unsetenv("QOR_PATH_DEFAULTS");
        unsetenv("QOR_LOCATE_TRACE_LEVEL");
    }
    void aliases(const std::string &text) const {
        qor_test::write_file(tmp_ / "root/etc/fonts.alias", text);
    }
    // A fake lp first on PATH: each argument on a line of the record.
    void fake_lp(int exit_status = 0) {
        fake_spooler::install(tmp_ / "bin/lp", record(), exit_status);
        const char *path = getenv("PATH");
        setenv("PATH", (tmp_ / "bin" + ":" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
    }
    std::string record() const { return tmp_ / "lp.args"; }
    Args recorded() const { return fake_spooler::recorded(record()); }
    std::string file(const std::string &name, const std::string &text = "x\n") {
        qor_test::write_file(tmp_ / name, text);
        return tmp_ / name;
    }
    qor_test::TempDir tmp_;
};

TEST_F(FontTool, FontPrintsTheFontOfEachAliasOrTheNameItself) {
    aliases("fixed  \"-misc-fixed-medium\"\nbig\\ fixed -misc-big\n"
            "fixed -second-is-never-seen\n");
    auto r = run_qor({"font", "fixed", "big fixed", "helvetica"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "-misc-fixed-medium\n-misc-big\nhelvetica\n");
    EXPECT_EQ(r.err, "");
    r = run_qor({"font", "-v", "fixed", "helvetica"});
    EXPECT_EQ(r.out, "fixed -> -misc-fixed-medium\nhelvetica -> helvetica (no "
                     "alias)\n");
}

TEST_F(FontTool, FontWithoutAnAliasFileAnswersTheName) {
    auto r = run_qor({"font", "fixed"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "fixed\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(FontTool, FontFindsTheFileOnQorPathFirst) {
    aliases("fixed from-etc\n");
    mkdir((tmp_ / "first").c_str(), 0755);
    qor_test::write_file(tmp_ / "first/fonts.alias", "fixed from-path\n");
    setenv("QOR_PATH", (tmp_ / "first").c_str(), 1);
    auto r = run_qor({"font", "fixed"});
    EXPECT_EQ(r.out, "from-path\n");
}

TEST_F(FontTool, FontNeedsAnAlias) {
    auto r = run_qor({"font"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qor font: missing operand\nusage: qor font ALIAS...\n"
                     "Try 'qor font --help' for more information.\n");
}

TEST_F(FontTool, PrintRunsTheSpoolerWithPrinterAndCopies) {
    fake_lp();
    const std::string report = file("report.txt");
    auto r = run_qor({"print", "@" + report, "-d", "laser", "-n", "2"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-dlaser", "-n2", report}));
    r = run_qor({"print", "--printer=hp.2nd-floor@office", "@" + report, "-v"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "lp -s -c -dhp.2nd-floor@office -n1 " + report + "\n");
    EXPECT_EQ(recorded(),
              (Args{"-s", "-c", "-dhp.2nd-floor@office", "-n1", report}));
}

TEST_F(FontTool, PrintIgnoresTheSpoolersStatusAsTheLibraryDoes) {
    fake_lp(1);
    const std::string report = file("report.txt");
    auto r = run_qor({"print", "@" + report, "-d", "nosuch"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(recorded(), (Args{"-s", "-c", "-dnosuch", "-n1", report}));
}

TEST_F(FontTool, PrintRefusesWhatTheShellWouldReadAndRunsNothing) {
    fake_lp();
    const std::string report = file("report.txt");
    file("a b");
    file("a$b");
    const std::string usage =
        "usage: qor print [OPTION]... FILE -d PRINTER [-n COPIES]\n"
        "Try 'qor print --help' for more information.\n";
    struct Case {
        Args args;
        std::string first_line;
    } cases[] = {
        {{"print", "@" + report, "-d", "laser; touch " + (tmp_ / "owned")},
         "qor print: invalid printer name 'laser; touch " + (tmp_ / "owned") +
             "': ';' would reach the shell unquoted"},
        {{"print", "@" + report, "-d", "my printer"},
         "qor print: invalid printer name 'my printer': a space would reach "
         "the shell unquoted"},
        {{"print", "@" + report, "-d", "$(reboot)"},
         "qor print: invalid printer name '$(reboot)': '$' would reach the "
         "shell unquoted"},
        {{"print", "@" + report, "-d", "a\nb"},
         "qor print: invalid printer name 'a"},
        {{"print", "@" + report, "-d", "x/y"},
         "qor print: invalid printer name 'x/y': '/' would reach the shell "
         "unquoted"},
        {{"print", "@" + report, "-d", ""}, "qor print: empty printer name"},
        {{"print", "@" + report}, "qor print: missing printer (-d PRINTER)"},
        {{"print", "@" + (tmp_ / "a b"), "-d", "laser"},
         "qor print: invalid FILE '@" + (tmp_ / "a b") + "': its host path " +
             (tmp_ / "a b") + " holds a space, which would reach the shell "
             "unquoted"},
        {{"print", "@" + (tmp_ / "a$b"), "-d", "laser"},
         "qor print: invalid FILE '@" + (tmp_ / "a$b") + "': its host path " +
             (tmp_ / "a$b") + " holds '$', which would reach the shell "
             "unquoted"},
        {{"print", "@" + report, "-d", "laser", "-n", "0"},
         "qor print: invalid COPIES '0' (a number from 1 to 999)"},
        {{"print", "@" + report, "-d", "laser", "-n", "2x"},
         "qor print: invalid COPIES '2x' (a number from 1 to 999)"},
        {{"print", "@" + report, "-d", "laser", "-n", "1000"},
         "qor print: invalid COPIES '1000' (a number from 1 to 999)"},
        {{"print", "-d", "laser"}, "qor print: missing operand"},
        {{"print", "@" + report, "@" + report, "-d", "laser"},
         "qor print: extra operand '@" + report + "'"},
        {{"print", "@" + report, "-d"}, "qor print: option '-d' needs a value"},
    };
    for (const Case &c : cases) {
        auto r = run_qor(c.args);
        EXPECT_TRUE(r.exited) << c.first_line;
        EXPECT_EQ(r.exit_status, 2) << c.first_line;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.substr(0, c.first_line.size()), c.first_line);
        EXPECT_EQ(r.err.substr(r.err.size() - usage.size()), usage) << r.err;
    }
    EXPECT_EQ(recorded(), Args{"<lp never ran>"});
    EXPECT_FALSE(qor_test::exists(tmp_ / "owned"));
}

TEST_F(FontTool, PrintChecksTheFileFirst) {
    fake_lp();
    auto r = run_qor({"print", "@" + (tmp_ / "none"), "-d", "laser"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor print: cannot print: @" + (tmp_ / "none") +
                         ": it does not exist\n");
    r = run_qor({"print", "@" + (tmp_ / "bin"), "-d", "laser"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor print: cannot print: @" + (tmp_ / "bin") +
                         ": it is the wrong kind of thing for this "
                         "operation\n");
    r = run_qor({"print", "$(QOR_TOOL_TEST_UNSET_VARIABLE)/x", "-d", "laser"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor print: cannot print: $(QOR_TOOL_TEST_UNSET_VARIABLE)"
                     "/x: the qor path does not translate to a host path\n");
    EXPECT_EQ(recorded(), Args{"<lp never ran>"});
}

TEST_F(FontTool, HelpSaysNamesReachTheShellUnquoted) {
    auto r = run_qor({"print", "--help"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_NE(r.out.find("The library passes the printer name and the path to "
                         "the shell\nunquoted"),
              std::string::npos)
        << r.out;
}

TEST_F(FontTool, TourStepResolvesAnAliasAndPrintsToAFakeSpooler) {
    auto r = run_qor({"tour"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    const std::string expected =
        "== Font aliases and printing ==\n"
        "fonts.alias, found on QOR_PATH:\n"
        "    fixed   \"-misc-fixed-medium-r-normal--13-120-75-75-c-70-"
        "iso8859-1\"\n"
        "    big\\ fixed -misc-fixed-bold-r-normal--18-120-100-100-c-90-"
        "iso8859-1\n"
        "    ! a comment is a line of three fields, ignored\n"
        "look up \"fixed\" -> \"-misc-fixed-medium-r-normal--13-120-75-75-c-"
        "70-iso8859-1\"\n"
        "look up \"big fixed\" -> \"-misc-fixed-bold-r-normal--18-120-100-"
        "100-c-90-iso8859-1\"\n"
        "look up \"helvetica\" -> \"helvetica\" (no alias: the name itself)\n"
        "\nprint report.txt on laser, 2 copies -> 0; the spooler (a script "
        "first on PATH)\nwas given one argument a line:\n"
        "    -s\n    -c\n    -dlaser\n    -n2\n    .../report.txt\n"
        "the printer name \"laser; rm -f report.txt\" would reach the shell "
        "unquoted:\n  qor print refuses it (';')\n";
    EXPECT_NE(r.out.find(expected), std::string::npos) << r.out;
}

}  // namespace
