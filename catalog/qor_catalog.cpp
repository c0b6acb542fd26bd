// libqor_msg: answers libqor's message callbacks from an X/Open message
// catalogue. See qor/catalog.h for the text rules and the line format.
//
// Like libqor itself this links as C against libc alone: plain records,
// fixed buffers on the stack, no C++ runtime. A fatal error may longjmp
// through the output callback's caller, so nothing here needs unwinding.

#include <dlfcn.h>
#include <nl_types.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include "qor/catalog.h"

// Where the installed catalogue lies, relative to the directory this
// library was loaded from (libdir to datadir, worked out when the build was
// configured). Relative, so an install moved to any prefix still finds it.
#ifndef QOR_MSG_CATALOGUE_FROM_LIBDIR
#define QOR_MSG_CATALOGUE_FROM_LIBDIR "../share/qor/qor.cat"
#endif

namespace {

// The catalogue set that holds the texts of message set "qor".
constexpr int kCatalogueSet = 1;
constexpr std::string_view kSetName = "qor";
constexpr std::string_view kLinePrefix = "qor: ";
// Enough for a host path at its limit plus the longest text around it.
constexpr int kLineSize = 8192;
constexpr int kPathSize = 4096;

// The open catalogue; `open` tells whether `descriptor` is valid, since the
// failure value of catopen, (nl_catd) -1, is not a constant expression.
struct Catalogue {
    bool open;
    nl_catd descriptor;
};
constinit Catalogue catalogue = {false, nullptr};

// Appends to a caller's buffer without ever writing past it. `total` keeps
// counting what did not fit, so a caller can tell how long the whole text
// was; the stored part is cut before an incomplete UTF-8 sequence.
struct Writer {
    char *buffer;
    size_t capacity;  // bytes that may hold text: size - 1
    size_t stored;
    size_t total;
    unsigned char first_dropped;

    void put(const char *text, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            if (stored < capacity && total == stored) {
                buffer[stored++] = text[i];
            } else if (total == stored) {
                first_dropped = static_cast<unsigned char>(text[i]);
            }
            ++total;
        }
    }
    void put(std::string_view text) { put(text.data(), text.size()); }
    void put(char c) { put(&c, 1); }
    void put_number(int n) {
        char digits[16];
        const int len = snprintf(digits, sizeof digits, "%d", n);
        put(digits, static_cast<size_t>(len));
    }
    bool cut() const { return total != stored; }

    // Drops the blanks and the one separator that an empty trailing
    // parameter left behind ("internal error: " -> "internal error").
    void trim_dangling_separator(size_t floor) {
        if (cut()) return;
        auto blank = [&] {
            return stored > floor &&
                   (buffer[stored - 1] == ' ' || buffer[stored - 1] == '\t');
        };
        while (blank()) --stored;
        if (stored > floor && strchr(":;,", buffer[stored - 1]) != nullptr) {
            --stored;
        }
        while (blank()) --stored;
        total = stored;
    }

    // Terminates the text; returns the length of the whole text.
    int finish() {
        if (buffer == nullptr) return static_cast<int>(total);
        size_t end = stored;
        if (cut() && (first_dropped & 0xC0) == 0x80) {
            // The cut fell inside a multi-byte character: drop its start.
            while (end > 0 && (static_cast<unsigned char>(buffer[end - 1]) &
                               0xC0) == 0x80) {
                --end;
            }
            if (end > 0 &&
                static_cast<unsigned char>(buffer[end - 1]) >= 0xC0) {
                --end;
            }
        }
        buffer[end] = '\0';
        return static_cast<int>(total);
    }
};

// A writer over buffer[0..size); a null buffer or a size below 1 stores
// nothing and is not terminated.
Writer writer_over(char *buffer, int size) {
    if (buffer == nullptr || size < 1) return Writer{nullptr, 0, 0, 0, 0};
    return Writer{buffer, static_cast<size_t>(size) - 1, 0, 0, 0};
}

// Parameter i of a null-terminated list of at most seven, or null when the
// list ends before it.
const char *parameter(char **parameters, int i) {
    if (parameters == nullptr || i >= QOR_MAX_MESSAGE_PARAMETERS) {
        return nullptr;
    }
    for (int j = 0; j <= i; ++j) {
        if (parameters[j] == nullptr) return nullptr;
    }
    return parameters[i];
}

bool empty(const char *text) { return text == nullptr || text[0] == '\0'; }

// The catalogue's text of a message of set "qor", or null.
const char *lookup(const char *set, int number) {
    if (!catalogue.open || set == nullptr || kSetName != set) return nullptr;
    return catgets(catalogue.descriptor, kCatalogueSet, number, nullptr);
}

// Writes the text with $0..$6 replaced by the parameters.
void substitute(Writer &out, const char *text, char **parameters) {
    const size_t start = out.stored;
    bool ends_in_empty_parameter = false;
    for (const char *p = text; *p != '\0';) {
        ends_in_empty_parameter = false;
        if (p[0] == '$' && p[1] >= '0' && p[1] <= '6') {
            const char *value = parameter(parameters, p[1] - '0');
            if (!empty(value)) {
                out.put(value);
            } else {
                ends_in_empty_parameter = true;
            }
            p += 2;
        } else if (p[0] == '$' && p[1] == '$') {
            out.put('$');
            p += 2;
        } else {
            out.put(*p++);
        }
    }
    if (ends_in_empty_parameter) out.trim_dangling_separator(start);
}

// The text of a message the catalogue does not hold, with its parameters
// listed so that nothing the library said is lost.
void generic_text(Writer &out, const char *set, int number,
                  char **parameters) {
    out.put("message ");
    out.put_number(number);
    out.put(" of set \"");
    out.put(set != nullptr ? set : "(null)");
    out.put('"');
    for (int i = 0; i < QOR_MAX_MESSAGE_PARAMETERS; ++i) {
        const char *value = parameter(parameters, i);
        if (value == nullptr) break;
        out.put(i == 0 ? ": $" : ", $");
        out.put_number(i);
        out.put('=');
        out.put(value);
    }
}

std::string_view kind_of(int type) {
    switch (type) {
        case QOR_MSG_FATAL: return "fatal";
        case QOR_MSG_INFORMATION: return "note";
        case QOR_MSG_IDLE_WARNING: return "warning";
        case QOR_MSG_RECORDED: return "error";
        default: return "message";
    }
}

void format_line(Writer &out, const char *set, int number, int type,
                 char **parameters) {
    out.put(kLinePrefix);
    out.put(kind_of(type));
    if (type == QOR_MSG_RECORDED) {
        out.put(' ');
        out.put_number(number + 2000);
    }
    out.put(": ");
    if (number == -1) {
        out.put(set != nullptr ? set : "(null)");
        return;
    }
    const char *text = lookup(set, number);
    if (text == nullptr) {
        generic_text(out, set, number, parameters);
        return;
    }
    substitute(out, text, parameters);
    // A recorded OS failure ends with the system's own reason.
    const char *os_text = parameter(parameters, 2);
    if (type == QOR_MSG_RECORDED && !empty(os_text)) {
        out.put(" (");
        out.put(os_text);
        const char *number_text = parameter(parameters, 3);
        if (!empty(number_text)) {
            out.put(", ");
            out.put(number_text);
        }
        out.put(')');
    }
}

void output_message(void *, void *, void *call_data) {
    auto *record = static_cast<QOR_output_message_record *>(call_data);
    char line[kLineSize];
    Writer out = writer_over(line, kLineSize - 1);  // room for the '\n'
    format_line(out, record->set, record->number, record->type,
                record->parameters);
    out.finish();
    const size_t n = strlen(line);
    line[n] = '\n';
    // One write: the line stays whole among other output.
    fwrite(line, 1, n + 1, stderr);
    record->result = 0;
}

void give_message_text(void *, void *, void *call_data) {
    auto *record = static_cast<QOR_give_message_text_record *>(call_data);
    Writer out = writer_over(record->buffer, record->buffer_size);
    const char *text = lookup(record->set, record->number);
    if (text != nullptr) substitute(out, text, record->parameters);
    out.finish();
    record->result = text != nullptr ? 0 : QOR_E_MISSING;
}

bool open_catalogue(const char *name, nl_catd *descriptor) {
    const nl_catd d = catopen(name, NL_CAT_LOCALE);
    if (d == reinterpret_cast<nl_catd>(static_cast<intptr_t>(-1))) return false;
    *descriptor = d;
    return true;
}

// Opens the catalogue installed beside this library:
// <directory of libqor_msg>/QOR_MSG_CATALOGUE_FROM_LIBDIR. The address asked
// about is one of the library's own internal data, never a function, whose
// address a program may have taken over with a PLT entry of its own.
bool open_beside_library(nl_catd *descriptor) {
    Dl_info info;
    if (dladdr(&catalogue, &info) == 0 || info.dli_fname == nullptr) {
        return false;
    }
    const char *slash = strrchr(info.dli_fname, '/');
    const int directory =
        slash == nullptr ? 1 : static_cast<int>(slash - info.dli_fname);
    char path[kPathSize];
    const int length =
        snprintf(path, sizeof path, "%.*s/%s", directory,
                 slash == nullptr ? "." : info.dli_fname,
                 QOR_MSG_CATALOGUE_FROM_LIBDIR);
    if (length < 0 || length >= static_cast<int>(sizeof path)) return false;
    return open_catalogue(path, descriptor);
}

// Opens the catalogue the caller asked for (see QOR_catalog_install).
bool open_requested(const char *path, nl_catd *descriptor) {
    if (path == nullptr) {
        // QOR_CATALOG names the file to use and, when set, is the only
        // place looked at: a mistake in it shows as a failure instead of
        // quietly giving some other catalogue.
        const char *chosen = getenv("QOR_CATALOG");
        if (chosen != nullptr && chosen[0] != '\0') {
            return open_requested(chosen, descriptor);
        }
        return open_catalogue("qor", descriptor) ||
               open_beside_library(descriptor);
    }
    if (path[0] == '\0') return false;
    if (strchr(path, '/') != nullptr) return open_catalogue(path, descriptor);
    // catopen takes a name without "/" as a catalogue name to search
    // NLSPATH for; a file name given here always means that file.
    char relative[kPathSize];
    if (snprintf(relative, sizeof relative, "./%s", path) >=
        static_cast<int>(sizeof relative)) {
        return false;
    }
    return open_catalogue(relative, descriptor);
}

void unregister_own(int slot, QOR_callback_proc own) {
    if (QOR_registered_callbacks[slot].procedure == own) {
        QOR_set_callback(nullptr, QOR_callback_names[slot], nullptr, nullptr);
    }
}

}  // namespace

extern "C" {

int QOR_catalog_install(const char *path) {
    nl_catd descriptor;
    if (!open_requested(path, &descriptor)) return QOR_MSG_UNAVAILABLE;
    if (catalogue.open) catclose(catalogue.descriptor);
    catalogue = {true, descriptor};
    QOR_set_callback(nullptr, QOR_callback_names[QOR_SLOT_OUTPUT_MESSAGE],
                     output_message, nullptr);
    QOR_set_callback(nullptr, QOR_callback_names[QOR_SLOT_GIVE_MESSAGE_TEXT],
                     give_message_text, nullptr);
    return 0;
}

void QOR_catalog_uninstall(void) {
    unregister_own(QOR_SLOT_OUTPUT_MESSAGE, output_message);
    unregister_own(QOR_SLOT_GIVE_MESSAGE_TEXT, give_message_text);
    if (catalogue.open) catclose(catalogue.descriptor);
    catalogue = {false, nullptr};
}

int QOR_catalog_format_message(const char *set, int number, int type,
                               char **parameters, char *buffer, int size) {
    Writer out = writer_over(buffer, size);
    format_line(out, set, number, type, parameters);
    return out.finish();
}

}  // extern "C"
