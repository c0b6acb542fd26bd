// The qor command "dir" and the tour step for directories: listing one
// (dir ls), copying a tree (dir cp), holding a directory lock while a
// command runs (dir lock).

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

// --shared is long only: -s means --sort.
constexpr char kSharedLetter = 'S';

// The status of listing the directory, told before the cursor's fatal
// error could: 0 when it can be listed.
int listable(const char *path) {
    QOR_link_listing *links = nullptr;
    const int s = QOR_open_links(path, QOR_PLAIN_DIRECTORY, &links);
    if (s != 0) return s;
    return QOR_close_links(links);
}

// ---- dir ls ----------------------------------------------------------------------

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

int dir_ls(Invocation &in) {
    const char *path = in.operands[1];
    const int s = listable(path);
    if (s != 0) return fail_status(in, "cannot list", path, s);
    std::vector<std::string> names;
    Listing listing{path, &names};
    if (!run_guarded(list_into, &listing)) {
        fprintf(stderr, "qor %s: listing broken off: %s\n", in.command->name,
                path);
        return kExitFailed;
    }
    if (in.has('s')) std::sort(names.begin(), names.end());
    for (const auto &n : names) printf("%s\n", n.c_str());
    verbose(in, "%zu entries\n", names.size());
    return kExitOk;
}

// ---- dir cp ----------------------------------------------------------------------

struct Copying {
    const char *source;
    const char *target;
};

void copy_tree(void *arg) {
    auto *c = static_cast<Copying *>(arg);
    QOR_copy_dir(c->source, c->target);
}

int dir_cp(Invocation &in) {
    const char *source = in.operands[1];
    const char *target = in.operands[2];
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
        fprintf(stderr, "qor %s: copy broken off: %s\n", in.command->name,
                target);
        return kExitFailed;
    }
    if (counter.recorded > 0) {
        fprintf(stderr, "qor %s: %d %s not copied: %s\n", in.command->name,
                counter.recorded,
                counter.recorded == 1 ? "entry" : "entries", target);
        return kExitFailed;
    }
    verbose(in, "'%s' -> '%s'\n", source, target);
    return kExitOk;
}

// ---- dir lock --------------------------------------------------------------------

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

int dir_lock(Invocation &in) {
    const char *path = in.operands[1];
    char **command = in.operands + 2;
    // As for qor lock: --exclusive wins over --shared.
    const int mode = in.has(kSharedLetter) && !in.has('x') ? QOR_DIR_SHARED
                                                           : QOR_DIR_EXCLUSIVE;
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
        fprintf(stderr, "qor %s: cannot lock: %s\n", in.command->name, os);
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

// ---- dir: the action, then its operands ----------------------------------------

// Every action's options are parsed together (one table row); an action
// refuses those of the others rather than ignoring them: "dir lock -s" is
// an error, not an exclusive lock (-s is --sort; --shared has no letter).
const Option kDirOptions[] = {
    {'s', "sort", nullptr, "ls: sort the names (byte order)"},
    {'u', "unlocked", nullptr,
     "cp: copy files without taking record locks on them"},
    {kSharedLetter, "shared", nullptr, "lock: a shared lock", true},
    {'x', "exclusive", nullptr, "lock: an exclusive lock (the default)"},
    {'d', "downgrade", nullptr,
     "lock: take it exclusive, then down to shared"},
    {}};

struct Action {
    const char *name;
    int (*run)(Invocation &);
    const char *letters;  // the options it takes
    int operands;         // after the action's name
    bool more;            // and any number after those (a command line)
};

constexpr Action kActions[] = {
    {"ls", dir_ls, "s", 1, false},
    {"cp", dir_cp, "u", 2, false},
    {"lock", dir_lock, "Sxd", 2, true},
};

int cmd_dir(Invocation &in) {
    const char *name = in.operands[0];
    const Action *action = nullptr;
    for (const Action &a : kActions) {
        if (strcmp(name, a.name) == 0) action = &a;
    }
    if (action == nullptr) {
        return usage_error(in, "unknown action '%s' (ls, cp or lock)", name);
    }
    for (const Option *o = kDirOptions; o->letter != 0; ++o) {
        if (!in.has(o->letter) || strchr(action->letters, o->letter) != nullptr) {
            continue;
        }
        if (o->long_only) {
            return usage_error(in, "option --%s does not apply to '%s'",
                               o->long_name, name);
        }
        return usage_error(in, "option --%s (-%c) does not apply to '%s'",
                           o->long_name, o->letter, name);
    }
    const int given = in.count - 1;
    if (given < action->operands) {
        const char *last = in.operands[in.count - 1];
        return action->more && given == action->operands - 1
                   ? usage_error(in, "missing command after '%s'", last)
                   : usage_error(in, "missing operand after '%s'", last);
    }
    if (!action->more && given > action->operands) {
        return usage_error(in, "extra operand '%s'",
                           in.operands[action->operands + 1]);
    }
    return action->run(in);
}

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
    {"dir", cmd_dir,
     "ls [-s|--sort] DIRECTORY\n"
     "cp [-u|--unlocked] SOURCE TARGET\n"
     "lock [--shared|-x/--exclusive|-d/--downgrade] DIRECTORY COMMAND "
     "[ARGUMENT]...",
     "list, copy or lock a directory",
     "ls: writes the name of each entry of DIRECTORY (every one but \".\" "
     "and \"..\")\non a line of its own, in the order the host directory "
     "gives them.\n"
     "\n"
     "cp: copies the tree below SOURCE into TARGET (made when missing), "
     "depth\nfirst: symbolic links are made again with the same text and "
     "never followed,\ndirectories are copied recursively, everything else "
     "as a plain file. A file\nthat cannot be copied is reported and left "
     "out; the rest is copied, and the\ncommand ends with status 1.\n"
     "\n"
     "lock: locks DIRECTORY through its \".lock\" file (a whole-file record "
     "lock),\nruns COMMAND while holding it, unlocks, and ends with the "
     "command's exit\nstatus. The lock is never waited for: when another "
     "process holds a\nconflicting one, qor dir lock ends with status 1 and "
     "COMMAND is not run.\n"
     "\n"
     "Each option belongs to one action; options end after DIRECTORY (or "
     "SOURCE),\nso that COMMAND keeps its own.",
     kDirOptions, 1, -1, 2},
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
