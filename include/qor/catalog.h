/* libqor_msg: a standalone message system for libqor over an X/Open message
 * catalogue (gencat/catopen/catgets).
 *
 * libqor holds no message texts: it hands every message to the callbacks
 * "QOR_OUTPUT_MESSAGE" and "QOR_GIVE_MESSAGE_TEXT". This library answers
 * both from the catalogue qor.cat, whose set 1 holds the texts of message
 * set "qor", and prints one readable line per message on standard error.
 *
 * Texts. "$0" to "$6" in a catalogue text stand for the message parameters
 * (the list ends at its first null pointer or after seven entries). A
 * missing parameter reads as empty; when the text ends in such a
 * placeholder, the blanks and the one ':' ';' or ',' before it are dropped
 * too, so "internal error: $0" reads "internal error" without a parameter.
 * "$$" gives one "$"; any other "$" stays as it is. Parameter values are
 * inserted as they are, never expanded again.
 *
 * Give-text callback: writes the text, cut to fit the buffer (never in the
 * middle of a UTF-8 sequence) and always terminated, and answers 0. A number
 * the catalogue does not hold, or a set other than "qor", gives an empty
 * text and the answer 2052 (missing).
 *
 * Output callback: prints one line on standard error and answers 0:
 *
 *   qor: <kind>: <text>
 *   qor: error <status>: <text>[ (<$2>[, <$3>])]
 *
 * kind by message type: 4 "fatal", 7 "note", 67 "warning", 71 "error"
 * followed by the status (number + 2000), anything else "message". A
 * recorded error whose OS text $2 is not empty ends with "($2, $3)", e.g.
 *
 *   qor: error 2052: cannot open a file or contents "/x/y": it does not
 *   exist (No such file or directory, OS error 2)
 *
 * (one line). With number -1 the set is the complete text, as the fatal
 * error operations pass it: "qor: fatal: File basic_space, Line 40: ...".
 * A number the catalogue does not hold prints
 *   message <number> of set "<set>"[: $0=<p0>, $1=<p1>, ...]
 * as its text.
 *
 * Where the catalogue comes from (QOR_catalog_install with a null path):
 * - the environment variable QOR_CATALOG, when set and not empty: the path
 *   of a catalogue file, and then the only place looked at;
 * - else catopen("qor", NL_CAT_LOCALE), so NLSPATH is honoured (for example
 *   NLSPATH=/opt/qor/%N.cat);
 * - else the installed catalogue, found relative to where libqor_msg itself
 *   was loaded from (<libdir>/../share/qor/qor.cat in a usual install), so
 *   an install to any prefix, or one moved elsewhere, finds its messages.
 *
 * Not thread-safe: the installed catalogue and the callback registry are
 * process-wide. Install once, early, from the main thread.
 */
#ifndef QOR_CATALOG_H
#define QOR_CATALOG_H

#include "qor/foundation.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Opens a catalogue and registers the output and give-text callbacks.
 * path null: the file QOR_CATALOG names, else the catalogue "qor" found
 * through NLSPATH, else the installed one (see above). path not null: that file (a name without "/" is taken relative to
 * the current directory, never looked up through NLSPATH). Returns 0, or
 * 10009 when no catalogue could be opened; then nothing changes, and an
 * earlier installed catalogue stays in use. Installing again replaces the
 * catalogue. */
QOR_API int QOR_catalog_install(const char *path);

/* Unregisters the callbacks that QOR_catalog_install registered (callbacks
 * registered since by someone else are left alone) and closes the
 * catalogue. Harmless when nothing is installed. */
QOR_API void QOR_catalog_uninstall(void);

/* Writes into buffer (size bytes, always terminated when size > 0) the line
 * that the output callback would print for this message, without the line
 * end. Works with or without an installed catalogue (without one, numbered
 * messages get the generic text). Returns the length of the whole line,
 * which is size or more when it was cut. */
QOR_API int QOR_catalog_format_message(const char *set, int number, int type,
                                       char **parameters, char *buffer,
                                       int size);

#ifdef __cplusplus
}
#endif

#endif /* QOR_CATALOG_H */
