// The helpers every subcommand reports through, so that all of them speak
// in one format: "qor CMD: what failed: path: reason" on standard error,
// a usage line after a bad command line, detail only with -v.

#include <errno.h>
#include <ftw.h>
#include <qor/qor.h>
#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "commands.h"

namespace qor_tool {

const char *const kTypeNames[5] = {"plain_file", "plain_directory",
                                   "lockable_directory", "cdir",
                                   "idle_object"};

int run_command(const Invocation &in, char **command) {
    fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0) {
        fprintf(stderr, "qor %s: cannot run: %s: %s\n", in.command->name,
                command[0], strerror(errno));
        return kExitFailed;
    }
    if (pid == 0) {
        execvp(command[0], command);
        const int error = errno;
        fprintf(stderr, "qor %s: cannot run: %s: %s\n", in.command->name,
                command[0], strerror(error));
        _exit(error == ENOENT ? 127 : 126);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return kExitFailed;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void print_usage(FILE *out, const Command &c) {
    const char *form = c.synopsis;
    const char *lead = "usage:";
    while (true) {
        const char *end = strchr(form, '\n');
        const int n = end ? static_cast<int>(end - form)
                          : static_cast<int>(strlen(form));
        fprintf(out, "%s qor %s%s%.*s\n", lead, c.name, n > 0 ? " " : "", n,
                form);
        if (end == nullptr) break;
        form = end + 1;
        lead = "   or:";
    }
}

int usage_error(const Invocation &in, const char *format, ...) {
    fprintf(stderr, "qor %s: ", in.command->name);
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
    print_usage(stderr, *in.command);
    fprintf(stderr, "Try 'qor %s --help' for more information.\n",
            in.command->name);
    return kExitUsage;
}

int fail_status(const Invocation &in, const char *what, const char *path,
                int status) {
    fprintf(stderr, "qor %s: %s: %s: %s\n", in.command->name, what, path,
            status_reason(status));
    return kExitFailed;
}

int fail_errno(const Invocation &in, const char *what, const char *path,
               int error) {
    fprintf(stderr, "qor %s: %s: %s: %s\n", in.command->name, what, path,
            strerror(error));
    return kExitFailed;
}

void verbose(const Invocation &in, const char *format, ...) {
    if (!in.verbose) return;
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
}

bool number_operand(const Invocation &in, const char *text, const char *name,
                    long long min, long long max, long long *value) {
    char *end = nullptr;
    errno = 0;
    const long long v = text[0] != '\0' ? strtoll(text, &end, 10) : 0;
    if (text[0] == '\0' || errno != 0 || *end != '\0' || v < min || v > max) {
        usage_error(in, "invalid %s '%s' (a number from %lld to %lld)", name,
                    text, min, max);
        return false;
    }
    *value = v;
    return true;
}

bool type_operand(const Invocation &in, const char *text, unsigned *type) {
    for (unsigned t = 0; t < 5; ++t) {
        if (strcmp(text, kTypeNames[t]) == 0) {
            *type = t;
            return true;
        }
    }
    char *end = nullptr;
    const long n = strtol(text, &end, 10);
    if (text[0] >= '0' && text[0] <= '9' && *end == '\0' && n >= 0 && n <= 4) {
        *type = static_cast<unsigned>(n);
        return true;
    }
    usage_error(in, "invalid type '%s' (0 to 4, or plain_file, "
                    "plain_directory, lockable_directory, cdir, idle_object)",
                text);
    return false;
}

int check_type_option(const Invocation &in) {
    unsigned type = 0;
    if (!in.has(kTypeLetter)) return 0;
    return type_operand(in, in.value(kTypeLetter), &type) ? 0 : kExitUsage;
}

int object_type(const Invocation &in, char letter, const char *path,
                unsigned *type) {
    if (letter != 0 && in.has(letter)) {
        return type_operand(in, in.value(letter), type) ? 0 : kExitUsage;
    }
    const int s = QOR_type_of_object(path, type);
    if (s == 0) return 0;
    return fail_status(in, "cannot tell the type", path, s);
}

bool run_guarded(void (*fn)(void *), void *arg) {
    // volatile: read after the jump, which may have left registers stale.
    volatile bool returned = false;
    if (setjmp(QOR_fatal_handler) == 0) {
        QOR_exception_handler_state = 1;
        fn(arg);
        returned = true;
    }
    QOR_exception_handler_state = 0;
    return returned;
}

void fail_after_fatal(const Invocation &in, const char *what,
                      const char *path) {
    fprintf(stderr, "qor %s: %s: %s: stopped by the library's fatal error "
                    "(see above)\n", in.command->name, what, path);
    fflush(stdout);
    fflush(stderr);
    _exit(kExitFailed);
}

int private_directory_beside(const char *target, char **dir) {
    *dir = nullptr;
    char *os = QOR_qor_to_os(target, 0);
    if (os == nullptr) return QOR_E_UNTRANSLATABLE;
    std::string parent(os);
    QOR_free(os);
    while (parent.size() > 1 && parent.back() == '/') parent.pop_back();
    const size_t slash = parent.rfind('/');
    parent = slash == std::string::npos ? std::string(".")
             : slash == 0               ? std::string("/")
                                        : parent.substr(0, slash);
    // The library makes temporary objects in the temporary directory,
    // QOR_TMP, read at every call: point it at the target's directory for
    // this one call.
    const char *old = getenv("QOR_TMP");
    const std::string saved = old != nullptr ? old : "";
    setenv("QOR_TMP", parent.c_str(), 1);
    int fd = -1;
    const int s = QOR_create_temporary_object(".qor-", 1, "tmp", dir, &fd);
    if (old != nullptr) {
        setenv("QOR_TMP", saved.c_str(), 1);
    } else {
        unsetenv("QOR_TMP");
    }
    if (fd >= 0) close(fd);
    return s;
}

namespace {
int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    return remove(path);
}
}  // namespace

int remove_tree(const char *dir) {
    // FTW_PHYS: a link inside the tree is removed, never followed.
    return nftw(dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS) == 0 ? 0 : 1;
}

char *tour_directory(const char *prefix) {
    char *dir = nullptr;
    int fd = -1;
    if (QOR_create_temporary_object(prefix, 1, nullptr, &dir, &fd) != 0) {
        return nullptr;
    }
    close(fd);
    char *os = QOR_qor_to_os_dir(dir);
    QOR_free(dir);
    return os;
}

}  // namespace qor_tool
