// Directory cursors over the links listing and whole-file directory locks
// between real processes.
#include "dir_fixture.h"

namespace dir_test {
namespace {

// Every name a cursor gives, in its order; each name is a separate copy
// the caller frees.
std::vector<std::string> listed(const std::string &dir) {
    std::vector<std::string> names;
    QOR_dir_cursor *d = QOR_open_dir(dir.c_str());
    for (char *n; (n = QOR_dir_next(d)) != nullptr;) {
        names.emplace_back(n);
        QOR_free(n);
    }
    QOR_close_dir(d);
    return names;
}

std::multiset<std::string> as_set(const std::vector<std::string> &v) {
    return {v.begin(), v.end()};
}

// ---- Cursors ---------------------------------------------------------------

TEST_F(Dirs, AnEmptyDirectoryGivesNullAtOnceAndAgainAfterwards) {
    make_dir(os("empty"));
    QOR_dir_cursor *d = QOR_open_dir(qor("empty").c_str());
    ASSERT_NE(d, nullptr);
    ASSERT_NE(d->links, nullptr);
    EXPECT_EQ(QOR_dir_next(d), nullptr);
    EXPECT_EQ(QOR_dir_next(d), nullptr);
    QOR_close_dir(d);
}

TEST_F(Dirs, ListsEveryEntryButDotAndDotDotMemberFilesIncluded) {
    make_dir(os("d"));
    for (const char *n : {".lock", ".body", ".index", "dbi.lock", ".hidden",
                          "plain", "..x", "with space"}) {
        make_file(os("d") + "/" + n);
    }
    make_dir(os("d") + "/sub");
    ASSERT_EQ(symlink("nowhere", (os("d") + "/link").c_str()), 0);
    const auto names = listed(qor("d"));
    EXPECT_EQ(as_set(names),
              (std::multiset<std::string>{".lock", ".body", ".index",
                                          "dbi.lock", ".hidden", "plain",
                                          "..x", "with space", "sub",
                                          "link"}));
    // In the host directory's order, unsorted.
    std::vector<std::string> host;
    DIR *raw = opendir(os("d").c_str());
    while (struct dirent *e = readdir(raw)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") host.push_back(n);
    }
    closedir(raw);
    EXPECT_EQ(names, host);
}

TEST_F(Dirs, EachNameIsAFreshCopyThatOutlivesTheCursor) {
    make_dir(os("d"));
    make_file(os("d") + "/only");
    QOR_dir_cursor *d = QOR_open_dir(qor("d").c_str());
    char *name = QOR_dir_next(d);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(QOR_dir_next(d), nullptr);
    QOR_close_dir(d);
    EXPECT_STREQ(name, "only");
    QOR_free(name);
}

TEST_F(Dirs, ADirectoryNamedThroughAnAnchorIsListed) {
    make_dir(os("d"));
    make_file(os("d") + "/x");
    ASSERT_EQ(setenv("QOR_DIR_TEST_PLACE", tmp_.path().c_str(), 1), 0);
    EXPECT_EQ(listed("$(QOR_DIR_TEST_PLACE)/d"), std::vector<std::string>{"x"});
    unsetenv("QOR_DIR_TEST_PLACE");
}

TEST_F(Dirs, AMissingDirectoryPrintsItsStatusAndIsFatalUnarmed) {
    const std::string missing = os("missing");
    const auto r = run_in_child([&] { QOR_open_dir(("@" + missing).c_str()); });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    const std::string head =
        recorded_untranslated(QOR_E_MISSING, missing, ENOENT) +
        "status = 2052\n";
    ASSERT_EQ(r.err.substr(0, head.size()), head) << r.err;
    EXPECT_TRUE(std::regex_match(
        r.err.substr(head.size()),
        std::regex(files_test::fatal_pattern("qor_dir",
                                             "QOR_open_links failed"))))
        << r.err;
}

TEST_F(Dirs, AMissingDirectoryJumpsToTheArmedHandlerWithStatus1) {
    const std::string missing = os("missing");
    const auto r = run_in_child([&] {
        MessageLog log;
        const int jumped =
            catch_fatal([&] { QOR_open_dir(("@" + missing).c_str()); });
        printf("%d %zu ", jumped, log.messages.size());
        if (log.messages.size() == 2) {
            printf("%d %d", log.messages[0] == objects_test::recorded(
                                                   QOR_E_MISSING, missing,
                                                   QOR_CTX_LINK_LISTING, ENOENT),
                   is_dir_fatal(log.messages[1], "QOR_open_links failed"));
        }
    });
    EXPECT_EQ(r.out, "1 2 1 1");
    // The status goes to the standard error stream, the rest through the
    // message system.
    EXPECT_EQ(r.err, "status = 2052\n");
}

TEST_F(Dirs, APlainFileOrAnUntranslatablePathIsFatalWithItsStatus) {
    make_file(os("file"));
    const auto file = run_in_child([&] {
        MessageLog log;
        QOR_open_dir(qor("file").c_str());
    });
    EXPECT_EQ(file.exit_status, 3);
    EXPECT_EQ(file.err, "status = 2057\n");  // ENOTDIR from opendir
    const auto bad = run_in_child([&] {
        MessageLog log;
        unsetenv("QOR_HASH");
        QOR_open_dir("#/d");
        printf("returned");
    });
    EXPECT_EQ(bad.exit_status, 3);
    EXPECT_EQ(bad.out, "");
    EXPECT_EQ(bad.err, "status = 2051\n");
}

TEST_F(Dirs, AFailingReadOfTheListingIsFatal) {
    make_dir(os("d"));
    make_file(os("d") + "/x");
    const auto r = run_in_child([&] {
        MessageLog log;
        QOR_dir_cursor *d = QOR_open_dir(qor("d").c_str());
        qor_fault_fail(QF_readdir, EIO, 0, 1);
        const int jumped = catch_fatal([&] { QOR_dir_next(d); });
        printf("%d %zu %d", jumped, log.messages.size(),
               log.messages.size() == 2 &&
                   log.messages[0] == objects_test::recorded(
                                          QOR_E_IO, os("d"),
                                          QOR_CTX_READ_LINK, EIO) &&
                   is_dir_fatal(log.messages[1], "QOR_next_link failed"));
    });
    EXPECT_EQ(r.out, "1 2 1");
    EXPECT_EQ(r.err, "");
    const auto unarmed = run_in_child([&] {
        QOR_dir_cursor *d = QOR_open_dir(qor("d").c_str());
        qor_fault_fail(QF_readdir, EIO, 0, 1);
        QOR_dir_next(d);
    });
    EXPECT_EQ(unarmed.exit_status, 3);
    const std::string head = recorded_untranslated(QOR_E_IO, os("d"), EIO);
    ASSERT_EQ(unarmed.err.substr(0, head.size()), head);
    EXPECT_TRUE(std::regex_match(
        unarmed.err.substr(head.size()),
        std::regex(files_test::fatal_pattern("qor_dir", "QOR_next_link failed"))));
}

TEST_F(Dirs, AnInterruptedListingIsReadAgain101ReadsInAll) {
    make_dir(os("d"));
    make_file(os("d") + "/x");
    // 100 interruptions, then the entry.
    qor_fault_fail(QF_readdir, EINTR, 0, 100);
    EXPECT_EQ(listed(qor("d")), std::vector<std::string>{"x"});
    EXPECT_EQ(qor_fault_injected(QF_readdir), 100);
    // 101 interruptions: recorded and fatal.
    const auto r = run_in_child([&] {
        MessageLog log;
        QOR_dir_cursor *d = QOR_open_dir(qor("d").c_str());
        qor_fault_reset();
        qor_fault_fail(QF_readdir, EINTR, 0, -1);
        const int jumped = catch_fatal([&] { QOR_dir_next(d); });
        printf("%d %ld %d", jumped, qor_fault_calls(QF_readdir),
               log.messages.size() == 2 &&
                   log.messages[0] == objects_test::recorded(
                                          QOR_E_INTERRUPTED, os("d"),
                                          QOR_CTX_READ_LINK, EINTR));
    });
    EXPECT_EQ(r.out, "1 101 1");
}

TEST_F(Dirs, AFailingCloseIsFatalAfterTheCursorWasFreed) {
    make_dir(os("d"));
    const auto r = run_in_child([&] {
        MessageLog log;
        QOR_dir_cursor *d = QOR_open_dir(qor("d").c_str());
        qor_fault_fail(QF_closedir, EIO, 0, 1);
        const int jumped = catch_fatal([&] { QOR_close_dir(d); });
        printf("%d %d", jumped,
               log.messages.size() == 2 &&
                   log.messages[0] == objects_test::recorded(
                                          QOR_E_IO, os("d"),
                                          QOR_CTX_LINK_LISTING, EIO) &&
                   is_dir_fatal(log.messages[1], "QOR_close_links failed"));
    });
    EXPECT_EQ(r.out, "1 1");
    const auto unarmed = run_in_child([&] {
        QOR_dir_cursor *d = QOR_open_dir(qor("d").c_str());
        qor_fault_fail(QF_closedir, EIO, 0, 1);
        QOR_close_dir(d);
    });
    EXPECT_EQ(unarmed.exit_status, 3);
    EXPECT_NE(unarmed.err.find("QOR_close_links failed"), std::string::npos);
}

TEST_F(Dirs, EntriesAddedDuringAListingAreNotRequiredButNothingBreaks) {
    make_dir(os("d"));
    for (int i = 0; i < 50; ++i) make_file(os("d") + "/" + std::to_string(i));
    QOR_dir_cursor *d = QOR_open_dir(qor("d").c_str());
    std::set<std::string> seen;
    int added = 0;
    for (char *n; (n = QOR_dir_next(d)) != nullptr;) {
        seen.insert(n);
        QOR_free(n);
        if (added < 10) make_file(os("d") + "/new" + std::to_string(added++));
    }
    QOR_close_dir(d);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(seen.count(std::to_string(i)), 1u);
}

// ---- Locks -----------------------------------------------------------------

TEST_F(Dirs, ModesOtherThan1And3AreFatal) {
    const std::string dir = locked_dir("d");
    for (int mode : {0, 2, 4, -1}) {
        const auto r = run_in_child([&] {
            QOR_file_handle *h = nullptr;
            QOR_lock_dir(dir.c_str(), mode, &h);
        });
        EXPECT_FATAL(r, "qor_dir", "Invalid parameter to QOR_lock_dir");
        const auto armed = run_in_child([&] {
            QOR_file_handle *h = nullptr;
            printf("%d", catch_fatal([&] { QOR_lock_dir(dir.c_str(), mode, &h); }));
        });
        EXPECT_EQ(armed.out, "1") << mode;
    }
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_UNLCK);
}

TEST_F(Dirs, ASharedLockIsAReadLockOverTheWholeFile) {
    const std::string dir = locked_dir("d");
    QOR_file_handle *h = nullptr;
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_SHARED, &h), 1);
    ASSERT_NE(h, nullptr);
    EXPECT_STREQ(h->path, (dir + "/.lock").c_str());
    EXPECT_EQ(h->flags, uint32_t{QOR_FILE_READ_ONLY});
    EXPECT_EQ(h->lock_mode, 1u);
    EXPECT_EQ(h->stream, nullptr);
    EXPECT_EQ(fcntl(h->fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_TRUE(objects_test::close_on_exec(h->fd));
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_RDLCK);
    // Beyond the file's end too: the lock covers the whole file however
    // it grows.
    const auto r = run_in_child([&] {
        const int fd = ::open((dir + "/.lock").c_str(), O_RDWR);
        struct flock fl = {};
        fl.l_type = F_WRLCK;
        fl.l_whence = SEEK_SET;
        fl.l_start = 1 << 20;
        fl.l_len = 1;
        printf("%d", fcntl(fd, F_SETLK, &fl));
    });
    EXPECT_EQ(r.out, "-1");
    QOR_unlock_dir(h);
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_UNLCK);
}

TEST_F(Dirs, AnExclusiveLockIsAWriteLockOnAReadWriteHandle) {
    const std::string dir = locked_dir("d");
    QOR_file_handle *h = nullptr;
    ASSERT_EQ(QOR_lock_dir(qor("d").c_str(), QOR_DIR_EXCLUSIVE, &h), 1);
    EXPECT_EQ(h->flags, uint32_t{QOR_FILE_READ_WRITE});
    EXPECT_EQ(h->lock_mode, 3u);
    EXPECT_EQ(fcntl(h->fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_WRLCK);
    QOR_unlock_dir(h);
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_UNLCK);
    // The lock file is left as it was.
    EXPECT_EQ(read_file(dir + "/.lock"), "");
}

TEST_F(Dirs, ExclusiveAgainstSharedIsRefusedAtOnceBetweenProcesses) {
    const std::string dir = locked_dir("d");
    QOR_file_handle *h = nullptr;
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_SHARED, &h), 1);
    const int before = qor_test::open_descriptor_count();
    const auto r = run_in_child([&] {
        QOR_file_handle *mine = nullptr;
        qor_fault_reset();
        const int got = QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &mine);
        // One lock request, refused without waiting; nothing kept open.
        printf("%d %ld %d %d", got, qor_fault_calls(QF_fcntl),
               mine == nullptr,
               qor_test::open_descriptor_count() == before);
    });
    EXPECT_EQ(r.out, "0 1 1 1");
    EXPECT_EQ(lock_elsewhere(dir, QOR_DIR_SHARED), "granted");
    QOR_unlock_dir(h);
    EXPECT_EQ(lock_elsewhere(dir, QOR_DIR_EXCLUSIVE), "granted");
}

TEST_F(Dirs, SharedAndExclusiveAgainstExclusiveAreRefused) {
    const std::string dir = locked_dir("d");
    QOR_file_handle *h = nullptr;
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &h), 1);
    EXPECT_EQ(lock_elsewhere(dir, QOR_DIR_SHARED), "refused");
    EXPECT_EQ(lock_elsewhere(dir, QOR_DIR_EXCLUSIVE), "refused");
    QOR_unlock_dir(h);
    EXPECT_EQ(lock_elsewhere(dir, QOR_DIR_SHARED), "granted");
}

TEST_F(Dirs, ALockHeldByAnotherProcessIsRefusedUntilItEnds) {
    const std::string dir = locked_dir("d");
    Partner holder([&](Partner &p) {
        QOR_file_handle *h = nullptr;
        p.tell(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &h) == 1 ? 'L'
                                                                      : 'F');
        p.hear();
        return 0;
    });
    ASSERT_EQ(holder.receive(), 'L');
    QOR_file_handle *h = nullptr;
    EXPECT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_SHARED, &h), 0);
    EXPECT_EQ(h, nullptr);
    holder.send('x');
    EXPECT_EQ(holder.finish(), 0);
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &h), 1);
    QOR_unlock_dir(h);
}

TEST_F(Dirs, DowngradeLetsAReaderIn) {
    const std::string dir = locked_dir("d");
    QOR_file_handle *h = nullptr;
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &h), 1);
    EXPECT_EQ(lock_elsewhere(dir, QOR_DIR_SHARED), "refused");
    EXPECT_EQ(QOR_downgrade_dir_lock(h), 1);
    EXPECT_EQ(h->lock_mode, 1u);
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_RDLCK);
    EXPECT_EQ(lock_elsewhere(dir, QOR_DIR_SHARED), "granted");
    EXPECT_EQ(lock_elsewhere(dir, QOR_DIR_EXCLUSIVE), "refused");
    // A shared lock downgraded stays shared.
    EXPECT_EQ(QOR_downgrade_dir_lock(h), 1);
    QOR_unlock_dir(h);
}

TEST_F(Dirs, DowngradeOfASharedLockIsGrantedWhileAnotherReaderHoldsOn) {
    const std::string dir = locked_dir("d");
    Partner reader([&](Partner &p) {
        QOR_file_handle *h = nullptr;
        p.tell(QOR_lock_dir(dir.c_str(), QOR_DIR_SHARED, &h) == 1 ? 'L' : 'F');
        p.hear();
        return 0;
    });
    ASSERT_EQ(reader.receive(), 'L');
    QOR_file_handle *h = nullptr;
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_SHARED, &h), 1);
    EXPECT_EQ(QOR_downgrade_dir_lock(h), 1);
    reader.send('x');
    reader.finish();
    QOR_unlock_dir(h);
}

TEST_F(Dirs, TwoHandlesOfOneProcessShareTheLockAndClosingEitherReleasesIt) {
    const std::string dir = locked_dir("d");
    for (int close_first : {0, 1}) {
        QOR_file_handle *a = nullptr;
        QOR_file_handle *b = nullptr;
        ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &a), 1);
        // The process's own lock does not refuse it.
        ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &b), 1);
        EXPECT_NE(a, b);
        EXPECT_NE(a->fd, b->fd);
        EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_WRLCK);
        QOR_unlock_dir(close_first ? b : a);
        EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_UNLCK) << close_first;
        EXPECT_EQ(lock_elsewhere(dir, QOR_DIR_EXCLUSIVE), "granted");
        QOR_unlock_dir(close_first ? a : b);
    }
}

TEST_F(Dirs, ASharedHandleOfTheSameProcessCanBeTakenExclusiveAgain) {
    // Record locks of one process replace each other: the exclusive
    // request converts the process's read lock.
    const std::string dir = locked_dir("d");
    QOR_file_handle *a = nullptr;
    QOR_file_handle *b = nullptr;
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_SHARED, &a), 1);
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &b), 1);
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_WRLCK);
    QOR_unlock_dir(b);
    QOR_unlock_dir(a);
}

TEST_F(Dirs, AMissingLockFileIsAnAccessFailure) {
    make_dir(os("d"));
    for (int mode : {QOR_DIR_SHARED, QOR_DIR_EXCLUSIVE}) {
        const auto r = run_in_child([&] {
            QOR_file_handle *h = nullptr;
            QOR_lock_dir(os("d").c_str(), mode, &h);
        });
        EXPECT_ACCESS_FAILURE(r, os("d") + "/.lock", ENOENT);
    }
    // Not made on the way.
    EXPECT_FALSE(qor_test::exists(os("d") + "/.lock"));
    const auto armed = run_in_child([&] {
        QOR_file_handle *h = nullptr;
        printf("%d", catch_fatal([&] {
                   QOR_lock_dir(os("d").c_str(), QOR_DIR_SHARED, &h);
               }));
    });
    EXPECT_EQ(armed.out, "1");
}

TEST_F(Dirs, AnUntranslatablePathIsFatal) {
    const auto r = run_in_child([&] {
        QOR_file_handle *h = nullptr;
        unsetenv("QOR_HASH");
        QOR_lock_dir("#/d", QOR_DIR_SHARED, &h);
    });
    EXPECT_FATAL(r, "qor_dir", "Invalid path");
}

TEST_F(Dirs, ASymbolicLinkAtTheLockFileIsRefusedAndItsTargetUntouched) {
    make_dir(os("d"));
    write_file(os("victim"), "data");
    ASSERT_EQ(symlink(os("victim").c_str(), (os("d") + "/.lock").c_str()), 0);
    for (int mode : {QOR_DIR_SHARED, QOR_DIR_EXCLUSIVE}) {
        const auto r = run_in_child([&] {
            QOR_file_handle *h = nullptr;
            QOR_lock_dir(os("d").c_str(), mode, &h);
        });
        EXPECT_ACCESS_FAILURE(r, os("d") + "/.lock", ELOOP);
    }
    EXPECT_EQ(read_file(os("victim")), "data");
    EXPECT_EQ(lock_seen_elsewhere(os("victim")), F_UNLCK);
    // A dangling one is not followed to make a file either.
    ASSERT_EQ(unlink((os("d") + "/.lock").c_str()), 0);
    ASSERT_EQ(symlink(os("made").c_str(), (os("d") + "/.lock").c_str()), 0);
    const auto r = run_in_child([&] {
        QOR_file_handle *h = nullptr;
        QOR_lock_dir(os("d").c_str(), QOR_DIR_EXCLUSIVE, &h);
    });
    EXPECT_ACCESS_FAILURE(r, os("d") + "/.lock", ELOOP);
    EXPECT_FALSE(qor_test::exists(os("made")));
}

TEST_F(Dirs, AFifoOrADirectoryAtTheLockFileIsRefusedWithoutWaiting) {
    make_dir(os("d"));
    ASSERT_EQ(mkfifo((os("d") + "/.lock").c_str(), 0666), 0);
    for (int mode : {QOR_DIR_SHARED, QOR_DIR_EXCLUSIVE}) {
        const auto r = run_in_child([&] {
            QOR_file_handle *h = nullptr;
            QOR_lock_dir(os("d").c_str(), mode, &h);
        });
        EXPECT_ACCESS_FAILURE(r, os("d") + "/.lock", EINVAL);
    }
    make_dir(os("e"));
    make_dir(os("e") + "/.lock");
    const auto shared = run_in_child([&] {
        QOR_file_handle *h = nullptr;
        QOR_lock_dir(os("e").c_str(), QOR_DIR_SHARED, &h);
    });
    EXPECT_ACCESS_FAILURE(shared, os("e") + "/.lock", EINVAL);
    const auto exclusive = run_in_child([&] {
        QOR_file_handle *h = nullptr;
        QOR_lock_dir(os("e").c_str(), QOR_DIR_EXCLUSIVE, &h);
    });
    EXPECT_ACCESS_FAILURE(exclusive, os("e") + "/.lock", EISDIR);
}

TEST_F(Dirs, AnUnprivilegedReaderLocksAReadOnlyLockFileShared) {
    const std::string dir = locked_dir("d");
    ASSERT_EQ(chmod((dir + "/.lock").c_str(), 0644), 0);
    const auto r = qor_test::run_as_unprivileged([&] {
        QOR_file_handle *h = nullptr;
        printf("%d ", QOR_lock_dir(dir.c_str(), QOR_DIR_SHARED, &h));
        if (h) QOR_unlock_dir(h);
        // Exclusive needs a writable open: refused, then the creating open
        // is refused too, and the answer is 0 with nothing open.
        const int before = qor_test::open_descriptor_count();
        QOR_file_handle *x = nullptr;
        printf("%d %d", QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &x),
               qor_test::open_descriptor_count() == before && x == nullptr);
    });
    EXPECT_EQ(r.out, "1 0 1") << r.err;
    EXPECT_EQ(r.err, "");
}

TEST_F(Dirs, AnUnreadableLockFileAnswers0AfterTheCreatingOpen) {
    const std::string dir = locked_dir("d");
    ASSERT_EQ(chmod((dir + "/.lock").c_str(), 0600), 0);
    ASSERT_EQ(chmod(dir.c_str(), 0777), 0);
    const auto r = qor_test::run_as_unprivileged([&] {
        QOR_file_handle *h = nullptr;
        qor_fault_reset();
        const int got = QOR_lock_dir(dir.c_str(), QOR_DIR_SHARED, &h);
        printf("%d %ld", got, qor_fault_calls(QF_open));
    });
    // The read-only open and the creating open, both refused.
    EXPECT_EQ(r.out, "0 2") << r.err;
    EXPECT_EQ(r.err, "");
}

TEST_F(Dirs, ARefusedOpenFallsBackToTheCreatingOpen) {
    // A refusal that goes away between the two opens: the second, creating
    // open gives a read-write handle, whatever the mode asked.
    const std::string dir = locked_dir("d");
    qor_fault_filter_path(QF_open, "/.lock");
    qor_fault_fail(QF_open, EACCES, 0, 1);
    QOR_file_handle *h = nullptr;
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_SHARED, &h), 1);
    EXPECT_EQ(qor_fault_injected(QF_open), 1);
    EXPECT_EQ(h->flags, uint32_t{QOR_FILE_READ_WRITE});
    EXPECT_EQ(h->lock_mode, 1u);
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_RDLCK);
    QOR_unlock_dir(h);
}

TEST_F(Dirs, TheCreatingOpenAsksTheDiscFullHandler) {
    // The first open is refused; the creating open then finds no file and
    // makes it, meeting a full disc twice on the way.
    make_dir(os("d"));
    const std::string lock = os("d") + "/.lock";
    qor_test::DiscFullHandler handler({0});
    qor_fault_filter_path(QF_open, "/.lock");
    qor_fault_fail(QF_open, EACCES, 0, 1);
    static bool armed;
    armed = false;
    // The creating open first looks for an existing file (a read-write
    // open without O_CREAT); the full disc is armed for what follows it.
    qor_fault_on_mutation([](qor_fault_fn fn, const char *, int, int flags) {
        if (fn == QF_open && !(flags & O_CREAT) && !armed) {
            armed = true;
            qor_fault_fail(QF_open, ENOSPC, 0, 2);
        }
    });
    QOR_file_handle *h = nullptr;
    ASSERT_EQ(QOR_lock_dir(os("d").c_str(), QOR_DIR_SHARED, &h), 1);
    qor_fault_on_mutation(nullptr);
    ASSERT_EQ(handler.calls.size(), 2u);
    for (const auto &c : handler.calls) {
        EXPECT_EQ(c.os_error, ENOSPC);
        EXPECT_EQ(c.context, QOR_CTX_OPEN);
        EXPECT_EQ(c.path, lock);
    }
    EXPECT_TRUE(qor_test::exists(lock));
    EXPECT_EQ(h->flags, uint32_t{QOR_FILE_READ_WRITE});
    QOR_unlock_dir(h);
    // Given up by the handler: an access failure.
    ASSERT_EQ(unlink(lock.c_str()), 0);
    const auto r = run_in_child([&] {
        qor_test::DiscFullHandler gives_up({1});
        qor_fault_filter_path(QF_open, "/.lock");
        qor_fault_fail(QF_open, EACCES, 0, 1);
        armed = false;
        qor_fault_on_mutation([](qor_fault_fn fn, const char *, int, int flags) {
            if (fn == QF_open && !(flags & O_CREAT) && !armed) {
                armed = true;
                qor_fault_fail(QF_open, ENOSPC, 0, -1);
            }
        });
        QOR_file_handle *x = nullptr;
        QOR_lock_dir(os("d").c_str(), QOR_DIR_SHARED, &x);
    });
    EXPECT_ACCESS_FAILURE(r, lock, ENOSPC);
}

TEST_F(Dirs, AnInterruptedLockRequestIsMade101TimesInAll) {
    const std::string dir = locked_dir("d");
    QOR_file_handle *h = nullptr;
    qor_fault_fail(QF_fcntl, EINTR, 0, 100);
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &h), 1);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 101);
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_WRLCK);
    QOR_unlock_dir(h);

    // 101 interruptions: not granted, and nothing kept open.
    qor_fault_reset();
    const int before = qor_test::open_descriptor_count();
    qor_fault_fail(QF_fcntl, EINTR, 0, 101);
    h = nullptr;
    EXPECT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &h), 0);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 101);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(qor_test::open_descriptor_count(), before);
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_UNLCK);
}

TEST_F(Dirs, AnInterruptedDowngradeIsMade101TimesInAll) {
    const std::string dir = locked_dir("d");
    QOR_file_handle *h = nullptr;
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &h), 1);
    qor_fault_reset();
    qor_fault_fail(QF_fcntl, EINTR, 0, 100);
    EXPECT_EQ(QOR_downgrade_dir_lock(h), 1);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 101);
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_RDLCK);
    QOR_unlock_dir(h);
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &h), 1);
    qor_fault_reset();
    qor_fault_fail(QF_fcntl, EINTR, 0, -1);
    EXPECT_EQ(QOR_downgrade_dir_lock(h), 0);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 101);
    // Not granted: the write lock stays as it was.
    EXPECT_EQ(h->lock_mode, 3u);
    qor_fault_reset();
    EXPECT_EQ(lock_seen_elsewhere(dir + "/.lock"), F_WRLCK);
    QOR_unlock_dir(h);
}

TEST_F(Dirs, OtherLockFailuresAnswer0WithoutAMessage) {
    const std::string dir = locked_dir("d");
    MessageLog log;
    QOR_file_handle *h = nullptr;
    qor_fault_fail(QF_fcntl, ENOLCK, 0, 1);
    EXPECT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_SHARED, &h), 0);
    EXPECT_EQ(qor_fault_calls(QF_fcntl), 1);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Dirs, UnlockIsClosingTheBinaryFile) {
    const std::string dir = locked_dir("d");
    QOR_file_handle *h = nullptr;
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &h), 1);
    const int fd = h->fd;
    QOR_unlock_dir(h);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    // A close that fails is the file layer's access failure.
    ASSERT_EQ(QOR_lock_dir(dir.c_str(), QOR_DIR_EXCLUSIVE, &h), 1);
    const auto r = run_in_child([&] {
        qor_fault_fail(QF_close, EIO, 0, 1);
        QOR_unlock_dir(h);
    });
    EXPECT_ACCESS_FAILURE(r, dir + "/.lock", EIO);
    QOR_unlock_dir(h);
}

}  // namespace
}  // namespace dir_test
