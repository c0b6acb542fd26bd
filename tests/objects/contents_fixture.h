// Shared set-up of the contents and operations tests: a second process
// driven over pipes, record locks placed and probed from it, the blocked
// lock requests the kernel lists, and small helpers over open-contents
// records.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "objects_fixture.h"

namespace objects_test {

// A second process running body(partner), talking with the test over two
// pipes: the child tells and hears single bytes, the test receives and
// sends them. The child ends with body's result as its status (end_child)
// and never returns into the test program.
class Partner {
  public:
    explicit Partner(const std::function<int(Partner &)> &body) {
        if (pipe2(to_child_, O_CLOEXEC) != 0 ||
            pipe2(to_parent_, O_CLOEXEC) != 0) {
            abort();
        }
        fflush(stdout);
        fflush(stderr);
        pid_ = fork();
        if (pid_ < 0) abort();
        if (pid_ == 0) {
            ::close(to_child_[1]);
            ::close(to_parent_[0]);
            child_ = true;
            qor_test::end_child(body(*this));
        }
        ::close(to_child_[0]);
        ::close(to_parent_[1]);
    }
    ~Partner() {
        ::close(to_child_[1]);  // a child waiting to hear ends now
        finish();
        ::close(to_parent_[0]);
    }
    Partner(const Partner &) = delete;
    Partner &operator=(const Partner &) = delete;

    pid_t pid() const { return pid_; }

    // Child side.
    void tell(char c) {
        if (::write(to_parent_[1], &c, 1) != 1) _exit(121);
    }
    char hear() {
        char c = 0;
        return ::read(to_child_[0], &c, 1) == 1 ? c : '\0';
    }

    // Test side: the next byte the child told, '\0' when it ended first.
    char receive() {
        char c = 0;
        ssize_t n;
        do {
            n = ::read(to_parent_[0], &c, 1);
        } while (n < 0 && errno == EINTR);
        return n == 1 ? c : '\0';
    }
    void send(char c) {
        if (::write(to_child_[1], &c, 1) != 1) abort();
    }
    // Waits for the child; its exit status, or 128 + the signal.
    int finish() {
        if (finished_) return status_;
        int st = 0;
        while (waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
        }
        finished_ = true;
        status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        return status_;
    }

  private:
    int to_child_[2] = {-1, -1};
    int to_parent_[2] = {-1, -1};
    pid_t pid_ = -1;
    bool child_ = false;
    bool finished_ = false;
    int status_ = -1;
};

// A whole-file record lock by hand: F_RDLCK or F_WRLCK, waiting or not.
inline int raw_lock(int fd, short type, bool wait) {
    struct flock fl = {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    return fcntl(fd, wait ? F_SETLKW : F_SETLK, &fl);
}

// The kind of lock another process holds that would block a whole-file
// lock of the given type from this one: F_UNLCK when none.
inline short conflicting_lock(const std::string &os_path, short type) {
    const int fd = ::open(os_path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return -1;
    struct flock fl = {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    const int r = fcntl(fd, F_GETLK, &fl);
    ::close(fd);
    return r == 0 ? fl.l_type : -1;
}

// What a second process finds on a copy's source and target while the
// copy waits in the disc-full handler. copy() makes the disc full and runs
// the copy; the handler looks, then answers 0 so that the copy goes on.
// The conflicting lock on each is returned: the source asked as a writer
// would ask, the target as a reader would.
struct LocksMidCopy {
    short on_source = -1;
    short on_target = -1;
};
inline LocksMidCopy locks_seen_mid_copy(const std::string &source_os,
                                        const std::string &target_os,
                                        const std::function<void()> &copy) {
    struct Probe {
        std::string s, t;
        LocksMidCopy seen;
    } probe{source_os, target_os, {}};
    QOR_set_callback(
        nullptr, "QOR_DISC_FULL_HANDLER",
        [](void *, void *client, void *call) {
            auto *p = static_cast<Probe *>(client);
            p->seen.on_source = static_cast<short>(
                Partner([&](Partner &) { return conflicting_lock(p->s, F_WRLCK); })
                    .finish());
            p->seen.on_target = static_cast<short>(
                Partner([&](Partner &) { return conflicting_lock(p->t, F_RDLCK); })
                    .finish());
            static_cast<QOR_disc_full_record *>(call)->result = 0;
        },
        &probe);
    copy();
    QOR_set_callback(nullptr, "QOR_DISC_FULL_HANDLER", nullptr, nullptr);
    return probe.seen;
}

// A child process that holds a lock of the given type on the file until
// it is destroyed: it tells 'L' once the lock is held, 'F' when it could
// not be had.
class Holder {
  public:
    Holder(const std::string &os_path, short type)
        : partner_([os_path, type](Partner &p) {
              const int fd = ::open(os_path.c_str(),
                                    type == F_RDLCK ? O_RDONLY : O_RDWR);
              if (fd < 0 || raw_lock(fd, type, false) != 0) {
                  p.tell('F');
                  return 1;
              }
              p.tell('L');
              p.hear();  // until the test lets go
              return 0;
          }) {
        held_ = partner_.receive() == 'L';
    }
    bool held() const { return held_; }
    pid_t pid() const { return partner_.pid(); }
    // Lets go of the lock and waits for the process to end.
    void release() {
        partner_.send('x');
        partner_.finish();
    }

  private:
    Partner partner_;
    bool held_ = false;
};

// True once the kernel lists a blocked lock request of the process (the
// "->" lines of /proc/locks); polls for up to 30 seconds. This is how the
// tests know a waiting request is really waiting, without sleeping for it.
inline bool wait_until_blocked(pid_t pid) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const std::string needle = " " + std::to_string(pid) + " ";
    while (std::chrono::steady_clock::now() < deadline) {
        std::ifstream locks("/proc/locks");
        std::string line;
        while (std::getline(locks, line)) {
            if (line.find("->") != std::string::npos &&
                line.find(needle) != std::string::npos) {
                return true;
            }
        }
        std::this_thread::yield();
    }
    return false;
}

// The size of the file open on a descriptor. Tests look at files they
// hold locked through it: opening and closing the file by name would drop
// every record lock this process holds on it.
inline long long size_of(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// A second process that holds a lock of the given type on the file until
// it sees this process waiting for the file in the kernel's list, then
// says 'H' and ends, which lets the lock go. Once a waiting request of the
// test returns, finding the 'H' already there proves that it waited.
class HolderUntilBlocked {
  public:
    HolderUntilBlocked(const std::string &os_path, short type)
        : waiter_(getpid()),
          partner_([this, os_path, type](Partner &p) {
              const int fd = ::open(os_path.c_str(),
                                    type == F_RDLCK ? O_RDONLY : O_RDWR);
              if (fd < 0 || raw_lock(fd, type, false) != 0) return 1;
              p.tell('L');
              if (!wait_until_blocked(waiter_)) return 2;
              p.tell('H');  // before the lock goes
              return 0;     // the exit drops it
          }) {
        held_ = partner_.receive() == 'L';
    }
    bool held() const { return held_; }
    // After the waiting request: the holder let go first, and ended well.
    bool let_go_first() {
        return partner_.receive() == 'H' && partner_.finish() == 0;
    }

  private:
    pid_t waiter_;
    Partner partner_;
    bool held_ = false;
};

// Random bytes, the same for the same seed.
inline std::string random_bytes(size_t n, unsigned seed) {
    std::mt19937_64 gen(seed);
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i += 8) {
        const uint64_t v = gen();
        memcpy(&s[i], &v, std::min<size_t>(8, n - i));
    }
    return s;
}

// Whether the descriptor carries close-on-exec.
inline bool close_on_exec(int fd) {
    const int f = fcntl(fd, F_GETFD);
    return f >= 0 && (f & FD_CLOEXEC) != 0;
}

// What the descriptors of a freshly exec'd program point at: a shell
// started by popen lists the targets of its own /proc/<pid>/fd entries,
// which are exactly the descriptors that survived the exec.
inline std::vector<std::string> targets_after_exec() {
    std::vector<std::string> targets;
    FILE *p = popen(
        "for f in /proc/$$/fd/*; do readlink \"$f\"; done", "r");
    if (p == nullptr) return targets;
    char line[4096];
    while (fgets(line, sizeof line, p) != nullptr) {
        std::string t = line;
        if (!t.empty() && t.back() == '\n') t.pop_back();
        targets.push_back(t);
    }
    pclose(p);
    return targets;
}

// The targets above that lie below a path.
inline std::vector<std::string> inherited_below(const std::string &path) {
    std::vector<std::string> out;
    for (const auto &t : targets_after_exec()) {
        if (t.rfind(path, 0) == 0) out.push_back(t);
    }
    return out;
}

// The descriptors of this process open on a path (or below it).
inline std::vector<int> descriptors_on(const std::string &path) {
    std::vector<int> out;
    for (int fd = 0; fd < 1024; ++fd) {
        char link[64], target[4096];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        const ssize_t n = readlink(link, target, sizeof target - 1);
        if (n <= 0) continue;
        target[n] = '\0';
        if (std::string(target).rfind(path, 0) == 0) out.push_back(fd);
    }
    return out;
}

// Closes what an injected close failure left open on the path.
inline void close_descriptors_on(const std::string &path) {
    for (int fd : descriptors_on(path)) ::close(fd);
}

}  // namespace objects_test
