// ASSOC tables: creation, growth, lookups and duplicates, removal, scans,
// reports and traces, key types and hooks.
#include <gtest/gtest.h>
#include <setjmp.h>
#include <string.h>

#include <algorithm>

#include <string>
#include <vector>

#include "containers_support.h"
#include "harness.h"

using namespace containers_test;

namespace {

QOR_ASSOC_table *string_table(int size = 0, const char *name = "t") {
    return QOR_ASSOC_table_create(size, QOR_ASSOC_string_key_type, name,
                                  nullptr);
}
QOR_ASSOC_table *long_table(int size = 0, const char *name = "l") {
    return QOR_ASSOC_table_create(size, QOR_ASSOC_long_int_key_type, name,
                                  nullptr);
}

int bucket(QOR_ASSOC_table *t, QOR_ASSOC_entry *e) {
    return static_cast<int>(e->hash & t->mask);
}

// The entries of one chain, head first.
std::vector<QOR_ASSOC_entry *> chain(QOR_ASSOC_table *t, uint64_t b) {
    std::vector<QOR_ASSOC_entry *> out;
    for (QOR_ASSOC_entry *e = t->buckets[b]; e != nullptr; e = e->next)
        out.push_back(e);
    return out;
}

}  // namespace

// ---- Key types and records ------------------------------------------------

TEST(AssocKeyTypes, StringKeyTypeIsStaticDataWithTheLibraryHooks) {
    const QOR_ASSOC_key_type *k = QOR_ASSOC_string_key_type;
    expect_library_hooks(k);
    EXPECT_EQ(k->hash, &QOR_ASSOC_string_hash);
    EXPECT_EQ(k->cmp, &QOR_ASSOC_string_cmp);
    EXPECT_EQ(k->print_key, &QOR_ASSOC_string_print_key);
    EXPECT_EQ(k->print, &QOR_ASSOC_string_print);
    EXPECT_EQ(k->entry_alloc, &QOR_ASSOC_string_alloc);
    EXPECT_EQ(k->entry_free, &QOR_ASSOC_string_free);
    EXPECT_EQ(k->entry_size, sizeof(QOR_ASSOC_string_entry));
    EXPECT_EQ(k->table_size, sizeof(QOR_ASSOC_table));
    EXPECT_EQ(k->fixed_size, 0);
}

TEST(AssocKeyTypes, LongIntKeyTypeIsStaticDataWithTheLibraryHooks) {
    const QOR_ASSOC_key_type *k = QOR_ASSOC_long_int_key_type;
    expect_library_hooks(k);
    EXPECT_EQ(k->hash, &QOR_ASSOC_long_int_hash);
    EXPECT_EQ(k->cmp, &QOR_ASSOC_long_int_cmp);
    EXPECT_EQ(k->print_key, &QOR_ASSOC_long_int_print_key);
    EXPECT_EQ(k->print, &QOR_ASSOC_long_int_print);
    EXPECT_EQ(k->entry_alloc, &QOR_ASSOC_long_int_alloc);
    EXPECT_EQ(k->entry_free, &QOR_ASSOC_entry_free);
    EXPECT_EQ(k->entry_size, sizeof(QOR_ASSOC_long_int_entry));
    EXPECT_EQ(k->table_size, sizeof(QOR_ASSOC_table));
    EXPECT_EQ(k->fixed_size, 0);
}

TEST(AssocKeyTypes, RegistryStartsEmpty) {
    EXPECT_EQ(QOR_ASSOC_tables, nullptr);
}

TEST(AssocKeyTypes, DefaultHooksGiveZeroedBlocksOfTheSize) {
    auto *t = static_cast<unsigned char *>(
        static_cast<void *>(QOR_ASSOC_table_alloc(nullptr, 40, val(1))));
    auto *h = reinterpret_cast<unsigned char *>(QOR_ASSOC_hash_alloc(nullptr, 24));
    auto *e = reinterpret_cast<unsigned char *>(
        QOR_ASSOC_entry_alloc(nullptr, 48, "k", val(2)));
    auto *s = reinterpret_cast<unsigned char *>(
        QOR_ASSOC_scan_alloc(nullptr, 16, val(3)));
    for (int i = 0; i < 40; ++i) EXPECT_EQ(t[i], 0);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(h[i], 0);
    for (int i = 0; i < 48; ++i) EXPECT_EQ(e[i], 0);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(s[i], 0);
    QOR_ASSOC_table_free(nullptr, reinterpret_cast<QOR_ASSOC_table *>(t), 40);
    QOR_ASSOC_hash_free(nullptr, reinterpret_cast<QOR_ASSOC_entry **>(h), 24);
    QOR_ASSOC_entry_free(nullptr, reinterpret_cast<QOR_ASSOC_entry *>(e), 48);
    QOR_ASSOC_scan_free(nullptr, reinterpret_cast<QOR_ASSOC_scan *>(s), 16);
}

// ---- Hashes ---------------------------------------------------------------

TEST(AssocStringHash, ShortKeysHashEveryByte) {
    EXPECT_EQ(QOR_ASSOC_string_hash(nullptr, ""), 0u);
    EXPECT_EQ(QOR_ASSOC_string_hash(nullptr, "a"), 97u);
    EXPECT_EQ(QOR_ASSOC_string_hash(nullptr, "ab"), 97u * 4 + 98);
    uint64_t h = 0;
    for (const char *p = "abcdefghijklmn"; *p; ++p) h = h * 4 + *p;
    EXPECT_EQ(QOR_ASSOC_string_hash(nullptr, "abcdefghijklmn"), h);
}

TEST(AssocStringHash, BytesFromTheHighHalfCountAsUnsigned) {
    EXPECT_EQ(QOR_ASSOC_string_hash(nullptr, "\xff\x80"), 255u * 4 + 128);
}

TEST(AssocStringHash, LongKeysHashOnlyTheirMiddleFourteenBytes) {
    // 15 bytes: (15 - 14) / 2 = 0, so the last byte is left out.
    EXPECT_EQ(QOR_ASSOC_string_hash(nullptr, "abcdefghijklmnX"),
              QOR_ASSOC_string_hash(nullptr, "abcdefghijklmn"));
    // 16 bytes: starts at 1, ends before the last byte.
    EXPECT_EQ(QOR_ASSOC_string_hash(nullptr, "XabcdefghijklmnY"),
              QOR_ASSOC_string_hash(nullptr, "abcdefghijklmn"));
    // 20 bytes: starts at 3.
    EXPECT_EQ(QOR_ASSOC_string_hash(nullptr, "123abcdefghijklmn456"),
              QOR_ASSOC_string_hash(nullptr, "abcdefghijklmn"));
}

TEST(AssocStringHash, KeysDifferingOutsideTheMiddleCollideAndCmpTellsThemApart) {
    const char *a = "left/abcdefghijklmn/right";
    const char *b = "LEFT/abcdefghijklmn/RIGHT";
    ASSERT_EQ(QOR_ASSOC_string_hash(nullptr, a),
              QOR_ASSOC_string_hash(nullptr, b));
    QOR_ASSOC_table *t = string_table();
    int found = -1;
    QOR_ASSOC_entry *ea = QOR_ASSOC_table_insert(t, a, val(1), &found);
    EXPECT_EQ(found, 0);
    QOR_ASSOC_entry *eb = QOR_ASSOC_table_insert(t, b, val(2), &found);
    EXPECT_EQ(found, 0);
    EXPECT_NE(ea, eb);
    EXPECT_EQ(ea->hash, eb->hash);
    EXPECT_EQ(t->count, 2);
    EXPECT_EQ(QOR_ASSOC_table_find(t, a), ea);
    EXPECT_EQ(QOR_ASSOC_table_find(t, b), eb);
    EXPECT_EQ(QOR_ASSOC_table_find(t, "left/abcdefghijklmn/RIGHT"), nullptr);
    EXPECT_EQ(QOR_ASSOC_string_cmp(t, ea, a), 1);
    EXPECT_EQ(QOR_ASSOC_string_cmp(t, ea, b), 0);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocLongIntHash, TheKeyIsItsOwnHash) {
    EXPECT_EQ(QOR_ASSOC_long_int_hash(nullptr, lkey(12345)), 12345u);
    EXPECT_EQ(QOR_ASSOC_long_int_hash(nullptr, lkey(-1)), UINT64_MAX);
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *e = QOR_ASSOC_table_insert(t, lkey(-7), val(9), nullptr);
    EXPECT_EQ(e->hash, static_cast<uint64_t>(-7L));
    EXPECT_EQ(QOR_ASSOC_long_int_cmp(t, e, lkey(-7)), 1);
    EXPECT_EQ(QOR_ASSOC_long_int_cmp(t, e, lkey(7)), 0);
    EXPECT_EQ(L(e)->value, val(9));
    EXPECT_EQ(QOR_ASSOC_table_find(t, lkey(-7)), e);
    QOR_ASSOC_table_destroy(t);
}

// ---- Creation, registry ---------------------------------------------------

TEST(AssocCreate, SmallSizesGiveThirtyTwoBuckets) {
    for (int size : {0, 1, 32, -5}) {
        QOR_ASSOC_table *t = string_table(size);
        EXPECT_EQ(t->mask, 31u) << size;
        QOR_ASSOC_table_destroy(t);
    }
}

TEST(AssocCreate, LargerSizesRoundUpToAPowerOfTwo) {
    const std::pair<int, uint64_t> cases[] = {{33, 64}, {64, 64}, {100, 128},
                                              {1000, 1024}};
    for (auto [size, buckets] : cases) {
        QOR_ASSOC_table *t = string_table(size);
        EXPECT_EQ(t->mask + 1, buckets) << size;
        QOR_ASSOC_table_destroy(t);
    }
}

TEST(AssocCreate, TableStartsEmptyWithAPrivateCopyOfItsName) {
    char name[] = "mine";
    QOR_ASSOC_table *t = string_table(0, name);
    EXPECT_NE(t->name, name);
    EXPECT_STREQ(t->name, "mine");
    name[0] = 'X';
    EXPECT_STREQ(t->name, "mine");
    EXPECT_EQ(t->count, 0);
    EXPECT_EQ(t->scans, nullptr);
    EXPECT_EQ(t->key_type, QOR_ASSOC_string_key_type);
    EXPECT_EQ(t->trace, 0);
    EXPECT_EQ(t->fixed_size, 0);
    for (uint64_t b = 0; b <= t->mask; ++b) EXPECT_EQ(t->buckets[b], nullptr);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocCreate, RegistryHoldsLiveTablesNewestFirst) {
    QOR_ASSOC_table *a = string_table(0, "a");
    QOR_ASSOC_table *b = long_table(0, "b");
    QOR_ASSOC_table *c = string_table(0, "c");
    EXPECT_EQ(QOR_ASSOC_tables, c);
    EXPECT_EQ(c->prev, nullptr);
    EXPECT_EQ(c->next, b);
    EXPECT_EQ(b->prev, c);
    EXPECT_EQ(b->next, a);
    EXPECT_EQ(a->prev, b);
    EXPECT_EQ(a->next, nullptr);
    QOR_ASSOC_table_destroy(b);  // from the middle
    EXPECT_EQ(c->next, a);
    EXPECT_EQ(a->prev, c);
    QOR_ASSOC_table_destroy(c);  // the head
    EXPECT_EQ(QOR_ASSOC_tables, a);
    EXPECT_EQ(a->prev, nullptr);
    QOR_ASSOC_table_destroy(a);
    EXPECT_EQ(QOR_ASSOC_tables, nullptr);
}

// ---- Growth -----------------------------------------------------------------

namespace {

// The mask a table had when each entry was allocated.
std::vector<uint64_t> masks_at_alloc;

QOR_ASSOC_entry *recording_alloc(QOR_ASSOC_table *t, uint32_t size,
                                 const void *key, void *value) {
    masks_at_alloc.push_back(t->mask);
    return QOR_ASSOC_string_alloc(t, size, key, value);
}

}  // namespace

TEST(AssocGrowth, ThirtyThirdEntryDoublesTheBucketsBeforeItIsLinked) {
    QOR_ASSOC_key_type kt = *QOR_ASSOC_string_key_type;
    kt.entry_alloc = recording_alloc;
    masks_at_alloc.clear();
    QOR_ASSOC_table *t = QOR_ASSOC_table_create(0, &kt, "g", nullptr);
    char key[16];
    for (int i = 0; i < 32; ++i) {
        snprintf(key, sizeof key, "k%d", i);
        QOR_ASSOC_table_insert(t, key, val(i), nullptr);
    }
    EXPECT_EQ(t->mask, 31u);
    EXPECT_EQ(t->count, 32);
    QOR_ASSOC_entry *e = QOR_ASSOC_table_insert(t, "k32", val(32), nullptr);
    EXPECT_EQ(t->mask, 63u);
    ASSERT_EQ(masks_at_alloc.size(), 33u);
    EXPECT_EQ(masks_at_alloc[31], 31u);
    EXPECT_EQ(masks_at_alloc[32], 63u);
    // Linked in its chain of the grown table.
    auto c = chain(t, e->hash & 63);
    ASSERT_FALSE(c.empty());
    EXPECT_EQ(c.front(), e);
    // Every entry is still found.
    for (int i = 0; i <= 32; ++i) {
        snprintf(key, sizeof key, "k%d", i);
        QOR_ASSOC_entry *f = QOR_ASSOC_table_find(t, key);
        ASSERT_NE(f, nullptr) << key;
        EXPECT_EQ(S(f)->value, val(i));
    }
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocGrowth, FixedSizeTableNeverGrowsAndReportsThirtyTwo) {
    QOR_ASSOC_table *t = long_table();
    t->fixed_size = 1;
    for (long i = 0; i < 500; ++i) QOR_ASSOC_table_insert(t, lkey(i), val(i), nullptr);
    EXPECT_EQ(t->mask, 31u);
    EXPECT_EQ(t->count, 500);
    ErrLog cap;
    QOR_ASSOC_table_report(stderr, t);
    std::string out = cap.take();
    EXPECT_EQ(out.substr(0, out.find('\n', out.find('\n') + 1) + 1),
              "ASSOC table report for l :-\nHash size: 32.\t\tEntries: 500.\n");
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocGrowth, GrowthDoublesUntilTheCountFits) {
    QOR_ASSOC_table *t = long_table();
    t->fixed_size = 1;
    for (long i = 0; i < 200; ++i) QOR_ASSOC_table_insert(t, lkey(i), val(i), nullptr);
    t->fixed_size = 0;
    QOR_ASSOC_table_insert(t, lkey(1000), val(0), nullptr);
    // 64 and 128 are below 200; 256 is the first that is not.
    EXPECT_EQ(t->mask, 255u);
    for (long i = 0; i < 200; ++i) EXPECT_NE(QOR_ASSOC_table_find(t, lkey(i)), nullptr);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocGrowth, GrowthReversesEntriesThatShareAChain) {
    QOR_ASSOC_table *t = long_table();
    // 1, 65 and 129 share bucket 1 with 32 and with 64 buckets.
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(1), val(1), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, lkey(65), val(2), nullptr);
    QOR_ASSOC_entry *c = QOR_ASSOC_table_insert(t, lkey(129), val(3), nullptr);
    EXPECT_EQ(chain(t, 1), (std::vector<QOR_ASSOC_entry *>{c, b, a}));
    for (long i = 2; i < 32; ++i) QOR_ASSOC_table_insert(t, lkey(i), val(0), nullptr);
    ASSERT_EQ(t->count, 33);  // the 33rd insertion grew the table
    ASSERT_EQ(t->mask, 63u);
    // All three still share bucket 1 of 64, now oldest first.
    EXPECT_EQ(chain(t, 1), (std::vector<QOR_ASSOC_entry *>{a, b, c}));
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocGrowth, GrowthReversesDuplicatesSoFindReturnsTheOldest) {
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_entry *first = QOR_ASSOC_table_insert_dup(t, "dup", val(1));
    QOR_ASSOC_entry *second = QOR_ASSOC_table_insert_dup(t, "dup", val(2));
    QOR_ASSOC_entry *third = QOR_ASSOC_table_insert_dup(t, "dup", val(3));
    EXPECT_EQ(QOR_ASSOC_table_find(t, "dup"), third);
    char key[16];
    for (int i = 0; i < 30; ++i) {
        snprintf(key, sizeof key, "x%d", i);
        QOR_ASSOC_table_insert(t, key, val(0), nullptr);
    }
    EXPECT_EQ(t->mask, 63u);
    EXPECT_EQ(QOR_ASSOC_table_find(t, "dup"), first);
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, "dup", first), second);
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, "dup", second), third);
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, "dup", third), nullptr);
    QOR_ASSOC_table_destroy(t);
}

// ---- Insert, find, remove ----------------------------------------------------

TEST(AssocInsert, ExistingKeyReturnsTheOldEntryUnchanged) {
    QOR_ASSOC_table *t = string_table();
    int found = -1;
    QOR_ASSOC_entry *e = QOR_ASSOC_table_insert(t, "k", val(1), &found);
    EXPECT_EQ(found, 0);
    EXPECT_EQ(S(e)->value, val(1));
    QOR_ASSOC_entry *again = QOR_ASSOC_table_insert(t, "k", val(2), &found);
    EXPECT_EQ(found, 1);
    EXPECT_EQ(again, e);
    EXPECT_EQ(S(e)->value, val(1));
    EXPECT_EQ(t->count, 1);
    EXPECT_EQ(QOR_ASSOC_table_insert(t, "k", val(3), nullptr), e);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocInsert, KeyIsAPrivateCopy) {
    QOR_ASSOC_table *t = string_table();
    char key[] = "abc";
    QOR_ASSOC_entry *e = QOR_ASSOC_table_insert(t, key, val(1), nullptr);
    EXPECT_NE(S(e)->key, key);
    key[0] = 'z';
    EXPECT_STREQ(S(e)->key, "abc");
    EXPECT_EQ(QOR_ASSOC_table_find(t, "abc"), e);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocInsert, ReplaceOfAnExistingKeyFreesTheOldEntry) {
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_table_insert(t, "k", val(1), nullptr);
    int replaced = -1;
    QOR_ASSOC_entry *e = QOR_ASSOC_table_insert_replace(t, "k", val(2), &replaced);
    EXPECT_EQ(replaced, 1);
    EXPECT_EQ(S(e)->value, val(2));
    EXPECT_EQ(t->count, 1);
    EXPECT_EQ(QOR_ASSOC_table_find(t, "k"), e);
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, "k", e), nullptr);
    QOR_ASSOC_entry *n = QOR_ASSOC_table_insert_replace(t, "new", val(3), &replaced);
    EXPECT_EQ(replaced, 0);
    EXPECT_EQ(S(n)->value, val(3));
    EXPECT_EQ(t->count, 2);
    EXPECT_NE(QOR_ASSOC_table_insert_replace(t, "new", val(4), nullptr), nullptr);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocInsert, ReplaceRemovesOnlyTheNewestOfSeveralDuplicates) {
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert_dup(t, "k", val(1));
    QOR_ASSOC_table_insert_dup(t, "k", val(2));
    QOR_ASSOC_entry *c = QOR_ASSOC_table_insert_replace(t, "k", val(3), nullptr);
    EXPECT_EQ(t->count, 2);
    EXPECT_EQ(QOR_ASSOC_table_find(t, "k"), c);
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, "k", c), a);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocInsert, ThreeDuplicatesAreFoundNewestFirst) {
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_entry *e1 = QOR_ASSOC_table_insert_dup(t, "k", val(1));
    QOR_ASSOC_entry *e2 = QOR_ASSOC_table_insert_dup(t, "k", val(2));
    QOR_ASSOC_entry *e3 = QOR_ASSOC_table_insert_dup(t, "k", val(3));
    EXPECT_EQ(t->count, 3);
    EXPECT_EQ(QOR_ASSOC_table_find(t, "k"), e3);
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, "k", nullptr), e3);
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, "k", e3), e2);
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, "k", e2), e1);
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, "k", e1), nullptr);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocFind, MissingKeyGivesNull) {
    QOR_ASSOC_table *t = string_table();
    EXPECT_EQ(QOR_ASSOC_table_find(t, "nothing"), nullptr);
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, "nothing", nullptr), nullptr);
    QOR_ASSOC_table_insert(t, "x", val(1), nullptr);
    EXPECT_EQ(QOR_ASSOC_table_find(t, "nothing"), nullptr);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocFind, FindDupUsesThePreviousEntrysHashNotTheKeys) {
    QOR_ASSOC_table *t = long_table();
    // 3 and 35 share bucket 3 of 32; their hashes differ.
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(3), val(1), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, lkey(35), val(2), nullptr);
    ASSERT_EQ(b->next, a);
    // From b (hash 35) looking for key 3: a has hash 3, not 35: no match.
    EXPECT_EQ(QOR_ASSOC_table_find_dup(t, lkey(3), b), nullptr);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocRemove, NullEntryIsIgnored) {
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_table_insert(t, "a", val(1), nullptr);
    QOR_ASSOC_table_remove(t, nullptr);
    EXPECT_EQ(t->count, 1);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocRemove, RemovesFromHeadMiddleAndTailOfAChain) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(5), val(1), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, lkey(37), val(2), nullptr);
    QOR_ASSOC_entry *c = QOR_ASSOC_table_insert(t, lkey(69), val(3), nullptr);
    QOR_ASSOC_entry *d = QOR_ASSOC_table_insert(t, lkey(101), val(4), nullptr);
    ASSERT_EQ(chain(t, 5), (std::vector<QOR_ASSOC_entry *>{d, c, b, a}));
    QOR_ASSOC_table_remove(t, c);
    EXPECT_EQ(chain(t, 5), (std::vector<QOR_ASSOC_entry *>{d, b, a}));
    QOR_ASSOC_table_remove(t, d);
    EXPECT_EQ(chain(t, 5), (std::vector<QOR_ASSOC_entry *>{b, a}));
    QOR_ASSOC_table_remove(t, a);
    EXPECT_EQ(chain(t, 5), (std::vector<QOR_ASSOC_entry *>{b}));
    EXPECT_EQ(t->count, 1);
    EXPECT_EQ(QOR_ASSOC_table_find(t, lkey(69)), nullptr);
    EXPECT_EQ(QOR_ASSOC_table_find(t, lkey(37)), b);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocRemove, AnEntryNotInTheTableIsAnAssertionFailure) {
    auto r = qor_test::run_in_child([] {
        QOR_ASSOC_table *t = long_table();
        QOR_ASSOC_table *other = long_table();
        QOR_ASSOC_table_insert(t, lkey(4), val(1), nullptr);
        QOR_ASSOC_entry *stray =
            QOR_ASSOC_table_insert(other, lkey(36), val(2), nullptr);
        QOR_ASSOC_table_remove(t, stray);
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        r.err,
        "Error: QOR Message System unavailable - output_message\n"
        "Untranslated message: set=File assoc, Line [0-9]+: "
        "QOR_ASSOC_table_remove called with an entry not in the table, "
        "number=-1, type=4\n"))
        << r.err;
}

TEST(AssocRemove, AnEntryNotInTheTableJumpsToTheArmedHandler) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_table *other = long_table();
    QOR_ASSOC_entry *stray = QOR_ASSOC_table_insert(other, lkey(36), val(2), nullptr);
    ErrLog cap;
    int jumped = setjmp(QOR_fatal_handler);
    if (jumped == 0) {
        QOR_exception_handler_state = 1;
        QOR_ASSOC_table_remove(t, stray);
        ADD_FAILURE() << "returned";
    }
    QOR_exception_handler_state = 0;
    EXPECT_EQ(jumped, 1);
    EXPECT_NE(cap.take().find("QOR_ASSOC_table_remove called with an entry "
                              "not in the table"),
              std::string::npos);
    EXPECT_EQ(t->count, 0);
    QOR_ASSOC_table_destroy(other);
    QOR_ASSOC_table_destroy(t);
}

// ---- Clear and destroy ----------------------------------------------------

TEST(AssocClear, RemovesAndFreesEveryEntry) {
    QOR_ASSOC_table *t = string_table();
    char key[16];
    for (int i = 0; i < 100; ++i) {
        snprintf(key, sizeof key, "c%d", i);
        QOR_ASSOC_table_insert(t, key, val(i), nullptr);
    }
    const uint64_t mask = t->mask;
    QOR_ASSOC_table_clear(t);
    EXPECT_EQ(t->count, 0);
    EXPECT_EQ(t->mask, mask);  // never shrinks
    for (uint64_t b = 0; b <= t->mask; ++b) EXPECT_EQ(t->buckets[b], nullptr);
    EXPECT_EQ(QOR_ASSOC_table_find(t, "c5"), nullptr);
    QOR_ASSOC_table_insert(t, "c5", val(5), nullptr);
    EXPECT_EQ(t->count, 1);
    QOR_ASSOC_table_destroy(t);
}

// ---- Scans ----------------------------------------------------------------

TEST(AssocScan, VisitsBucketsInOrderAndChainsFromTheirHeads) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(7), val(1), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, lkey(2), val(2), nullptr);
    QOR_ASSOC_entry *c = QOR_ASSOC_table_insert(t, lkey(39), val(3), nullptr);
    QOR_ASSOC_entry *d = QOR_ASSOC_table_insert(t, lkey(31), val(4), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(s->table, t);
    EXPECT_EQ(s->current, nullptr);
    EXPECT_EQ(s->pending, 0);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), b);
    EXPECT_EQ(s->current, b);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), c);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), a);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), d);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    EXPECT_EQ(s->current, nullptr);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, AScanThatReturnedNullStartsOverFromTheFirstEntry) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(1), val(1), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, lkey(2), val(2), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), a);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), b);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), a);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, ScanOfAnEmptyTableGivesNull) {
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, LastEntryOfTheLastBucketEndsTheScan) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *e = QOR_ASSOC_table_insert(t, lkey(31), val(1), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), e);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    EXPECT_EQ(s->current, nullptr);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, ScansAreListedNewestFirstAndUnlinkedOnDestroy) {
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_scan *a = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan *b = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan *c = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(t->scans, c);
    EXPECT_EQ(c->next, b);
    EXPECT_EQ(b->prev, c);
    EXPECT_EQ(b->next, a);
    EXPECT_EQ(a->prev, b);
    EXPECT_EQ(c->prev, nullptr);
    QOR_ASSOC_scan_destroy(b);
    EXPECT_EQ(c->next, a);
    EXPECT_EQ(a->prev, c);
    QOR_ASSOC_scan_destroy(c);
    EXPECT_EQ(t->scans, a);
    EXPECT_EQ(a->prev, nullptr);
    QOR_ASSOC_scan_destroy(a);
    EXPECT_EQ(t->scans, nullptr);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, RemovingTheCurrentEntryThroughTheTableAdvancesTheScan) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(1), val(1), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, lkey(2), val(2), nullptr);
    QOR_ASSOC_entry *c = QOR_ASSOC_table_insert(t, lkey(3), val(3), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), a);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), b);
    QOR_ASSOC_table_remove(t, b);
    EXPECT_EQ(s->pending, 1);
    EXPECT_EQ(s->current, c);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), c);
    EXPECT_EQ(s->pending, 0);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, RemovingTheCurrentEntryThroughTheScanAndASecondRemoveDoesNothing) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(1), val(1), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, lkey(33), val(2), nullptr);
    QOR_ASSOC_entry *c = QOR_ASSOC_table_insert(t, lkey(2), val(3), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), b);  // head of chain 1
    QOR_ASSOC_scan_remove(s);
    EXPECT_EQ(t->count, 2);
    QOR_ASSOC_scan_remove(s);  // pending: does nothing
    EXPECT_EQ(t->count, 2);
    EXPECT_EQ(QOR_ASSOC_table_find(t, lkey(1)), a);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), a);
    QOR_ASSOC_scan_remove(s);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), c);
    QOR_ASSOC_scan_remove(s);
    EXPECT_EQ(t->count, 0);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    QOR_ASSOC_scan_remove(s);  // current null: nothing to remove
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, RemovingTheLastEntryLeavesThePendingEnd) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(1), val(1), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), a);
    QOR_ASSOC_scan_remove(s);
    EXPECT_EQ(s->pending, 1);
    EXPECT_EQ(s->current, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, lkey(9), val(2), nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), b);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, EveryScanOnTheRemovedEntryMovesOn) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(1), val(1), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, lkey(2), val(2), nullptr);
    QOR_ASSOC_scan *s1 = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan *s2 = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan *s3 = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan_next(s1);
    QOR_ASSOC_scan_next(s2);
    QOR_ASSOC_scan_next(s3);
    QOR_ASSOC_scan_next(s3);  // s3 on b
    QOR_ASSOC_table_remove(t, a);
    EXPECT_EQ(QOR_ASSOC_scan_next(s1), b);
    EXPECT_EQ(QOR_ASSOC_scan_next(s2), b);
    EXPECT_EQ(s3->pending, 0);
    EXPECT_EQ(QOR_ASSOC_scan_next(s3), nullptr);
    QOR_ASSOC_table_destroy(t);  // destroys the three scans
}

TEST(AssocScan, APendingScanOnTheNextRemovedEntryMovesOnAgain) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(1), val(1), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, lkey(2), val(2), nullptr);
    QOR_ASSOC_entry *c = QOR_ASSOC_table_insert(t, lkey(3), val(3), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), a);
    QOR_ASSOC_table_remove(t, a);
    QOR_ASSOC_table_remove(t, b);
    EXPECT_EQ(s->pending, 1);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), c);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, AfterClearTheNextCallGivesNullAndTheOneAfterStartsOver) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_table_insert(t, lkey(1), val(1), nullptr);
    QOR_ASSOC_table_insert(t, lkey(2), val(2), nullptr);
    QOR_ASSOC_scan *on = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan *fresh = QOR_ASSOC_scan_create(t, nullptr);
    ASSERT_NE(QOR_ASSOC_scan_next(on), nullptr);
    QOR_ASSOC_table_clear(t);
    EXPECT_EQ(on->current, nullptr);
    EXPECT_EQ(on->pending, 1);
    EXPECT_EQ(fresh->pending, 0);  // it had no current entry
    EXPECT_EQ(QOR_ASSOC_scan_next(on), nullptr);
    QOR_ASSOC_entry *e = QOR_ASSOC_table_insert(t, lkey(5), val(5), nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(on), e);
    EXPECT_EQ(QOR_ASSOC_scan_next(fresh), e);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, ClearingAnEmptyTableLeavesScansAlone) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, lkey(1), val(1), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan_next(s);
    QOR_ASSOC_scan_remove(s);  // pending, current null
    QOR_ASSOC_scan *s2 = QOR_ASSOC_scan_create(t, nullptr);
    s2->current = a;  // a stale position, as left by nothing in particular
    QOR_ASSOC_table_clear(t);
    EXPECT_EQ(s->pending, 1);
    EXPECT_EQ(s2->current, a);
    EXPECT_EQ(s2->pending, 0);
    s2->current = nullptr;
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, EntriesInsertedAfterThePositionAreSeenOthersAreNot) {
    QOR_ASSOC_table *t = long_table();
    QOR_ASSOC_entry *e10 = QOR_ASSOC_table_insert(t, lkey(10), val(1), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), e10);
    QOR_ASSOC_table_insert(t, lkey(3), val(2), nullptr);  // before: not seen
    QOR_ASSOC_entry *e20 = QOR_ASSOC_table_insert(t, lkey(20), val(3), nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), e20);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, AGrowthLeavesScansUsable) {
    QOR_ASSOC_table *t = long_table();
    for (long i = 0; i < 32; ++i) QOR_ASSOC_table_insert(t, lkey(i), val(i), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    for (int i = 0; i < 10; ++i) ASSERT_NE(QOR_ASSOC_scan_next(s), nullptr);
    QOR_ASSOC_entry *at = s->current;
    QOR_ASSOC_table_insert(t, lkey(100), val(0), nullptr);
    ASSERT_EQ(t->mask, 63u);
    EXPECT_EQ(s->current, at);
    int rest = 0;
    while (QOR_ASSOC_scan_next(s) != nullptr) ++rest;
    EXPECT_GT(rest, 0);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, OperationsPositionTheScanOnTheirResult) {
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    int flag = -1;
    QOR_ASSOC_entry *a = QOR_ASSOC_scan_insert(s, "a", val(1), &flag);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(s->current, a);
    EXPECT_EQ(QOR_ASSOC_scan_insert(s, "a", val(2), &flag), a);
    EXPECT_EQ(flag, 1);
    QOR_ASSOC_entry *b = QOR_ASSOC_scan_insert_dup(s, "b", val(3));
    EXPECT_EQ(s->current, b);
    EXPECT_EQ(QOR_ASSOC_scan_find(s, "a"), a);
    EXPECT_EQ(s->current, a);
    EXPECT_EQ(QOR_ASSOC_scan_find(s, "zz"), nullptr);
    EXPECT_EQ(s->current, nullptr);
    QOR_ASSOC_entry *c = QOR_ASSOC_scan_insert_replace(s, "b", val(4), &flag);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(s->current, c);
    EXPECT_EQ(S(c)->value, val(4));
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, OperationsClearAPendingRemoval) {
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, "a", val(1), nullptr);
    QOR_ASSOC_table_insert(t, "b", val(2), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan_find(s, "b");
    QOR_ASSOC_scan_remove(s);
    ASSERT_EQ(s->pending, 1);
    EXPECT_EQ(QOR_ASSOC_scan_find(s, "a"), a);
    EXPECT_EQ(s->pending, 0);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, ReplacingTheEntryTheScanStandsOnLeavesItPending) {
    // The scan's own replace clears pending, then the removal inside the
    // table operation advances the scan and sets pending again; the new
    // entry is stored in current afterwards, so the next step returns it.
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_table_insert(t, "a", val(1), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan_find(s, "a");
    QOR_ASSOC_entry *n = QOR_ASSOC_scan_insert_replace(s, "a", val(2), nullptr);
    EXPECT_EQ(s->current, n);
    EXPECT_EQ(s->pending, 1);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), n);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, FindDupWalksAllEntriesOfAKey) {
    QOR_ASSOC_table *t = string_table();
    QOR_ASSOC_entry *e1 = QOR_ASSOC_table_insert_dup(t, "k", val(1));
    QOR_ASSOC_entry *e2 = QOR_ASSOC_table_insert_dup(t, "k", val(2));
    QOR_ASSOC_entry *e3 = QOR_ASSOC_table_insert_dup(t, "k", val(3));
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_find_dup(s, "k"), e3);
    EXPECT_EQ(QOR_ASSOC_scan_find_dup(s, "k"), e2);
    EXPECT_EQ(QOR_ASSOC_scan_find_dup(s, "k"), e1);
    EXPECT_EQ(QOR_ASSOC_scan_find_dup(s, "k"), nullptr);
    EXPECT_EQ(s->current, nullptr);
    EXPECT_EQ(QOR_ASSOC_scan_find_dup(s, "k"), e3);  // starts over
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocScan, FindDupFromAnEntryOfAnotherKeyComparesWithThatEntrysHash) {
    QOR_ASSOC_table *t = long_table();
    // Chain 4 of 32, head first: 100 (hash 100), 36, 4.
    QOR_ASSOC_entry *e4 = QOR_ASSOC_table_insert(t, lkey(4), val(1), nullptr);
    QOR_ASSOC_entry *e36 = QOR_ASSOC_table_insert(t, lkey(36), val(2), nullptr);
    QOR_ASSOC_entry *e100 = QOR_ASSOC_table_insert(t, lkey(100), val(3), nullptr);
    ASSERT_EQ(chain(t, 4), (std::vector<QOR_ASSOC_entry *>{e100, e36, e4}));
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    // Positioned on e100 by a scan step; looking for key 36 from there
    // compares against hash 100, which no successor has.
    ASSERT_EQ(QOR_ASSOC_scan_next(s), e100);
    EXPECT_EQ(QOR_ASSOC_scan_find_dup(s, lkey(36)), nullptr);
    // A key type whose entries share hashes: string keys with a common
    // middle. From one entry of the pair, the other key is found in the
    // same chain because its hash is equal.
    QOR_ASSOC_table *st = string_table();
    QOR_ASSOC_entry *x = QOR_ASSOC_table_insert(st, "aa-abcdefghijklmn-aa", val(1), nullptr);
    QOR_ASSOC_entry *y = QOR_ASSOC_table_insert(st, "bb-abcdefghijklmn-bb", val(2), nullptr);
    QOR_ASSOC_table_insert(st, "other", val(3), nullptr);
    QOR_ASSOC_scan *ss = QOR_ASSOC_scan_create(st, nullptr);
    QOR_ASSOC_scan_find(ss, "bb-abcdefghijklmn-bb");
    ASSERT_EQ(ss->current, y);
    EXPECT_EQ(QOR_ASSOC_scan_find_dup(ss, "aa-abcdefghijklmn-aa"), x);
    QOR_ASSOC_table_destroy(st);
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
}

// ---- Reports ----------------------------------------------------------------

TEST(AssocReport, StringTableReportIsByteExact) {
    QOR_ASSOC_table *t = string_table(0, "words");
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, "alpha", val(0x10), nullptr);
    QOR_ASSOC_entry *b = QOR_ASSOC_table_insert(t, "b", val(0xabcdef12345), nullptr);
    QOR_ASSOC_entry *c = QOR_ASSOC_table_insert_dup(t, "b", val(0));
    ErrLog cap;
    QOR_ASSOC_table_report(stderr, t);
    std::string expected =
        "ASSOC table report for words :-\nHash size: 32.\t\tEntries: 3.\n";
    // "b" hashes to 98 (bucket 2) and "alpha" to bucket
    // (hash & 31); list in bucket order.
    std::vector<std::pair<int, std::string>> lines = {
        {bucket(t, c), string_line(c, bucket(t, c)) + string_line(b, bucket(t, b))},
        {bucket(t, a), string_line(a, bucket(t, a))}};
    std::sort(lines.begin(), lines.end());
    for (auto &l : lines) expected += l.second;
    EXPECT_EQ(cap.take(), expected);
    EXPECT_EQ(string_line(b, 2), hex(98) + "\t2\t(" + hex(S(b)->key) +
                                     ", b): 0xabcdef12345\n");
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocReport, LongIntTableReportIsByteExact) {
    QOR_ASSOC_table *t = long_table(0, "numbers");
    QOR_ASSOC_table_insert(t, lkey(33), val(0x1234), nullptr);
    QOR_ASSOC_table_insert(t, lkey(1), val(7), nullptr);
    QOR_ASSOC_table_insert(t, lkey(-1), val(0), nullptr);
    ErrLog cap;
    QOR_ASSOC_table_report(stderr, t);
    EXPECT_EQ(cap.take(),
              "ASSOC table report for numbers :-\n"
              "Hash size: 32.\t\tEntries: 3.\n"
              "0x00000001\t1\t(0x00000001, 1): 0x00000007\n"
              "0x00000021\t1\t(0x00000021, 33): 0x00001234\n"
              "0xffffffffffffffff\t31\t(0xffffffffffffffff, -1): 0x00000000\n");
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocReport, EmptyTableReportHasOnlyItsHeader) {
    QOR_ASSOC_table *t = string_table(100, "empty");
    ErrLog cap;
    QOR_ASSOC_table_report(stderr, t);
    EXPECT_EQ(cap.take(),
              "ASSOC table report for empty :-\nHash size: 128.\t\tEntries: 0.\n");
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocReport, ReportGoesToTheStreamGiven) {
    QOR_ASSOC_table *t = long_table(0, "s");
    QOR_ASSOC_table_insert(t, lkey(2), val(3), nullptr);
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    QOR_ASSOC_table_report(f, t);
    fclose(f);
    EXPECT_EQ(std::string(buf, len),
              "ASSOC table report for s :-\nHash size: 32.\t\tEntries: 1.\n"
              "0x00000002\t2\t(0x00000002, 2): 0x00000003\n");
    free(buf);
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocReport, ByNameWithAnUnknownNamePrintsNothing) {
    QOR_ASSOC_table *t = string_table(0, "known");
    ErrLog cap;
    QOR_ASSOC_table_report_by_name(stderr, "unknown");
    EXPECT_EQ(cap.take(), "");
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocReport, ByNameReportsTheNewerOfTwoTablesWithTheName) {
    QOR_ASSOC_table *older = long_table(0, "same");
    QOR_ASSOC_table *newer = long_table(64, "same");
    QOR_ASSOC_table_insert(older, lkey(1), val(1), nullptr);
    ErrLog cap;
    QOR_ASSOC_table_report_by_name(stderr, "same");
    EXPECT_EQ(cap.take(),
              "ASSOC table report for same :-\nHash size: 64.\t\tEntries: 0.\n");
    QOR_ASSOC_table_destroy(newer);
    QOR_ASSOC_table_destroy(older);
}

TEST(AssocReport, PrintKeyFormats) {
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    const char *key = "kk";
    QOR_ASSOC_string_print_key(f, nullptr, key);
    QOR_ASSOC_long_int_print_key(f, nullptr, lkey(42));
    QOR_ASSOC_long_int_print_key(f, nullptr, lkey(-2));
    fclose(f);
    EXPECT_EQ(std::string(buf, len), "(" + hex(key) + ", kk)(0x0000002a, 42)"
                                     "(0xfffffffffffffffe, -2)");
    free(buf);
}

// ---- Traces ---------------------------------------------------------------

TEST(AssocTrace, EveryOperationWritesItsLine) {
    QOR_ASSOC_key_type kt = *QOR_ASSOC_string_key_type;
    kt.trace = 1;
    ErrLog cap;
    QOR_ASSOC_table *t = QOR_ASSOC_table_create(0, &kt, "tr", nullptr);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: created\n");

    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, "a", val(1), nullptr);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: inserted: " + string_line(a, 1));
    EXPECT_EQ(QOR_ASSOC_table_insert(t, "a", val(2), nullptr), a);
    EXPECT_EQ(cap.take(), "");  // the search part is not traced

    QOR_ASSOC_entry *d = QOR_ASSOC_table_insert_dup(t, "a", val(3));
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: inserted: " + string_line(d, 1));

    QOR_ASSOC_table_find(t, "a");
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: found " + string_line(d, 1));
    const char *missing = "zz";
    QOR_ASSOC_table_find(t, missing);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: failed to find (" +
                              hex(missing) + ", zz)\n");

    QOR_ASSOC_table_find_dup(t, "a", d);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: found " + string_line(a, 1));
    QOR_ASSOC_table_find_dup(t, "a", a);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: failed to find something\n");
    QOR_ASSOC_table_find_dup(t, "zz", nullptr);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: failed to find something\n");

    std::string removing = "-- ASSOC table tr: removing: " + string_line(d, 1);
    int replaced = 0;
    QOR_ASSOC_entry *r = QOR_ASSOC_table_insert_replace(t, "a", val(4), &replaced);
    EXPECT_EQ(replaced, 1);
    EXPECT_EQ(cap.take(),
              removing + "-- ASSOC table tr: inserted: " + string_line(r, 1));

    std::string line = string_line(r, 1);
    QOR_ASSOC_table_remove(t, r);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: removing: " + line);

    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: created scan\n");
    QOR_ASSOC_scan_next(s);
    EXPECT_EQ(cap.take(), "");  // steps are not traced
    QOR_ASSOC_scan_destroy(s);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: destroying scan\n");

    QOR_ASSOC_table_clear(t);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: clearing\n");
    QOR_ASSOC_table_clear(t);  // empty: the line still comes
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: clearing\n");

    QOR_ASSOC_table_destroy(t);
    EXPECT_EQ(cap.take(), "-- ASSOC table tr: destroying\n");
}

TEST(AssocTrace, LongIntLinesCarryTheBucketIndex) {
    QOR_ASSOC_table *t = long_table(0, "lt");
    t->trace = 1;
    ErrLog cap;
    QOR_ASSOC_table_insert(t, lkey(70), val(0xff), nullptr);
    QOR_ASSOC_table_find(t, lkey(71));
    QOR_ASSOC_table_find(t, lkey(70));
    EXPECT_EQ(cap.take(),
              "-- ASSOC table lt: inserted: 0x00000046\t6\t(0x00000046, 70): 0x000000ff\n"
              "-- ASSOC table lt: failed to find (0x00000047, 71)\n"
              "-- ASSOC table lt: found 0x00000046\t6\t(0x00000046, 70): 0x000000ff\n");
    QOR_ASSOC_table_destroy(t);
}

TEST(AssocTrace, DestroyingATableWithScansPrintsOnlyTheDestroyingLine) {
    QOR_ASSOC_table *t = string_table(0, "busy");
    QOR_ASSOC_table_insert(t, "a", val(1), nullptr);
    QOR_ASSOC_table_insert(t, "b", val(2), nullptr);
    QOR_ASSOC_scan *s1 = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_scan_next(s1);
    t->trace = 1;
    ErrLog cap;
    QOR_ASSOC_table_destroy(t);
    EXPECT_EQ(cap.take(), "-- ASSOC table busy: destroying\n");
    EXPECT_EQ(QOR_ASSOC_tables, nullptr);
}

TEST(AssocTrace, CreateTraceUsesTheCallersNameArgument) {
    QOR_ASSOC_key_type kt = *QOR_ASSOC_long_int_key_type;
    kt.trace = 1;
    ErrLog cap;
    QOR_ASSOC_table *t = QOR_ASSOC_table_create(0, &kt, "caller", nullptr);
    EXPECT_EQ(cap.take(), "-- ASSOC table caller: created\n");
    EXPECT_EQ(t->trace, 1);
    t->trace = 0;
    QOR_ASSOC_table_destroy(t);
    EXPECT_EQ(cap.take(), "");
}

// ---- Hooks of a caller's key type --------------------------------------------

namespace {

struct HookLog {
    std::vector<std::string> calls;
};
HookLog hook_log;

struct BigTable {
    QOR_ASSOC_table common;
    int extra;
};

QOR_ASSOC_table *log_table_alloc(const QOR_ASSOC_key_type *kt, uint32_t size,
                                 void *client) {
    hook_log.calls.push_back("table_alloc " + std::to_string(size) + " " +
                             std::to_string(reinterpret_cast<uintptr_t>(client)));
    return QOR_ASSOC_table_alloc(kt, size, client);
}
void log_table_init(const QOR_ASSOC_key_type *, QOR_ASSOC_table *t, void *client) {
    reinterpret_cast<BigTable *>(t)->extra = 77;
    hook_log.calls.push_back(
        "table_init " + std::to_string(t->mask) + " " +
        std::to_string(reinterpret_cast<uintptr_t>(client)));
}
void log_entry_init(QOR_ASSOC_table *, QOR_ASSOC_entry *e, const void *key, void *) {
    hook_log.calls.push_back("entry_init " + std::string(static_cast<const char *>(key)) +
                             " linked=" + std::to_string(e->hash != 0));
}
void log_scan_init(QOR_ASSOC_table *, QOR_ASSOC_scan *s, void *client) {
    hook_log.calls.push_back("scan_init " + std::to_string(s->table != nullptr) + " " +
                             std::to_string(reinterpret_cast<uintptr_t>(client)));
}
QOR_ASSOC_scan *log_scan_alloc(QOR_ASSOC_table *t, uint32_t size, void *client) {
    hook_log.calls.push_back("scan_alloc " + std::to_string(size));
    return QOR_ASSOC_scan_alloc(t, size, client);
}
void log_hash_free(QOR_ASSOC_table *t, QOR_ASSOC_entry **b, uint32_t size) {
    hook_log.calls.push_back("hash_free " + std::to_string(size));
    QOR_ASSOC_hash_free(t, b, size);
}
QOR_ASSOC_entry **log_hash_alloc(QOR_ASSOC_table *t, uint32_t size) {
    hook_log.calls.push_back("hash_alloc " + std::to_string(size));
    return QOR_ASSOC_hash_alloc(t, size);
}
void log_table_free(const QOR_ASSOC_key_type *kt, QOR_ASSOC_table *t, uint32_t size) {
    hook_log.calls.push_back("table_free " + std::to_string(size));
    QOR_ASSOC_table_free(kt, t, size);
}

// Entries kept by the caller: the table must never free them.
QOR_ASSOC_string_entry kept[4];
int kept_used = 0;
QOR_ASSOC_entry *kept_alloc(QOR_ASSOC_table *, uint32_t, const void *key, void *value) {
    QOR_ASSOC_string_entry *e = &kept[kept_used++];
    e->key = const_cast<char *>(static_cast<const char *>(key));
    e->value = value;
    return reinterpret_cast<QOR_ASSOC_entry *>(e);
}

}  // namespace

TEST(AssocHooks, EveryHookIsCalledWithItsArguments) {
    QOR_ASSOC_key_type kt = *QOR_ASSOC_string_key_type;
    kt.table_alloc = log_table_alloc;
    kt.table_init = log_table_init;
    kt.entry_init = log_entry_init;
    kt.scan_alloc = log_scan_alloc;
    kt.scan_init = log_scan_init;
    kt.hash_alloc = log_hash_alloc;
    kt.hash_free = log_hash_free;
    kt.table_free = log_table_free;
    kt.table_size = sizeof(BigTable);
    hook_log.calls.clear();
    QOR_ASSOC_table *t = QOR_ASSOC_table_create(40, &kt, "h", val(5));
    EXPECT_EQ(reinterpret_cast<BigTable *>(t)->extra, 77);
    QOR_ASSOC_table_insert(t, "key", val(1), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, val(9));
    QOR_ASSOC_scan_destroy(s);
    QOR_ASSOC_table_destroy(t);
    // table_init runs before the buckets exist (mask still 0).
    EXPECT_EQ(hook_log.calls,
              (std::vector<std::string>{
                  "table_alloc " + std::to_string(sizeof(BigTable)) + " 5",
                  "table_init 0 5", "hash_alloc 512", "entry_init key linked=1",
                  "scan_alloc " + std::to_string(sizeof(QOR_ASSOC_scan)),
                  "scan_init 1 9", "hash_free 512",
                  "table_free " + std::to_string(sizeof(BigTable))}));
}

TEST(AssocHooks, GrowthFreesTheOldArrayWithItsSize) {
    QOR_ASSOC_key_type kt = *QOR_ASSOC_long_int_key_type;
    kt.hash_alloc = log_hash_alloc;
    kt.hash_free = log_hash_free;
    hook_log.calls.clear();
    QOR_ASSOC_table *t = QOR_ASSOC_table_create(0, &kt, "g", nullptr);
    for (long i = 0; i < 33; ++i) QOR_ASSOC_table_insert(t, lkey(i), val(0), nullptr);
    QOR_ASSOC_table_destroy(t);
    EXPECT_EQ(hook_log.calls,
              (std::vector<std::string>{"hash_alloc 256", "hash_alloc 512",
                                        "hash_free 256", "hash_free 512"}));
}

TEST(AssocHooks, WithoutFreeHooksNothingIsFreedByTheTable) {
    QOR_ASSOC_key_type kt = *QOR_ASSOC_string_key_type;
    kt.entry_alloc = kept_alloc;
    kt.entry_free = nullptr;
    kt.hash_free = nullptr;
    kt.table_free = nullptr;
    kt.scan_free = nullptr;
    kept_used = 0;
    QOR_ASSOC_table *t = QOR_ASSOC_table_create(0, &kt, "kept", nullptr);
    QOR_ASSOC_entry *a = QOR_ASSOC_table_insert(t, "a", val(1), nullptr);
    QOR_ASSOC_table_insert(t, "b", val(2), nullptr);
    EXPECT_EQ(a, reinterpret_cast<QOR_ASSOC_entry *>(&kept[0]));
    QOR_ASSOC_table_remove(t, a);  // unlinked, not freed
    EXPECT_EQ(t->count, 1);
    QOR_ASSOC_table_clear(t);
    EXPECT_EQ(t->count, 0);
    QOR_ASSOC_table_insert(t, "c", val(3), nullptr);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    QOR_ASSOC_entry **buckets = t->buckets;
    // Destroy neither clears (no entry_free) nor frees what has no hook.
    QOR_ASSOC_table_destroy(t);
    EXPECT_STREQ(kept[2].key, "c");
    QOR_free(s);
    QOR_free(buckets);
    QOR_free(t);
}
