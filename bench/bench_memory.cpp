// The pooled allocators against their peers. Names are <work>/<contender>,
// then the count swept (10^3 to 10^6) where there is one.
//
// Freestore, against APR pools, NSPR arenas (mark and release), talloc pools
// and plain malloc/free:
//   fs_small/<c>/<n>  : n small pieces (8 to 64 bytes, each touched), then
//                       all released at once (each freed, for malloc).
//   fs_scratch/<c>    : save a mark, 4 pieces and a joined path string,
//                       restore: the way library calls use the shared
//                       freestore.
// The contender qor_inline_prototype runs both through a prototype of
// inline fast paths (clearly marked below; not part of the library) to
// measure what such an interface would buy.
//
// Static allocator, against malloc/free (and GSlice with GLib), records of
// 16, 64 and 256 bytes in blocks of 1024 records (and of 64, the library's
// own pools' size, for 64-byte records):
//   sa_fill_<size>/<c>/<n>  : n records taken, then all given back in
//                             reverse order.
//   sa_churn_<size>/<c>/<n> : n records live; one given back at random and
//                             one taken, per item.
//   sa_reuse_<size>/<c>/<n> : n records live; one taken and given back at
//                             once (how the library's pools serve open and
//                             close).
// Counters: items_per_second; bytes_per_entry (heap held per live record,
// by mallinfo2) for the fills.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <qor/qor.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <vector>

#ifdef QOR_HAVE_APR
#include <apr_general.h>
#include <apr_pools.h>
#include <apr_strings.h>
#endif
#ifdef QOR_HAVE_NSPR
#include <plarena.h>
#endif
#ifdef QOR_HAVE_TALLOC
#include <talloc.h>
#endif
#ifdef QOR_HAVE_GLIB
#include <glib.h>
#endif

namespace {

constexpr int kMaxPieces = 1000000;

// Sizes of fs_small: 8 to 64 bytes, the same sequence for everyone.
struct Sizes {
    std::vector<unsigned> v;
    Sizes() : v(kMaxPieces) {
        for (int i = 0; i < kMaxPieces; ++i) v[i] = 8 + static_cast<unsigned>(i * 37) % 57;
    }
} const kSizes;

void Counts(benchmark::internal::Benchmark *b) {
    for (long n : {1000L, 10000L, 100000L, 1000000L}) b->Arg(n);
}

size_t heap_in_use() {
    struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

// Pattern Scratch: the pieces and the strings joined.
constexpr unsigned kScratchSizes[4] = {24, 40, 16, 100};
const char kDir[] = "/usr/local/share/";
const char kName[] = "example";
const char kExt[] = ".config";

// The strings as the program would have them: of lengths unknown to the
// compiler, so that nobody's joining is folded away at compile time.
struct Texts {
    const char *dir, *name, *ext;
};
inline Texts texts() {
    Texts t{kDir, kName, kExt};
    benchmark::DoNotOptimize(t.dir);
    benchmark::DoNotOptimize(t.name);
    benchmark::DoNotOptimize(t.ext);
    return t;
}

// Measures the three strings and joins them into storage from `take` (the
// peers without a joining call of their own).
template <class Take>
inline char *join3(const Texts &t, Take take) {
    const size_t a = strlen(t.dir), b = strlen(t.name), c = strlen(t.ext);
    char *out = static_cast<char *>(take(a + b + c + 1));
    memcpy(out, t.dir, a);
    memcpy(out + a, t.name, b);
    memcpy(out + a + b, t.ext, c + 1);
    return out;
}

// ---- Pattern Small ----------------------------------------------------------

void Small_Freestore(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    QOR_FS_allocator fs = QOR_FS_INITIALISER(2016, 0);
    for (auto _ : state) {
        for (int i = 0; i < n; ++i) {
            char *p = static_cast<char *>(QOR_FS_malloc(&fs, kSizes.v[i]));
            p[0] = static_cast<char>(i);
            benchmark::DoNotOptimize(p);
        }
        QOR_FS_empty(&fs);
    }
    QOR_FS_destroy(&fs);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(Small_Freestore)->Name("fs_small/qor")->Apply(Counts);

void Small_Malloc(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    std::vector<void *> held(static_cast<size_t>(n));
    for (auto _ : state) {
        for (int i = 0; i < n; ++i) {
            char *p = static_cast<char *>(malloc(kSizes.v[i]));
            p[0] = static_cast<char>(i);
            held[i] = p;
        }
        for (void *p : held) free(p);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(Small_Malloc)->Name("fs_small/malloc")->Apply(Counts);

#ifdef QOR_HAVE_APR
struct AprRuntime {
    AprRuntime() { apr_initialize(); }
} apr_runtime;

void Small_APR(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    apr_pool_t *pool;
    apr_pool_create(&pool, nullptr);
    for (auto _ : state) {
        for (int i = 0; i < n; ++i) {
            char *p = static_cast<char *>(apr_palloc(pool, kSizes.v[i]));
            p[0] = static_cast<char>(i);
            benchmark::DoNotOptimize(p);
        }
        apr_pool_clear(pool);
    }
    apr_pool_destroy(pool);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(Small_APR)->Name("fs_small/apr")->Apply(Counts);
#endif

#ifdef QOR_HAVE_NSPR
void Small_NSPR(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    PLArenaPool pool;
    PL_InitArenaPool(&pool, "bench", 2048, sizeof(double));
    for (auto _ : state) {
        void *mark = PL_ARENA_MARK(&pool);
        for (int i = 0; i < n; ++i) {
            void *v;
            PL_ARENA_ALLOCATE(v, &pool, kSizes.v[i]);
            char *p = static_cast<char *>(v);
            p[0] = static_cast<char>(i);
            benchmark::DoNotOptimize(p);
        }
        PL_ARENA_RELEASE(&pool, mark);
    }
    PL_FinishArenaPool(&pool);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(Small_NSPR)->Name("fs_small/nspr")->Apply(Counts);
#endif

#ifdef QOR_HAVE_TALLOC
void Small_Talloc(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    void *pool = talloc_pool(nullptr, 64 * 1024);
    for (auto _ : state) {
        for (int i = 0; i < n; ++i) {
            char *p = static_cast<char *>(talloc_size(pool, kSizes.v[i]));
            p[0] = static_cast<char>(i);
            benchmark::DoNotOptimize(p);
        }
        talloc_free_children(pool);
    }
    talloc_free(pool);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(Small_Talloc)->Name("fs_small/talloc")->Apply(Counts);
#endif

// ---- Pattern Scratch ----------------------------------------------------------

void Scratch_Freestore(benchmark::State &state) {
    QOR_FS_allocator *fs = &QOR_SH_fs_allocator;
    QOR_FS_copy_string(fs, "something from before");  // the mark is mid-chunk
    for (auto _ : state) {
        QOR_FS_mark mark;
        QOR_FS_save(fs, &mark);
        for (unsigned n : kScratchSizes) {
            char *p = static_cast<char *>(QOR_FS_malloc(fs, n));
            p[0] = 1;
            benchmark::DoNotOptimize(p);
        }
        const Texts t = texts();
        char *s = QOR_FS_cat_strings(fs, t.dir, t.name, t.ext, nullptr);
        benchmark::DoNotOptimize(s);
        QOR_FS_restore(fs, &mark);
    }
    QOR_FS_destroy(fs);
}
BENCHMARK(Scratch_Freestore)->Name("fs_scratch/qor");

void Scratch_Malloc(benchmark::State &state) {
    void *held[4];
    for (auto _ : state) {
        for (int i = 0; i < 4; ++i) {
            char *p = static_cast<char *>(malloc(kScratchSizes[i]));
            p[0] = 1;
            held[i] = p;
        }
        char *s = join3(texts(), [](size_t n) { return malloc(n); });
        benchmark::DoNotOptimize(s);
        free(s);
        for (void *p : held) free(p);
    }
}
BENCHMARK(Scratch_Malloc)->Name("fs_scratch/malloc");

#ifdef QOR_HAVE_APR
void Scratch_APR(benchmark::State &state) {
    apr_pool_t *pool;
    apr_pool_create(&pool, nullptr);
    for (auto _ : state) {
        for (unsigned n : kScratchSizes) {
            char *p = static_cast<char *>(apr_palloc(pool, n));
            p[0] = 1;
            benchmark::DoNotOptimize(p);
        }
        const Texts t = texts();
        char *s = apr_pstrcat(pool, t.dir, t.name, t.ext, nullptr);
        benchmark::DoNotOptimize(s);
        apr_pool_clear(pool);
    }
    apr_pool_destroy(pool);
}
BENCHMARK(Scratch_APR)->Name("fs_scratch/apr");
#endif

#ifdef QOR_HAVE_NSPR
void Scratch_NSPR(benchmark::State &state) {
    PLArenaPool pool;
    PL_InitArenaPool(&pool, "bench", 2048, sizeof(double));
    void *before;
    PL_ARENA_ALLOCATE(before, &pool, 24);  // the mark is mid-arena
    benchmark::DoNotOptimize(before);
    for (auto _ : state) {
        void *mark = PL_ARENA_MARK(&pool);
        for (unsigned n : kScratchSizes) {
            void *v;
            PL_ARENA_ALLOCATE(v, &pool, n);
            static_cast<char *>(v)[0] = 1;
            benchmark::DoNotOptimize(v);
        }
        char *s = join3(texts(), [&pool](size_t n) {
            void *v;
            PL_ARENA_ALLOCATE(v, &pool, n);
            return v;
        });
        benchmark::DoNotOptimize(s);
        PL_ARENA_RELEASE(&pool, mark);
    }
    PL_FinishArenaPool(&pool);
}
BENCHMARK(Scratch_NSPR)->Name("fs_scratch/nspr");
#endif

#ifdef QOR_HAVE_TALLOC
void Scratch_Talloc(benchmark::State &state) {
    void *pool = talloc_pool(nullptr, 8 * 1024);
    for (auto _ : state) {
        for (unsigned n : kScratchSizes) {
            char *p = static_cast<char *>(talloc_size(pool, n));
            p[0] = 1;
            benchmark::DoNotOptimize(p);
        }
        char *s = join3(texts(), [pool](size_t n) { return talloc_size(pool, n); });
        benchmark::DoNotOptimize(s);
        talloc_free_children(pool);
    }
    talloc_free(pool);
}
BENCHMARK(Scratch_Talloc)->Name("fs_scratch/talloc");
#endif

// ---- Prototype, NOT part of the library ------------------------------------
// What inline fast paths in the public header would give: the freestore's
// common cases (bump in the current chunk, save, restore without oversized
// chunks or clearing) expanded in the caller over the public record layout,
// with a call into the library for everything else. The library has no such
// interface; these exist only to measure what one would buy.
namespace proto {

inline void *fs_malloc(QOR_FS_allocator *fs, uint32_t size) {
    const uint64_t rounded = (uint64_t{size} + 3) & ~uint64_t{3};
    QOR_FS_chunk *c = fs->current_chunk;
    if (c != nullptr && rounded - 1 < uint64_t{c->size - c->used}) {
        const uint32_t used = c->used;
        c->used = used + static_cast<uint32_t>(rounded);
        return reinterpret_cast<char *>(c) + used;
    }
    return QOR_FS_malloc(fs, size);
}

inline void fs_save(QOR_FS_allocator *fs, QOR_FS_mark *mark) {
    QOR_FS_chunk *c = fs->current_chunk;
    mark->chunk = c;
    mark->used = c != nullptr ? c->used : 0;
    mark->oversized_count = c != nullptr ? fs->oversized_count : 0;
}

inline void fs_restore(QOR_FS_allocator *fs, QOR_FS_mark *mark) {
    QOR_FS_chunk *c = mark->chunk;
    if (c != nullptr && fs->oversized_count == mark->oversized_count &&
        (fs->options & QOR_FS_CLEAR) == 0) {
        fs->current_chunk = c;
        c->used = mark->used;
        return;
    }
    QOR_FS_restore(fs, mark);
}

}  // namespace proto

void Small_FreestoreInlinePrototype(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    QOR_FS_allocator fs = QOR_FS_INITIALISER(2016, 0);
    for (auto _ : state) {
        for (int i = 0; i < n; ++i) {
            char *p = static_cast<char *>(proto::fs_malloc(&fs, kSizes.v[i]));
            p[0] = static_cast<char>(i);
            benchmark::DoNotOptimize(p);
        }
        QOR_FS_empty(&fs);
    }
    QOR_FS_destroy(&fs);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(Small_FreestoreInlinePrototype)->Name("fs_small/qor_inline_prototype")->Apply(Counts);

// The join stays the library's QOR_FS_cat_strings (one call per round).
void Scratch_FreestoreInlinePrototype(benchmark::State &state) {
    QOR_FS_allocator *fs = &QOR_SH_fs_allocator;
    QOR_FS_copy_string(fs, "something from before");  // the mark is mid-chunk
    for (auto _ : state) {
        QOR_FS_mark mark;
        proto::fs_save(fs, &mark);
        for (unsigned n : kScratchSizes) {
            char *p = static_cast<char *>(proto::fs_malloc(fs, n));
            p[0] = 1;
            benchmark::DoNotOptimize(p);
        }
        const Texts t = texts();
        char *s = QOR_FS_cat_strings(fs, t.dir, t.name, t.ext, nullptr);
        benchmark::DoNotOptimize(s);
        proto::fs_restore(fs, &mark);
    }
    QOR_FS_destroy(fs);
}
BENCHMARK(Scratch_FreestoreInlinePrototype)->Name("fs_scratch/qor_inline_prototype");

// ---- Static allocator -----------------------------------------------------------

// A record pool behind one shape: qor's allocator, malloc, GSlice.
template <size_t Size, uint32_t Block>
struct QorPool {
    QOR_SA_allocator sa = QOR_SA_INITIALISER(Size, Block, Block, nullptr, nullptr);
    void *take() { return QOR_SA_allocate(&sa); }
    void give(void *p) { QOR_SA_release(&sa, p); }
    ~QorPool() { QOR_SA_destroy(&sa); }
};

template <size_t Size>
struct MallocPool {
    void *take() { return malloc(Size); }
    void give(void *p) { free(p); }
};

#ifdef QOR_HAVE_GLIB
template <size_t Size>
struct SlicePool {
    void *take() { return g_slice_alloc(Size); }
    void give(void *p) { g_slice_free1(Size, p); }
};
#endif

template <class Pool>
void Fill(benchmark::State &state) {
    const size_t n = static_cast<size_t>(state.range(0));
    std::vector<void *> held(n);
    Pool pool;
    size_t bytes = 0;
    for (auto _ : state) {
        const size_t before = heap_in_use();
        for (size_t i = 0; i < n; ++i) {
            char *p = static_cast<char *>(pool.take());
            p[0] = static_cast<char>(i);
            held[i] = p;
        }
        if (bytes == 0) bytes = heap_in_use() - before;
        for (size_t i = n; i-- > 0;) pool.give(held[i]);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
    state.counters["bytes_per_entry"] =
        static_cast<double>(bytes) / static_cast<double>(n);
}

// The order in which churn gives back its live records: the same for all.
const std::vector<uint32_t> &churn_order(size_t n) {
    static std::vector<uint32_t> v;
    v.resize(1 << 16);
    std::mt19937 rng(17);
    for (auto &x : v) x = static_cast<uint32_t>(rng() % n);
    return v;
}

template <class Pool>
void Churn(benchmark::State &state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const std::vector<uint32_t> &order = churn_order(n);
    Pool pool;
    std::vector<void *> live(n);
    for (auto &p : live) p = pool.take();
    size_t k = 0;
    for (auto _ : state) {
        const uint32_t i = order[k++ & 0xffff];
        pool.give(live[i]);
        char *p = static_cast<char *>(pool.take());
        p[0] = 1;
        live[i] = p;
    }
    for (void *p : live) pool.give(p);
    state.SetItemsProcessed(state.iterations());
}

template <class Pool>
void Reuse(benchmark::State &state) {
    const size_t n = static_cast<size_t>(state.range(0));
    Pool pool;
    std::vector<void *> live(n);
    for (auto &p : live) p = pool.take();
    for (auto _ : state) {
        char *p = static_cast<char *>(pool.take());
        p[0] = 1;
        benchmark::DoNotOptimize(p);
        pool.give(p);
    }
    for (void *p : live) pool.give(p);
    state.SetItemsProcessed(state.iterations());
}

#define QOR_SA_WORKS(size, block, label)                                              \
    BENCHMARK_TEMPLATE(Fill, QorPool<size, block>)->Name("sa_fill_" label "/qor")->Apply(Counts);    \
    BENCHMARK_TEMPLATE(Fill, MallocPool<size>)->Name("sa_fill_" label "/malloc")->Apply(Counts);     \
    BENCHMARK_TEMPLATE(Churn, QorPool<size, block>)->Name("sa_churn_" label "/qor")->Apply(Counts);  \
    BENCHMARK_TEMPLATE(Churn, MallocPool<size>)->Name("sa_churn_" label "/malloc")->Apply(Counts);   \
    BENCHMARK_TEMPLATE(Reuse, QorPool<size, block>)->Name("sa_reuse_" label "/qor")->Apply(Counts);  \
    BENCHMARK_TEMPLATE(Reuse, MallocPool<size>)->Name("sa_reuse_" label "/malloc")->Apply(Counts)

QOR_SA_WORKS(16, 1024, "16B");
QOR_SA_WORKS(64, 1024, "64B");
QOR_SA_WORKS(256, 1024, "256B");
QOR_SA_WORKS(64, 64, "64B_blocks64");

#ifdef QOR_HAVE_GLIB
BENCHMARK_TEMPLATE(Fill, SlicePool<64>)->Name("sa_fill_64B/gslice")->Apply(Counts);
BENCHMARK_TEMPLATE(Churn, SlicePool<64>)->Name("sa_churn_64B/gslice")->Apply(Counts);
BENCHMARK_TEMPLATE(Reuse, SlicePool<64>)->Name("sa_reuse_64B/gslice")->Apply(Counts);
#endif

}  // namespace
