// TABLEs against a multimap model: thousands of random inserts, duplicate
// inserts, finds, walks over duplicates, removals and sequences (long-lived
// ones and whole walks with removals on the way) over several seeds, for
// string keys (copied and not) and pointer keys.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "containers_support.h"

using namespace containers_test;

namespace {

struct Run {
    unsigned kind;
    int copy;
    unsigned seed;
};

void run_model(const Run &run, int operations) {
    std::mt19937 rng(run.seed);
    auto pick = [&](size_t n) {
        return static_cast<size_t>(rng() % static_cast<unsigned>(n));
    };
    QOR_FS_allocator fs = QOR_FS_INITIALISER(2016, 0);
    QOR_FS_malloc(&fs, 4);  // every record at 4-byte alignment from here
    // The keys: texts of every length mod 4 (so that copies misalign what
    // follows them); for pointer keys, the addresses of the texts.
    std::vector<std::string> texts;
    for (int i = 0; i < 60; ++i) {
        texts.push_back(std::string(static_cast<size_t>(i % 9), 'x') +
                        std::to_string(i * 37));
    }
    auto key_of = [&](size_t k) -> const void * { return texts[k].c_str(); };

    QOR_TABLE *t = QOR_TABLE_create(pick(20), run.kind, &fs);
    // value -> entry, value -> key index, key index -> values
    std::map<uintptr_t, QOR_TABLE_entry *> entry;
    std::map<uintptr_t, size_t> key;
    std::multimap<size_t, uintptr_t> by_key;
    uintptr_t next_value = 1;
    auto drop = [&](uintptr_t v) {
        const size_t k = key.at(v);
        auto range = by_key.equal_range(k);
        for (auto it = range.first; it != range.second; ++it) {
            if (it->second == v) {
                by_key.erase(it);
                break;
            }
        }
        entry.erase(v);
        key.erase(v);
    };
    auto value_of = [](QOR_TABLE_entry *e) {
        return reinterpret_cast<uintptr_t>(V(e)->value);
    };
    auto check_live = [&](QOR_TABLE_entry *e, size_t k) {
        ASSERT_NE(e, nullptr);
        const uintptr_t v = value_of(e);
        ASSERT_EQ(entry.count(v), 1u) << "not a live entry";
        ASSERT_EQ(entry.at(v), e);
        ASSERT_EQ(key.at(v), k);
    };
    std::vector<QOR_TABLE_SEQ *> open;  // long-lived sequences

    for (int op = 0; op < operations; ++op) {
        const size_t k = pick(texts.size());
        const bool present = by_key.count(k) != 0;
        switch (pick(11)) {
            case 0:
            case 1: {
                QOR_TABLE_entry *first = QOR_TABLE_find(t, key_of(k));
                QOR_TABLE_entry *e = QOR_TABLE_insert(t, key_of(k), val(next_value), run.copy);
                if (present) {
                    ASSERT_EQ(e, first);
                    check_live(e, k);
                } else {
                    ASSERT_EQ(value_of(e), next_value);
                    entry[next_value] = e;
                    key[next_value] = k;
                    by_key.emplace(k, next_value);
                    ++next_value;
                }
                break;
            }
            case 2: {
                const uint64_t mask = V(t)->mask;
                QOR_TABLE_entry *e = QOR_TABLE_insert_non(t, key_of(k), val(next_value), run.copy);
                entry[next_value] = e;
                key[next_value] = k;
                by_key.emplace(k, next_value);
                ++next_value;
                // Newest first, unless this insertion grew the table, which
                // reverses entries that share a chain.
                if (V(t)->mask == mask) {
                    ASSERT_EQ(QOR_TABLE_find(t, key_of(k)), e);
                }
                break;
            }
            case 3:
            case 4: {  // every entry of the key, walking with find_non
                std::multiset<uintptr_t> seen;
                for (QOR_TABLE_entry *e = QOR_TABLE_find(t, key_of(k)); e != nullptr;) {
                    check_live(e, k);
                    seen.insert(value_of(e));
                    QOR_TABLE_entry *following = V(e)->next;
                    if (following == nullptr) break;  // null would start over
                    e = QOR_TABLE_find_non(t, key_of(k), following);
                }
                std::multiset<uintptr_t> want;
                auto range = by_key.equal_range(k);
                for (auto it = range.first; it != range.second; ++it)
                    want.insert(it->second);
                ASSERT_EQ(seen, want);
                break;
            }
            case 5:
            case 6: {
                QOR_TABLE_entry *first = QOR_TABLE_find(t, key_of(k));
                const uintptr_t expect = first ? value_of(first) : 0;
                void *v = val(12345);
                const int removed = QOR_TABLE_remove_entry(t, key_of(k), &v);
                ASSERT_EQ(removed, present ? 1 : 0);
                ASSERT_EQ(reinterpret_cast<uintptr_t>(v), expect);
                if (present) drop(expect);
                break;
            }
            case 7: {  // open, step or close long-lived sequences
                if (open.size() < 3 && pick(2) == 0) {
                    open.push_back(QOR_TABLE_SEQ_create(t));
                } else if (!open.empty()) {
                    const size_t i = pick(open.size());
                    if (pick(4) == 0) {
                        QOR_TABLE_SEQ_destroy(open[i]);
                        open.erase(open.begin() + static_cast<long>(i));
                    } else {
                        for (int n = 0; n < 4; ++n) {
                            QOR_TABLE_entry *e = QOR_TABLE_SEQ_next(open[i]);
                            if (e != nullptr) check_live(e, key.at(value_of(e)));
                        }
                    }
                }
                break;
            }
            case 8: {  // a whole walk, removing on the way
                QOR_TABLE_SEQ *s = QOR_TABLE_SEQ_create(t);
                std::set<uintptr_t> before;
                for (auto &[v, e] : entry) before.insert(v);
                std::set<uintptr_t> seen, removed_on_the_way;
                for (QOR_TABLE_entry *e = QOR_TABLE_SEQ_next(s); e != nullptr;
                     e = QOR_TABLE_SEQ_next(s)) {
                    const uintptr_t v = value_of(e);
                    check_live(e, key.at(v));
                    ASSERT_TRUE(seen.insert(v).second) << "returned twice";
                    if (pick(3) == 0) {  // remove some key, maybe one ahead
                        const size_t rk = pick(texts.size());
                        QOR_TABLE_entry *first = QOR_TABLE_find(t, key_of(rk));
                        void *rv = nullptr;
                        if (QOR_TABLE_remove_entry(t, key_of(rk), &rv) == 1) {
                            void *const first_value = V(first)->value;
                            ASSERT_EQ(rv, first_value);
                            removed_on_the_way.insert(value_of(first));
                            drop(value_of(first));
                        }
                    }
                }
                // Everything present throughout was seen.
                for (uintptr_t v : before) {
                    if (!removed_on_the_way.count(v)) {
                        ASSERT_TRUE(seen.count(v)) << v;
                    }
                }
                QOR_TABLE_SEQ_destroy(s);
                break;
            }
            case 9:
                if (pick(50) == 0) V(t)->fixed_size = !V(t)->fixed_size;
                break;
            case 10: {  // no growth while a sequence is open
                if (!open.empty()) {
                    const uint64_t mask = V(t)->mask;
                    entry[next_value] = QOR_TABLE_insert_non(
                        t, key_of(k), val(next_value), run.copy);
                    key[next_value] = k;
                    by_key.emplace(k, next_value);
                    ++next_value;
                    ASSERT_EQ(+V(t)->mask, mask);
                }
                break;
            }
        }
        ASSERT_EQ(+V(t)->count, entry.size()) << "op " << op;
    }
    QOR_TABLE_destroy(t);  // closes the long-lived sequences
    QOR_FS_destroy(&fs);
}

}  // namespace

TEST(TableModel, StringKeysCopiedAgainstAMultimap) {
    for (unsigned seed : {31u, 32u, 33u}) {
        SCOPED_TRACE(seed);
        run_model({1, 1, seed}, 6000);
        if (HasFatalFailure()) return;
    }
}

TEST(TableModel, StringKeysNotCopiedAgainstAMultimap) {
    for (unsigned seed : {41u, 42u, 43u}) {
        SCOPED_TRACE(seed);
        run_model({1, 0, seed}, 6000);
        if (HasFatalFailure()) return;
    }
}

TEST(TableModel, PointerKeysAgainstAMultimap) {
    for (unsigned seed : {51u, 52u, 53u}) {
        SCOPED_TRACE(seed);
        run_model({0, 1, seed}, 6000);
        if (HasFatalFailure()) return;
    }
}
