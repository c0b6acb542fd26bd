// Internal helpers shared by every source unit of the library. Not installed.
#pragma once

#include "qor/foundation.h"

// Assertion failure naming the source unit and the line of the check. The
// unit is a short name ("basic_space", "qor_files", ...), never a file path,
// so the text stays the same whatever the build directory is.
#define QOR_ASSERT(cond, unit, text)                                      \
    do {                                                                  \
        if (__builtin_expect(!(cond), 0)) QOR_fatal((text), (unit), __LINE__); \
    } while (0)

namespace qor {

// Builds the parameter list of a message: at most seven texts and the
// terminating null. Plain data, safe across a fatal-error longjmp.
struct param_list {
    char *items[QOR_MAX_MESSAGE_PARAMETERS + 1];
};

// The message set every library message belongs to.
inline constexpr const char kSet[] = "qor";

// Memory exhaustion: the fatal error of message 11, status 2011. Never
// returns, even when the application's handler state lets raising return.
[[noreturn]] void out_of_memory();

}  // namespace qor
