/* libqor associative containers: ASSOC hash tables driven by key types, with
 * scans and traces; atom tables; light TABLEs kept in a freestore, with
 * sequences.
 *
 * None of these containers is thread-safe: tables, scans, sequences, the
 * registry of ASSOC tables and the pools behind them are unprotected and
 * meant for one thread at a time. Entries and the keys in them belong to
 * the table; a caller reads them in place and never frees them. */
#ifndef QOR_CONTAINERS_H
#define QOR_CONTAINERS_H

#include <stdio.h>

#include "qor/foundation.h"
#include "qor/memory.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- ASSOC tables ---------------------------------------------------------
 * A chained hash table whose behaviour is set by a key type. Keys and values
 * are machine words: a key is a pointer to a NUL-terminated string for string
 * keys and a long integer (cast to a pointer) for long-int keys.
 *
 * Entries, like every record a key type may carve out of a freestore, can
 * sit at 4-byte alignment (the freestore's own); the library reads them
 * accordingly. */

/* Common head of every entry; the key type's payload follows. */
typedef struct QOR_ASSOC_entry {
    struct QOR_ASSOC_entry *next; /* next entry of the same chain */
    uint64_t hash;                /* full hash of the key, not masked */
} QOR_ASSOC_entry;

/* Entry of the string key type. */
typedef struct QOR_ASSOC_string_entry {
    struct QOR_ASSOC_entry *next; /* as in QOR_ASSOC_entry */
    uint64_t hash;                /* as in QOR_ASSOC_entry */
    char *key;   /* private copy of the key */
    void *value; /* the caller's word */
} QOR_ASSOC_string_entry;

/* Entry of the long-int key type: the key is kept as the hash itself. */
typedef struct QOR_ASSOC_long_int_entry {
    struct QOR_ASSOC_entry *next; /* as in QOR_ASSOC_entry */
    uint64_t hash;                /* the key itself */
    void *value;                  /* the caller's word */
} QOR_ASSOC_long_int_entry;

/* A table: see struct QOR_ASSOC_table. */
typedef struct QOR_ASSOC_table QOR_ASSOC_table;
/* A cursor over a table: see struct QOR_ASSOC_scan. */
typedef struct QOR_ASSOC_scan QOR_ASSOC_scan;
/* The behaviour of a table: see struct QOR_ASSOC_key_type. */
typedef struct QOR_ASSOC_key_type QOR_ASSOC_key_type;

/* A key type: the functions and sizes that make a table's behaviour. One
 * record per key type, normally static data; tables point to it and never
 * free it. Hooks marked optional may be null. */
struct QOR_ASSOC_key_type {
    /* the hash of a key */
    uint64_t (*hash)(QOR_ASSOC_table *table, const void *key);
    /* non-zero when the entry holds that key */
    int (*cmp)(QOR_ASSOC_table *table, QOR_ASSOC_entry *entry,
               const void *key);
    /* writes a key, without a line end */
    void (*print_key)(FILE *stream, QOR_ASSOC_table *table, const void *key);
    /* writes one entry as one line */
    void (*print)(FILE *stream, QOR_ASSOC_table *table, QOR_ASSOC_entry *entry,
                  int bucket);
    /* a new entry with its payload filled in (chain link and hash need not
     * be set) */
    QOR_ASSOC_entry *(*entry_alloc)(QOR_ASSOC_table *table, uint32_t size,
                                    const void *key, void *value);
    /* optional; called once the new entry is linked in */
    void (*entry_init)(QOR_ASSOC_table *table, QOR_ASSOC_entry *entry,
                       const void *key, void *value);
    /* when absent the table never frees entries */
    void (*entry_free)(QOR_ASSOC_table *table, QOR_ASSOC_entry *entry,
                       uint32_t size);
    /* a zero-filled bucket array of size bytes */
    QOR_ASSOC_entry **(*hash_alloc)(QOR_ASSOC_table *table, uint32_t size);
    /* optional; frees a bucket array of size bytes */
    void (*hash_free)(QOR_ASSOC_table *table, QOR_ASSOC_entry **buckets,
                      uint32_t size);
    /* a zero-filled table record */
    QOR_ASSOC_table *(*table_alloc)(const QOR_ASSOC_key_type *key_type,
                                    uint32_t size, void *client_data);
    /* optional; called on the new table record */
    void (*table_init)(const QOR_ASSOC_key_type *key_type,
                       QOR_ASSOC_table *table, void *client_data);
    /* optional; frees the table record */
    void (*table_free)(const QOR_ASSOC_key_type *key_type,
                       QOR_ASSOC_table *table, uint32_t size);
    /* a zero-filled scan record */
    QOR_ASSOC_scan *(*scan_alloc)(QOR_ASSOC_table *table, uint32_t size,
                                  void *client_data);
    /* optional; called on the new scan record */
    void (*scan_init)(QOR_ASSOC_table *table, QOR_ASSOC_scan *scan,
                      void *client_data);
    /* optional; frees the scan record */
    void (*scan_free)(QOR_ASSOC_table *table, QOR_ASSOC_scan *scan,
                      uint32_t size);
    uint32_t entry_size; /* bytes of this key type's entry record */
    uint32_t table_size; /* may extend the common record */
    uint32_t scan_size;  /* bytes of the scan record */
    unsigned char fixed_size; /* initial value of the table's flag */
    unsigned char trace;      /* initial value of the table's flag */
};

/* The common table record, allocated by the key type's table_alloc. The
 * caller may set trace; the other fields belong to the table. */
struct QOR_ASSOC_table {
    char *name;                    /* private copy */
    QOR_ASSOC_table *next;         /* older table in the registry */
    QOR_ASSOC_table *prev;         /* newer table in the registry */
    unsigned char trace;           /* non-zero: trace every operation */
    unsigned char fixed_size;      /* non-zero: the buckets never grow */
    uint64_t mask;                 /* buckets - 1; buckets a power of 2 >= 32 */
    int32_t count;                 /* entries */
    QOR_ASSOC_entry **buckets;     /* mask + 1 chain heads */
    QOR_ASSOC_scan *scans;         /* live scans, newest first */
    const QOR_ASSOC_key_type *key_type; /* never freed by the table */
};

/* A scan: a cursor over one table that stays valid while entries are
 * inserted and removed, through it or through the table. */
struct QOR_ASSOC_scan {
    QOR_ASSOC_scan *next;   /* older scan of the same table */
    QOR_ASSOC_scan *prev;   /* newer scan of the same table */
    QOR_ASSOC_table *table; /* the table scanned */
    QOR_ASSOC_entry *current; /* entry last returned or positioned on */
    unsigned char pending;    /* current already advanced past a removal */
};

/* The registry of live tables, newest first. */
QOR_API extern QOR_ASSOC_table *QOR_ASSOC_tables;
/* The library's key type for NUL-terminated string keys, copied into each
 * entry (QOR_ASSOC_string_entry). */
QOR_API extern const QOR_ASSOC_key_type *const QOR_ASSOC_string_key_type;
/* The library's key type for long-int keys, kept as the entry's hash
 * (QOR_ASSOC_long_int_entry). */
QOR_API extern const QOR_ASSOC_key_type *const QOR_ASSOC_long_int_key_type;

/* A new table with at least size buckets (a power of 2, never below 32), at
 * the head of the registry. name is copied; client_data goes only to the
 * key type's table_alloc and table_init. Destroy it with
 * QOR_ASSOC_table_destroy. */
QOR_API QOR_ASSOC_table *QOR_ASSOC_table_create(
    int size, const QOR_ASSOC_key_type *key_type, const char *name,
    void *client_data);
/* Destroys the table's scans, frees its entries (when the key type frees
 * entries), its buckets and the table, and takes it out of the registry. */
QOR_API void QOR_ASSOC_table_destroy(QOR_ASSOC_table *table);
/* Removes every entry. Live scans come to their end: the next
 * QOR_ASSOC_scan_next gives null. */
QOR_API void QOR_ASSOC_table_clear(QOR_ASSOC_table *table);
/* The first entry with the key in chain order (the newest of duplicates),
 * or null. The entry belongs to the table. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_table_find(QOR_ASSOC_table *table,
                                              const void *key);
/* previous null: as QOR_ASSOC_table_find. Otherwise the next entry after
 * previous in its chain whose hash is previous's and which holds the key,
 * or null: walks every duplicate of a key. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_table_find_dup(QOR_ASSOC_table *table,
                                                  const void *key,
                                                  QOR_ASSOC_entry *previous);
/* The existing entry of the key, unchanged (*found = 1), or a new entry
 * (*found = 0). found may be null. May grow the table. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_table_insert(QOR_ASSOC_table *table,
                                                const void *key, void *value,
                                                int *found);
/* Removes the first entry of the key, if any (*replaced = 1, else 0), and
 * inserts a new one. replaced may be null. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_table_insert_replace(
    QOR_ASSOC_table *table, const void *key, void *value, int *replaced);
/* Always a new entry, even when the key is there already. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_table_insert_dup(QOR_ASSOC_table *table,
                                                    const void *key,
                                                    void *value);
/* Unlinks and frees one entry of this table (null: nothing). A scan
 * standing on it moves on to the entry that followed. An entry of another
 * table must never be passed. */
QOR_API void QOR_ASSOC_table_remove(QOR_ASSOC_table *table,
                                    QOR_ASSOC_entry *entry);
/* Prints the table's name, sizes and every entry on the stream. */
QOR_API void QOR_ASSOC_table_report(FILE *stream, QOR_ASSOC_table *table);
/* Reports the newest live table of that name; nothing when there is none. */
QOR_API void QOR_ASSOC_table_report_by_name(FILE *stream, const char *name);

/* A new scan of the table, before its first entry. client_data goes only
 * to the key type's scan_alloc and scan_init. Destroyed with
 * QOR_ASSOC_scan_destroy or with its table. */
QOR_API QOR_ASSOC_scan *QOR_ASSOC_scan_create(QOR_ASSOC_table *table,
                                              void *client_data);
/* Ends the scan and frees it. */
QOR_API void QOR_ASSOC_scan_destroy(QOR_ASSOC_scan *scan);
/* The next entry, bucket by bucket and each chain from its head; null at
 * the end, after which the scan starts again from the first entry. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_scan_next(QOR_ASSOC_scan *scan);
/* QOR_ASSOC_table_find on the scan's table; the scan stands on the result. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_scan_find(QOR_ASSOC_scan *scan,
                                             const void *key);
/* QOR_ASSOC_table_find_dup from the entry the scan stands on (the hash
 * compared is that entry's, not the key's); the scan stands on the result.
 * Called again and again it walks every entry of the key. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_scan_find_dup(QOR_ASSOC_scan *scan,
                                                 const void *key);
/* QOR_ASSOC_table_insert; the scan stands on the result. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_scan_insert(QOR_ASSOC_scan *scan,
                                               const void *key, void *value,
                                               int *found);
/* QOR_ASSOC_table_insert_replace; the scan stands on the result. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_scan_insert_replace(QOR_ASSOC_scan *scan,
                                                       const void *key,
                                                       void *value,
                                                       int *replaced);
/* QOR_ASSOC_table_insert_dup; the scan stands on the result. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_scan_insert_dup(QOR_ASSOC_scan *scan,
                                                   const void *key,
                                                   void *value);
/* Removes the entry the scan stands on; the next QOR_ASSOC_scan_next gives
 * the entry that followed it. Does nothing when the scan has already moved
 * past a removed entry. */
QOR_API void QOR_ASSOC_scan_remove(QOR_ASSOC_scan *scan);

/* Default hook for table_alloc: QOR_calloc(1, size). The default hooks are
 * for key types of the caller's own; each allocator returns
 * QOR_calloc(1, size) and each free calls QOR_free; other arguments are
 * ignored. */
QOR_API QOR_ASSOC_table *QOR_ASSOC_table_alloc(
    const QOR_ASSOC_key_type *key_type, uint32_t size, void *client_data);
/* Default hook for hash_alloc: QOR_calloc(1, size). */
QOR_API QOR_ASSOC_entry **QOR_ASSOC_hash_alloc(QOR_ASSOC_table *table,
                                               uint32_t size);
/* Default hook for entry_alloc: QOR_calloc(1, size), payload left zero. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_entry_alloc(QOR_ASSOC_table *table,
                                               uint32_t size, const void *key,
                                               void *value);
/* Default hook for scan_alloc: QOR_calloc(1, size). */
QOR_API QOR_ASSOC_scan *QOR_ASSOC_scan_alloc(QOR_ASSOC_table *table,
                                             uint32_t size,
                                             void *client_data);
/* Default hook for table_free: QOR_free(table). */
QOR_API void QOR_ASSOC_table_free(const QOR_ASSOC_key_type *key_type,
                                  QOR_ASSOC_table *table, uint32_t size);
/* Default hook for hash_free: QOR_free(buckets). */
QOR_API void QOR_ASSOC_hash_free(QOR_ASSOC_table *table,
                                 QOR_ASSOC_entry **buckets, uint32_t size);
/* Default hook for entry_free: QOR_free(entry). */
QOR_API void QOR_ASSOC_entry_free(QOR_ASSOC_table *table,
                                  QOR_ASSOC_entry *entry, uint32_t size);
/* Default hook for scan_free: QOR_free(scan). */
QOR_API void QOR_ASSOC_scan_free(QOR_ASSOC_table *table, QOR_ASSOC_scan *scan,
                                 uint32_t size);

/* Hash of a string key: h = h * 4 + byte over at most 14 bytes, the whole
 * key when it is 14 bytes or shorter, else the 14 in its middle (the ends
 * of long keys are left out on purpose; cmp tells such keys apart). */
QOR_API uint64_t QOR_ASSOC_string_hash(QOR_ASSOC_table *table,
                                       const void *key);
/* 1 when the string entry's key equals the key (strcmp), else 0. */
QOR_API int QOR_ASSOC_string_cmp(QOR_ASSOC_table *table,
                                 QOR_ASSOC_entry *entry, const void *key);
/* A zeroed string entry holding a copy of the key (QOR_copy_string) and
 * the value. */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_string_alloc(QOR_ASSOC_table *table,
                                                uint32_t size,
                                                const void *key, void *value);
/* Frees the string entry's key copy, then the entry. */
QOR_API void QOR_ASSOC_string_free(QOR_ASSOC_table *table,
                                   QOR_ASSOC_entry *entry, uint32_t size);
/* One line: hash, bucket, (key address, key text): value. */
QOR_API void QOR_ASSOC_string_print(FILE *stream, QOR_ASSOC_table *table,
                                    QOR_ASSOC_entry *entry, int bucket);
/* "(key address, key text)", no line end. */
QOR_API void QOR_ASSOC_string_print_key(FILE *stream, QOR_ASSOC_table *table,
                                        const void *key);
/* Hash of a long-int key: the key itself. */
QOR_API uint64_t QOR_ASSOC_long_int_hash(QOR_ASSOC_table *table,
                                         const void *key);
/* 1 when the entry's hash equals the key, else 0. */
QOR_API int QOR_ASSOC_long_int_cmp(QOR_ASSOC_table *table,
                                   QOR_ASSOC_entry *entry, const void *key);
/* A zeroed long-int entry holding the value (the key is its hash). */
QOR_API QOR_ASSOC_entry *QOR_ASSOC_long_int_alloc(QOR_ASSOC_table *table,
                                                  uint32_t size,
                                                  const void *key,
                                                  void *value);
/* One line: hash, bucket, (key in hex, key in decimal): value. */
QOR_API void QOR_ASSOC_long_int_print(FILE *stream, QOR_ASSOC_table *table,
                                      QOR_ASSOC_entry *entry, int bucket);
/* "(key in hex, key in decimal)", no line end. */
QOR_API void QOR_ASSOC_long_int_print_key(FILE *stream,
                                          QOR_ASSOC_table *table,
                                          const void *key);

/* ---- Atoms ----------------------------------------------------------------
 * An atom table gives each distinct string a small positive number, from 1
 * up, for the life of the table, and gives the string of a number back in
 * constant time. Entries and strings live in the table's own freestore and
 * go with it. 0 stands for no atom. An atom table must not be given to
 * QOR_ASSOC_table_remove or QOR_ASSOC_table_clear. */

typedef struct QOR_atom_table {
    QOR_ASSOC_table assoc;      /* the common table record */
    QOR_FS_allocator freestore; /* every entry and every atom string */
    int32_t next_atom;          /* the number the next atom gets */
    char **strings;             /* slot atom - 1: its string, null if unique */
    int32_t capacity;           /* slots in strings */
    int32_t increment;          /* slots added at each growth */
} QOR_atom_table;

/* size: buckets wanted (at least 32); fixed: the buckets never grow;
 * increment: slots added to the string array at a time (0: 256). */
QOR_API QOR_atom_table *QOR_create_atom_table(const char *name,
                                              unsigned increment,
                                              unsigned size, int fixed);
/* A table that never made an atom has no string array: destroying it is
 * the assertion failure of QOR_free for a null pointer. */
QOR_API void QOR_destroy_atom_table(QOR_atom_table *table);
/* The atom of the string, made (and the string copied into the table's
 * freestore) when it has none yet. */
QOR_API int QOR_string_to_atom(QOR_atom_table *table, const char *string);
/* 0 when the string has no atom; no number is used up. */
QOR_API int QOR_string_to_existing_atom(QOR_atom_table *table,
                                        const char *string);
/* Null for 0, negative numbers, numbers not given yet and unique atoms. */
QOR_API const char *QOR_atom_to_string(QOR_atom_table *table, int atom);
/* A new atom without a string. */
QOR_API int QOR_unique_atom(QOR_atom_table *table);

/* ---- TABLEs and sequences -------------------------------------------------
 * A light chained hash table whose record, entries and key copies live in a
 * freestore given by the caller, so that they vanish with it; only the
 * bucket array comes from basic space (QOR_TABLE_destroy frees it). Keys are
 * pointers compared by identity (kind 0) or strings (kind 1); a caller may
 * set compare instead. Like every piece of a freestore, the records may sit
 * at 4-byte alignment. */

/* Key kinds. Any other kind: keys never match. */
enum { QOR_TABLE_POINTER_KEYS = 0, QOR_TABLE_STRING_KEYS = 1 };

/* An entry of a TABLE, in the table's freestore. */
typedef struct QOR_TABLE_entry {
    const void *key; /* the caller's pointer, or a copy in the freestore */
    void *value;     /* the caller's word */
    struct QOR_TABLE_entry *next; /* chain link */
    uint64_t hash;                /* full hash of the key */
} QOR_TABLE_entry;

/* A sequence: see struct QOR_TABLE_SEQ. */
typedef struct QOR_TABLE_SEQ QOR_TABLE_SEQ;

/* A light table, in the freestore given to QOR_TABLE_create. */
typedef struct QOR_TABLE {
    uint32_t kind;  /* QOR_TABLE_POINTER_KEYS, QOR_TABLE_STRING_KEYS, ... */
    uint32_t count; /* entries */
    QOR_TABLE_entry **buckets; /* mask + 1 chain heads, from QOR_calloc */
    QOR_TABLE_SEQ *sequences;  /* open sequences, newest first */
    uint64_t mask;             /* buckets - 1; buckets a power of 2 >= 2 */
    unsigned char fixed_size;  /* non-zero: never grows; the caller sets it */
    uint64_t (*hash)(const void *key); /* set from kind by QOR_TABLE_create */
    /* optional; non-zero when equal; replaces the rule of kind */
    int (*compare)(const void *entry_key, const void *key);
    QOR_FS_allocator *freestore; /* where the record and entries live */
} QOR_TABLE;

/* A walk over a table's entries that stays valid while entries are removed;
 * the table does not grow while one is open. From the library's pool. */
struct QOR_TABLE_SEQ {
    QOR_TABLE_SEQ *next;    /* older sequence of the same table */
    QOR_TABLE_SEQ *prev;    /* newer sequence of the same table */
    int32_t bucket;         /* bucket of entry; -1 once run out */
    QOR_TABLE_entry *entry; /* what the next step returns, or null */
    QOR_TABLE *table;       /* the table walked */
};

/* A new TABLE in the freestore with at least size buckets (a power of 2,
 * at least 2), for keys of the kind. Only its bucket array comes from basic
 * space: free it with QOR_TABLE_destroy before the freestore goes. */
QOR_API QOR_TABLE *QOR_TABLE_create(unsigned long size, unsigned kind,
                                    QOR_FS_allocator *freestore);
/* The existing entry of an equal key (its value unchanged), or a new one.
 * copy: a string key (kind other than 0) is copied into the freestore. */
QOR_API QOR_TABLE_entry *QOR_TABLE_insert(QOR_TABLE *table, const void *key,
                                          void *value, int copy);
/* Always a new entry: keys need not be unique. */
QOR_API QOR_TABLE_entry *QOR_TABLE_insert_non(QOR_TABLE *table,
                                              const void *key, void *value,
                                              int copy);
/* The entry of the key, or null. */
QOR_API QOR_TABLE_entry *QOR_TABLE_find(QOR_TABLE *table, const void *key);
/* The first matching entry of the chain from `from` on, `from` included
 * (null: as QOR_TABLE_find). Pass the next of the entry last found to reach
 * the next equal key. */
QOR_API QOR_TABLE_entry *QOR_TABLE_find_non(QOR_TABLE *table, const void *key,
                                            QOR_TABLE_entry *from);
/* 1 and the removed entry's value in *value, or 0 and null. */
QOR_API int QOR_TABLE_remove_entry(QOR_TABLE *table, const void *key,
                                   void **value);
/* Every entry, bucket by bucket, to standard error. */
QOR_API void QOR_TABLE_report(QOR_TABLE *table);
/* Closes the sequences and frees the bucket array; the rest goes with the
 * freestore. */
QOR_API void QOR_TABLE_destroy(QOR_TABLE *table);
/* A new sequence over the table, from the library's pool; give it back
 * with QOR_TABLE_SEQ_destroy (or QOR_TABLE_destroy). */
QOR_API QOR_TABLE_SEQ *QOR_TABLE_SEQ_create(QOR_TABLE *table);

/* Every entry once, then null for ever. */
QOR_API QOR_TABLE_entry *QOR_TABLE_SEQ_next(QOR_TABLE_SEQ *sequence);
QOR_API void QOR_TABLE_SEQ_destroy(QOR_TABLE_SEQ *sequence);

#ifdef __cplusplus
}
#endif

#endif /* QOR_CONTAINERS_H */
