/* libqor process. */
#ifndef QOR_PROCESS_H
#define QOR_PROCESS_H

#include "qor/foundation.h"
#include "qor/memory.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* QOR_PROCESS_H */
