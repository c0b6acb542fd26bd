// Ownership, permissions and accessibility of objects.
//
// An object is not one host file: a composite object is a directory with
// member files. Whether an object may be read, written, executed, created
// or removed is therefore answered by the accessibility table below, which
// says for every object type and access kind which host files to check, how
// to check them, and for which access mode. Testing, reading and setting
// the accessibility for a permission class all walk the same cells.

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/host.h"
#include "foundation/host_files.h"
#include "foundation/internal.h"
#include "objects/object_paths.h"
#include "qor/objects.h"

static_assert(sizeof(QOR_ownership) == 4);
static_assert(offsetof(QOR_ownership, user) == 0);
static_assert(offsetof(QOR_ownership, group) == 2);
static_assert(offsetof(QOR_ownership_names, user) == 0);
static_assert(offsetof(QOR_ownership_names, group) == 8);

namespace {

using namespace qor::objects;

// ---- The caller's permission class ----------------------------------------

// The process's supplementary groups, read once, on first need, and never
// refreshed. The mark is set even when reading them failed.
constinit bool g_groups_read = false;
constinit gid_t *g_groups = nullptr;
constinit int g_group_count = 0;

void read_groups() {
    g_groups_read = true;
    const long most = sysconf(_SC_NGROUPS_MAX);
    if (most <= 0) return;
    auto *list = static_cast<gid_t *>(
        malloc(static_cast<size_t>(most) * sizeof(gid_t)));
    if (list == nullptr) return;
    const int n = getgroups(static_cast<int>(most), list);
    if (n < 0) {
        free(list);
        return;
    }
    g_groups = list;
    g_group_count = n;
}

bool in_supplementary_groups(gid_t gid) {
    if (!g_groups_read) read_groups();
    for (int i = 0; i < g_group_count; ++i) {
        if (g_groups[i] == gid) return true;
    }
    return false;
}

// 0 when the caller owns the file, 1 when it is in the file's group (as its
// real group or a supplementary one), else 2. Real ids, as access() uses.
int own_class(const struct stat &st) {
    if (getuid() == st.st_uid) return QOR_CLASS_OWNER;
    if (getgid() == st.st_gid || in_supplementary_groups(st.st_gid)) {
        return QOR_CLASS_GROUP;
    }
    return QOR_CLASS_OTHERS;
}

// The permission bits of an access mode (4 read, 2 write, 1 execute) for a
// class: 0400/0200/0100 for the owner, 040/020/010 for the group, 04/02/01
// for others; no bits for any other class.
constexpr mode_t class_bits(int mode, int permission_class) {
    if (permission_class < QOR_CLASS_OWNER ||
        permission_class > QOR_CLASS_OTHERS) {
        return 0;
    }
    return static_cast<mode_t>(mode & 7) << (3 * (2 - permission_class));
}
static_assert(class_bits(4, 0) == 0400 && class_bits(2, 1) == 020 &&
              class_bits(1, 2) == 01 && class_bits(5, 0) == 0500 &&
              class_bits(7, 3) == 0 && class_bits(4, -1) == 0);

// ---- Mappers: the host file an entry checks --------------------------------

using Mapper = char *(*)(ObjectPaths *);

char *object_file(ObjectPaths *p) { return object_os(p); }
char *object_directory(ObjectPaths *p) { return object_os(p); }
char *lock_member(ObjectPaths *p) { return member_os(p, kLock); }
char *body_member(ObjectPaths *p) { return member_os(p, kBody); }
char *index_member(ObjectPaths *p) { return member_os(p, kIndex); }

// The absolute qor path cut at its last "/", as a directory path.
char *parent_directory(ObjectPaths *p) {
    char *absolute = QOR_SH_qor_to_absolute_qor(p->qor);
    if (absolute == nullptr) return nullptr;
    char *slash = strrchr(absolute, '/');
    if (slash == nullptr) return nullptr;
    *slash = '\0';
    return QOR_SH_qor_to_os_dir(absolute);
}

// ---- Checkers ----------------------------------------------------------------

using Checker = bool (*)(const char *os, int mode);

bool host_access(const char *os, int mode) { return access(os, mode) == 0; }

bool host_access_or_absent(const char *os, int mode) {
    return access(os, mode) == 0 || errno == ENOENT;
}

bool mode_allows(const struct stat &st, int mode) {
    if (mode == 0) return true;
    const mode_t bits = class_bits(mode, own_class(st));
    return (st.st_mode & bits) == bits;
}

bool plain_file_with_mode(const char *os, int mode) {
    struct stat st;
    return stat(os, &st) == 0 && !S_ISDIR(st.st_mode) && mode_allows(st, mode);
}

bool directory_with_mode(const char *os, int mode) {
    struct stat st;
    return stat(os, &st) == 0 && S_ISDIR(st.st_mode) && mode_allows(st, mode);
}

// ---- The accessibility table -------------------------------------------------

struct Check {
    Mapper mapper;  // null: an empty entry, which ends the cell
    Checker checker;
    int mode;
};
struct Cell {
    Check checks[4];
};

// Short names so that each cell reads as "mapper / checker / mode".
constexpr Mapper file_ = object_file, dir_ = object_directory;
constexpr Mapper lock_ = lock_member, body_ = body_member;
constexpr Mapper index_ = index_member;
constexpr Mapper parent_ = parent_directory;
constexpr Checker access_ = host_access, or_absent = host_access_or_absent;
constexpr Checker file_mode = plain_file_with_mode;
constexpr Checker dir_mode = directory_with_mode;

constexpr int kTypes = 5;
constexpr int kKinds = 6;

// Rows: object types 0 to 4. Columns: access kinds 0 exists, 1 read,
// 2 write, 3 execute, 4 create in parent, 5 remove. Composite objects check
// their members first and the object directory last; kind 3 never checks
// the object directory. Only a cdir's ".lock" may be absent.
constexpr Cell kAccessibility[kTypes][kKinds] = {
    {   // 0 plain file
        {{{file_, file_mode, 0}}},
        {{{file_, file_mode, 4}}},
        {{{file_, file_mode, 2}}},
        {{{file_, file_mode, 1}}},
        {{{parent_, access_, 2}}},
        {{{parent_, access_, 2}}},
    },
    {   // 1 plain directory
        {{{dir_, dir_mode, 0}}},
        {{{dir_, dir_mode, 5}}},
        {{{dir_, dir_mode, 2}}},
        {{{dir_, dir_mode, 1}}},
        {{{parent_, access_, 2}}},
        {{{parent_, access_, 2}}},
    },
    {   // 2 lockable directory: ".lock"
        {{{lock_, access_, 0}, {dir_, dir_mode, 0}}},
        {{{lock_, access_, 4}, {dir_, dir_mode, 5}}},
        {{{lock_, access_, 2}, {dir_, dir_mode, 2}}},
        {{{lock_, access_, 1}}},
        {{{parent_, access_, 2}}},
        {{{dir_, dir_mode, 2}, {parent_, access_, 2}}},
    },
    {   // 3 cdir: ".lock", ".body"
        {{{body_, access_, 0}, {lock_, or_absent, 0}, {dir_, dir_mode, 0}}},
        {{{body_, access_, 4}, {lock_, or_absent, 4}, {dir_, dir_mode, 5}}},
        {{{body_, access_, 2}, {lock_, or_absent, 2}, {dir_, dir_mode, 2}}},
        {{{body_, access_, 1}, {lock_, or_absent, 1}}},
        {{{parent_, access_, 2}}},
        {{{dir_, dir_mode, 2}, {parent_, access_, 2}}},
    },
    {   // 4 idle object: ".lock", ".body", ".index"
        {{{index_, access_, 0}, {body_, access_, 0}, {lock_, access_, 0},
          {dir_, dir_mode, 0}}},
        {{{index_, access_, 4}, {body_, access_, 4}, {lock_, access_, 4},
          {dir_, dir_mode, 5}}},
        {{{index_, access_, 2}, {body_, access_, 2}, {lock_, access_, 2},
          {dir_, dir_mode, 2}}},
        {{{index_, access_, 1}, {body_, access_, 1}, {lock_, access_, 1}}},
        {{{parent_, access_, 2}}},
        {{{dir_, dir_mode, 2}, {parent_, access_, 2}}},
    },
};

// A cdir's ".lock" that does not exist is passed over when reading and
// setting for a class, as its checker accepts it when testing.
bool absent_optional_member(const Check &c, const char *os) {
    return c.checker == or_absent && access(os, F_OK) != 0;
}

// Type codes above 4 and kinds above 5 name no cell: EINVAL is recorded
// against the object's OS path.
int no_cell(ObjectPaths *paths, int context) {
    const char *os = object_os(paths);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    return QOR_record_os_error(EINVAL, os, context);
}

const Cell *cell_of(unsigned int type, unsigned int kind) {
    if (type >= kTypes || kind >= kKinds) return nullptr;
    return &kAccessibility[type][kind];
}

int test_cell(ObjectPaths *paths, unsigned int type, unsigned int kind,
              int32_t *flag) {
    const Cell *cell = cell_of(type, kind);
    if (cell == nullptr) return no_cell(paths, QOR_CTX_TEST_ACCESS);
    for (const Check &c : cell->checks) {
        if (c.mapper == nullptr) break;
        const char *os = c.mapper(paths);
        if (os == nullptr) return QOR_E_UNTRANSLATABLE;
        if (!c.checker(os, c.mode)) {
            *flag = 0;
            return 0;
        }
    }
    *flag = 1;
    return 0;
}

int read_cell(ObjectPaths *paths, unsigned int type, int permission_class,
              unsigned int kind, int32_t *flag) {
    *flag = 0;
    const Cell *cell = cell_of(type, kind);
    if (cell == nullptr) return no_cell(paths, QOR_CTX_TEST_ACCESS);
    for (const Check &c : cell->checks) {
        if (c.mapper == nullptr) break;
        const char *os = c.mapper(paths);
        if (os == nullptr) return QOR_E_UNTRANSLATABLE;
        if (absent_optional_member(c, os)) continue;
        struct stat st;
        if (stat(os, &st) != 0) {
            return qor::host::record_errno(os, QOR_CTX_TEST_ACCESS);
        }
        // One of the bits suffices; a mode without bits (kind 0) never
        // passes.
        if ((st.st_mode & class_bits(c.mode, permission_class)) == 0) return 0;
    }
    *flag = 1;
    return 0;
}

int set_entry(ObjectPaths *paths, const Check &c, int permission_class,
              bool grant) {
    const char *os = c.mapper(paths);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    if (absent_optional_member(c, os)) return 0;
    struct stat st;
    if (stat(os, &st) != 0) {
        return qor::host::record_errno(os, QOR_CTX_TEST_ACCESS);
    }
    const mode_t bits = class_bits(c.mode, permission_class);
    const mode_t now = st.st_mode & 07777;
    if (grant ? (now & bits) == bits : (now & bits) == 0) return 0;
    const mode_t mode = grant ? now | bits : now & ~bits;
    // The object's own file or directory is the caller's to name, links
    // included; a member is changed only through a checked descriptor, so
    // a link or a device planted at its name is refused, never changed.
    const bool member = c.mapper == lock_ || c.mapper == body_ ||
                        c.mapper == index_;
    const int r = member ? qor::host::chmod_member(os, mode)
                         : qor::host::retry_eintr(
                               [&] { return chmod(os, mode); });
    if (r != 0) return qor::host::record_errno(os, QOR_CTX_SET_PERMISSIONS);
    return 0;
}

int set_cell(ObjectPaths *paths, unsigned int type, int permission_class,
             unsigned int kind, bool grant) {
    const Cell *cell = cell_of(type, kind);
    if (cell == nullptr || kind == QOR_ACCESS_EXISTS) {
        return no_cell(paths, QOR_CTX_SET_PERMISSIONS);
    }
    // Granting opens the object directory before its members; revoking
    // closes the members before the directory.
    for (int step = 0; step < 4; ++step) {
        const Check &c = cell->checks[grant ? 3 - step : step];
        if (c.mapper == nullptr) continue;
        const int status = set_entry(paths, c, permission_class, grant);
        if (status != 0) return status;
    }
    return 0;
}

// ---- Single host files -------------------------------------------------------

char *translate(const char *path, int32_t is_dir) {
    return is_dir != 0 ? QOR_SH_qor_to_os_dir(path) : QOR_SH_qor_to_os(path, 0);
}

// stat of the path translated as is_dir says; a failure is recorded with the
// context given.
int stat_path(const char *path, int32_t is_dir, int context,
              struct stat *st) {
    const char *os = translate(path, is_dir);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    if (stat(os, st) != 0) return qor::host::record_errno(os, context);
    return 0;
}

// The host file that holds an object's contents and times: the file itself
// (type 0), the directory (types 1 and 2) or the ".body" (3 and above).
char *contents_file(ObjectPaths *paths, unsigned int type) {
    if (type >= QOR_CDIR) return member_os(paths, kBody);
    return object_os(paths);
}

int contents_size(const char *path, unsigned int type, uint64_t *size) {
    ObjectPaths paths = object_paths(path);
    const char *os = contents_file(&paths, type);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    if (type == QOR_PLAIN_DIRECTORY || type == QOR_LOCKABLE_DIRECTORY) {
        return QOR_record_os_error(EISDIR, os, QOR_CTX_READ_SIZE);
    }
    struct stat st;
    if (stat(os, &st) != 0) {
        return qor::host::record_errno(os, QOR_CTX_READ_SIZE);
    }
    *size = static_cast<uint64_t>(st.st_size);
    return 0;
}

int access_times(const char *path, unsigned int type, int64_t times[3]) {
    ObjectPaths paths = object_paths(path);
    const char *os = contents_file(&paths, type);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    struct stat st;
    if (stat(os, &st) != 0) {
        return qor::host::record_errno(os, QOR_CTX_READ_TIMES);
    }
    times[QOR_TIME_ACCESS] = st.st_atime;
    times[QOR_TIME_CHANGE] = st.st_ctime;
    times[QOR_TIME_MODIFY] = st.st_mtime;
    return 0;
}

// "<device>_<inode>", as text in a local buffer.
int identity(const char *path, int32_t is_dir, char *text, size_t size) {
    struct stat st;
    const int status = stat_path(path, is_dir, QOR_CTX_READ_IDENTITY, &st);
    if (status != 0) return status;
    snprintf(text, size, "%lu_%lu", static_cast<unsigned long>(st.st_dev),
             static_cast<unsigned long>(st.st_ino));
    return 0;
}
constexpr size_t kIdentitySize = 48;

// ---- Names of ids ------------------------------------------------------------

// The ids are sign-extended for the host: -1 stays -1.
uid_t host_uid(const QOR_ownership &o) {
    return static_cast<uid_t>(static_cast<int>(o.user));
}
gid_t host_gid(const QOR_ownership &o) {
    return static_cast<gid_t>(static_cast<int>(o.group));
}

// Copies a name where the result belongs.
char *copy_name(const char *name, bool in_shared) {
    return in_shared ? QOR_FS_copy_string(shared(), name)
                     : QOR_copy_string(name);
}

int ownership_names(const QOR_ownership *o, QOR_ownership_names *names,
                    bool in_shared) {
    const struct passwd *pw =
        qor::host::retry_lookup([&] { return getpwuid(host_uid(*o)); });
    if (pw == nullptr) return QOR_E_INVALID;
    char *user = copy_name(pw->pw_name, in_shared);
    const struct group *gr =
        qor::host::retry_lookup([&] { return getgrgid(host_gid(*o)); });
    if (gr == nullptr) {
        // A user name in the shared freestore goes with the caller's mark.
        if (!in_shared) QOR_free(user);
        return QOR_E_INVALID;
    }
    names->user = user;
    names->group = copy_name(gr->gr_name, in_shared);
    return 0;
}


}  // namespace

extern "C" {

int QOR_is_accessible(const char *path, unsigned int type, unsigned int kind,
                      int32_t *flag) {
    return bracketed([&] {
        ObjectPaths paths = object_paths(path);
        return test_cell(&paths, type, kind, flag);
    });
}

int QOR_read_accessibility(const char *path, unsigned int type,
                           int32_t permission_class, unsigned int kind,
                           int32_t *flag) {
    return bracketed([&] {
        ObjectPaths paths = object_paths(path);
        return read_cell(&paths, type, permission_class, kind, flag);
    });
}

int QOR_set_accessibility(const char *path, unsigned int type,
                          int32_t permission_class, unsigned int kind,
                          int32_t grant) {
    return bracketed([&] {
        ObjectPaths paths = object_paths(path);
        return set_cell(&paths, type, permission_class, kind, grant != 0);
    });
}

int QOR_set_permissions(const char *path, int32_t is_dir, uint32_t mode) {
    return bracketed([&] {
        const char *os = translate(path, is_dir);
        if (os == nullptr) return static_cast<int>(QOR_E_UNTRANSLATABLE);
        if (chmod(os, static_cast<mode_t>(mode)) != 0) {
            return qor::host::record_errno(os, QOR_CTX_SET_PERMISSIONS);
        }
        return 0;
    });
}

int QOR_read_permissions(const char *path, int32_t is_dir, uint32_t *mode) {
    return bracketed([&] {
        struct stat st;
        const int status =
            stat_path(path, is_dir, QOR_CTX_TEST_ACCESS, &st);
        if (status == 0) *mode = st.st_mode;
        return status;
    });
}

int QOR_ref_set_ownership(const char *path, int32_t is_dir,
                          const QOR_ownership *ownership) {
    return bracketed([&] {
        const char *os = translate(path, is_dir);
        if (os == nullptr) return static_cast<int>(QOR_E_UNTRANSLATABLE);
        if (chown(os, host_uid(*ownership), host_gid(*ownership)) != 0) {
            return qor::host::record_errno(os, QOR_CTX_SET_OWNERSHIP);
        }
        return 0;
    });
}

int QOR_set_ownership(const char *path, int32_t is_dir,
                      QOR_ownership ownership) {
    return QOR_ref_set_ownership(path, is_dir, &ownership);
}

int QOR_read_ownership(const char *path, int32_t is_dir,
                       QOR_ownership *ownership) {
    return bracketed([&] {
        struct stat st;
        const int status =
            stat_path(path, is_dir, QOR_CTX_READ_OWNERSHIP, &st);
        if (status == 0) {
            ownership->user = static_cast<int16_t>(st.st_uid);
            ownership->group = static_cast<int16_t>(st.st_gid);
        }
        return status;
    });
}

int QOR_ref_read_ownership_name(const QOR_ownership *ownership,
                                QOR_ownership_names *names) {
    return ownership_names(ownership, names, false);
}
int QOR_read_ownership_name(QOR_ownership ownership,
                            QOR_ownership_names *names) {
    return ownership_names(&ownership, names, false);
}
int QOR_SH_ref_read_ownership_name(const QOR_ownership *ownership,
                                   QOR_ownership_names *names) {
    return ownership_names(ownership, names, true);
}
int QOR_SH_read_ownership_name(QOR_ownership ownership,
                               QOR_ownership_names *names) {
    return ownership_names(&ownership, names, true);
}

int QOR_read_contents_size(const char *path, unsigned int type,
                           uint64_t *size) {
    return bracketed([&] { return contents_size(path, type, size); });
}

int QOR_read_access_times(const char *path, unsigned int type,
                          int64_t times[3]) {
    return bracketed([&] { return access_times(path, type, times); });
}

int QOR_read_identity(const char *path, int32_t is_dir, char **result) {
    char text[kIdentitySize];
    const int status = bracketed(
        [&] { return identity(path, is_dir, text, sizeof text); });
    if (status == 0) *result = QOR_copy_string(text);
    return status;
}

int QOR_SH_read_identity(const char *path, int32_t is_dir, char **result) {
    char text[kIdentitySize];
    const int status = bracketed(
        [&] { return identity(path, is_dir, text, sizeof text); });
    if (status == 0) *result = QOR_FS_copy_string(shared(), text);
    return status;
}

}  // extern "C"
