// qor commands and tour step for directories: listing one, copying a
// tree, holding a directory lock while a command runs.

#include <errno.h>
#include <qor/qor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "commands.h"

namespace qor_tool {
namespace {

// Failures the library recorded (messages of type 71) while a copy ran:
// the copy goes on past a file that cannot be copied, and the command
// must still say that the copy is not complete. The messages go on to
// whatever output callback was registered.
struct Counter {
    QOR_registered_callback forward;
    int recorded;
};
constinit Counter counter{};

void counting_output(void *widget, void *, void *call) {
    auto *record = static_cast<QOR_output_message_record *>(call);
    if (record->type == QOR_MSG_RECORDED) ++counter.recorded;
    if (counter.forward.procedure != nullptr) {
        counter.forward.procedure(widget, counter.forward.client_data, call);
    } else {
        record->result = -1;  // the library prints its fallback
    }
}

// The status of listing the directory, told before the cursor's fatal
// error could: 0 when it can be listed.
int listable(const char *path) {
    QOR_link_listing *links = nullptr;
    const int s = QOR_open_links(path, QOR_PLAIN_DIRECTORY, &links);
    if (s != 0) return s;
    return QOR_close_links(links);
}

// ---- lsdir -----------------------------------------------------------------------

struct Listing {
    const char *path;
    std::vector<std::string> *names;
};

void list_into(void *arg) {
    auto *l = static_cast<Listing *>(arg);
    QOR_dir_cursor *dir = QOR_open_dir(l->path);
    for (char *name; (name = QOR_dir_next(dir)) != nullptr;) {
        l->names->emplace_back(name);
        QOR_free(name);
    }
    QOR_close_dir(dir);
}

int cmd_lsdir(Invocation &in) {
    const char *path = in.operands[0];
    const int s = listable(path);
    if (s != 0) return fail_status(in, "cannot list", path, s);
    std::vector<std::string> names;
    Listing listing{path, &names};
    if (!run_guarded(list_into, &listing)) {
        fprintf(stderr, "qor lsdir: listing broken off: %s\n", path);
        return kExitFailed;
    }
    if (in.has('s')) std::sort(names.begin(), names.end());
    for (const auto &n : names) printf("%s\n", n.c_str());
    verbose(in, "%zu entries\n", names.size());
    return kExitOk;
}

// ---- cpdir -----------------------------------------------------------------------

struct Copying {
    const char *source;
    const char *target;
};

void copy_tree(void *arg) {
    auto *c = static_cast<Copying *>(arg);
    QOR_copy_dir(c->source, c->target);
}

int cmd_cpdir(Invocation &in) {
    const char *source = in.operands[0];
    const char *target = in.operands[1];
    if (in.has('u')) QOR_lock_on_copy = 0;
    const int s = listable(source);
    if (s != 0) return fail_status(in, "cannot copy", source, s);
    if (QOR_SH_qor_to_os(target, 0) == nullptr) {
        return fail_status(in, "cannot copy", target, QOR_E_UNTRANSLATABLE);
    }
    counter.forward = QOR_registered_callbacks[QOR_SLOT_OUTPUT_MESSAGE];
    counter.recorded = 0;
    QOR_registered_callbacks[QOR_SLOT_OUTPUT_MESSAGE] = {counting_output,
                                                         nullptr};
    Copying copying{source, target};
    const bool whole = run_guarded(copy_tree, &copying);
    QOR_registered_callbacks[QOR_SLOT_OUTPUT_MESSAGE] = counter.forward;
    if (!whole) {
        fprintf(stderr, "qor cpdir: copy broken off: %s\n", target);
        return kExitFailed;
    }
    if (counter.recorded > 0) {
        fprintf(stderr, "qor cpdir: %d %s not copied: %s\n", counter.recorded,
                counter.recorded == 1 ? "entry" : "entries", target);
        return kExitFailed;
    }
    verbose(in, "'%s' -> '%s'\n", source, target);
    return kExitOk;
}

// ---- lockdir ---------------------------------------------------------------------

struct Locking {
    const char *path;
    int mode;
    QOR_file_handle *handle;
    int granted;
};

void lock_dir(void *arg) {
    auto *l = static_cast<Locking *>(arg);
    l->granted = QOR_lock_dir(l->path, l->mode, &l->handle);
}

int cmd_lockdir(Invocation &in) {
    const char *path = in.operands[0];
    char **command = in.operands + 1;
    // As for qor lock: --exclusive wins over --shared.
    const int mode =
        in.has('s') && !in.has('x') ? QOR_DIR_SHARED : QOR_DIR_EXCLUSIVE;
    // The lock file is part of the directory: the library takes a missing
    // one for a broken installation. Say so plainly instead.
    const std::string lock_file = std::string(path) + "/.lock";
    const char *os = QOR_SH_qor_to_os(lock_file.c_str(), 0);
    if (os == nullptr) {
        return fail_status(in, "cannot lock", path, QOR_E_UNTRANSLATABLE);
    }
    struct stat st;
    if (lstat(os, &st) != 0) return fail_errno(in, "cannot lock", os, errno);
    Locking locking{path, mode, nullptr, 0};
    if (!run_guarded(lock_dir, &locking)) {
        fprintf(stderr, "qor lockdir: cannot lock: %s\n", os);
        return kExitFailed;
    }
    if (!locking.granted) {
        return fail_status(in, "cannot lock", path, QOR_E_LOCKED);
    }
    if (in.has('d')) {
        // Taken exclusive, then let down to shared: readers come in, no
        // other writer does.
        if (QOR_downgrade_dir_lock(locking.handle) != 1) {
            QOR_unlock_dir(locking.handle);
            return fail_status(in, "cannot downgrade", path, QOR_E_LOCKED);
        }
    }
    verbose(in, "locked '%s' (%s)\n", path,
            locking.handle->lock_mode == QOR_DIR_SHARED ? "shared"
                                                        : "exclusive");
    const int code = run_command(in, command);
    QOR_unlock_dir(locking.handle);
    return code;
}

const Option kLsdirOptions[] = {
    {'s', "sort", nullptr, "sort the names (byte order)"},
    {}};

const Option kCpdirOptions[] = {
    {'u', "unlocked", nullptr,
     "copy files without taking record locks on them"},
    {}};

const Option kLockdirOptions[] = {
    {'s', "shared", nullptr, "a shared lock"},
    {'x', "exclusive", nullptr, "an exclusive lock (the default)"},
    {'d', "downgrade", nullptr,
     "take the lock exclusive, then let it down to shared before running"},
    {}};

// ---- Tour ------------------------------------------------------------------------

void print_listing(const char *path) {
    std::vector<std::string> names;
    Listing listing{path, &names};
    list_into(&listing);
    std::sort(names.begin(), names.end());
    for (const auto &n : names) printf("    %s\n", n.c_str());
}

}  // namespace

const Command dirs_commands[] = {
    {"lsdir", cmd_lsdir, "[-s] DIRECTORY", "list the entries of a directory",
     "Writes the name of each entry of DIRECTORY (every one but \".\" and "
     "\"..\") on a\nline of its own, in the order the host directory gives "
     "them.",
     kLsdirOptions, 1, 1},
    {"cpdir", cmd_cpdir, "[-u] SOURCE TARGET", "copy a directory tree",
     "Copies the tree below SOURCE into TARGET (made when missing), depth "
     "first:\nsymbolic links are made again with the same text and never "
     "followed,\ndirectories are copied recursively, everything else as a "
     "plain file. A file\nthat cannot be copied is reported and left out; "
     "the rest is copied, and the\ncommand ends with status 1.",
     kCpdirOptions, 2, 2},
    {"lockdir", cmd_lockdir, "[OPTION]... DIRECTORY COMMAND [ARGUMENT]...",
     "run a command holding a directory lock",
     "Locks DIRECTORY through its \".lock\" file (a whole-file record lock), "
     "runs\nCOMMAND while holding it, unlocks, and ends with the command's "
     "exit status.\nThe lock is never waited for: when another process holds "
     "a conflicting one,\nqor lockdir ends with status 1 and COMMAND is not "
     "run.",
     kLockdirOptions, 2, -1, 1},
    {}};

int tour_dirs() {
    tour_heading("Directories: listing, copying, locking");
    char *dir = tour_directory("qor-tour-dirs-");
    if (dir == nullptr) return 1;
    const std::string base = dir;
    const std::string src = base + "/src";
    const std::string dst = base + "/copy";
    QOR_create_dir(src.c_str());
    QOR_create_dir((src + "/nested").c_str());
    QOR_create_dir((src + "/nested/deeper").c_str());
    for (const char *f : {"/a.txt", "/nested/b.txt", "/nested/deeper/c.txt"}) {
        QOR_file_handle *h = QOR_create_text_file((src + f).c_str());
        QOR_write_text_string(h, "tour\n");
        QOR_close_text_file(h);
    }
    const bool linked = symlink("nested/b.txt", (src + "/link").c_str()) == 0 &&
                        symlink("nowhere", (src + "/dangling").c_str()) == 0;
    printf("  a tree at %s; its entries:\n", src.c_str());
    print_listing(src.c_str());
    QOR_copy_dir(src.c_str(), dst.c_str());
    printf("  copied to %s; its entries:\n", dst.c_str());
    print_listing(dst.c_str());
    char *text = QOR_read_symlink((dst + "/dangling").c_str());
    printf("  the dangling link was made again: -> %s\n", text ? text : "?");
    const bool copied = linked && text != nullptr &&
                        strcmp(text, "nowhere") == 0;
    QOR_free(text);

    QOR_file_handle *h = QOR_create_binary_file((dst + "/.lock").c_str());
    QOR_close_binary_file(h);
    QOR_file_handle *lock = nullptr;
    const int exclusive = QOR_lock_dir(dst.c_str(), QOR_DIR_EXCLUSIVE, &lock);
    printf("  exclusive lock on the copy: %s\n",
           exclusive ? "granted" : "refused");
    const int down = exclusive ? QOR_downgrade_dir_lock(lock) : 0;
    printf("  downgraded to shared: %s\n", down ? "yes" : "no");
    if (exclusive) QOR_unlock_dir(lock);
    printf("  unlocked\n");
    remove_tree(dir);
    QOR_free(dir);
    return copied && exclusive && down ? 0 : 1;
}

}  // namespace qor_tool
