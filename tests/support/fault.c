/* Interposed libc calls for fault injection; see fault.h. */
#define _GNU_SOURCE 1
/* This file defines the plain libc names; the checked inline wrappers a
 * fortified build would put in front of them are not wanted here. */
#undef _FORTIFY_SOURCE
#include "fault.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

struct plan {
    long calls;
    long injected;
    int skip;
    int count; /* remaining failures; -1 endless; 0 disarmed */
    int err;
    long max_bytes; /* >= 0: short transfer instead of a failure */
    int has_result; /* return result instead of failing */
    long result;
    char filter[256];
};

static struct plan plans[QF_COUNT];
static const char *const names[QF_COUNT] = {
#define QOR_FAULT_NAME(name) #name,
    QOR_FAULT_FUNCTIONS(QOR_FAULT_NAME)
#undef QOR_FAULT_NAME
};
static void *reals[QF_COUNT];

/* dlsym may allocate while the allocator itself is being resolved: serve
 * those few requests from a static area that is never freed. */
static _Alignas(16) char bootstrap[8192];
static size_t bootstrap_used;
static volatile int resolving; /* read again by re-entered calls */

static void *bootstrap_alloc(size_t n) {
    n = (n + 15) & ~(size_t)15;
    if (bootstrap_used + n > sizeof bootstrap) return NULL;
    void *p = bootstrap + bootstrap_used;
    bootstrap_used += n;
    return p;
}
static int in_bootstrap(const void *p) {
    return (const char *)p >= bootstrap &&
           (const char *)p < bootstrap + sizeof bootstrap;
}

static void *real(qor_fault_fn fn) {
    if (reals[fn] == NULL) {
        resolving++;
        reals[fn] = dlsym(RTLD_NEXT, names[fn]);
        resolving--;
        if (reals[fn] == NULL) abort();
    }
    return reals[fn];
}

/* Decides the fate of one call: 0 pass through, 1 fail with errno, 2 short,
 * 3 return the planned result. */
static int decide(qor_fault_fn fn, const char *path) {
    struct plan *p = &plans[fn];
    p->calls++;
    if (p->count == 0) return 0;
    if (p->filter[0] != '\0' && (path == NULL || strstr(path, p->filter) == NULL))
        return 0;
    if (p->skip > 0) {
        p->skip--;
        return 0;
    }
    if (p->count > 0) p->count--;
    p->injected++;
    if (p->has_result) return 3;
    return p->max_bytes >= 0 ? 2 : 1;
}

/* Mutating calls: counted, shown to the hook, and the crash point. */
static qor_fault_mutation_hook mutation_hook;
static long mutation_count;
static long mutation_exit_after;
static int mutation_exit_status;

void qor_fault_on_mutation(qor_fault_mutation_hook hook) { mutation_hook = hook; }
void qor_fault_exit_after_mutations(long n, int status) {
    mutation_exit_after = n;
    mutation_exit_status = status;
    mutation_count = 0;
}
long qor_fault_mutations(void) { return mutation_count; }

static void mutation(qor_fault_fn fn, const char *path, int fd, int flags) {
    if (mutation_exit_after > 0 && mutation_count >= mutation_exit_after)
        _exit(mutation_exit_status);
    mutation_count++;
    if (mutation_hook != NULL) mutation_hook(fn, path, fd, flags);
}
static int open_mutates(int flags) {
    return (flags & (O_CREAT | O_TRUNC)) != 0 || (flags & O_ACCMODE) != O_RDONLY;
}
static int stream_pending(FILE *f) { return f != NULL && __fpending(f) > 0; }

void qor_fault_fail(qor_fault_fn fn, int err, int skip, int count) {
    plans[fn].err = err;
    plans[fn].skip = skip;
    plans[fn].count = count;
    plans[fn].max_bytes = -1;
    plans[fn].has_result = 0;
}
void qor_fault_result(qor_fault_fn fn, long value, int skip, int count) {
    plans[fn].skip = skip;
    plans[fn].count = count;
    plans[fn].max_bytes = -1;
    plans[fn].has_result = 1;
    plans[fn].result = value;
}
void qor_fault_short(qor_fault_fn fn, long max_bytes, int skip, int count) {
    plans[fn].skip = skip;
    plans[fn].count = count;
    plans[fn].max_bytes = max_bytes;
    plans[fn].has_result = 0;
}
void qor_fault_filter_path(qor_fault_fn fn, const char *text) {
    plans[fn].filter[0] = '\0';
    if (text != NULL) {
        strncpy(plans[fn].filter, text, sizeof plans[fn].filter - 1);
        plans[fn].filter[sizeof plans[fn].filter - 1] = '\0';
    }
}
/* Blocks given back to free (null and dlsym's own blocks aside). */
static long frees;

void qor_fault_reset(void) {
    for (int i = 0; i < QF_COUNT; i++) {
        plans[i].calls = plans[i].injected = 0;
        plans[i].skip = plans[i].count = plans[i].err = 0;
        plans[i].max_bytes = -1;
        plans[i].has_result = 0;
        plans[i].filter[0] = '\0';
    }
    mutation_hook = NULL;
    mutation_count = mutation_exit_after = 0;
    __atomic_store_n(&frees, 0, __ATOMIC_RELAXED);
}
long qor_fault_calls(qor_fault_fn fn) { return plans[fn].calls; }
long qor_fault_injected(qor_fault_fn fn) { return plans[fn].injected; }

#define FAIL_WITH(fn, value)          \
    do {                              \
        errno = plans[QF_##fn].err;   \
        return value;                 \
    } while (0)

#define PATH_CALL(fn, ret, params, args, path)                  \
    ret fn params {                                             \
        typedef ret (*real_t) params;                           \
        switch (decide(QF_##fn, path)) {                        \
            case 1: FAIL_WITH(fn, (ret)-1);                     \
            case 3: return (ret)plans[QF_##fn].result;          \
            default: break;                                     \
        }                                                       \
        return ((real_t)real(QF_##fn)) args;                    \
    }
#define FD_CALL(fn, ret, params, args) PATH_CALL(fn, ret, params, args, NULL)
#define MUTATING_PATH_CALL(fn, ret, params, args, path)         \
    ret fn params {                                             \
        typedef ret (*real_t) params;                           \
        if (decide(QF_##fn, path) == 1) FAIL_WITH(fn, (ret)-1); \
        mutation(QF_##fn, path, -1, 0);                         \
        return ((real_t)real(QF_##fn)) args;                    \
    }
#define MUTATING_FD_CALL(fn, ret, params, args)                 \
    ret fn params {                                             \
        typedef ret (*real_t) params;                           \
        if (decide(QF_##fn, NULL) == 1) FAIL_WITH(fn, (ret)-1); \
        mutation(QF_##fn, NULL, fd, 0);                         \
        return ((real_t)real(QF_##fn)) args;                    \
    }

static mode_t mode_arg(int flags, va_list ap) {
    return (flags & (O_CREAT | O_TMPFILE)) ? (mode_t)va_arg(ap, int) : 0;
}

int open(const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    if (decide(QF_open, path) == 1) FAIL_WITH(open, -1);
    if (open_mutates(flags)) mutation(QF_open, path, -1, flags);
    return ((int (*)(const char *, int, ...))real(QF_open))(path, flags, mode);
}
int open64(const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    if (decide(QF_open64, path) == 1) FAIL_WITH(open64, -1);
    if (open_mutates(flags)) mutation(QF_open64, path, -1, flags);
    return ((int (*)(const char *, int, ...))real(QF_open64))(path, flags, mode);
}
int openat(int dirfd, const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    if (decide(QF_openat, path) == 1) FAIL_WITH(openat, -1);
    if (open_mutates(flags)) mutation(QF_openat, path, -1, flags);
    return ((int (*)(int, const char *, int, ...))real(QF_openat))(dirfd, path,
                                                                  flags, mode);
}

FD_CALL(close, int, (int fd), (fd))
FD_CALL(lseek, off_t, (int fd, off_t off, int whence), (fd, off, whence))
MUTATING_FD_CALL(fsync, int, (int fd), (fd))
MUTATING_FD_CALL(ftruncate, int, (int fd, off_t len), (fd, len))
FD_CALL(dup, int, (int fd), (fd))
FD_CALL(dup2, int, (int fd, int fd2), (fd, fd2))
FD_CALL(fstat, int, (int fd, struct stat *st), (fd, st))
FD_CALL(fchmod, int, (int fd, mode_t mode), (fd, mode))
FD_CALL(fchown, int, (int fd, uid_t u, gid_t g), (fd, u, g))
FD_CALL(getgroups, int, (int size, gid_t list[]), (size, list))
PATH_CALL(stat, int, (const char *p, struct stat *st), (p, st), p)
PATH_CALL(lstat, int, (const char *p, struct stat *st), (p, st), p)
PATH_CALL(access, int, (const char *p, int mode), (p, mode), p)
PATH_CALL(chmod, int, (const char *p, mode_t mode), (p, mode), p)
PATH_CALL(chown, int, (const char *p, uid_t u, gid_t g), (p, u, g), p)
MUTATING_PATH_CALL(mkdir, int, (const char *p, mode_t mode), (p, mode), p)
MUTATING_PATH_CALL(rmdir, int, (const char *p), (p), p)
MUTATING_PATH_CALL(unlink, int, (const char *p), (p), p)
MUTATING_PATH_CALL(remove, int, (const char *p), (p), p)
MUTATING_PATH_CALL(rename, int, (const char *a, const char *b), (a, b), a)
PATH_CALL(readlink, ssize_t, (const char *p, char *buf, size_t n), (p, buf, n), p)
PATH_CALL(symlink, int, (const char *a, const char *b), (a, b), b)
PATH_CALL(link, int, (const char *a, const char *b), (a, b), b)
PATH_CALL(utime, int, (const char *p, const struct utimbuf *t), (p, t), p)

#define TRANSFER_CALL(fn, params, args, lenvar)                          \
    ssize_t fn params {                                                  \
        typedef ssize_t(*real_t) params;                                 \
        switch (decide(QF_##fn, NULL)) {                                 \
            case 1: FAIL_WITH(fn, -1);                                   \
            case 2:                                                      \
                if (plans[QF_##fn].max_bytes == 0) return 0;             \
                if ((size_t)plans[QF_##fn].max_bytes < lenvar)           \
                    lenvar = (size_t)plans[QF_##fn].max_bytes;           \
                break;                                                   \
            default: break;                                              \
        }                                                                \
        if (MUTATES_##fn) mutation(QF_##fn, NULL, fd, 0);                \
        return ((real_t)real(QF_##fn)) args;                             \
    }
enum { MUTATES_read = 0, MUTATES_write = 1, MUTATES_pread = 0, MUTATES_pwrite = 1 };
TRANSFER_CALL(read, (int fd, void *buf, size_t n), (fd, buf, n), n)
TRANSFER_CALL(write, (int fd, const void *buf, size_t n), (fd, buf, n), n)
TRANSFER_CALL(pread, (int fd, void *buf, size_t n, off_t off), (fd, buf, n, off), n)
TRANSFER_CALL(pwrite, (int fd, const void *buf, size_t n, off_t off), (fd, buf, n, off), n)

int fcntl(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (decide(QF_fcntl, NULL) == 1) FAIL_WITH(fcntl, -1);
    return ((int (*)(int, int, ...))real(QF_fcntl))(fd, cmd, arg);
}

DIR *opendir(const char *p) {
    if (decide(QF_opendir, p) == 1) FAIL_WITH(opendir, NULL);
    return ((DIR * (*)(const char *)) real(QF_opendir))(p);
}
struct dirent *readdir(DIR *d) {
    if (decide(QF_readdir, NULL) == 1) FAIL_WITH(readdir, NULL);
    return ((struct dirent * (*)(DIR *)) real(QF_readdir))(d);
}
FD_CALL(closedir, int, (DIR * d), (d))
char *getcwd(char *buf, size_t n) {
    if (decide(QF_getcwd, NULL) == 1) FAIL_WITH(getcwd, NULL);
    return ((char *(*)(char *, size_t))real(QF_getcwd))(buf, n);
}
FILE *fdopen(int fd, const char *mode) {
    if (decide(QF_fdopen, NULL) == 1) FAIL_WITH(fdopen, NULL);
    return ((FILE * (*)(int, const char *)) real(QF_fdopen))(fd, mode);
}
int fclose(FILE *f) {
    if (decide(QF_fclose, NULL) == 1) FAIL_WITH(fclose, -1);
    if (stream_pending(f)) mutation(QF_fclose, NULL, fileno(f), 0);
    return ((int (*)(FILE *))real(QF_fclose))(f);
}
int fflush(FILE *f) {
    if (decide(QF_fflush, NULL) == 1) FAIL_WITH(fflush, EOF);
    if (stream_pending(f)) mutation(QF_fflush, NULL, fileno(f), 0);
    return ((int (*)(FILE *))real(QF_fflush))(f);
}
/* A failing fgets sets the stream's error indicator, as a failed read
 * does (a write to the read-only stream is the portable way to set it); a
 * planned result answers null with errno set to the value and leaves both
 * indicators alone. */
char *fgets(char *s, int n, FILE *f) {
    switch (decide(QF_fgets, NULL)) {
        case 1:
            (void)fputc(0, f);
            FAIL_WITH(fgets, NULL);
        case 3:
            errno = (int)plans[QF_fgets].result;
            return NULL;
        default:
            break;
    }
    return ((char *(*)(char *, int, FILE *))real(QF_fgets))(s, n, f);
}
int fputs(const char *s, FILE *f) {
    if (decide(QF_fputs, NULL) == 1) FAIL_WITH(fputs, EOF);
    mutation(QF_fputs, NULL, fileno(f), 0);
    return ((int (*)(const char *, FILE *))real(QF_fputs))(s, f);
}
FD_CALL(fseek, int, (FILE * f, long off, int whence), (f, off, whence))
struct passwd *getpwuid(uid_t uid) {
    if (decide(QF_getpwuid, NULL) == 1) FAIL_WITH(getpwuid, NULL);
    return ((struct passwd * (*)(uid_t)) real(QF_getpwuid))(uid);
}
struct group *getgrgid(gid_t gid) {
    if (decide(QF_getgrgid, NULL) == 1) FAIL_WITH(getgrgid, NULL);
    return ((struct group * (*)(gid_t)) real(QF_getgrgid))(gid);
}
PATH_CALL(system, int, (const char *cmd), (cmd), cmd)
FD_CALL(waitpid, pid_t, (pid_t pid, int *st, int opt), (pid, st, opt))
PATH_CALL(putenv, int, (char *s), (s), s)
char *getenv(const char *name) {
    if (decide(QF_getenv, name) == 1) FAIL_WITH(getenv, NULL);
    return ((char *(*)(const char *))real(QF_getenv))(name);
}

char *strerror(int e) {
    int fail = decide(QF_strerror, NULL) == 1;
    char *text = ((char *(*)(int))real(QF_strerror))(e);
    if (fail) errno = plans[QF_strerror].err;
    return text;
}

MUTATING_FD_CALL(fdatasync, int, (int fd), (fd))

/* The allocator: resolved lazily, with the bootstrap area for dlsym's own
 * needs while that happens. */
void *malloc(size_t n) {
    if (resolving) return bootstrap_alloc(n);
    if (decide(QF_malloc, NULL) == 1) FAIL_WITH(malloc, NULL);
    return ((void *(*)(size_t))real(QF_malloc))(n);
}
void *calloc(size_t n, size_t size) {
    if (resolving) return bootstrap_alloc(n * size); /* static: zeroed */
    if (decide(QF_calloc, NULL) == 1) FAIL_WITH(calloc, NULL);
    return ((void *(*)(size_t, size_t))real(QF_calloc))(n, size);
}
void *realloc(void *p, size_t n) {
    if (decide(QF_realloc, NULL) == 1) FAIL_WITH(realloc, NULL);
    return ((void *(*)(void *, size_t))real(QF_realloc))(p, n);
}
/* Mappings the program asks for itself (glibc's allocator maps through its
 * own internal entry, never this one). */
void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset) {
    if (decide(QF_mmap, NULL) == 1) FAIL_WITH(mmap, MAP_FAILED);
    return ((void *(*)(void *, size_t, int, int, int, off_t))real(QF_mmap))(
        addr, length, prot, flags, fd, offset);
}
int munmap(void *addr, size_t length) {
    if (decide(QF_munmap, NULL) == 1) FAIL_WITH(munmap, -1);
    return ((int (*)(void *, size_t))real(QF_munmap))(addr, length);
}
static void (*real_free)(void *);
long qor_fault_frees(void) { return __atomic_load_n(&frees, __ATOMIC_RELAXED); }
void free(void *p) {
    if (p == NULL || in_bootstrap(p)) return;
    if (real_free == NULL) {
        /* dlsym may free its own error text while free is being resolved:
           that one small block is left alone. */
        if (resolving) return;
        resolving++;
        real_free = (void (*)(void *))dlsym(RTLD_NEXT, "free");
        resolving--;
    }
    __atomic_add_fetch(&frees, 1, __ATOMIC_RELAXED);
    real_free(p);
}

/* Distributions build with _FORTIFY_SOURCE, which turns the library's calls
 * into checked entry points (__open_2, __read_chk, ...) whenever the
 * compiler knows a buffer's size or sees an open without a mode. Each one
 * here does libc's check and then goes through the plain interposed call, so
 * the same plan counts and fails it whichever entry the library took. */
static void buffer_overflow(void) {
    static const char text[] = "*** buffer overflow detected ***: terminated\n";
    ssize_t ignored = ((ssize_t(*)(int, const void *, size_t))real(QF_write))(
        2, text, sizeof text - 1);
    (void)ignored;
    abort();
}
int __open_2(const char *path, int flags) { return open(path, flags); }
int __open64_2(const char *path, int flags) { return open64(path, flags); }
int __openat_2(int dirfd, const char *path, int flags) {
    return openat(dirfd, path, flags);
}
int __openat64_2(int dirfd, const char *path, int flags) {
    return openat(dirfd, path, flags);
}
ssize_t __read_chk(int fd, void *buf, size_t n, size_t room) {
    if (n > room) buffer_overflow();
    return read(fd, buf, n);
}
ssize_t __pread_chk(int fd, void *buf, size_t n, off_t off, size_t room) {
    if (n > room) buffer_overflow();
    return pread(fd, buf, n, off);
}
ssize_t __pread64_chk(int fd, void *buf, size_t n, off_t off, size_t room) {
    if (n > room) buffer_overflow();
    return pread(fd, buf, n, off);
}
char *__fgets_chk(char *s, size_t room, int n, FILE *f) {
    if ((size_t)n > room) buffer_overflow();
    return fgets(s, n, f);
}
ssize_t __readlink_chk(const char *p, char *buf, size_t n, size_t room) {
    if (n > room) buffer_overflow();
    return readlink(p, buf, n);
}
char *__getcwd_chk(char *buf, size_t n, size_t room) {
    if (n > room) buffer_overflow();
    return getcwd(buf, n);
}
int __getgroups_chk(int size, gid_t list[], size_t room) {
    if (size > 0 && (size_t)size * sizeof(gid_t) > room) buffer_overflow();
    return getgroups(size, list);
}

/* A planned result of getlogin is the address of the name it answers. */
char *getlogin(void) {
    switch (decide(QF_getlogin, NULL)) {
        case 1: FAIL_WITH(getlogin, NULL);
        case 3: return (char *)(intptr_t)plans[QF_getlogin].result;
        default: break;
    }
    return ((char *(*)(void))real(QF_getlogin))();
}
FD_CALL(uname, int, (struct utsname * u), (u))
FD_CALL(fork, pid_t, (void), ())
PATH_CALL(execv, int, (const char *p, char *const argv[]), (p, argv), p)
FD_CALL(wait, pid_t, (int *st), (st))

/* A transfer into fd_out, so a mutating call; see fault.h for its refusal
 * while read or write is armed. */
ssize_t copy_file_range(int fd_in, off_t *off_in, int fd_out, off_t *off_out,
                        size_t n, unsigned int flags) {
    typedef ssize_t (*real_t)(int, off_t *, int, off_t *, size_t, unsigned int);
    switch (decide(QF_copy_file_range, NULL)) {
        case 1: FAIL_WITH(copy_file_range, -1);
        case 2:
            if (plans[QF_copy_file_range].max_bytes == 0) return 0;
            if ((size_t)plans[QF_copy_file_range].max_bytes < n)
                n = (size_t)plans[QF_copy_file_range].max_bytes;
            break;
        case 3: return (ssize_t)plans[QF_copy_file_range].result;
        default: break;
    }
    if (plans[QF_read].count != 0 || plans[QF_write].count != 0) {
        errno = ENOSYS;
        return -1;
    }
    mutation(QF_copy_file_range, NULL, fd_out, 0);
    return ((real_t)real(QF_copy_file_range))(fd_in, off_in, fd_out, off_out,
                                              n, flags);
}

__attribute__((constructor)) static void fault_init(void) {
    for (int i = 0; i < QF_COUNT; i++) plans[i].max_bytes = -1;
}
