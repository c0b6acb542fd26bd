// The check behind the locator's fuzz target (tests/fuzz/locate_check.h),
// whose corpus the suite replays as FuzzReplay.locate: shown here to reject
// a locate that differs from the model. The check drops the table of type
// defaults before each input, which only the static library allows.

#include <errno.h>
#include <gtest/gtest.h>

#include "harness.h"
#include "tests/fuzz/locate_check.h"
#include "tests/fuzz/path_invariants.h"

namespace {

// The check is only as good as what it rejects: a probe that fails during
// the locate but exists when the model asks is a difference.
TEST(LocateCheck, CatchesADifference) {
    path_check::set_fuzz_environment();
    unsetenv("QOR_LOCATE_TRACE_LEVEL");
    const std::string data =
        std::string(1, 4 | 2) + "/etc" + '\0' + '\0' + "hosts" + '\0';
    const auto *bytes = reinterpret_cast<const uint8_t *>(data.data());
    EXPECT_TRUE(locate_check::check_input(bytes, data.size()).empty());
    qor_fault_fail(QF_stat, EACCES, 0, 1);
    qor_fault_filter_path(QF_stat, "/etc/hosts");
    const auto problems = locate_check::check_input(bytes, data.size());
    EXPECT_EQ(qor_fault_injected(QF_stat), 1);
    ASSERT_EQ(problems.size(), 3u);
    EXPECT_EQ(problems[1],
              "trace differs from the model's:\n--- expected\n"
              "hosts -- failed\n/etc/hosts -- succeeded\n--- got\n"
              "hosts -- failed\n/etc/hosts -- failed\n");
    EXPECT_EQ(problems[2],
              "result \"<null>\", the model's \"/etc/hosts\"");
}

}  // namespace
