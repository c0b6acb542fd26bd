// Member files through the host-call seam: opening a file that lives inside
// an object directory without being turned against the caller.
//
// Anyone who can write into a shared store can plant a symbolic link, a FIFO
// or a device where a member file belongs. Every open of a member goes
// through open_member, which
//  - never follows a final symbolic link (O_NOFOLLOW: a link gives ELOOP);
//  - opens without blocking (O_NONBLOCK), so a FIFO with no writer or reader
//    cannot hang the caller, and clears the flag again once the file is
//    known to be regular (unless the caller asked for it);
//  - checks with fstat that what was opened is a regular file, or a
//    directory where a directory is expected (anything else gives EINVAL);
//  - creates only exclusively: O_CREAT without O_EXCL becomes "open the
//    existing file, and on ENOENT only create it with O_EXCL", so a dangling
//    link is never created through and a file that appears in between is
//    opened, never replaced.
// The helpers return -1 with errno set and record nothing: the caller records
// the failure with its own context, as it does for any other failing open.
// Every call inside follows the EINTR rule of host.h.
#pragma once

#include <sys/types.h>

namespace qor::host {

// What may be found at the name: a regular file, a directory, or either
// (a path the caller named, which the library opens as it finds it).
enum class MemberKind { file, directory, file_or_directory };

struct MemberOpen {
    MemberKind kind = MemberKind::file;
    // Follow a symbolic link at the final component. Only for a path the
    // caller named itself (an object's own path may be a link); never for a
    // member inside an object directory.
    bool follow = false;
    // Context given to the disc-full handler on ENOSPC; 0: ENOSPC fails.
    int disc_full_context = 0;
};

// Opens os_path with the caller's flags (O_CLOEXEC included if wanted) and
// mode under the rules above. Returns the descriptor, or -1 with errno set:
// ELOOP for a link, EINVAL for a file of the wrong kind (a FIFO without a
// peer also gives EINVAL, not ENXIO), otherwise the host's errno.
int open_member(const char *os_path, int flags, mode_t mode,
                const MemberOpen &how = {});

// chmod and chown of a member file through a descriptor: the path is opened
// with open_member's checks (falling back to a path-only descriptor when the
// caller may change the file without reading it) and the change is made on
// what was checked. 0, or -1 with errno set as for open_member.
int chmod_member(const char *os_path, mode_t mode, const MemberOpen &how = {});
int chown_member(const char *os_path, uid_t uid, gid_t gid,
                 const MemberOpen &how = {});

// Empties a member file through a checked descriptor (ftruncate to 0).
int truncate_member(const char *os_path, const MemberOpen &how = {});

}  // namespace qor::host
