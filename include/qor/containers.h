/* libqor containers. */
#ifndef QOR_CONTAINERS_H
#define QOR_CONTAINERS_H

#include "qor/foundation.h"
#include "qor/memory.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* QOR_CONTAINERS_H */
