// QOR_print against a real print spooler: a private cupsd with its own
// configuration, spool and socket in a scratch directory, and one stopped
// printer whose device is a file, so that the job stays in the spool for
// its files to be read. Skipped, with the reason, where cups is not
// installed or its scheduler cannot run.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "harness.h"
#include "qor/qor.h"

extern char **environ;

namespace {

constexpr const char kCupsd[] = "/usr/sbin/cupsd";
constexpr const char kLp[] = "/usr/bin/lp";

// True once something accepts connections on the socket at path.
bool accepts(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    const bool ok =
        connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

double now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

// A private scheduler in dir: started by start(), stopped (SIGTERM, which
// makes it write its job files out) by stop() or on destruction.
class PrivateCupsd {
  public:
    explicit PrivateCupsd(const std::string &dir) : dir_(dir) {}
    ~PrivateCupsd() { stop(); }

    std::string socket() const { return dir_ + "/sock"; }
    std::string spool() const { return dir_ + "/spool"; }
    std::string device() const { return dir_ + "/device.out"; }

    // Empty when the scheduler runs, else why it does not.
    std::string start() {
        for (const char *d : {"/etc", "/spool", "/spool/tmp", "/cache",
                              "/state", "/log"}) {
            mkdir((dir_ + d).c_str(), 0755);
        }
        qor_test::write_file(dir_ + "/etc/cups-files.conf",
            "ServerRoot " + dir_ + "/etc\n"
            "RequestRoot " + spool() + "\n"
            "TempDir " + spool() + "/tmp\n"
            "CacheDir " + dir_ + "/cache\n"
            "StateDir " + dir_ + "/state\n"
            "ErrorLog " + dir_ + "/log/error_log\n"
            "AccessLog " + dir_ + "/log/access_log\n"
            "PageLog " + dir_ + "/log/page_log\n"
            "FileDevice Yes\n");
        qor_test::write_file(dir_ + "/etc/cupsd.conf",
            "Listen " + socket() + "\n"
            "LogLevel info\n"
            "PreserveJobFiles Yes\n"
            "PreserveJobHistory Yes\n"
            "Browsing No\n"
            "WebInterface No\n"
            "<Location />\nOrder allow,deny\nAllow all\n</Location>\n");
        // Stopped but accepting: jobs are queued and never printed, so the
        // spool keeps them.
        qor_test::write_file(dir_ + "/etc/printers.conf",
            "<Printer qortest>\nState Stopped\nAccepting Yes\n"
            "DeviceURI file://" + device() + "\n</Printer>\n");

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        const std::string out = dir_ + "/log/cupsd.out";
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        const std::string conf = dir_ + "/etc/cupsd.conf";
        const std::string files = dir_ + "/etc/cups-files.conf";
        char *argv[] = {const_cast<char *>(kCupsd), const_cast<char *>("-f"),
                        const_cast<char *>("-c"), const_cast<char *>(conf.c_str()),
                        const_cast<char *>("-s"), const_cast<char *>(files.c_str()),
                        nullptr};
        const int e = posix_spawn(&pid_, kCupsd, &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        if (e != 0) {
            pid_ = -1;
            return std::string("cannot start cupsd: ") + strerror(e);
        }
        // Waiting for a server to come up, not timing anything: give up
        // after a generous deadline.
        const double deadline = now() + 20;
        while (!accepts(socket())) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return "cupsd ended at once: " + log();
            }
            if (now() > deadline) {
                stop();
                return "cupsd did not listen within 20 s: " + log();
            }
            usleep(20000);
        }
        return "";
    }

    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }

    std::string log() const {
        std::string text;
        for (const char *f : {"/log/cupsd.out", "/log/error_log"}) {
            if (qor_test::exists(dir_ + f)) text += qor_test::read_file(dir_ + f);
        }
        return text.size() > 2000 ? text.substr(text.size() - 2000) : text;
    }

  private:
    std::string dir_;
    pid_t pid_ = -1;
};

}  // namespace

TEST(PrintSpooler, TwoCopiesOfAFileMakeOneJobWithItsBytesAndTwoCopies) {
    if (access(kCupsd, X_OK) != 0 || access(kLp, X_OK) != 0) {
        GTEST_SKIP() << "cups and cups-client are not installed (scripts/setup "
                        "--tests installs them)";
    }
    qor_test::TempDir tmp;
    chmod(tmp.path().c_str(), 0755);
    mkdir((tmp / "root").c_str(), 0755);
    const std::string bytes = "first line\nsecond line\n\x01\x02 binary tail";
    qor_test::write_file(tmp / "root/doc.txt", bytes);

    PrivateCupsd cupsd(tmp / "cups");
    mkdir((tmp / "cups").c_str(), 0755);
    const std::string why = cupsd.start();
    if (!why.empty()) GTEST_SKIP() << "no private cupsd here: " << why;

    const auto r = qor_test::run_in_child([&] {
        setenv("QOR_ROOT", (tmp / "root").c_str(), 1);
        setenv("CUPS_SERVER", cupsd.socket().c_str(), 1);
        setenv("PATH", "/usr/bin:/bin", 1);
        qor_test::MessageLog log;
        const int status = QOR_print("_/doc.txt", "qortest", 2);
        printf("%d %zu", status, log.messages.size());
    });
    EXPECT_EQ(r.out, "0 0") << r.err;
    EXPECT_EQ(r.err, "");
    // lp was told to copy the file at once: the caller may remove it now.
    unlink((tmp / "root/doc.txt").c_str());
    cupsd.stop();

    // The spooled document holds the file's bytes.
    const std::string data = cupsd.spool() + "/d00001-001";
    ASSERT_TRUE(qor_test::exists(data)) << cupsd.log();
    EXPECT_EQ(qor_test::read_file(data), bytes);
    // The job's attributes (IPP encoding) ask for two copies: integer tag,
    // name "copies", a four-byte value of 2.
    const std::string control = cupsd.spool() + "/c00001";
    ASSERT_TRUE(qor_test::exists(control)) << cupsd.log();
    const std::string attributes = qor_test::read_file(control);
    const std::string copies("\x21\x00\x06" "copies" "\x00\x04\x00\x00\x00\x02",
                             15);
    EXPECT_NE(attributes.find(copies), std::string::npos);
    EXPECT_NE(attributes.find("qortest"), std::string::npos);
    // One job only.
    EXPECT_FALSE(qor_test::exists(cupsd.spool() + "/c00002"));
}
