// qor commands and tour step for the foundation: what a status code means,
// what an errno value becomes, and messages, recorded errors and fatal
// errors at work.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <qor/catalog.h>
#include <qor/objects.h>
#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "commands.h"

namespace qor_tool {
namespace {

// Whether use_catalogue found a catalogue; without one every message is
// printed untranslated by the library itself.
bool catalogue_ready = false;

struct CodeInfo {
    int code;
    const char *name;     // the symbolic name in qor/foundation.h
    const char *meaning;  // as the library uses the code
};

constexpr CodeInfo kStatusCodes[] = {
    {QOR_OK, "QOR_OK", "success"},
    {QOR_E_INTERNAL, "QOR_E_INTERNAL",
     "internal error, raised as a fatal error by the pooled allocators and "
     "the file locator"},
    {QOR_E_NO_MEMORY, "QOR_E_NO_MEMORY",
     "memory exhausted, raised as a fatal error"},
    {QOR_E_TRACE_SPEC, "QOR_E_TRACE_SPEC",
     "the locator found nothing: every probe of the search path failed"},
    {QOR_E_UNTRANSLATABLE, "QOR_E_UNTRANSLATABLE",
     "a qor path could not be translated to a host path (no message)"},
    {QOR_E_MISSING, "QOR_E_MISSING",
     "the thing does not exist (ENOENT, ENXIO, ENODEV)"},
    {QOR_E_EXISTS, "QOR_E_EXISTS", "it already exists (EEXIST)"},
    {QOR_E_TARGET_EXISTS, "QOR_E_TARGET_EXISTS",
     "the target of a copy or move already exists"},
    {QOR_E_PERMISSION, "QOR_E_PERMISSION",
     "permission denied (EPERM, EACCES, EROFS)"},
    {QOR_E_IO, "QOR_E_IO",
     "I/O error or busy (EIO, ENOEXEC, ECHILD, EBUSY, ETXTBSY, ESPIPE, EPIPE, "
     "EIDRM)"},
    {QOR_E_WRONG_KIND, "QOR_E_WRONG_KIND",
     "wrong kind of thing, or the operation is not possible on it (ESRCH, "
     "ENOTBLK, EXDEV, ENOTDIR, EISDIR, ENOTTY, ENOSYS)"},
    {QOR_E_RESOURCE, "QOR_E_RESOURCE",
     "a resource is exhausted (E2BIG, EAGAIN, ENOMEM, ENFILE, EMFILE, EFBIG, "
     "ENOSPC, EMLINK, ENAMETOOLONG, ENOLCK)"},
    {QOR_E_BAD_DESCRIPTOR, "QOR_E_BAD_DESCRIPTOR",
     "bad file descriptor (EBADF)"},
    {QOR_E_LOCKED, "QOR_E_LOCKED",
     "a record lock is held by someone else (no message)"},
    {QOR_E_NOT_LOCKED, "QOR_E_NOT_LOCKED",
     "the object or file is not locked as required (no message)"},
    {QOR_E_END, "QOR_E_END",
     "end of a listing: no further directory entry or link"},
    {QOR_E_INTERRUPTED, "QOR_E_INTERRUPTED", "interrupted (EINTR)"},
    {QOR_E_DEADLOCK, "QOR_E_DEADLOCK", "deadlock (EDEADLK)"},
    {QOR_E_NOT_EMPTY, "QOR_E_NOT_EMPTY", "directory not empty (ENOTEMPTY)"},
    {QOR_E_SIGNALLED, "QOR_E_SIGNALLED",
     "a program that was run ended through a signal"},
    {QOR_E_PRINT, "QOR_E_PRINT", "printing failed"},
    {QOR_E_INVALID, "QOR_E_INVALID",
     "invalid argument (EFAULT, EINVAL, EDOM, ERANGE, ENOMSG), an unknown "
     "callback name or malformed arguments"},
    {QOR_E_SHELL, "QOR_E_SHELL", "a command could not be run by the shell"},
    {QOR_E_NO_OWNER, "QOR_E_NO_OWNER",
     "the owner name of the process could not be found"},
    {QOR_E_OTHER, "QOR_E_OTHER", "any other OS error"},
    {QOR_E_IDLE_READ_INCOMPLETE, "QOR_E_IDLE_READ_INCOMPLETE",
     "an idle block could not be read whole: a call transferred no bytes"},
    {QOR_E_IDLE_WRITE_INCOMPLETE, "QOR_E_IDLE_WRITE_INCOMPLETE",
     "an idle block could not be written whole: a call transferred no bytes"},
    {QOR_MSG_UNAVAILABLE, "QOR_MSG_UNAVAILABLE",
     "the message system is unavailable (from the message operations)"},
};

constexpr CodeInfo kContextCodes[] = {
    {QOR_CTX_CREATE_FILE, "QOR_CTX_CREATE_FILE", "create a file"},
    {QOR_CTX_CREATE_DIRECTORY, "QOR_CTX_CREATE_DIRECTORY",
     "create a directory"},
    {QOR_CTX_DELETE_FILE, "QOR_CTX_DELETE_FILE", "delete a file"},
    {QOR_CTX_REMOVE_DIRECTORY, "QOR_CTX_REMOVE_DIRECTORY",
     "remove a directory"},
    {QOR_CTX_LOCK_OBJECT, "QOR_CTX_LOCK_OBJECT", "lock an object"},
    {QOR_CTX_UNLOCK_OBJECT, "QOR_CTX_UNLOCK_OBJECT", "unlock an object"},
    {QOR_CTX_MOVE_OBJECT, "QOR_CTX_MOVE_OBJECT", "move an object"},
    {QOR_CTX_COPY_CONTENTS, "QOR_CTX_COPY_CONTENTS",
     "copy an object's contents"},
    {QOR_CTX_TEST_ACCESS, "QOR_CTX_TEST_ACCESS",
     "test accessibility, read permissions"},
    {QOR_CTX_SET_PERMISSIONS, "QOR_CTX_SET_PERMISSIONS",
     "set permissions or accessibility"},
    {QOR_CTX_READ_OWNERSHIP, "QOR_CTX_READ_OWNERSHIP", "read ownership"},
    {QOR_CTX_SET_OWNERSHIP, "QOR_CTX_SET_OWNERSHIP", "set ownership"},
    {QOR_CTX_READ_SIZE, "QOR_CTX_READ_SIZE", "read the size of contents"},
    {QOR_CTX_READ_TIMES, "QOR_CTX_READ_TIMES", "read access times"},
    {QOR_CTX_READ_IDENTITY, "QOR_CTX_READ_IDENTITY", "read identity"},
    {QOR_CTX_OPEN, "QOR_CTX_OPEN", "open a file or contents"},
    {QOR_CTX_CLOSE, "QOR_CTX_CLOSE", "close a file or contents"},
    {QOR_CTX_LOCK_CONTENTS, "QOR_CTX_LOCK_CONTENTS",
     "lock or unlock contents"},
    {QOR_CTX_UNLOCK_CONTENTS, "QOR_CTX_UNLOCK_CONTENTS", "unlock contents"},
    {QOR_CTX_LINK_LISTING, "QOR_CTX_LINK_LISTING",
     "open or close a link listing, print"},
    {QOR_CTX_RUN_PROGRAM, "QOR_CTX_RUN_PROGRAM",
     "run a program, find the process owner"},
    {QOR_CTX_TRUNCATE, "QOR_CTX_TRUNCATE", "truncate contents"},
    {QOR_CTX_READ_OPEN_SIZE, "QOR_CTX_READ_OPEN_SIZE",
     "read the size of open contents or a binary file"},
    {QOR_CTX_READ, "QOR_CTX_READ",
     "read (idle block, binary data, text line)"},
    {QOR_CTX_WRITE, "QOR_CTX_WRITE",
     "write (idle block, binary data, text string)"},
    {QOR_CTX_FLUSH, "QOR_CTX_FLUSH", "flush contents or a text file"},
    {QOR_CTX_REDIRECT, "QOR_CTX_REDIRECT", "redirect a stream"},
    {QOR_CTX_FIND_TYPE, "QOR_CTX_FIND_TYPE", "find the type of an object"},
    {QOR_CTX_FIND_OWNER, "QOR_CTX_FIND_OWNER",
     "find the owner name of the process"},
    {QOR_CTX_SET_ENVIRONMENT, "QOR_CTX_SET_ENVIRONMENT",
     "set an environment variable"},
    {QOR_CTX_EXECUTE, "QOR_CTX_EXECUTE", "execute a command"},
    {QOR_CTX_READ_LINK, "QOR_CTX_READ_LINK", "read the next link"},
};

template <size_t N>
const CodeInfo *find_code(const CodeInfo (&table)[N], int code) {
    for (const CodeInfo &c : table) {
        if (c.code == code) return &c;
    }
    return nullptr;
}

// The catalogue's text of a message with its placeholders shown as they
// are written: each parameter is its own placeholder, so "$0" comes back
// as "$0". Empty when there is no catalogue or no such message.
std::string catalogue_template(int number) {
    if (!catalogue_ready) return "";
    char names[QOR_MAX_MESSAGE_PARAMETERS][3];
    char *params[QOR_MAX_MESSAGE_PARAMETERS + 1];
    for (int i = 0; i < QOR_MAX_MESSAGE_PARAMETERS; ++i) {
        snprintf(names[i], sizeof names[i], "$%d", i);
        params[i] = names[i];
    }
    params[QOR_MAX_MESSAGE_PARAMETERS] = nullptr;
    char text[1024];
    text[0] = '\0';
    if (QOR_give_message_text("qor", number, params, text, sizeof text) != 0) {
        return "";
    }
    return text;
}

void print_catalogue_line(int number) {
    const std::string text = catalogue_template(number);
    if (!catalogue_ready) {
        printf("message %d of set \"qor\": (no message catalogue found)\n",
               number);
    } else if (text.empty()) {
        printf("message %d of set \"qor\": (not in the catalogue)\n", number);
    } else {
        printf("message %d of set \"qor\": %s\n", number, text.c_str());
    }
}

// Messages that are no status of an operation, but that the library
// prints: "qor status" explains them as well.
constexpr CodeInfo kMessageCodes[] = {
    {2501, "message 2501",
     "a note of the freestore allocator: the count of oversized chunks was "
     "wrong and has been repaired"},
};

int run_status(Invocation &in) {
    long long value = 0;
    if (!number_operand(in, in.operands[0], "CODE", INT_MIN, INT_MAX, &value)) {
        return kExitUsage;
    }
    const int code = static_cast<int>(value);
    if (const CodeInfo *c = find_code(kStatusCodes, code)) {
        printf("%d %s: status code: %s\n", code, c->name, c->meaning);
        if (code > 2000 && code < 2500) print_catalogue_line(code - 2000);
        return kExitOk;
    }
    if (const CodeInfo *c = find_code(kContextCodes, code)) {
        printf("%d %s: context code: the operation that failed was: %s\n",
               code, c->name, c->meaning);
        print_catalogue_line(code - 2000);
        return kExitOk;
    }
    if (const CodeInfo *c = find_code(kMessageCodes, code)) {
        printf("%d: %s\n", code, c->meaning);
        print_catalogue_line(code);
        return kExitOk;
    }
    fprintf(stderr, "qor status: cannot explain: %d: not a status or context "
                    "code of libqor\n", code);
    return kExitFailed;
}

// One message as an output callback received it.
struct Captured {
    bool seen = false;
    std::string set;
    int number = 0;
    int type = 0;
    std::vector<std::string> parameters;
};

void capture_output(void *, void *client, void *call) {
    auto *into = static_cast<Captured *>(client);
    auto *record = static_cast<QOR_output_message_record *>(call);
    into->seen = true;
    into->set = record->set != nullptr ? record->set : "";
    into->number = record->number;
    into->type = record->type;
    for (int i = 0; record->parameters != nullptr &&
                    i < QOR_MAX_MESSAGE_PARAMETERS &&
                    record->parameters[i] != nullptr;
         ++i) {
        into->parameters.emplace_back(record->parameters[i]);
    }
    record->result = 0;
}

// The line the catalogue's message system prints for a captured message.
std::string format_captured(const Captured &m) {
    std::vector<char *> params;
    for (const std::string &p : m.parameters) {
        params.push_back(const_cast<char *>(p.c_str()));
    }
    params.push_back(nullptr);
    char line[8192];
    QOR_catalog_format_message(m.set.c_str(), m.number, m.type, params.data(),
                               line, sizeof line);
    return line;
}

int run_errno(Invocation &in) {
    long long os_error = 0, context = QOR_CTX_OPEN;
    if (!number_operand(in, in.operands[0], "ERRNO", 0, INT_MAX, &os_error)) {
        return kExitUsage;
    }
    const char *name = in.count >= 2 ? in.operands[1] : "FILE";
    if (in.count == 3 &&
        !number_operand(in, in.operands[2], "CONTEXT", QOR_CTX_CREATE_FILE,
                        QOR_CTX_READ_LINK, &context)) {
        return kExitUsage;
    }

    // The library itself decides the status: record the error once with an
    // output callback of our own in place, and show what it said.
    const QOR_registered_callback saved =
        QOR_registered_callbacks[QOR_SLOT_OUTPUT_MESSAGE];
    Captured message;
    QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE", capture_output, &message);
    const int status = QOR_record_os_error(static_cast<int>(os_error), name,
                                           static_cast<int>(context));
    QOR_registered_callbacks[QOR_SLOT_OUTPUT_MESSAGE] = saved;

    // Only real names: glibc answers "0" for 0.
    const int error = static_cast<int>(os_error);
    const char *symbol = strerrorname_np(error);
    if (symbol != nullptr && symbol[0] != 'E') symbol = nullptr;
    printf("errno %d%s%s%s: %s\n", error, symbol ? " (" : "",
           symbol ? symbol : "", symbol ? ")" : "", strerror(error));
    const CodeInfo *c = find_code(kStatusCodes, status);
    printf("maps to status %d %s: %s\n", status, c ? c->name : "?",
           c ? c->meaning : "?");
    if (message.seen) {
        printf("recorded as: %s\n", format_captured(message).c_str());
    }
    return kExitOk;
}

[[noreturn]] void allocate_nothing() {
    QOR_malloc(0);
    abort();  // an assertion failure never comes back
}

// Runs fn with the fatal handler armed; returns the jump value, or 0 when
// fn returned. The handler is disarmed again either way.
int with_fatal_handler(void (*fn)()) {
    const int value = setjmp(QOR_fatal_handler);
    if (value == 0) {
        QOR_exception_handler_state = 1;
        fn();
    }
    const unsigned state = QOR_exception_handler_state;
    QOR_exception_handler_state = 0;
    printf("  caught it: jump value %d, handler state was %u\n", value, state);
    return value;
}

}  // namespace

const Command foundation_commands[] = {
    {"status", run_status, "CODE",
     "what a status or context code means, and its text",
     "Explains a code the library returns or prints: the status codes\n"
     "(2001 to 2073, 2401, 2402, 10009), the context codes naming the "
     "operation\nthat failed (2101 to 2132) and message 2501, with the "
     "catalogue's text\nof the message that goes with it. A number that is "
     "none of them\nends with status 1.",
     nullptr, 1, 1},
    {"errno", run_errno, "ERRNO [NAME [CONTEXT]]",
     "the status an errno value maps to, and the message it gives",
     "Records the errno value as the library records a failed system call\n"
     "working on NAME (default FILE) in the operation CONTEXT (a context "
     "code,\ndefault 2116, open), and shows the status it maps to and the "
     "line the\nmessage catalogue makes of it.",
     nullptr, 1, 3},
    {}};

const char *code_meaning(int code, const char **symbol) {
    const CodeInfo *c = find_code(kStatusCodes, code);
    if (c == nullptr) c = find_code(kContextCodes, code);
    if (c == nullptr) return nullptr;
    if (symbol != nullptr) *symbol = c->name;
    return c->meaning;
}

// The catalogue words a recorded error as 'cannot <operation> "<path>":
// <reason>'; the reason alone is what the tool's own lines need.
const char *status_reason(int status) {
    static char reason[512];
    const std::string text =
        status > 2000 && status < 2500 ? catalogue_template(status - 2000)
                                       : std::string();
    const size_t cut = text.find("\"$0\": ");
    if (cut != std::string::npos) {
        snprintf(reason, sizeof reason, "%s", text.c_str() + cut + 6);
        return reason;
    }
    if (const CodeInfo *c = find_code(kStatusCodes, status)) {
        snprintf(reason, sizeof reason, "%s", c->meaning);
        return reason;
    }
    snprintf(reason, sizeof reason, "unexpected status %d", status);
    return reason;
}

bool catalogue_in_use() { return catalogue_ready; }

int use_catalogue() {
    if (QOR_catalog_install(nullptr) != 0) {
        // Not installed, no NLSPATH: look beside the running program, as in
        // the build tree, then where an installation puts it.
        char exe[PATH_MAX];
        const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
        if (n <= 0) return QOR_MSG_UNAVAILABLE;
        exe[n] = '\0';
        std::string dir(exe);
        dir.erase(dir.rfind('/'));
        if (QOR_catalog_install((dir + "/qor.cat").c_str()) != 0 &&
            QOR_catalog_install((dir + "/../share/qor/qor.cat").c_str()) != 0) {
            return QOR_MSG_UNAVAILABLE;
        }
    }
    catalogue_ready = true;
    return 0;
}

int tour_foundation() {
    tour_heading("Foundation: status codes, messages and fatal errors");
    printf("The library holds no texts; %s.\n",
           catalogue_ready
               ? "libqor_msg prints them from the catalogue qor.cat"
               : "no catalogue was found, so they come out untranslated");

    printf("\nAn informational message (QOR_log_location):\n");
    fflush(stdout);
    QOR_log_location(__LINE__, "cmd_foundation.cpp");

    printf("\nA failed system call, recorded once (QOR_record_os_error):\n");
    const char *missing = "/nonexistent-qor-tour/missing.txt";
    fflush(stdout);
    const int fd = open(missing, O_RDONLY);
    if (fd >= 0) {
        close(fd);
        return 1;
    }
    const int status = QOR_record_os_error(errno, missing, QOR_CTX_OPEN);
    printf("  it gave status %d\n", status);
    if (status != QOR_E_MISSING) return 1;

    printf("\nAn assertion failure with the fatal handler armed "
           "(QOR_malloc(0)):\n");
    fflush(stdout);
    if (with_fatal_handler(allocate_nothing) != 1) return 1;

    printf("\nRe-armed, a second fatal error: the library stopped using the "
           "message system\nat the first one, so this one prints "
           "untranslated:\n");
    fflush(stdout);
    if (with_fatal_handler(allocate_nothing) != 1) return 1;

    printf("\nBasic space (QOR_cat_strings): ");
    char *joined = QOR_cat_strings("qor", "/", "tour", nullptr);
    printf("\"%s\"\n", joined);
    QOR_free(joined);
    fflush(stdout);
    return 0;
}

}  // namespace qor_tool
