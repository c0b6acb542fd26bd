// Checks the translations against machines: the fuzz corpus replayed with
// the fuzz target's invariants, an independent lexical model of the qor
// and OS path rules over generated paths, and realpath(1) over plain host
// paths.

#include <stdio.h>

#include <random>
#include <sstream>

#include "path_fixture.h"

namespace paths_test {
namespace {

// ---- Corpus replay -----------------------------------------------------------

TEST(FuzzCorpus, EverySeedKeepsTheInvariants) {
    path_check::set_fuzz_environment();
    int seeds = 0;
    for (const auto &p : path_check::replay_corpus(
             std::string(QOR_SOURCE_DIR) + "/tests/fuzz/corpus", &seeds)) {
        ADD_FAILURE() << p;
    }
    EXPECT_GE(seeds, 30);
}

TEST(FuzzCorpus, CheckerCatchesViolations) {
    // The checker is only as good as what it rejects.
    EXPECT_TRUE(path_check::is_normal_absolute("/"));
    EXPECT_TRUE(path_check::is_normal_absolute("/a/.b/c..d"));
    EXPECT_FALSE(path_check::is_normal_absolute(""));
    EXPECT_FALSE(path_check::is_normal_absolute("a"));
    EXPECT_FALSE(path_check::is_normal_absolute("/a/"));
    EXPECT_FALSE(path_check::is_normal_absolute("//a"));
    EXPECT_FALSE(path_check::is_normal_absolute("/a/./b"));
    EXPECT_FALSE(path_check::is_normal_absolute("/a/.."));
    std::vector<std::string> problems;
    path_check::both_forms(
        "leaky", [] { return QOR_copy_string("/x"); },
        [] {
            QOR_FS_malloc(&QOR_SH_fs_allocator, 8);
            return QOR_FS_copy_string(&QOR_SH_fs_allocator, "/x");
        },
        problems);
    EXPECT_EQ(problems.size(), 1u);
    problems.clear();
    path_check::both_forms(
        "disagree", [] { return QOR_copy_string("/x"); },
        [] { return QOR_FS_copy_string(&QOR_SH_fs_allocator, "/y"); },
        problems);
    EXPECT_EQ(problems.size(), 1u);
}

// ---- An independent model -------------------------------------------------------

// "." vanishes, ".." removes the name before it and fails at the root.
std::optional<std::string> resolve_dots(const std::vector<std::string> &list) {
    std::vector<std::string> stack;
    for (const auto &c : list) {
        if (c == ".") continue;
        if (c == "..") {
            if (stack.empty()) return std::nullopt;
            stack.pop_back();
        } else {
            stack.push_back(c);
        }
    }
    std::string out;
    for (const auto &c : stack) out += "/" + c;
    return out.empty() ? "/" : out;
}

// Lexical rules, written from the description of qor paths: an empty or
// drive-like ("x:...") component restarts at the root, an anchor restarts at
// its value; only then, over what is left, "." vanishes and ".." removes the
// name before it, failing at the root (so a ".." that a later restart
// discards does no harm). Paths start with "/", so anchors are never first.
std::optional<std::string> model_qor(const std::string &path,
                                     const std::string &cwd) {
    std::vector<std::string> list;
    auto restart = [&](const std::string &abs) {
        list.clear();
        std::stringstream s(abs);
        std::string c;
        while (std::getline(s, c, '/')) {
            if (!c.empty()) list.push_back(c);
        }
    };
    size_t start = 1;
    for (;;) {
        const size_t slash = path.find('/', start);
        const std::string c = path.substr(
            start, slash == std::string::npos ? std::string::npos : slash - start);
        if (c.empty() || (c.size() >= 2 && c[1] == ':')) {
            list.clear();
        } else if (c == "_") {
            restart("/opt/q");
        } else if (c == "#") {
            restart("/var/q/hash");
        } else if (c == "~") {
            restart("/home/u");
        } else if (c == ".0") {
            restart(cwd);
        } else if (c == "$(X)") {
            restart("/data");
        } else if (c == "$(Y)") {
            list.push_back("sub");
        } else {
            list.push_back(c);
        }
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    return resolve_dots(list);
}

// OS paths: empty, "." and drive-like components vanish.
std::optional<std::string> model_os(const std::string &path) {
    std::vector<std::string> list;
    std::stringstream s(path.substr(1));
    std::string c;
    while (std::getline(s, c, '/')) {
        if (c.empty() || (c.size() >= 2 && c[1] == ':')) continue;
        list.push_back(c);
    }
    return resolve_dots(list);
}

std::string generate(std::mt19937 &rng, const std::vector<std::string> &parts,
                     int max_components) {
    std::uniform_int_distribution<int> count(1, max_components);
    std::uniform_int_distribution<size_t> pick(0, parts.size() - 1);
    std::string p;
    const int n = count(rng);
    for (int i = 0; i < n; ++i) p += "/" + parts[pick(rng)];
    if (rng() % 4 == 0) p += "/";
    return p;
}

using Differential = Anchored;

TEST_F(Differential, QorPathsAgreeWithModel) {
    std::mt19937 rng(4711);
    const std::vector<std::string> parts = {
        "a", "bc", "d.e", "f+g", ".h", "..", ".", "", "_", "#", "~", ".0",
        "$(X)", "$(Y)", "C:", "x:y", "_z", "$()", "...", "a..b"};
    int checked_paths = 0;
    for (int i = 0; i < 5000; ++i) {
        const std::string p = generate(rng, parts, 12);
        const auto want = model_qor(p, cwd());
        char *got = QOR_qor_to_absolute_qor(p.c_str());
        EXPECT_EQ(got ? std::optional<std::string>(got) : std::nullopt, want)
            << p;
        char *os = QOR_qor_to_os(p.c_str(), 0);
        EXPECT_EQ(os ? std::optional<std::string>(os) : std::nullopt, want)
            << p;
        if (got) QOR_free(got);
        if (os) QOR_free(os);
        checked_paths += want.has_value();
    }
    // Both outcomes are well represented.
    EXPECT_GT(checked_paths, 1000);
    EXPECT_LT(checked_paths, 4950);
}

TEST_F(Differential, OsPathsAgreeWithModel) {
    std::mt19937 rng(815);
    const std::vector<std::string> parts = {"a", "bc", "d.e", "f+g", ".h",
                                            "..", ".", "", "C:", "_", "@x"};
    for (int i = 0; i < 5000; ++i) {
        const std::string p = generate(rng, parts, 12);
        const auto want = model_os(p);
        char *got = QOR_os_to_qor(p.c_str());
        EXPECT_EQ(got ? std::optional<std::string>(got) : std::nullopt, want)
            << p;
        if (got) QOR_free(got);
        // The same path as the tail of a concatenation onto the root.
        char *cat = QOR_concat_os_paths("/", p.c_str(), 0, 0);
        EXPECT_EQ(cat ? std::optional<std::string>(cat) : std::nullopt, want)
            << p;
        if (cat) QOR_free(cat);
    }
}

TEST_F(Differential, PlainHostPathsAgreeWithRealpath) {
    std::mt19937 rng(2024);
    const std::vector<std::string> parts = {"a", "bc", "d.e", "f+g",
                                            ".h", ".", "", "i-j_k"};
    std::vector<std::string> paths;
    for (int i = 0; i < 2000; ++i) paths.push_back(generate(rng, parts, 10));
    // One realpath run for all of them: no symbolic links followed, missing
    // components allowed, so it is as lexical as the translation.
    std::string command = "realpath -m -s --";
    for (const auto &p : paths) command += " " + p;
    FILE *f = popen(command.c_str(), "r");
    ASSERT_NE(f, nullptr);
    std::vector<std::string> expected;
    char line[8192];
    while (fgets(line, sizeof line, f) != nullptr) {
        std::string s(line);
        if (!s.empty() && s.back() == '\n') s.pop_back();
        expected.push_back(s);
    }
    ASSERT_EQ(pclose(f), 0);
    ASSERT_EQ(expected.size(), paths.size());
    for (size_t i = 0; i < paths.size(); ++i) {
        char *got = QOR_os_to_qor(paths[i].c_str());
        ASSERT_NE(got, nullptr) << paths[i];
        EXPECT_EQ(std::string(got), expected[i]) << paths[i];
        QOR_free(got);
    }
}

}  // namespace
}  // namespace paths_test
