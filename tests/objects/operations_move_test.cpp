// Moving objects: renames of every type, existing targets that may or may
// not be removed, the errno values a rename turns into, a full disc, and an
// open body following its object.

#include "contents_fixture.h"

namespace objects_test {
namespace {

using Names = std::vector<std::string>;

class Move : public Store {
  protected:
    int move(const std::string &from, unsigned type, const std::string &to) {
        return QOR_move_object(qor(from).c_str(), type, qor(to).c_str());
    }
    void make_source(const std::string &name, unsigned type,
                     const std::string &body = "body") {
        make_object(os(name), type);
        if (type == 0) qor_test::write_file(os(name), body);
        if (type >= 3) qor_test::write_file(os(name) + "/.body", body);
    }
};

TEST_F(Move, EachTypeOntoAMissingTargetGives0) {
    MessageLog log;
    for (unsigned type = 0; type <= 4; ++type) {
        const std::string s = "s" + std::to_string(type);
        const std::string t = "t" + std::to_string(type);
        make_source(s, type);
        EXPECT_EQ(move(s, type, t), 0) << type;
        EXPECT_FALSE(qor_test::exists(os(s))) << type;
        EXPECT_TRUE(qor_test::exists(os(t))) << type;
        EXPECT_EQ(entries(os(t)), members_of(type).empty() ? Names{} : [&] {
            Names m = members_of(type);
            std::sort(m.begin(), m.end());
            return m;
        }()) << type;
    }
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Move, PlainFileSilentlyReplacesAnExistingTarget) {
    make_source("s", 0, "new");
    qor_test::write_file(os("t"), "old");
    MessageLog log;
    EXPECT_EQ(move("s", 0, "t"), 0);
    EXPECT_EQ(qor_test::read_file(os("t")), "new");
    EXPECT_FALSE(qor_test::exists(os("s")));
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Move, OntoAnExistingRemovableTargetReplacesItAndGives2054) {
    for (unsigned type = 1; type <= 4; ++type) {
        const std::string s = "s" + std::to_string(type);
        const std::string t = "t" + std::to_string(type);
        make_source(s, type, "new");
        make_source(t, type, "old");
        MessageLog log;
        EXPECT_EQ(move(s, type, t), QOR_E_TARGET_EXISTS) << type;
        EXPECT_FALSE(qor_test::exists(os(s)));
        if (type >= 3) {
            EXPECT_EQ(qor_test::read_file(os(t) + "/.body"), "new");
        }
        EXPECT_TRUE(log.messages.empty()) << type;
    }
}

TEST_F(Move, OntoATargetThatMayNotBeRemovedGives0AfterOneMessage) {
    make_source("s", 3, "new");
    make_source("t", 3, "old");
    const std::string s = qor("s"), t = qor("t"), t_os = os("t");
    auto r = qor_test::run_as_unprivileged([&] {
        MessageLog log;
        const int status = QOR_move_object(s.c_str(), 3, t.c_str());
        printf("%d\n", status);
        for (const auto &m : log.messages) {
            printf("%d %d %s|%s|%s\n", m.number, m.type,
                   m.parameters[0].c_str(), m.parameters[1].c_str(),
                   m.parameters[2].c_str());
        }
    });
    ASSERT_TRUE(r.exited) << r.err;
    EXPECT_EQ(r.out, "0\n55 71 " + t_os + "|" + MessageLog::text_of(107) +
                         "|" + strerror(EACCES) + "\n");
    EXPECT_EQ(qor_test::read_file(os("s/.body")), "new");
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "old");
}

TEST_F(Move, OntoANonEmptyTargetGives2065AfterTwoMessages) {
    make_source("s", 3);
    make_source("t", 3, "old");
    qor_test::write_file(os("t/link"), "a link");
    MessageLog log;
    EXPECT_EQ(move("s", 3, "t"), QOR_E_NOT_EMPTY);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{
                  recorded(2065, os("t"), QOR_CTX_REMOVE_DIRECTORY, ENOTEMPTY),
                  recorded(2065, os("t"), QOR_CTX_MOVE_OBJECT, ENOTEMPTY)}));
    EXPECT_EQ(entries(os("t")), (Names{".body", ".lock", "link"}));
    EXPECT_TRUE(qor_test::exists(os("s")));
}

TEST_F(Move, OtherDeletionFailuresAreReturnedAsTheyAre) {
    make_source("s", 3);
    make_source("t", 3, "old");
    MessageLog log;
    qor_fault_fail(QF_unlink, EBUSY, 0, 1);
    EXPECT_EQ(move("s", 3, "t"), QOR_E_IO);
    EXPECT_ONE_RECORDED(log, 2056, os("t/.body"), QOR_CTX_DELETE_FILE, EBUSY);
    EXPECT_TRUE(qor_test::exists(os("s")));
}

TEST_F(Move, MissingSourceIsRecordedWithTheSourcesPath) {
    MessageLog log;
    EXPECT_EQ(move("s", 3, "t"), QOR_E_MISSING);
    EXPECT_ONE_RECORDED(log, 2052, os("s"), QOR_CTX_MOVE_OBJECT, ENOENT);
}

TEST_F(Move, RenameErrnoValuesAndThePathsTheyAreRecordedWith) {
    make_source("s", 4);
    const struct {
        int injected;
        int recorded_as;
        int status;
    } rows[] = {
        {EEXIST, ENOTEMPTY, 2065}, {66, ENOTEMPTY, 2065},
        {ENOTEMPTY, ENOTEMPTY, 2065}, {EXDEV, EXDEV, 2057},
        {EACCES, EACCES, 2055},
    };
    for (const auto &r : rows) {
        MessageLog log;
        qor_fault_reset();
        qor_fault_fail(QF_rename, r.injected, 0, 1);
        EXPECT_EQ(move("s", 4, "t"), r.status) << r.injected;
        EXPECT_EQ(log.messages,
                  (std::vector<Message>{recorded(r.status, os("t"),
                                                 QOR_CTX_MOVE_OBJECT,
                                                 r.recorded_as)}))
            << r.injected;
    }
    EXPECT_EQ(entries(os("s")), (Names{".body", ".index", ".lock"}));
}

TEST_F(Move, FullDiscAsksTheHandlerAndRetriesWhileItAnswers0) {
    make_source("s", 3);
    MessageLog log;
    {
        qor_test::DiscFullHandler handler({0});
        qor_fault_fail(QF_rename, ENOSPC, 0, 2);
        EXPECT_EQ(move("s", 3, "t"), 0);
        ASSERT_EQ(handler.calls.size(), 2u);
        EXPECT_EQ(handler.calls[0].path, os("t"));
        EXPECT_EQ(handler.calls[0].context, QOR_CTX_MOVE_OBJECT);
        EXPECT_EQ(handler.calls[0].os_error, ENOSPC);
    }
    EXPECT_TRUE(log.messages.empty());
    {
        qor_test::DiscFullHandler handler({0, 1});
        qor_fault_reset();
        qor_fault_fail(QF_rename, ENOSPC, 0, -1);
        EXPECT_EQ(move("t", 3, "u"), QOR_E_RESOURCE);
        EXPECT_EQ(handler.calls.size(), 2u);
        EXPECT_EQ(qor_fault_calls(QF_rename), 2);
    }
    EXPECT_ONE_RECORDED(log, 2058, os("u"), QOR_CTX_MOVE_OBJECT, ENOSPC);
    EXPECT_TRUE(qor_test::exists(os("t")));
}

TEST_F(Move, InterruptedRenameIsMadeAgain) {
    make_source("s", 0);
    qor_fault_fail(QF_rename, EINTR, 0, 100);
    EXPECT_EQ(move("s", 0, "t"), 0);
    EXPECT_EQ(qor_fault_calls(QF_rename), 101);
}

TEST_F(Move, UntranslatablePathsGive2051) {
    make_source("s", 3);
    MessageLog log;
    qor_fault_reset();
    EXPECT_EQ(QOR_move_object("relative", 3, qor("t").c_str()),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(QOR_move_object(qor("s").c_str(), 0, nullptr),
              QOR_E_UNTRANSLATABLE);
    EXPECT_EQ(qor_fault_calls(QF_rename), 0);
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(Move, TypeAboveFourGives2070) {
    make_source("s", 4);
    MessageLog log;
    EXPECT_EQ(move("s", 7, "t"), QOR_E_INVALID);
    EXPECT_EQ(log.messages.size(), 1u);
    EXPECT_TRUE(qor_test::exists(os("s")));
}

TEST_F(Move, AnOpenBodyStaysValidAndFollowsItsObject) {
    make_source("s", 4, "body");
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("s").c_str(), 4, 0x04, 3, &rec), 0);
    MessageLog log;
    EXPECT_EQ(move("s", 4, "t"), 0);
    EXPECT_EQ(QOR_write_idle_block(rec, 4, "++", 2), 0);
    EXPECT_EQ(QOR_update_file_path(&rec, qor("t").c_str()), 0);
    EXPECT_EQ(std::string(rec->path), os("t") + "/.body");
    char buf[10];
    EXPECT_EQ(QOR_read_idle_block(rec, 0, buf, 10),
              QOR_E_IDLE_READ_INCOMPLETE);
    // The messages name the new place.
    ASSERT_EQ(log.messages.size(), 2u);
    EXPECT_EQ(log.messages[1].parameters[0], os("t") + "/.body");
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_test::read_file(os("t/.body")), "body++");
}

}  // namespace
}  // namespace objects_test
