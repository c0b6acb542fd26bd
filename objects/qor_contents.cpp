// Object contents: open-contents records over host files, their record
// locks, size, flushing, truncation, streams and closing, idle-block
// transfers, stream redirection and the path update after a move.
//
// Records come from a pool of this unit's own and hold an OS path copied
// into basic space. Every descriptor opened here carries close-on-exec from
// the open call itself, so that no program started by the application
// inherits a contents descriptor, not even between the open and a later
// fcntl.

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/host.h"
#include "foundation/host_files.h"
#include "foundation/internal.h"
#include "memory/static_allocator.h"
#include "objects/contents.h"
#include "objects/object_paths.h"
#include "qor/objects.h"

// The record is part of the interface (file handles share its layout).
static_assert(offsetof(QOR_contents_record, path) == 0);
static_assert(offsetof(QOR_contents_record, flags) == 8);
static_assert(offsetof(QOR_contents_record, lock_mode) == 12);
static_assert(offsetof(QOR_contents_record, idle) == 16);
static_assert(offsetof(QOR_contents_record, fd) == 20);
static_assert(offsetof(QOR_contents_record, stream) == 24);
static_assert(sizeof(QOR_contents_record) == 32);

namespace {

using namespace qor::objects;
using qor::host::record_errno;
using qor::host::retry_eintr;

constexpr const char kUnit[] = "qor_contents";

// The pool of open-contents records; it sets itself up on the first
// allocation, and hands every record out cleared.
constinit QOR_SA_allocator contents_pool = QOR_SA_INITIALISER(
    sizeof(QOR_contents_record), 32, 32, QOR_clear_memory, nullptr);

// Messages of set "qor", type 67, about idle-block transfers.
constexpr int kReadIncomplete = 401;
constexpr int kWriteIncomplete = 402;
constexpr int kShortRead = 403;
constexpr int kShortWrite = 404;

// Host open flags of the open-mode flags, without O_TRUNC: when a lock is
// asked for, truncation waits until it is held.
int host_flags(uint32_t flags) {
    int h = 0;
    if (flags & QOR_OPEN_WRITE) h |= O_WRONLY;
    if (flags & QOR_OPEN_READ_WRITE) h |= O_RDWR;
    if (flags & QOR_OPEN_APPEND) h |= O_APPEND;
    if (flags & QOR_OPEN_CREATE) h |= O_CREAT;
    if (flags & QOR_OPEN_CREATE_EXCLUSIVE) h |= O_CREAT | O_EXCL;
    return h | O_CLOEXEC;
}

// The flags of a reopen that empties the file: never creating.
int truncating_flags(uint32_t flags) {
    return (host_flags(flags) | O_TRUNC) & ~(O_CREAT | O_EXCL);
}

// open with permission bits 0777 through the seam's member-file open: only
// a regular file is opened, without blocking on a FIFO, and a missing file
// is created exclusively, never through a dangling link. A member of an
// object is never reached through a link (follow false); a path the caller
// named itself may be one. A creating open that meets a full disc asks the
// disc-full handler, like every other create.
int open_host(const char *os, int host, int context, bool follow) {
    qor::host::MemberOpen how;
    how.follow = follow;
    // A path the caller named may be a directory (opened to read it or to
    // make its changes durable); a member is always a regular file.
    if (follow) how.kind = qor::host::MemberKind::file_or_directory;
    how.disc_full_context = context;
    return qor::host::open_member(os, host, 0777, how);
}

// The lock mode a request leaves behind: 0, 1 (shared) or 3 (exclusive).
uint32_t mode_of_request(unsigned int request) {
    if (request == QOR_LOCK_NONE) return 0;
    return request <= QOR_LOCK_SHARED_WAIT ? QOR_LOCK_SHARED
                                           : QOR_LOCK_EXCLUSIVE;
}

// A whole-file record lock of the given type.
struct flock whole_file(short type) {
    struct flock fl = {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;  // to the end, however the file grows
    return fl;
}

// Whether the record lies in one of the pool's blocks. The file layer's
// handles share the record's layout but come from basic space; closing
// either kind must give it back where it came from.
bool pooled(const QOR_contents_record *rec) {
    return qor::sa_holds(&contents_pool, rec);
}

// Frees the path and gives the record back to the pool, or to basic space
// for a handle of the file layer.
void release(QOR_contents_record *rec) {
    if (rec->path != nullptr) QOR_free(rec->path);
    rec->path = nullptr;
    rec->stream = nullptr;
    if (pooled(rec)) {
        QOR_SA_release(&contents_pool, rec);
    } else {
        QOR_free(rec);
    }
}

// The last OS path known to read back as a qor path. For an absolute OS
// path that conversion is a function of the text alone (no current
// directory, no variable takes part), so a path that converted once
// converts again: the check before every lock need not repeat the work.
constinit char checked_path[QOR_PATH_MAX + 1] = {};
constinit size_t checked_length = 0;

// Whether the record's OS path converts back to a qor path, as opening
// with a lock and locking demand. In a bracket of the shared freestore.
bool reads_as_qor_path(const char *os_path) {
    const size_t n = strlen(os_path);
    if (n == checked_length && n > 0 &&
        memcmp(os_path, checked_path, n) == 0) {
        return true;
    }
    if (QOR_SH_os_to_qor(os_path) == nullptr) return false;
    if (os_path[0] == '/' && n <= QOR_PATH_MAX) {
        memcpy(checked_path, os_path, n);
        checked_length = n;
    }
    return true;
}

// Opening once the OS path is known (steps 2 to 9 of QOR_open_file), in a
// bracket of the shared freestore.
int open_os(const char *os, int idle, uint32_t flags, unsigned int request,
            bool follow, QOR_contents_record **result) {
    if ((flags & QOR_OPEN_READ) && (flags & QOR_OPEN_TRUNCATE)) {
        return QOR_record_os_error(EINVAL, os, QOR_CTX_OPEN);
    }
    int host = host_flags(flags);
    if ((flags & QOR_OPEN_TRUNCATE) && request == QOR_LOCK_NONE) {
        host |= O_TRUNC;
    }
    const int fd = open_host(os, host, QOR_CTX_OPEN, follow);
    if (fd < 0) return record_errno(os, QOR_CTX_OPEN);

    auto *rec =
        static_cast<QOR_contents_record *>(QOR_SA_allocate(&contents_pool));
    rec->path = QOR_copy_string(os);
    rec->fd = fd;
    rec->idle = static_cast<uint32_t>(idle);
    rec->flags = flags;
    rec->lock_mode = mode_of_request(request);
    rec->stream = nullptr;

    if (request != QOR_LOCK_NONE) {
        int status = reads_as_qor_path(rec->path) ? lock_record(rec, request)
                                                  : QOR_E_UNTRANSLATABLE;
        if (status == 0 && (flags & QOR_OPEN_TRUNCATE)) {
            // The lock is held: empty the file by opening it again. Closing
            // the first descriptor drops the process's locks on the file,
            // so the new one is locked again, without waiting.
            const int fresh = open_host(rec->path, truncating_flags(flags),
                                        QOR_CTX_OPEN, follow);
            if (fresh < 0) {
                status = record_errno(rec->path, QOR_CTX_OPEN);
            } else {
                const int old = rec->fd;
                rec->fd = fresh;
                status = close(old) == 0 ? lock_record(rec, rec->lock_mode)
                                         : record_errno(rec->path,
                                                        QOR_CTX_OPEN);
            }
        }
        if (status != 0) {
            QOR_close_contents(rec);
            return status;
        }
    }
    *result = rec;
    return 0;
}

// QOR_open_file between the save and the restore of the shared freestore.
int open_file(const char *path, int is_directory, int idle, uint32_t flags,
              unsigned int request, QOR_contents_record **result) {
    const char *os = is_directory != 0 ? QOR_SH_qor_to_os_dir(path)
                                       : QOR_SH_qor_to_os(path, 0);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    return open_os(os, idle, flags, request, true, result);
}

// Opens a member file of an object. Its OS path is the translation of the
// member's qor path (QOR_SH_body_path and its kin), derived from the
// object's own translation without converting twice.
int open_member(const char *path, const char *member, int idle,
                uint32_t flags, unsigned int request,
                QOR_contents_record **result) {
    if (path == nullptr) return QOR_E_UNTRANSLATABLE;
    ObjectPaths paths = object_paths(path);
    const char *os = member_os(&paths, member);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    return open_os(os, idle, flags, request, false, result);
}

// QOR_open_contents inside its bracket.
int open_contents(const char *path, unsigned int type, uint32_t flags,
                  unsigned int request, QOR_contents_record **result) {
    if (type == QOR_PLAIN_FILE) {
        return QOR_open_file(path, 0, 0, flags, request, result);
    }
    if (type != QOR_CDIR && type != QOR_IDLE_OBJECT) {
        const char *os = QOR_SH_qor_to_os(path, type);
        if (os == nullptr) return QOR_E_UNTRANSLATABLE;
        return QOR_record_os_error(EISDIR, os, QOR_CTX_OPEN);
    }
    if (flags & (QOR_OPEN_CREATE | QOR_OPEN_CREATE_EXCLUSIVE)) {
        unsigned int found = 0;
        int status = QOR_type_of_object(path, &found);
        if (status == QOR_E_MISSING) {
            // The directory and its ".lock"; the ".body" comes with the
            // create flag of the open below, and no ".index" is made.
            status = QOR_create_object(
                path, QOR_LOCKABLE_DIRECTORY,
                type == QOR_CDIR ? "cdir" : "idle_object");
            if (status != 0) return status;
        } else if (status != 0) {
            return status;
        } else if (flags & QOR_OPEN_CREATE_EXCLUSIVE) {
            const char *os = QOR_SH_qor_to_os(path, found);
            if (os == nullptr) return QOR_E_UNTRANSLATABLE;
            return QOR_record_os_error(EEXIST, os, QOR_CTX_OPEN);
        }
    }
    return open_member(path, kBody, type == QOR_IDLE_OBJECT ? 1 : 0, flags,
                       request, result);
}

// The two directions of an idle-block transfer.
struct Direction {
    bool reading;
    int context;       // of seek and transfer failures
    int zero_status;   // when a call transfers 0 bytes
    int short_message; // after a partial transfer
    int left_message;  // after a block left incomplete
};
constexpr Direction kRead = {true, QOR_CTX_READ, QOR_E_IDLE_READ_INCOMPLETE,
                             kShortRead, kReadIncomplete};
constexpr Direction kWrite = {false, QOR_CTX_WRITE, QOR_E_IDLE_WRITE_INCOMPLETE,
                              kShortWrite, kWriteIncomplete};

// Outputs an idle-block message: the record's path, an offset and two
// byte counts.
void idle_message(const QOR_contents_record *rec, int number, int64_t offset,
                  int count, int total) {
    char at[24], done[16], of[16];
    snprintf(at, sizeof at, "%" PRId64, offset);
    snprintf(done, sizeof done, "%d", count);
    snprintf(of, sizeof of, "%d", total);
    char *params[5] = {rec->path, at, done, of, nullptr};
    QOR_output_message(qor::kSet, number, QOR_MSG_IDLE_WARNING, params);
}

// One positioned call of the direction: pread or pwrite. The file offset
// of the descriptor is not moved; the block's place travels with the call.
ssize_t transfer(const Direction &d, int fd, char *p, size_t n, off_t at) {
    if (d.reading) return pread(fd, p, n, at);
    return pwrite(fd, p, n, at);
}

int idle_transfer(QOR_contents_record *rec, int64_t offset, char *buffer,
                  int length, const Direction &d) {
    if (rec->idle != 1) return QOR_E_INVALID;
    QOR_ASSERT(length >= 0, kUnit, "idle block of negative length");
    int remaining = length;
    int calls = 0;
    bool failed = false;
    int status = 0;
    for (;;) {
        const int64_t at = offset + (length - remaining);
        const ssize_t n = transfer(d, rec->fd, buffer, static_cast<size_t>(remaining),
                                   static_cast<off_t>(at));
        ++calls;
        if (n == remaining) return 0;
        if (n > 0) {
            idle_message(rec, d.short_message, at, static_cast<int>(n),
                         remaining);
            remaining -= static_cast<int>(n);
            buffer += n;
            calls = 0;
            continue;
        }
        if (n == 0) {
            status = d.zero_status;
            break;
        }
        if (errno == EINTR && calls < qor::host::kEintrCalls) continue;
        if (errno == ENOSPC && !d.reading &&
            QOR_call_disc_full_handler(ENOSPC, rec->path, d.context) == 0) {
            calls = 0;
            continue;
        }
        failed = true;
        status = QOR_record_os_error(errno, rec->path, d.context);
        break;
    }
    if (failed && remaining == length) return status;
    idle_message(rec, d.left_message, offset + (length - remaining),
                 length - remaining, length);
    return status;
}

}  // namespace

namespace qor::objects {

int lock_record(QOR_contents_record *rec, unsigned int request) {
    const bool shared_request =
        request == QOR_LOCK_SHARED || request == QOR_LOCK_SHARED_WAIT;
    const bool exclusive_request =
        request == QOR_LOCK_EXCLUSIVE || request == QOR_LOCK_EXCLUSIVE_WAIT;
    if ((shared_request && (rec->flags & QOR_OPEN_WRITE)) ||
        (exclusive_request && (rec->flags & QOR_OPEN_READ))) {
        return QOR_record_os_error(EBADF, rec->path, QOR_CTX_LOCK_CONTENTS);
    }
    if (request == QOR_LOCK_NONE) return 0;
    if (!shared_request && !exclusive_request) {
        return QOR_record_os_error(EINVAL, rec->path, QOR_CTX_LOCK_CONTENTS);
    }
    struct flock fl = whole_file(shared_request ? F_RDLCK : F_WRLCK);
    const bool wait = (request % 2) == 0;
    const int cmd = wait ? F_SETLKW : F_SETLK;
    if (retry_eintr([&] { return fcntl(rec->fd, cmd, &fl); }) == -1) {
        if (errno == EAGAIN || errno == EACCES) return QOR_E_LOCKED;
        return record_errno(rec->path, QOR_CTX_LOCK_CONTENTS);
    }
    rec->lock_mode = mode_of_request(request);
    return 0;
}

void release_record(QOR_contents_record *rec) { release(rec); }

// QOR_open_file for a member file named by its full qor path: as
// open_file, but a link at the name is refused.
int open_member_file(const char *path, int idle, uint32_t flags,
                     unsigned int request, QOR_contents_record **result) {
    return bracketed([&] {
        const char *os = path != nullptr ? QOR_SH_qor_to_os(path, 0) : nullptr;
        if (os == nullptr) return static_cast<int>(QOR_E_UNTRANSLATABLE);
        return open_os(os, idle, flags, request, false, result);
    });
}

}  // namespace qor::objects

extern "C" {

int QOR_open_file(const char *path, int is_directory, int idle,
                  unsigned int flags, unsigned int lock_request,
                  QOR_contents_record **result) {
    return bracketed([&] {
        return open_file(path, is_directory, idle, flags, lock_request,
                         result);
    });
}

int QOR_open_contents(const char *path, unsigned int type, unsigned int flags,
                      unsigned int lock_request,
                      QOR_contents_record **result) {
    return bracketed(
        [&] { return open_contents(path, type, flags, lock_request, result); });
}

int QOR_open_idle_index(const char *path, unsigned int flags,
                        unsigned int lock_request,
                        QOR_contents_record **result) {
    return bracketed([&] {
        return open_member(path, kIndex, 1, flags, lock_request, result);
    });
}

int QOR_lock_contents(QOR_contents_record *rec, unsigned int lock_request) {
    return bracketed([&] {
        // The record's path must still read as a qor path.
        if (!reads_as_qor_path(rec->path)) {
            return static_cast<int>(QOR_E_UNTRANSLATABLE);
        }
        return lock_record(rec, lock_request);
    });
}

int QOR_unlock_contents(QOR_contents_record *rec) {
    if (rec->lock_mode == 0) return 0;
    // Unlocking never waits, but a signal can still interrupt it: it is
    // made again like every other call, so that an interrupted unlock is
    // neither left half done nor reported as a failure.
    struct flock fl = whole_file(F_UNLCK);
    if (retry_eintr([&] { return fcntl(rec->fd, F_SETLK, &fl); }) == -1) {
        return record_errno(rec->path, QOR_CTX_UNLOCK_CONTENTS);
    }
    rec->lock_mode = 0;
    return 0;
}

int QOR_contents_lock_mode(QOR_contents_record *rec, unsigned int *mode) {
    *mode = rec->lock_mode;
    return 0;
}

int QOR_get_fd(QOR_contents_record *rec, int *fd) {
    *fd = rec->fd;
    return 0;
}

int QOR_get_file_ptr(QOR_contents_record *rec, FILE **stream) {
    if (rec->stream == nullptr) {
        const uint32_t f = rec->flags;
        const bool append = (f & QOR_OPEN_APPEND) != 0;
        const char *mode = (f & QOR_OPEN_READ)    ? "r"
                           : (f & QOR_OPEN_WRITE) ? (append ? "a" : "w")
                                                  : (append ? "a+" : "r+");
        FILE *s = fdopen(rec->fd, mode);
        if (s == nullptr) return record_errno(rec->path, QOR_CTX_OPEN);
        rec->stream = s;
    }
    *stream = rec->stream;
    return 0;
}

int QOR_read_open_contents_size(QOR_contents_record *rec, uint64_t *size) {
    struct stat st;
    if (retry_eintr([&] { return fstat(rec->fd, &st); }) != 0) {
        return record_errno(rec->path, QOR_CTX_READ_OPEN_SIZE);
    }
    *size = static_cast<uint64_t>(st.st_size);
    return 0;
}

int QOR_flush_contents(QOR_contents_record *rec) {
    if (rec->stream != nullptr) {
        if (retry_eintr([&] { return fflush(rec->stream) == 0 ? 0 : -1; }) !=
            0) {
            return record_errno(rec->path, QOR_CTX_FLUSH);
        }
        return 0;
    }
    if (rec->flags & QOR_OPEN_READ) return 0;
    if (retry_eintr([&] { return fsync(rec->fd); }) != 0) {
        return record_errno(rec->path, QOR_CTX_FLUSH);
    }
    return 0;
}

int QOR_truncate_contents(QOR_contents_record *rec) {
    if (rec->flags & QOR_OPEN_READ) {
        return QOR_record_os_error(EBADF, rec->path, QOR_CTX_TRUNCATE);
    }
    int status = QOR_flush_contents(rec);
    if (status != 0) return status;

    // Open the file again emptied and put the new open file in place of the
    // old under the record's descriptor number, which callers may hold.
    const int fresh =
        open_host(rec->path, truncating_flags(rec->flags), QOR_CTX_TRUNCATE,
                  true);
    if (fresh < 0) return record_errno(rec->path, QOR_CTX_TRUNCATE);
    // These two failures are reported against an empty path.
    const int fd_flags = retry_eintr([&] { return fcntl(rec->fd, F_GETFD); });
    if (fd_flags == -1) {
        status = record_errno("", QOR_CTX_TRUNCATE);
    } else if (retry_eintr([&] { return dup2(fresh, rec->fd); }) == -1) {
        status = record_errno(rec->path, QOR_CTX_TRUNCATE);
    } else if ((fd_flags & FD_CLOEXEC) &&
               retry_eintr([&] {
                   return fcntl(rec->fd, F_SETFD, FD_CLOEXEC);
               }) == -1) {
        status = record_errno("", QOR_CTX_TRUNCATE);
    }
    close(fresh);  // a failure here changes nothing for the record
    if (status != 0) return status;
    // The dup2 closed the old open file, and the process's locks with it.
    if (rec->lock_mode != 0) return lock_record(rec, rec->lock_mode);
    return 0;
}

int QOR_close_contents(QOR_contents_record *rec) {
    int status = 0;
    const int r = rec->stream != nullptr ? fclose(rec->stream) : close(rec->fd);
    if (r != 0) status = record_errno(rec->path, QOR_CTX_CLOSE);
    release(rec);
    return status;
}

int QOR_read_idle_block(QOR_contents_record *rec, int64_t offset,
                        void *buffer, int length) {
    return idle_transfer(rec, offset, static_cast<char *>(buffer), length,
                         kRead);
}

int QOR_write_idle_block(QOR_contents_record *rec, int64_t offset,
                         const void *buffer, int length) {
    return idle_transfer(rec, offset,
                         const_cast<char *>(static_cast<const char *>(buffer)),
                         length, kWrite);
}

int QOR_redirect_stream(QOR_contents_record *rec, FILE *stream) {
    if (rec->lock_mode != 0) {
        return QOR_record_os_error(EBADF, rec->path, QOR_CTX_REDIRECT);
    }
    const int target = fileno(stream);
    if (target == -1) return record_errno(rec->path, QOR_CTX_REDIRECT);
    if (retry_eintr([&] { return fflush(stream) == 0 ? 0 : -1; }) != 0) {
        return record_errno(rec->path, QOR_CTX_REDIRECT);
    }
    const int fd_flags = retry_eintr([&] { return fcntl(rec->fd, F_GETFD); });
    if (fd_flags == -1) return record_errno(rec->path, QOR_CTX_REDIRECT);
    if ((fd_flags & FD_CLOEXEC) &&
        retry_eintr([&] {
            return fcntl(rec->fd, F_SETFD, fd_flags & ~FD_CLOEXEC);
        }) == -1) {
        return record_errno(rec->path, QOR_CTX_REDIRECT);
    }
    // Keep the stream's former file under a descriptor of the record's own,
    // close-on-exec like every other one the store holds.
    const int kept =
        retry_eintr([&] { return fcntl(target, F_DUPFD_CLOEXEC, 0); });
    if (kept == -1) return record_errno(rec->path, QOR_CTX_REDIRECT);
    // dup2 closes the stream's descriptor and puts the contents in its
    // place in one step.
    if (retry_eintr([&] { return dup2(rec->fd, target); }) == -1) {
        const int status = record_errno(rec->path, QOR_CTX_REDIRECT);
        close(kept);
        return status;
    }
    const int r = rec->stream != nullptr ? fclose(rec->stream) : close(rec->fd);
    // The record's own descriptor is gone either way (a failing close still
    // releases it): the record now stands for the stream's former file.
    const int status = r != 0 ? record_errno(rec->path, QOR_CTX_REDIRECT) : 0;
    rec->fd = kept;
    rec->lock_mode = 0;
    rec->idle = 0;
    rec->stream = nullptr;
    return status;
}

int QOR_update_file_path(QOR_contents_record **handle,
                         const char *object_path) {
    return bracketed([&] {
        const char *body = QOR_SH_body_path(object_path);
        if (body == nullptr) return static_cast<int>(QOR_E_UNTRANSLATABLE);
        char *os = QOR_qor_to_os(body, 0);
        if (os == nullptr) return static_cast<int>(QOR_E_UNTRANSLATABLE);
        QOR_contents_record *rec = *handle;
        if (rec->path != nullptr) QOR_free(rec->path);
        rec->path = os;
        return 0;
    });
}

}  // extern "C"
