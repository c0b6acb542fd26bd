// The locator fuzz target's corpus replayed with its check: each seed is
// one locate whose trace and result must be the model's (see
// tests/fuzz/locate_check.h). The check drops the table of type defaults
// before each seed, which only the static library allows.

#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "harness.h"
#include "tests/fuzz/locate_check.h"
#include "tests/fuzz/path_invariants.h"

namespace {

TEST(LocateFuzzCorpus, EverySeedAgreesWithTheModel) {
    path_check::set_fuzz_environment();
    unsetenv("QOR_LOCATE_TRACE_LEVEL");
    const std::string dir =
        std::string(QOR_SOURCE_DIR) + "/tests/fuzz/corpus_locate";
    std::vector<std::string> names;
    DIR *d = opendir(dir.c_str());
    ASSERT_NE(d, nullptr) << dir;
    while (struct dirent *e = readdir(d)) {
        if (e->d_name[0] != '.') names.push_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    EXPECT_GE(names.size(), 30u);
    for (const std::string &n : names) {
        std::ifstream f(dir + "/" + n, std::ios::binary);
        std::stringstream ss;
        ss << f.rdbuf();
        const std::string data = ss.str();
        for (const auto &p : locate_check::check_input(
                 reinterpret_cast<const uint8_t *>(data.data()),
                 data.size())) {
            ADD_FAILURE() << n << ": " << p;
        }
    }
}

// The check is only as good as what it rejects: a probe that fails during
// the locate but exists when the model asks is a difference.
TEST(LocateFuzzCorpus, CheckCatchesADifference) {
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
