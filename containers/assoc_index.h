// The private index kept beside the chains of ASSOC tables whose key type is
// one of the library's own (strings, long integers, atoms).
//
// The chains are the table: their hash, their order and every walk over them
// stay as they are. The string hash looks at 14 middle bytes only, so keys
// that differ at their ends (paths, numbered names) pile up in one chain and
// a plain find compares keys all along it. The index answers the questions a
// chain walk answers, with the same answer, without the walk:
//
//  - a group per distinct key, found by a strong hash of the whole key, that
//    lists the entries holding that key in their chain order (all of them
//    share one chain, since equal keys hash equally); a key held by one
//    entry needs no list;
//  - once a removal has asked, each entry's predecessor in its chain, so
//    that a removal unlinks it without searching the chain. A growth makes
//    every chain anew and drops them; the next removal builds them again.
//
// A growth of the table pushes entries onto their new chains in old-chain
// order, which reverses every group. Groups are doubly linked and record the
// parity of the growth count they were built under, so a growth flips every
// group's reading direction at once without touching them.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "containers/pieces.h"

namespace qor::containers {

struct AssocIndex;

// The key type of atom tables (defined with the atoms).
extern const QOR_ASSOC_key_type atom_key_type;

// A key prepared for the index: the strong hash of the whole key, and the
// table's own hash (the chain's) once worked out.
struct IndexedKey {
    uint64_t hash;    // valid when `hashed`
    uint64_t strong;
    size_t length;    // of a string key
    bool hashed;
    // Where an insertion's search found no group: the free slot that ends
    // the key's probe sequence, plus one (0: unknown). Room was reserved
    // before the search, so the new group goes there as long as no group
    // leaves the index in between.
    uint64_t vacancy;
};

// The index of a table, or null when its key type keeps the plain walk.
// Created with the table, dropped at its destruction.
AssocIndex *index_create(QOR_ASSOC_table *t);
void index_destroy(QOR_ASSOC_table *t);

// The last table asked about and its index: most programs work on one
// table at a time, so the question is mostly answered here, inline.
struct LastIndexed {
    const QOR_ASSOC_table *table;
    AssocIndex *index;
};
extern constinit LastIndexed last_indexed;
AssocIndex *index_search(const QOR_ASSOC_table *t);

inline AssocIndex *index_of(const QOR_ASSOC_table *t) {
    if (t == last_indexed.table) return last_indexed.index;
    return index_search(t);
}

// The strong hash of a key (its chain hash comes later, when needed).
IndexedKey index_key(const AssocIndex *x, const void *key);

// The chain hash of a key (what the key type's hash function gives).
uint64_t index_chain_hash(IndexedKey &k, const void *key);

// The first entry in chain order holding `key`, or null: a find's whole
// search in one call.
Entry *index_find_key(AssocIndex *x, const void *key);

// The same for a search that an insertion of `key` may follow: makes room
// for a new group first and notes where it would go.
Entry *index_find_for_insert(AssocIndex *x, IndexedKey &k, const void *key);

// The chain walk's answer for find_dup from `previous`; sets `*walk` when
// only the chain can tell (a key other than `previous`'s with its hash).
Entry *index_find_after(AssocIndex *x, Entry *previous, const void *key,
                        bool *walk);

// Bookkeeping after the table changed its chains.
void index_linked(AssocIndex *x, Entry *e, const IndexedKey &k);
// Before `e` leaves its chain: unlinks it from chain and group. Returns
// false when `e` is not in the table.
bool index_unlink(AssocIndex *x, QOR_ASSOC_table *t, Entry *e);
void index_regrown(AssocIndex *x, QOR_ASSOC_table *t);
void index_cleared(AssocIndex *x);

// Every entry of the table into out[0 .. count), in the order of the
// index's arrays: a table's entries without its chains, and without loading
// an entry. False when the index does not hold exactly `count` entries;
// `out` may then have been written.
bool index_entries(const AssocIndex *x, Entry **out, uint64_t count);

// The tag a string key is filed under, without the parity bit: keys whose
// tags agree are told apart by the key kept in their group (for the tests,
// which look for such keys).
uint32_t string_key_tag(const char *text);

}  // namespace qor::containers
