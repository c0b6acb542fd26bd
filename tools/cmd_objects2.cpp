// qor commands and tour step for whole-object operations and contents:
// copying, moving and removing objects, holding an object lock while a
// command runs, and reading and writing idle blocks.
//
// The library's own messages (a recorded failure, an idle block left
// incomplete) reach standard error through the message catalogue; these
// commands add one line of their own saying what came of the request.

#include <errno.h>
#include <qor/qor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "commands.h"

namespace qor_tool {
namespace {

// ---- cp, mv, rm ------------------------------------------------------------------

// The last component of a path, as it is named inside a directory.
std::string last_component(const char *path) {
    std::string p(path);
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    const size_t slash = p.rfind('/');
    if (slash != std::string::npos) return p.substr(slash + 1);
    return !p.empty() && p[0] == '@' ? p.substr(1) : p;
}

// Whether path names an existing plain directory that is not an object.
bool is_plain_directory(const char *path) {
    unsigned type = 0;
    return QOR_type_of_object(path, &type) == 0 && type == QOR_PLAIN_DIRECTORY;
}

// Where SOURCE... go: a target directory (-t DIR, or the last operand when
// it is a plain directory), or the one TARGET. Usage problems are reported
// here, before anything is done.
struct Destination {
    const char *directory = nullptr;  // copy or move into it
    const char *target = nullptr;     // else the single target
    int sources = 0;                  // the first operands
};

int destination_of(const Invocation &in, Destination *d) {
    if (in.has('t')) {
        if (in.has('T')) {
            return usage_error(in, "cannot combine --target-directory (-t) "
                                   "and --no-target-directory (-T)");
        }
        d->directory = in.value('t');
        d->sources = in.count;
        if (!is_plain_directory(d->directory)) {
            fprintf(stderr, "qor %s: target directory: %s: not a plain "
                            "directory\n", in.command->name, d->directory);
            return kExitFailed;
        }
        return kExitOk;
    }
    if (in.count < 2) {
        return usage_error(in, "missing destination operand after '%s'",
                           in.operands[0]);
    }
    const char *last = in.operands[in.count - 1];
    d->sources = in.count - 1;
    if (!in.has('T') && is_plain_directory(last)) {
        d->directory = last;
        return kExitOk;
    }
    if (in.count > 2) {
        if (in.has('T')) return usage_error(in, "extra operand '%s'", last);
        fprintf(stderr, "qor %s: target: %s: not a plain directory\n",
                in.command->name, last);
        return kExitFailed;
    }
    d->target = last;
    return kExitOk;
}

std::string target_for(const Destination &d, const char *source) {
    if (d.directory == nullptr) return d.target;
    std::string dir(d.directory);
    if (dir.empty() || dir.back() != '/') dir += '/';
    return dir + last_component(source);
}

// Gives the object at path the permission bits of source's top file, as
// cp(1) gives a new file its source's mode.
int copy_permissions(const char *source, const char *path, unsigned type) {
    const int32_t is_dir = type != QOR_PLAIN_FILE;
    uint32_t mode = 0;
    int s = QOR_read_permissions(source, is_dir, &mode);
    if (s == 0) s = QOR_set_permissions(path, is_dir, mode & 07777);
    return s;
}

// Puts the object at from (in a private directory beside target) in
// target's place: a rename for a plain file, the library's move, which
// replaces an existing target object, for the others.
int put_in_place(const char *from, unsigned type, const char *target) {
    if (type == QOR_PLAIN_FILE) {
        char *os_from = QOR_qor_to_os(from, 0);
        char *os_to = QOR_qor_to_os(target, 0);
        const int s = os_from == nullptr || os_to == nullptr
                          ? QOR_E_UNTRANSLATABLE
                      : rename(os_from, os_to) == 0
                          ? 0
                          : QOR_record_os_error(errno, target,
                                                QOR_CTX_MOVE_OBJECT);
        if (os_from != nullptr) QOR_free(os_from);
        if (os_to != nullptr) QOR_free(os_to);
        return s;
    }
    int s = QOR_move_object(from, type, target);
    unsigned still = 0;
    if (s == QOR_E_TARGET_EXISTS) s = 0;
    if (s == 0 && QOR_type_of_object(from, &still) == 0) {
        s = QOR_E_PERMISSION;  // the target may not be replaced
    }
    return s;
}

// Copies one object: into a private directory beside the target first,
// then renamed into place, so that a failed copy leaves an existing target
// as it was and nobody sees half a copy. The directory has a name nobody
// can predict and lets nobody else in, so nothing can be planted at the
// copy's name while it is being made.
int copy_one(const Invocation &in, const char *source, const char *target) {
    unsigned type = 0;
    if (const int r = object_type(in, kTypeLetter, source, &type)) return r;
    char *dir = nullptr;
    int s = private_directory_beside(target, &dir);
    if (s != 0) return fail_status(in, "cannot copy", source, s);
    const std::string temporary = std::string(dir) + "/copy";
    s = QOR_copy_object(source, type, temporary.c_str());
    if (s == QOR_E_EXISTS) s = 0;
    if (s == 0) s = copy_permissions(source, temporary.c_str(), type);
    if (s == 0) s = put_in_place(temporary.c_str(), type, target);
    if (s != 0) {
        unsigned left = 0;
        if (QOR_type_of_object(temporary.c_str(), &left) == 0) {
            QOR_unchecked_delete_object(temporary.c_str(), type);
        }
    }
    char *os_dir = QOR_qor_to_os_dir(dir);
    if (os_dir != nullptr) {
        rmdir(os_dir);
        QOR_free(os_dir);
    }
    QOR_free(dir);
    if (s != 0) return fail_status(in, "cannot copy", source, s);
    verbose(in, "'%s' -> '%s'\n", source, target);
    return kExitOk;
}

// cp and mv alike: every SOURCE to its target, each failure reported and
// the others still done.
int each_source(Invocation &in,
                int (*one)(const Invocation &, const char *, const char *)) {
    if (const int r = check_type_option(in)) return r;
    Destination d;
    if (const int r = destination_of(in, &d)) return r;
    int result = kExitOk;
    for (int i = 0; i < d.sources; ++i) {
        const std::string target = target_for(d, in.operands[i]);
        if (one(in, in.operands[i], target.c_str()) != kExitOk) {
            result = kExitFailed;
        }
    }
    return result;
}

int cmd_cp(Invocation &in) { return each_source(in, copy_one); }

int move_one(const Invocation &in, const char *source, const char *target) {
    unsigned type = 0;
    if (const int r = object_type(in, kTypeLetter, source, &type)) return r;
    const int s = QOR_move_object(source, type, target);
    if (s != 0 && s != QOR_E_TARGET_EXISTS) {
        return fail_status(in, "cannot move", source, s);
    }
    // A target that may not be removed makes the library answer 0 without
    // moving anything (after its message): the source is still there.
    unsigned still = 0;
    if (s == 0 && type != QOR_PLAIN_FILE &&
        QOR_type_of_object(source, &still) == 0) {
        fprintf(stderr, "qor mv: cannot move: %s: the target %s may not be "
                        "replaced\n", source, target);
        return kExitFailed;
    }
    verbose(in, "renamed '%s' -> '%s'\n", source, target);
    return kExitOk;
}

int cmd_mv(Invocation &in) { return each_source(in, move_one); }

int cmd_rm(Invocation &in) {
    if (const int r = check_type_option(in)) return r;
    int result = kExitOk;
    for (int i = 0; i < in.count; ++i) {
        const char *path = in.operands[i];
        unsigned type = 0;
        if (const int r = object_type(in, kTypeLetter, path, &type)) {
            if (r == kExitUsage) return r;
            result = r;
            continue;
        }
        const int s = in.has('u') ? QOR_unchecked_delete_object(path, type)
                                  : QOR_delete_object(path, type);
        if (s != 0) {
            result = fail_status(in, "cannot remove", path, s);
        } else {
            verbose(in, "removed '%s'\n", path);
        }
    }
    return result;
}

// ---- lock ------------------------------------------------------------------------

// A plain file (or a name not yet taken) is locked as flock(1) locks it: a
// whole-file lock on the file itself, made if missing.
int lock_plain_file(const Invocation &in, const char *path, char **command) {
    char *host = QOR_qor_to_os(path, 0);
    if (host == nullptr) {
        return fail_status(in, "cannot lock", path, QOR_E_UNTRANSLATABLE);
    }
    int fd;
    do {
        fd = open(host, O_RDONLY | O_CREAT | O_NOCTTY | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0 && (errno == EISDIR || errno == EACCES)) {
        fd = open(host, O_RDONLY | O_NOCTTY | O_CLOEXEC);
    }
    QOR_free(host);
    if (fd < 0) return fail_errno(in, "cannot open", path, errno);
    const int operation = (in.has('s') && !in.has('x') ? LOCK_SH : LOCK_EX) |
                          (in.has('n') ? LOCK_NB : 0);
    int r;
    while ((r = flock(fd, operation)) != 0 && errno == EINTR) {
    }
    if (r != 0) {
        const int error = errno;
        close(fd);
        if (error == EWOULDBLOCK) {
            return fail_status(in, "cannot lock", path, QOR_E_LOCKED);
        }
        return fail_errno(in, "cannot lock", path, error);
    }
    verbose(in, "locked '%s' (%s)\n", path,
            operation & LOCK_SH ? "shared" : "exclusive");
    // The descriptor is close-on-exec: the command does not inherit it, and
    // the lock lasts as long as this process waits for the command.
    const int code = run_command(in, command);
    while ((r = flock(fd, LOCK_UN)) != 0 && errno == EINTR) {
    }
    const int error = errno;
    close(fd);
    if (r != 0) return fail_errno(in, "cannot unlock", path, error);
    return code;
}

int cmd_lock(Invocation &in) {
    const char *path = in.operands[0];
    char **command = in.operands + 1;
    unsigned type = 0;
    if (in.has(kTypeLetter)) {
        if (!type_operand(in, in.value(kTypeLetter), &type)) return kExitUsage;
    } else {
        const int s = QOR_type_of_object(path, &type);
        if (s == QOR_E_MISSING) {
            type = QOR_PLAIN_FILE;
        } else if (s != 0) {
            return fail_status(in, "cannot tell the type", path, s);
        }
    }
    if (type == QOR_PLAIN_FILE) return lock_plain_file(in, path, command);
    const bool shared = in.has('s') && !in.has('x');
    const unsigned request =
        shared ? (in.has('n') ? QOR_LOCK_SHARED : QOR_LOCK_SHARED_WAIT)
               : (in.has('n') ? QOR_LOCK_EXCLUSIVE : QOR_LOCK_EXCLUSIVE_WAIT);
    int s = QOR_lock_object(path, type, request);
    if (s != 0) return fail_status(in, "cannot lock", path, s);
    verbose(in, "locked '%s' (%s)\n", path, shared ? "shared" : "exclusive");
    const int code = run_command(in, command);
    while ((s = QOR_unlock_object(path, type)) == QOR_E_INTERRUPTED) {
    }
    if (s != 0) return fail_status(in, "cannot unlock", path, s);
    return code;
}

// ---- read, write -----------------------------------------------------------------

// Opens the body (or with -i the index) of an idle object.
int open_idle(const Invocation &in, const char *path, unsigned flags,
              unsigned request, QOR_contents_record **rec) {
    if (in.has('c')) flags |= QOR_OPEN_CREATE;
    return in.has('i') ? QOR_open_idle_index(path, flags, request, rec)
                       : QOR_open_contents(path, QOR_IDLE_OBJECT, flags,
                                           request, rec);
}

constexpr long long kMaxBlock = 1 << 30;

int cmd_read(Invocation &in) {
    const char *path = in.operands[0];
    long long offset = 0, length = 0;
    if (!number_operand(in, in.operands[1], "OFFSET", 0, INT64_MAX, &offset) ||
        !number_operand(in, in.operands[2], "LENGTH", 0, kMaxBlock, &length)) {
        return kExitUsage;
    }
    QOR_contents_record *rec = nullptr;
    int s = open_idle(in, path, QOR_OPEN_READ, QOR_LOCK_SHARED_WAIT, &rec);
    if (s != 0) return fail_status(in, "cannot open", path, s);
    std::string block(static_cast<size_t>(length), '\0');
    s = QOR_read_idle_block(rec, offset, block.data(), static_cast<int>(length));
    QOR_close_contents(rec);
    if (s != 0) return fail_status(in, "cannot read", path, s);
    fwrite(block.data(), 1, block.size(), stdout);
    return kExitOk;
}

int cmd_write(Invocation &in) {
    const char *path = in.operands[0];
    long long offset = 0;
    if (!number_operand(in, in.operands[1], "OFFSET", 0, INT64_MAX, &offset)) {
        return kExitUsage;
    }
    std::string data;
    if (in.count == 3) {
        data = in.operands[2];
    } else {
        char buffer[65536];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, stdin)) > 0) {
            data.append(buffer, n);
            if (data.size() > kMaxBlock) {
                fprintf(stderr, "qor write: cannot read: standard input: more "
                                "than %lld bytes\n", kMaxBlock);
                return kExitFailed;
            }
        }
        if (ferror(stdin)) {
            return fail_errno(in, "cannot read", "standard input", errno);
        }
    }
    QOR_contents_record *rec = nullptr;
    int s = open_idle(in, path, QOR_OPEN_READ_WRITE, QOR_LOCK_EXCLUSIVE_WAIT,
                      &rec);
    if (s != 0) return fail_status(in, "cannot open", path, s);
    s = QOR_write_idle_block(rec, offset, data.data(),
                             static_cast<int>(data.size()));
    const int closed = QOR_close_contents(rec);
    if (s == 0) s = closed;
    if (s != 0) return fail_status(in, "cannot write", path, s);
    verbose(in, "wrote %zu bytes at offset %lld of '%s'%s\n", data.size(),
            offset, path, in.has('i') ? " (index)" : "");
    return kExitOk;
}

// ---- Tour --------------------------------------------------------------------

// The tour's objects, named as host paths under its scratch directory.
char tour_ledger[80], tour_copy[80], tour_archive[80];

int tour_idle_blocks() {
    const char *object = tour_ledger;
    QOR_contents_record *body = nullptr;
    // Opening an idle object's body with the create flag makes the object.
    int s = QOR_open_contents(object, QOR_IDLE_OBJECT,
                              QOR_OPEN_READ_WRITE | QOR_OPEN_CREATE,
                              QOR_LOCK_EXCLUSIVE, &body);
    printf("open %s for update, exclusive lock -> %d (lock mode %u)\n", object,
           s, s == 0 ? body->lock_mode : 0);
    if (s != 0) return 1;
    const struct {
        int64_t offset;
        const char *text;
    } blocks[] = {{0, "header"}, {4096, "block at 4 KiB"}, {100, "note"}};
    for (const auto &b : blocks) {
        s = QOR_write_idle_block(body, b.offset, b.text,
                                 static_cast<int>(strlen(b.text)));
        printf("  write idle block \"%s\" at %lld -> %d\n", b.text,
               static_cast<long long>(b.offset), s);
    }
    for (const auto &b : blocks) {
        char got[32] = {};
        s = QOR_read_idle_block(body, b.offset, got,
                                static_cast<int>(strlen(b.text)));
        printf("  read back at %lld -> %d \"%s\"\n",
               static_cast<long long>(b.offset), s, got);
    }
    uint64_t size = 0;
    QOR_read_open_contents_size(body, &size);
    printf("  body size %llu\n", static_cast<unsigned long long>(size));
    char tail[32];
    fflush(stdout);
    s = QOR_read_idle_block(body, 4100, tail, 32);
    printf("  reading 32 bytes at 4100, past the end -> %d (messages 403 and "
           "401 above)\n", s);
    QOR_close_contents(body);
    return 0;
}

int tour_two_processes() {
    const char *object = tour_ledger;
    int s = QOR_lock_object(object, QOR_IDLE_OBJECT, QOR_LOCK_EXCLUSIVE);
    printf("this process locks the object exclusively -> %d\n", s);
    if (s != 0) return 1;
    // A second process asks twice: once while the lock is exclusive, once
    // after it was converted to shared.
    int to_child[2], from_child[2];
    if (pipe(to_child) != 0 || pipe(from_child) != 0) return 1;
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        close(to_child[1]);
        close(from_child[0]);
        char go;
        for (int round = 0; round < 2; ++round) {
            if (read(to_child[0], &go, 1) != 1) _exit(1);
            const int r = QOR_lock_object(object, QOR_IDLE_OBJECT,
                                          QOR_LOCK_SHARED);
            if (r == 0) QOR_unlock_object(object, QOR_IDLE_OBJECT);
            const int answer = r;
            if (write(from_child[1], &answer, sizeof answer) != sizeof answer) {
                _exit(1);
            }
        }
        _exit(0);
    }
    close(to_child[0]);
    close(from_child[1]);
    int answer = -1;
    const char go = 'g';
    bool ok = write(to_child[1], &go, 1) == 1 &&
              read(from_child[0], &answer, sizeof answer) == sizeof answer;
    printf("  another process asks for a shared lock -> %d (held elsewhere)\n",
           answer);
    s = QOR_lock_object(object, QOR_IDLE_OBJECT, QOR_LOCK_SHARED);
    unsigned mode = 0;
    QOR_object_lock_mode(object, QOR_IDLE_OBJECT, &mode);
    printf("this process converts its lock to shared -> %d (mode %u)\n", s,
           mode);
    ok = ok && write(to_child[1], &go, 1) == 1 &&
         read(from_child[0], &answer, sizeof answer) == sizeof answer;
    printf("  another process asks for a shared lock -> %d\n", answer);
    close(to_child[1]);
    close(from_child[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    s = QOR_unlock_object(object, QOR_IDLE_OBJECT);
    printf("this process unlocks -> %d; unlocking again -> %d\n", s,
           QOR_unlock_object(object, QOR_IDLE_OBJECT));
    return ok ? 0 : 1;
}

int tour_copy_and_move() {
    const char *source = tour_ledger;
    const char *copy = tour_copy;
    const char *moved = tour_archive;
    QOR_contents_record *index = nullptr;
    QOR_open_idle_index(source, QOR_OPEN_READ_WRITE | QOR_OPEN_CREATE,
                        QOR_LOCK_EXCLUSIVE, &index);
    const int64_t entries[2] = {0, 4096};
    QOR_write_idle_block(index, 0, entries, sizeof entries);
    QOR_close_contents(index);
    printf("copy %s to %s -> %d\n", source, copy,
           QOR_copy_object(source, QOR_IDLE_OBJECT, copy));
    printf("copy it again -> %d (the target existed and was replaced)\n",
           QOR_copy_object(source, QOR_IDLE_OBJECT, copy));
    uint64_t a = 0, b = 0;
    QOR_read_contents_size(source, QOR_IDLE_OBJECT, &a);
    QOR_read_contents_size(copy, QOR_IDLE_OBJECT, &b);
    printf("  body sizes: %llu and %llu\n", static_cast<unsigned long long>(a),
           static_cast<unsigned long long>(b));
    printf("move %s to %s -> %d\n", copy, moved,
           QOR_move_object(copy, QOR_IDLE_OBJECT, moved));
    unsigned type = 99;
    const int gone = QOR_type_of_object(copy, &type);
    QOR_type_of_object(moved, &type);
    printf("  the copy's old name -> %d (missing); the new one has type %u\n",
           gone, type);
    printf("delete %s -> %d\n", moved,
           QOR_delete_object(moved, QOR_IDLE_OBJECT));
    return 0;
}


const Option kCopyOptions[] = {
    {'t', "target-directory", "DIR", "copy every SOURCE into DIR"},
    {'T', "no-target-directory", nullptr,
     "treat TARGET as the target itself, even when it is a directory"},
    kTypeOption,
    {}};

const Option kMoveOptions[] = {
    {'t', "target-directory", "DIR", "move every SOURCE into DIR"},
    {'T', "no-target-directory", nullptr,
     "treat TARGET as the target itself, even when it is a directory"},
    kTypeOption,
    {}};

const Option kRemoveOptions[] = {
    {'u', "unchecked", nullptr,
     "do not check first that the object holds only its own members"},
    kTypeOption,
    {}};

const Option kLockOptions[] = {
    {'s', "shared", nullptr, "a shared lock"},
    {'x', "exclusive", nullptr, "an exclusive lock (the default)"},
    {'n', "nonblock", nullptr,
     "fail at once, with status 1, when the lock is held elsewhere"},
    kTypeOption,
    {}};

const Option kReadOptions[] = {
    {'i', "index", nullptr, "the idle object's index instead of its body"},
    {}};

const Option kWriteOptions[] = {
    {'i', "index", nullptr, "the idle object's index instead of its body"},
    {'c', "create", nullptr, "create the idle object when it is missing"},
    {}};

}  // namespace

const Command objects2_commands[] = {
    {"cp", cmd_cp,
     "[OPTION]... SOURCE TARGET\n[OPTION]... SOURCE... DIRECTORY\n"
     "[OPTION]... -t DIRECTORY SOURCE...",
     "copy objects",
     "Copies SOURCE to TARGET, or each SOURCE into DIRECTORY (an existing "
     "plain\ndirectory, not an object), as cp(1) does. The copy is made under "
     "a\ntemporary name beside the target and renamed into place: a failed "
     "copy\nleaves an existing target as it was. A new target gets the "
     "permission bits\nof its source.",
     kCopyOptions, 1, -1},
    {"mv", cmd_mv,
     "[OPTION]... SOURCE TARGET\n[OPTION]... SOURCE... DIRECTORY\n"
     "[OPTION]... -t DIRECTORY SOURCE...",
     "move objects",
     "Moves SOURCE to TARGET, or each SOURCE into DIRECTORY (an existing "
     "plain\ndirectory, not an object), replacing an existing target object.",
     kMoveOptions, 1, -1},
    {"rm", cmd_rm, "[OPTION]... PATH...", "delete objects",
     "Deletes each object with all its member files. Unless -u is given, an "
     "object\nwhose directory holds anything but its own members is left "
     "alone.",
     kRemoveOptions, 1, -1},
    {"lock", cmd_lock, "[OPTION]... PATH COMMAND [ARGUMENT]...",
     "run a command holding a lock on a file or an object",
     "Locks PATH, runs COMMAND while holding the lock, unlocks, and ends "
     "with the\ncommand's exit status, as flock(1) does. A plain file (made "
     "when missing) is\nlocked with flock(2), so qor lock and flock(1) "
     "exclude each other; an object\n(lockable directory, cdir, idle "
     "object) gets the library's object lock.\nWith -n a lock held "
     "elsewhere ends qor lock with status 1, and COMMAND is\nnot run.",
     kLockOptions, 2, -1, 1},
    {"read", cmd_read, "[-i] PATH OFFSET LENGTH",
     "read an idle block of an idle object",
     "Writes LENGTH bytes of the idle object's body (or index), from OFFSET, "
     "to\nstandard output.",
     kReadOptions, 3, 3},
    {"write", cmd_write, "[-i] [-c] PATH OFFSET [TEXT]",
     "write an idle block of an idle object",
     "Writes TEXT, or all of standard input without it, into the idle "
     "object's\nbody (or index) at OFFSET.",
     kWriteOptions, 2, 3},
    {}};

int tour_objects2() {
    tour_heading("Object contents, idle blocks and object operations");
    char dir[] = "/tmp/qor-tour-objects2-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    snprintf(tour_ledger, sizeof tour_ledger, "@%s/ledger", dir);
    snprintf(tour_copy, sizeof tour_copy, "@%s/ledger-copy", dir);
    snprintf(tour_archive, sizeof tour_archive, "@%s/archive", dir);
    int result = tour_idle_blocks();
    if (result == 0) result = tour_two_processes();
    if (result == 0) result = tour_copy_and_move();
    remove_tree(dir);
    return result;
}

}  // namespace qor_tool
