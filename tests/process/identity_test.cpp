// The process's identity text, the host name read once, and the owner name
// with its fallbacks (getlogin, then getpwuid of the real user id retried
// while interrupted, then 2072 recorded). Host name and owner run in a
// child each: the host name is cached per process.

#include <errno.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "fault.h"
#include "harness.h"
#include "qor/qor.h"

namespace {

using qor_test::MessageLog;
using qor_test::run_in_child;

TEST(Identity, IsTheProcessIdInOneBufferEveryCallOverwrites) {
    const char *first = QOR_process_identity();
    EXPECT_EQ(std::string(first), std::to_string(getpid()));
    char seen[32];
    snprintf(seen, sizeof seen, "%s", first);
    const char *second = QOR_process_identity();
    EXPECT_EQ(first, second);
    // In a child the same buffer holds the child's own id.
    const auto child = run_in_child([&] {
        const char *mine = QOR_process_identity();
        printf("%s %s %s", mine == first ? "same" : "other", mine, first);
    });
    ASSERT_EQ(child.out.substr(0, 5), "same ");
    const std::string ids = child.out.substr(5);
    const size_t blank = ids.find(' ');
    ASSERT_NE(blank, std::string::npos);
    EXPECT_EQ(ids.substr(0, blank), ids.substr(blank + 1));
    EXPECT_NE(ids.substr(0, blank), std::string(seen));
    EXPECT_EQ(std::string(QOR_process_identity()), seen);
}

TEST(HostName, IsTheNodeNameReadOnce) {
    const auto child = run_in_child([] {
        struct utsname u;
        uname(&u);
        const long before = qor_fault_calls(QF_uname);
        const char *a = QOR_host_name();
        const char *b = QOR_host_name();
        printf("%s|%s|%d|%ld", a, u.nodename, a == b,
               qor_fault_calls(QF_uname) - before);
    });
    struct utsname u;
    ASSERT_EQ(uname(&u), 0);
    EXPECT_EQ(child.out, std::string(u.nodename) + "|" + u.nodename + "|1|1");
}

TEST(HostName, FailedReadIsNullAndTriedAgainNextTime) {
    const auto child = run_in_child([] {
        qor_fault_fail(QF_uname, EFAULT, 0, 1);
        const char *a = QOR_host_name();
        const char *b = QOR_host_name();
        const char *c = QOR_host_name();
        printf("%s|%s|%d|%ld", a != nullptr ? a : "<null>",
               b != nullptr ? "name" : "<null>", b == c,
               qor_fault_calls(QF_uname));
    });
    EXPECT_EQ(child.out, "<null>|name|1|2");
}

// What QOR_process_owner_name gave in a child: the name or "<null>", how
// often getlogin and getpwuid were called, and each message as
// "number type param|param|...".
std::string owner_in_child(void (*arm)(), bool unprivileged = false) {
    auto body = [arm] {
        qor_fault_reset();  // counters from zero in the child
        MessageLog log;
        arm();
        const char *name = QOR_process_owner_name();
        printf("%s %ld %ld", name != nullptr ? name : "<null>",
               qor_fault_calls(QF_getlogin), qor_fault_calls(QF_getpwuid));
        for (const auto &m : log.messages) {
            printf("\n%d %d", m.number, m.type);
            for (const auto &p : m.parameters) printf(" %s|", p.c_str());
        }
    };
    const auto child = unprivileged ? qor_test::run_as_unprivileged(body)
                                    : run_in_child(body);
    return child.out;
}

std::string user_name() {
    const struct passwd *pw = getpwuid(getuid());
    return pw != nullptr ? pw->pw_name : "<none>";
}

static char planned_login[] = "planned-login";

TEST(OwnerName, IsTheLoginNameWhenThereIsOne) {
    EXPECT_EQ(owner_in_child([] {
                  qor_fault_result(QF_getlogin,
                                   reinterpret_cast<long>(planned_login), 0,
                                   1);
              }),
              "planned-login 1 0");
}

TEST(OwnerName, GetloginFailingFallsBackToTheUserName) {
    EXPECT_EQ(owner_in_child([] { qor_fault_fail(QF_getlogin, ENXIO, 0, 1); }),
              user_name() + " 1 1");
}

TEST(OwnerName, EmptyLoginNameFallsBackToTheUserName) {
    static char empty[] = "";
    EXPECT_EQ(owner_in_child([] {
                  qor_fault_result(QF_getlogin, reinterpret_cast<long>(empty),
                                   0, 1);
              }),
              user_name() + " 1 1");
}

TEST(OwnerName, InterruptedUserLookupIsRetried) {
    EXPECT_EQ(owner_in_child([] {
                  qor_fault_fail(QF_getlogin, ENXIO, 0, 1);
                  qor_fault_fail(QF_getpwuid, EINTR, 0, 3);
              }),
              user_name() + " 1 4");
}

// Neither name: the user id in decimal is recorded with 2072 (context
// 2129) and null returned.
TEST(OwnerName, UnknownUserRecords2072WithTheUserId) {
    const std::string context = MessageLog::text_of(129);
    EXPECT_EQ(owner_in_child([] {
                  qor_fault_fail(QF_getlogin, ENOTTY, 0, 1);
                  qor_fault_fail(QF_getpwuid, 0, 0, 1);
              }),
              "<null> 1 1\n72 71 " + std::to_string(getuid()) + "| " +
                  context + "| |");
    EXPECT_EQ(owner_in_child(
                  [] {
                      qor_fault_fail(QF_getlogin, ENOTTY, 0, 1);
                      qor_fault_fail(QF_getpwuid, ENOENT, 0, 1);
                  },
                  true),
              "<null> 1 1\n72 71 " +
                  std::to_string(qor_test::unprivileged_uid()) + "| " +
                  context + "| |");
}

TEST(OwnerName, UserLookupInterrupted101TimesGivesUp) {
    EXPECT_EQ(owner_in_child([] {
                  qor_fault_fail(QF_getlogin, ENXIO, 0, 1);
                  qor_fault_fail(QF_getpwuid, EINTR, 0, -1);
              }),
              "<null> 1 101\n72 71 " + std::to_string(getuid()) + "| " +
                  MessageLog::text_of(129) + "| |");
}

}  // namespace
