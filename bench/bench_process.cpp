// Locating a file on the search path and running a program of the object
// store, each paired with the host's floor in the same run.
//
// locate/qor/K: QOR_locate of a plain file that only the last of K
// directories of QOR_PATH holds, so K probes are made (no defaults table,
// no trace), the OS path returned and freed. locate/access/K: the floor,
// the same K candidate paths formed with snprintf and tried with access.
//
// call/qor: QOR_call of a program whose ".body" is a copy of /bin/true,
// found on QOR_PATH. call/fork_execv: fork, execv of that body, waitpid.
// call/posix_spawn: posix_spawn of it and waitpid.

#include <benchmark/benchmark.h>
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

// K directories d0 .. d(K-1) under "locate-K", the file "target.txt" in the
// last; QOR_PATH lists them in order. Returns the directories' prefix.
std::string make_search_path(int k) {
    const std::string base = os_path("locate-" + std::to_string(k));
    mkdir(base.c_str(), 0755);
    std::string list;
    for (int i = 0; i < k; ++i) {
        const std::string dir = base + "/d" + std::to_string(i);
        mkdir(dir.c_str(), 0755);
        list += (i > 0 ? "," : "") + dir;
    }
    FILE *f = fopen((base + "/d" + std::to_string(k - 1) + "/target.txt").c_str(),
                    "w");
    if (f == nullptr) abort();
    fclose(f);
    setenv("QOR_PATH", list.c_str(), 1);
    return base + "/d";
}

void locate_qor(benchmark::State &state) {
    const int k = static_cast<int>(state.range(0));
    make_search_path(k);
    for (auto _ : state) {
        char *found = QOR_locate("target.txt", QOR_PLAIN_FILE, nullptr,
                                 QOR_FORM_OS);
        if (found == nullptr) {
            state.SkipWithError("not found");
            break;
        }
        benchmark::DoNotOptimize(found);
        QOR_free(found);
    }
    state.SetItemsProcessed(state.iterations() * k);
}

void locate_access(benchmark::State &state) {
    const int k = static_cast<int>(state.range(0));
    const std::string prefix = make_search_path(k);
    for (auto _ : state) {
        char candidate[4096];
        char *found = nullptr;
        for (int i = 0; i < k && found == nullptr; ++i) {
            snprintf(candidate, sizeof candidate, "%s%d/%s", prefix.c_str(), i,
                     "target.txt");
            if (access(candidate, F_OK) == 0) found = strdup(candidate);
        }
        if (found == nullptr) {
            state.SkipWithError("not found");
            break;
        }
        benchmark::DoNotOptimize(found);
        free(found);
    }
    state.SetItemsProcessed(state.iterations() * k);
}

BENCHMARK(locate_qor)->Name("locate/qor")->Arg(1)->Arg(8)->Arg(64);
BENCHMARK(locate_access)->Name("locate/access")->Arg(1)->Arg(8)->Arg(64);

// The program "nothing" in "programs", whose body is a copy of /bin/true.
// Returns the body's host path.
std::string make_program() {
    static std::string body;
    const std::string dir = os_path("programs");
    setenv("QOR_PATH", dir.c_str(), 1);
    if (!body.empty()) return body;
    mkdir(dir.c_str(), 0755);
    mkdir((dir + "/nothing").c_str(), 0755);
    body = dir + "/nothing/.body";
    const std::string copy = "cp /bin/true '" + body + "'";
    if (system(copy.c_str()) != 0) abort();
    chmod(body.c_str(), 0755);
    return body;
}

void call_qor(benchmark::State &state) {
    make_program();
    char placeholder[] = "nothing";
    char *argv[] = {placeholder, nullptr};
    for (auto _ : state) {
        int32_t code = -1;
        if (QOR_call("nothing", argv, &code) != 0 || code != 0) {
            state.SkipWithError("call failed");
            break;
        }
    }
}

void call_fork_execv(benchmark::State &state) {
    const std::string body = make_program();
    for (auto _ : state) {
        char *argv[] = {const_cast<char *>(body.c_str()), nullptr};
        fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            execv(body.c_str(), argv);
            _exit(255);
        }
        int status = 0;
        if (pid < 0 || waitpid(pid, &status, 0) != pid ||
            WEXITSTATUS(status) != 0) {
            state.SkipWithError("fork+execv failed");
            break;
        }
    }
}

void call_posix_spawn(benchmark::State &state) {
    const std::string body = make_program();
    for (auto _ : state) {
        char *argv[] = {const_cast<char *>(body.c_str()), nullptr};
        pid_t pid = 0;
        int status = 0;
        if (posix_spawn(&pid, body.c_str(), nullptr, nullptr, argv, environ) !=
                0 ||
            waitpid(pid, &status, 0) != pid || WEXITSTATUS(status) != 0) {
            state.SkipWithError("posix_spawn failed");
            break;
        }
    }
}

BENCHMARK(call_qor)->Name("call/qor")->UseRealTime();
BENCHMARK(call_fork_execv)->Name("call/fork_execv")->UseRealTime();
BENCHMARK(call_posix_spawn)->Name("call/posix_spawn")->UseRealTime();

}  // namespace
