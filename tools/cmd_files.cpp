// qor commands and tour step for the files subsystem: reading and saving
// shared text files through the save protocol (a backup and a control
// file beside the file while it is rewritten), and holding the update
// right of a lock file while a command runs.
//
// The file layer treats a failing host call as a broken installation: it
// prints its "Problem accessing file" report and raises a fatal error.
// These commands catch that with the fatal handler and end with status 1
// after one line of their own.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <qor/qor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "commands.h"

namespace qor_tool {
namespace {

// ---- The path of a shared text file ---------------------------------------------

// The protocol names the backup and the control file by appending ".bak"
// and ".ctrl" to the file's name and hands those to calls taking host
// paths, so the file must be named by a plain absolute path that reads
// the same as a qor path and as a host path. FILE is a qor path ("@" for
// a host path, relative ones against the current directory); its host
// form is made absolute here. 0 with *os set, or the exit status after
// reporting.
int txt_path(const Invocation &in, const char *what, const char *file,
             std::string *os) {
    char *translated = QOR_qor_to_os(file, 0);
    if (translated == nullptr) {
        return fail_status(in, what, file, QOR_E_UNTRANSLATABLE);
    }
    *os = translated;
    QOR_free(translated);
    if ((*os)[0] != '/') {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof cwd) == nullptr) {
            return fail_errno(in, what, file, errno);
        }
        *os = std::string(cwd) + (strcmp(cwd, "/") == 0 ? "" : "/") + *os;
    }
    char *again = QOR_qor_to_os(os->c_str(), 0);
    const bool same = again != nullptr && *os == again;
    if (again != nullptr) QOR_free(again);
    if (!same) {
        fprintf(stderr, "qor %s: %s: %s: the host path %s does not read the "
                        "same as a qor path\n", in.command->name, what, file,
                os->c_str());
        return kExitFailed;
    }
    return kExitOk;
}

// Whether the path names something; a dangling link names nothing, so
// that a reader never creates the file a link points to.
bool exists(const std::string &os) {
    struct stat st;
    return stat(os.c_str(), &st) == 0;
}

// ---- cat ---------------------------------------------------------------------------

struct CatJob {
    const char *path;    // plain absolute path
    bool read_only;      // --read-only: never repair
    bool fell_back;      // a writable open was refused: read only
    bool opened;
};

void cat_file(void *arg) {
    auto *job = static_cast<CatJob *>(arg);
    QOR_txt_handle *txt = nullptr;
    if (!job->read_only) {
        // A writable reader takes no update right: it repairs after a
        // crashed saver even while another writer holds the file open.
        txt = QOR_txt_open(job->path, 0, 0);
        job->fell_back = txt == nullptr;
    }
    if (txt == nullptr) txt = QOR_txt_open(job->path, 1, 0);
    job->opened = txt != nullptr;
    if (txt == nullptr) return;
    QOR_txt_start_read(txt);
    char line[4096];
    while (QOR_txt_read_line(txt, line, sizeof line) == 1) {
        fputs(line, stdout);
    }
    QOR_txt_end_read(txt);
    QOR_txt_close(txt);
}

int cmd_cat(Invocation &in) {
    std::vector<std::string> paths(static_cast<size_t>(in.count));
    for (int i = 0; i < in.count; ++i) {
        if (const int r = txt_path(in, "cannot read", in.operands[i], &paths[i])) {
            return r;
        }
    }
    int result = kExitOk;
    for (int i = 0; i < in.count; ++i) {
        const char *file = in.operands[i];
        const std::string &os = paths[i];
        if (!exists(os)) {
            result = fail_status(in, "cannot read", file, QOR_E_MISSING);
            continue;
        }
        const bool interrupted = exists(os + ".ctrl");
        CatJob job{os.c_str(), in.has('r'), false, false};
        if (!run_guarded(cat_file, &job)) {
            fail_after_fatal(in, "cannot read", file);
        }
        if (!job.opened) {
            result = fail_errno(in, "cannot read", file, EACCES);
            continue;
        }
        if (job.fell_back) {
            verbose(in, "'%s' may not be written: read without repairs\n",
                    file);
        }
        if (interrupted && !exists(os + ".ctrl")) {
            verbose(in, "'%s': an interrupted save was undone from its "
                        "backup\n", file);
        } else if (interrupted) {
            verbose(in, "'%s': a save was interrupted: its backup was read "
                        "and left in place\n", file);
        }
    }
    return result;
}

// ---- save --------------------------------------------------------------------------

struct SaveJob {
    const char *path;
    const char *contents;
    bool opened;
};

void save_file(void *arg) {
    auto *job = static_cast<SaveJob *>(arg);
    // A writer takes the update right at the open, without waiting.
    QOR_txt_handle *txt = QOR_txt_open(job->path, 0, 1);
    job->opened = txt != nullptr;
    if (txt == nullptr) return;
    QOR_txt_start_save(txt);
    QOR_txt_clear_file(txt);
    QOR_txt_write_string(txt, job->contents);
    QOR_txt_end_save(txt);
    QOR_txt_close(txt);
}

int cmd_save(Invocation &in) {
    const char *file = in.operands[0];
    std::string os;
    if (const int r = txt_path(in, "cannot save", file, &os)) return r;
    std::string contents;
    char buffer[65536];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, stdin)) > 0) {
        contents.append(buffer, n);
    }
    if (ferror(stdin)) {
        return fail_errno(in, "cannot read", "standard input", errno);
    }
    if (contents.find('\0') != std::string::npos) {
        fprintf(stderr, "qor save: cannot save: %s: standard input holds a "
                        "NUL byte, which a text file cannot\n", file);
        return kExitFailed;
    }
    if (in.has('s')) setenv("QOR_TXT_SYNC", "1", 1);  // read at the save
    SaveJob job{os.c_str(), contents.c_str(), false};
    if (!run_guarded(save_file, &job)) fail_after_fatal(in, "cannot save", file);
    if (!job.opened) {
        // Null from the open: the update right is held elsewhere, or the
        // file may not be written.
        const int held = QOR_txt_test_lock(os.c_str());
        return held == 0 ? fail_status(in, "cannot save", file, QOR_E_LOCKED)
                         : fail_errno(in, "cannot save", file, EACCES);
    }
    verbose(in, "saved %zu bytes to '%s'%s\n", contents.size(), file,
            in.has('s') ? " (durable)" : "");
    return kExitOk;
}

// ---- lockfile ----------------------------------------------------------------------

struct LockJob {
    const char *path;   // qor path of the lock file
    bool create;        // hold: create and take the update right
    int answer;         // test: QOR_test_lock's answer; hold: 1 when held
    QOR_file_handle *handle;
};

void lock_step(void *arg) {
    auto *job = static_cast<LockJob *>(arg);
    if (job->create) {
        job->handle = QOR_open_lock(job->path, 1);
        job->answer = job->handle != nullptr;
        return;
    }
    QOR_file_handle *h = QOR_open_lock(job->path, 0);
    job->answer = QOR_test_lock(h);
    QOR_close_lock(h);
}

void unlock_step(void *arg) { QOR_close_lock(static_cast<LockJob *>(arg)->handle); }

int cmd_lockfile(Invocation &in) {
    const char *action = in.operands[0];
    const bool hold = strcmp(action, "hold") == 0;
    if (!hold && strcmp(action, "test") != 0) {
        return usage_error(in, "unknown action '%s' (test or hold)", action);
    }
    if (in.count < 2) return usage_error(in, "missing operand after '%s'", action);
    const char *path = in.operands[1];
    if (!hold && in.count > 2) {
        return usage_error(in, "extra operand '%s'", in.operands[2]);
    }
    if (hold && in.count < 3) {
        return usage_error(in, "missing command after '%s'", path);
    }
    char *os = QOR_qor_to_os(path, 0);
    if (os == nullptr) {
        return fail_status(in, hold ? "cannot hold" : "cannot test", path,
                           QOR_E_UNTRANSLATABLE);
    }
    struct stat st;
    const int found = stat(os, &st);
    const int error = errno;
    QOR_free(os);
    if (!hold) {
        // The library answers "held" for a file it cannot open; say why.
        if (found != 0) {
            return error == ENOENT
                       ? fail_status(in, "cannot test", path, QOR_E_MISSING)
                       : fail_errno(in, "cannot test", path, error);
        }
        LockJob job{path, false, 0, nullptr};
        if (!run_guarded(lock_step, &job)) fail_after_fatal(in, "cannot test", path);
        verbose(in, job.answer ? "'%s': another process holds the update "
                                 "right\n"
                               : "'%s': no other process holds the update "
                                 "right\n",
                path);
        return job.answer ? kExitFailed : kExitOk;
    }
    LockJob job{path, true, 0, nullptr};
    if (!run_guarded(lock_step, &job)) fail_after_fatal(in, "cannot hold", path);
    if (!job.answer) return fail_status(in, "cannot hold", path, QOR_E_LOCKED);
    // The command gets no descriptor of the lock file; the lock is this
    // process's and lasts while it waits for the command.
    fcntl(job.handle->fd, F_SETFD, FD_CLOEXEC);
    verbose(in, "holding the update right of '%s'\n", path);
    const int code = run_command(in, in.operands + 2);
    if (!run_guarded(unlock_step, &job)) fail_after_fatal(in, "cannot release", path);
    return code;
}

// ---- Tour --------------------------------------------------------------------------

// The names in a directory, sorted, on one line.
void show_directory(const char *dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir)) {
        while (const dirent *e = readdir(d)) {
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
                names.push_back(e->d_name);
            }
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    printf("  in the directory:");
    for (const std::string &n : names) printf(" %s", n.c_str());
    printf("\n");
}

// The file's bytes as they are on disk, quoted on one line.
void show_raw(const char *label, const std::string &path) {
    std::string text;
    if (FILE *f = fopen(path.c_str(), "r")) {
        int c;
        while ((c = fgetc(f)) != EOF) text += static_cast<char>(c);
        fclose(f);
    }
    std::string shown;
    for (char c : text) shown += c == '\n' ? std::string("\\n") : std::string(1, c);
    printf("  %s: \"%s\"\n", label, shown.c_str());
}

void show_read(const char *label, const char *path, unsigned read_only) {
    QOR_txt_handle *txt = QOR_txt_open(path, read_only, 0);
    if (txt == nullptr) return;
    std::string text;
    char line[256];
    QOR_txt_start_read(txt);
    while (QOR_txt_read_line(txt, line, sizeof line) == 1) {
        for (const char *p = line; *p != '\0'; ++p) {
            text += *p == '\n' ? std::string("\\n") : std::string(1, *p);
        }
    }
    QOR_txt_end_read(txt);
    QOR_txt_close(txt);
    printf("  %s reads \"%s\"\n", label, text.c_str());
}

int tour_txt(const char *dir) {
    const std::string file = std::string(dir) + "/notes.txt";
    const char *p = file.c_str();
    QOR_txt_handle *txt = QOR_txt_open(p, 0, 1);
    if (txt == nullptr) return 1;
    printf("open notes.txt, in a new temporary directory, as its one writer "
           "(the update\nright: a record lock on byte 1 of the file)\n");
    QOR_txt_start_save(txt);
    QOR_txt_clear_file(txt);
    QOR_txt_write_string(txt, "first line\n");
    QOR_txt_end_save(txt);
    printf("save \"first line\": the backup and the control file come and "
           "go\n");
    show_directory(dir);
    QOR_txt_start_save(txt);
    printf("start another save: the old contents are in notes.txt.bak, and "
           "notes.txt.ctrl\nsays a rewrite is under way\n");
    show_directory(dir);
    QOR_txt_clear_file(txt);
    QOR_txt_write_string(txt, "second line\n");
    QOR_txt_end_save(txt);
    QOR_txt_close(txt);
    printf("end the save: both are gone\n");
    show_directory(dir);

    // A saver that dies half-way through its rewrite.
    fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0) return 1;
    if (pid == 0) {
        QOR_txt_handle *t = QOR_txt_open(p, 0, 1);
        if (t == nullptr) _exit(1);
        QOR_txt_start_save(t);
        QOR_txt_clear_file(t);
        QOR_txt_write_string(t, "third li");
        QOR_flush_text_file(t->file);
        _exit(0);  // killed before the end of its save
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        return 1;
    }
    printf("another process starts a save, writes \"third li\" and dies\n");
    show_directory(dir);
    show_raw("notes.txt on disk", file);
    show_read("a read-only reader, from the backup,", p, 1);
    show_directory(dir);
    show_read("a writable reader repairs the file and", p, 0);
    show_directory(dir);
    show_raw("notes.txt on disk", file);
    return 0;
}

int tour_lock_file(const char *dir) {
    const std::string lock = std::string(dir) + "/job.lock";
    const char *l = lock.c_str();
    QOR_file_handle *h = QOR_open_lock(l, 1);
    if (h == nullptr) return 1;
    printf("\ntake the update right of the lock file job.lock -> held\n");
    int to_child[2];
    int from_child[2];
    if (pipe(to_child) != 0 || pipe(from_child) != 0) return 1;
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        close(to_child[1]);
        close(from_child[0]);
        for (int round = 0; round < 2; ++round) {
            char go;
            if (read(to_child[0], &go, 1) != 1) _exit(1);
            QOR_file_handle *mine = QOR_open_lock(l, 1);
            const char answer = mine != nullptr ? 'y' : 'n';
            if (mine != nullptr) QOR_close_lock(mine);
            if (write(from_child[1], &answer, 1) != 1) _exit(1);
        }
        _exit(0);
    }
    close(to_child[0]);
    close(from_child[1]);
    char answer = '?';
    const char go = 'g';
    bool ok = write(to_child[1], &go, 1) == 1 && read(from_child[0], &answer, 1) == 1;
    printf("  another process asks for it -> %s\n",
           answer == 'y' ? "granted" : "refused at once (no waiting)");
    QOR_close_lock(h);
    printf("release it (close the lock file)\n");
    ok = ok && write(to_child[1], &go, 1) == 1 && read(from_child[0], &answer, 1) == 1;
    printf("  another process asks for it -> %s\n",
           answer == 'y' ? "granted" : "refused");
    close(to_child[1]);
    close(from_child[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return ok ? 0 : 1;
}

const Option kCatOptions[] = {
    {'r', "read-only", nullptr,
     "never repair: read the backup of an interrupted save"},
    {}};

const Option kSaveOptions[] = {
    {'s', "sync", nullptr,
     "make every step durable (as QOR_TXT_SYNC=1)"},
    {}};

}  // namespace

const Command files_commands[] = {
    {"cat", cmd_cat, "[OPTION]... FILE...",
     "print shared text files, repairing an interrupted save",
     "Writes each FILE to standard output, read through the save protocol "
     "of shared\ntext files: the read waits while another process saves "
     "the file. When a save\nwas interrupted (\"FILE.ctrl\" stands beside "
     "the file), the file is first\nrestored from its backup \"FILE.bak\" "
     "and both are removed, as every reader\nthat may write the file does; "
     "with --read-only, or when FILE may not be\nwritten, the backup is "
     "read instead and left in place.\n"
     "\n"
     "FILE is a qor path (\"@\" for a host path; a relative one is taken "
     "against\nthe current directory) whose host form must read the same "
     "as a qor path.",
     kCatOptions, 1, -1},
    {"save", cmd_save, "[OPTION]... FILE",
     "replace a shared text file's contents from standard input",
     "Reads all of standard input, then replaces the contents of FILE "
     "(made when\nmissing) through the save protocol: the process becomes "
     "the file's one\nwriter (its update right), waits for readers, copies "
     "the old contents to\n\"FILE.bak\", marks the rewrite with an empty "
     "\"FILE.ctrl\", rewrites FILE and\nremoves both. A save killed "
     "half-way leaves the old contents for the next\nreader. Fails at once "
     "when another process is the file's writer.\n"
     "\n"
     "FILE is named as for qor cat. Standard input may not hold NUL bytes.",
     kSaveOptions, 1, 1},
    {"lockfile", cmd_lockfile, "test PATH\nhold PATH COMMAND [ARGUMENT]...",
     "test or hold the update right of a lock file",
     "A lock file carries the update right as a record lock on its second "
     "byte: one\nprocess at a time may hold it, and it is never waited "
     "for.\n"
     "\n"
     "test: ends with status 0 when no other process holds the update right "
     "of\nPATH, 1 when one does (or PATH cannot be read, which is "
     "reported).\n"
     "\n"
     "hold: makes PATH when missing (two bytes), takes its update right, "
     "runs\nCOMMAND while holding it, releases it and ends with the "
     "command's exit\nstatus, as flock(1) does; fails at once, with status "
     "1, when another process\nholds it. COMMAND does not inherit the lock "
     "file.",
     nullptr, 1, -1, 1},
    {}};

int tour_files() {
    tour_heading("Shared text files and lock files");
    char *os = tour_directory("qor-tour-files-");
    if (os == nullptr) return 1;
    int result = tour_txt(os);
    if (result == 0) result = tour_lock_file(os);
    remove_tree(os);
    QOR_free(os);
    return result;
}

}  // namespace qor_tool
