/* libqor files: text and binary host files opened by qor path, lock files
 * whose first two bytes carry POSIX record locks, and the save and read
 * protocol of shared text files (txt files).
 *
 * A file handle is an open-contents record (qor/objects.h): the same
 * fields in the same order, so QOR_get_fd, QOR_get_file_ptr and the
 * idle-block transfers accept it. The handles made here come from basic
 * space and are freed by their close functions (QOR_close_contents also
 * gives them back to the right place).
 *
 * Almost every host failure here is an access failure: a report on the
 * standard error stream ("Problem accessing file: ...") followed by the
 * library's exception with code 1, which ends the process with exit status
 * 3 unless the application armed its fatal handler. Callers see as results
 * only the outcomes listed with each function. */
#ifndef QOR_FILES_H
#define QOR_FILES_H

#include <stdint.h>
#include <stdio.h>

#include "qor/foundation.h"
#include "qor/memory.h"
#include "qor/objects.h"
#include "qor/paths.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Text and binary files ---------------------------------------------- */

/* The handle of an open file: path (OS path, owned), access mode (1 read
 * only, 36 read and write with append), lock state of byte 1 of a lock file
 * (0, 1, 3), idle flag (1), descriptor (-1 for a deferred lock handle),
 * stream (text files only). */
typedef QOR_contents_record QOR_file_handle;

/* Access modes of the handles made here. */
enum { QOR_FILE_READ_ONLY = 1, QOR_FILE_READ_WRITE = 36 };

/* Openers take qor paths; a path that does not translate is the fatal
 * error "Invalid path". Null when open fails with EACCES (and, for the
 * read-only multiuser open, ENOENT); a missing file is an access failure
 * for the plain openers. Files are opened with permission bits 0777 under
 * the umask. */
QOR_API QOR_file_handle *QOR_create_binary_file(const char *path);
QOR_API QOR_file_handle *QOR_open_binary_file(const char *path,
                                              int read_only);
QOR_API QOR_file_handle *QOR_create_text_file(const char *path);
QOR_API QOR_file_handle *QOR_open_text_file(const char *path, int read_only);
/* With lock set on a writable open, byte 1 is taken with a write lock
 * without waiting (null when another process holds it); with lock clear
 * the lock state is set to 3 without locking. The stream is rewound. */
QOR_API QOR_file_handle *QOR_open_multiuser_text_file(const char *path,
                                                      int read_only,
                                                      int lock, int truncate);

/* Positioned transfers of exactly count bytes; the result of the last
 * read (write) call. A read that meets the end of the file before count
 * bytes arrived is an access failure (ENODATA): size reads from
 * QOR_get_binary_file_size. */
QOR_API int64_t QOR_read_binary_data(QOR_file_handle *handle, int64_t offset,
                                     uint64_t count, void *buffer);
QOR_API int64_t QOR_write_binary_data(QOR_file_handle *handle,
                                      int64_t offset, uint64_t count,
                                      const void *buffer);
QOR_API int64_t QOR_get_binary_file_size(QOR_file_handle *handle);
QOR_API void QOR_close_binary_file(QOR_file_handle *handle);

/* fputs; its result. */
QOR_API int QOR_write_text_string(QOR_file_handle *handle, const char *text);
/* fgets: 1 when a line, or its first size-1 bytes, was read; 0 at the end
 * of the file. */
QOR_API int QOR_read_text_line(QOR_file_handle *handle, char *buffer,
                               uint32_t size);
QOR_API int QOR_rewind_text_file(QOR_file_handle *handle);
QOR_API int QOR_flush_text_file(QOR_file_handle *handle);
QOR_API void QOR_close_text_file(QOR_file_handle *handle);

/* Empties the file (a text file is rewound first); 0. */
QOR_API int QOR_clear_file(QOR_file_handle *handle);

/* Queries on OS paths. The link text comes from basic space (QOR_free);
 * null when the path is not a symbolic link. Texts over 1000 bytes are
 * cut at 1000. */
QOR_API char *QOR_read_symlink(const char *os_path);
QOR_API int QOR_is_symlink(const char *os_path);
/* Tests the one mode bit 0x4000: block devices and sockets answer 1 too. */
QOR_API int QOR_is_directory(const char *os_path);
QOR_API int64_t QOR_get_mod_time(const char *os_path);
/* Compares inode numbers only, not devices. */
QOR_API int QOR_files_same(const char *os_path1, const char *os_path2);
QOR_API int QOR_delete_file(const char *os_path);
/* mkdir 0777 of a qor path; an existing entry is accepted silently. */
QOR_API void QOR_create_dir(const char *path);

/* ---- Lock files ---------------------------------------------------------
 * Byte 1 of a lock file is the update right (write-locked without waiting
 * by the one process that may update); byte 0 is the access byte (read
 * locks of readers, the updater's write lock while it changes data; these
 * requests wait). Locks are per process and file: keep one handle per lock
 * file, since closing any handle on it releases them all. */

/* With create: the file is made if missing, padded to two bytes and byte 1
 * write-locked; null when another process holds byte 1. Without: a
 * read-only handle, or a deferred one (descriptor -1) while the file
 * cannot be read. */
QOR_API QOR_file_handle *QOR_open_lock(const char *path, unsigned int create);
/* 1 when another process holds the update right, or the file cannot be
 * opened; 0 otherwise. */
QOR_API int QOR_test_lock(QOR_file_handle *handle);
/* 1 when the update right was obtained, 0 when another process holds it. A
 * read-only handle is reopened read-write first, which drops every lock
 * this process held on the file. */
QOR_API int QOR_upgrade_lock(QOR_file_handle *handle);
QOR_API int QOR_downgrade_lock(QOR_file_handle *handle);
/* Byte 0: read lock, write lock (needs the update right: lock state 3),
 * release. 1 when done. */
QOR_API int QOR_set_read_lock(QOR_file_handle *handle);
QOR_API int QOR_set_update_lock(QOR_file_handle *handle);
QOR_API int QOR_clear_lock(QOR_file_handle *handle);
QOR_API void QOR_close_lock(QOR_file_handle *handle);

/* ---- Save and read protocol of text files --------------------------------
 * A txt file P is read under a read lock on its byte 0 and rewritten by
 * the one holder of its update right under a write lock on byte 0. Before
 * a rewrite the old contents are copied to "P.bak" and an empty "P.ctrl"
 * marks the rewrite as under way; the next reader that finds "P.ctrl"
 * restores P from "P.bak" (a read-only reader reads "P.bak" instead). P is
 * a plain absolute path. With QOR_TXT_SYNC=1 in the environment (read once
 * per process) the steps of a save are also made durable against power
 * loss, in order. */

enum { QOR_TXT_READING = 0, QOR_TXT_IDLE = 1, QOR_TXT_SAVING = 2 };

typedef struct QOR_txt_handle {
    uint32_t state;          /* QOR_TXT_READING, _IDLE or _SAVING */
    uint32_t read_only;      /* as given to QOR_txt_open */
    QOR_file_handle *file;   /* the file read or written (the backup while
                                a read-only reader reads it) */
    QOR_file_handle *held;   /* the main file while the backup is read */
    char *backup_name;       /* path + ".bak", owned */
    char *control_name;      /* path + ".ctrl", owned */
} QOR_txt_handle;

/* Null when the multiuser open answers null (another writer holds the
 * update right; a read-only open of a missing file; EACCES). */
QOR_API QOR_txt_handle *QOR_txt_open(const char *path, unsigned int read_only,
                                     unsigned int lock);
QOR_API int QOR_txt_start_read(QOR_txt_handle *txt);
/* 1 when a line (or a piece of one) was read, 0 at the end. */
QOR_API int QOR_txt_read_line(QOR_txt_handle *txt, char *buffer,
                              uint32_t size);
QOR_API int QOR_txt_end_read(QOR_txt_handle *txt);
QOR_API void QOR_txt_start_save(QOR_txt_handle *txt);
QOR_API int QOR_txt_write_string(QOR_txt_handle *txt, const char *text);
QOR_API int QOR_txt_clear_file(QOR_txt_handle *txt);
QOR_API int QOR_txt_end_save(QOR_txt_handle *txt);
QOR_API void QOR_txt_close(QOR_txt_handle *txt);
/* 0 when another process holds the update right of the file, 2061 when
 * none does, 2052 when it cannot be opened. */
QOR_API int QOR_txt_test_lock(const char *path);

#ifdef __cplusplus
}
#endif

#endif /* QOR_FILES_H */
