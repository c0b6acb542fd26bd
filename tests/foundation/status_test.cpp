// Status codes, error recording and raising.

#include <errno.h>
#include <gtest/gtest.h>
#include <setjmp.h>
#include <string.h>

#include "harness.h"

using qor_test::msg;

namespace {

struct ErrnoRow {
    int os_error;
    int status;
};

// Every value the mapping lists, and a spread of the values it does not.
const ErrnoRow kErrnoTable[] = {
    {1, 2055},  {13, 2055}, {30, 2055},                            // EPERM...
    {2, 2052},  {6, 2052},  {19, 2052},                            // ENOENT...
    {3, 2057},  {15, 2057}, {18, 2057}, {20, 2057}, {21, 2057},
    {25, 2057}, {38, 2057},                                        // ESRCH...
    {4, 2063},                                                     // EINTR
    {5, 2056},  {8, 2056},  {10, 2056}, {16, 2056}, {26, 2056},
    {29, 2056}, {32, 2056}, {43, 2056},                            // EIO...
    {7, 2058},  {11, 2058}, {12, 2058}, {23, 2058}, {24, 2058},
    {27, 2058}, {28, 2058}, {31, 2058}, {36, 2058}, {37, 2058},    // E2BIG...
    {9, 2059},                                                     // EBADF
    {14, 2070}, {22, 2070}, {33, 2070}, {34, 2070}, {42, 2070},    // EFAULT...
    {17, 2053},                                                    // EEXIST
    {35, 2064},                                                    // EDEADLK
    {39, 2065},                                                    // ENOTEMPTY
    // anything else
    {0, 2073},  {40, 2073}, {41, 2073}, {44, 2073}, {61, 2073},
    {95, 2073}, {122, 2073}, {133, 2073}, {1000, 2073}, {-1, 2073},
};

void PrintTo(const ErrnoRow &r, std::ostream *os) { *os << r.os_error << " -> " << r.status; }

class ErrnoMapping : public testing::TestWithParam<ErrnoRow> {};

TEST_P(ErrnoMapping, RecordOsErrorReturnsTheMappedStatus) {
    qor_test::MessageLog log;
    const ErrnoRow row = GetParam();
    EXPECT_EQ(QOR_record_os_error(row.os_error, "/p", 2116), row.status);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].number, row.status - 2000);
    EXPECT_EQ(log.messages[0].type, 71);
}

INSTANTIATE_TEST_SUITE_P(EveryRow, ErrnoMapping, testing::ValuesIn(kErrnoTable),
                         [](const testing::TestParamInfo<ErrnoRow> &info) {
                             std::string n = info.param.os_error < 0
                                                 ? "minus" + std::to_string(-info.param.os_error)
                                                 : std::to_string(info.param.os_error);
                             return "errno_" + n;
                         });

TEST(RecordOsError, ZeroFortyAndFortyFourMapToOtherError) {
    qor_test::MessageLog log;
    EXPECT_EQ(QOR_record_os_error(0, "x", 2101), 2073);
    EXPECT_EQ(QOR_record_os_error(40, "x", 2101), 2073);
    EXPECT_EQ(QOR_record_os_error(44, "x", 2101), 2073);
    EXPECT_EQ(QOR_record_os_error(43, "x", 2101), 2056);
    EXPECT_EQ(QOR_record_os_error(39, "x", 2101), 2065);
}

TEST(RecordOsError, ReturnsTheMappedCodeNotItsFirstArgument) {
    qor_test::MessageLog log;
    EXPECT_EQ(QOR_record_os_error(ENOENT, "x", 2116), 2052);
}

TEST(RecordOsError, BuildsItsFourParameters) {
    qor_test::MessageLog log;
    EXPECT_EQ(QOR_record_os_error(ENOENT, "/data/x", 2116), 2052);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0],
              msg("qor", 52, 71,
                  {"/data/x", qor_test::MessageLog::text_of(116),
                   strerror(ENOENT), qor_test::MessageLog::text_of(3) + " $0=2"}));
}

TEST(RecordOsError, StrerrorReportingAnErrorLeavesAnEmptyOsText) {
    qor_test::MessageLog log;
    qor_fault_fail(QF_strerror, EINVAL, 0, 1);
    EXPECT_EQ(QOR_record_os_error(EIO, "/f", 2124), 2056);
    EXPECT_EQ(qor_fault_injected(QF_strerror), 1);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0],
              msg("qor", 56, 71,
                  {"/f", qor_test::MessageLog::text_of(124), "",
                   qor_test::MessageLog::text_of(3) + " $0=5"}));
}

TEST(RecordOsError, DiscFullRecordsReasonAndNumber) {
    qor_test::MessageLog log;
    EXPECT_EQ(QOR_record_os_error(ENOSPC, "/full", 2101), 2058);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0],
              msg("qor", 58, 71,
                  {"/full", qor_test::MessageLog::text_of(101),
                   "No space left on device",
                   qor_test::MessageLog::text_of(3) + " $0=28"}));
}

TEST(RecordOsError, WithoutMessageSystemPrintsTheFallbackLines) {
    qor_test::StderrCapture cap;
    EXPECT_EQ(QOR_record_os_error(ENOENT, "/x", 2116), 2052);
    EXPECT_EQ(cap.take(),
              "Error: QOR Message System unavailable - give_message_text\n"
              "Error: QOR Message System unavailable - give_message_text\n"
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=52, type=71, $0=/x, $1=, "
              "$2=No such file or directory, $3=\n");
}

TEST(RecordOsError, NullNameEndsTheParameterListAtOnce) {
    qor_test::StderrCapture cap;
    EXPECT_EQ(QOR_record_os_error(ENOENT, nullptr, 2116), 2052);
    EXPECT_EQ(cap.take(),
              "Error: QOR Message System unavailable - give_message_text\n"
              "Error: QOR Message System unavailable - give_message_text\n"
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=52, type=71\n");
}

TEST(RecordQorError, ReturnsItsFirstArgumentUnchanged) {
    qor_test::MessageLog log;
    EXPECT_EQ(QOR_record_qor_error(2065, "/dir", 2104), 2065);
    EXPECT_EQ(QOR_record_qor_error(12345, "/dir", 2104), 12345);
}

TEST(RecordQorError, BuildsNameContextTextAndEmptyThird) {
    qor_test::MessageLog log;
    QOR_record_qor_error(2065, "/dir", 2104);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0],
              msg("qor", 65, 71,
                  {"/dir", qor_test::MessageLog::text_of(104), ""}));
}

TEST(RecordQorError, NullNamePrintsNoParameters) {
    qor_test::StderrCapture cap;
    EXPECT_EQ(QOR_record_qor_error(2070, nullptr, 2110), 2070);
    EXPECT_EQ(cap.take(),
              "Error: QOR Message System unavailable - give_message_text\n"
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=70, type=71\n");
}

TEST(RecordQorError, ContextTextComesFromAClearedBuffer) {
    // A give-text callback that answers without writing leaves the context
    // text empty: the buffer was cleared before the call.
    qor_test::MessageLog log;
    QOR_set_callback(
        nullptr, "QOR_GIVE_MESSAGE_TEXT",
        [](void *, void *, void *call) {
            static_cast<QOR_give_message_text_record *>(call)->result = 0;
        },
        nullptr);
    QOR_record_qor_error(2052, "n", 2101);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0], msg("qor", 52, 71, {"n", "", ""}));
}

// ---- Raising ------------------------------------------------------------

TEST(RaiseException, StateZeroEndsTheProcessWithStatusThree) {
    auto r = qor_test::run_in_child([] {
        QOR_exception_handler_state = 0;
        QOR_raise_exception(2011);
        _exit(99);
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err, "");
}

TEST(RaiseException, StateTwoPrintsHandlerActiveAndEndsWithThree) {
    auto r = qor_test::run_in_child([] {
        QOR_exception_handler_state = 2;
        QOR_raise_exception(2011);
        _exit(99);
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err,
              "QOR_raise_exception:\tEXCEPTION HANDLER ALREADY ACTIVE\tstatus=2011\n");
}

TEST(RaiseException, StateOneJumpsWithTheStatusAndLeavesStateTwo) {
    volatile int reached = 0;
    int value = setjmp(QOR_fatal_handler);
    if (value == 0) {
        QOR_exception_handler_state = 1;
        QOR_raise_exception(5);
        reached = 1;
    }
    EXPECT_EQ(reached, 0);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(QOR_exception_handler_state, 2u);
    QOR_exception_handler_state = 0;
}

TEST(RaiseException, OtherStatesMakeRaisingReturn) {
    for (uint32_t state : {3u, 7u, 0xFFFFFFFFu}) {
        QOR_exception_handler_state = state;
        QOR_raise_exception(1);
        EXPECT_EQ(QOR_exception_handler_state, state);
    }
    QOR_exception_handler_state = 0;
}

TEST(RaiseException, InitialStateIsZero) {
    EXPECT_EQ(QOR_exception_handler_state, 0u);
}

}  // namespace
