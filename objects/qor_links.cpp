// Links: the names stored in an object directory or a plain directory,
// listed one at a time in the host directory's order, passing over "." and
// ".." and over the member files that the object's type puts there.

#include <errno.h>
#include <stddef.h>
#include <string.h>

#include "foundation/host.h"
#include "foundation/internal.h"
#include "objects/object_paths.h"
#include "qor/objects.h"

static_assert(offsetof(QOR_link_listing, path) == 0);
static_assert(offsetof(QOR_link_listing, stream) == 8);
static_assert(offsetof(QOR_link_listing, entry) == 16);
static_assert(offsetof(QOR_link_listing, name) == 24);
static_assert(offsetof(QOR_link_listing, skip) == 32);
static_assert(sizeof(QOR_link_listing) == 32 + 8 * QOR_LINK_SKIP_SLOTS);

namespace {

using namespace qor::objects;

// Names passed over, by object type; types above 4 list like a plain
// directory.
constexpr const char *kSkipLists[5][QOR_LINK_SKIP_SLOTS] = {
    {".", "..", nullptr},
    {".", "..", nullptr},
    {".", "..", kLock, nullptr},
    {".", "..", kBody, kLock, nullptr},
    {".", "..", kIndex, kDbiLock, kBody, kLock, nullptr},
};

// The current name is kept in storage allocated with the listing, right
// after the record: a host entry name has at most this many bytes.
constexpr size_t kNameSize = sizeof(static_cast<struct dirent *>(nullptr)->d_name);

char *name_buffer(QOR_link_listing *l) {
    return reinterpret_cast<char *>(l + 1);
}

bool skipped(const QOR_link_listing *l, const char *name) {
    for (const char *const *s = l->skip; *s != nullptr; ++s) {
        if (strcmp(*s, name) == 0) return true;
    }
    return false;
}

}  // namespace

extern "C" {

int QOR_open_links(const char *path, unsigned int type,
                   QOR_link_listing **result) {
    char *os = QOR_qor_to_os(path, type);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    if (type == QOR_PLAIN_FILE) {
        const int status =
            QOR_record_os_error(ENOTDIR, os, QOR_CTX_LINK_LISTING);
        QOR_free(os);
        return status;
    }
    DIR *stream = opendir(os);
    if (stream == nullptr) {
        const int status = qor::host::record_errno(os, QOR_CTX_LINK_LISTING);
        QOR_free(os);
        return status;
    }
    auto *l = static_cast<QOR_link_listing *>(
        QOR_malloc(static_cast<int32_t>(sizeof(QOR_link_listing) + kNameSize)));
    l->path = os;
    l->stream = stream;
    l->entry = nullptr;
    l->name = nullptr;
    const char *const *skip = kSkipLists[type <= QOR_IDLE_OBJECT ? type : 1];
    for (int i = 0; i < QOR_LINK_SKIP_SLOTS; ++i) l->skip[i] = skip[i];
    *result = l;
    return 0;
}

int QOR_next_link(QOR_link_listing *l) {
    int calls = 0;
    for (;;) {
        errno = 0;
        struct dirent *e = readdir(l->stream);
        ++calls;
        if (e != nullptr) {
            // A host entry name holds no "/", so its qor link name is the
            // name itself: it is compared and kept as it stands.
            if (skipped(l, e->d_name)) {
                calls = 0;
                continue;
            }
            l->entry = e;
            const size_t n = strnlen(e->d_name, kNameSize - 1);
            l->name = name_buffer(l);
            memcpy(l->name, e->d_name, n);
            l->name[n] = '\0';
            return 0;
        }
        if (errno == 0) {
            l->entry = nullptr;
            l->name = nullptr;
            return QOR_E_END;
        }
        if (errno != EINTR || calls >= qor::host::kEintrCalls) {
            return qor::host::record_errno(l->path, QOR_CTX_READ_LINK);
        }
    }
}

char *QOR_read_linkname(QOR_link_listing *l) {
    return l->name != nullptr ? QOR_copy_string(l->name) : nullptr;
}

char *QOR_SH_read_linkname(QOR_link_listing *l) {
    return l->name != nullptr ? QOR_FS_copy_string(shared(), l->name)
                              : nullptr;
}

int QOR_close_links(QOR_link_listing *l) {
    l->entry = nullptr;
    l->name = nullptr;
    int status = 0;
    if (qor::host::retry_eintr([&] { return closedir(l->stream); }) != 0) {
        status = qor::host::record_errno(l->path, QOR_CTX_LINK_LISTING);
    }
    QOR_free(l->path);
    QOR_free(l);
    return status;
}

}  // extern "C"
