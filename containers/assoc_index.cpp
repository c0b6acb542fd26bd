// The private index beside the chains of ASSOC tables of the library's own
// key types; see assoc_index.h for what it answers and why.

#include "containers/assoc_index.h"

#include <stdlib.h>
#include <string.h>

#include "foundation/internal.h"
#include "foundation/probe_table.h"

namespace qor::containers {

namespace {

using qor::address_hash;
using qor::mix;
using qor::Probe;
using qor::zeroed;

constexpr uint64_t kMul = 0x9E3779B97F4A7C15ull;

// An entry of a key held by several entries: its neighbours among them.
// link[0] leads towards the group's end 0, link[1] towards end 1. Keys
// held by one entry (the usual case) have no such record.
struct DupNode {
    Entry *entry;
    Entry *link[2];
    bool empty() const { return entry == nullptr; }
    uint64_t home() const { return address_hash(entry); }
};

// An entry's predecessor in its chain (null at the head). Kept only once a
// removal has asked for one, and dropped by a growth, which makes every
// chain anew: tables that are only filled and searched never pay for it.
struct PrevNode {
    Entry *entry;
    Entry *chain_prev;
    bool empty() const { return entry == nullptr; }
    uint64_t home() const { return address_hash(entry); }
};

// Per distinct key: a tag, 29 bits of the key's strong hash with a marker
// bit (0 is an empty slot), a bit telling a string key of at most 8 bytes,
// and below them the parity of the table's growth count the group was
// started under, and two words:
//
//  - a key held by one entry (the usual case): the entry, and its key (the
//    key itself for longs and for strings of at most 8 bytes, packed into
//    the word, else the key text's address), so that a search tells the
//    key without reading the entry, and a short one without reading its
//    text;
//  - a key held by several: the two ends of the list of its entries, the
//    first marked in bit 0 (entries are at least 4-byte aligned). The chain
//    runs from end p to end 1 - p, p being the group's parity against the
//    table's current one.
//
// Tags and words are kept in two arrays: probing reads the tags only, four
// bytes a slot, which keeps a large table's probes within fewer pages.
struct GroupEnds {
    uintptr_t word[2];

    static constexpr uintptr_t kSeveral = 1;

    bool several() const { return (word[0] & kSeveral) != 0; }
    Entry *end(unsigned side) const {
        if (!several()) return reinterpret_cast<Entry *>(word[0]);
        return reinterpret_cast<Entry *>(side == 0 ? word[0] & ~kSeveral
                                                   : word[1]);
    }
    void set_one(Entry *e, uintptr_t key) {
        word[0] = reinterpret_cast<uintptr_t>(e);
        word[1] = key;
    }
    void set_ends(Entry *end0, Entry *end1) {
        word[0] = reinterpret_cast<uintptr_t>(end0) | kSeveral;
        word[1] = reinterpret_cast<uintptr_t>(end1);
    }
    void set_end(unsigned side, Entry *e) {
        if (side == 0) {
            word[0] = reinterpret_cast<uintptr_t>(e) | kSeveral;
        } else {
            word[1] = reinterpret_cast<uintptr_t>(e);
        }
    }
};

// String keys of up to this many bytes are kept whole in their group.
constexpr size_t kPackedBytes = 8;

// Whether a key of the index's kind and this length is kept whole.
inline bool packs(bool strings, size_t length) {
    return strings && length <= kPackedBytes;
}

struct GroupTable {
    uint32_t *tags = nullptr;
    GroupEnds *ends = nullptr;
    uint64_t mask = 0;
    uint64_t live = 0;

    // A tag's hash bits come from the key's strong hash, already mixed:
    // they serve as the home slot as they stand (a second mix would cost
    // every search a dozen instructions and spread nothing further). The
    // two flag bits above them count only in tables of 2^29 slots or more.
    static uint64_t home(uint32_t tag) { return tag >> 1; }

    void release() {
        free(tags);
        free(ends);
        tags = nullptr;
        ends = nullptr;
        mask = 0;
        live = 0;
    }

    void reset() {
        if (tags != nullptr) memset(tags, 0, (mask + 1) * sizeof(uint32_t));
        live = 0;
    }

    void reserve_one() {
        if (tags != nullptr && (live + 1) * 4 <= (mask + 1) * 3) return;
        const uint64_t old_size = tags != nullptr ? mask + 1 : 0;
        const uint64_t size = old_size != 0 ? old_size * 2 : 64;
        uint32_t *old_tags = tags;
        GroupEnds *old_ends = ends;
        tags = static_cast<uint32_t *>(zeroed(size, sizeof(uint32_t)));
        ends = static_cast<GroupEnds *>(malloc(size * sizeof(GroupEnds)));
        if (ends == nullptr) qor::out_of_memory();
        mask = size - 1;
        for (uint64_t i = 0; i < old_size; ++i) {
            if (old_tags[i] == 0) continue;
            uint64_t j = home(old_tags[i]) & mask;
            while (tags[j] != 0) j = (j + 1) & mask;
            tags[j] = old_tags[i];
            ends[j] = old_ends[i];
        }
        free(old_tags);
        free(old_ends);
    }

    GroupEnds *place(uint32_t tag) {
        uint64_t j = home(tag) & mask;
        while (tags[j] != 0) j = (j + 1) & mask;
        return occupy(j, tag);
    }

    // Slot j, free and where a search for the tag ends.
    GroupEnds *occupy(uint64_t j, uint32_t tag) {
        tags[j] = tag;
        live += 1;
        return &ends[j];
    }

    unsigned parity(const GroupEnds *g) const {
        return tags[g - ends] & 1u;
    }

    void erase(GroupEnds *g) {
        uint64_t i = static_cast<uint64_t>(g - ends);
        uint64_t j = i;
        for (;;) {
            j = (j + 1) & mask;
            if (tags[j] == 0) break;
            const uint64_t k = home(tags[j]) & mask;
            const bool stays = i <= j ? (i < k && k <= j) : (i < k || k <= j);
            if (!stays) {
                tags[i] = tags[j];
                ends[i] = ends[j];
                i = j;
            }
        }
        tags[i] = 0;
        live -= 1;
    }
};

struct TableSlot {
    const QOR_ASSOC_table *table;
    AssocIndex *index;
    bool empty() const { return table == nullptr; }
    uint64_t home() const { return address_hash(table); }
};

}  // namespace

struct AssocIndex {
    bool strings;  // string entries (key at the string entry's place) or longs
    bool prevs_valid;  // `prevs` holds every entry of the table
    uint32_t growths;
    GroupTable groups;
    Probe<DupNode> dups;
    Probe<PrevNode> prevs;
};

namespace {

// Tables that have an index (the last one asked about is also kept in
// last_indexed, for the inline check).
constinit Probe<TableSlot> indexed_tables;

inline const char *key_text(const Entry *e) {
    return reinterpret_cast<const StringEntry *>(e)->key;
}

inline uint64_t long_strong(uint64_t key) { return mix(key ^ kMul); }

// The string's chain hash: h = 4h + c over at most 14 middle bytes, as
// QOR_ASSOC_string_hash, given the length.
uint64_t middle_hash(const char *text, size_t n) {
    const auto *m = reinterpret_cast<const unsigned char *>(text);
    int32_t span = static_cast<int32_t>(n);
    if (span > 14) {
        m += (span - 14) / 2;
        span = 14;
    }
    uint64_t h = 0;
    for (int32_t i = 0; i < span; ++i) h = h * 4 + m[i];
    return h;
}

// The bytes of a string of n <= 8 bytes in a word, zeros after them: two
// such strings are equal exactly when their words are (a string holds no
// zero byte). Read with loads that may overlap, as the strong hash does.
inline uint64_t pack(const char *text, size_t n) {
    const auto *s = reinterpret_cast<const unsigned char *>(text);
    if (n >= 4) {
        uint32_t first, last;
        memcpy(&first, s, 4);
        memcpy(&last, s + n - 4, 4);
        return first | (uint64_t{last} << ((n - 4) * 8));
    }
    uint64_t w = 0;
    for (size_t i = 0; i < n; ++i) w |= uint64_t{s[i]} << (i * 8);
    return w;
}

// The tag of a prepared key, without the parity bit. Whether a string key
// is kept whole is part of it, so that a search only ever compares like
// with like: a packed key with a packed one, a text with a text.
inline uint32_t tag_bits(bool strings, const IndexedKey &k) {
    return static_cast<uint32_t>(k.strong >> 35) |
           (packs(strings, k.length) ? 0x20000000u : 0u) | 0x40000000u;
}

// The strong hash of a string key, with its length kept for the chain hash
// (a serial chain of 14 steps, worked out only when a new entry needs it).
__attribute__((always_inline)) inline IndexedKey string_key(const char *text) {
    const size_t n = strlen(text);
    return {0, qor::bytes_hash(text, n), n, false, 0};
}

// A long key prepared the same way: its chain hash is the key itself.
inline IndexedKey long_key(uint64_t key) {
    return {key, long_strong(key), 0, true, 0};
}

// A long key as the table is given it, in a pointer.
inline IndexedKey long_key(const void *key) {
    return long_key(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key)));
}

inline bool holds(const AssocIndex *x, const Entry *e, const void *key) {
    if (x->strings) {
        return strcmp(key_text(e), static_cast<const char *>(key)) == 0;
    }
    return e->hash == static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key));
}

// The key word a group of one entry keeps, given the length of its key.
inline uintptr_t key_word(const AssocIndex *x, const Entry *e, size_t length) {
    if (!x->strings) return static_cast<uintptr_t>(e->hash);
    const char *text = key_text(e);
    return packs(true, length) ? static_cast<uintptr_t>(pack(text, length))
                               : reinterpret_cast<uintptr_t>(text);
}

// Whether the group is the key's: from the kept key when it has one entry.
// Its tag matched, so a packed key meets only packed keys. (The key is
// packed here, not when it is prepared: most searches end at a tag.)
// `strings` is the index's kind, given by callers that know it.
inline bool group_holds(const AssocIndex *x, bool strings, const GroupEnds &g,
                        const void *key, size_t length) {
    if (g.several()) return holds(x, g.end(0), key);
    if (packs(strings, length)) {
        return g.word[1] == pack(static_cast<const char *>(key), length);
    }
    if (strings) {
        return strcmp(reinterpret_cast<const char *>(g.word[1]),
                      static_cast<const char *>(key)) == 0;
    }
    return g.word[1] == reinterpret_cast<uintptr_t>(key);
}

// An entry's key, prepared as a search prepares it.
inline IndexedKey key_of_entry(const AssocIndex *x, const Entry *e) {
    if (x->strings) return string_key(key_text(e));
    return long_key(e->hash);
}

template <class Slot>
Slot *slot_of(Probe<Slot> &table, const Entry *e) {
    if (table.slots == nullptr) return nullptr;
    const uint64_t mask = table.mask;
    for (uint64_t j = address_hash(e) & mask;; j = (j + 1) & mask) {
        Slot *n = &table.slots[j];
        if (n->entry == e) return n;
        if (n->empty()) return nullptr;
    }
}

// The group's side that is first in chain order now.
inline unsigned front_side(const AssocIndex *x, const GroupEnds *g) {
    return (x->growths ^ x->groups.parity(g)) & 1u;
}

// The group's first entry in chain order now; null for no group.
inline Entry *front_entry(const AssocIndex *x, const GroupEnds *g) {
    return g != nullptr ? g->end(front_side(x, g)) : nullptr;
}

// The search of group_of from slot j on, when j has the key's tag and a
// group that its kept word cannot tell: a key held by several entries, or
// a text to compare whole. Out of line, and given only scalars, so that a
// search reaches it by a jump: its string comparison needs a frame, which
// a search ending at a tag or at a kept word does without.
__attribute__((noinline)) GroupEnds *group_compared(AssocIndex *x,
                                                    uint32_t want,
                                                    size_t length,
                                                    const void *key,
                                                    uint64_t *vacancy,
                                                    uint64_t j) {
    const GroupTable &t = x->groups;
    for (;; j = (j + 1) & t.mask) {
        const uint32_t tag = t.tags[j];
        if (tag == 0) {
            if (vacancy != nullptr) *vacancy = j + 1;
            return nullptr;
        }
        if ((tag >> 1) == want &&
            group_holds(x, x->strings, t.ends[j], key, length)) {
            return &t.ends[j];
        }
    }
}

// The same for a find, which wants the group's front entry.
__attribute__((noinline)) Entry *front_compared(AssocIndex *x, uint32_t want,
                                                size_t length,
                                                const void *key, uint64_t j) {
    return front_entry(x, group_compared(x, want, length, key, nullptr, j));
}

// What a search gives: the group, or with kFront its front entry.
template <bool kFront>
struct Searched {
    using type = GroupEnds *;
};
template <>
struct Searched<true> {
    using type = Entry *;
};

// The search for the key's group in an index of the given kind (`strings`,
// a constant where the caller knows it): the group or null, or with kFront
// its front entry. On a miss `*vacancy` (when given) is the free slot that
// ended the search, plus one.
template <bool kFront>
inline typename Searched<kFront>::type search(AssocIndex *x, bool strings,
                                              const IndexedKey &k,
                                              const void *key,
                                              uint64_t *vacancy) {
    const GroupTable &t = x->groups;
    if (t.tags == nullptr) return nullptr;
    const uint32_t want = tag_bits(strings, k);
    const size_t length = k.length;
    // Longs and short strings are told by the word their group keeps.
    const bool by_word = !strings || packs(true, length);
    for (uint64_t j = GroupTable::home(want << 1) & t.mask;; j = (j + 1) & t.mask) {
        const uint32_t tag = t.tags[j];
        if (tag == 0) {
            if (vacancy != nullptr) *vacancy = j + 1;
            return nullptr;
        }
        if ((tag >> 1) != want) continue;
        GroupEnds *g = &t.ends[j];
        if (!by_word || g->several()) {
            if constexpr (kFront) {
                return front_compared(x, want, length, key, j);
            } else {
                return group_compared(x, want, length, key, vacancy, j);
            }
        }
        if (group_holds(x, strings, *g, key, length)) {
            if constexpr (kFront) {
                return front_entry(x, g);
            } else {
                return g;
            }
        }
    }
}

// The group of the key, or null; on a miss `*vacancy` (when given) is the
// free slot that ended the search, plus one.
inline GroupEnds *group_of(AssocIndex *x, const IndexedKey &k,
                           const void *key, uint64_t *vacancy = nullptr) {
    return search<false>(x, x->strings, k, key, vacancy);
}

inline const void *key_of(const AssocIndex *x, const Entry *e) {
    return x->strings ? static_cast<const void *>(key_text(e))
                      : reinterpret_cast<const void *>(e->hash);
}

GroupEnds *group_of_entry(AssocIndex *x, const Entry *e) {
    return group_of(x, key_of_entry(x, e), key_of(x, e));
}

DupNode *add_dup(AssocIndex *x, Entry *e) {
    x->dups.reserve_one();
    DupNode *n = x->dups.place(address_hash(e));
    n->entry = e;
    n->link[0] = nullptr;
    n->link[1] = nullptr;
    return n;
}

void add_prev(AssocIndex *x, Entry *e, Entry *chain_prev) {
    x->prevs.reserve_one();
    PrevNode *n = x->prevs.place(address_hash(e));
    n->entry = e;
    n->chain_prev = chain_prev;
}

// Every entry's chain predecessor, from the chains.
void build_prevs(AssocIndex *x, QOR_ASSOC_table *t) {
    x->prevs.reset();
    for (uint64_t b = 0; b <= t->mask; ++b) {
        Entry *prev = nullptr;
        for (Entry *e = t->buckets[b]; e != nullptr; e = e->next) {
            add_prev(x, e, prev);
            prev = e;
        }
    }
    x->prevs_valid = true;
}

}  // namespace

constinit LastIndexed last_indexed = {nullptr, nullptr};

AssocIndex *index_create(QOR_ASSOC_table *t) {
    const QOR_ASSOC_key_type *kt = t->key_type;
    const bool strings =
        kt == QOR_ASSOC_string_key_type || kt == &atom_key_type;
    if (!strings && kt != QOR_ASSOC_long_int_key_type) return nullptr;
    auto *x = static_cast<AssocIndex *>(zeroed(1, sizeof(AssocIndex)));
    x->strings = strings;
    indexed_tables.reserve_one();
    TableSlot *s = indexed_tables.place(address_hash(t));
    s->table = t;
    s->index = x;
    last_indexed = {t, x};
    return x;
}

AssocIndex *index_search(const QOR_ASSOC_table *t) {
    if (indexed_tables.slots == nullptr) return nullptr;
    const uint64_t mask = indexed_tables.mask;
    for (uint64_t j = address_hash(t) & mask;; j = (j + 1) & mask) {
        TableSlot *s = &indexed_tables.slots[j];
        if (s->empty()) return nullptr;
        if (s->table == t) {
            last_indexed = {t, s->index};
            return s->index;
        }
    }
}

void index_destroy(QOR_ASSOC_table *t) {
    AssocIndex *x = index_of(t);
    if (x == nullptr) return;
    const uint64_t mask = indexed_tables.mask;
    for (uint64_t j = address_hash(t) & mask;; j = (j + 1) & mask) {
        if (indexed_tables.slots[j].table == t) {
            indexed_tables.erase(&indexed_tables.slots[j]);
            break;
        }
    }
    last_indexed = {nullptr, nullptr};
    x->groups.release();
    x->dups.release();
    x->prevs.release();
    free(x);
}

IndexedKey index_key(const AssocIndex *x, const void *key) {
    if (x->strings) return string_key(static_cast<const char *>(key));
    return long_key(key);
}

uint64_t index_chain_hash(IndexedKey &k, const void *key) {
    if (!k.hashed) {
        k.hash = middle_hash(static_cast<const char *>(key), k.length);
        k.hashed = true;
    }
    return k.hash;
}

namespace {

// Finds, one per kind of index, out of line: a string key's length is
// measured first (a call, and so a frame), which a find of a long, ending
// at a tag or a kept word, does without.
__attribute__((noinline)) Entry *find_string_key(AssocIndex *x,
                                                 const void *key) {
    return search<true>(x, true, string_key(static_cast<const char *>(key)),
                        key, nullptr);
}

__attribute__((noinline)) Entry *find_long_key(AssocIndex *x,
                                               const void *key) {
    return search<true>(x, false, long_key(key), key, nullptr);
}

}  // namespace

Entry *index_find_key(AssocIndex *x, const void *key) {
    return x->strings ? find_string_key(x, key) : find_long_key(x, key);
}

Entry *index_find_for_insert(AssocIndex *x, IndexedKey &k, const void *key) {
    x->groups.reserve_one();
    Entry *e = front_entry(x, group_of(x, k, key, &k.vacancy));
    // The new group's words are written once the entry is allocated: their
    // line is fetched meanwhile.
    if (k.vacancy != 0) __builtin_prefetch(&x->groups.ends[k.vacancy - 1], 1);
    return e;
}

Entry *index_find_after(AssocIndex *x, Entry *previous, const void *key,
                        bool *walk) {
    *walk = false;
    if (holds(x, previous, key)) {
        // The next entry of the same key in chain order: its group's next.
        GroupEnds *g = group_of_entry(x, previous);
        if (g == nullptr) {  // not an entry of this table
            *walk = true;
            return nullptr;
        }
        if (!g->several()) return nullptr;
        DupNode *n = slot_of(x->dups, previous);
        return n->link[1u - front_side(x, g)];
    }
    // A key other than the previous entry's. Only entries of the previous
    // entry's hash qualify: none when the key hashes otherwise (for long
    // keys the hash is the key). Otherwise the entries of the key that come
    // after `previous` in its chain are wanted, which only the chain knows.
    if (!x->strings) return nullptr;
    const char *text = static_cast<const char *>(key);
    if (middle_hash(text, strlen(text)) != previous->hash) {
        return nullptr;
    }
    *walk = true;
    return nullptr;
}

void index_linked(AssocIndex *x, Entry *e, const IndexedKey &k) {
    // The chain: e is its new head; the old head now follows it.
    if (x->prevs_valid) {
        add_prev(x, e, nullptr);
        if (e->next != nullptr) slot_of(x->prevs, e->next)->chain_prev = e;
    }

    // The group: e comes first in chain order among the entries of its key.
    // A search just before may have found none and noted where one goes.
    GroupTable &groups = x->groups;
    GroupEnds *g =
        k.vacancy != 0 ? nullptr : group_of(x, k, key_of(x, e));
    if (g == nullptr) {
        const uint32_t tag = (tag_bits(x->strings, k) << 1) | (x->growths & 1u);
        if (k.vacancy != 0) {
            g = groups.occupy(k.vacancy - 1, tag);
        } else {
            groups.reserve_one();
            g = groups.place(tag);
        }
        g->set_one(e, key_word(x, e, k.length));
        return;
    }
    const unsigned front = front_side(x, g);
    Entry *old_front = g->end(front);
    // Before the dups table may move: g stays valid.
    if (!g->several()) {
        if (front == 0) {
            g->set_ends(e, old_front);
        } else {
            g->set_ends(old_front, e);
        }
        add_dup(x, old_front);
    } else {
        g->set_end(front, e);
    }
    DupNode *n = add_dup(x, e);
    n->link[1u - front] = old_front;
    slot_of(x->dups, old_front)->link[front] = e;
}

bool index_unlink(AssocIndex *x, QOR_ASSOC_table *t, Entry *e) {
    GroupEnds *g = group_of_entry(x, e);
    if (g == nullptr) return false;
    if (!x->prevs_valid) build_prevs(x, t);
    PrevNode *p = slot_of(x->prevs, e);
    if (p == nullptr) return false;

    // Out of the chain, through the back-link.
    Entry *prev = p->chain_prev;
    Entry *following = e->next;
    if (prev == nullptr) {
        t->buckets[e->hash & t->mask] = following;
    } else {
        prev->next = following;
    }
    if (following != nullptr) slot_of(x->prevs, following)->chain_prev = prev;
    x->prevs.erase(p);

    // Out of its group.
    if (!g->several()) {
        x->groups.erase(g);
        return true;
    }
    DupNode *n = slot_of(x->dups, e);
    Entry *toward0 = n->link[0];
    Entry *toward1 = n->link[1];
    x->dups.erase(n);
    if (toward0 != nullptr) {
        slot_of(x->dups, toward0)->link[1] = toward1;
    } else {
        g->set_end(0, toward1);
    }
    if (toward1 != nullptr) {
        slot_of(x->dups, toward1)->link[0] = toward0;
    } else {
        g->set_end(1, toward0);
    }
    // One entry left: it needs no neighbours, and the group keeps its key.
    if (g->end(0) == g->end(1)) {
        Entry *last = g->end(0);
        x->dups.erase(slot_of(x->dups, last));
        const size_t length = x->strings ? strlen(key_text(last)) : 0;
        g->set_one(last, key_word(x, last, length));
    }
    return true;
}

void index_regrown(AssocIndex *x, QOR_ASSOC_table *) {
    // Every group now reads the other way round, and every chain is new:
    // the predecessors are worked out again when a removal needs them.
    x->growths += 1;
    if (x->prevs_valid) {
        x->prevs.release();
        x->prevs_valid = false;
    }
}

uint32_t string_key_tag(const char *text) {
    return tag_bits(true, string_key(text));
}

namespace {

// Calls visit(e) for every entry of the index: the single entry of each
// group of one, and every entry of keys held by several, which all have a
// neighbours record.
template <class Visit>
void each_entry(const AssocIndex *x, Visit visit) {
    const GroupTable &g = x->groups;
    if (g.tags != nullptr) {
        for (uint64_t j = 0; j <= g.mask; ++j) {
            if (g.tags[j] != 0 && !g.ends[j].several()) visit(g.ends[j].end(0));
        }
    }
    if (x->dups.slots != nullptr) {
        for (uint64_t j = 0; j <= x->dups.mask; ++j) {
            if (!x->dups.slots[j].empty()) visit(x->dups.slots[j].entry);
        }
    }
}

}  // namespace

bool index_entries(const AssocIndex *x, Entry **out, uint64_t count) {
    uint64_t k = 0;
    each_entry(x, [&](Entry *e) {
        if (k < count) out[k] = e;
        k += 1;
    });
    return k == count;
}

void index_cleared(AssocIndex *x) {
    x->groups.reset();
    x->dups.reset();
    x->prevs.reset();
}

}  // namespace qor::containers
