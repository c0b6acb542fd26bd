// Links listings: skip lists by type, order of calls, names, failures and
// interruptions.

#include "objects_fixture.h"

namespace objects_test {
namespace {

using Links = Store;

// Every link of the object, listed with QOR_open_links/QOR_next_link,
// sorted; the final status of the walk in *end.
std::vector<std::string> list(const std::string &qor_path, unsigned type,
                              int *end = nullptr) {
    std::vector<std::string> names;
    QOR_link_listing *l = nullptr;
    int s = QOR_open_links(qor_path.c_str(), type, &l);
    if (s == 0) {
        while ((s = QOR_next_link(l)) == 0) {
            char *n = QOR_read_linkname(l);
            names.emplace_back(n);
            QOR_free(n);
        }
        EXPECT_EQ(QOR_close_links(l), 0);
    }
    if (end != nullptr) *end = s;
    std::sort(names.begin(), names.end());
    return names;
}

using Names = std::vector<std::string>;

TEST_F(Links, EmptyPlainDirectoryEndsAtOnce) {
    make_dir(os("d"));
    MessageLog log;
    QOR_link_listing *l = nullptr;
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 1, &l), 0);
    EXPECT_STREQ(l->path, os("d").c_str());
    EXPECT_EQ(QOR_next_link(l), QOR_E_END);
    EXPECT_EQ(QOR_read_linkname(l), nullptr);
    EXPECT_EQ(QOR_SH_read_linkname(l), nullptr);
    EXPECT_EQ(l->entry, nullptr);
    EXPECT_EQ(l->name, nullptr);
    // The end stays the end.
    EXPECT_EQ(QOR_next_link(l), QOR_E_END);
    EXPECT_EQ(QOR_close_links(l), 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Links, ReadingBeforeTheFirstLinkGivesNull) {
    make_dir(os("d"));
    make_file(os("d/x"));
    QOR_link_listing *l = nullptr;
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 1, &l), 0);
    EXPECT_EQ(QOR_read_linkname(l), nullptr);
    EXPECT_EQ(QOR_SH_read_linkname(l), nullptr);
    EXPECT_EQ(QOR_close_links(l), 0);
}

TEST_F(Links, NamesAreCopiesInBothForms) {
    make_dir(os("d"));
    make_file(os("d/x"));
    QOR_link_listing *l = nullptr;
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 1, &l), 0);
    ASSERT_EQ(QOR_next_link(l), 0);
    ASSERT_NE(l->entry, nullptr);
    EXPECT_STREQ(l->entry->d_name, "x");
    char *a = QOR_read_linkname(l);
    char *b = QOR_read_linkname(l);
    EXPECT_STREQ(a, "x");
    EXPECT_NE(a, b);
    EXPECT_NE(a, l->name);
    QOR_FS_mark m;
    QOR_FS_save(&QOR_SH_fs_allocator, &m);
    char *c = QOR_SH_read_linkname(l);
    EXPECT_STREQ(c, "x");
    QOR_FS_restore(&QOR_SH_fs_allocator, &m);
    QOR_free(a);
    QOR_free(b);
    EXPECT_EQ(QOR_next_link(l), QOR_E_END);
    EXPECT_EQ(QOR_close_links(l), 0);
}

TEST_F(Links, SkipListsByType) {
    const char *const expected[][QOR_LINK_SKIP_SLOTS] = {
        {".", "..", nullptr},
        {".", "..", nullptr},
        {".", "..", ".lock", nullptr},
        {".", "..", ".body", ".lock", nullptr},
        {".", "..", ".index", "dbi.lock", ".body", ".lock", nullptr},
        {".", "..", nullptr},
    };
    make_dir(os("d"));
    for (unsigned type : {1u, 2u, 3u, 4u, 5u, 1000u}) {
        QOR_link_listing *l = nullptr;
        ASSERT_EQ(QOR_open_links(qor("d").c_str(), type, &l), 0);
        const auto &e = expected[type <= 4 ? type : 5];
        for (int i = 0; i < QOR_LINK_SKIP_SLOTS; ++i) {
            EXPECT_STREQ(l->skip[i], e[i]) << type << " " << i;
            if (e[i] == nullptr) break;
        }
        EXPECT_EQ(QOR_close_links(l), 0);
    }
}

TEST_F(Links, FreshIdleObjectHasNoLinksEvenWithDbiLock) {
    make_object(os("o"), 4);
    int end = 0;
    EXPECT_EQ(list(qor("o"), 4, &end), Names{});
    EXPECT_EQ(end, QOR_E_END);
    make_file(os("o/dbi.lock"));
    EXPECT_EQ(list(qor("o"), 4, &end), Names{});
    EXPECT_EQ(end, QOR_E_END);
}

TEST_F(Links, DbiLockIsPassedOverOnlyForIdleObjects) {
    for (unsigned t = 1; t <= 4; ++t) {
        const std::string name = "o" + std::to_string(t);
        make_object(os(name), t);
        make_file(os(name + "/dbi.lock"));
        make_file(os(name + "/link"));
        const Names expected =
            t == 4 ? Names{"link"} : Names{"dbi.lock", "link"};
        EXPECT_EQ(list(qor(name), t), expected) << t;
    }
}

TEST_F(Links, CdirListedAsPlainDirectoryShowsItsMembers) {
    make_object(os("c"), 3);
    EXPECT_EQ(list(qor("c"), 1), (Names{".body", ".lock"}));
    EXPECT_EQ(list(qor("c"), 2), (Names{".body"}));
    EXPECT_EQ(list(qor("c"), 3), Names{});
}

TEST_F(Links, IdleObjectListedAsLowerTypesShowsTheRest) {
    make_object(os("i"), 4);
    make_file(os("i/dbi.lock"));
    EXPECT_EQ(list(qor("i"), 3), (Names{".index", "dbi.lock"}));
    EXPECT_EQ(list(qor("i"), 7), (Names{".body", ".index", ".lock",
                                        "dbi.lock"}));
}

TEST_F(Links, NamesStartingWithADotAreLinks) {
    make_object(os("i"), 4);
    for (const char *n : {".hidden", "..x", ".locked", ".index2", ".Body",
                          "._"}) {
        make_file(os(std::string("i/") + n));
    }
    EXPECT_EQ(list(qor("i"), 4),
              (Names{"..x", ".Body", "._", ".hidden", ".index2", ".locked"}));
}

TEST_F(Links, OddNamesAreTheirOwnQorLinkNames) {
    make_dir(os("d"));
    const Names odd = {" ", "$(X)", "@x", "C:", "_", "a b", "~", "\xc3\xa9",
                       std::string(255, 'n')};
    for (const auto &n : odd) make_file(os("d/" + n));
    const Names got = list(qor("d"), 1);
    EXPECT_EQ(got, [&] {
        Names s = odd;
        std::sort(s.begin(), s.end());
        return s;
    }());
    for (const auto &n : got) {
        char *t = QOR_os_to_qor_linkname(n.c_str());
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(n, t);
        QOR_free(t);
    }
}

TEST_F(Links, ThousandEntriesAreListedCompletely) {
    make_dir(os("big"));
    Names expected;
    for (int i = 0; i < 1000; ++i) {
        expected.push_back("entry-" + std::to_string(i));
        make_file(os("big/" + expected.back()));
    }
    std::sort(expected.begin(), expected.end());
    MessageLog log;
    int end = 0;
    EXPECT_EQ(list(qor("big"), 1, &end), expected);
    EXPECT_EQ(end, QOR_E_END);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Links, SubdirectoriesAndSymbolicLinksAreLinks) {
    make_dir(os("d"));
    make_dir(os("d/sub"));
    ASSERT_EQ(symlink("nowhere", os("d/dangling").c_str()), 0);
    EXPECT_EQ(list(qor("d"), 1), (Names{"dangling", "sub"}));
}

TEST_F(Links, PlainFileGives2057AfterRecordingEnotdir) {
    make_file(os("f"));
    MessageLog log;
    QOR_link_listing *l = nullptr;
    EXPECT_EQ(QOR_open_links(qor("f").c_str(), 0, &l), QOR_E_WRONG_KIND);
    EXPECT_EQ(l, nullptr);
    EXPECT_ONE_RECORDED(log, QOR_E_WRONG_KIND, os("f"), 2120, ENOTDIR);
    // Even when nothing is there.
    EXPECT_EQ(QOR_open_links(qor("none").c_str(), 0, &l), QOR_E_WRONG_KIND);
    EXPECT_EQ(log.messages.size(), 2u);
}

TEST_F(Links, FileListedAsDirectoryIsRecordedByOpendir) {
    make_file(os("f"));
    MessageLog log;
    QOR_link_listing *l = nullptr;
    EXPECT_EQ(QOR_open_links(qor("f").c_str(), 1, &l), QOR_E_WRONG_KIND);
    EXPECT_ONE_RECORDED(log, QOR_E_WRONG_KIND, os("f"), 2120, ENOTDIR);
}

TEST_F(Links, MissingDirectoryGives2052AfterRecordingEnoent) {
    MessageLog log;
    QOR_link_listing *l = nullptr;
    EXPECT_EQ(QOR_open_links(qor("none").c_str(), 4, &l), QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, QOR_E_MISSING, os("none"), 2120, ENOENT);
}

TEST_F(Links, UnreadableDirectoryIsRecordedAsUnprivilegedUser) {
    make_dir(os("d"), 0700);
    const auto r = qor_test::run_as_unprivileged([&] {
        MessageLog log;
        QOR_link_listing *l = nullptr;
        const int s = QOR_open_links(qor("d").c_str(), 1, &l);
        printf("%d %zu %d\n", s, log.messages.size(),
               log.messages.size() == 1 &&
                   log.messages[0] ==
                       recorded(QOR_E_PERMISSION, os("d"), 2120, EACCES));
    });
    EXPECT_EQ(r.out, "2055 1 1\n") << r.err;
}

TEST_F(Links, UntranslatablePathGives2051WithoutMessage) {
    MessageLog log;
    QOR_link_listing *l = nullptr;
    EXPECT_EQ(QOR_open_links("no/anchor", 1, &l), QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_open_links("$(QOR_OBJECTS_UNSET)", 0, &l),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(l, nullptr);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Links, FailingReadIsRecordedWithContext2132) {
    make_dir(os("d"));
    make_file(os("d/x"));
    MessageLog log;
    QOR_link_listing *l = nullptr;
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 1, &l), 0);
    qor_fault_fail(QF_readdir, EBADF, 0, 1);
    EXPECT_EQ(QOR_next_link(l), QOR_E_BAD_DESCRIPTOR);
    EXPECT_ONE_RECORDED(log, QOR_E_BAD_DESCRIPTOR, os("d"), 2132, EBADF);
    // The listing goes on afterwards and closes normally.
    ASSERT_EQ(QOR_next_link(l), 0);
    EXPECT_STREQ(l->name, "x");
    EXPECT_EQ(QOR_close_links(l), 0);
}

TEST_F(Links, HundredInterruptedReadsThenSuccess) {
    make_dir(os("d"));
    make_file(os("d/x"));
    MessageLog log;
    QOR_link_listing *l = nullptr;
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 2, &l), 0);
    qor_fault_fail(QF_readdir, EINTR, 0, 100);
    ASSERT_EQ(QOR_next_link(l), 0);
    EXPECT_STREQ(l->name, "x");
    EXPECT_EQ(qor_fault_injected(QF_readdir), 100);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_links(l), 0);
}

TEST_F(Links, HundredAndOneInterruptedReadsAreRecorded) {
    make_dir(os("d"));
    MessageLog log;
    QOR_link_listing *l = nullptr;
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 1, &l), 0);
    qor_fault_reset();
    qor_fault_fail(QF_readdir, EINTR, 0, 101);
    EXPECT_EQ(QOR_next_link(l), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_calls(QF_readdir), 101);
    EXPECT_ONE_RECORDED(log, QOR_E_INTERRUPTED, os("d"), 2132, EINTR);
    EXPECT_EQ(QOR_close_links(l), 0);
}

TEST_F(Links, PassingOverAnEntryStartsTheInterruptionCountAfresh) {
    make_dir(os("d"));
    // "." and ".." come first from this host's directories.
    {
        DIR *d = opendir(os("d").c_str());
        const std::string first = readdir(d)->d_name;
        closedir(d);
        ASSERT_TRUE(first == "." || first == "..") << first;
    }
    MessageLog log;
    QOR_link_listing *l = nullptr;
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 1, &l), 0);
    // One read that is passed over, then 100 interruptions: 101 reads in a
    // row, but not 101 interrupted ones.
    qor_fault_fail(QF_readdir, EINTR, 1, 100);
    EXPECT_EQ(QOR_next_link(l), QOR_E_END);
    EXPECT_EQ(qor_fault_injected(QF_readdir), 100);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_links(l), 0);
}

TEST_F(Links, CloseAfterTheEndReturns0AndFreesEverything) {
    make_dir(os("d"));
    make_file(os("d/x"));
    QOR_link_listing *l = nullptr;
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 1, &l), 0);
    while (QOR_next_link(l) == 0) {
    }
    qor_fault_reset();
    EXPECT_EQ(QOR_close_links(l), 0);
    EXPECT_EQ(qor_fault_calls(QF_closedir), 1);
    // Closing in the middle of a listing frees it all the same (the
    // sanitizer build checks for leaks, the harness for descriptors).
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 1, &l), 0);
    ASSERT_EQ(QOR_next_link(l), 0);
    EXPECT_EQ(QOR_close_links(l), 0);
}

TEST_F(Links, InterruptedCloseIsRetried) {
    make_dir(os("d"));
    MessageLog log;
    QOR_link_listing *l = nullptr;
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 1, &l), 0);
    qor_fault_reset();
    qor_fault_fail(QF_closedir, EINTR, 0, 100);
    EXPECT_EQ(QOR_close_links(l), 0);
    EXPECT_EQ(qor_fault_calls(QF_closedir), 101);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Links, FailingCloseIsRecordedAndTheListingFreed) {
    for (int err : {EINTR, EBADF}) {
        make_dir(os("d" + std::to_string(err)));
        const std::string dir = "d" + std::to_string(err);
        MessageLog log;
        QOR_link_listing *l = nullptr;
        ASSERT_EQ(QOR_open_links(qor(dir).c_str(), 1, &l), 0);
        // The injected failures never reach the real closedir: the stream
        // is closed here once the listing is gone.
        DIR *stream = l->stream;
        qor_fault_reset();
        qor_fault_fail(QF_closedir, err, 0, err == EINTR ? 101 : 1);
        const int status = err == EINTR ? QOR_E_INTERRUPTED
                                        : QOR_E_BAD_DESCRIPTOR;
        EXPECT_EQ(QOR_close_links(l), status);
        EXPECT_EQ(qor_fault_calls(QF_closedir), err == EINTR ? 101 : 1);
        EXPECT_ONE_RECORDED(log, status, os(dir), 2120, err);
        qor_fault_reset();
        closedir(stream);
    }
}

}  // namespace
}  // namespace objects_test
