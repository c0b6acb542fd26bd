// Atom tables: numbering, unique atoms, the string array and its growth,
// fixed and growing buckets, reports, destruction, and a model over several
// seeds.
#include <gtest/gtest.h>
#include <setjmp.h>
#include <string.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "containers_support.h"

using namespace containers_test;

namespace {

// The atom entry as the table's printer shows it: the common head, the key
// and the atom.
struct AtomEntryView {
    QOR_ASSOC_entry *next;
    uint64_t hash;
    char *key;
    int32_t atom;
};
typedef AtomEntryView AtomPiece __attribute__((aligned(4)));

std::string atom_line(QOR_ASSOC_entry *e, int bucket) {
    const AtomPiece *a = reinterpret_cast<const AtomPiece *>(e);
    return hex(a->hash) + "\t" + std::to_string(bucket) + "\t(" + hex(a->key) +
           ", " + a->key + ") : " + std::to_string(a->atom) + "\n";
}

}  // namespace

TEST(Atoms, CreationSetsUpTheTable) {
    QOR_atom_table *t = QOR_create_atom_table("names", 0, 0, 0);
    EXPECT_STREQ(t->assoc.name, "names");
    EXPECT_EQ(QOR_ASSOC_tables, &t->assoc);
    EXPECT_EQ(t->assoc.mask, 31u);
    EXPECT_EQ(t->assoc.count, 0);
    EXPECT_EQ(t->assoc.fixed_size, 0);
    EXPECT_EQ(t->freestore.chunk_size, 992u);
    EXPECT_EQ(t->freestore.options, 0u);
    EXPECT_EQ(t->freestore.first_chunk, nullptr);
    EXPECT_EQ(t->next_atom, 1);
    EXPECT_EQ(t->strings, nullptr);
    EXPECT_EQ(t->capacity, 0);
    EXPECT_EQ(t->increment, 256);
    // The private key type: string hashing, fixed buckets by default.
    const QOR_ASSOC_key_type *k = t->assoc.key_type;
    expect_library_hooks(k);
    EXPECT_EQ(k->hash, &QOR_ASSOC_string_hash);
    EXPECT_EQ(k->cmp, &QOR_ASSOC_string_cmp);
    EXPECT_EQ(k->print_key, &QOR_ASSOC_string_print_key);
    EXPECT_EQ(k->entry_free, nullptr);
    EXPECT_EQ(k->table_size, sizeof(QOR_atom_table));
    EXPECT_EQ(k->entry_size, 32u);
    EXPECT_EQ(k->fixed_size, 1);
    QOR_unique_atom(t);  // so that destruction has an array to free
    QOR_destroy_atom_table(t);
    EXPECT_EQ(QOR_ASSOC_tables, nullptr);
}

TEST(Atoms, SizeAndIncrementAreTheCreatorsChoice) {
    QOR_atom_table *t = QOR_create_atom_table("sized", 10, 100, 1);
    EXPECT_EQ(t->assoc.mask, 127u);
    EXPECT_EQ(t->assoc.fixed_size, 1);
    EXPECT_EQ(t->increment, 10);
    QOR_string_to_atom(t, "x");
    EXPECT_EQ(t->capacity, 10);
    QOR_destroy_atom_table(t);
}

TEST(Atoms, NewStringsGetTheNextNumberAndKeepIt) {
    QOR_atom_table *t = QOR_create_atom_table("t", 0, 0, 0);
    EXPECT_EQ(QOR_string_to_atom(t, "a"), 1);
    EXPECT_EQ(QOR_string_to_atom(t, "b"), 2);
    EXPECT_EQ(QOR_string_to_atom(t, "a"), 1);
    EXPECT_EQ(t->next_atom, 3);
    EXPECT_EQ(t->assoc.count, 2);
    EXPECT_STREQ(QOR_atom_to_string(t, 1), "a");
    EXPECT_STREQ(QOR_atom_to_string(t, 2), "b");
    QOR_destroy_atom_table(t);
}

TEST(Atoms, ExistingAtomOfAnUnknownStringIsZeroAndUsesNoNumber) {
    QOR_atom_table *t = QOR_create_atom_table("t", 0, 0, 0);
    EXPECT_EQ(QOR_string_to_atom(t, "known"), 1);
    EXPECT_EQ(QOR_string_to_existing_atom(t, "unknown"), 0);
    EXPECT_EQ(t->next_atom, 2);
    EXPECT_EQ(QOR_string_to_existing_atom(t, "known"), 1);
    EXPECT_EQ(QOR_string_to_atom(t, "unknown"), 2);
    EXPECT_EQ(t->assoc.count, 2);
    QOR_destroy_atom_table(t);
}

TEST(Atoms, UniqueAtomsHaveNoStringAndUseUpTheirNumber) {
    QOR_atom_table *t = QOR_create_atom_table("t", 0, 0, 0);
    EXPECT_EQ(QOR_string_to_atom(t, "a"), 1);
    EXPECT_EQ(QOR_string_to_atom(t, "b"), 2);
    EXPECT_EQ(QOR_unique_atom(t), 3);
    EXPECT_EQ(QOR_atom_to_string(t, 3), nullptr);
    EXPECT_EQ(QOR_string_to_atom(t, "c"), 4);
    EXPECT_EQ(t->assoc.count, 3);  // the unique atom has no entry
    QOR_destroy_atom_table(t);
}

TEST(Atoms, UniqueAtomFirstMakesTheArray) {
    QOR_atom_table *t = QOR_create_atom_table("t", 4, 0, 0);
    EXPECT_EQ(QOR_unique_atom(t), 1);
    EXPECT_NE(t->strings, nullptr);
    EXPECT_EQ(t->capacity, 4);
    EXPECT_EQ(QOR_atom_to_string(t, 1), nullptr);
    QOR_destroy_atom_table(t);
}

TEST(Atoms, AtomsOutsideTheGivenRangeHaveNoString) {
    QOR_atom_table *t = QOR_create_atom_table("t", 0, 0, 0);
    QOR_string_to_atom(t, "a");
    QOR_string_to_atom(t, "b");
    EXPECT_EQ(QOR_atom_to_string(t, 0), nullptr);
    EXPECT_EQ(QOR_atom_to_string(t, -1), nullptr);
    EXPECT_EQ(QOR_atom_to_string(t, -100), nullptr);
    EXPECT_EQ(QOR_atom_to_string(t, t->next_atom), nullptr);  // 3
    EXPECT_EQ(QOR_atom_to_string(t, 100), nullptr);  // within capacity
    QOR_destroy_atom_table(t);
}

TEST(Atoms, StringsAreCopiesKeptByTheTable) {
    QOR_atom_table *t = QOR_create_atom_table("t", 0, 0, 0);
    char text[] = "mutable";
    const int a = QOR_string_to_atom(t, text);
    const char *kept = QOR_atom_to_string(t, a);
    EXPECT_NE(kept, text);
    text[0] = 'M';
    EXPECT_STREQ(kept, "mutable");
    EXPECT_EQ(QOR_string_to_existing_atom(t, "mutable"), a);
    EXPECT_EQ(QOR_string_to_existing_atom(t, "Mutable"), 0);
    // The string lives in the table's freestore.
    bool inside = false;
    for (QOR_FS_chunk *c = t->freestore.first_chunk; c != nullptr; c = c->next) {
        const char *start = reinterpret_cast<const char *>(c);
        inside |= kept > start && kept < start + c->size;
    }
    EXPECT_TRUE(inside);
    QOR_destroy_atom_table(t);
}

TEST(Atoms, TheEmptyStringIsAnAtomLikeAnyOther) {
    QOR_atom_table *t = QOR_create_atom_table("t", 0, 0, 0);
    EXPECT_EQ(QOR_string_to_atom(t, ""), 1);
    EXPECT_EQ(QOR_string_to_atom(t, ""), 1);
    EXPECT_STREQ(QOR_atom_to_string(t, 1), "");
    QOR_destroy_atom_table(t);
}

TEST(Atoms, StringsWithACommonMiddleGetDifferentAtoms) {
    QOR_atom_table *t = QOR_create_atom_table("t", 0, 0, 0);
    const char *a = "aaaa/common-middle!/aaaa";
    const char *b = "bbbb/common-middle!/bbbb";
    ASSERT_EQ(QOR_ASSOC_string_hash(nullptr, a), QOR_ASSOC_string_hash(nullptr, b));
    EXPECT_EQ(QOR_string_to_atom(t, a), 1);
    EXPECT_EQ(QOR_string_to_atom(t, b), 2);
    EXPECT_EQ(QOR_string_to_existing_atom(t, a), 1);
    EXPECT_EQ(QOR_string_to_existing_atom(t, b), 2);
    QOR_destroy_atom_table(t);
}

TEST(Atoms, DefaultIncrementGivesTwoHundredFiftySixSlotsThenFiveHundredTwelve) {
    QOR_atom_table *t = QOR_create_atom_table("t", 0, 0, 0);
    QOR_string_to_atom(t, "s1");
    EXPECT_EQ(t->capacity, 256);
    char buf[16];
    for (int i = 2; i <= 256; ++i) {
        snprintf(buf, sizeof buf, "s%d", i);
        ASSERT_EQ(QOR_string_to_atom(t, buf), i);
    }
    EXPECT_EQ(t->capacity, 256);
    EXPECT_EQ(QOR_string_to_atom(t, "s257"), 257);
    EXPECT_EQ(t->capacity, 512);
    // Every string is still where its atom says, after the array moved.
    for (int i = 1; i <= 257; ++i) {
        snprintf(buf, sizeof buf, "s%d", i);
        ASSERT_STREQ(QOR_atom_to_string(t, i), buf);
    }
    QOR_destroy_atom_table(t);
}

TEST(Atoms, UniqueAtomsGrowTheArrayToo) {
    QOR_atom_table *t = QOR_create_atom_table("t", 2, 0, 0);
    QOR_unique_atom(t);
    QOR_unique_atom(t);
    EXPECT_EQ(t->capacity, 2);
    EXPECT_EQ(QOR_unique_atom(t), 3);
    EXPECT_EQ(t->capacity, 4);
    EXPECT_EQ(QOR_string_to_atom(t, "x"), 4);
    EXPECT_STREQ(QOR_atom_to_string(t, 4), "x");
    EXPECT_EQ(QOR_atom_to_string(t, 3), nullptr);
    QOR_destroy_atom_table(t);
}

TEST(Atoms, AFixedTableKeepsItsBucketsAGrowingOneGrows) {
    QOR_atom_table *fixed = QOR_create_atom_table("fixed", 0, 64, 1);
    QOR_atom_table *growing = QOR_create_atom_table("growing", 0, 64, 0);
    char buf[16];
    for (int i = 1; i <= 500; ++i) {
        snprintf(buf, sizeof buf, "w%d", i);
        ASSERT_EQ(QOR_string_to_atom(fixed, buf), i);
        ASSERT_EQ(QOR_string_to_atom(growing, buf), i);
    }
    EXPECT_EQ(fixed->assoc.mask, 63u);
    EXPECT_EQ(growing->assoc.mask, 511u);
    for (int i = 1; i <= 500; ++i) {
        snprintf(buf, sizeof buf, "w%d", i);
        ASSERT_EQ(QOR_string_to_existing_atom(fixed, buf), i);
        ASSERT_EQ(QOR_string_to_existing_atom(growing, buf), i);
    }
    QOR_destroy_atom_table(growing);
    QOR_destroy_atom_table(fixed);
}

TEST(Atoms, ReportUsesTheAtomPrinter) {
    QOR_atom_table *t = QOR_create_atom_table("atoms", 0, 0, 0);
    QOR_string_to_atom(t, "b");   // hash 98, bucket 2
    QOR_string_to_atom(t, "a");   // hash 97, bucket 1
    QOR_string_to_atom(t, "ab");  // hash 486, bucket 6
    QOR_ASSOC_entry *a = QOR_ASSOC_table_find(&t->assoc, "a");
    QOR_ASSOC_entry *b = QOR_ASSOC_table_find(&t->assoc, "b");
    QOR_ASSOC_entry *ab = QOR_ASSOC_table_find(&t->assoc, "ab");
    ErrLog cap;
    QOR_ASSOC_table_report(stderr, &t->assoc);
    EXPECT_EQ(cap.take(),
              "ASSOC table report for atoms :-\nHash size: 32.\t\tEntries: 3.\n" +
                  atom_line(a, 1) + atom_line(b, 2) + atom_line(ab, 6));
    EXPECT_EQ(atom_line(a, 1),
              "0x00000061\t1\t(" + hex(QOR_atom_to_string(t, 2)) + ", a) : 2\n");
    QOR_destroy_atom_table(t);
}

TEST(Atoms, TracedTableShowsItsInsertionsWithTheAtomPrinter) {
    QOR_atom_table *t = QOR_create_atom_table("tr", 0, 0, 0);
    t->assoc.trace = 1;
    const char *q = "q";
    ErrLog cap;
    QOR_string_to_atom(t, "a");
    QOR_string_to_atom(t, "a");  // found: not traced
    QOR_string_to_existing_atom(t, q);
    const std::string kept = hex(QOR_atom_to_string(t, 1));
    EXPECT_EQ(cap.take(),
              "-- ASSOC table tr: inserted: 0x00000061\t1\t(" + kept + ", a) : 1\n"
              "-- ASSOC table tr: failed to find (" + hex(q) + ", q)\n");
    QOR_destroy_atom_table(t);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: destroying\n");
}

TEST(Atoms, AScanVisitsEveryAtomEntry) {
    QOR_atom_table *t = QOR_create_atom_table("t", 0, 0, 0);
    QOR_string_to_atom(t, "x");
    QOR_string_to_atom(t, "y");
    QOR_unique_atom(t);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(&t->assoc, nullptr);
    int seen = 0;
    while (QOR_ASSOC_scan_next(s) != nullptr) ++seen;
    EXPECT_EQ(seen, 2);
    QOR_destroy_atom_table(t);  // the scan goes with the table
}

TEST(Atoms, DestroyingATableThatNeverMadeAnAtomIsAnAssertionFailure) {
    auto r = qor_test::run_in_child([] {
        QOR_atom_table *t = QOR_create_atom_table("empty", 0, 0, 0);
        QOR_destroy_atom_table(t);
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        r.err,
        "Error: QOR Message System unavailable - output_message\n"
        "Untranslated message: set=File basic_space, Line [0-9]+: QOR_free "
        "called with NULL pointer, number=-1, type=4\n"))
        << r.err;
}

TEST(Atoms, DestroyingATableThatNeverMadeAnAtomJumpsToTheArmedHandler) {
    QOR_atom_table *t = QOR_create_atom_table("empty", 0, 0, 0);
    ErrLog cap;
    volatile int jumped = setjmp(QOR_fatal_handler);
    if (jumped == 0) {
        QOR_exception_handler_state = 1;
        QOR_destroy_atom_table(t);
        ADD_FAILURE() << "returned";
    }
    QOR_exception_handler_state = 0;
    EXPECT_EQ(jumped, 1);
    EXPECT_NE(cap.take().find("QOR_free called with NULL pointer"),
              std::string::npos);
    // The freestore went first; the table record is still registered.
    EXPECT_EQ(QOR_ASSOC_tables, &t->assoc);
    EXPECT_EQ(t->freestore.first_chunk, nullptr);
    t->strings = static_cast<char **>(QOR_malloc(8));
    QOR_destroy_atom_table(t);
}

// ---- Model ------------------------------------------------------------------

TEST(AtomsModel, AgainstAMapOverSeveralSeeds) {
    for (unsigned seed : {21u, 22u, 23u, 24u}) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        QOR_atom_table *t = QOR_create_atom_table(
            "model", rng() % 3, rng() % 100, static_cast<int>(rng() % 2));
        std::map<std::string, int> atom_of;
        std::map<int, std::string> string_of;  // unique atoms absent
        int next = 1;
        // Strings of every length mod 8, so that entries land at every
        // 4-byte alignment in the freestore, and long ones sharing a middle.
        std::vector<std::string> pool;
        for (int i = 0; i < 300; ++i) {
            std::string s(static_cast<size_t>(i % 19), 'a' + static_cast<char>(i % 26));
            s += std::to_string(i);
            if (i % 7 == 0) s = "lead" + std::to_string(i) + "/the-same-middle/" + std::to_string(i);
            pool.push_back(s);
        }
        for (int op = 0; op < 6000; ++op) {
            const std::string &s = pool[rng() % pool.size()];
            switch (rng() % 5) {
                case 0:
                case 1: {
                    const int a = QOR_string_to_atom(t, s.c_str());
                    auto it = atom_of.find(s);
                    if (it == atom_of.end()) {
                        ASSERT_EQ(a, next);
                        atom_of[s] = a;
                        string_of[a] = s;
                        ++next;
                    } else {
                        ASSERT_EQ(a, it->second);
                    }
                    break;
                }
                case 2: {
                    auto it = atom_of.find(s);
                    ASSERT_EQ(QOR_string_to_existing_atom(t, s.c_str()),
                              it == atom_of.end() ? 0 : it->second);
                    break;
                }
                case 3: {
                    const int a = static_cast<int>(rng() % static_cast<unsigned>(next + 3)) - 1;
                    const char *got = QOR_atom_to_string(t, a);
                    auto it = string_of.find(a);
                    if (it == string_of.end()) {
                        ASSERT_EQ(got, nullptr) << a;
                    } else {
                        ASSERT_NE(got, nullptr) << a;
                        ASSERT_EQ(std::string(got), it->second);
                    }
                    break;
                }
                case 4:
                    if (rng() % 8 == 0) {
                        ASSERT_EQ(QOR_unique_atom(t), next++);
                    }
                    break;
            }
            ASSERT_EQ(t->next_atom, next);
            ASSERT_EQ(static_cast<size_t>(t->assoc.count), atom_of.size());
        }
        if (next == 1) QOR_unique_atom(t);
        QOR_destroy_atom_table(t);
        EXPECT_EQ(QOR_ASSOC_tables, nullptr);
    }
}
