// What the library's own units ask of a static allocator beyond its
// interface. Not installed.
#pragma once

#include "qor/memory.h"

namespace qor {

// Whether `p` points into one of the allocator's blocks: found as a
// release finds its record, through the allocator's recent block and its
// index of blocks, so the answer costs the same however many blocks there
// are. Nothing is reported when it does not.
bool sa_holds(const QOR_SA_allocator *sa, const void *p);

}  // namespace qor
