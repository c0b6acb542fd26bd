// Recognising and clearing away a half-made object: see integrity.h.

#include "objects/integrity.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "foundation/host.h"
#include "objects/object_paths.h"
#include "objects/steps.h"
#include "qor/objects.h"

namespace qor::objects {
namespace {

constexpr const char *kMembers[] = {kLock, kBody, kIndex};

// The members a type has: ".lock" from type 2, ".body" from 3, ".index" at 4.
bool has_member(unsigned int type, int i) {
    return type >= static_cast<unsigned int>(i) + 2 && type <= QOR_IDLE_OBJECT;
}

// Whether one line of /proc/locks names the file dev:ino. A line reads
// "N: [-> ]POSIX ADVISORY WRITE PID MAJ:MIN:INODE START END", the device
// numbers in hexadecimal; a waiter ("->") counts as well, its process is
// alive.
bool line_names(const char *line, dev_t dev, ino_t ino) {
    for (const char *p = line; *p != '\0';) {
        while (*p == ' ') ++p;
        const char *end = p;
        while (*end != '\0' && *end != ' ') ++end;
        const char *c1 = static_cast<const char *>(memchr(p, ':', end - p));
        const char *c2 = c1 == nullptr ? nullptr
                         : static_cast<const char *>(
                               memchr(c1 + 1, ':', end - c1 - 1));
        if (c2 != nullptr) {
            char *stop = nullptr;
            const unsigned long maj = strtoul(p, &stop, 16);
            if (stop != c1) return false;
            const unsigned long min = strtoul(c1 + 1, &stop, 16);
            if (stop != c2) return false;
            const unsigned long long in = strtoull(c2 + 1, &stop, 10);
            if (stop != end) return false;
            return maj == major(dev) && min == minor(dev) &&
                   in == static_cast<unsigned long long>(ino);
        }
        p = end;
    }
    return false;
}

// The whole of /proc/locks in a buffer of the caller's to free, its length
// in *size; null when it cannot be read (or no memory is left for it).
char *read_lock_list(size_t *size) {
    const int fd = qor::host::retry_eintr(
        [] { return open("/proc/locks", O_RDONLY | O_CLOEXEC); });
    if (fd < 0) return nullptr;
    size_t room = 16384;
    size_t used = 0;
    char *text = static_cast<char *>(malloc(room));
    while (text != nullptr) {
        if (used == room) {
            char *grown = static_cast<char *>(realloc(text, room * 2));
            if (grown == nullptr) {
                free(text);
                text = nullptr;
                break;
            }
            text = grown;
            room *= 2;
        }
        const ssize_t n = qor::host::retry_eintr(
            [&] { return read(fd, text + used, room - used); });
        if (n < 0) {
            free(text);
            text = nullptr;
        } else if (n == 0) {
            break;
        } else {
            used += static_cast<size_t>(n);
        }
    }
    close(fd);
    *size = used;
    return text;
}

// Whether a line of the list names the file dev:ino.
bool list_names(const char *text, size_t size, dev_t dev, ino_t ino) {
    char line[512];
    size_t used = 0;
    for (size_t i = 0; i < size; ++i) {
        if (text[i] != '\n') {
            if (used + 1 < sizeof line) line[used++] = text[i];
            continue;
        }
        line[used] = '\0';
        if (line_names(line, dev, ino)) return true;
        used = 0;
    }
    return false;
}

// Whether any process holds or waits for a lock on the file dev:ino.
// The kernel makes the list a page at a time, and locks that others take
// or release between pages shift the rest: an entry can be skipped by one
// read (a few reads in a thousand while others keep changing theirs). So a
// read that finds the file is believed at once; one that does not is
// believed when the next read gives the same bytes (nothing moved), or
// after four reads that all miss it. When the list cannot be read, the
// answer is yes: nothing is removed on a guess.
bool locked(dev_t dev, ino_t ino) {
    constexpr int kReads = 4;
    char *previous = nullptr;
    size_t previous_size = 0;
    bool held = false;
    for (int i = 0; i < kReads; ++i) {
        size_t size = 0;
        char *text = read_lock_list(&size);
        held = text == nullptr || list_names(text, size, dev, ino);
        const bool steady = !held && previous != nullptr &&
                            size == previous_size &&
                            memcmp(text, previous, size) == 0;
        free(previous);
        previous = text;
        previous_size = size;
        if (held || steady) break;
    }
    free(previous);
    return held;
}

void add(Inspection *out, Problem problem, const char *member, bool held) {
    if (out->count < kMaxFindings) {
        out->findings[out->count++] = Finding{problem, member, held};
    }
}

// Whether names other than ".", "..", ".lock", ".body" and ".index" stand
// in the directory. An unreadable directory counts as holding others.
bool holds_others(const char *os_dir) {
    DIR *dir = qor::host::retry_eintr([&] { return opendir(os_dir); });
    if (dir == nullptr) return true;
    bool others = false;
    for (;;) {
        errno = 0;
        const dirent *e = readdir(dir);
        if (e == nullptr) {
            if (errno != 0) others = true;
            break;
        }
        const char *n = e->d_name;
        if (strcmp(n, ".") == 0 || strcmp(n, "..") == 0) continue;
        // "dbi.lock" counts as another entry: the library never removes
        // it, so an object holding one is never removed as a whole.
        bool member = false;
        for (const char *m : kMembers) member |= strcmp(n, m) == 0;
        if (!member) {
            others = true;
            break;
        }
    }
    closedir(dir);
    return others;
}

int inspect(const char *path, unsigned int expected, const char *reference,
            Inspection *out) {
    *out = Inspection{expected, 0, {}, false};
    ObjectPaths paths = object_paths(path);
    const char *os = object_os(&paths);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    struct stat st;
    if (qor::host::retry_eintr([&] { return stat(os, &st); }) != 0) {
        if (errno == ENOENT) return QOR_E_MISSING;
        return qor::host::record_errno(os, QOR_CTX_FIND_TYPE);
    }
    const bool is_dir = S_ISDIR(st.st_mode);
    if ((expected == QOR_PLAIN_FILE) == is_dir) {
        add(out, Problem::wrong_kind, "", false);
        return 0;
    }
    if (!is_dir) return 0;
    ObjectPaths ref = object_paths(reference);
    int present = 0;
    bool lock_present = false;
    bool lock_held = false;
    for (int i = 0; i < 3; ++i) {
        const char *member = kMembers[i];
        const char *mos = member_os(&paths, member);
        if (mos == nullptr) return QOR_E_UNTRANSLATABLE;
        struct stat ms;
        if (qor::host::retry_eintr([&] { return lstat(mos, &ms); }) != 0) {
            if (errno != ENOENT) return qor::host::record_errno(mos, QOR_CTX_FIND_TYPE);
            if (has_member(expected, i)) add(out, Problem::missing, member, false);
            continue;
        }
        ++present;
        const bool held = S_ISREG(ms.st_mode) && locked(ms.st_dev, ms.st_ino);
        if (i == 0) {
            lock_present = S_ISREG(ms.st_mode);
            lock_held = held;
        }
        if (!S_ISREG(ms.st_mode)) {
            add(out, Problem::wrong_kind, member, false);
        } else if (!has_member(expected, i)) {
            add(out, Problem::extra, member, held);
        } else if (reference != nullptr) {
            const char *ros = member_os(&ref, member);
            struct stat rs;
            if (ros == nullptr ||
                qor::host::retry_eintr([&] { return stat(ros, &rs); }) != 0 ||
                rs.st_size != ms.st_size) {
                add(out, Problem::differs, member, held);
            }
        }
    }
    if (expected >= QOR_CDIR && lock_present && present == 1) {
        add(out, Problem::stale_lock, kLock, lock_held);
    }
    out->other_entries = holds_others(os);
    return 0;
}

// The member path as a qor path for the removal steps, in the shared
// freestore.
const char *member_qor(const char *path, const char *member) {
    return QOR_SH_cat_strings(path, "/", member, nullptr);
}

// Whether a finding is at a member the expected type has: such a member
// of the wrong kind leaves the object as unfinished as a missing one.
bool needed(const Inspection &found, const Finding &f) {
    for (int i = 0; i < 3; ++i) {
        if (strcmp(f.member, kMembers[i]) == 0) return has_member(found.expected, i);
    }
    return false;
}

int repair(const char *path, const Inspection &found, int *left) {
    *left = 0;
    bool unfinished = false;
    bool held = false;
    for (int i = 0; i < found.count; ++i) {
        const Finding &f = found.findings[i];
        unfinished |= f.problem == Problem::missing ||
                      f.problem == Problem::differs ||
                      f.problem == Problem::stale_lock ||
                      (f.problem == Problem::wrong_kind && needed(found, f));
        held |= f.held;
    }
    int status = 0;
    // Keeps the first real failure; a member already gone is no failure.
    auto failed = [&](int s) {
        if (s == 0 || s == QOR_E_MISSING) return false;
        if (status == 0) status = s;
        return true;
    };
    for (int i = 0; i < found.count; ++i) {
        const Finding &f = found.findings[i];
        const bool removable = f.problem == Problem::wrong_kind ||
                               f.problem == Problem::extra;
        // The object itself of the wrong kind is not debris.
        if (f.held || (removable && f.member[0] == '\0')) {
            ++*left;
            continue;
        }
        if (!removable) continue;
        const char *m = member_qor(path, f.member);
        const char *mos = QOR_SH_qor_to_os(m, 0);
        struct stat st;
        const bool dir = mos != nullptr &&
                         qor::host::retry_eintr(
                             [&] { return lstat(mos, &st); }) == 0 &&
                         S_ISDIR(st.st_mode);
        if (failed(dir ? remove_directory(m) : remove_file(m, true))) ++*left;
    }
    if (!unfinished || status != 0) return status;
    if (held || found.other_entries) {
        // Something lives in it: the members stay, reported as left.
        for (int i = 0; i < found.count; ++i) {
            const Problem p = found.findings[i].problem;
            if (!found.findings[i].held &&
                (p == Problem::missing || p == Problem::differs ||
                 p == Problem::stale_lock ||
                 (p == Problem::wrong_kind &&
                  needed(found, found.findings[i])))) {
                ++*left;
            }
        }
        return 0;
    }
    for (int i = 2; i >= 0; --i) {
        if (failed(remove_file(member_qor(path, kMembers[i]), true))) {
            return status;
        }
    }
    failed(remove_directory(path));
    return status;
}

}  // namespace

int inspect_object(const char *path, unsigned int expected,
                   const char *reference, Inspection *out) {
    if (path == nullptr) return QOR_E_UNTRANSLATABLE;
    return bracketed([&] { return inspect(path, expected, reference, out); });
}

int repair_object(const char *path, const Inspection &found, int *left) {
    if (path == nullptr) return QOR_E_UNTRANSLATABLE;
    return bracketed([&] { return repair(path, found, left); });
}

}  // namespace qor::objects
