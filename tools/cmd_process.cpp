// qor commands and tour step for the process subsystem:
//   qor locate [--type=TYPE] [--extra=LIST] [--os|--qor] [--trace=LEVEL] NAME
//   qor whoami
//   qor run PROGRAM [ARGUMENT]...     started, not waited for
//   qor call PROGRAM [ARGUMENT]...    started and waited for
//   qor exec COMMAND                  through the shell

#include <qor/qor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "commands.h"

namespace qor_tool {
namespace {

int cmd_locate(Invocation &in) {
    const char *name = in.operands[0];
    unsigned type = QOR_PLAIN_FILE;
    if (in.has(kTypeLetter) &&
        !type_operand(in, in.value(kTypeLetter), &type)) {
        return kExitUsage;
    }
    if (in.has('o') && in.has('q')) {
        return usage_error(in, "cannot combine --os and --qor");
    }
    long long level = 0;
    if (in.has('T') &&
        !number_operand(in, in.value('T'), "LEVEL", 1, 2, &level)) {
        return kExitUsage;
    }
    // Only raises the level above QOR_LOCATE_TRACE_LEVEL, never lowers it.
    if (level > 0) QOR_set_locate_trace_level(static_cast<int>(level));
    char *found = QOR_locate(name, type, in.value('e'),
                             in.has('q') ? QOR_FORM_QOR : QOR_FORM_OS);
    if (found == nullptr) {
        fprintf(stderr, "qor locate: cannot locate: %s: not found on the "
                        "search path\n", name);
        return kExitFailed;
    }
    printf("%s\n", found);
    QOR_free(found);
    return kExitOk;
}

int cmd_whoami(Invocation &) {
    const char *host = QOR_host_name();
    const char *owner = QOR_process_owner_name();
    printf("process %s\nhost    %s\nowner   %s\n", QOR_process_identity(),
           host != nullptr ? host : "(unknown)",
           owner != nullptr ? owner : "(unknown)");
    // The library has recorded an unknown owner; uname fails silently.
    if (host == nullptr) {
        fprintf(stderr, "qor whoami: cannot read the host name: uname failed\n");
    }
    return host != nullptr && owner != nullptr ? kExitOk : kExitFailed;
}

int cmd_run(Invocation &in) {
    const char *program = in.operands[0];
    // The program's own vector, as for qor call.
    pid_t pid = 0;
    const int status = QOR_start(program, in.operands, &pid);
    if (status != 0) return fail_status(in, "cannot run", program, status);
    printf("%ld\n", static_cast<long>(pid));
    verbose(in, "%s started\n", program);
    return kExitOk;
}

int cmd_call(Invocation &in) {
    const char *program = in.operands[0];
    // The program's own vector: element 0 is the placeholder the child
    // replaces with its body's path.
    int32_t code = 0;
    const int status = QOR_call(program, in.operands, &code);
    if (status == QOR_E_SIGNALLED) {
        fail_status(in, "cannot run", program, status);
        return 128 + code;
    }
    if (status != 0) return fail_status(in, "cannot run", program, status);
    verbose(in, "%s ended with exit status %d\n", program,
            static_cast<int>(code));
    return code;
}

int cmd_exec(Invocation &in) {
    const char *command = in.operands[0];
    int32_t code = 0;
    const int status = QOR_execute(command, &code);
    if (status != 0) return fail_status(in, "cannot run", command, status);
    verbose(in, "the shell ended with exit status %d\n",
            static_cast<int>(code));
    return code;
}

const Option kLocateOptions[] = {
    kTypeOption,
    {'e', "extra", "LIST",
     "then look in these qor directories (commas or blanks between)"},
    {'o', "os", nullptr, "print a host path (the default)", true},
    {'q', "qor", nullptr, "print an absolute qor path, not a host path"},
    {'T', "trace", "LEVEL",
     "trace probes on standard error: 1 those found, 2 all"},
    {}};

}  // namespace

const Command process_commands[] = {
    {"locate", cmd_locate, "[OPTION]... NAME",
     "find a file or directory on the search path",
     "Looks for NAME as the library does: the name itself when it is a qor "
     "path,\nthen in each directory of QOR_PATH (in the subdirectories that "
     "QOR_PATH_DEFAULTS\nlists for the name's extension, as in "
     "\"dat=(data,tables);hlp=(help)\"), then in\nthe directories of "
     "--extra. Prints the first that exists, as a host path\n(--os, the "
     "default) or, with --qor, as an absolute qor path. --type=1\n"
     "(plain_directory) looks for a directory.\n"
     "\n"
     "QOR_LOCATE_TRACE_LEVEL sets the lowest trace level; --trace can "
     "only raise it.\nEach traced probe is one line: the path, then "
     "\"-- succeeded\" or \"-- failed\"\n(or the catalogue's wording).",
     kLocateOptions, 1, 1},
    {"whoami", cmd_whoami, "",
     "show the process id, the host name and the owner's name",
     "Prints the process id, the host's node name and the name of the "
     "process's\nowner: the login name, else the user name of the real user "
     "id. Ends with\nstatus 1 when the host or the owner cannot be named.",
     nullptr, 0, 0},
    {"run", cmd_run, "PROGRAM [ARGUMENT]...",
     "start a program of the object store, without waiting",
     "Finds PROGRAM as qor call does, starts it with the ARGUMENTs and "
     "QOR_HASH set\nto its directory, prints the new process's id on "
     "standard output and ends\nwith status 0 at once, leaving the program "
     "running; 1 when it is not found\nor cannot be started. Options must "
     "come before PROGRAM: everything after\nit is the program's.",
     nullptr, 1, -1, 1},
    {"call", cmd_call, "PROGRAM [ARGUMENT]...",
     "call a program of the object store",
     "Finds PROGRAM (a directory whose .body, or .interp/.body, is the "
     "executable)\non QOR_PATH, then in \"#\" and \"_/tools\", runs it with "
     "the ARGUMENTs and QOR_HASH\nset to its directory, waits for it and ends "
     "with its exit status: 128 plus\nthe signal's number when a signal "
     "ended it, 1 when it is not found or cannot\nbe run (an exit status of "
     "255 is taken to mean that). Options must come\nbefore PROGRAM: "
     "everything after it is the program's.",
     nullptr, 1, -1, 1},
    {"exec", cmd_exec, "COMMAND", "run a shell command",
     "Runs COMMAND with /bin/sh, waits for it and ends with the shell's exit "
     "status\n(127 when the shell cannot find the command); 1 when the shell "
     "could not run\nor was ended by a signal.",
     nullptr, 1, 1, 1},
    {}};

namespace {

void put_file(const std::string &path, const char *text, mode_t mode) {
    FILE *f = fopen(path.c_str(), "we");
    if (f == nullptr) return;
    fputs(text, f);
    fclose(f);
    chmod(path.c_str(), mode);
}

}  // namespace

int tour_process() {
    tour_heading("Processes: locating files and running programs");
    char dir[] = "/tmp/qor-tour-process-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    const std::string base = dir;
    mkdir((base + "/help").c_str(), 0755);
    put_file(base + "/help/intro.hlp", "welcome\n", 0644);
    mkdir((base + "/hello").c_str(), 0755);
    put_file(base + "/hello/.body",
             "#!/bin/sh\necho \"  hello: I am $0\"\n"
             "echo \"  hello: QOR_HASH is $QOR_HASH\"\n"
             "echo \"  hello: my arguments: $*\"\nexit 3\n",
             0755);

    // The table of type defaults is read at the first locate of the
    // process; QOR_PATH at every one.
    setenv("QOR_PATH_DEFAULTS", "hlp=(help)", 1);
    setenv("QOR_PATH", dir, 1);
    printf("QOR_PATH=%s, QOR_PATH_DEFAULTS=hlp=(help): a .hlp file is looked "
           "for in\nDIR/help only, every probe traced (level 2):\n",
           dir);
    fflush(stdout);
    // A raised trace level never comes down again in a process, and the
    // table of type defaults is read once: the traced locate runs in a
    // child, so that the steps after this one locate untraced, with
    // tables of their own.
    int result = 1;
    const pid_t pid = fork();
    if (pid == 0) {
        QOR_set_locate_trace_level(2);
        char *found = QOR_locate("intro.hlp", QOR_PLAIN_FILE, nullptr,
                                 QOR_FORM_OS);
        printf("  found %s\n", found != nullptr ? found : "(nothing)");
        fflush(stdout);
        _exit(found != nullptr ? 0 : 1);
    }
    int child = 0;
    if (pid > 0 && waitpid(pid, &child, 0) == pid && WIFEXITED(child) &&
        WEXITSTATUS(child) == 0) {
        result = 0;
    }

    printf("The program \"hello\" is the directory %s/hello; QOR_call runs "
           "its .body:\n",
           dir);
    fflush(stdout);
    char arg0[] = "hello";
    char arg1[] = "one";
    char arg2[] = "two";
    char *argv[] = {arg0, arg1, arg2, nullptr};
    int32_t code = -1;
    const int status = QOR_call("hello", argv, &code);
    printf("  QOR_call: status %d, exit code %d\n", status,
           static_cast<int>(code));
    if (status != 0 || code != 3) result = 1;

    code = -1;
    const int shell = QOR_execute("echo '  sh: hello from the shell'; exit 5",
                                  &code);
    printf("  QOR_execute: status %d, exit code %d\n", shell,
           static_cast<int>(code));
    if (shell != 0 || code != 5) result = 1;

    const char *owner = QOR_process_owner_name();
    printf("This is process %s on %s, owned by %s.\n", QOR_process_identity(),
           QOR_host_name() != nullptr ? QOR_host_name() : "(unknown)",
           owner != nullptr ? owner : "(unknown)");
    remove_tree(dir);
    return result;
}

}  // namespace qor_tool
