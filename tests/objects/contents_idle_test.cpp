// Idle blocks: whole transfers at given offsets, partial transfers with
// messages 403/404, blocks left incomplete with messages 401/402 and
// statuses 2401/2402, failures, interruptions, a full disc, and records
// that do not take idle transfers.

#include "contents_fixture.h"

namespace objects_test {
namespace {

class IdleBlocks : public Store {
  protected:
    void SetUp() override {
        Store::SetUp();
        make_object(os("i"), QOR_IDLE_OBJECT);
        body_ = os("i") + "/.body";
    }
    QOR_contents_record *open_body(unsigned flags = 0x04) {
        QOR_contents_record *rec = nullptr;
        EXPECT_EQ(QOR_open_contents(qor("i").c_str(), 4, flags, 0, &rec), 0);
        return rec;
    }
    static Message idle(int number, const std::string &path,
                        const std::string &offset, int count, int total) {
        return qor_test::msg("qor", number, QOR_MSG_IDLE_WARNING,
                             {path, offset, std::to_string(count),
                              std::to_string(total)});
    }
    std::string body_;
};

TEST_F(IdleBlocks, WrittenBlocksReadBackAtTheirOffsets) {
    QOR_contents_record *rec = open_body();
    MessageLog log;
    ASSERT_EQ(QOR_write_idle_block(rec, 0, "head", 4), 0);
    ASSERT_EQ(QOR_write_idle_block(rec, 100, "middle", 6), 0);
    ASSERT_EQ(QOR_write_idle_block(rec, 2, "XY", 2), 0);
    char buf[8] = {};
    ASSERT_EQ(QOR_read_idle_block(rec, 100, buf, 6), 0);
    EXPECT_EQ(std::string(buf, 6), "middle");
    ASSERT_EQ(QOR_read_idle_block(rec, 0, buf, 4), 0);
    EXPECT_EQ(std::string(buf, 4), "heXY");
    ASSERT_EQ(QOR_read_idle_block(rec, 4, buf, 3), 0);  // the hole reads 0
    EXPECT_EQ(std::string(buf, 3), std::string(3, '\0'));
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_test::read_file(body_).size(), 106u);
}

TEST_F(IdleBlocks, TransfersLeaveTheDescriptorsOffsetAlone) {
    QOR_contents_record *rec = open_body();
    ASSERT_EQ(QOR_write_idle_block(rec, 50, "abc", 3), 0);
    char buf[3];
    ASSERT_EQ(QOR_read_idle_block(rec, 50, buf, 3), 0);
    EXPECT_EQ(lseek(rec->fd, 0, SEEK_CUR), 0);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, IndexTakesIdleBlocksToo) {
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_idle_index(qor("i").c_str(), 0x04, 3, &rec), 0);
    ASSERT_EQ(QOR_write_idle_block(rec, 8, "index", 5), 0);
    char buf[5];
    ASSERT_EQ(QOR_read_idle_block(rec, 8, buf, 5), 0);
    EXPECT_EQ(std::string(buf, 5), "index");
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, FileOpenedWithTheIdleFlagTakesIdleBlocks) {
    qor_test::write_file(os("f"), "0123456789");
    QOR_contents_record *rec = nullptr;
    ASSERT_EQ(QOR_open_file(qor("f").c_str(), 0, 1, 0x01, 0, &rec), 0);
    char buf[3];
    ASSERT_EQ(QOR_read_idle_block(rec, 7, buf, 3), 0);
    EXPECT_EQ(std::string(buf, 3), "789");
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, RecordsWithoutTheIdleFlagGive2070WithNoMessage) {
    make_object(os("c"), QOR_CDIR);
    qor_test::write_file(os("c/.body"), "cdir body");
    qor_test::write_file(os("f"), "plain");
    QOR_contents_record *cdir = nullptr, *plain = nullptr;
    ASSERT_EQ(QOR_open_contents(qor("c").c_str(), 3, 0x04, 0, &cdir), 0);
    ASSERT_EQ(QOR_open_contents(qor("f").c_str(), 0, 0x04, 0, &plain), 0);
    MessageLog log;
    qor_fault_reset();
    char buf[4];
    for (QOR_contents_record *rec : {cdir, plain}) {
        EXPECT_EQ(QOR_read_idle_block(rec, 0, buf, 4), QOR_E_INVALID);
        EXPECT_EQ(QOR_write_idle_block(rec, 0, "XXXX", 4), QOR_E_INVALID);
    }
    EXPECT_EQ(qor_fault_calls(QF_pread) + qor_fault_calls(QF_pwrite) +
                  qor_fault_calls(QF_lseek),
              0);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(cdir), 0);
    EXPECT_EQ(QOR_close_contents(plain), 0);
    EXPECT_EQ(qor_test::read_file(os("c/.body")), "cdir body");
    EXPECT_EQ(qor_test::read_file(os("f")), "plain");
}

TEST_F(IdleBlocks, ReadingWhollyPastTheEndGives2401AfterMessage401) {
    qor_test::write_file(body_, "0123456789");
    QOR_contents_record *rec = open_body(0x01);
    MessageLog log;
    char buf[8];
    EXPECT_EQ(QOR_read_idle_block(rec, 100, buf, 8),
              QOR_E_IDLE_READ_INCOMPLETE);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{idle(401, body_, "100", 0, 8)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, ReadingAcrossTheEndGives403Then401) {
    qor_test::write_file(body_, "0123456789");
    QOR_contents_record *rec = open_body(0x01);
    MessageLog log;
    char buf[20] = {};
    EXPECT_EQ(QOR_read_idle_block(rec, 4, buf, 20),
              QOR_E_IDLE_READ_INCOMPLETE);
    EXPECT_EQ(std::string(buf, 6), "456789");
    EXPECT_EQ(log.messages, (std::vector<Message>{
                                idle(403, body_, "4", 6, 20),
                                idle(401, body_, "10", 6, 20)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, ZeroByteTransfersPastTheEndSucceedQuietly) {
    qor_test::write_file(body_, "0123456789");
    QOR_contents_record *rec = open_body();
    MessageLog log;
    char buf[1];
    EXPECT_EQ(QOR_read_idle_block(rec, 1000, buf, 0), 0);
    EXPECT_EQ(QOR_write_idle_block(rec, 1000, buf, 0), 0);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(size_of(rec->fd), 10);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, ShortReadsGive403EachAndGoOn) {
    qor_test::write_file(body_, "0123456789abcdef");
    QOR_contents_record *rec = open_body(0x01);
    MessageLog log;
    qor_fault_short(QF_pread, 3, 0, 2);
    char buf[10] = {};
    EXPECT_EQ(QOR_read_idle_block(rec, 2, buf, 10), 0);
    EXPECT_EQ(std::string(buf, 10), "23456789ab");
    EXPECT_EQ(qor_fault_calls(QF_pread), 3);
    EXPECT_EQ(log.messages, (std::vector<Message>{
                                idle(403, body_, "2", 3, 10),
                                idle(403, body_, "5", 3, 7)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, ShortWritesGive404EachAndGoOn) {
    QOR_contents_record *rec = open_body();
    MessageLog log;
    qor_fault_short(QF_pwrite, 4, 0, 2);
    EXPECT_EQ(QOR_write_idle_block(rec, 10, "abcdefghij", 10), 0);
    EXPECT_EQ(log.messages, (std::vector<Message>{
                                idle(404, body_, "10", 4, 10),
                                idle(404, body_, "14", 4, 6)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_test::read_file(body_),
              std::string(10, '\0') + "abcdefghij");
}

TEST_F(IdleBlocks, WriteThatMovesNothingAtAllStillGives402) {
    QOR_contents_record *rec = open_body();
    MessageLog log;
    qor_fault_short(QF_pwrite, 0, 0, 1);
    EXPECT_EQ(QOR_write_idle_block(rec, 7, "abcdefgh", 8),
              QOR_E_IDLE_WRITE_INCOMPLETE);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{idle(402, body_, "7", 0, 8)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

// An output callback that records like MessageLog and, when a message of
// the given number comes, arms a fault: the way to make a call fail right
// after a partial transfer of the same block.
class ArmOnMessage {
  public:
    ArmOnMessage(int number, std::function<void()> arm)
        : number_(number), arm_(std::move(arm)) {
        QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE", output, this);
    }
    ~ArmOnMessage() {
        QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE", nullptr, nullptr);
    }
    std::vector<Message> messages;

  private:
    static void output(void *, void *client, void *call) {
        auto *self = static_cast<ArmOnMessage *>(client);
        auto *rec = static_cast<QOR_output_message_record *>(call);
        Message m;
        m.set = rec->set;
        m.number = rec->number;
        m.type = rec->type;
        for (int i = 0; rec->parameters && rec->parameters[i]; ++i) {
            m.parameters.emplace_back(rec->parameters[i]);
        }
        self->messages.push_back(m);
        if (m.number == self->number_ && !self->armed_) {
            self->armed_ = true;
            self->arm_();
        }
        rec->result = 0;
    }
    int number_;
    std::function<void()> arm_;
    bool armed_ = false;
};

TEST_F(IdleBlocks, FailureAfterAPartialReadGivesTheRecordingThen401) {
    qor_test::write_file(body_, "0123456789");
    QOR_contents_record *rec = open_body(0x01);
    MessageLog texts;  // the message texts of the recording
    ArmOnMessage log(403, [] { qor_fault_fail(QF_pread, EIO, 0, 1); });
    qor_fault_short(QF_pread, 4, 0, 1);
    char buf[10];
    EXPECT_EQ(QOR_read_idle_block(rec, 0, buf, 10), QOR_E_IO);
    EXPECT_EQ(log.messages, (std::vector<Message>{
                                idle(403, body_, "0", 4, 10),
                                recorded(2056, body_, QOR_CTX_READ, EIO),
                                idle(401, body_, "4", 4, 10)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, FailureAfterAPartialWriteGivesTheRecordingThen402) {
    QOR_contents_record *rec = open_body();
    MessageLog texts;
    ArmOnMessage log(404, [] { qor_fault_fail(QF_pwrite, EFBIG, 0, 1); });
    qor_fault_short(QF_pwrite, 5, 0, 1);
    EXPECT_EQ(QOR_write_idle_block(rec, 3, "abcdefghij", 10),
              QOR_E_RESOURCE);
    EXPECT_EQ(log.messages, (std::vector<Message>{
                                idle(404, body_, "3", 5, 10),
                                recorded(2058, body_, QOR_CTX_WRITE, EFBIG),
                                idle(402, body_, "8", 5, 10)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, WriteThatMovesNothingGives2402After404And402) {
    QOR_contents_record *rec = open_body();
    MessageLog texts;
    ArmOnMessage log(404, [] { qor_fault_short(QF_pwrite, 0, 0, 1); });
    qor_fault_short(QF_pwrite, 3, 0, 1);
    EXPECT_EQ(QOR_write_idle_block(rec, 0, "abcdefgh", 8),
              QOR_E_IDLE_WRITE_INCOMPLETE);
    EXPECT_EQ(log.messages, (std::vector<Message>{
                                idle(404, body_, "0", 3, 8),
                                idle(402, body_, "3", 3, 8)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, FailureBeforeAnyTransferGivesOnlyTheRecording) {
    QOR_contents_record *rec = open_body();
    MessageLog log;
    char buf[4];
    qor_fault_fail(QF_pread, EIO, 0, 1);
    EXPECT_EQ(QOR_read_idle_block(rec, 0, buf, 4), QOR_E_IO);
    qor_fault_fail(QF_pwrite, EIO, 0, 1);
    EXPECT_EQ(QOR_write_idle_block(rec, 0, "abcd", 4), QOR_E_IO);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{recorded(2056, body_, QOR_CTX_READ, EIO),
                                    recorded(2056, body_, QOR_CTX_WRITE, EIO)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, NegativeOffsetIsRecordedWithTheDirectionsContext) {
    QOR_contents_record *rec = open_body();
    MessageLog log;
    char buf[4];
    EXPECT_EQ(QOR_read_idle_block(rec, -1, buf, 4), QOR_E_INVALID);
    EXPECT_EQ(QOR_write_idle_block(rec, -8, "abcd", 4), QOR_E_INVALID);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{
                  recorded(2070, body_, QOR_CTX_READ, EINVAL),
                  recorded(2070, body_, QOR_CTX_WRITE, EINVAL)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, InterruptedTransfersAreMadeAgain101CallsInAll) {
    qor_test::write_file(body_, "0123456789");
    QOR_contents_record *rec = open_body();
    MessageLog log;
    char buf[4];
    qor_fault_fail(QF_pread, EINTR, 0, 100);
    EXPECT_EQ(QOR_read_idle_block(rec, 0, buf, 4), 0);
    EXPECT_EQ(qor_fault_calls(QF_pread), 101);
    qor_fault_fail(QF_pwrite, EINTR, 0, 100);
    EXPECT_EQ(QOR_write_idle_block(rec, 0, "abcd", 4), 0);
    EXPECT_EQ(qor_fault_calls(QF_pwrite), 101);
    EXPECT_TRUE(log.messages.empty());

    qor_fault_reset();
    qor_fault_fail(QF_pread, EINTR, 0, 101);
    EXPECT_EQ(QOR_read_idle_block(rec, 0, buf, 4), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_calls(QF_pread), 101);
    qor_fault_fail(QF_pwrite, EINTR, 0, 101);
    EXPECT_EQ(QOR_write_idle_block(rec, 0, "abcd", 4), QOR_E_INTERRUPTED);
    EXPECT_EQ(qor_fault_calls(QF_pwrite), 101);
    EXPECT_EQ(log.messages,
              (std::vector<Message>{
                  recorded(2063, body_, QOR_CTX_READ, EINTR),
                  recorded(2063, body_, QOR_CTX_WRITE, EINTR)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, APartialTransferStartsTheInterruptionCountAfresh) {
    qor_test::write_file(body_, "0123456789");
    QOR_contents_record *rec = open_body(0x01);
    MessageLog texts;
    // One byte, then 100 interruptions: with the call before them counted
    // too, that would be 101 calls in a row.
    ArmOnMessage log(403, [] { qor_fault_fail(QF_pread, EINTR, 0, 100); });
    qor_fault_short(QF_pread, 1, 0, 1);
    char buf[4];
    EXPECT_EQ(QOR_read_idle_block(rec, 0, buf, 4), 0);
    EXPECT_EQ(qor_fault_calls(QF_pread), 102);
    EXPECT_EQ(std::string(buf, 4), "0123");
    EXPECT_EQ(log.messages,
              (std::vector<Message>{idle(403, body_, "0", 1, 4)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, InterruptionsAfterAPartialTransferEndWith401) {
    qor_test::write_file(body_, "0123456789");
    QOR_contents_record *rec = open_body(0x01);
    MessageLog texts;
    ArmOnMessage log(403, [] { qor_fault_fail(QF_pread, EINTR, 0, 101); });
    qor_fault_short(QF_pread, 2, 0, 1);
    char buf[4];
    EXPECT_EQ(QOR_read_idle_block(rec, 6, buf, 4), QOR_E_INTERRUPTED);
    EXPECT_EQ(log.messages, (std::vector<Message>{
                                idle(403, body_, "6", 2, 4),
                                recorded(2063, body_, QOR_CTX_READ, EINTR),
                                idle(401, body_, "8", 2, 4)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, FullDiscAsksTheHandlerAndRetriesWhileItAnswers0) {
    QOR_contents_record *rec = open_body();
    MessageLog log;
    {
        qor_test::DiscFullHandler handler({0});
        qor_fault_fail(QF_pwrite, ENOSPC, 0, 2);
        EXPECT_EQ(QOR_write_idle_block(rec, 0, "abcd", 4), 0);
        ASSERT_EQ(handler.calls.size(), 2u);
        EXPECT_EQ(handler.calls[0].os_error, ENOSPC);
        EXPECT_EQ(handler.calls[0].context, QOR_CTX_WRITE);
        EXPECT_EQ(handler.calls[0].path, body_);
        EXPECT_EQ(qor_fault_calls(QF_pwrite), 3);
    }
    EXPECT_TRUE(log.messages.empty());
    {
        qor_test::DiscFullHandler handler({0, 1});
        qor_fault_reset();
        qor_fault_fail(QF_pwrite, ENOSPC, 0, -1);
        EXPECT_EQ(QOR_write_idle_block(rec, 0, "efgh", 4), QOR_E_RESOURCE);
        EXPECT_EQ(handler.calls.size(), 2u);
    }
    EXPECT_ONE_RECORDED(log, 2058, body_, QOR_CTX_WRITE, ENOSPC);
    EXPECT_EQ(QOR_close_contents(rec), 0);
    EXPECT_EQ(qor_test::read_file(body_), "abcd");
}

TEST_F(IdleBlocks, OffsetsBeyond32BitsAreWrittenAndReportedWhole) {
    QOR_contents_record *rec = open_body();
    MessageLog log;
    const int64_t far = 5000000000LL;
    ASSERT_EQ(QOR_write_idle_block(rec, far, "far", 3), 0);
    char buf[8];
    ASSERT_EQ(QOR_read_idle_block(rec, far, buf, 3), 0);
    EXPECT_EQ(std::string(buf, 3), "far");
    EXPECT_EQ(QOR_read_idle_block(rec, far + 1, buf, 8),
              QOR_E_IDLE_READ_INCOMPLETE);
    EXPECT_EQ(log.messages, (std::vector<Message>{
                                idle(403, body_, "5000000001", 2, 8),
                                idle(401, body_, "5000000003", 2, 8)}));
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

TEST_F(IdleBlocks, NegativeLengthIsAnAssertionFailure) {
    const std::string path = qor("i");
    auto r = qor_test::run_in_child([&] {
        QOR_contents_record *rec = nullptr;
        QOR_open_contents(path.c_str(), 4, 0x04, 0, &rec);
        char buf[1];
        QOR_read_idle_block(rec, 0, buf, -1);
        printf("returned\n");
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.out, "");
    const std::string prefix =
        "Error: QOR Message System unavailable - output_message\n"
        "Untranslated message: set=File qor_contents, Line ";
    const std::string suffix =
        ": idle block of negative length, number=-1, type=4\n";
    ASSERT_GT(r.err.size(), prefix.size() + suffix.size()) << r.err;
    EXPECT_EQ(r.err.substr(0, prefix.size()), prefix) << r.err;
    EXPECT_EQ(r.err.substr(r.err.size() - suffix.size()), suffix) << r.err;
}

TEST_F(IdleBlocks, NegativeLengthJumpsToAnArmedHandlerWithStatus1) {
    QOR_contents_record *rec = open_body();
    MessageLog log;
    const int jumped = qor_test::catch_fatal([&] {
        char buf[1] = {0};
        QOR_write_idle_block(rec, 0, buf, -5);
    });
    EXPECT_EQ(jumped, 1);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].type, QOR_MSG_FATAL);
    EXPECT_EQ(QOR_close_contents(rec), 0);
}

}  // namespace
}  // namespace objects_test
