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

// Per entry: its chain predecessor and its neighbours among the entries of
// its key. link[0] leads towards the group's end[0], link[1] towards end[1].
struct Node {
    Entry *entry;
    Entry *chain_prev;
    Entry *link[2];
    bool empty() const { return entry == nullptr; }
    uint64_t home() const { return address_hash(entry); }
};

// Per distinct key: both ends of its list of entries, the strong hash of
// the key and the parity of the table's growth count the list was started
// under. The chain runs from end[p] to end[1 - p], p being that parity
// against the table's current one.
struct Group {
    uint64_t strong;
    Entry *end[2];
    uint32_t parity;
    bool empty() const { return end[0] == nullptr; }
    uint64_t home() const { return strong; }
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
    uint32_t growths;
    Probe<Node> nodes;
    Probe<Group> groups;
};

namespace {

// Tables that have an index, and the last one asked about: most programs
// work on one table at a time.
constinit Probe<TableSlot> indexed_tables;
constinit const QOR_ASSOC_table *last_table = nullptr;
constinit AssocIndex *last_index = nullptr;

inline const char *key_text(const Entry *e) {
    return reinterpret_cast<const StringEntry *>(e)->key;
}

inline uint64_t long_strong(uint64_t key) { return mix(key ^ kMul); }

// The string's chain hash (h = 4h + c over at most 14 middle bytes, as
// QOR_ASSOC_string_hash) and a strong hash of all of it, from one strlen.
IndexedKey string_key(const char *text) {
    const auto *s = reinterpret_cast<const unsigned char *>(text);
    const size_t n = strlen(text);
    const int32_t n32 = static_cast<int32_t>(n);
    const unsigned char *m = s;
    int32_t span = n32;
    if (span > 14) {
        m += (span - 14) / 2;
        span = 14;
    }
    uint64_t h = 0;
    for (int32_t i = 0; i < span; ++i) h = h * 4 + m[i];

    return {h, qor::bytes_hash(s, n)};
}

inline bool holds(const AssocIndex *x, const Entry *e, const void *key) {
    if (x->strings) {
        return strcmp(key_text(e), static_cast<const char *>(key)) == 0;
    }
    return e->hash == static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key));
}

inline uint64_t strong_of_entry(const AssocIndex *x, const Entry *e) {
    return x->strings ? string_key(key_text(e)).strong : long_strong(e->hash);
}

Node *node_of(AssocIndex *x, const Entry *e) {
    if (x->nodes.slots == nullptr) return nullptr;
    const uint64_t mask = x->nodes.mask;
    for (uint64_t j = address_hash(e) & mask;; j = (j + 1) & mask) {
        Node *n = &x->nodes.slots[j];
        if (n->entry == e) return n;
        if (n->empty()) return nullptr;
    }
}

Group *group_of(AssocIndex *x, uint64_t strong, const void *key) {
    if (x->groups.slots == nullptr) return nullptr;
    const uint64_t mask = x->groups.mask;
    for (uint64_t j = strong & mask;; j = (j + 1) & mask) {
        Group *g = &x->groups.slots[j];
        if (g->empty()) return nullptr;
        if (g->strong == strong && holds(x, g->end[0], key)) return g;
    }
}

// The group's side that is first in chain order now.
inline unsigned front_side(const AssocIndex *x, const Group *g) {
    return (x->growths ^ g->parity) & 1u;
}

}  // namespace

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
    last_table = t;
    last_index = x;
    return x;
}

AssocIndex *index_of(const QOR_ASSOC_table *t) {
    if (t == last_table) return last_index;
    if (indexed_tables.slots == nullptr) return nullptr;
    const uint64_t mask = indexed_tables.mask;
    for (uint64_t j = address_hash(t) & mask;; j = (j + 1) & mask) {
        TableSlot *s = &indexed_tables.slots[j];
        if (s->empty()) return nullptr;
        if (s->table == t) {
            last_table = t;
            last_index = s->index;
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
    last_table = nullptr;
    last_index = nullptr;
    x->nodes.release();
    x->groups.release();
    free(x);
}

IndexedKey index_key(const AssocIndex *x, const void *key) {
    if (x->strings) return string_key(static_cast<const char *>(key));
    const uint64_t k = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key));
    return {k, long_strong(k)};
}

Entry *index_find(AssocIndex *x, const IndexedKey &k, const void *key) {
    Group *g = group_of(x, k.strong, key);
    return g != nullptr ? g->end[front_side(x, g)] : nullptr;
}

Entry *index_find_after(AssocIndex *x, Entry *previous, const void *key,
                        bool *walk) {
    *walk = false;
    if (holds(x, previous, key)) {
        // The next entry of the same key in chain order: its group's next.
        Node *n = node_of(x, previous);
        if (n == nullptr) {
            *walk = true;
            return nullptr;
        }
        Group *g = group_of(x, strong_of_entry(x, previous), key);
        return n->link[1u - front_side(x, g)];
    }
    // A key other than the previous entry's. Only entries of the previous
    // entry's hash qualify: none when the key hashes otherwise (for long
    // keys the hash is the key). Otherwise the entries of the key that come
    // after `previous` in its chain are wanted, which only the chain knows.
    if (!x->strings) return nullptr;
    if (string_key(static_cast<const char *>(key)).hash != previous->hash) {
        return nullptr;
    }
    *walk = true;
    return nullptr;
}

void index_linked(AssocIndex *x, Entry *e, const IndexedKey &k) {
    // The chain: e is its new head; the old head now follows it.
    x->nodes.reserve_one();
    Node *n = x->nodes.place(address_hash(e));
    n->entry = e;
    n->chain_prev = nullptr;
    if (e->next != nullptr) node_of(x, e->next)->chain_prev = e;

    // The group: e comes first in chain order among the entries of its key.
    const void *key = x->strings ? static_cast<const void *>(key_text(e))
                                 : reinterpret_cast<const void *>(e->hash);
    Group *g = group_of(x, k.strong, key);
    n = node_of(x, e);
    if (g == nullptr) {
        x->groups.reserve_one();
        g = x->groups.place(k.strong);
        g->strong = k.strong;
        g->end[0] = e;
        g->end[1] = e;
        g->parity = x->growths & 1u;
        n->link[0] = nullptr;
        n->link[1] = nullptr;
        return;
    }
    const unsigned front = front_side(x, g);
    Entry *old_front = g->end[front];
    n->link[front] = nullptr;
    n->link[1u - front] = old_front;
    node_of(x, old_front)->link[front] = e;
    g->end[front] = e;
}

bool index_unlink(AssocIndex *x, QOR_ASSOC_table *t, Entry *e) {
    Node *n = node_of(x, e);
    if (n == nullptr) return false;

    // Out of the chain, through the back-link.
    Entry *prev = n->chain_prev;
    Entry *following = e->next;
    if (prev == nullptr) {
        t->buckets[e->hash & t->mask] = following;
    } else {
        prev->next = following;
    }
    if (following != nullptr) node_of(x, following)->chain_prev = prev;

    // Out of its group.
    Entry *toward0 = n->link[0];
    Entry *toward1 = n->link[1];
    Group *g = nullptr;
    if (toward0 == nullptr || toward1 == nullptr) {
        const void *key = x->strings
                              ? static_cast<const void *>(key_text(e))
                              : reinterpret_cast<const void *>(e->hash);
        g = group_of(x, strong_of_entry(x, e), key);
    }
    if (toward0 != nullptr) {
        node_of(x, toward0)->link[1] = toward1;
    } else {
        g->end[0] = toward1;
    }
    if (toward1 != nullptr) {
        node_of(x, toward1)->link[0] = toward0;
    } else {
        g->end[1] = toward0;
    }
    if (g != nullptr && g->end[0] == nullptr) x->groups.erase(g);
    x->nodes.erase(node_of(x, e));
    return true;
}

void index_regrown(AssocIndex *x, QOR_ASSOC_table *t) {
    // Every group now reads the other way round, and every chain is new.
    x->growths += 1;
    for (uint64_t b = 0; b <= t->mask; ++b) {
        Entry *prev = nullptr;
        for (Entry *e = t->buckets[b]; e != nullptr; e = e->next) {
            node_of(x, e)->chain_prev = prev;
            prev = e;
        }
    }
}

void index_cleared(AssocIndex *x) {
    x->nodes.reset();
    x->groups.reset();
}

}  // namespace qor::containers
