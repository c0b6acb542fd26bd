// The qor command: one table of subcommands per subsystem, each in its own
// file, and one tour step per subsystem, run in order by "qor tour".
#pragma once

namespace qor_tool {

struct Command {
    const char *name;   // null ends a table
    const char *usage;  // arguments, shown by "qor help"
    const char *help;   // one line
    int (*run)(int argc, char **argv);  // argv[0] is the subcommand name
};

extern const Command foundation_commands[];
extern const Command memory_commands[];
extern const Command containers_commands[];
extern const Command paths_commands[];
extern const Command objects_commands[];
extern const Command objects2_commands[];
extern const Command files_commands[];
extern const Command process_commands[];

// Tour steps: each shows its subsystem at work and returns 0 on success.
int tour_foundation();
int tour_memory();
int tour_containers();
int tour_paths();
int tour_objects();
int tour_objects2();
int tour_files();
int tour_process();

// Prints a tour heading.
void tour_heading(const char *title);

// Registers the catalogue-backed message callbacks (see qor/catalog.h);
// returns 0 when the catalogue was found.
int use_catalogue();

}  // namespace qor_tool
