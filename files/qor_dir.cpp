// Directories: walking the entries of a directory over the links listing,
// copying a directory tree, and whole-file locks on a directory's ".lock"
// file that never wait.
//
// A directory that cannot be listed, a listing that breaks off and an
// entry of a tree that cannot be examined are treated as a broken
// installation: fatal errors of this unit. A directory lock that is not
// granted is an answer (0), never a failure.

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "files/file_layer.h"
#include "foundation/host.h"
#include "foundation/host_files.h"
#include "foundation/internal.h"
#include "objects/object_paths.h"
#include "qor/files.h"
#include "qor/objects.h"

static_assert(offsetof(QOR_dir_cursor, links) == 0);
static_assert(sizeof(QOR_dir_cursor) == sizeof(void *));

namespace {

using qor::files::access_failure;

// The unit name this unit's fatal errors carry.
constexpr const char kDirUnit[] = "qor_dir";

// The lock file inside a locked directory.
constexpr const char kLockName[] = ".lock";

// The mode bits the copy tests, as they always were: both bits of 0xA000
// make a symbolic link; the one bit 0x4000 a directory (block devices and
// sockets carry it too).
constexpr mode_t kLinkBits = 0xA000;
constexpr mode_t kDirectoryBit = 0x4000;

// One attempt at a whole-file record lock of the kind, never waiting:
// 1 when granted. An interruption is tried again, 101 attempts in all;
// what is still refused after that, or refused for any other reason, is
// 0, never an error.
int whole_file_lock(int fd, short kind) {
    struct flock fl = {};
    fl.l_type = kind;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;
    return qor::host::retry_eintr(
               [&] { return fcntl(fd, F_SETLK, &fl); }) == 0
               ? 1
               : 0;
}

// Opens the lock file as the binary-file openers do (EACCES answers -1,
// any other failure is an access failure, a creating open asks the
// disc-full handler), and in addition as the store opens its member
// files: whoever may write in a shared directory must not be able to point
// another user's lock, or root's, at a file of their choosing, or make it
// hang. So a symbolic link at the name is refused, a FIFO does not block,
// only a regular file is accepted, and a missing file is only ever created
// exclusively. O_NONBLOCK stays set (it changes nothing for regular files,
// and clearing it would cost a call per lock). The descriptor is not
// passed on to programs the process starts.
int open_lock_file(const char *os, int flags) {
    qor::host::MemberOpen how;
    how.disc_full_context = QOR_CTX_OPEN;
    const int fd = qor::host::open_member(
        os, flags | O_NONBLOCK | O_CLOEXEC, 0777, how);
    if (fd == -1) {
        if (errno == EACCES) return -1;
        access_failure(os, QOR_CTX_OPEN);
    }
    return fd;
}

// The OS path of "<path>/.lock" in basic space; an untranslatable path is
// fatal, as for the file openers.
char *lock_file_os(const char *path) {
    QOR_FS_mark mark;
    QOR_FS_save(qor::objects::shared(), &mark);
    char *os = QOR_qor_to_os(QOR_SH_cat_strings(path, "/", kLockName, nullptr),
                             0);
    QOR_FS_restore(qor::objects::shared(), &mark);
    if (os == nullptr) QOR_fatal("Invalid path", kDirUnit, __LINE__);
    return os;
}

// The qor path that names an OS path as it stands ("@" and the text).
// Entry names are host names: read as parts of a qor path, "$(HOME)",
// ".0", "#", "_" or a leading "@" would be translated into some other
// place, and a tree copy must read and write exactly the entries it
// listed, wherever a name came from.
const char *literal(const char *os_path) {
    return QOR_SH_cat_strings("@", os_path, nullptr);
}

void copy_tree(const char *source, const char *source_os, const char *target,
               const char *target_os);

// True when a symbolic link stands at the target entry, after recording
// ELOOP against it. Whoever may write into the target tree could plant one
// there to have a file or a whole subtree written wherever it points; the
// entry is left out instead, like a file that cannot be copied.
bool planted_link(const char *target_entry) {
    struct stat st;
    if (lstat(target_entry, &st) != 0 || !S_ISLNK(st.st_mode)) return false;
    QOR_record_os_error(ELOOP, target_entry, QOR_CTX_COPY_CONTENTS);
    return true;
}

// Copies one entry of a tree. The source entry is examined without
// following a link. Links are made again with the same text, whatever it
// points at; whether that succeeds is not checked. Nothing is written
// through a link standing at the target entry. Anything else that is not a
// directory is copied as a plain file by the object store, whose failures
// are recorded there (a message of type 71) and leave no partial target
// file; the rest of the tree is copied all the same.
void copy_entry(const char *source_os, const char *target_os,
                const char *name) {
    QOR_FS_mark mark;
    QOR_FS_save(qor::objects::shared(), &mark);
    const char *from = QOR_SH_cat_strings(source_os, "/", name, nullptr);
    const char *to = QOR_SH_cat_strings(target_os, "/", name, nullptr);
    struct stat st;
    if (lstat(from, &st) != 0) QOR_fatal("stat failed", kDirUnit, __LINE__);
    if ((st.st_mode & kLinkBits) == kLinkBits) {
        char *text = QOR_read_symlink(from);
        // Null: the entry stopped being a link since it was examined.
        if (text != nullptr) (void)symlink(text, to);
        QOR_free(text);
    } else if (planted_link(to)) {
        // Left out, recorded.
    } else if (st.st_mode & kDirectoryBit) {
        copy_tree(literal(from), from, literal(to), to);
    } else {
        (void)QOR_copy_object(literal(from), QOR_PLAIN_FILE, literal(to));
    }
    QOR_FS_restore(qor::objects::shared(), &mark);
}

// The OS path of a qor path the caller gave, in the shared freestore; the
// listing or the directory creation made with it has already ended the
// program if it does not translate.
const char *given_os(const char *path) {
    const char *os = QOR_SH_qor_to_os(path, QOR_PLAIN_DIRECTORY);
    if (os == nullptr) QOR_fatal("Invalid path", kDirUnit, __LINE__);
    return os;
}

// Lists source (a qor path) and copies its entries into target (a qor
// path, made if missing). The OS paths, when given, are those the qor
// paths translate to; the top of the tree has them made here.
void copy_tree(const char *source, const char *source_os, const char *target,
               const char *target_os) {
    QOR_dir_cursor *dir = QOR_open_dir(source);
    QOR_create_dir(target);
    QOR_FS_mark mark;
    QOR_FS_save(qor::objects::shared(), &mark);
    if (source_os == nullptr) source_os = given_os(source);
    if (target_os == nullptr) target_os = given_os(target);
    for (char *name; (name = QOR_dir_next(dir)) != nullptr;) {
        copy_entry(source_os, target_os, name);
        QOR_free(name);
    }
    QOR_FS_restore(qor::objects::shared(), &mark);
    QOR_close_dir(dir);
}

}  // namespace

extern "C" {

QOR_dir_cursor *QOR_open_dir(const char *path) {
    QOR_link_listing *links = nullptr;
    const int status = QOR_open_links(path, QOR_PLAIN_DIRECTORY, &links);
    if (status != 0) {
        fprintf(stderr, "status = %d\n", status);
        QOR_fatal("QOR_open_links failed", kDirUnit, __LINE__);
    }
    auto *dir = static_cast<QOR_dir_cursor *>(
        QOR_malloc(static_cast<int32_t>(sizeof(QOR_dir_cursor))));
    dir->links = links;
    return dir;
}

char *QOR_dir_next(QOR_dir_cursor *dir) {
    const int status = QOR_next_link(dir->links);
    if (status == 0) return QOR_read_linkname(dir->links);
    if (status != QOR_E_END) {
        QOR_fatal("QOR_next_link failed", kDirUnit, __LINE__);
    }
    return nullptr;
}

void QOR_close_dir(QOR_dir_cursor *dir) {
    // The listing is freed whatever its close gave; so is the cursor,
    // before a failure is reported.
    const int status = QOR_close_links(dir->links);
    QOR_free(dir);
    if (status != 0) QOR_fatal("QOR_close_links failed", kDirUnit, __LINE__);
}

void QOR_copy_dir(const char *source, const char *target) {
    copy_tree(source, nullptr, target, nullptr);
}

int QOR_lock_dir(const char *path, int mode, QOR_file_handle **lock) {
    if (mode != QOR_DIR_SHARED && mode != QOR_DIR_EXCLUSIVE) {
        QOR_fatal("Invalid parameter to QOR_lock_dir", kDirUnit, __LINE__);
    }
    const bool shared = mode == QOR_DIR_SHARED;
    char *os = lock_file_os(path);
    // Only a refused access leads to the creating open; a missing lock
    // file is an access failure of the first open.
    uint32_t access = shared ? QOR_FILE_READ_ONLY : QOR_FILE_READ_WRITE;
    int fd = open_lock_file(os, shared ? O_RDONLY : O_RDWR);
    if (fd == -1) {
        access = QOR_FILE_READ_WRITE;
        fd = open_lock_file(os, O_RDWR | O_CREAT);
    }
    if (fd != -1 && whole_file_lock(fd, shared ? F_RDLCK : F_WRLCK) == 0) {
        qor::files::checked([&] { return close(fd); }, os, QOR_CTX_CLOSE);
        fd = -1;
    }
    if (fd == -1) {
        QOR_free(os);
        return 0;
    }
    QOR_file_handle *h = qor::files::new_handle(os, access, fd);
    h->lock_mode = static_cast<uint32_t>(mode);
    *lock = h;
    return 1;
}

int QOR_downgrade_dir_lock(QOR_file_handle *lock) {
    const int granted = whole_file_lock(lock->fd, F_RDLCK);
    if (granted) lock->lock_mode = QOR_DIR_SHARED;
    return granted;
}

void QOR_unlock_dir(QOR_file_handle *lock) { QOR_close_binary_file(lock); }

}  // extern "C"
