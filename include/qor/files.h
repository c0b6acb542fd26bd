/* libqor files. */
#ifndef QOR_FILES_H
#define QOR_FILES_H

#include "qor/foundation.h"
#include "qor/memory.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* QOR_FILES_H */
