/* A program for the process tests to run. It reports on standard output
 * what it was started with, one item a line:
 *   argv0=<argument 0>
 *   argc=<count>
 *   arg<i>=<argument i>          for every further argument
 *   hash=<QOR_HASH, or "(unset)">
 *   fds=<open descriptors, ascending, comma-separated>
 * and then does what its arguments say, in order:
 *   await=PID   wait until process PID is gone (reaped), then go on
 *   exit=N      exit with status N
 *   signal=N    end through signal N
 * Any other argument is passed over; at the end it exits with status 0. */
#define _GNU_SOURCE 1
#include <dirent.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

static int by_value(const void *a, const void *b) {
    return *(const int *)a - *(const int *)b;
}

static void report_descriptors(void) {
    int fds[1024];
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == NULL) {
        printf("fds=?\n");
        return;
    }
    const int own = dirfd(d);
    struct dirent *e;
    while ((e = readdir(d)) != NULL && n < 1024) {
        if (e->d_name[0] == '.') continue;
        const int fd = atoi(e->d_name);
        if (fd != own) fds[n++] = fd;
    }
    closedir(d);
    qsort(fds, (size_t)n, sizeof fds[0], by_value);
    printf("fds=");
    for (int i = 0; i < n; i++) printf(i > 0 ? ",%d" : "%d", fds[i]);
    printf("\n");
}

int main(int argc, char **argv) {
    printf("argv0=%s\nargc=%d\n", argv[0], argc);
    for (int i = 1; i < argc; i++) printf("arg%d=%s\n", i, argv[i]);
    const char *hash = getenv("QOR_HASH");
    printf("hash=%s\n", hash != NULL ? hash : "(unset)");
    report_descriptors();
    fflush(stdout);
    for (int i = 1; i < argc; i++) {
        if (strncmp(argv[i], "exit=", 5) == 0) return atoi(argv[i] + 5);
        if (strncmp(argv[i], "signal=", 7) == 0) {
            const int sig = atoi(argv[i] + 7);
            signal(sig, SIG_DFL);
            raise(sig);
            return 120;
        }
        if (strncmp(argv[i], "await=", 6) == 0) {
            const pid_t other = (pid_t)atoi(argv[i] + 6);
            /* A zombie still answers kill(); only reaping makes it go. */
            while (kill(other, 0) == 0) sched_yield();
        }
    }
    return 0;
}
