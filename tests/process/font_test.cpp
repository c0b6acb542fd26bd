// QOR_look_up_font: the alias file's grammar (bare and quoted fields,
// escapes, blanks, pieces of 511 characters, fields of 255), the first
// alias winning, where the file is found, loading once and retrying while
// no reading got to the end, and the identity answer on every failure,
// always without output.

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fault.h"
#include "font_fixture.h"

using font_test::FontAliases;
using font_test::look_up;

using Names = std::vector<std::string>;

// ---- Grammar -------------------------------------------------------------

TEST_F(FontAliases, BareAliasBlanksAndQuotedFontMapToTheTextBetweenTheQuotes) {
    write_aliases("fixed   \t \"-misc-fixed medium-r\"\n");
    EXPECT_EQ(answer("fixed"), "-misc-fixed medium-r");
}

TEST_F(FontAliases, TwoBareFieldsMapTheAliasToTheFont) {
    write_aliases("variable -*-helvetica-bold-r-normal-*-*-120-*\n");
    EXPECT_EQ(answers({"variable", "other"}),
              (Names{"-*-helvetica-bold-r-normal-*-*-120-*", "other"}));
}

TEST_F(FontAliases, ALineWithThreeFieldsIsIgnored) {
    write_aliases("a b c\nd e\n");
    EXPECT_EQ(answers({"a", "d"}), (Names{"a", "e"}));
}

TEST_F(FontAliases, ALineWithOneFieldIsIgnored) {
    write_aliases("lonely\nlonely2   \nd e\n");
    EXPECT_EQ(answers({"lonely", "lonely2", "d"}),
              (Names{"lonely", "lonely2", "e"}));
}

TEST_F(FontAliases, AnEscapedQuoteInsideAQuotedFieldIsKept) {
    write_aliases("q \"say \\\"hi\\\"\"\n");
    EXPECT_EQ(answer("q"), "say \"hi\"");
}

TEST_F(FontAliases, AQuotedFieldDirectlyFollowedByALetterMakesTheLineInvalid) {
    write_aliases("q \"font\"x\n\"r\"s t\nu \"v\"\n");
    EXPECT_EQ(answers({"q", "r", "rs", "u"}), (Names{"q", "r", "rs", "v"}));
}

TEST_F(FontAliases, TheFirstOfTwoLinesForOneAliasWins) {
    write_aliases("dup first\ndup second\n");
    EXPECT_EQ(answer("dup"), "first");
}

TEST_F(FontAliases, EscapedBlanksBelongToABareFieldAndTheBackslashIsDropped) {
    write_aliases("my\\ alias tab\\\there\nx\\y z\\\\w\n");
    EXPECT_EQ(answers({"my alias", "x\\y", "xy"}),
              (Names{"tab\there", "x\\y", "z\\w"}));
}

TEST_F(FontAliases, AQuotedAliasMayHoldBlanks) {
    write_aliases("\"my alias\"\tfont\n");
    EXPECT_EQ(answer("my alias"), "font");
}

TEST_F(FontAliases, AnEscapedNewlineStillEndsABareField) {
    // "b\" then the newline: the font is "b"; the next line stands alone.
    write_aliases("a b\\\nc d\n");
    EXPECT_EQ(answers({"a", "c"}), (Names{"b", "d"}));
}

TEST_F(FontAliases, AnUnclosedQuoteMakesTheLineInvalid) {
    write_aliases("a \"never closed\nb \"ends in a backslash\\\nc d\n");
    EXPECT_EQ(answers({"a", "b", "c"}), (Names{"a", "b", "d"}));
}

TEST_F(FontAliases, AnEmptyQuotedFieldMakesTheLineInvalid) {
    write_aliases("\"\" x\na \"\"\n");
    EXPECT_EQ(answers({"", "a"}), (Names{"", "a"}));
}

TEST_F(FontAliases, BlanksAroundTheFieldsAreSkipped) {
    write_aliases("  \t a \t b \t \n");
    EXPECT_EQ(answer("a"), "b");
}

TEST_F(FontAliases, AnythingButBlanksAfterTheSecondFieldMakesTheLineInvalid) {
    write_aliases("a b ! comment\nc d \r\ne f\n");
    EXPECT_EQ(answers({"a", "c", "e"}), (Names{"a", "c", "f"}));
}

TEST_F(FontAliases, ACarriageReturnIsAnOrdinaryCharacterOfABareField) {
    // Only blanks and the newline end a bare field: with CRLF line ends the
    // font names end in a carriage return, and a quoted one is invalid.
    write_aliases("a b\r\nc \"d\"\r\n");
    EXPECT_EQ(answers({"a", "c"}), (Names{"b\r", "c"}));
}

TEST_F(FontAliases, ThereIsNoCommentSyntax) {
    // A comment line is dropped only because it breaks the rules; one with
    // exactly two fields defines an alias like any other line.
    write_aliases("! a comment line\n! note\n# note2\n");
    EXPECT_EQ(answers({"!", "#"}), (Names{"note", "note2"}));
}

TEST_F(FontAliases, TheLastLineNeedsNoNewline) {
    write_aliases("a b\nc d");
    EXPECT_EQ(answers({"a", "c"}), (Names{"b", "d"}));
}

TEST_F(FontAliases, QuotesInsideABareFieldAreOrdinaryCharacters) {
    write_aliases("a\"b c\"d\n");
    EXPECT_EQ(answer("a\"b"), "c\"d");
}

TEST_F(FontAliases, BlankAndEmptyLinesAreIgnored) {
    write_aliases("\n\n   \n\t\na b\n");
    EXPECT_EQ(answers({"", "a"}), (Names{"", "b"}));
}

// ---- Pieces and fields ---------------------------------------------------

TEST_F(FontAliases, EachPieceOf511CharactersIsALineOfItsOwn) {
    // The first 511 characters hold "x y" and blanks; the rest of the same
    // line, "tail second", is read as a line of its own.
    std::string line = "x   y";
    line.resize(511, ' ');
    ASSERT_EQ(line.size(), 511u);
    write_aliases(line + "tail second\n");
    EXPECT_EQ(answers({"x", "tail"}), (Names{"y", "second"}));
}

TEST_F(FontAliases, APieceCutInsideAFieldEndsThatField) {
    // "a", 500 blanks and ten f's fill the first piece: the font is cut
    // there, and the rest of the line, ten more f's, stands alone (one
    // field: ignored).
    write_aliases("a" + std::string(500, ' ') + std::string(20, 'f') +
                  "\nb c\n");
    EXPECT_EQ(answers({"a", "b", std::string(10, 'f')}),
              (Names{std::string(10, 'f'), "c", std::string(10, 'f')}));
}

TEST_F(FontAliases, ABackslashEndingAPieceIsDropped) {
    // The piece ends in "\"; the backslash is dropped and the field ends.
    std::string line = "a" + std::string(500, ' ') + std::string(9, 'b') + "\\";
    ASSERT_EQ(line.size(), 511u);
    write_aliases(line + "x y\n");
    EXPECT_EQ(answers({"a", "x"}), (Names{std::string(9, 'b'), "y"}));
}

TEST_F(FontAliases, AFieldKeepsItsFirst255Characters) {
    const std::string alias(300, 'a');
    const std::string font(300, 'f');
    write_aliases(alias + " b\nc " + font + "\n\"" + std::string(400, 'q') +
                  "\" z\n");
    EXPECT_EQ(answers({alias.substr(0, 255), alias, "c",
                       std::string(255, 'q')}),
              (Names{"b", alias, font.substr(0, 255), "z"}));
}

TEST_F(FontAliases, ATableOfManyAliasesGrowsAndKeepsEveryOne) {
    std::string content;
    Names names, fonts;
    for (int i = 0; i < 200; ++i) {
        names.push_back("alias" + std::to_string(i));
        fonts.push_back("font" + std::to_string(i));
        content += names.back() + " " + fonts.back() + "\n";
    }
    write_aliases(content);
    EXPECT_EQ(answers(names), fonts);
}

TEST_F(FontAliases, NulBytesEndTheLineAsTheStringSeesIt) {
    write_aliases(std::string("a b\0junk\nc\0 d\ne f\n", 19));
    EXPECT_EQ(answers({"a", "c", "e"}), (Names{"b", "c", "f"}));
}

// ---- Lookup --------------------------------------------------------------

TEST_F(FontAliases, AnUnknownNameAnswersItself) {
    write_aliases("a b\n");
    EXPECT_EQ(answers({"b", "A", "a "}), (Names{"b", "A", "a "}));
}

TEST_F(FontAliases, EveryAnswerIsANewTextOfTheCaller) {
    write_aliases("a b\n");
    const auto run = in_child([] {
        char *first = QOR_look_up_font("a");
        char *second = QOR_look_up_font("a");
        char *third = QOR_look_up_font("zz");
        printf("%s %s %s %d", first, second, third, first != second);
        first[0] = 'X';  // the caller's own: changing it changes nothing
        char *fourth = QOR_look_up_font("a");
        printf(" %s", fourth);
        QOR_free(first);
        QOR_free(second);
        QOR_free(third);
        QOR_free(fourth);
        fputc('\0', stdout);
    });
    ASSERT_FALSE(run.answers.empty()) << run.child.err;
    EXPECT_EQ(run.answers[0], "b b zz 1 b");
}

TEST_F(FontAliases, ANullNameAnswersAnEmptyText) {
    write_aliases("a b\n");
    const auto run = in_child([] {
        char *answer = QOR_look_up_font(nullptr);
        fwrite(answer, 1, strlen(answer) + 1, stdout);
        QOR_free(answer);
    });
    EXPECT_EQ(run.answers, (Names{""}));
}

// ---- Finding and loading the file ----------------------------------------

TEST_F(FontAliases, WithoutAnAliasFileTheAnswerIsTheRequestAndTheFileIsLookedForAgain) {
    const auto run = in_child([&] {
        look_up("fixed");
        qor_test::write_file(alias_file(), "fixed the-font\n");
        look_up("fixed");
    });
    EXPECT_EQ(run.answers, (Names{"fixed", "the-font"}));
    EXPECT_EQ(run.messages, 0);
    EXPECT_EQ(run.child.err, "");
}

TEST_F(FontAliases, TheFileIsReadOnceAndLaterChangesAreNotSeen) {
    write_aliases("a one\n");
    const auto run = in_child([&] {
        look_up("a");
        qor_test::write_file(alias_file(), "a two\n");
        qor_fault_reset();
        look_up("a");
        look_up("b");
        printf("%ld %ld%c", qor_fault_calls(QF_open),
               qor_fault_calls(QF_fgets), '\0');
    });
    // No more opening or reading once the table is there.
    EXPECT_EQ(run.answers, (Names{"one", "one", "b", "0 0"}));
}

TEST_F(FontAliases, AnEmptyFileIsLoadedAndNotLookedForAgain) {
    write_aliases("");
    const auto run = in_child([&] {
        look_up("a");
        qor_test::write_file(alias_file(), "a b\n");
        look_up("a");
    });
    EXPECT_EQ(run.answers, (Names{"a", "a"}));
}

TEST_F(FontAliases, AFileOnTheSearchPathComesBeforeTheOneUnderTheRoot) {
    write_aliases("a from-etc\nb only-in-etc\n");
    mkdir((tmp_ / "search").c_str(), 0755);
    qor_test::write_file(tmp_ / "search/fonts.alias", "a from-search\n");
    const auto run = in_child([&] {
        setenv("QOR_PATH", (tmp_ / "search").c_str(), 1);
        look_up("a");
        look_up("b");
    });
    EXPECT_EQ(run.answers, (Names{"from-search", "b"}));
}

TEST_F(FontAliases, ADirectoryNamedFontsAliasIsNoAliasFile) {
    mkdir(alias_file().c_str(), 0755);
    qor_test::write_file(alias_file() + "/fonts.alias", "a b\n");
    EXPECT_EQ(answer("a"), "a");
}

TEST_F(FontAliases, AnUnreadableFileGivesTheIdentityWithoutOutput) {
    write_aliases("a b\n");
    chmod(tmp_.path().c_str(), 0755);
    chmod(alias_file().c_str(), 0);
    const auto run = in_child([] { look_up("a"); }, true);
    EXPECT_TRUE(run.child.exited);
    EXPECT_EQ(run.answers, (Names{"a"}));
    EXPECT_EQ(run.messages, 0);
    EXPECT_EQ(run.child.err, "");
}

TEST_F(FontAliases, ABinaryFileAnswersWhatItsLinesSayAndNeverPrints) {
    std::string junk;
    for (int i = 0; i < 3000; ++i) junk.push_back(static_cast<char>(i * 37));
    write_aliases(junk + "\nzz yy\n");
    EXPECT_EQ(answers({"zz", "a"}), (Names{"yy", "a"}));
}

// ---- Read errors ---------------------------------------------------------

TEST_F(FontAliases, AReadErrorGivesTheIdentityAndTheNextLookupReadsAgain) {
    write_aliases("a b\nc d\n");
    const auto run = in_child([] {
        qor_fault_fail(QF_fgets, EIO, 1, 1);  // the second piece fails
        look_up("a");
        const long calls = qor_fault_calls(QF_fgets);
        qor_fault_reset();
        look_up("a");
        look_up("c");
        printf("%ld %ld%c", calls, qor_fault_calls(QF_fgets), '\0');
    });
    // Nothing of the failed reading is kept; the second one reads three
    // times (two pieces and the end).
    EXPECT_EQ(run.answers, (Names{"a", "b", "d", "2 3"}));
    EXPECT_EQ(run.messages, 0);
    EXPECT_EQ(run.child.err, "");
}

TEST_F(FontAliases, OneHundredInterruptedReadsInARowAreRetried) {
    write_aliases("a b\nc d\n");
    const auto run = in_child([] {
        qor_fault_fail(QF_fgets, EINTR, 1, 100);
        look_up("c");
        printf("%ld%c", qor_fault_calls(QF_fgets), '\0');
        qor_fault_reset();
    });
    EXPECT_EQ(run.answers, (Names{"d", "103"}));
}

TEST_F(FontAliases, The101stInterruptedReadInARowGivesUp) {
    write_aliases("a b\nc d\n");
    const auto run = in_child([] {
        qor_fault_fail(QF_fgets, EINTR, 1, 101);
        look_up("a");
        printf("%ld%c", qor_fault_calls(QF_fgets), '\0');
        qor_fault_reset();
        look_up("a");
    });
    EXPECT_EQ(run.answers, (Names{"a", "102", "b"}));
    EXPECT_EQ(run.messages, 0);
}

TEST_F(FontAliases, AnInterruptionTheStreamDidNotSeeGivesUp) {
    // fgets answers null with errno EINTR but neither the error nor the
    // end indicator set: not a retryable read.
    write_aliases("a b\n");
    const auto run = in_child([] {
        errno = 0;
        qor_fault_result(QF_fgets, EINTR, 0, 1);
        look_up("a");
        printf("%ld%c", qor_fault_calls(QF_fgets), '\0');
        qor_fault_reset();
        look_up("a");
    });
    EXPECT_EQ(run.answers, (Names{"a", "1", "b"}));
}

TEST_F(FontAliases, AFileThatCannotBeOpenedGivesTheIdentity) {
    write_aliases("a b\n");
    const auto run = in_child([] {
        qor_fault_filter_path(QF_open, "fonts.alias");
        qor_fault_fail(QF_open, EMFILE, 0, -1);
        look_up("a");
        qor_fault_reset();
        look_up("a");
    });
    EXPECT_EQ(run.answers, (Names{"a", "b"}));
    // The open passed the accessibility check and then failed: that is the
    // contents layer's failure, recorded by it (message 71, EMFILE).
    EXPECT_EQ(run.messages, 1);
}
