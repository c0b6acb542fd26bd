// qor commands and tour step for whole-object operations and contents:
// copying, moving and removing objects, holding an object lock while a
// command runs, and reading and writing idle blocks.
//
// The library's own messages (a recorded failure, an idle block left
// incomplete) reach standard error through the message catalogue; these
// commands add one line of their own saying what came of the request.

#include <errno.h>
#include <ftw.h>
#include <qor/qor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "commands.h"

namespace qor_tool {
namespace {

int usage_error(const char *command, const char *usage) {
    fprintf(stderr, "usage: qor %s %s\n", command, usage);
    return 2;
}

// A whole non-negative decimal number.
bool parse_number(const char *text, long long *value) {
    if (text == nullptr || *text == '\0') return false;
    char *end = nullptr;
    errno = 0;
    const long long v = strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < 0) return false;
    *value = v;
    return true;
}

// Options of the object commands: -t TYPE and single-letter flags. The
// options end at the first argument that is not one; *next is its index.
struct Options {
    int type = -1;  // -t: 0 to 4; -1 to detect
    bool unchecked = false;  // -u
    bool shared = false;     // -s
    bool no_wait = false;    // -n
    bool index = false;      // -i
    bool create = false;     // -c
};

bool parse_options(int argc, char **argv, const char *allowed, Options *o,
                   int *next) {
    int i = 1;
    for (; i < argc; ++i) {
        const char *arg = argv[i];
        if (arg[0] != '-' || arg[1] == '\0') break;
        if (strcmp(arg, "--") == 0) {
            ++i;
            break;
        }
        for (const char *f = arg + 1; *f != '\0'; ++f) {
            if (strchr(allowed, *f) == nullptr) return false;
            if (*f == 't') {
                // The value is the rest of this argument, or the next one.
                const char *value =
                    f[1] != '\0' ? f + 1 : (i + 1 < argc ? argv[++i] : nullptr);
                long long t = 0;
                if (!parse_number(value, &t) || t > 4) return false;
                o->type = static_cast<int>(t);
                break;
            }
            switch (*f) {
                case 'u': o->unchecked = true; break;
                case 's': o->shared = true; break;
                case 'x': o->shared = false; break;
                case 'n': o->no_wait = true; break;
                case 'i': o->index = true; break;
                case 'c': o->create = true; break;
                default: return false;
            }
        }
    }
    *next = i;
    return true;
}

// The type asked for, or the type detected at path.
bool object_type(const char *command, const char *path, const Options &o,
                 unsigned *type) {
    if (o.type >= 0) {
        *type = static_cast<unsigned>(o.type);
        return true;
    }
    const int s = QOR_type_of_object(path, type);
    if (s == 0) return true;
    fprintf(stderr, "qor %s: %s: %s (status %d)\n", command, path,
            s == QOR_E_MISSING          ? "no such object"
            : s == QOR_E_UNTRANSLATABLE ? "not a qor path"
                                        : "cannot tell its type",
            s);
    return false;
}

int failed(const char *command, const char *path, int status) {
    fprintf(stderr, "qor %s: %s: failed with status %d\n", command, path,
            status);
    return 1;
}

// Runs a whole-object operation of "[-t TYPE] SOURCE TARGET"; false when
// the arguments or the type did not serve (*code is then the exit status).
bool source_and_target(const char *command, int argc, char **argv,
                       int (*operation)(const char *, unsigned, const char *),
                       int *status, unsigned *type, int *code) {
    Options o;
    int i = 0;
    if (!parse_options(argc, argv, "t", &o, &i) || argc - i != 2) {
        *code = usage_error(command, "[-t TYPE] SOURCE TARGET");
        return false;
    }
    if (!object_type(command, argv[i], o, type)) {
        *code = 1;
        return false;
    }
    *status = operation(argv[i], *type, argv[i + 1]);
    argv[0] = argv[i];  // the source and target for the caller's report
    argv[1] = argv[i + 1];
    return true;
}

int cmd_cp(int argc, char **argv) {
    int s = 0, code = 0;
    unsigned type = 0;
    if (!source_and_target("cp", argc, argv, QOR_copy_object, &s, &type,
                           &code)) {
        return code;
    }
    if (s != 0 && s != QOR_E_TARGET_EXISTS && s != QOR_E_EXISTS) {
        return failed("cp", argv[0], s);
    }
    printf("copied %s to %s%s\n", argv[0], argv[1],
           s == QOR_E_TARGET_EXISTS ? " (replaced the existing target)"
           : s == QOR_E_EXISTS      ? " (its .lock was already there)"
                                    : "");
    return 0;
}

int cmd_mv(int argc, char **argv) {
    int s = 0, code = 0;
    unsigned type = 0;
    if (!source_and_target("mv", argc, argv, QOR_move_object, &s, &type,
                           &code)) {
        return code;
    }
    if (s != 0 && s != QOR_E_TARGET_EXISTS) return failed("mv", argv[0], s);
    // A target that may not be removed makes the library answer 0 without
    // moving anything (after its message): the source is still there.
    unsigned still = 0;
    if (s == 0 && type != QOR_PLAIN_FILE &&
        QOR_type_of_object(argv[0], &still) == 0) {
        fprintf(stderr, "qor mv: %s: the target may not be replaced; nothing "
                        "was moved\n", argv[1]);
        return 1;
    }
    printf("moved %s to %s%s\n", argv[0], argv[1],
           s == QOR_E_TARGET_EXISTS ? " (replaced the existing target)" : "");
    return 0;
}

int cmd_rm(int argc, char **argv) {
    const char *usage = "[-u] [-t TYPE] PATH...";
    Options o;
    int i = 0;
    if (!parse_options(argc, argv, "ut", &o, &i) || i >= argc) {
        return usage_error("rm", usage);
    }
    int result = 0;
    for (; i < argc; ++i) {
        unsigned type = 0;
        if (!object_type("rm", argv[i], o, &type)) {
            result = 1;
            continue;
        }
        const int s = o.unchecked ? QOR_unchecked_delete_object(argv[i], type)
                                  : QOR_delete_object(argv[i], type);
        if (s != 0) {
            result = failed("rm", argv[i], s);
        } else {
            printf("removed %s\n", argv[i]);
        }
    }
    return result;
}

// Runs the command with its arguments and waits for it: its exit status,
// or 128 plus the signal that ended it.
int run_command(char **command) {
    fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0) {
        perror("qor lock: fork");
        return 1;
    }
    if (pid == 0) {
        execvp(command[0], command);
        fprintf(stderr, "qor lock: cannot run %s: %s\n", command[0],
                strerror(errno));
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int cmd_lock(int argc, char **argv) {
    const char *usage = "[-s|-x] [-n] [-t TYPE] PATH COMMAND [ARG...]";
    Options o;
    int i = 0;
    if (!parse_options(argc, argv, "sxnt", &o, &i) || argc - i < 2) {
        return usage_error("lock", usage);
    }
    const char *path = argv[i];
    unsigned type = 0;
    if (!object_type("lock", path, o, &type)) return 1;
    const unsigned request = o.shared ? (o.no_wait ? QOR_LOCK_SHARED
                                                   : QOR_LOCK_SHARED_WAIT)
                                      : (o.no_wait ? QOR_LOCK_EXCLUSIVE
                                                   : QOR_LOCK_EXCLUSIVE_WAIT);
    const int s = QOR_lock_object(path, type, request);
    if (s == QOR_E_LOCKED) {
        fprintf(stderr, "qor lock: %s is locked by another process\n", path);
        return 1;
    }
    if (s != 0) return failed("lock", path, s);
    // The lock's descriptor is close-on-exec: the command does not inherit
    // it, and the lock lasts as long as this process waits for it.
    const int code = run_command(argv + i + 1);
    QOR_unlock_object(path, type);
    return code;
}

// Opens the body (or with -i the index) of an idle object.
int open_idle(const char *path, const Options &o, unsigned flags,
              unsigned request, QOR_contents_record **rec) {
    if (o.create) flags |= QOR_OPEN_CREATE;
    return o.index ? QOR_open_idle_index(path, flags, request, rec)
                   : QOR_open_contents(path, QOR_IDLE_OBJECT, flags, request,
                                       rec);
}

int cmd_read(int argc, char **argv) {
    const char *usage = "[-i] PATH OFFSET LENGTH";
    Options o;
    int i = 0;
    long long offset = 0, length = 0;
    if (!parse_options(argc, argv, "i", &o, &i) || argc - i != 3 ||
        !parse_number(argv[i + 1], &offset) ||
        !parse_number(argv[i + 2], &length) || length > (1 << 30)) {
        return usage_error("read", usage);
    }
    QOR_contents_record *rec = nullptr;
    int s = open_idle(argv[i], o, QOR_OPEN_READ, QOR_LOCK_SHARED_WAIT, &rec);
    if (s != 0) return failed("read", argv[i], s);
    std::string block(static_cast<size_t>(length), '\0');
    s = QOR_read_idle_block(rec, offset, block.data(), static_cast<int>(length));
    QOR_close_contents(rec);
    if (s != 0) return failed("read", argv[i], s);
    fwrite(block.data(), 1, block.size(), stdout);
    return 0;
}

int cmd_write(int argc, char **argv) {
    const char *usage = "[-i] [-c] PATH OFFSET [TEXT]  (standard input without TEXT)";
    Options o;
    int i = 0;
    long long offset = 0;
    if (!parse_options(argc, argv, "ic", &o, &i) || argc - i < 2 ||
        argc - i > 3 || !parse_number(argv[i + 1], &offset)) {
        return usage_error("write", usage);
    }
    std::string data;
    if (argc - i == 3) {
        data = argv[i + 2];
    } else {
        char buffer[65536];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, stdin)) > 0) {
            data.append(buffer, n);
        }
    }
    if (data.size() > (1u << 30)) return usage_error("write", usage);
    QOR_contents_record *rec = nullptr;
    int s = open_idle(argv[i], o, QOR_OPEN_READ_WRITE, QOR_LOCK_EXCLUSIVE_WAIT,
                      &rec);
    if (s != 0) return failed("write", argv[i], s);
    s = QOR_write_idle_block(rec, offset, data.data(),
                             static_cast<int>(data.size()));
    const int closed = QOR_close_contents(rec);
    if (s == 0) s = closed;
    if (s != 0) return failed("write", argv[i], s);
    printf("wrote %zu bytes at offset %lld of %s%s\n", data.size(), offset,
           argv[i], o.index ? " (index)" : "");
    return 0;
}

// ---- Tour --------------------------------------------------------------------

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    return remove(path);
}

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
           "401 on standard error)\n", s);
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

}  // namespace

const Command objects2_commands[] = {
    {"cp", "[-t TYPE] SOURCE TARGET", "copy an object", cmd_cp},
    {"mv", "[-t TYPE] SOURCE TARGET", "move an object", cmd_mv},
    {"rm", "[-u] [-t TYPE] PATH...",
     "delete objects (-u: without checking their directory)", cmd_rm},
    {"lock", "[-s|-x] [-n] PATH CMD...",
     "run a command holding an object lock (-n: do not wait)", cmd_lock},
    {"read", "[-i] PATH OFFSET LENGTH",
     "read an idle block of an idle object's body (-i: index)", cmd_read},
    {"write", "[-i] [-c] PATH OFFSET [TEXT]",
     "write an idle block (-c: create the object)", cmd_write},
    {nullptr, nullptr, nullptr, nullptr}};

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
    nftw(dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    return result;
}

}  // namespace qor_tool
