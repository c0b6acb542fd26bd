// qor tour step for the memory subsystem: a freestore with marks, and a
// static allocator reusing its records. What happens is told on standard
// output; the dumps go to standard error, as the library writes them.

#include <qor/memory.h>
#include <stdio.h>
#include <string.h>

#include "commands.h"

namespace qor_tool {

const Command memory_commands[] = {{}};

namespace {

// Lets what was said so far appear before a dump written to stderr.
void say(const char *text) {
    fputs(text, stdout);
    fflush(stdout);
}

int tour_freestore() {
    QOR_FS_allocator fs;
    QOR_FS_initialise(&fs, 64, 0);
    say("A freestore of 64-byte chunks (QOR_FS_initialise).\n");

    char *alpha = QOR_FS_copy_string(&fs, "alpha");
    char *beta = QOR_FS_copy_string(&fs, "beta");
    printf("  copied \"%s\" and \"%s\" into it\n", alpha, beta);

    QOR_FS_mark mark;
    QOR_FS_save(&fs, &mark);
    say("  saved a mark (QOR_FS_save)\n");
    char *joined = QOR_FS_cat_strings(&fs, alpha, "/", beta, "/gamma", nullptr);
    printf("  joined \"%s\" (QOR_FS_cat_strings)\n", joined);
    QOR_FS_malloc(&fs, 60);
    QOR_FS_malloc(&fs, 100);
    printf("  took 60 bytes (a new chunk) and 100 bytes (an oversized chunk: "
           "count %u)\n",
           fs.oversized_count);
    say("  the dump, verbose (QOR_FS_dump):\n");
    QOR_FS_dump(&fs, 1);

    QOR_FS_restore(&fs, &mark);
    printf("  restored the mark (QOR_FS_restore): \"%s\" and \"%s\" are "
           "still there,\n  the oversized chunk is freed (count %u) and the "
           "chunk made since\n  the mark is kept for reuse:\n",
           alpha, beta, fs.oversized_count);
    fflush(stdout);
    QOR_FS_dump(&fs, 0);
    const bool ok = strcmp(alpha, "alpha") == 0 && fs.oversized_count == 0 &&
                    fs.current_chunk == mark.chunk;
    QOR_FS_destroy(&fs);
    return ok ? 0 : 1;
}

int tour_static_allocator() {
    QOR_SA_allocator sa =
        QOR_SA_INITIALISER(24, 32, 32, QOR_clear_memory, nullptr);
    say("\nA static allocator of 24-byte records, set up by its first "
        "allocation\n(QOR_SA_allocate):\n");
    void *records[3];
    for (void *&r : records) r = QOR_SA_allocate(&sa);
    printf("  took records 0, 1 and 2; the first block holds %u records\n",
           sa.initial_entries);
    QOR_SA_release(&sa, records[1]);
    void *again = QOR_SA_allocate(&sa);
    printf("  released record 1 and allocated again: %s\n",
           again == records[1] ? "record 1 came back (lowest free first)"
                               : "another record came back");
    int in_use = 0;
    for (void *r = QOR_SA_next(&sa, nullptr); r != nullptr;
         r = QOR_SA_next(&sa, r)) {
        ++in_use;
    }
    printf("  QOR_SA_next counts %d records in use\n", in_use);
    say("  the dump, verbose (QOR_SA_dump):\n");
    QOR_SA_dump(&sa, 1);
    QOR_SA_destroy(&sa);
    return again == records[1] && in_use == 3 ? 0 : 1;
}

}  // namespace

int tour_memory() {
    tour_heading("Memory: the freestore and the static allocator");
    if (tour_freestore() != 0) return 1;
    return tour_static_allocator();
}

}  // namespace qor_tool
