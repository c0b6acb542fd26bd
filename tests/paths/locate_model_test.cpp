// The locator against an independent model (tests/fuzz/locate_model.h):
// thousands of generated QOR_PATH and QOR_PATH_DEFAULTS texts, names and
// extra lists over a scratch world of directories and files. Each case runs
// in a child of its own (the table and the trace levels are per process),
// and the probes it made, in order, are read from its level-2 trace.
//
// The model brings its own path rules for the directories and probes:
// QOR_PATH elements are host paths (relative ones taken against the
// current directory, empty components and "." dropped, ".." removing the
// name before it and failing at the root); extra elements and probes are
// qor paths, where an empty component restarts at the root and "_" at
// QOR_ROOT before the dots are resolved. Names and elements are drawn from
// what those rules cover.

#include <sys/stat.h>

#include <random>

#include "locate_fixture.h"
#include "tests/fuzz/locate_model.h"

namespace locate_test {
namespace {

using locate_model::Case;
using locate_model::split;

std::string joined(const std::vector<std::string> &parts) {
    std::string out;
    for (const auto &p : parts) out += "/" + p;
    return out.empty() ? "/" : out;
}

// A host path as a directory of QOR_PATH.
std::optional<std::string> os_dir(const std::string &element,
                                  const std::string &cwd) {
    if (element.empty() || element.size() > QOR_PATH_MAX) return std::nullopt;
    const std::string full = element[0] == '/' ? element : cwd + "/" + element;
    std::vector<std::string> names;
    for (const std::string &c : split(full, '/')) {
        if (c.empty() || c == ".") continue;
        if (c == "..") {
            if (names.empty()) return std::nullopt;
            names.pop_back();
        } else {
            names.push_back(c);
        }
    }
    std::string out = joined(names);
    if (out.size() > QOR_PATH_MAX) return std::nullopt;
    return out;
}

// A qor path made absolute: restarts first, dots after.
std::optional<std::string> qor_absolute(const std::string &text,
                                        const std::string &root) {
    if (text.empty() || text.size() > QOR_PATH_MAX) return std::nullopt;
    std::vector<std::string> list;
    bool anchored = false;
    for (const std::string &c : split(text, '/')) {
        if (c.empty() || c == "_") {
            list.clear();
            if (c == "_") {
                for (const auto &r : split(root.substr(1), '/')) {
                    list.push_back(r);
                }
            }
            anchored = true;
            continue;
        }
        if (!anchored) return std::nullopt;
        list.push_back(c);
    }
    std::vector<std::string> names;
    for (const std::string &c : list) {
        if (c == ".") continue;
        if (c == "..") {
            if (names.empty()) return std::nullopt;
            names.pop_back();
        } else {
            names.push_back(c);
        }
    }
    std::string out = joined(names);
    if (out.size() > QOR_PATH_MAX) return std::nullopt;
    return out;
}

class World {
  public:
    explicit World(unsigned seed) : rng_(seed) {
        base_ = tmp_.path();
        root_ = base_ + "/root";
        const std::string tops[] = {"w/d0", "w/d1", "w/d2", "root",
                                    "root/tools"};
        for (const auto &t : tops) make_dirs(t);
        // Objects scattered over the directories and their subdirectories.
        const char *const subdirs[] = {"", "data", "tables", "deep/er", "(p)"};
        for (const auto &t : tops) {
            for (const char *s : subdirs) {
                for (const char *n : kNames) {
                    if (pick(2) != 0) continue;
                    std::string rel = t + (*s ? "/" : "") + s + "/" + n;
                    make_object(rel, pick(10) < 7);
                }
            }
        }
    }

    Case next_case() {
        Case c;
        if (pick(8) != 0) c.path = list(4, [&] { return path_element(); });
        if (pick(10) >= 3) c.defaults = defaults();
        c.name = name();
        if (pick(10) >= 4) c.extra = list(3, [&] { return extra_element(); });
        c.type = pick(10) < 7 ? 0 : 1;
        c.form = pick(2) == 0 ? QOR_FORM_OS : QOR_FORM_QOR;
        return c;
    }

    locate_model::Expected expected(const Case &c) const {
        return locate_model::expect(
            c, [&](const std::string &e) { return os_dir(e, base_); },
            [&](const std::string &e) { return qor_absolute(e, root_); },
            [&](const std::string &p) { return exists(p, c.type); },
            "-- succeeded", "-- failed");
    }

    std::string result_of(const locate_model::Expected &x) const {
        if (!x.found) return "<null>";
        return qor_absolute(*x.found, root_).value_or("<unconvertible>");
    }

    const std::string &base() const { return base_; }
    const std::string &root() const { return root_; }

  private:
    static constexpr const char *kNames[] = {
        "x.dat", "y.hlp", "z",     "a b.dat", "x.dat/in", "q.",
        ".hid",  "f.tar.gz", "m,n.dat", "t.txt", "d at.d"};

    unsigned pick(unsigned n) { return rng_() % n; }
    template <size_t N>
    std::string one_of(const char *const (&options)[N]) {
        return options[pick(N)];
    }

    void make_dirs(const std::string &rel) {
        std::string p = base_;
        for (const auto &c : split(rel, '/')) {
            p += "/" + c;
            mkdir(p.c_str(), 0755);
        }
    }
    void make_object(const std::string &rel, bool as_file) {
        const size_t slash = rel.rfind('/');
        struct stat st;
        const std::string parent = base_ + "/" + rel.substr(0, slash);
        if (stat(parent.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) return;
        make_dirs(rel.substr(0, slash));
        if (as_file) {
            qor_test::write_file(base_ + "/" + rel, "x");
        } else {
            mkdir((base_ + "/" + rel).c_str(), 0755);
        }
    }

    bool exists(const std::string &probe, unsigned type) const {
        const auto path = qor_absolute(probe, root_);
        if (!path) return false;
        struct stat st;
        if (stat(path->c_str(), &st) != 0) return false;
        return type == 1 ? S_ISDIR(st.st_mode) : !S_ISDIR(st.st_mode);
    }

    // A list text of up to `most` elements with varied separators, and
    // sometimes separators at either end.
    template <class Element>
    std::string list(unsigned most, Element element) {
        static const char *const seps[] = {",",  " ",  ", ", " ,", "\t",
                                           ",,", " , ", "\n", " ,\t, "};
        std::string text = pick(5) == 0 ? one_of(seps) : "";
        const unsigned n = pick(most + 1);
        for (unsigned i = 0; i < n; ++i) {
            if (i > 0) text += one_of(seps);
            text += element();
        }
        if (pick(5) == 0) text += one_of(seps);
        return text;
    }

    std::string path_element() {
        const std::string d = "d" + std::to_string(pick(3));
        switch (pick(12)) {
            case 0: return base_ + "/w/" + d + "/";
            case 1: return base_ + "/w/./d1/../" + d;
            case 2: return base_ + "//w//" + d;
            case 3: return "w/" + d;
            case 4: return "./w/" + d + "/.";
            case 5: return base_ + "/w/n0";
            case 6: return "/..";
            case 7:
                return pick(2) == 0 ? "/" + std::string(QOR_PATH_MAX + 3, 'L')
                                    : base_ + "/w/" +
                                          std::string(QOR_PATH_MAX - 6 -
                                                          base_.size() -
                                                          pick(8),
                                                      'L');
            case 8: return base_ + "/root";
            default: return base_ + "/w/" + d;
        }
    }

    std::string extra_element() {
        switch (pick(8)) {
            case 0: return "_/tools";
            case 1: return "_";
            case 2: return "rel";
            case 3: return "/..";
            case 4: return base_ + "/w/d" + std::to_string(pick(3)) + "/";
            case 5: return "/x/" + base_ + "/w/d1";  // "//" restarts
            default: return base_ + "/w/d" + std::to_string(pick(3));
        }
    }

    std::string defaults() {
        static const char *const types[] = {"dat", "hlp", "gz", "txt",
                                            "",    "d",   "in", "x"};
        static const char *const subs[] = {"data", "tables", "deep/er", "",
                                           "(p)",  "_",      "..",      "."};
        static const char *const pads[] = {"", "", " ", "\t", "  "};
        std::vector<std::string> entries;
        const unsigned n = 1 + pick(3);
        for (unsigned i = 0; i < n; ++i) {
            std::string e = one_of(pads) + one_of(types) + one_of(pads) + "=";
            if (pick(4) == 0) e += "junk";
            e += "(" + list(3, [&] { return one_of(subs); }) + ")";
            if (pick(6) == 0) e += "tail)";
            entries.push_back(e);
        }
        std::string text;
        for (size_t i = 0; i < entries.size(); ++i) {
            text += (i > 0 ? ";" : "") + entries[i];
        }
        switch (pick(16)) {
            case 0: text += ";"; break;
            case 1: text = ";" + text; break;
            case 2: text += ";;"; break;
            case 3: {
                const size_t at = text.find('=');
                if (at != std::string::npos) text.erase(at, 1);
                break;
            }
            case 4: {
                const size_t at = text.rfind('(');
                if (at != std::string::npos) text.erase(at, 1);
                break;
            }
            case 5: {
                const size_t at = text.rfind(')');
                if (at != std::string::npos) text.erase(at, 1);
                break;
            }
            case 6: text += ";x=()"; break;
            default: break;
        }
        return text;
    }

    std::string name() {
        static const char *const parts[] = {"x.dat", "y", "a b.dat", ".",
                                            "..",    "",  "_",       "in",
                                            "q.",    "z", "f.tar.gz"};
        switch (pick(10)) {
            case 0: return base_ + "/w/d" + std::to_string(pick(3)) + "/" +
                           kNames[pick(std::size(kNames))];
            case 1: return "_/" + std::string(kNames[pick(std::size(kNames))]);
            case 2: {
                std::string n;
                const unsigned k = 1 + pick(3);
                for (unsigned i = 0; i < k; ++i) {
                    n += (i > 0 ? "/" : "") + one_of(parts);
                }
                return n;
            }
            case 3:
                if (pick(4) == 0) return std::string(QOR_PATH_MAX - 20, 'n');
                [[fallthrough]];
            default: return kNames[pick(std::size(kNames))];
        }
    }

    qor_test::TempDir tmp_;
    std::string base_;
    std::string root_;
    std::mt19937 rng_;
};

std::string describe(const Case &c) {
    auto show = [](const std::optional<std::string> &s) {
        return s ? "\"" + (s->size() > 200 ? s->substr(0, 200) + "..." : *s) +
                       "\""
                 : std::string("unset");
    };
    return "QOR_PATH=" + show(c.path) + " QOR_PATH_DEFAULTS=" +
           show(c.defaults) + " name=" + show(c.name) +
           " extra=" + show(c.extra) + " type=" + std::to_string(c.type) +
           " form=" + std::to_string(c.form);
}

class LocateModel : public testing::TestWithParam<unsigned> {};

TEST_P(LocateModel, ProbesAndResultsAgreeWithTheModel) {
    World world(0x10ca7e + GetParam());
    constexpr int kCases = 1000;
    int failures = 0;
    int found = 0;
    int typed = 0;
    for (int i = 0; i < kCases && failures < 10; ++i) {
        const Case c = world.next_case();
        Environment env{{"QOR_ROOT", world.root()},
                        {"QOR_PATH", c.path},
                        {"QOR_PATH_DEFAULTS", c.defaults}};
        Call call(c.name);
        call.type = c.type;
        call.extra = c.extra;
        call.form = c.form;
        call.in_shared = (i % 2) != 0;
        call.cwd = world.base();
        const Located got = locate_in_child(env, call);
        const locate_model::Expected want = world.expected(c);
        if (got.trace != want.trace || got.result != world.result_of(want)) {
            ++failures;
            ADD_FAILURE() << describe(c) << "\nexpected result "
                          << world.result_of(want) << ", got " << got.result
                          << "\nexpected trace:\n"
                          << want.trace << "got trace:\n"
                          << got.trace;
        }
        if (want.found) ++found;
        if (c.defaults && locate_model::table(c.defaults) &&
            locate_model::type_of(c.name)) {
            ++typed;
        }
    }
    // The cases are worth something only if they find things and use
    // the table.
    EXPECT_GT(found, kCases / 5);
    EXPECT_GT(typed, kCases / 10);
}

INSTANTIATE_TEST_SUITE_P(Shards, LocateModel, testing::Range(0u, 4u));

// The model's own rules, on the examples the locator is described with.
TEST(LocateModelRules, AgreesWithTheDescribedExamples) {
    using locate_model::elements;
    EXPECT_EQ(elements("a,,b"), (std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(elements(",a"), (std::vector<std::string>{"", "a"}));
    EXPECT_EQ(elements("a,"), (std::vector<std::string>{"a", ""}));
    EXPECT_EQ(elements(" a  b "), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(elements(" \t").empty());
    EXPECT_EQ(locate_model::type_of("x.dat/y"), "dat");
    EXPECT_EQ(locate_model::type_of("x/y.dat"), std::nullopt);
    EXPECT_EQ(locate_model::table("dat=(data);"), std::nullopt);
    const auto t = locate_model::table("dat=(data, tables);hlp=(help)");
    ASSERT_TRUE(t);
    ASSERT_EQ(t->size(), 2u);
    EXPECT_EQ((*t)[0].type, "dat");
    EXPECT_EQ((*t)[0].subdirs, (std::vector<std::string>{"data", "tables"}));
    EXPECT_EQ((*t)[1].type, "hlp");
    EXPECT_EQ(os_dir("a/../b", "/c"), "/c/b");
    EXPECT_EQ(os_dir("/..", "/c"), std::nullopt);
    EXPECT_EQ(qor_absolute("/a//b", "/r"), "/b");
    EXPECT_EQ(qor_absolute("/a/_/../b", "/r/s"), "/r/b");
    EXPECT_EQ(qor_absolute("/a/", "/r"), "/");
    EXPECT_EQ(qor_absolute("rel", "/r"), std::nullopt);
}

}  // namespace
}  // namespace locate_test
