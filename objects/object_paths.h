// Host paths of an object and of its member files, shared by the units of
// the object store. Not installed.
//
// A member's OS path is, by definition, the translation of the qor path as
// given followed by "/" and the member's name. Translating costs as much as
// a system call, and type detection and the accessibility checks need the
// object directory and up to three members, so the object's own translation
// is made once and the members are derived from it whenever that is sure to
// give the same text as translating the joined path (see member()).
#pragma once

#include <stddef.h>
#include <string.h>

#include "qor/memory.h"
#include "qor/paths.h"

namespace qor::objects {

// Member file names.
inline constexpr const char kLock[] = ".lock";
inline constexpr const char kBody[] = ".body";
inline constexpr const char kIndex[] = ".index";
inline constexpr const char kDbiLock[] = "dbi.lock";

inline QOR_FS_allocator *shared() { return &QOR_SH_fs_allocator; }

// Runs fn between a save and a restore of the shared freestore, so that
// every scratch path fn makes there is released on every return.
template <class F>
int bracketed(F fn) {
    QOR_FS_mark mark;
    QOR_FS_save(shared(), &mark);
    const int status = fn();
    QOR_FS_restore(shared(), &mark);
    return status;
}

// The qor path as given, "/", name, translated as a file path into the
// shared freestore; null when it does not translate. The joined text is
// built in a local buffer up to QOR_PATH_MAX characters and its terminator,
// in the shared freestore beyond. Kept out of line: its buffer would
// otherwise enlarge the frame of every caller, most of which never need it.
[[gnu::noinline]] inline char *translate_joined(const char *qor_path,
                                                const char *name) {
    const size_t n = strlen(qor_path);
    const size_t m = strlen(name);
    if (n + 1 + m + 1 > QOR_PATH_MAX) {
        return QOR_SH_qor_to_os(QOR_SH_cat_strings(qor_path, "/", name,
                                                   nullptr),
                                0);
    }
    char joined[QOR_PATH_MAX];
    memcpy(joined, qor_path, n);
    joined[n] = '/';
    memcpy(joined + n + 1, name, m + 1);
    return QOR_SH_qor_to_os(joined, 0);
}

// "dir/name" in the shared freestore, given both lengths.
inline char *join_in_shared(const char *dir, size_t n, const char *name,
                            size_t m) {
    auto *out = static_cast<char *>(
        QOR_FS_malloc(shared(), static_cast<uint32_t>(n + 1 + m + 1)));
    memcpy(out, dir, n);
    out[n] = '/';
    memcpy(out + n + 1, name, m + 1);
    return out;
}

// One object's paths during one call: the qor path as given and, once
// asked for, its OS path (file and directory translations give the same
// text on this host). Plain data, in the caller's frame.
struct ObjectPaths {
    const char *qor;
    char *os;
    bool translated;
};

inline ObjectPaths object_paths(const char *qor_path) {
    return ObjectPaths{qor_path, nullptr, false};
}

// The object's OS path in the shared freestore, or null.
inline char *object_os(ObjectPaths *p) {
    if (!p->translated) {
        p->os = QOR_SH_qor_to_os_dir(p->qor);
        p->translated = true;
    }
    return p->os;
}

// The member's OS path in the shared freestore, or null; the same text as
// translate_joined(p->qor, name).
//
// Appending a plain name to a qor path appends one component after
// everything the path's own components did (anchors, restarts, "." and
// ".." are resolved left to right and a name changes none of them; a host
// part "@..." takes the rest of the text, the name included, as written),
// so the translation of the joined path is the object's translation, "/",
// the name. The exceptions take the literal way: a path holding "$" (a
// variable's parsing could take the name in), an object that translates to
// a text ending in "/" (the root), a path that does not translate on its
// own, and texts near the length limit, where the joined form may fail.
inline char *member_os(ObjectPaths *p, const char *name) {
    const char *os = object_os(p);
    if (os != nullptr && strchr(p->qor, '$') == nullptr) {
        const size_t n = strlen(os);
        const size_t m = strlen(name);
        if (n > 0 && os[n - 1] != '/' && n + 1 + m <= QOR_PATH_MAX &&
            strlen(p->qor) + 1 + m <= QOR_PATH_MAX) {
            return join_in_shared(os, n, name, m);
        }
    }
    return translate_joined(p->qor, name);
}

}  // namespace qor::objects
