/* libqor pooled allocators: the freestore (arena with marks) and the static
 * allocator (fixed-size records from bitmapped blocks).
 *
 * Neither is thread-safe: an allocator, and the shared freestore above all,
 * is meant for one thread at a time, and static allocators share hints and
 * indexes among themselves, so all of them are used from one thread at a
 * time. What an allocator hands out belongs to
 * it: pieces go with an empty, a destroy or a restore past them, records
 * with QOR_SA_release or QOR_SA_destroy; none is freed with free() or
 * QOR_free. */
#ifndef QOR_MEMORY_H
#define QOR_MEMORY_H

#include "qor/foundation.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Freestore ----------------------------------------------------------
 * An arena: pieces of any size are bumped out of a chain of chunks and given
 * back all at once (QOR_FS_empty) or down to a mark (QOR_FS_save and
 * QOR_FS_restore, in reverse order of the saves). Standard chunks are kept
 * for reuse; a piece larger than chunk_size gets an oversized chunk of its
 * own, freed as soon as it is rolled back.
 *
 * Pieces are rounded up to a multiple of 4 bytes and keep only 4-byte
 * alignment, even when they hold pointers or 64-bit values: read and write
 * such fields with memcpy. */

/* Header of a chunk; its data follows (16 bytes on this host). */
typedef struct QOR_FS_chunk {
    uint32_t size; /* total bytes of the chunk, header included */
    uint32_t used; /* offset of the first free byte from the chunk's start */
    struct QOR_FS_chunk *next; /* next chunk of the chain */
} QOR_FS_chunk;

/* A freestore. The caller owns the record (often static, or inside another
 * record); set it up with QOR_FS_INITIALISER or QOR_FS_initialise. */
typedef struct QOR_FS_allocator {
    uint32_t chunk_size; /* data bytes of a standard chunk, multiple of 4 */
    uint32_t options;    /* QOR_FS_CLEAR: every piece is zero-filled */
    QOR_FS_chunk *first_chunk;   /* head of the chain */
    QOR_FS_chunk *current_chunk; /* chunk being filled, or null when fresh */
    uint32_t oversized_count;    /* oversized chunks in the chain */
} QOR_FS_allocator;

/* Option: every piece handed out is zero-filled. */
#define QOR_FS_CLEAR 0x1u

/* Static initialiser: QOR_FS_allocator fs = QOR_FS_INITIALISER(2016, 0); */
#define QOR_FS_INITIALISER(chunk_size, options) \
    { (chunk_size), (options), NULL, NULL, 0 }

/* A point of a freestore to return to, filled by QOR_FS_save; the caller
 * owns it, normally as a local variable. */
typedef struct QOR_FS_mark {
    QOR_FS_chunk *chunk;      /* current chunk at the save, or null */
    uint32_t used;            /* its used offset then */
    uint32_t oversized_count; /* the freestore's count then */
} QOR_FS_mark;

/* The shared freestore: chunk size 2016, no options. Results of the
 * library's QOR_SH_ functions live here until the caller restores a mark
 * taken before the call. */
QOR_API extern QOR_FS_allocator QOR_SH_fs_allocator;

/* Sets the freestore up fresh, without chunks: chunk_size rounded up to a
 * multiple of 4, options QOR_FS_CLEAR or 0. Chunks it held are forgotten,
 * not freed. */
QOR_API void QOR_FS_initialise(QOR_FS_allocator *fs, uint32_t chunk_size,
                               uint32_t options);
/* A piece of at least size bytes (rounded up to a multiple of 4, 4-byte
 * aligned), or null for size 0. Never fails: exhaustion is fatal (2011). */
QOR_API void *QOR_FS_malloc(QOR_FS_allocator *fs, uint32_t size);
/* A zero-filled piece of count * size bytes (a 32-bit product), or null
 * when the product is 0. */
QOR_API void *QOR_FS_calloc(QOR_FS_allocator *fs, uint32_t count,
                            uint32_t size);
/* A copy of s in the freestore; a null s gives "". */
QOR_API char *QOR_FS_copy_string(QOR_FS_allocator *fs, const char *s);
/* A copy of n bytes in the freestore; null for a null p, and a 1-byte
 * piece (not written) for n = 0. */
QOR_API void *QOR_FS_copy_memory(QOR_FS_allocator *fs, const void *p,
                                 uint32_t n);
/* The strings up to a null pointer joined in one new piece. A null s1
 * gives "" and the rest is not read. */
QOR_API char *QOR_FS_cat_strings(QOR_FS_allocator *fs, const char *s1, ...)
    QOR_SENTINEL;
/* As QOR_FS_cat_strings in the shared freestore, except that s1 is first
 * copied with QOR_copy_string: a null s1 reads as "" and the strings after
 * it are joined all the same. */
QOR_API char *QOR_SH_cat_strings(const char *s1, ...) QOR_SENTINEL;
/* Remembers the freestore's present point in mark. */
QOR_API void QOR_FS_save(QOR_FS_allocator *fs, QOR_FS_mark *mark);
/* Gives back every piece allocated since the save of mark: oversized
 * chunks made since are freed, standard chunks kept for reuse. Marks are
 * restored in the reverse order of their saves; a mark taken on a fresh
 * freestore empties it. */
QOR_API void QOR_FS_restore(QOR_FS_allocator *fs, QOR_FS_mark *mark);
/* Gives back every piece; oversized chunks are freed, standard chunks
 * kept for reuse. */
QOR_API void QOR_FS_empty(QOR_FS_allocator *fs);
/* Frees every chunk. Chunk size and options stay: the freestore may be
 * used again at once. */
QOR_API void QOR_FS_destroy(QOR_FS_allocator *fs);
/* Prints the freestore's chunks and space to standard error; verbose adds
 * a line per used chunk. */
QOR_API void QOR_FS_dump(QOR_FS_allocator *fs, int verbose);

/* ---- Static allocator ---------------------------------------------------
 * Records of one fixed size handed out from large zero-filled blocks, with
 * one bit per record in a bitmap (1 free, 0 in use). The lowest free record
 * is always taken, so records are reused lowest first. Blocks go back to the
 * system only when the allocator is destroyed.
 *
 * Records are numbered across blocks: index i lies in block 0 at position i
 * when i < initial_entries, otherwise in block 1 + (i - initial_entries) /
 * extension_entries at position (i - initial_entries) % extension_entries.
 * Both counts are rounded up to a multiple of 64 (0 becomes 64) when the
 * first block is added. */

/* Called with every record handed out (allocate hook) or taken back
 * (release hook) and the structure size; the result is ignored, so that
 * QOR_clear_memory serves as an allocate hook as it is. */
typedef void *(*QOR_SA_hook)(void *record, uint32_t structure_size);

/* A static allocator. The caller owns the record (often static); set it up
 * with QOR_SA_INITIALISER or QOR_SA_initialise. */
typedef struct QOR_SA_allocator {
    uint32_t structure_size;    /* bytes of one record */
    uint32_t initial_entries;   /* records in the first block */
    uint32_t extension_entries; /* records in each further block */
    QOR_SA_hook allocate_hook;  /* optional */
    QOR_SA_hook release_hook;   /* optional */
    uint32_t free_entries;      /* free records in all blocks */
    uint32_t first_free_hint;   /* no record below this index is free */
    uint32_t blocks_in_use;     /* blocks of records */
    uint32_t blocks_allocated;  /* capacity of blocks */
    uint32_t bitmaps_allocated; /* 64-bit words in bitmaps */
    void **blocks;     /* the blocks, from basic space */

    uint64_t *bitmaps; /* bit i%64 of word i/64 set: record i is free */
} QOR_SA_allocator;

/* Static initialiser from the five settings; the first allocation sets the
 * allocator up. Initialising only the first five fields in braces does the
 * same: the rest starts as zero.
 *   static QOR_SA_allocator pool =
 *       QOR_SA_INITIALISER(sizeof(struct rec), 32, 32, QOR_clear_memory, NULL);
 */
#define QOR_SA_INITIALISER(structure_size, initial_entries,               \
                           extension_entries, allocate_hook, release_hook) \
    { (structure_size), (initial_entries), (extension_entries),           \
      (allocate_hook), (release_hook), 0, 0, 0, 0, 0, NULL, NULL }

/* Stores the settings, forgets any blocks (without freeing them) and adds
 * the first block at once. */
QOR_API void QOR_SA_initialise(QOR_SA_allocator *sa, uint32_t structure_size,
                               uint32_t initial_entries,
                               uint32_t extension_entries,
                               QOR_SA_hook allocate_hook,
                               QOR_SA_hook release_hook);
/* Never null. A record is zero the first time it is handed out; later it
 * keeps what it held unless the allocate hook clears it. */
QOR_API void *QOR_SA_allocate(QOR_SA_allocator *sa);
/* A pointer into the middle of a record releases that record. A pointer in
 * none of the blocks is the fatal error of message 1 with parameter 201, a
 * record already free the one with parameter 202 (status 2001). */
QOR_API void QOR_SA_release(QOR_SA_allocator *sa, void *record);
/* Takes every record back, calling the release hook for each in use (in
 * index order); the blocks are kept. */
QOR_API void QOR_SA_release_all(QOR_SA_allocator *sa);
/* The next record in use after record in index order (from the start when
 * record is null), or null. A record in none of the blocks is fatal (201). */
QOR_API void *QOR_SA_next(QOR_SA_allocator *sa, const void *record);
/* Calls the release hook for every record in use, frees all blocks and both
 * arrays; the settings stay, so the next allocation starts afresh. */
QOR_API void QOR_SA_destroy(QOR_SA_allocator *sa);
/* Prints the allocator's state to standard error; nothing for null. The
 * verbose form names the first bitmap word with a free record and shows,
 * as it always has, the value of the word after it (0 when that word is
 * past the end of the bitmap). When no word has a free record, it prints
 * "First bitmap free : none\n" instead of those two lines; the search never
 * reads past the bitmap. */
QOR_API void QOR_SA_dump(QOR_SA_allocator *sa, int verbose);

#ifdef __cplusplus
}
#endif

#endif /* QOR_MEMORY_H */
