// Object locks: record locks on the ".lock" member of composite objects,
// each held through an open-contents record that stays open as long as
// the lock lives, and remembered in a process-wide table keyed by the
// object's absolute qor path.
//
// POSIX record locks belong to the process, so one entry per object is all
// there can be: locking an object again converts the entry's lock in place.

#include <errno.h>
#include <stddef.h>
#include <string.h>

#include "foundation/internal.h"
#include "foundation/probe_table.h"
#include "objects/contents.h"
#include "objects/object_paths.h"
#include "qor/objects.h"

namespace {

using namespace qor::objects;

struct ObjectLock {
    char *path;               // absolute qor path, owned; the key
    uint32_t writable;        // ".lock" opened for reading and writing
    QOR_contents_record *record;  // the open ".lock"
    ObjectLock *previous;
    ObjectLock *next;
};
static_assert(offsetof(ObjectLock, path) == 0);
static_assert(offsetof(ObjectLock, writable) == 8);
static_assert(offsetof(ObjectLock, record) == 16);
static_assert(offsetof(ObjectLock, previous) == 24);
static_assert(offsetof(ObjectLock, next) == 32);

// The table: entries from a pool of this unit's own, newest at the head.
constinit QOR_SA_allocator lock_pool =
    QOR_SA_INITIALISER(sizeof(ObjectLock), 32, 32, nullptr, nullptr);
constinit ObjectLock *table_head = nullptr;

// Beside the list, an index of its entries by path: a process that holds
// thousands of object locks finds each one without walking the list.
struct PathSlot {
    uint64_t hash;  // of the path
    ObjectLock *entry;
    bool empty() const { return entry == nullptr; }
    uint64_t home() const { return hash; }
};
constinit qor::Probe<PathSlot> by_path;

uint64_t path_hash(const char *path) {
    return qor::bytes_hash(path, strlen(path));
}

PathSlot *slot_of(const char *absolute, uint64_t hash) {
    if (by_path.slots == nullptr) return nullptr;
    for (uint64_t j = hash & by_path.mask;; j = (j + 1) & by_path.mask) {
        PathSlot *s = &by_path.slots[j];
        if (s->empty()) return nullptr;
        if (s->hash == hash && strcmp(s->entry->path, absolute) == 0) return s;
    }
}

// The index's slot of the entry for the path, or null.
PathSlot *find(const char *absolute) {
    return slot_of(absolute, path_hash(absolute));
}

// Whether `slot`, found earlier, is still the index's slot of `e`. The
// record lock calls made since may have output a message, and an output
// callback may have placed or dropped object locks and so moved the slots.
bool still_slot_of(const PathSlot *slot, const ObjectLock *e) {
    const auto at = reinterpret_cast<uintptr_t>(slot);
    const auto first = reinterpret_cast<uintptr_t>(by_path.slots);
    return by_path.slots != nullptr && at >= first &&
           at <= first + by_path.mask * sizeof(PathSlot) &&
           (at - first) % sizeof(PathSlot) == 0 && slot->entry == e;
}

// Unlinks the entry, closes its ".lock" (dropping any lock) and frees it.
// `known` is the slot a search found for it before.
void remove_entry(ObjectLock *e, PathSlot *known) {
    by_path.erase(still_slot_of(known, e) ? known
                                          : slot_of(e->path, path_hash(e->path)));
    if (e->previous != nullptr) e->previous->next = e->next;
    else table_head = e->next;
    if (e->next != nullptr) e->next->previous = e->previous;
    QOR_close_contents(e->record);
    QOR_free(e->path);
    QOR_SA_release(&lock_pool, e);
}

bool exclusive(unsigned int request) {
    return request == QOR_LOCK_EXCLUSIVE || request == QOR_LOCK_EXCLUSIVE_WAIT;
}

// Plain files and directories have no ".lock": ENOTDIR recorded against
// the path (2057); types above 4 are no objects at all (EINVAL, 2070).
int not_lockable(const char *path, unsigned int type, int context) {
    const char *os = QOR_SH_qor_to_os(path, type);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    return QOR_record_os_error(type > QOR_IDLE_OBJECT ? EINVAL : ENOTDIR, os,
                               context);
}

bool lockable(unsigned int type) {
    return type >= QOR_LOCKABLE_DIRECTORY && type <= QOR_IDLE_OBJECT;
}

int lock_object(const char *path, unsigned int type, unsigned int request) {
    if (!lockable(type)) return not_lockable(path, type, QOR_CTX_LOCK_OBJECT);
    const char *absolute = QOR_SH_qor_to_absolute_qor(path);
    if (absolute == nullptr) return QOR_E_UNTRANSLATABLE;
    // The path's length and hash serve the search, the ".lock" path and
    // the new entry alike.
    const size_t n = strlen(absolute);
    const uint64_t hash = qor::bytes_hash(absolute, n);

    if (PathSlot *slot = slot_of(absolute, hash)) {
        ObjectLock *e = slot->entry;
        if (exclusive(request) && e->writable == 0) {
            const char *os = QOR_SH_qor_to_os(path, type);
            if (os == nullptr) return QOR_E_UNTRANSLATABLE;
            return QOR_record_os_error(EINVAL, os, QOR_CTX_LOCK_OBJECT);
        }
        const int status = QOR_lock_contents(e->record, request);
        if (status != 0) remove_entry(e, slot);
        return status;
    }

    // QOR_SH_lock_path(path): the absolute path, "/", the member's name.
    const char *lock_path = join_in_shared(absolute, n, kLock, sizeof kLock - 1);
    int32_t writable = 1;
    if (!exclusive(request)) {
        const int status = QOR_is_accessible(lock_path, QOR_PLAIN_FILE,
                                             QOR_ACCESS_WRITE, &writable);
        if (status != 0) return status;
    }
    QOR_contents_record *record = nullptr;
    const int status = open_member_file(
        lock_path, 0, writable ? QOR_OPEN_READ_WRITE : QOR_OPEN_READ,
        request, &record);
    if (status != 0) return status;

    auto *e = static_cast<ObjectLock *>(QOR_SA_allocate(&lock_pool));
    e->path = QOR_copy_string(absolute);
    e->writable = writable ? 1 : 0;
    e->record = record;
    e->previous = nullptr;
    e->next = table_head;
    if (table_head != nullptr) table_head->previous = e;
    table_head = e;
    by_path.reserve_one();
    PathSlot *slot = by_path.place(hash);
    slot->hash = hash;
    slot->entry = e;
    return 0;
}

int unlock_object(const char *path, unsigned int type) {
    if (!lockable(type)) return not_lockable(path, type, QOR_CTX_UNLOCK_OBJECT);
    const char *absolute = QOR_SH_qor_to_absolute_qor(path);
    if (absolute == nullptr) return QOR_E_UNTRANSLATABLE;
    PathSlot *slot = find(absolute);
    if (slot == nullptr) return QOR_E_NOT_LOCKED;
    ObjectLock *e = slot->entry;
    const int status = QOR_unlock_contents(e->record);
    remove_entry(e, slot);
    return status;
}

}  // namespace

extern "C" {

int QOR_lock_object(const char *path, unsigned int type,
                    unsigned int lock_request) {
    return bracketed([&] { return lock_object(path, type, lock_request); });
}

int QOR_unlock_object(const char *path, unsigned int type) {
    return bracketed([&] { return unlock_object(path, type); });
}

int QOR_object_lock_mode(const char *path, unsigned int, unsigned int *mode) {
    QOR_FS_mark mark;
    QOR_FS_save(shared(), &mark);
    const char *absolute = QOR_SH_qor_to_absolute_qor(path);
    const PathSlot *slot = absolute != nullptr ? find(absolute) : nullptr;
    *mode = slot != nullptr ? slot->entry->record->lock_mode : 0;
    QOR_FS_restore(shared(), &mark);
    return 0;
}

}  // extern "C"
