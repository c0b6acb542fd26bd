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
 */
#ifndef QOR_OBJECTS_H
#define QOR_OBJECTS_H

#include <dirent.h>

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
QOR_API char *QOR_index_path(const char *path);
QOR_API char *QOR_body_path(const char *path);
QOR_API char *QOR_SH_lock_path(const char *path);
QOR_API char *QOR_SH_index_path(const char *path);
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
    int16_t user;
    int16_t group;
} QOR_ownership;

/* The names of an ownership's ids. */
typedef struct QOR_ownership_names {
    char *user;
    char *group;
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
QOR_API int QOR_ref_set_ownership(const char *path, int32_t is_dir,
                                  const QOR_ownership *ownership);
QOR_API int QOR_set_ownership(const char *path, int32_t is_dir,
                              QOR_ownership ownership);
QOR_API int QOR_read_ownership(const char *path, int32_t is_dir,
                               QOR_ownership *ownership);
/* Names of the ids; 2070 without a message for an unknown id. The first two
 * return copies from basic space (free both with QOR_free), the _SH_ ones
 * copies in the shared freestore. */
QOR_API int QOR_ref_read_ownership_name(const QOR_ownership *ownership,
                                        QOR_ownership_names *names);
QOR_API int QOR_read_ownership_name(QOR_ownership ownership,
                                    QOR_ownership_names *names);
QOR_API int QOR_SH_ref_read_ownership_name(const QOR_ownership *ownership,
                                           QOR_ownership_names *names);
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

#ifdef __cplusplus
}
#endif

#endif /* QOR_OBJECTS_H */
