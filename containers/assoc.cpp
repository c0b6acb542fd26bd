// ASSOC tables: chained hash tables whose whole behaviour (hashing,
// comparison, storage of entries, buckets, table records and scans, printing)
// comes from a key-type record, so one table body serves string keys, long
// keys, atoms and any key type a caller defines. Every live table sits in a
// registry so that it can be reported by name, and every operation can trace
// itself on standard error.

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include "containers/assoc_index.h"
#include "containers/pieces.h"
#include "foundation/internal.h"

// The records are part of the interface: callers read entries and tables
// directly and build key types of their own.
static_assert(offsetof(QOR_ASSOC_entry, next) == 0);
static_assert(offsetof(QOR_ASSOC_entry, hash) == 8);
static_assert(sizeof(QOR_ASSOC_entry) == 16);
static_assert(offsetof(QOR_ASSOC_string_entry, next) == 0);
static_assert(offsetof(QOR_ASSOC_string_entry, hash) == 8);
static_assert(offsetof(QOR_ASSOC_string_entry, key) == 16);
static_assert(offsetof(QOR_ASSOC_string_entry, value) == 24);
static_assert(sizeof(QOR_ASSOC_string_entry) == 32);
static_assert(offsetof(QOR_ASSOC_long_int_entry, next) == 0);
static_assert(offsetof(QOR_ASSOC_long_int_entry, hash) == 8);
static_assert(offsetof(QOR_ASSOC_long_int_entry, value) == 16);
static_assert(sizeof(QOR_ASSOC_long_int_entry) == 24);
static_assert(offsetof(QOR_ASSOC_key_type, hash) == 0);
static_assert(offsetof(QOR_ASSOC_key_type, cmp) == 8);
static_assert(offsetof(QOR_ASSOC_key_type, print_key) == 16);
static_assert(offsetof(QOR_ASSOC_key_type, print) == 24);
static_assert(offsetof(QOR_ASSOC_key_type, entry_alloc) == 32);
static_assert(offsetof(QOR_ASSOC_key_type, entry_init) == 40);
static_assert(offsetof(QOR_ASSOC_key_type, entry_free) == 48);
static_assert(offsetof(QOR_ASSOC_key_type, hash_alloc) == 56);
static_assert(offsetof(QOR_ASSOC_key_type, hash_free) == 64);
static_assert(offsetof(QOR_ASSOC_key_type, table_alloc) == 72);
static_assert(offsetof(QOR_ASSOC_key_type, table_init) == 80);
static_assert(offsetof(QOR_ASSOC_key_type, table_free) == 88);
static_assert(offsetof(QOR_ASSOC_key_type, scan_alloc) == 96);
static_assert(offsetof(QOR_ASSOC_key_type, scan_init) == 104);
static_assert(offsetof(QOR_ASSOC_key_type, scan_free) == 112);
static_assert(offsetof(QOR_ASSOC_key_type, entry_size) == 120);
static_assert(offsetof(QOR_ASSOC_key_type, table_size) == 124);
static_assert(offsetof(QOR_ASSOC_key_type, scan_size) == 128);
static_assert(offsetof(QOR_ASSOC_key_type, fixed_size) == 132);
static_assert(offsetof(QOR_ASSOC_key_type, trace) == 133);
static_assert(sizeof(QOR_ASSOC_key_type) == 136);
static_assert(offsetof(QOR_ASSOC_table, name) == 0);
static_assert(offsetof(QOR_ASSOC_table, next) == 8);
static_assert(offsetof(QOR_ASSOC_table, prev) == 16);
static_assert(offsetof(QOR_ASSOC_table, trace) == 24);
static_assert(offsetof(QOR_ASSOC_table, fixed_size) == 25);
static_assert(offsetof(QOR_ASSOC_table, mask) == 32);
static_assert(offsetof(QOR_ASSOC_table, count) == 40);
static_assert(offsetof(QOR_ASSOC_table, buckets) == 48);
static_assert(offsetof(QOR_ASSOC_table, scans) == 56);
static_assert(offsetof(QOR_ASSOC_table, key_type) == 64);
static_assert(sizeof(QOR_ASSOC_table) == 72);
static_assert(offsetof(QOR_ASSOC_scan, next) == 0);
static_assert(offsetof(QOR_ASSOC_scan, prev) == 8);
static_assert(offsetof(QOR_ASSOC_scan, table) == 16);
static_assert(offsetof(QOR_ASSOC_scan, current) == 24);
static_assert(offsetof(QOR_ASSOC_scan, pending) == 32);
static_assert(sizeof(QOR_ASSOC_scan) == 40);
static_assert(alignof(qor::containers::Entry) == 4);
static_assert(sizeof(qor::containers::Entry) == sizeof(QOR_ASSOC_entry));

namespace {

constexpr const char kUnit[] = "assoc";

// Buckets of a new table: never fewer than this.
constexpr uint64_t kMinBuckets = 32;

// Bytes a byte-wise string hash looks at: the middle of longer keys.
constexpr int32_t kHashedBytes = 14;

using qor::containers::AssocIndex;
using qor::containers::Entry;
using qor::containers::IndexedKey;
using qor::containers::StringEntry;
using qor::containers::handle;
using qor::containers::piece;
using qor::containers::push_front;
using qor::containers::unlink;

// Chain links are declared with the natural alignment; every walk goes
// through the 4-byte view so that entries carved from a freestore are read
// with the alignment they really have.
inline Entry *next_of(const Entry *e) { return e->next; }

inline int bucket_of(const QOR_ASSOC_table *t, uint64_t hash) {
    return static_cast<int>(hash & t->mask);
}

inline uint64_t word_of(const void *key) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key));
}

inline unsigned long ulong_of(const void *p) {
    return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p));
}

// Walks over every chain (growth, clearing) are bound by the latency of
// loading each entry: entries are allocated one by one and chains visit
// them in hash order, so nearly every step misses the cache. The heads of
// buckets some way ahead are fetched while the current ones are worked on.
// A prefetch never faults, so any entry pointer may be given.
constexpr uint64_t kAhead = 16;

inline void prefetch(const void *p) { __builtin_prefetch(p); }

// A string entry's key copy, whose allocation header free() reads. The
// entry was asked for some buckets earlier, so reading its key pointer
// seldom waits.
inline void prefetch_key(const Entry *e) {
    if (e != nullptr) {
        // The header lies just below the key: worked out as an address,
        // since a pointer may not point there.
        const auto key = reinterpret_cast<uintptr_t>(
            reinterpret_cast<const StringEntry *>(e)->key);
        prefetch(reinterpret_cast<const void *>(key - 16));
    }
}

// Clearing a large table of the library's own key types. Its chains are
// walked one entry after the other, each a load from anywhere in the heap
// (keys that differ at their ends share long chains), and frees in chain
// order leave the allocator to merge its small free blocks in that same
// scattered order when the bucket array is freed, one dependent load after
// the other. The library's own entry_free functions only give memory back,
// so the order of their frees is the heap's business alone: the index lists
// the entries without a walk, they are sorted by address, and freed in that
// order. The caller sees the same outcome: every entry freed by its
// entry_free, every bucket empty. Other key types have no index and keep
// the walk.
constexpr int32_t kSortedClearMin = 4096;

// Sorts `from` into `to` by the bits [low, low + bits) of each address: a
// counting sort (stable), with room for 2^bits + 1 counts in `next`.
void sort_by_bits(Entry *const *from, Entry **to, uint64_t n, unsigned low,
                  unsigned bits, uint64_t *next) {
    const uint64_t digits = uint64_t{1} << bits;
    memset(next, 0, (digits + 1) * sizeof(uint64_t));
    const auto digit = [low, digits](const Entry *e) {
        return (reinterpret_cast<uintptr_t>(e) >> low) & (digits - 1);
    };
    for (uint64_t i = 0; i < n; ++i) next[digit(from[i]) + 1] += 1;
    for (uint64_t d = 0; d < digits; ++d) next[d + 1] += next[d];
    for (uint64_t i = 0; i < n; ++i) to[next[digit(from[i])]++] = from[i];
}

// The library's string entries: their key copies are freed with them.
inline bool frees_key_copies(const QOR_ASSOC_table *t) {
    return t->key_type->entry_free == QOR_ASSOC_string_free;
}

// Whether a table's entries may be freed in any order: the library's own
// key types, whose entry_free only gives memory back, with an index to
// list the entries, enough of them to be worth it, and a bucket array with
// room to serve as the sort's second buffer (a table of fixed size may be
// fuller than its buckets).
AssocIndex *index_for_any_order(const QOR_ASSOC_table *t) {
    if (t->count < kSortedClearMin ||
        static_cast<uint64_t>(t->count) > t->mask + 1 ||
        (!frees_key_copies(t) &&
         t->key_type->entry_free != QOR_ASSOC_entry_free)) {
        return nullptr;
    }
    return qor::containers::index_of(t);
}

// Puts the table's n entries into `list` in address order, sorted from the
// cache line up over about the span the entries and their keys take (some
// 128 bytes an entry): two digits of at most 12 bits; beyond that span the
// order wraps round. The bucket array is the second buffer, so the chains
// are gone once this returns true; on false nothing has been changed.
bool list_in_address_order(QOR_ASSOC_table *t, AssocIndex *x, Entry **list,
                           uint64_t n) {
    constexpr unsigned kLine = 6;
    unsigned span = kLine + 2;
    while ((uint64_t{1} << span) < n * 128 && span < kLine + 24) span += 1;
    const unsigned low_bits = (span - kLine + 1) / 2;
    const unsigned high_bits = span - kLine - low_bits;
    auto *next = static_cast<uint64_t *>(
        malloc(((uint64_t{1} << low_bits) + 1) * sizeof(uint64_t)));
    if (next == nullptr || !qor::containers::index_entries(x, list, n)) {
        free(next);
        return false;
    }
    sort_by_bits(list, t->buckets, n, kLine, low_bits, next);
    sort_by_bits(t->buckets, list, n, kLine + low_bits, high_bits, next);
    free(next);
    return true;
}

// Frees the listed entries in list order, fetching a little ahead.
void free_listed(QOR_ASSOC_table *t, Entry *const *list, uint64_t n) {
    const bool key_copies = frees_key_copies(t);
    const auto entry_free = t->key_type->entry_free;
    const uint32_t entry_size = t->key_type->entry_size;
    for (uint64_t i = 0; i < n; ++i) {
        if (i + kAhead < n) prefetch(list[i + kAhead]);
        if (key_copies && i + kAhead / 2 < n) prefetch_key(list[i + kAhead / 2]);
        entry_free(t, handle(list[i]), entry_size);
    }
}

bool clear_in_address_order(QOR_ASSOC_table *t) {
    AssocIndex *x = index_for_any_order(t);
    if (x == nullptr) return false;
    const auto n = static_cast<uint64_t>(t->count);
    auto **list = static_cast<Entry **>(malloc(n * sizeof(Entry *)));
    if (list == nullptr || !list_in_address_order(t, x, list, n)) {
        free(list);
        return false;
    }
    free_listed(t, list, n);
    memset(t->buckets, 0, (t->mask + 1) * sizeof(Entry *));
    free(list);
    qor::containers::index_cleared(x);
    return true;
}

// A destroy's entries, listed before its large blocks go and freed after.
//
// glibc merges its small free chunks, and gives the top of the heap back to
// the kernel, when a block of 64 KiB or more is freed from the heap. A
// destroy that freed its entries first and its bucket array after would do
// both at its end, every time: a program that builds and destroys large
// tables in turn would have the kernel take the heap back and fault it in
// again page by page at the next build. Freed the other way round, the
// large blocks go while the entries still hold the heap, and the entries'
// small chunks then wait on glibc's fast lists for the next build, as any
// small frees do. The list lives in pages mapped for it: freeing it from
// the heap would set off the very merge this avoids.
struct LateEntries {
    Entry **list;
    uint64_t n;
    size_t bytes;
};

LateEntries list_for_destroy(QOR_ASSOC_table *t) {
    AssocIndex *x = index_for_any_order(t);
    if (x == nullptr) return {nullptr, 0, 0};
    const auto n = static_cast<uint64_t>(t->count);
    const size_t bytes = n * sizeof(Entry *);
    void *pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) return {nullptr, 0, 0};
    auto **list = static_cast<Entry **>(pages);
    if (!list_in_address_order(t, x, list, n)) {
        munmap(pages, bytes);
        return {nullptr, 0, 0};
    }
    t->count = 0;  // nothing left for the clear
    return {list, n, bytes};
}

void free_late(QOR_ASSOC_table *t, const LateEntries &late) {
    if (late.list == nullptr) return;
    free_listed(t, late.list, late.n);
    munmap(late.list, late.bytes);
}

// "-- ASSOC table NAME: WHAT" followed by the key type's line for the entry.
void trace_entry(QOR_ASSOC_table *t, const char *what, Entry *e) {
    fprintf(stderr, "-- ASSOC table %s: %s", t->name, what);
    t->key_type->print(stderr, t, handle(e), bucket_of(t, e->hash));
}

void trace_line(QOR_ASSOC_table *t, const char *what) {
    fprintf(stderr, "-- ASSOC table %s: %s\n", t->name, what);
}

// First entry from `e` on (inclusive) whose full hash is `hash` and which
// the key type says holds `key`.
Entry *match_from(QOR_ASSOC_table *t, Entry *e, uint64_t hash,
                  const void *key) {
    const auto cmp = t->key_type->cmp;
    if (cmp == QOR_ASSOC_string_cmp) {
        // The library's own comparison, called directly: chains of string
        // keys are walked often and far (see the hash below).
        const char *text = static_cast<const char *>(key);
        for (; e != nullptr; e = next_of(e)) {
            if (e->hash == hash &&
                strcmp(reinterpret_cast<StringEntry *>(e)->key, text) == 0) {
                return e;
            }
        }
        return nullptr;
    }
    for (; e != nullptr; e = next_of(e)) {
        if (e->hash == hash && cmp(t, handle(e), key) != 0) return e;
    }
    return nullptr;
}

Entry *lookup(QOR_ASSOC_table *t, uint64_t hash, const void *key) {
    return match_from(t, t->buckets[hash & t->mask], hash, key);
}

// A key as the table hashes it, and as its index (if any) does.
struct Hashed {
    AssocIndex *index;
    IndexedKey key;
};

Hashed hash_key(QOR_ASSOC_table *t, const void *key) {
    AssocIndex *x = qor::containers::index_of(t);
    if (x != nullptr) return {x, qor::containers::index_key(x, key)};
    return {nullptr, {t->key_type->hash(t, key), 0, 0, true, 0}};
}

// What find_first does for a table other than the last one asked about.
__attribute__((noinline)) Entry *find_first_searched(QOR_ASSOC_table *t,
                                                     const void *key) {
    if (AssocIndex *x = qor::containers::index_search(t)) {
        return qor::containers::index_find_key(x, key);
    }
    return lookup(t, t->key_type->hash(t, key), key);
}

// The first entry in chain order that holds the key: what the chain walk
// finds, through the index where the table has one. The usual case (the
// table asked about last, with an index) is a jump to the index's search,
// with no frame of its own.
inline Entry *find_first(QOR_ASSOC_table *t, const void *key) {
    const qor::containers::LastIndexed &last = qor::containers::last_indexed;
    if (t == last.table && last.index != nullptr) [[likely]] {
        return qor::containers::index_find_key(last.index, key);
    }
    return find_first_searched(t, key);
}

// The same, for an insertion that follows when nothing is found: the index
// notes where the new key goes, which spares it a second search.
Entry *lookup_to_insert(QOR_ASSOC_table *t, Hashed &h, const void *key) {
    if (h.index != nullptr) {
        return qor::containers::index_find_for_insert(h.index, h.key, key);
    }
    return lookup(t, h.key.hash, key);
}

// Chains of a few of the old buckets walked side by side when a table
// grows: a chain is a walk from entry to entry, each load waiting for the
// last, and chains made long by the key hash would otherwise be walked one
// cache miss at a time. With several under way, their misses overlap.
constexpr int kLanes = 8;

// Doubles the bucket array (more than once if the count asks for it) and
// moves every entry over. Entries are pushed onto the heads of their new
// chains in old-chain order, so entries that meet again come out reversed.
// Entries of one old chain only ever meet entries of the same old chain
// (the new bucket keeps the old one's bits), so walking several old chains
// at once, each in its own order, gives every new chain the same order as
// walking them one after another.
void grow(QOR_ASSOC_table *t) {
    const uint64_t old_buckets = t->mask + 1;
    uint64_t buckets = 2 * old_buckets;
    while (static_cast<uint64_t>(t->count) > buckets) buckets *= 2;
    Entry **old = t->buckets;
    t->mask = buckets - 1;
    const uint64_t mask = t->mask;
    Entry **fresh = t->key_type->hash_alloc(
        t, static_cast<uint32_t>(buckets * sizeof(Entry *)));
    Entry *lane[kLanes] = {};
    uint64_t b = 0;  // the next old bucket to start
    // The next non-empty old chain, or null when none is left.
    auto next_chain = [&]() -> Entry * {
        while (b < old_buckets) {
            if (b + kAhead < old_buckets) prefetch(old[b + kAhead]);
            if (Entry *e = old[b++]) return e;
        }
        return nullptr;
    };
    int busy = 0;
    for (Entry *&e : lane) {
        e = next_chain();
        if (e != nullptr) busy += 1;
    }
    while (busy != 0) {
        for (Entry *&e : lane) {
            if (e == nullptr) continue;
            Entry *following = next_of(e);
            prefetch(following);
            const uint64_t i = e->hash & mask;
            e->next = fresh[i];
            fresh[i] = e;
            e = following != nullptr ? following : next_chain();
            if (e == nullptr) busy -= 1;
        }
    }
    t->buckets = fresh;
    if (t->key_type->hash_free != nullptr) {
        t->key_type->hash_free(
            t, old, static_cast<uint32_t>(old_buckets * sizeof(Entry *)));
    }
    if (AssocIndex *x = qor::containers::index_of(t)) {
        qor::containers::index_regrown(x, t);
    }
}

// Links a new entry for `key` at the head of its chain, growing the table
// first when it already holds as many entries as it has buckets.
Entry *add_entry(QOR_ASSOC_table *t, Hashed h, const void *key,
                 void *value) {
    const uint64_t hash = qor::containers::index_chain_hash(h.key, key);
    if (t->fixed_size == 0 && t->count > static_cast<int32_t>(t->mask)) {
        grow(t);
    }
    const QOR_ASSOC_key_type *kt = t->key_type;
    const uint64_t i = hash & t->mask;
    prefetch(&t->buckets[i]);  // read once the entry is allocated
    Entry *e = kt->entry_alloc(t, kt->entry_size, key, value);
    e->hash = hash;
    e->next = t->buckets[i];
    t->buckets[i] = e;
    t->count += 1;
    if (h.index != nullptr) qor::containers::index_linked(h.index, e, h.key);
    if (kt->entry_init != nullptr) kt->entry_init(t, handle(e), key, value);
    if (t->trace) trace_entry(t, "inserted: ", e);
    return e;
}

// A scan's step: the chain successor of the current entry, else the head of
// the next non-empty bucket, else null (which restarts the scan).
Entry *step(QOR_ASSOC_scan *s) {
    QOR_ASSOC_table *t = s->table;
    uint64_t b = 0;
    if (s->current != nullptr) {
        Entry *following = next_of(piece(s->current));
        if (following != nullptr) {
            s->current = following;
            return following;
        }
        b = (piece(s->current)->hash & t->mask) + 1;
    }
    for (; b <= t->mask; ++b) {
        if (t->buckets[b] != nullptr) {
            s->current = t->buckets[b];
            return s->current;
        }
    }
    s->current = nullptr;
    return nullptr;
}

// Scan operations that position the scan on what the table operation gave.
inline Entry *settle(QOR_ASSOC_scan *s, Entry *e) {
    s->current = e;
    return e;
}

}  // namespace

extern "C" {

constinit QOR_ASSOC_table *QOR_ASSOC_tables = nullptr;

// ---- Default hooks --------------------------------------------------------

QOR_ASSOC_table *QOR_ASSOC_table_alloc(const QOR_ASSOC_key_type *,
                                       uint32_t size, void *) {
    return static_cast<QOR_ASSOC_table *>(
        QOR_calloc(1, static_cast<int32_t>(size)));
}

QOR_ASSOC_entry **QOR_ASSOC_hash_alloc(QOR_ASSOC_table *, uint32_t size) {
    return static_cast<Entry **>(QOR_calloc(1, static_cast<int32_t>(size)));
}

QOR_ASSOC_entry *QOR_ASSOC_entry_alloc(QOR_ASSOC_table *, uint32_t size,
                                       const void *, void *) {
    return static_cast<Entry *>(QOR_calloc(1, static_cast<int32_t>(size)));
}

QOR_ASSOC_scan *QOR_ASSOC_scan_alloc(QOR_ASSOC_table *, uint32_t size,
                                     void *) {
    return static_cast<QOR_ASSOC_scan *>(
        QOR_calloc(1, static_cast<int32_t>(size)));
}

void QOR_ASSOC_table_free(const QOR_ASSOC_key_type *, QOR_ASSOC_table *table,
                          uint32_t) {
    QOR_free(table);
}

void QOR_ASSOC_hash_free(QOR_ASSOC_table *, QOR_ASSOC_entry **buckets,
                         uint32_t) {
    QOR_free(buckets);
}

void QOR_ASSOC_entry_free(QOR_ASSOC_table *, QOR_ASSOC_entry *entry,
                          uint32_t) {
    QOR_free(entry);
}

void QOR_ASSOC_scan_free(QOR_ASSOC_table *, QOR_ASSOC_scan *scan, uint32_t) {
    QOR_free(scan);
}

// ---- String keys ----------------------------------------------------------

// Byte-wise: h = 4h + c over the whole key when it has at most 14 bytes,
// else over the 14 bytes in its middle. The ends of long keys are left out
// on purpose, which makes keys that differ only there collide.
uint64_t QOR_ASSOC_string_hash(QOR_ASSOC_table *, const void *key) {
    const auto *s = static_cast<const unsigned char *>(key);
    int32_t n = static_cast<int32_t>(strlen(static_cast<const char *>(key)));
    if (n > kHashedBytes) {
        s += (n - kHashedBytes) / 2;
        n = kHashedBytes;
    }
    uint64_t h = 0;
    for (int32_t i = 0; i < n; ++i) h = h * 4 + s[i];
    return h;
}

int QOR_ASSOC_string_cmp(QOR_ASSOC_table *, QOR_ASSOC_entry *entry,
                         const void *key) {
    const StringEntry *e = reinterpret_cast<StringEntry *>(entry);
    return strcmp(e->key, static_cast<const char *>(key)) == 0 ? 1 : 0;
}

QOR_ASSOC_entry *QOR_ASSOC_string_alloc(QOR_ASSOC_table *, uint32_t size,
                                        const void *key, void *value) {
    auto *e = static_cast<QOR_ASSOC_string_entry *>(
        QOR_calloc(1, static_cast<int32_t>(size)));
    e->key = QOR_copy_string(static_cast<const char *>(key));
    e->value = value;
    return reinterpret_cast<Entry *>(e);
}

void QOR_ASSOC_string_free(QOR_ASSOC_table *, QOR_ASSOC_entry *entry,
                           uint32_t) {
    StringEntry *e = reinterpret_cast<StringEntry *>(entry);
    QOR_free(e->key);
    QOR_free(e);
}

void QOR_ASSOC_string_print(FILE *stream, QOR_ASSOC_table *,
                            QOR_ASSOC_entry *entry, int bucket) {
    const StringEntry *e = reinterpret_cast<StringEntry *>(entry);
    fprintf(stream, "0x%08lx\t%d\t(0x%08lx, %s): 0x%08lx\n",
            static_cast<unsigned long>(e->hash), bucket, ulong_of(e->key),
            e->key, ulong_of(e->value));
}

void QOR_ASSOC_string_print_key(FILE *stream, QOR_ASSOC_table *,
                                const void *key) {
    fprintf(stream, "(0x%08lx, %s)", ulong_of(key),
            static_cast<const char *>(key));
}

// ---- Long-int keys: the key is its own hash -------------------------------

uint64_t QOR_ASSOC_long_int_hash(QOR_ASSOC_table *, const void *key) {
    return word_of(key);
}

int QOR_ASSOC_long_int_cmp(QOR_ASSOC_table *, QOR_ASSOC_entry *entry,
                           const void *key) {
    const Entry *e = entry;
    return e->hash == word_of(key) ? 1 : 0;
}

QOR_ASSOC_entry *QOR_ASSOC_long_int_alloc(QOR_ASSOC_table *, uint32_t size,
                                          const void *, void *value) {
    auto *e = static_cast<QOR_ASSOC_long_int_entry *>(
        QOR_calloc(1, static_cast<int32_t>(size)));
    e->value = value;
    return reinterpret_cast<Entry *>(e);
}

void QOR_ASSOC_long_int_print(FILE *stream, QOR_ASSOC_table *,
                              QOR_ASSOC_entry *entry, int bucket) {
    typedef QOR_ASSOC_long_int_entry LongEntry __attribute__((aligned(4)));
    const LongEntry *e = reinterpret_cast<LongEntry *>(entry);
    fprintf(stream, "0x%08lx\t%d\t(0x%08lx, %ld): 0x%08lx\n",
            static_cast<unsigned long>(e->hash), bucket,
            static_cast<unsigned long>(e->hash), static_cast<long>(e->hash),
            ulong_of(e->value));
}

void QOR_ASSOC_long_int_print_key(FILE *stream, QOR_ASSOC_table *,
                                  const void *key) {
    fprintf(stream, "(0x%08lx, %ld)", ulong_of(key),
            static_cast<long>(reinterpret_cast<intptr_t>(key)));
}

}  // extern "C"

namespace {

constinit const QOR_ASSOC_key_type string_key_type = {
    QOR_ASSOC_string_hash,    QOR_ASSOC_string_cmp,
    QOR_ASSOC_string_print_key, QOR_ASSOC_string_print,
    QOR_ASSOC_string_alloc,   nullptr,
    QOR_ASSOC_string_free,    QOR_ASSOC_hash_alloc,
    QOR_ASSOC_hash_free,      QOR_ASSOC_table_alloc,
    nullptr,                  QOR_ASSOC_table_free,
    QOR_ASSOC_scan_alloc,     nullptr,
    QOR_ASSOC_scan_free,      sizeof(QOR_ASSOC_string_entry),
    sizeof(QOR_ASSOC_table),  sizeof(QOR_ASSOC_scan),
    0,                        0,
};

constinit const QOR_ASSOC_key_type long_int_key_type = {
    QOR_ASSOC_long_int_hash,    QOR_ASSOC_long_int_cmp,
    QOR_ASSOC_long_int_print_key, QOR_ASSOC_long_int_print,
    QOR_ASSOC_long_int_alloc,   nullptr,
    QOR_ASSOC_entry_free,       QOR_ASSOC_hash_alloc,
    QOR_ASSOC_hash_free,        QOR_ASSOC_table_alloc,
    nullptr,                    QOR_ASSOC_table_free,
    QOR_ASSOC_scan_alloc,       nullptr,
    QOR_ASSOC_scan_free,        sizeof(QOR_ASSOC_long_int_entry),
    sizeof(QOR_ASSOC_table),    sizeof(QOR_ASSOC_scan),
    0,                          0,
};

}  // namespace

extern "C" {

constinit const QOR_ASSOC_key_type *const QOR_ASSOC_string_key_type =
    &string_key_type;
constinit const QOR_ASSOC_key_type *const QOR_ASSOC_long_int_key_type =
    &long_int_key_type;

// ---- Tables ---------------------------------------------------------------

QOR_ASSOC_table *QOR_ASSOC_table_create(int size,
                                        const QOR_ASSOC_key_type *key_type,
                                        const char *name, void *client_data) {
    uint64_t buckets = kMinBuckets;
    while (buckets < static_cast<uint64_t>(size > 0 ? size : 0)) buckets *= 2;

    QOR_ASSOC_table *t =
        key_type->table_alloc(key_type, key_type->table_size, client_data);
    t->name = QOR_copy_string(name);
    t->key_type = key_type;
    t->fixed_size = key_type->fixed_size;
    t->trace = key_type->trace;
    if (key_type->table_init != nullptr) {
        key_type->table_init(key_type, t, client_data);
    }
    t->mask = buckets - 1;
    t->buckets = key_type->hash_alloc(
        t, static_cast<uint32_t>(buckets * sizeof(Entry *)));

    push_front(QOR_ASSOC_tables, t);
    qor::containers::index_create(t);

    if (t->trace) fprintf(stderr, "-- ASSOC table %s: created\n", name);
    return t;
}

void QOR_ASSOC_table_destroy(QOR_ASSOC_table *table) {
    const QOR_ASSOC_key_type *kt = table->key_type;
    if (table->trace) trace_line(table, "destroying");
    // What follows is part of the destruction and stays quiet.
    table->trace = 0;
    while (table->scans != nullptr) QOR_ASSOC_scan_destroy(table->scans);
    const LateEntries late = list_for_destroy(table);
    if (table->count != 0 && kt->entry_free != nullptr) {
        QOR_ASSOC_table_clear(table);
    }
    if (kt->hash_free != nullptr) {
        kt->hash_free(table, table->buckets,
                      static_cast<uint32_t>((table->mask + 1) *
                                            sizeof(Entry *)));
    }
    unlink(QOR_ASSOC_tables, table);
    qor::containers::index_destroy(table);
    free_late(table, late);
    QOR_free(table->name);
    if (kt->table_free != nullptr) kt->table_free(kt, table, kt->table_size);
}

void QOR_ASSOC_table_clear(QOR_ASSOC_table *table) {
    if (table->trace) trace_line(table, "clearing");
    if (table->count == 0) return;
    for (QOR_ASSOC_scan *s = table->scans; s != nullptr; s = s->next) {
        if (s->current != nullptr) {
            s->current = nullptr;
            s->pending = 1;
        }
    }
    const auto entry_free = table->key_type->entry_free;
    const uint32_t entry_size = table->key_type->entry_size;
    if (clear_in_address_order(table)) {
        table->count = 0;
        return;
    }
    const bool key_copies = frees_key_copies(table);
    for (uint64_t b = 0; b <= table->mask; ++b) {
        if (entry_free != nullptr && b + kAhead <= table->mask) {
            prefetch(table->buckets[b + kAhead]);
            if (key_copies) prefetch_key(table->buckets[b + kAhead / 2]);
        }
        if (table->buckets[b] == nullptr) continue;
        if (entry_free != nullptr) {
            Entry *e = table->buckets[b];
            while (e != nullptr) {
                Entry *following = next_of(e);
                entry_free(table, handle(e), entry_size);
                e = following;
            }
        }
        table->buckets[b] = nullptr;
    }
    table->count = 0;
    if (AssocIndex *x = qor::containers::index_of(table)) {
        qor::containers::index_cleared(x);
    }
}

namespace {

__attribute__((noinline)) Entry *find_traced(QOR_ASSOC_table *table,
                                             const void *key) {
    Entry *e = find_first(table, key);
    if (e != nullptr) {
        trace_entry(table, "found ", e);
    } else {
        fprintf(stderr, "-- ASSOC table %s: failed to find ", table->name);
        table->key_type->print_key(stderr, table, key);
        fputc('\n', stderr);
    }
    return e;
}

}  // namespace

// The trace is asked about first, so that an untraced find ends in the
// search itself and keeps no frame of its own.
QOR_ASSOC_entry *QOR_ASSOC_table_find(QOR_ASSOC_table *table,
                                      const void *key) {
    if (table->trace) [[unlikely]] return find_traced(table, key);
    return find_first(table, key);
}

QOR_ASSOC_entry *QOR_ASSOC_table_find_dup(QOR_ASSOC_table *table,
                                          const void *key,
                                          QOR_ASSOC_entry *previous) {
    Entry *e;
    if (previous == nullptr) {
        e = find_first(table, key);
    } else {
        // The hash is the previous entry's own: the key is not hashed again.
        Entry *p = previous;
        AssocIndex *x = qor::containers::index_of(table);
        bool walk = x == nullptr;
        e = x != nullptr ? qor::containers::index_find_after(x, p, key, &walk)
                         : nullptr;
        if (walk) e = match_from(table, next_of(p), p->hash, key);
    }
    if (table->trace) {
        if (e != nullptr) {
            trace_entry(table, "found ", e);
        } else {
            trace_line(table, "failed to find something");
        }
    }
    return e;
}

QOR_ASSOC_entry *QOR_ASSOC_table_insert(QOR_ASSOC_table *table,
                                        const void *key, void *value,
                                        int *found) {
    Hashed hash = hash_key(table, key);
    Entry *e = lookup_to_insert(table, hash, key);
    if (found != nullptr) *found = e != nullptr ? 1 : 0;
    if (e != nullptr) return e;
    return add_entry(table, hash, key, value);
}

QOR_ASSOC_entry *QOR_ASSOC_table_insert_replace(QOR_ASSOC_table *table,
                                                const void *key, void *value,
                                                int *replaced) {
    Hashed hash = hash_key(table, key);
    Entry *old = lookup_to_insert(table, hash, key);
    if (replaced != nullptr) *replaced = old != nullptr ? 1 : 0;
    // A place for a new group is noted only when no entry was found, so
    // the removal (of an entry found) never moves it.
    QOR_ASSOC_table_remove(table, handle(old));
    return add_entry(table, hash, key, value);
}

QOR_ASSOC_entry *QOR_ASSOC_table_insert_dup(QOR_ASSOC_table *table,
                                            const void *key, void *value) {
    return add_entry(table, hash_key(table, key), key, value);
}

void QOR_ASSOC_table_remove(QOR_ASSOC_table *table, QOR_ASSOC_entry *removed) {
    Entry *entry = removed;
    if (entry == nullptr) return;
    if (table->trace) trace_entry(table, "removing: ", entry);

    // Scans standing on the entry move on now, while it is still linked.
    for (QOR_ASSOC_scan *s = table->scans; s != nullptr; s = s->next) {
        if (s->current == entry) {
            s->pending = 0;
            QOR_ASSOC_scan_next(s);
            s->pending = 1;
        }
    }

    const uint64_t b = entry->hash & table->mask;
    Entry *e = table->buckets[b];
    if (AssocIndex *x = qor::containers::index_of(table)) {
        // The index knows the entry's predecessor: no walk of the chain.
        const bool linked = qor::containers::index_unlink(x, table, entry);
        QOR_ASSERT(linked, kUnit,
                   "QOR_ASSOC_table_remove called with an entry not in the "
                   "table");
        if (!linked) return;
    } else if (e == entry) {
        table->buckets[b] = next_of(entry);
    } else {
        while (e != nullptr && next_of(e) != entry) e = next_of(e);
        QOR_ASSERT(e != nullptr, kUnit,
                   "QOR_ASSOC_table_remove called with an entry not in the "
                   "table");
        if (e == nullptr) return;
        e->next = entry->next;
    }
    const QOR_ASSOC_key_type *kt = table->key_type;
    if (kt->entry_free != nullptr) kt->entry_free(table, handle(entry), kt->entry_size);
    table->count -= 1;
}

void QOR_ASSOC_table_report(FILE *stream, QOR_ASSOC_table *table) {
    fprintf(stream, "ASSOC table report for %s :-\n", table->name);
    fprintf(stream, "Hash size: %d.\t\tEntries: %d.\n",
            static_cast<int>(table->mask + 1), table->count);
    for (uint64_t b = 0; b <= table->mask; ++b) {
        for (Entry *e = table->buckets[b]; e != nullptr; e = next_of(e)) {
            table->key_type->print(stream, table, handle(e), static_cast<int>(b));
        }
    }
}

void QOR_ASSOC_table_report_by_name(FILE *stream, const char *name) {
    for (QOR_ASSOC_table *t = QOR_ASSOC_tables; t != nullptr; t = t->next) {
        if (strcmp(t->name, name) == 0) {
            QOR_ASSOC_table_report(stream, t);
            return;
        }
    }
}

// ---- Scans ----------------------------------------------------------------

QOR_ASSOC_scan *QOR_ASSOC_scan_create(QOR_ASSOC_table *table,
                                      void *client_data) {
    const QOR_ASSOC_key_type *kt = table->key_type;
    QOR_ASSOC_scan *s = kt->scan_alloc(table, kt->scan_size, client_data);
    push_front(table->scans, s);
    s->table = table;
    if (kt->scan_init != nullptr) kt->scan_init(table, s, client_data);
    if (table->trace) trace_line(table, "created scan");
    return s;
}

void QOR_ASSOC_scan_destroy(QOR_ASSOC_scan *scan) {
    QOR_ASSOC_table *t = scan->table;
    if (t->trace) trace_line(t, "destroying scan");
    unlink(t->scans, scan);
    const QOR_ASSOC_key_type *kt = t->key_type;
    if (kt->scan_free != nullptr) kt->scan_free(t, scan, kt->scan_size);
}

QOR_ASSOC_entry *QOR_ASSOC_scan_next(QOR_ASSOC_scan *scan) {
    if (scan->pending) {
        scan->pending = 0;
        return scan->current;
    }
    return step(scan);
}

QOR_ASSOC_entry *QOR_ASSOC_scan_find(QOR_ASSOC_scan *scan, const void *key) {
    scan->pending = 0;
    return settle(scan, QOR_ASSOC_table_find(scan->table, key));
}

QOR_ASSOC_entry *QOR_ASSOC_scan_find_dup(QOR_ASSOC_scan *scan,
                                         const void *key) {
    scan->pending = 0;
    return settle(scan,
                  QOR_ASSOC_table_find_dup(scan->table, key, scan->current));
}

QOR_ASSOC_entry *QOR_ASSOC_scan_insert(QOR_ASSOC_scan *scan, const void *key,
                                       void *value, int *found) {
    scan->pending = 0;
    return settle(scan,
                  QOR_ASSOC_table_insert(scan->table, key, value, found));
}

QOR_ASSOC_entry *QOR_ASSOC_scan_insert_replace(QOR_ASSOC_scan *scan,
                                               const void *key, void *value,
                                               int *replaced) {
    scan->pending = 0;
    return settle(scan, QOR_ASSOC_table_insert_replace(scan->table, key, value,
                                                       replaced));
}

QOR_ASSOC_entry *QOR_ASSOC_scan_insert_dup(QOR_ASSOC_scan *scan,
                                           const void *key, void *value) {
    scan->pending = 0;
    return settle(scan, QOR_ASSOC_table_insert_dup(scan->table, key, value));
}

void QOR_ASSOC_scan_remove(QOR_ASSOC_scan *scan) {
    if (scan->pending) return;
    QOR_ASSOC_table_remove(scan->table, scan->current);
}

}  // extern "C"
