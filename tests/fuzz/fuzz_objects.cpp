// Fuzzes the object store with hostile object directories. Each input lays
// out an object in a scratch store: for each of ".lock", ".body", ".index"
// and "dbi.lock" a kind (missing, regular file of a chosen size, link to a
// victim, dangling link, FIFO, directory, socket, link to /dev/zero, a
// device where the process may make one) and a mode, and the directory's
// own mode; then runs a chosen series of operations on it: type detection,
// opening and reading the contents and the idle index, copying it (as
// source, and a good object onto it as target), granting and denying
// access, locking, inspecting and repairing, moving and deleting.
//
// After every input: the victim file keeps its bytes and mode, the target
// of the dangling link was never created, nothing outside the scratch store
// changed, no descriptor stayed open and the shared freestore is where it
// was. A hang is caught by libFuzzer's -timeout. Any violation aborts.

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>

#include "objects/integrity.h"
#include "qor/foundation.h"
#include "tests/fuzz/quiet_messages.h"
#include "qor/memory.h"
#include "qor/objects.h"

namespace {

std::string g_root;    // scratch directory: store/ and the victim
std::string g_store;   // the store the objects live in
std::string g_victim;  // a file no operation may change
const char kVictimText[] = "victim's bytes";

int remove_entry(const char *path, const struct stat *, int flag,
                 struct FTW *) {
    return flag == FTW_DP ? rmdir(path) : unlink(path);
}

void clear_store() {
    // Directories left without search permission are opened up first.
    chmod(g_store.c_str(), 0755);
    if (DIR *d = opendir(g_store.c_str())) {
        while (dirent *e = readdir(d)) {
            if (e->d_name[0] == '.' &&
                (e->d_name[1] == '\0' ||
                 (e->d_name[1] == '.' && e->d_name[2] == '\0'))) {
                continue;
            }
            chmod((g_store + "/" + e->d_name).c_str(), 0755);
        }
        closedir(d);
    }
    nftw(g_store.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    mkdir(g_store.c_str(), 0755);
}

// Names in a directory besides "." and "..".
int count_entries(const std::string &dir) {
    int n = 0;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            n += strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0;
        }
        closedir(d);
    }
    return n;
}

void remove_scratch() {
    clear_store();
    rmdir(g_store.c_str());
    unlink(g_victim.c_str());
    rmdir(g_root.c_str());
}

int open_descriptors() {
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
    }
    return n;
}

// The input read byte by byte; zeros once it is used up.
struct Input {
    const uint8_t *p;
    size_t n;
    uint8_t next() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
};

// own: at is the object's own path, which callers name and which may be a
// link followed as they name it; a link there leads to a decoy in the
// store, never to the victim.
void plant(const std::string &at, uint8_t kind, uint8_t size, uint8_t mode,
           bool own = false) {
    const mode_t bits = mode & 0777;
    switch (kind % 10) {
        case 0:
            return;  // missing
        case 1: {
            const int fd = open(at.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
            if (fd >= 0) {
                // Sizes from empty to far beyond the copy buffer, sparse.
                if (size != 0) (void)!ftruncate(fd, (off_t)size * size * 7);
                close(fd);
            }
            break;
        }
        case 2:
            if (own) {
                const std::string decoy = g_store + "/decoy";
                const int fd = open(decoy.c_str(), O_WRONLY | O_CREAT, 0644);
                if (fd >= 0) close(fd);
                (void)!symlink(decoy.c_str(), at.c_str());
            } else {
                (void)!symlink(g_victim.c_str(), at.c_str());
            }
            return;
        case 3:
            (void)!symlink((g_root + "/dangling").c_str(), at.c_str());
            return;
        case 4:
            mkfifo(at.c_str(), 0644);
            break;
        case 5:
            mkdir(at.c_str(), 0755);
            break;
        case 6:
            mknod(at.c_str(), S_IFSOCK | 0644, 0);
            break;
        case 7:
            (void)!symlink("/dev/zero", at.c_str());
            return;
        case 8:
            // /dev/null's numbers: a device that reads empty and takes all.
            mknod(at.c_str(), S_IFCHR | 0644, makedev(1, 3));
            break;
        case 9:
            (void)!symlink(g_store.c_str(), at.c_str());
            return;
    }
    chmod(at.c_str(), bits);
}

void check(bool ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "violated: %s\n", what);
        abort();
    }
}

std::string read_all(const std::string &path) {
    std::string out;
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW);
    if (fd < 0) return "<unreadable>";
    char buf[256];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, n);
    close(fd);
    return out;
}

void read_some(QOR_contents_record *rec) {
    int fd = -1;
    if (QOR_get_fd(rec, &fd) == 0 && fd >= 0) {
        char buf[512];
        for (int i = 0; i < 4 && read(fd, buf, sizeof buf) > 0; ++i) {
        }
    }
    QOR_close_contents(rec);
}

void run(Input *in, const std::string &q, unsigned type) {
    const std::string copy = "@" + g_store + "/copy";
    const std::string good = "@" + g_store + "/good";
    const uint8_t ops = in->next();
    const uint8_t more = in->next();
    unsigned found = 99;
    QOR_type_of_object(q.c_str(), &found);
    if (ops & 0x01) {
        QOR_contents_record *rec = nullptr;
        if (QOR_open_contents(q.c_str(), type, 0x01, more & 1, &rec) == 0) {
            read_some(rec);
        }
    }
    if (ops & 0x02) {
        QOR_contents_record *rec = nullptr;
        if (QOR_open_idle_index(q.c_str(), 0x04, more & 2 ? 3 : 0, &rec) ==
            0) {
            char block[64];
            QOR_read_idle_block(rec, 0, block, sizeof block);
            QOR_close_contents(rec);
        }
    }
    if (ops & 0x04) {
        QOR_copy_object(q.c_str(), type, copy.c_str());
    }
    if (ops & 0x08) {
        QOR_create_object(good.c_str(), type);
        QOR_copy_object(good.c_str(), type, q.c_str());
    }
    if (ops & 0x10) {
        QOR_set_accessibility(q.c_str(), type, more % 3, (more >> 2) % 5,
                              (more >> 5) & 1);
    }
    if (ops & 0x20) {
        if (QOR_lock_object(q.c_str(), type, (more & 1) ? 3 : 1) == 0) {
            QOR_unlock_object(q.c_str(), type);
        }
    }
    if (ops & 0x40) {
        qor::objects::Inspection found_out{};
        if (qor::objects::inspect_object(q.c_str(), type, nullptr,
                                         &found_out) == 0) {
            int left = 0;
            qor::objects::repair_object(q.c_str(), found_out, &left);
        }
    }
    if (ops & 0x80) {
        const std::string moved = "@" + g_store + "/moved";
        if (QOR_move_object(q.c_str(), type, moved.c_str()) == 0) {
            QOR_delete_object(moved.c_str(), type);
        }
    } else {
        QOR_delete_object(q.c_str(), type);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char tmpl[] = "/tmp/qor-fuzz-objects-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    g_root = tmpl;
    g_store = g_root + "/store";
    g_victim = g_root + "/victim";
    mkdir(g_store.c_str(), 0755);
    const int fd = open(g_victim.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0640);
    if (fd < 0 || write(fd, kVictimText, sizeof kVictimText - 1) < 0) abort();
    close(fd);
    chmod(g_victim.c_str(), 0640);
    fuzz_support::quiet_messages();
    atexit(remove_scratch);
    umask(022);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    clear_store();
    const int fds = open_descriptors();
    QOR_FS_mark mark;
    QOR_FS_save(&QOR_SH_fs_allocator, &mark);
    // A piece taken first gives the freestore a current chunk to compare.
    QOR_FS_malloc(&QOR_SH_fs_allocator, 8);
    const QOR_FS_chunk *chunk = QOR_SH_fs_allocator.current_chunk;
    const uint32_t used = chunk->used;

    const unsigned type = in.next() % 5;
    const std::string dir = g_store + "/o";
    const uint8_t dir_mode = in.next();
    if (type == 0) {
        const uint8_t kind = in.next();
        const uint8_t sz = in.next();
        plant(dir, kind, sz, in.next(), true);
    } else {
        mkdir(dir.c_str(), 0755);
        for (const char *m : {".lock", ".body", ".index", "dbi.lock"}) {
            const uint8_t kind = in.next();
            const uint8_t sz = in.next();
            const uint8_t mode = in.next();
            plant(dir + "/" + m, kind, sz, mode);
        }
        // Owner bits kept, so the store can still be cleared.
        chmod(dir.c_str(), 0700 | ((dir_mode & 077)));
    }
    run(&in, "@" + dir, type);

    check(read_all(g_victim) == kVictimText, "victim's bytes changed");
    struct stat st;
    check(stat(g_victim.c_str(), &st) == 0 && (st.st_mode & 07777) == 0640,
          "victim's mode changed");
    check(access((g_root + "/dangling").c_str(), F_OK) != 0,
          "a dangling link's target was created");
    check(count_entries(g_root) == 2, "an entry appeared outside the store");
    check(open_descriptors() == fds, "a descriptor stayed open");
    check(QOR_SH_fs_allocator.current_chunk == chunk && chunk->used == used,
          "shared freestore not restored");
    QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
    return 0;
}
