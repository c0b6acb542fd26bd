// QOR_getopt against the host's getopt in POSIX mode (options end at the
// first non-option, nothing permuted), silenced with opterr = 0, call by
// call over thousands of generated argument vectors. The two agree on every
// result and on optind, except where this parser differs on purpose, and
// each difference is asserted explicitly:
//  - a missing argument leaves QOR_optarg as it was, and so does any other
//    '?' and the end of the options (the host clears optarg on every call);
//  - with a leading ':' in its option string the host answers a missing
//    argument with ':'; this parser has no such mode and answers '?'.
// ':' is never an option in either. Letters, option strings and arguments
// are drawn so that no host extension (optional "::" arguments, "W;",
// leading '-' or '+' in the option string) comes into play; those are
// covered by the parser's own tests.
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <random>

#include "getopt_support.h"
#include "harness.h"

using getopt_test::Argv;

namespace {

// Sentinels showing, after each call, whether a parser touched its optarg.
char kHostUntouched[] = "host";
char kQorUntouched[] = "qor";

constexpr int kVectorsPerSeed = 3000;
constexpr unsigned kSeeds[] = {1, 7, 42, 2024, 99991};

// How often each kind of step was seen, to show the generator reaches them.
struct Coverage {
    long calls = 0;
    long letters = 0;
    long attached = 0;
    long separate = 0;
    long unknown = 0;
    long colon_letter = 0;
    long missing = 0;
    long missing_colon_mode = 0;
    long double_dash = 0;
    long single_dash = 0;
};

class Generator {
  public:
    explicit Generator(unsigned seed) : rng_(seed) {}

    // Letters from a small alphabet, some taking an argument; sometimes a
    // leading ':' (the host's quiet mode), never "::".
    std::string optstring() {
        std::string s = chance(5) ? ":" : "";
        const int letters = pick(0, 5);
        for (int i = 0; i < letters; ++i) {
            // A leading '-' would ask the host for its in-order mode.
            const char letter = pick_from("abcox-");
            s += s.empty() && letter == '-' ? 'a' : letter;
            if (chance(3)) s += ':';
        }
        return s;
    }

    // Option letters are drawn from the option string half of the time, so
    // that known letters, and letters missing their argument, are common.
    std::vector<std::string> arguments(const std::string &optstring) {
        std::vector<std::string> args{"prog"};
        const int n = pick(0, 6);
        for (int i = 0; i < n; ++i) args.push_back(argument(optstring));
        // Often end on a letter that takes an argument, which is missing
        // unless something else follows.
        std::string takers;
        for (size_t i = 1; i < optstring.size(); ++i) {
            if (optstring[i] == ':' && optstring[i - 1] != ':')
                takers += optstring[i - 1];
        }
        if (!takers.empty() && chance(3)) {
            args.push_back((chance(2) ? "-" : argument(optstring)) +
                           pick_from(takers.c_str()));
        }
        return args;
    }

  private:
    std::string argument(const std::string &optstring) {
        switch (pick(0, 9)) {
            case 0: return "--";
            case 1: return "-";
            case 2: return "file";
            case 3: return "";
            default: {
                std::string a = "-";
                const int n = pick(1, 4);
                for (int i = 0; i < n; ++i) {
                    a += !optstring.empty() && chance(2)
                             ? pick_from(optstring.c_str())
                             : pick_from("abcoxyz:-;?");
                }
                return a;
            }
        }
    }
    int pick(int lo, int hi) {
        return std::uniform_int_distribution<int>(lo, hi)(rng_);
    }
    bool chance(int one_in) { return pick(1, one_in) == 1; }
    char pick_from(const char *set) {
        return set[pick(0, static_cast<int>(strlen(set)) - 1)];
    }
    std::mt19937 rng_;
};

// Parses one vector with both parsers in lockstep. The host parser gets the
// option string with host_prefix in front ("+" for POSIX order, or "" when
// POSIXLY_CORRECT is set).
void compare_one(const std::vector<std::string> &vector,
                 const std::string &optstring, const char *host_prefix,
                 Coverage &seen) {
    Argv host(vector);
    Argv ours(vector);
    const std::string host_optstring = host_prefix + optstring;
    const bool colon_mode = !optstring.empty() && optstring[0] == ':';
    optind = 0;  // makes the host parser start afresh
    QOR_optind = 1;
    const std::string trace = "optstring \"" + optstring + "\" vector:" + [&] {
        std::string t;
        for (const std::string &a : vector) t += " \"" + a + "\"";
        return t;
    }();

    for (int step = 0; step < 64; ++step) {
        const int before = QOR_optind;
        optarg = kHostUntouched;
        QOR_optarg = kQorUntouched;
        const int h = getopt(host.argc(), host.argv(), host_optstring.c_str());
        const int q = QOR_getopt(ours.argc(), ours.argv(), optstring.c_str());
        ++seen.calls;
        SCOPED_TRACE(trace + " step " + std::to_string(step));

        ASSERT_EQ(optind, QOR_optind);
        // The host never leaves optarg as it was: it clears it first.
        ASSERT_NE(optarg, kHostUntouched);

        if (q == -1) {
            ASSERT_EQ(h, -1);
            ASSERT_EQ(QOR_optarg, kQorUntouched);  // untouched at the end
            if (before < ours.argc()) {
                const std::string arg = vector[static_cast<size_t>(before)];
                if (arg == "--") ++seen.double_dash;
                if (arg == "-") ++seen.single_dash;
            }
            return;
        }
        if (q == '?' && h == ':') {
            // The host's quiet mode answer to a missing argument.
            ASSERT_TRUE(colon_mode);
            ASSERT_EQ(optarg, nullptr);
            ASSERT_EQ(QOR_optarg, kQorUntouched);
            ++seen.missing_colon_mode;
            continue;
        }
        ASSERT_EQ(q, h);
        if (q == '?') {
            // A bad option or a missing argument ('?' is never drawn as a
            // letter): our optarg is left alone, the host's is cleared.
            ASSERT_EQ(optarg, nullptr);
            ASSERT_EQ(QOR_optarg, kQorUntouched);
            if (optopt == ':') {
                ++seen.colon_letter;  // even when the option string has ':'
            } else if (strchr(optstring.c_str(), optopt) != nullptr) {
                ++seen.missing;  // a letter taking an argument, at the end
                ASSERT_EQ(QOR_optind, ours.argc());
            } else {
                ++seen.unknown;
            }
            continue;
        }
        // A letter: both set optarg alike, pointing into the same argument.
        ++seen.letters;
        if (optarg == nullptr) {
            ASSERT_EQ(QOR_optarg, nullptr);
            continue;
        }
        ASSERT_NE(QOR_optarg, nullptr);
        bool matched = false;
        const auto at = reinterpret_cast<uintptr_t>(optarg);
        for (int i = 1; i < ours.argc(); ++i) {
            const auto start = reinterpret_cast<uintptr_t>(host[i]);
            const size_t offset = at - start;
            if (at >= start && offset <= vector[static_cast<size_t>(i)].size()) {
                ASSERT_EQ(QOR_optarg, ours[i] + offset);
                (offset == 0 ? seen.separate : seen.attached)++;
                matched = true;
                break;
            }
        }
        ASSERT_TRUE(matched);
    }
    FAIL() << trace << ": no end after 64 calls";
}

void run_differential(const char *host_prefix) {
    opterr = 0;
    Coverage seen;
    for (unsigned seed : kSeeds) {
        Generator gen(seed);
        for (int i = 0; i < kVectorsPerSeed; ++i) {
            const std::string optstring = gen.optstring();
            const std::vector<std::string> vector = gen.arguments(optstring);
            compare_one(vector, optstring, host_prefix, seen);
            if (testing::Test::HasFatalFailure()) return;
        }
    }
    // Every kind of step occurred often enough to mean something.
    EXPECT_GT(seen.calls, 30000);
    EXPECT_GT(seen.letters, 1000);
    EXPECT_GT(seen.attached, 100);
    EXPECT_GT(seen.separate, 100);
    EXPECT_GT(seen.unknown, 1000);
    EXPECT_GT(seen.colon_letter, 100);
    EXPECT_GT(seen.missing, 400);
    EXPECT_GT(seen.missing_colon_mode, 80);
    EXPECT_GT(seen.double_dash, 100);
    EXPECT_GT(seen.single_dash, 100);
}

}  // namespace

TEST(GetoptDifferential, AgreesWithHostGetoptInPosixOrderByPlusPrefix) {
    unsetenv("POSIXLY_CORRECT");
    run_differential("+");
}

TEST(GetoptDifferential, AgreesWithHostGetoptUnderPosixlyCorrect) {
    setenv("POSIXLY_CORRECT", "1", 1);
    run_differential("");
    unsetenv("POSIXLY_CORRECT");
}
