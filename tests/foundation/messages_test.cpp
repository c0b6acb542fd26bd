// Callback registry, message output, disc-full handler, fatal errors.

#include <errno.h>
#include <gtest/gtest.h>
#include <setjmp.h>
#include <string.h>

#include "harness.h"

using qor_test::msg;

// The suite's message library entry: defined here to observe the call.
// libqor reaches it through a weak reference.
static int display_outlet_calls = 0;
static int display_outlet_argument = -1;
extern "C" void MI_set_display_outlet(int outlet) {
    ++display_outlet_calls;
    display_outlet_argument = outlet;
}

namespace {

void noop_cb(void *, void *, void *) {}

using qor_test::catch_fatal;

// ---- Registry -----------------------------------------------------------

TEST(Callbacks, NamesAreTheThreeSlotNamesInOrder) {
    EXPECT_STREQ(QOR_callback_names[0], "QOR_OUTPUT_MESSAGE");
    EXPECT_STREQ(QOR_callback_names[1], "QOR_GIVE_MESSAGE_TEXT");
    EXPECT_STREQ(QOR_callback_names[2], "QOR_DISC_FULL_HANDLER");
}

TEST(Callbacks, RegistryStartsEmpty) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(QOR_registered_callbacks[i].procedure, nullptr);
        EXPECT_EQ(QOR_registered_callbacks[i].client_data, nullptr);
    }
}

TEST(Callbacks, DiscFullHandlerNameFillsSlotTwo) {
    int data;
    EXPECT_EQ(QOR_set_callback(nullptr, "QOR_DISC_FULL_HANDLER", noop_cb, &data), 0);
    EXPECT_EQ(QOR_registered_callbacks[2].procedure, &noop_cb);
    EXPECT_EQ(QOR_registered_callbacks[2].client_data, &data);
    EXPECT_EQ(QOR_registered_callbacks[0].procedure, nullptr);
    EXPECT_EQ(QOR_registered_callbacks[1].procedure, nullptr);
}

TEST(Callbacks, SlotZeroNameInLowerCaseIsUnknown) {
    EXPECT_EQ(QOR_set_callback(nullptr, "qor_output_message", noop_cb, nullptr), 2070);
    EXPECT_EQ(QOR_registered_callbacks[0].procedure, nullptr);
}

TEST(Callbacks, UnknownAndNullNamesChangeNothing) {
    EXPECT_EQ(QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE ", noop_cb, nullptr), 2070);
    EXPECT_EQ(QOR_set_callback(nullptr, "", noop_cb, nullptr), 2070);
    EXPECT_EQ(QOR_set_callback(nullptr, nullptr, noop_cb, nullptr), 2070);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(QOR_registered_callbacks[i].procedure, nullptr);
}

TEST(Callbacks, RegisteringReplacesAndNullUnregisters) {
    int a, b;
    QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", noop_cb, &a);
    EXPECT_EQ(QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", noop_cb, &b), 0);
    EXPECT_EQ(QOR_registered_callbacks[1].client_data, &b);
    EXPECT_EQ(QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", nullptr, nullptr), 0);
    EXPECT_EQ(QOR_registered_callbacks[1].procedure, nullptr);
}

// ---- Output ---------------------------------------------------------------

TEST(OutputMessage, WithoutCallbacksPrintsUntranslatedAndReturns10009) {
    char a[] = "a", b[] = "b";
    char *params[] = {a, b, nullptr};
    qor_test::StderrCapture cap;
    EXPECT_EQ(QOR_output_message("qor", 5, 71, params), 10009);
    EXPECT_EQ(cap.take(),
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=5, type=71, $0=a, $1=b\n");
}

TEST(OutputMessage, NullParameterListPrintsNoParameters) {
    qor_test::StderrCapture cap;
    EXPECT_EQ(QOR_output_message("qor", 2501, 7, nullptr), 10009);
    EXPECT_EQ(cap.take(),
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=2501, type=7\n");
}

TEST(OutputMessage, FallbackPrintsOnlyTheFirstSevenOfEightParameters) {
    char p[8][4] = {"p0", "p1", "p2", "p3", "p4", "p5", "p6", "p7"};
    char *params[9];
    for (int i = 0; i < 8; ++i) params[i] = p[i];
    params[8] = nullptr;
    qor_test::StderrCapture cap;
    QOR_output_message("qor", 70, 71, params);
    EXPECT_EQ(cap.take(),
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=70, type=71, $0=p0, $1=p1, "
              "$2=p2, $3=p3, $4=p4, $5=p5, $6=p6\n");
}

TEST(OutputMessage, CallbackResultIsReturned) {
    qor_test::MessageLog log(3);
    char a[] = "a";
    char *params[] = {a, nullptr};
    qor_test::StderrCapture cap;
    EXPECT_EQ(QOR_output_message("qor", 52, 71, params), 3);
    EXPECT_EQ(cap.take(), "");
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0], msg("qor", 52, 71, {"a"}));
}

TEST(OutputMessage, CallbackAnsweringMinusOneLeadsToTheFallback) {
    qor_test::MessageLog log(-1);
    char a[] = "a";
    char *params[] = {a, nullptr};
    qor_test::StderrCapture cap;
    EXPECT_EQ(QOR_output_message("qor", 52, 71, params), 10009);
    EXPECT_EQ(cap.take(),
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=52, type=71, $0=a\n");
    EXPECT_EQ(log.messages.size(), 1u);
}

TEST(OutputMessage, RecordCarriesReasonAndZeroResultAndClientData) {
    struct Seen {
        std::string reason;
        int result = 99;
        void *client = nullptr;
        void *widget = reinterpret_cast<void *>(1);
    } seen;
    QOR_set_callback(
        nullptr, "QOR_OUTPUT_MESSAGE",
        [](void *w, void *client, void *call) {
            auto *s = static_cast<Seen *>(client);
            auto *rec = static_cast<QOR_output_message_record *>(call);
            s->reason = rec->reason;
            s->result = rec->result;
            s->client = client;
            s->widget = w;
        },
        &seen);
    EXPECT_EQ(QOR_output_message("set", 1, 7, nullptr), 0);
    EXPECT_EQ(seen.reason, "QOR_OUTPUT_MESSAGE");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.client, &seen);
    EXPECT_EQ(seen.widget, nullptr);
}

TEST(GiveMessageText, WithoutCallbackPrintsLineAndLeavesTheBuffer) {
    char buf[16] = "keep";
    qor_test::StderrCapture cap;
    EXPECT_EQ(QOR_give_message_text("qor", 3, nullptr, buf, sizeof buf), 10009);
    EXPECT_EQ(cap.take(),
              "Error: QOR Message System unavailable - give_message_text\n");
    EXPECT_STREQ(buf, "keep");
}

TEST(GiveMessageText, CallbackFillsTheBufferWithItsParameters) {
    qor_test::MessageLog log;
    char buf[64] = "";
    char n[] = "2";
    char *params[] = {n, nullptr};
    EXPECT_EQ(QOR_give_message_text("qor", 3, params, buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), qor_test::MessageLog::text_of(3) + " $0=2");
}

TEST(GiveMessageText, CallbackAnsweringMinusOneLeadsToTheFallback) {
    QOR_set_callback(
        nullptr, "QOR_GIVE_MESSAGE_TEXT",
        [](void *, void *, void *call) {
            auto *rec = static_cast<QOR_give_message_text_record *>(call);
            EXPECT_STREQ(rec->reason, "QOR_GIVE_MESSAGE_TEXT");
            EXPECT_EQ(rec->buffer_size, 32);
            rec->result = -1;
        },
        nullptr);
    char buf[32] = "";
    qor_test::StderrCapture cap;
    EXPECT_EQ(QOR_give_message_text("qor", 3, nullptr, buf, 32), 10009);
    EXPECT_EQ(cap.take(),
              "Error: QOR Message System unavailable - give_message_text\n");
}

// ---- Disc full --------------------------------------------------------------

TEST(DiscFull, WithoutHandlerAnswersMinusOne) {
    EXPECT_EQ(QOR_call_disc_full_handler(ENOSPC, "/p", 2101), -1);
}

TEST(DiscFull, RecordNamesGiveMessageTextAsItsReason) {
    qor_test::DiscFullHandler h({7});
    EXPECT_EQ(QOR_call_disc_full_handler(ENOSPC, "/full/x", 2102), 7);
    ASSERT_EQ(h.calls.size(), 1u);
    EXPECT_EQ(h.calls[0].reason, "QOR_GIVE_MESSAGE_TEXT");
    EXPECT_EQ(h.calls[0].os_error, ENOSPC);
    EXPECT_EQ(h.calls[0].context, 2102);
    EXPECT_EQ(h.calls[0].path, "/full/x");
}

TEST(DiscFull, HandlerAnsweringZeroMeansRetry) {
    qor_test::DiscFullHandler h({0});
    EXPECT_EQ(QOR_call_disc_full_handler(ENOSPC, "/p", 2125), 0);
}

// ---- Location ---------------------------------------------------------------

TEST(LogLocation, OutputsMessageTwoTypeSevenWithLineAndFile) {
    qor_test::MessageLog log;
    QOR_log_location(123, "unit.c");
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0], msg("qor", 2, 7, {"123", "unit.c"}));
}

// ---- Fatal errors -------------------------------------------------------------

TEST(FatalError, CallsTheDisplayOutletWithTwo) {
    qor_test::MessageLog log;
    display_outlet_calls = 0;
    EXPECT_EQ(catch_fatal([] { QOR_fatal_error("qor", 11, nullptr, 2011); }), 2011);
    EXPECT_EQ(display_outlet_calls, 1);
    EXPECT_EQ(display_outlet_argument, 2);
}

TEST(FatalError, FirstGoesThroughTheMessageSystemWithTypeFour) {
    qor_test::MessageLog log;
    char p[] = "param";
    char *params[] = {p, nullptr};
    EXPECT_EQ(catch_fatal([&] { QOR_fatal_error("qor", 1, params, 2001); }), 2001);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0], msg("qor", 1, 4, {"param"}));
}

TEST(FatalError, SecondNoLongerCallsTheOutputCallback) {
    qor_test::MessageLog log;
    char p[] = "x";
    char *params[] = {p, nullptr};
    EXPECT_EQ(catch_fatal([] { QOR_fatal_error("qor", 11, nullptr, 2011); }), 2011);
    qor_test::StderrCapture cap;
    EXPECT_EQ(catch_fatal([&] { QOR_fatal_error("qor", 1, params, 2001); }), 2001);
    EXPECT_EQ(catch_fatal([] { QOR_fatal_error("plain text", -1, nullptr, 1); }), 1);
    EXPECT_EQ(cap.take(),
              "QOR_fatal_error - Untranslated message: set=qor, number=1, type=4, $0=x\n"
              "plain text\n");
    EXPECT_EQ(log.messages.size(), 1u);
}

TEST(FatalError, WithoutHandlerEndsWithThree) {
    auto r = qor_test::run_in_child([] { QOR_fatal_error("qor", 11, nullptr, 2011); });
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err,
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=11, type=4\n");
}

TEST(FatalError, SecondWhileHandlerActiveReportsAndEndsWithThree) {
    auto r = qor_test::run_in_child([] {
        if (setjmp(QOR_fatal_handler) == 0) {
            QOR_exception_handler_state = 1;
            QOR_fatal_error("qor", 11, nullptr, 2011);
        }
        // In the handler, not re-armed: state 2.
        QOR_fatal_error("qor", 1, nullptr, 2001);
    });
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err,
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=11, type=4\n"
              "QOR_fatal_error - Untranslated message: set=qor, number=1, type=4\n"
              "QOR_raise_exception:\tEXCEPTION HANDLER ALREADY ACTIVE\tstatus=2001\n");
}

TEST(Fatal, AssertionTextGoesThroughTheMessageSystemAndRaisesOne) {
    qor_test::MessageLog log;
    EXPECT_EQ(catch_fatal([] { QOR_fatal("boom", "unit", 12); }), 1);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].set, "File unit, Line 12: boom");
    EXPECT_EQ(log.messages[0].number, -1);
    EXPECT_EQ(log.messages[0].type, 4);
    EXPECT_TRUE(log.messages[0].null_parameters);
}

TEST(Fatal, WithoutMessageSystemPrintsAndExitsThree) {
    auto r = qor_test::run_in_child([] { QOR_fatal("boom", "unit", 12); });
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err,
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=File unit, Line 12: boom, number=-1, type=4\n");
}

TEST(Fatal, SecondAssertionPrintsTheBareText) {
    qor_test::MessageLog log;
    catch_fatal([] { QOR_fatal("first", "unit", 1); });
    qor_test::StderrCapture cap;
    EXPECT_EQ(catch_fatal([] { QOR_fatal("boom", "unit", 12); }), 1);
    EXPECT_EQ(cap.take(), "File unit, Line 12: boom\n");
}

TEST(FatalErrorMsg, LooksUpParameterTextsAndLeavesTheOutletAlone) {
    qor_test::MessageLog log;
    display_outlet_calls = 0;
    int numbers[] = {201};
    EXPECT_EQ(catch_fatal([&] { QOR_fatal_error_msg("qor", 1, 1, numbers, 2001); }), 2001);
    EXPECT_EQ(display_outlet_calls, 0);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0],
              msg("qor", 1, 4, {qor_test::MessageLog::text_of(201)}));
}

TEST(FatalErrorMsg, AtMostSevenParameters) {
    qor_test::MessageLog log;
    int numbers[] = {101, 102, 103, 104, 105, 106, 107, 108, 109};
    catch_fatal([&] { QOR_fatal_error_msg("qor", 1, 9, numbers, 2001); });
    ASSERT_EQ(log.messages.size(), 1u);
    ASSERT_EQ(log.messages[0].parameters.size(), 7u);
    EXPECT_EQ(log.messages[0].parameters[6], qor_test::MessageLog::text_of(107));
}

TEST(FatalErrorMsg, NoParametersGivesANullList) {
    qor_test::MessageLog log;
    int numbers[] = {201};
    catch_fatal([&] { QOR_fatal_error_msg("qor", 1, 0, numbers, 2001); });
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_TRUE(log.messages[0].null_parameters);
}

TEST(FatalErrorMsg, NullArrayGivesANullList) {
    qor_test::MessageLog log;
    catch_fatal([] { QOR_fatal_error_msg("qor", 1, 3, nullptr, 2001); });
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_TRUE(log.messages[0].null_parameters);
}

TEST(FatalErrorMsg, SecondPrintsTheNumbersUntranslated) {
    qor_test::MessageLog log;
    int numbers[] = {201, 202};
    catch_fatal([&] { QOR_fatal_error_msg("qor", 1, 1, numbers, 2001); });
    qor_test::StderrCapture cap;
    EXPECT_EQ(catch_fatal([&] { QOR_fatal_error_msg("qor", 1, 2, numbers, 2001); }), 2001);
    EXPECT_EQ(cap.take(),
              "QOR_fatal_error_msg - Untranslated message: set=qor, number=1, "
              "type=4, $0=201, $1=202\n");
}

TEST(FatalErrorMsg, WithoutMessageSystemExitsThree) {
    auto r = qor_test::run_in_child([] {
        int numbers[] = {202};
        QOR_fatal_error_msg("qor", 1, 1, numbers, 2001);
    });
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_EQ(r.err,
              "Error: QOR Message System unavailable - give_message_text\n"
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=1, type=4, $0=\n");
}

TEST(FatalErrorMsg, FatalErrorAfterItIsUntranslatedToo) {
    // Both operations share the one message-system-usable flag.
    qor_test::MessageLog log;
    int numbers[] = {201};
    catch_fatal([&] { QOR_fatal_error_msg("qor", 1, 1, numbers, 2001); });
    qor_test::StderrCapture cap;
    catch_fatal([] { QOR_fatal_error("qor", 11, nullptr, 2011); });
    EXPECT_EQ(cap.take(),
              "QOR_fatal_error - Untranslated message: set=qor, number=11, type=4\n");
}

}  // namespace
