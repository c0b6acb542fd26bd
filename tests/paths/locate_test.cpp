// The locator: list texts, the table of type defaults, the order of the
// probes, the extra list, both result forms, the trace and its levels.
// Every locate runs in a child of its own (see locate_fixture.h); the
// probes it made are read from its level-2 trace.

#include <errno.h>
#include <sys/stat.h>

#include "locate_fixture.h"
#include "tests/fuzz/path_invariants.h"

namespace locate_test {
namespace {

using qor_test::run_in_child;

class Locate : public testing::Test {
  protected:
    // A host path inside the scratch directory.
    std::string at(const std::string &rel) const { return tmp_ / rel; }

    // Makes the directory and its parents inside the scratch directory.
    void dir(const std::string &rel) {
        std::string path = tmp_.path();
        size_t from = 0;
        while (from <= rel.size()) {
            size_t slash = rel.find('/', from);
            if (slash == std::string::npos) slash = rel.size();
            path += "/" + rel.substr(from, slash - from);
            mkdir(path.c_str(), 0755);
            from = slash + 1;
        }
    }
    // Makes a file (and its directories) inside the scratch directory.
    void file(const std::string &rel) {
        const size_t slash = rel.rfind('/');
        if (slash != std::string::npos) dir(rel.substr(0, slash));
        qor_test::write_file(at(rel), "x");
    }

    Environment path(const std::string &value) {
        return Environment{{"QOR_PATH", value}};
    }
    Environment with_defaults(const std::string &path_value,
                              const std::string &defaults) {
        return Environment{{"QOR_PATH", path_value},
                           {"QOR_PATH_DEFAULTS", defaults}};
    }

    qor_test::TempDir tmp_;
};

// ---- QOR_PATH: the list text ----------------------------------------------

TEST_F(Locate, PathElementsAreSeparatedByCommasBlanksOrBoth) {
    const std::string d = at("");
    const Located l = locate_in_child(
        path(" " + d + "a," + d + "b " + d + "c\t" + d + "d , " + d + "e\n," +
             d + "f\r\v\f" + d + "g"),
        {"x"});
    EXPECT_EQ(l.result, "<null>");
    EXPECT_EQ(l.trace, trace_of(failed({"x", d + "a/x", d + "b/x", d + "c/x",
                                        d + "d/x", d + "e/x", d + "f/x",
                                        d + "g/x"})));
}

TEST_F(Locate, EmptyPathElementsAreSkipped) {
    // "a,,b" probes a and b only.
    const Located l = locate_in_child(path(at("a") + ",," + at("b")), {"x"});
    EXPECT_EQ(l.trace, trace_of(failed({"x", at("a/x"), at("b/x")})));
}

TEST_F(Locate, CommasAtEitherEndAndBetweenBlanksMakeEmptyElements) {
    const Located l = locate_in_child(
        path(" ," + at("a") + " , ," + at("b") + ", "), {"x"});
    EXPECT_EQ(l.trace, trace_of(failed({"x", at("a/x"), at("b/x")})));
}

TEST_F(Locate, BlankUnsetOrEmptyPathProbesOnlyTheName) {
    for (const std::optional<std::string> &value :
         {std::optional<std::string>(" \t\n "), std::optional<std::string>(""),
          std::optional<std::string>(","), std::optional<std::string>()}) {
        const Located l =
            locate_in_child(Environment{{"QOR_PATH", value}}, {"x"});
        EXPECT_EQ(l.result, "<null>");
        EXPECT_EQ(l.trace, trace_of(failed({"x"})))
            << "QOR_PATH " << value.value_or("unset");
    }
}

TEST_F(Locate, PathElementsAreHostPathsTakenAgainstTheCurrentDirectory) {
    dir("here");
    file("here/sub/x");
    Call call{"x"};
    call.cwd = at("here");
    const Located l =
        locate_in_child(path("nope ./sub/../sub/.. sub// /" + at("") + "//q"),
                        call);
    EXPECT_EQ(l.result, at("here/sub/x"));
    EXPECT_EQ(l.trace, trace_of({{"x", false},
                                 {at("here/nope/x"), false},
                                 {at("here/x"), false},
                                 {at("here/sub/x"), true}}));
}

TEST_F(Locate, PathElementsThatDoNotTranslateAreSkipped) {
    // "/.." climbs above the root; a host path longer than a path may be
    // cannot translate either.
    const std::string too_long = "/" + std::string(QOR_PATH_MAX, 'p');
    const Located l =
        locate_in_child(path("/..," + too_long + "," + at("a")), {"x"});
    EXPECT_EQ(l.trace, trace_of(failed({"x", at("a/x")})));
}

TEST_F(Locate, PathIsReadAgainAtEveryCall) {
    file("b/x");
    const auto child = run_in_child([&] {
        setenv("QOR_LOCATE_TRACE_LEVEL", "1", 1);
        QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", refuse_texts,
                         nullptr);
        setenv("QOR_PATH", at("a").c_str(), 1);
        char *first = QOR_locate("x", 0, nullptr, QOR_FORM_QOR);
        setenv("QOR_PATH", at("b").c_str(), 1);
        char *second = QOR_locate("x", 0, nullptr, QOR_FORM_QOR);
        printf("%s|%s", first ? first : "<null>", second ? second : "<null>");
        if (second) QOR_free(second);
    });
    EXPECT_EQ(child.out, "<null>|" + at("b/x"));
    EXPECT_EQ(child.err, trace_of({{at("b/x"), true}}));
}

// ---- The name's type and the table of defaults --------------------------

TEST_F(Locate, TypeIsTakenFromTheFirstComponentWhenTheNameHoldsASlash) {
    // "x.dat/y" has the type "dat"; "x/y.dat" has none.
    const Environment env = with_defaults(at("a"), "dat=(data)");
    EXPECT_EQ(locate_in_child(env, {"x.dat/y"}).trace,
              trace_of(failed({"x.dat/y", at("a/data/x.dat/y")})));
    EXPECT_EQ(locate_in_child(env, {"x/y.dat"}).trace,
              trace_of(failed({"x/y.dat", at("a/x/y.dat")})));
    EXPECT_EQ(locate_in_child(env, {"f.tar.dat"}).trace,
              trace_of(failed({"f.tar.dat", at("a/data/f.tar.dat")})));
    EXPECT_EQ(locate_in_child(env, {"f.dat.tar"}).trace,
              trace_of(failed({"f.dat.tar", at("a/f.dat.tar")})));
}

TEST_F(Locate, TypedNameIsLookedForOnlyInItsSubdirectories) {
    file("a/x.dat");
    file("b/x.dat");
    const Located l =
        locate_in_child(with_defaults(at("a") + "," + at("b"), "dat=(data)"),
                        {"x.dat"});
    EXPECT_EQ(l.result, "<null>");
    EXPECT_EQ(l.trace, trace_of(failed({"x.dat", at("a/data/x.dat"),
                                        at("b/data/x.dat")})));
}

TEST_F(Locate, EmptySubdirectoryRestoresTheDirectLookUp) {
    file("b/x.dat");
    const Located l = locate_in_child(
        with_defaults(at("a") + "," + at("b"), "dat=(,data)"), {"x.dat"});
    EXPECT_EQ(l.result, at("b/x.dat"));
    // Each directory with every subdirectory before the next directory.
    EXPECT_EQ(l.trace, trace_of({{"x.dat", false},
                                 {at("a/x.dat"), false},
                                 {at("a/data/x.dat"), false},
                                 {at("b/x.dat"), true}}));
}

TEST_F(Locate, SubdirectoriesAreProbedInOrderAndTheFirstFoundWins) {
    file("a/tables/x.dat");
    file("a/more/x.dat");
    const Located l = locate_in_child(
        with_defaults(at("a"), "dat=(data, tables more)"), {"x.dat"});
    EXPECT_EQ(l.result, at("a/tables/x.dat"));
    EXPECT_EQ(l.trace, trace_of({{"x.dat", false},
                                 {at("a/data/x.dat"), false},
                                 {at("a/tables/x.dat"), true}}));
}

TEST_F(Locate, EntriesOfTheSameTypeAreProbedInTableOrder) {
    const Located l = locate_in_child(
        with_defaults(at("a") + " " + at("b"),
                      "dat=(one);hlp=(help);dat=(two)"),
        {"x.dat"});
    EXPECT_EQ(l.trace, trace_of(failed({"x.dat", at("a/one/x.dat"),
                                        at("b/one/x.dat"), at("a/two/x.dat"),
                                        at("b/two/x.dat")})));
}

TEST_F(Locate, NameOfAnotherTypeOrNoTypeIsLookedForDirectly) {
    file("a/x.txt");
    const Environment env = with_defaults(at("a"), "dat=(data)");
    const Located l = locate_in_child(env, {"x.txt"});
    EXPECT_EQ(l.result, at("a/x.txt"));
    EXPECT_EQ(l.trace, trace_of({{"x.txt", false}, {at("a/x.txt"), true}}));
    EXPECT_EQ(locate_in_child(env, {"x"}).trace,
              trace_of(failed({"x", at("a/x")})));
}

TEST_F(Locate, TrailingSemicolonDisablesAllDefaults) {
    file("a/x.dat");
    const Located l =
        locate_in_child(with_defaults(at("a"), "dat=(data);"), {"x.dat"});
    EXPECT_EQ(l.result, at("a/x.dat"));
    EXPECT_EQ(l.trace, trace_of({{"x.dat", false}, {at("a/x.dat"), true}}));
}

TEST_F(Locate, MalformedTableIsDroppedWholeAndSilently) {
    // Each of these drops the table, the well-formed entries with it: the
    // name is then looked for directly, and nothing is reported.
    const char *const tables[] = {
        "dat(data)",          // no "="
        "dat=data)",          // no "(" after the "="
        "dat)=(data",         // no ")" after the "("
        "dat=()",             // an empty list
        "dat=( \t )",         // an all-blank list
        "dat=(data);;hlp=(h)",// an empty entry
        "hlp=(help);dat",     // the second entry spoils the first
        "dat=(data);hlp=(help); ",
        ";dat=(data)",
        "",
        ";",
    };
    for (const char *table : tables) {
        for (const char *name : {"x.dat", "y.hlp"}) {
            const Located l =
                locate_in_child(with_defaults(at("a"), table), {name});
            EXPECT_EQ(l.trace,
                      trace_of(failed({name, at("a/") + name})))
                << "table \"" << table << "\", name " << name;
        }
    }
}

TEST_F(Locate, TableEntriesAreReadLoosely) {
    struct Case {
        const char *table;
        const char *name;
        std::vector<std::string> subdirs;
    };
    const Case cases[] = {
        // Blanks before the type name, and anything up to the "(".
        {" \tdat =junk(data)", "x.dat", {"data"}},
        // The type name ends at the first blank.
        {"d at=(data)", "x.d", {"data"}},
        // The list ends at the last ")" of the entry; what follows it is
        // ignored, and inner parentheses are plain characters.
        {"dat=((data))", "x.dat", {"(data)"}},
        {"dat=(a)b)c", "x.dat", {"a)b"}},
        {"dat=(data)tail;hlp=(help)", "x.dat", {"data"}},
        {"dat=(data)tail;hlp=(help)", "x.hlp", {"help"}},
        // "=" in the list is a plain character; so is "(" after the first.
        {"dat=x(a=b,(c)", "x.dat", {"a=b", "(c"}},
        // An empty type name serves names ending in ".".
        {"=(data)", "x.", {"data"}},
        // Elements as in any list text.
        {"dat=( data ,, tables\t)", "x.dat", {"data", "", "tables"}},
        // A comma at either end of the list makes an empty element there.
        {"dat=(data,)", "x.dat", {"data", ""}},
        {"dat=( ,data)", "x.dat", {"", "data"}},
        {"dat=( , )", "x.dat", {"", ""}},
    };
    for (const Case &c : cases) {
        std::vector<std::string> probes = {c.name};
        for (const auto &s : c.subdirs) {
            probes.push_back(at("a/") + (s.empty() ? "" : s + "/") + c.name);
        }
        EXPECT_EQ(locate_in_child(with_defaults(at("a"), c.table), {c.name})
                      .trace,
                  trace_of(failed(probes)))
            << "table \"" << c.table << "\", name " << c.name;
    }
}

TEST_F(Locate, TableIsReadOncePerProcess) {
    file("a/data/x.dat");
    const auto child = run_in_child([&] {
        setenv("QOR_PATH", at("a").c_str(), 1);
        setenv("QOR_PATH_DEFAULTS", "dat=(data)", 1);
        char *first = QOR_locate("x.dat", 0, nullptr, QOR_FORM_QOR);
        setenv("QOR_PATH_DEFAULTS", "dat=(other)", 1);
        char *second = QOR_locate("x.dat", 0, nullptr, QOR_FORM_QOR);
        printf("%s|%s", first ? first : "<null>", second ? second : "<null>");
    });
    EXPECT_EQ(child.out, at("a/data/x.dat") + "|" + at("a/data/x.dat"));
}

// ---- The extra list ---------------------------------------------------------

TEST_F(Locate, ExtraListIsProbedLastAsQorPaths) {
    file("root/e/x");
    Call call{"x"};
    call.extra = "rel,/.. @" + at("c") + " _/e";
    Environment env = path(at("a"));
    env["QOR_ROOT"] = at("root");
    const Located l = locate_in_child(env, call);
    // "rel" is a relative qor path and "/.." climbs above the root: both
    // are dropped.
    EXPECT_EQ(l.result, at("root/e/x"));
    EXPECT_EQ(l.trace, trace_of({{"x", false},
                                 {at("a/x"), false},
                                 {at("c/x"), false},
                                 {at("root/e/x"), true}}));
}

TEST_F(Locate, ExtraListIsProbedAfterTheSubdirectoriesOfAType) {
    const Environment env = with_defaults(at("a"), "dat=(data)");
    Call call{"x.dat"};
    call.extra = at("e");
    EXPECT_EQ(locate_in_child(env, call).trace,
              trace_of(failed({"x.dat", at("a/data/x.dat"), at("e/x.dat")})));
}

TEST_F(Locate, NullOrEmptyExtraListProbesNothingMore) {
    Call call{"x"};
    EXPECT_EQ(locate_in_child(path(at("a")), call).trace,
              trace_of(failed({"x", at("a/x")})));
    call.extra = " ,";
    EXPECT_EQ(locate_in_child(path(at("a")), call).trace,
              trace_of(failed({"x", at("a/x")})));
}

// ---- The name itself ----------------------------------------------------------

TEST_F(Locate, QorPathNameThatExistsIsTheResult) {
    file("a/x");
    const Located l = locate_in_child(path(at("b")), {at("a/x")});
    EXPECT_EQ(l.result, at("a/x"));
    EXPECT_EQ(l.trace, trace_of({{at("a/x"), true}}));
}

TEST_F(Locate, QorPathNameThatDoesNotExistIsSearchedByItsFullText) {
    // The probe "a//nope/x" restarts at the root, as qor paths do.
    const Located l = locate_in_child(path(at("a")), {"/nope/x"});
    EXPECT_EQ(l.result, "<null>");
    EXPECT_EQ(l.trace, trace_of(failed({"/nope/x", at("a") + "//nope/x"})));
}

TEST_F(Locate, NameThatIsNoQorPathIsNeverProbedAsGiven) {
    // A file "x" in the current directory is not found: "x" is no qor path,
    // so its first trace line is a failure without a probe.
    dir("cwd");
    file("cwd/x");
    Call call{"x"};
    call.cwd = at("cwd");
    const Located l = locate_in_child(path(at("a")), call);
    EXPECT_EQ(l.result, "<null>");
    EXPECT_EQ(l.trace, trace_of(failed({"x", at("a/x")})));
}

TEST_F(Locate, TheObjectTypeDecidesWhatIsFound) {
    file("a/f");
    dir("a/d");
    Call file_call{"f"};
    Call dir_call{"d"};
    EXPECT_EQ(locate_in_child(path(at("a")), file_call).result, at("a/f"));
    EXPECT_EQ(locate_in_child(path(at("a")), dir_call).result, "<null>");
    file_call.type = dir_call.type = QOR_PLAIN_DIRECTORY;
    EXPECT_EQ(locate_in_child(path(at("a")), file_call).result, "<null>");
    EXPECT_EQ(locate_in_child(path(at("a")), dir_call).result, at("a/d"));
}

TEST_F(Locate, NullNameFindsNothingAndTracesNothing) {
    const auto child = run_in_child([&] {
        setenv("QOR_LOCATE_TRACE_LEVEL", "2", 1);
        setenv("QOR_PATH", at("a").c_str(), 1);
        qor_fault_reset();
        printf("%d %d",
               QOR_locate(nullptr, 0, "/x", QOR_FORM_QOR) == nullptr &&
                   QOR_SH_locate(nullptr, 0, "/x", QOR_FORM_OS) == nullptr,
               static_cast<int>(qor_fault_calls(QF_stat)));
    });
    EXPECT_EQ(child.out, "1 0");
    EXPECT_EQ(child.err, "");
}

// ---- Probes longer than a path may be ---------------------------------------

TEST_F(Locate, ProbesLongerThanThePathLimitFailWithoutTouchingTheHost) {
    // A directory whose probes come to exactly the limit and one beyond.
    const std::string marker = "LONGDIR";
    std::string dir_text = at(marker);
    const std::string name = "x";
    dir_text += "/" + std::string(QOR_PATH_MAX - dir_text.size() - 4, 'd');
    ASSERT_EQ(dir_text.size() + 1 + name.size(), QOR_PATH_MAX - 1);
    for (const std::string &d : {dir_text + "e", dir_text + "ee"}) {
        const auto child = run_in_child([&] {
            setenv("QOR_LOCATE_TRACE_LEVEL", "2", 1);
            setenv("QOR_PATH", d.c_str(), 1);
            QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", refuse_texts,
                             nullptr);
            qor_fault_fail(QF_stat, ENOENT, 0, -1);
            qor_fault_filter_path(QF_stat, marker.c_str());
            char *r = QOR_locate(name.c_str(), 0, nullptr, QOR_FORM_QOR);
            printf("%s %ld", r ? r : "<null>", qor_fault_injected(QF_stat));
        });
        const bool fits = d.size() + 1 + name.size() <= QOR_PATH_MAX;
        EXPECT_EQ(child.out, fits ? "<null> 1" : "<null> 0") << d.size();
        EXPECT_EQ(child.err, trace_of(failed({name, d + "/" + name})));
    }
}

TEST_F(Locate, LongProbeWithASubdirectoryIsTracedWhole) {
    const std::string d = "/" + std::string(QOR_PATH_MAX - 10, 'd');
    const Located l =
        locate_in_child(with_defaults(d, "dat=(data,)"), {"abc.dat"});
    EXPECT_EQ(l.trace, trace_of(failed({"abc.dat", d + "/data/abc.dat",
                                        d + "/abc.dat"})));
}

// ---- Result forms and where results live -------------------------------

TEST_F(Locate, BothResultForms) {
    // A name with an embedded host path: the qor form expands it, the OS
    // form keeps the host path as it is written.
    file("cwd/rel/x");
    Call call{"@rel/x"};
    call.cwd = at("cwd");
    EXPECT_EQ(locate_in_child({}, call).result, at("cwd/rel/x"));
    call.form = QOR_FORM_OS;
    EXPECT_EQ(locate_in_child({}, call).result, "rel/x");
    call.in_shared = true;
    EXPECT_EQ(locate_in_child({}, call).result, "rel/x");
    call.form = QOR_FORM_QOR;
    EXPECT_EQ(locate_in_child({}, call).result, at("cwd/rel/x"));

    Call searched{"x"};
    searched.form = QOR_FORM_OS;
    EXPECT_EQ(locate_in_child(path(at("cwd/rel")), searched).result,
              at("cwd/rel/x"));
}

TEST_F(Locate, OwnedResultIsACopyAndSharedResultIsTheOnlyPieceLeft) {
    file("a/data/x.dat");
    const auto child = run_in_child([&] {
        setenv("QOR_PATH", (at("none") + "," + at("a")).c_str(), 1);
        setenv("QOR_PATH_DEFAULTS", "dat=(data)", 1);
        std::vector<std::string> problems;
        for (int form : {QOR_FORM_OS, QOR_FORM_QOR}) {
            for (const char *extra : {static_cast<const char *>(nullptr),
                                      "/e1 /e2 /e3"}) {
                for (const std::string &name :
                     {std::string("x.dat"), std::string("y.dat"),
                      at("a/data/x.dat")}) {
                    const auto r = path_check::both_forms(
                        "locate " + name,
                        [&] {
                            return QOR_locate(name.c_str(), 0, extra, form);
                        },
                        [&] {
                            return QOR_SH_locate(name.c_str(), 0, extra, form);
                        },
                        problems);
                    printf("%s;", r.value_or("<null>").c_str());
                }
            }
        }
        for (const auto &p : problems) fprintf(stderr, "%s\n", p.c_str());
    });
    EXPECT_EQ(child.err, "");
    std::string expected;
    for (int i = 0; i < 4; ++i) {
        expected += at("a/data/x.dat") + ";<null>;" + at("a/data/x.dat") + ";";
    }
    EXPECT_EQ(child.out, expected);
}

TEST_F(Locate, UnknownFormIsFatalOnceSomethingIsFound) {
    file("a/x");
    const auto child = run_in_child([&] {
        setenv("QOR_PATH", at("a").c_str(), 1);
        qor_test::MessageLog log;
        char *r = nullptr;
        const int jumped =
            qor_test::catch_fatal([&] { r = QOR_locate("x", 0, nullptr, 2); });
        printf("%d %d", jumped, r == nullptr);
        for (const auto &m : log.messages) {
            printf(" %s/%d/%d/%d", m.set.c_str(), m.number, m.type,
                   m.null_parameters);
        }
    });
    EXPECT_EQ(child.out, "2001 1 qor/1/4/1");

    // Unarmed, the process ends with exit status 3.
    const auto unarmed = run_in_child([&] {
        setenv("QOR_PATH", at("a").c_str(), 1);
        QOR_SH_locate("x", 0, nullptr, -1);
        _exit(0);
    });
    EXPECT_TRUE(unarmed.exited);
    EXPECT_EQ(unarmed.exit_status, 3);
    EXPECT_EQ(unarmed.err,
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=1, type=4\n");
}

TEST_F(Locate, UnknownFormWithNothingFoundIsNull) {
    const auto child = run_in_child([&] {
        setenv("QOR_PATH", at("a").c_str(), 1);
        printf("%d", QOR_locate("x", 0, nullptr, 7) == nullptr);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.out, "1");
    EXPECT_EQ(child.err, "");
}

// ---- Trace levels ---------------------------------------------------------------

TEST(LocateTrace, BaseLevelFromTheEnvironment) {
    const std::pair<std::optional<std::string>, int> cases[] = {
        {std::nullopt, 0}, {"0", 0},   {"1", 1},  {"2", 2},
        {"3", 0},          {"-1", 0},  {"", 0},   {"abc", 0},
        {" 2", 2},         {"1x", 1},  {"+1", 1}, {"99999999999999999999", 0},
    };
    for (const auto &[value, level] : cases) {
        const auto child = run_in_child([&] {
            if (value) {
                setenv("QOR_LOCATE_TRACE_LEVEL", value->c_str(), 1);
            } else {
                unsetenv("QOR_LOCATE_TRACE_LEVEL");
            }
            printf("%d", QOR_get_locate_trace_level());
        });
        EXPECT_EQ(child.out, std::to_string(level))
            << "QOR_LOCATE_TRACE_LEVEL=" << value.value_or("unset");
    }
}

// Sets the levels in turn from the base given and prints the level after
// each.
std::string levels_after(const char *base, std::vector<int> settings) {
    return run_in_child([&] {
               setenv("QOR_LOCATE_TRACE_LEVEL", base, 1);
               for (int s : settings) {
                   QOR_set_locate_trace_level(s);
                   printf("%d", QOR_get_locate_trace_level());
               }
           })
        .out;
}

TEST(LocateTrace, LevelIsRaisedAboveTheBaseButNeverBackToIt) {
    // With a base of 1, setting 0 has no effect; once at 2, nothing brings
    // the level back to 1.
    EXPECT_EQ(levels_after("1", {0, 1, 2, 1, 0}), "11222");
    // With a base of 0 it moves between 1 and 2, never back to 0.
    EXPECT_EQ(levels_after("0", {1, 0, 2, 1, 3, -1, 0}), "1121111");
    EXPECT_EQ(levels_after("2", {0, 1, 2, 3}), "2222");
}

TEST_F(Locate, LevelOneTracesOnlyWhatIsFound) {
    file("b/x");
    const Located l = locate_in_child(
        Environment{{"QOR_PATH", at("a") + "," + at("b")},
                    {"QOR_LOCATE_TRACE_LEVEL", "1"}},
        {"x"});
    EXPECT_EQ(l.result, at("b/x"));
    EXPECT_EQ(l.trace, trace_of({{at("b/x"), true}}));
}

TEST_F(Locate, LevelZeroIsSilent) {
    file("b/x");
    for (const char *level : {"0", "junk"}) {
        const Located l = locate_in_child(
            Environment{{"QOR_PATH", at("a") + "," + at("b")},
                        {"QOR_LOCATE_TRACE_LEVEL", level}},
            {"x"});
        EXPECT_EQ(l.result, at("b/x"));
        EXPECT_EQ(l.trace, "");
    }
}

TEST_F(Locate, TraceTextsComeFromTheMessageSystem) {
    file("b/x");
    const auto child = run_in_child([&] {
        setenv("QOR_LOCATE_TRACE_LEVEL", "2", 1);
        setenv("QOR_PATH", (at("a") + "," + at("b")).c_str(), 1);
        qor_test::MessageLog log;
        char *r = QOR_locate("x", 0, nullptr, QOR_FORM_QOR);
        if (r) QOR_free(r);
        printf("%zu", log.messages.size());
    });
    EXPECT_EQ(child.out, "0");
    EXPECT_EQ(child.err,
              trace_of({{"x", false}, {at("a/x"), false}, {at("b/x"), true}},
                       qor_test::MessageLog::text_of(206),
                       qor_test::MessageLog::text_of(205)));
}

TEST_F(Locate, WithoutAMessageSystemTheTextsAreFetchedOnceThenFallBack) {
    file("b/x");
    const auto child = run_in_child([&] {
        setenv("QOR_LOCATE_TRACE_LEVEL", "2", 1);
        setenv("QOR_PATH", (at("a") + "," + at("b")).c_str(), 1);
        for (int i = 0; i < 2; ++i) {
            char *r = QOR_locate("x", 0, nullptr, QOR_FORM_QOR);
            if (r) QOR_free(r);
        }
    });
    const std::string unavailable =
        "Error: QOR Message System unavailable - give_message_text\n";
    const std::string once =
        trace_of({{"x", false}, {at("a/x"), false}, {at("b/x"), true}});
    EXPECT_EQ(child.err, unavailable + unavailable + once + once);
}

// The give-text callback of the next test: it locates a file itself, as a
// message system looking for its catalogue would, and notes the level it
// saw.
int g_texts_asked = 0;
int g_level_seen = -1;
void locating_texts(void *, void *, void *call) {
    auto *rec = static_cast<QOR_give_message_text_record *>(call);
    ++g_texts_asked;
    g_level_seen = QOR_get_locate_trace_level();
    char *r = QOR_locate("catalogue", 0, nullptr, QOR_FORM_QOR);
    if (r) QOR_free(r);
    snprintf(rec->buffer, static_cast<size_t>(rec->buffer_size), "[%d]",
             rec->number);
    rec->result = 0;
}

TEST_F(Locate, TextsAreFetchedAtTheFirstTraceWithTheTraceOff) {
    file("b/x");
    const auto child = run_in_child([&] {
        setenv("QOR_LOCATE_TRACE_LEVEL", "1", 1);
        setenv("QOR_PATH", (at("a") + "," + at("b")).c_str(), 1);
        QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", locating_texts,
                         nullptr);
        // Nothing found at level 1: nothing traced, nothing fetched yet.
        char *r = QOR_locate("y", 0, nullptr, QOR_FORM_QOR);
        printf("%d %d;", r == nullptr, g_texts_asked);
        QOR_set_locate_trace_level(2);
        r = QOR_locate("x", 0, nullptr, QOR_FORM_QOR);
        if (r) QOR_free(r);
        printf("%d %d %d", g_texts_asked, g_level_seen,
               QOR_get_locate_trace_level());
    });
    EXPECT_EQ(child.out, "1 0;2 0 2");
    // The callback's own locates traced nothing.
    EXPECT_EQ(child.err,
              trace_of({{"x", false}, {at("a/x"), false}, {at("b/x"), true}},
                       "[206]", "[205]"));
}

}  // namespace
}  // namespace locate_test
