/* A small tool in the style of the suite's: options parsed with QOR_getopt,
 * words looked up in an atom table.
 *
 *   options_and_atoms [-c] [-s SEPARATOR] WORD...
 *
 * Knows the colours of a palette; prints the atom (a small number, stable
 * for the life of the table) of each WORD, or 0 for a word it does not
 * know. -c counts the known words instead; -s puts SEPARATOR between the
 * results (default: a newline). A bad option gives a usage line on
 * standard error and exit status 2. */
#include <qor/qor.h>

#include <stdio.h>
#include <string.h>

static const char *const palette[] = {"red", "green", "blue", "cyan",
                                      "magenta", "yellow"};

static int usage(void) {
    fprintf(stderr, "usage: options_and_atoms [-c] [-s SEPARATOR] WORD...\n");
    return 2;
}

int main(int argc, char **argv) {
    int count_only = 0;
    const char *separator = "\n";
    int option;

    /* QOR_getopt prints nothing: a bad option, ':' and a missing argument
     * all come back as '?', and the tool words the complaint itself. */
    while ((option = QOR_getopt(argc, argv, "cs:")) != -1) {
        switch (option) {
        case 'c':
            count_only = 1;
            break;
        case 's':
            separator = QOR_optarg; /* points into argv */
            break;
        default:
            return usage();
        }
    }
    if (QOR_optind >= argc)
        return usage();

    /* The table copies every string into a freestore of its own; the atoms
     * are 1, 2, 3, ... in the order of first sight. 0 buckets asked for
     * gives the least (32); 0 as increment grows the string array by 256
     * slots at a time. The table is ours until QOR_destroy_atom_table. */
    QOR_atom_table *colours = QOR_create_atom_table("colours", 0, 0, 0);
    for (size_t i = 0; i < sizeof palette / sizeof palette[0]; i++)
        QOR_string_to_atom(colours, palette[i]);

    int known = 0;
    for (int i = QOR_optind; i < argc; i++) {
        /* Looking up must not make new atoms: the _existing_ form answers
         * 0 for an unknown string and uses up no number. */
        int atom = QOR_string_to_existing_atom(colours, argv[i]);
        if (atom != 0) {
            known++;
            /* The string of an atom belongs to the table: read it, never
             * free it. */
            if (strcmp(QOR_atom_to_string(colours, atom), argv[i]) != 0) {
                fprintf(stderr, "options_and_atoms: atom %d is not %s\n",
                        atom, argv[i]);
                QOR_destroy_atom_table(colours);
                return 1;
            }
        }
        if (!count_only)
            printf("%s%s=%d", i > QOR_optind ? separator : "", argv[i], atom);
    }
    if (count_only)
        printf("%d", known);
    printf("\n");

    QOR_destroy_atom_table(colours);
    return 0;
}
