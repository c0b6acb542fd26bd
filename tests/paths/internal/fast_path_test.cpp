// The path translations' fast path for plain absolute paths against their
// general algorithm. The switch between the two is internal to the library,
// so this program links the static library; everything else about it is
// an ordinary suite of the path tests.
//
// Each comparison runs a translation with the fast path allowed and then
// with the general algorithm only, from the same shared freestore, and
// requires the same result text and the same freestore afterwards (current
// chunk, use, oversized count, chain length, the result's place).

#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "harness.h"
#include "paths/general_path.h"
#include "tests/fuzz/path_invariants.h"

namespace {

using path_check::fast_path_agrees_at;

const path_check::GeneralSwitch kSwitch = qor::paths::set_general_path_only;

void expect_agreement(const std::string &text, const char *name = ".lock",
                      uint32_t fill = 0) {
    std::vector<std::string> problems;
    fast_path_agrees_at(text, name, fill, kSwitch, problems);
    for (const auto &p : problems) ADD_FAILURE() << p;
}

// With chunks large enough for the longest texts and their scratch.
constexpr uint32_t kLargeChunks = 4 * QOR_PATH_MAX;

void expect_agreement_in_large_chunks(const std::string &text,
                                      const char *name = ".lock",
                                      uint32_t fill = 0) {
    std::vector<std::string> problems;
    path_check::fast_path_agrees_in_chunks(text, name, fill, kLargeChunks,
                                           kSwitch, problems);
    for (const auto &p : problems) ADD_FAILURE() << p;
}

// Whether fn, a translation into the shared freestore, left the bytes past
// its result as they were. The general algorithm builds its lists in
// scratch right there before it restores its mark, so untouched bytes mean
// that the fast path ran.
bool left_scratch_untouched(const std::function<char *()> &fn) {
    path_check::warm_freestore();
    QOR_FS_mark mark;
    QOR_FS_save(&QOR_SH_fs_allocator, &mark);
    const QOR_FS_chunk *c = QOR_SH_fs_allocator.current_chunk;
    const uint32_t room = c->size - c->used;
    auto *area =
        static_cast<unsigned char *>(QOR_FS_malloc(&QOR_SH_fs_allocator, room));
    memset(area, 0x5A, room);
    QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
    char *r = fn();
    bool untouched = r == reinterpret_cast<char *>(area);
    if (untouched) {
        for (uint32_t i = path_check::piece_size(strlen(r)); i < room; ++i) {
            untouched = untouched && area[i] == 0x5A;
        }
    }
    QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
    return untouched;
}

bool fast_to_os(const std::string &t) {
    return left_scratch_untouched(
        [&] { return QOR_SH_qor_to_os(t.c_str(), 0); });
}
bool fast_to_abs(const std::string &t) {
    return left_scratch_untouched(
        [&] { return QOR_SH_qor_to_absolute_qor(t.c_str()); });
}
bool fast_from_os(const std::string &t) {
    return left_scratch_untouched([&] { return QOR_SH_os_to_qor(t.c_str()); });
}

std::string or_null(char *r) {
    if (r == nullptr) return "<null>";
    std::string s = r;
    QOR_free(r);
    return s;
}

class FastPath : public testing::Test {
  protected:
    void SetUp() override { path_check::set_fuzz_environment(); }
    void TearDown() override { kSwitch(false); }
};

// ---- Which texts take it -------------------------------------------------

TEST_F(FastPath, TheSwitchIsSeen) {
    EXPECT_TRUE(fast_to_os("/a/b"));
    EXPECT_FALSE(kSwitch(true));
    EXPECT_FALSE(fast_to_os("/a/b"));
    EXPECT_TRUE(kSwitch(false));
    EXPECT_TRUE(fast_to_os("/a/b"));
}

TEST_F(FastPath, PlainAbsolutePathsTakeIt) {
    for (const char *t :
         {"/a", "/a/b/c", "/a/b.c/d+e/f+g.h", "/.lock", "/..x", "/.0x", "/...",
          "/_x", "/#x", "/~x", "/x_", "/a$b", "/a@b", "/a(b)", "/:", "/:a",
          "/a/:b", "/a b/\t/\xff\x01", "/opt/q/etc/f.txt"}) {
        SCOPED_TRACE(t);
        EXPECT_TRUE(fast_to_os(t));
        EXPECT_TRUE(fast_to_abs(t));
        EXPECT_TRUE(fast_from_os(t));
        EXPECT_TRUE(left_scratch_untouched(
            [&] { return QOR_SH_composite_path(t, ".lock"); }));
        EXPECT_EQ(or_null(QOR_qor_to_os(t, 0)), t);
        EXPECT_EQ(or_null(QOR_qor_to_absolute_qor(t)), t);
        EXPECT_EQ(or_null(QOR_os_to_qor(t)), t);
        expect_agreement(t);
    }
}

TEST_F(FastPath, EmbeddedPlainHostPathsTakeIt) {
    for (const char *t : {"@/a", "@/tmp/x/object4", "@/a/.lock", "@/a/_x"}) {
        SCOPED_TRACE(t);
        EXPECT_TRUE(fast_to_os(t));
        EXPECT_TRUE(fast_to_abs(t));
        EXPECT_EQ(or_null(QOR_qor_to_os(t, 0)), t + 1);
        EXPECT_EQ(or_null(QOR_qor_to_absolute_qor(t)), t + 1);
        expect_agreement(t);
    }
    // The OS form copies any host part as written; the qor form resolves
    // and normalises it, which only the general algorithm does.
    for (const char *t : {"@rel/x", "@/a//b/", "@/a/../b", "@x:", "@_",
                          "@/a/$(X)", "@//"}) {
        SCOPED_TRACE(t);
        EXPECT_TRUE(fast_to_os(t));
        EXPECT_FALSE(fast_to_abs(t));
        EXPECT_EQ(or_null(QOR_qor_to_os(t, 0)), t + 1);
        expect_agreement(t);
    }
}

TEST_F(FastPath, EverythingElseTakesTheGeneralAlgorithm) {
    for (const char *t :
         {"/", "//", "//a", "/a/", "/a//b", "/.", "/..", "/.0", "/a/.",
          "/a/..", "/a/.0", "/a/./b", "/a/../b", "/_", "/#", "/~", "/a/_",
          "/a/_/b", "/a/#", "/a/~/b", "/$(X)", "/a/$(Y)", "/$x", "/$", "/@",
          "/@x", "/a/@/b", "/a:b", "/C:/x", "/a/b:c", "/a/b:", "_", "_/a",
          "#/a",
          "~/a", ".0", ".0/a", "$(X)/y", "a/b", "./a", "../a"}) {
        SCOPED_TRACE(t);
        EXPECT_FALSE(fast_to_os(t));
        EXPECT_FALSE(fast_to_abs(t));
        EXPECT_FALSE(fast_from_os(t));
        expect_agreement(t);
    }
    for (const char *t : {"@", "@:x", "@:", "@rel/x", "@/a/"}) {
        SCOPED_TRACE(t);
        EXPECT_FALSE(fast_to_abs(t));
        expect_agreement(t);
    }
    EXPECT_FALSE(fast_to_os("@"));
    EXPECT_FALSE(fast_to_os("@:x"));
    EXPECT_EQ(or_null(QOR_qor_to_os("@", 0)), "<null>");
}

// ---- Limits ----------------------------------------------------------------

TEST_F(FastPath, TheLengthLimitIsTheGeneralOne) {
    // The longest text is QOR_PATH_MAX characters, the host part's "@"
    // included; longer ones fail both ways.
    const std::string longest = "/" + std::string(QOR_PATH_MAX - 1, 'n');
    const std::string too_long = longest + "n";
    for (const std::string &t :
         {longest, too_long, "@" + longest.substr(1), "@" + longest,
          "@/" + std::string(QOR_PATH_MAX - 3, 'n') + "/x"}) {
        SCOPED_TRACE(t.size());
        for (uint32_t fill : {0u, 1000u, 2016u}) {
            expect_agreement(t, "x", fill);
            expect_agreement_in_large_chunks(t, "x", fill);
        }
    }
    EXPECT_EQ(or_null(QOR_qor_to_os(longest.c_str(), 0)), longest);
    EXPECT_EQ(or_null(QOR_qor_to_os(too_long.c_str(), 0)), "<null>");
    EXPECT_EQ(or_null(QOR_qor_to_absolute_qor(("@" + longest).c_str())),
              "<null>");
    EXPECT_EQ(or_null(QOR_qor_to_os(("@" + longest).c_str(), 0)), "<null>");
    EXPECT_EQ(or_null(QOR_qor_to_os(("@" + longest.substr(1)).c_str(), 0)),
              longest.substr(1));
    EXPECT_EQ(
        or_null(QOR_qor_to_absolute_qor(("@" + longest.substr(1)).c_str())),
        "<null>");  // "@n..." is relative: resolved against the directory

    // Only chunks larger than the usual ones hold such texts' scratch.
    EXPECT_FALSE(fast_to_os(longest));
    QOR_FS_destroy(&QOR_SH_fs_allocator);
    QOR_FS_initialise(&QOR_SH_fs_allocator, kLargeChunks, 0);
    EXPECT_TRUE(fast_to_os(longest));
    EXPECT_TRUE(fast_to_abs(longest));
    EXPECT_FALSE(fast_to_os(too_long));
    const std::string host = "@/" + std::string(QOR_PATH_MAX - 2, 'n');
    EXPECT_TRUE(fast_to_abs(host));
    EXPECT_FALSE(fast_to_abs(host + "n"));
    EXPECT_TRUE(fast_to_os(host));
    EXPECT_FALSE(fast_to_os(host + "n"));
    QOR_FS_destroy(&QOR_SH_fs_allocator);
    QOR_FS_initialise(&QOR_SH_fs_allocator, 2016, 0);
}

// Texts seen a moment ago are recognised as plain without a second scan:
// asked again in turn, among texts that differ from them only at their
// ends and texts that are not plain, each one still gets the answer of the
// general algorithm, and a plain text remembered under the longer limit is
// still too long as a host part.
TEST_F(FastPath, TextsAskedInTurnGetTheSameAnswers) {
    const std::string longest = "/" + std::string(QOR_PATH_MAX - 1, 'n');
    const std::vector<std::string> texts = {
        "/srv/data/o1",   "/srv/data/o1/.lock", "/srv/data/o",
        "/srv/data/o1/.", "/srv/data/o1/",      "/srv/data/o1x",
        "@/srv/data/o1",  "/srv/data/c:",       "/srv/./data/o1",
        longest,          "@" + longest,        "@" + longest.substr(1),
    };
    std::mt19937 rng(41);
    for (int round = 0; round < 40; ++round) {
        const std::string &t = texts[rng() % texts.size()];
        SCOPED_TRACE(t.substr(0, 40));
        expect_agreement(t, ".lock", round % 2 == 0 ? 0u : 1000u);
        expect_agreement_in_large_chunks(t, ".lock");
        if (HasFailure()) return;
    }
    QOR_FS_destroy(&QOR_SH_fs_allocator);
    QOR_FS_initialise(&QOR_SH_fs_allocator, kLargeChunks, 0);
    EXPECT_TRUE(fast_to_abs(longest));
    EXPECT_FALSE(fast_to_abs("@" + longest));
    EXPECT_EQ(or_null(QOR_qor_to_absolute_qor(("@" + longest).c_str())),
              "<null>");
    EXPECT_EQ(or_null(QOR_qor_to_absolute_qor(longest.c_str())), longest);
    QOR_FS_destroy(&QOR_SH_fs_allocator);
    QOR_FS_initialise(&QOR_SH_fs_allocator, 2016, 0);
}

TEST_F(FastPath, CompositesUpToTheLimit) {
    const std::string name = ".lock";
    const std::string dir =
        "/" + std::string(QOR_PATH_MAX - 2 - name.size(), 'd');
    EXPECT_EQ(dir.size() + 1 + name.size(), size_t{QOR_PATH_MAX});
    EXPECT_EQ(or_null(QOR_composite_path(dir.c_str(), name.c_str())),
              dir + "/" + name);
    EXPECT_EQ(or_null(QOR_composite_path((dir + "d").c_str(), name.c_str())),
              "<null>");
    for (const std::string &d :
         {dir, dir + "d", "@" + dir, "@" + dir.substr(1)}) {
        for (const char *n : {".lock", "", static_cast<const char *>(nullptr),
                              "a/../b", "x"}) {
            expect_agreement(d, n);
            expect_agreement_in_large_chunks(d, n);
        }
    }
    EXPECT_EQ(or_null(QOR_composite_path("/a", nullptr)), "/a/");
    EXPECT_EQ(or_null(QOR_composite_path("@/a", "b")), "/a/b");
}

// ---- The freestore ---------------------------------------------------------

TEST_F(FastPath, AFullChunkTakesTheGeneralAlgorithm) {
    // The general algorithm would take new chunks for its scratch, which
    // stay in the chain: so the fast path stands aside, at every level.
    const std::string t = "/a/b/c";
    path_check::warm_freestore();
    const QOR_FS_chunk *c = QOR_SH_fs_allocator.current_chunk;
    const uint32_t room = c->size - c->used;
    for (uint32_t fill = 0; fill <= room + 8; fill += 4) {
        expect_agreement(t, ".lock", fill);
        expect_agreement("@" + t, ".lock", fill);
        expect_agreement("/" + std::string(900, 'x') + t, ".lock", fill);
    }
}

TEST_F(FastPath, AFreshFreestoreTakesTheGeneralAlgorithm) {
    // Restoring a mark of a fresh freestore empties it; either way the
    // freestore ends with one chunk holding the result.
    for (bool general : {false, true}) {
        kSwitch(general);
        QOR_FS_destroy(&QOR_SH_fs_allocator);
        char *r = QOR_SH_qor_to_os("/a/b", 0);
        EXPECT_STREQ(r, "/a/b");
        const QOR_FS_chunk *c = QOR_SH_fs_allocator.first_chunk;
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(c, QOR_SH_fs_allocator.current_chunk);
        EXPECT_EQ(c->next, nullptr);
        EXPECT_EQ(c->used, 16u + 8u);
        EXPECT_EQ(r, reinterpret_cast<const char *>(c) + 16);
    }
}

TEST_F(FastPath, AClearingFreestoreTakesTheGeneralAlgorithm) {
    QOR_FS_destroy(&QOR_SH_fs_allocator);
    QOR_FS_initialise(&QOR_SH_fs_allocator, 2016, QOR_FS_CLEAR);
    expect_agreement("/a/b");
    expect_agreement("@/a/b");
    QOR_FS_mark mark;
    QOR_FS_save(&QOR_SH_fs_allocator, &mark);
    char *r = QOR_SH_qor_to_os("/a/b", 0);
    EXPECT_STREQ(r, "/a/b");
    // The scratch past the result was cleared by the restore.
    for (int i = 8; i < 600; ++i) ASSERT_EQ(r[i], 0) << i;
    QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
    QOR_FS_destroy(&QOR_SH_fs_allocator);
    QOR_FS_initialise(&QOR_SH_fs_allocator, 2016, 0);
}

TEST_F(FastPath, NothingIsRecordedOrPrinted) {
    qor_test::MessageLog log;
    qor_test::StderrCapture err;
    for (const char *t : {"/a/b", "@/a/b", "@x", "/a/", "/$(UNSET)/x"}) {
        or_null(QOR_qor_to_os(t, 0));
        or_null(QOR_qor_to_absolute_qor(t));
        or_null(QOR_os_to_qor(t));
        or_null(QOR_composite_path(t, "n"));
    }
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(err.take(), "");
}

// ---- Generated texts -------------------------------------------------------

// Texts built from the pieces that matter to the rules: separators, dots,
// anchors, host parts, drive letters, variables, and plain names of every
// length up to past the limit.
std::string generated_text(std::mt19937 &rng) {
    static const std::vector<std::string> pieces = {
        "/",  "/",    "/",   "a",   "b",    "name", ".",  "..",  ".0", "_",
        "#",  "~",    "@",   "$(",  "X",    "Y",    ")",  "$",   ":",  "C:",
        "+",  ".x",   "x.",  "..y", "_z",   "~w",   "#v", "\xe9", " ", "\x01",
        "(",  "UNSET", "0",  "//",  "/./",  "/../", "@/", "/_/", "$(X)",
        "$(Y)", ".lock"};
    std::uniform_int_distribution<size_t> pick(0, pieces.size() - 1);
    std::uniform_int_distribution<int> count(0, 12);
    std::uniform_int_distribution<int> shape(0, 9);
    std::string t;
    const int s = shape(rng);
    if (s < 5) {
        t = "/";
    } else if (s < 7) {
        t = "@/";
    } else if (s == 7) {
        t = "@";
    }
    for (int i = count(rng); i > 0; --i) t += pieces[pick(rng)];
    if (shape(rng) == 0) {
        // A long name, to reach the limit and the oversized chunks.
        std::uniform_int_distribution<int> len(1000, QOR_PATH_MAX + 2);
        t += std::string(static_cast<size_t>(len(rng)), 'L');
        if (t.size() > QOR_PATH_MAX - 10 && shape(rng) < 5) {
            t.resize(QOR_PATH_MAX - shape(rng) % 3);
        }
    }
    return t;
}

TEST_F(FastPath, GeneratedTextsAgree) {
    std::mt19937 rng(20261122);
    std::uniform_int_distribution<uint32_t> fill(0, 2100);
    std::uniform_int_distribution<int> which(0, 3);
    const char *names[] = {".lock", "", nullptr, "x/y"};
    int fast = 0;
    for (int i = 0; i < 6000; ++i) {
        const std::string t = generated_text(rng);
        std::vector<std::string> problems;
        const char *name = names[which(rng)];
        const uint32_t f = fill(rng) % 4 == 0 ? fill(rng) : 0;
        fast_path_agrees_at(t, name, f, kSwitch, problems);
        if (t.size() > 900) {
            path_check::fast_path_agrees_in_chunks(t, name, f, kLargeChunks,
                                                   kSwitch, problems);
        }
        for (const auto &p : problems) ADD_FAILURE() << p;
        if (!problems.empty()) break;
        fast += fast_to_os(t) ? 1 : 0;
    }
    // Both ways were exercised.
    EXPECT_GT(fast, 600);
    EXPECT_LT(fast, 5400);
}

TEST_F(FastPath, FuzzCorpusAgrees) {
    int seeds = 0;
    for (const auto &p : path_check::replay_corpus(
             std::string(QOR_SOURCE_DIR) + "/tests/fuzz/corpus", &seeds,
             kSwitch)) {
        ADD_FAILURE() << p;
    }
    EXPECT_GE(seeds, 30);
}

}  // namespace
