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
// `rest` is read once, to measure; the strings remembered are remembered
// with their addresses, so only a join of more of them reads the list a
// second time, from `again`: the same arguments, started afresh by the
// caller. (Starting twice is cheaper than va_copy, whose copy of a list
// just written by va_start stalls the processor.)
template <class Allocate>
char *join_strings(const char *first, va_list rest, va_list again,
                   Allocate allocate) {
    const char *strings[kMeasuredStrings];
    size_t lengths[kMeasuredStrings];
    strings[0] = first;
    lengths[0] = strlen(first);
    size_t total = lengths[0];
    int count = 1;
    for (const char *s = va_arg(rest, const char *); s != nullptr;
         s = va_arg(rest, const char *)) {
        const size_t n = strlen(s);
        if (count < kMeasuredStrings) {
            strings[count] = s;
            lengths[count] = n;
        }
        total += n;
        ++count;
    }

    char *result = static_cast<char *>(allocate(total + 1));
    char *out = result;
    const int remembered = count < kMeasuredStrings ? count : kMeasuredStrings;
    for (int i = 0; i < remembered; ++i) {
        memcpy(out, strings[i], lengths[i]);
        out += lengths[i];
    }
    if (count > kMeasuredStrings) [[unlikely]] {
        for (int i = 1; i < count; ++i) {
            const char *s = va_arg(again, const char *);
            if (i < kMeasuredStrings) continue;
            const size_t n = strlen(s);
            memcpy(out, s, n);
            out += n;
        }
    }
    *out = '\0';
    return result;
}

}  // namespace qor
