// Locating files on the search path.
//
// A locate probes candidate paths one after the other and stops at the
// first that exists: the name itself when it is a qor path, then the
// directories of QOR_PATH (with the subdirectories QOR_PATH_DEFAULTS lists
// for the name's type), then the caller's extra directories. Each probe can
// be traced on standard error.
//
// Process-wide state, all built at first use and kept: the trace levels,
// the two trace texts, and the table of type defaults, which lives in a
// private freestore so that a malformed table is dropped in one step.
// QOR_PATH is read anew at every call; its directory list and every other
// scratch text of a call live in the shared freestore between one save and
// one restore.

#include <ctype.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "foundation/internal.h"
#include "paths/locate_internal.h"
#include "qor/objects.h"
#include "qor/paths.h"

namespace {

constexpr size_t kBufferSize = QOR_PATH_MAX + 1;

// Block size of the type defaults' own freestore.
constexpr uint32_t kTableChunk = 992;

// Size of the buffers the trace texts are fetched into.
constexpr int kTextSize = 256;

// Messages of set "qor" that follow a traced probe.
constexpr int kFoundText = 206;
constexpr int kNotFoundText = 205;

QOR_FS_allocator *shared() { return &QOR_SH_fs_allocator; }

// ---- Directory lists and the type defaults ------------------------------

// One element of a parsed list text.
struct DirEntry {
    const char *dir;
    DirEntry *next;
};

// One entry of the type defaults, in the order written.
struct TypeEntry {
    const char *type;
    DirEntry *subdirs;
    TypeEntry *next;
};

// A record in a freestore. Pieces keep 4-byte alignment only and these
// records hold pointers: one spare word lets the record start on 8 bytes.
template <class T>
T *new_record(QOR_FS_allocator *fs) {
    const auto raw = reinterpret_cast<uintptr_t>(
        QOR_FS_malloc(fs, static_cast<uint32_t>(sizeof(T) + 4)));
    return reinterpret_cast<T *>((raw + 7) & ~uintptr_t{7});
}

// A list under construction: its first entry and where the next goes.
struct ListBuilder {
    DirEntry *first;
    DirEntry **tail;
};

void append(QOR_FS_allocator *fs, ListBuilder *list, const char *dir) {
    DirEntry *entry = new_record<DirEntry>(fs);
    entry->dir = dir;
    entry->next = nullptr;
    *list->tail = entry;
    list->tail = &entry->next;
}

bool is_blank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

const char *skip_blanks(const char *p, const char *end) {
    while (p < end && is_blank(*p)) ++p;
    return p;
}

// Walks the elements of the list text [p, end): runs of characters that
// are neither white space nor ",", separated by commas, white space or
// both. Where two commas meet, or a comma begins or ends the text, the
// element is empty. An empty or all-blank text has no elements. Each
// element is handed to take(start, length) in order.
template <class Take>
void for_each_element(const char *p, const char *end, Take take) {
    p = skip_blanks(p, end);
    while (p < end) {
        const char *start = p;
        while (p < end && !is_blank(*p) && *p != ',') ++p;
        take(start, static_cast<size_t>(p - start));
        p = skip_blanks(p, end);
        if (p < end && *p == ',') {
            p = skip_blanks(p + 1, end);
            if (p == end) take(p, 0);
        }
    }
}

// Parses a list text whose elements are paths, making each one into a
// directory of the list with convert (an element as its own string in, a
// qor path in the shared freestore or null out). Elements that do not
// convert are dropped; those longer than a path may be never convert, so
// they are dropped unread.
ListBuilder parse_directories(const char *text, char *(*convert)(const char *)) {
    ListBuilder list{nullptr, nullptr};
    list.tail = &list.first;
    if (text == nullptr) return list;
    char element[kBufferSize];
    for_each_element(text, text + strlen(text),
                     [&](const char *start, size_t length) {
                         if (length > QOR_PATH_MAX) return;
                         memcpy(element, start, length);
                         element[length] = '\0';
                         const char *dir = convert(element);
                         if (dir != nullptr) append(shared(), &list, dir);
                     });
    return list;
}

// The type defaults: parsed at the first locate that searches, kept for the
// life of the process. g_table is null when there is no table.
constinit QOR_FS_allocator g_table_fs = QOR_FS_INITIALISER(kTableChunk, 0);
constinit TypeEntry *g_table = nullptr;
constinit bool g_table_parsed = false;

const char *memrchr_in(const char *begin, const char *end, char c) {
    for (const char *p = end; p > begin; --p) {
        if (p[-1] == c) return p - 1;
    }
    return nullptr;
}

// One entry of the table, [begin, end): the type name, "=", anything, "(",
// a list text of subdirectories (empty elements kept), and the last ")".
TypeEntry *parse_type_entry(const char *begin, const char *end) {
    const char *equals =
        static_cast<const char *>(memchr(begin, '=', end - begin));
    if (equals == nullptr) return nullptr;
    const char *open = static_cast<const char *>(
        memchr(equals + 1, '(', end - (equals + 1)));
    if (open == nullptr) return nullptr;
    const char *close = memrchr_in(open + 1, end, ')');
    if (close == nullptr) return nullptr;

    ListBuilder subdirs{nullptr, nullptr};
    subdirs.tail = &subdirs.first;
    for_each_element(open + 1, close, [&](const char *start, size_t length) {
        char *copy = static_cast<char *>(
            QOR_FS_malloc(&g_table_fs, static_cast<uint32_t>(length + 1)));
        memcpy(copy, start, length);
        copy[length] = '\0';
        append(&g_table_fs, &subdirs, copy);
    });
    if (subdirs.first == nullptr) return nullptr;

    const char *name = skip_blanks(begin, equals);
    const char *name_end = name;
    while (name_end < equals && !is_blank(*name_end)) ++name_end;
    const auto length = static_cast<size_t>(name_end - name);
    char *type = static_cast<char *>(
        QOR_FS_malloc(&g_table_fs, static_cast<uint32_t>(length + 1)));
    memcpy(type, name, length);
    type[length] = '\0';

    TypeEntry *entry = new_record<TypeEntry>(&g_table_fs);
    entry->type = type;
    entry->subdirs = subdirs.first;
    entry->next = nullptr;
    return entry;
}

// Entries separated by ";". Any malformed entry, a trailing ";" (an empty
// last entry) among them, drops the whole table.
TypeEntry *parse_type_defaults(const char *text) {
    TypeEntry *first = nullptr;
    TypeEntry **tail = &first;
    const char *end = text + strlen(text);
    for (const char *p = text;;) {
        const char *semicolon =
            static_cast<const char *>(memchr(p, ';', end - p));
        const char *entry_end = semicolon != nullptr ? semicolon : end;
        TypeEntry *entry = parse_type_entry(p, entry_end);
        if (entry == nullptr) {
            QOR_FS_destroy(&g_table_fs);
            return nullptr;
        }
        *tail = entry;
        tail = &entry->next;
        if (semicolon == nullptr) return first;
        p = semicolon + 1;
    }
}

void read_type_defaults() {
    g_table_parsed = true;
    QOR_FS_mark mark;
    QOR_FS_save(shared(), &mark);
    const char *text = QOR_SH_getenv("QOR_PATH_DEFAULTS");
    if (text != nullptr) g_table = parse_type_defaults(text);
    QOR_FS_restore(shared(), &mark);
}

// ---- Trace ----------------------------------------------------------------

constinit bool g_levels_read = false;
constinit int g_base_level = 0;
constinit int g_level = 0;

constinit bool g_texts_fetched = false;
constinit char g_found_text[kTextSize] = "";
constinit char g_not_found_text[kTextSize] = "";

// Reads the base level once: 0, 1 or 2 from QOR_LOCATE_TRACE_LEVEL, any
// other value (or none) being 0.
void set_up_trace() {
    if (g_levels_read) [[likely]] return;
    g_levels_read = true;
    char *value = QOR_getenv("QOR_LOCATE_TRACE_LEVEL");
    if (value == nullptr) return;
    errno = 0;
    const long level = strtol(value, nullptr, 10);
    if (errno == 0 && level >= 0 && level <= 2) {
        g_base_level = g_level = static_cast<int>(level);
    }
    QOR_free(value);
}

void fetch_text(int number, char *text, const char *fallback) {
    text[0] = '\0';
    if (QOR_give_message_text(qor::kSet, number, nullptr, text, kTextSize) !=
        0) {
        strcpy(text, fallback);
    }
}

// The texts come from the message system, which may itself locate its
// files: while they are fetched the level is 0, so that cannot trace.
void fetch_texts() {
    g_texts_fetched = true;
    const int level = g_level;
    g_level = 0;
    fetch_text(kFoundText, g_found_text, "-- succeeded");
    fetch_text(kNotFoundText, g_not_found_text, "-- failed");
    g_level = level;
}

bool traced(bool found) { return g_level > (found ? 0 : 1); }

// "<probed path> <text>", the path given in up to three pieces joined by
// "/" (so a probe too long to build is still shown whole).
void trace(bool found, const char *dir, const char *subdir, const char *name) {
    if (!traced(found)) [[likely]] return;
    if (!g_texts_fetched) fetch_texts();
    const char *text = found ? g_found_text : g_not_found_text;
    if (subdir != nullptr) {
        fprintf(stderr, "%s/%s/%s %s\n", dir, subdir, name, text);
    } else if (name != nullptr) {
        fprintf(stderr, "%s/%s %s\n", dir, name, text);
    } else {
        fprintf(stderr, "%s %s\n", dir, text);
    }
}

// ---- Probing --------------------------------------------------------------

bool exists(const char *path, unsigned int type) {
    int32_t flag = 0;
    return QOR_is_accessible(path, type, QOR_ACCESS_EXISTS, &flag) == 0 &&
           flag != 0;
}

// Probes DIR/SUBDIR/NAME, or DIR/NAME for a null or empty subdirectory,
// built in found. A probe longer than a path may be fails unbuilt.
bool probe(const char *dir, const char *subdir, const char *name,
           size_t name_length, unsigned int type, char *found) {
    if (subdir != nullptr && subdir[0] == '\0') subdir = nullptr;
    const size_t dir_length = strlen(dir);
    const size_t subdir_length = subdir != nullptr ? strlen(subdir) + 1 : 0;
    if (dir_length + 1 + subdir_length + name_length > QOR_PATH_MAX) {
        trace(false, dir, subdir, name);
        return false;
    }
    char *p = found;
    memcpy(p, dir, dir_length);
    p += dir_length;
    *p++ = '/';
    if (subdir != nullptr) {
        memcpy(p, subdir, subdir_length - 1);
        p += subdir_length - 1;
        *p++ = '/';
    }
    memcpy(p, name, name_length + 1);
    const bool ok = exists(found, type);
    trace(ok, found, nullptr, nullptr);
    return ok;
}

// Every directory in order and, within it, every subdirectory in order
// (the directory itself when there is no subdirectory list).
bool probe_list(const DirEntry *dirs, const DirEntry *subdirs,
                const char *name, size_t name_length, unsigned int type,
                char *found) {
    for (const DirEntry *d = dirs; d != nullptr; d = d->next) {
        if (subdirs == nullptr) {
            if (probe(d->dir, nullptr, name, name_length, type, found)) {
                return true;
            }
            continue;
        }
        for (const DirEntry *s = subdirs; s != nullptr; s = s->next) {
            if (probe(d->dir, s->dir, name, name_length, type, found)) {
                return true;
            }
        }
    }
    return false;
}

// The name's type: after the last "." of its first component when it holds
// a "/", else after its last "."; null when there is no such ".".
const char *type_of(const char *name, size_t *length) {
    const char *slash = strchr(name, '/');
    const char *end = slash != nullptr ? slash : name + strlen(name);
    const char *dot = memrchr_in(name, end, '.');
    if (dot == nullptr) return nullptr;
    *length = static_cast<size_t>(end - (dot + 1));
    return dot + 1;
}

bool type_matches(const TypeEntry *entry, const char *type, size_t length) {
    return strncmp(entry->type, type, length) == 0 &&
           entry->type[length] == '\0';
}

// Searches the lists for a name that was not found as it is given; the
// probe that exists is left in found.
bool search(const char *name, unsigned int type, const char *extra,
            char *found) {
    if (!g_table_parsed) read_type_defaults();
    const ListBuilder path =
        parse_directories(QOR_SH_getenv("QOR_PATH"), QOR_SH_os_to_qor);
    const size_t name_length = strlen(name);

    bool typed = false;
    size_t type_length = 0;
    const char *name_type = type_of(name, &type_length);
    if (name_type != nullptr) {
        for (const TypeEntry *e = g_table; e != nullptr; e = e->next) {
            if (!type_matches(e, name_type, type_length)) continue;
            typed = true;
            if (probe_list(path.first, e->subdirs, name, name_length, type,
                           found)) {
                return true;
            }
        }
    }
    // A type with defaults is looked for only where they say.
    if (!typed &&
        probe_list(path.first, nullptr, name, name_length, type, found)) {
        return true;
    }
    if (extra != nullptr) {
        const ListBuilder dirs =
            parse_directories(extra, QOR_SH_qor_to_absolute_qor);
        return probe_list(dirs.first, nullptr, name, name_length, type,
                          found);
    }
    return false;
}

char *locate(const char *name, unsigned int type, const char *extra,
             int form, bool in_shared) {
    set_up_trace();
    if (name == nullptr) return nullptr;

    char found[kBufferSize];
    const char *result = nullptr;
    if (QOR_is_qor_path(name) && exists(name, type)) {
        trace(true, name, nullptr, nullptr);
        result = name;
    } else {
        trace(false, name, nullptr, nullptr);
        QOR_FS_mark mark;
        QOR_FS_save(shared(), &mark);
        if (search(name, type, extra, found)) result = found;
        QOR_FS_restore(shared(), &mark);
    }
    if (result == nullptr) return nullptr;

    switch (form) {
        case QOR_FORM_QOR:
            return in_shared ? QOR_SH_qor_to_absolute_qor(result)
                             : QOR_qor_to_absolute_qor(result);
        case QOR_FORM_OS:
            return in_shared ? QOR_SH_qor_to_os(result, type)
                             : QOR_qor_to_os(result, type);
        default:
            QOR_fatal_error(qor::kSet, 1, nullptr, QOR_E_INTERNAL);
            return nullptr;
    }
}

}  // namespace

namespace qor::paths {

void forget_locate_defaults() {
    QOR_FS_destroy(&g_table_fs);
    g_table = nullptr;
    g_table_parsed = false;
}

}  // namespace qor::paths

extern "C" {

char *QOR_locate(const char *name, unsigned int type, const char *extra,
                 int form) {
    return locate(name, type, extra, form, false);
}

char *QOR_SH_locate(const char *name, unsigned int type, const char *extra,
                    int form) {
    return locate(name, type, extra, form, true);
}

int QOR_get_locate_trace_level(void) {
    set_up_trace();
    return g_level;
}

void QOR_set_locate_trace_level(int level) {
    set_up_trace();
    if (level > g_base_level && level <= 2) g_level = level;
}

}  // extern "C"
