// Static allocators large enough to keep their private index (block lookup by
// address granule, a summary over the bitmap) against a plain model of the
// rules: the lowest free record is taken, the hint is the taken index + 1 or
// the lowest released one, records are found by the blocks' address ranges
// and enumerated in index order. Every step compares the record returned,
// the counters, the hint and the whole bitmap.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <random>
#include <set>
#include <vector>

#include "harness.h"

namespace {

using qor_test::catch_fatal;

struct PlainModel {
    uint32_t initial = 0;
    uint32_t extension = 0;
    uint32_t total = 0;
    std::set<uint32_t> free;  // free record indices
    uint32_t hint = 0;

    void add_block() {
        const uint32_t n = total == 0 ? initial : extension;
        for (uint32_t i = 0; i < n; ++i) free.insert(total + i);
        hint = total;
        total += n;
    }
    uint32_t take() {
        if (free.empty()) add_block();
        // The lowest free record at or above the hint; none is below it.
        auto it = free.lower_bound(hint);
        EXPECT_EQ(it, free.begin());
        const uint32_t index = *it;
        free.erase(it);
        hint = index + 1;
        return index;
    }
    void give(uint32_t index) {
        free.insert(index);
        if (index < hint) hint = index;
    }
};

// The address of record `index` by the allocator's numbering rule.
char *address_of(const QOR_SA_allocator *sa, uint32_t index) {
    uint32_t block = 0;
    uint32_t position = index;
    if (index >= sa->initial_entries) {
        block = 1 + (index - sa->initial_entries) / sa->extension_entries;
        position = (index - sa->initial_entries) % sa->extension_entries;
    }
    return static_cast<char *>(sa->blocks[block]) +
           uint64_t{position} * sa->structure_size;
}

void expect_same(const QOR_SA_allocator *sa, const PlainModel &m) {
    ASSERT_EQ(sa->free_entries, m.free.size());
    ASSERT_EQ(sa->first_free_hint, m.hint);
    for (uint32_t w = 0; w < m.total / 64; ++w) {
        uint64_t expected = 0;
        for (uint32_t b = 0; b < 64; ++b) {
            if (m.free.count(w * 64 + b) != 0) expected |= uint64_t{1} << b;
        }
        ASSERT_EQ(sa->bitmaps[w], expected) << "word " << w;
    }
}

// An allocator and its model, driven by random operations.
struct Checked {
    QOR_SA_allocator sa;
    PlainModel m;
    uint32_t size;
    std::vector<uint32_t> live;

    Checked(uint32_t record_size, uint32_t initial, uint32_t extension)
        : sa(QOR_SA_allocator QOR_SA_INITIALISER(record_size, initial,
                                                 extension, nullptr, nullptr)),
          size(record_size) {
        m.initial = (initial + 63) / 64 * 64;
        m.extension = (extension + 63) / 64 * 64;
        if (m.initial == 0) m.initial = 64;
        if (m.extension == 0) m.extension = 64;
    }

    // An allocation, checked against the model's.
    void take(int op) {
        char *r = static_cast<char *>(QOR_SA_allocate(&sa));
        const uint32_t index = m.take();
        ASSERT_EQ(r, address_of(&sa, index)) << "op " << op;
        live.push_back(index);
    }

    // A live record chosen by rng given back, through its address or,
    // `inside`, a pointer anywhere inside it (which names it as well). The
    // model hears of it after the release, which may run a hook.
    void give_random(std::mt19937 &rng, bool inside = false) {
        const size_t k = rng() % live.size();
        const uint32_t index = live[k];
        live[k] = live.back();
        live.pop_back();
        QOR_SA_release(&sa, address_of(&sa, index) + (inside ? rng() % size : 0));
        m.give(index);
    }

    // One operation: an allocation when `fill`, else one chosen by rng.
    void step(std::mt19937 &rng, int op, bool fill) {
        const unsigned kind = fill ? 0 : rng() % 100;
        if (kind < 55 || live.empty()) {
            take(op);
        } else if (kind < 97) {
            give_random(rng, true);
        } else if (kind < 99) {
            // Enumeration from a live record finds the next one in use.
            const uint32_t index = live[rng() % live.size()];
            void *next = QOR_SA_next(&sa, address_of(&sa, index));
            uint32_t expected = index + 1;
            while (expected < m.total && m.free.count(expected) != 0) ++expected;
            ASSERT_EQ(next, expected < m.total ? address_of(&sa, expected)
                                               : nullptr);
        } else if (rng() % 8 == 0) {
            QOR_SA_release_all(&sa);
            live.clear();
            for (uint32_t i = 0; i < m.total; ++i) m.free.insert(i);
            m.hint = 0;
        }
        if (op % 997 == 0) expect_same(&sa, m);
    }
};

void run(uint32_t size, uint32_t initial, uint32_t extension, unsigned seed,
         int operations, int prefill = 0) {
    std::mt19937 rng(seed);
    Checked c(size, initial, extension);
    for (int op = 0; op < operations; ++op) {
        c.step(rng, op, op < prefill);
        if (testing::Test::HasFatalFailure()) return;
    }
    expect_same(&c.sa, c.m);
    QOR_SA_destroy(&c.sa);
}

TEST(StaticIndex, ManySmallBlocksAgainstThePlainRules) {
    for (unsigned seed : {1u, 2u, 3u}) {
        SCOPED_TRACE(seed);
        // Past several enlargements of the bitmap array (256 words each).
        run(24, 64, 64, seed, 60000, 40000);
        if (HasFatalFailure()) return;
    }
}

TEST(StaticIndex, OddSizesAndUnevenBlocks) {
    for (unsigned seed : {11u, 12u}) {
        SCOPED_TRACE(seed);
        run(40, 100, 10, seed, 20000);      // blocks of 128 then 64
        if (HasFatalFailure()) return;
        run(4096 + 8, 1, 200, seed, 8000);  // blocks beyond the mmap threshold
        if (HasFatalFailure()) return;
    }
}

// Several large allocators used in turn, as the library's own pools are
// (a lock record and a contents record taken and given back together):
// each keeps its own rules, and a record of one is refused by another
// right after that other found a record of its own.
TEST(StaticIndex, AllocatorsUsedInTurnKeepTheirOwnRules) {
    std::mt19937 rng(31);
    std::vector<Checked *> all = {new Checked(32, 64, 64),
                                  new Checked(48, 32, 32),
                                  new Checked(16, 1024, 64)};
    for (int op = 0; op < 60000; ++op) {
        Checked &c = *all[rng() % all.size()];
        c.step(rng, op, op < 20000);
        if (HasFatalFailure()) break;
    }
    Checked &a = *all[0];
    Checked &b = *all[1];
    if (!HasFatalFailure() && !a.live.empty() && !b.live.empty()) {
        for (Checked *c : all) expect_same(&c->sa, c->m);
        char *mine = address_of(&b.sa, b.live.back());
        QOR_SA_release(&b.sa, mine);
        b.m.give(b.live.back());
        b.live.pop_back();
        // Taken again as the model says: b's recent block is its own now.
        void *taken = QOR_SA_allocate(&b.sa);
        const uint32_t index = b.m.take();
        EXPECT_EQ(taken, address_of(&b.sa, index));
        b.live.push_back(index);
        mine = address_of(&b.sa, index);
        char *other = address_of(&a.sa, a.live.back());
        EXPECT_EQ(catch_fatal([&] { QOR_SA_release(&b.sa, other); }),
                  QOR_E_INTERNAL);
        EXPECT_EQ(catch_fatal([&] { QOR_SA_release(&a.sa, mine); }),
                  QOR_E_INTERNAL);
        for (Checked *c : all) expect_same(&c->sa, c->m);
    }
    for (Checked *c : all) {
        QOR_SA_destroy(&c->sa);
        delete c;
    }
}

TEST(StaticIndex, OneBigFirstBlock) {
    run(16, 5000, 64, 21, 20000);
}

// Records given back in no particular order and one taken after each, as
// a program with many records alive does: each allocation must be the
// lowest free record, whether the one given back lay below the hint or
// above it, so found in the hint's word or from the summary.
TEST(StaticIndex, ChurnGivesTheLowestFreeRecordEveryTime) {
    std::mt19937 rng(41);
    for (uint32_t live_count : {1000u, 5000u}) {
        SCOPED_TRACE(live_count);
        Checked c(16, 1024, 256);
        for (uint32_t i = 0; i < live_count; ++i) c.step(rng, 1, true);
        for (int op = 0; op < 40000; ++op) {
            // Now and then two in a row, or none, so that some allocations
            // take a record that was free before the last release.
            const unsigned gives = op % 7 == 0 ? 2 : op % 11 == 0 ? 0 : 1;
            for (unsigned g = 0; g < gives && !c.live.empty(); ++g) {
                c.give_random(rng);
            }
            ASSERT_NO_FATAL_FAILURE(c.take(op));
            if (op % 4999 == 0) expect_same(&c.sa, c.m);
        }
        expect_same(&c.sa, c.m);
        QOR_SA_destroy(&c.sa);
    }
}

// A release hook may allocate from the allocator whose record it is told
// of, even when that takes a new block (and moves the block array): the
// release goes on with the allocator as the hook left it.
Checked *hooked = nullptr;

void *allocating_hook(void *record, uint32_t) {
    void *taken = QOR_SA_allocate(&hooked->sa);
    // The record being released is not free yet, so it is not the one.
    const uint32_t index = hooked->m.take();
    EXPECT_EQ(taken, address_of(&hooked->sa, index));
    hooked->live.push_back(index);
    return record;
}

TEST(StaticIndex, ReleaseHookThatAllocatesFromTheSameAllocator) {
    Checked c(32, 64, 64);
    c.sa.release_hook = allocating_hook;
    hooked = &c;
    std::mt19937 rng(43);
    // 126 blocks, every record in use: each round holds one record more,
    // so the hook's allocations add blocks, and with the 129th the block
    // array (128 slots at a time) moves.
    for (int i = 0; i < 64 * 126; ++i) c.step(rng, 1, true);
    for (int round = 0; round < 300; ++round) {
        ASSERT_FALSE(c.live.empty());
        c.give_random(rng);
        ASSERT_NO_FATAL_FAILURE(expect_same(&c.sa, c.m)) << "round " << round;
        ASSERT_NO_FATAL_FAILURE(c.take(round));
    }
    EXPECT_GT(c.sa.blocks_in_use, 128u);
    c.sa.release_hook = nullptr;
    hooked = nullptr;
    QOR_SA_destroy(&c.sa);
}

// An allocator of `records` records, all in use, whose free count says one
// is free: a damaged record.
void overcounted(QOR_SA_allocator *sa, uint32_t records) {
    QOR_SA_initialise(sa, 16, records, 64, nullptr, nullptr);
    for (uint32_t i = 0; i < records; ++i) QOR_SA_allocate(sa);
    sa->free_entries = 1;
}

// A free count too high is an assertion failure at the next allocation,
// for large allocators as for small ones, rather than a record handed out
// twice.
TEST(StaticIndex, AFreeCountTooHighIsAnAssertionFailure) {
    for (uint32_t records : {64u, 4096u}) {
        SCOPED_TRACE(records);
        qor_test::ChildResult r = qor_test::run_in_child([records] {
            QOR_SA_allocator sa;
            overcounted(&sa, records);
            QOR_SA_allocate(&sa);
        });
        EXPECT_TRUE(r.exited);
        EXPECT_EQ(r.exit_status, 3);
        EXPECT_NE(r.err.find("QOR_SA_allocate found its free count wrong"),
                  std::string::npos)
            << r.err;
    }
}

// When fatal errors return, the allocation that finds the count wrong
// hands out nothing and changes nothing.
TEST(StaticIndex, AFreeCountTooHighGivesNullWhenFatalErrorsReturn) {
    for (uint32_t records : {64u, 4096u}) {
        SCOPED_TRACE(records);
        QOR_SA_allocator sa;
        overcounted(&sa, records);
        qor_test::StderrCapture capture;
        QOR_exception_handler_state = 9;
        void *r = QOR_SA_allocate(&sa);
        QOR_exception_handler_state = 0;
        const std::string err = capture.take();
        EXPECT_EQ(r, nullptr);
        EXPECT_EQ(sa.free_entries, 1u);
        EXPECT_EQ(sa.first_free_hint, records);
        // The assertion names its unit and line (which edits move).
        EXPECT_NE(err.find("File static_allocator, Line "), std::string::npos);
        EXPECT_NE(err.find(": QOR_SA_allocate found its free count wrong"),
                  std::string::npos)
            << err;
        sa.free_entries = 0;
        QOR_SA_destroy(&sa);
    }
}

// A pointer between blocks, or just past the last record, is in no block
// however many blocks there are.
TEST(StaticIndex, PointersOutsideEveryBlockAreStillRefused) {
    QOR_SA_allocator sa = QOR_SA_INITIALISER(32, 64, 64, nullptr, nullptr);
    for (int i = 0; i < 64 * 40; ++i) QOR_SA_allocate(&sa);
    ASSERT_EQ(sa.blocks_in_use, 40u);
    char *end = static_cast<char *>(sa.blocks[17]) + 64 * 32;
    const int r = catch_fatal([&] { QOR_SA_release(&sa, end); });
    // The end of block 17 may be the start of another block; if so it is a
    // record in use and its release is right. Otherwise it is refused.
    bool inside_another = false;
    for (uint32_t b = 0; b < sa.blocks_in_use; ++b) {
        inside_another |= sa.blocks[b] == end;
    }
    if (!inside_another) {
        EXPECT_EQ(r, QOR_E_INTERNAL);
    }
    int on_stack = 0;
    EXPECT_EQ(catch_fatal([&] { QOR_SA_release(&sa, &on_stack); }),
              QOR_E_INTERNAL);
    QOR_SA_destroy(&sa);
}

// An allocator asked for ten million records: each one handed out once, in
// order, then every one taken back and handed out again lowest first.
TEST(StaticIndex, TenMillionRecords) {
    QOR_SA_allocator sa = QOR_SA_INITIALISER(8, 1024, 1024, nullptr, nullptr);
    constexpr uint32_t kRecords = 10000000;
    char *previous = nullptr;
    for (uint32_t i = 0; i < kRecords; ++i) {
        char *r = static_cast<char *>(QOR_SA_allocate(&sa));
        if (i % 1024 != 0) {
            ASSERT_EQ(r, previous + 8) << i;
        }
        previous = r;
    }
    EXPECT_EQ(sa.free_entries, 10000384u - kRecords);  // whole blocks
    EXPECT_EQ(sa.blocks_in_use, 9766u);
    // Every 4096th record back: the hint is the lowest of them.
    for (uint32_t i = 0; i < kRecords; i += 4096) {
        QOR_SA_release(&sa, static_cast<char *>(sa.blocks[i / 1024]) +
                                (i % 1024) * 8);
    }
    EXPECT_EQ(sa.first_free_hint, 0u);
    EXPECT_EQ(QOR_SA_allocate(&sa), sa.blocks[0]);
    EXPECT_EQ(QOR_SA_allocate(&sa), sa.blocks[4]);
    EXPECT_EQ(sa.first_free_hint, 4097u);
    QOR_SA_release_all(&sa);
    EXPECT_EQ(QOR_SA_allocate(&sa), sa.blocks[0]);
    QOR_SA_destroy(&sa);
}

}  // namespace
