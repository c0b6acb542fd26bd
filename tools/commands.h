// The qor command: one table of subcommands per subsystem, each in its own
// file (cmd_<subsystem>.cpp), and one tour step per subsystem, run in order
// by "qor tour". The rows drive dispatch, option parsing, "qor --help",
// "qor help CMD", "qor CMD --help" and the man page qor(1) alike, so a
// subcommand is described in exactly one place. See tools/README.md.
#pragma once

#include <stdarg.h>
#include <stdio.h>

namespace qor_tool {

// One option of a subcommand. The parsing layer maps "--long", "--long=V",
// "--long V", "-l", "-lV" and "-l V" to the letter and hands the result to
// the library's QOR_getopt, so every subcommand parses the same way.
struct Option {
    char letter;            // the letter QOR_getopt sees; 0 ends a list
    const char *long_name;  // without the dashes, or null
    const char *value;      // the value's name ("TYPE"), or null for a flag
    const char *help;       // one line
    bool long_only = false; // no short form: only "--long_name" is accepted
};

struct Invocation;

struct Command {
    const char *name;                // null ends a table
    int (*run)(Invocation &);
    const char *synopsis;  // after "qor NAME"; '\n' separates usage forms
    const char *summary;   // one line for "qor --help"
    const char *help;      // paragraphs, '\n' within, blank line between
    const Option *options; // may be null; ends with a letter 0
    int min_operands;
    int max_operands;      // -1: no limit
    // Options end at the first operand (the rest is, say, a command line
    // to run); otherwise options may follow operands.
    bool options_first = false;
};

// A parsed command line, as a handler receives it.
struct Invocation {
    const Command *command;
    int count;        // operands
    char **operands;
    bool verbose;     // -v, --verbose: every command accepts it

    bool has(char letter) const { return seen[static_cast<unsigned char>(letter) & 127]; }
    // The value of the last occurrence of the option, or null.
    const char *value(char letter) const { return values[static_cast<unsigned char>(letter) & 127]; }

    bool seen[128];
    const char *values[128];
};

// ---- Reporting: one format for everyone ------------------------------------
//   qor CMD: what failed: path: reason
// Exit statuses: 0 success, 1 the operation failed, 2 usage.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// "usage: qor CMD ..." and "   or: qor CMD ..." for each usage form.
void print_usage(FILE *out, const Command &c);
// "qor CMD: <problem>" and the usage lines on standard error; returns 2.
int usage_error(const Invocation &in, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
// "qor CMD: what: path: <text of status>"; returns 1.
int fail_status(const Invocation &in, const char *what, const char *path,
                int status);
// "qor CMD: what: path: <strerror(error)>"; returns 1.
int fail_errno(const Invocation &in, const char *what, const char *path,
               int error);
// Detail printed on standard output only with -v.
void verbose(const Invocation &in, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// The reason part of a status: the catalogue's wording when it has one
// ("it does not exist"), else the tool's own description.
const char *status_reason(int status);
// The tool's own description of a status or context code, or null.
const char *code_meaning(int code, const char **symbol);

// A whole decimal number in [min, max] named name ("OFFSET"); false after a
// usage error was printed (the caller returns 2).
bool number_operand(const Invocation &in, const char *text, const char *name,
                    long long min, long long max, long long *value);

// --type=TYPE, shared by the object commands (long only: -t is free to mean
// a target directory, as in cp(1)).
constexpr char kTypeLetter = 'Y';
inline constexpr Option kTypeOption{
    kTypeLetter, "type", "TYPE",
    "the object's type, 0 to 4 or its name (default: detected)", true};

// 0 when --type is absent or valid, else 2 after a usage error: checked
// before a command does anything.
int check_type_option(const Invocation &in);

// An object type, 0 to 4 or a type name; false after a usage error.
bool type_operand(const Invocation &in, const char *text, unsigned *type);
extern const char *const kTypeNames[5];

// The type given with the option letter, or the type detected at path;
// returns 0, or the exit status after reporting.
int object_type(const Invocation &in, char letter, const char *path,
                unsigned *type);

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
bool catalogue_in_use();

}  // namespace qor_tool
