// What the units of the file layer (files, lock files, txt files) share.
// Not installed.
#pragma once

#include <errno.h>
#include <stdio.h>

#include "foundation/host.h"
#include "qor/files.h"

namespace qor::files {

// The unit name that the file layer's assertion failures carry.
inline constexpr const char kFilesUnit[] = "qor_files";

// The last resort for a file that cannot be read or written: the report
// on the standard error stream, then the library's exception with code 1.
// The context code names the operation for the reader of the code; the
// report itself does not show it. Never returns.
[[noreturn]] void access_failure(const char *os_path, int context);

// One call under the file layer's retry rule: made again on EINTR, 101
// calls in all; any failure left over is an access failure.
template <class F>
inline auto checked(F call, const char *os_path, int context)
    -> decltype(call()) {
    auto r = qor::host::retry_eintr(call);
    if (qor::host::failed(r)) access_failure(os_path, context);
    return r;
}

// As checked, for a call that creates or writes: ENOSPC asks the disc-full
// handler first and is made again while the handler answers 0.
template <class F>
inline auto checked_write(F call, const char *os_path, int context)
    -> decltype(call()) {
    auto r = qor::host::retry_disc_full(call, os_path, context);
    if (qor::host::failed(r)) access_failure(os_path, context);
    return r;
}

// Extra open flags for the files the layer makes beside a shared file on
// its own account (backup and control files of a save).
struct Guard {
    int extra_flags;     // added to the open flags: O_NOFOLLOW, O_NONBLOCK
    bool regular_only;   // the open file must be a regular file
};
inline constexpr Guard kNoGuard = {0, false};

// The openers with a guard: QOR_create_text_file and
// QOR_open_multiuser_text_file (read-only, unlocked, not truncating) on an
// OS path. A guarded open that meets a symbolic link (ELOOP) or a file that
// is not a regular one is an access failure; a guarded read-only open
// clears O_NONBLOCK again once the file is known to be regular.
QOR_file_handle *create_text_file(const char *os_path, Guard guard);
QOR_file_handle *open_text_for_reading(const char *os_path, Guard guard);

// A new handle from basic space over a descriptor (-1 for a deferred lock
// handle): lock state 0, idle flag 1, no stream. It takes the OS path over.
QOR_file_handle *new_handle(char *os_path, uint32_t mode, int fd);

// Frees a handle made by this layer (basic space) or an open-contents
// record of the object store (its pool), whichever it is.
void release_handle(QOR_file_handle *handle);

}  // namespace qor::files
