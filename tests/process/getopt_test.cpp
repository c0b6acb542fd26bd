// QOR_getopt: letters, attached and separate arguments, the ends of the
// options, bad options, the state kept between calls. Each test runs in a
// process of its own, so the parser starts fresh in every one.
#include <gtest/gtest.h>

#include "getopt_support.h"
#include "harness.h"

using getopt_test::Argv;

namespace {

// A text that no parse can produce, to see whether QOR_optarg was touched.
char kUntouched[] = "untouched";

// Every result up to and including -1 (at most 64 calls).
std::vector<int> parse_all(Argv &args, const char *optstring) {
    std::vector<int> results;
    for (int i = 0; i < 64; ++i) {
        const int c = QOR_getopt(args.argc(), args.argv(), optstring);
        results.push_back(c);
        if (c == -1) break;
    }
    return results;
}

}  // namespace

TEST(Getopt, StartsAtArgumentOneWithNoArgument) {
    EXPECT_EQ(QOR_optind, 1);
    EXPECT_EQ(QOR_optarg, nullptr);
}

TEST(Getopt, GroupedLettersThenAFileGiveEachLetterThenTheEnd) {
    Argv args{"prog", "-ab", "file"};
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "ab"), 'a');
    EXPECT_EQ(QOR_optind, 1);  // still inside "-ab"
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "ab"), 'b');
    EXPECT_EQ(QOR_optind, 2);
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "ab"), -1);
    EXPECT_EQ(QOR_optind, 2);  // "file" is left for the caller
}

TEST(Getopt, AttachedArgumentIsTheRestOfTheSameArgument) {
    Argv args{"prog", "-ofile"};
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "o:"), 'o');
    EXPECT_EQ(QOR_optarg, args[1] + 2);
    EXPECT_STREQ(QOR_optarg, "file");
    EXPECT_EQ(QOR_optind, 2);
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "o:"), -1);
}

TEST(Getopt, SeparateArgumentIsTheNextArgument) {
    Argv args{"prog", "-o", "file"};
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "o:"), 'o');
    EXPECT_EQ(QOR_optarg, args[2]);
    EXPECT_EQ(QOR_optind, 3);
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "o:"), -1);
    EXPECT_EQ(QOR_optind, 3);
}

TEST(Getopt, ArgumentAfterLettersInAGroup) {
    Argv args{"prog", "-abvalue", "-b", "next"};
    EXPECT_EQ(parse_all(args, "ab:"), (std::vector<int>{'a', 'b', 'b', -1}));
    EXPECT_STREQ(QOR_optarg, "next");
    EXPECT_EQ(QOR_optind, 4);
}

TEST(Getopt, SeparateArgumentIsTakenEvenWhenItLooksLikeAnOption) {
    Argv args{"prog", "-o", "-a", "-a"};
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "ao:"), 'o');
    EXPECT_EQ(QOR_optarg, args[2]);
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "ao:"), 'a');
    EXPECT_EQ(QOR_optind, 4);
}

TEST(Getopt, SeparateArgumentMayBeEmptyOrTheEndMarkers) {
    Argv args{"prog", "-o", "", "-o", "--", "-o", "-"};
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "o:"), 'o');
    EXPECT_EQ(QOR_optarg, args[2]);
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "o:"), 'o');
    EXPECT_EQ(QOR_optarg, args[4]);
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "o:"), 'o');
    EXPECT_EQ(QOR_optarg, args[6]);
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "o:"), -1);
    EXPECT_EQ(QOR_optind, 7);
}

TEST(Getopt, MissingArgumentAtTheEndGivesQuestionMarkAndLeavesOptargAlone) {
    Argv args{"prog", "-o"};
    QOR_optarg = kUntouched;
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "o:"), '?');
    EXPECT_EQ(QOR_optarg, kUntouched);
    EXPECT_EQ(QOR_optind, 2);
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "o:"), -1);
    EXPECT_EQ(QOR_optarg, kUntouched);
}

TEST(Getopt, MissingArgumentAfterLettersInAGroup) {
    Argv args{"prog", "-ao"};
    QOR_optarg = kUntouched;
    EXPECT_EQ(parse_all(args, "ao:"), (std::vector<int>{'a', '?', -1}));
    EXPECT_EQ(QOR_optarg, nullptr);  // cleared by 'a', then left alone
    EXPECT_EQ(QOR_optind, 2);
}

TEST(Getopt, UnknownLetterGivesQuestionMarkAndIsPassed) {
    Argv args{"prog", "-x", "-a"};
    QOR_optarg = kUntouched;
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "ab"), '?');
    EXPECT_EQ(QOR_optind, 2);
    EXPECT_EQ(QOR_optarg, kUntouched);
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "ab"), 'a');
}

TEST(Getopt, UnknownLetterInsideAGroupLetsTheNextLetterThrough) {
    Argv args{"prog", "-xay"};
    EXPECT_EQ(parse_all(args, "ab"), (std::vector<int>{'?', 'a', '?', -1}));
    EXPECT_EQ(QOR_optind, 2);
}

TEST(Getopt, ColonIsNeverAnOptionEvenWhenTheOptionStringHasOne) {
    for (const char *optstring : {"ab", ":ab", "a:b", "ab:", "::", ":"}) {
        QOR_optind = 1;
        Argv args{"prog", "-:"};
        QOR_optarg = kUntouched;
        EXPECT_EQ(parse_all(args, optstring), (std::vector<int>{'?', -1}))
            << optstring;
        EXPECT_EQ(QOR_optarg, kUntouched) << optstring;
        EXPECT_EQ(QOR_optind, 2) << optstring;
    }
}

TEST(Getopt, ColonInsideAGroupIsABadOptionBetweenGoodOnes) {
    Argv args{"prog", "-a:b"};
    EXPECT_EQ(parse_all(args, "a:b"), (std::vector<int>{'a', -1}));
    EXPECT_STREQ(QOR_optarg, ":b");  // 'a' takes the rest as its argument
    QOR_optind = 1;
    Argv plain{"prog", "-a:b"};
    EXPECT_EQ(parse_all(plain, "ab"), (std::vector<int>{'a', '?', 'b', -1}));
}

TEST(Getopt, DoubleDashEndsTheOptionsAndIsSkipped) {
    Argv args{"prog", "-a", "--", "-b"};
    EXPECT_EQ(parse_all(args, "ab"), (std::vector<int>{'a', -1}));
    EXPECT_EQ(QOR_optind, 3);
}

TEST(Getopt, DoubleDashAloneIsSkippedOnlyOnce) {
    Argv args{"prog", "--", "--"};
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "a"), -1);
    EXPECT_EQ(QOR_optind, 2);
    // Called again, the parser sees the second "--" as a fresh start.
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "a"), -1);
    EXPECT_EQ(QOR_optind, 3);
}

TEST(Getopt, SingleDashEndsTheOptionsAndIsNotSkipped) {
    Argv args{"prog", "-a", "-", "-b"};
    EXPECT_EQ(parse_all(args, "ab"), (std::vector<int>{'a', -1}));
    EXPECT_EQ(QOR_optind, 2);
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "ab"), -1);
    EXPECT_EQ(QOR_optind, 2);
}

TEST(Getopt, PlainArgumentEndsTheOptionsWithoutMoving) {
    Argv args{"prog", "file", "-a"};
    QOR_optarg = kUntouched;
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "a"), -1);
    EXPECT_EQ(QOR_optind, 1);
    EXPECT_EQ(QOR_optarg, kUntouched);
}

TEST(Getopt, EmptyArgumentEndsTheOptions) {
    Argv args{"prog", "", "-a"};
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "a"), -1);
    EXPECT_EQ(QOR_optind, 1);
}

TEST(Getopt, NoArgumentsEndsAtOnce) {
    Argv args{"prog"};
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "a"), -1);
    EXPECT_EQ(QOR_optind, 1);
}

TEST(Getopt, OptindAtOrPastArgcEndsWithoutLookingAtTheVector) {
    Argv args{"prog", "-a"};
    QOR_optind = 5;
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "a"), -1);
    EXPECT_EQ(QOR_optind, 5);
    QOR_optind = 2;
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "a"), -1);
    EXPECT_EQ(QOR_optind, 2);
}

TEST(Getopt, DashDashWithLettersIsAGroupOfOptions) {
    // Only "--" exactly is the end marker; "--x" is the letters '-' and 'x'.
    Argv args{"prog", "--x"};
    EXPECT_EQ(parse_all(args, "x"), (std::vector<int>{'?', 'x', -1}));
    QOR_optind = 1;
    Argv dashes{"prog", "---"};
    EXPECT_EQ(parse_all(dashes, "a-"), (std::vector<int>{'-', '-', -1}));
}

TEST(Getopt, OptargIsClearedByALetterWithoutArgument) {
    Argv args{"prog", "-a"};
    QOR_optarg = kUntouched;
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "a"), 'a');
    EXPECT_EQ(QOR_optarg, nullptr);
}

TEST(Getopt, EmptyOptionStringMakesEveryLetterBad) {
    Argv args{"prog", "-ab", "-c"};
    EXPECT_EQ(parse_all(args, ""), (std::vector<int>{'?', '?', '?', -1}));
    EXPECT_EQ(QOR_optind, 3);
}

TEST(Getopt, DoubledColonStillMeansAnArgumentIsRequired) {
    // No optional arguments here: "a::" reads as "a:".
    Argv args{"prog", "-a", "value"};
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "a::"), 'a');
    EXPECT_EQ(QOR_optarg, args[2]);
    EXPECT_EQ(QOR_optind, 3);
}

TEST(Getopt, FirstOccurrenceOfALetterInTheOptionStringDecides) {
    Argv args{"prog", "-a", "x"};
    EXPECT_EQ(QOR_getopt(args.argc(), args.argv(), "aa:"), 'a');
    EXPECT_EQ(QOR_optarg, nullptr);
    EXPECT_EQ(QOR_optind, 2);
}

TEST(Getopt, SemicolonAndOtherPunctuationAreOrdinaryLetters) {
    Argv args{"prog", "-;?", "-W", "x"};
    EXPECT_EQ(parse_all(args, ";?W:"), (std::vector<int>{';', '?', 'W', -1}));
    EXPECT_STREQ(QOR_optarg, "x");
}

TEST(Getopt, LetterBeyondAsciiIsReturnedAsAnUnsignedByte) {
    Argv args{"prog", "-\xff\xe9"};
    EXPECT_EQ(parse_all(args, "\xe9\xff"), (std::vector<int>{0xff, 0xe9, -1}));
}

TEST(Getopt, RestartAfterAFinishedPassParsesAgain) {
    Argv first{"prog", "-ab", "one"};
    EXPECT_EQ(parse_all(first, "ab"), (std::vector<int>{'a', 'b', -1}));
    QOR_optind = 1;
    Argv second{"prog", "-ba", "-o", "two"};
    EXPECT_EQ(parse_all(second, "abo:"), (std::vector<int>{'b', 'a', 'o', -1}));
    EXPECT_EQ(QOR_optarg, second[3]);
    EXPECT_EQ(QOR_optind, 4);
}

TEST(Getopt, RestartInsideAnArgumentGoesOnAtTheOldCharacterPosition) {
    // The character position is the parser's own state: a caller that resets
    // QOR_optind before finishing a pass resumes mid-argument.
    Argv first{"prog", "-ab"};
    EXPECT_EQ(QOR_getopt(first.argc(), first.argv(), "ab"), 'a');
    QOR_optind = 1;
    Argv second{"prog", "-xy"};
    EXPECT_EQ(parse_all(second, "xy"), (std::vector<int>{'y', -1}));
    EXPECT_EQ(QOR_optind, 2);
}

TEST(Getopt, PrintsNothing) {
    const qor_test::ChildResult r = qor_test::run_in_child([] {
        Argv args{"prog", "-x:", "-o"};
        parse_all(args, "o:");
    });
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
}
