// Option parsing: single-letter options in the classic scheme, without the
// host getopt's messages, error variables, argument permutation or
// extensions, so that the suite's programs parse alike everywhere.

#include <string.h>

#include "foundation/internal.h"
#include "qor/process.h"

extern "C" {
constinit int32_t QOR_optind = 1;
constinit char *QOR_optarg = nullptr;
}

namespace {

constexpr int kBadOption = '?';
constexpr int kOptionsOver = -1;

// Index of the next character to look at within argv[QOR_optind]; 1 while
// the parser is between arguments. Survives between calls.
constinit int32_t char_position = 1;

// Moves on to the next argument.
void next_argument() {
    ++QOR_optind;
    char_position = 1;
}

// Moves past the character just looked at, and on to the next argument
// when that was the last one of the current argument.
void next_character(const char *arg) {
    ++char_position;
    if (arg[char_position] == '\0') next_argument();
}

// Letters are returned as unsigned bytes, so that no letter can be
// mistaken for -1, the end of the options.
int letter_result(char letter) { return static_cast<unsigned char>(letter); }

}  // namespace

extern "C" {

int QOR_getopt(int argc, char *const argv[], const char *optstring) {
    if (char_position == 1) {
        if (QOR_optind >= argc) return kOptionsOver;
        const char *arg = argv[QOR_optind];
        // A plain argument, or "-" alone (conventionally standard input),
        // ends the options and is left for the caller.
        if (arg[0] != '-' || arg[1] == '\0') return kOptionsOver;
        if (strcmp(arg, "--") == 0) {
            ++QOR_optind;
            return kOptionsOver;
        }
    }

    char *arg = argv[QOR_optind];
    const char letter = arg[char_position];
    // ':' only marks letters that take an argument; it is never an option
    // itself, even when the option string contains one.
    const char *entry = letter == ':' ? nullptr : strchr(optstring, letter);
    if (entry == nullptr) {
        next_character(arg);
        return kBadOption;
    }
    if (entry[1] != ':') {
        QOR_optarg = nullptr;
        next_character(arg);
        return letter_result(letter);
    }

    if (arg[char_position + 1] != '\0') {
        QOR_optarg = arg + char_position + 1;  // "-ofile"
        next_argument();
        return letter_result(letter);
    }
    next_argument();
    // Missing argument: QOR_optarg keeps whatever it held.
    if (QOR_optind >= argc) return kBadOption;
    QOR_optarg = argv[QOR_optind];  // "-o file"
    ++QOR_optind;
    return letter_result(letter);
}

}  // extern "C"
