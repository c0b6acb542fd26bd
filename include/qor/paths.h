/* libqor path namespace: qor paths and their translation to and from host
 * (OS) paths, environment variables, the current and temporary directories
 * and temporary object names.
 *
 * A qor path is absolute once resolved. It may start at the host root ("/")
 * or at an anchor:
 *   "_"          the value of QOR_ROOT
 *   "#"          the value of QOR_HASH
 *   "~"          the value of HOME
 *   ".0"         the current directory
 *   "$(NAME)"    the value of the environment variable NAME
 *   "@host/path" the rest of the text is a host path
 * An anchor anywhere in a path restarts it, and so does an empty component:
 * "/a/_/b" is "_/b", "/a//b" is "/b" and "/a/" is "/". Each anchor variable
 * is read once, at its first use, and keeps that value for the life of the
 * process.
 *
 * Ownership: a function whose name contains _SH_ returns its result in the
 * shared freestore QOR_SH_fs_allocator; it stays valid until the caller
 * restores that freestore to a mark taken before the call. Its twin without
 * _SH_ returns a copy in basic space that the caller frees with QOR_free.
 * A conversion leaves the shared freestore as it found it, apart from an
 * _SH_ result.
 *
 * Failures: every conversion answers null on failure (null or empty input,
 * a relative qor path, ".." above a root, a bare drive such as "C:", an unset
 * anchor variable, a current directory that cannot be read, a path or result
 * longer than QOR_PATH_MAX characters) and records and prints nothing.
 *
 * The render mode argument is an object type code (or 0 or 1) and changes
 * nothing on this host; QOR_qor_to_os_dir and QOR_qor_to_os give the same
 * text, the first is meant for directories and the second for files.
 *
 * None of this is thread-safe: the anchor cache and the shared freestore are
 * process-wide.
 */
#ifndef QOR_PATHS_H
#define QOR_PATHS_H

#include "qor/foundation.h"
#include "qor/memory.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Longest path text, input or result, that the translations handle; longer
 * ones fail. */
#define QOR_PATH_MAX 4096

/* Result forms of QOR_concat_os_paths and QOR_locate. */
enum {
    QOR_FORM_OS = 0,  /* the result is an OS path */
    QOR_FORM_QOR = 1  /* the result is a qor path */
};

/* ---- Path syntax and translation --------------------------------------- */

/* 1 when text has the outward form of a qor path ("/...", "_", "_/...",
 * "#", "~", ".0", ".0/...", "$(...", "@..."), else 0. The closing ")" of a
 * "$(" is not checked. */
QOR_API int QOR_is_qor_path(const char *text);

/* Compares two OS names byte by byte, as strcmp. */
QOR_API int QOR_compare_os_names(const char *a, const char *b);

/* OS path (relative ones taken against the current directory) to a
 * normalised absolute qor path. */
QOR_API char *QOR_os_to_qor(const char *os_path);
/* As QOR_os_to_qor, the result in the shared freestore. */
QOR_API char *QOR_SH_os_to_qor(const char *os_path);

/* The text of a symbolic link as a qor link name: split at "/" and joined
 * again, neither normalised nor resolved (a relative link stays relative).
 * An empty text gives an empty string. */
QOR_API char *QOR_os_to_qor_linkname(const char *os_path);
/* As QOR_os_to_qor_linkname, the result in the shared freestore. */
QOR_API char *QOR_SH_os_to_qor_linkname(const char *os_path);

/* base (resolved against the current directory) with tail appended, then
 * normalised; the tail is always relative, even when it starts with "/".
 * form is QOR_FORM_OS or QOR_FORM_QOR; any other form fails. */
QOR_API char *QOR_concat_os_paths(const char *base, const char *tail,
                                  unsigned int render_mode,
                                  unsigned int form);
/* As QOR_concat_os_paths, the result in the shared freestore. */
QOR_API char *QOR_SH_concat_os_paths(const char *base, const char *tail,
                                     unsigned int render_mode,
                                     unsigned int form);

/* qor path to a normalised absolute qor path, every anchor and embedded host
 * path expanded. */
QOR_API char *QOR_qor_to_absolute_qor(const char *qor_path);
/* As QOR_qor_to_absolute_qor, the result in the shared freestore. */
QOR_API char *QOR_SH_qor_to_absolute_qor(const char *qor_path);

/* qor path of a directory to an absolute OS path. */
QOR_API char *QOR_qor_to_os_dir(const char *qor_path);
/* As QOR_qor_to_os_dir, the result in the shared freestore. */
QOR_API char *QOR_SH_qor_to_os_dir(const char *qor_path);

/* qor path to an absolute OS path. An embedded host path ("@...") is copied
 * as it is written. */
QOR_API char *QOR_qor_to_os(const char *qor_path, unsigned int render_mode);
/* As QOR_qor_to_os, the result in the shared freestore. */
QOR_API char *QOR_SH_qor_to_os(const char *qor_path,
                               unsigned int render_mode);

/* The absolute qor path of a directory, "/", then the entry name: "/" and
 * "x" give "//x". */
QOR_API char *QOR_composite_path(const char *dir_path, const char *name);
/* As QOR_composite_path, the result in the shared freestore. */
QOR_API char *QOR_SH_composite_path(const char *dir_path, const char *name);

/* ---- Environment, current directory, temporary names ------------------- */

/* The value of a variable, or null when name is null or it is unset. */
QOR_API char *QOR_getenv(const char *name);
/* As QOR_getenv, the result in the shared freestore. */
QOR_API char *QOR_SH_getenv(const char *name);

/* Sets name=value in the environment; 0 on success. A null argument records
 * EINVAL with context 2130 and returns its status (2070); a failing putenv
 * is fatal (2011). Anchor variables already used keep their first value. */
QOR_API int QOR_putenv(const char *name, const char *value);

/* qor path of the current directory: what ".0" translates to. */
QOR_API char *QOR_current_directory(void);
/* As QOR_current_directory, the result in the shared freestore. */
QOR_API char *QOR_SH_current_directory(void);

/* qor path of the temporary directory: QOR_TMP (relative values taken
 * against the current directory), else "/tmp". */
QOR_API char *QOR_temporary_directory(void);
/* As QOR_temporary_directory, the result in the shared freestore. */
QOR_API char *QOR_SH_temporary_directory(void);

/* qor path of a temporary file (is_directory 0) or directory that does not
 * exist at the time of the call: prefix (may be null), a letter, the five
 * lowest decimal digits of the process id, ".", suffix (may be null), in the
 * temporary directory. Null when no such name is free (26 letters tried) or
 * a translation fails. Nothing is created.
 *
 * Hazard: the name is predictable (any local user can compute the 26
 * candidates from the process id) and "free" only means that nothing,
 * not even a dangling symbolic link's target, was found at it when it was
 * tested. Another user can plant a link at the name between this call and
 * the caller's create, so whoever then creates the name without O_EXCL
 * creates the link's target instead. In a directory others may write to
 * (such as /tmp), use QOR_create_temporary_object. */
QOR_API char *QOR_temporary_object_name(const char *prefix, int is_directory,
                                        const char *suffix);
/* As QOR_temporary_object_name, the result in the shared freestore. */
QOR_API char *QOR_SH_temporary_object_name(const char *prefix,
                                           int is_directory,
                                           const char *suffix);

/* Creates a new temporary file (is_directory 0) or directory in the
 * temporary directory, atomically and under an unpredictable name: prefix
 * (may be null), 13 characters drawn from getrandom ("a" to "z", "2" to
 * "7": 65 random bits), ".", suffix (may be null). A file is created with
 * O_CREAT, O_EXCL and O_NOFOLLOW and permission bits 0600, a directory with
 * mkdir and bits 0700, so nothing planted at the name is ever written
 * through; a name that exists is drawn again (up to 100 names).
 *
 * On success returns 0 and sets *path to the object's qor path (basic
 * space, freed with QOR_free) and *fd to an open descriptor of it: the
 * file opened for reading and writing, or the directory opened read-only,
 * both close-on-exec; the caller closes it. On failure returns the status,
 * with the host error recorded (context 2101 for a file, 2102 for a
 * directory; a full disc asks the disc-full handler first), and sets *path
 * to null and *fd to -1. 2051 without a message when the temporary
 * directory does not translate or path or fd is null; 2070 without a
 * message when the prefix or suffix holds a "/" or would make the name
 * anything but one new entry of the temporary directory (a prefix starting
 * with "@", which the path grammar reads as a host path). */
QOR_API int QOR_create_temporary_object(const char *prefix, int is_directory,
                                        const char *suffix, char **path,
                                        int *fd);

/* ---- Locating files on the search path ---------------------------------
 * QOR_locate finds an existing file (type 0) or directory (type 1; any type
 * code of the object store is accepted) by name. It probes, in this order,
 * stopping at the first probe that exists:
 *   1. the name itself, when it has the outward form of a qor path;
 *   2. the directories of QOR_PATH (a list of host paths, read at every
 *      call; relative ones are taken against the current directory):
 *      when the name has a type and QOR_PATH_DEFAULTS lists subdirectories
 *      for it, DIR/SUB/NAME for every such entry, directory and
 *      subdirectory in order (an empty subdirectory element probes
 *      DIR/NAME), and never DIR/NAME otherwise; else DIR/NAME;
 *   3. the directories of the extra list (qor paths), as DIR/NAME.
 * A list text holds elements separated by commas, white space or both;
 * two commas that meet, or a comma at either end, make an empty element.
 *
 * The type of a name is the text after the last "." of its first
 * component when the name holds a "/" ("x.dat/y" has the type "dat",
 * "x/y.dat" has none), else after the last "." of the name.
 *
 * QOR_PATH_DEFAULTS lists subdirectories by type, read once per process:
 *   "dat=(data, tables);hlp=(help)"
 * Entries are separated by ";"; each is a type name (up to the first
 * blank or "="), "=", anything, "(", a list text, and the last ")" of the
 * entry. A malformed table (an entry without "=", "(" or ")", an empty
 * list, a trailing ";") is dropped whole, silently.
 *
 * Probes longer than QOR_PATH_MAX characters fail without touching the
 * file system. The result is the probe that exists, as an OS path (form
 * QOR_FORM_OS, the object type handed on as render mode) or an absolute
 * qor path (QOR_FORM_QOR); null when nothing is found, when the name is
 * null or when the result does not translate. Another form is the fatal
 * error of message 1 (status 2001), raised once something was found.
 *
 * Trace: QOR_LOCATE_TRACE_LEVEL, read once per process, sets the base
 * level: 0 silent, 1 every probe that exists, 2 every probe. Each traced
 * probe is one line on standard error: the probed path, a blank, and the
 * text of message 206 (found) or 205 (not found) of set "qor", fetched at
 * the first trace; "-- succeeded" and "-- failed" when the message system
 * cannot give them.
 *
 * Not thread-safe: the table, the trace levels and the shared freestore
 * are process-wide. */

QOR_API char *QOR_locate(const char *name, unsigned int type,
                         const char *extra, int form);
/* As QOR_locate, the result in the shared freestore. */
QOR_API char *QOR_SH_locate(const char *name, unsigned int type,
                            const char *extra, int form);

/* The current trace level. */
QOR_API int QOR_get_locate_trace_level(void);
/* Sets the current trace level, but only to a value above the base level
 * and at most 2: once raised, the level never returns to the base (with a
 * base of 1, setting 0 or 1 changes nothing). */
QOR_API void QOR_set_locate_trace_level(int level);

#ifdef __cplusplus
}
#endif

#endif /* QOR_PATHS_H */
