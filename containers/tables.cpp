// TABLEs: light chained hash tables kept in a caller's freestore. The record,
// the entries and the key copies are pieces of that freestore and vanish
// with it; only the bucket array is basic space. Sequences walk a table and
// stay valid while entries are removed; a table does not grow while one is
// open, so a sequence never sees the buckets move. Sequence records come
// from a pool of the library's, shared by every table of the process.

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "containers/pieces.h"
#include "foundation/internal.h"

static_assert(offsetof(QOR_TABLE, kind) == 0);
static_assert(offsetof(QOR_TABLE, count) == 4);
static_assert(offsetof(QOR_TABLE, buckets) == 8);
static_assert(offsetof(QOR_TABLE, sequences) == 16);
static_assert(offsetof(QOR_TABLE, mask) == 24);
static_assert(offsetof(QOR_TABLE, fixed_size) == 32);
static_assert(offsetof(QOR_TABLE, hash) == 40);
static_assert(offsetof(QOR_TABLE, compare) == 48);
static_assert(offsetof(QOR_TABLE, freestore) == 56);
static_assert(sizeof(QOR_TABLE) == 64);
static_assert(offsetof(QOR_TABLE_entry, key) == 0);
static_assert(offsetof(QOR_TABLE_entry, value) == 8);
static_assert(offsetof(QOR_TABLE_entry, next) == 16);
static_assert(offsetof(QOR_TABLE_entry, hash) == 24);
static_assert(sizeof(QOR_TABLE_entry) == 32);
static_assert(offsetof(QOR_TABLE_SEQ, next) == 0);
static_assert(offsetof(QOR_TABLE_SEQ, prev) == 8);
static_assert(offsetof(QOR_TABLE_SEQ, bucket) == 16);
static_assert(offsetof(QOR_TABLE_SEQ, entry) == 24);
static_assert(offsetof(QOR_TABLE_SEQ, table) == 32);
static_assert(sizeof(QOR_TABLE_SEQ) == 40);

namespace {

using qor::containers::Table;
using qor::containers::TableEntry;
using qor::containers::push_front;
using qor::containers::unlink;

// The smallest table.
constexpr uint64_t kMinBuckets = 2;

// Every sequence of the process: 32 records to start with and 32 more at a
// time, each handed out zeroed. Static data; the first allocation sets the
// pool up.
constinit QOR_SA_allocator sequence_pool = QOR_SA_INITIALISER(
    sizeof(QOR_TABLE_SEQ), 32, 32, QOR_clear_memory, nullptr);

// String keys: h = 27h + c over the characters taken as signed chars, so
// bytes from 0x80 up count as negative.
uint64_t string_hash(const void *key) {
    uint64_t h = 0;
    for (const char *p = static_cast<const char *>(key); *p != '\0'; ++p) {
        h = 27 * h + static_cast<uint64_t>(static_cast<int64_t>(
                         static_cast<signed char>(*p)));
    }
    return h;
}

// Every other kind: the pointer is the hash.
uint64_t identity_hash(const void *key) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key));
}

inline TableEntry *next_of(const TableEntry *e) { return e->next; }

// Whether the entry holds `key` (whose hash is `hash`). A caller's compare
// takes precedence over the kind; kinds other than 0 and 1 match nothing.
bool matches(const Table *t, const TableEntry *e, const void *key,
             uint64_t hash) {
    if (t->compare != nullptr) {
        return e->hash == hash && t->compare(e->key, key) != 0;
    }
    switch (t->kind) {
        case QOR_TABLE_POINTER_KEYS:
            return e->key == key;
        case QOR_TABLE_STRING_KEYS:
            return e->hash == hash &&
                   strcmp(static_cast<const char *>(e->key),
                          static_cast<const char *>(key)) == 0;
        default:
            return false;
    }
}

TableEntry *match_from(const Table *t, TableEntry *e, const void *key,
                       uint64_t hash) {
    for (; e != nullptr; e = next_of(e)) {
        if (matches(t, e, key, hash)) return e;
    }
    return nullptr;
}

// Doubles the buckets once and moves every entry over, each pushed onto the
// head of its new chain in old-chain order.
void grow(Table *t) {
    const uint64_t old_buckets = t->mask + 1;
    QOR_TABLE_entry **old = t->buckets;
    t->mask = 2 * t->mask + 1;
    t->buckets = static_cast<QOR_TABLE_entry **>(QOR_calloc(
        static_cast<int32_t>(t->mask + 1), sizeof(QOR_TABLE_entry *)));
    for (uint64_t b = 0; b < old_buckets; ++b) {
        TableEntry *e = old[b];
        while (e != nullptr) {
            TableEntry *following = next_of(e);
            const uint64_t i = e->hash & t->mask;
            e->next = t->buckets[i];
            t->buckets[i] = e;
            e = following;
        }
    }
    QOR_free(old);
}

TableEntry *add_entry(Table *t, const void *key, uint64_t hash, void *value,
                      int copy) {
    TableEntry *e = static_cast<TableEntry *>(
        QOR_FS_calloc(t->freestore, 1, sizeof(QOR_TABLE_entry)));
    e->value = value;
    e->hash = hash;
    const uint64_t i = hash & t->mask;
    e->next = t->buckets[i];
    t->buckets[i] = e;
    e->key = copy != 0 && t->kind != QOR_TABLE_POINTER_KEYS
                 ? QOR_FS_copy_string(t->freestore,
                                      static_cast<const char *>(key))
                 : key;
    t->count += 1;
    // Once count reaches buckets - 1; never under an open sequence, which
    // would see its buckets move.
    if (t->fixed_size == 0 && t->count >= t->mask && t->sequences == nullptr) {
        grow(t);
    }
    return e;
}

}  // namespace

extern "C" {

QOR_TABLE *QOR_TABLE_create(unsigned long size, unsigned kind,
                            QOR_FS_allocator *freestore) {
    Table *t = static_cast<Table *>(
        QOR_FS_calloc(freestore, 1, sizeof(QOR_TABLE)));
    t->kind = kind;
    t->hash = kind == QOR_TABLE_STRING_KEYS ? string_hash : identity_hash;
    uint64_t buckets = kMinBuckets;
    while (buckets < size) buckets *= 2;
    t->mask = buckets - 1;
    t->buckets = static_cast<QOR_TABLE_entry **>(QOR_calloc(
        static_cast<int32_t>(buckets), sizeof(QOR_TABLE_entry *)));
    t->freestore = freestore;
    return t;
}

QOR_TABLE_entry *QOR_TABLE_insert(QOR_TABLE *table, const void *key,
                                  void *value, int copy) {
    Table *t = table;
    const uint64_t hash = t->hash(key);
    TableEntry *e = match_from(t, t->buckets[hash & t->mask], key, hash);
    if (e != nullptr) return e;
    return add_entry(t, key, hash, value, copy);
}

QOR_TABLE_entry *QOR_TABLE_insert_non(QOR_TABLE *table, const void *key,
                                      void *value, int copy) {
    Table *t = table;
    return add_entry(t, key, t->hash(key), value, copy);
}

QOR_TABLE_entry *QOR_TABLE_find(QOR_TABLE *table, const void *key) {
    return QOR_TABLE_find_non(table, key, nullptr);
}

QOR_TABLE_entry *QOR_TABLE_find_non(QOR_TABLE *table, const void *key,
                                    QOR_TABLE_entry *from) {
    Table *t = table;
    const uint64_t hash = t->hash(key);
    TableEntry *start = from != nullptr ? from : t->buckets[hash & t->mask];
    return match_from(t, start, key, hash);
}

int QOR_TABLE_remove_entry(QOR_TABLE *table, const void *key, void **value) {
    Table *t = table;
    const uint64_t hash = t->hash(key);
    const uint64_t b = hash & t->mask;
    TableEntry *before = nullptr;
    TableEntry *e = t->buckets[b];
    // A kind that matches nothing removes the first entry of the key's
    // bucket, whatever its key: kept as the tables have always done.
    const bool any = t->compare == nullptr &&
                     t->kind != QOR_TABLE_POINTER_KEYS &&
                     t->kind != QOR_TABLE_STRING_KEYS;
    if (!any) {
        while (e != nullptr && !matches(t, e, key, hash)) {
            before = e;
            e = next_of(e);
        }
    }
    if (e == nullptr) {
        if (value != nullptr) *value = nullptr;
        return 0;
    }
    // Sequences about to return the entry move past it first.
    for (QOR_TABLE_SEQ *s = t->sequences; s != nullptr; s = s->next) {
        if (s->entry == e) QOR_TABLE_SEQ_next(s);
    }
    if (before == nullptr) {
        t->buckets[b] = next_of(e);
    } else {
        before->next = e->next;
    }
    t->count -= 1;
    if (value != nullptr) *value = e->value;
    return 1;
}

void QOR_TABLE_report(QOR_TABLE *table) {
    Table *t = table;
    for (uint64_t i = 0; i <= t->mask; ++i) {
        for (TableEntry *e = t->buckets[i]; e != nullptr; e = next_of(e)) {
            if (t->kind == QOR_TABLE_STRING_KEYS) {
                fprintf(stderr, "%d\t%s\t%lu\n", static_cast<int>(i),
                        static_cast<const char *>(e->key),
                        static_cast<unsigned long>(e->hash));
            } else {
                fprintf(stderr, "%d\t%lu\t%lu\n", static_cast<int>(i),
                        static_cast<unsigned long>(
                            reinterpret_cast<uintptr_t>(e->key)),
                        static_cast<unsigned long>(e->hash));
            }
        }
    }
}

void QOR_TABLE_destroy(QOR_TABLE *table) {
    Table *t = table;
    while (t->sequences != nullptr) QOR_TABLE_SEQ_destroy(t->sequences);
    QOR_free(t->buckets);
}

QOR_TABLE_SEQ *QOR_TABLE_SEQ_create(QOR_TABLE *table) {
    Table *t = table;
    auto *s = static_cast<QOR_TABLE_SEQ *>(QOR_SA_allocate(&sequence_pool));
    // The table may sit at 4-byte alignment: its list head is worked on
    // as a copy, never through a reference to the field.
    QOR_TABLE_SEQ *head = t->sequences;
    push_front(head, s);
    t->sequences = head;
    s->table = table;
    QOR_TABLE_SEQ_next(s);  // onto the first entry
    return s;
}

QOR_TABLE_entry *QOR_TABLE_SEQ_next(QOR_TABLE_SEQ *sequence) {
    QOR_TABLE_SEQ *s = sequence;
    TableEntry *r = s->entry;
    if (s->bucket == -1) return r;
    if (r != nullptr) {
        s->entry = next_of(r);
    } else {
        s->bucket = -1;  // the search below starts at bucket 0
    }
    if (s->entry != nullptr) return r;
    const Table *t = s->table;
    const auto last = static_cast<int64_t>(t->mask);
    while (s->bucket < last) {
        s->bucket += 1;
        s->entry = t->buckets[s->bucket];
        if (s->entry != nullptr) return r;
    }
    s->bucket = -1;
    return r;
}

void QOR_TABLE_SEQ_destroy(QOR_TABLE_SEQ *sequence) {
    // The record goes back first, so that a sequence closed twice is caught
    // by the pool before the table's list is touched. A released record
    // keeps its contents (the pool has no release hook): its links are still
    // there to unlink it.
    QOR_SA_release(&sequence_pool, sequence);
    Table *t = sequence->table;
    QOR_TABLE_SEQ *head = t->sequences;
    unlink(head, sequence);
    t->sequences = head;
}

}  // extern "C"
