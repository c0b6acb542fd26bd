// qor paths: parsing, normalisation and rendering, and the translations
// between qor paths and host (OS) paths.
//
// A path is held while it is converted as a doubly linked list of
// components taken from the shared freestore; every public conversion takes
// a mark on entry and restores it on exit, so its scratch vanishes in one
// step. The anchors ("_", "#", "~", "$(NAME)") resolve through a cache of
// path variables that lives in basic space for the life of the process:
// each variable is read once, at its first use.
//
// Nothing here records a status or prints: every failure is a null result.
// Failures inside a conversion raise the conversion-failed flag, which each
// public conversion saves, clears, reads and restores, so conversions that
// run inside others (temporary names, variable resolution) keep the outer
// state intact.

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include "foundation/host.h"
#include "foundation/internal.h"
#include "paths/general_path.h"
#include "qor/paths.h"

namespace {

constexpr size_t kMaxPath = QOR_PATH_MAX;
constexpr size_t kBufferSize = kMaxPath + 1;

// Component kinds. The values are fixed: 9 to 13 never survive parsing, 3 to
// 6 only classify names that are all rendered the same way here.
enum Kind : uint32_t {
    ROOT = 1,
    OS_PART = 2,
    NAME = 3,
    DOT_NAME = 4,
    DOTTED_NAME = 5,
    PLUS_NAME = 6,
    CURRENT = 7,
    PARENT = 8,
    ROOT_VAR = 9,
    HASH_VAR = 10,
    HOME_VAR = 11,
    CWD = 12,
    ENV_VAR = 13
};

struct Component {
    uint32_t kind;
    // The length of name, kept in what would be padding so that rendering
    // need not measure every name again.
    uint32_t length;
    char *name;
    Component *prev;
    Component *next;
};
static_assert(offsetof(Component, kind) == 0);
static_assert(offsetof(Component, length) == 4);
static_assert(offsetof(Component, name) == 8);
static_assert(offsetof(Component, prev) == 16);
static_assert(offsetof(Component, next) == 24);
static_assert(sizeof(Component) == 32);

// One cached anchor variable. Records are pushed at the head and never
// changed or removed.
struct PathVariable {
    char *name;
    char *qor_form;
    char *value;
    Component *components;
    PathVariable *next;
};
static_assert(offsetof(PathVariable, name) == 0);
static_assert(offsetof(PathVariable, qor_form) == 8);
static_assert(offsetof(PathVariable, value) == 16);
static_assert(offsetof(PathVariable, components) == 24);
static_assert(offsetof(PathVariable, next) == 32);

struct List {
    Component *first;
    Component *last;
};

constinit PathVariable *g_variables = nullptr;
constinit bool g_conversion_failed = false;

// The three special variables, each with a guard against resolving itself
// while its own resolution is under way.
constexpr const char *const kSpecialNames[] = {"QOR_ROOT", "QOR_HASH",
                                               "HOME"};
constinit bool g_resolving[3] = {false, false, false};

QOR_FS_allocator *shared() { return &QOR_SH_fs_allocator; }

bool fail() {
    g_conversion_failed = true;
    return false;
}

// Nodes are taken from the shared freestore a block at a time. The block in
// use belongs to the conversion under way: each public conversion starts
// with none and puts the outer one back when it returns.
struct NodeBlock {
    Component *next;
    Component *end;
};
constinit NodeBlock g_nodes = {nullptr, nullptr};
constexpr uint32_t kNodesPerBlock = 16;

// Freestore pieces keep only 4-byte alignment; nodes hold pointers, so a
// block takes 4 spare bytes and starts at the next 8-byte boundary.
constexpr uint32_t kNodeBlockBytes = kNodesPerBlock * sizeof(Component) + 4;

Component *new_node(uint32_t kind, char *name, size_t length) {
    if (g_nodes.next == g_nodes.end) {
        auto raw = reinterpret_cast<uintptr_t>(
            QOR_FS_malloc(shared(), kNodeBlockBytes));
        g_nodes.next = reinterpret_cast<Component *>((raw + 7) & ~uintptr_t{7});
        g_nodes.end = g_nodes.next + kNodesPerBlock;
    }
    Component *c = g_nodes.next++;
    c->kind = kind;
    c->length = static_cast<uint32_t>(length);
    c->name = name;
    c->prev = nullptr;
    c->next = nullptr;
    return c;
}

void link_last(List *l, Component *c) {
    c->prev = l->last;
    c->next = nullptr;
    if (l->last != nullptr) {
        l->last->next = c;
    } else {
        l->first = c;
    }
    l->last = c;
}

// The join rule behind anchors and roots: b after a, unless b starts at a
// root, which discards a.
void join(List *a, List b) {
    if (b.first == nullptr) return;
    if (a->first == nullptr || b.first->kind == ROOT) {
        *a = b;
        return;
    }
    a->last->next = b.first;
    b.first->prev = a->last;
    a->last = b.last;
}

void unlink(List *l, Component *c) {
    if (c->prev != nullptr) {
        c->prev->next = c->next;
    } else {
        l->first = c->next;
    }
    if (c->next != nullptr) {
        c->next->prev = c->prev;
    } else {
        l->last = c->prev;
    }
}

// One component of a path text: from p up to the next "/" or the end,
// measured in one pass that also notes the characters that classify it.
struct Piece {
    char *text;
    size_t length;
    bool has_plus;
    bool has_dot;
    bool last;  // no "/" follows
};

Piece scan(char *p) {
    Piece piece{p, 0, false, false, false};
    char *q = p;
    for (; *q != '/' && *q != '\0'; ++q) {
        piece.has_plus |= *q == '+';
        piece.has_dot |= *q == '.';
    }
    piece.length = static_cast<size_t>(q - p);
    piece.last = *q == '\0';
    return piece;
}

bool second_is_colon(const Piece &p) {
    return p.length >= 2 && p.text[1] == ':';
}

uint32_t classify_plain(const Piece &p) {
    // "+" wins over ".".
    if (p.has_plus) return PLUS_NAME;
    if (p.has_dot) return DOTTED_NAME;
    return NAME;
}

uint32_t classify_dot(const Piece &p) {
    if (p.length == 1) return CURRENT;
    if (p.length == 2 && p.text[1] == '.') return PARENT;
    return DOT_NAME;
}

uint32_t classify_qor(const Piece &p) {
    const char *s = p.text;
    const size_t n = p.length;
    if (n == 0 || second_is_colon(p)) return ROOT;
    if (s[0] == '@') return OS_PART;
    if (n == 1) {
        if (s[0] == '_') return ROOT_VAR;
        if (s[0] == '#') return HASH_VAR;
        if (s[0] == '~') return HOME_VAR;
    }
    if (s[0] == '$') {
        // "$(" NAME ")" with the ")" ending the component and a name of at
        // least one character; anything else is a plain name.
        if (n >= 4 && s[1] == '(' && s[n - 1] == ')') return ENV_VAR;
        return classify_plain(p);
    }
    if (s[0] == '.') {
        if (n == 2 && s[1] == '0') return CWD;
        return classify_dot(p);
    }
    return classify_plain(p);
}

uint32_t classify_os(const Piece &p, bool first_of_absolute) {
    if (p.length == 0 || second_is_colon(p)) {
        return first_of_absolute ? ROOT : CURRENT;
    }
    if (p.text[0] == '.') return classify_dot(p);
    return classify_plain(p);
}

// Copies text into the freestore, where its pieces become component names.
char *scratch_copy(const char *text, size_t n) {
    return static_cast<char *>(QOR_FS_copy_memory(
        shared(), text, static_cast<uint32_t>(n + 1)));
}

// Splits an OS path at "/". With absolute set, the first piece may be a
// root; without it, empty pieces (a leading "/" included) are CURRENT.
bool split_os(const char *text, bool absolute, List *out) {
    *out = List{nullptr, nullptr};
    const size_t n = strlen(text);
    if (n == 0) return true;
    if (n > kMaxPath) return fail();
    char *p = scratch_copy(text, n);
    bool first = true;
    for (;;) {
        const Piece piece = scan(p);
        p[piece.length] = '\0';
        link_last(out, new_node(classify_os(piece, absolute && first), p,
                                piece.length));
        first = false;
        if (piece.last) break;
        p += piece.length + 1;
    }
    // A drive alone ("C:") names no directory.
    if (out->first == out->last && out->first->kind == ROOT) return fail();
    return true;
}

bool current_directory_list(List *out) {
    char buffer[kBufferSize];
    const char *got = qor::host::retry_eintr(
        [&] { return getcwd(buffer, sizeof buffer); });
    if (got == nullptr || buffer[0] != '/') return fail();
    return split_os(buffer, true, out);
}

// An OS path, relative ones taken against the current directory. Empty
// text gives no list.
bool parse_os(const char *text, List *out) {
    if (text[0] == '\0' || text[0] == '/' || text[1] == ':') {
        return split_os(text, true, out);
    }
    List relative;
    if (!split_os(text, false, &relative)) return false;
    if (!current_directory_list(out)) return false;
    join(out, relative);
    return true;
}

bool normalise(List *l, bool expand_host_parts);

// Rendering into a fixed buffer of QOR_PATH_MAX characters and a NUL.
struct Output {
    char *buffer;
    size_t length;
};

bool put(Output *o, const char *s, size_t n) {
    if (n > kMaxPath - o->length) return fail();
    memcpy(o->buffer + o->length, s, n);
    o->length += n;
    return true;
}

// The render mode reaches every name, and changes nothing on this host.
bool put_name(Output *o, const Component *c, unsigned render_mode) {
    (void)render_mode;
    if (!put(o, c->name, c->length)) return false;
    return c->next == nullptr || put(o, "/", 1);
}

bool render_qor_into(Output *o, const List &l) {
    for (const Component *c = l.first; c != nullptr; c = c->next) {
        if (c->kind == ROOT) {
            o->length = 0;
            if (!put(o, "/", 1)) return false;
        } else if (c->kind == OS_PART) {
            // Left only when host parts were not expanded: rendered as the
            // host path it holds.
            List host;
            const bool parsed = c->prev != nullptr
                                    ? split_os(c->name, true, &host)
                                    : parse_os(c->name, &host);
            if (!parsed || !render_qor_into(o, host)) return false;
        } else if (!put_name(o, c, 0)) {
            return false;
        }
    }
    return true;
}

bool render_qor(const List &l, char *buffer) {
    Output o{buffer, 0};
    const bool ok = render_qor_into(&o, l);
    buffer[o.length] = '\0';
    return ok;
}

bool render_os(const List &l, char *buffer, unsigned render_mode) {
    Output o{buffer, 0};
    bool ok = true;
    for (const Component *c = l.first; ok && c != nullptr; c = c->next) {
        // A drive-style root loses its letter.
        ok = c->kind == ROOT ? put(&o, "/", 1) : put_name(&o, c, render_mode);
    }
    buffer[o.length] = '\0';
    return ok;
}

bool normalise(List *l, bool expand_host_parts) {
    Component *c = l->first;
    while (c != nullptr) {
        Component *next = c->next;
        if (c->kind == CURRENT) {
            unlink(l, c);
        } else if (c->kind == PARENT) {
            Component *before = c->prev;
            if (before == nullptr || before->kind == ROOT) return fail();
            unlink(l, before);
            unlink(l, c);
        } else if (c->kind == OS_PART && expand_host_parts) {
            List host;
            const bool parsed = c->prev != nullptr
                                    ? split_os(c->name, true, &host)
                                    : parse_os(c->name, &host);
            if (!parsed) return false;
            List rest{next, next != nullptr ? l->last : nullptr};
            if (next != nullptr) next->prev = nullptr;
            List before{c->prev != nullptr ? l->first : nullptr, c->prev};
            if (before.last != nullptr) before.last->next = nullptr;
            join(&before, host);
            join(&before, rest);
            *l = before;
            // Go on with the host path's own components.
            if (host.first != nullptr) next = host.first;
        }
        c = next;
    }
    return true;
}

// ---- Path variables -----------------------------------------------------

PathVariable *find_variable(const char *name) {
    for (PathVariable *v = g_variables; v != nullptr; v = v->next) {
        if (strcmp(v->name, name) == 0) return v;
    }
    return nullptr;
}

int special_index(const char *name) {
    for (int i = 0; i < 3; ++i) {
        if (strcmp(kSpecialNames[i], name) == 0) return i;
    }
    return -1;
}

Component *keep_list(const List &l) {
    Component *first = nullptr;
    Component *prev = nullptr;
    for (const Component *c = l.first; c != nullptr; c = c->next) {
        auto *k = static_cast<Component *>(QOR_malloc(sizeof(Component)));
        k->kind = c->kind;
        k->length = c->length;
        k->name = QOR_copy_string(c->name);
        k->prev = prev;
        k->next = nullptr;
        if (prev != nullptr) {
            prev->next = k;
        } else {
            first = k;
        }
        prev = k;
    }
    return first;
}

// The special variables are normalised to an absolute OS path at their
// first use (a relative value is taken against the current directory then);
// any other variable keeps its raw value.
bool special_value(int index, const char *raw, char *buffer) {
    if (raw[0] == '\0' || g_resolving[index]) return fail();
    g_resolving[index] = true;
    List l;
    const bool ok =
        parse_os(raw, &l) && normalise(&l, true) && render_os(l, buffer, 0);
    g_resolving[index] = false;
    return ok;
}

PathVariable *resolve_variable(const char *name) {
    if (PathVariable *cached = find_variable(name)) return cached;
    // Read into the conversion's scratch: nothing to free on any exit, a
    // fatal error's included.
    const char *raw = QOR_SH_getenv(name);
    if (raw == nullptr) {
        fail();
        return nullptr;
    }
    char special[kBufferSize];
    char qor_form[kBufferSize];
    const int index = special_index(name);
    const char *value = raw;
    bool ok = true;
    if (index >= 0) {
        ok = special_value(index, raw, special);
        value = special;
    }
    List l{nullptr, nullptr};
    ok = ok && split_os(value, true, &l) && render_qor(l, qor_form);
    PathVariable *v = nullptr;
    if (ok) {
        v = static_cast<PathVariable *>(QOR_malloc(sizeof(PathVariable)));
        v->name = QOR_copy_string(name);
        v->qor_form = QOR_copy_string(qor_form);
        v->value = QOR_copy_string(value);
        v->components = keep_list(l);
        v->next = g_variables;
        g_variables = v;
    }
    return v;
}

// A fresh list of the variable's components; the names are shared with the
// cache, which never changes them.
bool variable_list(const char *name, List *out) {
    const PathVariable *v = resolve_variable(name);
    if (v == nullptr) return false;
    *out = List{nullptr, nullptr};
    for (Component *c = v->components; c != nullptr; c = c->next) {
        link_last(out, new_node(c->kind, c->name, c->length));
    }
    return true;
}

bool anchor_list(uint32_t kind, const Piece &piece, List *out) {
    switch (kind) {
        case ROOT_VAR:
            return variable_list(kSpecialNames[0], out);
        case HASH_VAR:
            return variable_list(kSpecialNames[1], out);
        case HOME_VAR:
            return variable_list(kSpecialNames[2], out);
        case ENV_VAR:
            // The name lies between "$(" and the final ")".
            piece.text[piece.length - 1] = '\0';
            return variable_list(piece.text + 2, out);
        default:
            return current_directory_list(out);
    }
}

bool parse_qor(const char *text, List *out) {
    *out = List{nullptr, nullptr};
    const size_t n = strlen(text);
    if (n == 0 || n > kMaxPath) return fail();
    char *const copy = scratch_copy(text, n);
    char *p = copy;
    bool first = true;
    for (;;) {
        const Piece piece = scan(p);
        const uint32_t kind = classify_qor(piece);
        if (kind == OS_PART) {
            // The rest of the text, slashes included, is one host path.
            Component *c =
                new_node(OS_PART, p + 1, n - static_cast<size_t>(p + 1 - copy));
            join(out, List{c, c});
            break;
        }
        p[piece.length] = '\0';
        if (kind >= ROOT_VAR) {
            List anchor;
            if (!anchor_list(kind, piece, &anchor)) return false;
            if (first && (anchor.first == nullptr ||
                          (anchor.first->kind != ROOT &&
                           anchor.first->kind != OS_PART))) {
                List base;
                if (!current_directory_list(&base)) return false;
                join(&base, anchor);
                anchor = base;
            }
            join(out, anchor);
        } else {
            Component *c = new_node(kind, p, piece.length);
            join(out, List{c, c});
        }
        first = false;
        if (piece.last) break;
        p += piece.length + 1;
    }
    if (out->first == nullptr ||
        (out->first->kind != ROOT && out->first->kind != OS_PART)) {
        return fail();
    }
    return true;
}

// ---- Public conversions -------------------------------------------------

enum class Op { os_to_qor, linkname, concat, qor_to_qor, qor_to_os, composite };

struct Request {
    Op op;
    const char *text;
    const char *tail;  // concat: the tail; composite: the entry name
    unsigned render_mode;
    unsigned form;
};

bool run(const Request &r, char *buffer) {
    List l;
    switch (r.op) {
        case Op::os_to_qor:
            return parse_os(r.text, &l) && normalise(&l, true) &&
                   render_qor(l, buffer);
        case Op::linkname:
            return split_os(r.text, false, &l) && render_qor(l, buffer);
        case Op::concat: {
            if (r.form != QOR_FORM_OS && r.form != QOR_FORM_QOR) return fail();
            List tail;
            if (!parse_os(r.text, &l) || !split_os(r.tail, false, &tail)) {
                return false;
            }
            join(&l, tail);
            if (r.form == QOR_FORM_QOR) {
                return normalise(&l, true) && render_qor(l, buffer);
            }
            return normalise(&l, false) && render_os(l, buffer, r.render_mode);
        }
        case Op::qor_to_qor:
            return parse_qor(r.text, &l) && normalise(&l, true) &&
                   render_qor(l, buffer);
        case Op::qor_to_os:
            return parse_qor(r.text, &l) && normalise(&l, false) &&
                   render_os(l, buffer, r.render_mode);
        case Op::composite: {
            if (!parse_qor(r.text, &l) || !normalise(&l, true) ||
                !render_qor(l, buffer)) {
                return false;
            }
            // A null name ends the join, as in QOR_cat_strings.
            Output o{buffer, strlen(buffer)};
            const bool ok = put(&o, "/", 1) &&
                            (r.tail == nullptr ||
                             put(&o, r.tail, strlen(r.tail)));
            buffer[o.length] = '\0';
            return ok;
        }
    }
    return fail();
}

// ---- The fast path -----------------------------------------------------
//
// Most texts the library is handed are plain absolute host paths, as qor
// paths ("/a/b") or as embedded host paths ("@/a/b"): a root and then
// names only. For them the general algorithm gives back (part of) its own
// input: every component is a name, copied unchanged, and nothing is
// dropped or spliced in. Such texts are recognised in one pass and copied
// at once; anything else takes the general algorithm.
//
// The general algorithm leaves one more trace: its scratch lands in the
// shared freestore, and when it does not fit the current chunk the
// freestore takes new chunks, which stay in its chain after the restore
// (an oversized one is freed again). So the fast path is taken only when
// all that scratch would have fitted the current chunk: then the freestore
// ends exactly as the general algorithm would leave it, chain included,
// and the result is copied by the same call to the same place.

constinit bool g_general_only = false;

bool ends_component(char c) { return c == '/' || c == '\0'; }

struct Plain {
    size_t length;      // characters of the text
    size_t components;  // names after the root
};

// The characters that need a closer look at the start of a name; any
// other first character makes a plain name, whatever follows it.
struct FirstCharacters {
    bool special[256];
};
constexpr FirstCharacters kFirst = [] {
    FirstCharacters t{};
    // The terminator of the list stands for the end of the text.
    constexpr char kList[] = "/@$_#~.";
    for (const char c : kList) t.special[static_cast<unsigned char>(c)] = true;
    return t;
}();

// True when text is "/" followed by names separated by single "/", with
// at most max_length characters in all. A name is any text but one that the
// qor parser or the OS parser treats otherwise: empty (a doubled or
// trailing "/", which restart or vanish), "." and "..", an anchor ("_",
// "#", "~", ".0"), one starting with "@" (a host part) or "$" (a possible
// variable), or one whose second character is ":" (a drive-style root, or
// nothing at all in an OS path after the first component). The rest of the
// characters ("+", ".", ":" elsewhere, any byte) only classify names that
// are all copied alike.
bool scan_plain_absolute(const char *text, size_t max_length, Plain *out) {
    if (text[0] != '/') return false;
    const char *p = text + 1;
    size_t components = 0;
    for (;;) {
        if (kFirst.special[static_cast<unsigned char>(p[0])]) {
            switch (p[0]) {
                case '_':
                case '#':
                case '~':
                    if (ends_component(p[1])) return false;
                    break;
                case '.':
                    if (ends_component(p[1]) ||
                        ((p[1] == '.' || p[1] == '0') &&
                         ends_component(p[2]))) {
                        return false;
                    }
                    break;
                default:  // the end, "/", "@", "$"
                    return false;
            }
        }
        // p[0] is a character of the name, so p[1] exists.
        if (p[1] == ':') return false;
        ++components;
        const char *q = p + 1;
        while (!ends_component(*q)) ++q;
        if (*q == '\0') {
            out->length = static_cast<size_t>(q - text);
            out->components = components;
            return out->length <= max_length;
        }
        p = q + 1;
    }
}

// The last two texts found plain, with what the scan gave. Whether a text
// is plain depends on its characters alone, and programs translate the
// same few paths in turn (an object's path, then a member's, then the
// object's again to unlock it): comparing with a remembered text costs a
// fraction of classifying it character by character.
struct PlainMemo {
    char text[kMaxPath + 1];
    size_t length;  // 0: empty slot
    size_t components;
};
constinit PlainMemo g_plain_memo[2] = {};
constinit unsigned g_plain_memo_next = 0;

bool plain_absolute(const char *text, size_t max_length, Plain *out) {
    if (text[0] != '/') return false;
    const size_t n = strlen(text);
    for (const PlainMemo &m : g_plain_memo) {
        if (m.length == n && memcmp(m.text, text, n) == 0) {
            *out = Plain{n, m.components};
            return n <= max_length;
        }
    }
    if (!scan_plain_absolute(text, max_length, out)) return false;
    if (n <= kMaxPath) {
        PlainMemo &m = g_plain_memo[g_plain_memo_next];
        g_plain_memo_next ^= 1u;
        memcpy(m.text, text, n);
        m.length = n;
        m.components = out->components;
    }
    return true;
}

size_t piece_bytes(size_t n) { return (n + 3) & ~size_t{3}; }

// Whether the general algorithm's scratch for a text of `length`
// characters and `components` names would fit the shared freestore's
// current chunk. The bound covers every case the fast path takes: the copy
// of the text, a second copy of an embedded host path, and a node for the
// root, each name and a host part.
bool scratch_fits(size_t length, size_t components) {
    const QOR_FS_allocator *fs = shared();
    const QOR_FS_chunk *c = fs->current_chunk;
    if (c == nullptr || (fs->options & QOR_FS_CLEAR) != 0 ||
        c->used > c->size) {
        return false;
    }
    const size_t blocks =
        (components + 2 + kNodesPerBlock - 1) / kNodesPerBlock;
    const size_t scratch =
        2 * piece_bytes(length + 1) + blocks * piece_bytes(kNodeBlockBytes);
    return scratch <= c->size - c->used;
}

// The part of r.text that the translation gives back, or null when the
// text needs the general algorithm.
const char *fast_result(const Request &r) {
    const char *text = r.text;
    Plain plain;
    switch (r.op) {
        case Op::qor_to_os:
            if (text[0] == '@') {
                // The OS form copies a host part as written, whatever it
                // holds; "@:" starts a drive-style root instead, and "@"
                // alone renders as nothing.
                if (text[1] == '\0' || text[1] == ':') return nullptr;
                const size_t n = strlen(text);
                return n <= kMaxPath && scratch_fits(n, 0) ? text + 1
                                                           : nullptr;
            }
            break;
        case Op::qor_to_qor:
        case Op::composite:
            if (text[0] == '@') {
                // A host part first is parsed as an OS path; a plain absolute
                // one is its own normal form. The whole text, "@" included,
                // must keep within the limit.
                return plain_absolute(text + 1, kMaxPath - 1, &plain) &&
                               scratch_fits(plain.length + 1, plain.components)
                           ? text + 1
                           : nullptr;
            }
            break;
        case Op::os_to_qor:
            break;
        default:
            return nullptr;
    }
    return plain_absolute(text, kMaxPath, &plain) &&
                   scratch_fits(plain.length, plain.components)
               ? text
               : nullptr;
}

char *lasting_copy(const char *text, bool in_freestore) {
    return in_freestore ? QOR_FS_copy_string(shared(), text)
                        : QOR_copy_string(text);
}

// The composite of a plain directory path: the directory, "/", the name;
// null when that is too long, which the general algorithm then refuses.
[[gnu::noinline]] char *fast_composite(const char *dir, const char *name,
                                       bool in_freestore) {
    const size_t n = strlen(dir);
    const size_t m = name != nullptr ? strlen(name) : 0;
    if (n + 1 + m > kMaxPath) return nullptr;
    char buffer[kBufferSize];
    memcpy(buffer, dir, n);
    buffer[n] = '/';
    memcpy(buffer + n + 1, name != nullptr ? name : "", m + 1);
    return lasting_copy(buffer, in_freestore);
}

// The general algorithm, with its working buffer in a frame of its own.
[[gnu::noinline]] char *convert_general(const Request &r, bool in_freestore) {
    const bool saved_flag = g_conversion_failed;
    const NodeBlock saved_nodes = g_nodes;
    g_conversion_failed = false;
    g_nodes = NodeBlock{nullptr, nullptr};
    QOR_FS_mark mark;
    QOR_FS_save(shared(), &mark);
    char buffer[kBufferSize];
    buffer[0] = '\0';
    run(r, buffer);
    // An empty rendering names nothing; only a link name may be empty.
    const bool failed = g_conversion_failed ||
                        (buffer[0] == '\0' && r.op != Op::linkname);
    QOR_FS_restore(shared(), &mark);
    g_conversion_failed = saved_flag;
    g_nodes = saved_nodes;
    if (failed) return nullptr;
    return lasting_copy(buffer, in_freestore);
}

char *convert(const Request &r, bool in_freestore) {
    if (r.text == nullptr || (r.op == Op::concat && r.tail == nullptr)) {
        return nullptr;
    }
    if (r.text[0] == '\0' && r.op != Op::linkname) return nullptr;
    if (!g_general_only) {
        if (const char *fast = fast_result(r)) {
            if (r.op != Op::composite) return lasting_copy(fast, in_freestore);
            if (char *joined = fast_composite(fast, r.tail, in_freestore)) {
                return joined;
            }
        }
    }
    return convert_general(r, in_freestore);
}

char *convert_text(Op op, const char *text, unsigned render_mode,
                   bool in_freestore) {
    return convert(Request{op, text, nullptr, render_mode, 0}, in_freestore);
}

}  // namespace

bool qor::paths::set_general_path_only(bool on) {
    const bool was = g_general_only;
    g_general_only = on;
    return was;
}

extern "C" {

int QOR_is_qor_path(const char *text) {
    if (text == nullptr || text[0] == '\0') return 0;
    switch (text[0]) {
        case '/':
        case '@':
            return 1;
        case '$':
            return text[1] == '(';
        case '.':
            return text[1] == '0' && (text[2] == '\0' || text[2] == '/');
        case '#':
        case '_':
        case '~':
            return text[1] == '\0' || text[1] == '/';
        default:
            return 0;
    }
}

int QOR_compare_os_names(const char *a, const char *b) {
    // Null sorts before every name.
    if (a == nullptr || b == nullptr) return (a != nullptr) - (b != nullptr);
    return strcmp(a, b);
}

char *QOR_os_to_qor(const char *os_path) {
    return convert_text(Op::os_to_qor, os_path, 0, false);
}
char *QOR_SH_os_to_qor(const char *os_path) {
    return convert_text(Op::os_to_qor, os_path, 0, true);
}

char *QOR_os_to_qor_linkname(const char *os_path) {
    return convert_text(Op::linkname, os_path, 0, false);
}
char *QOR_SH_os_to_qor_linkname(const char *os_path) {
    return convert_text(Op::linkname, os_path, 0, true);
}

char *QOR_concat_os_paths(const char *base, const char *tail,
                          unsigned int render_mode, unsigned int form) {
    return convert(Request{Op::concat, base, tail, render_mode, form}, false);
}
char *QOR_SH_concat_os_paths(const char *base, const char *tail,
                             unsigned int render_mode, unsigned int form) {
    return convert(Request{Op::concat, base, tail, render_mode, form}, true);
}

char *QOR_qor_to_absolute_qor(const char *qor_path) {
    return convert_text(Op::qor_to_qor, qor_path, 0, false);
}
char *QOR_SH_qor_to_absolute_qor(const char *qor_path) {
    return convert_text(Op::qor_to_qor, qor_path, 0, true);
}

char *QOR_qor_to_os_dir(const char *qor_path) {
    return convert_text(Op::qor_to_os, qor_path, 1, false);
}
char *QOR_SH_qor_to_os_dir(const char *qor_path) {
    return convert_text(Op::qor_to_os, qor_path, 1, true);
}

char *QOR_qor_to_os(const char *qor_path, unsigned int render_mode) {
    return convert_text(Op::qor_to_os, qor_path, render_mode, false);
}
char *QOR_SH_qor_to_os(const char *qor_path, unsigned int render_mode) {
    return convert_text(Op::qor_to_os, qor_path, render_mode, true);
}

char *QOR_composite_path(const char *dir_path, const char *name) {
    return convert(Request{Op::composite, dir_path, name, 0, 0}, false);
}
char *QOR_SH_composite_path(const char *dir_path, const char *name) {
    return convert(Request{Op::composite, dir_path, name, 0, 0}, true);
}

}  // extern "C"
