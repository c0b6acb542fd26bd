// Path translation: ns per call for typical paths, with a warm anchor cache
// and with a cold one (the first translation of a process), paired with a
// minimal lexical normaliser as the floor and with the peers that do
// comparable work (APR's apr_filepath_merge, GLib's
// g_canonicalize_filename).
//
// Each case names a qor path and the host path the floor and the peers are
// given for it: the anchor already replaced by its value (they have no
// anchors), or a relative path when the qor path needs the current
// directory (so every contender pays for getcwd alike).

#include <benchmark/benchmark.h>
#include <qor/qor.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#ifdef QOR_HAVE_APR
#include <apr_file_info.h>
#include <apr_general.h>
#include <apr_pools.h>
#endif
#ifdef QOR_HAVE_GLIB
#include <glib.h>
#endif

namespace {

std::string thirty_components() {
    std::string p;
    for (int i = 0; i < 30; ++i) p += "/comp" + std::to_string(i);
    return p;
}

struct Case {
    const char *label;
    std::string qor;   // what the library translates
    std::string base;  // the peers' base directory ("" for none)
    std::string host;  // the peers' path (relative to base when there is one)
};

const Case &get_case(int i) {
    static const Case cases[] = {
        {"root_anchor", "_/etc/f.txt", "/opt/q", "etc/f.txt"},
        {"parent", "/a/b/../c", "", "/a/b/../c"},
        {"host_part_relative", "@rel/x", "", "rel/x"},
        {"variable", "$(X)/y", "/data", "y"},
        {"thirty_components", thirty_components(), "", thirty_components()},
        {"plain", "/opt/q/etc/f.txt", "", "/opt/q/etc/f.txt"},
        {"host_part_absolute", "@/opt/q/etc/f.txt", "", "/opt/q/etc/f.txt"},
    };
    return cases[i];
}
constexpr int kCases = 7;

// Run once before main: the anchors of every case, before any translation.
struct Environment {
    Environment() {
        setenv("QOR_ROOT", "/opt/q", 1);
        setenv("X", "/data", 1);
    }
} environment;

// ---- The floor: a minimal lexical normaliser ---------------------------------
// One pass over base + "/" + path (or the current directory first for a
// relative path), a stack of component starts in a fixed buffer, "." and ""
// dropped, ".." popped; the result copied into the heap as the library's
// owned form is.
char *floor_normalise(const char *base, const char *path) {
    char joined[8192];
    size_t n = 0;
    if (path[0] != '/') {
        if (base[0] == '\0') {
            if (getcwd(joined, 4097) == nullptr) return nullptr;
            n = strlen(joined);
        } else {
            n = strlen(base);
            memcpy(joined, base, n);
        }
        joined[n++] = '/';
    }
    const size_t len = strlen(path);
    memcpy(joined + n, path, len + 1);
    n += len;

    char out[8192];
    size_t o = 0;
    size_t starts[1024];
    int depth = 0;
    size_t i = 0;
    while (i < n) {
        while (i < n && joined[i] == '/') ++i;
        const size_t s = i;
        while (i < n && joined[i] != '/') ++i;
        const size_t c = i - s;
        if (c == 0 || (c == 1 && joined[s] == '.')) continue;
        if (c == 2 && joined[s] == '.' && joined[s + 1] == '.') {
            if (depth == 0) return nullptr;
            o = starts[--depth];
            continue;
        }
        starts[depth++] = o;
        out[o++] = '/';
        memcpy(out + o, joined + s, c);
        o += c;
    }
    if (o == 0) out[o++] = '/';
    out[o] = '\0';
    char *r = static_cast<char *>(malloc(o + 1));
    memcpy(r, out, o + 1);
    return r;
}

void check(benchmark::State &state, const char *result) {
    if (result == nullptr) state.SkipWithError("translation failed");
}

// ---- The library -----------------------------------------------------------

void BM_qor_to_absolute_qor(benchmark::State &state) {
    const Case &c = get_case(static_cast<int>(state.range(0)));
    state.SetLabel(c.label);
    char *warm = QOR_qor_to_absolute_qor(c.qor.c_str());
    check(state, warm);
    if (warm) QOR_free(warm);
    for (auto _ : state) {
        char *r = QOR_qor_to_absolute_qor(c.qor.c_str());
        benchmark::DoNotOptimize(r);
        QOR_free(r);
    }
}
BENCHMARK(BM_qor_to_absolute_qor)->Name("qor_to_absolute_qor/qor")->DenseRange(0, kCases - 1);

void BM_SH_qor_to_absolute_qor(benchmark::State &state) {
    const Case &c = get_case(static_cast<int>(state.range(0)));
    state.SetLabel(c.label);
    QOR_FS_mark mark;
    QOR_FS_save(&QOR_SH_fs_allocator, &mark);
    check(state, QOR_SH_qor_to_absolute_qor(c.qor.c_str()));
    for (auto _ : state) {
        char *r = QOR_SH_qor_to_absolute_qor(c.qor.c_str());
        benchmark::DoNotOptimize(r);
        QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
    }
}
BENCHMARK(BM_SH_qor_to_absolute_qor)->Name("qor_to_absolute_qor/qor_sh")->DenseRange(0, kCases - 1);

void BM_qor_to_os(benchmark::State &state) {
    const Case &c = get_case(static_cast<int>(state.range(0)));
    state.SetLabel(c.label);
    char *warm = QOR_qor_to_os(c.qor.c_str(), 0);
    check(state, warm);
    if (warm) QOR_free(warm);
    for (auto _ : state) {
        char *r = QOR_qor_to_os(c.qor.c_str(), 0);
        benchmark::DoNotOptimize(r);
        QOR_free(r);
    }
}
BENCHMARK(BM_qor_to_os)->Name("qor_to_os/qor")->DenseRange(0, kCases - 1);

// Times fn's first call in a forked child, so that nothing of this process
// is cached yet; negative when fn fails.
template <class F>
double first_call_ns(F fn) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        timespec a, b;
        clock_gettime(CLOCK_MONOTONIC, &a);
        char *r = fn();
        clock_gettime(CLOCK_MONOTONIC, &b);
        const double ns = (b.tv_sec - a.tv_sec) * 1e9 +
                          static_cast<double>(b.tv_nsec - a.tv_nsec);
        const double sent = r != nullptr ? ns : -1;
        if (write(fds[1], &sent, sizeof sent) != sizeof sent) _exit(1);
        _exit(0);
    }
    close(fds[1]);
    double ns = -1;
    if (read(fds[0], &ns, sizeof ns) != sizeof ns) ns = -1;
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return ns;
}

template <class F>
void run_cold(benchmark::State &state, F fn) {
    for (auto _ : state) {
        const double ns = first_call_ns(fn);
        if (ns < 0) {
            state.SkipWithError("translation failed");
            break;
        }
        state.SetIterationTime(ns / 1e9);
    }
}

// The first translation of a process: the anchor variable is read, parsed,
// normalised and cached.
void BM_qor_to_absolute_qor_cold(benchmark::State &state) {
    const Case &c = get_case(static_cast<int>(state.range(0)));
    state.SetLabel(c.label);
    run_cold(state, [&] { return QOR_qor_to_absolute_qor(c.qor.c_str()); });
}
BENCHMARK(BM_qor_to_absolute_qor_cold)
    ->Name("qor_to_absolute_qor_cold/qor")
    ->DenseRange(0, kCases - 1)
    ->UseManualTime()
    ->Iterations(300);

// The floor's first call in a process, for comparison.
void BM_floor_cold(benchmark::State &state) {
    const Case &c = get_case(static_cast<int>(state.range(0)));
    state.SetLabel(c.label);
    run_cold(state,
             [&] { return floor_normalise(c.base.c_str(), c.host.c_str()); });
}
BENCHMARK(BM_floor_cold)
    ->Name("qor_to_absolute_qor_cold/floor")
    ->DenseRange(0, kCases - 1)
    ->UseManualTime()
    ->Iterations(300);

// ---- The floor --------------------------------------------------------------

void BM_floor(benchmark::State &state) {
    const Case &c = get_case(static_cast<int>(state.range(0)));
    state.SetLabel(c.label);
    for (auto _ : state) {
        char *r = floor_normalise(c.base.c_str(), c.host.c_str());
        benchmark::DoNotOptimize(r);
        free(r);
    }
}
BENCHMARK(BM_floor)->Name("qor_to_absolute_qor/floor")->DenseRange(0, kCases - 1);

// ---- Peers --------------------------------------------------------------------

#ifdef QOR_HAVE_APR
void BM_apr_filepath_merge(benchmark::State &state) {
    const Case &c = get_case(static_cast<int>(state.range(0)));
    state.SetLabel(c.label);
    apr_initialize();
    apr_pool_t *pool = nullptr;
    apr_pool_create(&pool, nullptr);
    const char *base = c.base.empty() ? nullptr : c.base.c_str();
    int n = 0;
    for (auto _ : state) {
        char *r = nullptr;
        apr_filepath_merge(&r, base, c.host.c_str(), APR_FILEPATH_NOTRELATIVE,
                           pool);
        benchmark::DoNotOptimize(r);
        // The pool grows with every result: clear it now and then, as a
        // caller would.
        if (++n == 1024) {
            apr_pool_clear(pool);
            n = 0;
        }
    }
    apr_pool_destroy(pool);
}
BENCHMARK(BM_apr_filepath_merge)->Name("qor_to_absolute_qor/apr")->DenseRange(0, kCases - 1);
#endif

#ifdef QOR_HAVE_GLIB
void BM_g_canonicalize_filename(benchmark::State &state) {
    const Case &c = get_case(static_cast<int>(state.range(0)));
    state.SetLabel(c.label);
    const char *base = c.base.empty() ? nullptr : c.base.c_str();
    for (auto _ : state) {
        char *r = g_canonicalize_filename(c.host.c_str(), base);
        benchmark::DoNotOptimize(r);
        g_free(r);
    }
}
BENCHMARK(BM_g_canonicalize_filename)->Name("qor_to_absolute_qor/glib")->DenseRange(0, kCases - 1);
#endif

}  // namespace
