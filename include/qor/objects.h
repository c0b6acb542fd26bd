/* libqor objects. */
#ifndef QOR_OBJECTS_H
#define QOR_OBJECTS_H

#include "qor/foundation.h"
#include "qor/memory.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* QOR_OBJECTS_H */
