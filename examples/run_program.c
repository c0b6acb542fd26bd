/* Running a program of the object store with QOR_call. A program is an
 * object (a directory) whose ".body" member is the executable; it is found
 * on the search path QOR_PATH, then in "#" and "_/tools". The child gets
 * QOR_HASH set to the program's own directory, so that it finds its
 * companion files through the "#" anchor.
 *
 *   run_program DIRECTORY
 *
 * Installs a program "greet" in DIRECTORY (an absolute path), calls it
 * with one argument, reports its exit code, then removes it again. */
#include <qor/qor.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char body_text[] =
    "#!/bin/sh\n"
    "echo \"greet: hello, $1, from ${QOR_HASH##*/}\"\n"
    "exit 7\n";

static int fail(const char *what, int status) {
    fprintf(stderr, "run_program: %s: status %d\n", what, status);
    return 1;
}

int main(int argc, char **argv) {
    if (argc != 2 || argv[1][0] != '/') {
        fprintf(stderr, "usage: run_program /ABSOLUTE/DIRECTORY\n");
        return 2;
    }
    /* Object paths are qor paths; the results here are ours (QOR_free). */
    char *dir = QOR_os_to_qor(argv[1]);
    if (dir == NULL)
        return fail("translating the directory", QOR_E_UNTRANSLATABLE);
    char *program = QOR_cat_strings(dir, "/greet", (char *)NULL);
    QOR_free(dir);

    /* The program object: a plain directory with an executable ".body". */
    int status = QOR_create_object(program, QOR_PLAIN_DIRECTORY);
    if (status != QOR_OK)
        return fail("creating the program", status);
    char *body = QOR_body_path(program);
    char *body_os = body ? QOR_qor_to_os(body, QOR_PLAIN_FILE) : NULL;
    FILE *f = body_os ? fopen(body_os, "w") : NULL;
    if (f == NULL || fputs(body_text, f) == EOF || fclose(f) != 0)
        return fail("writing the body", QOR_E_IO);
    status = QOR_set_permissions(body, 0, 0755);
    if (status != QOR_OK)
        return fail("making the body executable", status);

    /* The search path is read from the environment; set it before the
     * first search. */
    status = QOR_putenv("QOR_PATH", argv[1]);
    if (status != QOR_OK)
        return fail("setting QOR_PATH", status);

    /* Element 0 is a placeholder: the child puts the body's path there. */
    char *child_argv[] = {"greet", "world", NULL};
    int32_t exit_code = -1;
    fflush(stdout); /* the child writes to the same standard output */
    status = QOR_call("greet", child_argv, &exit_code);
    if (status != QOR_OK)
        return fail("calling greet", status);
    printf("greet ended with exit code %d\n", (int)exit_code);

    /* A program that is nowhere on the search path: 2052, no message. */
    status = QOR_call("no-such-program", child_argv, &exit_code);
    printf("calling no-such-program: status %d\n", status);

    /* Removing the program: its ".body" first, then the directory. */
    if (remove(body_os) != 0)
        return fail("removing the body", QOR_E_IO);
    status = QOR_delete_object(program, QOR_PLAIN_DIRECTORY);
    QOR_free(body_os);
    QOR_free(body);
    QOR_free(program);
    if (status != QOR_OK)
        return fail("removing the program", status);
    return 0;
}
