// The running process's identity, and running other programs: programs of
// the object store, started or called, and shell commands.
//
// A program of the object store is a directory found on the search path
// whose ".body" (or ".interp/.body") is the executable. The child learns
// where its program lives through QOR_HASH, so it reaches its companion
// files through the "#" anchor.

#include <errno.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/host.h"
#include "foundation/internal.h"
#include "objects/object_paths.h"
#include "qor/objects.h"
#include "qor/paths.h"
#include "qor/process.h"

namespace {

using qor::objects::bracketed;

// Where programs are looked for after QOR_PATH: the hash area, then the
// tools under the root.
constexpr const char kToolSearchList[] = "# _/tools";

// The body of a program's interpreter object, tried when it has no body.
constexpr const char kInterpreterBody[] = ".interp/.body";

// The exit status of a child that could not run its program.
constexpr int kCouldNotRun = 255;

// The message output when the shell answers exactly 127.
constexpr int kShellMessage = QOR_E_SHELL - 2000;

// ---- Identity ----------------------------------------------------------

// Big enough for any process id in decimal.
constinit char g_identity[24] = "";

constinit struct utsname g_host = {};
constinit bool g_host_known = false;

// ---- Programs ----------------------------------------------------------

// What the child needs, in the shared freestore.
struct Program {
    const char *directory;  // its host directory, the child's QOR_HASH
    const char *body;       // the host path of what is run
};

// Finds the program and the body to run; 0 or a status.
int find_program(const char *name, Program *program) {
    const char *located = QOR_SH_locate(name, QOR_PLAIN_DIRECTORY,
                                        kToolSearchList, QOR_FORM_QOR);
    if (located == nullptr) return QOR_E_MISSING;
    const char *absolute = QOR_SH_qor_to_absolute_qor(located);
    if (absolute == nullptr) return QOR_E_UNTRANSLATABLE;
    program->directory = QOR_SH_qor_to_os(absolute, 1);
    const char *body = QOR_SH_body_path(absolute);
    if (program->directory == nullptr || body == nullptr) {
        return QOR_E_UNTRANSLATABLE;
    }

    int32_t exists = 0;
    int status = QOR_is_accessible(body, QOR_PLAIN_FILE, QOR_ACCESS_EXISTS,
                                   &exists);
    if (status != 0) return status;
    const char *chosen = body;
    if (exists == 0) {
        chosen = QOR_SH_cat_strings(absolute, "/", kInterpreterBody, nullptr);
        status = QOR_is_accessible(chosen, QOR_PLAIN_FILE, QOR_ACCESS_EXISTS,
                                   &exists);
        if (status != 0) return status;
        if (exists == 0) {
            const char *os = QOR_SH_qor_to_os(body, 0);
            return QOR_record_os_error(ENOENT, os != nullptr ? os : body,
                                       QOR_CTX_RUN_PROGRAM);
        }
    }
    program->body = QOR_SH_qor_to_os(chosen, 0);
    return program->body != nullptr ? 0 : QOR_E_UNTRANSLATABLE;
}

// The child's side of a start: never returns.
[[noreturn]] void run_body(const Program &program, char **argv) {
    // A fatal error in here must end this child. Jumping to the handler
    // would resume the caller's code a second time, in this process.
    QOR_exception_handler_state = 0;
    QOR_putenv("QOR_HASH", program.directory);
    char *no_arguments[] = {nullptr, nullptr};
    char **vector = argv != nullptr ? argv : no_arguments;
    vector[0] = const_cast<char *>(program.body);
    execv(program.body, vector);
    qor::host::record_errno(program.body, QOR_CTX_RUN_PROGRAM);
    // Only what this child wrote is buffered (the parent flushed before the
    // fork); _exit keeps the caller's exit handlers from running here.
    fflush(nullptr);
    _exit(kCouldNotRun);
}

int start(const char *name, char **argv, pid_t *pid) {
    Program program{};
    const int status = find_program(name, &program);
    if (status != 0) return status;
    // Whatever the caller has buffered goes out once, from here, before
    // the child's own output.
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) run_body(program, argv);
    if (child < 0) {
        return qor::host::record_errno(program.body, QOR_CTX_RUN_PROGRAM);
    }
    if (pid != nullptr) *pid = child;
    return 0;
}

// Records a failure of a called program against its host path (render
// mode as given), or against its name when that does not translate.
int record_program_error(const char *name, int os_error,
                         unsigned int render_mode) {
    char *os = QOR_qor_to_os(name, render_mode);
    const int status = QOR_record_os_error(os_error, os != nullptr ? os : name,
                                           QOR_CTX_RUN_PROGRAM);
    if (os != nullptr) QOR_free(os);
    return status;
}

// Waits for the child, dropping the statuses of any other children that
// end first. 0 with the child's wait status, 0 with *ended false when no
// child is left, or a recorded failure.
int wait_for(const char *name, pid_t child, int *wait_status, bool *ended) {
    int calls = 0;
    for (;;) {
        const pid_t pid = wait(wait_status);
        ++calls;
        if (pid == child) {
            *ended = true;
            return 0;
        }
        if (pid >= 0) {
            calls = 0;
            continue;
        }
        if (errno == ECHILD) {
            *ended = false;
            return 0;
        }
        if (errno != EINTR || calls >= qor::host::kEintrCalls) {
            return record_program_error(name, errno, 3);
        }
    }
}

// The parameter list of the shell's message: static, as the message
// system may keep what it is handed until its next call.
constinit char *g_shell_parameters[2] = {nullptr, nullptr};

}  // namespace

extern "C" {

const char *QOR_process_identity(void) {
    snprintf(g_identity, sizeof g_identity, "%ld",
             static_cast<long>(getpid()));
    return g_identity;
}

const char *QOR_host_name(void) {
    if (!g_host_known) {
        if (uname(&g_host) != 0) return nullptr;
        g_host_known = true;
    }
    return g_host.nodename;
}

const char *QOR_process_owner_name(void) {
    const char *login = getlogin();
    if (login != nullptr && login[0] != '\0') return login;
    const uid_t uid = getuid();
    const struct passwd *entry =
        qor::host::retry_lookup([&] { return getpwuid(uid); });
    if (entry != nullptr) return entry->pw_name;
    char text[24];
    snprintf(text, sizeof text, "%lu", static_cast<unsigned long>(uid));
    QOR_record_qor_error(QOR_E_NO_OWNER, text, QOR_CTX_FIND_OWNER);
    return nullptr;
}

int QOR_start(const char *program, char **argv, pid_t *pid) {
    return bracketed([&] { return start(program, argv, pid); });
}

int QOR_call(const char *program, char **argv, int32_t *exit_code) {
    pid_t child = 0;
    int status = QOR_start(program, argv, &child);
    if (status != 0) return status;

    int wait_status = 0;
    bool ended = false;
    status = wait_for(program, child, &wait_status, &ended);
    if (status != 0 || !ended) return status;
    if (WIFSIGNALED(wait_status)) {
        if (exit_code != nullptr) *exit_code = WTERMSIG(wait_status);
        return QOR_E_SIGNALLED;
    }
    const int code = WEXITSTATUS(wait_status);
    if (code == kCouldNotRun) return record_program_error(program, ENOENT, 1);
    if (exit_code != nullptr) *exit_code = code;
    return 0;
}

int QOR_execute(const char *command, int32_t *exit_code) {
    if (command == nullptr) {
        return QOR_record_os_error(EINVAL, nullptr, QOR_CTX_EXECUTE);
    }
    const int result = qor::host::retry_eintr([&] { return system(command); });
    if (result == -1) return qor::host::record_errno(command, QOR_CTX_EXECUTE);
    // Compared before the wait status is taken apart, as the answer of a
    // shell that could not run the command at all.
    if (result == 127) {
        g_shell_parameters[0] = const_cast<char *>(command);
        QOR_output_message(qor::kSet, kShellMessage, QOR_MSG_INFORMATION,
                           g_shell_parameters);
        return QOR_E_SHELL;
    }
    if (WIFSIGNALED(result)) {
        if (exit_code != nullptr) *exit_code &= 127;
        return QOR_E_SIGNALLED;
    }
    if (exit_code != nullptr) *exit_code = WEXITSTATUS(result);
    return 0;
}

}  // extern "C"
