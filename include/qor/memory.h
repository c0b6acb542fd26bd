/* libqor pooled allocators: the freestore (arena with marks) and the static
 * allocator (fixed-size records from bitmapped blocks). */
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
    struct QOR_FS_chunk *next;
} QOR_FS_chunk;

typedef struct QOR_FS_allocator {
    uint32_t chunk_size; /* data bytes of a standard chunk, multiple of 4 */
    uint32_t options;    /* QOR_FS_CLEAR: every piece is zero-filled */
    QOR_FS_chunk *first_chunk;
    QOR_FS_chunk *current_chunk;
    uint32_t oversized_count;
} QOR_FS_allocator;

#define QOR_FS_CLEAR 0x1u

/* Static initialiser: QOR_FS_allocator fs = QOR_FS_INITIALISER(2016, 0); */
#define QOR_FS_INITIALISER(chunk_size, options) \
    { (chunk_size), (options), NULL, NULL, 0 }

typedef struct QOR_FS_mark {
    QOR_FS_chunk *chunk;
    uint32_t used;
    uint32_t oversized_count;
} QOR_FS_mark;

/* The shared freestore: chunk size 2016, no options. Results of the
 * library's QOR_SH_ functions live here until the caller restores a mark
 * taken before the call. */
QOR_API extern QOR_FS_allocator QOR_SH_fs_allocator;

QOR_API void QOR_FS_initialise(QOR_FS_allocator *fs, uint32_t chunk_size,
                               uint32_t options);
QOR_API void *QOR_FS_malloc(QOR_FS_allocator *fs, uint32_t size);
QOR_API void *QOR_FS_calloc(QOR_FS_allocator *fs, uint32_t count,
                            uint32_t size);
QOR_API char *QOR_FS_copy_string(QOR_FS_allocator *fs, const char *s);
QOR_API void *QOR_FS_copy_memory(QOR_FS_allocator *fs, const void *p,
                                 uint32_t n);
QOR_API char *QOR_FS_cat_strings(QOR_FS_allocator *fs, const char *s1, ...)
    QOR_SENTINEL;
QOR_API char *QOR_SH_cat_strings(const char *s1, ...) QOR_SENTINEL;
QOR_API void QOR_FS_save(QOR_FS_allocator *fs, QOR_FS_mark *mark);
QOR_API void QOR_FS_restore(QOR_FS_allocator *fs, QOR_FS_mark *mark);
QOR_API void QOR_FS_empty(QOR_FS_allocator *fs);
QOR_API void QOR_FS_destroy(QOR_FS_allocator *fs);
QOR_API void QOR_FS_dump(QOR_FS_allocator *fs, int verbose);

/* ---- Static allocator ---------------------------------------------------
 * (declared with its implementation) */

#ifdef __cplusplus
}
#endif

#endif /* QOR_MEMORY_H */
