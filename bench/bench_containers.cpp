// Associative containers against their peers, swept over 10^3 to 10^6 keys
// of several shapes:
//   short     "k%07d"                                   (numbered names)
//   path_mid  64 bytes, the number in the middle        (paths by module)
//   path_end  64 bytes, the number at the end           (files of one dir)
//   long      random long integers
//
// Works (`<work>/<contender>/<keys>`):
//   assoc_insert_<shape>  a new table, <keys> inserts (keys copied), destroy
//   assoc_find_<shape>    <keys> finds that hit and <keys> that miss, in an
//                         order other than the keys' numbers; each gives
//                         the value stored with the key (for the library,
//                         the found entry's value word), as a caller needs
//   table_insert_<shape>, table_find_<shape>  the same for TABLEs
//   atom_intern_<shape>   <keys> new strings into an empty atom table; one
//                         iteration per process (quarks cannot be freed, so
//                         both start empty only when each runs alone)
//   atom_lookup_<shape>   the atom of <keys> known strings, in an order other
//                         than the keys' numbers
//   atom_to_string        the string of <keys> atoms
// Contenders: qor (libqor), glib (GHashTable with g_str_hash / quarks),
// std (std::unordered_map). ASSOC copies its keys, so its peers copy them
// too; TABLEs do not, and neither do theirs there.
//
// Counters: items_per_second (one insert or one find), bytes_per_entry (the
// heap the structure holds once built, by mallinfo2, over <keys>).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <qor/qor.h>
#include <stdio.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#if QOR_HAVE_GLIB
#include <glib.h>
#endif

namespace {

// ---- Keys -------------------------------------------------------------------

enum class Shape { Short, PathMid, PathEnd };

std::string make_key(Shape shape, long i) {
    char buf[80];
    switch (shape) {
        case Shape::Short:
            snprintf(buf, sizeof buf, "k%07ld", i);
            break;
        case Shape::PathMid:
            // 64 bytes: the number sits where the ASSOC hash looks.
            snprintf(buf, sizeof buf, "/srv/projects/qor/build/m%08ld/objects/sources/file.c.o.d.txt",
                     i);
            break;
        case Shape::PathEnd:
            snprintf(buf, sizeof buf, "/srv/projects/qor/build/objects/sources/generated/file%08ld.c",
                     i);
            break;
    }
    return buf;
}

struct Keys {
    std::vector<std::string> hits;     // in their numbers' order
    std::vector<std::string> lookups;  // the hits again, shuffled
    std::vector<std::string> misses;   // shuffled
};

// The keys in a random order, each copied in that order so that reading
// them goes through memory forwards.
std::vector<std::string> shuffled(const std::vector<std::string> &keys, unsigned seed) {
    std::vector<size_t> order(keys.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::mt19937 rng(seed);
    std::shuffle(order.begin(), order.end(), rng);
    std::vector<std::string> out;
    out.reserve(keys.size());
    for (size_t i : order) out.push_back(keys[i]);
    return out;
}

const Keys &keys_for(Shape shape, long n) {
    static std::unordered_map<long, Keys> cache[3];
    auto &slot = cache[static_cast<int>(shape)];
    auto it = slot.find(n);
    if (it != slot.end()) return it->second;
    Keys k;
    k.hits.reserve(static_cast<size_t>(n));
    std::vector<std::string> odd;
    odd.reserve(static_cast<size_t>(n));
    for (long i = 0; i < n; ++i) {
        k.hits.push_back(make_key(shape, 2 * i));
        odd.push_back(make_key(shape, 2 * i + 1));
    }
    // Inserted in their numbers' order, looked up in another. A weak string
    // hash (g_str_hash) gives numbered keys neighbouring slots, so lookups in
    // the numbers' order would read its table almost in sequence: a pattern
    // of this benchmark, not of the work it stands for.
    k.lookups = shuffled(k.hits, 5);
    k.misses = shuffled(odd, 3);
    return slot.emplace(n, std::move(k)).first->second;
}

struct LongKeys {
    std::vector<long> hits;
    std::vector<long> misses;
};

const LongKeys &long_keys(long n) {
    static std::unordered_map<long, LongKeys> cache;
    auto it = cache.find(n);
    if (it != cache.end()) return it->second;
    LongKeys k;
    std::mt19937_64 rng(7);
    std::unordered_set<long> taken;
    while (static_cast<long>(taken.size()) < 2 * n) {
        const long key = static_cast<long>(rng() >> 16);
        if (!taken.insert(key).second) continue;
        (static_cast<long>(k.hits.size()) < n ? k.hits : k.misses).push_back(key);
    }
    return cache.emplace(n, std::move(k)).first->second;
}

inline const void *lkey(long k) {
    return reinterpret_cast<const void *>(static_cast<intptr_t>(k));
}
inline void *value(long i) {
    return reinterpret_cast<void *>(static_cast<intptr_t>(i + 1));
}

size_t heap_in_use() {
    struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

// ---- Contenders ---------------------------------------------------------------

// The value word of a found entry of the given layout, or null for a miss.
template <class Entry, class Found>
const void *value_of(const Found *e) {
    return e != nullptr ? reinterpret_cast<const Entry *>(e)->value : nullptr;
}

struct QorAssoc {
    using T = QOR_ASSOC_table *;
    static T make_strings() {
        return QOR_ASSOC_table_create(0, QOR_ASSOC_string_key_type, "bench", nullptr);
    }
    static T make_longs() {
        return QOR_ASSOC_table_create(0, QOR_ASSOC_long_int_key_type, "bench", nullptr);
    }
    static void put(T t, const char *k, void *v) { QOR_ASSOC_table_insert(t, k, v, nullptr); }
    static void put(T t, long k, void *v) { QOR_ASSOC_table_insert(t, lkey(k), v, nullptr); }
    // A find gives the entry; what a caller wants is its value, and reading
    // it is part of the work, as it is for the peers that give the value.
    static const void *get(T t, const char *k) {
        return value_of<QOR_ASSOC_string_entry>(QOR_ASSOC_table_find(t, k));
    }
    static const void *get(T t, long k) {
        return value_of<QOR_ASSOC_long_int_entry>(QOR_ASSOC_table_find(t, lkey(k)));
    }
    static void drop(T t) { QOR_ASSOC_table_destroy(t); }
};

// std::unordered_map owning copies of the keys, as ASSOC does; looked up
// without making a string of the key.
struct ViewHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const {
        return std::hash<std::string_view>{}(s);
    }
};

template <class StringMap>
struct StdMap {
    struct Tab {
        StringMap strings;
        std::unordered_map<long, void *> longs;
    };
    using T = Tab *;
    static T make_strings() { return new Tab; }
    static T make_longs() { return new Tab; }
    static void put(T t, const char *k, void *v) { t->strings.emplace(k, v); }
    static void put(T t, long k, void *v) { t->longs.emplace(k, v); }
    static const void *get(T t, const char *k) {
        auto it = t->strings.find(std::string_view(k));
        return it == t->strings.end() ? nullptr : it->second;
    }
    static const void *get(T t, long k) {
        auto it = t->longs.find(k);
        return it == t->longs.end() ? nullptr : it->second;
    }
    static void drop(T t) { delete t; }
};

using StdOwning =
    StdMap<std::unordered_map<std::string, void *, ViewHash, std::equal_to<>>>;
// Views of the key sets, which outlive the tables (as TABLEs keep keys).
using StdViews = StdMap<std::unordered_map<std::string_view, void *>>;

// TABLEs do not copy keys: the key sets outlive them.
struct QorTable {
    struct Tab {
        QOR_FS_allocator fs;
        QOR_TABLE *table;
    };
    using T = Tab *;
    static T make(unsigned kind) {
        auto *s = new Tab{QOR_FS_INITIALISER(2016, 0), nullptr};
        s->table = QOR_TABLE_create(0, kind, &s->fs);
        return s;
    }
    static T make_strings() { return make(QOR_TABLE_STRING_KEYS); }
    static T make_longs() { return make(QOR_TABLE_POINTER_KEYS); }
    static void put(T s, const char *k, void *v) { QOR_TABLE_insert(s->table, k, v, 0); }
    static void put(T s, long k, void *v) { QOR_TABLE_insert(s->table, lkey(k), v, 0); }
    static const void *get(T s, const char *k) {
        return value_of<QOR_TABLE_entry>(QOR_TABLE_find(s->table, k));
    }
    static const void *get(T s, long k) {
        return value_of<QOR_TABLE_entry>(QOR_TABLE_find(s->table, lkey(k)));
    }
    static void drop(T s) {
        QOR_TABLE_destroy(s->table);
        QOR_FS_destroy(&s->fs);
        delete s;
    }
};

#if QOR_HAVE_GLIB
// GHashTable with g_str_hash; Owning copies keys (freed with the table).
template <bool Owning>
struct GHash {
    using T = GHashTable *;
    static T make_strings() {
        return Owning ? g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr)
                      : g_hash_table_new(g_str_hash, g_str_equal);
    }
    static T make_longs() { return g_hash_table_new(g_int64_hash, g_int64_equal); }
    static void put(T t, const char *k, void *v) {
        g_hash_table_insert(t, Owning ? g_strdup(k) : const_cast<char *>(k), v);
    }
    // The key set outlives the table: its longs are pointed at.
    static void put(T t, const long &k, void *v) {
        g_hash_table_insert(t, const_cast<long *>(&k), v);
    }
    static const void *get(T t, const char *k) { return g_hash_table_lookup(t, k); }
    static const void *get(T t, const long &k) { return g_hash_table_lookup(t, &k); }
    static void drop(T t) { g_hash_table_destroy(t); }
};
#endif

// ---- Works --------------------------------------------------------------------

template <class C, class K>
auto build(const K &hits, size_t *bytes) {
    const size_t before = bytes != nullptr ? heap_in_use() : 0;
    auto t = C::make_strings();
    long i = 0;
    for (const auto &k : hits) {
        if constexpr (std::is_same_v<typename K::value_type, std::string>) {
            C::put(t, k.c_str(), value(i++));
        } else {
            C::put(t, k, value(i++));
        }
    }
    if (bytes != nullptr) *bytes = heap_in_use() - before;
    return t;
}

template <class C>
auto build_longs(const std::vector<long> &hits, size_t *bytes) {
    const size_t before = bytes != nullptr ? heap_in_use() : 0;
    auto t = C::make_longs();
    long i = 0;
    for (const long &k : hits) C::put(t, k, value(i++));
    if (bytes != nullptr) *bytes = heap_in_use() - before;
    return t;
}

template <class C, Shape S>
void Insert(benchmark::State &state) {
    const Keys &keys = keys_for(S, state.range(0));
    size_t bytes = 0;
    bool measured = false;
    for (auto _ : state) {
        auto t = build<C>(keys.hits, measured ? nullptr : &bytes);
        measured = true;
        C::drop(t);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["bytes_per_entry"] =
        static_cast<double>(bytes) / static_cast<double>(state.range(0));
}

template <class C, Shape S>
void Find(benchmark::State &state) {
    const Keys &keys = keys_for(S, state.range(0));
    auto t = build<C>(keys.hits, nullptr);
    for (auto _ : state) {
        for (const std::string &k : keys.lookups) {
            const void *r = C::get(t, k.c_str());
            benchmark::DoNotOptimize(r);
            if (r == nullptr) state.SkipWithError("a hit was missed");
        }
        for (const std::string &k : keys.misses) {
            const void *r = C::get(t, k.c_str());
            benchmark::DoNotOptimize(r);
            if (r != nullptr) state.SkipWithError("a miss was found");
        }
    }
    state.SetItemsProcessed(state.iterations() * 2 * state.range(0));
    C::drop(t);
}

template <class C>
void InsertLong(benchmark::State &state) {
    const LongKeys &keys = long_keys(state.range(0));
    size_t bytes = 0;
    bool measured = false;
    for (auto _ : state) {
        auto t = build_longs<C>(keys.hits, measured ? nullptr : &bytes);
        measured = true;
        C::drop(t);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["bytes_per_entry"] =
        static_cast<double>(bytes) / static_cast<double>(state.range(0));
}

template <class C>
void FindLong(benchmark::State &state) {
    const LongKeys &keys = long_keys(state.range(0));
    auto t = build_longs<C>(keys.hits, nullptr);
    for (auto _ : state) {
        for (const long &k : keys.hits) benchmark::DoNotOptimize(C::get(t, k));
        for (const long &k : keys.misses) benchmark::DoNotOptimize(C::get(t, k));
    }
    state.SetItemsProcessed(state.iterations() * 2 * state.range(0));
    C::drop(t);
}

void Sizes(benchmark::internal::Benchmark *b) {
    for (long n : {1000L, 10000L, 100000L, 1000000L}) b->Arg(n);
    b->Unit(benchmark::kMicrosecond);
}

#define QOR_HASH_WORKS(prefix, C, contender)                                         \
    BENCHMARK_TEMPLATE(Insert, C, Shape::Short)                                      \
        ->Name(prefix "_insert_short/" contender)->Apply(Sizes);                     \
    BENCHMARK_TEMPLATE(Insert, C, Shape::PathMid)                                    \
        ->Name(prefix "_insert_path_mid/" contender)->Apply(Sizes);                  \
    BENCHMARK_TEMPLATE(Insert, C, Shape::PathEnd)                                    \
        ->Name(prefix "_insert_path_end/" contender)->Apply(Sizes);                  \
    BENCHMARK_TEMPLATE(Find, C, Shape::Short)                                        \
        ->Name(prefix "_find_short/" contender)->Apply(Sizes);                       \
    BENCHMARK_TEMPLATE(Find, C, Shape::PathMid)                                      \
        ->Name(prefix "_find_path_mid/" contender)->Apply(Sizes);                    \
    BENCHMARK_TEMPLATE(Find, C, Shape::PathEnd)                                      \
        ->Name(prefix "_find_path_end/" contender)->Apply(Sizes);                    \
    BENCHMARK_TEMPLATE(InsertLong, C)->Name(prefix "_insert_long/" contender)->Apply(Sizes); \
    BENCHMARK_TEMPLATE(FindLong, C)->Name(prefix "_find_long/" contender)->Apply(Sizes)

QOR_HASH_WORKS("assoc", QorAssoc, "qor");
QOR_HASH_WORKS("assoc", StdOwning, "std");
QOR_HASH_WORKS("table", QorTable, "qor");
QOR_HASH_WORKS("table", StdViews, "std");
#if QOR_HAVE_GLIB
QOR_HASH_WORKS("assoc", GHash<true>, "glib");
QOR_HASH_WORKS("table", GHash<false>, "glib");
#endif

// ---- Atoms against quarks -------------------------------------------------------

// Both are process-wide or never shrink: each benchmark must run in a
// process of its own (scripts/bench does) to start from empty.
struct QorAtoms {
    static QOR_atom_table *table() {
        static QOR_atom_table *t = QOR_create_atom_table("bench", 0, 0, 0);
        return t;
    }
    static int intern(const char *s) { return QOR_string_to_atom(table(), s); }
    static const char *name(int a) { return QOR_atom_to_string(table(), a); }
};

#if QOR_HAVE_GLIB
struct GQuarks {
    static int intern(const char *s) { return static_cast<int>(g_quark_from_string(s)); }
    static const char *name(int a) { return g_quark_to_string(static_cast<GQuark>(a)); }
};
#endif

template <class C, Shape S>
void AtomIntern(benchmark::State &state) {
    const Keys &keys = keys_for(S, state.range(0));
    const size_t before = heap_in_use();
    for (auto _ : state) {
        for (const std::string &k : keys.hits) benchmark::DoNotOptimize(C::intern(k.c_str()));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["bytes_per_entry"] =
        static_cast<double>(heap_in_use() - before) / static_cast<double>(state.range(0));
}

template <class C, Shape S>
void AtomLookup(benchmark::State &state) {
    const Keys &keys = keys_for(S, state.range(0));
    for (const std::string &k : keys.hits) C::intern(k.c_str());
    for (auto _ : state) {
        for (const std::string &k : keys.lookups) benchmark::DoNotOptimize(C::intern(k.c_str()));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class C>
void AtomToString(benchmark::State &state) {
    const Keys &keys = keys_for(Shape::Short, state.range(0));
    std::vector<int> atoms;
    for (const std::string &k : keys.hits) atoms.push_back(C::intern(k.c_str()));
    for (auto _ : state) {
        for (int a : atoms) benchmark::DoNotOptimize(C::name(a));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define QOR_ATOM_WORKS(C, contender)                                                 \
    BENCHMARK_TEMPLATE(AtomIntern, C, Shape::Short)                                  \
        ->Name("atom_intern_short/" contender)->Apply(Sizes)->Iterations(1);         \
    BENCHMARK_TEMPLATE(AtomIntern, C, Shape::PathEnd)                                \
        ->Name("atom_intern_path_end/" contender)->Apply(Sizes)->Iterations(1);      \
    BENCHMARK_TEMPLATE(AtomLookup, C, Shape::Short)                                  \
        ->Name("atom_lookup_short/" contender)->Apply(Sizes);                        \
    BENCHMARK_TEMPLATE(AtomLookup, C, Shape::PathEnd)                                \
        ->Name("atom_lookup_path_end/" contender)->Apply(Sizes);                     \
    BENCHMARK_TEMPLATE(AtomToString, C)->Name("atom_to_string/" contender)->Apply(Sizes)

QOR_ATOM_WORKS(QorAtoms, "qor");
#if QOR_HAVE_GLIB
QOR_ATOM_WORKS(GQuarks, "glib");
#endif

}  // namespace
