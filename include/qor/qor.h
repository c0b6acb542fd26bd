/* libqor: portability and storage services. Include this one header. */
#ifndef QOR_QOR_H
#define QOR_QOR_H

#include "qor/foundation.h"
#include "qor/memory.h"
#include "qor/containers.h"
#include "qor/paths.h"
#include "qor/objects.h"
#include "qor/files.h"
#include "qor/process.h"
/* The functions of libqor_msg (link with -lqor_msg, or pkg-config qor_msg,
 * to call them); declaring them costs a program that does not nothing. */
#include "qor/catalog.h"

#endif /* QOR_QOR_H */
