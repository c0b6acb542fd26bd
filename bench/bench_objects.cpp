// Object store against the system-call floor: each library operation is
// paired with the same host calls made directly on ready-made OS paths, so
// the difference is what the library adds (translation of the qor path,
// the table walk, the freestore bracket, recording nothing).
//
//   TypeOfObject/<type>     QOR_type_of_object         stat, access x0..3
//   IsAccessible/<t>/<k>    QOR_is_accessible          the cell's calls
//   CreateRemove            QOR_create_object type 4   mkdir, 3 x open+close
//                           and the private removes    3 x unlink, rmdir
//   Links                   a 1000-entry directory     opendir, readdir, closedir
//   object_lock_held/<c>/K  QOR_lock_object +          open ".lock", fcntl lock,
//                           QOR_unlock_object with     fcntl unlock, close, with
//                           K other object locks held  K other lock files held;
//                                                      checked_floor adds the
//                                                      checked open's fstat and
//                                                      flag change
//
// Names are <work>/<contender>: qor (the library) against floor (the host
// calls themselves).
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <qor/qor.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

// The private remove steps are hidden in the library: their unit is built
// into this program.
#include "objects/steps.cpp"

namespace {

// A scratch store with one object of every type and a directory of 1000
// links, made once for the whole run.
struct Store {
    std::string root;
    Store() {
        char name[] = "/tmp/qor-bench-objects-XXXXXX";
        if (mkdtemp(name) == nullptr) abort();
        root = name;
        for (unsigned t = 0; t <= 4; ++t) {
            if (QOR_create_object(qor(t).c_str(), t) != 0) abort();
        }
        mkdir(os_of("links").c_str(), 0777);
        for (int i = 0; i < 1000; ++i) {
            const std::string f = os_of("links/link-" + std::to_string(i));
            close(open(f.c_str(), O_WRONLY | O_CREAT, 0666));
        }
    }
    ~Store() {
        std::string cmd = "rm -rf " + root;
        if (system(cmd.c_str()) != 0) abort();
    }
    std::string os_of(const std::string &name) const {
        return root + "/" + name;
    }
    std::string os(unsigned type) const {
        return os_of("object" + std::to_string(type));
    }
    std::string qor(unsigned type) const { return "@" + os(type); }
};

Store &store() {
    static Store s;
    return s;
}

// ---- The translation every operation starts with ----------------------------

// Not an operation of the object store: the qor-to-OS translation of the
// path layer, inside a freestore bracket, which the operations above the
// floor pay once each.
void BM_Translation(benchmark::State &state) {
    const std::string path = store().qor(4);
    for (auto _ : state) {
        QOR_FS_mark mark;
        QOR_FS_save(&QOR_SH_fs_allocator, &mark);
        benchmark::DoNotOptimize(QOR_SH_qor_to_os_dir(path.c_str()));
        QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
    }
}
BENCHMARK(BM_Translation)->Name("translation/qor");

// ---- Type detection -------------------------------------------------------

void BM_TypeOfObject_Library(benchmark::State &state) {
    const std::string path = store().qor(static_cast<unsigned>(state.range(0)));
    unsigned type = 0;
    for (auto _ : state) {
        if (QOR_type_of_object(path.c_str(), &type) != 0) abort();
        benchmark::DoNotOptimize(type);
    }
    if (type != state.range(0)) abort();
}

void BM_TypeOfObject_Floor(benchmark::State &state) {
    const unsigned t = static_cast<unsigned>(state.range(0));
    const std::string dir = store().os(t);
    const std::string members[] = {dir + "/.lock", dir + "/.body",
                                   dir + "/.index"};
    // A directory tests members until one is unreadable or all three pass.
    const int tests = t == 0 ? 0 : t == 4 ? 3 : static_cast<int>(t);
    struct stat st;
    for (auto _ : state) {
        benchmark::DoNotOptimize(stat(dir.c_str(), &st));
        for (int i = 0; i < tests; ++i) {
            benchmark::DoNotOptimize(access(members[i].c_str(), R_OK));
        }
    }
}

BENCHMARK(BM_TypeOfObject_Library)->Name("type_of_object/qor")->DenseRange(0, 4);
BENCHMARK(BM_TypeOfObject_Floor)->Name("type_of_object/floor")->DenseRange(0, 4);

// ---- Accessibility ----------------------------------------------------------

void BM_IsAccessible_Library(benchmark::State &state) {
    const unsigned type = static_cast<unsigned>(state.range(0));
    const unsigned kind = static_cast<unsigned>(state.range(1));
    const std::string path = store().qor(type);
    int32_t flag = 0;
    for (auto _ : state) {
        if (QOR_is_accessible(path.c_str(), type, kind, &flag) != 0) abort();
        benchmark::DoNotOptimize(flag);
    }
    if (flag != 1) abort();
}

void BM_IsAccessible_Floor(benchmark::State &state) {
    const unsigned type = static_cast<unsigned>(state.range(0));
    const unsigned kind = static_cast<unsigned>(state.range(1));
    const std::string dir = store().os(type);
    const std::string members[] = {dir + "/.index", dir + "/.body",
                                   dir + "/.lock"};
    const int modes[] = {F_OK, R_OK, W_OK};
    struct stat st;
    for (auto _ : state) {
        // Type 4: access on each member, then the directory's stat; a mode
        // check also reads the real user id. Type 0: the file's stat.
        if (type == 4) {
            for (const auto &m : members) {
                benchmark::DoNotOptimize(access(m.c_str(), modes[kind]));
            }
        }
        benchmark::DoNotOptimize(stat(dir.c_str(), &st));
        if (kind != 0) benchmark::DoNotOptimize(getuid());
    }
}

BENCHMARK(BM_IsAccessible_Library)->Name("is_accessible/qor")
    ->ArgsProduct({{0, 4}, {0, 1, 2}});
BENCHMARK(BM_IsAccessible_Floor)->Name("is_accessible/floor")->ArgsProduct({{0, 4}, {0, 1, 2}});

// ---- Creation and removal ----------------------------------------------------

void BM_CreateRemove_Library(benchmark::State &state) {
    const std::string path = "@" + store().os_of("made");
    const std::string lock = path + "/.lock", body = path + "/.body",
                      index = path + "/.index";
    for (auto _ : state) {
        if (QOR_create_object(path.c_str(), 4) != 0) abort();
        if (qor::objects::remove_file(index.c_str(), true) != 0 ||
            qor::objects::remove_file(body.c_str(), true) != 0 ||
            qor::objects::remove_file(lock.c_str(), true) != 0 ||
            qor::objects::remove_directory(path.c_str()) != 0) {
            abort();
        }
    }
}

void BM_CreateRemove_Floor(benchmark::State &state) {
    const std::string dir = store().os_of("made");
    const std::string members[] = {dir + "/.lock", dir + "/.body",
                                   dir + "/.index"};
    for (auto _ : state) {
        if (mkdir(dir.c_str(), 0777) != 0) abort();
        for (const auto &m : members) {
            const int fd = open(m.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0777);
            if (fd < 0) abort();
            close(fd);
        }
        for (int i = 2; i >= 0; --i) {
            if (unlink(members[i].c_str()) != 0) abort();
        }
        if (rmdir(dir.c_str()) != 0) abort();
    }
}

BENCHMARK(BM_CreateRemove_Library)->Name("create_remove/qor");
BENCHMARK(BM_CreateRemove_Floor)->Name("create_remove/floor");

// ---- Links -------------------------------------------------------------------------

void BM_Links_Library(benchmark::State &state) {
    const std::string path = "@" + store().os_of("links");
    int count = 0;
    for (auto _ : state) {
        QOR_link_listing *l = nullptr;
        if (QOR_open_links(path.c_str(), QOR_PLAIN_DIRECTORY, &l) != 0) abort();
        count = 0;
        while (QOR_next_link(l) == 0) ++count;
        QOR_close_links(l);
    }
    if (count != 1000) abort();
    state.SetItemsProcessed(state.iterations() * 1000);
}

void BM_Links_Floor(benchmark::State &state) {
    const std::string dir = store().os_of("links");
    int count = 0;
    for (auto _ : state) {
        DIR *d = opendir(dir.c_str());
        count = 0;
        while (struct dirent *e = readdir(d)) {
            benchmark::DoNotOptimize(e);
            ++count;
        }
        closedir(d);
    }
    if (count != 1002) abort();
    state.SetItemsProcessed(state.iterations() * 1000);
}

BENCHMARK(BM_Links_Library)->Name("links/qor");
BENCHMARK(BM_Links_Floor)->Name("links/floor");

// ---- Object locks with many held -------------------------------------------------

// K lockable directories (each with its ".lock"), made once per K.
const std::vector<std::string> &lock_objects(long k) {
    static std::vector<std::string> paths;
    Store &s = store();
    const std::string dir = s.os_of("locks");
    mkdir(dir.c_str(), 0777);
    for (long i = static_cast<long>(paths.size()); i <= k; ++i) {
        const std::string os = dir + "/o" + std::to_string(i);
        mkdir(os.c_str(), 0777);
        close(open((os + "/.lock").c_str(), O_WRONLY | O_CREAT, 0666));
        paths.push_back(os);
    }
    return paths;
}

// Room for K held descriptors, or the benchmark says why not. A privileged
// run may raise the hard limit too (up to the kernel's nr_open); anyone may
// raise the soft limit up to the hard one.
bool descriptors_for(benchmark::State &state, long k) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t want = static_cast<rlim_t>(k) + 256;
    if (limit.rlim_cur < want) {
        const rlimit raised{want, limit.rlim_max < want ? want : limit.rlim_max};
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit = raised;
        } else {
            limit.rlim_cur = limit.rlim_max;
            setrlimit(RLIMIT_NOFILE, &limit);
        }
    }
    if (limit.rlim_cur < want) {
        state.SkipWithError("descriptor limit below the locks to hold");
        return false;
    }
    return true;
}

void ObjectLockHeld_Library(benchmark::State &state) {
    const long k = state.range(0);
    if (!descriptors_for(state, k)) return;
    const std::vector<std::string> &paths = lock_objects(k);
    for (long i = 1; i <= k; ++i) {
        if (QOR_lock_object(("@" + paths[static_cast<size_t>(i)]).c_str(), 2, 3) != 0) abort();
    }
    const std::string path = "@" + paths[0];
    for (auto _ : state) {
        if (QOR_lock_object(path.c_str(), 2, 3) != 0) abort();
        QOR_unlock_object(path.c_str(), 2);
    }
    for (long i = 1; i <= k; ++i) {
        QOR_unlock_object(("@" + paths[static_cast<size_t>(i)]).c_str(), 2);
    }
}

void lock_fd(int fd, short type) {
    struct flock fl {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &fl) != 0) abort();
}

// The host calls themselves: open ".lock", lock, unlock, close. Checked,
// also the calls the library's checked open of a member file adds:
// O_NONBLOCK|O_NOFOLLOW so that a FIFO or a link planted at ".lock" cannot
// hang or redirect the open, fstat to see a regular file, and O_NONBLOCK
// cleared again. Those are the host calls QOR_lock_object makes.
template <bool Checked>
void ObjectLockHeld_Floor(benchmark::State &state) {
    const long k = state.range(0);
    if (!descriptors_for(state, k)) return;
    const std::vector<std::string> &paths = lock_objects(k);
    std::vector<int> held;
    for (long i = 1; i <= k; ++i) {
        const int fd = open((paths[static_cast<size_t>(i)] + "/.lock").c_str(),
                            O_RDWR | O_CLOEXEC);
        lock_fd(fd, F_WRLCK);
        held.push_back(fd);
    }
    const std::string path = paths[0] + "/.lock";
    constexpr int kFlags =
        Checked ? O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC : O_RDWR | O_CLOEXEC;
    for (auto _ : state) {
        const int fd = open(path.c_str(), kFlags);
        if constexpr (Checked) {
            struct stat st;
            if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) abort();
            fcntl(fd, F_SETFL, 0);
        }
        lock_fd(fd, F_WRLCK);
        lock_fd(fd, F_UNLCK);
        close(fd);
    }
    for (int fd : held) close(fd);
}

void HeldLocks(benchmark::internal::Benchmark *b) {
    for (long k : {1L, 1000L, 10000L, 100000L}) b->Arg(k);
}

BENCHMARK(ObjectLockHeld_Library)->Name("object_lock_held/qor")->Apply(HeldLocks);
BENCHMARK(ObjectLockHeld_Floor<false>)
    ->Name("object_lock_held/floor")
    ->Apply(HeldLocks);
BENCHMARK(ObjectLockHeld_Floor<true>)
    ->Name("object_lock_held/checked_floor")
    ->Apply(HeldLocks);

}  // namespace
