// Creating objects, member file by member file in a fixed order, undoing
// what was made when a later member fails.

#include <errno.h>

#include "foundation/internal.h"
#include "objects/object_paths.h"
#include "objects/steps.h"
#include "qor/objects.h"

namespace {

using namespace qor::objects;

// The member files of the composite types, in the order they are made; a
// type-n object has the first n - 1 of them.
using MemberPath = char *(*)(const char *);
constexpr MemberPath kMembers[] = {QOR_SH_lock_path, QOR_SH_body_path,
                                   QOR_SH_index_path};

int create(const char *path, unsigned int type) {
    if (type > QOR_IDLE_OBJECT) {
        const char *os = QOR_SH_qor_to_os(path, 0);
        if (os == nullptr) return QOR_E_UNTRANSLATABLE;
        return QOR_record_os_error(EINVAL, os, QOR_CTX_CREATE_FILE);
    }
    if (type == QOR_PLAIN_FILE) return make_empty_file(path);

    int status = make_directory(path);
    if (status != 0) return status;

    const unsigned int members = type - 1;
    for (unsigned int m = 0; m < members; ++m) {
        status = make_empty_file(kMembers[m](path));
        if (status != 0) {
            // Undo in reverse order, whichever member failed: ".body" and
            // ".lock", each quietly when missing, then the directory.
            // ".index" is never a member made before a failure, so it is
            // not removed: a failing ".index" leaves nothing to undo there,
            // and trying would record a second error for a file that was
            // never made. Other failures of the undo are recorded as they
            // happen, and the caller learns of the failure that started it.
            remove_file(QOR_SH_body_path(path), true);
            remove_file(QOR_SH_lock_path(path), true);
            remove_directory(path);
            return status;
        }
    }
    return 0;
}

}  // namespace

extern "C" {

int QOR_create_object(const char *path, unsigned int type, ...) {
    QOR_FS_mark mark;
    QOR_FS_save(shared(), &mark);
    const int status = create(path, type);
    QOR_FS_restore(shared(), &mark);
    return status;
}

}  // extern "C"
