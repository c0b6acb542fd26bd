// The one seam between the library and the host's system calls.
//
// Every unit makes its host calls through these helpers so that the rules of
// the library hold everywhere in the same way:
//  - a call interrupted by a signal (EINTR) is made again, 101 calls in all;
//    the 101st interruption is a failure with errno EINTR;
//  - a create or write that fails with ENOSPC asks the application's
//    disc-full handler and is made again while the handler answers 0;
//  - a failure is recorded once, where it happens, as a message of type 71,
//    and its status code travels back up.
// The host functions themselves are called by their plain libc names, so a
// test can interpose them to inject faults without touching library code.
#pragma once

#include <errno.h>

#include <type_traits>

#include "foundation/internal.h"

namespace qor::host {

// Calls in all before an interruption counts as a failure.
inline constexpr int kEintrCalls = 101;

// True when a call's result says it failed: -1 for the integer calls, null
// for the pointer ones (opendir, fdopen, ...).
template <class R>
constexpr bool failed(R r) {
    if constexpr (std::is_pointer_v<R>) {
        return r == nullptr;
    } else {
        return r == -1;
    }
}

// Makes call() until it succeeds, fails with something other than EINTR, or
// has been interrupted 101 times. errno is left as the last call set it.
template <class F>
inline auto retry_eintr(F call) -> decltype(call()) {
    auto r = call();
    for (int calls = 1; failed(r) && errno == EINTR && calls < kEintrCalls;
         ++calls) {
        r = call();
    }
    return r;
}

// As retry_eintr, and on ENOSPC asks the disc-full handler with the OS path
// and context, making the call again while it answers 0. errno stays ENOSPC
// when the handler gives up, so the caller records the disc-full error.
template <class F>
inline auto retry_disc_full(F call, const char *os_path, int context)
    -> decltype(call()) {
    for (;;) {
        auto r = retry_eintr(call);
        if (!failed(r) || errno != ENOSPC) return r;
        if (QOR_call_disc_full_handler(ENOSPC, os_path, context) != 0) {
            errno = ENOSPC;
            return r;
        }
    }
}

// Makes a lookup that answers null for "not found" (getpwuid, getgrgid),
// clearing errno before each try so that a miss is told from a failure, and
// tries again while it was interrupted, 101 tries at most. errno is left as
// the last try set it.
template <class F>
inline auto retry_lookup(F lookup) -> decltype(lookup()) {
    decltype(lookup()) found = nullptr;
    for (int tries = 0; tries < kEintrCalls; ++tries) {
        errno = 0;
        found = lookup();
        if (found != nullptr || errno != EINTR) break;
    }
    return found;
}

// Records the current errno against a path and an operation; returns the
// status the errno value maps to.
inline int record_errno(const char *path, int context) {
    return QOR_record_os_error(errno, path, context);
}

}  // namespace qor::host
