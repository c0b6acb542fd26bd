// ASSOC tables against a plain chained table kept here: the textbook
// algorithm (middle-14-byte string hash, push at the head, growth that
// re-pushes bucket by bucket, scans that walk buckets upwards, removal that
// searches the chain) with no index of any kind. Random sequences of every
// operation run on both; after each one the returned entry, every chain
// (entries and order), every scan's position and the trace text must be the
// same. The library indexes its own key types beside the chains, so this is
// what proves the index never changes an answer: duplicates, growth
// reversals, removals during scans and find_dup from an entry of another key.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "containers_support.h"

using namespace containers_test;

namespace {

// ---- The plain table ------------------------------------------------------

struct PEntry {
    uint64_t hash;
    std::string text;  // string keys
    long number;       // long keys
    QOR_ASSOC_entry *real;
    PEntry *next;
    // What the printers show, taken when the entry was made: a removal is
    // traced here after the real table has already freed its entry.
    const void *key_address;
    const void *value;
};

struct PScan {
    QOR_ASSOC_scan *real;
    PEntry *current;
    bool pending;
};

uint64_t plain_string_hash(const std::string &s) {
    const unsigned char *p = reinterpret_cast<const unsigned char *>(s.data());
    int32_t n = static_cast<int32_t>(s.size());
    if (n > 14) {
        p += (n - 14) / 2;
        n = 14;
    }
    uint64_t h = 0;
    for (int32_t i = 0; i < n; ++i) h = h * 4 + p[i];
    return h;
}

class Plain {
  public:
    Plain(QOR_ASSOC_table *real, bool strings, int size)
        : real_(real), strings_(strings) {
        uint64_t n = 32;
        while (n < static_cast<uint64_t>(size > 0 ? size : 0)) n *= 2;
        buckets_.assign(n, nullptr);
        mask_ = n - 1;
        fixed_ = real->fixed_size != 0;
    }
    ~Plain() {
        for (auto &[r, e] : by_real_) delete e;
        for (PScan *s : scans_) delete s;
    }

    std::string trace;

    uint64_t hash_of(const std::string &text, long number) const {
        return strings_ ? plain_string_hash(text)
                        : static_cast<uint64_t>(number);
    }
    bool holds(const PEntry *e, const std::string &text, long number) const {
        return strings_ ? e->text == text
                        : e->hash == static_cast<uint64_t>(number);
    }

    PEntry *match_from(PEntry *e, uint64_t h, const std::string &text,
                       long number) const {
        for (; e != nullptr; e = e->next) {
            if (e->hash == h && holds(e, text, number)) return e;
        }
        return nullptr;
    }
    PEntry *lookup(const std::string &text, long number) const {
        const uint64_t h = hash_of(text, number);
        return match_from(buckets_[h & mask_], h, text, number);
    }

    void grow() {
        const uint64_t old = mask_ + 1;
        uint64_t n = 2 * old;
        while (static_cast<uint64_t>(count_) > n) n *= 2;
        std::vector<PEntry *> fresh(n, nullptr);
        mask_ = n - 1;
        for (uint64_t b = 0; b < old; ++b) {
            PEntry *e = buckets_[b];
            while (e != nullptr) {
                PEntry *following = e->next;
                e->next = fresh[e->hash & mask_];
                fresh[e->hash & mask_] = e;
                e = following;
            }
        }
        buckets_.swap(fresh);
    }

    // The real table made `real` for this key: link its twin.
    PEntry *add(const std::string &text, long number, QOR_ASSOC_entry *real) {
        if (!fixed_ && count_ > static_cast<int32_t>(mask_)) grow();
        auto *e = new PEntry{hash_of(text, number), text, number, real, nullptr,
                             nullptr, nullptr};
        if (strings_) {
            e->key_address = S(real)->key;
            e->value = S(real)->value;
        } else {
            e->value = L(real)->value;
        }
        by_real_[real] = e;
        e->next = buckets_[e->hash & mask_];
        buckets_[e->hash & mask_] = e;
        count_ += 1;
        line("inserted: ", e);
        return e;
    }

    PEntry *find(const std::string &text, long number, const void *key) {
        PEntry *e = lookup(text, number);
        if (e != nullptr) {
            line("found ", e);
        } else {
            trace += "-- ASSOC table " + std::string(real_->name) +
                     ": failed to find " + key_text(key) + "\n";
        }
        return e;
    }

    PEntry *find_dup(const std::string &text, long number, const void *key,
                     PEntry *previous) {
        if (previous == nullptr) {
            PEntry *e = lookup(text, number);
            if (e != nullptr) {
                line("found ", e);
            } else {
                plain_line("failed to find something");
            }
            return e;
        }
        (void)key;
        PEntry *e = match_from(previous->next, previous->hash, text, number);
        if (e != nullptr) {
            line("found ", e);
        } else {
            plain_line("failed to find something");
        }
        return e;
    }

    void remove(PEntry *entry) {
        if (entry == nullptr) return;
        line("removing: ", entry);
        for (PScan *s : scans_) {
            if (s->current == entry) {
                s->pending = false;
                next(s);
                s->pending = true;
            }
        }
        PEntry **link = &buckets_[entry->hash & mask_];
        while (*link != entry) link = &(*link)->next;
        *link = entry->next;
        by_real_.erase(entry->real);
        delete entry;
        count_ -= 1;
    }

    void clear() {
        plain_line("clearing");
        if (count_ == 0) return;
        for (PScan *s : scans_) {
            if (s->current != nullptr) {
                s->current = nullptr;
                s->pending = true;
            }
        }
        for (auto &b : buckets_) b = nullptr;
        for (auto &[r, e] : by_real_) delete e;
        by_real_.clear();
        count_ = 0;
    }

    PEntry *next(PScan *s) {
        if (s->pending) {
            s->pending = false;
            return s->current;
        }
        uint64_t b = 0;
        if (s->current != nullptr) {
            if (s->current->next != nullptr) {
                s->current = s->current->next;
                return s->current;
            }
            b = (s->current->hash & mask_) + 1;
        }
        for (; b <= mask_; ++b) {
            if (buckets_[b] != nullptr) {
                s->current = buckets_[b];
                return s->current;
            }
        }
        s->current = nullptr;
        return nullptr;
    }

    PScan *scan_create(QOR_ASSOC_scan *real) {
        auto *s = new PScan{real, nullptr, false};
        scans_.push_back(s);
        plain_line("created scan");
        return s;
    }
    void scan_destroy(PScan *s) {
        plain_line("destroying scan");
        std::erase(scans_, s);
        delete s;
    }

    PEntry *twin(QOR_ASSOC_entry *real) const {
        if (real == nullptr) return nullptr;
        auto it = by_real_.find(real);
        return it == by_real_.end() ? nullptr : it->second;
    }
    size_t size() const { return by_real_.size(); }
    PEntry *nth(size_t i) const {
        auto it = by_real_.begin();
        std::advance(it, static_cast<long>(i));
        return it->second;
    }
    const std::vector<PScan *> &scans() const { return scans_; }

    // Chains, count and mask as the real table has them.
    void expect_same_chains() const {
        ASSERT_EQ(real_->mask, mask_);
        ASSERT_EQ(real_->count, count_);
        for (uint64_t b = 0; b <= mask_; ++b) {
            QOR_ASSOC_entry *r = real_->buckets[b];
            for (PEntry *e = buckets_[b]; e != nullptr; e = e->next) {
                ASSERT_EQ(r, e->real) << "bucket " << b;
                ASSERT_EQ(r->hash, e->hash);
                r = r->next;
            }
            ASSERT_EQ(r, nullptr) << "bucket " << b;
        }
        for (PScan *s : scans_) {
            ASSERT_EQ(s->real->current, s->current ? s->current->real : nullptr);
            ASSERT_EQ(s->real->pending != 0, s->pending);
        }
    }

  private:
    // The printers' lines, written out here.
    std::string printed(PEntry *e) const {
        char buf[512];
        const int bucket = static_cast<int>(e->hash & mask_);
        if (strings_) {
            snprintf(buf, sizeof buf, "0x%08lx\t%d\t(0x%08lx, %s): 0x%08lx\n",
                     static_cast<unsigned long>(e->hash), bucket,
                     static_cast<unsigned long>(
                         reinterpret_cast<uintptr_t>(e->key_address)),
                     e->text.c_str(),
                     static_cast<unsigned long>(
                         reinterpret_cast<uintptr_t>(e->value)));
        } else {
            snprintf(buf, sizeof buf, "0x%08lx\t%d\t(0x%08lx, %ld): 0x%08lx\n",
                     static_cast<unsigned long>(e->hash), bucket,
                     static_cast<unsigned long>(e->hash), e->number,
                     static_cast<unsigned long>(
                         reinterpret_cast<uintptr_t>(e->value)));
        }
        return buf;
    }
    std::string key_text(const void *key) const {
        char buf[512];
        if (strings_) {
            snprintf(buf, sizeof buf, "(0x%08lx, %s)",
                     static_cast<unsigned long>(reinterpret_cast<uintptr_t>(key)),
                     static_cast<const char *>(key));
        } else {
            const long k = static_cast<long>(reinterpret_cast<intptr_t>(key));
            snprintf(buf, sizeof buf, "(0x%08lx, %ld)",
                     static_cast<unsigned long>(k), k);
        }
        return buf;
    }
    void line(const char *what, PEntry *e) {
        trace += "-- ASSOC table " + std::string(real_->name) + ": " + what +
                 printed(e);
    }
    void plain_line(const char *what) {
        trace += "-- ASSOC table " + std::string(real_->name) + ": " + what +
                 "\n";
    }

    QOR_ASSOC_table *real_;
    bool strings_;
    bool fixed_ = false;
    std::vector<PEntry *> buckets_;
    uint64_t mask_ = 0;
    int32_t count_ = 0;
    std::vector<PScan *> scans_;
    std::map<QOR_ASSOC_entry *, PEntry *> by_real_;
};

// ---- Keys -----------------------------------------------------------------

struct KeySet {
    bool strings;
    std::vector<std::string> texts;
    std::vector<long> numbers;
    size_t size() const { return strings ? texts.size() : numbers.size(); }
    const void *key(size_t i) const {
        return strings ? static_cast<const void *>(texts[i].c_str())
                       : lkey(numbers[i]);
    }
};

// Short numbered keys, the empty key, keys of every length up to 10 bytes,
// and many long keys whose middle 14 bytes are the same (one chain for all
// of them, told apart only by their ends), some differing only in their
// last byte.
KeySet string_keys() {
    KeySet k{true, {}, {}};
    char buf[96];
    for (int i = 0; i < 24; ++i) {
        snprintf(buf, sizeof buf, "k%07d", i * 37);
        k.texts.push_back(buf);
    }
    for (int i = 0; i < 40; ++i) {
        snprintf(buf, sizeof buf, "/p%03d/the-same-middle-for-all/x%03d", i % 7,
                 i);
        k.texts.push_back(buf);
    }
    for (char c = 'a'; c <= 'h'; ++c) {
        k.texts.push_back(std::string(30, 'm') + c);
    }
    k.texts.push_back("");
    k.texts.push_back("a");
    // Keys of up to 8 bytes are kept whole by the index, longer ones by
    // address: every length around that edge, keys that differ only in
    // their first or last byte, a key that is another's prefix, and bytes
    // from the high half.
    const std::string letters = "abcdefghij";
    for (size_t n = 2; n <= letters.size(); ++n) {
        k.texts.push_back(letters.substr(0, n));
    }
    k.texts.push_back("abcdefgX");
    k.texts.push_back("Xbcdefgh");
    k.texts.push_back("abcX");
    k.texts.push_back("\x80\xff\x01");
    k.texts.push_back("\xff\xff\xff\xff\xff\xff\xff\xff");
    return k;
}

// Long keys that meet in one bucket before and after growths.
KeySet long_keys() {
    KeySet k{false, {}, {}};
    for (long i = 0; i < 60; ++i) k.numbers.push_back((i % 6) + 1024 * (i / 6));
    k.numbers.push_back(0);
    k.numbers.push_back(-1);
    k.numbers.push_back(-4096);
    return k;
}

// A key type with the library's string functions under another record:
// not one of the library's own, so it keeps the plain walk. Running the
// same sequences on it checks the walk itself against the plain table.
QOR_ASSOC_key_type custom_string_type() {
    QOR_ASSOC_key_type k = *QOR_ASSOC_string_key_type;
    return k;
}

// ---- The run --------------------------------------------------------------

// Runs that ended with more buckets than they began with: the tests check
// that growth (and its reversal of duplicates) was exercised.
int growths = 0;

void run(const KeySet &keys, const QOR_ASSOC_key_type *type, unsigned seed,
         int operations) {
    std::mt19937 rng(seed);
    auto pick = [&](size_t n) {
        return static_cast<size_t>(rng() % static_cast<unsigned>(n));
    };
    const int size =
        static_cast<int>(seed % 2 == 1 || pick(2) == 0 ? 0 : pick(100));
    ErrLog err;
    QOR_ASSOC_table *t = QOR_ASSOC_table_create(size, type, "diff", nullptr);
    t->trace = 1;
    if (pick(4) == 0) t->fixed_size = 1;
    const uint64_t initial_mask = t->mask;
    Plain p(t, keys.strings, size);
    p.trace = err.take();  // the creation line, before tracing was on: none
    ASSERT_EQ(p.trace, "");

    uintptr_t next_value = 1;
    std::vector<PScan *> scans;
    for (int i = 0; i < 2; ++i) {
        scans.push_back(p.scan_create(QOR_ASSOC_scan_create(t, nullptr)));
    }

    auto text_of = [&](size_t k) {
        return keys.strings ? keys.texts[k] : std::string();
    };
    auto number_of = [&](size_t k) { return keys.strings ? 0L : keys.numbers[k]; };

    for (int op = 0; op < operations; ++op) {
        const size_t k = pick(keys.size());
        const void *key = keys.key(k);
        const std::string text = text_of(k);
        const long number = number_of(k);
        const int kind = static_cast<int>(pick(16));
        switch (kind) {
            case 0:
            case 1: {  // insert
                int found = -1;
                QOR_ASSOC_entry *r =
                    QOR_ASSOC_table_insert(t, key, val(next_value), &found);
                PEntry *e = p.lookup(text, number);
                ASSERT_EQ(found, e != nullptr ? 1 : 0);
                if (e == nullptr) {
                    e = p.add(text, number, r);
                    ++next_value;
                }
                ASSERT_EQ(r, e->real);
                break;
            }
            case 2: {  // insert a duplicate
                QOR_ASSOC_entry *r =
                    QOR_ASSOC_table_insert_dup(t, key, val(next_value++));
                p.add(text, number, r);
                break;
            }
            case 3: {  // replace
                int replaced = -1;
                PEntry *old = p.lookup(text, number);
                QOR_ASSOC_entry *r = QOR_ASSOC_table_insert_replace(
                    t, key, val(next_value++), &replaced);
                ASSERT_EQ(replaced, old != nullptr ? 1 : 0);
                p.remove(old);
                p.add(text, number, r);
                break;
            }
            case 4:
            case 5: {  // find
                QOR_ASSOC_entry *r = QOR_ASSOC_table_find(t, key);
                PEntry *e = p.find(text, number, key);
                ASSERT_EQ(r, e ? e->real : nullptr);
                break;
            }
            case 6: {  // every duplicate, in chain order
                QOR_ASSOC_entry *r = nullptr;
                PEntry *e = nullptr;
                do {
                    r = QOR_ASSOC_table_find_dup(t, key, r);
                    e = p.find_dup(text, number, key, e);
                    ASSERT_EQ(r, e ? e->real : nullptr);
                } while (r != nullptr);
                break;
            }
            case 7: {  // find_dup from any entry, usually of another key
                if (p.size() == 0) break;
                PEntry *from = p.nth(pick(p.size()));
                QOR_ASSOC_entry *r = QOR_ASSOC_table_find_dup(t, key, from->real);
                PEntry *e = p.find_dup(text, number, key, from);
                ASSERT_EQ(r, e ? e->real : nullptr);
                break;
            }
            case 8:
            case 9: {  // remove any entry (seldom on odd seeds, to grow)
                if (p.size() == 0 || (seed % 2 == 1 && pick(4) != 0)) break;
                PEntry *victim = p.nth(pick(p.size()));
                QOR_ASSOC_table_remove(t, victim->real);
                p.remove(victim);
                break;
            }
            case 10: {  // step a long-lived scan
                PScan *s = scans[pick(scans.size())];
                QOR_ASSOC_entry *r = QOR_ASSOC_scan_next(s->real);
                PEntry *e = p.next(s);
                ASSERT_EQ(r, e ? e->real : nullptr);
                break;
            }
            case 11: {  // remove through a scan, twice
                PScan *s = scans[pick(scans.size())];
                for (int i = 0; i < 2; ++i) {
                    PEntry *victim = s->pending ? nullptr : s->current;
                    QOR_ASSOC_scan_remove(s->real);
                    if (victim != nullptr) p.remove(victim);
                }
                break;
            }
            case 12: {  // scan find / find_dup
                PScan *s = scans[pick(scans.size())];
                QOR_ASSOC_entry *r;
                PEntry *e;
                if (pick(2) == 0) {
                    r = QOR_ASSOC_scan_find(s->real, key);
                    e = p.find(text, number, key);
                } else {
                    r = QOR_ASSOC_scan_find_dup(s->real, key);
                    e = p.find_dup(text, number, key, s->current);
                }
                s->pending = false;
                s->current = e;
                ASSERT_EQ(r, e ? e->real : nullptr);
                break;
            }
            case 13: {  // scan inserts of the three kinds
                PScan *s = scans[pick(scans.size())];
                QOR_ASSOC_entry *r;
                PEntry *e;
                const size_t how = pick(3);
                // Cleared first: a replacement that removes the entry the
                // scan stands on leaves it pending again.
                s->pending = false;
                if (how == 0) {
                    int found = -1;
                    r = QOR_ASSOC_scan_insert(s->real, key, val(next_value),
                                              &found);
                    e = p.lookup(text, number);
                    ASSERT_EQ(found, e != nullptr ? 1 : 0);
                    if (e == nullptr) {
                        e = p.add(text, number, r);
                        ++next_value;
                    }
                } else if (how == 1) {
                    int replaced = -1;
                    PEntry *old = p.lookup(text, number);
                    r = QOR_ASSOC_scan_insert_replace(s->real, key,
                                                      val(next_value++),
                                                      &replaced);
                    ASSERT_EQ(replaced, old != nullptr ? 1 : 0);
                    p.remove(old);
                    e = p.add(text, number, r);
                } else {
                    r = QOR_ASSOC_scan_insert_dup(s->real, key,
                                                  val(next_value++));
                    e = p.add(text, number, r);
                }
                s->current = e;
                ASSERT_EQ(r, e->real);
                break;
            }
            case 14: {  // a whole scan, removing some entries on the way
                PScan *s = p.scan_create(QOR_ASSOC_scan_create(t, nullptr));
                for (int guard = 0; guard < 100000; ++guard) {
                    QOR_ASSOC_entry *r = QOR_ASSOC_scan_next(s->real);
                    PEntry *e = p.next(s);
                    ASSERT_EQ(r, e ? e->real : nullptr);
                    if (r == nullptr) break;
                    if (pick(seed % 2 == 1 ? 40 : 3) == 0) {
                        QOR_ASSOC_scan_remove(s->real);
                        p.remove(e);
                    }
                }
                QOR_ASSOC_scan_destroy(s->real);
                p.scan_destroy(s);
                break;
            }
            case 15: {  // now and then, clear
                if (pick(seed % 2 == 1 ? 300 : 30) == 0) {
                    QOR_ASSOC_table_clear(t);
                    p.clear();
                }
                break;
            }
        }
        p.expect_same_chains();
        if (testing::Test::HasFatalFailure()) {
            ADD_FAILURE() << "operation " << op << " (kind " << kind << ")";
            return;
        }
        if (op % 64 == 63 || op == operations - 1) {
            ASSERT_EQ(err.take(), p.trace) << "trace up to operation " << op;
            p.trace.clear();
        }
    }
    growths += t->mask > initial_mask ? 1 : 0;
    QOR_ASSOC_table_destroy(t);
    ASSERT_EQ(err.take(), "-- ASSOC table diff: destroying\n");
}

}  // namespace

TEST(AssocDifferential, StringKeysOfEveryShape) {
    const KeySet keys = string_keys();
    growths = 0;
    for (unsigned seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE(seed);
        run(keys, QOR_ASSOC_string_key_type, seed, 3000);
        if (HasFatalFailure() || HasFailure()) return;
    }
    EXPECT_GE(growths, 4);
}

TEST(AssocDifferential, LongKeysMeetingInBuckets) {
    const KeySet keys = long_keys();
    growths = 0;
    for (unsigned seed = 101; seed <= 112; ++seed) {
        SCOPED_TRACE(seed);
        run(keys, QOR_ASSOC_long_int_key_type, seed, 3000);
        if (HasFatalFailure() || HasFailure()) return;
    }
    EXPECT_GE(growths, 4);
}

TEST(AssocDifferential, ACallersKeyTypeKeepsThePlainWalk) {
    const KeySet keys = string_keys();
    const QOR_ASSOC_key_type custom = custom_string_type();
    for (unsigned seed = 201; seed <= 204; ++seed) {
        SCOPED_TRACE(seed);
        run(keys, &custom, seed, 2000);
        if (HasFatalFailure() || HasFailure()) return;
    }
}

// Many entries with one middle (one chain) and many duplicates of one key:
// the answers stay the walk's through several growths.
TEST(AssocDifferential, OneChainOfThousandsThroughGrowths) {
    QOR_ASSOC_table *t =
        QOR_ASSOC_table_create(0, QOR_ASSOC_string_key_type, "one", nullptr);
    std::vector<std::string> keys;
    char buf[96];
    for (int i = 0; i < 3000; ++i) {
        snprintf(buf, sizeof buf, "%05d/the-same-middle-for-every-key/%05d", i,
                 i);
        keys.push_back(buf);
    }
    std::vector<QOR_ASSOC_entry *> dups;
    for (int i = 0; i < 3000; ++i) {
        QOR_ASSOC_table_insert(t, keys[static_cast<size_t>(i)].c_str(),
                               val(static_cast<uintptr_t>(i)), nullptr);
        dups.push_back(QOR_ASSOC_table_insert_dup(t, "dup", val(0)));
    }
    EXPECT_EQ(t->mask + 1, 8192u);
    // The plain walk: first of the chain with the key.
    for (int i = 0; i < 3000; i += 7) {
        const char *k = keys[static_cast<size_t>(i)].c_str();
        const uint64_t h = QOR_ASSOC_string_hash(t, k);
        QOR_ASSOC_entry *walk = t->buckets[h & t->mask];
        while (walk != nullptr &&
               !(walk->hash == h && strcmp(S(walk)->key, k) == 0)) {
            walk = walk->next;
        }
        ASSERT_EQ(QOR_ASSOC_table_find(t, k), walk);
        ASSERT_EQ(S(walk)->value, val(static_cast<uintptr_t>(i)));
    }
    // Duplicates of "dup" in chain order, all 3000 of them.
    const uint64_t h = QOR_ASSOC_string_hash(t, "dup");
    QOR_ASSOC_entry *walk = t->buckets[h & t->mask];
    int n = 0;
    for (QOR_ASSOC_entry *d = QOR_ASSOC_table_find_dup(t, "dup", nullptr);
         d != nullptr; d = QOR_ASSOC_table_find_dup(t, "dup", d), ++n) {
        while (walk != nullptr && strcmp(S(walk)->key, "dup") != 0) {
            walk = walk->next;
        }
        ASSERT_EQ(d, walk) << n;
        walk = walk->next;
    }
    EXPECT_EQ(n, 3000);
    // Removing every other key leaves the rest findable and the chain whole.
    for (int i = 0; i < 3000; i += 2) {
        QOR_ASSOC_table_remove(
            t, QOR_ASSOC_table_find(t, keys[static_cast<size_t>(i)].c_str()));
    }
    for (int i = 0; i < 3000; ++i) {
        QOR_ASSOC_entry *e =
            QOR_ASSOC_table_find(t, keys[static_cast<size_t>(i)].c_str());
        ASSERT_EQ(e != nullptr, i % 2 == 1) << i;
    }
    EXPECT_EQ(t->count, 1500 + 3000);
    QOR_ASSOC_table_destroy(t);
}

// Atom tables are indexed too: the same strings get the same atoms, and
// keys sharing their middle stay apart.
TEST(AssocDifferential, AtomTablesFindWhatTheWalkFinds) {
    QOR_atom_table *a = QOR_create_atom_table("atoms", 0, 0, 1);
    char buf[96];
    for (int i = 0; i < 2000; ++i) {
        snprintf(buf, sizeof buf, "/x%04d/same-middle-everywhere/%04d", i, i);
        ASSERT_EQ(QOR_string_to_atom(a, buf), i + 1);
    }
    for (int i = 0; i < 2000; ++i) {
        snprintf(buf, sizeof buf, "/x%04d/same-middle-everywhere/%04d", i, i);
        ASSERT_EQ(QOR_string_to_existing_atom(a, buf), i + 1);
        ASSERT_STREQ(QOR_atom_to_string(a, i + 1), buf);
    }
    EXPECT_EQ(QOR_string_to_existing_atom(a, "/x9999/same-middle-everywhere/0"),
              0);
    EXPECT_EQ(a->assoc.mask + 1, 32u);  // fixed: never grows
    QOR_destroy_atom_table(a);
}

// A million duplicates of the empty key: inserting them, visiting them all
// with find_dup and removing them one by one each cost the same per entry
// as with one (a chain walk per step would not finish).
TEST(AssocDifferential, AMillionDuplicatesOfTheEmptyKey) {
    QOR_ASSOC_table *t =
        QOR_ASSOC_table_create(0, QOR_ASSOC_string_key_type, "dups", nullptr);
    constexpr uintptr_t kDups = 1000000;
    for (uintptr_t i = 1; i <= kDups; ++i) {
        QOR_ASSOC_table_insert_dup(t, "", val(i));
    }
    ASSERT_EQ(static_cast<uintptr_t>(t->count), kDups);
    // One chain, newest first... until growths reversed it: each step of
    // find_dup is the chain's next entry.
    QOR_ASSOC_entry *chain = t->buckets[0];
    uintptr_t n = 0;
    for (QOR_ASSOC_entry *d = QOR_ASSOC_table_find_dup(t, "", nullptr);
         d != nullptr; d = QOR_ASSOC_table_find_dup(t, "", d), ++n) {
        ASSERT_EQ(d, chain) << n;
        chain = chain->next;
    }
    EXPECT_EQ(n, kDups);
    // Removed at the head of the chain and just after it, by turns.
    for (uintptr_t i = 0; i < kDups; ++i) {
        QOR_ASSOC_entry *e = QOR_ASSOC_table_find(t, "");
        ASSERT_NE(e, nullptr);
        QOR_ASSOC_table_remove(t, i % 2 == 0 ? e : e->next != nullptr ? e->next : e);
    }
    EXPECT_EQ(t->count, 0);
    EXPECT_EQ(QOR_ASSOC_table_find(t, ""), nullptr);
    QOR_ASSOC_table_destroy(t);
}

// ---- Clearing large tables ------------------------------------------------
//
// A large table of the library's own key types is cleared from its index,
// its entries freed in address order rather than along the chains. What
// the caller sees stays the same: every entry and key copy given back,
// every bucket empty, scans reset, the table as good as new.

namespace {

// Blocks allocated and not yet freed, from the calls counted by the test
// support (heap statistics would count the allocator's caches as in use).
// Calls of fn that went through (the refused ones made nothing).
long made(qor_fault_fn fn) { return qor_fault_calls(fn) - qor_fault_injected(fn); }

long blocks_held() { return made(QF_malloc) + made(QF_calloc) - qor_fault_frees(); }

struct LargeTable {
    bool strings;
    std::vector<std::string> texts;
    std::vector<long> numbers;

    const void *key(size_t i) const {
        return strings ? static_cast<const void *>(texts[i].c_str())
                       : reinterpret_cast<const void *>(numbers[i]);
    }
    size_t size() const { return strings ? texts.size() : numbers.size(); }
};

// Short keys (kept whole in the index) and long keys with one middle, or
// numbers that meet in few buckets.
LargeTable large_keys(bool strings, int n) {
    LargeTable k{strings, {}, {}};
    char buf[96];
    for (int i = 0; i < n; ++i) {
        if (!strings) {
            k.numbers.push_back(static_cast<long>(i) * 4096 + (i % 3));
        } else if (i % 2 == 0) {
            snprintf(buf, sizeof buf, "k%06d", i);
            k.texts.push_back(buf);
        } else {
            snprintf(buf, sizeof buf, "/srv/%06d/one-middle-for-all-of-them/%06d",
                     i, i);
            k.texts.push_back(buf);
        }
    }
    return k;
}

// The chain walk's answer to a find.
QOR_ASSOC_entry *walk_find(QOR_ASSOC_table *t, const LargeTable &k, size_t i) {
    const uint64_t h = t->key_type->hash(t, k.key(i));
    for (QOR_ASSOC_entry *e = t->buckets[h & t->mask]; e != nullptr;
         e = e->next) {
        if (e->hash == h && t->key_type->cmp(t, e, k.key(i)) != 0) return e;
    }
    return nullptr;
}

// Every key, every tenth held three times, every seventh removed once
// (which makes the index keep chain predecessors), through growths.
int fill(QOR_ASSOC_table *t, const LargeTable &k) {
    for (size_t i = 0; i < k.size(); ++i) {
        QOR_ASSOC_table_insert(t, k.key(i), val(i + 1), nullptr);
        if (i % 10 == 0) {
            QOR_ASSOC_table_insert_dup(t, k.key(i), val(i + 1));
            QOR_ASSOC_table_insert_dup(t, k.key(i), val(i + 1));
        }
    }
    for (size_t i = 0; i < k.size(); i += 7) {
        QOR_ASSOC_table_remove(t, QOR_ASSOC_table_find(t, k.key(i)));
    }
    return t->count;
}

// Clears a filled table and checks what is left, then fills it again and
// checks that finds are the walk's.
void clear_and_check(QOR_ASSOC_table *t, const LargeTable &k) {
    const int expected = fill(t, k);
    ASSERT_EQ(t->count, expected);
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    ASSERT_NE(QOR_ASSOC_scan_next(s), nullptr);
    QOR_ASSOC_table_clear(t);
    EXPECT_EQ(t->count, 0);
    for (uint64_t b = 0; b <= t->mask; ++b) ASSERT_EQ(t->buckets[b], nullptr) << b;
    EXPECT_EQ(s->current, nullptr);
    EXPECT_EQ(s->pending, 1);
    EXPECT_EQ(QOR_ASSOC_scan_next(s), nullptr);
    for (size_t i = 0; i < k.size(); ++i) {
        ASSERT_EQ(QOR_ASSOC_table_find(t, k.key(i)), nullptr) << i;
    }
    // As good as new: the same answers as the walk, duplicates included.
    ASSERT_EQ(fill(t, k), expected);
    for (size_t i = 0; i < k.size(); ++i) {
        QOR_ASSOC_entry *e = QOR_ASSOC_table_find(t, k.key(i));
        ASSERT_EQ(e, walk_find(t, k, i)) << i;
        if (i % 10 == 0) {
            ASSERT_NE(e, nullptr);
            ASSERT_NE(QOR_ASSOC_table_find_dup(t, k.key(i), e), nullptr) << i;
        }
    }
    EXPECT_NE(QOR_ASSOC_scan_next(s), nullptr);
    QOR_ASSOC_scan_destroy(s);
}

// Mappings made and not yet unmapped, from the calls counted by the test
// support (the system allocator maps through its own entry points, which
// are not counted; /proc/self/maps would show a sanitizer's own mappings).
long mappings_held() { return made(QF_mmap) - qor_fault_calls(QF_munmap); }

// What a test refuses the library: the clear's list or the sort's counts
// (its first and second blocks), or the pages a destroy lists the entries
// in or the sort's counts for that list.
enum class Refuse {
    nothing,
    clear_list,
    clear_counts,
    destroy_pages,
    destroy_counts,
};

// Runs clear_and_check on a new table and destroys it with its entries,
// checking that the table's whole life gave back every block and mapping
// it took. `listed` tells whether the destroy should list the entries in
// pages of their own (the library's key types, large enough, with room).
void large_clear(const QOR_ASSOC_key_type *type, bool strings, int n,
                 bool fixed_size, Refuse refuse, bool listed) {
    const LargeTable k = large_keys(strings, n);
    // A first table sets up what the library keeps for all of its tables.
    QOR_ASSOC_table_destroy(QOR_ASSOC_table_create(0, type, "warm", nullptr));
    const long before = blocks_held();
    const long mapped_before = mappings_held();
    QOR_ASSOC_table *t =
        QOR_ASSOC_table_create(fixed_size ? 1024 : 0, type, "large", nullptr);
    t->fixed_size = fixed_size ? 1 : 0;
    if (refuse == Refuse::clear_list || refuse == Refuse::clear_counts) {
        // Without either block of scratch the chains are walked.
        const int expected = fill(t, k);
        const long refused = qor_fault_injected(QF_malloc);
        const int skip = refuse == Refuse::clear_counts ? 1 : 0;
        qor_fault_fail(QF_malloc, ENOMEM, skip, 1);
        QOR_ASSOC_table_clear(t);
        EXPECT_EQ(qor_fault_injected(QF_malloc), refused + 1);
        EXPECT_EQ(t->count, 0);
        for (uint64_t b = 0; b <= t->mask; ++b) ASSERT_EQ(t->buckets[b], nullptr);
        ASSERT_EQ(fill(t, k), expected);
        for (size_t i = 0; i < k.size(); ++i) {
            ASSERT_EQ(QOR_ASSOC_table_find(t, k.key(i)), walk_find(t, k, i)) << i;
        }
    } else {
        clear_and_check(t, k);
    }
    if (testing::Test::HasFatalFailure()) return;
    if (fixed_size) {
        EXPECT_EQ(t->mask + 1, 1024u);
        EXPECT_GT(t->count, 1024);
    }
    EXPECT_GE(t->count, 4096);
    const long maps_asked = qor_fault_calls(QF_mmap);
    const long maps_refused = qor_fault_injected(QF_mmap);
    const long blocks_refused = qor_fault_injected(QF_malloc);
    // Without its pages, or without the counts to sort its list, a destroy
    // clears the table first, as any other.
    if (refuse == Refuse::destroy_pages) qor_fault_fail(QF_mmap, ENOMEM, 0, 1);
    if (refuse == Refuse::destroy_counts) qor_fault_fail(QF_malloc, ENOMEM, 0, 1);
    QOR_ASSOC_table_destroy(t);  // with entries
    EXPECT_EQ(qor_fault_calls(QF_mmap) - maps_asked, listed ? 1 : 0);
    EXPECT_EQ(qor_fault_injected(QF_mmap) - maps_refused,
              refuse == Refuse::destroy_pages ? 1 : 0);
    EXPECT_EQ(qor_fault_injected(QF_malloc) - blocks_refused,
              refuse == Refuse::destroy_counts ? 1 : 0);
    EXPECT_EQ(blocks_held(), before);
    EXPECT_EQ(mappings_held(), mapped_before);
}

}  // namespace

TEST(AssocDifferential, ClearingALargeStringTableGivesBackEveryEntry) {
    large_clear(QOR_ASSOC_string_key_type, true, 20000, false, Refuse::nothing,
                true);
}

TEST(AssocDifferential, ClearingALargeLongTableGivesBackEveryEntry) {
    large_clear(QOR_ASSOC_long_int_key_type, false, 20000, false,
                Refuse::nothing, true);
}

// Tables the index cannot list in place of their chains walk them: a
// caller's key type, a table of fixed size fuller than its buckets (no room
// to sort in), and a clear that finds no memory for either block of its
// scratch. A destroy refused its pages or its sort's counts clears the
// table first.
TEST(AssocDifferential, ClearingWithoutTheIndexListWalksTheChains) {
    const QOR_ASSOC_key_type custom = custom_string_type();
    large_clear(&custom, true, 20000, false, Refuse::nothing, false);
    large_clear(QOR_ASSOC_string_key_type, true, 20000, true, Refuse::nothing,
                false);
    large_clear(QOR_ASSOC_string_key_type, true, 20000, false,
                Refuse::clear_list, true);
    large_clear(QOR_ASSOC_long_int_key_type, false, 20000, false,
                Refuse::clear_list, true);
    large_clear(QOR_ASSOC_string_key_type, true, 20000, false,
                Refuse::clear_counts, true);
    large_clear(QOR_ASSOC_string_key_type, true, 20000, false,
                Refuse::destroy_pages, true);
    large_clear(QOR_ASSOC_long_int_key_type, false, 20000, false,
                Refuse::destroy_counts, true);
}

// Finds through tables asked about in turn: each answer comes from the
// table asked, whatever table was asked last (one with an index of the same
// kind, one of the other kind, a caller's key type without an index), and
// after a table is destroyed and another made, perhaps at its address.
TEST(AssocDifferential, TablesAskedAboutInTurnAnswerFromTheirOwn) {
    const QOR_ASSOC_key_type custom = custom_string_type();
    const QOR_ASSOC_key_type *types[4] = {
        QOR_ASSOC_string_key_type, QOR_ASSOC_string_key_type, &custom,
        QOR_ASSOC_long_int_key_type};
    QOR_ASSOC_table *tables[4];
    std::map<std::string, QOR_ASSOC_entry *> held[4];
    for (int i = 0; i < 4; ++i) {
        tables[i] = QOR_ASSOC_table_create(0, types[i], "turn", nullptr);
    }
    std::mt19937 rng(31);
    char buf[48];
    for (int op = 0; op < 20000; ++op) {
        const int i = static_cast<int>(rng() % 4);
        const long n = static_cast<long>(rng() % 600);
        snprintf(buf, sizeof buf, "key-%03ld", n);
        const bool longs = types[i] == QOR_ASSOC_long_int_key_type;
        const void *key = longs ? reinterpret_cast<const void *>(n + 1)
                                : static_cast<const void *>(buf);
        if (rng() % 3 == 0) {
            QOR_ASSOC_entry *e = QOR_ASSOC_table_insert(
                tables[i], key, reinterpret_cast<void *>(static_cast<intptr_t>(i + 1)),
                nullptr);
            held[i].emplace(buf, e);
        } else {
            const auto it = held[i].find(buf);
            ASSERT_EQ(QOR_ASSOC_table_find(tables[i], key),
                      it == held[i].end() ? nullptr : it->second)
                << "table " << i << ", operation " << op;
        }
        if (op % 5000 == 4999) {  // table 1 made anew
            QOR_ASSOC_table_destroy(tables[1]);
            held[1].clear();
            tables[1] = QOR_ASSOC_table_create(0, types[1], "turn", nullptr);
        }
    }
    for (QOR_ASSOC_table *t : tables) QOR_ASSOC_table_destroy(t);
}
