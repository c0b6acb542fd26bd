// An independent model of the locator, written from its description
// rather than from its code: the list texts, the table of type defaults,
// the type of a name, and the probes a locate makes, in order, with the
// trace it writes at level 2.
//
// How directories of the lists become qor paths, and whether a probe
// exists, are given by the user of the model: the model test brings path
// rules of its own and asks the file system; the fuzz target uses the
// library's translations and accessibility test, so that it checks the
// locator's grammar and order and nothing of the layers below.
#pragma once

#include <ctype.h>
#include <qor/paths.h>

#include <optional>
#include <string>
#include <vector>

namespace locate_model {

inline bool blank(char c) { return isspace(static_cast<unsigned char>(c)); }

inline std::vector<std::string> split(const std::string &text, char at) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (;;) {
        const size_t to = text.find(at, from);
        parts.push_back(text.substr(from, to - from));
        if (to == std::string::npos) return parts;
        from = to + 1;
    }
}

// The elements of a list text. Seen another way than the locator walks
// it: the text is cut at every comma; a piece holding words (runs of
// characters that are not blanks) gives its words, an all-blank piece one
// empty element. An all-blank text has no elements at all.
inline std::vector<std::string> elements(const std::string &text) {
    std::vector<std::string> out;
    bool all_blank = true;
    for (char c : text) all_blank = all_blank && blank(c);
    if (all_blank) return out;
    for (const std::string &piece : split(text, ',')) {
        const size_t before = out.size();
        std::string word;
        for (char c : piece + " ") {
            if (!blank(c)) {
                word += c;
            } else if (!word.empty()) {
                out.push_back(word);
                word.clear();
            }
        }
        if (out.size() == before) out.emplace_back();
    }
    return out;
}

struct Entry {
    std::string type;
    std::vector<std::string> subdirs;
};

// The table of type defaults; nullopt when there is none (unset, or any
// entry malformed). Entries are the pieces between the ";".
inline std::optional<std::vector<Entry>> table(
    const std::optional<std::string> &text) {
    if (!text) return std::nullopt;
    std::vector<Entry> entries;
    for (const std::string &piece : split(*text, ';')) {
        const size_t equals = piece.find('=');
        if (equals == std::string::npos) return std::nullopt;
        const size_t open = piece.find('(', equals + 1);
        if (open == std::string::npos) return std::nullopt;
        const size_t close = piece.rfind(')');
        if (close == std::string::npos || close < open) return std::nullopt;
        Entry e;
        e.subdirs = elements(piece.substr(open + 1, close - open - 1));
        if (e.subdirs.empty()) return std::nullopt;
        size_t i = 0;
        while (blank(piece[i])) ++i;
        while (i < piece.size() && !blank(piece[i]) && piece[i] != '=') {
            e.type += piece[i++];
        }
        entries.push_back(e);
    }
    return entries;
}

// The type of a name: what follows the last "." of the part before the
// first "/".
inline std::optional<std::string> type_of(const std::string &name) {
    const std::string head = name.substr(0, name.find('/'));
    const size_t dot = head.rfind('.');
    if (dot == std::string::npos) return std::nullopt;
    return head.substr(dot + 1);
}

// Whether a text has the outward form of a qor path.
inline bool looks_like_qor_path(const std::string &t) {
    if (t.empty()) return false;
    switch (t[0]) {
        case '/':
        case '@':
            return true;
        case '$':
            return t.size() > 1 && t[1] == '(';
        case '_':
        case '#':
        case '~':
            return t.size() == 1 || t[1] == '/';
        case '.':
            return t == ".0" || t.rfind(".0/", 0) == 0;
        default:
            return false;
    }
}

// One locate: the environment it sees and its arguments.
struct Case {
    std::optional<std::string> path;      // QOR_PATH
    std::optional<std::string> defaults;  // QOR_PATH_DEFAULTS
    std::string name;
    std::optional<std::string> extra;
    unsigned type = 0;
    int form = QOR_FORM_QOR;
};

// The probes after the name itself, in order. path_dir and extra_dir make
// an element of QOR_PATH or of the extra list into a directory (or
// nullopt, which drops it).
template <class PathDir, class ExtraDir>
std::vector<std::string> search_probes(const Case &c, PathDir path_dir,
                                       ExtraDir extra_dir) {
    std::vector<std::string> dirs;
    if (c.path) {
        for (const std::string &e : elements(*c.path)) {
            if (auto d = path_dir(e)) dirs.push_back(*d);
        }
    }
    std::vector<const Entry *> chosen;
    const auto defaults = table(c.defaults);
    const auto type = type_of(c.name);
    if (defaults && type) {
        for (const Entry &e : *defaults) {
            if (e.type == *type) chosen.push_back(&e);
        }
    }
    std::vector<std::string> probes;
    for (const Entry *e : chosen) {
        for (const std::string &d : dirs) {
            for (const std::string &s : e->subdirs) {
                probes.push_back(d + "/" + (s.empty() ? "" : s + "/") +
                                 c.name);
            }
        }
    }
    if (chosen.empty()) {
        for (const std::string &d : dirs) probes.push_back(d + "/" + c.name);
    }
    if (c.extra) {
        for (const std::string &e : elements(*c.extra)) {
            if (auto d = extra_dir(e)) probes.push_back(*d + "/" + c.name);
        }
    }
    return probes;
}

// What a locate does: its level-2 trace and the probe that was found.
struct Expected {
    std::string trace;
    std::optional<std::string> found;
};

// exists(probe) says whether a probe of at most QOR_PATH_MAX characters
// exists as an object of the case's type; longer probes fail unasked.
template <class PathDir, class ExtraDir, class Exists>
Expected expect(const Case &c, PathDir path_dir, ExtraDir extra_dir,
                Exists exists, const std::string &found_text,
                const std::string &not_found_text) {
    Expected x;
    auto probe = [&](const std::string &p, bool may_exist) {
        const bool ok = may_exist && p.size() <= QOR_PATH_MAX && exists(p);
        x.trace += p + " " + (ok ? found_text : not_found_text) + "\n";
        if (ok) x.found = p;
        return ok;
    };
    if (probe(c.name, looks_like_qor_path(c.name))) return x;
    for (const std::string &p : search_probes(c, path_dir, extra_dir)) {
        if (probe(p, true)) break;
    }
    return x;
}

}  // namespace locate_model
