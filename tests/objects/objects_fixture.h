// Shared set-up of the object store tests: a scratch store reachable by the
// unprivileged user, objects of every type laid out by hand, the message a
// recorded failure outputs, and a check that a call leaves the shared
// freestore as it found it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "harness.h"

namespace objects_test {

using qor_test::Message;
using qor_test::MessageLog;

// The one message of type 71 that recording errno err against an OS path
// in a context outputs.
inline Message recorded(int status, const std::string &os_path, int context,
                        int err) {
    return qor_test::msg(
        "qor", status - 2000, QOR_MSG_RECORDED,
        {os_path, MessageLog::text_of(context - 2000), strerror(err),
         MessageLog::text_of(3) + " $0=" + std::to_string(err)});
}

// The log holds exactly one message: the one recording errno err.
#define EXPECT_ONE_RECORDED(log, status, os_path, context, err)      \
    EXPECT_EQ((log).messages,                                        \
              std::vector<::objects_test::Message>{                  \
                  ::objects_test::recorded(status, os_path, context, err)})

inline void make_file(const std::string &path, mode_t mode = 0644) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
    ASSERT_GE(fd, 0) << path;
    ::close(fd);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

inline void make_dir(const std::string &path, mode_t mode = 0755) {
    ASSERT_EQ(::mkdir(path.c_str(), mode), 0) << path;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

// The member files of a composite type, in the order they are made.
inline std::vector<std::string> members_of(unsigned type) {
    static const char *const all[] = {".lock", ".body", ".index"};
    std::vector<std::string> m;
    for (unsigned i = 0; i + 1 < type && i < 3; ++i) m.push_back(all[i]);
    return m;
}

// Lays out an object of the type by hand: a file, or a directory with the
// member files of its type.
inline void make_object(const std::string &path, unsigned type,
                        mode_t file_mode = 0644, mode_t dir_mode = 0755) {
    if (type == 0) {
        make_file(path, file_mode);
        return;
    }
    make_dir(path, dir_mode);
    for (const auto &m : members_of(type)) make_file(path + "/" + m, file_mode);
}

// The names in a host directory, sorted, "." and ".." left out.
inline std::vector<std::string> entries(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

inline mode_t mode_of(const std::string &path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

// A scratch store: a temporary directory that the unprivileged user may
// search, named by a qor path through "@".
class Store : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(::chmod(tmp_.path().c_str(), 0755), 0);
        ::umask(022);
        // A piece taken first gives the freestore a current chunk, so its
        // position can be compared after the calls under test.
        QOR_FS_malloc(&QOR_SH_fs_allocator, 8);
        saved_chunk_ = QOR_SH_fs_allocator.current_chunk;
        saved_used_ = saved_chunk_->used;
    }
    void TearDown() override {
        // Every call under test must leave the shared freestore as it was.
        EXPECT_EQ(QOR_SH_fs_allocator.current_chunk, saved_chunk_)
            << "shared freestore not restored";
        if (QOR_SH_fs_allocator.current_chunk == saved_chunk_) {
            EXPECT_EQ(saved_chunk_->used, saved_used_)
                << "shared freestore not restored";
        }
    }
    // The OS path and the qor path of a name in the store.
    std::string os(const std::string &name) const { return tmp_ / name; }
    std::string qor(const std::string &name) const { return "@" + os(name); }

    qor_test::TempDir tmp_;
    const QOR_FS_chunk *saved_chunk_ = nullptr;
    uint32_t saved_used_ = 0;
};

}  // namespace objects_test
