// Basic space: the library's checked heap. Never returns null; bad sizes are
// programming errors (assertion failures) and exhaustion is fatal (2011).

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include "foundation/internal.h"
#include "foundation/join_strings.h"

namespace {

constexpr const char kUnit[] = "basic_space";

void *checked(void *p) {
    if (p == nullptr) qor::out_of_memory();
    return p;
}

}  // namespace

namespace qor {

void out_of_memory() {
    QOR_fatal_error(kSet, 11, nullptr, QOR_E_NO_MEMORY);
    // Raising returns only for a handler state outside 0..2; an allocation
    // cannot hand back null, so end here as well.
    abort();
}

}  // namespace qor

extern "C" {

QOR_API void *QOR_malloc(int32_t size) {
    QOR_ASSERT(size > 0, kUnit,
               "QOR_malloc called to allocate zero or negative bytes");
    return checked(malloc(static_cast<size_t>(size)));
}

QOR_API void *QOR_calloc(int32_t count, int32_t size) {
    QOR_ASSERT(count > 0 && size > 0, kUnit,
               "QOR_calloc called to allocate zero or negative bytes");
    return checked(calloc(static_cast<size_t>(count), static_cast<size_t>(size)));
}

QOR_API void *QOR_realloc(void *block, int32_t size) {
    QOR_ASSERT(size > 0, kUnit,
               "QOR_realloc called to allocate zero or negative bytes");
    if (block == nullptr) return checked(malloc(static_cast<size_t>(size)));
    return checked(realloc(block, static_cast<size_t>(size)));
}

QOR_API void QOR_free(void *block) {
    // Deliberately stricter than free(): a null here means a caller lost
    // track of its memory.
    QOR_ASSERT(block != nullptr, kUnit, "QOR_free called with NULL pointer");
    free(block);
}

QOR_API void *QOR_clear_memory(void *block, uint32_t length) {
    if (length != 0) memset(block, 0, length);
    return block;
}

QOR_API char *QOR_copy_string(const char *text) {
    if (text == nullptr) {
        char *empty = static_cast<char *>(QOR_malloc(1));
        empty[0] = '\0';
        return empty;
    }
    const size_t n = strlen(text) + 1;
    char *copy = static_cast<char *>(QOR_malloc(static_cast<int32_t>(n)));
    memcpy(copy, text, n);
    return copy;
}

QOR_API void *QOR_copy_memory(const void *block, uint32_t length) {
    if (block == nullptr) return nullptr;
    if (length == 0) return QOR_malloc(1);  // content left unset
    void *copy = QOR_malloc(static_cast<int32_t>(length));
    memcpy(copy, block, length);
    return copy;
}

QOR_API char *QOR_cat_strings(const char *first, ...) {
    if (first == nullptr) return QOR_copy_string(nullptr);
    va_list rest, again;
    va_start(rest, first);
    va_start(again, first);
    char *result = qor::join_strings(first, rest, again, [](size_t bytes) {
        return QOR_malloc(static_cast<int32_t>(bytes));
    });
    va_end(again);
    va_end(rest);
    return result;
}

}  // extern "C"
