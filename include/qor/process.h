/* libqor process services: the identity of the running process, running
 * programs of the object store and shell commands, option parsing, font
 * aliases and printing. */
#ifndef QOR_PROCESS_H
#define QOR_PROCESS_H

#include <sys/types.h>

#include "qor/foundation.h"
#include "qor/memory.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Process identity ----------------------------------------------------
 * None of these texts belongs to the caller: do not free or change them. */

/* The process id in decimal, in one buffer that every call overwrites. */
QOR_API const char *QOR_process_identity(void);
/* The host's node name (uname), read at the first call that succeeds and
 * kept; null while uname fails. */
QOR_API const char *QOR_host_name(void);
/* The login name (getlogin), else the user name of the real user id
 * (getpwuid; the text belongs to the C library and lasts until its next
 * user lookup). When neither is known, 2072 is recorded with the user id
 * in decimal (context 2129) and null returned. */
QOR_API const char *QOR_process_owner_name(void);

/* ---- Running programs ------------------------------------------------------
 * A program is an object of the object store: a directory whose ".body" is
 * the executable, or which holds an interpreter object ".interp" whose
 * ".body" is run instead. It is found with QOR_locate as a directory (type
 * 1), on QOR_PATH and then on the tool search list "# _/tools". The child
 * gets QOR_HASH set to the program's own host directory, so that it finds
 * its companion files through the "#" anchor, and runs its body with the
 * caller's argument vector, whose element 0 (a placeholder) it replaces
 * with the body's host path; the caller's vector is left as it is. A null
 * vector runs the body with no arguments.
 *
 * Only the caller's own descriptors reach the program: the library opens
 * every descriptor close-on-exec. Standard streams are flushed before the
 * child is made, so buffered output is neither lost nor written twice.
 *
 * Statuses: 2052 without a message when the program is not found; 2051
 * when its path does not translate; ENOENT recorded (2052, context 2121)
 * when it has no body; a failing fork recorded with context 2121. A child
 * that cannot run the body records why and ends with exit status 255. A
 * fatal error inside the child ends the child (exit status 3); it never
 * jumps back into the caller's handler from there. */

/* Starts the program and stores the child's process id (pid may be
 * null); does not wait. */
QOR_API int QOR_start(const char *program, char **argv, pid_t *pid);

/* Starts the program and waits for it: 0 with its exit status in
 * *exit_code, or 2066 with the number of the signal that ended it. An exit
 * status of 255 means the program could not be run: ENOENT is recorded
 * against the program (context 2121), 2052 returned and *exit_code left
 * alone. The wait takes any child of the process: statuses of other
 * children that end first are dropped, and with no child left to wait for
 * (ECHILD) the answer is 0 with *exit_code unwritten. exit_code may be
 * null. */
QOR_API int QOR_call(const char *program, char **argv, int32_t *exit_code);

/* Runs the command with the shell (system) and waits: 0 with the shell's
 * exit status in *exit_code (127 when the shell could not find the
 * command). When the shell ends through a signal, 2066 is returned and
 * *exit_code keeps only its own low seven bits: unlike QOR_call, the signal
 * number is not stored. A raw result of 127 outputs message 71 (type 7,
 * the command as $0) and gives 2071. A failing system() is recorded
 * against the command with context 2131; so is a null command (EINVAL,
 * 2070). exit_code may be null. */
QOR_API int QOR_execute(const char *command, int32_t *exit_code);

/* ---- Option parsing ------------------------------------------------------
 * A silent parser of single-letter options, the same on every host: in the
 * option string a letter followed by ':' takes an argument, either the rest
 * of its own argument ("-ofile") or the next one ("-o file"). Parsing stops
 * at the first argument that is not an option, at "-" alone (not skipped)
 * and at "--" (skipped). Nothing is ever printed: an unknown option, ':'
 * (never an option letter) and a missing argument all give '?' (63); a
 * missing argument leaves QOR_optarg as it was. One parse at a time: to
 * parse again, finish the previous pass and set QOR_optind back to 1. */

/* Index of the next argument to look at; 1 to start with. */
QOR_API extern int32_t QOR_optind;
/* The argument of the option just returned, or null; null to start with. */
QOR_API extern char *QOR_optarg;

/* The next option letter, '?' for a bad option, -1 when options are over. */
QOR_API int QOR_getopt(int argc, char *const argv[], const char *optstring);

/* ---- Font aliases ----------------------------------------------------------
 * The alias file "fonts.alias" is found with QOR_locate as a plain file, on
 * QOR_PATH and then in "_/etc", and read once per process into a table that
 * is never freed. Until one reading gets to the end of the file (no file,
 * not readable, a read error), every lookup looks for it again.
 *
 * Each line holds two fields, the alias and then the font name, separated
 * by spaces or tabs. A field is bare (up to the next blank or the line's
 * end) or in double quotes (the closing quote must be followed by a blank
 * or the line's end); in both a backslash is dropped and keeps the next
 * character, so "\ " is a space inside a bare field and "\"" a quote inside
 * a quoted one. A line with fewer or more fields, an empty field or a bad
 * quote is ignored: there is no comment syntax, a comment line is dropped
 * only because it breaks these rules. The file is read in pieces of at most
 * 511 characters, each taken as a line, and a field keeps its first 255
 * characters. The first line of an alias wins.
 *
 * The table is a process-wide cache without a lock: one thread at a time. */

/* The font name of the alias, or a copy of name itself when there is no such
 * alias or no usable alias file (a null name gives ""). Never fails and
 * prints nothing of its own: a missing or unreadable file is passed over
 * silently (only an open that fails after those checks is recorded, by
 * QOR_open_contents). The text belongs to the caller: free it with
 * QOR_free. */
QOR_API char *QOR_look_up_font(const char *name);

/* ---- Printing ------------------------------------------------------------
 * QOR_print sends the plain file at the qor path to the host's print spooler
 * by running, through the shell (QOR_execute),
 *     lp -s -c -d<printer> -n<copies> <OS path>
 * (silent; the file copied at once, so the caller may change or remove it
 * straight after; destination; number of copies).
 *
 * Shell hazard: nothing is quoted. A printer name or path holding a space,
 * ";", "|", "$", a quote or any other shell syntax reaches the shell as it
 * stands: "laser; rm x" runs a second command. Check names and paths that
 * come from users before handing them over.
 *
 * Statuses: 2051, and nothing run, when the path does not translate; 2068
 * when QOR_execute fails (a failing system() recorded with context 2131, or
 * message 71 when the shell could not run at all). The spooler's own exit
 * status is not examined: an lp that runs and fails, or a shell that cannot
 * find lp (exit status 127), still gives 0. A null printer is an assertion
 * failure. */
QOR_API int QOR_print(const char *path, const char *printer, int copies);

#ifdef __cplusplus
}
#endif

#endif /* QOR_PROCESS_H */
