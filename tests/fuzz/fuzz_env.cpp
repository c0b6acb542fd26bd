// Fuzzes the path grammar with hostile values of QOR_PATH and QOR_TMP. The
// input is: a flags byte, then QOR_PATH's value, QOR_TMP's value, a qor
// path (which may name "$(QOR_PATH)" or "$(QOR_TMP)") and a prefix,
// separated by "\n". Each input sets or unsets the two variables and runs
// the translations of the path, the temporary directory and temporary
// names, owned and shared forms side by side; with a flag set, QOR_TMP
// points into a scratch directory and a temporary object is really made
// there. Checked: both forms agree, the temporary directory is the
// conversion of QOR_TMP's value (or of "/tmp"), a made object lies inside
// the temporary directory and is a new file or directory of mode 0600 or
// 0700, and the shared freestore is left where it was. A violation aborts.

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "qor/foundation.h"
#include "tests/fuzz/input_lines.h"
#include "tests/fuzz/quiet_messages.h"
#include "qor/memory.h"
#include "qor/paths.h"

namespace {

std::string g_scratch;

int remove_entry(const char *path, const struct stat *, int flag,
                 struct FTW *) {
    return flag == FTW_DP ? rmdir(path) : unlink(path);
}

void check(bool ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "violated: %s\n", what);
        abort();
    }
}

// Null-safe equality of a plain result and a shared one; frees the plain.
void same(char *plain, const char *shared, const char *what) {
    const bool eq = (plain == nullptr && shared == nullptr) ||
                    (plain != nullptr && shared != nullptr &&
                     strcmp(plain, shared) == 0);
    if (plain != nullptr) QOR_free(plain);  // freeing null is fatal
    check(eq, what);
}

std::string part(const std::vector<std::string> &parts, size_t i) {
    return i < parts.size() ? parts[i] : std::string();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char tmpl[] = "/tmp/qor-fuzz-env-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    g_scratch = tmpl;
    setenv("QOR_ROOT", "/opt/q", 1);
    setenv("HOME", "/home/u", 1);
    fuzz_support::quiet_messages();
    atexit([] { rmdir(g_scratch.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const uint8_t flags = data[0];
    const std::vector<std::string> parts =
        fuzz_support::input_lines(data + 1, size - 1);
    const std::string search = part(parts, 0);
    std::string tmp = part(parts, 1);
    const std::string path = part(parts, 2);
    const std::string prefix = part(parts, 3);
    const bool make = (flags & 0x04) != 0;
    if (make) {
        // Only below the scratch directory, never "..": made objects stay
        // where the target can clear them. No "@" or "$" either: a
        // component starting with "@" is a host path of its own in the
        // grammar, so a QOR_TMP holding one names another directory (see
        // docs/hardening.md), and "$(" would read a variable.
        std::string tail;
        for (char c : tmp) {
            if (c == '/' || c == '.' || c == '@' || c == '$') continue;
            tail += c;
        }
        tmp = g_scratch + (tail.empty() ? "" : "/" + tail.substr(0, 40));
        mkdir(tmp.c_str(), 0700);
    }
    if (flags & 0x01) {
        setenv("QOR_PATH", search.c_str(), 1);
    } else {
        unsetenv("QOR_PATH");
    }
    if ((flags & 0x02) || make) {
        setenv("QOR_TMP", tmp.c_str(), 1);
    } else {
        unsetenv("QOR_TMP");
    }

    QOR_FS_mark mark;
    QOR_FS_save(&QOR_SH_fs_allocator, &mark);
    QOR_FS_malloc(&QOR_SH_fs_allocator, 8);
    const QOR_FS_chunk *chunk = QOR_SH_fs_allocator.current_chunk;
    const uint32_t used = chunk->used;
    {
        QOR_FS_mark inner;
        QOR_FS_save(&QOR_SH_fs_allocator, &inner);
        same(QOR_qor_to_os(path.c_str(), (flags >> 6) & 1),
             QOR_SH_qor_to_os(path.c_str(), (flags >> 6) & 1), "qor_to_os");
        same(QOR_qor_to_os_dir(path.c_str()),
             QOR_SH_qor_to_os_dir(path.c_str()), "qor_to_os_dir");
        same(QOR_qor_to_absolute_qor(path.c_str()),
             QOR_SH_qor_to_absolute_qor(path.c_str()), "absolute");
        char *dir = QOR_temporary_directory();
        char *dir_qor = dir != nullptr ? QOR_copy_string(dir) : nullptr;
        same(QOR_os_to_qor((flags & 0x02) || make ? tmp.c_str() : "/tmp"),
             dir, "temporary directory is the conversion of QOR_TMP");
        same(dir, QOR_SH_temporary_directory(), "temporary directory");
        const int is_dir = (flags >> 3) & 1;
        const char *suffix = (flags & 0x10) ? "tmp" : nullptr;
        char *name = QOR_temporary_object_name(prefix.c_str(), is_dir, suffix);
        char *sh_name =
            QOR_SH_temporary_object_name(prefix.c_str(), is_dir, suffix);
        same(name, sh_name, "temporary object name");
        if (make) {
            char *made = nullptr;
            int fd = -1;
            const int status = QOR_create_temporary_object(
                prefix.c_str(), is_dir, suffix, &made, &fd);
            check((status == 0) == (made != nullptr && fd >= 0),
                  "a made object comes with its path and descriptor");
            if (status == 0) {
                // Inside the directory QOR_TMP names as the grammar reads
                // it (a component whose second character is ":" counts as
                // "." there, so that may be a parent of the text).
                char *os = QOR_qor_to_os(made, 0);
                char *dir_os = QOR_qor_to_os_dir(dir_qor);
                check(os != nullptr && dir_os != nullptr &&
                          strncmp(os, dir_os, strlen(dir_os)) == 0 &&
                          strchr(os + strlen(dir_os) + 1, '/') == nullptr &&
                          strncmp(dir_os, g_scratch.c_str(),
                                  g_scratch.size()) == 0,
                      "made inside the temporary directory");
                QOR_free(dir_os);
                struct stat st;
                check(fstat(fd, &st) == 0 &&
                          (st.st_mode & 07777) == (is_dir ? 0700u : 0600u) &&
                          S_ISDIR(st.st_mode) == (is_dir != 0),
                      "a new object of the right kind and mode");
                close(fd);
                if (is_dir) {
                    rmdir(os);
                } else {
                    unlink(os);
                }
                if (os != nullptr) QOR_free(os);
                QOR_free(made);
            }
        }
        if (dir_qor != nullptr) QOR_free(dir_qor);
        QOR_FS_restore(&QOR_SH_fs_allocator, &inner);
    }
    check(QOR_SH_fs_allocator.current_chunk == chunk && chunk->used == used,
          "shared freestore not restored");
    QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
    if (make) {
        // Whatever the tail named, the scratch directory is emptied again.
        nftw(g_scratch.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
        mkdir(g_scratch.c_str(), 0700);
    }
    return 0;
}
