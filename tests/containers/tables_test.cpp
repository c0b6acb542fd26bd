// TABLEs and sequences: creation, growth (and its postponement under open
// sequences), key kinds and copies, a caller's comparison, duplicates,
// removal, sequences, reports and the sequence pool.
//
// Every table here is made in a freestore whose first piece is 4 bytes, so
// that the record and every entry sit at 4-byte alignment: the sanitizer
// build checks that nothing reads them as if they were aligned to 8.
#include <gtest/gtest.h>
#include <setjmp.h>
#include <string.h>

#include <string>
#include <vector>

#include "containers_support.h"

using namespace containers_test;

namespace {

class Table : public testing::Test {
  protected:
    void SetUp() override { QOR_FS_malloc(&fs, 4); }
    // Destroys the tables the test left, then their freestore.
    void TearDown() override {
        for (QOR_TABLE *t : tables)
            if (t != nullptr) QOR_TABLE_destroy(t);
        QOR_FS_destroy(&fs);
    }

    QOR_TABLE *make(unsigned long size, unsigned kind) {
        QOR_TABLE *t = QOR_TABLE_create(size, kind, &fs);
        tables.push_back(t);
        return t;
    }
    void destroy(QOR_TABLE *t) {
        QOR_TABLE_destroy(t);
        for (QOR_TABLE *&slot : tables)
            if (slot == t) slot = nullptr;
    }

    std::vector<QOR_TABLE_entry *> chain(QOR_TABLE *t, uint64_t b) {
        std::vector<QOR_TABLE_entry *> out;
        for (QOR_TABLE_entry *e = V(t)->buckets[b]; e != nullptr; e = V(e)->next)
            out.push_back(e);
        return out;
    }

    QOR_FS_allocator fs = QOR_FS_INITIALISER(2016, 0);
    std::vector<QOR_TABLE *> tables;
};

const char *text(QOR_TABLE_entry *e) {
    return static_cast<const char *>(V(e)->key);
}

int always_equal(const void *, const void *) { return 1; }
int never_equal(const void *, const void *) { return 0; }

}  // namespace

// ---- Creation -----------------------------------------------------------------

TEST_F(Table, SizesUpToTwoGiveTwoBucketsLargerOnesAPowerOfTwo) {
    const std::pair<unsigned long, uint64_t> cases[] = {
        {0, 2}, {1, 2}, {2, 2}, {3, 4}, {4, 4}, {5, 8}, {1000, 1024}};
    for (auto [size, buckets] : cases) {
        QOR_TABLE *t = make(size, 1);
        EXPECT_EQ(+V(t)->mask + 1, buckets) << size;
    }
}

TEST_F(Table, TheRecordIsAZeroFilledPieceOfTheFreestore) {
    QOR_TABLE *t = make(8, 1);
    const char *start = reinterpret_cast<const char *>(fs.current_chunk);
    EXPECT_GT(reinterpret_cast<const char *>(t), start);
    EXPECT_LT(reinterpret_cast<const char *>(t), start + fs.current_chunk->size);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(t) % 8, 4u);  // as the fixture wants
    EXPECT_EQ(+V(t)->kind, 1u);
    EXPECT_EQ(+V(t)->count, 0u);
    EXPECT_EQ(+V(t)->sequences, nullptr);
    EXPECT_EQ(+V(t)->fixed_size, 0);
    EXPECT_EQ(+V(t)->compare, nullptr);
    EXPECT_EQ(+V(t)->freestore, &fs);
    for (uint64_t b = 0; b <= +V(t)->mask; ++b) EXPECT_EQ(V(t)->buckets[b], nullptr);
}

TEST_F(Table, StringHashOfAbIs2717) {
    QOR_TABLE *t = make(0, 1);
    EXPECT_EQ(V(t)->hash("ab"), 2717u);
    EXPECT_EQ(V(t)->hash(""), 0u);
    EXPECT_EQ(V(t)->hash("a"), 97u);
}

TEST_F(Table, StringHashTakesHighBytesAsNegative) {
    QOR_TABLE *t = make(0, 1);
    EXPECT_EQ(V(t)->hash("\xff"), UINT64_MAX);  // -1
    EXPECT_EQ(V(t)->hash("a\x80"), 27u * 97 - 128);
}

TEST_F(Table, OtherKindsHashThePointerItself) {
    QOR_TABLE *t0 = make(0, 0);
    QOR_TABLE *t2 = make(0, 2);
    const char *k = "ab";
    EXPECT_EQ(V(t0)->hash(k), reinterpret_cast<uintptr_t>(k));
    EXPECT_EQ(V(t2)->hash(k), reinterpret_cast<uintptr_t>(k));
}

// ---- Growth ---------------------------------------------------------------------

TEST_F(Table, FirstInsertionGrowsTwoBucketsToFourAndTheThirdToEight) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_insert(t, "a", val(1), 0);
    EXPECT_EQ(+V(t)->mask, 3u);
    QOR_TABLE_insert(t, "b", val(2), 0);
    EXPECT_EQ(+V(t)->mask, 3u);
    QOR_TABLE_insert(t, "c", val(3), 0);
    EXPECT_EQ(+V(t)->mask, 7u);
    EXPECT_EQ(+V(t)->count, 3u);
    for (const char *k : {"a", "b", "c"}) EXPECT_NE(QOR_TABLE_find(t, k), nullptr);
}

TEST_F(Table, AFixedSizeTableStaysAtTwoBuckets) {
    QOR_TABLE *t = make(0, 1);
    V(t)->fixed_size = 1;
    char buf[16];
    for (int i = 0; i < 50; ++i) {
        snprintf(buf, sizeof buf, "k%d", i);
        QOR_TABLE_insert(t, buf, val(i), 1);
    }
    EXPECT_EQ(+V(t)->mask, 1u);
    EXPECT_EQ(+V(t)->count, 50u);
    for (int i = 0; i < 50; ++i) {
        snprintf(buf, sizeof buf, "k%d", i);
        QOR_TABLE_entry *e = QOR_TABLE_find(t, buf);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(+V(e)->value, val(i));
    }
}

TEST_F(Table, AnOpenSequenceHoldsTheBucketsAndOneGrowthFollowsItsClose) {
    QOR_TABLE *t = make(0, 0);
    QOR_TABLE_SEQ *s = QOR_TABLE_SEQ_create(t);
    static int keys[100];
    for (int &k : keys) QOR_TABLE_insert(t, &k, val(1), 0);
    EXPECT_EQ(+V(t)->mask, 1u);
    EXPECT_EQ(+V(t)->count, 100u);
    QOR_TABLE_SEQ_destroy(s);
    EXPECT_EQ(+V(t)->mask, 1u);  // closing alone does not grow
    static int one_more;
    QOR_TABLE_insert(t, &one_more, val(2), 0);
    EXPECT_EQ(+V(t)->mask, 3u);  // doubled once only
    for (int &k : keys) EXPECT_NE(QOR_TABLE_find(t, &k), nullptr);
}

TEST_F(Table, GrowthWaitsForTheLastOfSeveralSequences) {
    QOR_TABLE *t = make(0, 0);
    QOR_TABLE_SEQ *a = QOR_TABLE_SEQ_create(t);
    QOR_TABLE_SEQ *b = QOR_TABLE_SEQ_create(t);
    static int keys[4];
    QOR_TABLE_insert(t, &keys[0], val(1), 0);
    QOR_TABLE_SEQ_destroy(b);
    QOR_TABLE_insert(t, &keys[1], val(1), 0);
    EXPECT_EQ(+V(t)->mask, 1u);
    QOR_TABLE_SEQ_destroy(a);
    QOR_TABLE_insert(t, &keys[2], val(1), 0);
    EXPECT_EQ(+V(t)->mask, 3u);
}

TEST_F(Table, GrowthReversesEntriesThatShareAChain) {
    QOR_TABLE *t = make(0, 1);
    V(t)->fixed_size = 1;
    QOR_TABLE_entry *first = QOR_TABLE_insert_non(t, "dup", val(1), 0);
    QOR_TABLE_entry *second = QOR_TABLE_insert_non(t, "dup", val(2), 0);
    EXPECT_EQ(QOR_TABLE_find(t, "dup"), second);
    V(t)->fixed_size = 0;
    QOR_TABLE_insert(t, "other", val(3), 0);  // count 3 >= mask 1: grows
    EXPECT_EQ(+V(t)->mask, 3u);
    EXPECT_EQ(QOR_TABLE_find(t, "dup"), first);
    EXPECT_EQ(QOR_TABLE_find_non(t, "dup", +V(first)->next), second);
}

// ---- Keys -------------------------------------------------------------------------

TEST_F(Table, PointerKeysAreEqualOnlyWhenIdentical) {
    QOR_TABLE *t = make(0, 0);
    char one[] = "same";
    char two[] = "same";
    QOR_TABLE_entry *e = QOR_TABLE_insert(t, one, val(1), 0);
    EXPECT_NE(QOR_TABLE_insert(t, two, val(2), 0), e);
    EXPECT_EQ(+V(t)->count, 2u);
    EXPECT_EQ(QOR_TABLE_find(t, one), e);
    EXPECT_EQ(+V(QOR_TABLE_find(t, two))->value, val(2));
}

TEST_F(Table, StringKeysAreEqualWhenTheirTextIs) {
    QOR_TABLE *t = make(0, 1);
    char one[] = "same";
    char two[] = "same";
    QOR_TABLE_entry *e = QOR_TABLE_insert(t, one, val(1), 0);
    EXPECT_EQ(QOR_TABLE_insert(t, two, val(2), 0), e);
    EXPECT_EQ(+V(t)->count, 1u);
    EXPECT_EQ(QOR_TABLE_find(t, two), e);
}

TEST_F(Table, StringKeysWithEqualHashesAreToldApartByTheirText) {
    QOR_TABLE *t = make(0, 1);
    ASSERT_EQ(V(t)->hash("bG"), V(t)->hash("ab"));  // 27 * 98 + 71 = 2717
    QOR_TABLE_entry *ab = QOR_TABLE_insert(t, "ab", val(1), 0);
    QOR_TABLE_entry *bg = QOR_TABLE_insert(t, "bG", val(2), 0);
    EXPECT_NE(ab, bg);
    EXPECT_EQ(QOR_TABLE_find(t, "ab"), ab);
    EXPECT_EQ(QOR_TABLE_find(t, "bG"), bg);
}

TEST_F(Table, CopyMakesAPrivateStringKeyInTheFreestore) {
    QOR_TABLE *t = make(0, 1);
    char key[] = "copied";
    QOR_TABLE_entry *e = QOR_TABLE_insert(t, key, val(1), 1);
    EXPECT_NE(+V(e)->key, key);
    EXPECT_STREQ(text(e), "copied");
    key[0] = 'C';
    EXPECT_EQ(QOR_TABLE_find(t, "copied"), e);
    char other[] = "kept";
    QOR_TABLE_entry *k = QOR_TABLE_insert(t, other, val(2), 0);
    EXPECT_EQ(+V(k)->key, other);
}

TEST_F(Table, CopyIsIgnoredForPointerKeysButNotForOtherKinds) {
    QOR_TABLE *t0 = make(0, 0);
    QOR_TABLE *t2 = make(0, 2);
    char key[] = "p";
    EXPECT_EQ(+V(QOR_TABLE_insert(t0, key, val(1), 1))->key, key);
    QOR_TABLE_entry *e = QOR_TABLE_insert(t2, key, val(1), 1);
    EXPECT_NE(+V(e)->key, key);
    EXPECT_STREQ(text(e), "p");
}

TEST_F(Table, ACallersCompareReplacesTheKindsRuleButHashesMustAgree) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_entry *ab = QOR_TABLE_insert(t, "ab", val(1), 0);
    QOR_TABLE_insert(t, "zz", val(2), 0);
    V(t)->compare = always_equal;
    EXPECT_EQ(QOR_TABLE_find(t, "bG"), ab);  // same hash, "equal"
    EXPECT_EQ(QOR_TABLE_find(t, "xy"), nullptr);  // another hash
    EXPECT_EQ(QOR_TABLE_insert(t, "bG", val(3), 0), ab);
    V(t)->compare = never_equal;
    EXPECT_EQ(QOR_TABLE_find(t, "ab"), nullptr);
    void *v = val(99);
    EXPECT_EQ(QOR_TABLE_remove_entry(t, "ab", &v), 0);
    EXPECT_EQ(v, nullptr);
}

TEST_F(Table, APointerTableWithACompareStillNeedsEqualHashes) {
    QOR_TABLE *t = make(0, 0);
    char a[] = "x";
    char b[] = "x";
    QOR_TABLE_entry *e = QOR_TABLE_insert(t, a, val(1), 0);
    V(t)->compare = always_equal;
    EXPECT_EQ(QOR_TABLE_find(t, a), e);
    EXPECT_EQ(QOR_TABLE_find(t, b), nullptr);  // other pointer, other hash
}

// ---- Insert, find, duplicates -------------------------------------------------------

TEST_F(Table, InsertOfAnExistingKeyReturnsItWithItsValue) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_entry *e = QOR_TABLE_insert(t, "k", val(1), 1);
    EXPECT_EQ(QOR_TABLE_insert(t, "k", val(2), 1), e);
    EXPECT_EQ(+V(e)->value, val(1));
    EXPECT_EQ(+V(t)->count, 1u);
}

TEST_F(Table, InsertNonAddsADuplicateFoundFirstInAFixedTable) {
    QOR_TABLE *t = make(0, 1);
    V(t)->fixed_size = 1;
    QOR_TABLE_entry *a = QOR_TABLE_insert(t, "k", val(1), 0);
    QOR_TABLE_entry *b = QOR_TABLE_insert_non(t, "k", val(2), 0);
    EXPECT_NE(a, b);
    EXPECT_EQ(+V(t)->count, 2u);
    EXPECT_EQ(QOR_TABLE_find(t, "k"), b);
    EXPECT_EQ(QOR_TABLE_find_non(t, "k", +V(b)->next), a);
    // a is the last of its chain: its next is null, and a null `from`
    // means "from the head", so the walk starts over.
    ASSERT_EQ(+V(a)->next, nullptr);
    EXPECT_EQ(QOR_TABLE_find_non(t, "k", +V(a)->next), b);
}

TEST_F(Table, FindNonFromAMatchingEntryReturnsThatEntry) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_entry *a = QOR_TABLE_insert_non(t, "k", val(1), 0);
    QOR_TABLE_entry *b = QOR_TABLE_insert_non(t, "k", val(2), 0);
    EXPECT_EQ(QOR_TABLE_find_non(t, "k", a), a);
    EXPECT_EQ(QOR_TABLE_find_non(t, "k", b), b);
    EXPECT_EQ(QOR_TABLE_find_non(t, "k", nullptr), QOR_TABLE_find(t, "k"));
}

TEST_F(Table, FindNonFromAnEntryOfAnotherKeyWalksOnFromIt) {
    QOR_TABLE *t = make(0, 1);
    V(t)->fixed_size = 1;
    // "b" (98) and "d" (100) share bucket 0 of 2; "b" is older.
    QOR_TABLE_entry *b = QOR_TABLE_insert(t, "b", val(1), 0);
    QOR_TABLE_entry *d = QOR_TABLE_insert(t, "d", val(2), 0);
    ASSERT_EQ(chain(t, 0), (std::vector<QOR_TABLE_entry *>{d, b}));
    EXPECT_EQ(QOR_TABLE_find_non(t, "b", d), b);
    EXPECT_EQ(QOR_TABLE_find_non(t, "d", b), nullptr);
}

TEST_F(Table, FindOfAMissingKeyIsNull) {
    QOR_TABLE *t = make(0, 1);
    EXPECT_EQ(QOR_TABLE_find(t, "none"), nullptr);
    QOR_TABLE_insert(t, "x", val(1), 0);
    EXPECT_EQ(QOR_TABLE_find(t, "none"), nullptr);
}

// ---- Kinds that match nothing -----------------------------------------------------

TEST_F(Table, KindTwoFindsNothingAndInsertAlwaysAdds) {
    QOR_TABLE *t = make(0, 2);
    const char *k = "key";
    QOR_TABLE_entry *a = QOR_TABLE_insert(t, k, val(1), 0);
    QOR_TABLE_entry *b = QOR_TABLE_insert(t, k, val(2), 0);
    EXPECT_NE(a, b);
    EXPECT_EQ(+V(t)->count, 2u);
    EXPECT_EQ(QOR_TABLE_find(t, k), nullptr);
    EXPECT_EQ(QOR_TABLE_find_non(t, k, a), nullptr);
}

TEST_F(Table, KindTwoRemovesTheFirstEntryOfTheKeysBucketWhateverItsKey) {
    QOR_TABLE *t = make(0, 2);
    V(t)->fixed_size = 1;
    // With 2 buckets the bucket is the pointer's lowest bit.
    static char keys[4];
    QOR_TABLE_insert(t, &keys[0], val(10), 0);
    QOR_TABLE_insert(t, &keys[2], val(12), 0);
    void *v = nullptr;
    // &keys[2] was pushed last on the same (even or odd) bucket as keys[0].
    EXPECT_EQ(QOR_TABLE_remove_entry(t, &keys[0], &v), 1);
    EXPECT_EQ(v, val(12));
    EXPECT_EQ(+V(t)->count, 1u);
    // A key of the other bucket, which is empty: nothing removed.
    EXPECT_EQ(QOR_TABLE_remove_entry(t, &keys[1], &v), 0);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(QOR_TABLE_remove_entry(t, &keys[2], &v), 1);
    EXPECT_EQ(v, val(10));
    EXPECT_EQ(+V(t)->count, 0u);
}

// ---- Removal ------------------------------------------------------------------------

TEST_F(Table, RemovingAMissingKeyGivesZeroAndNull) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_insert(t, "x", val(1), 0);
    void *v = val(5);
    EXPECT_EQ(QOR_TABLE_remove_entry(t, "none", &v), 0);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(+V(t)->count, 1u);
}

TEST_F(Table, RemovalUnlinksFromTheHeadOrAfterThePredecessor) {
    QOR_TABLE *t = make(0, 1);
    V(t)->fixed_size = 1;
    QOR_TABLE_entry *b = QOR_TABLE_insert(t, "b", val(1), 0);
    QOR_TABLE_entry *d = QOR_TABLE_insert(t, "d", val(2), 0);
    QOR_TABLE_entry *f = QOR_TABLE_insert(t, "f", val(3), 0);
    ASSERT_EQ(chain(t, 0), (std::vector<QOR_TABLE_entry *>{f, d, b}));
    void *v = nullptr;
    EXPECT_EQ(QOR_TABLE_remove_entry(t, "d", &v), 1);
    EXPECT_EQ(v, val(2));
    EXPECT_EQ(chain(t, 0), (std::vector<QOR_TABLE_entry *>{f, b}));
    EXPECT_EQ(QOR_TABLE_remove_entry(t, "f", &v), 1);
    EXPECT_EQ(chain(t, 0), (std::vector<QOR_TABLE_entry *>{b}));
    EXPECT_EQ(QOR_TABLE_remove_entry(t, "b", &v), 1);
    EXPECT_TRUE(chain(t, 0).empty());
    EXPECT_EQ(+V(t)->count, 0u);
}

TEST_F(Table, RemovalTakesTheFirstOfSeveralDuplicates) {
    QOR_TABLE *t = make(0, 1);
    V(t)->fixed_size = 1;
    QOR_TABLE_insert_non(t, "k", val(1), 0);
    QOR_TABLE_insert_non(t, "k", val(2), 0);
    void *v = nullptr;
    EXPECT_EQ(QOR_TABLE_remove_entry(t, "k", &v), 1);
    EXPECT_EQ(v, val(2));
    EXPECT_EQ(+V(QOR_TABLE_find(t, "k"))->value, val(1));
}

// ---- Sequences ----------------------------------------------------------------------

TEST_F(Table, ASequenceReturnsEveryEntryOnceBucketByBucketThenNullForEver) {
    QOR_TABLE *t = make(8, 1);
    V(t)->fixed_size = 1;
    // "a" 97 -> 1, "b" 98 -> 2, "i" 105 -> 1, "g" 103 -> 7
    QOR_TABLE_entry *a = QOR_TABLE_insert(t, "a", val(1), 0);
    QOR_TABLE_entry *b = QOR_TABLE_insert(t, "b", val(2), 0);
    QOR_TABLE_entry *i = QOR_TABLE_insert(t, "i", val(3), 0);
    QOR_TABLE_entry *g = QOR_TABLE_insert(t, "g", val(4), 0);
    QOR_TABLE_SEQ *s = QOR_TABLE_SEQ_create(t);
    EXPECT_EQ(s->table, t);
    EXPECT_EQ(s->entry, i);  // positioned on the first entry
    EXPECT_EQ(s->bucket, 1);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), i);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), a);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), b);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), g);
    EXPECT_EQ(s->bucket, -1);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), nullptr);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), nullptr);
    QOR_TABLE_insert(t, "c", val(5), 0);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), nullptr);  // does not start over
    QOR_TABLE_SEQ_destroy(s);
}

TEST_F(Table, ASequenceOverAnEmptyTableIsExhaustedAtOnce) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_SEQ *s = QOR_TABLE_SEQ_create(t);
    EXPECT_EQ(s->bucket, -1);
    EXPECT_EQ(s->entry, nullptr);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), nullptr);
    QOR_TABLE_insert(t, "late", val(1), 0);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), nullptr);
    QOR_TABLE_SEQ_destroy(s);
}

TEST_F(Table, RemovingTheEntryASequenceIsAboutToReturnMakesItSkipIt) {
    QOR_TABLE *t = make(8, 1);
    V(t)->fixed_size = 1;
    QOR_TABLE_entry *a = QOR_TABLE_insert(t, "a", val(1), 0);
    QOR_TABLE_insert(t, "i", val(2), 0);
    QOR_TABLE_entry *b = QOR_TABLE_insert(t, "b", val(3), 0);
    QOR_TABLE_SEQ *s = QOR_TABLE_SEQ_create(t);
    QOR_TABLE_SEQ *other = QOR_TABLE_SEQ_create(t);
    ASSERT_EQ(QOR_TABLE_SEQ_next(s), QOR_TABLE_find(t, "i"));
    ASSERT_EQ(s->entry, a);
    void *v = nullptr;
    EXPECT_EQ(QOR_TABLE_remove_entry(t, "a", &v), 1);
    EXPECT_EQ(s->entry, b);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), b);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), nullptr);
    // The other sequence stood on "i"; removing it moves that one on too.
    EXPECT_EQ(QOR_TABLE_remove_entry(t, "i", &v), 1);
    EXPECT_EQ(QOR_TABLE_SEQ_next(other), b);
    EXPECT_EQ(QOR_TABLE_SEQ_next(other), nullptr);
    QOR_TABLE_SEQ_destroy(other);
    QOR_TABLE_SEQ_destroy(s);
}

TEST_F(Table, RemovingTheLastEntryASequenceWaitsForExhaustsIt) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_insert(t, "only", val(1), 0);
    QOR_TABLE_SEQ *s = QOR_TABLE_SEQ_create(t);
    void *v = nullptr;
    QOR_TABLE_remove_entry(t, "only", &v);
    EXPECT_EQ(s->bucket, -1);
    EXPECT_EQ(QOR_TABLE_SEQ_next(s), nullptr);
    QOR_TABLE_SEQ_destroy(s);
}

TEST_F(Table, SequencesAreListedNewestFirst) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_SEQ *a = QOR_TABLE_SEQ_create(t);
    QOR_TABLE_SEQ *b = QOR_TABLE_SEQ_create(t);
    QOR_TABLE_SEQ *c = QOR_TABLE_SEQ_create(t);
    EXPECT_EQ(+V(t)->sequences, c);
    EXPECT_EQ(c->next, b);
    EXPECT_EQ(b->next, a);
    EXPECT_EQ(b->prev, c);
    EXPECT_EQ(a->prev, b);
    QOR_TABLE_SEQ_destroy(b);
    EXPECT_EQ(c->next, a);
    EXPECT_EQ(a->prev, c);
    QOR_TABLE_SEQ_destroy(c);
    EXPECT_EQ(+V(t)->sequences, a);
    EXPECT_EQ(a->prev, nullptr);
    QOR_TABLE_SEQ_destroy(a);
    EXPECT_EQ(+V(t)->sequences, nullptr);
}

TEST_F(Table, SequenceRecordsComeFromOnePoolSharedByAllTables) {
    QOR_TABLE *t1 = make(0, 1);
    QOR_TABLE *t2 = make(0, 0);
    QOR_TABLE_SEQ *a = QOR_TABLE_SEQ_create(t1);
    QOR_TABLE_SEQ *b = QOR_TABLE_SEQ_create(t2);
    // Consecutive records of one block.
    EXPECT_EQ(reinterpret_cast<char *>(b) - reinterpret_cast<char *>(a),
              static_cast<long>(sizeof(QOR_TABLE_SEQ)));
    QOR_TABLE_SEQ_destroy(a);
    // The lowest free record comes back, zeroed but for what creation sets.
    QOR_TABLE_SEQ *c = QOR_TABLE_SEQ_create(t2);
    EXPECT_EQ(c, a);
    EXPECT_EQ(c->table, t2);
    EXPECT_EQ(c->next, b);
    EXPECT_EQ(c->prev, nullptr);
    QOR_TABLE_SEQ_destroy(c);
    QOR_TABLE_SEQ_destroy(b);
}

TEST_F(Table, DestroyingATableClosesItsSequences) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_insert(t, "x", val(1), 0);
    QOR_TABLE_SEQ *a = QOR_TABLE_SEQ_create(t);
    QOR_TABLE_SEQ_create(t);
    destroy(t);
    // Both records are free again: the next sequence gets the first.
    QOR_TABLE *t2 = make(0, 1);
    EXPECT_EQ(QOR_TABLE_SEQ_create(t2), a);
    QOR_TABLE_SEQ_destroy(a);
}

TEST_F(Table, ClosingASequenceTwiceIsCaughtByThePool) {
    auto r = qor_test::run_in_child([this] {
        QOR_TABLE *t = QOR_TABLE_create(0, 1, &fs);
        QOR_TABLE_SEQ *s = QOR_TABLE_SEQ_create(t);
        QOR_TABLE_SEQ_destroy(s);
        QOR_TABLE_SEQ_destroy(s);
    });
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 3);
    // No message system: the parameter's text cannot be had either.
    EXPECT_EQ(r.err,
              "Error: QOR Message System unavailable - give_message_text\n"
              "Error: QOR Message System unavailable - output_message\n"
              "Untranslated message: set=qor, number=1, type=4, $0=\n");
}

TEST_F(Table, ClosingASequenceTwiceJumpsToTheArmedHandlerWithStatus2001) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_SEQ *keep = QOR_TABLE_SEQ_create(t);
    QOR_TABLE_SEQ *s = QOR_TABLE_SEQ_create(t);
    QOR_TABLE_SEQ_destroy(s);
    qor_test::MessageLog log;
    volatile int jumped = setjmp(QOR_fatal_handler);
    if (jumped == 0) {
        QOR_exception_handler_state = 1;
        QOR_TABLE_SEQ_destroy(s);
        ADD_FAILURE() << "returned";
    }
    QOR_exception_handler_state = 0;
    EXPECT_EQ(jumped, 2001);
    EXPECT_EQ(log.messages,
              (std::vector<qor_test::Message>{qor_test::msg(
                  "qor", 1, 4, {qor_test::MessageLog::text_of(202)})}));
    // The table's list was left alone.
    EXPECT_EQ(+V(t)->sequences, keep);
    EXPECT_EQ(keep->prev, nullptr);
    EXPECT_EQ(keep->next, nullptr);
    QOR_TABLE_SEQ_destroy(keep);
}

// ---- Reports ----------------------------------------------------------------------------

TEST_F(Table, StringTableReportIsByteExact) {
    QOR_TABLE *t = make(4, 1);
    V(t)->fixed_size = 1;
    QOR_TABLE_insert(t, "a", val(1), 1);   // 97 -> bucket 1
    QOR_TABLE_insert(t, "ab", val(2), 1);  // 2717 -> bucket 1
    QOR_TABLE_insert(t, "b", val(3), 1);   // 98 -> bucket 2
    ErrLog cap;
    QOR_TABLE_report(t);
    EXPECT_EQ(cap.take(), "1\tab\t2717\n1\ta\t97\n2\tb\t98\n");
}

TEST_F(Table, PointerTableReportShowsKeysAsNumbers) {
    QOR_TABLE *t = make(2, 0);
    V(t)->fixed_size = 1;
    QOR_TABLE_insert(t, reinterpret_cast<const void *>(6), val(1), 0);
    QOR_TABLE_insert(t, reinterpret_cast<const void *>(3), val(2), 0);
    QOR_TABLE_insert(t, reinterpret_cast<const void *>(8), val(3), 0);
    ErrLog cap;
    QOR_TABLE_report(t);
    EXPECT_EQ(cap.take(), "0\t8\t8\n0\t6\t6\n1\t3\t3\n");
}

TEST_F(Table, EmptyTableReportIsEmpty) {
    QOR_TABLE *t = make(16, 1);
    ErrLog cap;
    QOR_TABLE_report(t);
    EXPECT_EQ(cap.take(), "");
}

TEST_F(Table, DestroyFreesOnlyTheBucketArray) {
    QOR_TABLE *t = make(0, 1);
    QOR_TABLE_insert(t, "x", val(1), 1);
    destroy(t);
    // The record and the entry are still readable pieces of the freestore.
    EXPECT_EQ(+V(t)->count, 1u);
    EXPECT_EQ(+V(t)->freestore, &fs);
}
