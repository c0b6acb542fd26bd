// The qor command as one tool: help from the table of subcommands, the
// option layer every subcommand parses through, exit statuses, errors on
// standard output, the man page.

#if defined(QOR_HAVE_TOOLS)

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

using qor_test::run_qor;

const std::vector<std::string> kCommands = {
    "help", "tour", "status", "errno", "assoc-hash", "path", "tmpname",
    "type", "create", "ls",   "access", "stat", "cp",   "mv",
    "rm",   "lock", "read",   "write",
    "check",
    "cat", "save", "lockfile",
    "dir",
    "locate", "whoami", "run", "call", "exec",
    "font", "print"};

bool starts_with(const std::string &s, const std::string &prefix) {
    return s.rfind(prefix, 0) == 0;
}

TEST(QorCommand, EveryCommandIsListedInTheOverview) {
    auto r = run_qor({"--help"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err, "");
    for (const std::string &c : kCommands) {
        EXPECT_NE(r.out.find("\n  " + c + " "), std::string::npos) << c;
    }
    EXPECT_NE(r.out.find("exit status: 0 success; 1 the operation failed; 2 "
                         "usage: a bad command line, nothing was done.\n"),
              std::string::npos);
    EXPECT_EQ(run_qor({"help"}).out, r.out);
    EXPECT_EQ(run_qor({"-h"}).out, r.out);
}

TEST(QorCommand, EveryCommandHasHelpAndHelpRunsNothing) {
    qor_test::TempDir tmp;
    for (const std::string &c : kCommands) {
        auto r = run_qor({c, "--help"});
        EXPECT_TRUE(r.exited) << c;
        EXPECT_EQ(r.exit_status, 0) << c;
        EXPECT_EQ(r.err, "") << c;
        EXPECT_TRUE(starts_with(r.out, "usage: qor " + c)) << r.out;
        EXPECT_NE(r.out.find("\noptions:\n"), std::string::npos) << c;
        EXPECT_NE(r.out.find("  -h, --help "), std::string::npos) << c;
        EXPECT_NE(r.out.find("\nexit status: 0 success"), std::string::npos);
        EXPECT_EQ(run_qor({c, "-h"}).out, r.out) << c;
        EXPECT_EQ(run_qor({"help", c}).out, r.out) << c;
    }
    // Not run: no name proposed, no tour, no file made, no lock taken.
    EXPECT_EQ(run_qor({"tour", "--help"}).out.find("Tour finished"),
              std::string::npos);
    const std::string file = tmp.path() + "/made";
    auto r = run_qor({"lock", "--help", "@" + file, "touch", file + "2"});
    EXPECT_EQ(r.exit_status, 0);
    r = run_qor({"create", "@" + file, "0", "--help"});
    EXPECT_EQ(r.exit_status, 0);
    struct stat st;
    EXPECT_NE(stat(file.c_str(), &st), 0);
    EXPECT_NE(stat((file + "2").c_str(), &st), 0);
}

TEST(QorCommand, Version) {
    auto r = run_qor({"--version"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_TRUE(starts_with(r.out, "qor (libqor) ")) << r.out;
    EXPECT_NE(r.out.find_first_of("0123456789"), std::string::npos);
    EXPECT_EQ(r.out.back(), '\n');
}

TEST(QorCommand, BadCommandLinesGiveUsageAndStatus2) {
    auto r = run_qor({});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_TRUE(starts_with(r.err, "usage: qor COMMAND")) << r.err;

    r = run_qor({"frobnicate"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_TRUE(starts_with(r.err, "qor: unknown command 'frobnicate'\nusage: "))
        << r.err;

    r = run_qor({"--frob"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_TRUE(starts_with(r.err, "qor: unknown option '--frob'\nusage: "));

    r = run_qor({"help", "frobnicate"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_TRUE(starts_with(r.err, "qor help: unknown command 'frobnicate'\n"));

    r = run_qor({"status", "1", "2"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err, "qor status: extra operand '2'\nusage: qor status CODE\n"
                     "Try 'qor status --help' for more information.\n");

    r = run_qor({"path", "--to", "/x"});  // --to-os or --to-qor?
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_TRUE(starts_with(r.err, "qor path: option '--to' is ambiguous\n"));

    r = run_qor({"path", "-o", "/x"});  // long only
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_TRUE(starts_with(r.err, "qor path: unknown option '-o'\n"));

    r = run_qor({"path", "--to-os", "--to-qor", "/x"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_TRUE(starts_with(r.err, "qor path: give only one of"));
    EXPECT_EQ(r.out, "");
}

TEST(QorCommand, OptionsMayFollowOperandsAndLongOptionsTakePrefixes) {
    auto r = run_qor({"path", "/a/../x", "--to-os"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "/x\n");
    r = run_qor({"path", "/x", "--to-o"});
    EXPECT_EQ(r.out, "/x\n");
    // "--" ends the options everywhere: what follows is an operand.
    r = run_qor({"status", "--", "-5"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor status: cannot explain: -5: not a status or "
                     "context code of libqor\n");
    r = run_qor({"assoc-hash", "--", "--help"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_TRUE(starts_with(r.out, "--help\t0x")) << r.out;
}

// Names the directory and process commands had before they were
// released under their present ones (dir ls|cp|lock, exec).
TEST(QorCommand, NamesNeverReleasedAreUnknown) {
    for (const char *old : {"lsdir", "cpdir", "lockdir", "sh"}) {
        auto r = run_qor({old, "/tmp"});
        EXPECT_EQ(r.exit_status, 2) << old;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, std::string("qor: unknown command '") + old +
                             "'\nusage: qor COMMAND [OPTION]... [OPERAND]...\n"
                             "Try 'qor --help' for the list of commands.\n");
    }
}

TEST(QorCommand, HelpSaysWhereOptionsEnd) {
    const std::string anywhere =
        "\nOptions may follow operands; \"--\" ends the options.\n";
    const std::string first = "\nOptions must come before the first operand.\n";
    const std::string second =
        "\nOptions end after the first 2 operands: what follows them is "
        "taken as\noperands, options or not.\n";
    const struct {
        const char *command;
        const std::string &says;
    } cases[] = {{"status", anywhere}, {"lock", first}, {"call", first},
                 {"dir", second}};
    for (const auto &c : cases) {
        const std::string out = run_qor({c.command, "--help"}).out;
        EXPECT_NE(out.find(c.says), std::string::npos) << out;
        for (const std::string *other : {&anywhere, &first, &second}) {
            if (other != &c.says) {
                EXPECT_EQ(out.find(*other), std::string::npos) << out;
            }
        }
    }
}

TEST(QorCommand, AFailedWriteToStandardOutputIsAnError) {
    const std::string program = qor_test::qor_program();
    auto r = qor_test::run_in_child([&] {
        const int full = open("/dev/full", O_WRONLY);
        if (full < 0 || dup2(full, STDOUT_FILENO) < 0) _exit(99);
        execl(program.c_str(), program.c_str(), "status", "2052",
              (char *)nullptr);
        _exit(127);
    });
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor status: cannot write: standard output: No space "
                     "left on device\n");
    r = qor_test::run_in_child([&] {
        const int full = open("/dev/full", O_WRONLY);
        if (full < 0 || dup2(full, STDOUT_FILENO) < 0) _exit(99);
        execl(program.c_str(), program.c_str(), "--version", (char *)nullptr);
        _exit(127);
    });
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor: cannot write: standard output: No space left on "
                     "device\n");
}

TEST(QorCommand, StatusKnowsEveryCodeTheLibraryDefines) {
    std::vector<int> codes = {0,    2001, 2011, 2040, 2068, 2070, 2071,
                              2072, 2073, 2401, 2402, 2501, 10009};
    for (int c = 2051; c <= 2066; ++c) codes.push_back(c);
    for (int c = 2101; c <= 2132; ++c) codes.push_back(c);
    for (int code : codes) {
        auto r = run_qor({"status", std::to_string(code)});
        EXPECT_EQ(r.exit_status, 0) << code << r.err;
        EXPECT_TRUE(starts_with(r.out, std::to_string(code) + " ") ||
                    starts_with(r.out, std::to_string(code) + ":"))
            << r.out;
        EXPECT_EQ(r.out.find("not in the catalogue"), std::string::npos)
            << r.out;
        EXPECT_EQ(r.err, "");
    }
    auto r = run_qor({"status", "2402"});
    EXPECT_NE(r.out.find("message 402 of set \"qor\": idle block of \"$0\" "
                         "left incomplete at offset $1: $2 of $3 bytes "
                         "written\n"),
              std::string::npos)
        << r.out;
    for (int code : {2067, 2069, 2099, 2133, 2403, 1}) {
        r = run_qor({"status", std::to_string(code)});
        EXPECT_EQ(r.exit_status, 1) << code;
    }
}

TEST(QorCommand, TheManPageRendersWithoutWarnings) {
    const std::string program = qor_test::qor_program();
    const std::string page =
        program.substr(0, program.rfind('/')) + "/qor.1";
    struct stat st;
    ASSERT_EQ(stat(page.c_str(), &st), 0) << page;
    if (system("command -v man >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "man is not installed";
    }
    const std::string command =
        "MANWIDTH=80 man --warnings -l '" + page + "' 2>&1 >/dev/null";
    FILE *p = popen(command.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string warnings;
    char buffer[512];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, p)) > 0) warnings.append(buffer, n);
    EXPECT_EQ(pclose(p), 0);
    EXPECT_EQ(warnings, "");
    // It describes every command and the exit statuses.
    FILE *f = fopen(page.c_str(), "r");
    ASSERT_NE(f, nullptr);
    std::string text;
    while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) text.append(buffer, n);
    fclose(f);
    for (const std::string &c : kCommands) {
        EXPECT_NE(text.find("\n.SS " + c + "\n"), std::string::npos) << c;
    }
    EXPECT_NE(text.find(".SH \"EXIT STATUS\""), std::string::npos);
}

}  // namespace

#endif  // QOR_HAVE_TOOLS
