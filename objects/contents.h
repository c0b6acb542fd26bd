// What the units of the object store's contents, operations and object
// locks share. Not installed.
#pragma once

#include "objects/object_paths.h"
#include "qor/objects.h"

namespace qor::objects {

// Places or converts the record lock of a request on the record's
// descriptor, without the path check of QOR_lock_contents: the opener
// and the truncations lock through it. 2060 without a message when
// another process holds a conflicting lock.
int lock_record(QOR_contents_record *rec, unsigned int request);


}  // namespace qor::objects
