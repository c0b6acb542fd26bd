// Recognising and clearing away a half-made object. Not installed.
//
// Creating and copying make an object's members one after the other in a
// fixed order (directory, ".lock", ".body", ".index"), so a process killed
// in between leaves a directory that reads as a finished object of a
// smaller type (a create of a cdir that left only ".lock" reads as a
// lockable directory) or, after a copy, a ".body" cut short. Nothing on
// disk tells such debris from a finished object, so the check is told what
// the object should be (its type and, for a copy, the object it was copied
// from) and reports every way the directory disagrees:
//  - missing:    a member the type has is not there;
//  - wrong_kind: a link, FIFO, socket, device or directory stands at a
//                member's name (also: a directory object that is no
//                directory);
//  - extra:      a member the type does not have (".index" in a cdir);
//  - differs:    a member's size differs from the reference object's;
//  - stale_lock: ".lock" is all that is left of an object of type 3 or 4,
//                the mark of a create killed after its first member.
// Each finding says whether a live process holds a record lock on the
// member (read from /proc/locks, which also shows this process's own
// locks, so a check never opens, and by closing drops, a lock it holds).
//
// Repair removes debris that nobody holds: entries of the wrong kind and
// extra members one by one (unlink never follows a link), and an object
// that is missing members or differs from its reference as a whole (its
// members, then its directory when nothing else stands in it). Members are
// never opened, written or followed.
#pragma once

#include <stdint.h>

namespace qor::objects {

enum class Problem : uint8_t { missing, wrong_kind, extra, differs, stale_lock };

struct Finding {
    Problem problem;
    const char *member;  // ".lock", ".body", ".index", or "" for the object
    bool held;           // a live process holds a record lock on it
};

inline constexpr int kMaxFindings = 8;

struct Inspection {
    unsigned int expected;  // the type the object should have
    int count;              // findings[0 .. count)
    Finding findings[kMaxFindings];
    bool other_entries;     // names besides ".lock", ".body" and ".index"
                            // ("dbi.lock" too) stand in the directory
};

// Inspects the object at a qor path that should be of type `expected`
// (0 to 4), against the object at `reference` (a qor path, may be null)
// when it is a copy of one. 0 with *out filled (count 0: nothing wrong);
// 2051 for an untranslatable path, 2052 when the object is missing (no
// message), or the recorded status of a failing stat (context 2128).
int inspect_object(const char *path, unsigned int expected,
                   const char *reference, Inspection *out);

// Removes the debris an inspection of the same path found, leaving what a
// live process holds. 0 when everything found is gone or needed no
// removal; otherwise the recorded status of the first failing removal
// (context 2103 or 2104). *left counts the findings left in place (held,
// or not removable: a short member of an object that holds other entries).
int repair_object(const char *path, const Inspection &found, int *left);

}  // namespace qor::objects
