// The debug allocator: guards, the free check (double frees, overruns,
// blocks it does not know), resizing, the copy and join twins, and memory
// exhaustion. Each test runs in a process of its own, so the log starts
// empty in every one.
#include <errno.h>
#include <malloc.h>
#include <string.h>

#include "debug_support.h"

using namespace debug_test;

namespace {

void expect_guard_at(const void *block, size_t offset) {
    const auto *bytes = static_cast<const unsigned char *>(block) + offset;
    for (size_t i = 0; i < sizeof kGuard; ++i) {
        EXPECT_EQ(bytes[i], kGuard[i]) << "guard byte " << i;
    }
}

}  // namespace

// ---- Allocating ----------------------------------------------------------

TEST(DebugMalloc, ZeroSizeReturnsNullAndLogsNothing) {
    const long mallocs = qor_fault_calls(QF_malloc);
    const long callocs = qor_fault_calls(QF_calloc);
    EXPECT_EQ(QOR_malloc_debug(0, "zero.c", 3), nullptr);
    EXPECT_EQ(qor_fault_calls(QF_malloc), mallocs);
    EXPECT_EQ(qor_fault_calls(QF_calloc), callocs);  // no log was created
    EXPECT_EQ(dump(), kDumpHeader + kDumpEnd);
}

TEST(DebugMalloc, GuardFollowsTheBytesAskedFor) {
    auto *block = static_cast<unsigned char *>(
        QOR_malloc_debug(10, "alloc.c", 42));
    ASSERT_NE(block, nullptr);
    memset(block, 0xAA, 10);  // all ten bytes are the caller's
    expect_guard_at(block, 10);
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(block, 1, 10, 42, "alloc.c") +
                          kDumpEnd);
    QOR_free_debug(block, "alloc.c", 43);
}

TEST(DebugMalloc, AsksTheSystemForFourBytesMore) {
    const long before = qor_fault_calls(QF_malloc);
    void *block = QOR_malloc_debug(1, "one.c", 1);
    EXPECT_EQ(qor_fault_calls(QF_malloc), before + 1);
    expect_guard_at(block, 1);
    EXPECT_GE(malloc_usable_size(block), 5u);
    QOR_free_debug(block, "one.c", 2);
}

TEST(DebugCalloc, ThreeByOneLogsThreeUnitsOfFourBytesWithGuardAtTwelve) {
    auto *block =
        static_cast<unsigned char *>(QOR_calloc_debug(3, 1, "calloc.c", 7));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(block[i], 0) << "byte " << i;
    expect_guard_at(block, 12);
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(block, 3, 4, 7, "calloc.c") +
                          kDumpEnd);
    QOR_free_debug(block, "calloc.c", 8);
    EXPECT_EQ(dump(), kDumpHeader +
                          deallocated_line(block, 3, 4, 7, "calloc.c", 8,
                                           "calloc.c") +
                          kDumpEnd);
}

TEST(DebugCalloc, UnitsOfFourBytesOrMoreAreKept) {
    auto *block =
        static_cast<unsigned char *>(QOR_calloc_debug(2, 8, "calloc.c", 9));
    for (int i = 0; i < 16; ++i) EXPECT_EQ(block[i], 0) << "byte " << i;
    expect_guard_at(block, 16);
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(block, 2, 8, 9, "calloc.c") +
                          kDumpEnd);
    QOR_free_debug(block, "calloc.c", 10);
}

TEST(DebugCalloc, ZeroCountOrZeroSizeReturnsNullAndLogsNothing) {
    const long callocs = qor_fault_calls(QF_calloc);
    EXPECT_EQ(QOR_calloc_debug(0, 8, "calloc.c", 1), nullptr);
    EXPECT_EQ(QOR_calloc_debug(8, 0, "calloc.c", 2), nullptr);
    EXPECT_EQ(QOR_calloc_debug(0, 0, "calloc.c", 3), nullptr);
    EXPECT_EQ(qor_fault_calls(QF_calloc), callocs);
    EXPECT_EQ(dump(), kDumpHeader + kDumpEnd);
}

TEST(DebugCalloc, WriteInsideAWidenedUnitIsNotAnOverrun) {
    // (3, 1) lays out 4-byte units: bytes 3..11 are padding before the
    // guard, so writing there goes unnoticed.
    auto *block =
        static_cast<unsigned char *>(QOR_calloc_debug(3, 1, "pad.c", 1));
    memset(block + 3, 0x55, 9);
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, "pad.c", 2); }), "");
    EXPECT_EQ(dump(), kDumpHeader +
                          deallocated_line(block, 3, 4, 1, "pad.c", 2, "pad.c") +
                          kDumpEnd);
}

// ---- Freeing -------------------------------------------------------------

TEST(DebugFree, IntactBlockIsGivenBackToTheSystem) {
    void *block = QOR_malloc_debug(10, "ok.c", 1);
    EXPECT_TRUE(still_allocated(block, 14));
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, "ok.c", 2); }), "");
    // This is what tells the tests below that a kept block really was kept.
    EXPECT_FALSE(still_allocated(block, 14));
}

TEST(DebugFree, SameBlockTwiceReportsAlreadyFreedAndLastUse) {
    void *block = QOR_malloc_debug(10, "alloc.c", 10);
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, "first.c", 15); }), "");
    // A second system free of the block would abort the process (glibc's
    // double-free check, or the sanitizer's).
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, "second.c", 20); }),
              already_freed_line(20, "second.c") +
                  last_use_line(10, "alloc.c", 15, "first.c"));
    EXPECT_EQ(dump(), kDumpHeader +
                          deallocated_line(block, 1, 10, 10, "alloc.c", 15,
                                           "first.c") +
                          kDumpEnd);
}

TEST(DebugFree, DoubleFreeNamesTheLastRecordOfThatAddress) {
    void *first = QOR_malloc_debug(10, "a.c", 1);
    QOR_free_debug(first, "a.c", 2);
    void *second = QOR_malloc_debug(10, "b.c", 3);
#if defined(QOR_TEST_ASAN)
    if (second != first) {
        QOR_free_debug(second, "b.c", 4);
        GTEST_SKIP() << "the sanitizer does not hand the address out again";
    }
#endif
    ASSERT_EQ(second, first);  // glibc reuses the block just freed
    QOR_free_debug(second, "b.c", 4);
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(second, "c.c", 5); }),
              already_freed_line(5, "c.c") + last_use_line(3, "b.c", 4, "b.c"));
}

TEST(DebugFree, WithoutAnyLogReportsOnlyAlreadyFreedAndKeepsTheBlock) {
    void *foreign = malloc(32);
    memset(foreign, 1, 32);
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(foreign, "nolog.c", 4); }),
              already_freed_line(4, "nolog.c"));
    EXPECT_TRUE(still_allocated(foreign, 32));
    EXPECT_EQ(static_cast<unsigned char *>(foreign)[31], 1);
    free(foreign);
    EXPECT_EQ(dump(), kDumpHeader + kDumpEnd);  // still no log
}

TEST(DebugFree, BlockUnknownToTheLogReportsOnlyAlreadyFreedAndIsKept) {
    void *known = QOR_malloc_debug(8, "known.c", 1);
    void *foreign = malloc(32);
    memset(foreign, 2, 32);
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(foreign, "foreign.c", 6); }),
              already_freed_line(6, "foreign.c"));
    EXPECT_TRUE(still_allocated(foreign, 32));
    EXPECT_EQ(static_cast<unsigned char *>(foreign)[0], 2);
    free(foreign);
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(known, 1, 8, 1, "known.c") +
                          kDumpEnd);
    QOR_free_debug(known, "known.c", 2);
}

TEST(DebugFree, NullWithALogPointsAtARecordNeverUsed) {
    // The scan for a free record with a null address finds the records never
    // used, whose fields are all clear.
    void *known = QOR_malloc_debug(8, "known.c", 1);
    EXPECT_EQ(stderr_of([] { QOR_free_debug(nullptr, "null.c", 9); }),
              already_freed_line(9, "null.c") + last_use_line(0, "", 0, ""));
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(known, 1, 8, 1, "known.c") +
                          kDumpEnd);
    QOR_free_debug(known, "known.c", 2);
}

TEST(DebugFree, OneBytePastATenByteBlockIsReportedAndTheBlockKept) {
    auto *block = static_cast<unsigned char *>(QOR_malloc_debug(10, "over.c", 3));
    memcpy(block, "0123456789", 10);
    block[10] = 'x';  // the first guard byte, still inside the system block
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, "over.c", 7); }),
              overrun_line(7, "over.c"));
    EXPECT_TRUE(still_allocated(block, 14));
    EXPECT_EQ(memcmp(block, "0123456789x", 11), 0);  // readable: not freed
    // Its record is no longer in use, so the dump lists it as deallocated.
    EXPECT_EQ(dump(), kDumpHeader +
                          deallocated_line(block, 1, 10, 3, "over.c", 7,
                                           "over.c") +
                          kDumpEnd);
    // Freed again, it is a double free now.
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, "again.c", 8); }),
              already_freed_line(8, "again.c") +
                  last_use_line(3, "over.c", 7, "over.c"));
    free(block);  // the allocator left it to us
}

TEST(DebugFree, ChangeToAnyOfTheFourGuardBytesIsAnOverrun) {
    for (int i = 0; i < 4; ++i) {
        auto *block =
            static_cast<unsigned char *>(QOR_malloc_debug(6, "g.c", 10 + i));
        block[6 + i] ^= 0x40;
        EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, "g.c", 20 + i); }),
                  overrun_line(20 + i, "g.c"))
            << "guard byte " << i;
        free(block);
    }
}

TEST(DebugFree, CallocGuardIsCheckedAfterTheLastUnit) {
    auto *block = static_cast<unsigned char *>(QOR_calloc_debug(3, 1, "c.c", 1));
    block[12] = 0;
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, "c.c", 2); }),
              overrun_line(2, "c.c"));
    EXPECT_TRUE(still_allocated(block, 16));
    EXPECT_EQ(block[0], 0);
    free(block);
}

// ---- Resizing ------------------------------------------------------------

TEST(DebugRealloc, ZeroSizeReturnsNullAndLeavesTheBlockAlone) {
    auto *block = static_cast<char *>(QOR_malloc_debug(4, "r.c", 1));
    memcpy(block, "abcd", 4);
    EXPECT_EQ(stderr_of([&] {
                  EXPECT_EQ(QOR_realloc_debug(block, 0, "r.c", 2), nullptr);
              }),
              "");
    EXPECT_EQ(memcmp(block, "abcd", 4), 0);
    EXPECT_EQ(dump(),
              kDumpHeader + allocated_line(block, 1, 4, 1, "r.c") + kDumpEnd);
    QOR_free_debug(block, "r.c", 3);
}

TEST(DebugRealloc, ResizedBlockKeepsItsContentAndGetsANewRecord) {
    auto *block = static_cast<char *>(QOR_malloc_debug(4, "r.c", 1));
    memcpy(block, "abcd", 4);
    const std::string old_address = hex(block);
    char *bigger = nullptr;
    EXPECT_EQ(stderr_of([&] {
                  bigger = static_cast<char *>(
                      QOR_realloc_debug(block, 100, "grow.c", 5));
              }),
              "");
    ASSERT_NE(bigger, nullptr);
    EXPECT_EQ(memcmp(bigger, "abcd", 4), 0);
    expect_guard_at(bigger, 100);
    // The old record was freed by the resize, at the resize's location.
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(bigger, 1, 100, 5, "grow.c") +
                          old_address + ": 1 units of 4 bytes allocated at 1 "
                                        "of r.c and deallocated at 5 of grow.c\n" +
                          kDumpEnd);
    QOR_free_debug(bigger, "grow.c", 6);
}

TEST(DebugRealloc, OverrunBlockIsReportedAndStillResized) {
    auto *block = static_cast<char *>(QOR_malloc_debug(4, "r.c", 1));
    memcpy(block, "wxyz", 4);
    block[4] = '!';
    char *resized = nullptr;
    EXPECT_EQ(stderr_of([&] {
                  resized = static_cast<char *>(
                      QOR_realloc_debug(block, 8, "shrink.c", 9));
              }),
              overrun_line(9, "shrink.c"));
    ASSERT_NE(resized, nullptr);
    EXPECT_EQ(memcmp(resized, "wxyz!", 5), 0);
    expect_guard_at(resized, 8);
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(resized, "shrink.c", 10); }), "");
}

TEST(DebugRealloc, BlockUnknownToTheLogIsReportedAndStillResized) {
    auto *foreign = static_cast<char *>(malloc(3));
    memcpy(foreign, "pq", 3);
    char *resized = nullptr;
    EXPECT_EQ(stderr_of([&] {
                  resized = static_cast<char *>(
                      QOR_realloc_debug(foreign, 6, "adopt.c", 2));
              }),
              already_freed_line(2, "adopt.c"));
    ASSERT_NE(resized, nullptr);
    EXPECT_STREQ(resized, "pq");
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(resized, 1, 6, 2, "adopt.c") +
                          kDumpEnd);
    QOR_free_debug(resized, "adopt.c", 3);
}

TEST(DebugRealloc, NullBlockIsReportedAndAllocatesAFreshOne) {
    char *fresh = nullptr;
    EXPECT_EQ(stderr_of([&] {
                  fresh = static_cast<char *>(
                      QOR_realloc_debug(nullptr, 5, "new.c", 4));
              }),
              already_freed_line(4, "new.c"));
    ASSERT_NE(fresh, nullptr);
    expect_guard_at(fresh, 5);
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(fresh, 1, 5, 4, "new.c") +
                          kDumpEnd);
    QOR_free_debug(fresh, "new.c", 5);
}

// ---- Copies and joins ----------------------------------------------------

TEST(DebugCopyString, CopiesAndLogsTheLengthWithTerminator) {
    char *copy = QOR_copy_string_debug("hello", "copy.c", 11);
    EXPECT_STREQ(copy, "hello");
    expect_guard_at(copy, 6);
    EXPECT_EQ(dump(),
              kDumpHeader + allocated_line(copy, 1, 6, 11, "copy.c") + kDumpEnd);
    QOR_free_debug(copy, "copy.c", 12);
}

TEST(DebugCopyString, NullGivesANewEmptyText) {
    char *copy = QOR_copy_string_debug(nullptr, "copy.c", 13);
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "");
    EXPECT_EQ(dump(),
              kDumpHeader + allocated_line(copy, 1, 1, 13, "copy.c") + kDumpEnd);
    QOR_free_debug(copy, "copy.c", 14);
}

TEST(DebugCopyMemory, CopiesTheBytes) {
    const unsigned char source[5] = {0, 1, 2, 0, 4};
    void *copy = QOR_copy_memory_debug(source, 5, "mem.c", 1);
    EXPECT_EQ(memcmp(copy, source, 5), 0);
    expect_guard_at(copy, 5);
    EXPECT_EQ(dump(),
              kDumpHeader + allocated_line(copy, 1, 5, 1, "mem.c") + kDumpEnd);
    QOR_free_debug(copy, "mem.c", 2);
}

TEST(DebugCopyMemory, NullBlockGivesNullAndLogsNothing) {
    EXPECT_EQ(QOR_copy_memory_debug(nullptr, 5, "mem.c", 3), nullptr);
    EXPECT_EQ(dump(), kDumpHeader + kDumpEnd);
}

TEST(DebugCopyMemory, ZeroLengthGivesAOneByteBlock) {
    const char source[1] = {'z'};
    void *copy = QOR_copy_memory_debug(source, 0, "mem.c", 4);
    ASSERT_NE(copy, nullptr);
    expect_guard_at(copy, 1);
    EXPECT_EQ(dump(),
              kDumpHeader + allocated_line(copy, 1, 1, 4, "mem.c") + kDumpEnd);
    QOR_free_debug(copy, "mem.c", 5);
}

TEST(DebugCatStrings, JoinsAndLogsWithUnknownFileAndLine) {
    char *joined = QOR_cat_strings_debug("ab", "", "cde", nullptr);
    EXPECT_STREQ(joined, "abcde");
    expect_guard_at(joined, 6);
    EXPECT_EQ(dump(),
              kDumpHeader + allocated_line(joined, 1, 6, -1, "????") + kDumpEnd);
    QOR_free_debug(joined, "cat.c", 1);
}

TEST(DebugCatStrings, SingleTextIsCopied) {
    char *joined = QOR_cat_strings_debug("solo", nullptr);
    EXPECT_STREQ(joined, "solo");
    QOR_free_debug(joined, "cat.c", 1);
}

TEST(DebugCatStrings, NullFirstTextGivesANewEmptyText) {
    char *joined = QOR_cat_strings_debug(nullptr, "ignored", nullptr);
    EXPECT_STREQ(joined, "");
    EXPECT_EQ(dump(),
              kDumpHeader + allocated_line(joined, 1, 1, -1, "????") + kDumpEnd);
    QOR_free_debug(joined, "cat.c", 2);
}

TEST(DebugCatStrings, SixteenTextsGiveNoWarning) {
    char *joined = nullptr;
    EXPECT_EQ(stderr_of([&] {
                  joined = QOR_cat_strings_debug(
                      "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k",
                      "l", "m", "n", "o", "p", nullptr);
              }),
              "");
    EXPECT_STREQ(joined, "abcdefghijklmnop");
    QOR_free_debug(joined, "cat.c", 3);
}

TEST(DebugCatStrings, SeventeenTextsWarnWithTheCountAndStillJoinAll) {
    char *joined = nullptr;
    EXPECT_EQ(stderr_of([&] {
                  joined = QOR_cat_strings_debug(
                      "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k",
                      "l", "m", "n", "o", "p", "q", nullptr);
              }),
              "warning: ?? of ????: suspicious no. of params (17) for "
              "QOR_cat_strings\n");
    EXPECT_STREQ(joined, "abcdefghijklmnopq");
    EXPECT_EQ(dump(),
              kDumpHeader + allocated_line(joined, 1, 18, -1, "????") + kDumpEnd);
    QOR_free_debug(joined, "cat.c", 4);
}

// ---- Memory exhaustion ---------------------------------------------------

namespace {

struct ExhaustionCase {
    const char *name;
    qor_fault_fn fn;  // the system call made to fail
    int skip;         // calls of it that pass first
    std::function<void()> run;
};

// Each allocating function, with the system call whose failure exhausts it.
// The log is created by the first allocation, so its calloc comes after
// the block's own allocation.
std::vector<ExhaustionCase> exhaustion_cases() {
    return {
        {"malloc", QF_malloc, 0, [] { QOR_malloc_debug(10, "x.c", 1); }},
        {"calloc", QF_calloc, 0, [] { QOR_calloc_debug(2, 2, "x.c", 1); }},
        {"realloc", QF_realloc, 0,
         [] {
             void *b = QOR_malloc_debug(4, "x.c", 1);
             QOR_realloc_debug(b, 8, "x.c", 2);
         }},
        {"copy_string", QF_malloc, 0,
         [] { QOR_copy_string_debug("abc", "x.c", 1); }},
        {"copy_memory", QF_malloc, 0,
         [] { QOR_copy_memory_debug("abc", 3, "x.c", 1); }},
        {"cat_strings", QF_malloc, 0,
         [] { QOR_cat_strings_debug("a", "b", nullptr); }},
        {"log creation", QF_calloc, 0, [] { QOR_malloc_debug(10, "x.c", 1); }},
        {"log creation after calloc", QF_calloc, 1,
         [] { QOR_calloc_debug(1, 1, "x.c", 1); }},
    };
}

}  // namespace

TEST(DebugExhaustion, EveryAllocationEndsTheProcessWithStatus3) {
    for (const ExhaustionCase &c : exhaustion_cases()) {
        const qor_test::ChildResult r = qor_test::run_in_child([&] {
            qor_fault_fail(c.fn, ENOMEM, c.skip, -1);
            c.run();
            fputs("returned\n", stderr);
        });
        EXPECT_TRUE(r.exited) << c.name;
        EXPECT_EQ(r.exit_status, 3) << c.name;
        EXPECT_EQ(r.err, kExhaustedStderr) << c.name;
    }
}

TEST(DebugExhaustion, ArmedHandlerReceivesStatus2011) {
    for (const ExhaustionCase &c : exhaustion_cases()) {
        const qor_test::ChildResult r = qor_test::run_in_child([&] {
            const int value = fatal_jump_value([&] {
                qor_fault_fail(c.fn, ENOMEM, c.skip, -1);
                c.run();
            });
            qor_fault_reset();
            printf("%d", value);
        });
        EXPECT_EQ(r.exit_status, 0) << c.name;
        EXPECT_EQ(r.out, "2011") << c.name;
        EXPECT_EQ(r.err, kExhaustedStderr) << c.name;
    }
}

TEST(DebugExhaustion, RegisteredCallbackGetsFatalMessage11) {
    qor_test::MessageLog log;
    const int value = fatal_jump_value([] {
        qor_fault_fail(QF_malloc, ENOMEM, 0, 1);
        QOR_malloc_debug(10, "x.c", 1);
    });
    EXPECT_EQ(value, 2011);
    qor_test::Message expected = qor_test::msg("qor", 11, 4, {});
    expected.null_parameters = true;
    EXPECT_EQ(log.messages, std::vector<qor_test::Message>{expected});
}
