// qor commands and tour step for the object store: type detection,
// creation, links, accessibility and the status of an object's files.

#include <ftw.h>
#include <qor/qor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "commands.h"

namespace qor_tool {
namespace {

constexpr const char *kKindNames[] = {"exists", "read",   "write",
                                      "execute", "create", "remove"};
constexpr const char *kClassNames[] = {"owner", "group", "others"};

const char *type_name(unsigned type) {
    return type <= QOR_IDLE_OBJECT ? kTypeNames[type] : "(invalid)";
}

// A number, or one of the names of the table; -1 when it is neither.
int parse_name(const char *text, const char *const *names, int count) {
    char *end = nullptr;
    const long n = strtol(text, &end, 10);
    if (end != text && *end == '\0') return n >= 0 && n < count ? int(n) : -1;
    for (int i = 0; i < count; ++i) {
        if (strcmp(text, names[i]) == 0) return i;
    }
    return -1;
}

int cmd_type(Invocation &in) {
    int result = kExitOk;
    for (int i = 0; i < in.count; ++i) {
        unsigned type = 0;
        const int s = QOR_type_of_object(in.operands[i], &type);
        if (s == 0) {
            printf("%s: %u %s\n", in.operands[i], type, type_name(type));
        } else {
            result = fail_status(in, "cannot tell the type", in.operands[i], s);
        }
    }
    return result;
}

int cmd_create(Invocation &in) {
    unsigned type = 0;
    if (!type_operand(in, in.operands[1], &type)) return kExitUsage;
    const int s = QOR_create_object(in.operands[0], type);
    if (s != 0) return fail_status(in, "cannot create", in.operands[0], s);
    verbose(in, "created %s (%s)\n", in.operands[0], kTypeNames[type]);
    return kExitOk;
}

int list_links(const char *path, unsigned type, const char *indent) {
    QOR_link_listing *l = nullptr;
    int s = QOR_open_links(path, type, &l);
    if (s != 0) return s;
    int count = 0;
    while ((s = QOR_next_link(l)) == 0) {
        char *name = QOR_read_linkname(l);
        printf("%s%s\n", indent, name);
        QOR_free(name);
        ++count;
    }
    const int closed = QOR_close_links(l);
    if (count == 0) printf("%s(no links)\n", indent);
    return s == QOR_E_END ? closed : s;
}

int cmd_ls(Invocation &in) {
    unsigned type = 0;
    if (const int r = object_type(in, kTypeLetter, in.operands[0], &type)) {
        return r;
    }
    const int s = list_links(in.operands[0], type, "");
    return s != 0 ? fail_status(in, "cannot list", in.operands[0], s) : kExitOk;
}

// One line per access kind: the caller's answer, then the answer for each
// permission class.
int show_accessibility(const char *path, unsigned type, const char *indent) {
    printf("%s%-8s %-6s %-6s %-6s %-6s\n", indent, "kind", "you", "owner",
           "group", "others");
    for (unsigned kind = 0; kind <= QOR_ACCESS_REMOVE; ++kind) {
        int32_t mine = 0;
        const int s = QOR_is_accessible(path, type, kind, &mine);
        printf("%s%-8s %-6s", indent, kKindNames[kind],
               s != 0 ? "error" : mine ? "yes" : "no");
        for (int cls = 0; cls <= QOR_CLASS_OTHERS; ++cls) {
            int32_t flag = 0;
            const int r = QOR_read_accessibility(path, type, cls, kind, &flag);
            printf(" %-6s", r != 0 ? "error" : flag ? "yes" : "no");
        }
        printf("\n");
    }
    return 0;
}

int cmd_access(Invocation &in) {
    if (in.count != 1 && in.count != 4) {
        return in.count < 4 ? usage_error(in, "missing operand after '%s'",
                                          in.operands[in.count - 1])
                            : usage_error(in, "extra operand '%s'",
                                          in.operands[4]);
    }
    const char *path = in.operands[0];
    int cls = -1, kind = -1;
    bool grant = false;
    if (in.count == 4) {
        // Checked in full before anything is done.
        cls = parse_name(in.operands[1], kClassNames, 3);
        kind = parse_name(in.operands[2], kKindNames, 6);
        grant = strcmp(in.operands[3], "grant") == 0;
        if (cls < 0) {
            return usage_error(in, "invalid CLASS '%s' (owner, group, others)",
                               in.operands[1]);
        }
        if (kind < 0) {
            return usage_error(in, "invalid KIND '%s' (exists, read, write, "
                                   "execute, create, remove)",
                               in.operands[2]);
        }
        if (!grant && strcmp(in.operands[3], "revoke") != 0) {
            return usage_error(in, "expected grant or revoke, not '%s'",
                               in.operands[3]);
        }
    }
    unsigned type = 0;
    if (const int r = object_type(in, kTypeLetter, path, &type)) return r;
    if (in.count == 1) {
        printf("%s (%s)\n", path, type_name(type));
        return show_accessibility(path, type, "  ");
    }
    const int s = QOR_set_accessibility(path, type, cls, unsigned(kind), grant);
    if (s != 0) {
        return fail_status(in, grant ? "cannot grant" : "cannot revoke", path,
                           s);
    }
    verbose(in, "%s: %s %s for %s\n", path, grant ? "granted" : "revoked",
            kKindNames[kind], kClassNames[cls]);
    return kExitOk;
}

void print_time(const char *label, int64_t t) {
    char text[64];
    const time_t when = static_cast<time_t>(t);
    struct tm tm;
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime_r(&when, &tm));
    printf("  %-11s %s\n", label, text);
}

int cmd_stat(Invocation &in) {
    const char *path = in.operands[0];
    unsigned type = 0;
    if (const int r = object_type(in, kTypeLetter, path, &type)) return r;
    const int32_t is_dir = type != QOR_PLAIN_FILE;
    printf("%s (%s)\n", path, type_name(type));
    uint32_t mode = 0;
    if (QOR_read_permissions(path, is_dir, &mode) == 0) {
        printf("  %-11s %04o (st_mode %06o)\n", "permissions", mode & 07777,
               mode);
    }
    QOR_ownership o{0, 0};
    if (QOR_read_ownership(path, is_dir, &o) == 0) {
        QOR_ownership_names n{nullptr, nullptr};
        if (QOR_read_ownership_name(o, &n) == 0) {
            printf("  %-11s %d (%s) %d (%s)\n", "owner", o.user, n.user,
                   o.group, n.group);
            QOR_free(n.user);
            QOR_free(n.group);
        } else {
            printf("  %-11s %d %d (no names)\n", "owner", o.user, o.group);
        }
    }
    if (type != QOR_PLAIN_DIRECTORY && type != QOR_LOCKABLE_DIRECTORY) {
        uint64_t size = 0;
        if (QOR_read_contents_size(path, type, &size) == 0) {
            printf("  %-11s %llu\n", "size",
                   static_cast<unsigned long long>(size));
        }
    }
    int64_t times[3] = {0, 0, 0};
    if (QOR_read_access_times(path, type, times) == 0) {
        print_time("accessed", times[QOR_TIME_ACCESS]);
        print_time("changed", times[QOR_TIME_CHANGE]);
        print_time("modified", times[QOR_TIME_MODIFY]);
    }
    char *id = nullptr;
    if (QOR_read_identity(path, is_dir, &id) == 0) {
        printf("  %-11s %s\n", "identity", id);
        QOR_free(id);
    }
    return 0;
}

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    return remove(path);
}

}  // namespace

const Option kTypeOnly[] = {kTypeOption, {}};

const Command objects_commands[] = {
    {"type", cmd_type, "PATH...", "detect the type of objects",
     "Prints, for each PATH, the type the library detects: 0 plain_file, 1\n"
     "plain_directory, 2 lockable_directory, 3 cdir, 4 idle_object.",
     nullptr, 1, -1},
    {"create", cmd_create, "PATH TYPE", "create an object of a type",
     "Creates an object of TYPE (0 to 4, or its name) at PATH with all its "
     "member\nfiles.",
     nullptr, 2, 2},
    {"ls", cmd_ls, "[--type=TYPE] PATH", "list the links of an object",
     "Prints the names of the links (entries) inside the object, one a line.",
     kTypeOnly, 1, 1},
    {"access", cmd_access,
     "[--type=TYPE] PATH\n[--type=TYPE] PATH CLASS KIND grant|revoke",
     "test or set an object's accessibility",
     "With PATH alone, a table of the kinds of access (exists, read, write,\n"
     "execute, create, remove): whether you have it, and whether the owner,\n"
     "group and others classes have it. With CLASS (owner, group, others or "
     "0\nto 2), KIND (a kind's name or 0 to 5) and grant or revoke, sets "
     "that\npermission on every file of the object.",
     kTypeOnly, 1, 4},
    {"stat", cmd_stat, "[--type=TYPE] PATH",
     "permissions, owner, size, times, identity of an object",
     "Prints what the library reads of the object: permissions, owner and\n"
     "group, the size of its contents, its access, change and modification\n"
     "times, and its identity.",
     kTypeOnly, 1, 1},
    {}};

int tour_objects() {
    tour_heading("Object store");
    char dir[] = "/tmp/qor-tour-objects-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    // The store is named through a variable of its own, read at its first
    // use, so the tour does not depend on anchors read before it.
    setenv("QOR_TOUR_OBJECTS", dir, 1);
    char path[5][64];
    int result = 0;
    for (unsigned t = 0; t <= QOR_IDLE_OBJECT && result == 0; ++t) {
        snprintf(path[t], sizeof path[t], "$(QOR_TOUR_OBJECTS)/%s",
                 kTypeNames[t]);
        const int s = QOR_create_object(path[t], t);
        printf("create %-34s -> %d\n", path[t], s);
        if (s != 0) result = 1;
    }
    if (result == 0) {
        // A few links: an object inside the plain directory, one inside the
        // idle object, and the "dbi.lock" an idle object may carry.
        QOR_create_object("$(QOR_TOUR_OBJECTS)/plain_directory/inner", 3);
        QOR_create_object("$(QOR_TOUR_OBJECTS)/idle_object/note", 0);
        QOR_create_object("$(QOR_TOUR_OBJECTS)/idle_object/dbi.lock", 0);
        for (unsigned t = 0; t <= QOR_IDLE_OBJECT; ++t) {
            unsigned detected = 99;
            QOR_type_of_object(path[t], &detected);
            printf("\n%s: type %u %s\n", path[t], detected, type_name(detected));
            if (t != QOR_PLAIN_FILE) {
                printf("  links:\n");
                list_links(path[t], t, "    ");
            }
            show_accessibility(path[t], t, "  ");
        }
    }
    nftw(dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    return result;
}

}  // namespace qor_tool
