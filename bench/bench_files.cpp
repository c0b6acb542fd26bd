// The file layer against its floors and peers, in pairs run side by side
// in one program:
//  - saving 1 MiB of text (64-byte and 4 KiB lines) through the txt
//    protocol, against writing a temporary file and renaming it over the
//    file (with and without fsync) and GLib's g_file_set_contents;
//  - reading it through the protocol against a plain fopen/fgets loop;
//  - lock-file steps (upgrade and downgrade of the update right, a read
//    lock and its clear, an update lock and its clear) against the same
//    fcntl calls made by hand;
//  - the resident memory a 1 GiB save adds (counter rss_added_KiB).
//
// QOR_BENCH_ITERATIONS=n runs every benchmark exactly n times (for counting
// system calls with strace -c -f). QOR_BENCH_BIG=0 leaves out the 1 GiB
// save.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <qor/qor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#ifdef QOR_HAVE_GLIB
#include <glib.h>
#endif

#include "bench/bench_scratch.h"

namespace {

using qor_bench::os_path;

void check(bool ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "bench_files: %s failed\n", what);
        abort();
    }
}

constexpr size_t kMiB = 1 << 20;

// 1 MiB of lines of the given length, newline included.
std::vector<std::string> lines(size_t length) {
    std::vector<std::string> out;
    for (size_t total = 0; total < kMiB; total += length) {
        std::string line(length - 1, static_cast<char>('a' + out.size() % 26));
        out.push_back(line + "\n");
    }
    return out;
}
std::string joined(const std::vector<std::string> &ls) {
    std::string s;
    for (const auto &l : ls) s += l;
    return s;
}

void write_whole(const std::string &p, const std::string &data) {
    FILE *f = fopen(p.c_str(), "w");
    check(f != nullptr, "fopen");
    check(fwrite(data.data(), 1, data.size(), f) == data.size(), "fwrite");
    fclose(f);
}

// ---- Saving -----------------------------------------------------------------

void BM_SaveQor(benchmark::State &state) {
    const auto ls = lines(static_cast<size_t>(state.range(0)));
    const std::string p = os_path("save_qor");
    write_whole(p, joined(ls));
    QOR_txt_handle *t = QOR_txt_open(p.c_str(), 0, 1);
    check(t != nullptr, "QOR_txt_open");
    for (auto _ : state) {
        QOR_txt_start_save(t);
        QOR_txt_clear_file(t);
        for (const auto &l : ls) QOR_txt_write_string(t, l.c_str());
        QOR_txt_end_save(t);
    }
    QOR_txt_close(t);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kMiB));
}

void save_by_rename(benchmark::State &state, bool sync) {
    const auto ls = lines(static_cast<size_t>(state.range(0)));
    const std::string p = os_path(sync ? "save_rename_fsync" : "save_rename");
    const std::string tmp = p + ".tmp";
    write_whole(p, joined(ls));
    for (auto _ : state) {
        FILE *f = fopen(tmp.c_str(), "w");
        for (const auto &l : ls) fputs(l.c_str(), f);
        if (sync) {
            fflush(f);
            fsync(fileno(f));
        }
        fclose(f);
        check(rename(tmp.c_str(), p.c_str()) == 0, "rename");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kMiB));
}
void BM_SaveRename(benchmark::State &state) { save_by_rename(state, false); }
void BM_SaveRenameFsync(benchmark::State &state) { save_by_rename(state, true); }

#ifdef QOR_HAVE_GLIB
void BM_SaveGlib(benchmark::State &state) {
    const std::string data = joined(lines(static_cast<size_t>(state.range(0))));
    const std::string p = os_path("save_glib");
    write_whole(p, data);
    for (auto _ : state) {
        GError *error = nullptr;
        check(g_file_set_contents(p.c_str(), data.data(),
                                  static_cast<gssize>(data.size()), &error),
              "g_file_set_contents");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kMiB));
}
#endif

// ---- Reading -------------------------------------------------------------------

void BM_ReadQor(benchmark::State &state) {
    const std::string p = os_path("read_" + std::to_string(state.range(0)));
    write_whole(p, joined(lines(static_cast<size_t>(state.range(0)))));
    std::vector<char> buffer(8192);
    size_t bytes = 0;
    for (auto _ : state) {
        QOR_txt_handle *t = QOR_txt_open(p.c_str(), 1, 0);
        QOR_txt_start_read(t);
        while (QOR_txt_read_line(t, buffer.data(), 8192) == 1) {
            bytes += buffer[0] != '\0';
        }
        QOR_txt_end_read(t);
        QOR_txt_close(t);
    }
    benchmark::DoNotOptimize(bytes);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kMiB));
}

void BM_ReadFgets(benchmark::State &state) {
    const std::string p = os_path("read_" + std::to_string(state.range(0)));
    write_whole(p, joined(lines(static_cast<size_t>(state.range(0)))));
    std::vector<char> buffer(8192);
    size_t bytes = 0;
    for (auto _ : state) {
        FILE *f = fopen(p.c_str(), "r");
        while (fgets(buffer.data(), 8192, f) != nullptr) {
            bytes += buffer[0] != '\0';
        }
        fclose(f);
    }
    benchmark::DoNotOptimize(bytes);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kMiB));
}

// ---- Lock steps ------------------------------------------------------------------

int raw_lock(int fd, short kind, int byte, bool wait) {
    struct flock fl = {};
    fl.l_type = kind;
    fl.l_whence = SEEK_SET;
    fl.l_start = byte;
    fl.l_len = 1;
    return fcntl(fd, wait ? F_SETLKW : F_SETLK, &fl);
}

void BM_LockUpgradeQor(benchmark::State &state) {
    QOR_file_handle *h = QOR_open_lock(os_path("lock_qor").c_str(), 1);
    for (auto _ : state) {
        QOR_downgrade_lock(h);
        QOR_upgrade_lock(h);
    }
    QOR_close_lock(h);
}
void BM_LockUpgradeFcntl(benchmark::State &state) {
    const int fd = open(os_path("lock_raw").c_str(), O_RDWR | O_CREAT, 0666);
    for (auto _ : state) {
        raw_lock(fd, F_UNLCK, 1, false);
        raw_lock(fd, F_WRLCK, 1, false);
    }
    close(fd);
}
void BM_LockReadQor(benchmark::State &state) {
    QOR_file_handle *h = QOR_open_lock(os_path("lock_qor").c_str(), 1);
    for (auto _ : state) {
        QOR_set_read_lock(h);
        QOR_clear_lock(h);
    }
    QOR_close_lock(h);
}
void BM_LockReadFcntl(benchmark::State &state) {
    const int fd = open(os_path("lock_raw").c_str(), O_RDWR | O_CREAT, 0666);
    for (auto _ : state) {
        raw_lock(fd, F_RDLCK, 0, true);
        raw_lock(fd, F_UNLCK, 0, true);
    }
    close(fd);
}
void BM_LockUpdateQor(benchmark::State &state) {
    QOR_file_handle *h = QOR_open_lock(os_path("lock_qor").c_str(), 1);
    for (auto _ : state) {
        QOR_set_update_lock(h);
        QOR_clear_lock(h);
    }
    QOR_close_lock(h);
}
void BM_LockUpdateFcntl(benchmark::State &state) {
    const int fd = open(os_path("lock_raw").c_str(), O_RDWR | O_CREAT, 0666);
    for (auto _ : state) {
        raw_lock(fd, F_WRLCK, 0, true);
        raw_lock(fd, F_UNLCK, 0, true);
    }
    close(fd);
}

// ---- Memory of a 1 GiB save ---------------------------------------------------------

long resident_kib(const char *field) {
    FILE *f = fopen("/proc/self/status", "r");
    char line[256];
    long kib = -1;
    const size_t n = strlen(field);
    while (f != nullptr && fgets(line, sizeof line, f) != nullptr) {
        if (strncmp(line, field, n) == 0) kib = atol(line + n);
    }
    if (f != nullptr) fclose(f);
    return kib;
}

void BM_Save1GiBMemory(benchmark::State &state) {
    const std::string p = os_path("big");
    const std::string line(4095, 'g');
    const std::string nl = line + "\n";
    {
        FILE *f = fopen(p.c_str(), "w");
        for (size_t i = 0; i < (1ull << 30) / 4096; ++i) fputs(nl.c_str(), f);
        fclose(f);
    }
    long added = 0;
    for (auto _ : state) {
        QOR_txt_handle *t = QOR_txt_open(p.c_str(), 0, 1);
        // Peak resident memory from here on.
        FILE *reset = fopen("/proc/self/clear_refs", "w");
        if (reset != nullptr) {
            fputs("5", reset);
            fclose(reset);
        }
        const long before = resident_kib("VmRSS:");
        QOR_txt_start_save(t);
        QOR_txt_clear_file(t);
        for (size_t i = 0; i < (1ull << 30) / 4096; ++i) {
            QOR_txt_write_string(t, nl.c_str());
        }
        QOR_txt_end_save(t);
        added = resident_kib("VmHWM:") - before;
        QOR_txt_close(t);
    }
    unlink(p.c_str());
    state.counters["rss_added_KiB"] = static_cast<double>(added);
}

void apply(benchmark::internal::Benchmark *b) {
    if (const char *n = getenv("QOR_BENCH_ITERATIONS")) b->Iterations(atoi(n));
    b->Unit(benchmark::kMicrosecond);
}

const bool registered = [] {
    for (int64_t length : {64, 4096}) {
        const std::string save =
            "txt_save_" + std::string(length == 64 ? "64B" : "4KiB") +
            "_lines/";
        const std::string read =
            "txt_read_" + std::string(length == 64 ? "64B" : "4KiB") +
            "_lines/";
        apply(benchmark::RegisterBenchmark((save + "qor").c_str(), BM_SaveQor)
                  ->Arg(length));
        apply(benchmark::RegisterBenchmark((save + "rename").c_str(),
                                           BM_SaveRename)
                  ->Arg(length));
        apply(benchmark::RegisterBenchmark((save + "rename_fsync").c_str(),
                                           BM_SaveRenameFsync)
                  ->Arg(length));
#ifdef QOR_HAVE_GLIB
        apply(benchmark::RegisterBenchmark((save + "glib").c_str(),
                                           BM_SaveGlib)
                  ->Arg(length));
#endif
        apply(benchmark::RegisterBenchmark((read + "qor").c_str(), BM_ReadQor)
                  ->Arg(length));
        apply(benchmark::RegisterBenchmark((read + "fgets_loop").c_str(),
                                           BM_ReadFgets)
                  ->Arg(length));
    }
    apply(benchmark::RegisterBenchmark("lock_upgrade_downgrade/qor",
                                       BM_LockUpgradeQor));
    apply(benchmark::RegisterBenchmark("lock_upgrade_downgrade/fcntl",
                                       BM_LockUpgradeFcntl));
    apply(benchmark::RegisterBenchmark("lock_read_clear/qor", BM_LockReadQor));
    apply(benchmark::RegisterBenchmark("lock_read_clear/fcntl",
                                       BM_LockReadFcntl));
    apply(benchmark::RegisterBenchmark("lock_update_clear/qor",
                                       BM_LockUpdateQor));
    apply(benchmark::RegisterBenchmark("lock_update_clear/fcntl",
                                       BM_LockUpdateFcntl));
    const char *big = getenv("QOR_BENCH_BIG");
    if (big == nullptr || strcmp(big, "0") != 0) {
        benchmark::RegisterBenchmark("txt_save_1GiB_memory/qor",
                                     BM_Save1GiBMemory)
            ->Iterations(1)
            ->Unit(benchmark::kSecond);
    }
    return true;
}();

}  // namespace
