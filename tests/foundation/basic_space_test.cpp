// Basic space: checked allocation, copies and joins.

#include <errno.h>
#include <gtest/gtest.h>
#include <setjmp.h>
#include <string.h>

#include <array>
#include <regex>
#include <utility>

#include "harness.h"

namespace {

// Runs fn in a child with no message system and checks the assertion
// failure it must end in.
void expect_assertion(const std::function<void()> &fn, const char *text) {
    auto r = qor_test::run_in_child(fn);
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    std::regex line(std::string("Error: QOR Message System unavailable - output_message\n"
                                "Untranslated message: set=File basic_space, Line [0-9]+: ") +
                    text + ", number=-1, type=4\n");
    EXPECT_TRUE(std::regex_match(r.err, line)) << r.err;
}

TEST(Malloc, ZeroBytesIsAnAssertionFailure) {
    expect_assertion([] { QOR_malloc(0); },
                     "QOR_malloc called to allocate zero or negative bytes");
}

TEST(Malloc, NegativeBytesIsAnAssertionFailure) {
    expect_assertion([] { QOR_malloc(-5); },
                     "QOR_malloc called to allocate zero or negative bytes");
}

TEST(Malloc, AssertionRaisesWithStatusOne) {
    qor_test::MessageLog log;
    int value = setjmp(QOR_fatal_handler);
    if (value == 0) {
        QOR_exception_handler_state = 1;
        QOR_malloc(0);
    }
    QOR_exception_handler_state = 0;
    EXPECT_EQ(value, 1);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_TRUE(std::regex_match(
        log.messages[0].set,
        std::regex("File basic_space, Line [0-9]+: QOR_malloc called to "
                   "allocate zero or negative bytes")));
}

TEST(Malloc, GivesAWritableBlock) {
    char *p = static_cast<char *>(QOR_malloc(100));
    memset(p, 'x', 100);
    QOR_free(p);
}

TEST(Calloc, ZeroCountIsAnAssertionFailure) {
    expect_assertion([] { QOR_calloc(0, 8); },
                     "QOR_calloc called to allocate zero or negative bytes");
}

TEST(Calloc, ZeroSizeIsAnAssertionFailure) {
    expect_assertion([] { QOR_calloc(8, 0); },
                     "QOR_calloc called to allocate zero or negative bytes");
}

TEST(Calloc, GivesZeroedBlock) {
    auto *p = static_cast<unsigned char *>(QOR_calloc(10, 7));
    for (int i = 0; i < 70; ++i) EXPECT_EQ(p[i], 0);
    QOR_free(p);
}

TEST(Realloc, NullBlockGivesANewBlock) {
    char *p = static_cast<char *>(QOR_realloc(nullptr, 16));
    memset(p, 1, 16);
    EXPECT_EQ(qor_fault_calls(QF_realloc), 0);
    QOR_free(p);
}

TEST(Realloc, KeepsContentsUpToTheSmallerSize) {
    char *p = static_cast<char *>(QOR_malloc(4));
    memcpy(p, "abc", 4);
    p = static_cast<char *>(QOR_realloc(p, 4096));
    EXPECT_STREQ(p, "abc");
    p = static_cast<char *>(QOR_realloc(p, 2));
    EXPECT_EQ(memcmp(p, "ab", 2), 0);
    QOR_free(p);
}

TEST(Realloc, ZeroSizeIsAnAssertionFailure) {
    expect_assertion([] { QOR_realloc(nullptr, 0); },
                     "QOR_realloc called to allocate zero or negative bytes");
}

TEST(Free, NullIsAnAssertionFailure) {
    expect_assertion([] { QOR_free(nullptr); }, "QOR_free called with NULL pointer");
}

TEST(ClearMemory, ZeroesAndReturnsTheBlock) {
    char buf[8];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(QOR_clear_memory(buf, 5), buf);
    EXPECT_EQ(std::string(buf, 8), std::string("\0\0\0\0\0xxx", 8));
    EXPECT_EQ(QOR_clear_memory(buf, 0), buf);
}

TEST(CopyString, NullGivesAnEmptyTextThatCanBeFreed) {
    char *s = QOR_copy_string(nullptr);
    EXPECT_STREQ(s, "");
    QOR_free(s);
}

TEST(CopyString, CopiesTheText) {
    const char *orig = "hello";
    char *s = QOR_copy_string(orig);
    EXPECT_STREQ(s, "hello");
    EXPECT_NE(s, orig);
    QOR_free(s);
}

TEST(CopyMemory, NullGivesNullWithoutAllocating) {
    const long before = qor_fault_calls(QF_malloc);
    EXPECT_EQ(QOR_copy_memory(nullptr, 10), nullptr);
    EXPECT_EQ(qor_fault_calls(QF_malloc), before);
}

TEST(CopyMemory, ZeroLengthGivesAOneByteBlock) {
    char src = 'q';
    const long before = qor_fault_calls(QF_malloc);
    void *p = QOR_copy_memory(&src, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(qor_fault_calls(QF_malloc), before + 1);
    QOR_free(p);
}

TEST(CopyMemory, CopiesTheBytes) {
    const char src[5] = {1, 0, 2, 0, 3};
    void *p = QOR_copy_memory(src, 5);
    EXPECT_EQ(memcmp(p, src, 5), 0);
    QOR_free(p);
}

// ---- Joining ------------------------------------------------------------------

TEST(CatStrings, NullFirstGivesEmptyAndIgnoresTheRest) {
    char *s = QOR_cat_strings(nullptr, "x", nullptr);
    EXPECT_STREQ(s, "");
    QOR_free(s);
}

TEST(CatStrings, JoinsTwoTexts) {
    char *s = QOR_cat_strings("a", "bc", nullptr);
    EXPECT_STREQ(s, "abc");
    QOR_free(s);
}

TEST(CatStrings, EmptyTextsJoinToEmpty) {
    char *s = QOR_cat_strings("", "", "", nullptr);
    EXPECT_STREQ(s, "");
    QOR_free(s);
}

// Calls QOR_cat_strings with N texts "t0", "t1", ... as separate arguments.
template <size_t... I>
char *cat_n(const std::array<std::string, sizeof...(I)> &t, std::index_sequence<I...>) {
    return QOR_cat_strings(t[I].c_str()..., static_cast<const char *>(nullptr));
}

template <size_t N>
void check_join_of() {
    std::array<std::string, N> texts;
    std::string expected;
    for (size_t i = 0; i < N; ++i) {
        texts[i] = "t" + std::to_string(i) + (i % 3 == 0 ? "" : "-");
        expected += texts[i];
    }
    char *s = cat_n(texts, std::make_index_sequence<N>{});
    EXPECT_EQ(std::string(s), expected) << N << " texts";
    QOR_free(s);
}

TEST(CatStrings, OneText) { check_join_of<1>(); }
TEST(CatStrings, ThirtyOneTexts) { check_join_of<31>(); }
TEST(CatStrings, ThirtyTwoTexts) { check_join_of<32>(); }
TEST(CatStrings, ThirtyThreeTexts) { check_join_of<33>(); }
TEST(CatStrings, FirstFollowedByFortyTexts) { check_join_of<41>(); }
TEST(CatStrings, HundredTexts) { check_join_of<100>(); }

// ---- Exhaustion -----------------------------------------------------------------

TEST(Exhaustion, FailingMallocEndsWithMessageElevenAndExitThree) {
    auto r = qor_test::run_in_child([] {
        qor_fault_fail(QF_malloc, ENOMEM, 0, 1);
        QOR_malloc(16);
    });
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err,
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=11, type=4\n");
}

TEST(Exhaustion, FailingCallocAndReallocToo) {
    for (auto fn : {QF_calloc, QF_realloc}) {
        auto r = qor_test::run_in_child([fn] {
            // Held in static storage: the child dies holding it on purpose.
            static void *p;
            p = QOR_malloc(8);
            qor_fault_fail(fn, ENOMEM, 0, 1);
            if (fn == QF_calloc) QOR_calloc(2, 8);
            else QOR_realloc(p, 64);
        });
        EXPECT_EQ(r.exit_status, 3);
        EXPECT_EQ(r.err,
                  "Error: QOR Message System unavailable - output_message\n"
                  "Untranslated message: set=qor, number=11, type=4\n");
    }
}

TEST(Exhaustion, ReachesAnArmedHandlerWithStatus2011) {
    qor_test::MessageLog log;
    log.messages.reserve(4);  // no allocation inside the callback
    int value = setjmp(QOR_fatal_handler);
    if (value == 0) {
        QOR_exception_handler_state = 1;
        qor_fault_fail(QF_malloc, ENOMEM, 0, 1);
        QOR_copy_string("some text");
    }
    QOR_exception_handler_state = 0;
    EXPECT_EQ(value, 2011);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].set, "qor");
    EXPECT_EQ(log.messages[0].number, 11);
    EXPECT_EQ(log.messages[0].type, 4);
    EXPECT_TRUE(log.messages[0].null_parameters);
}

}  // namespace
