// Environment variables as owned strings, the current and temporary
// directories as qor paths, and names for new temporary objects.
//
// Temporary names are only proposals: a name is free at the moment it is
// tested and nothing is created, so the caller makes the object itself.

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "foundation/internal.h"
#include "qor/paths.h"

namespace {

// Letters tried in turn in a temporary name.
constexpr char kFirstLetter = 'a';
constexpr char kLastLetter = 'z';

// Where the letter and the process id's digits go.
constexpr const char kTemplate[] = "XXXXXX";

QOR_FS_allocator *shared() { return &QOR_SH_fs_allocator; }

// Writes the process id's decimal digits over the run of "X" that ends just
// before the last "." of the candidate, least significant first, and
// returns where the letter goes: the leftmost "X" of that run (so only the
// five lowest digits of the id remain), or the "." itself when no "X"
// stands before it.
char *stamp_process_id(char *candidate) {
    char *dot = strrchr(candidate, '.');
    if (dot == nullptr) dot = candidate + strlen(candidate);
    pid_t id = getpid();
    char *p = dot;
    while (p > candidate && p[-1] == 'X') {
        --p;
        *p = static_cast<char>('0' + id % 10);
        id /= 10;
    }
    return p;
}

// QOR_TMP (relative values taken against the current directory) or
// "/tmp", translated by the given form of QOR_os_to_qor.
char *temporary_directory(char *(*os_to_qor)(const char *)) {
    char *tmp = QOR_getenv("QOR_TMP");
    if (tmp == nullptr) return os_to_qor("/tmp");
    char *result = os_to_qor(tmp);
    QOR_free(tmp);
    return result;
}

}  // namespace

extern "C" {

char *QOR_getenv(const char *name) {
    if (name == nullptr) return nullptr;
    const char *value = getenv(name);
    return value != nullptr ? QOR_copy_string(value) : nullptr;
}

char *QOR_SH_getenv(const char *name) {
    if (name == nullptr) return nullptr;
    const char *value = getenv(name);
    return value != nullptr ? QOR_FS_copy_string(shared(), value) : nullptr;
}

// LeakSanitizer's hook, present only in sanitizer builds of a program.
extern "C" void __lsan_ignore_object(const void *p) __attribute__((weak));

int QOR_putenv(const char *name, const char *value) {
    if (name == nullptr || value == nullptr) {
        return QOR_record_os_error(EINVAL, name, QOR_CTX_SET_ENVIRONMENT);
    }
    // The string becomes part of the environment and is never freed: a
    // caller may still hold what getenv returned from an earlier entry for
    // the same name, so a replaced entry stays allocated on purpose.
    char *entry = QOR_cat_strings(name, "=", value, nullptr);
    if (__lsan_ignore_object != nullptr) __lsan_ignore_object(entry);
    if (putenv(entry) != 0) {
        QOR_free(entry);
        QOR_fatal_error(qor::kSet, 11, nullptr, QOR_E_NO_MEMORY);
        return QOR_E_NO_MEMORY;
    }
    return QOR_OK;
}

char *QOR_current_directory(void) { return QOR_qor_to_absolute_qor(".0"); }

char *QOR_SH_current_directory(void) {
    return QOR_SH_qor_to_absolute_qor(".0");
}

char *QOR_temporary_directory(void) {
    return temporary_directory(QOR_os_to_qor);
}

char *QOR_SH_temporary_directory(void) {
    return temporary_directory(QOR_SH_os_to_qor);
}

char *QOR_SH_temporary_object_name(const char *prefix, int is_directory,
                                   const char *suffix) {
    QOR_FS_mark outer;
    QOR_FS_save(shared(), &outer);
    const char *dir = QOR_SH_temporary_directory();
    if (dir == nullptr) {
        QOR_FS_restore(shared(), &outer);
        return nullptr;
    }
    // A null suffix ends the list early and leaves the leaf ending in ".".
    const char *leaf =
        prefix != nullptr
            ? QOR_SH_cat_strings(prefix, kTemplate, ".", suffix, nullptr)
            : QOR_SH_cat_strings(kTemplate, ".", suffix, nullptr);
    char *candidate = QOR_SH_composite_path(dir, leaf);
    if (candidate == nullptr) {
        QOR_FS_restore(shared(), &outer);
        return nullptr;
    }
    char *letter = stamp_process_id(candidate);

    QOR_FS_mark inner;
    QOR_FS_save(shared(), &inner);
    for (char c = kFirstLetter; c <= kLastLetter; ++c) {
        *letter = c;
        const char *os = is_directory != 0 ? QOR_SH_qor_to_os_dir(candidate)
                                           : QOR_SH_qor_to_os(candidate, 0);
        if (os == nullptr) break;
        if (access(os, F_OK) != 0) {
            // Free (or not testable, which counts the same). Keep only the
            // name itself in the freestore.
            char found[QOR_PATH_MAX + 1];
            strcpy(found, candidate);
            QOR_FS_restore(shared(), &outer);
            return QOR_FS_copy_string(shared(), found);
        }
        QOR_FS_restore(shared(), &inner);
    }
    QOR_FS_restore(shared(), &inner);
    QOR_FS_restore(shared(), &outer);
    return nullptr;
}

char *QOR_temporary_object_name(const char *prefix, int is_directory,
                                const char *suffix) {
    QOR_FS_mark mark;
    QOR_FS_save(shared(), &mark);
    const char *name =
        QOR_SH_temporary_object_name(prefix, is_directory, suffix);
    char *result = name != nullptr ? QOR_copy_string(name) : nullptr;
    QOR_FS_restore(shared(), &mark);
    return result;
}

}  // extern "C"
