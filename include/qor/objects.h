/* libqor object store: objects kept in the host file system as a host file
 * or a host directory holding member files, their types, accessibility,
 * ownership and permissions, the links stored in an object directory, and
 * the creation of objects.
 *
 * Layout of the five object types (the composite ones, 2 to 4, keep their
 * member files inside the object directory):
 *   0 plain file          a host file (anything that is not a directory)
 *   1 plain directory     a host directory without a readable ".lock"
 *   2 lockable directory  ".lock"
 *   3 cdir                ".lock", ".body"
 *   4 idle object         ".lock", ".body", ".index" ("dbi.lock" tolerated)
 * Every other entry of an object directory is a link: the name of a further
 * object stored in it.
 *
 * Failures follow the library's rules: an untranslatable qor path gives
 * 2051 and a missing object 2052 from type detection, both without a
 * message; every failed host call is recorded once (one message of type 71)
 * and its status returned. Texts returned by _SH_ functions live in the
 * shared freestore QOR_SH_fs_allocator; the others are from basic space and
 * are freed with QOR_free.
 *
 * None of this is thread-safe: the table of object locks, the pool of
 * open-contents records and the shared freestore are process-wide and
 * unprotected. Record locks are those of POSIX: they belong to the process,
 * so they keep other processes out, not other threads.
 */
#ifndef QOR_OBJECTS_H
#define QOR_OBJECTS_H

#include <dirent.h>
#include <stdio.h>

#include "qor/foundation.h"
#include "qor/memory.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Object layout and type --------------------------------------------- */

/* Object type codes. */
enum {
    QOR_PLAIN_FILE = 0,
    QOR_PLAIN_DIRECTORY = 1,
    QOR_LOCKABLE_DIRECTORY = 2,
    QOR_CDIR = 3,
    QOR_IDLE_OBJECT = 4
};

/* Detects the type of the object at the qor path by the member files the
 * caller may read, tested in the order ".lock", ".body", ".index": the
 * first one that cannot be read decides. *type is written only on 0. */
QOR_API int QOR_type_of_object(const char *path, unsigned int *type);

/* 0 when every link in the directory of the qor path is one of the names
 * given (a list ended by a null pointer, possibly empty); a foreign entry is
 * recorded as ENOTEMPTY (context 2104) and gives 2065. */
QOR_API int QOR_check_directory(const char *path, const char *name, ...);

/* The qor path of an object's member file: the absolute qor path of the
 * object, "/", the member's name. Null when the path does not translate. */
QOR_API char *QOR_lock_path(const char *path);
/* The qor path of the object's ".index", a copy from basic space. */
QOR_API char *QOR_index_path(const char *path);
/* The qor path of the object's ".body", a copy from basic space. */
QOR_API char *QOR_body_path(const char *path);
/* As QOR_lock_path, the result in the shared freestore. */
QOR_API char *QOR_SH_lock_path(const char *path);
/* As QOR_index_path, the result in the shared freestore. */
QOR_API char *QOR_SH_index_path(const char *path);
/* As QOR_body_path, the result in the shared freestore. */
QOR_API char *QOR_SH_body_path(const char *path);

/* ---- Ownership, permissions and accessibility --------------------------- */

/* Access kinds: the columns of the accessibility table. */
enum {
    QOR_ACCESS_EXISTS = 0,
    QOR_ACCESS_READ = 1,
    QOR_ACCESS_WRITE = 2,
    QOR_ACCESS_EXECUTE = 3,
    QOR_ACCESS_CREATE = 4, /* its parent directory may be written */
    QOR_ACCESS_REMOVE = 5  /* its own directory and its parent written */
};

/* Permission classes; any other value selects no permission bits. */
enum { QOR_CLASS_OWNER = 0, QOR_CLASS_GROUP = 1, QOR_CLASS_OTHERS = 2 };

/* Owner and group ids cut to 16 bits. By value it is one 32-bit word with
 * the user id in the low half; -1 in either half leaves that id unchanged
 * when setting (the chown convention). */
typedef struct QOR_ownership {
    int16_t user;  /* owner's user id, cut to 16 bits */
    int16_t group; /* group id, cut to 16 bits */
} QOR_ownership;

/* The names of an ownership's ids. */
typedef struct QOR_ownership_names {
    char *user;  /* the user's login name */
    char *group; /* the group's name */
} QOR_ownership_names;

/* Access times in seconds: last access, last status change, last
 * modification, in this order. */
enum { QOR_TIME_ACCESS = 0, QOR_TIME_CHANGE = 1, QOR_TIME_MODIFY = 2 };

/* *flag = 1 when every check of the (type, kind) cell passes, else 0. */
QOR_API int QOR_is_accessible(const char *path, unsigned int type,
                              unsigned int kind, int32_t *flag);
/* *flag = 1 when the class has the kind's permission on every host file of
 * the cell. Kind 0 always answers 0; one of several bits suffices. */
QOR_API int QOR_read_accessibility(const char *path, unsigned int type,
                                   int32_t permission_class, unsigned int kind,
                                   int32_t *flag);
/* Grants (grant non-zero: object directory first, then its members) or
 * revokes (members first, the directory last) the kind's permission for the
 * class on every host file of the cell. Kind 0 records EINVAL: 2070. */
QOR_API int QOR_set_accessibility(const char *path, unsigned int type,
                                  int32_t permission_class, unsigned int kind,
                                  int32_t grant);

/* is_dir non-zero translates the path as a directory path. */
QOR_API int QOR_set_permissions(const char *path, int32_t is_dir,
                                uint32_t mode);
/* The full st_mode, type bits included. */
QOR_API int QOR_read_permissions(const char *path, int32_t is_dir,
                                 uint32_t *mode);
/* Sets the owner and group of the host file at the path (chown); -1 in a
 * half leaves that id unchanged. */
QOR_API int QOR_ref_set_ownership(const char *path, int32_t is_dir,
                                  const QOR_ownership *ownership);
/* As QOR_ref_set_ownership, the ownership passed by value. */
QOR_API int QOR_set_ownership(const char *path, int32_t is_dir,
                              QOR_ownership ownership);
/* The owner and group ids of the host file at the path, cut to 16 bits. */
QOR_API int QOR_read_ownership(const char *path, int32_t is_dir,
                               QOR_ownership *ownership);
/* Names of the ids; 2070 without a message for an unknown id. The first two
 * return copies from basic space (free both with QOR_free), the _SH_ ones
 * copies in the shared freestore. */
QOR_API int QOR_ref_read_ownership_name(const QOR_ownership *ownership,
                                        QOR_ownership_names *names);
/* As QOR_ref_read_ownership_name, the ownership passed by value. */
QOR_API int QOR_read_ownership_name(QOR_ownership ownership,
                                    QOR_ownership_names *names);
/* As QOR_ref_read_ownership_name, the names in the shared freestore. */
QOR_API int QOR_SH_ref_read_ownership_name(const QOR_ownership *ownership,
                                           QOR_ownership_names *names);
/* As QOR_read_ownership_name, the names in the shared freestore. */
QOR_API int QOR_SH_read_ownership_name(QOR_ownership ownership,
                                       QOR_ownership_names *names);
/* Bytes of the file (type 0) or of the ".body" (types 3 and above); types 1
 * and 2 have no contents (EISDIR recorded: 2057). */
QOR_API int QOR_read_contents_size(const char *path, unsigned int type,
                                   uint64_t *size);
/* From the file (type 0), the directory (types 1 and 2) or the ".body"
 * (types 3 and above). */
QOR_API int QOR_read_access_times(const char *path, unsigned int type,
                                  int64_t times[3]);
/* "<device>_<inode>" in decimal: equal for two paths of one host file. */
QOR_API int QOR_read_identity(const char *path, int32_t is_dir,
                              char **identity);
/* As QOR_read_identity, the result in the shared freestore. */
QOR_API int QOR_SH_read_identity(const char *path, int32_t is_dir,
                                 char **identity);

/* ---- Links -------------------------------------------------------------- */

/* Names passed over by a listing, with room for the terminating null. */
#define QOR_LINK_SKIP_SLOTS 7

/* A links listing: allocated by QOR_open_links, freed by QOR_close_links. */
typedef struct QOR_link_listing {
    char *path;            /* OS path of the directory, owned */
    DIR *stream;           /* host directory stream */
    struct dirent *entry;  /* current link's entry, or null */
    char *name;            /* current link's qor link name, owned, or null */
    const char *skip[QOR_LINK_SKIP_SLOTS]; /* names passed over, null-ended */
} QOR_link_listing;

/* Opens the listing of the object at the qor path. The type chooses the
 * names passed over besides "." and ".." (its member files, and "dbi.lock"
 * for an idle object); type 0 records ENOTDIR and gives 2057. */
QOR_API int QOR_open_links(const char *path, unsigned int type,
                           QOR_link_listing **result);
/* 0 when it moved to the next link, 2062 (no message) at the end. */
QOR_API int QOR_next_link(QOR_link_listing *listing);
/* A copy of the current link's name, or null when there is none. */
QOR_API char *QOR_read_linkname(QOR_link_listing *listing);
/* As QOR_read_linkname, the result in the shared freestore. */
QOR_API char *QOR_SH_read_linkname(QOR_link_listing *listing);
/* Ends the listing and frees it, whatever the status. */
QOR_API int QOR_close_links(QOR_link_listing *listing);

/* ---- Creating objects --------------------------------------------------- */

/* Makes a new object: a file, or a directory with the member files of its
 * type made in the order ".lock", ".body", ".index" (permission bits 0777
 * under the umask). 2053 without a message when it exists; a later failure
 * removes what this call made. Only path and type are read: callers may
 * pass the kind's name as a third argument. */
QOR_API int QOR_create_object(const char *path, unsigned int type, ...);


/* ======================================================================
 * Object contents, idle blocks and object operations
 * ======================================================================
 * The contents of an object (a plain file itself, the ".body" of a cdir or
 * idle object, the ".index" of an idle object) are opened into an
 * open-contents record, locked with POSIX record locks over the whole file
 * and closed again. Every descriptor opened here carries close-on-exec.
 * Bodies and indexes of idle objects are also read and written in idle
 * blocks: a given number of bytes at a given offset, transferred whole.
 * Whole objects are copied, moved, deleted and locked member file by member
 * file; object locks are record locks on the ".lock" member, remembered by
 * the process in a table keyed by the object's absolute qor path.
 *
 * Expected outcomes come back without a message: 2051 (untranslatable
 * path), 2060 (a lock held by another process), 2061 (unlocking an object
 * this process has not locked), 2070 (an idle transfer on a record without
 * the idle flag). Every other failure is recorded once (type 71). */

/* Open-mode flags. The access bits are or-ed as they come; 0x01 with 0x10
 * is refused (EINVAL recorded: 2070). */
enum {
    QOR_OPEN_READ = 0x01,         /* read only (O_RDONLY) */
    QOR_OPEN_WRITE = 0x02,        /* write only (O_WRONLY) */
    QOR_OPEN_READ_WRITE = 0x04,   /* read and write (O_RDWR) */
    QOR_OPEN_TRUNCATE = 0x10,     /* with a lock request: once it is held */
    QOR_OPEN_APPEND = 0x20,       /* O_APPEND */
    QOR_OPEN_CREATE = 0x40,       /* O_CREAT */
    QOR_OPEN_CREATE_EXCLUSIVE = 0x80 /* O_CREAT and O_EXCL */
};

/* Lock requests, and the lock modes a record keeps (0, 1 or 3). */
enum {
    QOR_LOCK_NONE = 0,
    QOR_LOCK_SHARED = 1,           /* read lock, without waiting */
    QOR_LOCK_SHARED_WAIT = 2,      /* read lock, waiting for it */
    QOR_LOCK_EXCLUSIVE = 3,        /* write lock, without waiting */
    QOR_LOCK_EXCLUSIVE_WAIT = 4    /* write lock, waiting for it */
};

/* Idle-block transfers that stopped on a call moving 0 bytes. */
enum {
    QOR_E_IDLE_READ_INCOMPLETE = 2401,
    QOR_E_IDLE_WRITE_INCOMPLETE = 2402
};

/* An open-contents record: the handle of one open host file, taken from
 * the library's own pool by the openers and given back by
 * QOR_close_contents, whatever that returns. */
typedef struct QOR_contents_record {
    char *path;         /* OS path of the open file, owned */
    uint32_t flags;     /* open-mode flags as given */
    uint32_t lock_mode; /* 0 none, 1 shared, 3 exclusive */
    uint32_t idle;      /* 1: idle-block transfers accepted */
    int32_t fd;         /* host descriptor, close-on-exec */
    FILE *stream;       /* made by QOR_get_file_ptr, or null */
} QOR_contents_record;

/* Opens the file at a qor path (translated as a directory path when
 * is_directory is non-zero); idle becomes the record's idle flag. With a
 * lock request and 0x10 the file is truncated only once the lock is held,
 * by opening it again: the descriptor number then changes. */
QOR_API int QOR_open_file(const char *path, int is_directory, int idle,
                          unsigned int flags, unsigned int lock_request,
                          QOR_contents_record **result);
/* Opens the contents of an object: type 0 the file itself, types 3 and 4
 * the ".body" (idle flag 1 for type 4). With 0x40 or 0x80 a missing cdir
 * or idle object is made first as a directory with its ".lock"; 0x80 on an
 * existing object records EEXIST (2053). Types 1, 2 and above 4 have no
 * contents: EISDIR recorded (2057). */
QOR_API int QOR_open_contents(const char *path, unsigned int type,
                              unsigned int flags, unsigned int lock_request,
                              QOR_contents_record **result);
/* Opens the ".index" of an idle object, idle flag 1. */
QOR_API int QOR_open_idle_index(const char *path, unsigned int flags,
                                unsigned int lock_request,
                                QOR_contents_record **result);

/* Places (or converts in place) the record lock; request 0 changes
 * nothing. A shared request on a write-only record or an exclusive one on a
 * read-only record records EBADF (2059). */
QOR_API int QOR_lock_contents(QOR_contents_record *rec,
                              unsigned int lock_request);
/* Drops the lock; 0 at once when none is held. */
QOR_API int QOR_unlock_contents(QOR_contents_record *rec);
/* Both always return 0. */
QOR_API int QOR_contents_lock_mode(QOR_contents_record *rec,
                                   unsigned int *mode);
/* The record's host descriptor; it stays the record's: close the record,
 * never the descriptor. */
QOR_API int QOR_get_fd(QOR_contents_record *rec, int *fd);
/* A stream over the descriptor, made on the first call and kept. */
QOR_API int QOR_get_file_ptr(QOR_contents_record *rec, FILE **stream);
/* Bytes of the open file now (fstat). */
QOR_API int QOR_read_open_contents_size(QOR_contents_record *rec,
                                        uint64_t *size);
/* Flushes the stream, or syncs the descriptor of a writable record. */
QOR_API int QOR_flush_contents(QOR_contents_record *rec);
/* Empties the file keeping the descriptor number, and locks it again. */
QOR_API int QOR_truncate_contents(QOR_contents_record *rec);
/* Closes the file and gives the record back, whatever the status. */
QOR_API int QOR_close_contents(QOR_contents_record *rec);

/* Transfers length bytes at offset, whole: a short transfer outputs
 * message 403 (404 writing), type 67, and goes on; a call that moves 0
 * bytes stops with 2401 (2402) and, like a failure after part of the block
 * moved, outputs message 401 (402). Records without the idle flag: 2070
 * with no message. */
QOR_API int QOR_read_idle_block(QOR_contents_record *rec, int64_t offset,
                                void *buffer, int length);
/* The writing twin of QOR_read_idle_block (messages 404 and 402, status
 * 2402). */
QOR_API int QOR_write_idle_block(QOR_contents_record *rec, int64_t offset,
                                 const void *buffer, int length);

/* Makes the stream read and write the open contents; the record then stands
 * for the stream's former file (unlocked, no idle flag, no stream) and
 * closing it closes that file. A locked record records EBADF (2059). */
QOR_API int QOR_redirect_stream(QOR_contents_record *rec, FILE *stream);
/* Points the record's path at the ".body" of the object's new qor path,
 * after the object was moved with its body open. */
QOR_API int QOR_update_file_path(QOR_contents_record **handle,
                                 const char *object_path);

/* When non-zero (the default, 1), copying holds a shared lock on every
 * source file and an exclusive one on every target file while it copies,
 * and fails with 2060 against a conflicting holder; 0 locks nothing. */
QOR_API extern int32_t QOR_lock_on_copy;

/* Copies an object member by member; 2054 when the target existed and was
 * replaced (for type 2: 2053 when the target's ".lock" existed). A failure
 * removes what this call made and keeps what existed. Links inside
 * directories are not copied. */
QOR_API int QOR_copy_object(const char *source, unsigned int type,
                            const char *target);
/* Renames the object; an existing removable target of type 1 to 4 is
 * deleted first and 2054 returned. A target that may not be removed
 * records EACCES and gives 0 without moving anything. */
QOR_API int QOR_move_object(const char *source, unsigned int type,
                            const char *target);
/* Removes the member files and the directory (or the file). The checked
 * form first makes sure the object directory holds only its own members
 * ("dbi.lock" tolerated but never removed) and removes nothing otherwise;
 * a failure leaves the remaining members in place. */
QOR_API int QOR_delete_object(const char *path, unsigned int type);
/* As QOR_delete_object without the check of the directory's entries. */
QOR_API int QOR_unchecked_delete_object(const char *path, unsigned int type);


/* Object locks: record locks on the ".lock" member of a composite object,
 * held until QOR_unlock_object. Locking an object already locked by this
 * process converts its lock in place. Types 0 and 1 record ENOTDIR
 * (2057). */
QOR_API int QOR_lock_object(const char *path, unsigned int type,
                            unsigned int lock_request);
/* 2061 with no message when this process holds no lock on it. */
QOR_API int QOR_unlock_object(const char *path, unsigned int type);
/* *mode = 0, 1 or 3 as this process holds it; always returns 0. */
QOR_API int QOR_object_lock_mode(const char *path, unsigned int type,
                                 unsigned int *mode);

#ifdef __cplusplus
}
#endif

#endif /* QOR_OBJECTS_H */
