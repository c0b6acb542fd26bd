// The freestore log of the debug allocator: the dump, byte for byte, file
// names cut to 31 characters, the growth of the log by 2048 records and the
// rule by which a record is reused. Each test runs in a process of its own,
// so the log and its free counter start afresh in every one.
#include <errno.h>
#include <malloc.h>
#include <string.h>

#include "debug_support.h"

using namespace debug_test;

namespace {

constexpr int kLogStep = 2048;

// n live one-byte blocks, the i-th allocated at line i of "fill.c".
std::vector<void *> fill_log(int n) {
    std::vector<void *> blocks;
    for (int i = 0; i < n; ++i) blocks.push_back(QOR_malloc_debug(1, "fill.c", i));
    return blocks;
}

// The dump lines of blocks[i] for every i, as fill_log allocated them.
std::string allocated_lines(const std::vector<void *> &blocks, int from,
                            int to) {
    std::string lines;
    for (int i = from; i < to; ++i)
        lines += allocated_line(blocks[i], 1, 1, i, "fill.c");
    return lines;
}

}  // namespace

// ---- The dump ------------------------------------------------------------

TEST(FreestoreDump, WithNoLogPrintsOnlyTheHeaderAndTheEnd) {
    EXPECT_EQ(dump(), "\n\nDUMPING FREESTORE LOG ... \nEND OF FREESTORE DUMP\n");
}

TEST(FreestoreDump, AllocatedBlocksComeFirstThenFreedOnesEachInLogOrder) {
    void *a = QOR_malloc_debug(3, "a.c", 1);
    void *b = QOR_calloc_debug(2, 6, "b.c", 2);
    void *c = QOR_copy_string_debug("xyz", "c.c", 3);
    void *d = QOR_malloc_debug(40, "d.c", 4);
    QOR_free_debug(c, "free-c.c", 30);
    QOR_free_debug(a, "free-a.c", 10);
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(b, 2, 6, 2, "b.c") +
                          allocated_line(d, 1, 40, 4, "d.c") +
                          deallocated_line(a, 1, 3, 1, "a.c", 10, "free-a.c") +
                          deallocated_line(c, 1, 4, 3, "c.c", 30, "free-c.c") +
                          kDumpEnd);
    QOR_free_debug(b, "b.c", 5);
    QOR_free_debug(d, "d.c", 6);
}

TEST(FreestoreDump, AfterEverythingIsFreedListsOnlyDeallocatedBlocks) {
    void *a = QOR_malloc_debug(5, "a.c", 1);
    QOR_free_debug(a, "a.c", 2);
    EXPECT_EQ(dump(), kDumpHeader +
                          deallocated_line(a, 1, 5, 1, "a.c", 2, "a.c") +
                          kDumpEnd);
}

TEST(FreestoreDump, NegativeLinesAndEmptyFileNamesArePrintedAsGiven) {
    void *a = QOR_malloc_debug(2, "", -7);
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(a, 1, 2, -7, "") + kDumpEnd);
    QOR_free_debug(a, "", -8);
    EXPECT_EQ(dump(), kDumpHeader + deallocated_line(a, 1, 2, -7, "", -8, "") +
                          kDumpEnd);
}

// ---- File names ----------------------------------------------------------

TEST(FreestoreLog, FileNamesAreCutTo31Characters) {
    const std::string alloc_file(40, 'a');
    const std::string free_file = std::string(31, 'f') + "-cut";
    void *block = QOR_malloc_debug(8, alloc_file.c_str(), 1);
    EXPECT_EQ(dump(), kDumpHeader +
                          allocated_line(block, 1, 8, 1, std::string(31, 'a')) +
                          kDumpEnd);
    QOR_free_debug(block, free_file.c_str(), 2);
    EXPECT_EQ(dump(), kDumpHeader +
                          deallocated_line(block, 1, 8, 1, std::string(31, 'a'),
                                           2, std::string(31, 'f')) +
                          kDumpEnd);
    // The report names the caller's file in full; the last-use line names
    // what the log kept.
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, free_file.c_str(), 3); }),
              already_freed_line(3, free_file) +
                  last_use_line(1, std::string(31, 'a'), 2,
                                std::string(31, 'f')));
}

TEST(FreestoreLog, ThirtyOneCharacterNamesAreKeptWhole) {
    const std::string file(31, 'k');
    void *block = QOR_malloc_debug(8, file.c_str(), 1);
    QOR_free_debug(block, file.c_str(), 2);
    EXPECT_EQ(dump(), kDumpHeader +
                          deallocated_line(block, 1, 8, 1, file, 2, file) +
                          kDumpEnd);
}

TEST(FreestoreLog, NullFileNameIsShownAsNull) {
    auto *block = static_cast<unsigned char *>(QOR_malloc_debug(4, nullptr, 1));
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(block, 1, 4, 1, "(null)") +
                          kDumpEnd);
    block[4] = 0;
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, nullptr, 2); }),
              overrun_line(2, "(null)"));
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, nullptr, 3); }),
              already_freed_line(3, "(null)") +
                  last_use_line(1, "(null)", 2, "(null)"));
    free(block);
}

TEST(FreestoreLog, OverrunReportNamesTheCallersFileInFull) {
    const std::string file(45, 'o');
    auto *block = static_cast<unsigned char *>(QOR_malloc_debug(2, "o.c", 1));
    block[3] = 0;
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(block, file.c_str(), 2); }),
              overrun_line(2, file));
    free(block);
}

// ---- Growth --------------------------------------------------------------

TEST(FreestoreLog, IsCreatedWith2048RecordsAndGrowsBy2048) {
    const long callocs = qor_fault_calls(QF_calloc);
    const long reallocs = qor_fault_calls(QF_realloc);
    std::vector<void *> blocks = fill_log(kLogStep);
    EXPECT_EQ(qor_fault_calls(QF_calloc), callocs + 1);
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs);
    blocks.push_back(QOR_malloc_debug(1, "fill.c", kLogStep));
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs + 1);
    for (int i = kLogStep + 1; i < 2 * kLogStep; ++i)
        blocks.push_back(QOR_malloc_debug(1, "fill.c", i));
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs + 1);
    blocks.push_back(QOR_malloc_debug(1, "fill.c", 2 * kLogStep));
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs + 2);
    EXPECT_EQ(qor_fault_calls(QF_calloc), callocs + 1);
    EXPECT_EQ(dump(), kDumpHeader +
                          allocated_lines(blocks, 0, 2 * kLogStep + 1) +
                          kDumpEnd);
}

TEST(FreestoreLog, GrowingItWithoutMemoryIsFatal) {
    const qor_test::ChildResult r = qor_test::run_in_child([] {
        fill_log(kLogStep);
        qor_fault_fail(QF_realloc, ENOMEM, 0, -1);
        QOR_malloc_debug(1, "fill.c", kLogStep);
        fputs("returned\n", stderr);
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err, kExhaustedStderr);

    const qor_test::ChildResult armed = qor_test::run_in_child([] {
        fill_log(kLogStep);
        const int value = fatal_jump_value([] {
            qor_fault_fail(QF_realloc, ENOMEM, 0, -1);
            QOR_malloc_debug(1, "fill.c", kLogStep);
        });
        qor_fault_reset();
        printf("%d", value);
    });
    EXPECT_EQ(armed.exit_status, 0);
    EXPECT_EQ(armed.out, "2011");
    EXPECT_EQ(armed.err, kExhaustedStderr);
}

// With the handler armed the process carries on after the fatal error, so a
// block taken before the log failed to grow must not stay allocated: nobody
// holds it. The system allocator's own count of bytes in use tells.
TEST(FreestoreLog, BlockIsGivenBackWhenTheLogCannotGrow) {
    if (qor_test::under_valgrind()) GTEST_SKIP() << "valgrind keeps its own heap";
    const qor_test::ChildResult r = qor_test::run_in_child([] {
        fill_log(kLogStep);
        const size_t before = mallinfo2().uordblks;
        const int value = fatal_jump_value([] {
            qor_fault_fail(QF_realloc, ENOMEM, 0, -1);
            QOR_malloc_debug(50000, "big.c", 1);
        });
        qor_fault_reset();
        const size_t after = mallinfo2().uordblks;
        printf("%d %zu", value, after - before);
    });
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err, kExhaustedStderr);
    EXPECT_EQ(r.out, "2011 0");
}

// ---- Reusing records -----------------------------------------------------

TEST(FreestoreLog, FreedRecordIsNotReusedWhileRecordsNeverUsedRemain) {
    void *a = QOR_malloc_debug(6, "a.c", 1);
    QOR_free_debug(a, "a.c", 2);  // the first free: sequence number 0
    void *b = QOR_malloc_debug(7, "b.c", 3);
    EXPECT_EQ(dump(), kDumpHeader + allocated_line(b, 1, 7, 3, "b.c") +
                          deallocated_line(a, 1, 6, 1, "a.c", 2, "a.c") +
                          kDumpEnd);
    QOR_free_debug(b, "b.c", 4);
}

TEST(FreestoreLog, FullLogReusesTheRecordFreedFirstAndOnlyThatOne) {
    std::vector<void *> blocks = fill_log(kLogStep);
    QOR_free_debug(blocks[7], "first.c", 1);   // sequence number 0
    QOR_free_debug(blocks[3], "second.c", 2);  // sequence number 1
    const long reallocs = qor_fault_calls(QF_realloc);

    // Record 7 is taken again: its new block is listed in its place.
    void *reuse = QOR_malloc_debug(9, "reuse.c", 100);
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs);
    // Record 3 has sequence number 1: not reusable, so the log grows.
    void *grown = QOR_malloc_debug(9, "grow.c", 101);
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs + 1);

    EXPECT_EQ(dump(),
              kDumpHeader + allocated_lines(blocks, 0, 3) +
                  allocated_lines(blocks, 4, 7) +
                  allocated_line(reuse, 1, 9, 100, "reuse.c") +
                  allocated_lines(blocks, 8, kLogStep) +
                  allocated_line(grown, 1, 9, 101, "grow.c") +
                  deallocated_line(blocks[3], 1, 1, 3, "fill.c", 2, "second.c") +
                  kDumpEnd);

    // Freed again, record 7 gets a new sequence number: no record is
    // reusable any more, and the log keeps growing.
    QOR_free_debug(reuse, "reuse.c", 102);
    for (int i = 0; i < kLogStep - 1; ++i) QOR_malloc_debug(1, "more.c", i);
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs + 1);
    QOR_malloc_debug(1, "more.c", kLogStep);
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs + 2);
}

TEST(FreestoreLog, OverrunFreeStillTakesASequenceNumber) {
    std::vector<void *> blocks = fill_log(kLogStep);
    static_cast<unsigned char *>(blocks[5])[1] = 0;  // first guard byte
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(blocks[5], "over.c", 1); }),
              overrun_line(1, "over.c"));
    QOR_free_debug(blocks[9], "ok.c", 2);
    const long reallocs = qor_fault_calls(QF_realloc);
    void *reuse = QOR_malloc_debug(2, "reuse.c", 3);
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs);  // record 5 reused
    EXPECT_EQ(dump(),
              kDumpHeader + allocated_lines(blocks, 0, 5) +
                  allocated_line(reuse, 1, 2, 3, "reuse.c") +
                  allocated_lines(blocks, 6, 9) +
                  allocated_lines(blocks, 10, kLogStep) +
                  deallocated_line(blocks[9], 1, 1, 9, "fill.c", 2, "ok.c") +
                  kDumpEnd);
    free(blocks[5]);  // kept by the allocator, and now forgotten by the log
}

TEST(FreestoreLog, RejectedFreeTakesNoSequenceNumber) {
    std::vector<void *> blocks = fill_log(kLogStep);
    void *foreign = malloc(8);
    EXPECT_EQ(stderr_of([&] { QOR_free_debug(foreign, "foreign.c", 1); }),
              already_freed_line(1, "foreign.c"));
    free(foreign);
    QOR_free_debug(blocks[2], "ok.c", 2);  // still sequence number 0
    const long reallocs = qor_fault_calls(QF_realloc);
    void *reuse = QOR_malloc_debug(2, "reuse.c", 3);
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs);
    EXPECT_EQ(dump(), kDumpHeader + allocated_lines(blocks, 0, 2) +
                          allocated_line(reuse, 1, 2, 3, "reuse.c") +
                          allocated_lines(blocks, 3, kLogStep) + kDumpEnd);
}

TEST(FreestoreLog, ResizeCountsAsAFreeAndMayReuseItsOwnRecord) {
    std::vector<void *> blocks = fill_log(kLogStep);
    const long reallocs = qor_fault_calls(QF_realloc);
    // The check frees record 4 with sequence number 0, and the resized
    // block is then logged in that same record: the log does not grow.
    void *resized = QOR_realloc_debug(blocks[4], 30, "resize.c", 8);
    EXPECT_EQ(qor_fault_calls(QF_realloc), reallocs + 1);  // the block's own
    EXPECT_EQ(dump(), kDumpHeader + allocated_lines(blocks, 0, 4) +
                          allocated_line(resized, 1, 30, 8, "resize.c") +
                          allocated_lines(blocks, 5, kLogStep) + kDumpEnd);
}
