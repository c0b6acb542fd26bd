// Font alias lookup: maps an alias to a real font name through the alias
// file "fonts.alias", found on the search path or under "_/etc".
//
// The file is read once per process into a table of (alias, font name)
// pairs; until one reading reaches the end of the file, every lookup tries
// again. Nothing is ever reported: whatever goes wrong, the lookup answers
// the requested name itself.

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "foundation/host.h"
#include "objects/object_paths.h"
#include "process/font_alias.h"
#include "qor/objects.h"
#include "qor/paths.h"
#include "qor/process.h"

namespace qor::process {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// Where a field may end: a blank, the newline or the end of the piece.
bool ends_field(char c) { return is_blank(c) || c == '\n' || c == '\0'; }

// Collects one field's characters, keeping the first ones that fit.
struct Field {
    char (&text)[kAliasFieldBytes];
    int length = 0;
    void add(char c) {
        if (length < kAliasFieldBytes - 1) text[length++] = c;
    }
    void finish() { text[length] = '\0'; }
};

// Reads the field that starts at s[i] (blanks already skipped) into out and
// returns the index just after it. An empty field (nothing there, or a bad
// quoted field) leaves out empty.
int read_field(const char *s, int i, char (&out)[kAliasFieldBytes]) {
    Field field{out};
    if (s[i] != '"') {
        // Bare: up to an unescaped blank, the newline or the end. The
        // backslash is dropped and keeps the next character, except that
        // an escaped newline (or nothing at all) still ends the field.
        for (;;) {
            const char c = s[i];
            if (ends_field(c)) break;
            if (c == '\\') {
                const char next = s[i + 1];
                if (next == '\n' || next == '\0') {
                    ++i;
                    break;
                }
                field.add(next);
                i += 2;
                continue;
            }
            field.add(c);
            ++i;
        }
        field.finish();
        return i;
    }
    // Quoted: up to the next unescaped quote, which must be followed by a
    // blank, the newline or the end; otherwise the field is empty.
    ++i;
    for (;;) {
        const char c = s[i];
        if (c == '\0' || (c == '\\' && s[i + 1] == '\0')) {
            out[0] = '\0';
            return i;
        }
        if (c == '\\') {
            field.add(s[i + 1]);
            i += 2;
            continue;
        }
        if (c == '"') {
            ++i;
            if (!ends_field(s[i])) {
                out[0] = '\0';
                return i;
            }
            field.finish();
            return i;
        }
        field.add(c);
        ++i;
    }
}

int skip_blanks(const char *s, int i) {
    while (is_blank(s[i])) ++i;
    return i;
}

}  // namespace

bool parse_alias_line(const char *piece, char (&alias)[kAliasFieldBytes],
                      char (&font)[kAliasFieldBytes]) {
    int i = read_field(piece, skip_blanks(piece, 0), alias);
    if (alias[0] == '\0') return false;
    i = read_field(piece, skip_blanks(piece, i), font);
    if (font[0] == '\0') return false;
    i = skip_blanks(piece, i);
    if (piece[i] == '\n') ++i;
    return piece[i] == '\0';
}

}  // namespace qor::process

namespace {

using qor::process::kAliasFieldBytes;
using qor::process::kAliasPieceBytes;

constexpr const char kAliasFile[] = "fonts.alias";
// Looked in after the search path: the root's "etc" directory.
constexpr const char kAliasDirectories[] = "_/etc";
// The table starts with room for this many pairs and grows by as many.
constexpr int kTableStep = 32;
// Interrupted reads retried in a row before the reading gives up.
constexpr int kReadRetries = 100;

struct AliasPair {
    char *alias;
    char *font;
};

// The process-wide table. No lock guards it: one thread at a time.
struct AliasTable {
    AliasPair *pairs;
    int count;
    int room;
    bool loaded;  // the whole file was read to its end
};
constinit AliasTable g_table = {nullptr, 0, 0, false};

void drop_table() {
    for (int i = 0; i < g_table.count; ++i) {
        QOR_free(g_table.pairs[i].alias);
        QOR_free(g_table.pairs[i].font);
    }
    if (g_table.pairs != nullptr) QOR_free(g_table.pairs);
    g_table = {nullptr, 0, 0, false};
}

void append(const char *alias, const char *font) {
    if (g_table.count == g_table.room) {
        g_table.room += kTableStep;
        g_table.pairs = static_cast<AliasPair *>(QOR_realloc(
            g_table.pairs,
            static_cast<int32_t>(sizeof(AliasPair)) * g_table.room));
    }
    g_table.pairs[g_table.count++] = {QOR_copy_string(alias),
                                      QOR_copy_string(font)};
}

// Reads every piece of the stream into the table; false when a read fails
// (the table is then dropped, so the next attempt starts afresh).
bool read_pairs(FILE *stream) {
    g_table.room = kTableStep;
    g_table.pairs = static_cast<AliasPair *>(
        QOR_malloc(static_cast<int32_t>(sizeof(AliasPair)) * kTableStep));
    char piece[kAliasPieceBytes];
    char alias[kAliasFieldBytes];
    char font[kAliasFieldBytes];
    int retries = 0;
    for (;;) {
        if (fgets(piece, sizeof piece, stream) == nullptr) {
            // Only an interruption that the stream itself saw is worth
            // another try; the end of the file ends the reading.
            if (ferror(stream)) {
                if (errno == EINTR && retries < kReadRetries) {
                    ++retries;
                    clearerr(stream);
                    continue;
                }
            } else if (feof(stream)) {
                return true;
            }
            drop_table();
            return false;
        }
        retries = 0;
        if (qor::process::parse_alias_line(piece, alias, font)) {
            append(alias, font);
        }
    }
}

// Loads the table from the alias file; the shared freestore is left as it
// was found.
void load_table() {
    qor::objects::bracketed([] {
        const char *path = QOR_SH_locate(kAliasFile, QOR_PLAIN_FILE,
                                         kAliasDirectories, QOR_FORM_QOR);
        if (path == nullptr) return 0;
        int32_t readable = 0;
        if (QOR_is_accessible(path, QOR_PLAIN_FILE, QOR_ACCESS_READ,
                              &readable) != 0 ||
            readable == 0) {
            return 0;
        }
        QOR_contents_record *contents = nullptr;
        if (QOR_open_contents(path, QOR_PLAIN_FILE, QOR_OPEN_READ,
                              QOR_LOCK_NONE, &contents) != 0) {
            return 0;
        }
        FILE *stream = nullptr;
        if (QOR_get_file_ptr(contents, &stream) == 0 && stream != nullptr &&
            read_pairs(stream)) {
            g_table.loaded = true;
        }
        QOR_close_contents(contents);
        return 0;
    });
}

}  // namespace

extern "C" {

char *QOR_look_up_font(const char *name) {
    if (!g_table.loaded) load_table();
    if (name != nullptr) {
        for (int i = 0; i < g_table.count; ++i) {
            if (strcmp(name, g_table.pairs[i].alias) == 0) {
                return QOR_copy_string(g_table.pairs[i].font);
            }
        }
    }
    return QOR_copy_string(name);
}

}  // extern "C"
