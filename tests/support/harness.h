// Test harness shared by every suite: running code in a child process with
// its output captured, recording the messages the library outputs, a
// scratch directory, and the descriptor-leak check run around every test.
#pragma once

#include <qor/qor.h>
#include <setjmp.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "fault.h"

namespace qor_test {

// What a child process left behind.
struct ChildResult {
    bool exited = false;  // ended through exit/_exit
    int exit_status = -1; // its status when exited
    int signal = 0;       // the signal that ended it otherwise
    std::string out;      // all it wrote to standard output
    std::string err;      // all it wrote to standard error
};

// Runs fn in a forked child with standard output and error captured. The
// child ends with exit(0) (stdio flushed) when fn returns.
ChildResult run_in_child(const std::function<void()> &fn);

// As run_in_child, but the child first drops to an unprivileged user and
// group (nobody/nogroup), so that permission checks really apply.
ChildResult run_as_unprivileged(const std::function<void()> &fn);
// True when the program runs under valgrind, whose allocator keeps freed
// blocks out of circulation and replaces the program's own.
bool under_valgrind();

// Ends a forked child with `status`, never returning into the test program
// and running no exit handlers: _exit, or under valgrind a native shell
// that exits with the status, since valgrind's end-of-run leak check would
// count the blocks the child inherited from the test as its own leaks.
[[noreturn]] void end_child(int status);

// The user and group that run_as_unprivileged switches to.
uid_t unprivileged_uid();
gid_t unprivileged_gid();

// Arms the fatal handler (state 1) and runs fn; returns the value the
// library jumped back with, or -1 when fn returned. The state is 0 again
// afterwards. fn must leave no object with a destructor in a frame the jump
// crosses.
template <class F>
int catch_fatal(F fn) {
    static volatile int value;
    value = setjmp(QOR_fatal_handler);
    if (value == 0) {
        QOR_exception_handler_state = 1;
        fn();
        value = -1;
    }
    QOR_exception_handler_state = 0;
    return value;
}

// The qor command of this build, and whether it was built.
std::string qor_program();
bool qor_built();
// Runs the built qor command with args in a child, with input on its
// standard input. NLSPATH is cleared, so the catalogue beside the program
// is the one it finds.
ChildResult run_qor(std::vector<std::string> args,
                    const std::string &input = "");

// Captures what the current process writes to standard error between
// construction and take() (or destruction).
class StderrCapture {
  public:
    StderrCapture();
    ~StderrCapture();
    std::string take();

  private:
    int saved_ = -1;
    int file_ = -1;
};

// One message as the output callback received it.
struct Message {
    std::string set;
    int number = 0;
    int type = 0;
    bool null_parameters = false;
    std::vector<std::string> parameters;  // up to the first null (max 8)
    bool operator==(const Message &) const = default;
};
Message msg(const char *set, int number, int type,
            std::vector<std::string> parameters);

// Registers an output callback (and a give-text callback answering
// "<text of N>") for its lifetime; unregisters both on destruction.
class MessageLog {
  public:
    explicit MessageLog(int output_result = 0);
    ~MessageLog();
    std::vector<Message> messages;
    int output_result;
    // The text the give-text callback answers for message number n.
    static std::string text_of(int number);
};

// Registers a disc-full handler answering the scripted results in order
// (the last one repeated); records each call.
class DiscFullHandler {
  public:
    explicit DiscFullHandler(std::vector<int> answers);
    ~DiscFullHandler();
    struct Call {
        std::string reason;
        int os_error;
        int context;
        std::string path;
    };
    std::vector<Call> calls;
    std::vector<int> answers;
};

// A scratch directory, removed with everything in it on destruction.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const {
        return path_ + "/" + name;
    }

  private:
    std::string path_;
};

// Small file helpers for fixtures and for checking what is on disk.
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);
bool exists(const std::string &path);

// The lines of /proc/locks as of one moment. The kernel makes the list a
// page at a time, and other processes' lock changes between pages can
// skip an entry or show one twice, so the list is read until two reads in
// a row agree (the last read after 100 tries).
std::vector<std::string> lock_list_lines();

// Number of descriptors open in this process.
int open_descriptor_count();

}  // namespace qor_test
