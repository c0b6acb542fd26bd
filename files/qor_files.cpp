// Text and binary files: the library's one way of opening host files by
// qor path, positioned binary transfers, line-wise text streams, and small
// queries on OS paths.
//
// An unreadable or unwritable file is treated as a broken installation,
// not as a condition for the caller: nearly every failed host call ends in
// the access failure report and the library's exception (see
// access_failure). Handles are open-contents records from basic space.

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "files/file_layer.h"
#include "foundation/host.h"
#include "foundation/internal.h"
#include "objects/contents.h"
#include "objects/object_paths.h"
#include "qor/files.h"

// A file handle is an open-contents record: the object store's functions
// on records (descriptor, stream, idle blocks) take file handles as they
// are.
static_assert(offsetof(QOR_file_handle, path) == 0);
static_assert(offsetof(QOR_file_handle, flags) == 8);
static_assert(offsetof(QOR_file_handle, lock_mode) == 12);
static_assert(offsetof(QOR_file_handle, idle) == 16);
static_assert(offsetof(QOR_file_handle, fd) == 20);
static_assert(offsetof(QOR_file_handle, stream) == 24);
static_assert(sizeof(QOR_file_handle) == 32);
static_assert(int{QOR_FILE_READ_ONLY} == int{QOR_OPEN_READ});
static_assert(int{QOR_FILE_READ_WRITE} ==
              (int{QOR_OPEN_READ_WRITE} | int{QOR_OPEN_APPEND}));

namespace qor::files {

void access_failure(const char *os_path, int context) {
    (void)context;  // kept by callers to name the operation; not reported
    const int error = errno;
    fprintf(stderr, "\n\n\n\tProblem accessing file: %s\n", os_path);
    fprintf(stderr, "\n\tProblem description: %s\n", strerror(error));
    fprintf(stderr, "\n\tProgram aborting\n\n\n\n");
    fflush(stderr);
    QOR_raise_exception(1);
    // Raising returns only for a handler state outside 0..2; a caller of
    // the file layer is never handed back a broken file.
    abort();
}

}  // namespace qor::files

namespace {

using qor::files::access_failure;
using qor::files::checked;
using qor::files::checked_write;
using qor::files::Guard;
using qor::files::kFilesUnit;
using qor::files::kNoGuard;
using qor::files::new_handle;

// The longest link text read back.
constexpr size_t kLinkBuffer = 1000;

bool is_text(const QOR_file_handle *h) { return h->stream != nullptr; }

// The fatal error of a function given the wrong kind of handle.
void require_binary(const QOR_file_handle *h, const char *text, int line) {
    if (is_text(h)) QOR_fatal(text, kFilesUnit, line);
}
void require_text(const QOR_file_handle *h, const char *text, int line) {
    if (!is_text(h)) QOR_fatal(text, kFilesUnit, line);
}

// The OS path of a qor path, as a copy in basic space; "Invalid path" is
// fatal.
char *os_path_of(const char *path, int line) {
    char *os = QOR_qor_to_os(path, 0);
    if (os == nullptr) QOR_fatal("Invalid path", kFilesUnit, line);
    return os;
}

// Opens the OS path (taken over: freed when null is answered) with the
// flags and permission bits 0777. EACCES answers null, and ENOENT too when
// missing_is_null is set; every other failure is an access failure. A
// creating open asks the disc-full handler on ENOSPC.
QOR_file_handle *open_os(char *os, int flags, uint32_t mode,
                         bool missing_is_null, Guard guard) {
    // Close-on-exec, as every descriptor of the library: a program the
    // caller starts must not inherit the caller's open files.
    flags |= guard.extra_flags | O_CLOEXEC;
    auto call = [&] { return open(os, flags, 0777); };
    const int fd = (flags & O_CREAT)
                       ? qor::host::retry_disc_full(call, os, QOR_CTX_OPEN)
                       : qor::host::retry_eintr(call);
    if (fd == -1) {
        if (errno == EACCES || (missing_is_null && errno == ENOENT)) {
            QOR_free(os);
            return nullptr;
        }
        access_failure(os, QOR_CTX_OPEN);
    }
    if (guard.regular_only) {
        // A FIFO or device planted at the name must not make a reader
        // hang or a saver write into it.
        struct stat st;
        checked([&] { return fstat(fd, &st); }, os, QOR_CTX_OPEN);
        if (!S_ISREG(st.st_mode)) {
            close(fd);
            errno = EINVAL;
            access_failure(os, QOR_CTX_OPEN);
        }
        if ((guard.extra_flags & O_NONBLOCK) && !(flags & O_CREAT)) {
            const int fl =
                checked([&] { return fcntl(fd, F_GETFL); }, os, QOR_CTX_OPEN);
            checked([&] { return fcntl(fd, F_SETFL, fl & ~O_NONBLOCK); }, os,
                    QOR_CTX_OPEN);
        }
    }
    return new_handle(os, mode, fd);
}

int access_flags(int read_only) { return read_only ? O_RDONLY : O_RDWR; }
uint32_t access_mode(int read_only) {
    return read_only ? QOR_FILE_READ_ONLY : QOR_FILE_READ_WRITE;
}

// Attaches the stream of a text file; as the openers have always done, a
// stream that cannot be made is not reported here.
QOR_file_handle *attach_stream(QOR_file_handle *h) {
    if (h != nullptr) {
        FILE *stream = nullptr;
        (void)QOR_get_file_ptr(h, &stream);
    }
    return h;
}

QOR_file_handle *create_text_os(char *os, Guard guard) {
    return attach_stream(open_os(os, O_RDWR | O_CREAT | O_TRUNC,
                                 QOR_FILE_READ_WRITE, false, guard));
}

QOR_file_handle *open_multiuser(char *os, int read_only, int lock,
                                int truncate, Guard guard) {
    const int flags =
        read_only ? O_RDONLY
                  : (O_RDWR | O_CREAT | (truncate ? O_TRUNC : 0));
    QOR_file_handle *h =
        open_os(os, flags, access_mode(read_only), read_only != 0, guard);
    if (h == nullptr) return nullptr;
    attach_stream(h);
    if (lock && !read_only) {
        if (QOR_upgrade_lock(h) == 0) {
            QOR_close_text_file(h);
            return nullptr;
        }
    } else if (!lock) {
        // Later update locks are allowed without the update right.
        h->lock_mode = QOR_LOCK_EXCLUSIVE;
    }
    QOR_rewind_text_file(h);
    return h;
}

// Seeks to the offset for a positioned transfer.
void seek_to(QOR_file_handle *h, int64_t offset, int context) {
    checked([&] { return lseek(h->fd, static_cast<off_t>(offset), SEEK_SET); },
            h->path, context);
}

// A write that moved nothing makes no progress: reported as an I/O error
// rather than tried for ever.
constexpr int kNoProgress = EIO;

}  // namespace

namespace qor::files {

QOR_file_handle *create_text_file(const char *os_path, Guard guard) {
    return create_text_os(QOR_cat_strings(os_path, nullptr), guard);
}

QOR_file_handle *open_text_for_reading(const char *os_path, Guard guard) {
    return open_multiuser(QOR_cat_strings(os_path, nullptr), 1, 0, 0, guard);
}

QOR_file_handle *new_handle(char *os_path, uint32_t mode, int fd) {
    auto *h = static_cast<QOR_file_handle *>(
        QOR_malloc(static_cast<int32_t>(sizeof(QOR_file_handle))));
    h->path = os_path;
    h->flags = mode;
    h->lock_mode = 0;
    h->idle = 1;
    h->fd = fd;
    h->stream = nullptr;
    return h;
}

void release_handle(QOR_file_handle *handle) {
    qor::objects::release_record(handle);
}

}  // namespace qor::files

extern "C" {

QOR_file_handle *QOR_create_binary_file(const char *path) {
    return open_os(os_path_of(path, __LINE__), O_RDWR | O_CREAT,
                   QOR_FILE_READ_WRITE, false, kNoGuard);
}

QOR_file_handle *QOR_open_binary_file(const char *path, int read_only) {
    return open_os(os_path_of(path, __LINE__), access_flags(read_only),
                   access_mode(read_only), false, kNoGuard);
}

QOR_file_handle *QOR_create_text_file(const char *path) {
    return create_text_os(os_path_of(path, __LINE__), kNoGuard);
}

QOR_file_handle *QOR_open_text_file(const char *path, int read_only) {
    return attach_stream(open_os(os_path_of(path, __LINE__),
                                 access_flags(read_only),
                                 access_mode(read_only), false, kNoGuard));
}

QOR_file_handle *QOR_open_multiuser_text_file(const char *path, int read_only,
                                              int lock, int truncate) {
    return open_multiuser(os_path_of(path, __LINE__), read_only, lock,
                          truncate, kNoGuard);
}

int64_t QOR_read_binary_data(QOR_file_handle *handle, int64_t offset,
                             uint64_t count, void *buffer) {
    require_binary(handle, "QOR_read_binary_data called for text file",
                   __LINE__);
    seek_to(handle, offset, QOR_CTX_READ);
    auto *p = static_cast<char *>(buffer);
    for (;;) {
        const ssize_t n = checked([&] { return read(handle->fd, p, count); },
                                  handle->path, QOR_CTX_READ);
        if (static_cast<uint64_t>(n) >= count) return n;
        if (n == 0) {
            // The end of the file came first: the caller asked for bytes
            // that are not there. Waiting for them would never end, and
            // handing back less than asked would pass unnoticed.
            errno = ENODATA;
            access_failure(handle->path, QOR_CTX_READ);
        }
        p += n;
        count -= static_cast<uint64_t>(n);
    }
}

int64_t QOR_write_binary_data(QOR_file_handle *handle, int64_t offset,
                              uint64_t count, const void *buffer) {
    require_binary(handle, "QOR_write_binary_data called for text file",
                   __LINE__);
    seek_to(handle, offset, QOR_CTX_WRITE);
    const auto *p = static_cast<const char *>(buffer);
    for (;;) {
        const ssize_t n = checked_write(
            [&] { return write(handle->fd, p, count); }, handle->path,
            QOR_CTX_WRITE);
        if (static_cast<uint64_t>(n) >= count) return n;
        if (n == 0) {
            errno = kNoProgress;
            access_failure(handle->path, QOR_CTX_WRITE);
        }
        p += n;
        count -= static_cast<uint64_t>(n);
    }
}

int64_t QOR_get_binary_file_size(QOR_file_handle *handle) {
    require_binary(handle, "QOR_get_binary_file-size called for text file",
                   __LINE__);
    struct stat st;
    checked([&] { return fstat(handle->fd, &st); }, handle->path,
            QOR_CTX_READ_OPEN_SIZE);
    return static_cast<int64_t>(st.st_size);
}

void QOR_close_binary_file(QOR_file_handle *handle) {
    require_binary(handle, "QOR_close_binary_file called for text file",
                   __LINE__);
    if (handle->fd != -1) {
        checked([&] { return close(handle->fd); }, handle->path,
                QOR_CTX_CLOSE);
    }
    qor::files::release_handle(handle);
}

int QOR_write_text_string(QOR_file_handle *handle, const char *text) {
    require_text(handle, "QOR_write_text_string called for binary file",
                 __LINE__);
    int r = 0;
    checked_write(
        [&] {
            r = fputs(text, handle->stream);
            return r == EOF ? -1 : 0;
        },
        handle->path, QOR_CTX_WRITE);
    return r;
}

int QOR_read_text_line(QOR_file_handle *handle, char *buffer, uint32_t size) {
    require_text(handle, "QOR_read_text_line called for binary file",
                 __LINE__);
    for (int calls = 1;; ++calls) {
        if (fgets(buffer, static_cast<int>(size), handle->stream) != nullptr) {
            return 1;
        }
        if (!ferror(handle->stream)) return 0;  // the end of the file
        if (errno != EINTR || calls >= qor::host::kEintrCalls) {
            access_failure(handle->path, QOR_CTX_READ);
        }
        clearerr(handle->stream);
    }
}

int QOR_rewind_text_file(QOR_file_handle *handle) {
    require_text(handle, "QOR_rewind_text_file called for binary file",
                 __LINE__);
    checked_write([&] { return fseek(handle->stream, 0L, SEEK_SET); },
                  handle->path, QOR_CTX_FLUSH);
    return 0;
}

int QOR_flush_text_file(QOR_file_handle *handle) {
    require_text(handle, "QOR_flush_text_file called for binary file",
                 __LINE__);
    checked_write([&] { return fflush(handle->stream) == 0 ? 0 : -1; },
                  handle->path, QOR_CTX_FLUSH);
    return 0;
}

void QOR_close_text_file(QOR_file_handle *handle) {
    require_text(handle, "QOR_close_text_file called for binary file",
                 __LINE__);
    // Pending output goes out first, under the disc-full rule; fclose then
    // has only the descriptor left to close.
    checked_write([&] { return fflush(handle->stream) == 0 ? 0 : -1; },
                  handle->path, QOR_CTX_CLOSE);
    checked([&] { return fclose(handle->stream) == 0 ? 0 : -1; },
            handle->path, QOR_CTX_CLOSE);
    qor::files::release_handle(handle);
}

int QOR_clear_file(QOR_file_handle *handle) {
    if (is_text(handle)) QOR_rewind_text_file(handle);
    if (qor::host::retry_eintr([&] { return ftruncate(handle->fd, 0); }) !=
        0) {
        QOR_fatal("Unable to truncate file", kFilesUnit, __LINE__);
    }
    return 0;
}

char *QOR_read_symlink(const char *os_path) {
    char buffer[kLinkBuffer];
    const ssize_t n = readlink(os_path, buffer, sizeof buffer);
    if (n < 0) {
        if (errno == EINVAL) return nullptr;
        QOR_fatal("Unable to read link", kFilesUnit, __LINE__);
        return nullptr;
    }
    auto *text = static_cast<char *>(QOR_malloc(static_cast<int32_t>(n + 1)));
    memcpy(text, buffer, static_cast<size_t>(n));
    text[n] = '\0';
    return text;
}

int QOR_is_symlink(const char *os_path) {
    struct stat st;
    return lstat(os_path, &st) == 0 && (st.st_mode & S_IFMT) == S_IFLNK;
}

int QOR_is_directory(const char *os_path) {
    // One bit only, as it always was: block devices and sockets carry it
    // too and answer 1.
    struct stat st;
    return stat(os_path, &st) == 0 && (st.st_mode & 0x4000) != 0;
}

int64_t QOR_get_mod_time(const char *os_path) {
    struct stat st;
    if (stat(os_path, &st) != 0) return 0;
    return static_cast<int64_t>(st.st_mtime);
}

int QOR_files_same(const char *os_path1, const char *os_path2) {
    // Devices are not compared: two files of equal inode numbers on
    // different file systems count as the same.
    struct stat a, b;
    return stat(os_path1, &a) == 0 && stat(os_path2, &b) == 0 &&
           a.st_ino == b.st_ino;
}

int QOR_delete_file(const char *os_path) {
    checked([&] { return remove(os_path); }, os_path, QOR_CTX_CLOSE);
    return 0;
}

void QOR_create_dir(const char *path) {
    char *os = os_path_of(path, __LINE__);
    const int r = qor::host::retry_disc_full(
        [&] { return mkdir(os, 0777); }, os, QOR_CTX_CREATE_DIRECTORY);
    if (r != 0 && errno != EEXIST) access_failure(os, QOR_CTX_CREATE_DIRECTORY);
    QOR_free(os);
}

}  // extern "C"
