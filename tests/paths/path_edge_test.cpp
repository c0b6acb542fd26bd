// Edge cases and bad input of the path translations.

#include <errno.h>
#include <setjmp.h>
#include <stdlib.h>

#include "path_fixture.h"

namespace paths_test {
namespace {

using Edge = Anchored;

// ---- Trailing "/" and empty components ----------------------------------

TEST_F(Edge, TrailingSlashOnQorPathGivesRoot) {
    EXPECT_EQ(to_abs("_/etc/"), "/");
    EXPECT_EQ(to_os("/usr/lib/"), "/");
}

TEST_F(Edge, TrailingSlashOnOsPathIsIgnored) {
    EXPECT_EQ(from_os("/usr/lib/"), "/usr/lib");
    EXPECT_EQ(concat("/usr/", "lib/"), "/usr/lib");
    EXPECT_EQ(from_os("/"), "/");
}

TEST_F(Edge, EmptyOsComponentsVanish) {
    EXPECT_EQ(from_os("//a///b"), "/a/b");
    EXPECT_EQ(from_os("/a/./b/."), "/a/b");
}

// ---- "$(" forms ----------------------------------------------------------

TEST_F(Edge, EmptyVariableNameIsPlainName) {
    EXPECT_EQ(to_abs("/a/$()"), "/a/$()");
}

TEST_F(Edge, UnclosedVariableIsPlainName) {
    EXPECT_EQ(to_abs("/a/$(X"), "/a/$(X");
    EXPECT_EQ(to_abs("/a/$(X/y)"), "/a/$(X/y)");
}

TEST_F(Edge, CloseParenMustEndComponent) {
    setenv("A", "/somewhere", 1);
    EXPECT_EQ(to_abs("/a/$(A)b"), "/a/$(A)b");
    EXPECT_EQ(to_abs("/a/$A"), "/a/$A");
}

TEST_F(Edge, VariableNameRunsToLastParen) {
    setenv("a)b", "/odd", 1);
    EXPECT_EQ(to_abs("/x/$(a)b)/c"), "/odd/c");
}

TEST_F(Edge, MalformedVariableFirstIsRelativeAndFails) {
    EXPECT_EQ(to_abs("$("), "<null>");
    EXPECT_EQ(to_abs("$(X"), "<null>");
    EXPECT_EQ(to_abs("$()/x"), "<null>");
}

TEST_F(Edge, VariableWithParentsIsNormalised) {
    // Z="../up/./z": raw value, taken against the current directory when
    // it comes first.
    EXPECT_EQ(to_abs("$(Z)/f"), work() + "/up/z/f");
    EXPECT_EQ(to_abs("/a/b/$(Z)"), "/a/up/z");
    EXPECT_EQ(to_abs("/$(Z)"), "<null>");
}

TEST_F(Edge, EmptyPlainVariableStandsForNothing) {
    setenv("E", "", 1);
    EXPECT_EQ(to_abs("/a/$(E)/b"), "/a/b");
    EXPECT_EQ(to_abs("$(E)/b"), cwd("/b"));
}

TEST_F(Edge, AbsoluteVariableInsideRestarts) {
    EXPECT_EQ(to_abs("/a/b/$(X)/c"), "/data/c");
}

// ---- Anchors --------------------------------------------------------------

TEST_F(Edge, UnderscoreWithTextIsPlainName) {
    EXPECT_EQ(to_abs("/_x"), "/_x");
    EXPECT_EQ(to_abs("/a/#b/~c"), "/a/#b/~c");
    EXPECT_EQ(to_abs("_x"), "<null>");
}

TEST_F(Edge, AnchorInMiddleRestarts) {
    EXPECT_EQ(to_abs("/a/b/_/c"), "/opt/q/c");
    EXPECT_EQ(to_abs("_/a/#/b"), "/var/q/hash/b");
    EXPECT_EQ(to_abs("/x/~"), "/home/u");
    EXPECT_EQ(to_abs("/x/.0/y"), cwd("/y"));
}

TEST_F(Edge, AnchorAlone) {
    EXPECT_EQ(to_abs("_"), "/opt/q");
    EXPECT_EQ(to_abs(".0"), cwd());
    EXPECT_EQ(to_os("#"), "/var/q/hash");
}

TEST_F(Edge, ParentCannotClimbAboveAnchorRoot) {
    EXPECT_EQ(to_abs("_/.."), "/opt");
    EXPECT_EQ(to_abs("_/../.."), "/");
    EXPECT_EQ(to_abs("_/../../.."), "<null>");
}

TEST_F(Edge, VariableChangedAfterFirstUseKeepsFirstValue) {
    EXPECT_EQ(to_abs("$(X)/y"), "/data/y");
    EXPECT_EQ(to_abs("_/a"), "/opt/q/a");
    ASSERT_EQ(QOR_putenv("X", "/elsewhere"), 0);
    ASSERT_EQ(QOR_putenv("QOR_ROOT", "/new/root"), 0);
    setenv("HOME", "/home/other", 1);
    EXPECT_EQ(to_abs("$(X)/y"), "/data/y");
    EXPECT_EQ(to_abs("_/a"), "/opt/q/a");
    // HOME was not used before the change: its new value counts.
    EXPECT_EQ(to_abs("~/a"), "/home/other/a");
}

TEST_F(Edge, AnchorValueIsNormalisedOnce) {
    setenv("QOR_ROOT", "/opt//q/./r/../", 1);
    EXPECT_EQ(to_abs("_/x"), "/opt/q/x");
}

TEST_F(Edge, RelativeAnchorTakenAgainstFirstCurrentDirectory) {
    setenv("QOR_HASH", "rel/h", 1);
    EXPECT_EQ(to_abs("#/x"), cwd("/rel/h/x"));
    ASSERT_EQ(chdir(".."), 0);
    EXPECT_EQ(to_abs("#/x"), cwd("/rel/h/x"));
}

TEST_F(Edge, DriveStyleAnchorLosesItsLetter) {
    setenv("QOR_ROOT", "C:/q", 1);
    EXPECT_EQ(to_abs("_/x"), "/q/x");
}

TEST_F(Edge, UnsetAnchorsFail) {
    unsetenv("QOR_ROOT");
    unsetenv("QOR_HASH");
    unsetenv("HOME");
    EXPECT_EQ(to_abs("_/x"), "<null>");
    EXPECT_EQ(to_os("#/x"), "<null>");
    EXPECT_EQ(to_abs("~"), "<null>");
    EXPECT_EQ(to_abs("/a/_"), "<null>");
}

TEST_F(Edge, UnsetAnchorIsReadAgainLater) {
    unsetenv("QOR_ROOT");
    EXPECT_EQ(to_abs("_/x"), "<null>");
    setenv("QOR_ROOT", "/late", 1);
    EXPECT_EQ(to_abs("_/x"), "/late/x");
}

TEST_F(Edge, EmptyAnchorsFail) {
    setenv("QOR_ROOT", "", 1);
    setenv("QOR_HASH", "", 1);
    setenv("HOME", "", 1);
    EXPECT_EQ(to_abs("_/x"), "<null>");
    EXPECT_EQ(to_abs("#/x"), "<null>");
    EXPECT_EQ(to_abs("~/x"), "<null>");
}

TEST_F(Edge, AnchorAboveRootFails) {
    setenv("QOR_ROOT", "/..", 1);
    EXPECT_EQ(to_abs("_/x"), "<null>");
    setenv("QOR_HASH", "C:", 1);  // a bare drive
    EXPECT_EQ(to_abs("#/x"), "<null>");
}

// A fatal error that leaves in the middle of an anchor's first resolution
// (here: memory exhausted while its value is parsed) leaves that anchor's
// guard up, so later uses of the anchor fail instead of recursing; the
// other anchors are not affected.
TEST_F(Edge, ResolutionGuardStaysUpAfterFatalErrorInsideIt) {
    // A value too long for what is left of the first chunk, but not for a
    // standard one: its parse takes a new chunk, the allocation after the
    // copy of the variable's value.
    const std::string root = "/" + std::string(1999, 'r');
    setenv("QOR_ROOT", root.c_str(), 1);
    path_check::warm_freestore();
    QOR_FS_mark mark;
    QOR_FS_save(&QOR_SH_fs_allocator, &mark);
    volatile int jumped = 0;
    qor_test::StderrCapture err;
    QOR_exception_handler_state = 1;
    const int value = setjmp(QOR_fatal_handler);
    if (value == 0) {
        qor_fault_fail(QF_malloc, ENOMEM, 1, 1);
        char *r = QOR_qor_to_absolute_qor("_/x");
        qor_fault_reset();
        ADD_FAILURE() << "no fatal error: " << (r ? r : "<null>");
    } else {
        qor_fault_reset();
        jumped = value;
    }
    QOR_exception_handler_state = 0;
    QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
    EXPECT_EQ(err.take(),
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=11, type=4\n");
    EXPECT_EQ(jumped, QOR_E_NO_MEMORY);
    EXPECT_EQ(to_abs("_/x"), "<null>");
    EXPECT_EQ(to_abs("#/x"), "/var/q/hash/x");
}

// ---- Embedded host paths --------------------------------------------------

TEST_F(Edge, HostPartTakesRestOfPath) {
    EXPECT_EQ(to_abs("/a/@b/../c"), "/a/c");
    EXPECT_EQ(to_abs("/a/b/@../c"), "/a/c");
    EXPECT_EQ(to_abs("/a/@/b/../c"), "/c");
    EXPECT_EQ(to_abs("_/@x/_/y"), "/opt/q/x/_/y");
    EXPECT_EQ(to_abs("/a/@"), "/a");
    EXPECT_EQ(to_abs("@/"), "/");
}

TEST_F(Edge, HostPartInOsFormIsCopiedAsWritten) {
    EXPECT_EQ(to_os("/a/@b/../c"), "/a/b/../c");
    EXPECT_EQ(to_os("_/@/usr/lib"), "/opt/q//usr/lib");
    EXPECT_EQ(to_os("@rel/x"), "rel/x");
    EXPECT_EQ(to_os("/a/@"), "/a/");
    EXPECT_EQ(to_os("@C:"), "C:");
}

TEST_F(Edge, HostPartThatIsEmptyFails) {
    EXPECT_EQ(to_abs("@"), "<null>");
    EXPECT_EQ(to_os("@"), "<null>");
}

TEST_F(Edge, HostPartAboveRootFails) {
    EXPECT_EQ(to_abs("@/.."), "<null>");
    EXPECT_EQ(to_abs("/a/@../.."), "<null>");
}

// ---- Drive-style components -----------------------------------------------

TEST_F(Edge, DriveComponentInQorPathIsRoot) {
    EXPECT_EQ(to_abs("C:"), "/");
    EXPECT_EQ(to_abs("/a/C:/b"), "/b");
    EXPECT_EQ(to_abs("/a/x:y/b"), "/b");
    EXPECT_EQ(to_abs("@:/b"), "/b");  // the ":" test comes before the "@"
}

TEST_F(Edge, DriveComponentInsideOsPathVanishes) {
    EXPECT_EQ(from_os("/a/C:/b"), "/a/b");
    EXPECT_EQ(from_os("C:"), "<null>");
    EXPECT_EQ(from_os("C:x"), "<null>");
    EXPECT_EQ(from_os("C:/"), "/");
    EXPECT_EQ(to_abs("@C:"), "<null>");
    EXPECT_EQ(to_abs("/a/@C:"), "<null>");
    EXPECT_EQ(concat("C:", "x"), "<null>");
}

TEST_F(Edge, SingleCharacterColonIsAName) {
    EXPECT_EQ(from_os(":"), cwd("/:"));
    EXPECT_EQ(to_abs("/:"), "/:");
}

// ---- Concatenation -----------------------------------------------------------

TEST_F(Edge, ConcatTailIsAlwaysRelative) {
    EXPECT_EQ(concat("/usr", "/lib/x", 1), "/usr/lib/x");
    EXPECT_EQ(concat("/usr", "//lib//x/"), "/usr/lib/x");
    EXPECT_EQ(concat("/usr", "C:/x"), "/usr/x");
}

TEST_F(Edge, ConcatTailParentsApplyToBase) {
    EXPECT_EQ(concat("/a/b", "../../c"), "/c");
    EXPECT_EQ(concat("/a", "../.."), "<null>");
    EXPECT_EQ(concat("/", ".."), "<null>");
}

TEST_F(Edge, ConcatFormsGiveSameText) {
    EXPECT_EQ(concat("src", "./a/../b", 0), cwd("/src/b"));
    EXPECT_EQ(concat("src", "./a/../b", 1), cwd("/src/b"));
    EXPECT_EQ(concat("/x", "y", 0, 4), "/x/y");
}

TEST_F(Edge, ConcatEmptyTailGivesBase) {
    EXPECT_EQ(concat("/a/./b/", ""), "/a/b");
}

TEST_F(Edge, ConcatUnknownFormsFail) {
    EXPECT_EQ(concat("/a", "b", 2), "<null>");
    EXPECT_EQ(concat("/a", "b", 0xffffffffu), "<null>");
}

// ---- Composite --------------------------------------------------------------

TEST_F(Edge, CompositeOnRootGivesDoubleSlash) {
    EXPECT_EQ(composite("/", "name"), "//name");
}

TEST_F(Edge, CompositeNormalisesDirectory) {
    EXPECT_EQ(composite("/a/b/../c/", "x"), "//x");
    EXPECT_EQ(composite("/a/b/../c", "x/../y"), "/a/c/x/../y");
    EXPECT_EQ(composite("$(Y)", "n"), cwd("/sub/n"));
}

TEST_F(Edge, CompositeNullNameEndsAtSlash) {
    EXPECT_EQ(composite("/a", nullptr), "/a/");
}

TEST_F(Edge, CompositeOfBadDirectoryFails) {
    EXPECT_EQ(composite("a", "x"), "<null>");
    EXPECT_EQ(composite(nullptr, "x"), "<null>");
    EXPECT_EQ(composite("", "x"), "<null>");
}

// ---- Link names ---------------------------------------------------------------

TEST_F(Edge, LinknameComesBackUnchanged) {
    for (const char *t : {"x", "/abs/x", "a//b/", "./.././a", "C:/x", "/", "//",
                          "_/x", "@x", "$(X)"}) {
        EXPECT_EQ(linkname(t), t);
    }
}

TEST_F(Edge, LinknameOfEmptyIsEmpty) {
    EXPECT_EQ(linkname(""), "");
    EXPECT_EQ(linkname(nullptr), "<null>");
}

TEST_F(Edge, LinknameNeverReadsCurrentDirectory) {
    EXPECT_EQ(linkname("../lib/x.so"), "../lib/x.so");
    EXPECT_EQ(qor_fault_calls(QF_getcwd), 0);
}

// ---- Render mode, directory form ------------------------------------------------

TEST_F(Edge, RenderModeChangesNothing) {
    for (unsigned mode = 0; mode < 6; ++mode) {
        EXPECT_EQ(to_os("_/a.b/c+d/.e", mode), "/opt/q/a.b/c+d/.e");
    }
    EXPECT_EQ(to_os_dir("_/a.b/c+d/.e"), "/opt/q/a.b/c+d/.e");
}

TEST_F(Edge, NamesAreCarriedUnchanged) {
    const char *odd = "/a b/ü/x+y.z/.hidden/..../...";
    EXPECT_EQ(to_abs(odd), odd);
    EXPECT_EQ(from_os(odd), odd);
    EXPECT_EQ(to_os(odd), odd);
}

// ---- Bad input ---------------------------------------------------------------------

TEST_F(Edge, NullInputFailsEverywhere) {
    EXPECT_EQ(to_abs(nullptr), "<null>");
    EXPECT_EQ(to_os(nullptr), "<null>");
    EXPECT_EQ(to_os_dir(nullptr), "<null>");
    EXPECT_EQ(from_os(nullptr), "<null>");
    EXPECT_EQ(concat(nullptr, "x"), "<null>");
    EXPECT_EQ(concat("/x", nullptr), "<null>");
}

TEST_F(Edge, EmptyInputFailsEverywhereButLinkname) {
    EXPECT_EQ(to_abs(""), "<null>");
    EXPECT_EQ(to_os(""), "<null>");
    EXPECT_EQ(to_os_dir(""), "<null>");
    EXPECT_EQ(from_os(""), "<null>");
    EXPECT_EQ(concat("", "x"), "<null>");
}

TEST_F(Edge, RelativeQorPathsFail) {
    for (const char *t : {"a", "a/b", "./a", "../a", ".", "..", ".1/x",
                          "~u/x", "_x/y", "$(X/y)"}) {
        EXPECT_EQ(to_abs(t), "<null>") << t;
        EXPECT_EQ(to_os(t), "<null>") << t;
    }
}

TEST_F(Edge, RelativeStartDiscardedByLaterRoot) {
    EXPECT_EQ(to_abs("x/_/y"), "/opt/q/y");
    EXPECT_EQ(to_abs("a//b"), "/b");
    EXPECT_EQ(to_abs("a/"), "/");
    // A host part restarts only when it is expanded, after the parse has
    // already found the relative start.
    EXPECT_EQ(to_abs("../a/@/b"), "<null>");
}

TEST_F(Edge, ParentAboveRootFails) {
    for (const char *t : {"/..", "/a/../..", "//..", "/a//../b", "_/../../../x"}) {
        EXPECT_EQ(to_abs(t), "<null>") << t;
        EXPECT_EQ(to_os(t), "<null>") << t;
    }
    EXPECT_EQ(from_os("/a/../../b"), "<null>");
}

TEST_F(Edge, BadInputRecordsAndPrintsNothing) {
    qor_test::MessageLog log;
    qor_test::StderrCapture err;
    unsetenv("HOME");
    setenv("QOR_HASH", "", 1);
    for (const char *t :
         {"", "a/b", "/..", "~/x", "#/x", "$(UNSET)", "$(", "@"}) {
        EXPECT_EQ(to_abs(t), "<null>") << t;
        EXPECT_EQ(to_os(t), "<null>") << t;
    }
    EXPECT_EQ(to_abs("@C:"), "<null>");
    EXPECT_EQ(from_os("C:"), "<null>");
    EXPECT_EQ(concat("/a", "b", 7), "<null>");
    EXPECT_EQ(to_abs(("/" + std::string(5000, 'a')).c_str()), "<null>");
    EXPECT_EQ(err.take(), "");
    EXPECT_TRUE(log.messages.empty());
}

// ---- Length limit ---------------------------------------------------------------

TEST_F(Edge, LongestPathTranslates) {
    const std::string longest = "/" + std::string(QOR_PATH_MAX - 1, 'a');
    EXPECT_EQ(to_abs(longest.c_str()), longest);
    EXPECT_EQ(to_os(longest.c_str()), longest);
    EXPECT_EQ(from_os(longest.c_str()), longest);
    EXPECT_EQ(linkname(longest.c_str()), longest);
}

TEST_F(Edge, OverlongInputFails) {
    const std::string over = "/" + std::string(QOR_PATH_MAX, 'a');
    EXPECT_EQ(to_abs(over.c_str()), "<null>");
    EXPECT_EQ(to_os(over.c_str()), "<null>");
    EXPECT_EQ(from_os(over.c_str()), "<null>");
    EXPECT_EQ(linkname(over.c_str()), "<null>");
    EXPECT_EQ(concat(over.c_str(), "x"), "<null>");
    EXPECT_EQ(concat("/x", over.c_str()), "<null>");
    // Long even though it would normalise to almost nothing.
    std::string dots = "/";
    while (dots.size() <= QOR_PATH_MAX) dots += "a/../";
    EXPECT_EQ(to_abs(dots.c_str()), "<null>");
}

TEST_F(Edge, OverlongRenderingFails) {
    // Short enough to parse, too long once the anchor is expanded.
    const std::string rest = std::string(QOR_PATH_MAX - 6, 'b');
    EXPECT_EQ(to_abs(("_/" + rest).c_str()), "<null>");
    EXPECT_EQ(to_os(("_/" + rest).c_str()), "<null>");
    const std::string fits = std::string(QOR_PATH_MAX - 7, 'b');
    EXPECT_EQ(to_abs(("_/" + fits).c_str()), "/opt/q/" + fits);
    EXPECT_EQ(concat("/opt/q", fits.c_str()), "/opt/q/" + fits);
    EXPECT_EQ(concat("/opt/q/", (fits + "c").c_str()), "<null>");
}

TEST_F(Edge, OverlongCompositeFails) {
    const std::string name(QOR_PATH_MAX - 7, 'n');
    EXPECT_EQ(composite("_", name.c_str()), "/opt/q/" + name);
    EXPECT_EQ(composite("_", (name + "n").c_str()), "<null>");
}

TEST_F(Edge, OverlongRelativeOsPathFails) {
    const std::string rest(QOR_PATH_MAX - cwd_.size(), 'r');
    EXPECT_EQ(from_os(rest.c_str()), "<null>");
    EXPECT_EQ(from_os(rest.substr(1).c_str()), cwd("/" + rest.substr(1)));
}

TEST_F(Edge, OverlongVariableFails) {
    const std::string value = "/" + std::string(QOR_PATH_MAX, 'v');
    setenv("LONGV", value.c_str(), 1);
    setenv("HOME", value.c_str(), 1);
    EXPECT_EQ(to_abs("$(LONGV)"), "<null>");
    EXPECT_EQ(to_abs("~"), "<null>");
}

// ---- The current directory --------------------------------------------------------

TEST_F(Edge, AbsolutePathsNeverReadCurrentDirectory) {
    EXPECT_EQ(to_abs("_/etc/f"), "/opt/q/etc/f");
    EXPECT_EQ(to_abs("#/x"), "/var/q/hash/x");
    EXPECT_EQ(to_abs("~/x"), "/home/u/x");
    EXPECT_EQ(to_abs("$(X)/y"), "/data/y");
    EXPECT_EQ(to_abs("/a/$(Y)/../b"), "/a/b");
    EXPECT_EQ(to_abs("@/usr/lib"), "/usr/lib");
    EXPECT_EQ(to_os("/a/b/../c"), "/a/c");
    EXPECT_EQ(from_os("/usr//lib"), "/usr/lib");
    EXPECT_EQ(concat("/usr", "/lib"), "/usr/lib");
    EXPECT_EQ(composite("_/etc", "x"), "/opt/q/etc/x");
    EXPECT_EQ(to_abs("/a/.."), "/");
    EXPECT_EQ(qor_fault_calls(QF_getcwd), 0);
}

TEST_F(Edge, RelativePathsReadCurrentDirectoryOnce) {
    EXPECT_EQ(to_abs(".0/f"), cwd("/f"));
    // Owned and shared form: one read each.
    EXPECT_EQ(qor_fault_calls(QF_getcwd), 2);
    qor_fault_reset();
    EXPECT_EQ(from_os("x"), cwd("/x"));
    EXPECT_EQ(qor_fault_calls(QF_getcwd), 2);
}

TEST_F(Edge, FailingGetcwdFailsOnlyWhatNeedsIt) {
    qor_fault_fail(QF_getcwd, EACCES, 0, -1);
    EXPECT_EQ(to_abs(".0/f"), "<null>");
    EXPECT_EQ(to_abs("$(Y)/b"), "<null>");
    EXPECT_EQ(to_abs("@rel"), "<null>");
    EXPECT_EQ(from_os("x"), "<null>");
    EXPECT_EQ(concat("src", "x"), "<null>");
    EXPECT_EQ(to_abs("/a/$(Y)/b"), "/a/sub/b");
    EXPECT_EQ(from_os("/x"), "/x");
}

TEST_F(Edge, GetcwdInterruptedIsRetried) {
    qor_fault_fail(QF_getcwd, EINTR, 0, 100);
    char *r = QOR_qor_to_absolute_qor(".0");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(std::string(r), cwd());
    QOR_free(r);
    EXPECT_EQ(qor_fault_calls(QF_getcwd), 101);
    qor_fault_reset();
    qor_fault_fail(QF_getcwd, EINTR, 0, 101);
    EXPECT_EQ(QOR_qor_to_absolute_qor(".0"), nullptr);
}

TEST_F(Edge, RemovedCurrentDirectoryFails) {
    ASSERT_EQ(chdir(".."), 0);
    ASSERT_EQ(mkdir("gone", 0777), 0);
    ASSERT_EQ(chdir("gone"), 0);
    ASSERT_EQ(rmdir((tmp_ / "work/gone").c_str()), 0);
    EXPECT_EQ(to_abs(".0"), "<null>");
    EXPECT_EQ(from_os("x"), "<null>");
}

// ---- Comparing names ---------------------------------------------------------------

TEST(CompareOsNames, ByteWiseAndCaseSensitive) {
    EXPECT_EQ(QOR_compare_os_names("a", "a"), 0);
    EXPECT_LT(QOR_compare_os_names("A", "a"), 0);
    EXPECT_GT(QOR_compare_os_names("b", "a"), 0);
    EXPECT_LT(QOR_compare_os_names("a", "ab"), 0);
    EXPECT_GT(QOR_compare_os_names("\xc3", "z"), 0);
}

TEST(CompareOsNames, NullSortsFirst) {
    EXPECT_EQ(QOR_compare_os_names(nullptr, nullptr), 0);
    EXPECT_LT(QOR_compare_os_names(nullptr, ""), 0);
    EXPECT_GT(QOR_compare_os_names("", nullptr), 0);
}

}  // namespace
}  // namespace paths_test
