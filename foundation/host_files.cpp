// Member files through the host-call seam (see host_files.h).

#include "foundation/host_files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/host.h"

namespace qor::host {

namespace {

// Rounds of "open, else create exclusively" before a name that keeps
// changing between the two (a dangling link, a racing remover) is given up.
constexpr int kCreateRounds = 3;

// The status flags F_SETFL can change, kept from the caller's flags when
// O_NONBLOCK is taken off again.
constexpr int kStatusFlags = O_APPEND | O_ASYNC | O_DIRECT | O_NOATIME;

bool right_kind(const struct stat &st, MemberKind kind) {
    switch (kind) {
        case MemberKind::file: return S_ISREG(st.st_mode);
        case MemberKind::directory: return S_ISDIR(st.st_mode);
        case MemberKind::file_or_directory:
            return S_ISREG(st.st_mode) || S_ISDIR(st.st_mode);
    }
    return false;
}

// Closes fd keeping errno as it was: the failure being reported is the
// earlier one.
void close_keeping_errno(int fd) {
    const int saved = errno;
    close(fd);
    errno = saved;
}

int raw_open(const char *os, int flags, mode_t mode, const MemberOpen &how) {
    if ((flags & O_CREAT) && how.disc_full_context != 0) {
        return retry_disc_full([&] { return open(os, flags, mode); }, os,
                               how.disc_full_context);
    }
    return retry_eintr([&] { return open(os, flags, mode); });
}

// Opens an existing file without blocking and checks its kind; clears
// O_NONBLOCK again when the caller did not ask for it.
int open_existing(const char *os, int flags, mode_t mode,
                  const MemberOpen &how) {
    const int fd = raw_open(os, (flags & ~(O_CREAT | O_EXCL)) | O_NONBLOCK,
                            mode, how);
    if (fd < 0) {
        // A FIFO opened for writing without a reader.
        if (errno == ENXIO) errno = EINVAL;
        return -1;
    }
    struct stat st;
    if (retry_eintr([&] { return fstat(fd, &st); }) != 0) {
        close_keeping_errno(fd);
        return -1;
    }
    if (!right_kind(st, how.kind)) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    if (!(flags & O_NONBLOCK) && !(flags & O_PATH) &&
        retry_eintr([&] {
            return fcntl(fd, F_SETFL, flags & kStatusFlags);
        }) != 0) {
        close_keeping_errno(fd);
        return -1;
    }
    return fd;
}

// Runs change(fd, proc_path) on a checked descriptor of os: a readable one
// when the caller may read the file, else a path-only one (proc_path then
// names the file itself through /proc, for the calls that refuse such a
// descriptor).
template <class Change>
int on_checked(const char *os, const MemberOpen &how, Change change) {
    const int base = how.kind == MemberKind::directory ? O_DIRECTORY : 0;
    int fd = open_member(os, O_RDONLY | O_CLOEXEC | base, 0, how);
    bool path_only = false;
    if (fd < 0 && errno == EACCES) {
        fd = open_member(os, O_PATH | O_CLOEXEC | base, 0, how);
        path_only = true;
    }
    if (fd < 0) return -1;
    char proc[64];
    snprintf(proc, sizeof proc, "/proc/self/fd/%d", fd);
    const int r = change(fd, path_only ? proc : nullptr);
    if (r != 0) {
        close_keeping_errno(fd);
        return -1;
    }
    return close(fd);
}

}  // namespace

int open_member(const char *os_path, int flags, mode_t mode,
                const MemberOpen &how) {
    if (!how.follow) flags |= O_NOFOLLOW;
    if (how.kind == MemberKind::directory) flags |= O_DIRECTORY;
    if ((flags & O_CREAT) && (flags & O_EXCL)) {
        // A new file: O_EXCL already refuses any entry at the name, a link
        // included, so what is opened is the regular file just made.
        return raw_open(os_path, flags, mode, how);
    }
    if (!(flags & O_CREAT)) return open_existing(os_path, flags, mode, how);
    // Create if missing: open what is there, and only where nothing is,
    // create exclusively.
    for (int round = 0;; ++round) {
        const int fd = open_existing(os_path, flags, mode, how);
        if (fd >= 0 || errno != ENOENT) return fd;
        const int made = raw_open(os_path, flags | O_EXCL, mode, how);
        if (made >= 0 || errno != EEXIST || round + 1 == kCreateRounds) {
            return made;
        }
    }
}

int chmod_member(const char *os_path, mode_t mode, const MemberOpen &how) {
    return on_checked(os_path, how, [mode](int fd, const char *proc) {
        if (proc != nullptr) {
            return retry_eintr([&] { return chmod(proc, mode); });
        }
        return retry_eintr([&] { return fchmod(fd, mode); });
    });
}

int chown_member(const char *os_path, uid_t uid, gid_t gid,
                 const MemberOpen &how) {
    return on_checked(os_path, how, [uid, gid](int fd, const char *proc) {
        if (proc != nullptr) {
            return retry_eintr([&] { return chown(proc, uid, gid); });
        }
        return retry_eintr([&] { return fchown(fd, uid, gid); });
    });
}

int truncate_member(const char *os_path, const MemberOpen &how) {
    const int fd = open_member(os_path, O_WRONLY | O_CLOEXEC, 0, how);
    if (fd < 0) return -1;
    if (retry_eintr([&] { return ftruncate(fd, 0); }) != 0) {
        close_keeping_errno(fd);
        return -1;
    }
    return close(fd);
}

}  // namespace qor::host
