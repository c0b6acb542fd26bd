// Model-based tests: long random runs of both allocators checked step by
// step against a plain model of what must be live.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <map>
#include <random>
#include <set>
#include <vector>

#include "harness.h"

namespace {

constexpr uint32_t kHeader = 16;
constexpr int kOperations = 4000;
constexpr unsigned kSeeds[] = {1, 7, 42, 1234, 99991};

// ---- Freestore --------------------------------------------------------------

struct Piece {
    uint32_t size;         // as requested
    unsigned char stamp;   // every byte of the piece holds it
};

struct FreestoreModel {
    QOR_FS_allocator fs;
    std::map<uintptr_t, Piece> live;
    // For each open mark: the mark and the pieces live when it was taken.
    std::vector<std::pair<QOR_FS_mark, size_t>> marks;
    std::vector<uintptr_t> order;  // live pieces in allocation order
    unsigned char next_stamp = 1;

    static uint32_t rounded(uint32_t n) { return (n + 3) & ~3u; }

    // Would this request make the freestore ask the system for memory?
    bool needs_system(uint32_t size) const {
        const QOR_FS_chunk *c = fs.current_chunk;
        const uint32_t r = rounded(size);
        if (c != nullptr && c->used + r <= c->size) return false;
        if (r > fs.chunk_size) return true;
        return c == nullptr || c->next == nullptr;
    }

    void check_chain() const {
        uint32_t oversized = 0;
        bool after_current = fs.current_chunk == nullptr;
        for (const QOR_FS_chunk *c = fs.first_chunk; c != nullptr; c = c->next) {
            ASSERT_GE(c->used, kHeader);
            ASSERT_LE(c->used, c->size);
            if (c->size > fs.chunk_size + kHeader) {
                ++oversized;
                // Kept chunks are standard ones only.
                ASSERT_FALSE(after_current);
            }
            if (c == fs.current_chunk) after_current = true;
        }
        ASSERT_TRUE(after_current);
        ASSERT_EQ(oversized, fs.oversized_count);
        uint32_t live_oversized = 0;
        for (const auto &[p, piece] : live)
            if (rounded(piece.size) > fs.chunk_size) ++live_oversized;
        ASSERT_EQ(live_oversized, fs.oversized_count);
    }

    void check_contents() const {
        for (const auto &[p, piece] : live) {
            const auto *b = reinterpret_cast<const unsigned char *>(p);
            for (uint32_t i = 0; i < piece.size; ++i)
                ASSERT_EQ(b[i], piece.stamp) << "piece at " << p;
        }
    }

    void allocate(uint32_t size) {
        const bool expect_system = needs_system(size);
        const long before = qor_fault_calls(QF_malloc) + qor_fault_calls(QF_calloc);
        auto *p = static_cast<unsigned char *>(QOR_FS_malloc(&fs, size));
        const long calls =
            qor_fault_calls(QF_malloc) + qor_fault_calls(QF_calloc) - before;
        ASSERT_EQ(calls, expect_system ? 1 : 0) << "size " << size;
        ASSERT_NE(p, nullptr);
        if (fs.options & QOR_FS_CLEAR) {
            for (uint32_t i = 0; i < size; ++i) ASSERT_EQ(p[i], 0);
        }
        const uintptr_t a = reinterpret_cast<uintptr_t>(p);
        ASSERT_EQ(a % 4, 0u);
        // No overlap with the neighbours in address order.
        auto next = live.lower_bound(a);
        if (next != live.end()) {
            ASSERT_LE(a + rounded(size), next->first);
        }
        if (next != live.begin()) {
            auto prev = std::prev(next);
            ASSERT_LE(prev->first + rounded(prev->second.size), a);
        }
        const unsigned char stamp = next_stamp++;
        if (next_stamp == 0) next_stamp = 1;
        memset(p, stamp, size);
        live[a] = Piece{size, stamp};
        order.push_back(a);
    }

    void save() {
        QOR_FS_mark m;
        QOR_FS_save(&fs, &m);
        marks.emplace_back(m, order.size());
    }

    void restore() {
        auto [m, count] = marks.back();
        marks.pop_back();
        QOR_FS_restore(&fs, &m);
        while (order.size() > count) {
            live.erase(order.back());
            order.pop_back();
        }
    }

    void empty() {
        QOR_FS_empty(&fs);
        marks.clear();
        live.clear();
        order.clear();
    }
};

void run_freestore_model(unsigned seed, uint32_t chunk_size, uint32_t options) {
    std::mt19937 rng(seed);
    FreestoreModel model;
    QOR_FS_initialise(&model.fs, chunk_size, options);
    qor_test::MessageLog log;  // no repair message may ever be needed
    for (int op = 0; op < kOperations; ++op) {
        const unsigned roll = rng() % 100;
        if (roll < 60) {
            // Mostly small pieces, some near or above the chunk size.
            const unsigned kind = rng() % 10;
            const uint32_t size = kind < 7   ? 1 + rng() % 40
                                  : kind < 9 ? 1 + rng() % chunk_size
                                             : chunk_size + 1 + rng() % chunk_size;
            model.allocate(size);
        } else if (roll < 78) {
            model.save();
        } else if (roll < 97) {
            if (model.marks.empty()) continue;
            model.restore();
            model.check_contents();
        } else {
            model.empty();
        }
        model.check_chain();
        if (testing::Test::HasFatalFailure()) {
            ADD_FAILURE() << "seed " << seed << ", operation " << op;
            break;
        }
    }
    model.check_contents();
    while (!model.marks.empty()) model.restore();
    model.check_contents();
    EXPECT_TRUE(log.messages.empty());
    QOR_FS_destroy(&model.fs);
}

TEST(FreestoreModel, RandomPiecesMarksAndRestores) {
    for (unsigned seed : kSeeds) {
        SCOPED_TRACE(seed);
        run_freestore_model(seed, 256, 0);
        if (HasFatalFailure()) return;
    }
}

TEST(FreestoreModel, RandomPiecesWithTheClearOption) {
    for (unsigned seed : kSeeds) {
        SCOPED_TRACE(seed);
        run_freestore_model(seed, 200, QOR_FS_CLEAR);
        if (HasFatalFailure()) return;
    }
}

TEST(FreestoreModel, RandomRunOnTheSharedFreestore) {
    // The shared freestore with its own chunk size, as library code uses it.
    std::mt19937 rng(5);
    for (int round = 0; round < 200; ++round) {
        QOR_FS_mark m;
        QOR_FS_save(&QOR_SH_fs_allocator, &m);
        std::vector<std::pair<char *, std::string>> made;
        for (int i = 0; i < 1 + static_cast<int>(rng() % 20); ++i) {
            std::string s(rng() % 3000, static_cast<char>('a' + rng() % 26));
            made.emplace_back(QOR_SH_cat_strings(s.c_str(), "/", nullptr),
                              s + "/");
        }
        for (auto &[p, s] : made) ASSERT_EQ(std::string(p), s);
        QOR_FS_restore(&QOR_SH_fs_allocator, &m);
        ASSERT_EQ(QOR_SH_fs_allocator.oversized_count, 0u);
    }
    QOR_FS_destroy(&QOR_SH_fs_allocator);
}

// ---- Static allocator ---------------------------------------------------------

struct StaticModel {
    QOR_SA_allocator sa;
    uint32_t initial = 0, extension = 0;  // rounded counts
    uint32_t total = 0;                   // records in all blocks
    std::set<uint32_t> in_use;
    std::map<uintptr_t, uint32_t> index_of;  // record address -> index

    uint32_t lowest_free() const {
        uint32_t i = 0;
        for (uint32_t used : in_use) {
            if (used != i) break;
            ++i;
        }
        return i;
    }

    void allocate() {
        const uint32_t expected = lowest_free();
        if (expected == total) total += total == 0 ? initial : extension;
        auto *p = static_cast<char *>(QOR_SA_allocate(&sa));
        const uintptr_t a = reinterpret_cast<uintptr_t>(p);
        auto known = index_of.find(a);
        if (known != index_of.end()) {
            ASSERT_EQ(known->second, expected);
        } else {
            index_of[a] = expected;
        }
        in_use.insert(expected);
        uint32_t stamp = expected;
        memcpy(p, &stamp, sizeof stamp);  // records are not aligned for us
    }

    void release(std::mt19937 &rng) {
        if (in_use.empty()) return;
        auto it = in_use.begin();
        std::advance(it, rng() % in_use.size());
        const uint32_t index = *it;
        char *p = record(index);
        uint32_t stamp;
        memcpy(&stamp, p, sizeof stamp);
        ASSERT_EQ(stamp, index);  // nobody else wrote into it
        QOR_SA_release(&sa, p + rng() % sa.structure_size);
        in_use.erase(it);
    }

    char *record(uint32_t index) const {
        for (const auto &[a, i] : index_of)
            if (i == index) return reinterpret_cast<char *>(a);
        return nullptr;
    }

    void check() const {
        ASSERT_EQ(sa.free_entries, total - in_use.size());
        std::vector<uint32_t> seen;
        for (void *r = QOR_SA_next(const_cast<QOR_SA_allocator *>(&sa), nullptr);
             r != nullptr;
             r = QOR_SA_next(const_cast<QOR_SA_allocator *>(&sa), r)) {
            seen.push_back(index_of.at(reinterpret_cast<uintptr_t>(r)));
        }
        ASSERT_EQ(seen, std::vector<uint32_t>(in_use.begin(), in_use.end()));
    }
};

void run_static_model(unsigned seed, uint32_t size, uint32_t initial,
                      uint32_t extension) {
    std::mt19937 rng(seed);
    StaticModel model;
    model.sa = QOR_SA_allocator QOR_SA_INITIALISER(size, initial, extension,
                                                   nullptr, nullptr);
    model.initial = initial == 0 ? 64 : (initial + 63) / 64 * 64;
    model.extension = extension == 0 ? 64 : (extension + 63) / 64 * 64;
    for (int op = 0; op < kOperations; ++op) {
        const unsigned roll = rng() % 1000;
        if (roll < 600) {
            model.allocate();
        } else if (roll < 995) {
            model.release(rng);
        } else {
            QOR_SA_release_all(&model.sa);
            model.in_use.clear();
        }
        if (op % 50 == 0) model.check();
        if (testing::Test::HasFatalFailure()) {
            ADD_FAILURE() << "seed " << seed << ", operation " << op;
            break;
        }
    }
    model.check();
    QOR_SA_destroy(&model.sa);
}

// The record the allocator must hand out is fixed: the lowest free index,
// at the address its index gives in the blocks the allocator shows. Every
// step is checked against that rule worked out from the public fields, with
// the hint, the free count and the bitmap word of the record.
struct OrderModel {
    QOR_SA_allocator sa;
    std::vector<bool> used;  // by index, as long as the records in all blocks

    uint32_t total() const {
        if (sa.blocks_in_use == 0) return 0;
        return (sa.blocks_in_use - 1) * sa.extension_entries + sa.initial_entries;
    }

    char *address_of(uint32_t index) const {
        uint32_t block = 0, position = index;
        if (index >= sa.initial_entries) {
            block = 1 + (index - sa.initial_entries) / sa.extension_entries;
            position = (index - sa.initial_entries) % sa.extension_entries;
        }
        return static_cast<char *>(sa.blocks[block]) +
               uint64_t{position} * sa.structure_size;
    }

    bool bit(uint32_t index) const {
        return (sa.bitmaps[index / 64] >> (index % 64)) & 1u;
    }

    void allocate() {
        uint32_t expected = 0;
        while (expected < used.size() && used[expected]) ++expected;
        char *p = static_cast<char *>(QOR_SA_allocate(&sa));
        used.resize(total(), false);
        ASSERT_LT(expected, total());
        ASSERT_EQ(p, address_of(expected)) << "index " << expected;
        ASSERT_EQ(sa.first_free_hint, expected + 1);
        ASSERT_FALSE(bit(expected));
        used[expected] = true;
    }

    void release(uint32_t index, uint32_t into) {
        const uint32_t hint = sa.first_free_hint;
        const uint32_t free_before = sa.free_entries;
        QOR_SA_release(&sa, address_of(index) + into);
        ASSERT_TRUE(bit(index)) << "index " << index;
        ASSERT_EQ(sa.first_free_hint, index < hint ? index : hint);
        ASSERT_EQ(sa.free_entries, free_before + 1);
        used[index] = false;
    }

    void check_next() {
        std::vector<void *> seen, expected;
        for (void *r = QOR_SA_next(&sa, nullptr); r != nullptr;
             r = QOR_SA_next(&sa, r))
            seen.push_back(r);
        for (uint32_t i = 0; i < used.size(); ++i)
            if (used[i]) expected.push_back(address_of(i));
        ASSERT_EQ(seen, expected);
    }
};

void run_order_model(unsigned seed, uint32_t size, uint32_t initial,
                     uint32_t extension, int live) {
    std::mt19937 rng(seed);
    OrderModel model;
    model.sa = QOR_SA_allocator QOR_SA_INITIALISER(size, initial, extension,
                                                   nullptr, nullptr);
    // Fill to `live` records, then churn around that level: releases land
    // in every block in turn, far from the block of the last lookup.
    for (int i = 0; i < live; ++i) {
        model.allocate();
        if (testing::Test::HasFatalFailure()) return;
    }
    for (int op = 0; op < kOperations; ++op) {
        std::vector<uint32_t> in_use;
        for (uint32_t i = 0; i < model.used.size(); ++i)
            if (model.used[i]) in_use.push_back(i);
        const unsigned roll = rng() % 100;
        if (roll < 48 && !in_use.empty()) {
            model.release(in_use[rng() % in_use.size()], rng() % size);
        } else if (roll < 99) {
            model.allocate();
        } else {
            QOR_SA_release_all(&model.sa);
            model.used.assign(model.used.size(), false);
            ASSERT_EQ(model.sa.first_free_hint, 0u);
        }
        if (op % 100 == 0) model.check_next();
        if (testing::Test::HasFatalFailure()) {
            ADD_FAILURE() << "seed " << seed << ", operation " << op;
            return;
        }
    }
    model.check_next();
    QOR_SA_destroy(&model.sa);
}

TEST(StaticAllocatorModel, HandsOutTheLowestFreeRecordAtItsIndexAddress) {
    for (unsigned seed : kSeeds) {
        SCOPED_TRACE(seed);
        run_order_model(seed, 48, 32, 32, 1000);    // many blocks of 64
        if (HasFatalFailure()) return;
        run_order_model(seed, 40, 100, 10, 300);    // 128, then blocks of 64
        if (HasFatalFailure()) return;
        run_order_model(seed, 64, 1024, 1024, 1000);  // one large block
        if (HasFatalFailure()) return;
    }
}

TEST(StaticAllocatorModel, ReleaseFindsRecordsAfterTheBlocksChange) {
    // Lookups remember the last block found. Destroying the allocator and
    // setting it up again with other counts, on the same record, gets new
    // blocks that may lie where the old ones were (these are large enough
    // for the system allocator to map and unmap them): what was remembered
    // of the old blocks must not be used.
    OrderModel model;
    QOR_SA_initialise(&model.sa, 4096, 64, 64, nullptr, nullptr);
    model.used.assign(64, false);
    for (int i = 0; i < 4 * 64 && !HasFatalFailure(); ++i) model.allocate();
    model.release(64 + 10, 0);  // a lookup in block 1
    QOR_SA_destroy(&model.sa);
    QOR_SA_initialise(&model.sa, 4096, 128, 64, nullptr, nullptr);
    model.used.assign(128, false);
    for (int i = 0; i < 128 + 3 * 64 && !HasFatalFailure(); ++i) model.allocate();
    for (uint32_t i : {5u, 100u, 127u, 128u + 10, 128u + 64 + 5, 0u}) {
        model.release(i, 7);
        if (HasFatalFailure()) return;
    }
    for (uint32_t expected : {0u, 5u, 100u, 127u, 128u + 10, 128u + 64 + 5})
        EXPECT_EQ(QOR_SA_allocate(&model.sa), model.address_of(expected));
    QOR_SA_destroy(&model.sa);
}

TEST(StaticAllocatorModel, PointersBesideEveryBlockAreForeign) {
    QOR_SA_allocator sa;
    QOR_SA_initialise(&sa, 48, 64, 64, nullptr, nullptr);
    for (int i = 0; i < 40 * 64; ++i) QOR_SA_allocate(&sa);
    ASSERT_EQ(sa.blocks_in_use, 40u);
    qor_test::MessageLog log;
    for (uint32_t block = 0; block < sa.blocks_in_use; ++block) {
        char *start = static_cast<char *>(sa.blocks[block]);
        // The block's own last record first, so the next lookup starts
        // from this block.
        QOR_SA_release(&sa, start + 63 * 48 + 47);
        EXPECT_EQ(qor_test::catch_fatal([&] { QOR_SA_release(&sa, start - 1); }),
                  2001);
        EXPECT_EQ(qor_test::catch_fatal(
                      [&] { QOR_SA_release(&sa, start + 64 * 48); }),
                  2001);
    }
    EXPECT_EQ(sa.free_entries, 40u);
    QOR_SA_destroy(&sa);
}

TEST(StaticAllocatorModel, AllocateReleaseAndNextAgainstASet) {
    for (unsigned seed : kSeeds) {
        SCOPED_TRACE(seed);
        run_static_model(seed, 12, 32, 32);
        if (HasFatalFailure()) return;
    }
}

TEST(StaticAllocatorModel, UnevenBlocksAndOddRecordSize) {
    for (unsigned seed : kSeeds) {
        SCOPED_TRACE(seed);
        run_static_model(seed, 7, 100, 10);  // blocks of 128 then 64
        if (HasFatalFailure()) return;
    }
}

}  // namespace
