// qor commands and tour step for the path namespace:
//   qor path [-a] [--absolute|--to-os|--to-qor] PATH...
//   qor tmpname [-d] [PREFIX [SUFFIX]]

#include <qor/qor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "commands.h"

namespace qor_tool {
namespace {

enum class Direction { absolute, to_os, to_qor };

const char *const kPathUsage =
    "usage: qor path [-a] [--absolute|--to-os|--to-qor] PATH...\n";

// Prints "label = value" for one anchor, or "(unset)" when it does not
// translate.
void show_anchor(const char *label, const char *qor_path) {
    char *value = QOR_qor_to_absolute_qor(qor_path);
    printf("%-6s %s\n", label, value != nullptr ? value : "(unset)");
    if (value != nullptr) QOR_free(value);
}

void show_anchors() {
    show_anchor("_", "_");
    show_anchor("#", "#");
    show_anchor("~", "~");
    show_anchor(".0", ".0");
    char *tmp = QOR_temporary_directory();
    printf("%-6s %s\n", "tmp", tmp != nullptr ? tmp : "(untranslatable)");
    if (tmp != nullptr) QOR_free(tmp);
}

int run_path(int argc, char **argv) {
    Direction direction = Direction::absolute;
    bool anchors = false;
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; ++i) {
        if (strcmp(argv[i], "-a") == 0) {
            anchors = true;
        } else if (strcmp(argv[i], "--absolute") == 0) {
            direction = Direction::absolute;
        } else if (strcmp(argv[i], "--to-os") == 0) {
            direction = Direction::to_os;
        } else if (strcmp(argv[i], "--to-qor") == 0) {
            direction = Direction::to_qor;
        } else if (strcmp(argv[i], "--") == 0) {
            ++i;
            break;
        } else {
            fprintf(stderr, "qor path: unknown option \"%s\"\n%s", argv[i],
                    kPathUsage);
            return 2;
        }
    }
    if (i == argc && !anchors) {
        fputs(kPathUsage, stderr);
        return 2;
    }
    int status = 0;
    for (; i < argc; ++i) {
        char *r = direction == Direction::to_os   ? QOR_qor_to_os(argv[i], 0)
                  : direction == Direction::to_qor ? QOR_os_to_qor(argv[i])
                                                    : QOR_qor_to_absolute_qor(argv[i]);
        if (r == nullptr) {
            fprintf(stderr, "qor path: \"%s\" does not translate\n", argv[i]);
            status = 1;
            continue;
        }
        printf("%s\n", r);
        QOR_free(r);
    }
    // After the translations, so that the anchors they used show as fixed.
    if (anchors) show_anchors();
    return status;
}

int run_tmpname(int argc, char **argv) {
    int i = 1;
    int is_directory = 0;
    if (i < argc && strcmp(argv[i], "-d") == 0) {
        is_directory = 1;
        ++i;
    }
    if (argc - i > 2) {
        fputs("usage: qor tmpname [-d] [PREFIX [SUFFIX]]\n", stderr);
        return 2;
    }
    const char *prefix = i < argc ? argv[i] : nullptr;
    const char *suffix = i + 1 < argc ? argv[i + 1] : nullptr;
    char *name = QOR_temporary_object_name(prefix, is_directory, suffix);
    if (name == nullptr) {
        fputs("qor tmpname: no free temporary name\n", stderr);
        return 1;
    }
    printf("%s\n", name);
    QOR_free(name);
    return 0;
}

void show(const char *what, const char *input, char *result) {
    printf("  %-20s %-20s -> %s\n", what, input,
           result != nullptr ? result : "(does not translate)");
    if (result != nullptr) QOR_free(result);
}

}  // namespace

const Command paths_commands[] = {
    {"path", "[-a] [--absolute|--to-os|--to-qor] PATH...",
     "translate paths (-a: show the anchors in force)", run_path},
    {"tmpname", "[-d] [PREFIX [SUFFIX]]",
     "propose a free temporary file (-d: directory) name", run_tmpname},
    {nullptr, nullptr, nullptr, nullptr}};

int tour_paths() {
    tour_heading("Path namespace");
    // Anchors are read once, at their first use: give the tour its own
    // where the environment has none.
    char *root = QOR_getenv("QOR_ROOT");
    if (root == nullptr) {
        QOR_putenv("QOR_ROOT", "/opt/qor");
    } else {
        QOR_free(root);
    }
    QOR_putenv("QOR_TOUR_DATA", "/srv/data");
    QOR_putenv("QOR_TOUR_SUB", "sub");
    show("root anchor", "_/etc/f.txt", QOR_qor_to_absolute_qor("_/etc/f.txt"));
    show("variable", "$(QOR_TOUR_DATA)/y",
         QOR_qor_to_absolute_qor("$(QOR_TOUR_DATA)/y"));
    show("relative variable", "/a/$(QOR_TOUR_SUB)",
         QOR_qor_to_absolute_qor("/a/$(QOR_TOUR_SUB)"));
    show("current directory", ".0/f", QOR_qor_to_absolute_qor(".0/f"));
    show("host part", "@rel/x", QOR_qor_to_absolute_qor("@rel/x"));
    show("anchor restarts", "/a/b/_/c", QOR_qor_to_absolute_qor("/a/b/_/c"));
    show("empty component", "/a//b", QOR_qor_to_absolute_qor("/a//b"));
    show("parent", "/a/b/../c", QOR_qor_to_os("/a/b/../c", 0));
    show("above the root", "/..", QOR_qor_to_absolute_qor("/.."));
    show("relative qor path", "a/b", QOR_qor_to_absolute_qor("a/b"));
    show("OS path", "x/../y", QOR_os_to_qor("x/../y"));
    show("concatenation", "/usr + /lib",
         QOR_concat_os_paths("/usr", "/lib", 0, QOR_FORM_OS));
    // Fixed at first use: a new value is not seen.
    QOR_putenv("QOR_TOUR_DATA", "/elsewhere");
    show("after a change", "$(QOR_TOUR_DATA)/y",
         QOR_qor_to_absolute_qor("$(QOR_TOUR_DATA)/y"));
    show("temporary name", "tour .tmp",
         QOR_temporary_object_name("tour", 0, "tmp"));
    return 0;
}

}  // namespace qor_tool
