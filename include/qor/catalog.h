/* libqor_msg: a standalone message system for libqor over an X/Open message
 * catalogue (gencat/catopen/catgets). It registers the output and give-text
 * callbacks and prints one readable line per message on standard error. */
#ifndef QOR_CATALOG_H
#define QOR_CATALOG_H

#include "qor/foundation.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the catalogue and registers the callbacks. path null: the catalogue
 * "qor" found through NLSPATH, else the installed one. Returns 0, or 10009
 * when no catalogue could be opened (nothing is registered then). */
QOR_API int QOR_catalog_install(const char *path);
/* Unregisters the callbacks and closes the catalogue. */
QOR_API void QOR_catalog_uninstall(void);

#ifdef __cplusplus
}
#endif

#endif /* QOR_CATALOG_H */
