// The freestore: pieces, chunks, marks, the shared freestore and the dump.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

constexpr uint32_t kHeader = 16;

std::string dump_of(QOR_FS_allocator *fs, int verbose) {
    qor_test::StderrCapture capture;
    QOR_FS_dump(fs, verbose);
    return capture.take();
}

std::vector<QOR_FS_chunk *> chain(const QOR_FS_allocator &fs) {
    std::vector<QOR_FS_chunk *> chunks;
    for (QOR_FS_chunk *c = fs.first_chunk; c != nullptr; c = c->next)
        chunks.push_back(c);
    return chunks;
}

char *data_of(QOR_FS_chunk *c) { return reinterpret_cast<char *>(c) + kHeader; }

bool all_zero(const void *p, size_t n) {
    const auto *b = static_cast<const unsigned char *>(p);
    for (size_t i = 0; i < n; ++i)
        if (b[i] != 0) return false;
    return true;
}

qor_test::Message repair_message() {
    qor_test::Message m = qor_test::msg("qor", 2501, 7, {});
    m.null_parameters = true;
    return m;
}

// A freestore that is destroyed at the end of the test.
struct Freestore {
    QOR_FS_allocator fs;
    Freestore(uint32_t chunk_size, uint32_t options) {
        QOR_FS_initialise(&fs, chunk_size, options);
    }
    ~Freestore() { QOR_FS_destroy(&fs); }
    QOR_FS_allocator *operator->() { return &fs; }
    QOR_FS_allocator *get() { return &fs; }
};

// ---- Set-up ---------------------------------------------------------------

TEST(Freestore, InitialiseRoundsChunkSizeUpToMultipleOfFour) {
    QOR_FS_allocator fs;
    memset(&fs, 0xAB, sizeof fs);
    QOR_FS_initialise(&fs, 990, 0x1);
    EXPECT_EQ(fs.chunk_size, 992u);
    EXPECT_EQ(fs.options, 0x1u);
    EXPECT_EQ(fs.first_chunk, nullptr);
    EXPECT_EQ(fs.current_chunk, nullptr);
    EXPECT_EQ(fs.oversized_count, 0u);
    QOR_FS_initialise(&fs, 992, 0);
    EXPECT_EQ(fs.chunk_size, 992u);
}

TEST(Freestore, InitialiseAllocatesNothing) {
    QOR_FS_allocator fs;
    qor_fault_reset();  // counts only what follows
    QOR_FS_initialise(&fs, 64, 0);
    EXPECT_EQ(qor_fault_calls(QF_malloc), 0);
    EXPECT_EQ(qor_fault_calls(QF_calloc), 0);
}

TEST(Freestore, SharedFreestoreIsStaticDataWithItsSettings) {
    EXPECT_EQ(QOR_SH_fs_allocator.chunk_size, 2016u);
    EXPECT_EQ(QOR_SH_fs_allocator.options, 0u);
    EXPECT_EQ(QOR_SH_fs_allocator.first_chunk, nullptr);
    EXPECT_EQ(QOR_SH_fs_allocator.current_chunk, nullptr);
    EXPECT_EQ(QOR_SH_fs_allocator.oversized_count, 0u);
    // Usable at once, without any set-up call.
    char *s = QOR_FS_copy_string(&QOR_SH_fs_allocator, "shared");
    EXPECT_STREQ(s, "shared");
    ASSERT_NE(QOR_SH_fs_allocator.current_chunk, nullptr);
    EXPECT_EQ(QOR_SH_fs_allocator.current_chunk->size, 2016u + kHeader);
    QOR_FS_destroy(&QOR_SH_fs_allocator);
}

TEST(Freestore, StaticInitialiserGivesAFreshFreestore) {
    static QOR_FS_allocator fs = QOR_FS_INITIALISER(100, QOR_FS_CLEAR);
    EXPECT_EQ(fs.chunk_size, 100u);
    EXPECT_EQ(fs.options, QOR_FS_CLEAR);
    EXPECT_EQ(fs.first_chunk, nullptr);
    void *p = QOR_FS_malloc(&fs, 10);
    EXPECT_TRUE(all_zero(p, 12));
    QOR_FS_destroy(&fs);
}

// ---- Allocation -----------------------------------------------------------

TEST(Freestore, MallocOfOneByteUsesFourBytes) {
    Freestore fs(64, 0);
    char *p = static_cast<char *>(QOR_FS_malloc(fs.get(), 1));
    ASSERT_NE(p, nullptr);
    ASSERT_NE(fs->current_chunk, nullptr);
    EXPECT_EQ(p, data_of(fs->current_chunk));
    EXPECT_EQ(fs->current_chunk->used, kHeader + 4);
    EXPECT_EQ(QOR_FS_malloc(fs.get(), 1), p + 4);
}

TEST(Freestore, MallocOfZeroReturnsNullAndUsesNothing) {
    Freestore fs(64, 0);
    EXPECT_EQ(QOR_FS_malloc(fs.get(), 0), nullptr);
    EXPECT_EQ(fs->first_chunk, nullptr);
    EXPECT_EQ(fs->current_chunk, nullptr);
    QOR_FS_malloc(fs.get(), 8);
    EXPECT_EQ(QOR_FS_malloc(fs.get(), 0), nullptr);
    EXPECT_EQ(fs->current_chunk->used, kHeader + 8);
}

TEST(Freestore, PieceAfterFiveBytePieceStartsEightBytesLater) {
    Freestore fs(64, 0);
    char *a = static_cast<char *>(QOR_FS_malloc(fs.get(), 5));
    char *b = static_cast<char *>(QOR_FS_malloc(fs.get(), 8));
    EXPECT_EQ(b - a, 8);
}

TEST(Freestore, PiecesKeepOnlyFourByteAlignment) {
    Freestore fs(64, 0);
    char *a = static_cast<char *>(QOR_FS_malloc(fs.get(), 4));
    // Meant for a pointer, yet placed 4 bytes on: not 8-aligned.
    char *b = static_cast<char *>(QOR_FS_malloc(fs.get(), sizeof(void *)));
    EXPECT_EQ(b - a, 4);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 8, 0u);  // chunk data start
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 8, 4u);
    // Storing a pointer there is done bytewise, as the library does.
    void *value = &fs;
    memcpy(b, &value, sizeof value);
    void *back = nullptr;
    memcpy(&back, b, sizeof back);
    EXPECT_EQ(back, value);
}

TEST(Freestore, RequestOfChunkSizeFillsAStandardChunk) {
    Freestore fs(2016, 0);
    void *p = QOR_FS_malloc(fs.get(), 2016);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(fs->oversized_count, 0u);
    EXPECT_EQ(fs->current_chunk->size, 2016u + kHeader);
    EXPECT_EQ(fs->current_chunk->used, fs->current_chunk->size);
}

TEST(Freestore, RequestAboveChunkSizeMakesAnOversizedChunk) {
    Freestore fs(2016, 0);
    char *p = static_cast<char *>(QOR_FS_malloc(fs.get(), 2017));
    EXPECT_EQ(fs->oversized_count, 1u);
    ASSERT_NE(fs->current_chunk, nullptr);
    EXPECT_EQ(fs->current_chunk->size, 2020u + kHeader);
    EXPECT_EQ(fs->current_chunk->used, 2020u + kHeader);
    EXPECT_EQ(p, data_of(fs->current_chunk));
}

TEST(Freestore, OversizedChunkIsCurrentAndFullSoTheNextPieceMovesOn) {
    Freestore fs(64, 0);
    QOR_FS_malloc(fs.get(), 8);
    QOR_FS_chunk *first = fs->current_chunk;
    QOR_FS_malloc(fs.get(), 100);
    QOR_FS_chunk *big = fs->current_chunk;
    EXPECT_EQ(first->next, big);
    char *p = static_cast<char *>(QOR_FS_malloc(fs.get(), 4));
    QOR_FS_chunk *third = fs->current_chunk;
    EXPECT_NE(third, big);
    EXPECT_EQ(big->next, third);
    EXPECT_EQ(p, data_of(third));
    // The first chunk had room, but only the current chunk is bumped.
    EXPECT_EQ(first->used, kHeader + 8);
}

TEST(Freestore, NewOversizedChunkGoesBeforeKeptChunks) {
    Freestore fs(64, 0);
    QOR_FS_malloc(fs.get(), 8);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    QOR_FS_malloc(fs.get(), 64);
    QOR_FS_malloc(fs.get(), 64);
    QOR_FS_restore(fs.get(), &mark);
    std::vector<QOR_FS_chunk *> before = chain(fs.fs);
    ASSERT_EQ(before.size(), 3u);
    QOR_FS_malloc(fs.get(), 60);  // does not fit the 56 left
    EXPECT_EQ(fs->current_chunk, before[1]);  // kept chunk reused
    QOR_FS_malloc(fs.get(), 200);
    std::vector<QOR_FS_chunk *> after = chain(fs.fs);
    ASSERT_EQ(after.size(), 4u);
    EXPECT_EQ(after[1], before[1]);
    EXPECT_EQ(after[2], fs->current_chunk);  // the oversized one
    EXPECT_EQ(after[3], before[2]);
}

TEST(Freestore, NewChunksComeFromMallocOrFromCallocUnderTheClearOption) {
    qor_fault_reset();  // counts only what follows
    {
        Freestore fs(64, 0);
        QOR_FS_malloc(fs.get(), 8);
        QOR_FS_malloc(fs.get(), 100);
        EXPECT_EQ(qor_fault_calls(QF_malloc), 2);
        EXPECT_EQ(qor_fault_calls(QF_calloc), 0);
    }
    qor_fault_reset();
    {
        Freestore fs(64, QOR_FS_CLEAR);
        QOR_FS_malloc(fs.get(), 8);
        QOR_FS_malloc(fs.get(), 100);
        EXPECT_EQ(qor_fault_calls(QF_malloc), 0);
        EXPECT_EQ(qor_fault_calls(QF_calloc), 2);
    }
}

TEST(Freestore, HugeRequestIsAnAssertionFailure) {
    qor_test::ChildResult r = qor_test::run_in_child([] {
        QOR_FS_allocator fs;
        QOR_FS_initialise(&fs, 64, 0);
        QOR_FS_malloc(&fs, 0xFFFFFFFFu);
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_NE(r.err.find("set=File freestore, Line "), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find(": QOR_FS_malloc called to allocate too many bytes"),
              std::string::npos)
        << r.err;
}

TEST(Freestore, CallocGivesZerosWithoutTheClearOption) {
    Freestore fs(64, 0);
    char *dirty = static_cast<char *>(QOR_FS_malloc(fs.get(), 40));
    memset(dirty, 0x5A, 40);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    QOR_FS_empty(fs.get());
    char *p = static_cast<char *>(QOR_FS_calloc(fs.get(), 3, 10));
    EXPECT_EQ(p, dirty);
    EXPECT_TRUE(all_zero(p, 30));
    EXPECT_EQ(fs->current_chunk->used, kHeader + 32);
}

TEST(Freestore, CallocOfZeroProductReturnsNull) {
    Freestore fs(64, 0);
    EXPECT_EQ(QOR_FS_calloc(fs.get(), 0, 10), nullptr);
    EXPECT_EQ(QOR_FS_calloc(fs.get(), 10, 0), nullptr);
    // The product is taken in 32 bits: 65536 x 65536 wraps to 0.
    EXPECT_EQ(QOR_FS_calloc(fs.get(), 65536, 65536), nullptr);
    EXPECT_EQ(fs->first_chunk, nullptr);
}

TEST(Freestore, CallocProductWrapsToThirtyTwoBits) {
    Freestore fs(64, 0);
    // 65537 x 65536 = 2^32 + 65536, taken as 65536 bytes.
    QOR_FS_calloc(fs.get(), 65537, 65536);
    EXPECT_EQ(fs->oversized_count, 1u);
    EXPECT_EQ(fs->current_chunk->size, 65536u + kHeader);
}

// ---- Copies and concatenation ---------------------------------------------

TEST(Freestore, CopyStringCopiesIntoTheFreestore) {
    Freestore fs(64, 0);
    const char text[] = "hello";
    char *s = QOR_FS_copy_string(fs.get(), text);
    EXPECT_STREQ(s, "hello");
    EXPECT_NE(s, text);
    EXPECT_EQ(s, data_of(fs->current_chunk));
    EXPECT_EQ(fs->current_chunk->used, kHeader + 8);
}

TEST(Freestore, CopyStringOfNullGivesEmptyString) {
    Freestore fs(64, 0);
    char *s = QOR_FS_copy_string(fs.get(), nullptr);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "");
    EXPECT_EQ(fs->current_chunk->used, kHeader + 4);  // a 1-byte piece
}

TEST(Freestore, CopyMemoryCopiesNBytes) {
    Freestore fs(64, 0);
    const unsigned char bytes[6] = {1, 0, 2, 0, 3, 255};
    auto *p = static_cast<unsigned char *>(QOR_FS_copy_memory(fs.get(), bytes, 6));
    EXPECT_EQ(memcmp(p, bytes, 6), 0);
    EXPECT_EQ(fs->current_chunk->used, kHeader + 8);
}

TEST(Freestore, CopyMemoryOfNullGivesNull) {
    Freestore fs(64, 0);
    EXPECT_EQ(QOR_FS_copy_memory(fs.get(), nullptr, 10), nullptr);
    EXPECT_EQ(fs->first_chunk, nullptr);
}

TEST(Freestore, CopyMemoryOfZeroBytesGivesAOneBytePieceLeftUnwritten) {
    Freestore fs(64, 0);
    char *dirty = static_cast<char *>(QOR_FS_malloc(fs.get(), 4));
    memset(dirty, 0x77, 4);
    QOR_FS_empty(fs.get());
    const char src[] = "x";
    char *p = static_cast<char *>(QOR_FS_copy_memory(fs.get(), src, 0));
    ASSERT_EQ(p, dirty);
    EXPECT_EQ(p[0], 0x77);  // not written
    EXPECT_EQ(fs->current_chunk->used, kHeader + 4);
}

TEST(Freestore, CatStringsJoinsUpToTheNull) {
    Freestore fs(64, 0);
    char *s = QOR_FS_cat_strings(fs.get(), "a", "b", "c", nullptr);
    EXPECT_STREQ(s, "abc");
    EXPECT_EQ(fs->current_chunk->used, kHeader + 4);  // one piece of 4
}

TEST(Freestore, CatStringsWithNullFirstGivesEmptyAndReadsNoMore) {
    Freestore fs(64, 0);
    // The argument after a null first string is never looked at: an invalid
    // pointer there would crash if it were.
    const char *poison = reinterpret_cast<const char *>(uintptr_t{1});
    char *s = QOR_FS_cat_strings(fs.get(), nullptr, poison, nullptr);
    EXPECT_STREQ(s, "");
}

TEST(Freestore, CatStringsJoinsMoreThanThirtyTwoStrings) {
    Freestore fs(64, 0);
    const char *w[40];
    std::string expected;
    std::vector<std::string> words;
    for (int i = 0; i < 40; ++i) words.push_back(std::to_string(i) + ",");
    for (int i = 0; i < 40; ++i) {
        w[i] = words[i].c_str();
        expected += words[i];
    }
    char *s = QOR_FS_cat_strings(
        fs.get(), w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7], w[8], w[9],
        w[10], w[11], w[12], w[13], w[14], w[15], w[16], w[17], w[18], w[19],
        w[20], w[21], w[22], w[23], w[24], w[25], w[26], w[27], w[28], w[29],
        w[30], w[31], w[32], w[33], w[34], w[35], w[36], w[37], w[38], w[39],
        nullptr);
    EXPECT_EQ(std::string(s), expected);
    EXPECT_EQ(fs->oversized_count, 1u);  // 111 bytes, one piece
}

TEST(Freestore, SharedCatStringsBuildsInTheSharedFreestore) {
    qor_fault_reset();  // counts only what follows
    char *s = QOR_SH_cat_strings("x/", "y", "/z", nullptr);
    EXPECT_STREQ(s, "x/y/z");
    ASSERT_NE(QOR_SH_fs_allocator.current_chunk, nullptr);
    EXPECT_EQ(s, data_of(QOR_SH_fs_allocator.current_chunk));
    // The copy of the first string went back to basic space.
    EXPECT_EQ(qor_fault_calls(QF_malloc), 2);  // the copy and the chunk
    QOR_FS_destroy(&QOR_SH_fs_allocator);
}

TEST(Freestore, SharedCatStringsWithNullFirstStillJoinsTheRest) {
    char *s = QOR_SH_cat_strings(nullptr, "a", "b", nullptr);
    EXPECT_STREQ(s, "ab");
    QOR_FS_destroy(&QOR_SH_fs_allocator);
}

// ---- Marks, empty, destroy ------------------------------------------------

TEST(Freestore, SaveOnAFreshFreestoreTakesNothing) {
    Freestore fs(64, 0);
    QOR_FS_mark mark;
    memset(&mark, 0xCD, sizeof mark);
    QOR_FS_save(fs.get(), &mark);
    EXPECT_EQ(mark.chunk, nullptr);
    EXPECT_EQ(mark.used, 0u);
    EXPECT_EQ(mark.oversized_count, 0u);
}

TEST(Freestore, SaveTakesCurrentChunkUsedAndCount) {
    Freestore fs(64, 0);
    QOR_FS_malloc(fs.get(), 100);
    QOR_FS_malloc(fs.get(), 12);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    EXPECT_EQ(mark.chunk, fs->current_chunk);
    EXPECT_EQ(mark.used, kHeader + 12);
    EXPECT_EQ(mark.oversized_count, 1u);
}

TEST(Freestore, RestoringAMarkTakenOnAFreshFreestoreEmptiesIt) {
    Freestore fs(64, 0);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    QOR_FS_malloc(fs.get(), 40);
    QOR_FS_malloc(fs.get(), 40);
    QOR_FS_malloc(fs.get(), 100);
    ASSERT_EQ(chain(fs.fs).size(), 3u);
    QOR_FS_restore(fs.get(), &mark);
    // Standard chunks kept, the first one current and empty.
    std::vector<QOR_FS_chunk *> c = chain(fs.fs);
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(fs->current_chunk, c[0]);
    EXPECT_EQ(c[0]->used, kHeader);
    EXPECT_EQ(fs->oversized_count, 0u);
}

TEST(Freestore, RestoreReturnsToTheMarkAndKeepsEarlierPieces) {
    Freestore fs(64, 0);
    char *keep = QOR_FS_copy_string(fs.get(), "kept");
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    char *gone = QOR_FS_copy_string(fs.get(), "gone");
    QOR_FS_restore(fs.get(), &mark);
    EXPECT_STREQ(keep, "kept");
    EXPECT_EQ(fs->current_chunk->used, mark.used);
    char *again = QOR_FS_copy_string(fs.get(), "next");
    EXPECT_EQ(again, gone);  // the space is handed out again
}

TEST(Freestore, NestedMarksRestoreInReverseOrder) {
    Freestore fs(32, 0);
    QOR_FS_mark outer, inner;
    char *a = QOR_FS_copy_string(fs.get(), "outer piece");
    QOR_FS_save(fs.get(), &outer);
    char *b = QOR_FS_copy_string(fs.get(), "inner piece, long");
    QOR_FS_save(fs.get(), &inner);
    QOR_FS_malloc(fs.get(), 30);
    QOR_FS_malloc(fs.get(), 300);
    EXPECT_EQ(fs->oversized_count, 1u);
    QOR_FS_restore(fs.get(), &inner);
    EXPECT_EQ(fs->oversized_count, 0u);
    EXPECT_STREQ(a, "outer piece");
    EXPECT_STREQ(b, "inner piece, long");
    QOR_FS_restore(fs.get(), &outer);
    EXPECT_STREQ(a, "outer piece");
    EXPECT_EQ(fs->current_chunk, fs->first_chunk);
    EXPECT_EQ(fs->current_chunk->used, kHeader + 12);
}

TEST(Freestore, RestoreFreesAnOversizedChunkMadeSinceTheSave) {
    Freestore fs(2016, 0);
    QOR_FS_malloc(fs.get(), 10);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    QOR_FS_malloc(fs.get(), 3000);
    EXPECT_EQ(fs->oversized_count, 1u);
    ASSERT_EQ(chain(fs.fs).size(), 2u);
    QOR_FS_restore(fs.get(), &mark);
    EXPECT_EQ(fs->oversized_count, 0u);
    ASSERT_EQ(chain(fs.fs).size(), 1u);
    EXPECT_EQ(fs->first_chunk->next, nullptr);
}

TEST(Freestore, RestoreKeepsOversizedChunksFromBeforeTheSave) {
    Freestore fs(64, 0);
    char *big = static_cast<char *>(QOR_FS_malloc(fs.get(), 200));
    memset(big, 'B', 200);
    QOR_FS_malloc(fs.get(), 8);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    QOR_FS_malloc(fs.get(), 300);
    QOR_FS_malloc(fs.get(), 60);
    QOR_FS_malloc(fs.get(), 400);
    EXPECT_EQ(fs->oversized_count, 3u);
    qor_test::MessageLog log;
    QOR_FS_restore(fs.get(), &mark);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(fs->oversized_count, 1u);
    std::vector<QOR_FS_chunk *> c = chain(fs.fs);
    ASSERT_EQ(c.size(), 3u);  // big, the marked chunk, the kept one
    EXPECT_EQ(c[0]->size, 200u + kHeader);
    EXPECT_EQ(c[1], mark.chunk);
    EXPECT_EQ(c[2]->size, 64u + kHeader);
    EXPECT_EQ(big[199], 'B');
}

TEST(Freestore, SaveTwoNewChunksRestoreKeepsThemAndReusesWithoutSystemCalls) {
    Freestore fs(2016, 0);
    QOR_FS_malloc(fs.get(), 100);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    char *p1 = static_cast<char *>(QOR_FS_malloc(fs.get(), 2000));
    char *p2 = static_cast<char *>(QOR_FS_malloc(fs.get(), 2000));
    ASSERT_EQ(chain(fs.fs).size(), 3u);
    QOR_FS_restore(fs.get(), &mark);
    ASSERT_EQ(chain(fs.fs).size(), 3u);
    EXPECT_EQ(dump_of(fs.get(), 0),
              "*** Dump of Freestore Allocator ***\n\n"
              "Standard Chunk Size        : 2032\t(Basic Size : 2016, Chunk "
              "Overhead : 16)\n"
              "Options                    : 0x0\n"
              "Oversized Chunk Count      : 0\n\n"
              "Number of Used Chunks      : 1\n"
              "Used Chunk Space Allocated : 2032\t(Basic : 2016, Overhead : "
              "16)\n\n"
              "Number of Free Chunks      : 2\n"
              "Free Chunk Space Allocated : 4064\t(Basic : 4032, Overhead : "
              "32)\n\n"
              "Total Number of Chunks     : 3\n"
              "Total Space Allocated      : 6096\t(Basic : 6048, Overhead : "
              "48)\n"
              "Total Basic Space Usage    :\t(Used : 100, Wasted : 0, Free : "
              "5948)\n\n"
              "*** Finished Dump of Freestore Allocator ***\n");
    qor_fault_reset();
    EXPECT_EQ(QOR_FS_malloc(fs.get(), 2000), p1);
    EXPECT_EQ(QOR_FS_malloc(fs.get(), 2000), p2);
    EXPECT_EQ(QOR_FS_malloc(fs.get(), 16), p2 + 2000);
    EXPECT_EQ(qor_fault_calls(QF_malloc), 0);
    EXPECT_EQ(qor_fault_calls(QF_calloc), 0);
    EXPECT_EQ(qor_fault_calls(QF_realloc), 0);
    EXPECT_EQ(chain(fs.fs).size(), 3u);
}

TEST(Freestore, EmptyKeepsStandardChunksAndFreesOversizedOnes) {
    Freestore fs(64, 0);
    QOR_FS_malloc(fs.get(), 60);
    QOR_FS_malloc(fs.get(), 100);
    QOR_FS_malloc(fs.get(), 60);
    QOR_FS_malloc(fs.get(), 100);
    ASSERT_EQ(chain(fs.fs).size(), 4u);
    qor_test::MessageLog log;
    QOR_FS_empty(fs.get());
    EXPECT_TRUE(log.messages.empty());
    std::vector<QOR_FS_chunk *> c = chain(fs.fs);
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(c[0]->size, 64u + kHeader);
    EXPECT_EQ(c[1]->size, 64u + kHeader);
    EXPECT_EQ(fs->current_chunk, c[0]);
    EXPECT_EQ(c[0]->used, kHeader);
    EXPECT_EQ(fs->oversized_count, 0u);
}

TEST(Freestore, EmptyOfAFreshFreestoreStaysWithoutChunks) {
    Freestore fs(64, 0);
    qor_fault_reset();  // counts only what follows
    QOR_FS_empty(fs.get());
    EXPECT_EQ(fs->first_chunk, nullptr);
    EXPECT_EQ(fs->current_chunk, nullptr);
    EXPECT_EQ(qor_fault_calls(QF_malloc), 0);
}

TEST(Freestore, EmptyWhenOnlyOversizedChunksLeavesNoChunk) {
    Freestore fs(64, 0);
    QOR_FS_malloc(fs.get(), 100);
    QOR_FS_empty(fs.get());
    EXPECT_EQ(fs->first_chunk, nullptr);
    EXPECT_EQ(fs->current_chunk, nullptr);
    char *p = static_cast<char *>(QOR_FS_malloc(fs.get(), 4));
    ASSERT_NE(fs->current_chunk, nullptr);
    EXPECT_EQ(p, data_of(fs->current_chunk));
    EXPECT_EQ(fs->current_chunk->size, 64u + kHeader);
    EXPECT_EQ(chain(fs.fs).size(), 1u);
}

TEST(Freestore, DestroyFreesAllChunksAndKeepsTheSettings) {
    QOR_FS_allocator fs;
    QOR_FS_initialise(&fs, 64, QOR_FS_CLEAR);
    QOR_FS_malloc(&fs, 60);
    QOR_FS_malloc(&fs, 100);
    QOR_FS_malloc(&fs, 60);
    QOR_FS_destroy(&fs);
    EXPECT_EQ(fs.first_chunk, nullptr);
    EXPECT_EQ(fs.current_chunk, nullptr);
    EXPECT_EQ(fs.oversized_count, 0u);
    EXPECT_EQ(fs.chunk_size, 64u);
    EXPECT_EQ(fs.options, QOR_FS_CLEAR);
    // Usable again at once.
    char *s = QOR_FS_copy_string(&fs, "again");
    EXPECT_STREQ(s, "again");
    QOR_FS_destroy(&fs);
    QOR_FS_destroy(&fs);  // nothing left: harmless
    EXPECT_EQ(fs.first_chunk, nullptr);
}

// ---- The clear option -----------------------------------------------------

TEST(Freestore, ClearOptionZeroesAPieceAllocatedAfterARestore) {
    Freestore fs(64, QOR_FS_CLEAR);
    QOR_FS_malloc(fs.get(), 8);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    char *p = static_cast<char *>(QOR_FS_malloc(fs.get(), 40));
    memset(p, 0xEE, 40);
    QOR_FS_restore(fs.get(), &mark);
    char *q = static_cast<char *>(QOR_FS_malloc(fs.get(), 40));
    ASSERT_EQ(q, p);
    EXPECT_TRUE(all_zero(q, 40));
}

TEST(Freestore, ClearOptionZeroesKeptChunksWhenTheyAreReused) {
    Freestore fs(64, QOR_FS_CLEAR);
    QOR_FS_malloc(fs.get(), 8);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    char *p1 = static_cast<char *>(QOR_FS_malloc(fs.get(), 64));
    char *p2 = static_cast<char *>(QOR_FS_malloc(fs.get(), 64));
    memset(p1, 0x11, 64);
    memset(p2, 0x22, 64);
    QOR_FS_restore(fs.get(), &mark);
    char *q1 = static_cast<char *>(QOR_FS_malloc(fs.get(), 64));
    char *q2 = static_cast<char *>(QOR_FS_malloc(fs.get(), 16));
    ASSERT_EQ(q1, p1);
    ASSERT_EQ(q2, p2);
    EXPECT_TRUE(all_zero(q1, 64));
    // The whole used part of the kept chunk was cleared, not only the piece.
    EXPECT_TRUE(all_zero(q2, 64));
}

TEST(Freestore, ClearOptionZeroesTheFirstChunkOnEmpty) {
    Freestore fs(64, QOR_FS_CLEAR);
    char *p = static_cast<char *>(QOR_FS_malloc(fs.get(), 60));
    memset(p, 0x33, 60);
    QOR_FS_empty(fs.get());
    EXPECT_TRUE(all_zero(p, 64));
    EXPECT_EQ(QOR_FS_malloc(fs.get(), 60), p);
}

TEST(Freestore, WithoutClearOptionRestoredStorageKeepsOldBytes) {
    Freestore fs(64, 0);
    QOR_FS_malloc(fs.get(), 8);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    char *p = static_cast<char *>(QOR_FS_malloc(fs.get(), 8));
    memset(p, 0x44, 8);
    QOR_FS_restore(fs.get(), &mark);
    char *q = static_cast<char *>(QOR_FS_malloc(fs.get(), 8));
    ASSERT_EQ(q, p);
    EXPECT_EQ(q[0], 0x44);
}

// ---- Repair of a wrong oversized count ------------------------------------

TEST(Freestore, EmptyRepairsAnOversizedCountTooHigh) {
    Freestore fs(64, 0);
    QOR_FS_malloc(fs.get(), 8);
    QOR_FS_malloc(fs.get(), 100);
    fs->oversized_count = 3;  // only one exists
    qor_test::MessageLog log;
    QOR_FS_empty(fs.get());
    EXPECT_EQ(log.messages, std::vector<qor_test::Message>{repair_message()});
    EXPECT_EQ(fs->oversized_count, 0u);
    ASSERT_EQ(chain(fs.fs).size(), 1u);  // the oversized one was freed
    EXPECT_EQ(fs->current_chunk, fs->first_chunk);
    EXPECT_EQ(fs->first_chunk->used, kHeader);
}

TEST(Freestore, RestoreRepairsAndRecountsUpToTheCurrentChunk) {
    Freestore fs(64, 0);
    QOR_FS_malloc(fs.get(), 100);  // oversized, before the mark
    QOR_FS_malloc(fs.get(), 8);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    EXPECT_EQ(mark.oversized_count, 1u);
    QOR_FS_malloc(fs.get(), 200);  // oversized, after the mark
    fs->oversized_count = 4;       // claims three since the mark
    qor_test::MessageLog log;
    QOR_FS_restore(fs.get(), &mark);
    EXPECT_EQ(log.messages, std::vector<qor_test::Message>{repair_message()});
    // The one before the mark is counted again; the later one was freed.
    EXPECT_EQ(fs->oversized_count, 1u);
    EXPECT_EQ(chain(fs.fs).size(), 2u);
    EXPECT_EQ(fs->current_chunk, mark.chunk);
}

TEST(Freestore, RestoreRepairsACountBelowTheMarkedOne) {
    Freestore fs(64, 0);
    QOR_FS_malloc(fs.get(), 100);
    QOR_FS_malloc(fs.get(), 8);
    QOR_FS_mark mark;
    QOR_FS_save(fs.get(), &mark);
    fs->oversized_count = 0;  // below the marked 1: nothing to free matches
    qor_test::MessageLog log;
    QOR_FS_restore(fs.get(), &mark);
    EXPECT_EQ(log.messages, std::vector<qor_test::Message>{repair_message()});
    EXPECT_EQ(fs->oversized_count, 1u);
    EXPECT_EQ(chain(fs.fs).size(), 2u);
}

TEST(Freestore, RepairWithoutCallbacksPrintsTheUntranslatedMessage) {
    qor_test::ChildResult r = qor_test::run_in_child([] {
        QOR_FS_allocator fs;
        QOR_FS_initialise(&fs, 64, 0);
        QOR_FS_malloc(&fs, 8);
        fs.oversized_count = 1;
        QOR_FS_empty(&fs);
        printf("count %u\n", fs.oversized_count);
        QOR_FS_destroy(&fs);
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "count 0\n");
    EXPECT_EQ(r.err,
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=2501, type=7\n");
}

// ---- Dump -----------------------------------------------------------------

const char kFreshDump[] =
    "*** Dump of Freestore Allocator ***\n\n"
    "Standard Chunk Size        : 2032\t(Basic Size : 2016, Chunk Overhead : "
    "16)\n"
    "Options                    : 0x0\n"
    "Oversized Chunk Count      : 0\n\n"
    "Number of Used Chunks      : 0\n"
    "Used Chunk Space Allocated : 0\t(Basic : 0, Overhead : 0)\n\n"
    "Number of Free Chunks      : 0\n"
    "Free Chunk Space Allocated : 0\t(Basic : 0, Overhead : 0)\n\n"
    "Total Number of Chunks     : 0\n"
    "Total Space Allocated      : 0\t(Basic : 0, Overhead : 0)\n"
    "Total Basic Space Usage    :\t(Used : 0, Wasted : 0, Free : 0)\n\n"
    "*** Finished Dump of Freestore Allocator ***\n";

TEST(FreestoreDump, FreshFreestore) {
    EXPECT_EQ(dump_of(&QOR_SH_fs_allocator, 0), kFreshDump);
    EXPECT_EQ(dump_of(&QOR_SH_fs_allocator, 1), kFreshDump);
}

// Chunks: 1 standard (12 used), 2 oversized (100), 3 standard and current
// (20 used), then 4 and 5 kept free.
void fill_mixed(QOR_FS_allocator *fs) {
    QOR_FS_malloc(fs, 10);
    QOR_FS_malloc(fs, 100);
    QOR_FS_malloc(fs, 20);
    QOR_FS_mark mark;
    QOR_FS_save(fs, &mark);
    QOR_FS_malloc(fs, 64);
    QOR_FS_malloc(fs, 8);
    QOR_FS_restore(fs, &mark);
}

TEST(FreestoreDump, UsedFreeAndOversizedChunksVerbose) {
    Freestore fs(64, 0);
    fill_mixed(fs.get());
    EXPECT_EQ(dump_of(fs.get(), 1),
              "*** Dump of Freestore Allocator ***\n\n"
              "Standard Chunk Size        : 80\t(Basic Size : 64, Chunk "
              "Overhead : 16)\n"
              "Options                    : 0x0\n"
              "Oversized Chunk Count      : 1\n\n"
              "\tUsed Storage :\n\t--------------\n"
              "\t\tChunk\tSize\tUsed\tFree\n"
              "\t\t1\t64\t12\t52\n"
              "\t\t2\t100\t100\t0\n"
              "\t\t3\t64\t20\t44\n"
              "\n"
              "Number of Used Chunks      : 3\n"
              "Used Chunk Space Allocated : 276\t(Basic : 228, Overhead : "
              "48)\n\n"
              "Number of Free Chunks      : 2\n"
              "Free Chunk Space Allocated : 160\t(Basic : 128, Overhead : "
              "32)\n\n"
              "Total Number of Chunks     : 5\n"
              "Total Space Allocated      : 436\t(Basic : 356, Overhead : "
              "80)\n"
              "Total Basic Space Usage    :\t(Used : 132, Wasted : 52, Free : "
              "172)\n\n"
              "*** Finished Dump of Freestore Allocator ***\n");
}

TEST(FreestoreDump, UsedFreeAndOversizedChunksNotVerbose) {
    Freestore fs(64, QOR_FS_CLEAR);
    fill_mixed(fs.get());
    EXPECT_EQ(dump_of(fs.get(), 0),
              "*** Dump of Freestore Allocator ***\n\n"
              "Standard Chunk Size        : 80\t(Basic Size : 64, Chunk "
              "Overhead : 16)\n"
              "Options                    : 0x1\n"
              "Oversized Chunk Count      : 1\n\n"
              "Number of Used Chunks      : 3\n"
              "Used Chunk Space Allocated : 276\t(Basic : 228, Overhead : "
              "48)\n\n"
              "Number of Free Chunks      : 2\n"
              "Free Chunk Space Allocated : 160\t(Basic : 128, Overhead : "
              "32)\n\n"
              "Total Number of Chunks     : 5\n"
              "Total Space Allocated      : 436\t(Basic : 356, Overhead : "
              "80)\n"
              "Total Basic Space Usage    :\t(Used : 132, Wasted : 52, Free : "
              "172)\n\n"
              "*** Finished Dump of Freestore Allocator ***\n");
}

TEST(FreestoreDump, EmptiedFreestoreShowsAnEmptyUsedChunk) {
    Freestore fs(64, 0);
    QOR_FS_malloc(fs.get(), 64);
    QOR_FS_malloc(fs.get(), 4);
    QOR_FS_empty(fs.get());
    EXPECT_EQ(dump_of(fs.get(), 1),
              "*** Dump of Freestore Allocator ***\n\n"
              "Standard Chunk Size        : 80\t(Basic Size : 64, Chunk "
              "Overhead : 16)\n"
              "Options                    : 0x0\n"
              "Oversized Chunk Count      : 0\n\n"
              "\tUsed Storage :\n\t--------------\n"
              "\t\tChunk\tSize\tUsed\tFree\n"
              "\t\t1\t64\t0\t64\n"
              "\n"
              "Number of Used Chunks      : 1\n"
              "Used Chunk Space Allocated : 80\t(Basic : 64, Overhead : 16)\n\n"
              "Number of Free Chunks      : 1\n"
              "Free Chunk Space Allocated : 80\t(Basic : 64, Overhead : 16)\n\n"
              "Total Number of Chunks     : 2\n"
              "Total Space Allocated      : 160\t(Basic : 128, Overhead : 32)\n"
              "Total Basic Space Usage    :\t(Used : 0, Wasted : 0, Free : "
              "128)\n\n"
              "*** Finished Dump of Freestore Allocator ***\n");
}

}  // namespace
