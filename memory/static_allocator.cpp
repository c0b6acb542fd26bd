// Static allocator: records of one size from zero-filled blocks, with a
// bitmap of one bit per record (1 free, 0 in use) searched from a hint below
// which no record is free. Records are numbered across blocks; block 0 holds
// initial_entries of them, every later block extension_entries.

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "foundation/internal.h"
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

void misuse(int parameter) {
    int parameters[1] = {parameter};
    QOR_fatal_error_msg(qor::kSet, 1, 1, parameters, QOR_E_INTERNAL);
}

uint32_t round_to_word(uint32_t entries) {
    if (entries == 0) return kBits;
    QOR_ASSERT(entries <= UINT32_MAX - (kBits - 1), kUnit,
               "QOR_SA_allocate called with too many entries per block");
    return (entries + kBits - 1) & ~(kBits - 1);
}

inline uint32_t block_records(const QOR_SA_allocator *sa, uint32_t block) {
    return block == 0 ? sa->initial_entries : sa->extension_entries;
}

uint32_t total_records(const QOR_SA_allocator *sa) {
    if (sa->blocks_in_use == 0) return 0;
    return (sa->blocks_in_use - 1) * sa->extension_entries +
           sa->initial_entries;
}

inline bool is_free(const QOR_SA_allocator *sa, uint32_t index) {
    return (sa->bitmaps[index / kBits] >> (index % kBits)) & 1u;
}

void *record_at(const QOR_SA_allocator *sa, uint32_t index) {
    uint32_t block = 0;
    uint32_t position = index;
    if (index >= sa->initial_entries) {
        block = 1 + (index - sa->initial_entries) / sa->extension_entries;
        position = (index - sa->initial_entries) % sa->extension_entries;
    }
    return static_cast<char *>(sa->blocks[block]) +
           uint64_t{position} * sa->structure_size;
}

// The index of the record that `p` points into, found by searching the
// blocks in order. False when p lies in none of them. Addresses are compared
// as integers: p may belong to anything at all.
bool index_of(const QOR_SA_allocator *sa, const void *p, uint32_t *index) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(p);
    uint32_t first = 0;
    for (uint32_t block = 0; block < sa->blocks_in_use; ++block) {
        const uint32_t records = block_records(sa, block);
        const uintptr_t start = reinterpret_cast<uintptr_t>(sa->blocks[block]);
        const uint64_t bytes = uint64_t{records} * sa->structure_size;
        if (address >= start && address - start < bytes) {
            *index = first + static_cast<uint32_t>((address - start) /
                                                   sa->structure_size);
            return true;
        }
        first += records;
    }
    return false;
}

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

void add_block(QOR_SA_allocator *sa) {
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
    if (sa->free_entries == 0) add_block(sa);

    // Blocks hold whole words, so the records end on a word boundary.
    const uint32_t words = total_records(sa) / kBits;
    uint32_t word = sa->first_free_hint / kBits;
    uint64_t free_bits =
        word < words
            ? sa->bitmaps[word] & (kAllFree << (sa->first_free_hint % kBits))
            : 0;
    while (free_bits == 0) {
        ++word;
        QOR_ASSERT(word < words, kUnit,
                   "QOR_SA_allocate found its free count wrong");
        free_bits = sa->bitmaps[word];
    }
    const uint32_t bit = static_cast<uint32_t>(__builtin_ctzll(free_bits));
    sa->bitmaps[word] &= ~(uint64_t{1} << bit);
    const uint32_t index = word * kBits + bit;
    sa->free_entries -= 1;
    sa->first_free_hint = index + 1;

    void *record = record_at(sa, index);
    if (sa->allocate_hook != nullptr) {
        sa->allocate_hook(record, sa->structure_size);
    }
    return record;
}

QOR_API void QOR_SA_release(QOR_SA_allocator *sa, void *record) {
    uint32_t index = 0;
    if (!index_of(sa, record, &index)) {
        misuse(kNotInAllocator);
        return;  // only when the application lets fatal errors return
    }
    if (is_free(sa, index)) {
        misuse(kAlreadyFree);
        return;
    }
    if (sa->release_hook != nullptr) {
        sa->release_hook(record, sa->structure_size);
    }
    sa->bitmaps[index / kBits] |= uint64_t{1} << (index % kBits);
    sa->free_entries += 1;
    if (index < sa->first_free_hint) sa->first_free_hint = index;
}

QOR_API void QOR_SA_release_all(QOR_SA_allocator *sa) {
    release_hook_all(sa);
    for (uint32_t w = 0; w < sa->bitmaps_allocated; ++w) {
        sa->bitmaps[w] = kAllFree;
    }
    sa->free_entries = total_records(sa);
    sa->first_free_hint = 0;
}

QOR_API void *QOR_SA_next(QOR_SA_allocator *sa, const void *record) {
    if (sa->blocks_in_use == 0) return nullptr;
    uint32_t start = 0;
    if (record != nullptr) {
        uint32_t index = 0;
        if (!index_of(sa, record, &index)) {
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
