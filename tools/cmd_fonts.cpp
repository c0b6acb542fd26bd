// qor commands and tour step for font aliases and printing: resolving an
// alias through "fonts.alias", and sending a file to the print spooler.
//
// The library formats the spooler's command line without quoting anything
// and hands it to the shell, so "qor print" refuses printer names and
// paths holding anything but characters the shell takes literally before
// it calls the library.

#include <errno.h>
#include <qor/qor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "commands.h"

namespace qor_tool {
namespace {

// ---- font --------------------------------------------------------------------------

int cmd_font(Invocation &in) {
    for (int i = 0; i < in.count; ++i) {
        char *font = QOR_look_up_font(in.operands[i]);
        if (in.verbose) {
            printf("%s -> %s%s\n", in.operands[i], font,
                   strcmp(font, in.operands[i]) == 0 ? " (no alias)" : "");
        } else {
            printf("%s\n", font);
        }
        QOR_free(font);
    }
    return kExitOk;
}

// ---- print -------------------------------------------------------------------------

// The characters the shell takes literally anywhere in a word: letters,
// digits and "_-.,+:@%=/". Everything else (blanks, ";", "|", "&", "$",
// quotes, "\", "<", ">", "(", ")", "*", "?", "[", "~", "#", "{", "!", ...)
// could change the command. slash: whether "/" is allowed (paths).
bool shell_literal(char c, bool slash) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
        (c >= '0' && c <= '9')) {
        return true;
    }
    return strchr("_-.,+:@%=", c) != nullptr || (slash && c == '/');
}

// The first character of text the shell would not take literally, or 0.
char first_unsafe(const char *text, bool slash) {
    for (const char *p = text; *p != '\0'; ++p) {
        if (!shell_literal(*p, slash)) return *p;
    }
    return 0;
}

// A character as the usage error shows it.
std::string shown(char c) {
    switch (c) {
        case ' ': return "a space";
        case '\t': return "a tab";
        case '\n': return "a newline";
        default: break;
    }
    if (static_cast<unsigned char>(c) < 32 || c == 127 ||
        static_cast<unsigned char>(c) > 127) {
        char hex[16];
        snprintf(hex, sizeof hex, "byte 0x%02x", static_cast<unsigned char>(c));
        return hex;
    }
    return std::string("'") + c + "'";
}

int cmd_print(Invocation &in) {
    const char *file = in.operands[0];
    if (!in.has('d')) return usage_error(in, "missing printer (-d PRINTER)");
    const char *printer = in.value('d');
    if (printer[0] == '\0') return usage_error(in, "empty printer name");
    if (const char c = first_unsafe(printer, false)) {
        return usage_error(in, "invalid printer name '%s': %s would reach the "
                               "shell unquoted",
                           printer, shown(c).c_str());
    }
    long long copies = 1;
    if (in.has('n') &&
        !number_operand(in, in.value('n'), "COPIES", 1, 999, &copies)) {
        return kExitUsage;
    }
    char *os = QOR_qor_to_os(file, 0);
    if (os == nullptr) return fail_status(in, "cannot print", file, QOR_E_UNTRANSLATABLE);
    const std::string host(os);
    QOR_free(os);
    if (const char c = first_unsafe(host.c_str(), true)) {
        return usage_error(in, "invalid FILE '%s': its host path %s holds %s, "
                               "which would reach the shell unquoted",
                           file, host.c_str(), shown(c).c_str());
    }
    // The spooler's own failures never come back (the library does not
    // look at its exit status): check what can be checked first.
    struct stat st;
    if (stat(host.c_str(), &st) != 0) {
        return errno == ENOENT ? fail_status(in, "cannot print", file, QOR_E_MISSING)
                               : fail_errno(in, "cannot print", file, errno);
    }
    if (!S_ISREG(st.st_mode)) return fail_status(in, "cannot print", file, QOR_E_WRONG_KIND);
    if (access(host.c_str(), R_OK) != 0) return fail_errno(in, "cannot print", file, errno);
    fflush(stdout);
    const int s = QOR_print(file, printer, static_cast<int>(copies));
    if (s != 0) return fail_status(in, "cannot print", file, s);
    verbose(in, "lp -s -c -d%s -n%lld %s\n", printer, copies, host.c_str());
    return kExitOk;
}

// ---- Tour --------------------------------------------------------------------------

bool write_text(const std::string &path, const char *text, mode_t mode) {
    FILE *f = fopen(path.c_str(), "w");
    if (f == nullptr) return false;
    const bool ok = fputs(text, f) >= 0;
    return fclose(f) == 0 && ok && chmod(path.c_str(), mode) == 0;
}

void show_file(const std::string &path) {
    if (FILE *f = fopen(path.c_str(), "r")) {
        char line[512];
        while (fgets(line, sizeof line, f) != nullptr) printf("    %s", line);
        fclose(f);
    }
}

int tour_in(const std::string &dir) {
    const std::string aliases = dir + "/fonts.alias";
    if (!write_text(aliases,
                    "fixed   \"-misc-fixed-medium-r-normal--13-120-75-75-c-70-"
                    "iso8859-1\"\n"
                    "big\\ fixed -misc-fixed-bold-r-normal--18-120-100-100-c-"
                    "90-iso8859-1\n"
                    "! a comment is a line of three fields, ignored\n",
                    0644)) {
        return 1;
    }
    printf("fonts.alias, found on QOR_PATH:\n");
    show_file(aliases);
    const char *old_path = getenv("QOR_PATH");
    const std::string saved_path = old_path ? old_path : "";
    setenv("QOR_PATH", dir.c_str(), 1);
    for (const char *name : {"fixed", "big fixed", "helvetica"}) {
        char *font = QOR_look_up_font(name);
        printf("look up \"%s\" -> \"%s\"%s\n", name, font,
               strcmp(font, name) == 0 ? " (no alias: the name itself)" : "");
        QOR_free(font);
    }
    if (old_path) setenv("QOR_PATH", saved_path.c_str(), 1); else unsetenv("QOR_PATH");

    // A spooler of our own, first on PATH: it records its arguments.
    const std::string bin = dir + "/bin";
    const std::string record = dir + "/lp.args";
    const std::string report = dir + "/report.txt";
    if (mkdir(bin.c_str(), 0755) != 0 ||
        !write_text(bin + "/lp",
                    ("#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; "
                     "done > '" + record + "'\n").c_str(),
                    0755) ||
        !write_text(report, "quarterly figures\n", 0644)) {
        return 1;
    }
    const char *old = getenv("PATH");
    const std::string saved = old ? old : "";
    setenv("PATH", (bin + ":" + saved).c_str(), 1);
    const std::string qor_report = "@" + report;
    fflush(stdout);
    const int s = QOR_print(qor_report.c_str(), "laser", 2);
    setenv("PATH", saved.c_str(), 1);
    printf("\nprint report.txt on laser, 2 copies -> %d; the spooler (a script "
           "first on PATH)\nwas given one argument a line:\n", s);
    // The path is the tour's own temporary one: show it by name.
    if (FILE *f = fopen(record.c_str(), "r")) {
        char line[512];
        while (fgets(line, sizeof line, f) != nullptr) {
            const std::string l(line);
            printf("    %s", l.rfind(dir, 0) == 0
                                 ? ("..." + l.substr(dir.size())).c_str()
                                 : line);
        }
        fclose(f);
    }
    const char *hostile = "laser; rm -f report.txt";
    const char c = first_unsafe(hostile, false);
    printf("the printer name \"%s\" would reach the shell unquoted:\n"
           "  qor print refuses it (%s)\n", hostile, shown(c).c_str());
    return s == 0 ? 0 : 1;
}

const Option kPrintOptions[] = {
    {'d', "printer", "PRINTER", "the spooler's destination (required)"},
    {'n', "copies", "COPIES", "the number of copies, 1 to 999 (default 1)"},
    {}};

}  // namespace

const Command fonts_commands[] = {
    {"font", cmd_font, "ALIAS...", "the font name an alias stands for",
     "Prints, one a line, the font name that \"fonts.alias\" gives for each "
     "ALIAS,\nor ALIAS itself when it is no alias. The file is looked for "
     "on QOR_PATH, then\nin \"_/etc\"; a missing or unreadable file is "
     "passed over silently.",
     nullptr, 1, -1},
    {"print", cmd_print, "[OPTION]... FILE -d PRINTER [-n COPIES]",
     "send a file to the print spooler",
     "Runs \"lp -s -c -dPRINTER -nCOPIES PATH\" through the shell, PATH "
     "being the host\npath of FILE. The library passes the printer name "
     "and the path to the shell\nunquoted, so both are refused (a usage "
     "error, nothing is run) unless they\nhold only letters, digits and "
     "\"_-.,+:@%=\" (and \"/\" in the path).\n"
     "\n"
     "The spooler copies the file at once. Its own exit status is not "
     "seen: status\n0 means the shell ran it; ask the spooler (lpstat) "
     "whether the job was taken.",
     kPrintOptions, 1, 1},
    {}};

int tour_fonts() {
    tour_heading("Font aliases and printing");
    char *os = tour_directory("qor-tour-fonts-");
    if (os == nullptr) return 1;
    const std::string where(os);
    QOR_free(os);
    const int result = tour_in(where);
    for (const char *name : {"/fonts.alias", "/bin/lp", "/lp.args", "/report.txt"}) {
        unlink((where + name).c_str());
    }
    rmdir((where + "/bin").c_str());
    rmdir(where.c_str());
    return result;
}

}  // namespace qor_tool
