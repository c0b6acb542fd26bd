// The static allocator: blocks, the bitmap, hooks, enumeration, misuse and
// the dump.
#include <gtest/gtest.h>
#include <setjmp.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "harness.h"

extern "C" {
QOR_SA_allocator *memory_test_c_pool_macro(void);
QOR_SA_allocator *memory_test_c_pool_five(void);
unsigned memory_test_c_record_size(void);
void *memory_test_c_allocate(QOR_SA_allocator *pool, int number);
}

namespace {

struct Record {
    int32_t a;
    int32_t b;
    char text[16];
};  // 24 bytes

using qor_test::catch_fatal;

std::string dump_of(QOR_SA_allocator *sa, int verbose) {
    qor_test::StderrCapture capture;
    QOR_SA_dump(sa, verbose);
    return capture.take();
}

// An allocator set up by QOR_SA_initialise and destroyed at the end.
struct Pool {
    QOR_SA_allocator sa;
    Pool(uint32_t size, uint32_t initial, uint32_t extension,
         QOR_SA_hook allocate_hook = nullptr,
         QOR_SA_hook release_hook = nullptr) {
        QOR_SA_initialise(&sa, size, initial, extension, allocate_hook,
                          release_hook);
    }
    ~Pool() { QOR_SA_destroy(&sa); }
    QOR_SA_allocator *get() { return &sa; }
    QOR_SA_allocator *operator->() { return &sa; }
    char *block(uint32_t i) { return static_cast<char *>(sa.blocks[i]); }
};

// Records handed to the hooks, in order.
std::vector<std::pair<void *, uint32_t>> hook_calls;
void *recording_hook(void *record, uint32_t size) {
    hook_calls.emplace_back(record, size);
    return record;
}

std::vector<void *> in_use(QOR_SA_allocator *sa) {
    std::vector<void *> records;
    for (void *r = QOR_SA_next(sa, nullptr); r != nullptr;
         r = QOR_SA_next(sa, r))
        records.push_back(r);
    return records;
}

// ---- Set-up and blocks ----------------------------------------------------

TEST(StaticAllocator, InitialiseWithZeroCountsGivesBlocksOf64) {
    Pool pool(sizeof(Record), 0, 0);
    EXPECT_EQ(pool->initial_entries, 64u);
    EXPECT_EQ(pool->extension_entries, 64u);
    EXPECT_EQ(pool->blocks_in_use, 1u);
    EXPECT_EQ(pool->free_entries, 64u);
    EXPECT_EQ(pool->first_free_hint, 0u);
    EXPECT_EQ(pool->blocks_allocated, 128u);
    EXPECT_EQ(pool->bitmaps_allocated, 256u);
    EXPECT_EQ(pool->bitmaps[0], ~uint64_t{0});
    for (int i = 0; i < 65; ++i) QOR_SA_allocate(pool.get());
    EXPECT_EQ(pool->blocks_in_use, 2u);
    EXPECT_EQ(pool->free_entries, 63u);
}

TEST(StaticAllocator, InitialiseWith100And10GivesFirstBlockOf128ThenBlocksOf64) {
    Pool pool(sizeof(Record), 100, 10);
    EXPECT_EQ(pool->initial_entries, 128u);
    EXPECT_EQ(pool->extension_entries, 64u);
    EXPECT_EQ(pool->free_entries, 128u);
    std::vector<char *> r;
    for (int i = 0; i < 129; ++i)
        r.push_back(static_cast<char *>(QOR_SA_allocate(pool.get())));
    EXPECT_EQ(pool->blocks_in_use, 2u);
    EXPECT_EQ(pool->free_entries, 63u);
    EXPECT_EQ(r[127], pool.block(0) + 127 * sizeof(Record));
    EXPECT_EQ(r[128], pool.block(1));
    EXPECT_EQ(pool->first_free_hint, 129u);
}

TEST(StaticAllocator, InitialiseAddsTheFirstZeroFilledBlockAtOnce) {
    qor_fault_reset();  // counts only what follows
    QOR_SA_allocator sa;
    memset(&sa, 0xAB, sizeof sa);
    QOR_SA_initialise(&sa, sizeof(Record), 64, 64, nullptr, nullptr);
    EXPECT_EQ(qor_fault_calls(QF_calloc), 1);  // the block
    EXPECT_EQ(qor_fault_calls(QF_malloc), 2);  // the two arrays
    EXPECT_EQ(sa.allocate_hook, nullptr);
    EXPECT_EQ(sa.release_hook, nullptr);
    auto *block = static_cast<unsigned char *>(sa.blocks[0]);
    for (size_t i = 0; i < 64 * sizeof(Record); ++i) ASSERT_EQ(block[i], 0);
    QOR_SA_destroy(&sa);
}

TEST(StaticAllocator, StaticAllocatorSetsItselfUpOnFirstAllocation) {
    static QOR_SA_allocator pool =
        QOR_SA_INITIALISER(sizeof(Record), 32, 32, nullptr, nullptr);
    EXPECT_EQ(pool.blocks_in_use, 0u);
    EXPECT_EQ(pool.blocks, nullptr);
    void *first = QOR_SA_allocate(&pool);
    EXPECT_EQ(pool.blocks_in_use, 1u);
    EXPECT_EQ(pool.initial_entries, 64u);
    EXPECT_EQ(pool.extension_entries, 64u);
    EXPECT_EQ(pool.free_entries, 63u);
    EXPECT_EQ(first, pool.blocks[0]);
    for (int i = 1; i < 64; ++i) QOR_SA_allocate(&pool);
    EXPECT_EQ(pool.blocks_in_use, 1u);
    void *sixty_fifth = QOR_SA_allocate(&pool);
    EXPECT_EQ(pool.blocks_in_use, 2u);
    EXPECT_EQ(sixty_fifth, pool.blocks[1]);
    EXPECT_EQ(pool.free_entries, 63u);
    QOR_SA_destroy(&pool);
}

TEST(StaticAllocator, FirstFiveFieldsInBracesMakeAStaticAllocator) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
    static QOR_SA_allocator pool = {sizeof(Record), 0, 100, QOR_clear_memory,
                                    nullptr};
#pragma GCC diagnostic pop
    EXPECT_EQ(pool.free_entries, 0u);
    EXPECT_EQ(pool.bitmaps, nullptr);
    QOR_SA_allocate(&pool);
    EXPECT_EQ(pool.initial_entries, 64u);
    EXPECT_EQ(pool.extension_entries, 128u);
    QOR_SA_destroy(&pool);
}

TEST(StaticAllocator, StaticAllocatorsDefinedInC) {
    ASSERT_EQ(memory_test_c_record_size(), 24u);
    QOR_SA_allocator *macro = memory_test_c_pool_macro();
    EXPECT_EQ(macro->structure_size, 24u);
    EXPECT_EQ(macro->initial_entries, 32u);
    EXPECT_EQ(macro->allocate_hook, &QOR_clear_memory);
    EXPECT_EQ(macro->blocks_in_use, 0u);
    char *r = static_cast<char *>(memory_test_c_allocate(macro, 7));
    EXPECT_EQ(r, macro->blocks[0]);
    EXPECT_EQ(macro->initial_entries, 64u);
    int32_t number;
    memcpy(&number, r, sizeof number);
    EXPECT_EQ(number, 7);
    // The clear hook wipes a reused record.
    QOR_SA_release(macro, r);
    EXPECT_EQ(QOR_SA_allocate(macro), r);
    memcpy(&number, r, sizeof number);
    EXPECT_EQ(number, 0);
    QOR_SA_destroy(macro);

    QOR_SA_allocator *five = memory_test_c_pool_five();
    EXPECT_EQ(five->structure_size, 24u);
    EXPECT_EQ(five->initial_entries, 100u);
    EXPECT_EQ(five->extension_entries, 10u);
    EXPECT_EQ(five->allocate_hook, nullptr);
    EXPECT_EQ(five->bitmaps, nullptr);
    memory_test_c_allocate(five, 1);
    EXPECT_EQ(five->initial_entries, 128u);
    EXPECT_EQ(five->extension_entries, 64u);
    QOR_SA_destroy(five);
}

TEST(StaticAllocator, RecordAddressesFollowTheIndexAcrossBlocks) {
    Pool pool(sizeof(Record), 64, 128);
    std::vector<char *> r;
    for (int i = 0; i < 64 + 128 + 1; ++i)
        r.push_back(static_cast<char *>(QOR_SA_allocate(pool.get())));
    EXPECT_EQ(pool->blocks_in_use, 3u);
    EXPECT_EQ(r[0], pool.block(0));
    EXPECT_EQ(r[63], pool.block(0) + 63 * sizeof(Record));
    EXPECT_EQ(r[64], pool.block(1));
    EXPECT_EQ(r[64 + 127], pool.block(1) + 127 * sizeof(Record));
    EXPECT_EQ(r[64 + 128], pool.block(2));
    EXPECT_EQ(pool->bitmaps[3], ~uint64_t{0} << 1);  // block 2 starts word 3
}

TEST(StaticAllocator, RecordsAreZeroOnlyTheFirstTime) {
    Pool pool(sizeof(Record), 64, 64);
    auto *r = static_cast<Record *>(QOR_SA_allocate(pool.get()));
    EXPECT_EQ(r->a, 0);
    r->a = 42;
    QOR_SA_release(pool.get(), r);
    auto *again = static_cast<Record *>(QOR_SA_allocate(pool.get()));
    ASSERT_EQ(again, r);
    EXPECT_EQ(again->a, 42);  // kept: no hook clears it
}

TEST(StaticAllocator, ClearMemoryHookClearsEveryRecordHandedOut) {
    Pool pool(sizeof(Record), 64, 64, QOR_clear_memory);
    auto *r = static_cast<Record *>(QOR_SA_allocate(pool.get()));
    memset(r, 0x5C, sizeof *r);
    QOR_SA_release(pool.get(), r);
    auto *again = static_cast<Record *>(QOR_SA_allocate(pool.get()));
    ASSERT_EQ(again, r);
    const auto *bytes = reinterpret_cast<const unsigned char *>(again);
    for (size_t i = 0; i < sizeof *again; ++i) EXPECT_EQ(bytes[i], 0);
}

TEST(StaticAllocator, ClearMemoryClearsTheGivenBytes) {
    char buffer[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(QOR_clear_memory(buffer, 5), buffer);
    EXPECT_EQ(buffer[4], 0);
    EXPECT_EQ(buffer[5], 6);
}

// ---- Reuse, release, hint ---------------------------------------------------

TEST(StaticAllocator, ReleasedRecordThreeIsReusedBeforeHigherFreeOnes) {
    Pool pool(sizeof(Record), 64, 64);
    std::vector<void *> r;
    for (int i = 0; i < 10; ++i) r.push_back(QOR_SA_allocate(pool.get()));
    QOR_SA_release(pool.get(), r[7]);
    QOR_SA_release(pool.get(), r[3]);
    EXPECT_EQ(pool->first_free_hint, 3u);
    EXPECT_EQ(pool->free_entries, 56u);
    EXPECT_EQ(QOR_SA_allocate(pool.get()), r[3]);
    EXPECT_EQ(QOR_SA_allocate(pool.get()), r[7]);
    EXPECT_EQ(QOR_SA_allocate(pool.get()), static_cast<char *>(r[9]) + sizeof(Record));
}

TEST(StaticAllocator, LowestFreeRecordIsTakenAcrossWords) {
    Pool pool(8, 256, 64);
    std::vector<void *> r;
    for (int i = 0; i < 200; ++i) r.push_back(QOR_SA_allocate(pool.get()));
    QOR_SA_release(pool.get(), r[150]);
    QOR_SA_release(pool.get(), r[130]);
    // Word 2 holds both; the hint points at 130.
    EXPECT_EQ(QOR_SA_allocate(pool.get()), r[130]);
    EXPECT_EQ(QOR_SA_allocate(pool.get()), r[150]);
    // Words 0 to 2 are full: the search skips to word 3.
    EXPECT_EQ(QOR_SA_allocate(pool.get()), static_cast<char *>(pool->blocks[0]) + 200 * 8);
}

TEST(StaticAllocator, PointerIntoTheMiddleOfARecordReleasesThatRecord) {
    Pool pool(sizeof(Record), 64, 64);
    std::vector<char *> r;
    for (int i = 0; i < 4; ++i)
        r.push_back(static_cast<char *>(QOR_SA_allocate(pool.get())));
    QOR_SA_release(pool.get(), r[2] + 5);
    EXPECT_EQ(pool->bitmaps[0] & 0xF, 0x4u);
    EXPECT_EQ(QOR_SA_allocate(pool.get()), r[2]);
}

TEST(StaticAllocator, HooksSeeEveryRecordHandedOutAndTakenBack) {
    hook_calls.clear();
    Pool pool(sizeof(Record), 64, 64, recording_hook, nullptr);
    void *a = QOR_SA_allocate(pool.get());
    void *b = QOR_SA_allocate(pool.get());
    ASSERT_EQ(hook_calls.size(), 2u);
    EXPECT_EQ(hook_calls[0], std::make_pair(a, uint32_t{sizeof(Record)}));
    EXPECT_EQ(hook_calls[1], std::make_pair(b, uint32_t{sizeof(Record)}));

    hook_calls.clear();
    QOR_SA_allocator sa;
    QOR_SA_initialise(&sa, 16, 64, 64, nullptr, recording_hook);
    void *c = QOR_SA_allocate(&sa);
    QOR_SA_allocate(&sa);
    EXPECT_TRUE(hook_calls.empty());
    QOR_SA_release(&sa, static_cast<char *>(c) + 3);
    ASSERT_EQ(hook_calls.size(), 1u);
    // The hook gets the pointer it was given.
    EXPECT_EQ(hook_calls[0].first, static_cast<char *>(c) + 3);
    EXPECT_EQ(hook_calls[0].second, 16u);
    QOR_SA_destroy(&sa);
}

TEST(StaticAllocator, ReleaseAllCallsTheReleaseHookForRecordsInUseInOrder) {
    hook_calls.clear();
    Pool pool(16, 64, 64, nullptr, recording_hook);
    std::vector<void *> r;
    for (int i = 0; i < 70; ++i) r.push_back(QOR_SA_allocate(pool.get()));
    QOR_SA_release(pool.get(), r[1]);
    QOR_SA_release(pool.get(), r[65]);
    hook_calls.clear();
    QOR_SA_release_all(pool.get());
    ASSERT_EQ(hook_calls.size(), 68u);
    EXPECT_EQ(hook_calls[0].first, r[0]);
    EXPECT_EQ(hook_calls[1].first, r[2]);
    EXPECT_EQ(hook_calls[63].first, r[64]);
    EXPECT_EQ(hook_calls[64].first, r[66]);
    EXPECT_EQ(hook_calls[67].first, r[69]);
    EXPECT_EQ(pool->free_entries, 128u);
    EXPECT_EQ(pool->first_free_hint, 0u);
    hook_calls.clear();
    QOR_SA_destroy(pool.get());
    EXPECT_TRUE(hook_calls.empty());  // nothing in use any more
}

TEST(StaticAllocator, ReleaseAllThenNextGivesNullAndAllocationGivesRecordZero) {
    Pool pool(sizeof(Record), 64, 64);
    std::vector<void *> r;
    for (int i = 0; i < 100; ++i) r.push_back(QOR_SA_allocate(pool.get()));
    QOR_SA_release_all(pool.get());
    EXPECT_EQ(QOR_SA_next(pool.get(), nullptr), nullptr);
    EXPECT_EQ(pool->blocks_in_use, 2u);  // blocks kept
    // Every bitmap word allocated reads as free, not only those in use.
    for (uint32_t w = 0; w < pool->bitmaps_allocated; ++w)
        ASSERT_EQ(pool->bitmaps[w], ~uint64_t{0});
    EXPECT_EQ(QOR_SA_allocate(pool.get()), r[0]);
    EXPECT_EQ(QOR_SA_allocate(pool.get()), r[1]);
}

TEST(StaticAllocator, ReleaseAllOfAnUnsetAllocatorLeavesItUnset) {
    QOR_SA_allocator sa = QOR_SA_INITIALISER(8, 32, 32, nullptr, nullptr);
    QOR_SA_release_all(&sa);
    EXPECT_EQ(sa.free_entries, 0u);
    EXPECT_EQ(sa.blocks, nullptr);
    EXPECT_EQ(QOR_SA_next(&sa, nullptr), nullptr);
}

// ---- Enumeration ------------------------------------------------------------

TEST(StaticAllocator, NextFromNullVisitsRecordsZeroAndFiveThenNull) {
    Pool pool(sizeof(Record), 64, 64);
    std::vector<void *> r;
    for (int i = 0; i < 6; ++i) r.push_back(QOR_SA_allocate(pool.get()));
    for (int i = 1; i < 5; ++i) QOR_SA_release(pool.get(), r[i]);
    void *first = QOR_SA_next(pool.get(), nullptr);
    EXPECT_EQ(first, r[0]);
    void *second = QOR_SA_next(pool.get(), first);
    EXPECT_EQ(second, r[5]);
    EXPECT_EQ(QOR_SA_next(pool.get(), second), nullptr);
}

TEST(StaticAllocator, NextCrossesBlocksAndAcceptsAPointerIntoARecord) {
    Pool pool(sizeof(Record), 64, 64);
    std::vector<char *> r;
    for (int i = 0; i < 130; ++i)
        r.push_back(static_cast<char *>(QOR_SA_allocate(pool.get())));
    for (int i = 3; i < 129; ++i) QOR_SA_release(pool.get(), r[i]);
    EXPECT_EQ(QOR_SA_next(pool.get(), r[2] + 10), r[129]);
    EXPECT_EQ(QOR_SA_next(pool.get(), r[129]), nullptr);
    // From a free record too.
    EXPECT_EQ(QOR_SA_next(pool.get(), r[64]), r[129]);
    EXPECT_EQ(in_use(pool.get()),
              (std::vector<void *>{r[0], r[1], r[2], r[129]}));
}

TEST(StaticAllocator, NextWithoutBlocksGivesNull) {
    QOR_SA_allocator sa = QOR_SA_INITIALISER(8, 32, 32, nullptr, nullptr);
    int elsewhere = 0;
    EXPECT_EQ(QOR_SA_next(&sa, nullptr), nullptr);
    EXPECT_EQ(QOR_SA_next(&sa, &elsewhere), nullptr);
}

// ---- Destroy and growth -----------------------------------------------------

TEST(StaticAllocator, DestroyFreesEverythingAndKeepsTheSettings) {
    hook_calls.clear();
    QOR_SA_allocator sa;
    QOR_SA_initialise(&sa, 16, 10, 20, nullptr, recording_hook);
    void *a = QOR_SA_allocate(&sa);
    QOR_SA_allocate(&sa);
    QOR_SA_release(&sa, a);
    hook_calls.clear();
    QOR_SA_destroy(&sa);
    EXPECT_EQ(hook_calls.size(), 1u);  // the one record still in use
    EXPECT_EQ(sa.structure_size, 16u);
    EXPECT_EQ(sa.initial_entries, 64u);
    EXPECT_EQ(sa.extension_entries, 64u);
    EXPECT_EQ(sa.release_hook, &recording_hook);
    EXPECT_EQ(sa.free_entries, 0u);
    EXPECT_EQ(sa.first_free_hint, 0u);
    EXPECT_EQ(sa.blocks_in_use, 0u);
    EXPECT_EQ(sa.blocks_allocated, 0u);
    EXPECT_EQ(sa.bitmaps_allocated, 0u);
    EXPECT_EQ(sa.blocks, nullptr);
    EXPECT_EQ(sa.bitmaps, nullptr);
    // Usable again: the next allocation adds a first block.
    void *again = QOR_SA_allocate(&sa);
    EXPECT_EQ(again, sa.blocks[0]);
    EXPECT_EQ(sa.blocks_in_use, 1u);
    QOR_SA_destroy(&sa);
    QOR_SA_destroy(&sa);  // nothing left: harmless
}

TEST(StaticAllocator, BlockArrayAndBitmapGrowInSteps) {
    Pool pool(1, 64, 64);
    // 256 bitmap words cover 256 blocks of 64; 128 slots hold 128 blocks.
    for (int i = 0; i < 128 * 64; ++i) QOR_SA_allocate(pool.get());
    EXPECT_EQ(pool->blocks_in_use, 128u);
    EXPECT_EQ(pool->blocks_allocated, 128u);
    QOR_SA_allocate(pool.get());
    EXPECT_EQ(pool->blocks_in_use, 129u);
    EXPECT_EQ(pool->blocks_allocated, 256u);
    EXPECT_EQ(pool->bitmaps_allocated, 256u);
    for (int i = 1; i < 128 * 64; ++i) QOR_SA_allocate(pool.get());
    EXPECT_EQ(pool->blocks_in_use, 256u);
    EXPECT_EQ(pool->bitmaps_allocated, 256u);
    qor_fault_reset();
    QOR_SA_allocate(pool.get());
    EXPECT_EQ(pool->blocks_in_use, 257u);
    EXPECT_EQ(pool->blocks_allocated, 384u);
    EXPECT_EQ(pool->bitmaps_allocated, 512u);
    EXPECT_EQ(qor_fault_calls(QF_realloc), 2);
    EXPECT_EQ(pool->free_entries, 63u);
    EXPECT_EQ(pool->first_free_hint, 256u * 64 + 1);
    // Words past the records read as holding no free record.
    EXPECT_EQ(pool->bitmaps[257], 0u);
    EXPECT_EQ(pool->bitmaps[511], 0u);
}

TEST(StaticAllocator, ZeroStructureSizeIsAnAssertionFailure) {
    qor_test::ChildResult r = qor_test::run_in_child([] {
        QOR_SA_allocator sa;
        QOR_SA_initialise(&sa, 0, 32, 32, nullptr, nullptr);
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_NE(r.err.find("QOR_calloc called to allocate zero or negative bytes"),
              std::string::npos)
        << r.err;
}

// ---- Misuse -----------------------------------------------------------------

const char kMisuseStderr[] =
    "Error: QOR Message System unavailable - give_message_text\n"
    "Error: QOR Message System unavailable - output_message\n"
    "Untranslated message: set=qor, number=1, type=4, $0=\n";

qor_test::Message misuse_message(int parameter) {
    return qor_test::msg("qor", 1, 4,
                         {qor_test::MessageLog::text_of(parameter)});
}

TEST(StaticAllocatorMisuse, DoubleReleaseIsFatalWith202) {
    Pool pool(sizeof(Record), 64, 64);
    void *r = QOR_SA_allocate(pool.get());
    QOR_SA_release(pool.get(), r);
    qor_test::MessageLog log;
    EXPECT_EQ(catch_fatal([&] { QOR_SA_release(pool.get(), r); }), 2001);
    EXPECT_EQ(log.messages, std::vector<qor_test::Message>{misuse_message(202)});
    EXPECT_EQ(pool->free_entries, 64u);  // unchanged
}

TEST(StaticAllocatorMisuse, DoubleReleaseInAChildEndsWithStatus3) {
    qor_test::ChildResult r = qor_test::run_in_child([] {
        static QOR_SA_allocator sa =
            QOR_SA_INITIALISER(sizeof(Record), 64, 64, nullptr, nullptr);
        void *rec = QOR_SA_allocate(&sa);
        QOR_SA_release(&sa, rec);
        QOR_SA_release(&sa, rec);
        printf("returned\n");
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, kMisuseStderr);
}

TEST(StaticAllocatorMisuse, PointerFromAnotherAllocatorIsFatalWith201) {
    Pool pool(sizeof(Record), 64, 64);
    Pool other(sizeof(Record), 64, 64);
    QOR_SA_allocate(pool.get());
    void *foreign = QOR_SA_allocate(other.get());
    qor_test::MessageLog log;
    EXPECT_EQ(catch_fatal([&] { QOR_SA_release(pool.get(), foreign); }), 2001);
    EXPECT_EQ(log.messages, std::vector<qor_test::Message>{misuse_message(201)});
    EXPECT_EQ(pool->free_entries, 63u);
    EXPECT_EQ(other->free_entries, 63u);
}

TEST(StaticAllocatorMisuse, PointerJustPastTheLastRecordIsForeign) {
    Pool pool(sizeof(Record), 64, 64);
    char *end = pool.block(0) + 64 * sizeof(Record);
    qor_test::MessageLog log;
    EXPECT_EQ(catch_fatal([&] { QOR_SA_release(pool.get(), end); }), 2001);
    EXPECT_EQ(log.messages, std::vector<qor_test::Message>{misuse_message(201)});
    // After a first fatal error the message goes straight to stderr.
    qor_test::StderrCapture capture;
    EXPECT_EQ(catch_fatal([&] { QOR_SA_release(pool.get(), pool.block(0) - 1); }),
              2001);
    EXPECT_EQ(capture.take(),
              "QOR_fatal_error_msg - Untranslated message: set=qor, number=1, "
              "type=4, $0=201\n");
    EXPECT_EQ(pool->free_entries, 64u);
}

TEST(StaticAllocatorMisuse, ForeignPointerInAChildEndsWithStatus3) {
    qor_test::ChildResult r = qor_test::run_in_child([] {
        static QOR_SA_allocator sa =
            QOR_SA_INITIALISER(sizeof(Record), 64, 64, nullptr, nullptr);
        static int elsewhere;
        QOR_SA_allocate(&sa);
        QOR_SA_release(&sa, &elsewhere);
        printf("returned\n");
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, kMisuseStderr);
}

TEST(StaticAllocatorMisuse, ReleaseOnAnUnsetAllocatorIsFatalWith201) {
    QOR_SA_allocator sa = QOR_SA_INITIALISER(8, 32, 32, nullptr, nullptr);
    int elsewhere = 0;
    qor_test::MessageLog log;
    EXPECT_EQ(catch_fatal([&] { QOR_SA_release(&sa, &elsewhere); }), 2001);
    EXPECT_EQ(log.messages, std::vector<qor_test::Message>{misuse_message(201)});
}

TEST(StaticAllocatorMisuse, NextWithAForeignPointerIsFatalWith201) {
    Pool pool(sizeof(Record), 64, 64);
    QOR_SA_allocate(pool.get());
    int elsewhere = 0;
    qor_test::MessageLog log;
    EXPECT_EQ(catch_fatal([&] { QOR_SA_next(pool.get(), &elsewhere); }), 2001);
    EXPECT_EQ(log.messages, std::vector<qor_test::Message>{misuse_message(201)});
}

TEST(StaticAllocatorMisuse, WhenFatalErrorsReturnNothingChanges) {
    // A handler state outside 0..2 makes raising return to the library.
    Pool pool(sizeof(Record), 64, 64);
    void *r = QOR_SA_allocate(pool.get());
    QOR_SA_release(pool.get(), r);
    int elsewhere = 0;
    qor_test::MessageLog log;
    qor_test::StderrCapture capture;
    QOR_exception_handler_state = 9;
    QOR_SA_release(pool.get(), r);
    QOR_SA_release(pool.get(), &elsewhere);
    void *next = QOR_SA_next(pool.get(), &elsewhere);
    QOR_exception_handler_state = 0;
    EXPECT_EQ(next, nullptr);
    EXPECT_EQ(pool->free_entries, 64u);
    EXPECT_EQ(pool->first_free_hint, 0u);
    EXPECT_EQ(log.messages, std::vector<qor_test::Message>{misuse_message(202)});
    // Later ones bypass the callbacks.
    EXPECT_EQ(capture.take(),
              "QOR_fatal_error_msg - Untranslated message: set=qor, number=1, "
              "type=4, $0=201\n"
              "QOR_fatal_error_msg - Untranslated message: set=qor, number=1, "
              "type=4, $0=201\n");
}

// ---- Dump -------------------------------------------------------------------

TEST(StaticAllocatorDump, NullAllocatorPrintsNothing) {
    EXPECT_EQ(dump_of(nullptr, 1), "");
}

TEST(StaticAllocatorDump, NotVerbose) {
    Pool pool(24, 100, 10);
    for (int i = 0; i < 130; ++i) QOR_SA_allocate(pool.get());
    EXPECT_EQ(dump_of(pool.get(), 0),
              "*** Dumping Static Allocator ***\n"
              "Structure Size    : 24\n"
              "Free Entries      : 62\n"
              "Blocks in use     : 2\n"
              "Blocks Allocated  : 128\n"
              "*** Finished Dump of Static Allocator ***\n");
}

TEST(StaticAllocatorDump, VerboseFreshAllocatorGivesWordZero) {
    Pool pool(24, 0, 0);
    EXPECT_EQ(dump_of(pool.get(), 1),
              "*** Dumping Static Allocator ***\n"
              "Structure Size    : 24\n"
              "Free Entries      : 64\n"
              "Blocks in use     : 1\n"
              "Blocks Allocated  : 128\n"
              "Initial Entries   : 64\n"
              "Extension Entries : 64\n"
              "Bitmaps Allocated : 256\n"
              "First bitmap free : no. 0\n"
              "Value : 0\n"
              "*** Finished Dump of Static Allocator ***\n");
}

TEST(StaticAllocatorDump, VerboseShowsTheWordAfterTheFirstFreeOne) {
    Pool pool(8, 128, 64);
    for (int i = 0; i < 3; ++i) QOR_SA_allocate(pool.get());
    EXPECT_EQ(dump_of(pool.get(), 1),
              "*** Dumping Static Allocator ***\n"
              "Structure Size    : 8\n"
              "Free Entries      : 125\n"
              "Blocks in use     : 1\n"
              "Blocks Allocated  : 128\n"
              "Initial Entries   : 128\n"
              "Extension Entries : 64\n"
              "Bitmaps Allocated : 256\n"
              "First bitmap free : no. 0\n"
              "Value : ffffffffffffffff\n"
              "*** Finished Dump of Static Allocator ***\n");
}

TEST(StaticAllocatorDump, VerboseGivesWordOneOnceRecordsZeroTo63AreInUse) {
    Pool pool(8, 64, 64);
    for (int i = 0; i < 66; ++i) QOR_SA_allocate(pool.get());
    EXPECT_EQ(dump_of(pool.get(), 1),
              "*** Dumping Static Allocator ***\n"
              "Structure Size    : 8\n"
              "Free Entries      : 62\n"
              "Blocks in use     : 2\n"
              "Blocks Allocated  : 128\n"
              "Initial Entries   : 64\n"
              "Extension Entries : 64\n"
              "Bitmaps Allocated : 256\n"
              "First bitmap free : no. 1\n"
              "Value : 0\n"
              "*** Finished Dump of Static Allocator ***\n");
}

TEST(StaticAllocatorDump, VerboseWhenNoWordHasAFreeRecordSaysNone) {
    Pool pool(8, 64, 64);
    for (int i = 0; i < 64; ++i) QOR_SA_allocate(pool.get());
    EXPECT_EQ(dump_of(pool.get(), 1),
              "*** Dumping Static Allocator ***\n"
              "Structure Size    : 8\n"
              "Free Entries      : 0\n"
              "Blocks in use     : 1\n"
              "Blocks Allocated  : 128\n"
              "Initial Entries   : 64\n"
              "Extension Entries : 64\n"
              "Bitmaps Allocated : 256\n"
              "First bitmap free : none\n"
              "*** Finished Dump of Static Allocator ***\n");
}

TEST(StaticAllocatorDump, VerboseFreeWordAtTheEndOfTheBitmapShowsZeroAfterIt) {
    // Fill 256 blocks of 64 (all 256 words), then free the last record:
    // the word after the one found would lie past the bitmap.
    Pool pool(1, 64, 64);
    void *last = nullptr;
    for (int i = 0; i < 256 * 64; ++i) last = QOR_SA_allocate(pool.get());
    ASSERT_EQ(pool->bitmaps_allocated, 256u);
    QOR_SA_release(pool.get(), last);
    std::string dump = dump_of(pool.get(), 1);
    EXPECT_NE(dump.find("First bitmap free : no. 255\nValue : 0\n"),
              std::string::npos)
        << dump;
}

TEST(StaticAllocatorDump, VerboseUnsetAllocatorSaysNone) {
    QOR_SA_allocator sa = QOR_SA_INITIALISER(12, 32, 0, nullptr, nullptr);
    EXPECT_EQ(dump_of(&sa, 1),
              "*** Dumping Static Allocator ***\n"
              "Structure Size    : 12\n"
              "Free Entries      : 0\n"
              "Blocks in use     : 0\n"
              "Blocks Allocated  : 0\n"
              "Initial Entries   : 32\n"
              "Extension Entries : 0\n"
              "Bitmaps Allocated : 0\n"
              "First bitmap free : none\n"
              "*** Finished Dump of Static Allocator ***\n");
}

}  // namespace
