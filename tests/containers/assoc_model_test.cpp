// ASSOC tables against a multimap model: thousands of random inserts,
// duplicate inserts, replacements, finds, removals, scans and clears over
// several seeds, for string keys (with long keys sharing their middle) and
// long-int keys (with keys sharing buckets).
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "containers_support.h"

using namespace containers_test;

namespace {

struct Keys {
    bool strings;
    std::vector<std::string> texts;  // the key as the model knows it
    std::vector<long> numbers;       // long-int keys

    const void *key(size_t i) const {
        return strings ? static_cast<const void *>(texts[i].c_str())
                       : lkey(numbers[i]);
    }
    size_t size() const { return texts.size(); }
};

Keys string_keys() {
    Keys k{true, {}, {}};
    char buf[64];
    for (int i = 0; i < 30; ++i) {
        snprintf(buf, sizeof buf, "key%07d", i * 7919 % 1000);
        k.texts.push_back(buf);
    }
    // Long keys whose middle fourteen bytes are the same: equal hashes.
    for (int i = 0; i < 20; ++i) {
        snprintf(buf, sizeof buf, "/p%02d/common-middle-part/x%02d", i, i);
        k.texts.push_back(buf);
    }
    k.texts.push_back("");
    k.texts.push_back("a");
    return k;
}

Keys long_keys() {
    Keys k{false, {}, {}};
    for (long i = 0; i < 40; ++i) {
        // Multiples of 32 and 64 apart share buckets before and after growth.
        long n = (i % 5) + 64 * (i / 5) - (i % 3 == 0 ? 1000 : 0);
        k.numbers.push_back(n);
    }
    std::sort(k.numbers.begin(), k.numbers.end());
    k.numbers.erase(std::unique(k.numbers.begin(), k.numbers.end()),
                    k.numbers.end());
    for (long n : k.numbers) k.texts.push_back(std::to_string(n));
    return k;
}

class Model {
  public:
    explicit Model(const Keys &keys) : keys_(keys) {}

    uintptr_t value_of(QOR_ASSOC_entry *e) const {
        return keys_.strings ? reinterpret_cast<uintptr_t>(S(e)->value)
                             : reinterpret_cast<uintptr_t>(L(e)->value);
    }
    std::string key_of(QOR_ASSOC_entry *e) const {
        return keys_.strings ? std::string(S(e)->key)
                             : std::to_string(static_cast<long>(e->hash));
    }

    // The entry must be live and known under its value.
    void check_live(QOR_ASSOC_entry *e) const {
        ASSERT_NE(e, nullptr);
        auto it = entry_.find(value_of(e));
        ASSERT_NE(it, entry_.end());
        ASSERT_EQ(it->second, e);
        ASSERT_EQ(key_of(e), key_text_.at(value_of(e)));
    }

    void add(size_t k, QOR_ASSOC_entry *e) {
        const uintptr_t v = value_of(e);
        entry_[v] = e;
        key_text_[v] = keys_.texts[k];
        by_key_.emplace(keys_.texts[k], v);
    }
    void drop(uintptr_t v) {
        const std::string k = key_text_.at(v);
        auto range = by_key_.equal_range(k);
        for (auto it = range.first; it != range.second; ++it) {
            if (it->second == v) {
                by_key_.erase(it);
                break;
            }
        }
        entry_.erase(v);
        key_text_.erase(v);
    }
    std::multiset<uintptr_t> values_of(const std::string &k) const {
        std::multiset<uintptr_t> out;
        auto range = by_key_.equal_range(k);
        for (auto it = range.first; it != range.second; ++it)
            out.insert(it->second);
        return out;
    }
    std::set<uintptr_t> all() const {
        std::set<uintptr_t> out;
        for (auto &[v, e] : entry_) out.insert(v);
        return out;
    }
    size_t size() const { return entry_.size(); }
    QOR_ASSOC_entry *entry(uintptr_t v) const { return entry_.at(v); }
    void clear() {
        entry_.clear();
        key_text_.clear();
        by_key_.clear();
    }

  private:
    const Keys &keys_;
    std::map<uintptr_t, QOR_ASSOC_entry *> entry_;
    std::map<uintptr_t, std::string> key_text_;
    std::multimap<std::string, uintptr_t> by_key_;
};

void run_model(const Keys &keys, unsigned seed, int operations) {
    std::mt19937 rng(seed);
    auto pick = [&](size_t n) {
        return static_cast<size_t>(rng() % static_cast<unsigned>(n));
    };
    QOR_ASSOC_table *t = QOR_ASSOC_table_create(
        static_cast<int>(pick(80)),
        keys.strings ? QOR_ASSOC_string_key_type : QOR_ASSOC_long_int_key_type,
        "model", nullptr);
    Model m(keys);
    uintptr_t next_value = 1;
    // Scans that live across operations: they must never return an entry
    // that has been removed.
    std::vector<QOR_ASSOC_scan *> scans = {QOR_ASSOC_scan_create(t, nullptr),
                                           QOR_ASSOC_scan_create(t, nullptr)};

    for (int op = 0; op < operations; ++op) {
        const size_t k = pick(keys.size());
        const void *key = keys.key(k);
        const std::string &text = keys.texts[k];
        const bool present = !m.values_of(text).empty();
        switch (pick(12)) {
            case 0:
            case 1: {  // insert
                QOR_ASSOC_entry *first = QOR_ASSOC_table_find(t, key);
                int found = -1;
                QOR_ASSOC_entry *e = QOR_ASSOC_table_insert(
                    t, key, val(next_value), &found);
                ASSERT_EQ(found, present ? 1 : 0);
                if (present) {
                    ASSERT_EQ(e, first);
                    m.check_live(e);
                } else {
                    ASSERT_EQ(m.value_of(e), next_value);
                    m.add(k, e);
                    ++next_value;
                }
                break;
            }
            case 2: {  // insert a duplicate
                QOR_ASSOC_entry *e =
                    QOR_ASSOC_table_insert_dup(t, key, val(next_value++));
                m.add(k, e);
                ASSERT_EQ(QOR_ASSOC_table_find(t, key), e);
                break;
            }
            case 3: {  // replace
                QOR_ASSOC_entry *first = QOR_ASSOC_table_find(t, key);
                const uintptr_t old = first ? m.value_of(first) : 0;
                int replaced = -1;
                QOR_ASSOC_entry *e = QOR_ASSOC_table_insert_replace(
                    t, key, val(next_value++), &replaced);
                ASSERT_EQ(replaced, present ? 1 : 0);
                if (present) m.drop(old);
                m.add(k, e);
                break;
            }
            case 4:
            case 5: {  // find and every duplicate
                QOR_ASSOC_entry *e = QOR_ASSOC_table_find(t, key);
                ASSERT_EQ(e != nullptr, present);
                std::multiset<uintptr_t> seen;
                for (QOR_ASSOC_entry *d = QOR_ASSOC_table_find_dup(t, key, nullptr);
                     d != nullptr; d = QOR_ASSOC_table_find_dup(t, key, d)) {
                    m.check_live(d);
                    seen.insert(m.value_of(d));
                }
                ASSERT_EQ(seen, m.values_of(text));
                break;
            }
            case 6:
            case 7: {  // remove a random live entry
                if (m.size() == 0) break;
                auto all = m.all();
                auto it = all.begin();
                std::advance(it, static_cast<long>(pick(all.size())));
                QOR_ASSOC_table_remove(t, m.entry(*it));
                m.drop(*it);
                break;
            }
            case 8: {  // step the long-lived scans
                for (QOR_ASSOC_scan *s : scans) {
                    for (int i = 0; i < 3; ++i) {
                        QOR_ASSOC_entry *e = QOR_ASSOC_scan_next(s);
                        if (e != nullptr) m.check_live(e);
                    }
                }
                break;
            }
            case 9: {  // a whole scan, removing some entries as it goes
                QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
                std::set<uintptr_t> seen;
                const auto before = m.all();
                for (QOR_ASSOC_entry *e = QOR_ASSOC_scan_next(s); e != nullptr;
                     e = QOR_ASSOC_scan_next(s)) {
                    m.check_live(e);
                    const uintptr_t v = m.value_of(e);
                    ASSERT_TRUE(seen.insert(v).second) << "returned twice";
                    if (pick(3) == 0) {
                        QOR_ASSOC_scan_remove(s);
                        m.drop(v);
                        QOR_ASSOC_scan_remove(s);  // pending: no effect
                    }
                }
                ASSERT_EQ(seen, before);
                QOR_ASSOC_scan_destroy(s);
                break;
            }
            case 10: {  // scan operations
                QOR_ASSOC_scan *s = scans[pick(2)];
                QOR_ASSOC_entry *e = QOR_ASSOC_scan_find(s, key);
                ASSERT_EQ(e != nullptr, present);
                ASSERT_EQ(s->current, e);
                if (e != nullptr && pick(2) == 0) {
                    const uintptr_t v = m.value_of(e);
                    QOR_ASSOC_scan_remove(s);
                    m.drop(v);
                }
                break;
            }
            case 11: {  // now and then, clear everything
                if (pick(40) == 0) {
                    QOR_ASSOC_table_clear(t);
                    m.clear();
                    for (QOR_ASSOC_scan *s : scans) {
                        ASSERT_EQ(s->current, nullptr);
                    }
                }
                break;
            }
        }
        ASSERT_EQ(static_cast<size_t>(t->count), m.size()) << "op " << op;
    }
    // A final full scan sees exactly the model.
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    std::set<uintptr_t> seen;
    for (QOR_ASSOC_entry *e = QOR_ASSOC_scan_next(s); e != nullptr;
         e = QOR_ASSOC_scan_next(s)) {
        m.check_live(e);
        seen.insert(m.value_of(e));
    }
    EXPECT_EQ(seen, m.all());
    QOR_ASSOC_table_destroy(t);  // with its three scans
    EXPECT_EQ(QOR_ASSOC_tables, nullptr);
}

}  // namespace

TEST(AssocModel, StringKeysAgainstAMultimapOverSeveralSeeds) {
    const Keys keys = string_keys();
    for (unsigned seed : {1u, 2u, 3u, 4u, 5u}) {
        SCOPED_TRACE(seed);
        run_model(keys, seed, 10000);
        if (HasFatalFailure()) return;
    }
}

TEST(AssocModel, LongIntKeysAgainstAMultimapOverSeveralSeeds) {
    const Keys keys = long_keys();
    for (unsigned seed : {11u, 12u, 13u, 14u, 15u}) {
        SCOPED_TRACE(seed);
        run_model(keys, seed, 10000);
        if (HasFatalFailure()) return;
    }
}
