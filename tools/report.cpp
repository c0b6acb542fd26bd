// The helpers every subcommand reports through, so that all of them speak
// in one format: "qor CMD: what failed: path: reason" on standard error,
// a usage line after a bad command line, detail only with -v.

#include <errno.h>
#include <qor/objects.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "commands.h"

namespace qor_tool {

const char *const kTypeNames[5] = {"plain_file", "plain_directory",
                                   "lockable_directory", "cdir",
                                   "idle_object"};

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

}  // namespace qor_tool
