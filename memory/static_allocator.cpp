// Static allocator: records of one size from zero-filled blocks, with a
// bitmap of one bit per record (1 free, 0 in use) searched from a hint below
// which no record is free. Records are numbered across blocks; block 0 holds
// initial_entries of them, every later block extension_entries.

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "foundation/internal.h"
#include "foundation/probe_table.h"
#include "memory/static_allocator.h"
#include "qor/memory.h"

// The public record is part of the interface: its layout is fixed.
static_assert(offsetof(QOR_SA_allocator, structure_size) == 0);
static_assert(offsetof(QOR_SA_allocator, initial_entries) == 4);
static_assert(offsetof(QOR_SA_allocator, extension_entries) == 8);
static_assert(offsetof(QOR_SA_allocator, allocate_hook) == 16);
static_assert(offsetof(QOR_SA_allocator, release_hook) == 24);
static_assert(offsetof(QOR_SA_allocator, free_entries) == 32);
static_assert(offsetof(QOR_SA_allocator, first_free_hint) == 36);
static_assert(offsetof(QOR_SA_allocator, blocks_in_use) == 40);
static_assert(offsetof(QOR_SA_allocator, blocks_allocated) == 44);
static_assert(offsetof(QOR_SA_allocator, bitmaps_allocated) == 48);
static_assert(offsetof(QOR_SA_allocator, blocks) == 56);
static_assert(offsetof(QOR_SA_allocator, bitmaps) == 64);
static_assert(sizeof(QOR_SA_allocator) == 72);

namespace {

constexpr const char kUnit[] = "static_allocator";

constexpr uint32_t kBits = 64;
constexpr uint64_t kAllFree = ~uint64_t{0};
// The block array and the bitmap grow by these many entries at a time.
constexpr uint32_t kBlockSlots = 128;
constexpr uint32_t kBitmapWords = 256;

// Parameter message numbers of the misuse fatal error (message 1).
constexpr int kNotInAllocator = 201;
constexpr int kAlreadyFree = 202;

// Out of line: a release pays nothing for the fatal error's set-up.
__attribute__((noinline, cold)) void misuse(int parameter) {
    int parameters[1] = {parameter};
    QOR_fatal_error_msg(qor::kSet, 1, 1, parameters, QOR_E_INTERNAL);
}

uint32_t round_to_word(uint32_t entries) {
    if (entries == 0) return kBits;
    QOR_ASSERT(entries <= UINT32_MAX - (kBits - 1), kUnit,
               "QOR_SA_allocate called with too many entries per block");
    return (entries + kBits - 1) & ~(kBits - 1);
}

uint32_t total_records(const QOR_SA_allocator *sa) {
    if (sa->blocks_in_use == 0) return 0;
    return (sa->blocks_in_use - 1) * sa->extension_entries +
           sa->initial_entries;
}

inline bool is_free(const QOR_SA_allocator *sa, uint32_t index) {
    return (sa->bitmaps[index / kBits] >> (index % kBits)) & 1u;
}

// n / d and n % d, by a shift when d is a power of two, as block counts
// usually are: a division costs more than the rest of an allocation.
inline void divide(uint32_t n, uint32_t d, uint32_t *quotient,
                   uint32_t *remainder) {
    if ((d & (d - 1)) == 0) {
        *quotient = n >> __builtin_ctz(d);
        *remainder = n & (d - 1);
    } else {
        *quotient = n / d;
        *remainder = n % d;
    }
}

// Division by the structure size is the dearest step of a release. It is
// done by multiplying with a reciprocal (exact for every 32-bit dividend),
// worked out again only when the size differs from the last one seen.
struct Reciprocal {
    uint32_t divisor;
    uint64_t multiplier;  // 2^64 / divisor, rounded up
};
constinit Reciprocal last_reciprocal = {0, 0};

// Byte offset in a block to record position.
inline uint32_t position_of(uint64_t offset, uint32_t structure_size) {
    if (offset > UINT32_MAX) {
        return static_cast<uint32_t>(offset / structure_size);
    }
    const uint32_t n = static_cast<uint32_t>(offset);
    if ((structure_size & (structure_size - 1)) == 0) {
        return n >> __builtin_ctz(structure_size);
    }
    if (last_reciprocal.divisor != structure_size) {
        last_reciprocal = {structure_size, UINT64_MAX / structure_size + 1};
    }
    __extension__ using u128 = unsigned __int128;
    return static_cast<uint32_t>(
        (static_cast<u128>(last_reciprocal.multiplier) * n) >> 64);
}

inline void *record_at(const QOR_SA_allocator *sa, uint32_t index) {
    uint32_t block = 0;
    uint32_t position = index;
    if (index >= sa->initial_entries) {
        divide(index - sa->initial_entries, sa->extension_entries, &block,
               &position);
        block += 1;
    }
    return static_cast<char *>(sa->blocks[block]) +
           uint64_t{position} * sa->structure_size;
}

// No record index: the value a lookup gives for a pointer in no block.
// Real indices stay below the total of records, itself at most UINT32_MAX.
constexpr uint32_t kNoIndex = UINT32_MAX;

// ---- The allocator's private index ------------------------------------------
//
// Two searches would otherwise grow with the number of records: finding the
// block of a released record (the blocks in order) and finding the next word
// with a free record above the hint (the bitmap word by word). Beside the
// public record, which the caller owns and whose layout is fixed, each
// allocator has:
//
//  - a map from address granules to blocks: a granule is the power of two at
//    least as large as an extension block's span, so a block touches at most
//    two granules and a granule meets at most three blocks (block 0, whose
//    span may differ, is tested first on its own). One slot per granule
//    lists its blocks and their addresses, homed at the granule's number
//    itself: blocks come from the heap mostly side by side, their granules
//    are consecutive numbers, and consecutive numbers take consecutive
//    slots, so a lookup finds its granule at the first slot it reads;
//  - a summary of the bitmap in two levels: bit w of level 1 is set when
//    bitmap word w may have a free record (every word above the hint's that
//    has one is marked; a mark left on a word that filled up is cleared by
//    the search that finds it empty), bit v of level 2 when level-1 word v
//    is not zero. The search for the next free word reads a few words.
//
// The answers are those of the plain searches (the lowest free record, the
// first block that holds an address). The index notes which arrays and
// counts it was built for; when the record no longer matches (a copied or
// re-initialised allocator) it is built again from the record.

// Small allocators (the library's own pools mostly hold a block or two)
// search faster than they would keep an index: it is made once an allocator
// reaches this size, and kept until it is destroyed.
constexpr uint32_t kIndexedRecords = 1024;
constexpr uint32_t kIndexedBlocks = 8;

inline bool wants_index(const QOR_SA_allocator *sa) {
    return sa->blocks_in_use >= kIndexedBlocks ||
           total_records(sa) >= kIndexedRecords;
}

// At most three blocks meet a granule: one that began before it, and two
// that begin in it, since a span is more than half a granule.
constexpr unsigned kBlocksPerGranule = 3;

// The slot of granule number key - 1 (0: empty). Its high bits are folded
// in, so that granules far apart (blocks mapped apart from the heap) do not
// all meet at the same few homes.
inline uint64_t granule_home(uint64_t key) { return key ^ (key >> 24); }

struct Granule {
    uint64_t key;  // granule number + 1; 0: empty
    uint32_t block[kBlocksPerGranule];  // the blocks that meet it; kNoIndex after
    // Their addresses, kept here so that a lookup need not read them from
    // the block array as well: one load less in a chain of dependent ones,
    // each of which may miss the cache.
    uintptr_t base[kBlocksPerGranule];
    bool empty() const { return key == 0; }
    uint64_t home() const { return granule_home(key); }
};

struct SideIndex {
    const QOR_SA_allocator *sa;
    // The state of the record the index describes.
    void **blocks;
    uint64_t *bitmaps;
    uint32_t blocks_in_use;
    uint32_t bitmaps_allocated;
    uint32_t structure_size;
    uint32_t extension_entries;
    // Bitmap summary.
    uint64_t *level1;
    uint64_t *level2;
    uint32_t level1_words;
    uint32_t level2_words;
    // Blocks 1 onwards by granule.
    uint32_t shift;
    qor::Probe<Granule> granules;
};

struct SideSlot {
    const QOR_SA_allocator *sa;
    SideIndex *index;
    bool empty() const { return sa == nullptr; }
    uint64_t home() const { return qor::address_hash(sa); }
};

constinit qor::Probe<SideSlot> side_indexes;

// Programs work with a few allocators at a time, often in turn (the object
// locks take a lock record and a contents record from two pools, and give
// both back): the last index and the last block found are remembered per
// allocator, in a few slots chosen by its address, rather than once.
constexpr unsigned kRecentSlots = 8;

inline unsigned recent_slot(const QOR_SA_allocator *sa) {
    return static_cast<unsigned>(
        (reinterpret_cast<uintptr_t>(sa) * 0x9E3779B97F4A7C15ull) >> 61);
}
static_assert(kRecentSlots == 8);  // the shift above keeps three bits

constinit SideIndex *recent_side[kRecentSlots] = {};

uint64_t extension_span(const QOR_SA_allocator *sa) {
    return uint64_t{sa->extension_entries} * sa->structure_size;
}

// The slot of granule key - 1, or null.
inline const Granule *granule_find(const SideIndex *x, uint64_t key) {
    const auto &granules = x->granules;
    if (granules.slots == nullptr) return nullptr;
    for (uint64_t j = granule_home(key) & granules.mask;;
         j = (j + 1) & granules.mask) {
        const Granule *g = &granules.slots[j];
        if (g->key == key) return g;
        if (g->empty()) return nullptr;
    }
}

void granules_add(SideIndex *x, uint32_t block, uintptr_t base, uint64_t span) {
    const uint64_t first = base >> x->shift;
    const uint64_t last = (base + span - 1) >> x->shift;
    for (uint64_t g = first; g <= last; ++g) {
        auto *slot = const_cast<Granule *>(granule_find(x, g + 1));
        if (slot == nullptr) {
            x->granules.reserve_one();
            slot = x->granules.place(granule_home(g + 1));
            slot->key = g + 1;
            for (uint32_t &b : slot->block) b = kNoIndex;
        }
        // Blocks are disjoint, so the granule has room for this one.
        unsigned i = 0;
        while (i + 1 < kBlocksPerGranule && slot->block[i] != kNoIndex) ++i;
        slot->block[i] = block;
        slot->base[i] = base;
    }
}

inline void summary_set(SideIndex *x, uint32_t word) {
    x->level1[word / kBits] |= uint64_t{1} << (word % kBits);
    const uint32_t v = word / kBits;
    x->level2[v / kBits] |= uint64_t{1} << (v % kBits);
}

inline void summary_clear(SideIndex *x, uint32_t word) {
    const uint32_t v = word / kBits;
    x->level1[v] &= ~(uint64_t{1} << (word % kBits));
    if (x->level1[v] == 0) x->level2[v / kBits] &= ~(uint64_t{1} << (v % kBits));
}

// Sizes the summary for the bitmap's words and sets it from the bitmap,
// counting only words that back records.
void summary_build(SideIndex *x, const QOR_SA_allocator *sa) {
    free(x->level1);
    free(x->level2);
    x->level1_words = (sa->bitmaps_allocated + kBits - 1) / kBits + 1;
    x->level2_words = (x->level1_words + kBits - 1) / kBits + 1;
    x->level1 = static_cast<uint64_t *>(qor::zeroed(x->level1_words, 8));
    x->level2 = static_cast<uint64_t *>(qor::zeroed(x->level2_words, 8));
    const uint32_t words = total_records(sa) / kBits;
    for (uint32_t w = 0; w < words; ++w) {
        if (sa->bitmaps[w] != 0) summary_set(x, w);
    }
}

void side_build(SideIndex *x, const QOR_SA_allocator *sa) {
    x->blocks = sa->blocks;
    x->bitmaps = sa->bitmaps;
    x->blocks_in_use = sa->blocks_in_use;
    x->bitmaps_allocated = sa->bitmaps_allocated;
    x->structure_size = sa->structure_size;
    x->extension_entries = sa->extension_entries;
    summary_build(x, sa);
    x->granules.release();
    const uint64_t span = extension_span(sa);
    x->shift = 0;
    while (x->shift < 63 && (uint64_t{1} << x->shift) < span) x->shift += 1;
    for (uint32_t b = 1; b < sa->blocks_in_use; ++b) {
        granules_add(x, b, reinterpret_cast<uintptr_t>(sa->blocks[b]), span);
    }
}

// The arrays move only when blocks are added, and a re-initialised record
// has arrays of its own: those two tell a stale index.
inline bool side_matches(const SideIndex *x, const QOR_SA_allocator *sa) {
    return x->bitmaps == sa->bitmaps && x->blocks_in_use == sa->blocks_in_use;
}

// The index kept for an allocator, as it stands, or null.
SideIndex *side_find(const QOR_SA_allocator *sa) {
    if (side_indexes.slots == nullptr) return nullptr;
    const uint64_t mask = side_indexes.mask;
    for (uint64_t j = qor::address_hash(sa) & mask;; j = (j + 1) & mask) {
        SideSlot *s = &side_indexes.slots[j];
        if (s->empty()) return nullptr;
        if (s->sa == sa) return s->index;
    }
}

// The index of an allocator that has blocks, made or brought up to date.
__attribute__((noinline)) SideIndex *side_lookup(const QOR_SA_allocator *sa) {
    SideIndex *x = side_find(sa);
    if (x == nullptr) {
        x = static_cast<SideIndex *>(qor::zeroed(1, sizeof(SideIndex)));
        x->sa = sa;
        side_indexes.reserve_one();
        SideSlot *s = side_indexes.place(qor::address_hash(sa));
        s->sa = sa;
        s->index = x;
        side_build(x, sa);
    } else if (!side_matches(x, sa)) {
        side_build(x, sa);
    }
    recent_side[recent_slot(sa)] = x;
    return x;
}

inline SideIndex *side_of(const QOR_SA_allocator *sa) {
    SideIndex *x = recent_side[recent_slot(sa)];
    if (x != nullptr && x->sa == sa && side_matches(x, sa)) [[likely]] return x;
    return side_lookup(sa);
}

void side_drop(const QOR_SA_allocator *sa) {
    if (side_indexes.slots == nullptr) return;
    const uint64_t mask = side_indexes.mask;
    for (uint64_t j = qor::address_hash(sa) & mask;; j = (j + 1) & mask) {
        SideSlot *s = &side_indexes.slots[j];
        if (s->empty()) return;
        if (s->sa == sa) {
            SideIndex *x = s->index;
            if (recent_side[recent_slot(sa)] == x) {
                recent_side[recent_slot(sa)] = nullptr;
            }
            free(x->level1);
            free(x->level2);
            x->granules.release();
            free(x);
            side_indexes.erase(s);
            return;
        }
    }
}

// The first word from `from` on (below the words backing records) whose
// summary bit is set, or kNoIndex.
uint32_t next_marked_word(const SideIndex *x, uint32_t from, uint32_t words) {
    if (from >= words) return kNoIndex;
    uint32_t v = from / kBits;
    uint64_t bits = x->level1[v] & (kAllFree << (from % kBits));
    if (bits == 0) {
        const uint32_t next_v = v + 1;
        uint32_t u = next_v / kBits;
        if (u >= x->level2_words) return kNoIndex;
        uint64_t upper = x->level2[u] & (next_v % kBits == 0
                                             ? kAllFree
                                             : kAllFree << (next_v % kBits));
        while (upper == 0) {
            if (++u >= x->level2_words) return kNoIndex;
            upper = x->level2[u];
        }
        v = u * kBits + static_cast<uint32_t>(__builtin_ctzll(upper));
        bits = x->level1[v];
    }
    const uint32_t word = v * kBits + static_cast<uint32_t>(__builtin_ctzll(bits));
    return word < words ? word : kNoIndex;
}

// The first word from `from` on with a free record, or kNoIndex. A set
// summary bit may be stale (allocations leave them be): such a word is
// found empty here, and its bit cleared, once.
uint32_t next_free_word(SideIndex *x, const uint64_t *bitmaps, uint32_t from,
                        uint32_t words) {
    for (;;) {
        const uint32_t word = next_marked_word(x, from, words);
        if (word == kNoIndex || bitmaps[word] != 0) return word;
        summary_clear(x, word);
        from = word + 1;
    }
}

// The block where an allocator's last lookup succeeded, with what a lookup
// needs of it, in the allocator's recent slot: records are mostly released
// soon after they are taken, from the same block. Only a hint: it names its
// allocator and block address, is checked against the allocator's current
// blocks before use, and is dropped when the allocator adds a block or is
// destroyed, so a stale one costs nothing but the search of the blocks.
struct BlockHint {
    const QOR_SA_allocator *sa;
    uintptr_t base;        // the block's address
    uint64_t span;         // its records x structure_size bytes
    uint32_t block;        // its number
    uint32_t first_index;  // the index of its first record
};
constinit BlockHint recent_block[kRecentSlots] = {};

void forget_block_hint(const QOR_SA_allocator *sa) {
    BlockHint &hint = recent_block[recent_slot(sa)];
    if (hint.sa == sa) hint.sa = nullptr;
}

// The index of the record that `address` points into; kNoIndex when it
// lies in none of the blocks. Addresses are compared as integers, since the
// pointer may belong to anything at all: one below a block wraps round to a
// huge offset and fails the range test as well. Block 0 is tested first,
// then the blocks that meet the address's granule.
inline uint32_t search_blocks(const QOR_SA_allocator *sa, uintptr_t address) {
    const uint32_t blocks = sa->blocks_in_use;
    if (blocks == 0) return kNoIndex;
    void *const *array = sa->blocks;
    const uint64_t size = sa->structure_size;
    uint32_t block = 0;
    uint64_t span = sa->initial_entries * size;
    uintptr_t base = reinterpret_cast<uintptr_t>(array[0]);
    if (address - base >= span) {
        span = sa->extension_entries * size;
        if (!wants_index(sa)) {
            // Few blocks: each is a load, a subtraction and a comparison.
            for (block = 1; block < blocks; ++block) {
                base = reinterpret_cast<uintptr_t>(array[block]);
                if (address - base < span) break;
            }
            if (block == blocks) return kNoIndex;
            const uint32_t first_index =
                sa->initial_entries + (block - 1) * sa->extension_entries;
            recent_block[recent_slot(sa)] = {sa, base, span, block,
                                             first_index};
            return first_index + position_of(address - base, sa->structure_size);
        }
        const SideIndex *x = side_of(sa);
        const Granule *g = granule_find(x, (address >> x->shift) + 1);
        if (g == nullptr) return kNoIndex;
        // Blocks are disjoint: at most one of the granule's holds the
        // address. Released records come from either of the first two as
        // often, so both are tested and one chosen without a branch on
        // which (a branch would be mispredicted half the time).
        const uint32_t b0 = g->block[0];
        const bool two = g->block[1] != kNoIndex;
        const uint32_t b1 = two ? g->block[1] : b0;
        const uintptr_t start0 = g->base[0];
        const uintptr_t start1 = two ? g->base[1] : start0;
        // All ones when the second block holds it (masks, since a compiler
        // may turn a plain choice back into a branch).
        const uint64_t second = uint64_t{0} - uint64_t{address - start1 < span};
        block = b0 ^ ((b0 ^ b1) & static_cast<uint32_t>(second));
        base = start0 ^ ((start0 ^ start1) & second);
        if (address - base >= span) {
            block = g->block[2];
            if (block == kNoIndex) return kNoIndex;
            base = g->base[2];
            if (address - base >= span) return kNoIndex;
        }
    }
    const uint32_t first_index =
        block == 0 ? 0
                   : sa->initial_entries + (block - 1) * sa->extension_entries;
    recent_block[recent_slot(sa)] = {sa, base, span, block, first_index};
    return first_index + position_of(address - base, sa->structure_size);
}

// The block of `sa`'s last lookup, when it has it still and it holds
// `address`: then the record's index, else kNoIndex.
inline uint32_t index_in_recent_block(const QOR_SA_allocator *sa,
                                      uintptr_t address) {
    const BlockHint &hint = recent_block[recent_slot(sa)];
    if (hint.sa == sa && hint.block < sa->blocks_in_use &&
        reinterpret_cast<uintptr_t>(sa->blocks[hint.block]) == hint.base) {
        const uint64_t offset = address - hint.base;
        if (offset < hint.span) [[likely]] {
            return hint.first_index + position_of(offset, sa->structure_size);
        }
    }
    return kNoIndex;
}

// The index of the record that `p` points into (a pointer into the middle
// of a record maps to that record), or kNoIndex: the block of the last
// lookup is tried first.
inline uint32_t index_of(const QOR_SA_allocator *sa, const void *p) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(p);
    const uint32_t index = index_in_recent_block(sa, address);
    return index != kNoIndex ? index : search_blocks(sa, address);
}

}  // namespace

bool qor::sa_holds(const QOR_SA_allocator *sa, const void *p) {
    return index_of(sa, p) != kNoIndex;
}

namespace {

// The first record in use at or after `from`, or `total` when none.
uint32_t next_in_use(const QOR_SA_allocator *sa, uint32_t from,
                     uint32_t total) {
    uint32_t word = from / kBits;
    if (from >= total) return total;
    // Bits below `from` in its word are masked away (as if free).
    uint64_t in_use = ~sa->bitmaps[word] & (kAllFree << (from % kBits));
    const uint32_t words = total / kBits;  // blocks hold whole words
    while (in_use == 0) {
        if (++word >= words) return total;
        in_use = ~sa->bitmaps[word];
    }
    return word * kBits + static_cast<uint32_t>(__builtin_ctzll(in_use));
}

// Calls the release hook for every record in use, in index order.
void release_hook_all(QOR_SA_allocator *sa) {
    if (sa->release_hook == nullptr || sa->blocks_in_use == 0) return;
    const uint32_t total = total_records(sa);
    for (uint32_t i = next_in_use(sa, 0, total); i < total;
         i = next_in_use(sa, i + 1, total)) {
        sa->release_hook(record_at(sa, i), sa->structure_size);
    }
}

template <class T>
T *grow(T *array, uint32_t entries) {
    const uint64_t bytes = uint64_t{entries} * sizeof(T);
    QOR_ASSERT(bytes <= INT32_MAX, kUnit,
               "QOR_SA_allocate called to grow beyond its limits");
    void *p = array == nullptr ? QOR_malloc(static_cast<int32_t>(bytes))
                               : QOR_realloc(array, static_cast<int32_t>(bytes));
    return static_cast<T *>(p);
}

// Rare, so kept out of line: allocation itself stays small.
__attribute__((noinline)) void add_block(QOR_SA_allocator *sa) {
    forget_block_hint(sa);
    if (sa->blocks == nullptr) side_drop(sa);
    const bool first = sa->blocks == nullptr;
    if (first) {
        sa->initial_entries = round_to_word(sa->initial_entries);
        sa->extension_entries = round_to_word(sa->extension_entries);
    }
    const uint32_t first_index = first ? 0 : total_records(sa);
    const uint32_t records = first ? sa->initial_entries : sa->extension_entries;
    QOR_ASSERT(uint64_t{first_index} + records <= UINT32_MAX, kUnit,
               "QOR_SA_allocate called to hold too many records");
    const uint32_t first_word = first_index / kBits;
    const uint32_t words = records / kBits;

    if (sa->blocks_in_use == sa->blocks_allocated) {
        // The next multiple of 128 above the current count.
        const uint32_t slots = (sa->blocks_in_use + kBlockSlots) & ~(kBlockSlots - 1);
        sa->blocks = grow(sa->blocks, slots);
        sa->blocks_allocated = slots;
    }
    const uint32_t needed = first_word + words;
    if (sa->bitmaps_allocated < needed) {
        const uint32_t had = sa->bitmaps_allocated;
        const uint64_t wanted =
            (uint64_t{needed} + kBitmapWords - 1) & ~uint64_t{kBitmapWords - 1};
        QOR_ASSERT(wanted <= UINT32_MAX, kUnit,
                   "QOR_SA_allocate called to grow beyond its limits");
        sa->bitmaps = grow(sa->bitmaps, static_cast<uint32_t>(wanted));
        sa->bitmaps_allocated = static_cast<uint32_t>(wanted);
        // Words not yet backing a record read as "none free", so neither a
        // search nor the dump can take them for free records.
        memset(sa->bitmaps + had, 0, (sa->bitmaps_allocated - had) * sizeof(uint64_t));
    }
    for (uint32_t w = first_word; w < needed; ++w) sa->bitmaps[w] = kAllFree;

    QOR_ASSERT(sa->structure_size <= INT32_MAX, kUnit,
               "QOR_SA_allocate called with too large a structure size");
    sa->blocks[sa->blocks_in_use] =
        QOR_calloc(static_cast<int32_t>(records),
                   static_cast<int32_t>(sa->structure_size));
    sa->blocks_in_use += 1;
    sa->free_entries = records;
    sa->first_free_hint = first_index;

    // The index follows: a first block (or a record it does not know)
    // builds it afresh, a further one adds its granules and summary bits.
    if (!wants_index(sa)) return;
    SideIndex *x = side_find(sa);
    if (first || x == nullptr || x->blocks_in_use + 1 != sa->blocks_in_use ||
        x->structure_size != sa->structure_size ||
        x->extension_entries != sa->extension_entries) {
        side_lookup(sa);
        return;
    }
    recent_side[recent_slot(sa)] = x;
    x->blocks = sa->blocks;
    x->bitmaps = sa->bitmaps;
    x->blocks_in_use = sa->blocks_in_use;
    if (x->bitmaps_allocated != sa->bitmaps_allocated) {
        x->bitmaps_allocated = sa->bitmaps_allocated;
        summary_build(x, sa);  // with the new block's words
    } else {
        for (uint32_t w = first_word; w < needed; ++w) summary_set(x, w);
    }
    granules_add(x, sa->blocks_in_use - 1,
                 reinterpret_cast<uintptr_t>(sa->blocks[sa->blocks_in_use - 1]),
                 extension_span(sa));
}

// The search ran past the records although the free count said one was
// free: the allocator's state has been damaged. Out of line, so that the
// search needs no stack frame.
__attribute__((noinline, cold)) void *free_count_wrong() {
    QOR_ASSERT(false, kUnit, "QOR_SA_allocate found its free count wrong");
    return nullptr;  // only when the application lets fatal errors return
}

// Calls a hook on a record and gives the record back: out of line, so that
// an allocator without hooks never sets up the call.
__attribute__((noinline)) void *with_hook(QOR_SA_hook hook, void *record,
                                          uint32_t structure_size) {
    hook(record, structure_size);
    return record;
}

// Takes the lowest free record, in `word` with `free_bits` its free records
// at or above the hint, and gives the record (the allocate hook run on it).
inline void *take_from(QOR_SA_allocator *sa, uint32_t word,
                       uint64_t free_bits) {
    const uint32_t bit = static_cast<uint32_t>(__builtin_ctzll(free_bits));
    sa->bitmaps[word] &= ~(uint64_t{1} << bit);
    const uint32_t index = word * kBits + bit;
    sa->free_entries -= 1;
    sa->first_free_hint = index + 1;
    void *record = record_at(sa, index);
    if (sa->allocate_hook != nullptr) {
        return with_hook(sa->allocate_hook, record, sa->structure_size);
    }
    return record;
}

// An allocation whose hint's word has no free record: the next word with
// one comes from the summary, or word by word for an allocator without
// one. Blocks hold whole words, so the records end on a word boundary. Out
// of line, so that an allocation served from the hint's word needs no
// frame.
__attribute__((noinline)) void *take_after_search(QOR_SA_allocator *sa,
                                                  uint32_t word) {
    uint64_t *const bitmaps = sa->bitmaps;
    const uint32_t words = total_records(sa) / kBits;
    if (wants_index(sa)) {
        SideIndex *x = side_of(sa);
        word = next_free_word(x, bitmaps, word + 1, words);
        if (word == kNoIndex) [[unlikely]] return free_count_wrong();
        // The word found becomes the hint's, which needs no mark: its mark
        // goes now, rather than be found stale by a later search once the
        // word is full. Should the hint drop below the word while it still
        // has free records, the word is marked again.
        summary_clear(x, word);
    } else {
        do {
            if (++word >= words) [[unlikely]] return free_count_wrong();
        } while (bitmaps[word] == 0);
    }
    return take_from(sa, word, bitmaps[word]);
}

// Allocates the lowest free record: the search starts at the hint (no
// record below it is free) and skips whole words of records in use.
inline void *allocate_record(QOR_SA_allocator *sa) {
    const uint32_t hint = sa->first_free_hint;
    const uint32_t word = hint / kBits;
    // While a record is free the hint lies below the total of records; the
    // bound only keeps a wrong hint from reading outside the bitmap.
    uint64_t free_bits = 0;
    if (word < sa->bitmaps_allocated) [[likely]] {
        free_bits = sa->bitmaps[word] & (kAllFree << (hint % kBits));
    }
    if (free_bits == 0) return take_after_search(sa, word);
    return take_from(sa, word, free_bits);
}

// An allocation that first needs a block (and a static allocator's set-up).
__attribute__((noinline)) void *allocate_in_new_block(QOR_SA_allocator *sa) {
    add_block(sa);
    return allocate_record(sa);
}

// Marks record `index` free again.
// The summary need only cover words above the hint's: the search reads the
// hint's word itself, and every record below the hint is in use. So a
// record given back above the hint's word marks its word, and a hint that
// drops to a lower word marks the word it leaves if that has free records.
__attribute__((noinline)) void mark_word(QOR_SA_allocator *sa, uint32_t word) {
    if (wants_index(sa)) summary_set(side_of(sa), word);
}

inline void give_back(QOR_SA_allocator *sa, uint32_t index) {
    const uint32_t word = index / kBits;
    const uint32_t hint = sa->first_free_hint;
    const uint32_t hint_word = hint / kBits;
    sa->bitmaps[word] |= uint64_t{1} << (index % kBits);
    sa->free_entries += 1;
    if (index < hint) {
        sa->first_free_hint = index;
        if (word < hint_word && hint_word < sa->bitmaps_allocated &&
            sa->bitmaps[hint_word] != 0) {
            mark_word(sa, hint_word);
        }
    } else if (word > hint_word) {
        mark_word(sa, word);
    }
}

// The release hook runs before the record is marked free.
__attribute__((noinline)) void release_with_hook(QOR_SA_allocator *sa,
                                                 void *record,
                                                 uint32_t index) {
    sa->release_hook(record, sa->structure_size);
    give_back(sa, index);
}

// Release once the record's index is known (kNoIndex: in no block). After
// either misuse the record is left alone, should the application let fatal
// errors return.
inline void release_index(QOR_SA_allocator *sa, void *record,
                          uint32_t index) {
    if (index == kNoIndex) [[unlikely]] return misuse(kNotInAllocator);
    if (is_free(sa, index)) [[unlikely]] return misuse(kAlreadyFree);
    if (sa->release_hook != nullptr) {
        return release_with_hook(sa, record, index);
    }
    give_back(sa, index);
}

// A release whose record is not in the block of its allocator's last lookup.
__attribute__((noinline)) void release_after_search(QOR_SA_allocator *sa,
                                                    void *record) {
    release_index(sa, record,
                  search_blocks(sa, reinterpret_cast<uintptr_t>(record)));
}

}  // namespace

extern "C" {

QOR_API void QOR_SA_initialise(QOR_SA_allocator *sa, uint32_t structure_size,
                               uint32_t initial_entries,
                               uint32_t extension_entries,
                               QOR_SA_hook allocate_hook,
                               QOR_SA_hook release_hook) {
    *sa = QOR_SA_allocator QOR_SA_INITIALISER(structure_size, initial_entries,
                                              extension_entries, allocate_hook,
                                              release_hook);
    add_block(sa);
}

QOR_API void *QOR_SA_allocate(QOR_SA_allocator *sa) {
    // An allocator that is static data, or destroyed, sets itself up here.
    if (sa->free_entries == 0) [[unlikely]] return allocate_in_new_block(sa);
    return allocate_record(sa);
}

QOR_API void QOR_SA_release(QOR_SA_allocator *sa, void *record) {
    const uint32_t index =
        index_in_recent_block(sa, reinterpret_cast<uintptr_t>(record));
    if (index == kNoIndex) return release_after_search(sa, record);
    release_index(sa, record, index);
}

QOR_API void QOR_SA_release_all(QOR_SA_allocator *sa) {
    release_hook_all(sa);
    for (uint32_t w = 0; w < sa->bitmaps_allocated; ++w) {
        sa->bitmaps[w] = kAllFree;
    }
    sa->free_entries = total_records(sa);
    sa->first_free_hint = 0;
    if (wants_index(sa)) summary_build(side_of(sa), sa);
}

QOR_API void *QOR_SA_next(QOR_SA_allocator *sa, const void *record) {
    if (sa->blocks_in_use == 0) return nullptr;
    uint32_t start = 0;
    if (record != nullptr) {
        const uint32_t index = index_of(sa, record);
        if (index == kNoIndex) {
            misuse(kNotInAllocator);
            return nullptr;
        }
        start = index + 1;
    }
    const uint32_t total = total_records(sa);
    const uint32_t found = next_in_use(sa, start, total);
    return found < total ? record_at(sa, found) : nullptr;
}

QOR_API void QOR_SA_destroy(QOR_SA_allocator *sa) {
    release_hook_all(sa);
    forget_block_hint(sa);
    side_drop(sa);
    for (uint32_t block = 0; block < sa->blocks_in_use; ++block) {
        QOR_free(sa->blocks[block]);
    }
    if (sa->blocks != nullptr) QOR_free(sa->blocks);
    if (sa->bitmaps != nullptr) QOR_free(sa->bitmaps);
    sa->free_entries = 0;
    sa->first_free_hint = 0;
    sa->blocks_in_use = 0;
    sa->blocks_allocated = 0;
    sa->bitmaps_allocated = 0;
    sa->blocks = nullptr;
    sa->bitmaps = nullptr;
}

QOR_API void QOR_SA_dump(QOR_SA_allocator *sa, int verbose) {
    if (sa == nullptr) return;
    fprintf(stderr, "*** Dumping Static Allocator ***\n");
    fprintf(stderr, "Structure Size    : %d\n",
            static_cast<int>(sa->structure_size));
    fprintf(stderr, "Free Entries      : %d\n",
            static_cast<int>(sa->free_entries));
    fprintf(stderr, "Blocks in use     : %d\n",
            static_cast<int>(sa->blocks_in_use));
    fprintf(stderr, "Blocks Allocated  : %d\n",
            static_cast<int>(sa->blocks_allocated));
    if (verbose) {
        fprintf(stderr, "Initial Entries   : %d\n",
                static_cast<int>(sa->initial_entries));
        fprintf(stderr, "Extension Entries : %d\n",
                static_cast<int>(sa->extension_entries));
        fprintf(stderr, "Bitmaps Allocated : %d\n",
                static_cast<int>(sa->bitmaps_allocated));
        uint32_t word = 0;
        while (word < sa->bitmaps_allocated && sa->bitmaps[word] == 0) ++word;
        if (word < sa->bitmaps_allocated) {
            // The value shown is that of the word after the one found; a
            // word past the end of the bitmap shows as 0.
            const uint64_t after =
                word + 1 < sa->bitmaps_allocated ? sa->bitmaps[word + 1] : 0;
            fprintf(stderr, "First bitmap free : no. %d\nValue : %lx\n",
                    static_cast<int>(word), static_cast<unsigned long>(after));
        } else {
            fprintf(stderr, "First bitmap free : none\n");
        }
    }
    fprintf(stderr, "*** Finished Dump of Static Allocator ***\n");
}

}  // extern "C"
