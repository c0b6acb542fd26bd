// An attacker who may write into a shared store plants a symbolic link to a
// victim file, a FIFO, a device or a socket at a member's name, or a dangling link at
// a name an operation creates. Whatever operation then runs on the object,
// the victim keeps its bytes and its mode, the planted target is never
// created, nothing hangs (an alarm bounds every test), and an operation
// that has to open or change the planted member fails with the error
// recorded: ELOOP for a link, EINVAL for anything but a regular file.

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "objects_fixture.h"

namespace objects_test {
namespace {

enum class Plant { link, fifo, device, socket };

const char *name_of(Plant p) {
    switch (p) {
        case Plant::link: return "link";
        case Plant::fifo: return "fifo";
        case Plant::device: return "device";
        case Plant::socket: return "socket";
    }
    return "?";
}

struct Operation {
    const char *name;
    // Members whose planting makes the operation fail (it must open or
    // change them); at any other member it may succeed or fail, but never
    // through the planted entry.
    std::vector<std::string> refused_at;
    std::function<int(const std::string &store, const std::string &obj)> run;
};

class Attacker : public Store,
                 public testing::WithParamInterface<Plant> {
  protected:
    void SetUp() override {
        Store::SetUp();
        if (GetParam() == Plant::device && geteuid() != 0) {
            GTEST_SKIP() << "making a device needs root";
        }
        victim_ = os("victim");
        qor_test::write_file(victim_, "the victim's bytes");
        ASSERT_EQ(::chmod(victim_.c_str(), 0664), 0);
        alarm(30);
    }
    void TearDown() override {
        alarm(0);
        Store::TearDown();
    }
    void plant(const std::string &at) {
        ASSERT_EQ(::unlink(at.c_str()), 0) << at;
        switch (GetParam()) {
            case Plant::link:
                ASSERT_EQ(symlink(victim_.c_str(), at.c_str()), 0);
                break;
            case Plant::fifo:
                ASSERT_EQ(mkfifo(at.c_str(), 0664), 0);
                break;
            case Plant::device:
                ASSERT_EQ(mknod(at.c_str(), S_IFCHR | 0666, makedev(1, 5)), 0);
                break;
            case Plant::socket:
                ASSERT_EQ(mknod(at.c_str(), S_IFSOCK | 0666, 0), 0);
                break;
        }
        // The same bits as the victim, whatever the umask: granting and
        // denying then have work to do on the planted entry too.
        if (GetParam() != Plant::link) {
            ASSERT_EQ(::chmod(at.c_str(), 0664), 0);
        }
    }
    int refused_errno() const {
        return GetParam() == Plant::link ? ELOOP : EINVAL;
    }
    void expect_victim_unchanged(const std::string &what) {
        EXPECT_EQ(qor_test::read_file(victim_), "the victim's bytes") << what;
        EXPECT_EQ(mode_of(victim_), 0664u) << what;
    }
    std::string victim_;
};

// An open's status, the record closed again when it was opened.
int closed(int status, QOR_contents_record *rec) {
    if (status == 0) QOR_close_contents(rec);
    return status;
}

std::vector<Operation> operations() {
    auto q = [](const std::string &store, const std::string &name) {
        return "@" + store + "/" + name;
    };
    return {
        {"write", {".body"},
         [q](const std::string &s, const std::string &o) {
             QOR_contents_record *rec = nullptr;
             const int st = QOR_open_contents(q(s, o).c_str(), 4, 0x12, 0,
                                              &rec);
             return closed(st, rec);
         }},
        {"write_locked_truncating", {".body"},
         [q](const std::string &s, const std::string &o) {
             QOR_contents_record *rec = nullptr;
             const int st = QOR_open_contents(q(s, o).c_str(), 4, 0x14, 3,
                                              &rec);
             return closed(st, rec);
         }},
        {"read", {".body"},
         [q](const std::string &s, const std::string &o) {
             QOR_contents_record *rec = nullptr;
             const int st = QOR_open_contents(q(s, o).c_str(), 4, 0x01, 1,
                                              &rec);
             return closed(st, rec);
         }},
        {"idle_index_open", {".index"},
         [q](const std::string &s, const std::string &o) {
             QOR_contents_record *rec = nullptr;
             const int st = QOR_open_idle_index(q(s, o).c_str(), 0x04, 3,
                                                &rec);
             return closed(st, rec);
         }},
        {"copy_as_source", {".body", ".index"},
         [q](const std::string &s, const std::string &o) {
             return QOR_copy_object(q(s, o).c_str(), 4,
                                    q(s, "copy").c_str());
         }},
        {"copy_as_target", {".body", ".index"},
         [q](const std::string &s, const std::string &o) {
             make_object(s + "/src", 4);
             return QOR_copy_object(q(s, "src").c_str(), 4,
                                    q(s, o).c_str());
         }},
        {"move", {},
         [q](const std::string &s, const std::string &o) {
             return QOR_move_object(q(s, o).c_str(), 4,
                                    q(s, "moved").c_str());
         }},
        {"delete", {},
         [q](const std::string &s, const std::string &o) {
             return QOR_delete_object(q(s, o).c_str(), 4);
         }},
        {"grant", {".lock", ".body", ".index"},
         [q](const std::string &s, const std::string &o) {
             return QOR_set_accessibility(q(s, o).c_str(), 4, 2, 2, 1);
         }},
        {"deny", {".lock", ".body", ".index"},
         [q](const std::string &s, const std::string &o) {
             // Make the object's own files carry the bit, so that denying
             // has work to do on every member.
             for (const char *m : {"", "/.lock", "/.body", "/.index"}) {
                 struct stat st;
                 const std::string p = s + "/" + o + m;
                 if (lstat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
                     ::chmod(p.c_str(), 0664);
                 }
             }
             return QOR_set_accessibility(q(s, o).c_str(), 4, 1, 2, 0);
         }},
        {"lock", {".lock"},
         [q](const std::string &s, const std::string &o) {
             const int st = QOR_lock_object(q(s, o).c_str(), 4, 3);
             if (st == 0) QOR_unlock_object(q(s, o).c_str(), 4);
             return st;
         }},
    };
}

TEST_P(Attacker, PlantedMemberIsNeverUsed) {
    for (const Operation &op : operations()) {
        for (const char *member : {".lock", ".body", ".index"}) {
            const std::string what =
                std::string(op.name) + " " + member + " " + name_of(GetParam());
            const std::string obj = "o";
            make_object(os(obj), 4);
            plant(os(obj) + "/" + member);
            MessageLog log;
            const int status = op.run(tmp_.path(), obj);
            expect_victim_unchanged(what);
            bool refused = false;
            for (const auto &m : op.refused_at) refused |= m == member;
            if (refused) {
                const int expected = GetParam() == Plant::link
                                         ? QOR_E_OTHER
                                         : QOR_E_INVALID;
                EXPECT_EQ(status, expected) << what;
                bool seen = false;
                for (const auto &m : log.messages) {
                    seen |= m.parameters.size() > 2 &&
                            m.parameters[2] == strerror(refused_errno());
                }
                EXPECT_TRUE(seen) << what;
            }
            // Clear the store for the next round; the victim stays.
            for (const char *n : {"o", "moved", "copy", "src"}) {
                const std::string d = os(n);
                for (const char *m : {"/.lock", "/.body", "/.index"}) {
                    ::unlink((d + m).c_str());
                }
                ::rmdir(d.c_str());
            }
            EXPECT_EQ(entries(tmp_.path()), std::vector<std::string>{"victim"})
                << what;
        }
    }
}

TEST_P(Attacker, PlantedMemberOfACdirIsNeverUsedByCreatingOpen) {
    make_object(os("c"), 3);
    plant(os("c/.body"));
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    const int status = QOR_open_contents(qor("c").c_str(), 3, 0x42, 0, &rec);
    EXPECT_EQ(status, GetParam() == Plant::link ? QOR_E_OTHER : QOR_E_INVALID);
    expect_victim_unchanged("creating open");
}

INSTANTIATE_TEST_SUITE_P(Kinds, Attacker,
                         testing::Values(Plant::link, Plant::fifo,
                                         Plant::device, Plant::socket),
                         [](const auto &info) {
                             return std::string(name_of(info.param));
                         });

// A dangling link at a name the operation creates: the link's target is
// never created.
using Dangling = Store;

TEST_F(Dangling, CreatingOpenDoesNotCreateTheLinksTarget) {
    alarm(30);
    make_object(os("c"), 3);
    ASSERT_EQ(::unlink(os("c/.body").c_str()), 0);
    ASSERT_EQ(symlink(os("planted").c_str(), os("c/.body").c_str()), 0);
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_contents(qor("c").c_str(), 3, 0x42, 0, &rec),
              QOR_E_OTHER);
    EXPECT_FALSE(qor_test::exists(os("planted")));
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].parameters[2], strerror(ELOOP));
    alarm(0);
}

TEST_F(Dangling, CopyOntoATargetWithDanglingMembersCreatesNothingOutside) {
    alarm(30);
    make_object(os("s"), 4);
    qor_test::write_file(os("s/.body"), "body");
    for (const char *m : {".body", ".index"}) {
        make_dir(os("t"));
        make_file(os("t/.lock"));
        const std::string planted = os(std::string("planted") + m);
        ASSERT_EQ(symlink(planted.c_str(), (os("t/") + m).c_str()), 0);
        MessageLog log;
        const int status = QOR_copy_object(qor("s").c_str(), 4, qor("t").c_str());
        EXPECT_NE(status, 0) << m;
        EXPECT_FALSE(qor_test::exists(planted)) << m;
        for (const char *n : {"/.lock", "/.body", "/.index"}) {
            ::unlink((os("t") + n).c_str());
        }
        ::rmdir(os("t").c_str());
    }
    alarm(0);
}

TEST_F(Dangling, LockDoesNotCreateTheLinksTarget) {
    alarm(30);
    make_object(os("o"), 3);
    ASSERT_EQ(::unlink(os("o/.lock").c_str()), 0);
    ASSERT_EQ(symlink(os("planted").c_str(), os("o/.lock").c_str()), 0);
    MessageLog log;
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 3, 3), QOR_E_OTHER);
    EXPECT_FALSE(qor_test::exists(os("planted")));
    alarm(0);
}

// The object's own path may be a link: a plain-file object reached through
// one is still opened, as callers name it.
TEST_F(Dangling, PlainFileObjectThroughALinkIsStillOpened) {
    qor_test::write_file(os("real"), "data");
    ASSERT_EQ(symlink(os("real").c_str(), os("f").c_str()), 0);
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("f").c_str(), 0, 0x01, 0, &rec), 0);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

// A FIFO as a plain-file object is refused without blocking.
TEST_F(Dangling, PlainFileObjectThatIsAFifoIsRefusedWithoutHanging) {
    alarm(30);
    ASSERT_EQ(mkfifo(os("f").c_str(), 0666), 0);
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_contents(qor("f").c_str(), 0, 0x01, 0, &rec),
              QOR_E_INVALID);
    EXPECT_EQ(QOR_open_contents(qor("f").c_str(), 0, 0x02, 0, &rec),
              QOR_E_INVALID);
    alarm(0);
}


// The case that matters: another user, who may write into a shared store,
// plants links in an object there, and root runs the operations. Root's
// own file, mode 0600, keeps its bytes, mode and owner; so does the object
// directory's owner when root sets the object's ownership (that names the
// object's own path, which is followed as the caller named it, and no
// member).
TEST_F(Dangling, LinksPlantedByAnotherUserNeverReachRootsFile) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to switch users";
    alarm(30);
    const std::string victim = os("roots");
    qor_test::write_file(victim, "root's bytes");
    ASSERT_EQ(::chmod(victim.c_str(), 0600), 0);
    make_object(os("o"), 4, 0666, 0777);
    ASSERT_EQ(::chmod(tmp_.path().c_str(), 0777), 0);
    const auto planted = qor_test::run_as_unprivileged([&] {
        for (const char *m : {"/.lock", "/.body", "/.index"}) {
            const std::string at = os("o") + m;
            if (::unlink(at.c_str()) != 0 ||
                symlink(victim.c_str(), at.c_str()) != 0) {
                _exit(1);
            }
        }
    });
    ASSERT_TRUE(planted.exited && planted.exit_status == 0) << planted.err;
    MessageLog log;
    QOR_contents_record *rec = nullptr;
    EXPECT_EQ(QOR_open_contents(qor("o").c_str(), 4, 0x14, 3, &rec),
              QOR_E_OTHER);
    EXPECT_EQ(QOR_open_idle_index(qor("o").c_str(), 0x04, 3, &rec),
              QOR_E_OTHER);
    EXPECT_EQ(QOR_set_accessibility(qor("o").c_str(), 4, 2, 2, 1),
              QOR_E_OTHER);
    EXPECT_EQ(QOR_lock_object(qor("o").c_str(), 4, 3), QOR_E_OTHER);
    make_object(os("src"), 4);
    EXPECT_NE(QOR_copy_object(qor("src").c_str(), 4, qor("o").c_str()), 0);
    const QOR_ownership nobody = {
        static_cast<int16_t>(qor_test::unprivileged_uid()),
        static_cast<int16_t>(qor_test::unprivileged_gid())};
    EXPECT_EQ(QOR_set_ownership(qor("o").c_str(), 1, nobody), 0);
    EXPECT_EQ(qor_test::read_file(victim), "root's bytes");
    EXPECT_EQ(mode_of(victim), 0600u);
    struct stat st;
    ASSERT_EQ(::stat(victim.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(st.st_gid, 0u);
    // Deleting removes the planted links, never their target.
    EXPECT_EQ(QOR_delete_object(qor("o").c_str(), 4), 0);
    EXPECT_TRUE(qor_test::exists(victim));
    alarm(0);
}

}  // namespace
}  // namespace objects_test
