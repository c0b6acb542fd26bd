// qor check: objects whose member files disagree with their type (what a
// create, copy or delete killed part-way leaves, or entries planted in an
// object directory), and with --repair the removal of such debris that no
// live process holds. Built on the object store's integrity check, which
// the library keeps to itself; the tool compiles that unit in (see
// tools/CMakeLists.txt).

#include <qor/qor.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "commands.h"
#include "objects/integrity.h"

namespace qor_tool {
namespace {

using qor::objects::Finding;
using qor::objects::Inspection;
using qor::objects::Problem;

// One finding as a line: "PATH: .body: missing".
void print_finding(const char *path, const Inspection &found, const Finding &f,
                   const char *source) {
    const char *member = f.member[0] != '\0' ? f.member : nullptr;
    printf("%s: ", path);
    if (member != nullptr) printf("%s: ", member);
    switch (f.problem) {
        case Problem::missing:
            printf("missing");
            break;
        case Problem::wrong_kind:
            if (member != nullptr) {
                printf("not a regular file");
            } else {
                printf(found.expected == QOR_PLAIN_FILE
                           ? "a directory, not a plain file"
                           : "not a directory");
            }
            break;
        case Problem::extra:
            printf("does not belong to a %s", kTypeNames[found.expected]);
            break;
        case Problem::differs:
            // Only a check against a source finds this; the guard is for
            // the compiler, which cannot see that.
            printf("differs in size from %s",
                   source != nullptr ? source : "the source");
            break;
        case Problem::stale_lock:
            printf("all that is left of a %s (a stale lock)",
                   kTypeNames[found.expected]);
            break;
    }
    printf("%s\n", f.held ? " (held by a live process)" : "");
}

int check_one(const Invocation &in, const char *path, const char *source) {
    unsigned type = 0;
    if (const int r = object_type(in, kTypeLetter, path, &type)) return r;
    Inspection found{};
    int s = qor::objects::inspect_object(path, type, source, &found);
    if (s != 0) return fail_status(in, "cannot check", path, s);
    verbose(in, "%s: checked as a %s%s%s%s\n", path, kTypeNames[type],
            source != nullptr ? " copied from " : "",
            source != nullptr ? source : "",
            found.other_entries ? "; it holds other entries too" : "");
    for (int i = 0; i < found.count; ++i) {
        print_finding(path, found, found.findings[i], source);
    }
    if (found.count == 0) return kExitOk;
    if (!in.has('r')) return kExitFailed;
    int left = 0;
    s = qor::objects::repair_object(path, found, &left);
    if (s != 0) return fail_status(in, "cannot repair", path, s);
    if (left > 0) {
        printf("%s: repaired; %d left in place\n", path, left);
        return kExitFailed;
    }
    unsigned now = 0;
    printf("%s: repaired%s\n", path,
           QOR_type_of_object(path, &now) == QOR_E_MISSING
               ? " (the unfinished object was removed)"
               : "");
    return kExitOk;
}

int cmd_check(Invocation &in) {
    if (const int r = check_type_option(in)) return r;
    if (in.has('r') && !in.has(kTypeLetter)) {
        // Repair removes what does not belong to the type: a detected type
        // can be wrong for the very objects that need repair.
        return usage_error(in, "--repair needs --type: the type a half-made "
                               "object seems to have can be wrong");
    }
    const char *source = in.has('s') ? in.value('s') : nullptr;
    int result = kExitOk;
    for (int i = 0; i < in.count; ++i) {
        const int r = check_one(in, in.operands[i], source);
        if (r == kExitUsage) return r;
        if (r != kExitOk) result = kExitFailed;
    }
    return result;
}

// The tour: a cdir whose create was killed after its first member.
int tour_in(const std::string &dir) {
    const std::string object = "@" + dir + "/ledger";
    // What a killed create leaves: the directory and ".lock", which is a
    // finished lockable directory as far as anyone can tell.
    if (QOR_create_object(object.c_str(), QOR_LOCKABLE_DIRECTORY) != 0) return 1;
    unsigned type = 0;
    QOR_type_of_object(object.c_str(), &type);
    printf("a create of the cdir ledger killed after its first member leaves "
           "an object\nthat reads as a %s\n", kTypeNames[type]);
    Inspection found{};
    if (qor::objects::inspect_object(object.c_str(), QOR_CDIR, nullptr, &found) != 0) {
        return 1;
    }
    printf("checked as the cdir it should be (qor check --type=cdir):\n");
    for (int i = 0; i < found.count; ++i) {
        printf("  ");
        print_finding("ledger", found, found.findings[i], nullptr);
    }
    int left = 0;
    const int s = qor::objects::repair_object(object.c_str(), found, &left);
    struct stat st;
    printf("repair (qor check --type=cdir --repair) -> %d, %d left; ledger "
           "%s\n", s, left,
           stat((dir + "/ledger").c_str(), &st) == 0 ? "is still there"
                                                      : "is gone");
    return s == 0 && left == 0 ? 0 : 1;
}

const Option kCheckOptions[] = {
    {'r', "repair", nullptr,
     "remove the debris found that no live process holds"},
    {'s', "source", "SOURCE",
     "PATH is a copy of SOURCE: compare member sizes"},
    kTypeOption,
    {}};

}  // namespace

const Command check_commands[] = {
    {"check", cmd_check, "[OPTION]... PATH...",
     "find (and remove) half-made objects and planted members",
     "Reports, a line each on standard output, every way the object at PATH "
     "disagrees\nwith its type: a member missing, a member (\".lock\", "
     "\".body\", \".index\")\nthat is not a regular file (a link, FIFO, "
     "socket, device or directory), a\nmember the type does not have, a "
     "member whose size differs from SOURCE's,\nor a \".lock\" that is all "
     "that is left of a cdir or idle object. Whether a\nlive process holds a "
     "record lock on the member is read from /proc/locks;\nnothing is "
     "opened.\n"
     "\n"
     "Without --type the type is the detected one, which a half-made object "
     "can\nhide (a cdir with only its \".lock\" reads as a lockable "
     "directory): give the\ntype the object should have when you know it.\n"
     "\n"
     "With --repair (which needs --type), entries of the wrong kind and "
     "extra\nmembers are removed, and an unfinished object as a whole when "
     "nothing else\nstands in its directory; what a live process holds is "
     "left.\n"
     "\n"
     "Exit status 0 when every PATH was found clean (or was repaired with "
     "nothing\nleft), 1 when problems were found (or left, or a repair "
     "failed).",
     kCheckOptions, 1, -1},
    {}};

int tour_check() {
    tour_heading("Half-made objects");
    char *os = tour_directory("qor-tour-check-");
    if (os == nullptr) return 1;
    const std::string dir(os);
    QOR_free(os);
    const int result = tour_in(dir);
    rmdir((dir + "/ledger").c_str());
    rmdir(dir.c_str());
    return result;
}

}  // namespace qor_tool
