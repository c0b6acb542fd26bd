// Associative containers against their peers: ASSOC tables and TABLEs
// against GHashTable, NSPR's PLHashTable, APR's apr_hash and
// std::unordered_map, for short string keys ("key%07d"), path-like keys
// (long, with a common middle) and long-integer keys: building a table by
// inserts, finds that hit and finds that miss. Atom tables against GLib
// quarks.
//
// Every benchmark reports items per second; one item is one insert or one
// find.
#include <benchmark/benchmark.h>
#include <qor/qor.h>
#include <stdio.h>

#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#if QOR_HAVE_GLIB
#include <glib.h>
#endif
#if QOR_HAVE_NSPR
#include <plhash.h>
#endif
#if QOR_HAVE_APR
#include <apr_general.h>
#include <apr_hash.h>
#include <apr_pools.h>
#endif

namespace {

// ---- Key sets ---------------------------------------------------------------

enum class Kind { Short, Path, Word };

struct StringKeys {
    std::vector<std::string> hits;
    std::vector<std::string> misses;
};

std::string short_key(long i) {
    char buf[32];
    snprintf(buf, sizeof buf, "key%07ld", i);
    return buf;
}

// Like a file under a project tree: long, and the same in its middle.
std::string path_key(long i) {
    char buf[96];
    snprintf(buf, sizeof buf, "/home/user/projects/qor/src/module%03ld/file%05ld.c",
             i / 100, i);
    return buf;
}

// Ten random letters: short keys whose bytes are all different, to set the
// cost of the hash functions apart from the cost of the tables.
std::string word_key(std::mt19937 &rng) {
    std::string s(10, 'a');
    for (char &c : s) c = static_cast<char>('a' + rng() % 26);
    return s;
}

const StringKeys &string_keys(Kind kind, long n) {
    static std::unordered_map<long, StringKeys> cache[3];
    auto &slot = cache[static_cast<int>(kind)];
    auto it = slot.find(n);
    if (it != slot.end()) return it->second;
    StringKeys k;
    std::mt19937 rng(42);
    for (long i = 0; i < n; ++i) {
        switch (kind) {
            case Kind::Short:
                k.hits.push_back(short_key(i));
                k.misses.push_back(short_key(n + i));
                break;
            case Kind::Path:
                k.hits.push_back(path_key(i));
                k.misses.push_back(path_key(n + i));
                break;
            case Kind::Word:
                k.hits.push_back(word_key(rng));
                k.misses.push_back(word_key(rng) + "!");
                break;
        }
    }
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

// ---- The containers, behind one shape ------------------------------------

struct Assoc {
    using Table = QOR_ASSOC_table *;
    static Table make_strings() {
        return QOR_ASSOC_table_create(0, QOR_ASSOC_string_key_type, "bench",
                                      nullptr);
    }
    static Table make_longs() {
        return QOR_ASSOC_table_create(0, QOR_ASSOC_long_int_key_type, "bench",
                                      nullptr);
    }
    static void put(Table t, const char *k, void *v) {
        QOR_ASSOC_table_insert(t, k, v, nullptr);
    }
    static void put(Table t, long k, void *v) {
        QOR_ASSOC_table_insert(t, lkey(k), v, nullptr);
    }
    static const void *get(Table t, const char *k) {
        return QOR_ASSOC_table_find(t, k);
    }
    static const void *get(Table t, long k) {
        return QOR_ASSOC_table_find(t, lkey(k));
    }
    static void drop(Table t) { QOR_ASSOC_table_destroy(t); }
};

struct Table {
    // A TABLE and the freestore it lives in. Keys are not copied, as the
    // peers do not copy them either.
    struct Store {
        QOR_FS_allocator fs;
        QOR_TABLE *table;
    };
    static Store *make(unsigned kind) {
        auto *s = new Store{QOR_FS_INITIALISER(2016, 0), nullptr};
        s->table = QOR_TABLE_create(0, kind, &s->fs);
        return s;
    }
    static Store *make_strings() { return make(1); }
    static Store *make_longs() { return make(0); }
    static void put(Store *s, const char *k, void *v) {
        QOR_TABLE_insert(s->table, k, v, 0);
    }
    static void put(Store *s, long k, void *v) {
        QOR_TABLE_insert(s->table, lkey(k), v, 0);
    }
    static const void *get(Store *s, const char *k) {
        return QOR_TABLE_find(s->table, k);
    }
    static const void *get(Store *s, long k) {
        return QOR_TABLE_find(s->table, lkey(k));
    }
    static void drop(Store *s) {
        QOR_TABLE_destroy(s->table);
        QOR_FS_destroy(&s->fs);
        delete s;
    }
};

struct StdMap {
    // The keys stay alive in the key sets; the map holds views of them, as
    // the C tables that do not copy keys do.
    struct Table {
        std::unordered_map<std::string_view, void *> strings;
        std::unordered_map<long, void *> longs;
    };
    static Table *make_strings() { return new Table; }
    static Table *make_longs() { return new Table; }
    static void put(Table *t, const char *k, void *v) { t->strings.emplace(k, v); }
    static void put(Table *t, long k, void *v) { t->longs.emplace(k, v); }
    static const void *get(Table *t, const char *k) {
        auto it = t->strings.find(k);
        return it == t->strings.end() ? nullptr : it->second;
    }
    static const void *get(Table *t, long k) {
        auto it = t->longs.find(k);
        return it == t->longs.end() ? nullptr : it->second;
    }
    static void drop(Table *t) { delete t; }
};

#if QOR_HAVE_GLIB
struct GHash {
    using Table = GHashTable *;
    static Table make_strings() { return g_hash_table_new(g_str_hash, g_str_equal); }
    static Table make_longs() { return g_hash_table_new(g_direct_hash, g_direct_equal); }
    static void put(Table t, const char *k, void *v) {
        g_hash_table_insert(t, const_cast<char *>(k), v);
    }
    static void put(Table t, long k, void *v) {
        g_hash_table_insert(t, const_cast<void *>(lkey(k)), v);
    }
    static const void *get(Table t, const char *k) { return g_hash_table_lookup(t, k); }
    static const void *get(Table t, long k) { return g_hash_table_lookup(t, lkey(k)); }
    static void drop(Table t) { g_hash_table_destroy(t); }
};
#endif

#if QOR_HAVE_NSPR
struct PLHash {
    using Table = PLHashTable *;
    static PLHashNumber identity(const void *k) {
        const auto w = reinterpret_cast<uintptr_t>(k);
        return static_cast<PLHashNumber>(w ^ (w >> 32));
    }
    static Table make_strings() {
        return PL_NewHashTable(0, PL_HashString, PL_CompareStrings,
                               PL_CompareValues, nullptr, nullptr);
    }
    static Table make_longs() {
        return PL_NewHashTable(0, identity, PL_CompareValues, PL_CompareValues,
                               nullptr, nullptr);
    }
    static void put(Table t, const char *k, void *v) { PL_HashTableAdd(t, k, v); }
    static void put(Table t, long k, void *v) { PL_HashTableAdd(t, lkey(k), v); }
    static const void *get(Table t, const char *k) { return PL_HashTableLookup(t, k); }
    static const void *get(Table t, long k) { return PL_HashTableLookup(t, lkey(k)); }
    static void drop(Table t) { PL_HashTableDestroy(t); }
};
#endif

#if QOR_HAVE_APR
struct AprHash {
    struct Table {
        apr_pool_t *pool;
        apr_hash_t *hash;
    };
    static apr_pool_t *root() {
        static apr_pool_t *pool = [] {
            apr_initialize();
            apr_pool_t *p = nullptr;
            apr_pool_create(&p, nullptr);
            return p;
        }();
        return pool;
    }
    static Table *make_strings() {
        auto *t = new Table;
        apr_pool_create(&t->pool, root());
        t->hash = apr_hash_make(t->pool);
        return t;
    }
    static Table *make_longs() { return make_strings(); }
    static void put(Table *t, const char *k, void *v) {
        apr_hash_set(t->hash, k, APR_HASH_KEY_STRING, v);
    }
    // apr_hash keeps a pointer to the key bytes: long keys are given as the
    // address of the long in the key set.
    static void put(Table *t, const long &k, void *v) {
        apr_hash_set(t->hash, &k, sizeof(long), v);
    }
    static const void *get(Table *t, const char *k) {
        return apr_hash_get(t->hash, k, APR_HASH_KEY_STRING);
    }
    static const void *get(Table *t, const long &k) {
        return apr_hash_get(t->hash, &k, sizeof(long));
    }
    static void drop(Table *t) {
        apr_pool_destroy(t->pool);
        delete t;
    }
};
#endif

// ---- Benchmarks -------------------------------------------------------------

template <class C, Kind K>
void StringInsert(benchmark::State &state) {
    const StringKeys &keys = string_keys(K, state.range(0));
    for (auto _ : state) {
        auto t = C::make_strings();
        long i = 0;
        for (const std::string &k : keys.hits) C::put(t, k.c_str(), value(i++));
        C::drop(t);
    }
    state.SetItemsProcessed(state.iterations() *
                            static_cast<int64_t>(keys.hits.size()));
}

template <class C, Kind K, bool Hit>
void StringFind(benchmark::State &state) {
    const StringKeys &keys = string_keys(K, state.range(0));
    auto t = C::make_strings();
    long i = 0;
    for (const std::string &k : keys.hits) C::put(t, k.c_str(), value(i++));
    const auto &probe = Hit ? keys.hits : keys.misses;
    for (auto _ : state) {
        for (const std::string &k : probe) {
            const void *r = C::get(t, k.c_str());
            benchmark::DoNotOptimize(r);
            if ((r != nullptr) != Hit) state.SkipWithError("wrong answer");
        }
    }
    state.SetItemsProcessed(state.iterations() *
                            static_cast<int64_t>(probe.size()));
    C::drop(t);
}

template <class C>
void LongInsert(benchmark::State &state) {
    const LongKeys &keys = long_keys(state.range(0));
    for (auto _ : state) {
        auto t = C::make_longs();
        long i = 0;
        for (const long &k : keys.hits) C::put(t, k, value(i++));
        C::drop(t);
    }
    state.SetItemsProcessed(state.iterations() *
                            static_cast<int64_t>(keys.hits.size()));
}

template <class C, bool Hit>
void LongFind(benchmark::State &state) {
    const LongKeys &keys = long_keys(state.range(0));
    auto t = C::make_longs();
    long i = 0;
    for (const long &k : keys.hits) C::put(t, k, value(i++));
    const auto &probe = Hit ? keys.hits : keys.misses;
    for (auto _ : state) {
        for (const long &k : probe) {
            const void *r = C::get(t, k);
            benchmark::DoNotOptimize(r);
            if ((r != nullptr) != Hit) state.SkipWithError("wrong answer");
        }
    }
    state.SetItemsProcessed(state.iterations() *
                            static_cast<int64_t>(probe.size()));
    C::drop(t);
}

constexpr long kShort = 10000;  // short and word keys
constexpr long kPath = 2000;    // path keys (the ASSOC hash puts them in one chain)
constexpr long kLong = 100000;  // long-integer keys

#define QOR_STRING_BENCHES(C)                                                  \
    BENCHMARK_TEMPLATE(StringInsert, C, Kind::Short)->Arg(kShort);             \
    BENCHMARK_TEMPLATE(StringFind, C, Kind::Short, true)->Arg(kShort);         \
    BENCHMARK_TEMPLATE(StringFind, C, Kind::Short, false)->Arg(kShort);        \
    BENCHMARK_TEMPLATE(StringInsert, C, Kind::Word)->Arg(kShort);              \
    BENCHMARK_TEMPLATE(StringFind, C, Kind::Word, true)->Arg(kShort);          \
    BENCHMARK_TEMPLATE(StringFind, C, Kind::Word, false)->Arg(kShort);         \
    BENCHMARK_TEMPLATE(StringInsert, C, Kind::Path)->Arg(kPath);               \
    BENCHMARK_TEMPLATE(StringFind, C, Kind::Path, true)->Arg(kPath);           \
    BENCHMARK_TEMPLATE(StringFind, C, Kind::Path, false)->Arg(kPath);          \
    BENCHMARK_TEMPLATE(LongInsert, C)->Arg(kLong);                             \
    BENCHMARK_TEMPLATE(LongFind, C, true)->Arg(kLong);                         \
    BENCHMARK_TEMPLATE(LongFind, C, false)->Arg(kLong)

QOR_STRING_BENCHES(Assoc);
QOR_STRING_BENCHES(Table);
QOR_STRING_BENCHES(StdMap);
#if QOR_HAVE_GLIB
QOR_STRING_BENCHES(GHash);
#endif
#if QOR_HAVE_NSPR
QOR_STRING_BENCHES(PLHash);
#endif
#if QOR_HAVE_APR
QOR_STRING_BENCHES(AprHash);
#endif

// How the ASSOC cost of path keys grows with their number: all of them
// share one hash, so a find walks a chain as long as the table.
BENCHMARK_TEMPLATE(StringFind, Assoc, Kind::Path, true)->Arg(500)->Arg(8000);
#if QOR_HAVE_GLIB
BENCHMARK_TEMPLATE(StringFind, GHash, Kind::Path, true)->Arg(500)->Arg(8000);
#endif

// ---- Atoms against GLib quarks ------------------------------------------------

// Each round interns strings never seen before: quarks are never freed, so
// every round needs fresh ones, made outside the timing.
std::vector<std::string> fresh_strings(long n) {
    static long round = 0;
    ++round;
    std::vector<std::string> out;
    out.reserve(static_cast<size_t>(n));
    char buf[48];
    for (long i = 0; i < n; ++i) {
        snprintf(buf, sizeof buf, "r%ld-key%07ld", round, i);
        out.push_back(buf);
    }
    return out;
}

void AtomCreate(benchmark::State &state) {
    const long n = state.range(0);
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<std::string> strings = fresh_strings(n);
        state.ResumeTiming();
        QOR_atom_table *t = QOR_create_atom_table("bench", 0, 0, 0);
        for (const std::string &s : strings) {
            benchmark::DoNotOptimize(QOR_string_to_atom(t, s.c_str()));
        }
        QOR_destroy_atom_table(t);
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void AtomOfKnownString(benchmark::State &state) {
    const StringKeys &keys = string_keys(Kind::Short, state.range(0));
    QOR_atom_table *t = QOR_create_atom_table("bench", 0, 0, 0);
    for (const std::string &k : keys.hits) QOR_string_to_atom(t, k.c_str());
    for (auto _ : state) {
        for (const std::string &k : keys.hits) {
            benchmark::DoNotOptimize(QOR_string_to_atom(t, k.c_str()));
        }
    }
    state.SetItemsProcessed(state.iterations() *
                            static_cast<int64_t>(keys.hits.size()));
    QOR_destroy_atom_table(t);
}

void AtomToString(benchmark::State &state) {
    const long n = state.range(0);
    QOR_atom_table *t = QOR_create_atom_table("bench", 0, 0, 0);
    for (const std::string &k : string_keys(Kind::Short, n).hits)
        QOR_string_to_atom(t, k.c_str());
    for (auto _ : state) {
        for (int a = 1; a <= n; ++a) {
            benchmark::DoNotOptimize(QOR_atom_to_string(t, a));
        }
    }
    state.SetItemsProcessed(state.iterations() * n);
    QOR_destroy_atom_table(t);
}

BENCHMARK(AtomCreate)->Arg(kShort)->Iterations(30);
BENCHMARK(AtomOfKnownString)->Arg(kShort);
BENCHMARK(AtomToString)->Arg(kShort);

#if QOR_HAVE_GLIB
void QuarkCreate(benchmark::State &state) {
    const long n = state.range(0);
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<std::string> strings = fresh_strings(n);
        state.ResumeTiming();
        for (const std::string &s : strings) {
            benchmark::DoNotOptimize(g_quark_from_string(s.c_str()));
        }
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void QuarkOfKnownString(benchmark::State &state) {
    const StringKeys &keys = string_keys(Kind::Short, state.range(0));
    for (const std::string &k : keys.hits) g_quark_from_string(k.c_str());
    for (auto _ : state) {
        for (const std::string &k : keys.hits) {
            benchmark::DoNotOptimize(g_quark_from_string(k.c_str()));
        }
    }
    state.SetItemsProcessed(state.iterations() *
                            static_cast<int64_t>(keys.hits.size()));
}

void QuarkToString(benchmark::State &state) {
    const StringKeys &keys = string_keys(Kind::Short, state.range(0));
    std::vector<GQuark> quarks;
    for (const std::string &k : keys.hits)
        quarks.push_back(g_quark_from_string(k.c_str()));
    for (auto _ : state) {
        for (GQuark q : quarks) benchmark::DoNotOptimize(g_quark_to_string(q));
    }
    state.SetItemsProcessed(state.iterations() *
                            static_cast<int64_t>(quarks.size()));
}

BENCHMARK(QuarkCreate)->Arg(kShort)->Iterations(30);
BENCHMARK(QuarkOfKnownString)->Arg(kShort);
BENCHMARK(QuarkToString)->Arg(kShort);
#endif

}  // namespace
