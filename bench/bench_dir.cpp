// Directories against their floors, in pairs run side by side in one
// program:
//  - listing a directory of 1 000, 10 000 and 100 000 entries through a
//    cursor (each name a copy the caller frees) against a raw readdir loop
//    (names only looked at) and one that copies each name with strdup;
//  - copying a tree of 1 000 small files and one of 10 files of 10 MiB
//    with QOR_copy_dir (with and without the copy's record locks) against
//    a raw walk with the same 4 096-byte copy loop, and against `cp -a`
//    (spawned directly, no shell).
//
// QOR_BENCH_ITERATIONS=n runs every benchmark exactly n times (for counting
// system calls with strace -c -f).

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <qor/qor.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "bench/bench_scratch.h"

extern char **environ;

namespace {

using qor_bench::os_path;

void check(bool ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "bench_dir: %s failed\n", what);
        abort();
    }
}

void write_whole(const std::string &p, const std::string &data) {
    const int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    check(fd >= 0, "open");
    check(write(fd, data.data(), data.size()) ==
              static_cast<ssize_t>(data.size()),
          "write");
    close(fd);
}

int remove_one(const char *p, const struct stat *, int, struct FTW *) {
    return remove(p);
}
void remove_tree(const std::string &p) {
    nftw(p.c_str(), remove_one, 64, FTW_DEPTH | FTW_PHYS);
}

// ---- Listing ----------------------------------------------------------------

// A directory of n empty files, made once per size.
std::string listing_dir(int64_t n) {
    const std::string d = os_path("list" + std::to_string(n));
    struct stat st;
    if (stat(d.c_str(), &st) == 0) return d;
    check(mkdir(d.c_str(), 0755) == 0, "mkdir");
    for (int64_t i = 0; i < n; ++i) {
        const std::string f = d + "/entry_" + std::to_string(i);
        const int fd = open(f.c_str(), O_WRONLY | O_CREAT, 0644);
        check(fd >= 0, "open");
        close(fd);
    }
    return d;
}

void BM_ListQor(benchmark::State &state) {
    const std::string d = listing_dir(state.range(0));
    int64_t seen = 0;
    for (auto _ : state) {
        QOR_dir_cursor *dir = QOR_open_dir(d.c_str());
        for (char *name; (name = QOR_dir_next(dir)) != nullptr;) {
            benchmark::DoNotOptimize(name[0]);
            QOR_free(name);
            ++seen;
        }
        QOR_close_dir(dir);
    }
    check(seen == state.range(0) * state.iterations(), "listing");
    state.SetItemsProcessed(seen);
}

bool dot_or_dot_dot(const char *n) {
    return n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'));
}

// The floor: readdir, passing over "." and "..", each name only looked
// at, or copied with strdup and freed as the cursor's caller does.
void list_raw(benchmark::State &state, bool copy) {
    const std::string d = listing_dir(state.range(0));
    int64_t seen = 0;
    for (auto _ : state) {
        DIR *dir = opendir(d.c_str());
        while (struct dirent *e = readdir(dir)) {
            if (dot_or_dot_dot(e->d_name)) continue;
            if (copy) {
                char *name = strdup(e->d_name);
                benchmark::DoNotOptimize(name[0]);
                free(name);
            } else {
                benchmark::DoNotOptimize(e->d_name[0]);
            }
            ++seen;
        }
        closedir(dir);
    }
    check(seen == state.range(0) * state.iterations(), "listing");
    state.SetItemsProcessed(seen);
}

void BM_ListReaddir(benchmark::State &state) { list_raw(state, false); }
void BM_ListReaddirStrdup(benchmark::State &state) { list_raw(state, true); }

// ---- Copying ----------------------------------------------------------------

// The source trees: "small" holds 1 000 files of 1 KiB in 10 directories
// of 100; "large" holds 10 files of 10 MiB.
std::string source_tree(bool large) {
    const std::string s = os_path(large ? "src_large" : "src_small");
    struct stat st;
    if (stat(s.c_str(), &st) == 0) return s;
    check(mkdir(s.c_str(), 0755) == 0, "mkdir");
    if (large) {
        std::string data(10 << 20, '\0');
        for (size_t i = 0; i < data.size(); ++i) {
            data[i] = static_cast<char>(i * 7 + i / 4096);
        }
        for (int i = 0; i < 10; ++i) {
            write_whole(s + "/big" + std::to_string(i), data);
        }
        return s;
    }
    const std::string data(1024, 'k');
    for (int d = 0; d < 10; ++d) {
        const std::string sub = s + "/dir" + std::to_string(d);
        check(mkdir(sub.c_str(), 0755) == 0, "mkdir");
        for (int i = 0; i < 100; ++i) {
            write_whole(sub + "/file" + std::to_string(i), data);
        }
    }
    return s;
}

// The same 4 096-byte loop the object store copies with.
void copy_file_raw(const char *from, const char *to) {
    static char buffer[4096];
    const int in = open(from, O_RDONLY | O_CLOEXEC);
    const int out = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0777);
    check(in >= 0 && out >= 0, "open");
    for (;;) {
        const ssize_t n = read(in, buffer, sizeof buffer);
        check(n >= 0, "read");
        if (n == 0) break;
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = write(out, buffer + done, size_t(n - done));
            check(w > 0, "write");
            done += w;
        }
    }
    close(out);
    close(in);
}

void copy_tree_raw(const std::string &from, const std::string &to) {
    mkdir(to.c_str(), 0777);
    DIR *dir = opendir(from.c_str());
    check(dir != nullptr, "opendir");
    while (struct dirent *e = readdir(dir)) {
        if (dot_or_dot_dot(e->d_name)) continue;
        const std::string f = from + "/" + e->d_name;
        const std::string t = to + "/" + e->d_name;
        struct stat st;
        check(lstat(f.c_str(), &st) == 0, "lstat");
        if (S_ISLNK(st.st_mode)) {
            char text[4096];
            const ssize_t n = readlink(f.c_str(), text, sizeof text - 1);
            text[n] = '\0';
            (void)symlink(text, t.c_str());
        } else if (S_ISDIR(st.st_mode)) {
            copy_tree_raw(f, t);
        } else {
            copy_file_raw(f.c_str(), t.c_str());
        }
    }
    closedir(dir);
}

void copy_loop(benchmark::State &state, bool large, void (*copy)(
                   const std::string &, const std::string &)) {
    const std::string src = source_tree(large);
    const std::string dst = os_path("dst");
    remove_tree(dst);
    for (auto _ : state) {
        copy(src, dst);
        state.PauseTiming();
        remove_tree(dst);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * (large ? 100 << 20 : 1000 << 10));
}

void copy_qor(const std::string &from, const std::string &to) {
    QOR_copy_dir(from.c_str(), to.c_str());
}
void copy_qor_unlocked(const std::string &from, const std::string &to) {
    QOR_lock_on_copy = 0;
    QOR_copy_dir(from.c_str(), to.c_str());
    QOR_lock_on_copy = 1;
}
void copy_cp(const std::string &from, const std::string &to) {
    const char *argv[] = {"cp", "-a", from.c_str(), to.c_str(), nullptr};
    pid_t pid;
    check(posix_spawnp(&pid, "cp", nullptr, nullptr,
                       const_cast<char **>(argv), environ) == 0,
          "posix_spawnp");
    int st = 0;
    waitpid(pid, &st, 0);
    check(WIFEXITED(st) && WEXITSTATUS(st) == 0, "cp -a");
}

void BM_CopySmallQor(benchmark::State &s) { copy_loop(s, false, copy_qor); }
void BM_CopySmallQorUnlocked(benchmark::State &s) {
    copy_loop(s, false, copy_qor_unlocked);
}
void BM_CopySmallRaw(benchmark::State &s) { copy_loop(s, false, copy_tree_raw); }
void BM_CopySmallCp(benchmark::State &s) { copy_loop(s, false, copy_cp); }
void BM_CopyLargeQor(benchmark::State &s) { copy_loop(s, true, copy_qor); }
void BM_CopyLargeQorUnlocked(benchmark::State &s) {
    copy_loop(s, true, copy_qor_unlocked);
}
void BM_CopyLargeRaw(benchmark::State &s) { copy_loop(s, true, copy_tree_raw); }
void BM_CopyLargeCp(benchmark::State &s) { copy_loop(s, true, copy_cp); }

void apply(benchmark::internal::Benchmark *b) {
    if (const char *n = getenv("QOR_BENCH_ITERATIONS")) b->Iterations(atoi(n));
    b->Unit(benchmark::kMicrosecond);
}

const bool registered = [] {
    for (int64_t n : {1000, 10000, 100000}) {
        apply(benchmark::RegisterBenchmark("dir_list/qor", BM_ListQor)->Arg(n));
        apply(benchmark::RegisterBenchmark("dir_list/readdir", BM_ListReaddir)
                  ->Arg(n));
        apply(benchmark::RegisterBenchmark("dir_list/readdir_strdup",
                                           BM_ListReaddirStrdup)
                  ->Arg(n));
    }
    struct {
        const char *name;
        void (*fn)(benchmark::State &);
    } const copies[] = {
        {"tree_copy_1000_small/qor", BM_CopySmallQor},
        {"tree_copy_1000_small/qor_unlocked", BM_CopySmallQorUnlocked},
        {"tree_copy_1000_small/raw_walk", BM_CopySmallRaw},
        {"tree_copy_1000_small/cp_a", BM_CopySmallCp},
        {"tree_copy_10x10MiB/qor", BM_CopyLargeQor},
        {"tree_copy_10x10MiB/qor_unlocked", BM_CopyLargeQorUnlocked},
        {"tree_copy_10x10MiB/raw_walk", BM_CopyLargeRaw},
        {"tree_copy_10x10MiB/cp_a", BM_CopyLargeCp},
    };
    // Wall-clock time: cp -a does its work in a child process, whose CPU
    // time the benchmark's own clock would never see.
    for (const auto &c : copies) {
        apply(benchmark::RegisterBenchmark(c.name, c.fn)->UseRealTime());
    }
    return true;
}();

}  // namespace
