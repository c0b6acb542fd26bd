// The pooled allocators against their peers.
//
// Freestore patterns, each run by the freestore, APR pools, NSPR arenas
// (mark and release), talloc pools and plain malloc/free:
//   Small  : 1000 small pieces (8 to 64 bytes, each touched), then reset.
//   Scratch: save a mark, 4 pieces and a joined path string, restore: the
//            way library calls use the shared freestore.
// Small and Scratch are also run through a prototype of inline fast paths
// (clearly marked below; not part of the library) to measure what such an
// interface would buy.
// Static allocator patterns, against malloc/free (and GSlice with GLib):
//   Fill   : 1000 records of 48 bytes, then all released in reverse order.
//   Churn  : a steady 1000 live records; release one at random, take one.
//   Reuse  : with 1000 records live, take one and give it back at once: the
//            way the library's own pools serve open and close.
#include <benchmark/benchmark.h>
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

constexpr int kPieces = 1000;
constexpr int kRecords = 1000;
constexpr size_t kRecordSize = 48;

// Sizes of pattern Small: 8 to 64 bytes, the same sequence for everyone.
struct Sizes {
    unsigned v[kPieces];
    Sizes() {
        for (int i = 0; i < kPieces; ++i) v[i] = 8 + static_cast<unsigned>(i * 37) % 57;
    }
} const kSizes;

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
    QOR_FS_allocator fs = QOR_FS_INITIALISER(2016, 0);
    for (auto _ : state) {
        for (int i = 0; i < kPieces; ++i) {
            char *p = static_cast<char *>(QOR_FS_malloc(&fs, kSizes.v[i]));
            p[0] = static_cast<char>(i);
            benchmark::DoNotOptimize(p);
        }
        QOR_FS_empty(&fs);
    }
    QOR_FS_destroy(&fs);
    state.SetItemsProcessed(state.iterations() * kPieces);
}
BENCHMARK(Small_Freestore);

void Small_Malloc(benchmark::State &state) {
    std::vector<void *> held(kPieces);
    for (auto _ : state) {
        for (int i = 0; i < kPieces; ++i) {
            char *p = static_cast<char *>(malloc(kSizes.v[i]));
            p[0] = static_cast<char>(i);
            held[i] = p;
        }
        for (void *p : held) free(p);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPieces);
}
BENCHMARK(Small_Malloc);

#ifdef QOR_HAVE_APR
struct AprRuntime {
    AprRuntime() { apr_initialize(); }
} apr_runtime;

void Small_APR(benchmark::State &state) {
    apr_pool_t *pool;
    apr_pool_create(&pool, nullptr);
    for (auto _ : state) {
        for (int i = 0; i < kPieces; ++i) {
            char *p = static_cast<char *>(apr_palloc(pool, kSizes.v[i]));
            p[0] = static_cast<char>(i);
            benchmark::DoNotOptimize(p);
        }
        apr_pool_clear(pool);
    }
    apr_pool_destroy(pool);
    state.SetItemsProcessed(state.iterations() * kPieces);
}
BENCHMARK(Small_APR);
#endif

#ifdef QOR_HAVE_NSPR
void Small_NSPR(benchmark::State &state) {
    PLArenaPool pool;
    PL_InitArenaPool(&pool, "bench", 2048, sizeof(double));
    for (auto _ : state) {
        void *mark = PL_ARENA_MARK(&pool);
        for (int i = 0; i < kPieces; ++i) {
            void *v;
            PL_ARENA_ALLOCATE(v, &pool, kSizes.v[i]);
            char *p = static_cast<char *>(v);
            p[0] = static_cast<char>(i);
            benchmark::DoNotOptimize(p);
        }
        PL_ARENA_RELEASE(&pool, mark);
    }
    PL_FinishArenaPool(&pool);
    state.SetItemsProcessed(state.iterations() * kPieces);
}
BENCHMARK(Small_NSPR);
#endif

#ifdef QOR_HAVE_TALLOC
void Small_Talloc(benchmark::State &state) {
    void *pool = talloc_pool(nullptr, 64 * 1024);
    for (auto _ : state) {
        for (int i = 0; i < kPieces; ++i) {
            char *p = static_cast<char *>(talloc_size(pool, kSizes.v[i]));
            p[0] = static_cast<char>(i);
            benchmark::DoNotOptimize(p);
        }
        talloc_free_children(pool);
    }
    talloc_free(pool);
    state.SetItemsProcessed(state.iterations() * kPieces);
}
BENCHMARK(Small_Talloc);
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
BENCHMARK(Scratch_Freestore);

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
BENCHMARK(Scratch_Malloc);

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
BENCHMARK(Scratch_APR);
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
BENCHMARK(Scratch_NSPR);
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
BENCHMARK(Scratch_Talloc);
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
    QOR_FS_allocator fs = QOR_FS_INITIALISER(2016, 0);
    for (auto _ : state) {
        for (int i = 0; i < kPieces; ++i) {
            char *p = static_cast<char *>(proto::fs_malloc(&fs, kSizes.v[i]));
            p[0] = static_cast<char>(i);
            benchmark::DoNotOptimize(p);
        }
        QOR_FS_empty(&fs);
    }
    QOR_FS_destroy(&fs);
    state.SetItemsProcessed(state.iterations() * kPieces);
}
BENCHMARK(Small_FreestoreInlinePrototype);

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
BENCHMARK(Scratch_FreestoreInlinePrototype);

// ---- Static allocator -----------------------------------------------------------

// The block sizes of the library's own pools (32, rounded to 64), and the
// larger blocks a caller with many records would choose.
void Fill_StaticAllocator(benchmark::State &state) {
    const uint32_t entries = static_cast<uint32_t>(state.range(0));
    QOR_SA_allocator sa =
        QOR_SA_INITIALISER(kRecordSize, entries, entries, nullptr, nullptr);
    std::vector<void *> held(kRecords);
    for (auto _ : state) {
        for (int i = 0; i < kRecords; ++i) {
            char *p = static_cast<char *>(QOR_SA_allocate(&sa));
            p[0] = static_cast<char>(i);
            held[i] = p;
        }
        for (int i = kRecords - 1; i >= 0; --i) QOR_SA_release(&sa, held[i]);
    }
    QOR_SA_destroy(&sa);
    state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(Fill_StaticAllocator)->Arg(32)->Arg(1024);

void Fill_Malloc(benchmark::State &state) {
    std::vector<void *> held(kRecords);
    for (auto _ : state) {
        for (int i = 0; i < kRecords; ++i) {
            char *p = static_cast<char *>(malloc(kRecordSize));
            p[0] = static_cast<char>(i);
            held[i] = p;
        }
        for (int i = kRecords - 1; i >= 0; --i) free(held[i]);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(Fill_Malloc);

#ifdef QOR_HAVE_GLIB
void Fill_GSlice(benchmark::State &state) {
    std::vector<void *> held(kRecords);
    for (auto _ : state) {
        for (int i = 0; i < kRecords; ++i) {
            char *p = static_cast<char *>(g_slice_alloc(kRecordSize));
            p[0] = static_cast<char>(i);
            held[i] = p;
        }
        for (int i = kRecords - 1; i >= 0; --i)
            g_slice_free1(kRecordSize, held[i]);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(Fill_GSlice);
#endif

// The order in which Churn releases its live records: the same for all.
struct ChurnOrder {
    std::vector<unsigned> v;
    ChurnOrder() : v(4096) {
        std::mt19937 rng(17);
        for (auto &x : v) x = rng() % kRecords;
    }
} const kChurn;

void Churn_StaticAllocator(benchmark::State &state) {
    const uint32_t entries = static_cast<uint32_t>(state.range(0));
    QOR_SA_allocator sa =
        QOR_SA_INITIALISER(kRecordSize, entries, entries, nullptr, nullptr);
    std::vector<void *> live(kRecords);
    for (auto &p : live) p = QOR_SA_allocate(&sa);
    size_t k = 0;
    for (auto _ : state) {
        const unsigned i = kChurn.v[k++ & 4095];
        QOR_SA_release(&sa, live[i]);
        char *p = static_cast<char *>(QOR_SA_allocate(&sa));
        p[0] = 1;
        live[i] = p;
    }
    QOR_SA_destroy(&sa);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Churn_StaticAllocator)->Arg(32)->Arg(1024);

void Churn_Malloc(benchmark::State &state) {
    std::vector<void *> live(kRecords);
    for (auto &p : live) p = malloc(kRecordSize);
    size_t k = 0;
    for (auto _ : state) {
        const unsigned i = kChurn.v[k++ & 4095];
        free(live[i]);
        char *p = static_cast<char *>(malloc(kRecordSize));
        p[0] = 1;
        live[i] = p;
        benchmark::ClobberMemory();
    }
    for (void *p : live) free(p);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Churn_Malloc);

void Reuse_StaticAllocator(benchmark::State &state) {
    const uint32_t entries = static_cast<uint32_t>(state.range(0));
    QOR_SA_allocator sa =
        QOR_SA_INITIALISER(kRecordSize, entries, entries, nullptr, nullptr);
    std::vector<void *> live(kRecords);
    for (auto &p : live) p = QOR_SA_allocate(&sa);
    for (auto _ : state) {
        char *p = static_cast<char *>(QOR_SA_allocate(&sa));
        p[0] = 1;
        benchmark::DoNotOptimize(p);
        QOR_SA_release(&sa, p);
    }
    QOR_SA_destroy(&sa);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Reuse_StaticAllocator)->Arg(32)->Arg(1024);

void Reuse_Malloc(benchmark::State &state) {
    std::vector<void *> live(kRecords);
    for (auto &p : live) p = malloc(kRecordSize);
    for (auto _ : state) {
        char *p = static_cast<char *>(malloc(kRecordSize));
        p[0] = 1;
        benchmark::DoNotOptimize(p);
        free(p);
    }
    for (void *p : live) free(p);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Reuse_Malloc);

}  // namespace
