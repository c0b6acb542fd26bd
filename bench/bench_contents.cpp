// Object contents and operations against the raw system calls, in pairs
// run side by side in one program:
//  - idle-block writes and reads of 4 KiB and 64 KiB at random offsets
//    against pwrite and pread;
//  - open, lock, unlock and close of contents against open, fcntl, fcntl
//    and close;
//  - an object lock and unlock against the same raw calls on ".lock", and
//    the conversion of a held object lock against one fcntl;
//  - copying a 64 MiB object against cp and against a raw loop with the
//    same 4096-byte buffer (the floor).
//
// QOR_BENCH_ITERATIONS=n runs every benchmark exactly n times (for counting
// system calls with strace -c -f).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <qor/qor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "bench/bench_scratch.h"

namespace {

using qor_bench::os_path;
std::string qor_path(const std::string &name) { return "@" + os_path(name); }

void check(bool ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "bench_contents: %s failed\n", what);
        abort();
    }
}

// Random block offsets within a 64 MiB region, the same for both sides.
constexpr int64_t kRegion = 64ll << 20;
std::vector<int64_t> offsets(size_t block) {
    std::mt19937_64 gen(42);
    std::vector<int64_t> v(4096);
    for (auto &o : v) {
        o = static_cast<int64_t>(gen() % static_cast<uint64_t>(kRegion - block));
    }
    return v;
}

// An idle object whose body spans the region.
QOR_contents_record *open_idle_body() {
    static bool made = false;
    if (!made) {
        check(QOR_create_object(qor_path("idle").c_str(), 4) == 0 ||
                  QOR_create_object(qor_path("idle").c_str(), 4) == 2053,
              "create idle object");
        check(truncate((os_path("idle") + "/.body").c_str(), kRegion) == 0,
              "size body");
        made = true;
    }
    QOR_contents_record *rec = nullptr;
    check(QOR_open_contents(qor_path("idle").c_str(), 4, 0x04, 0, &rec) == 0,
          "open body");
    return rec;
}

// ---- Idle blocks -------------------------------------------------------------

// One block transfer per iteration at the next random offset, through
// the library or the raw call.
template <class Transfer>
void block_io(benchmark::State &state, Transfer transfer) {
    const size_t block = static_cast<size_t>(state.range(0));
    QOR_contents_record *rec = open_idle_body();
    std::string data(block, 'q');
    const auto at = offsets(block);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            transfer(rec, at[i++ % at.size()], data.data(), block));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * block));
    QOR_close_contents(rec);
}

void BM_IdleWrite(benchmark::State &state) {
    block_io(state, [](QOR_contents_record *r, int64_t at, char *p, size_t n) {
        return QOR_write_idle_block(r, at, p, static_cast<int>(n));
    });
}
void BM_RawPwrite(benchmark::State &state) {
    block_io(state, [](QOR_contents_record *r, int64_t at, char *p, size_t n) {
        return pwrite(r->fd, p, n, at);
    });
}
void BM_IdleRead(benchmark::State &state) {
    block_io(state, [](QOR_contents_record *r, int64_t at, char *p, size_t n) {
        return QOR_read_idle_block(r, at, p, static_cast<int>(n));
    });
}
void BM_RawPread(benchmark::State &state) {
    block_io(state, [](QOR_contents_record *r, int64_t at, char *p, size_t n) {
        return pread(r->fd, p, n, at);
    });
}

// ---- Open, lock, unlock, close -------------------------------------------------

void make_cdir(const char *name) {
    const int s = QOR_create_object(qor_path(name).c_str(), 3);
    check(s == 0 || s == 2053, "create cdir");
}

void BM_ContentsOpenLockUnlockClose(benchmark::State &state) {
    make_cdir("c");
    const std::string path = qor_path("c");
    for (auto _ : state) {
        QOR_contents_record *rec = nullptr;
        check(QOR_open_contents(path.c_str(), 3, 0x04, 3, &rec) == 0, "open");
        QOR_unlock_contents(rec);
        QOR_close_contents(rec);
    }
}

void BM_FileOpenLockUnlockClose(benchmark::State &state) {
    make_cdir("c");
    const std::string path = qor_path("c") + "/.body";
    for (auto _ : state) {
        QOR_contents_record *rec = nullptr;
        check(QOR_open_file(path.c_str(), 0, 0, 0x04, 3, &rec) == 0, "open");
        QOR_unlock_contents(rec);
        QOR_close_contents(rec);
    }
}

int raw_lock(int fd, short type) {
    struct flock fl = {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &fl);
}

void BM_RawOpenLockUnlockClose(benchmark::State &state) {
    make_cdir("c");
    const std::string path = os_path("c") + "/.body";
    for (auto _ : state) {
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        raw_lock(fd, F_WRLCK);
        raw_lock(fd, F_UNLCK);
        close(fd);
    }
}

// ---- Object locks -----------------------------------------------------------------

void BM_ObjectLockUnlock(benchmark::State &state) {
    make_cdir("o");
    const std::string path = qor_path("o");
    for (auto _ : state) {
        check(QOR_lock_object(path.c_str(), 3, 3) == 0, "lock object");
        QOR_unlock_object(path.c_str(), 3);
    }
}

void BM_RawLockFileLockUnlock(benchmark::State &state) {
    make_cdir("o");
    const std::string path = os_path("o") + "/.lock";
    for (auto _ : state) {
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        raw_lock(fd, F_WRLCK);
        raw_lock(fd, F_UNLCK);
        close(fd);
    }
}

// A held object lock converted exclusive and back to shared.
void BM_ObjectLockConvert(benchmark::State &state) {
    make_cdir("o");
    const std::string path = qor_path("o");
    check(QOR_lock_object(path.c_str(), 3, 1) == 0, "lock object");
    for (auto _ : state) {
        QOR_lock_object(path.c_str(), 3, 3);
        QOR_lock_object(path.c_str(), 3, 1);
    }
    QOR_unlock_object(path.c_str(), 3);
}

void BM_RawFcntlConvert(benchmark::State &state) {
    make_cdir("o");
    const int fd = open((os_path("o") + "/.lock").c_str(), O_RDWR | O_CLOEXEC);
    raw_lock(fd, F_RDLCK);
    for (auto _ : state) {
        raw_lock(fd, F_WRLCK);
        raw_lock(fd, F_RDLCK);
    }
    close(fd);
}

// ---- Copying 64 MiB ---------------------------------------------------------------

void make_source() {
    static bool made = false;
    if (made) return;
    std::string chunk(1 << 20, '\0');
    std::mt19937_64 gen(7);
    for (auto &c : chunk) c = static_cast<char>(gen());
    FILE *f = fopen(os_path("src").c_str(), "w");
    check(f != nullptr, "source");
    for (int i = 0; i < 64; ++i) fwrite(chunk.data(), 1, chunk.size(), f);
    fclose(f);
    made = true;
}

// Each copy makes its target anew: the old one is removed untimed, so
// that no side waits for the write-back of the last copy's pages when it
// empties the file.
void fresh_target(benchmark::State &state, const std::string &os) {
    state.PauseTiming();
    unlink(os.c_str());
    state.ResumeTiming();
}

void BM_CopyObject64MiB(benchmark::State &state) {
    make_source();
    const std::string from = qor_path("src"), to = qor_path("dst_qor");
    for (auto _ : state) {
        fresh_target(state, os_path("dst_qor"));
        check(QOR_copy_object(from.c_str(), 0, to.c_str()) == 0, "copy");
    }
    state.SetBytesProcessed(state.iterations() * (64ll << 20));
}

void BM_Cp64MiB(benchmark::State &state) {
    make_source();
    const std::string cmd =
        "cp --reflink=never " + os_path("src") + " " + os_path("dst_cp");
    for (auto _ : state) {
        fresh_target(state, os_path("dst_cp"));
        check(system(cmd.c_str()) == 0, "cp");
    }
    state.SetBytesProcessed(state.iterations() * (64ll << 20));
}

// A copy by the host's own calls: `copy` moves the bytes between the two
// descriptors; the target is made anew each time.
template <class Copy>
void host_copy(benchmark::State &state, const char *target, Copy copy) {
    make_source();
    const std::string from = os_path("src"), to = os_path(target);
    for (auto _ : state) {
        fresh_target(state, to);
        const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
        const int out =
            open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0777);
        copy(in, out);
        close(out);
        close(in);
    }
    state.SetBytesProcessed(state.iterations() * (64ll << 20));
}

// The same 4096-byte buffer as the library's copy, no locks, no checks.
void BM_RawLoop64MiB(benchmark::State &state) {
    static char buffer[4096];
    host_copy(state, "dst_raw", [](int in, int out) {
        ssize_t n;
        while ((n = read(in, buffer, sizeof buffer)) > 0) {
            check(write(out, buffer, static_cast<size_t>(n)) == n, "write");
        }
    });
}

// The fastest the host offers: the kernel copies, without a user buffer.
void BM_CopyFileRange64MiB(benchmark::State &state) {
    host_copy(state, "dst_cfr", [](int in, int out) {
        ssize_t n;
        while ((n = copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0)) > 0) {
        }
        check(n == 0, "copy_file_range");
    });
}

// Registration, pairs next to each other.
void apply(benchmark::internal::Benchmark *b) {
    if (const char *n = getenv("QOR_BENCH_ITERATIONS")) b->Iterations(atoi(n));
}

const bool registered = [] {
    for (int64_t block : {4096, 65536}) {
        apply(benchmark::RegisterBenchmark("idle_write/qor", BM_IdleWrite)->Arg(block));
        apply(benchmark::RegisterBenchmark("idle_write/pwrite", BM_RawPwrite)->Arg(block));
        apply(benchmark::RegisterBenchmark("idle_read/qor", BM_IdleRead)->Arg(block));
        apply(benchmark::RegisterBenchmark("idle_read/pread", BM_RawPread)->Arg(block));
    }
    apply(benchmark::RegisterBenchmark("contents_open_lock_close/qor",
                                       BM_ContentsOpenLockUnlockClose));
    apply(benchmark::RegisterBenchmark("file_open_lock_close/qor",
                                       BM_FileOpenLockUnlockClose));
    apply(benchmark::RegisterBenchmark("contents_open_lock_close/floor",
                                       BM_RawOpenLockUnlockClose));
    apply(benchmark::RegisterBenchmark("object_lock/qor", BM_ObjectLockUnlock));
    apply(benchmark::RegisterBenchmark("object_lock/floor",
                                       BM_RawLockFileLockUnlock));
    apply(benchmark::RegisterBenchmark("object_lock_convert/qor", BM_ObjectLockConvert));
    apply(benchmark::RegisterBenchmark("object_lock_convert/floor", BM_RawFcntlConvert));
    for (auto *b : {benchmark::RegisterBenchmark("copy_64MiB/qor", BM_CopyObject64MiB),
                    benchmark::RegisterBenchmark("copy_64MiB/cp", BM_Cp64MiB),
                    benchmark::RegisterBenchmark("copy_64MiB/read_write_4KiB", BM_RawLoop64MiB),
                    benchmark::RegisterBenchmark("copy_64MiB/copy_file_range",
                                                 BM_CopyFileRange64MiB)}) {
        b->Unit(benchmark::kMillisecond)->UseRealTime();
        apply(b);
    }
    return true;
}();

}  // namespace
