// Temporary objects created atomically under unpredictable names.
//
// QOR_temporary_object_name only proposes a name anyone can predict; this
// unit makes the object itself, exclusively, under a name drawn from the
// host's random source, and hands back an open descriptor so the caller
// never has to find it again by name.

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/host.h"
#include "foundation/host_files.h"
#include "foundation/internal.h"
#include "qor/paths.h"

namespace {

// Random characters in a name, and the alphabet they are drawn from: 32
// characters, so each random byte gives 5 bits without bias.
constexpr int kRandomChars = 13;
constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz234567";
static_assert(sizeof kAlphabet - 1 == 32);

// Names drawn before giving up when every one exists.
constexpr int kDraws = 100;

QOR_FS_allocator *shared() { return &QOR_SH_fs_allocator; }

// Fills out with kRandomChars characters from getrandom; false with errno
// set when the host's random source fails.
bool draw(char *out) {
    unsigned char bytes[kRandomChars];
    size_t got = 0;
    while (got < sizeof bytes) {
        const ssize_t n = qor::host::retry_eintr(
            [&] { return getrandom(bytes + got, sizeof bytes - got, 0); });
        if (n < 0) return false;
        got += static_cast<size_t>(n);
    }
    for (int i = 0; i < kRandomChars; ++i) out[i] = kAlphabet[bytes[i] % 32];
    return true;
}

// Makes the object at os; the descriptor, or -1 with errno set.
int make(const char *os, bool is_directory) {
    if (!is_directory) {
        qor::host::MemberOpen how;
        how.disc_full_context = QOR_CTX_CREATE_FILE;
        return qor::host::open_member(
            os, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600, how);
    }
    if (qor::host::retry_disc_full([&] { return mkdir(os, 0700); }, os,
                                   QOR_CTX_CREATE_DIRECTORY) != 0) {
        return -1;
    }
    qor::host::MemberOpen how;
    how.kind = qor::host::MemberKind::directory;
    const int fd = qor::host::open_member(os, O_RDONLY | O_CLOEXEC, 0, how);
    if (fd < 0) {
        // Someone replaced the new directory already: leave what is there
        // (it is not ours any more) and report.
        const int saved = errno;
        rmdir(os);
        errno = saved;
    }
    return fd;
}

int create(const char *prefix, bool is_directory, const char *suffix,
           char **path, int *fd) {
    const int context =
        is_directory ? QOR_CTX_CREATE_DIRECTORY : QOR_CTX_CREATE_FILE;
    const char *dir = QOR_SH_temporary_directory();
    if (dir == nullptr) return QOR_E_UNTRANSLATABLE;
    char random[kRandomChars + 1] = {};
    // A null suffix ends the list early and leaves the leaf ending in ".",
    // as the proposed names do.
    char *candidate = QOR_SH_composite_path(
        dir, prefix != nullptr
                 ? QOR_SH_cat_strings(prefix, "XXXXXXXXXXXXX", ".", suffix,
                                      nullptr)
                 : QOR_SH_cat_strings("XXXXXXXXXXXXX", ".", suffix, nullptr));
    if (candidate == nullptr) return QOR_E_UNTRANSLATABLE;
    // The random characters go over the run of "X" before the "." that
    // precedes the suffix.
    const size_t tail = (suffix != nullptr ? strlen(suffix) : 0) + 1;
    const size_t length = strlen(candidate);
    if (length < tail + kRandomChars) return QOR_E_UNTRANSLATABLE;
    char *slot = candidate + length - tail - kRandomChars;
    if (slot[kRandomChars] != '.' || slot[0] != 'X') {
        return QOR_E_UNTRANSLATABLE;
    }
    // The leaf must stay one new entry of the temporary directory: a "/"
    // in the prefix or suffix, or a leaf the path grammar reads otherwise
    // (a leading "@" is a host path of its own), would
    // make the object somewhere else, even outside the directory.
    const char *dir_os = QOR_SH_qor_to_os_dir(dir);
    if (dir_os == nullptr) return QOR_E_UNTRANSLATABLE;
    const size_t dir_length = strlen(dir_os);
    const bool dir_slash = dir_length > 0 && dir_os[dir_length - 1] == '/';
    const char *leaf = slot - (prefix != nullptr ? strlen(prefix) : 0);
    if ((prefix != nullptr && strchr(prefix, '/') != nullptr) ||
        (suffix != nullptr && strchr(suffix, '/') != nullptr)) {
        return QOR_E_INVALID;
    }
    for (int tries = 0; tries < kDraws; ++tries) {
        if (!draw(random)) return qor::host::record_errno(dir, context);
        memcpy(slot, random, kRandomChars);
        const char *os = is_directory ? QOR_SH_qor_to_os_dir(candidate)
                                      : QOR_SH_qor_to_os(candidate, 0);
        if (os == nullptr) return QOR_E_UNTRANSLATABLE;
        if (strncmp(os, dir_os, dir_length) != 0 ||
            (!dir_slash && os[dir_length] != '/') ||
            strcmp(os + dir_length + (dir_slash ? 0 : 1), leaf) != 0) {
            return QOR_E_INVALID;
        }
        const int made = make(os, is_directory);
        if (made >= 0) {
            *path = QOR_copy_string(candidate);
            *fd = made;
            return 0;
        }
        if (errno != EEXIST) return qor::host::record_errno(os, context);
    }
    errno = EEXIST;
    return qor::host::record_errno(
        is_directory ? QOR_SH_qor_to_os_dir(candidate)
                     : QOR_SH_qor_to_os(candidate, 0),
        context);
}

}  // namespace

extern "C" {

int QOR_create_temporary_object(const char *prefix, int is_directory,
                                const char *suffix, char **path, int *fd) {
    if (path != nullptr) *path = nullptr;
    if (fd != nullptr) *fd = -1;
    if (path == nullptr || fd == nullptr) return QOR_E_UNTRANSLATABLE;
    QOR_FS_mark mark;
    QOR_FS_save(shared(), &mark);
    const int status = create(prefix, is_directory != 0, suffix, path, fd);
    QOR_FS_restore(shared(), &mark);
    return status;
}

}  // extern "C"
