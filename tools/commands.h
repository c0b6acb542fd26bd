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
    // Options end after this many operands: what follows is, say, a
    // command line to run, whose options are its own (1 for "qor lock PATH
    // COMMAND...", 2 for "qor dir lock DIRECTORY COMMAND..."). 0: options
    // may come anywhere, before or after operands.
    int options_end = 0;
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

// Runs the command line (COMMAND ARGUMENT...) and waits for it: its exit
// status, or 128 plus the signal that ended it; 126 when it could not be
// run, 127 when it was not found ("qor CMD: cannot run: ..." said so).
int run_command(const Invocation &in, char **command);

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


// Runs fn(arg) with the library's fatal handler armed, so that a fatal
// error (the file layer's access failure, a state error of the txt
// protocol) comes back here instead of ending the process with status 3.
// True when fn returned; after a fatal error use fail_after_fatal. fn and
// what it calls may keep no object with a destructor in their frames.
bool run_guarded(void (*fn)(void *), void *arg);
// After run_guarded answered false: "qor CMD: what: path: stopped by the
// library's fatal error (see above)", and the process ends at once with
// status 1. Whatever the library had open (handles, locks) was abandoned
// half-way by the jump; leaving now releases it as a crash would, which
// the protocols are made to survive.
[[noreturn]] void fail_after_fatal(const Invocation &in, const char *what,
                                   const char *path);

// A private directory made beside target (same directory, so a rename
// can put what is built in it into place): created by the library with an
// unpredictable name and permission bits 0700, so nobody else can plant or
// see anything in it. 0 with *dir set to its qor path (QOR_free), or the
// library's status.
int private_directory_beside(const char *target, char **dir);

extern const Command foundation_commands[];
extern const Command memory_commands[];
extern const Command containers_commands[];
extern const Command paths_commands[];
extern const Command objects_commands[];
extern const Command objects2_commands[];
extern const Command files_commands[];
extern const Command dirs_commands[];
extern const Command process_commands[];
extern const Command check_commands[];
extern const Command fonts_commands[];

// Tour steps: each shows its subsystem at work and returns 0 on success.
int tour_foundation();
int tour_memory();
int tour_containers();
int tour_paths();
int tour_objects();
int tour_objects2();
int tour_files();
int tour_dirs();
int tour_process();
int tour_check();
int tour_fonts();

// Prints a tour heading.
void tour_heading(const char *title);
// A new private directory for a tour step's files, made by the library in
// the temporary directory under an unpredictable name: its host path
// (QOR_free), or null.
char *tour_directory(const char *prefix);
// Removes a tour step's directory and everything in it, never following a
// link; 0, or 1 when something stayed.
int remove_tree(const char *dir);

// Registers the catalogue-backed message callbacks (see qor/catalog.h);
// returns 0 when the catalogue was found.
int use_catalogue();
bool catalogue_in_use();

}  // namespace qor_tool
