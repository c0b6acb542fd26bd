/* Fault injection for the tests: the test programs define the libc calls the
 * library makes, forward them to the real ones, and make chosen calls fail
 * with a chosen errno (or transfer fewer bytes) when armed. The library is
 * not changed in any way; its calls reach these definitions through the
 * ordinary symbol lookup. Counters always run, armed or not. */
#ifndef QOR_TEST_FAULT_H
#define QOR_TEST_FAULT_H

#ifdef __cplusplus
extern "C" {
#endif

#define QOR_FAULT_FUNCTIONS(X)                                           \
    X(open) X(open64) X(openat) X(close) X(read) X(write) X(pread)       \
    X(pwrite) X(lseek) X(fsync) X(ftruncate) X(fcntl) X(dup) X(dup2)     \
    X(stat) X(fstat) X(lstat) X(access) X(chmod) X(fchmod) X(chown)      \
    X(mkdir) X(rmdir) X(unlink) X(remove) X(rename) X(readlink)          \
    X(symlink) X(link) X(opendir) X(readdir) X(closedir) X(getcwd)       \
    X(fdopen) X(fclose) X(fflush) X(fgets) X(fputs) X(fseek) X(getpwuid) \
    X(getgrgid) X(getgroups) X(malloc) X(calloc) X(realloc) X(system)   \
    X(waitpid) X(putenv) X(getenv) X(utime) X(strerror)                \
    X(fdatasync) X(fchown) X(getlogin) X(uname) X(fork) X(execv) X(wait) \
    X(copy_file_range) X(mmap) X(munmap)

typedef enum qor_fault_fn {
#define QOR_FAULT_ENUM(name) QF_##name,
    QOR_FAULT_FUNCTIONS(QOR_FAULT_ENUM)
#undef QOR_FAULT_ENUM
    QF_COUNT
} qor_fault_fn;

/* After `skip` calls pass through, the next `count` calls of fn fail with
 * errno err (count -1: every call from then on). */
void qor_fault_fail(qor_fault_fn fn, int err, int skip, int count);
/* read/write/pread/pwrite/copy_file_range: after `skip` calls, the next
 * `count` calls transfer at most max_bytes (0 means: transfer nothing,
 * return 0).
 * copy_file_range refuses with ENOSYS (as a kernel without it does) while
 * a plan for read or write is armed, so that those plans reach the read
 * and write of a copy through a buffer; the refusal is counted as a call,
 * not as an injection. */
void qor_fault_short(qor_fault_fn fn, long max_bytes, int skip, int count);
/* Calls that return an integer and take a path or a descriptor (not
 * read/write/pread/pwrite): after `skip` calls, the next `count` calls
 * return value without being made, errno untouched. For results the host
 * gives only rarely (a raw 127 from system, a fork that "returns" in a
 * child, ...). fgets answers null with errno set to value, the stream's
 * indicators untouched (a failing fgets sets the error indicator). */
void qor_fault_result(qor_fault_fn fn, long value, int skip, int count);
/* Only calls whose path argument contains text are affected (and counted as
 * matching); null removes the filter. */
void qor_fault_filter_path(qor_fault_fn fn, const char *text);
/* strerror "fails" by returning its text with errno set to err. */
/* Disarms everything and zeroes the counters. */
void qor_fault_reset(void);
/* Calls of fn seen since the last reset (all of them, armed or not). */
long qor_fault_calls(qor_fault_fn fn);
/* Calls of fn that were made to fail or shortened since the last reset. */
long qor_fault_injected(qor_fault_fn fn);
/* Blocks given to free since the last reset (free of null not counted):
 * with the malloc and calloc calls, what a piece of code left allocated. */
long qor_fault_frees(void);

/* Mutating host calls: open with O_CREAT, O_TRUNC, O_WRONLY or O_RDWR;
 * write, pwrite, copy_file_range (fd: the target), ftruncate, fsync,
 * fdatasync, unlink, remove, rename,
 * mkdir, rmdir; fputs; fflush and fclose of a stream with output pending.
 * Each one is counted and shown to the hook (when set) before it is made:
 * path is the name for the path calls, null otherwise; fd the descriptor
 * (or the stream's) for the descriptor calls, -1 otherwise; flags the open
 * flags. */
typedef void (*qor_fault_mutation_hook)(qor_fault_fn fn, const char *path,
                                        int fd, int flags);
void qor_fault_on_mutation(qor_fault_mutation_hook hook);
/* The process ends with _exit(status) right after its n-th mutating call
 * (counted from now), before the next one is made; n 0 disarms. */
void qor_fault_exit_after_mutations(long n, int status);
/* Mutating calls seen since the last reset or arming. */
long qor_fault_mutations(void);

#ifdef __cplusplus
}
#endif

#endif
