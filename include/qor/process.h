/* libqor process. */
#ifndef QOR_PROCESS_H
#define QOR_PROCESS_H

#include "qor/foundation.h"
#include "qor/memory.h"

#ifdef __cplusplus
extern "C" {
#endif

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
