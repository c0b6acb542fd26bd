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

int run_path(Invocation &in) {
    const Direction direction = in.has('o')   ? Direction::to_os
                                : in.has('q') ? Direction::to_qor
                                              : Direction::absolute;
    if (in.has('o') + in.has('q') + in.has('A') > 1) {
        return usage_error(in, "give only one of --absolute, --to-os and "
                               "--to-qor");
    }
    const bool anchors = in.has('a');
    if (in.count == 0 && !anchors) return usage_error(in, "missing operand");
    int status = kExitOk;
    for (int i = 0; i < in.count; ++i) {
        const char *path = in.operands[i];
        char *r = direction == Direction::to_os   ? QOR_qor_to_os(path, 0)
                  : direction == Direction::to_qor ? QOR_os_to_qor(path)
                                                    : QOR_qor_to_absolute_qor(path);
        if (r == nullptr) {
            status = fail_status(in, "cannot translate", path,
                                 QOR_E_UNTRANSLATABLE);
            continue;
        }
        printf("%s\n", r);
        QOR_free(r);
    }
    // After the translations, so that the anchors they used show as fixed.
    if (anchors) show_anchors();
    return status;
}

int run_tmpname(Invocation &in) {
    const char *prefix = in.count > 0 ? in.operands[0] : nullptr;
    const char *suffix = in.count > 1 ? in.operands[1] : nullptr;
    char *name = QOR_temporary_object_name(prefix, in.has('d') ? 1 : 0, suffix);
    if (name == nullptr) {
        fprintf(stderr, "qor tmpname: cannot propose a name: temporary "
                        "directory: no free temporary name\n");
        return kExitFailed;
    }
    printf("%s\n", name);
    QOR_free(name);
    return kExitOk;
}

void show(const char *what, const char *input, char *result) {
    printf("  %-20s %-20s -> %s\n", what, input,
           result != nullptr ? result : "(does not translate)");
    if (result != nullptr) QOR_free(result);
}

const Option kPathOptions[] = {
    {'a', "anchors", nullptr, "show the anchors in force, after the paths"},
    {'A', "absolute", nullptr,
     "translate to an absolute qor path (the default)", true},
    {'o', "to-os", nullptr, "translate a qor path to a host path", true},
    {'q', "to-qor", nullptr, "translate a host path to a qor path", true},
    {}};

const Option kTmpnameOptions[] = {
    {'d', "directory", nullptr, "a name for a directory"},
    {}};

}  // namespace

const Command paths_commands[] = {
    {"path", run_path, "[OPTION]... PATH...\n-a [OPTION]... [PATH]...",
     "translate paths between qor and host forms",
     "Prints each PATH translated: to an absolute qor path with every "
     "anchor and\nvariable expanded (the default), to a host path "
     "(--to-os), or from a host\npath to a qor path (--to-qor). A path that "
     "does not translate is reported\nand the others are still printed.",
     kPathOptions, 0, -1},
    {"tmpname", run_tmpname, "[-d] [PREFIX [SUFFIX]]",
     "propose a free temporary file or directory name",
     "Prints a name in the temporary directory that is free at the time of "
     "the\ncall: PREFIX, a letter, the process id's five lowest digits, "
     "\".\" and SUFFIX.\nNothing is created.",
     kTmpnameOptions, 0, 2},
    {}};

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
