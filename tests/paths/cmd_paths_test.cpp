// The "qor path" and "qor tmpname" commands.

#include <stdlib.h>
#include <unistd.h>

#include "path_fixture.h"

namespace paths_test {
namespace {

// Runs the qor command with the given arguments in the fixture's
// environment and current directory.
qor_test::ChildResult qor(std::vector<std::string> args) {
    return qor_test::run_qor(std::move(args));
}

using Command = Anchored;

TEST_F(Command, PathTranslatesToAbsoluteQorByDefault) {
    const auto r = qor({"path", "_/etc/f.txt", "/a/$(Y)/b", ".0/f"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "/opt/q/etc/f.txt\n/a/sub/b\n" + cwd("/f") + "\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(Command, PathToOs) {
    const auto r = qor({"path", "--to-os", "_/etc", "/a/@b/../c"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "/opt/q/etc\n/a/b/../c\n");
}

TEST_F(Command, PathToQor) {
    const auto r = qor({"path", "--to-qor", "x/../y", "/usr//lib/"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, cwd("/y") + "\n/usr/lib\n");
}

TEST_F(Command, PathShowsAnchorsInForce) {
    setenv("QOR_TMP", "/var/tmp", 1);
    const auto r = qor({"path", "-a"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "_      /opt/q\n#      /var/q/hash\n~      /home/u\n"
                     ".0     " + cwd() + "\ntmp    /var/tmp\n");
}

TEST_F(Command, PathShowsUnsetAnchors) {
    unsetenv("QOR_HASH");
    const auto r = qor({"path", "-a", "_"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "/opt/q\n_      /opt/q\n#      (unset)\n~      /home/u\n"
                     ".0     " + cwd() + "\ntmp    /tmp\n");
}

TEST_F(Command, PathReportsUntranslatable) {
    const auto r = qor({"path", "a/b", "/x", "/.."});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "/x\n");
    EXPECT_EQ(r.err, "qor path: cannot translate: a/b: the qor path does not "
                     "translate to a host path\n"
                     "qor path: cannot translate: /..: the qor path does not "
                     "translate to a host path\n");
}

TEST_F(Command, PathUsage) {
    auto r = qor({"path"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err, "qor path: missing operand\n"
                     "usage: qor path [OPTION]... PATH...\n"
                     "   or: qor path -a [OPTION]... [PATH]...\n"
                     "Try 'qor path --help' for more information.\n");
    r = qor({"path", "--bogus", "x"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err, "qor path: unknown option '--bogus'\n"
                     "usage: qor path [OPTION]... PATH...\n"
                     "   or: qor path -a [OPTION]... [PATH]...\n"
                     "Try 'qor path --help' for more information.\n");
}

TEST_F(Command, PathDoubleDashEndsOptions) {
    const auto r = qor({"path", "--to-qor", "--", "-x"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, cwd("/-x") + "\n");
}

TEST_F(Command, TmpnameProposesFreeName) {
    setenv("QOR_TMP", tmp_.path().c_str(), 1);
    const auto r = qor({"tmpname", "ed", "tmp"});
    EXPECT_EQ(r.exit_status, 0);
    ASSERT_EQ(r.out.size(), tmp_.path().size() + 14);
    EXPECT_EQ(r.out.substr(0, tmp_.path().size() + 4), tmp_.path() + "/eda");
    EXPECT_EQ(r.out.substr(r.out.size() - 5), ".tmp\n");
    EXPECT_FALSE(qor_test::exists(r.out.substr(0, r.out.size() - 1)));
}

TEST_F(Command, TmpnameWithoutArguments) {
    setenv("QOR_TMP", "/var/tmp", 1);
    const auto r = qor({"tmpname", "-d"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out.substr(0, 10), "/var/tmp/a");
    EXPECT_EQ(r.out.size(), 17u);
    EXPECT_EQ(r.out.substr(15), ".\n");
}

TEST_F(Command, TmpnameFailure) {
    setenv("QOR_TMP", "/..", 1);
    auto r = qor({"tmpname"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "qor tmpname: cannot propose a name: temporary "
                     "directory: no free temporary name\n");
    r = qor({"tmpname", "a", "b", "c"});
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.err, "qor tmpname: extra operand 'c'\n"
                     "usage: qor tmpname [-d] [PREFIX [SUFFIX]]\n"
                     "Try 'qor tmpname --help' for more information.\n");
}

TEST_F(Command, TourShowsAnchorsAtWork) {
    unsetenv("QOR_ROOT");
    const auto r = qor({"tour"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_NE(r.out.find("== Path namespace =="), std::string::npos);
    EXPECT_NE(r.out.find("  root anchor          _/etc/f.txt          -> "
                         "/opt/qor/etc/f.txt\n"),
              std::string::npos)
        << r.out;
    // The variable keeps its first value after a change.
    EXPECT_NE(r.out.find("  after a change       $(QOR_TOUR_DATA)/y   -> "
                         "/srv/data/y\n"),
              std::string::npos)
        << r.out;
}

}  // namespace
}  // namespace paths_test
