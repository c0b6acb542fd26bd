// The worked examples of the path translations, one test each, with
// QOR_ROOT="/opt/q", QOR_HASH="/var/q/hash", HOME="/home/u", X="/data",
// Y="sub" and the current directory ".../work/d".

#include "path_fixture.h"

namespace paths_test {
namespace {

enum class Call { absolute, to_os, os_to_qor, link, concat, composite };

struct Example {
    const char *label;
    Call call;
    const char *a;
    const char *b;   // concat tail, composite entry name
    unsigned form;   // concat form
    const char *expected;  // "{cwd}" stands for the current directory
};

const Example kExamples[] = {
    {"RootAnchor", Call::absolute, "_/etc/f.txt", nullptr, 0, "/opt/q/etc/f.txt"},
    {"HashAnchor", Call::absolute, "#/x", nullptr, 0, "/var/q/hash/x"},
    {"HomeAnchor", Call::absolute, "~/.profile", nullptr, 0, "/home/u/.profile"},
    {"CurrentDirectoryAnchor", Call::absolute, ".0/f", nullptr, 0, "{cwd}/f"},
    {"AbsoluteVariable", Call::absolute, "$(X)/y", nullptr, 0, "/data/y"},
    {"RelativeVariableInside", Call::absolute, "/a/$(Y)/b", nullptr, 0, "/a/sub/b"},
    {"RelativeVariableFirst", Call::absolute, "$(Y)/b", nullptr, 0, "{cwd}/sub/b"},
    {"ParentRemoved", Call::absolute, "/a/b/../e", nullptr, 0, "/a/e"},
    {"RootAnchorInside", Call::absolute, "/a/_/b", nullptr, 0, "/opt/q/b"},
    {"EmptyComponentRestarts", Call::absolute, "/a//b", nullptr, 0, "/b"},
    {"TrailingSlashRestarts", Call::absolute, "/a/", nullptr, 0, "/"},
    {"AbsoluteHostPart", Call::absolute, "@/usr/lib", nullptr, 0, "/usr/lib"},
    {"RelativeHostPart", Call::absolute, "@rel/x", nullptr, 0, "{cwd}/rel/x"},
    {"RelativeQorPathFails", Call::absolute, "a/b", nullptr, 0, nullptr},
    {"LeadingParentFails", Call::absolute, "../a", nullptr, 0, nullptr},
    {"ParentOfRootFails", Call::absolute, "/..", nullptr, 0, nullptr},
    {"EmptyFails", Call::absolute, "", nullptr, 0, nullptr},
    {"UnsetVariableFails", Call::absolute, "$(UNSET)/x", nullptr, 0, nullptr},
    {"QorToOs", Call::to_os, "_/etc", nullptr, 0, "/opt/q/etc"},
    {"OsToQorRelative", Call::os_to_qor, "x/../y", nullptr, 0, "{cwd}/y"},
    {"OsToQorEmptyAndTrailing", Call::os_to_qor, "/usr//lib/", nullptr, 0, "/usr/lib"},
    {"OsToQorDrive", Call::os_to_qor, "C:/x", nullptr, 0, "/x"},
    {"OsToQorParentOfRootFails", Call::os_to_qor, "/..", nullptr, 0, nullptr},
    {"Linkname", Call::link, "../lib/x.so", nullptr, 0, "../lib/x.so"},
    {"ConcatAbsoluteTail", Call::concat, "/usr", "/lib/x", 0, "/usr/lib/x"},
    {"ConcatRelativeBase", Call::concat, "src", "../inc", 0, "{cwd}/inc"},
    {"ConcatUnknownFormFails", Call::concat, "/usr", "x", 2, nullptr},
    {"CompositeAnchored", Call::composite, "_/etc", "f.txt", 0, "/opt/q/etc/f.txt"},
    {"CompositeOfRoot", Call::composite, "/", "x", 0, "//x"},
};

void PrintTo(const Example &e, std::ostream *os) { *os << e.label; }

class Examples : public Anchored,
                 public testing::WithParamInterface<Example> {};

TEST_P(Examples, Row) {
    const Example &e = GetParam();
    std::string expected = e.expected ? e.expected : "<null>";
    if (expected.rfind("{cwd}", 0) == 0) expected = cwd(expected.substr(5));
    std::string got;
    switch (e.call) {
        case Call::absolute: got = to_abs(e.a); break;
        case Call::to_os: got = to_os(e.a); break;
        case Call::os_to_qor: got = from_os(e.a); break;
        case Call::link: got = linkname(e.a); break;
        case Call::concat: got = concat(e.a, e.b, e.form); break;
        case Call::composite: got = composite(e.a, e.b); break;
    }
    EXPECT_EQ(got, expected) << e.a;
}

INSTANTIATE_TEST_SUITE_P(
    PathTable, Examples, testing::ValuesIn(kExamples),
    [](const testing::TestParamInfo<Example> &info) {
        return std::string(info.param.label);
    });

TEST(IsQorPath, AnchorsRootAndHostPartsAreQorPaths) {
    for (const char *t : {"_", "_/a", ".0", "$(", "@x", "/"}) {
        EXPECT_EQ(QOR_is_qor_path(t), 1) << t;
    }
}

TEST(IsQorPath, OtherTextsAreNot) {
    for (const char *t : {"_a", ".", "..", "a/b", "$x", ""}) {
        EXPECT_EQ(QOR_is_qor_path(t), 0) << t;
    }
    EXPECT_EQ(QOR_is_qor_path(nullptr), 0);
}

TEST(IsQorPath, EachLeadingCharacter) {
    EXPECT_EQ(QOR_is_qor_path("#"), 1);
    EXPECT_EQ(QOR_is_qor_path("#/x"), 1);
    EXPECT_EQ(QOR_is_qor_path("#x"), 0);
    EXPECT_EQ(QOR_is_qor_path("~"), 1);
    EXPECT_EQ(QOR_is_qor_path("~/"), 1);
    EXPECT_EQ(QOR_is_qor_path("~u"), 0);
    EXPECT_EQ(QOR_is_qor_path(".0/"), 1);
    EXPECT_EQ(QOR_is_qor_path(".0a"), 0);
    EXPECT_EQ(QOR_is_qor_path(".x"), 0);
    EXPECT_EQ(QOR_is_qor_path("$"), 0);
    EXPECT_EQ(QOR_is_qor_path("$(X"), 1);  // the ")" is not checked
    EXPECT_EQ(QOR_is_qor_path("@"), 1);
    EXPECT_EQ(QOR_is_qor_path("//"), 1);
    EXPECT_EQ(QOR_is_qor_path("C:/x"), 0);
}

}  // namespace
}  // namespace paths_test
