// Object layout: the type of an existing object, the qor paths of its
// member files, and the check that an object directory holds nothing but
// the entries it may hold.

#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/host.h"
#include "foundation/internal.h"
#include "objects/object_paths.h"
#include "qor/objects.h"

namespace {

using namespace qor::objects;

// The member files whose readability decides the type, in the order they
// are tested: the first that cannot be read gives the type beside it.
struct TypeStep {
    const char *member;
    unsigned int type_if_unreadable;
};
constexpr TypeStep kTypeSteps[] = {
    {kLock, QOR_PLAIN_DIRECTORY},
    {kBody, QOR_LOCKABLE_DIRECTORY},
    {kIndex, QOR_CDIR},
};

int detect_type(const char *path, unsigned int *type) {
    ObjectPaths paths = object_paths(path);
    const char *os = object_os(&paths);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;

    struct stat st;
    if (stat(os, &st) != 0) {
        if (errno == ENOENT) return QOR_E_MISSING;
        return qor::host::record_errno(os, QOR_CTX_FIND_TYPE);
    }
    if (!S_ISDIR(st.st_mode)) {
        *type = QOR_PLAIN_FILE;
        return 0;
    }
    // Readability, not existence: a member the caller may not read counts
    // as absent, whatever access() failed with.
    for (const TypeStep &step : kTypeSteps) {
        const char *member = member_os(&paths, step.member);
        if (member == nullptr) return QOR_E_UNTRANSLATABLE;
        if (access(member, R_OK) != 0) {
            *type = step.type_if_unreadable;
            return 0;
        }
    }
    *type = QOR_IDLE_OBJECT;
    return 0;
}

// Up to this many allowed names are held in the caller's frame.
constexpr int kLocalNames = 16;

int check_links(QOR_link_listing *listing, const char *path,
                const char *const *allowed, int count) {
    for (;;) {
        int status = QOR_next_link(listing);
        if (status != 0) return status;
        const char *name = QOR_SH_read_linkname(listing);
        if (name == nullptr) return QOR_E_UNTRANSLATABLE;
        bool known = false;
        for (int i = 0; i < count && !known; ++i) {
            known = strcmp(name, allowed[i]) == 0;
        }
        if (!known) {
            const char *os = QOR_SH_qor_to_os(path, 1);
            return QOR_record_os_error(ENOTEMPTY, os != nullptr ? os : name,
                                       QOR_CTX_REMOVE_DIRECTORY);
        }
    }
}

}  // namespace

extern "C" {

int QOR_type_of_object(const char *path, unsigned int *type) {
    QOR_FS_mark mark;
    QOR_FS_save(shared(), &mark);
    const int status = detect_type(path, type);
    QOR_FS_restore(shared(), &mark);
    return status;
}

int QOR_check_directory(const char *path, const char *name, ...) {
    int count = 0;
    va_list ap;
    va_start(ap, name);
    for (const char *n = name; n != nullptr; n = va_arg(ap, const char *)) {
        ++count;
    }
    va_end(ap);

    QOR_link_listing *listing = nullptr;
    int status = QOR_open_links(path, QOR_PLAIN_DIRECTORY, &listing);
    if (status != 0) return status;

    QOR_FS_mark mark;
    QOR_FS_save(shared(), &mark);
    const char *local[kLocalNames];
    const char **allowed = local;
    if (count > kLocalNames) {
        // Freestore pieces are only 4-byte aligned; pointers want 8.
        auto raw = reinterpret_cast<uintptr_t>(QOR_FS_malloc(
            shared(),
            static_cast<uint32_t>(sizeof(const char *) * count + 4)));
        allowed = reinterpret_cast<const char **>((raw + 7) & ~uintptr_t{7});
    }
    va_start(ap, name);
    const char *n = name;
    for (int i = 0; i < count; ++i, n = va_arg(ap, const char *)) {
        allowed[i] = n;
    }
    va_end(ap);

    status = check_links(listing, path, allowed, count);
    QOR_FS_restore(shared(), &mark);
    // A failing close is recorded by it; the check itself has passed.
    QOR_close_links(listing);
    return status == QOR_E_END ? 0 : status;
}

char *QOR_lock_path(const char *path) {
    return QOR_composite_path(path, kLock);
}
char *QOR_index_path(const char *path) {
    return QOR_composite_path(path, kIndex);
}
char *QOR_body_path(const char *path) {
    return QOR_composite_path(path, kBody);
}
char *QOR_SH_lock_path(const char *path) {
    return QOR_SH_composite_path(path, kLock);
}
char *QOR_SH_index_path(const char *path) {
    return QOR_SH_composite_path(path, kIndex);
}
char *QOR_SH_body_path(const char *path) {
    return QOR_SH_composite_path(path, kBody);
}

}  // extern "C"
