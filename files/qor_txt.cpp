// The save and read protocol of txt files: shared text files that many
// processes read and one at a time rewrites, safely against readers and
// against a crash in the middle of a rewrite.
//
// Readers hold a read lock on byte 0 of the file while they read; the
// saver holds the update right (byte 1, taken at open) and a write lock on
// byte 0 while it rewrites. Before a rewrite the old contents go to
// "P.bak" and an empty "P.ctrl" marks the rewrite as under way; the first
// reader that finds "P.ctrl" repairs P from "P.bak" (or reads "P.bak" when
// it may not write). "P.ctrl" is removed before "P.bak", so a control file
// never outlives its backup.
//
// Two guarantees follow (docs/files.md):
//  - a process that dies anywhere in a save leaves, for the next reader,
//    exactly the old or exactly the new contents;
//  - with QOR_TXT_SYNC=1 the same holds after a power cut: the backup's
//    data and its directory entry are durable before "P.ctrl" exists, and
//    the rewritten file before "P.ctrl" goes. Without the setting no fsync
//    is made and the host calls are those of the protocol alone.
//
// The backup and control files are made beside a file that other users
// share, so they are opened without following a symbolic link planted at
// their names, and must be regular files: a FIFO there would make a
// reader hang or a saver write into it.

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "files/file_layer.h"
#include "foundation/host.h"
#include "foundation/internal.h"
#include "qor/files.h"

namespace {

using qor::files::Guard;

constexpr const char kUnit[] = "qor_txt";

// Pieces of lines copied between a file and its backup.
constexpr uint32_t kCopyBuffer = 500;

// Opening the backup and control files: never through a link, never into
// anything but a regular file, and when only reading, never waiting on a
// FIFO.
constexpr Guard kCreateBeside = {O_NOFOLLOW, true};
constexpr Guard kReadBeside = {O_NOFOLLOW | O_NONBLOCK, true};

// QOR_TXT_SYNC, read once: -1 until then, 0 off, 1 on.
constinit int sync_setting = -1;

bool durable() {
    if (sync_setting < 0) {
        const char *value = getenv("QOR_TXT_SYNC");
        sync_setting = value != nullptr && strcmp(value, "1") == 0 ? 1 : 0;
    }
    return sync_setting == 1;
}

// Makes a file's written data durable (its stream flushed first).
void sync_file(QOR_file_handle *h) {
    if (h->stream != nullptr) QOR_flush_text_file(h);
    qor::files::checked([&] { return fsync(h->fd); }, h->path,
                        QOR_CTX_FLUSH);
}

// Makes the entries of the directory holding a name durable: creations
// and removals beside a txt file.
void sync_directory_of(const char *name) {
    const char *slash = strrchr(name, '/');
    char dir[QOR_PATH_MAX + 1];
    size_t n = slash == nullptr ? 0 : static_cast<size_t>(slash - name);
    if (n == 0) {
        dir[0] = slash == nullptr ? '.' : '/';
        n = 1;
    } else {
        if (n > QOR_PATH_MAX) n = QOR_PATH_MAX;
        memcpy(dir, name, n);
    }
    dir[n] = '\0';
    const int fd = qor::files::checked(
        [&] { return open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }, dir,
        QOR_CTX_OPEN);
    qor::files::checked([&] { return fsync(fd); }, dir, QOR_CTX_FLUSH);
    qor::files::checked([&] { return close(fd); }, dir, QOR_CTX_CLOSE);
}

void fatal_unless(bool ok, const char *text, int line) {
    if (!ok) QOR_fatal(text, kUnit, line);
}

// Copies a text file into another: the target is emptied, then the source
// goes over line by line in pieces of at most 499 bytes, each written back
// as it came, so lines of any length arrive unchanged.
void copy_text(QOR_file_handle *source, QOR_file_handle *target) {
    char buffer[kCopyBuffer];
    QOR_clear_file(target);
    while (QOR_read_text_line(source, buffer, kCopyBuffer) != 0) {
        QOR_write_text_string(target, buffer);
    }
}

// Deletes a name beside the file; with the setting, durably.
void delete_beside(const char *name) {
    QOR_delete_file(name);
    if (durable()) sync_directory_of(name);
}

// The reader's side of an interrupted save: the control file is there.
void recover(QOR_txt_handle *txt) {
    QOR_file_handle *backup =
        qor::files::open_text_for_reading(txt->backup_name, kReadBeside);
    if (backup == nullptr) {
        // A control file without its backup: no save leaves that behind,
        // so the store was changed by hand or is broken.
        if (errno == 0) errno = ENOENT;
        qor::files::access_failure(txt->backup_name, QOR_CTX_OPEN);
    }
    if (txt->read_only != 0) {
        // Read the old contents from the backup; the repair is left to a
        // writer.
        txt->held = txt->file;
        txt->file = backup;
        return;
    }
    QOR_set_update_lock(txt->file);
    copy_text(backup, txt->file);
    QOR_rewind_text_file(txt->file);
    // The restored contents are durable before the marker goes.
    if (durable()) sync_file(txt->file);
    QOR_clear_lock(txt->file);
    QOR_close_text_file(backup);
    delete_beside(txt->control_name);
    delete_beside(txt->backup_name);
}

}  // namespace

extern "C" {

QOR_txt_handle *QOR_txt_open(const char *path, unsigned int read_only,
                             unsigned int lock) {
    QOR_file_handle *file = QOR_open_multiuser_text_file(
        path, static_cast<int>(read_only), static_cast<int>(lock), 0);
    if (file == nullptr) return nullptr;
    auto *txt = static_cast<QOR_txt_handle *>(
        QOR_malloc(static_cast<int32_t>(sizeof(QOR_txt_handle))));
    txt->state = QOR_TXT_IDLE;
    txt->read_only = read_only;
    txt->file = file;
    txt->held = nullptr;
    txt->backup_name = QOR_cat_strings(path, ".bak", nullptr);
    txt->control_name = QOR_cat_strings(path, ".ctrl", nullptr);
    return txt;
}

int QOR_txt_start_read(QOR_txt_handle *txt) {
    fatal_unless(txt->state == QOR_TXT_IDLE, "Unexpected start read",
                 __LINE__);
    QOR_set_read_lock(txt->file);
    int32_t control = 0;
    if (QOR_is_accessible(txt->control_name, QOR_PLAIN_FILE,
                          QOR_ACCESS_EXISTS, &control) != 0) {
        QOR_fatal("QOR_is_accessible failed", kUnit, __LINE__);
    }
    if (control != 0) recover(txt);
    txt->state = QOR_TXT_READING;
    return 0;
}

int QOR_txt_read_line(QOR_txt_handle *txt, char *buffer, uint32_t size) {
    fatal_unless(txt->state == QOR_TXT_READING,
                 "Reading txt file without lock", __LINE__);
    return QOR_read_text_line(txt->file, buffer, size);
}

int QOR_txt_end_read(QOR_txt_handle *txt) {
    fatal_unless(txt->state == QOR_TXT_READING, "Unexpected end read",
                 __LINE__);
    // After reading the backup the lock cleared is the backup's: the main
    // file's byte 0 stays read-locked until its next clear or close.
    QOR_clear_lock(txt->file);
    if (txt->held != nullptr) {
        QOR_close_text_file(txt->file);
        txt->file = txt->held;
        txt->held = nullptr;
    }
    txt->state = QOR_TXT_IDLE;
    return 0;
}

void QOR_txt_start_save(QOR_txt_handle *txt) {
    fatal_unless(txt->state == QOR_TXT_IDLE, "Unexpected file save",
                 __LINE__);
    fatal_unless(txt->read_only == 0,
                 "QOR_txt_start_save called for read-only file", __LINE__);
    QOR_set_update_lock(txt->file);
    QOR_file_handle *backup =
        qor::files::create_text_file(txt->backup_name, kCreateBeside);
    QOR_rewind_text_file(txt->file);
    copy_text(txt->file, backup);
    // The backup's data and name are durable before the control file can
    // send a reader to it.
    if (durable()) sync_file(backup);
    QOR_close_text_file(backup);
    if (durable()) sync_directory_of(txt->backup_name);
    QOR_rewind_text_file(txt->file);
    QOR_close_text_file(
        qor::files::create_text_file(txt->control_name, kCreateBeside));
    if (durable()) sync_directory_of(txt->control_name);
    txt->state = QOR_TXT_SAVING;
}

int QOR_txt_write_string(QOR_txt_handle *txt, const char *text) {
    fatal_unless(txt->state == QOR_TXT_SAVING,
                 "Writing txt file without lock", __LINE__);
    return QOR_write_text_string(txt->file, text);
}

int QOR_txt_clear_file(QOR_txt_handle *txt) {
    fatal_unless(txt->state == QOR_TXT_SAVING,
                 "Writing txt file without lock", __LINE__);
    return QOR_clear_file(txt->file);
}

int QOR_txt_end_save(QOR_txt_handle *txt) {
    fatal_unless(txt->state == QOR_TXT_SAVING, "Unexpected end save",
                 __LINE__);
    QOR_flush_text_file(txt->file);
    // The new contents are durable before the control file goes.
    if (durable()) sync_file(txt->file);
    txt->state = QOR_TXT_IDLE;
    delete_beside(txt->control_name);
    delete_beside(txt->backup_name);
    return QOR_clear_lock(txt->file);
}

void QOR_txt_close(QOR_txt_handle *txt) {
    fatal_unless(txt->state == QOR_TXT_IDLE, "Unexpected file close",
                 __LINE__);
    QOR_close_text_file(txt->file);
    QOR_free(txt->backup_name);
    QOR_free(txt->control_name);
    QOR_free(txt);
}

int QOR_txt_test_lock(const char *path) {
    QOR_txt_handle *txt = QOR_txt_open(path, 1, 0);
    if (txt == nullptr) return QOR_E_MISSING;
    const int held = QOR_test_lock(txt->file);
    QOR_txt_close(txt);
    return held != 0 ? 0 : QOR_E_NOT_LOCKED;
}

}  // extern "C"
