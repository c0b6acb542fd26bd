// Operations under the host's resource limits and on members of extreme
// sizes: running out of descriptors or of file size fails cleanly with the
// host's error recorded, leaves no descriptor open and no source changed; a
// member far larger than memory (sparse) is read where asked, never whole.

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>

#include "objects_fixture.h"

namespace objects_test {
namespace {

// Sets a soft resource limit for the life of the object.
class SoftLimit {
  public:
    SoftLimit(int resource, rlim_t value) : resource_(resource) {
        getrlimit(resource_, &saved_);
        struct rlimit r = saved_;
        r.rlim_cur = value;
        ok_ = setrlimit(resource_, &r) == 0;
    }
    ~SoftLimit() { setrlimit(resource_, &saved_); }
    bool ok() const { return ok_; }

  private:
    int resource_;
    struct rlimit saved_;
    bool ok_ = false;
};

// The lowest descriptor number not in use.
int lowest_free_descriptor() {
    const int fd = dup(0);
    close(fd);
    return fd;
}

bool recorded_errno(const MessageLog &log, int err) {
    for (const auto &m : log.messages) {
        if (m.parameters.size() > 2 && m.parameters[2] == strerror(err)) {
            return true;
        }
    }
    return false;
}

using Limits = Store;

TEST_F(Limits, OutOfDescriptorsACopyFailsCleanly) {
    make_object(os("s"), 0);
    qor_test::write_file(os("s"), "source");
    MessageLog log;
    int status = 0;
    {
        // Room for the source only: the target's open fails.
        SoftLimit limit(RLIMIT_NOFILE, lowest_free_descriptor() + 1);
        ASSERT_TRUE(limit.ok());
        status = QOR_copy_object(qor("s").c_str(), 0, qor("t").c_str());
    }
    EXPECT_EQ(status, QOR_E_RESOURCE);
    EXPECT_TRUE(recorded_errno(log, EMFILE));
    EXPECT_EQ(entries(tmp_.path()), std::vector<std::string>{"s"});
    EXPECT_EQ(qor_test::read_file(os("s")), "source");
}

TEST_F(Limits, OutOfDescriptorsAnObjectLockFailsAndLeavesNoEntry) {
    make_object(os("o"), 2);
    MessageLog log;
    int status = 0;
    {
        SoftLimit limit(RLIMIT_NOFILE, lowest_free_descriptor());
        ASSERT_TRUE(limit.ok());
        status = QOR_lock_object(qor("o").c_str(), 2, 3);
    }
    EXPECT_EQ(status, QOR_E_RESOURCE);
    EXPECT_TRUE(recorded_errno(log, EMFILE));
    unsigned mode = 9;
    EXPECT_EQ(QOR_object_lock_mode(qor("o").c_str(), 2, &mode), 0);
    EXPECT_EQ(mode, 0u);
}

TEST_F(Limits, BeyondTheFileSizeLimitACopyStopsWithTheHostsError) {
    make_object(os("s"), 3);
    qor_test::write_file(os("s/.body"), std::string(20000, 'b'));
    MessageLog log;
    int status = 0;
    {
        // The write past the limit then fails with EFBIG instead of
        // ending the process.
        struct sigaction ignore {}, saved {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGXFSZ, &ignore, &saved);
        SoftLimit limit(RLIMIT_FSIZE, 8192);
        ASSERT_TRUE(limit.ok());
        status = QOR_copy_object(qor("s").c_str(), 3, qor("t").c_str());
        sigaction(SIGXFSZ, &saved, nullptr);
    }
    EXPECT_NE(status, 0);
    EXPECT_TRUE(recorded_errno(log, EFBIG));
    EXPECT_EQ(qor_test::read_file(os("s/.body")), std::string(20000, 'b'));
}

TEST_F(Limits, AHugeSparseIndexIsReadWhereAskedNeverWhole) {
    alarm(30);
    make_object(os("o"), 4);
    const off_t huge = off_t{1} << 40;  // a terabyte, holding no blocks
    const int fd = ::open(os("o/.index").c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, huge), 0);
    ::close(fd);
    uint64_t size = 0;
    EXPECT_EQ(QOR_read_contents_size(qor("o/.index").c_str(), 0, &size), 0);
    EXPECT_EQ(size, static_cast<uint64_t>(huge));
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_idle_index(qor("o").c_str(), 0x04, 0, &rec), 0);
    char block[64];
    memset(block, 'x', sizeof block);
    EXPECT_EQ(QOR_read_idle_block(rec, huge - 64, block, sizeof block), 0);
    EXPECT_EQ(std::string(block, sizeof block), std::string(64, '\0'));
    EXPECT_EQ(QOR_close_contents(rec), 0);
    alarm(0);
}

TEST_F(Limits, ZeroLengthMembersAreFinishedObjects) {
    make_object(os("o"), 4);
    unsigned type = 9;
    EXPECT_EQ(QOR_type_of_object(qor("o").c_str(), &type), 0);
    EXPECT_EQ(type, 4u);
    MessageLog log;
    EXPECT_EQ(QOR_copy_object(qor("o").c_str(), 4, qor("c").c_str()), 0);
    EXPECT_EQ(entries(os("c")),
              (std::vector<std::string>{".body", ".index", ".lock"}));
    EXPECT_TRUE(log.messages.empty());
}

}  // namespace
}  // namespace objects_test
