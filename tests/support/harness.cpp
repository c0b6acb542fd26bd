#include "harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#endif

#include <fstream>
#include <sstream>

// LeakSanitizer's switch, present only in sanitizer builds.
extern "C" void __lsan_disable(void) __attribute__((weak));

namespace qor_test {

namespace {

// In a coverage build, a process that cannot write its counts (a child
// that became the unprivileged user, one whose writes fail by injection)
// says so on its standard error as it ends ("profiling:<file>:<why>",
// "libgcov profiling error:..."). Those lines are the instrumentation's,
// not the program's; they are left out of what a test compares.
std::string without_coverage_complaints(const std::string &text) {
#ifdef QOR_TEST_COVERAGE
    std::string kept;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        if (text.compare(at, 10, "profiling:") != 0 &&
            text.compare(at, 24, "libgcov profiling error:") != 0) {
            kept.append(text, at, end - at);
        }
        at = end;
    }
    return kept;
#else
    return text;
#endif
}

std::string slurp_fd(int fd) {
    std::string s;
    char buf[4096];
    lseek(fd, 0, SEEK_SET);
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) break;
        s.append(buf, static_cast<size_t>(n));
    }
    return without_coverage_complaints(s);
}

void exit_natively(int status, void *) {
    fflush(nullptr);
    char code[16];
    snprintf(code, sizeof code, "%d", status);
    execl("/bin/sh", "sh", "-c", "exit \"$0\"", code, static_cast<char *>(nullptr));
}

int scratch_file() {
    char name[] = "/tmp/qor-capture-XXXXXX";
    int fd = mkstemp(name);
    if (fd < 0) abort();
    unlink(name);
    return fd;
}

ChildResult run_child(const std::function<void()> &fn, bool drop) {
    fflush(stdout);
    fflush(stderr);
    int out = scratch_file();
    int err = scratch_file();
    ChildResult r;
    pid_t pid = fork();
    if (pid < 0) abort();
    if (pid == 0) {
        dup2(out, 1);
        dup2(err, 2);
        close(out);
        close(err);
        if (drop) {
            if (setgroups(0, nullptr) != 0 ||
                setgid(unprivileged_gid()) != 0 ||
                setuid(unprivileged_uid()) != 0) {
                fprintf(stderr, "cannot drop privileges\n");
                _exit(120);
            }
        }
        // Children mostly test fatal paths, which end the process through
        // exit(3) with blocks still held by design; those are not leaks.
        if (__lsan_disable != nullptr) __lsan_disable();
        // Under valgrind, the same: the child ends by handing its status to
        // a native shell, so valgrind's end-of-run leak check never runs.
        if (RUNNING_ON_VALGRIND) on_exit(exit_natively, nullptr);
        fn();
        exit(0);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    if (WIFEXITED(status)) {
        r.exited = true;
        r.exit_status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        r.signal = WTERMSIG(status);
    }
    r.out = slurp_fd(out);
    r.err = slurp_fd(err);
    close(out);
    close(err);
    return r;
}

// Message callbacks for MessageLog. The log is passed as client data.
void output_cb(void *, void *client, void *call) {
    auto *log = static_cast<MessageLog *>(client);
    auto *rec = static_cast<QOR_output_message_record *>(call);
    Message m;
    m.set = rec->set ? rec->set : "";
    m.number = rec->number;
    m.type = rec->type;
    m.null_parameters = rec->parameters == nullptr;
    if (rec->parameters) {
        for (int i = 0; i < 8 && rec->parameters[i]; ++i)
            m.parameters.emplace_back(rec->parameters[i]);
    }
    log->messages.push_back(m);
    rec->result = log->output_result;
}

void give_text_cb(void *, void *, void *call) {
    auto *rec = static_cast<QOR_give_message_text_record *>(call);
    std::string t = MessageLog::text_of(rec->number);
    if (rec->parameters) {
        for (int i = 0; i < 7 && rec->parameters[i]; ++i) {
            t += " $" + std::to_string(i) + "=" + rec->parameters[i];
        }
    }
    snprintf(rec->buffer, static_cast<size_t>(rec->buffer_size), "%s",
             t.c_str());
    rec->result = 0;
}

void disc_full_cb(void *, void *client, void *call) {
    auto *h = static_cast<DiscFullHandler *>(client);
    auto *rec = static_cast<QOR_disc_full_record *>(call);
    h->calls.push_back({rec->reason ? rec->reason : "", rec->os_error,
                        rec->context, rec->path ? rec->path : ""});
    size_t i = h->calls.size() - 1;
    rec->result = h->answers.empty()
                      ? 1
                      : h->answers[i < h->answers.size() ? i
                                                         : h->answers.size() - 1];
}

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    ::remove(path);
    return 0;
}

}  // namespace

ChildResult run_in_child(const std::function<void()> &fn) {
    return run_child(fn, false);
}
ChildResult run_as_unprivileged(const std::function<void()> &fn) {
    return run_child(fn, true);
}

std::string qor_program() { return std::string(QOR_BINARY_DIR) + "/qor"; }

bool qor_built() { return access(qor_program().c_str(), X_OK) == 0; }

ChildResult run_qor(std::vector<std::string> args, const std::string &input) {
    return run_in_child([&] {
        const std::string program = qor_program();
        const int in = scratch_file();
        if (::write(in, input.data(), input.size()) !=
            static_cast<ssize_t>(input.size())) {
            _exit(126);
        }
        lseek(in, 0, SEEK_SET);
        dup2(in, 0);
        close(in);
        std::vector<char *> argv;
        argv.push_back(const_cast<char *>(program.c_str()));
        for (std::string &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        unsetenv("NLSPATH");
        execv(program.c_str(), argv.data());
        _exit(127);
    });
}

bool under_valgrind() { return RUNNING_ON_VALGRIND != 0; }

void end_child(int status) {
    if (RUNNING_ON_VALGRIND) exit_natively(status, nullptr);
    _exit(status);
}

uid_t unprivileged_uid() {
    struct passwd *pw = getpwnam("nobody");
    return pw ? pw->pw_uid : 65534;
}
gid_t unprivileged_gid() {
    struct group *gr = getgrnam("nogroup");
    return gr ? gr->gr_gid : 65534;
}

StderrCapture::StderrCapture() {
    fflush(stderr);
    saved_ = dup(2);
    file_ = scratch_file();
    dup2(file_, 2);
}
StderrCapture::~StderrCapture() {
    if (saved_ >= 0) take();
}
std::string StderrCapture::take() {
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
    std::string s = slurp_fd(file_);
    close(file_);
    file_ = -1;
    return s;
}

Message msg(const char *set, int number, int type,
            std::vector<std::string> parameters) {
    Message m;
    m.set = set;
    m.number = number;
    m.type = type;
    m.parameters = std::move(parameters);
    return m;
}

MessageLog::MessageLog(int result) : output_result(result) {
    QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE", output_cb, this);
    QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", give_text_cb, nullptr);
}
MessageLog::~MessageLog() {
    QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE", nullptr, nullptr);
    QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", nullptr, nullptr);
}
std::string MessageLog::text_of(int number) {
    return "<text of " + std::to_string(number) + ">";
}

DiscFullHandler::DiscFullHandler(std::vector<int> a) : answers(std::move(a)) {
    QOR_set_callback(nullptr, "QOR_DISC_FULL_HANDLER", disc_full_cb, this);
}
DiscFullHandler::~DiscFullHandler() {
    QOR_set_callback(nullptr, "QOR_DISC_FULL_HANDLER", nullptr, nullptr);
}

TempDir::TempDir() {
    char name[] = "/tmp/qor-test-XXXXXX";
    if (mkdtemp(name) == nullptr) abort();
    chmod(name, 0755);
    path_ = name;
}
TempDir::~TempDir() {
    nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream f(path, std::ios::binary);
    f << content;
}
std::string read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}
bool exists(const std::string &path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> lock_list_lines() {
    std::string previous = read_file("/proc/locks");
    for (int i = 0; i < 100; ++i) {
        std::string text = read_file("/proc/locks");
        if (text == previous) break;
        previous = std::move(text);
    }
    std::vector<std::string> lines;
    std::istringstream in(previous);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Descriptors at or above the soft limit are not the program's: valgrind
// keeps its own there, and opens and closes some of them as it goes (a
// forked child's, for one).
int open_descriptor_count() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return -1;
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    while (const dirent *e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        if (strtoull(e->d_name, nullptr, 10) < limit.rlim_cur) ++n;
    }
    closedir(d);
    return n - 1;  // the listing's own descriptor
}

}  // namespace qor_test
