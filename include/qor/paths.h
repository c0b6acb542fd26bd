/* libqor paths. */
#ifndef QOR_PATHS_H
#define QOR_PATHS_H

#include "qor/foundation.h"
#include "qor/memory.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* QOR_PATHS_H */
