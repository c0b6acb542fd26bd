/* Saving and reading a shared text file through the save protocol: many
 * processes may read the file while one at a time rewrites it, and a
 * rewrite cut short by a crash is repaired by the next reader.
 *
 *   text_save FILE LINE...   saves the LINEs as the file's contents
 *   text_save FILE           prints the file's lines
 *
 * FILE is a plain absolute path. While a save runs, FILE.bak holds the old
 * contents and FILE.ctrl marks the rewrite as under way; both are gone once
 * it has ended. */
#include <qor/qor.h>

#include <setjmp.h>
#include <stdio.h>
#include <string.h>

static int save(const char *path, int count, char **lines) {
    /* Writable, with the lock: the open takes the update right (one saver
     * per file) without waiting, or answers null when another process has
     * it. The handle is ours until QOR_txt_close. */
    QOR_txt_handle *txt = QOR_txt_open(path, 0, 1);
    if (txt == NULL) {
        fprintf(stderr, "text_save: %s is being saved by another process\n",
                path);
        return 1;
    }
    /* Waits for readers, copies the file to FILE.bak, makes FILE.ctrl. */
    QOR_txt_start_save(txt);
    int status = QOR_txt_clear_file(txt);
    for (int i = 0; status == QOR_OK && i < count; i++) {
        status = QOR_txt_write_string(txt, lines[i]);
        if (status == QOR_OK)
            status = QOR_txt_write_string(txt, "\n");
    }
    /* Ends the save whatever happened: removes FILE.ctrl, then FILE.bak,
     * and lets readers in again. */
    int ended = QOR_txt_end_save(txt);
    QOR_txt_close(txt);
    if (status != QOR_OK || ended != QOR_OK) {
        fprintf(stderr, "text_save: saving %s: status %d\n", path,
                status != QOR_OK ? status : ended);
        return 1;
    }
    printf("saved %d lines\n", count);
    return 0;
}

static int read_all(const char *path) {
    /* Read-only, no lock: any number of readers. A missing file gives
     * null. */
    QOR_txt_handle *txt = QOR_txt_open(path, 1, 0);
    if (txt == NULL) {
        fprintf(stderr, "text_save: cannot open %s\n", path);
        return 1;
    }
    /* Waits for a saver to finish; after a crashed save a read-only reader
     * reads FILE.bak, the contents as they were before it. */
    QOR_txt_start_read(txt);
    char line[256];
    /* A line longer than the buffer arrives in pieces; each piece but the
     * last lacks the line end. */
    while (QOR_txt_read_line(txt, line, sizeof line) == 1)
        fputs(line, stdout);
    QOR_txt_end_read(txt);
    QOR_txt_close(txt);
    return 0;
}

int main(int argc, char **argv) {
    if (argc < 2 || argv[1][0] != '/') {
        fprintf(stderr, "usage: text_save /ABSOLUTE/FILE [LINE...]\n");
        return 2;
    }
    /* A file the program may not read or write, a call out of order: the
     * file layer treats those as fatal. Arm the handler so that they end
     * here with a clear word instead of exit status 3. */
    int fatal = setjmp(QOR_fatal_handler);
    if (fatal != 0) {
        fprintf(stderr, "text_save: %s: fatal error, status %d\n", argv[1],
                fatal);
        return 1;
    }
    QOR_exception_handler_state = 1;

    return argc > 2 ? save(argv[1], argc - 2, argv + 2) : read_all(argv[1]);
}
