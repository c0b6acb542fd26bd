// Fuzzes the option parser against a model written another way: the model
// walks each argument's letters in one loop and lists every result the
// parser must give (letter or 63, then -1), with QOR_optarg (compared as a
// pointer into the argument vector) and QOR_optind after each. The input
// is the option string, "\n", then the arguments separated by "\n".
// A difference, or a parse that does not end, aborts.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "qor/process.h"
#include "tests/fuzz/input_lines.h"

namespace {

struct Event {
    int result;
    const char *optarg;
    int optind;
};

// What the parser must answer, call by call, from a fresh start with
// QOR_optarg at optarg.
std::vector<Event> model(int argc, char *const argv[], const char *opts,
                         const char *optarg) {
    std::vector<Event> out;
    int ind = 1;
    auto push = [&](int r) { out.push_back(Event{r, optarg, ind}); };
    for (;;) {
        if (ind >= argc) break;
        const char *a = argv[ind];
        if (a[0] != '-' || a[1] == '\0') break;
        if (strcmp(a, "--") == 0) {
            ++ind;
            break;
        }
        const size_t len = strlen(a);
        for (size_t k = 1; k < len; ++k) {
            const char c = a[k];
            const char *spec = c == ':' ? nullptr : strchr(opts, c);
            const bool last = k + 1 == len;
            if (spec == nullptr || spec[1] != ':') {
                if (spec != nullptr) optarg = nullptr;
                if (last) ++ind;
                push(spec == nullptr ? '?' : static_cast<unsigned char>(c));
                continue;
            }
            // Takes an argument: the rest of this one, or the next one.
            ++ind;
            if (!last) {
                optarg = a + k + 1;
                push(static_cast<unsigned char>(c));
            } else if (ind >= argc) {
                push('?');
            } else {
                optarg = argv[ind++];
                push(static_cast<unsigned char>(c));
            }
            break;
        }
    }
    push(-1);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<std::string> parts = fuzz_support::input_lines(data, size);
    if (parts.size() > 200) parts.resize(200);
    const std::string opts = parts[0];
    std::vector<char *> argv;
    static char prog[] = "prog";
    argv.push_back(prog);
    for (size_t i = 1; i < parts.size(); ++i) {
        argv.push_back(const_cast<char *>(parts[i].c_str()));
    }
    const int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);

    static char previous[] = "previous";
    QOR_optind = 1;
    QOR_optarg = previous;
    const std::vector<Event> want = model(argc, argv.data(), opts.c_str(),
                                          previous);
    for (size_t i = 0; i < want.size(); ++i) {
        const int got = QOR_getopt(argc, argv.data(), opts.c_str());
        const int expected = want[i].result;  // letters as unsigned bytes
        if (got != expected || QOR_optarg != want[i].optarg ||
            QOR_optind != want[i].optind) {
            fprintf(stderr,
                    "call %zu: got %d optarg %p optind %d, want %d optarg %p "
                    "optind %d\n",
                    i, got, static_cast<const void *>(QOR_optarg), QOR_optind,
                    expected, static_cast<const void *>(want[i].optarg),
                    want[i].optind);
            abort();
        }
    }
    return 0;
}
