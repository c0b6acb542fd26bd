// qor: a tour of the library and small commands over its services.

#include <stdio.h>
#include <string.h>

#include "commands.h"

namespace qor_tool {
namespace {

const Command *const kTables[] = {
    foundation_commands, memory_commands, containers_commands, paths_commands,
    objects_commands,    objects2_commands, files_commands,  process_commands,
};

int (*const kTour[])() = {
    tour_foundation, tour_memory, tour_containers, tour_paths,
    tour_objects,    tour_objects2, tour_files,  tour_process,
};

void usage(FILE *out) {
    fputs("usage: qor COMMAND [ARGS...]\n\ncommands:\n", out);
    fprintf(out, "  %-10s %-28s %s\n", "tour", "",
            "a short scenario of everything the library offers");
    for (const Command *table : kTables) {
        for (const Command *c = table; c->name != nullptr; ++c) {
            fprintf(out, "  %-10s %-28s %s\n", c->name, c->usage, c->help);
        }
    }
}

int tour() {
    for (auto step : kTour) {
        if (step() != 0) return 1;
    }
    printf("\nTour finished.\n");
    return 0;
}

}  // namespace

void tour_heading(const char *title) {
    printf("\n== %s ==\n", title);
    fflush(stdout);
}

}  // namespace qor_tool

int main(int argc, char **argv) {
    using namespace qor_tool;
    if (argc < 2 || strcmp(argv[1], "help") == 0 ||
        strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    use_catalogue();
    if (strcmp(argv[1], "tour") == 0) return tour();
    for (const Command *table : kTables) {
        for (const Command *c = table; c->name != nullptr; ++c) {
            if (strcmp(argv[1], c->name) == 0) return c->run(argc - 1, argv + 1);
        }
    }
    fprintf(stderr, "qor: unknown command \"%s\"\n", argv[1]);
    usage(stderr);
    return 2;
}
