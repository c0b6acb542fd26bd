// Joining a null-terminated list of strings into one new string: shared by
// the basic space (QOR_cat_strings) and the freestore (QOR_FS_cat_strings,
// QOR_SH_cat_strings), which differ only in where the result is allocated.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <string.h>

namespace qor {

// Strings whose lengths a join measures once and remembers: the first and
// the 31 after it. Later ones are measured again while copying.
inline constexpr int kMeasuredStrings = 32;

// Joins `first` (not null) and the strings in `rest` up to a null pointer
// into storage from allocate(bytes), bytes being the total length plus one.
template <class Allocate>
char *join_strings(const char *first, va_list rest, Allocate allocate) {
    size_t lengths[kMeasuredStrings];
    lengths[0] = strlen(first);
    size_t total = lengths[0];
    int count = 1;
    va_list args;
    va_copy(args, rest);
    for (const char *s = va_arg(args, const char *); s != nullptr;
         s = va_arg(args, const char *)) {
        const size_t n = strlen(s);
        if (count < kMeasuredStrings) lengths[count] = n;
        total += n;
        ++count;
    }
    va_end(args);

    char *result = static_cast<char *>(allocate(total + 1));
    char *out = result;
    memcpy(out, first, lengths[0]);
    out += lengths[0];
    va_copy(args, rest);
    for (int i = 1; i < count; ++i) {
        const char *s = va_arg(args, const char *);
        const size_t n = i < kMeasuredStrings ? lengths[i] : strlen(s);
        memcpy(out, s, n);
        out += n;
    }
    va_end(args);
    *out = '\0';
    return result;
}

}  // namespace qor
