// QOR_look_up_font against an independent reading of the same alias file
// (tests/fuzz/font_alias_model.h): the alias files that Debian's X11 font
// packages ship, and every seed of the font alias fuzz corpus, each loaded
// through the search path in a child of its own.

#include <dirent.h>

#include <algorithm>
#include <set>

#include "font_fixture.h"
#include "tests/fuzz/font_alias_model.h"

using font_test::FontAliases;
using font_test::look_up;

namespace {

// Every alias the model reads from content, each once, in file order, and
// a few names that are no alias at all.
std::vector<std::string> names_in(const std::vector<font_model::Alias> &table) {
    std::vector<std::string> names;
    std::set<std::string> seen;
    for (const auto &a : table) {
        if (seen.insert(a.alias).second) names.push_back(a.alias);
    }
    for (const char *other : {"no-such-alias", "", "fixed "}) {
        if (seen.count(other) == 0) names.push_back(other);
    }
    return names;
}

// The answers the model expects for names.
std::vector<std::string> expected(const std::vector<font_model::Alias> &table,
                                  const std::vector<std::string> &names) {
    std::vector<std::string> out;
    for (const auto &n : names) out.push_back(font_model::resolve(table, n));
    return out;
}

}  // namespace

class RealAliasFiles : public FontAliases,
                       public testing::WithParamInterface<const char *> {};

TEST_P(RealAliasFiles, EveryAliasResolvesAsAnIndependentReadingSays) {
    const std::string source = GetParam();
    if (!qor_test::exists(source)) {
        GTEST_SKIP() << source
                     << " is not installed (it comes with the X11 font "
                        "packages that scripts/setup --tests installs)";
    }
    const std::string content = qor_test::read_file(source);
    write_aliases(content);
    const auto table = font_model::read_file(content);
    // These files define aliases; a reading that finds none is broken.
    ASSERT_GT(table.size(), 5u) << source;
    const auto names = names_in(table);
    EXPECT_EQ(answers(names), expected(table, names)) << source;
}

INSTANTIATE_TEST_SUITE_P(
    Debian, RealAliasFiles,
    testing::Values("/usr/share/fonts/X11/misc/fonts.alias",
                    "/usr/share/fonts/X11/75dpi/fonts.alias",
                    "/usr/share/fonts/X11/100dpi/fonts.alias"),
    [](const testing::TestParamInfo<const char *> &info) {
        const std::string path = info.param;
        const std::string dir = path.substr(0, path.rfind('/'));
        std::string name = dir.substr(dir.rfind('/') + 1);
        std::replace_if(name.begin(), name.end(),
                        [](char c) { return !isalnum(static_cast<unsigned char>(c)); },
                        '_');
        return "X11_" + name;
    });

TEST_F(FontAliases, TheMiscAliasFileMapsFixedAsItSays) {
    // One answer checked by hand, so that the comparison above cannot pass
    // merely because library and model agree on nothing.
    const char *source = "/usr/share/fonts/X11/misc/fonts.alias";
    if (!qor_test::exists(source)) {
        GTEST_SKIP() << source << " is not installed (xfonts-base)";
    }
    write_aliases(qor_test::read_file(source));
    EXPECT_EQ(answer("fixed"),
              "-misc-fixed-medium-r-semicondensed--13-120-75-75-c-60-iso8859-1");
}

TEST_F(FontAliases, EverySeedOfTheFuzzCorpusResolvesAsTheModelSays) {
    const std::string dir =
        std::string(QOR_SOURCE_DIR) + "/tests/fuzz/corpus_font_alias";
    DIR *d = opendir(dir.c_str());
    ASSERT_NE(d, nullptr) << dir;
    std::vector<std::string> seeds;
    while (const dirent *e = readdir(d)) {
        if (e->d_name[0] != '.') seeds.push_back(e->d_name);
    }
    closedir(d);
    std::sort(seeds.begin(), seeds.end());
    ASSERT_GE(seeds.size(), 20u);
    for (const auto &seed : seeds) {
        const std::string content = qor_test::read_file(dir + "/" + seed);
        write_aliases(content);
        const auto table = font_model::read_file(content);
        const auto names = names_in(table);
        EXPECT_EQ(answers(names), expected(table, names)) << seed;
    }
}
