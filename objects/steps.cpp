// The private steps on single host files and directories (see steps.h):
// the make and remove steps that creation, copying, moving and deletion of
// objects are built from.

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/host.h"
#include "foundation/internal.h"
#include "objects/object_paths.h"
#include "objects/steps.h"
#include "qor/objects.h"

namespace qor::objects {

namespace {

// Runs step(os_path) on the translation of qor_path inside a bracket of the
// shared freestore: the steps' common frame.
template <class Translate, class Step>
int on_os_path(const char *qor_path, Translate translate, Step step) {
    if (qor_path == nullptr) return QOR_E_UNTRANSLATABLE;
    QOR_FS_mark mark;
    QOR_FS_save(shared(), &mark);
    const char *os = translate(qor_path);
    const int status = os != nullptr ? step(os) : QOR_E_UNTRANSLATABLE;
    QOR_FS_restore(shared(), &mark);
    return status;
}

char *os_file(const char *p) { return QOR_SH_qor_to_os(p, 0); }
char *os_made_dir(const char *p) { return QOR_SH_qor_to_os(p, 1); }
char *os_dir(const char *p) { return QOR_SH_qor_to_os_dir(p); }

// A make step's failure: an existing entry is an expected outcome.
int make_failed(const char *os, int context) {
    if (errno == EEXIST) return QOR_E_EXISTS;
    return qor::host::record_errno(os, context);
}

}  // namespace

int make_directory(const char *qor_path) {
    return on_os_path(qor_path, os_made_dir, [](const char *os) {
        // Interruptions are not retried here; a full disc is, as long as
        // the application's handler asks for it.
        for (;;) {
            if (mkdir(os, 0777) == 0) return 0;
            if (errno != ENOSPC ||
                QOR_call_disc_full_handler(ENOSPC, os,
                                           QOR_CTX_CREATE_DIRECTORY) != 0) {
                break;
            }
        }
        return make_failed(os, QOR_CTX_CREATE_DIRECTORY);
    });
}

int make_empty_file(const char *qor_path) {
    return on_os_path(qor_path, os_file, [](const char *os) {
        const int fd = qor::host::retry_disc_full(
            [&] {
                return open(os, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW,
                            0777);
            },
            os, QOR_CTX_CREATE_FILE);
        if (fd < 0) return make_failed(os, QOR_CTX_CREATE_FILE);
        if (close(fd) != 0) {
            return qor::host::record_errno(os, QOR_CTX_CREATE_FILE);
        }
        return 0;
    });
}

int remove_file(const char *qor_path, bool quiet) {
    return on_os_path(qor_path, os_file, [quiet](const char *os) {
        if (unlink(os) == 0) return 0;
        if (quiet && errno == ENOENT) return static_cast<int>(QOR_E_MISSING);
        return qor::host::record_errno(os, QOR_CTX_DELETE_FILE);
    });
}

int remove_directory(const char *qor_path) {
    return on_os_path(qor_path, os_dir, [](const char *os) {
        if (rmdir(os) == 0) return 0;
        return qor::host::record_errno(os, QOR_CTX_REMOVE_DIRECTORY);
    });
}

}  // namespace qor::objects
