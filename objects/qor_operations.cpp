// Object operations: copying, moving and deleting whole objects member
// file by member file, in a fixed order, undoing what a copy made when a
// later step fails.

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <unistd.h>

#include "foundation/host.h"
#include "foundation/internal.h"
#include "objects/contents.h"
#include "objects/object_paths.h"
#include "objects/steps.h"
#include "qor/objects.h"

extern "C" {
constinit int32_t QOR_lock_on_copy = 1;
}

namespace {

using namespace qor::objects;
using qor::host::record_errno;

// Every file copy passes through this one buffer.
constexpr size_t kCopyBufferSize = 4096;
constinit char copy_buffer[kCopyBufferSize];

// errno 66 is how some hosts report a directory that is not empty.
constexpr int kOtherNotEmpty = 66;

// Writes n bytes of the copy buffer out whole. A short write goes on with
// the rest, an interruption is made again up to 101 calls in a row and a
// full disc asks the handler; anything else is recorded against the
// target.
int write_whole(const QOR_contents_record *target, size_t n) {
    const char *p = copy_buffer;
    int calls = 0;
    while (n > 0) {
        const ssize_t w = write(target->fd, p, n);
        if (w > 0) {
            p += w;
            n -= static_cast<size_t>(w);
            calls = 0;
            continue;
        }
        ++calls;
        if (w < 0 && errno == EINTR && calls < qor::host::kEintrCalls) {
            continue;
        }
        if (w < 0 && errno == ENOSPC &&
            QOR_call_disc_full_handler(ENOSPC, target->path,
                                       QOR_CTX_COPY_CONTENTS) == 0) {
            calls = 0;
            continue;
        }
        if (w == 0) errno = EIO;  // a write that moves nothing will not end
        return record_errno(target->path, QOR_CTX_COPY_CONTENTS);
    }
    return 0;
}

// Copies everything the source holds into the target.
int copy_data(const QOR_contents_record *source,
              const QOR_contents_record *target) {
    for (;;) {
        const ssize_t n = qor::host::retry_eintr(
            [&] { return read(source->fd, copy_buffer, kCopyBufferSize); });
        if (n == 0) return 0;
        if (n < 0) return record_errno(source->path, QOR_CTX_COPY_CONTENTS);
        const int status = write_whole(target, static_cast<size_t>(n));
        if (status != 0) return status;
    }
}

// Copies one file, the target locked exclusively and emptied only once the
// lock is held. 2054 when the target existed before. Whatever fails, a
// target that did not exist before is removed again: also when its open
// made it and then failed to lock it, and when the source fails to close
// after a complete copy, so that a failed copy never leaves a new file.
// QOR_open_file with open_member_file's signature.
int open_plain_file(const char *path, int idle, uint32_t flags,
                    unsigned int request, QOR_contents_record **result) {
    return QOR_open_file(path, 0, idle, flags, request, result);
}

// member: source and target are member files of objects, never reached
// through a link; otherwise they are plain-file objects the caller named.
int copy_file(const char *source, const char *target, int idle,
              bool member) {
    if (source == nullptr || target == nullptr) return QOR_E_UNTRANSLATABLE;
    int32_t existed = 0;
    int status = QOR_is_accessible(target, QOR_PLAIN_FILE, QOR_ACCESS_EXISTS,
                                   &existed);
    if (status != 0) return status;

    const bool lock = QOR_lock_on_copy != 0;
    QOR_contents_record *in = nullptr;
    const auto open = member ? open_member_file : open_plain_file;
    status = open(source, idle, QOR_OPEN_READ,
                           lock ? QOR_LOCK_SHARED : QOR_LOCK_NONE, &in);
    if (status != 0) return status;
    QOR_contents_record *out = nullptr;
    status = open(
        target, idle,
        existed ? QOR_OPEN_READ_WRITE | QOR_OPEN_TRUNCATE
                : QOR_OPEN_WRITE | QOR_OPEN_CREATE,
        lock ? QOR_LOCK_EXCLUSIVE : QOR_LOCK_NONE, &out);
    if (status == 0) {
        status = copy_data(in, out);
        // The target is closed first; its failure counts only when the
        // copy itself went well.
        const int closed = QOR_close_contents(out);
        if (status == 0) status = closed;
    }
    if (status != 0) {
        if (!existed) remove_file(target, true);
        QOR_close_contents(in);
        return status;
    }
    status = QOR_close_contents(in);
    if (status != 0) {
        if (!existed) remove_file(target, true);
        return status;
    }
    return existed ? QOR_E_TARGET_EXISTS : 0;
}

// Types above 4 name no object: EINVAL recorded against the path.
int bad_type(const char *path, int context) {
    const char *os = QOR_SH_qor_to_os(path, 0);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    return QOR_record_os_error(EINVAL, os, context);
}

int copy_object(const char *source, unsigned int type, const char *target) {
    if (type > QOR_IDLE_OBJECT) return bad_type(target, QOR_CTX_COPY_CONTENTS);
    if (type == QOR_PLAIN_FILE) return copy_file(source, target, 0, false);

    int status = make_directory(target);
    const bool made_directory = status == 0;
    if (status == QOR_E_EXISTS) {
        status = QOR_E_TARGET_EXISTS;
    } else if (status != 0) {
        return status;
    }
    if (type == QOR_PLAIN_DIRECTORY) return status;

    status = make_empty_file(QOR_SH_lock_path(target));
    const bool made_lock = status == 0;
    if (status != 0 && status != QOR_E_EXISTS) {
        if (made_directory) {
            // Everything in a directory this call made is its own: a make
            // whose close failed has left a ".lock" that goes too.
            remove_file(QOR_SH_lock_path(target), true);
            remove_directory(target);
        }
        return status;
    }
    if (type == QOR_LOCKABLE_DIRECTORY) return status;

    const int idle = type == QOR_IDLE_OBJECT ? 1 : 0;
    status = copy_file(QOR_SH_body_path(source), QOR_SH_body_path(target),
                       idle, true);
    const bool made_body = status == 0;
    const bool body_failed = status != 0 && status != QOR_E_TARGET_EXISTS;
    if (!body_failed && type == QOR_IDLE_OBJECT) {
        status = copy_file(QOR_SH_index_path(source),
                           QOR_SH_index_path(target), idle, true);
    }
    if (status == 0 || status == QOR_E_TARGET_EXISTS) return status;

    // Undo in reverse order what this call made; what existed stays.
    if (!body_failed && made_body) {
        remove_file(QOR_SH_body_path(target), true);
    }
    if (made_lock) remove_file(QOR_SH_lock_path(target), true);
    if (made_directory) remove_directory(target);
    return status;
}

int move_object(const char *source, unsigned int type, const char *target) {
    if (type > QOR_IDLE_OBJECT) return bad_type(target, QOR_CTX_MOVE_OBJECT);
    const char *from = type == QOR_PLAIN_FILE ? QOR_SH_qor_to_os(source, 0)
                                              : QOR_SH_qor_to_os_dir(source);
    const char *to = type == QOR_PLAIN_FILE ? QOR_SH_qor_to_os(target, 0)
                                            : QOR_SH_qor_to_os_dir(target);
    if (from == nullptr || to == nullptr) return QOR_E_UNTRANSLATABLE;

    int32_t existed = 0;
    if (type != QOR_PLAIN_FILE) {
        int status =
            QOR_is_accessible(target, type, QOR_ACCESS_EXISTS, &existed);
        if (status != 0) return status;
        if (existed) {
            int32_t removable = 0;
            status = QOR_is_accessible(target, type, QOR_ACCESS_REMOVE,
                                       &removable);
            if (status != 0) return status;
            if (!removable) {
                // The caller is told through the message alone: the move
                // is not made and the result is success.
                QOR_record_os_error(EACCES, to, QOR_CTX_MOVE_OBJECT);
                return 0;
            }
            status = QOR_delete_object(target, type);
            if (status == QOR_E_NOT_EMPTY) {
                return QOR_record_os_error(ENOTEMPTY, to,
                                           QOR_CTX_MOVE_OBJECT);
            }
            if (status != 0) return status;
        }
    }
    if (qor::host::retry_disc_full([&] { return rename(from, to); }, to,
                                   QOR_CTX_MOVE_OBJECT) == 0) {
        return existed ? QOR_E_TARGET_EXISTS : 0;
    }
    const int err = errno;
    if (err == ENOENT) return record_errno(from, QOR_CTX_MOVE_OBJECT);
    if (err == kOtherNotEmpty || err == EEXIST) {
        return QOR_record_os_error(ENOTEMPTY, to, QOR_CTX_MOVE_OBJECT);
    }
    return record_errno(to, QOR_CTX_MOVE_OBJECT);
}

// Removes a member file; a missing one is no failure.
int remove_member(const char *member_path) {
    const int status = remove_file(member_path, true);
    return status == QOR_E_MISSING ? 0 : status;
}

// The members of the composite types, removed in this order, and the
// lowest type holding each.
using MemberPath = char *(*)(const char *);
struct Member {
    MemberPath path;
    unsigned int from_type;
};
constexpr Member kRemovalOrder[] = {
    {QOR_SH_index_path, QOR_IDLE_OBJECT},
    {QOR_SH_body_path, QOR_CDIR},
    {QOR_SH_lock_path, QOR_LOCKABLE_DIRECTORY},
};

int delete_object(const char *path, unsigned int type, bool checked) {
    if (type > QOR_IDLE_OBJECT) return bad_type(path, QOR_CTX_DELETE_FILE);
    if (type == QOR_PLAIN_FILE) return remove_file(path, false);
    if (checked) {
        int status = 0;
        switch (type) {
            case QOR_LOCKABLE_DIRECTORY:
                status = QOR_check_directory(path, ".", "..", kLock, nullptr);
                break;
            case QOR_CDIR:
                status = QOR_check_directory(path, ".", "..", kLock, kBody,
                                             nullptr);
                break;
            case QOR_IDLE_OBJECT:
                status = QOR_check_directory(path, ".", "..", kLock, kBody,
                                             kIndex, kDbiLock, nullptr);
                break;
            default:
                break;
        }
        if (status != 0) return status;
    }
    for (const Member &m : kRemovalOrder) {
        if (type < m.from_type) continue;
        // Whatever object lock this process holds goes first; it keeps
        // ".lock" open.
        QOR_unlock_object(path, m.from_type);
        const int status = remove_member(m.path(path));
        if (status != 0) return status;
    }
    // "dbi.lock" is tolerated above but never removed: an idle object that
    // holds one fails here with 2065.
    return remove_directory(path);
}

}  // namespace

extern "C" {

int QOR_copy_object(const char *source, unsigned int type,
                    const char *target) {
    return bracketed([&] { return copy_object(source, type, target); });
}

int QOR_move_object(const char *source, unsigned int type,
                    const char *target) {
    return bracketed([&] { return move_object(source, type, target); });
}

int QOR_delete_object(const char *path, unsigned int type) {
    return bracketed([&] { return delete_object(path, type, true); });
}

int QOR_unchecked_delete_object(const char *path, unsigned int type) {
    return bracketed([&] { return delete_object(path, type, false); });
}

}  // extern "C"
