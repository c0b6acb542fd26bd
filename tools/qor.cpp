// qor: small commands over the library's services, and a tour of it.
//
// The core: the list of subcommand tables, the option layer every
// subcommand parses through, help, the man page, and the checks at exit.

#include <errno.h>
#include <qor/process.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "commands.h"

#ifndef QOR_TOOL_VERSION
#define QOR_TOOL_VERSION "unknown"
#endif

namespace qor_tool {
namespace {

extern const Command core_commands[];

// One line per table and per tour step, so that adding one touches one
// line.
const Command *const kTables[] = {
    core_commands,
    foundation_commands,
    memory_commands,
    containers_commands,
    paths_commands,
    objects_commands,
    objects2_commands,
    check_commands,
    files_commands,
    dirs_commands,
    process_commands,
    fonts_commands,
};

int (*const kTour[])() = {
    tour_foundation,
    tour_memory,
    tour_containers,
    tour_paths,
    tour_objects,
    tour_objects2,
    tour_check,
    tour_files,
    tour_dirs,
    tour_process,
    tour_fonts,
};

// Accepted by every subcommand, listed after its own options.
const Option kCommonOptions[] = {
    {'v', "verbose", nullptr, "say what is done, in detail"},
    {'h', "help", nullptr, "show this help and exit"},
    {0, nullptr, nullptr, nullptr},
};

const char *const kExitStatusText =
    "0 success; 1 the operation failed; 2 usage: a bad command line, "
    "nothing was done.";

const Command *find_command(const char *name) {
    for (const Command *table : kTables) {
        for (const Command *c = table; c->name != nullptr; ++c) {
            if (strcmp(name, c->name) == 0) return c;
        }
    }
    return nullptr;
}

// The options of a command, its own first, then the common ones.
std::vector<const Option *> options_of(const Command &c) {
    std::vector<const Option *> all;
    for (const Option *o = c.options; o != nullptr && o->letter != 0; ++o) {
        all.push_back(o);
    }
    for (const Option *o = kCommonOptions; o->letter != 0; ++o) {
        all.push_back(o);
    }
    return all;
}

std::string option_label(const Option &o) {
    std::string label;
    if (!o.long_only) {
        label += '-';
        label += o.letter;
        if (o.long_name != nullptr) label += ", ";
    } else {
        label += "    ";
    }
    if (o.long_name != nullptr) {
        label += "--";
        label += o.long_name;
        if (o.value != nullptr) label += std::string("=") + o.value;
    } else if (o.value != nullptr) {
        label += std::string(" ") + o.value;
    }
    return label;
}

void print_command_help(const Command &c) {
    print_usage(stdout, c);
    printf("\n%s.\n", c.summary);
    if (c.help != nullptr && c.help[0] != '\0') printf("\n%s\n", c.help);
    printf("\noptions:\n");
    for (const Option *o : options_of(c)) {
        const std::string label = option_label(*o);
        if (label.size() <= 24) {
            printf("  %-24s  %s\n", label.c_str(), o->help);
        } else {
            printf("  %s\n  %-24s  %s\n", label.c_str(), "", o->help);
        }
    }
    if (c.options_end == 1) {
        printf("\nOptions must come before the first operand.\n");
    } else if (c.options_end > 1) {
        printf("\nOptions end after the first %d operands: what follows "
               "them is taken as\noperands, options or not.\n",
               c.options_end);
    } else {
        printf("\nOptions may follow operands; \"--\" ends the options.\n");
    }
    printf("\nexit status: %s\n", kExitStatusText);
}

void print_overview(FILE *out) {
    fputs("usage: qor COMMAND [OPTION]... [OPERAND]...\n"
          "   or: qor help [COMMAND]\n"
          "   or: qor --help | --version\n\ncommands:\n",
          out);
    for (const Command *table : kTables) {
        for (const Command *c = table; c->name != nullptr; ++c) {
            fprintf(out, "  %-11s %s\n", c->name, c->summary);
        }
    }
    fprintf(out,
            "\nEvery command takes -h/--help and -v/--verbose. Long options "
            "may be written\n--name=VALUE or --name VALUE; options may follow "
            "operands; \"--\" ends them.\nErrors go to standard error as "
            "\"qor COMMAND: what failed: path: reason\".\n\nexit status: "
            "%s\n",
            kExitStatusText);
}

// ---- The option layer ---------------------------------------------------------
// QOR_getopt knows single letters and stops at the first operand. This layer
// rewrites the command line into what it knows: every option, long ones as
// their letters, then "--", then the operands, so that options may follow
// operands (as GNU getopt permutes them) and long options work everywhere.

// Parses the command line; returns -1 when the command should run, or the
// exit status to leave with (0 after --help, 2 after a usage error).
int parse_command_line(const Command &c, int argc, char **argv,
                       Invocation &in, std::vector<char *> &storage) {
    const std::vector<const Option *> options = options_of(c);
    std::string optstring;
    for (const Option *o : options) {
        optstring += o->letter;
        if (o->value != nullptr) optstring += ':';
    }

    in.command = &c;
    in.count = 0;
    in.operands = nullptr;
    in.verbose = false;
    for (int i = 0; i < 128; ++i) {
        in.seen[i] = false;
        in.values[i] = nullptr;
    }

    static char letters[128][3];
    std::vector<char *> flags{argv[0]};
    std::vector<char *> operands;
    bool options_over = false;
    for (int i = 1; i < argc; ++i) {
        char *arg = argv[i];
        if (options_over || arg[0] != '-' || arg[1] == '\0') {
            operands.push_back(arg);
            if (c.options_end > 0 &&
                operands.size() >= static_cast<size_t>(c.options_end)) {
                options_over = true;
            }
            continue;
        }
        if (strcmp(arg, "--") == 0) {
            options_over = true;
            continue;
        }
        const Option *found = nullptr;
        char *value = nullptr;
        if (arg[1] == '-') {
            // --name, --name=value: an exact name, or a prefix of only one.
            const char *name = arg + 2;
            char *equals = strchr(arg, '=');
            const size_t length =
                equals ? static_cast<size_t>(equals - name) : strlen(name);
            int matches = 0;
            for (const Option *o : options) {
                if (o->long_name == nullptr ||
                    strncmp(o->long_name, name, length) != 0) {
                    continue;
                }
                if (o->long_name[length] == '\0') {
                    found = o;
                    matches = 1;
                    break;
                }
                found = o;
                ++matches;
            }
            const std::string shown(arg, 2 + length);
            if (matches == 0) {
                return usage_error(in, "unknown option '%s'", shown.c_str());
            }
            if (matches > 1) {
                return usage_error(in, "option '%s' is ambiguous",
                                   shown.c_str());
            }
            if (found->value == nullptr && equals != nullptr) {
                return usage_error(in, "option '--%s' takes no value",
                                   found->long_name);
            }
            if (found->value != nullptr) {
                if (equals != nullptr) {
                    value = equals + 1;
                } else if (i + 1 < argc) {
                    value = argv[++i];
                } else {
                    return usage_error(in, "option '--%s' needs a value",
                                       found->long_name);
                }
            }
            letters[static_cast<unsigned char>(found->letter) & 127][0] = '-';
            letters[static_cast<unsigned char>(found->letter) & 127][1] =
                found->letter;
            flags.push_back(letters[static_cast<unsigned char>(found->letter) & 127]);
            if (value != nullptr) flags.push_back(value);
            continue;
        }
        // -abc, -tDIR, -t DIR
        for (char *f = arg + 1; *f != '\0'; ++f) {
            found = nullptr;
            for (const Option *o : options) {
                if (o->letter == *f && !o->long_only) found = o;
            }
            if (found == nullptr) {
                return usage_error(in, "unknown option '-%c'", *f);
            }
            char *letter = letters[static_cast<unsigned char>(*f) & 127];
            letter[0] = '-';
            letter[1] = *f;
            flags.push_back(letter);
            if (found->value != nullptr) {
                if (f[1] != '\0') {
                    flags.push_back(f + 1);
                } else if (i + 1 < argc) {
                    flags.push_back(argv[++i]);
                } else {
                    return usage_error(in, "option '-%c' needs a value", *f);
                }
                break;
            }
        }
    }

    static char end_of_options[] = "--";
    storage = flags;
    storage.push_back(end_of_options);
    storage.insert(storage.end(), operands.begin(), operands.end());
    storage.push_back(nullptr);
    const int count = static_cast<int>(storage.size()) - 1;
    QOR_optind = 1;
    int letter;
    while ((letter = QOR_getopt(count, storage.data(), optstring.c_str())) !=
           -1) {
        if (letter == '?') return usage_error(in, "bad option");
        in.seen[letter & 127] = true;
        in.values[letter & 127] = QOR_optarg;
    }
    in.operands = storage.data() + QOR_optind;
    in.count = count - QOR_optind;
    in.verbose = in.seen[unsigned('v')];
    if (in.seen[unsigned('h')]) {
        print_command_help(c);
        return kExitOk;
    }
    if (in.count < c.min_operands) {
        return in.count == 0
                   ? usage_error(in, "missing operand")
                   : usage_error(in, "missing operand after '%s'",
                                 in.operands[in.count - 1]);
    }
    if (c.max_operands >= 0 && in.count > c.max_operands) {
        return usage_error(in, "extra operand '%s'",
                           in.operands[c.max_operands]);
    }
    return -1;
}

// ---- The man page -------------------------------------------------------------

// Text for roff: backslashes and dashes escaped, no line starting with a
// control character.
std::string roff(const char *text) {
    std::string out;
    bool line_start = true;
    for (const char *p = text; *p != '\0'; ++p) {
        if (line_start && (*p == '.' || *p == '\'')) out += "\\&";
        line_start = *p == '\n';
        if (*p == '\\') {
            out += "\\e";
        } else if (*p == '-') {
            out += "\\-";
        } else {
            out += *p;
        }
    }
    return out;
}

// Paragraphs separated by blank lines become .PP paragraphs.
void print_roff_paragraphs(const char *text) {
    std::string body = roff(text);
    size_t start = 0;
    while (start <= body.size()) {
        size_t end = body.find("\n\n", start);
        if (end == std::string::npos) end = body.size();
        printf(".PP\n%s\n", body.substr(start, end - start).c_str());
        start = end + 2;
    }
}

int print_man_page() {
    printf(".TH QOR 1 \"\" \"libqor %s\" \"User Commands\"\n", QOR_TOOL_VERSION);
    printf(".SH NAME\nqor \\- commands over the libqor portability and "
           "storage services\n");
    printf(".SH SYNOPSIS\n.B qor\n.I command\n.RI [ option ]...\n"
           ".RI [ operand ]...\n.br\n.B qor help\n.RI [ command ]\n.br\n"
           ".B qor\n.BR \\-\\-help \" | \" \\-\\-version\n");
    printf(".SH DESCRIPTION\n"
           "Each command of\n.B qor\nputs one service of the library to work "
           "from the shell:\nwhat a status code means, how paths translate, "
           "what type an object has,\ncopying, moving, removing and locking "
           "objects, reading and writing idle blocks.\n"
           ".B qor tour\nshows every subsystem at work.\n"
           ".PP\nEvery command accepts\n.B \\-h\n(\n.BR \\-\\-help ,\n"
           "show the command's help and do nothing else) and\n.B \\-v\n(\n"
           ".BR \\-\\-verbose ,\nsay what is done). Commands are quiet by "
           "default.\nLong options are written\n.BI \\-\\- name = value\n"
           "or\n.BI \\-\\- name \" \" value\\fR;\nan unambiguous prefix of a "
           "long name will do. Options may follow operands\nunless a command "
           "says otherwise;\n.B \\-\\-\nends the options.\n");
    printf(".SH COMMANDS\n");
    for (const Command *table : kTables) {
        for (const Command *c = table; c->name != nullptr; ++c) {
            printf(".SS %s\n", c->name);
            const char *form = c->synopsis;
            while (true) {
                const char *end = strchr(form, '\n');
                const std::string one(form, end ? end - form : strlen(form));
                printf(".B qor %s\n", c->name);
                if (!one.empty()) printf("%s\n", roff(one.c_str()).c_str());
                printf(".br\n");
                if (end == nullptr) break;
                form = end + 1;
            }
            printf(".PP\n%s.\n", roff(c->summary).c_str());
            if (c->help != nullptr && c->help[0] != '\0') {
                print_roff_paragraphs(c->help);
            }
            for (const Option *o = c->options; o != nullptr && o->letter != 0;
                 ++o) {
                printf(".TP\n.B %s\n%s\n", roff(option_label(*o).c_str()).c_str(),
                       roff(o->help).c_str());
            }
        }
    }
    printf(".SH \"EXIT STATUS\"\n.TP\n.B 0\nsuccess\n.TP\n.B 1\nthe "
           "operation failed (including a failed write to standard output)\n"
           ".TP\n.B 2\nusage: a bad command line (an unknown option, a missing "
           "or extra operand, a bad number);\na usage line is printed and "
           "nothing is done\n.PP\n.BR \"qor lock\" ,\n"
           ".BR \"qor lockfile hold\" ,\n.BR \"qor dir lock\" ,\n"
           ".B qor call\nand\n.B qor exec\n"
           "end with the status of the command or program they ran;\n"
           ".B qor lockfile test\nends with 1 when another process holds the "
           "update right.\n");
    printf(".SH DIAGNOSTICS\nErrors go to standard error, one line each, in "
           "the form\n.PP\n.RS\nqor \\fIcommand\\fR: \\fIwhat failed\\fR: "
           "\\fIpath\\fR: \\fIreason\\fR\n.RE\n.PP\nThe library reports a "
           "failed system call itself, through its message catalogue, on a "
           "line\nof its own beginning\n.BR \"qor: error\" ;\nthe command's "
           "line follows it.\n");
    printf(".SH ENVIRONMENT\n.TP\n.B NLSPATH\nwhere the message catalogue "
           "qor.cat is looked for first.\n.TP\n.B QOR_ROOT\nthe root anchor "
           "of qor paths.\n.TP\n.B QOR_TMP\nthe temporary directory.\n"
           ".TP\n.B QOR_PATH\nwhere files such as fonts.alias are looked "
           "for first.\n.TP\n.B QOR_TXT_SYNC\nwith the value 1, saves of "
           "shared text files are made durable\n(as qor save \\-\\-sync).\n"
           ".TP\n.B PATH\nwhere the shell finds the print spooler lp.\n");
    printf(".SH \"SEE ALSO\"\n.BR cp (1),\n.BR flock (1),\n.BR lp (1)\n");
    return kExitOk;
}

int run_help(Invocation &in) {
    if (in.count == 0) {
        print_overview(stdout);
        return kExitOk;
    }
    const Command *c = find_command(in.operands[0]);
    if (c == nullptr) {
        return usage_error(in, "unknown command '%s'", in.operands[0]);
    }
    print_command_help(*c);
    return kExitOk;
}

int run_tour(Invocation &) {
    // The library writes its messages and dumps to standard error; the tour
    // tells its story on standard output. Send both to one unbuffered stream
    // so that "qor tour > file" holds the whole story in the order it
    // happened, as on a terminal.
    fflush(stdout);
    fflush(stderr);
    if (dup2(STDOUT_FILENO, STDERR_FILENO) < 0) return kExitFailed;
    setvbuf(stdout, nullptr, _IONBF, 0);
    for (auto step : kTour) {
        if (step() != 0) return kExitFailed;
    }
    printf("\nTour finished.\n");
    return kExitOk;
}

const Command core_commands[] = {
    {"help", run_help, "[COMMAND]", "show the commands, or one command's help",
     "Without COMMAND, the list of commands; with it, what \"qor COMMAND "
     "--help\" shows.",
     nullptr, 0, 1},
    {"tour", run_tour, "", "a short scenario of everything the library offers",
     "Runs a scenario through every subsystem in turn, narrating on standard\n"
     "output. The library's own messages and dumps go to standard output "
     "too,\nso that a redirected tour reads as it does on a terminal.",
     nullptr, 0, 0},
    {},
};

// Standard output is where the results go: a failed write (a full disc, a
// closed pipe) is a failed command.
int check_standard_output(const char *name, int status) {
    errno = 0;
    const bool failed = fflush(stdout) != 0 || ferror(stdout) != 0;
    const int error = errno != 0 ? errno : EIO;
    if (failed) {
        fprintf(stderr, "qor%s%s: cannot write: standard output: %s\n",
                name ? " " : "", name ? name : "", strerror(error));
        return status == kExitOk ? kExitFailed : status;
    }
    return status;
}

}  // namespace

void tour_heading(const char *title) {
    printf("\n== %s ==\n", title);
    fflush(stdout);
}

}  // namespace qor_tool

int main(int argc, char **argv) {
    using namespace qor_tool;
    if (argc < 2) {
        print_overview(stderr);
        return kExitUsage;
    }
    const char *first = argv[1];
    if (strcmp(first, "--help") == 0 || strcmp(first, "-h") == 0) {
        print_overview(stdout);
        return check_standard_output(nullptr, kExitOk);
    }
    if (strcmp(first, "--version") == 0) {
        printf("qor (libqor) %s\n", QOR_TOOL_VERSION);
        return check_standard_output(nullptr, kExitOk);
    }
    if (strcmp(first, "--man") == 0) {  // used by the build for qor.1
        return check_standard_output(nullptr, print_man_page());
    }
    if (first[0] == '-') {
        fprintf(stderr, "qor: unknown option '%s'\n", first);
        fputs("usage: qor COMMAND [OPTION]... [OPERAND]...\n", stderr);
        return kExitUsage;
    }
    const Command *c = find_command(first);
    if (c == nullptr) {
        fprintf(stderr, "qor: unknown command '%s'\n", first);
        fputs("usage: qor COMMAND [OPTION]... [OPERAND]...\n"
              "Try 'qor --help' for the list of commands.\n", stderr);
        return kExitUsage;
    }
    Invocation in;
    std::vector<char *> storage;
    const int parsed = parse_command_line(*c, argc - 1, argv + 1, in, storage);
    if (parsed >= 0) return check_standard_output(c->name, parsed);
    use_catalogue();
    return check_standard_output(c->name, c->run(in));
}
