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

// Frees the record's path and gives the record back where it came from:
// the pool of open-contents records, or basic space for a handle of the
// file layer (same layout, allocated with QOR_malloc).
void release_record(QOR_contents_record *rec);

// QOR_open_file (not as a directory) for a member file of an object, named
// by its qor path: a symbolic link at the name is refused (ELOOP) instead of
// followed, like every other open of a member.
int open_member_file(const char *path, int idle, uint32_t flags,
                     unsigned int request, QOR_contents_record **result);


}  // namespace qor::objects
