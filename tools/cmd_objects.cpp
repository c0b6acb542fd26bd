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

constexpr const char *kTypeNames[] = {"plain_file", "plain_directory",
                                      "lockable_directory", "cdir",
                                      "idle_object"};
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

int bad_usage(const char *usage) {
    fprintf(stderr, "usage: qor %s\n", usage);
    return 2;
}

// The type given as an argument, or the detected one.
int type_argument(const char *path, const char *given, unsigned *type) {
    if (given != nullptr) {
        const int t = parse_name(given, kTypeNames, 5);
        if (t < 0) {
            fprintf(stderr, "qor: unknown object type \"%s\"\n", given);
            return 2;
        }
        *type = static_cast<unsigned>(t);
        return 0;
    }
    const int s = QOR_type_of_object(path, type);
    if (s != 0) fprintf(stderr, "qor: %s: status %d\n", path, s);
    return s != 0 ? 1 : 0;
}

int cmd_type(int argc, char **argv) {
    if (argc < 2) return bad_usage("type PATH...");
    int result = 0;
    for (int i = 1; i < argc; ++i) {
        unsigned type = 0;
        const int s = QOR_type_of_object(argv[i], &type);
        if (s == 0) {
            printf("%s: %u %s\n", argv[i], type, type_name(type));
        } else {
            printf("%s: status %d%s\n", argv[i], s,
                   s == QOR_E_MISSING         ? " (missing)"
                   : s == QOR_E_UNTRANSLATABLE ? " (untranslatable)"
                                               : "");
            result = 1;
        }
    }
    return result;
}

int cmd_create(int argc, char **argv) {
    if (argc != 3) return bad_usage("create PATH TYPE");
    const int t = parse_name(argv[2], kTypeNames, 5);
    if (t < 0) return bad_usage("create PATH TYPE (0-4 or a type name)");
    const int s = QOR_create_object(argv[1], static_cast<unsigned>(t));
    if (s != 0) {
        printf("%s: status %d%s\n", argv[1], s,
               s == QOR_E_EXISTS ? " (exists)" : "");
        return 1;
    }
    printf("%s: created %s\n", argv[1], kTypeNames[t]);
    return 0;
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

int cmd_ls(int argc, char **argv) {
    if (argc < 2 || argc > 3) return bad_usage("ls PATH [TYPE]");
    unsigned type = 0;
    if (const int r = type_argument(argv[1], argc == 3 ? argv[2] : nullptr,
                                    &type)) {
        return r;
    }
    const int s = list_links(argv[1], type, "");
    if (s != 0) fprintf(stderr, "qor: %s: status %d\n", argv[1], s);
    return s != 0 ? 1 : 0;
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

int cmd_access(int argc, char **argv) {
    const char *usage =
        "access PATH [TYPE]  |  access PATH TYPE CLASS KIND grant|revoke";
    if (argc == 2 || argc == 3) {
        unsigned type = 0;
        if (const int r = type_argument(argv[1], argc == 3 ? argv[2] : nullptr,
                                        &type)) {
            return r;
        }
        printf("%s (%s)\n", argv[1], type_name(type));
        return show_accessibility(argv[1], type, "  ");
    }
    if (argc != 6) return bad_usage(usage);
    const int type = parse_name(argv[2], kTypeNames, 5);
    const int cls = parse_name(argv[3], kClassNames, 3);
    const int kind = parse_name(argv[4], kKindNames, 6);
    const bool grant = strcmp(argv[5], "grant") == 0;
    if (type < 0 || cls < 0 || kind < 0 ||
        (!grant && strcmp(argv[5], "revoke") != 0)) {
        return bad_usage(usage);
    }
    const int s = QOR_set_accessibility(argv[1], unsigned(type), cls,
                                        unsigned(kind), grant);
    if (s != 0) {
        printf("%s: status %d\n", argv[1], s);
        return 1;
    }
    printf("%s: %s %s for %s\n", argv[1], grant ? "granted" : "revoked",
           kKindNames[kind], kClassNames[cls]);
    return 0;
}

void print_time(const char *label, int64_t t) {
    char text[64];
    const time_t when = static_cast<time_t>(t);
    struct tm tm;
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime_r(&when, &tm));
    printf("  %-11s %s\n", label, text);
}

int cmd_stat(int argc, char **argv) {
    if (argc < 2 || argc > 3) return bad_usage("stat PATH [TYPE]");
    const char *path = argv[1];
    unsigned type = 0;
    if (const int r = type_argument(path, argc == 3 ? argv[2] : nullptr,
                                    &type)) {
        return r;
    }
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

const Command objects_commands[] = {
    {"type", "PATH...", "detect the type of objects", cmd_type},
    {"create", "PATH TYPE", "create an object of a type (0-4 or name)",
     cmd_create},
    {"ls", "PATH [TYPE]", "list the links of an object", cmd_ls},
    {"access", "PATH [TYPE [CLASS KIND grant|revoke]]",
     "test or set an object's accessibility", cmd_access},
    {"stat", "PATH [TYPE]",
     "permissions, owner, size, times, identity of an object", cmd_stat},
    {nullptr, nullptr, nullptr, nullptr}};

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
