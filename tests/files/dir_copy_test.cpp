// Copying directory trees: entry by entry against the source, links made
// again and never followed, names taken as they stand, and what a copy
// leaves behind when it fails part-way.
#include <sys/socket.h>
#include <sys/un.h>

#include <map>

#include "dir_fixture.h"

namespace dir_test {
namespace {

// What a tree holds below its top, by relative path: the kind ('f' file,
// 'd' directory, 'l' link, 'p' FIFO, 's' socket) and the contents or the
// link text.
struct Entry {
    char kind;
    std::string data;
    bool operator==(const Entry &) const = default;
};
using Tree = std::map<std::string, Entry>;

void snapshot(const std::string &root, const std::string &rel, Tree &out) {
    DIR *d = opendir((root + rel).c_str());
    ASSERT_NE(d, nullptr) << root + rel;
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
    for (const auto &n : names) {
        const std::string r = rel + "/" + n;
        const std::string p = root + r;
        struct stat st;
        ASSERT_EQ(lstat(p.c_str(), &st), 0) << p;
        if (S_ISLNK(st.st_mode)) {
            char buf[4096];
            const ssize_t len = readlink(p.c_str(), buf, sizeof buf);
            out[r] = {'l', std::string(buf, static_cast<size_t>(len))};
        } else if (S_ISDIR(st.st_mode)) {
            out[r] = {'d', ""};
            snapshot(root, r, out);
        } else if (S_ISFIFO(st.st_mode)) {
            out[r] = {'p', ""};
        } else if (S_ISSOCK(st.st_mode)) {
            out[r] = {'s', ""};
        } else {
            out[r] = {'f', read_file(p)};
        }
    }
}

Tree tree_of(const std::string &root) {
    Tree t;
    snapshot(root, "", t);
    return t;
}

// The names of a directory in the host's listing order.
std::vector<std::string> host_order(const std::string &dir) {
    std::vector<std::string> names;
    DIR *d = opendir(dir.c_str());
    while (struct dirent *e = readdir(d)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
    return names;
}

// The messages of a log that a recorded failure output (type 71).
size_t recorded_count(const MessageLog &log) {
    size_t n = 0;
    for (const auto &m : log.messages) n += m.type == QOR_MSG_RECORDED;
    return n;
}

class Copy : public Dirs {
  protected:
    void link(const std::string &text, const std::string &at) {
        ASSERT_EQ(symlink(text.c_str(), at.c_str()), 0) << at;
    }
    // A tree with nested directories, objects of every type, links of
    // every sort and more than a thousand entries.
    void build_big(const std::string &src) {
        make_dir(src);
        make_dir(src + "/a");
        make_dir(src + "/a/b");
        make_dir(src + "/a/b/c");
        write_file(src + "/a/b/c/deep", "deep contents\n");
        write_file(src + "/a/top", std::string(10000, 'x'));
        write_file(src + "/empty", "");
        write_file(src + "/.hidden", "dot file");
        write_file(src + "/exact4096", objects_test::random_bytes(4096, 1));
        write_file(src + "/big", objects_test::random_bytes(300000, 2));
        // Objects of every type, their member files with contents.
        write_file(src + "/plain_file", "type 0");
        make_dir(src + "/plain_dir");
        write_file(src + "/plain_dir/inner", "a link of a plain directory");
        make_dir(src + "/lockable");
        write_file(src + "/lockable/.lock", "");
        make_dir(src + "/cdir");
        write_file(src + "/cdir/.lock", "");
        write_file(src + "/cdir/.body", "cdir body");
        make_dir(src + "/idle");
        write_file(src + "/idle/.lock", "");
        write_file(src + "/idle/.body", objects_test::random_bytes(9000, 3));
        write_file(src + "/idle/.index", objects_test::random_bytes(700, 4));
        write_file(src + "/idle/dbi.lock", "");
        make_dir(src + "/idle/child");
        write_file(src + "/idle/child/.lock", "");
        // Links: relative, dangling, absolute, to a directory, to the
        // parent (a loop if it were followed), to itself.
        link("a/top", src + "/rel");
        link("../../empty", src + "/a/b/up2");
        link("nowhere/at/all", src + "/dangling");
        link(src + "/a/top", src + "/absolute");
        link("a", src + "/to_dir");
        link("..", src + "/a/parent");
        link("self", src + "/self");
        link("with space and $(HOME)", src + "/odd_text");
        make_dir(src + "/many");
        for (int i = 0; i < 1000; ++i) {
            const std::string n = src + "/many/e" + std::to_string(i);
            if (i % 100 == 7) {
                make_dir(n);
                write_file(n + "/in", std::to_string(i));
            } else if (i % 100 == 9) {
                link("e" + std::to_string(i - 1), n);
            } else {
                write_file(n, "entry " + std::to_string(i) + "\n");
            }
        }
    }
};

TEST_F(Copy, ATreeIsCopiedEntryByEntry) {
    const std::string src = os("src");
    build_big(src);
    MessageLog log;
    QOR_copy_dir(src.c_str(), qor("dst").c_str());
    EXPECT_TRUE(log.messages.empty());
    const Tree from = tree_of(src);
    const Tree to = tree_of(os("dst"));
    EXPECT_GT(from.size(), 1000u);
    ASSERT_EQ(from.size(), to.size());
    for (const auto &[path, entry] : from) {
        const auto it = to.find(path);
        ASSERT_NE(it, to.end()) << path;
        EXPECT_EQ(it->second.kind, entry.kind) << path;
        EXPECT_TRUE(it->second.data == entry.data) << path;
    }
    // The copied link to the directory is a link, not a second copy.
    struct stat st;
    ASSERT_EQ(lstat(os("dst/to_dir").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    // The object store sees the same types in the copy.
    for (const char *name : {"plain_file", "plain_dir", "lockable", "cdir",
                             "idle"}) {
        unsigned a = 99, b = 98;
        ASSERT_EQ(QOR_type_of_object(qor("src/" + std::string(name)).c_str(), &a),
                  0);
        ASSERT_EQ(QOR_type_of_object(qor("dst/" + std::string(name)).c_str(), &b),
                  0);
        EXPECT_EQ(a, b) << name;
    }
}

TEST_F(Copy, LinksAreMadeAgainWithTheSameTextRelativeOrDangling) {
    const std::string src = os("src");
    make_dir(src);
    link("../outside/file", src + "/relative");
    link("missing", src + "/dangling");
    link("/nonexistent/absolute", src + "/absolute_dangling");
    QOR_copy_dir(src.c_str(), os("dst").c_str());
    for (const char *n : {"relative", "dangling", "absolute_dangling"}) {
        char buf[256];
        const ssize_t len =
            readlink((os("dst") + "/" + n).c_str(), buf, sizeof buf);
        ASSERT_GT(len, 0) << n;
        char want[256];
        const ssize_t wlen = readlink((src + "/" + n).c_str(), want, sizeof want);
        EXPECT_EQ(std::string(buf, size_t(len)), std::string(want, size_t(wlen)));
    }
    // Nothing was made where the links point.
    EXPECT_FALSE(qor_test::exists(os("outside")));
    EXPECT_FALSE(qor_test::exists(os("dst/missing")));
}

TEST_F(Copy, LinkTextsLongerThan1000BytesAreCutAt1000) {
    // The file layer reads link texts into 1000 bytes; a copy inherits it.
    const std::string src = os("src");
    make_dir(src);
    const std::string text(1500, 'n');
    link(text, src + "/long");
    QOR_copy_dir(src.c_str(), os("dst").c_str());
    char buf[4096];
    const ssize_t len = readlink(os("dst/long").c_str(), buf, sizeof buf);
    EXPECT_EQ(std::string(buf, size_t(len)), text.substr(0, 1000));
}

TEST_F(Copy, AnEmptySourceGivesAnEmptyTarget) {
    make_dir(os("src"));
    QOR_copy_dir(os("src").c_str(), os("dst").c_str());
    EXPECT_TRUE(tree_of(os("dst")).empty());
    // An existing target is accepted.
    QOR_copy_dir(os("src").c_str(), os("dst").c_str());
    EXPECT_TRUE(tree_of(os("dst")).empty());
}

TEST_F(Copy, IntoAnExistingTargetFilesAreReplacedTheRestKept) {
    make_dir(os("src"));
    write_file(os("src/file"), "new");
    link("new text", os("src/link"));
    make_dir(os("src/sub"));
    write_file(os("src/sub/x"), "x");
    make_dir(os("dst"));
    write_file(os("dst/file"), "old and longer");
    write_file(os("dst/extra"), "kept");
    link("old text", os("dst/link"));
    make_dir(os("dst/sub"));
    write_file(os("dst/sub/y"), "kept too");
    MessageLog log;
    QOR_copy_dir(os("src").c_str(), os("dst").c_str());
    EXPECT_EQ(read_file(os("dst/file")), "new");
    EXPECT_EQ(read_file(os("dst/extra")), "kept");
    EXPECT_EQ(read_file(os("dst/sub/x")), "x");
    EXPECT_EQ(read_file(os("dst/sub/y")), "kept too");
    // A link already standing at a target entry is left as it is: making
    // the link again is not checked.
    char buf[64];
    const ssize_t len = readlink(os("dst/link").c_str(), buf, sizeof buf);
    EXPECT_EQ(std::string(buf, size_t(len)), "old text");
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Copy, TheTreeIsCopiedDepthFirstInListingOrder) {
    const std::string src = os("src");
    make_dir(src);
    for (int i = 0; i < 6; ++i) {
        const std::string d = src + "/d" + std::to_string(i);
        make_dir(d);
        write_file(d + "/f", "");
        write_file(src + "/f" + std::to_string(i), "");
    }
    // What a depth-first walk in the host's order makes, in order.
    std::vector<std::string> want{os("dst")};
    std::function<void(const std::string &, const std::string &)> walk =
        [&](const std::string &from, const std::string &to) {
            for (const auto &n : host_order(from)) {
                want.push_back(to + "/" + n);
                struct stat st;
                lstat((from + "/" + n).c_str(), &st);
                if (S_ISDIR(st.st_mode)) walk(from + "/" + n, to + "/" + n);
            }
        };
    walk(src, os("dst"));
    static std::vector<std::string> made;
    made.clear();
    qor_fault_on_mutation([](qor_fault_fn fn, const char *path, int, int flags) {
        if (fn == QF_mkdir || (fn == QF_open && (flags & O_CREAT))) {
            made.push_back(path);
        }
    });
    QOR_copy_dir(src.c_str(), os("dst").c_str());
    qor_fault_on_mutation(nullptr);
    EXPECT_EQ(made, want);
}

TEST_F(Copy, NamesAreTakenAsTheyStandNeverAsPathSyntax) {
    // Read as qor path syntax these names would lead to other places: the
    // home directory, the current directory, the anchors, a host path.
    const std::string home = os("home");
    make_dir(home);
    write_file(home + "/secret", "not to be copied");
    const std::string src = os("src");
    make_dir(src);
    for (const char *n : {"$(HOME)", "~", "#", "_", "@x", "$(QOR_TMP)"}) {
        write_file(src + "/" + n, std::string("literal ") + n);
    }
    make_dir(src + "/.0");
    write_file(src + "/.0/inside", "in the directory named .0");
    make_dir(src + "/$(HOME)dir");
    write_file(src + "/$(HOME)dir/f", "f");
    const std::string cwd = os("cwd");
    make_dir(cwd);
    const auto r = run_in_child([&] {
        setenv("HOME", home.c_str(), 1);
        setenv("QOR_HASH", home.c_str(), 1);
        setenv("QOR_ROOT", home.c_str(), 1);
        if (chdir(cwd.c_str()) != 0) _exit(9);
        MessageLog log;
        QOR_copy_dir(src.c_str(), os("dst").c_str());
        printf("%zu", log.messages.size());
    });
    EXPECT_EQ(r.out, "0") << r.err;
    EXPECT_EQ(tree_of(os("dst")), tree_of(src));
    EXPECT_EQ(tree_of(home), (Tree{{"/secret", {'f', "not to be copied"}}}));
    EXPECT_TRUE(tree_of(cwd).empty());
}

TEST_F(Copy, SourceAndTargetMayBeNamedThroughAnchors) {
    make_dir(os("src"));
    write_file(os("src/f"), "via anchors");
    const auto r = run_in_child([&] {
        setenv("QOR_DIR_TEST_PLACE", tmp_.path().c_str(), 1);
        QOR_copy_dir("$(QOR_DIR_TEST_PLACE)/src", "$(QOR_DIR_TEST_PLACE)/dst");
    });
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(read_file(os("dst/f")), "via anchors");
}

TEST_F(Copy, DirectoriesAreMadeWithTheUsualPermissionsNotTheSources) {
    make_dir(os("src"));
    make_dir(os("src/private"), 0700);
    QOR_copy_dir(os("src").c_str(), os("dst").c_str());
    EXPECT_EQ(objects_test::mode_of(os("dst/private")), 0755u);  // umask 022
}

TEST_F(Copy, ADeepTreeIsCopiedWithEveryListingClosed) {
    std::string from = os("src");
    make_dir(from);
    for (int i = 0; i < 60; ++i) {
        from += "/d";
        make_dir(from);
    }
    write_file(from + "/leaf", "bottom");
    QOR_copy_dir(os("src").c_str(), os("dst").c_str());
    EXPECT_EQ(tree_of(os("dst")), tree_of(os("src")));
}

// ---- Failures --------------------------------------------------------------

TEST_F(Copy, AMissingSourceIsFatalAndNoTargetIsMade) {
    const auto r = run_in_child([&] {
        MessageLog log;
        QOR_copy_dir(os("missing").c_str(), os("dst").c_str());
    });
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err, "status = 2052\n");
    EXPECT_FALSE(qor_test::exists(os("dst")));
}

TEST_F(Copy, AnUntranslatableTargetIsFatalOnceTheSourceIsOpen) {
    make_dir(os("src"));
    const auto r = run_in_child([&] {
        unsetenv("QOR_HASH");
        QOR_copy_dir(os("src").c_str(), "#/dst");
    });
    EXPECT_FATAL(r, "qor_files", "Invalid path");
}

TEST_F(Copy, AnEntryThatCannotBeExaminedIsFatalAndTheEarlierOnesStay) {
    const std::string src = os("src");
    make_dir(src);
    for (int i = 0; i < 20; ++i) {
        write_file(src + "/f" + std::to_string(i), std::to_string(i));
    }
    make_dir(src + "/victim");
    write_file(src + "/victim/inside", "never copied");
    const auto order = host_order(src);
    const auto r = run_in_child([&] {
        qor_fault_filter_path(QF_lstat, "/src/victim");
        qor_fault_fail(QF_lstat, EIO, 0, -1);
        QOR_copy_dir(src.c_str(), os("dst").c_str());
    });
    EXPECT_FATAL(r, "qor_dir", "stat failed");
    // What was listed before the entry is there, complete; nothing after.
    Tree want;
    for (const auto &n : order) {
        if (n == "victim") break;
        want["/" + n] = {'f', read_file(src + "/" + n)};
    }
    EXPECT_EQ(tree_of(os("dst")), want);

    const auto armed = run_in_child([&] {
        qor_fault_filter_path(QF_lstat, "/src/victim");
        qor_fault_fail(QF_lstat, EIO, 0, -1);
        MessageLog log;
        const int jumped = catch_fatal(
            [&] { QOR_copy_dir(src.c_str(), os("dst2").c_str()); });
        printf("%d %zu %d", jumped, log.messages.size(),
               log.messages.size() == 1 &&
                   is_dir_fatal(log.messages[0], "stat failed"));
    });
    EXPECT_EQ(armed.out, "1 1 1");
    EXPECT_EQ(tree_of(os("dst2")), want);
}

TEST_F(Copy, AFailingObjectCopyIsRecordedAndTheRestIsCopied) {
    const std::string src = os("src");
    make_dir(src);
    for (int i = 0; i < 10; ++i) {
        write_file(src + "/f" + std::to_string(i), std::to_string(i));
    }
    write_file(src + "/bad", "unreadable");
    MessageLog log;
    qor_fault_filter_path(QF_open, "/src/bad");
    qor_fault_fail(QF_open, EIO, 0, -1);
    QOR_copy_dir(src.c_str(), os("dst").c_str());
    qor_fault_reset();
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].number, QOR_E_IO - 2000);
    EXPECT_EQ(log.messages[0].type, QOR_MSG_RECORDED);
    EXPECT_EQ(log.messages[0].parameters.at(0), src + "/bad");
    Tree want = tree_of(src);
    want.erase("/bad");
    EXPECT_EQ(tree_of(os("dst")), want);
}

TEST_F(Copy, AWriteThatFailsRemovesANewTargetAndEmptiesAnOldOne) {
    const std::string src = os("src");
    make_dir(src);
    write_file(src + "/new", "contents");
    write_file(src + "/old", "contents");
    make_dir(os("dst"));
    write_file(os("dst/old"), "previous");
    for (const char *n : {"e1", "e2", "e3"}) write_file(src + "/" + n, "");
    MessageLog log;
    // No disc-full handler: the full disc is recorded at once. Only the
    // two files with contents write anything.
    qor_fault_fail(QF_write, ENOSPC, 0, -1);
    QOR_copy_dir(src.c_str(), os("dst").c_str());
    qor_fault_reset();
    EXPECT_EQ(recorded_count(log), 2u);
    for (const auto &m : log.messages) {
        EXPECT_EQ(m.number, QOR_E_RESOURCE - 2000);
    }
    const Tree got = tree_of(os("dst"));
    EXPECT_EQ(got.count("/new"), 0u);
    ASSERT_EQ(got.count("/old"), 1u);
    EXPECT_EQ(got.at("/old").data, "");
    for (const char *n : {"/e1", "/e2", "/e3"}) EXPECT_EQ(got.count(n), 1u);
}

TEST_F(Copy, AFileLockedElsewhereIsLeftOutWithoutWaiting) {
    const std::string src = os("src");
    make_dir(src);
    write_file(src + "/held", "held");
    write_file(src + "/free", "free");
    objects_test::Holder holder(src + "/held", F_WRLCK);
    ASSERT_TRUE(holder.held());
    MessageLog log;
    QOR_copy_dir(src.c_str(), os("dst").c_str());
    // 2060 comes back without a message.
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(tree_of(os("dst")), (Tree{{"/free", {'f', "free"}}}));
    // Copying without locks takes it.
    QOR_lock_on_copy = 0;
    QOR_copy_dir(src.c_str(), os("dst").c_str());
    QOR_lock_on_copy = 1;
    EXPECT_EQ(read_file(os("dst/held")), "held");
    holder.release();
}

TEST_F(Copy, NothingIsWrittenThroughALinkPlantedInTheTarget) {
    make_dir(os("src"));
    write_file(os("src/file"), "copied");
    make_dir(os("src/sub"));
    write_file(os("src/sub/inner"), "copied too");
    write_file(os("src/other"), "other");
    write_file(os("victim"), "untouched");
    make_dir(os("elsewhere"));
    make_dir(os("dst"));
    link(os("victim"), os("dst/file"));
    link(os("elsewhere"), os("dst/sub"));
    MessageLog log;
    QOR_copy_dir(os("src").c_str(), os("dst").c_str());
    EXPECT_EQ(read_file(os("victim")), "untouched");
    EXPECT_TRUE(tree_of(os("elsewhere")).empty());
    EXPECT_EQ(read_file(os("dst/other")), "other");
    // Both left as they were, each recorded once.
    EXPECT_EQ(log.messages.size(), 2u);
    for (const auto &m : log.messages) {
        EXPECT_EQ(m.type, QOR_MSG_RECORDED);
        EXPECT_EQ(m.parameters.at(2), strerror(ELOOP));
    }
    std::multiset<std::string> paths;
    for (const auto &m : log.messages) paths.insert(m.parameters.at(0));
    EXPECT_EQ(paths, (std::multiset<std::string>{os("dst/file"), os("dst/sub")}));
    struct stat st;
    ASSERT_EQ(lstat(os("dst/file").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST_F(Copy, ASocketCountsAsADirectoryAndIsFatal) {
    // The directory test is the one mode bit 0x4000, which sockets carry.
    const std::string src = os("src");
    make_dir(src);
    const int s = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(s, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    const std::string at = src + "/sock";
    ASSERT_LT(at.size(), sizeof addr.sun_path);
    memcpy(addr.sun_path, at.c_str(), at.size() + 1);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ::close(s);
    const auto r = run_in_child([&] {
        MessageLog log;
        QOR_copy_dir(src.c_str(), os("dst").c_str());
    });
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err, "status = 2057\n");
}

}  // namespace
}  // namespace dir_test
