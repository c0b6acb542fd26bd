// The host calls each operation makes, counted through the interposed libc
// functions: exactly what its algorithm needs and nothing more. (getuid and
// sysconf are not interposed; the accessibility counts note where the real
// user id is read.)

#include <map>

#include "objects_fixture.h"

namespace objects_test {
namespace {

using Calls = Store;

// The interposed calls made since the last reset, allocation left out.
std::map<std::string, long> host_calls() {
    static const char *const names[] = {
#define QOR_CALL_NAME(name) #name,
        QOR_FAULT_FUNCTIONS(QOR_CALL_NAME)
#undef QOR_CALL_NAME
    };
    std::map<std::string, long> calls;
    for (int fn = 0; fn < QF_COUNT; ++fn) {
        const std::string name = names[fn];
        if (name == "malloc" || name == "calloc" || name == "realloc") continue;
        if (const long n = qor_fault_calls(static_cast<qor_fault_fn>(fn))) {
            calls[name] = n;
        }
    }
    return calls;
}

using Counts = std::map<std::string, long>;

TEST_F(Calls, TypeDetection) {
    for (unsigned t = 0; t <= 4; ++t) make_object(os("o" + std::to_string(t)), t);
    const Counts expected[] = {
        {{"stat", 1}},
        {{"stat", 1}, {"access", 1}},
        {{"stat", 1}, {"access", 2}},
        {{"stat", 1}, {"access", 3}},
        {{"stat", 1}, {"access", 3}},
    };
    for (unsigned t = 0; t <= 4; ++t) {
        qor_fault_reset();
        unsigned type = 9;
        ASSERT_EQ(QOR_type_of_object(qor("o" + std::to_string(t)).c_str(), &type),
                  0);
        EXPECT_EQ(host_calls(), expected[t]) << t;
    }
}

TEST_F(Calls, IsAccessible) {
    make_object(os("o0"), 0);
    make_object(os("o4"), 4);
    // (kinds 1 and 2 of a mode check also read the real user id)
    const Counts type0 = {{"stat", 1}};
    const Counts type4 = {{"access", 3}, {"stat", 1}};
    for (unsigned kind = 0; kind <= 2; ++kind) {
        int32_t flag = 0;
        qor_fault_reset();
        ASSERT_EQ(QOR_is_accessible(qor("o0").c_str(), 0, kind, &flag), 0);
        EXPECT_EQ(flag, 1);
        EXPECT_EQ(host_calls(), type0) << kind;
        qor_fault_reset();
        ASSERT_EQ(QOR_is_accessible(qor("o4").c_str(), 4, kind, &flag), 0);
        EXPECT_EQ(flag, 1);
        EXPECT_EQ(host_calls(), type4) << kind;
    }
}

TEST_F(Calls, CreateIdleObject) {
    qor_fault_reset();
    ASSERT_EQ(QOR_create_object(qor("o").c_str(), 4), 0);
    EXPECT_EQ(host_calls(), (Counts{{"mkdir", 1}, {"open", 3}, {"close", 3}}));
}

TEST_F(Calls, ListThousandLinks) {
    make_dir(os("d"));
    for (int i = 0; i < 1000; ++i) make_file(os("d/l" + std::to_string(i)));
    qor_fault_reset();
    QOR_link_listing *l = nullptr;
    ASSERT_EQ(QOR_open_links(qor("d").c_str(), 1, &l), 0);
    int n = 0;
    while (QOR_next_link(l) == 0) ++n;
    ASSERT_EQ(QOR_close_links(l), 0);
    EXPECT_EQ(n, 1000);
    // One readdir per entry, "." and ".." included, and one for the end.
    EXPECT_EQ(host_calls(),
              (Counts{{"opendir", 1}, {"readdir", 1003}, {"closedir", 1}}));
}

}  // namespace
}  // namespace objects_test
