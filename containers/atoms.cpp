// Atom tables: strings to small numbers and back. An atom table is an ASSOC
// table with a key type of its own: its entries and their strings are
// carved from a freestore inside the table record, so that they all go at
// once, and an array indexed by atom gives each atom's string in constant
// time. Atoms are never removed or renumbered.

#include <stddef.h>
#include <stdio.h>

#include "containers/assoc_index.h"
#include "containers/pieces.h"
#include "foundation/internal.h"

static_assert(offsetof(QOR_atom_table, assoc) == 0);
static_assert(offsetof(QOR_atom_table, freestore) == 72);
static_assert(offsetof(QOR_atom_table, next_atom) == 104);
static_assert(offsetof(QOR_atom_table, strings) == 112);
static_assert(offsetof(QOR_atom_table, capacity) == 120);
static_assert(offsetof(QOR_atom_table, increment) == 124);
static_assert(sizeof(QOR_atom_table) == 128);

namespace {

// The entry of an atom table: the common head, the atom's string (a copy in
// the table's freestore, where the string key type's comparison finds it)
// and the atom.
struct AtomEntry {
    QOR_ASSOC_entry *next;
    uint64_t hash;
    char *key;
    int32_t atom;
};
static_assert(offsetof(AtomEntry, key) == offsetof(QOR_ASSOC_string_entry, key));

// Atom entries sit in a freestore: 4-byte alignment only.
typedef AtomEntry AtomPiece __attribute__((aligned(4)));

// Chunks of the table's freestore: small, as most atom tables are.
constexpr uint32_t kChunkSize = 992;
// Slots added to the string array at a time unless the creator says.
constexpr int32_t kDefaultIncrement = 256;

inline QOR_atom_table *atoms_of(QOR_ASSOC_table *t) {
    return reinterpret_cast<QOR_atom_table *>(t);
}

// Makes room for `atom` in the string array. Only the slot being filled is
// ever written; the slots above it stay unset, and are never read before
// being set because atoms at or above next_atom are refused.
void make_room(QOR_atom_table *t, int32_t atom) {
    if (atom <= t->capacity) return;
    t->capacity += t->increment;
    t->strings = static_cast<char **>(QOR_realloc(
        t->strings, t->capacity * static_cast<int32_t>(sizeof(char *))));
}

// The next number, with room for its string.
int32_t draw(QOR_atom_table *t) {
    const int32_t atom = t->next_atom;
    t->next_atom += 1;
    make_room(t, atom);
    return atom;
}

// The key type's entry_alloc: called by the insertion for a string that has
// no atom yet. The value word is not used.
QOR_ASSOC_entry *atom_entry_alloc(QOR_ASSOC_table *table, uint32_t size,
                                  const void *key, void *) {
    QOR_atom_table *t = atoms_of(table);
    const int32_t atom = draw(t);
    AtomPiece *e = static_cast<AtomPiece *>(QOR_FS_malloc(&t->freestore, size));
    e->key = QOR_FS_copy_string(&t->freestore, static_cast<const char *>(key));
    e->atom = atom;
    t->strings[atom - 1] = e->key;
    return reinterpret_cast<QOR_ASSOC_entry *>(e);
}

void atom_entry_print(FILE *stream, QOR_ASSOC_table *, QOR_ASSOC_entry *entry,
                      int bucket) {
    const AtomPiece *e = reinterpret_cast<const AtomPiece *>(entry);
    fprintf(stream, "0x%08lx\t%d\t(0x%08lx, %s) : %d\n",
            static_cast<unsigned long>(e->hash), bucket,
            static_cast<unsigned long>(reinterpret_cast<uintptr_t>(e->key)),
            e->key, e->atom);
}

}  // namespace

// Known to the ASSOC tables, which index atom tables as string tables.
namespace qor::containers {

constinit const QOR_ASSOC_key_type atom_key_type = {
    QOR_ASSOC_string_hash,
    QOR_ASSOC_string_cmp,
    QOR_ASSOC_string_print_key,
    atom_entry_print,
    atom_entry_alloc,
    nullptr,  // entry_init
    nullptr,  // entry_free: entries go with the freestore
    QOR_ASSOC_hash_alloc,
    QOR_ASSOC_hash_free,
    QOR_ASSOC_table_alloc,
    nullptr,  // table_init
    QOR_ASSOC_table_free,
    QOR_ASSOC_scan_alloc,
    nullptr,  // scan_init
    QOR_ASSOC_scan_free,
    sizeof(AtomEntry),
    sizeof(QOR_atom_table),
    sizeof(QOR_ASSOC_scan),
    1,  // fixed_size
    0,  // trace
};

}  // namespace qor::containers

using qor::containers::atom_key_type;

extern "C" {

QOR_atom_table *QOR_create_atom_table(const char *name, unsigned increment,
                                      unsigned size, int fixed) {
    QOR_atom_table *t = atoms_of(QOR_ASSOC_table_create(
        static_cast<int>(size), &atom_key_type, name, nullptr));
    QOR_FS_initialise(&t->freestore, kChunkSize, 0);
    t->assoc.fixed_size = static_cast<unsigned char>(fixed);
    t->next_atom = 1;
    t->increment =
        increment != 0 ? static_cast<int32_t>(increment) : kDefaultIncrement;
    return t;
}

void QOR_destroy_atom_table(QOR_atom_table *table) {
    QOR_FS_destroy(&table->freestore);
    // Unconditional: a table that never made an atom has no array, and
    // QOR_free refuses the null pointer.
    QOR_free(table->strings);
    QOR_ASSOC_table_destroy(&table->assoc);
}

int QOR_string_to_atom(QOR_atom_table *table, const char *string) {
    QOR_ASSOC_entry *e =
        QOR_ASSOC_table_insert(&table->assoc, string, nullptr, nullptr);
    return reinterpret_cast<const AtomPiece *>(e)->atom;
}

int QOR_string_to_existing_atom(QOR_atom_table *table, const char *string) {
    QOR_ASSOC_entry *e = QOR_ASSOC_table_find(&table->assoc, string);
    return e != nullptr ? reinterpret_cast<const AtomPiece *>(e)->atom : 0;
}

const char *QOR_atom_to_string(QOR_atom_table *table, int atom) {
    if (atom < 1 || atom >= table->next_atom) return nullptr;
    return table->strings[atom - 1];
}

int QOR_unique_atom(QOR_atom_table *table) {
    const int32_t atom = draw(table);
    table->strings[atom - 1] = nullptr;
    return atom;
}

}  // extern "C"
