#include <qor/catalog.h>
extern "C" {
QOR_API int QOR_catalog_install(const char *) { return QOR_MSG_UNAVAILABLE; }
QOR_API void QOR_catalog_uninstall(void) {}
}
