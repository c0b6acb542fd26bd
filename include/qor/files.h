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
 * only the outcomes listed with each function. Calls that can be
 * interrupted are made again on EINTR (101 calls in all), and creating
 * opens and writes that meet a full disc (ENOSPC) ask the disc-full
 * handler first and are made again while it answers 0. Using a handle of
 * the wrong kind (a binary function on a handle with a stream, or the
 * reverse) is an assertion failure of unit "qor_files": a fatal error with
 * status 1.
 *
 * The openers take qor paths; a path that does not translate is the fatal
 * error "Invalid path". They answer null when open fails with EACCES (and,
 * for the read-only multiuser open, ENOENT); a missing file is an access
 * failure for the plain openers. Files are opened with permission bits
 * 0777 under the umask. The handle is the caller's until its close
 * function: QOR_close_binary_file without a stream, QOR_close_text_file
 * with one. A text opener attaches the stream with QOR_get_file_ptr and
 * does not check the outcome: should fdopen fail, that is recorded
 * (context 2116) and the handle comes back without a stream, as a binary
 * handle.
 *
 * The descriptors opened here do not carry close-on-exec: a program
 * started while a handle is open inherits the descriptor. */
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

/* Opens the file for reading and writing (O_RDWR|O_CREAT), creating it
 * when missing and keeping what it holds: access mode 36, no stream. */
QOR_API QOR_file_handle *QOR_create_binary_file(const char *path);
/* Opens an existing file without a stream: read only (O_RDONLY, access
 * mode 1) when read_only is non-zero, else for reading and writing
 * (O_RDWR, access mode 36). A missing file is an access failure. */
QOR_API QOR_file_handle *QOR_open_binary_file(const char *path,
                                              int read_only);
/* Creates the file, or empties the one there (O_RDWR|O_CREAT|O_TRUNC),
 * and attaches a stream opened "a+": access mode 36, and every write goes
 * to the end of the file whatever the stream's position. */
QOR_API QOR_file_handle *QOR_create_text_file(const char *path);
/* As QOR_open_binary_file, with a stream attached: "r" for a read-only
 * handle, "a+" for a read-write one (writes go to the end of the file). A
 * missing file is an access failure. */
QOR_API QOR_file_handle *QOR_open_text_file(const char *path, int read_only);
/* Opens a text file that other processes share, with a stream. Read only
 * (read_only non-zero): O_RDONLY, access mode 1, null when the file is
 * missing. Otherwise O_RDWR|O_CREAT, plus O_TRUNC when truncate is set:
 * access mode 36, a missing file created.
 *
 * With lock set on a writable open, byte 1 is taken with a write lock
 * without waiting (lock state 3); when another process holds it the file
 * is closed again and null returned. The truncation comes with the open,
 * before the lock is tried: a refused open has emptied the file all the
 * same. With lock clear the lock state is set to 3 without locking, so
 * that QOR_set_update_lock passes without the update right; with lock set
 * on a read-only open nothing is locked (lock state 0). The stream is
 * rewound. */
QOR_API QOR_file_handle *QOR_open_multiuser_text_file(const char *path,
                                                      int read_only,
                                                      int lock, int truncate);

/* Reads exactly count bytes at offset into buffer, in as many read calls
 * as it takes, and returns the result of the last call (the bytes it
 * moved, not the total). A read that meets the end of the file before
 * count bytes arrived is an access failure (ENODATA, "No data
 * available"): size reads from QOR_get_binary_file_size. A failing seek
 * or read is an access failure; a text handle is the fatal error
 * "QOR_read_binary_data called for text file". */
QOR_API int64_t QOR_read_binary_data(QOR_file_handle *handle, int64_t offset,
                                     uint64_t count, void *buffer);
/* Writes exactly count bytes from buffer at offset, in as many write
 * calls as it takes, and returns the result of the last call. A failing
 * seek or write (EBADF on a read-only handle among them), and a write
 * that moves nothing (EIO), is an access failure; a full disc asks the
 * disc-full handler first. A text handle is the fatal error
 * "QOR_write_binary_data called for text file". */
QOR_API int64_t QOR_write_binary_data(QOR_file_handle *handle,
                                      int64_t offset, uint64_t count,
                                      const void *buffer);
/* The size of the file in bytes (fstat); a failing fstat is an access
 * failure. A text handle is the fatal error "QOR_get_binary_file-size
 * called for text file", with "-size" spelt so on purpose. */
QOR_API int64_t QOR_get_binary_file_size(QOR_file_handle *handle);
/* Closes the descriptor (unless it is -1, a deferred lock handle) and
 * frees the handle. Closing releases every record lock this process holds
 * on the file, through any handle. A failing close is an access failure; a
 * text handle is the fatal error "QOR_close_binary_file called for text
 * file". */
QOR_API void QOR_close_binary_file(QOR_file_handle *handle);

/* Writes the text to the stream (fputs) and returns fputs's result: a
 * non-negative number (1 with the GNU C library), not 0, so do not compare
 * it with QOR_OK. A failed write is an access failure (a full disc asks
 * the disc-full handler first), so EOF never comes back. The stream
 * buffers the text: it reaches the file at the latest at the next flush,
 * rewind or close. A binary handle is the fatal error
 * "QOR_write_text_string called for binary file". */
QOR_API int QOR_write_text_string(QOR_file_handle *handle, const char *text);
/* fgets: 1 when a line, or its first size-1 bytes, was read; 0 at the end
 * of the file. The line keeps its newline; the rest of a longer line comes
 * with the next call. A size of 1 reads nothing and answers 1 for ever; a
 * size of 0 (or above INT_MAX) answers 0 at once. A read error is an
 * access failure; a binary handle is the fatal error "QOR_read_text_line
 * called for binary file". */
QOR_API int QOR_read_text_line(QOR_file_handle *handle, char *buffer,
                               uint32_t size);
/* Moves the stream to the start of the file (fseek), writing out buffered
 * output first; 0. On a read-write handle ("a+") only reading starts
 * again at the start: writes still go to the end. A failure is an access
 * failure (a full disc asks the disc-full handler first); a binary handle
 * is the fatal error "QOR_rewind_text_file called for binary file". */
QOR_API int QOR_rewind_text_file(QOR_file_handle *handle);
/* Writes the stream's buffered output to the file (fflush); 0. Nothing is
 * made durable (no fsync). A failure is an access failure (a full disc
 * asks the disc-full handler first); a binary handle is the fatal error
 * "QOR_flush_text_file called for binary file". */
QOR_API int QOR_flush_text_file(QOR_file_handle *handle);
/* Flushes and closes the stream, which closes the descriptor and so
 * releases every record lock this process holds on the file, and frees the
 * handle. A failure is an access failure; a binary handle is the fatal
 * error "QOR_close_text_file called for binary file". */
QOR_API void QOR_close_text_file(QOR_file_handle *handle);

/* Empties the file (a text file is rewound first, which writes out its
 * buffered output) with ftruncate; 0. Either kind of handle. A failure, a
 * read-only handle among them, is the fatal error "Unable to truncate
 * file". */
QOR_API int QOR_clear_file(QOR_file_handle *handle);

/* The text of the symbolic link at the OS path (readlink), from basic
 * space (QOR_free); null when the path is not a symbolic link (EINVAL).
 * Texts over 1000 bytes are cut at 1000. Any other failure, a missing path
 * among them, is the fatal error "Unable to read link". This query and the
 * ones down to QOR_delete_file take OS paths, not qor paths. */
QOR_API char *QOR_read_symlink(const char *os_path);
/* 1 when the path itself is a symbolic link (lstat: the link is not
 * followed, so a dangling one counts), else 0, also when lstat fails. */
QOR_API int QOR_is_symlink(const char *os_path);
/* Tests the one mode bit 0x4000: block devices and sockets answer 1 too.
 * stat follows links: a link to a directory answers 1. 0 when stat
 * fails. */
QOR_API int QOR_is_directory(const char *os_path);
/* The modification time (stat, following links) in seconds since the
 * epoch; 0 when stat fails. */
QOR_API int64_t QOR_get_mod_time(const char *os_path);
/* 1 when both paths can be stat'ed (following links) and their inode
 * numbers are equal, else 0. Compares inode numbers only, not devices:
 * two files on different file systems can answer 1. */
QOR_API int QOR_files_same(const char *os_path1, const char *os_path2);
/* Removes the file, or empty directory, at the OS path (remove); 0. Every
 * failure, a missing file among them, is an access failure. */
QOR_API int QOR_delete_file(const char *os_path);
/* mkdir 0777 (under the umask) of a qor path; an existing entry is
 * accepted silently, even one that is not a directory. Parents are not
 * made: a missing one, like any other failure, is an access failure (a
 * full disc asks the disc-full handler first). A path that does not
 * translate is the fatal error "Invalid path". */
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
 * cannot be read; a deferred handle opens the file at its first lock step
 * or test that finds it readable. Asking whether the file can be read is
 * QOR_is_accessible: its failing (an untranslatable path among them) is
 * the fatal error "QOR_is_accessible failed"; with create, a path that
 * does not translate is "Invalid path". Null also when the open meets
 * EACCES. The handle is the caller's until QOR_close_lock. */
QOR_API QOR_file_handle *QOR_open_lock(const char *path, unsigned int create);
/* 1 when another process holds the update right, or the file cannot be
 * opened; 0 otherwise. Asked with F_GETLK, which never reports this
 * process's own locks. A deferred handle tries its open first. */
QOR_API int QOR_test_lock(QOR_file_handle *handle);
/* 1 when the update right was obtained, 0 when another process holds it. A
 * read-only handle is reopened read-write first, which drops every lock
 * this process held on the file: O_RDWR|O_CREAT, so a missing file is
 * created, then padded to two bytes; access mode 36 from then on, even
 * when the lock is refused. A read-only text handle comes back without
 * its stream, as a binary handle. */
QOR_API int QOR_upgrade_lock(QOR_file_handle *handle);
/* Releases byte 1, the update right, without waiting; 1, lock state 0. A
 * deferred handle whose file still cannot be read answers 1 without
 * locking anything. */
QOR_API int QOR_downgrade_lock(QOR_file_handle *handle);
/* Takes a read lock on byte 0, waiting while another process holds it for
 * writing (an updater at work); 1. A write lock this process held there
 * becomes a read lock. A deferred handle whose file still cannot be read
 * answers 1 without locking anything. */
QOR_API int QOR_set_read_lock(QOR_file_handle *handle);
/* Takes a write lock on byte 0, waiting until no other process holds it
 * (readers and updaters); 1. Needs lock state 3, the update right (or a
 * multiuser text file opened without lock): otherwise the fatal error
 * "Attempt to start file update without lock". A deadlock the host
 * detects, or a handle open read only (EBADF), is an access failure. */
QOR_API int QOR_set_update_lock(QOR_file_handle *handle);
/* Releases byte 0, whatever this process held there; 1. Byte 1 and the
 * lock state stay as they are. */
QOR_API int QOR_clear_lock(QOR_file_handle *handle);
/* Exactly QOR_close_binary_file: closes the file, which releases every
 * lock this process holds on it, and frees the handle. */
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

/* States of a txt handle: reading from QOR_txt_start_read to
 * QOR_txt_end_read, saving from QOR_txt_start_save to QOR_txt_end_save,
 * idle otherwise. A call made in a state it does not belong to is an
 * assertion failure of unit "qor_txt" with that call's own message. */
enum { QOR_TXT_READING = 0, QOR_TXT_IDLE = 1, QOR_TXT_SAVING = 2 };

/* A txt handle, from basic space: made by QOR_txt_open, freed by
 * QOR_txt_close. The fields are for reading; the library changes them. */
typedef struct QOR_txt_handle {
    uint32_t state;          /* QOR_TXT_READING, _IDLE or _SAVING */
    uint32_t read_only;      /* as given to QOR_txt_open */
    QOR_file_handle *file;   /* the file read or written (the backup while
                                a read-only reader reads it) */
    QOR_file_handle *held;   /* the main file while the backup is read */
    char *backup_name;       /* path + ".bak", owned */
    char *control_name;      /* path + ".ctrl", owned */
} QOR_txt_handle;

/* Opens the txt file at path with QOR_open_multiuser_text_file(path,
 * read_only, lock, no truncation) and returns a handle in state idle. A
 * writer (read_only 0) creates a missing file; with lock it takes the
 * update right without waiting, which keeps every other locking writer
 * out until QOR_txt_close. A writer without lock holds nothing at the
 * open and gets lock state 3 all the same: the saves of such writers take
 * turns on byte 0, but none of them is kept out. Null when the
 * multiuser open answers null (another writer holds the update right; a
 * read-only open of a missing file; EACCES). */
QOR_API QOR_txt_handle *QOR_txt_open(const char *path, unsigned int read_only,
                                     unsigned int lock);
/* Starts a read: a read lock on byte 0 of the file, waiting while a save
 * is under way; state reading; 0. When "P.ctrl" shows a save that was cut
 * short, a writable handle restores P from "P.bak" (waiting meanwhile, with
 * byte 0 locked for writing, for the other readers to leave), rewinds it
 * and removes "P.ctrl" and then "P.bak"; the repair releases byte 0, so
 * the read that follows holds no lock. A read-only handle reads "P.bak"
 * instead and leaves both files in place.
 *
 * Does not rewind otherwise: the read starts where the stream stands. The
 * open rewinds; after a save or an earlier read on the same handle, call
 * QOR_rewind_text_file(txt->file) first.
 *
 * Fatal: any state but idle ("Unexpected start read"); a failing
 * QOR_is_accessible ("QOR_is_accessible failed"). A "P.ctrl" without its
 * "P.bak", or anything but a regular file at "P.bak", is an access
 * failure. */
QOR_API int QOR_txt_start_read(QOR_txt_handle *txt);
/* 1 when a line (or a piece of one) was read, 0 at the end, as
 * QOR_read_text_line. Any state but reading is the fatal error "Reading
 * txt file without lock". */
QOR_API int QOR_txt_read_line(QOR_txt_handle *txt, char *buffer,
                              uint32_t size);
/* Ends a read: releases byte 0 and goes back to idle; 0. After a read-only
 * handle read "P.bak" in place of the file, the lock released is the
 * backup's (it holds none): the main file's byte-0 read lock stays held,
 * and keeps savers waiting, until a later read of the file itself ends or
 * the handle is closed. Any state but reading is the fatal error
 * "Unexpected end read". */
QOR_API int QOR_txt_end_read(QOR_txt_handle *txt);
/* Starts a save: a write lock on byte 0 (waiting for the readers to
 * leave), the file copied into "P.bak" (created or emptied), the empty
 * "P.ctrl" made, the file rewound; state saving. The caller then empties
 * the file with QOR_txt_clear_file and writes the new contents with
 * QOR_txt_write_string: writes go to the end of the file, so without the
 * clear they follow the old contents.
 *
 * "P.bak" and "P.ctrl" are opened with O_NOFOLLOW and must be regular
 * files: a symbolic link or anything else planted there is an access
 * failure. With QOR_TXT_SYNC=1 the backup is durable before "P.ctrl"
 * exists.
 *
 * Fatal: any state but idle ("Unexpected file save"); a read-only handle
 * ("QOR_txt_start_save called for read-only file"); no lock state 3
 * ("Attempt to start file update without lock"). */
QOR_API void QOR_txt_start_save(QOR_txt_handle *txt);
/* Writes the text to the file (QOR_write_text_string) and returns its
 * result: fputs's non-negative number, not 0. Any state but saving is the
 * fatal error "Writing txt file without lock". */
QOR_API int QOR_txt_write_string(QOR_txt_handle *txt, const char *text);
/* Empties the file (QOR_clear_file); 0. Any state but saving is the fatal
 * error "Writing txt file without lock". */
QOR_API int QOR_txt_clear_file(QOR_txt_handle *txt);
/* Ends a save: flushes the file, removes "P.ctrl" and then "P.bak",
 * releases byte 0 and goes back to idle. Returns the result of
 * QOR_clear_lock, 1, not 0. With QOR_TXT_SYNC=1 the new contents are
 * durable before "P.ctrl" goes. Either file missing (removed by hand) is
 * an access failure. The update right, when the open took it, stays held
 * until QOR_txt_close. Any state but saving is the fatal error "Unexpected
 * end save". */
QOR_API int QOR_txt_end_save(QOR_txt_handle *txt);
/* Closes the file, which releases every lock this process holds on it
 * (the update right included), and frees the handle. Any state but idle
 * is the fatal error "Unexpected file close". */
QOR_API void QOR_txt_close(QOR_txt_handle *txt);
/* 0 when another process holds the update right of the file, 2061 when
 * none does, 2052 when it cannot be opened. The file is opened read-only
 * and closed again; since closing releases every lock this process holds
 * on the file, a process that has it open itself loses its own locks
 * (the update right among them) and is answered 2061. */
QOR_API int QOR_txt_test_lock(const char *path);


/* ---- Directories -----------------------------------------------------------
 * Listing the entries of a directory, copying a directory tree, and
 * whole-file locks on a directory's ".lock" file that never wait. */

/* A directory cursor: the links listing of the directory (QOR_open_links
 * as a plain directory, so only "." and ".." are passed over). Freed by
 * QOR_close_dir. */
typedef struct QOR_dir_cursor {
    QOR_link_listing *links; /* the listing the names come from */
} QOR_dir_cursor;

/* Modes of QOR_lock_dir: a read lock, a write lock. */
enum { QOR_DIR_SHARED = 1, QOR_DIR_EXCLUSIVE = 3 };

/* A directory that cannot be listed prints "status = N" on the standard
 * error stream and is the fatal error "QOR_open_links failed". */
QOR_API QOR_dir_cursor *QOR_open_dir(const char *path);
/* The next entry's name from basic space (QOR_free), null after the last;
 * in the host directory's order. */
QOR_API char *QOR_dir_next(QOR_dir_cursor *dir);
/* Closes the listing and frees the cursor; names already returned stay
 * the caller's. A listing that cannot be closed is the fatal error
 * "QOR_close_links failed", after the cursor is freed. */
QOR_API void QOR_close_dir(QOR_dir_cursor *dir);
/* Copies the tree below source into target (made if missing; both qor
 * paths), depth first in listing order: symbolic links are made again
 * with the same text and never followed, directories are copied
 * recursively, everything else with QOR_copy_object as a plain file (its
 * failures are recorded and the copy goes on; nothing is written through
 * a link standing at a target entry). Entry names are taken as
 * they stand on the host, never as qor path syntax. An entry that cannot
 * be examined is the fatal error "stat failed". */
QOR_API void QOR_copy_dir(const char *source, const char *target);
/* Locks the whole of "<path>/.lock" without waiting: mode 1 shared, 3
 * exclusive (any other mode is fatal). 1 and the handle stored in *lock
 * when granted; 0 and nothing kept open when not. A missing ".lock" is an
 * access failure. */
QOR_API int QOR_lock_dir(const char *path, int mode, QOR_file_handle **lock);
/* Replaces the lock by a shared one; 1 when granted. */
QOR_API int QOR_downgrade_dir_lock(QOR_file_handle *lock);
/* Closes the handle (QOR_close_binary_file), which releases the lock. */
QOR_API void QOR_unlock_dir(QOR_file_handle *lock);

#ifdef __cplusplus
}
#endif

#endif /* QOR_FILES_H */
