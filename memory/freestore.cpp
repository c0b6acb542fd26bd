// Freestore: an arena handing out pieces from a chain of chunks, given back
// all at once (empty) or down to a saved mark (restore). Standard chunks are
// kept for reuse; oversized chunks (one piece larger than a standard chunk)
// are freed as soon as they are rolled back.
//
// Chain layout: chunks before current_chunk are full, current_chunk is being
// filled, chunks after it are free standard chunks kept for reuse.

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "foundation/internal.h"
#include "foundation/join_strings.h"
#include "qor/memory.h"

// The public records are part of the interface: their layout is fixed.
static_assert(offsetof(QOR_FS_chunk, size) == 0);
static_assert(offsetof(QOR_FS_chunk, used) == 4);
static_assert(offsetof(QOR_FS_chunk, next) == 8);
static_assert(sizeof(QOR_FS_chunk) == 16);
static_assert(offsetof(QOR_FS_allocator, chunk_size) == 0);
static_assert(offsetof(QOR_FS_allocator, options) == 4);
static_assert(offsetof(QOR_FS_allocator, first_chunk) == 8);
static_assert(offsetof(QOR_FS_allocator, current_chunk) == 16);
static_assert(offsetof(QOR_FS_allocator, oversized_count) == 24);
static_assert(sizeof(QOR_FS_allocator) == 32);
static_assert(offsetof(QOR_FS_mark, chunk) == 0);
static_assert(offsetof(QOR_FS_mark, used) == 8);
static_assert(offsetof(QOR_FS_mark, oversized_count) == 12);
static_assert(sizeof(QOR_FS_mark) == 16);

extern "C" {
// Static data, usable before main and without any set-up call.
constinit QOR_FS_allocator QOR_SH_fs_allocator = QOR_FS_INITIALISER(2016, 0);
}

namespace {

constexpr const char kUnit[] = "freestore";

// The chunk header; the dump calls it the chunk overhead.
constexpr uint32_t kHeader = sizeof(QOR_FS_chunk);

inline char *data_at(QOR_FS_chunk *chunk, uint32_t offset) {
    return reinterpret_cast<char *>(chunk) + offset;
}

inline bool clearing(const QOR_FS_allocator *fs) {
    return (fs->options & QOR_FS_CLEAR) != 0;
}

inline bool is_oversized(const QOR_FS_allocator *fs, const QOR_FS_chunk *c) {
    return c->size > fs->chunk_size + kHeader;
}

// Zeroes the bytes [from, to) of a chunk, if any.
inline void clear_range(QOR_FS_chunk *chunk, uint32_t from, uint32_t to) {
    if (to > from) memset(data_at(chunk, from), 0, to - from);
}

// Makes a chunk of `bytes` (header included), links it right after the
// current chunk (ahead of any kept chunks) and makes it current holding one
// piece of `piece` bytes.
void *new_chunk(QOR_FS_allocator *fs, uint64_t bytes, uint32_t piece) {
    QOR_ASSERT(bytes <= INT32_MAX, kUnit,
               "QOR_FS_malloc called to allocate too many bytes");
    void *raw = clearing(fs) ? QOR_calloc(1, static_cast<int32_t>(bytes))
                             : QOR_malloc(static_cast<int32_t>(bytes));
    auto *chunk = static_cast<QOR_FS_chunk *>(raw);
    chunk->size = static_cast<uint32_t>(bytes);
    chunk->used = kHeader + piece;
    QOR_FS_chunk *current = fs->current_chunk;
    if (current == nullptr) {
        chunk->next = nullptr;
        fs->first_chunk = chunk;
    } else {
        chunk->next = current->next;
        current->next = chunk;
    }
    fs->current_chunk = chunk;
    return data_at(chunk, kHeader);
}

// The piece when it does not fit the current chunk: null for a size of 0,
// else an oversized chunk, the next kept chunk, or a new standard chunk.
// Kept out of line so that the common case below stays a leaf function with
// nothing to save.
__attribute__((noinline)) void *allocate_elsewhere(QOR_FS_allocator *fs,
                                                   uint64_t rounded) {
    if (rounded == 0) return nullptr;
    if (rounded > fs->chunk_size) {
        // Checked before counting, so a refused request leaves no trace.
        QOR_ASSERT(rounded + kHeader <= INT32_MAX, kUnit,
                   "QOR_FS_malloc called to allocate too many bytes");
        fs->oversized_count += 1;
        return new_chunk(fs, rounded + kHeader,
                         static_cast<uint32_t>(rounded));
    }
    const uint32_t piece = static_cast<uint32_t>(rounded);
    QOR_FS_chunk *current = fs->current_chunk;
    if (current != nullptr && current->next != nullptr) {
        QOR_FS_chunk *kept = current->next;
        if (clearing(fs)) clear_range(kept, kHeader, kept->used);
        kept->used = kHeader + piece;
        fs->current_chunk = kept;
        return data_at(kept, kHeader);
    }
    return new_chunk(fs, uint64_t{fs->chunk_size} + kHeader, piece);
}

// Allocation proper, shared by every operation here so that none of them
// pays for a call through the exported entry point.
inline void *allocate(QOR_FS_allocator *fs, uint32_t size) {
    // Pieces keep 4-byte alignment only, whatever they will hold. Kept in
    // 64 bits: a size near 4 GiB must not wrap to a small one.
    const uint64_t rounded = (uint64_t{size} + 3) & ~uint64_t{3};
    QOR_FS_chunk *current = fs->current_chunk;
    if (current != nullptr) [[likely]] {
        const uint32_t used = current->used;
        // One test for "fits" and "not empty": a size of 0 wraps round to
        // the largest value and goes the slow way, which answers null.
        if (rounded - 1 < uint64_t{current->size - used}) [[likely]] {
            current->used = used + static_cast<uint32_t>(rounded);
            return data_at(current, used);
        }
    }
    return allocate_elsewhere(fs, rounded);
}

// Unlinks and frees `count` oversized chunks, searching the chain after
// `after` (from the head when null). Running out of chain means the count
// was wrong: it is repaired and message 2501 reported.
__attribute__((noinline)) void free_oversized(QOR_FS_allocator *fs,
                                             QOR_FS_chunk *after,
                                             uint32_t count) {
    fs->oversized_count -= count;
    QOR_FS_chunk **link = after != nullptr ? &after->next : &fs->first_chunk;
    uint32_t freed = 0;
    while (freed < count && *link != nullptr) {
        QOR_FS_chunk *chunk = *link;
        if (is_oversized(fs, chunk)) {
            *link = chunk->next;
            QOR_free(chunk);
            ++freed;
        } else {
            link = &chunk->next;
        }
    }
    if (freed == count) return;

    fs->oversized_count = 0;
    if (after != nullptr) {
        // Count what is really there before the mark, current included.
        for (QOR_FS_chunk *c = fs->first_chunk; c != nullptr; c = c->next) {
            if (is_oversized(fs, c)) ++fs->oversized_count;
            if (c == fs->current_chunk) break;
        }
    }
    QOR_output_message(qor::kSet, 2501, QOR_MSG_INFORMATION, nullptr);
}

// What a restore does beyond moving back to the mark: free the oversized
// chunks made since the save, and under the clear option zero the storage
// given back in the marked chunk (it held `used_before` bytes until now).
__attribute__((noinline)) void finish_restore(QOR_FS_allocator *fs,
                                             const QOR_FS_mark *mark,
                                             uint32_t used_before) {
    if (fs->oversized_count != mark->oversized_count) {
        free_oversized(fs, mark->chunk,
                       fs->oversized_count - mark->oversized_count);
    }
    if (clearing(fs)) clear_range(mark->chunk, mark->used, used_before);
}

// The concatenation of s1 (not null) and the strings in `rest` up to a
// null, in one new piece; `again` holds the same strings (see join_strings).
char *cat_list(QOR_FS_allocator *fs, const char *s1, va_list rest,
               va_list again) {
    return qor::join_strings(s1, rest, again, [fs](size_t bytes) {
        QOR_ASSERT(bytes <= UINT32_MAX, kUnit,
                   "QOR_FS_cat_strings called to join too many bytes");
        return allocate(fs, static_cast<uint32_t>(bytes));
    });
}

}  // namespace

extern "C" {

QOR_API void QOR_FS_initialise(QOR_FS_allocator *fs, uint32_t chunk_size,
                               uint32_t options) {
    QOR_ASSERT(chunk_size <= INT32_MAX - kHeader - 3, kUnit,
               "QOR_FS_initialise called with too large a chunk size");
    fs->chunk_size = (chunk_size + 3) & ~3u;
    fs->options = options;
    fs->first_chunk = nullptr;
    fs->current_chunk = nullptr;
    fs->oversized_count = 0;
}

QOR_API void *QOR_FS_malloc(QOR_FS_allocator *fs, uint32_t size) {
    return allocate(fs, size);
}

QOR_API void *QOR_FS_calloc(QOR_FS_allocator *fs, uint32_t count,
                            uint32_t size) {
    const uint32_t bytes = count * size;  // 32-bit product, as documented
    void *p = allocate(fs, bytes);
    if (p != nullptr && !clearing(fs)) memset(p, 0, bytes);
    return p;
}

QOR_API char *QOR_FS_copy_string(QOR_FS_allocator *fs, const char *s) {
    if (s == nullptr) s = "";
    const size_t n = strlen(s) + 1;
    QOR_ASSERT(n <= UINT32_MAX, kUnit,
               "QOR_FS_copy_string called with too long a string");
    void *copy = allocate(fs, static_cast<uint32_t>(n));
    memcpy(copy, s, n);
    return static_cast<char *>(copy);
}

QOR_API void *QOR_FS_copy_memory(QOR_FS_allocator *fs, const void *p,
                                 uint32_t n) {
    if (p == nullptr) return nullptr;
    if (n == 0) return allocate(fs, 1);  // content left unset
    void *copy = allocate(fs, n);
    memcpy(copy, p, n);
    return copy;
}

QOR_API char *QOR_FS_cat_strings(QOR_FS_allocator *fs, const char *s1, ...) {
    if (s1 == nullptr) return QOR_FS_copy_string(fs, nullptr);
    va_list rest, again;
    va_start(rest, s1);
    va_start(again, s1);
    char *result = cat_list(fs, s1, rest, again);
    va_end(again);
    va_end(rest);
    return result;
}

QOR_API char *QOR_SH_cat_strings(const char *s1, ...) {
    // The first string is copied first, so a null one becomes "" and the
    // strings after it are still joined.
    char *first = QOR_copy_string(s1);
    va_list rest, again;
    va_start(rest, s1);
    va_start(again, s1);
    char *result = cat_list(&QOR_SH_fs_allocator, first, rest, again);
    va_end(again);
    va_end(rest);
    QOR_free(first);
    return result;
}

QOR_API void QOR_FS_save(QOR_FS_allocator *fs, QOR_FS_mark *mark) {
    QOR_FS_chunk *current = fs->current_chunk;
    mark->chunk = current;
    mark->used = current != nullptr ? current->used : 0;
    mark->oversized_count = current != nullptr ? fs->oversized_count : 0;
}

QOR_API void QOR_FS_restore(QOR_FS_allocator *fs, QOR_FS_mark *mark) {
    QOR_FS_chunk *chunk = mark->chunk;
    if (chunk == nullptr) [[unlikely]] {
        QOR_FS_empty(fs);
        return;
    }
    const uint32_t used_before = chunk->used;
    fs->current_chunk = chunk;
    chunk->used = mark->used;
    // The common restore ends here: no oversized chunk made since the save,
    // no clearing. The rest stays out of line so this needs no stack frame.
    if (fs->oversized_count != mark->oversized_count || clearing(fs))
        [[unlikely]] {
        finish_restore(fs, mark, used_before);
    }
}

QOR_API void QOR_FS_empty(QOR_FS_allocator *fs) {
    if (fs->oversized_count != 0) [[unlikely]] {
        free_oversized(fs, nullptr, fs->oversized_count);
    }
    QOR_FS_chunk *first = fs->first_chunk;
    fs->current_chunk = first;
    if (first == nullptr) return;
    if (clearing(fs)) [[unlikely]] clear_range(first, kHeader, first->used);
    first->used = kHeader;
}

QOR_API void QOR_FS_destroy(QOR_FS_allocator *fs) {
    QOR_FS_chunk *chunk = fs->first_chunk;
    while (chunk != nullptr) {
        QOR_FS_chunk *next = chunk->next;
        QOR_free(chunk);
        chunk = next;
    }
    fs->first_chunk = nullptr;
    fs->current_chunk = nullptr;
    fs->oversized_count = 0;
}

QOR_API void QOR_FS_dump(QOR_FS_allocator *fs, int verbose) {
    const int header = static_cast<int>(kHeader);
    const int basic_size = static_cast<int>(fs->chunk_size);
    fprintf(stderr, "*** Dump of Freestore Allocator ***\n\n");
    fprintf(stderr, "Standard Chunk Size        : %d", basic_size + header);
    fprintf(stderr, "\t(Basic Size : %d, Chunk Overhead : %d)\n", basic_size,
            header);
    fprintf(stderr, "Options                    : 0x%X\n", fs->options);
    fprintf(stderr, "Oversized Chunk Count      : %d\n\n",
            static_cast<int>(fs->oversized_count));

    // The used chunks: from the first up to and including the current one.
    int used_chunks = 0;
    int used_basic = 0;
    int basic = 0;
    int remaining = 0;
    int free_chunks = 0;
    QOR_FS_chunk *current = fs->current_chunk;
    if (current != nullptr) {
        if (verbose) {
            fprintf(stderr, "\tUsed Storage :\n\t--------------\n");
            fprintf(stderr, "\t\tChunk\tSize\tUsed\tFree\n");
        }
        for (QOR_FS_chunk *c = fs->first_chunk; c != nullptr; c = c->next) {
            ++used_chunks;
            const int size = static_cast<int>(c->size);
            const int used = static_cast<int>(c->used);
            if (verbose) {
                fprintf(stderr, "\t\t%d\t%d\t%d\t%d\n", used_chunks,
                        size - header, used - header, size - used);
            }
            used_basic += used - header;
            basic += size - header;
            if (c == current) break;
        }
        if (verbose) fputc('\n', stderr);
        remaining = static_cast<int>(current->size - current->used);
        for (QOR_FS_chunk *c = current->next; c != nullptr; c = c->next) {
            ++free_chunks;
        }
    }
    const int used_overhead = header * used_chunks;
    fprintf(stderr, "Number of Used Chunks      : %d\n", used_chunks);
    fprintf(stderr, "Used Chunk Space Allocated : %d", basic + used_overhead);
    fprintf(stderr, "\t(Basic : %d, Overhead : %d)\n\n", basic, used_overhead);

    const int free_basic = free_chunks * basic_size;
    const int free_overhead = header * free_chunks;
    fprintf(stderr, "Number of Free Chunks      : %d\n", free_chunks);
    fprintf(stderr, "Free Chunk Space Allocated : %d",
            free_overhead + free_basic);
    fprintf(stderr, "\t(Basic : %d, Overhead : %d)\n\n", free_basic,
            free_overhead);

    fprintf(stderr, "Total Number of Chunks     : %d\n",
            used_chunks + free_chunks);
    fprintf(stderr, "Total Space Allocated      : %d",
            basic + used_overhead + free_overhead + free_basic);
    fprintf(stderr, "\t(Basic : %d, Overhead : %d)\n", basic + free_basic,
            used_overhead + free_overhead);
    fprintf(stderr, "Total Basic Space Usage    :");
    fprintf(stderr, "\t(Used : %d, Wasted : %d, Free : %d)\n\n", used_basic,
            basic - used_basic - remaining, free_basic + remaining);
    fprintf(stderr, "*** Finished Dump of Freestore Allocator ***\n");
}

}  // extern "C"
