// Object locks by the thousand: the table is found by path however many
// locks the process holds, and every lock comes and goes as one alone would.

#include <sys/resource.h>

#include <algorithm>
#include <random>

#include "contents_fixture.h"

namespace objects_test {
namespace {

class ManyObjectLocks : public Store {};

// As many locks as the descriptor limit allows, up to 10^5: each held lock
// keeps its ".lock" open. A process that may raise its hard limit does
// (root with the resource capability); any other raises its soft limit as
// far as the hard one goes. The number held is recorded in the test's
// output, so a run that held fewer says so.
TEST_F(ManyObjectLocks, TableOfManyLocksFindsEveryOne) {
    constexpr rlim_t kWant = 100000 + 256;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlim_t saved = limit.rlim_cur;
    const rlimit raised{kWant, std::max<rlim_t>(limit.rlim_max, kWant)};
    if (limit.rlim_cur < kWant && setrlimit(RLIMIT_NOFILE, &raised) == 0) {
        limit = raised;
    } else {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, kWant);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    const int n = static_cast<int>(std::min<rlim_t>(100000, limit.rlim_cur - 256));
    ASSERT_GE(n, 1000);
    RecordProperty("locks_held", n);

    std::vector<std::string> paths;
    for (int i = 0; i < n; ++i) {
        const std::string name = "o" + std::to_string(i);
        make_object(os(name), 2);
        paths.push_back(qor(name));
    }
    // Every other one shared, the rest exclusive.
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(QOR_lock_object(paths[static_cast<size_t>(i)].c_str(), 2,
                                  i % 2 == 0 ? QOR_LOCK_SHARED
                                             : QOR_LOCK_EXCLUSIVE),
                  0)
            << i;
    }
    for (int i = 0; i < n; i += 37) {
        unsigned mode = 99;
        ASSERT_EQ(QOR_object_lock_mode(paths[static_cast<size_t>(i)].c_str(), 2,
                                       &mode),
                  0);
        EXPECT_EQ(mode, i % 2 == 0 ? 1u : 3u) << i;
    }
    // Converting one in place leaves a single entry for it.
    ASSERT_EQ(QOR_lock_object(paths[0].c_str(), 2, QOR_LOCK_EXCLUSIVE), 0);
    unsigned mode = 0;
    QOR_object_lock_mode(paths[0].c_str(), 2, &mode);
    EXPECT_EQ(mode, 3u);

    // Unlocked in a shuffled order: each one found, then gone.
    std::vector<size_t> order(static_cast<size_t>(n));
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(5));
    for (size_t k = 0; k < order.size(); ++k) {
        const char *p = paths[order[k]].c_str();
        ASSERT_EQ(QOR_unlock_object(p, 2), 0) << order[k];
        if (k % 101 == 0) {
            ASSERT_EQ(QOR_unlock_object(p, 2), QOR_E_NOT_LOCKED);
            QOR_object_lock_mode(p, 2, &mode);
            ASSERT_EQ(mode, 0u);
        }
    }
    QOR_object_lock_mode(paths[order.back()].c_str(), 2, &mode);
    EXPECT_EQ(mode, 0u);
    limit.rlim_cur = saved;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
}  // namespace objects_test
