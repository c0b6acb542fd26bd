// Lock files: ordinary files whose first two bytes carry POSIX record
// locks. Byte 1 is the update right, only ever tried without waiting;
// byte 0 is the access byte, whose requests wait. A lock handle is a file
// handle; a handle whose file could not be opened yet is deferred
// (descriptor -1) and opens the file at its first lock step.
//
// The lock state of a handle records what this process holds on byte 1
// (0 none, 1 read, 3 write); byte 0 is not tracked.

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "files/file_layer.h"
#include "foundation/host.h"
#include "foundation/internal.h"
#include "qor/files.h"

namespace {

using qor::files::access_failure;
using qor::files::kFilesUnit;

constexpr int kAccessByte = 0;
constexpr int kUpdateByte = 1;

// The one record-lock request of lock files: one byte from the start.
struct flock request(short kind, int byte) {
    struct flock fl = {};
    fl.l_type = kind;
    fl.l_whence = SEEK_SET;
    fl.l_start = byte;
    fl.l_len = 1;
    return fl;
}

// Whether the lock file of a qor path can be opened for reading now; an
// error of the question itself is fatal.
bool readable(const char *qor_path) {
    int32_t flag = 0;
    if (QOR_is_accessible(qor_path, QOR_PLAIN_FILE, QOR_ACCESS_READ, &flag) !=
        0) {
        QOR_fatal("QOR_is_accessible failed", kFilesUnit, __LINE__);
    }
    return flag != 0;
}

// The deferred open: the file is opened read-only once it can be read.
void deferred_open(QOR_file_handle *h) {
    char *qor_path = QOR_os_to_qor(h->path);
    const bool can_read = qor_path != nullptr && readable(qor_path);
    if (qor_path != nullptr) QOR_free(qor_path);
    if (!can_read) return;
    h->fd = qor::files::checked(
        [&] { return open(h->path, O_RDONLY | O_CLOEXEC, 0777); },
        h->path, QOR_CTX_OPEN);
}

// One lock step on a byte: byte 1 without waiting, byte 0 waiting. 1 when
// granted, 0 when another process holds the byte.
int lock_step(QOR_file_handle *h, int byte, short kind) {
    if (h->fd == -1) {
        deferred_open(h);
        // Nothing to lock yet: a write lock is not granted, the rest
        // succeeds without a system call.
        if (h->fd == -1) return kind == F_WRLCK ? 0 : 1;
    }
    struct flock fl = request(kind, byte);
    const int cmd = byte == kUpdateByte ? F_SETLK : F_SETLKW;
    if (qor::host::retry_eintr([&] { return fcntl(h->fd, cmd, &fl); }) ==
        -1) {
        if (errno == EAGAIN || errno == EACCES) return 0;
        access_failure(h->path, QOR_CTX_LOCK_CONTENTS);
    }
    if (byte == kUpdateByte) {
        h->lock_mode = kind == F_RDLCK   ? QOR_LOCK_SHARED
                       : kind == F_WRLCK ? QOR_LOCK_EXCLUSIVE
                                         : 0;
    }
    return 1;
}

// A lock file opened for writing holds at least two lockable bytes.
void pad(QOR_file_handle *h) {
    if (QOR_get_binary_file_size(h) < 2) QOR_write_binary_data(h, 0, 2, "  ");
}

}  // namespace

extern "C" {

QOR_file_handle *QOR_open_lock(const char *path, unsigned int create) {
    if (create != 0) {
        QOR_file_handle *h = QOR_create_binary_file(path);
        if (h == nullptr) return nullptr;
        pad(h);
        if (lock_step(h, kUpdateByte, F_WRLCK) == 0) {
            QOR_close_binary_file(h);
            return nullptr;
        }
        return h;
    }
    // An untranslatable path fails the accessibility question first.
    if (readable(path)) return QOR_open_binary_file(path, 1);
    // Deferred: the file is opened at the first lock step that finds it.
    char *os = QOR_qor_to_os(path, 0);
    if (os == nullptr) QOR_fatal("Invalid path", kFilesUnit, __LINE__);
    return qor::files::new_handle(os, QOR_FILE_READ_ONLY, -1);
}

int QOR_test_lock(QOR_file_handle *handle) {
    if (handle->fd == -1) deferred_open(handle);
    if (handle->fd == -1) return 1;
    struct flock fl = request(F_RDLCK, kUpdateByte);
    qor::files::checked([&] { return fcntl(handle->fd, F_GETLK, &fl); },
                        handle->path, QOR_CTX_LOCK_CONTENTS);
    return fl.l_type != F_UNLCK ? 1 : 0;
}

int QOR_upgrade_lock(QOR_file_handle *handle) {
    if (handle->flags & QOR_FILE_READ_ONLY) {
        // Reopened read-write: closing the read-only descriptor drops
        // every lock this process held on the file, byte 0 included.
        if (handle->stream != nullptr) {
            qor::files::checked(
                [&] { return fclose(handle->stream) == 0 ? 0 : -1; },
                handle->path, QOR_CTX_CLOSE);
            handle->stream = nullptr;
        } else if (handle->fd != -1) {
            qor::files::checked([&] { return close(handle->fd); },
                                handle->path, QOR_CTX_CLOSE);
        }
        handle->fd = -1;
        handle->fd = qor::files::checked_write(
            [&] {
                return open(handle->path, O_RDWR | O_CREAT | O_CLOEXEC, 0777);
            },
            handle->path, QOR_CTX_OPEN);
        handle->flags = QOR_FILE_READ_WRITE;
        handle->lock_mode = 0;
        handle->idle = 1;
        pad(handle);
    }
    return lock_step(handle, kUpdateByte, F_WRLCK);
}

int QOR_downgrade_lock(QOR_file_handle *handle) {
    return lock_step(handle, kUpdateByte, F_UNLCK);
}

int QOR_set_read_lock(QOR_file_handle *handle) {
    return lock_step(handle, kAccessByte, F_RDLCK);
}

int QOR_set_update_lock(QOR_file_handle *handle) {
    if (handle->lock_mode != QOR_LOCK_EXCLUSIVE) {
        QOR_fatal("Attempt to start file update without lock", kFilesUnit,
                  __LINE__);
        return 0;
    }
    return lock_step(handle, kAccessByte, F_WRLCK);
}

int QOR_clear_lock(QOR_file_handle *handle) {
    return lock_step(handle, kAccessByte, F_UNLCK);
}

void QOR_close_lock(QOR_file_handle *handle) { QOR_close_binary_file(handle); }

}  // extern "C"
