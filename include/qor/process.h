/* libqor process services: the identity of the running process, running
 * programs of the object store and shell commands, and option parsing. */
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

#ifdef __cplusplus
}
#endif

#endif /* QOR_PROCESS_H */
