// Invariants of the path translations, checked on every result by the
// fuzz target and by the test that replays its corpus.
//
// Each input runs through every public translation, in both the owned and
// the shared-freestore form:
//  - owned and shared forms agree;
//  - an owned form leaves the shared freestore exactly as it found it, a
//    shared form adds its result and nothing else;
//  - results are at most QOR_PATH_MAX characters;
//  - qor and OS results of a normalising translation are absolute and
//    normal: no "." or ".." component, no empty component;
//  - a link name comes back as it went in;
//  - without an embedded host path, the OS form equals the absolute qor
//    form, and translating an absolute qor result again gives it unchanged;
//  - where the static library's switch to the general algorithm is at hand
//    (the fuzz target, the internal path tests), every translation with a
//    fast path gives the same result with it as without, and leaves the
//    shared freestore in the same state: the same current chunk, use,
//    oversized count and chain length, and its result in the same place.
#pragma once

#include <dirent.h>
#include <qor/qor.h>
#include <stdint.h>
#include <string.h>

#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace path_check {

struct FsState {
    QOR_FS_chunk *chunk;
    uint32_t used;
    uint32_t oversized;
    bool operator==(const FsState &) const = default;
};

inline FsState fs_state() {
    QOR_FS_chunk *c = QOR_SH_fs_allocator.current_chunk;
    return FsState{c, c != nullptr ? c->used : 0,
                   QOR_SH_fs_allocator.oversized_count};
}

// A fresh freestore has no chunk, and restoring a mark of a fresh freestore
// leaves its first chunk current: start from a freestore in use, so that
// "unchanged" is exact.
inline void warm_freestore() {
    if (QOR_SH_fs_allocator.current_chunk != nullptr) return;
    QOR_FS_mark mark;
    QOR_FS_save(&QOR_SH_fs_allocator, &mark);
    QOR_FS_malloc(&QOR_SH_fs_allocator, 4);
    QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
}

inline uint32_t piece_size(size_t text_length) {
    return static_cast<uint32_t>((text_length + 1 + 3) & ~size_t{3});
}

// Runs the owned form and the shared form of one translation, checks what
// each did to the shared freestore and that they agree; returns the result
// (nullopt for null) and adds any violation to problems.
inline std::optional<std::string> both_forms(
    const std::string &what, const std::function<char *()> &owned,
    const std::function<char *()> &in_freestore,
    std::vector<std::string> &problems) {
    warm_freestore();
    const FsState before = fs_state();
    char *o = owned();
    if (!(fs_state() == before)) {
        problems.push_back(what + ": owned form changed the shared freestore");
    }
    std::optional<std::string> result;
    if (o != nullptr) {
        result = std::string(o);
        QOR_free(o);
    }

    QOR_FS_mark mark;
    QOR_FS_save(&QOR_SH_fs_allocator, &mark);
    const FsState start = fs_state();
    char *s = in_freestore();
    const FsState after = fs_state();
    if (s == nullptr) {
        if (!(after == start)) {
            problems.push_back(what +
                               ": failed shared form changed the freestore");
        }
    } else {
        const uint32_t size = piece_size(strlen(s));
        const bool in_place =
            after.chunk == start.chunk &&
            s == reinterpret_cast<char *>(start.chunk) + start.used &&
            after.used == start.used + size;
        const bool new_chunk =
            after.chunk != start.chunk &&
            s == reinterpret_cast<char *>(after.chunk) + 16 &&
            after.used == 16 + size;
        if (!in_place && !new_chunk) {
            problems.push_back(what +
                               ": shared form left more than its result");
        }
    }
    const std::optional<std::string> shared =
        s != nullptr ? std::optional<std::string>(s) : std::nullopt;
    QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
    if (!(fs_state() == start)) {
        problems.push_back(what + ": restoring the mark did not restore");
    }
    if (shared != result) {
        problems.push_back(what + ": owned \"" + result.value_or("<null>") +
                           "\" but shared \"" + shared.value_or("<null>") +
                           "\"");
    }
    return result;
}

// ---- Fast path against the general algorithm -----------------------------

// What one translation did to the shared freestore, in terms that do not
// depend on where the system allocator put a chunk: which chunk of the
// chain is current, its use, the oversized count, the chain's length, and
// where in the current chunk a shared result lies (0 for an owned one).
struct Outcome {
    std::optional<std::string> text;
    size_t current_index;
    uint32_t used;
    uint32_t oversized;
    size_t chunks;
    intptr_t result_offset;
    bool operator==(const Outcome &) const = default;
};

inline std::string describe(const Outcome &o) {
    return "\"" + o.text.value_or("<null>") + "\" (chunk " +
           std::to_string(o.current_index) + " of " +
           std::to_string(o.chunks) + ", used " + std::to_string(o.used) +
           ", oversized " + std::to_string(o.oversized) + ", result at " +
           std::to_string(o.result_offset) + ")";
}

// Sets the shared freestore up afresh: one chunk, with `fill` bytes in use
// beyond its first piece (a fill beyond the chunk's room moves on to a
// second chunk, or to an oversized one).
inline void fresh_freestore(uint32_t fill) {
    QOR_FS_destroy(&QOR_SH_fs_allocator);
    warm_freestore();
    if (fill > 0) QOR_FS_malloc(&QOR_SH_fs_allocator, fill);
}

// Runs fn on a fresh freestore filled as given.
inline Outcome outcome_of(const std::function<char *()> &fn,
                          bool in_freestore, uint32_t fill) {
    fresh_freestore(fill);
    char *r = fn();
    Outcome o{};
    QOR_FS_chunk *current = QOR_SH_fs_allocator.current_chunk;
    for (QOR_FS_chunk *c = QOR_SH_fs_allocator.first_chunk; c != nullptr;
         c = c->next) {
        if (c == current) o.current_index = o.chunks;
        ++o.chunks;
    }
    o.used = current != nullptr ? current->used : 0;
    o.oversized = QOR_SH_fs_allocator.oversized_count;
    if (r != nullptr) {
        o.text = std::string(r);
        if (in_freestore) {
            o.result_offset = r - reinterpret_cast<char *>(current);
        } else {
            QOR_free(r);
        }
    }
    return o;
}

// The switch of the static library: sets "general algorithm only", returns
// the previous setting.
using GeneralSwitch = bool (*)(bool);

// Runs fn with the fast path allowed and then with the general algorithm
// only, each from the same fresh freestore, and reports any difference.
inline void same_both_ways(const std::string &what,
                           const std::function<char *()> &fn,
                           bool in_freestore, uint32_t fill,
                           GeneralSwitch general_only,
                           std::vector<std::string> &problems) {
    const Outcome fast = outcome_of(fn, in_freestore, fill);
    const bool was = general_only(true);
    const Outcome general = outcome_of(fn, in_freestore, fill);
    general_only(was);
    if (!(fast == general)) {
        problems.push_back(what + ": fast path gave " + describe(fast) +
                           ", the general algorithm " + describe(general));
    }
}

// Every translation with a fast path, owned and shared, with two render
// modes and the entry name given, compared both ways from a freestore
// whose chunk has `fill` bytes more in use, so that the general
// algorithm's scratch fits it or not. Leaves the shared freestore afresh.
inline void fast_path_agrees_at(const std::string &text, const char *name,
                                uint32_t fill, GeneralSwitch general_only,
                                std::vector<std::string> &problems) {
    const char *t = text.c_str();
    const std::string quoted =
        " \"" + text + "\" at fill " + std::to_string(fill);
    auto both = [&](const std::string &what,
                    const std::function<char *()> &owned,
                    const std::function<char *()> &in_freestore) {
        same_both_ways(what + quoted, owned, false, fill, general_only,
                       problems);
        same_both_ways("SH " + what + quoted, in_freestore, true, fill,
                       general_only, problems);
    };
    both("qor_to_absolute_qor", [&] { return QOR_qor_to_absolute_qor(t); },
         [&] { return QOR_SH_qor_to_absolute_qor(t); });
    for (unsigned mode = 0; mode <= 4; mode += 4) {
        both("qor_to_os", [&] { return QOR_qor_to_os(t, mode); },
             [&] { return QOR_SH_qor_to_os(t, mode); });
    }
    both("qor_to_os_dir", [&] { return QOR_qor_to_os_dir(t); },
         [&] { return QOR_SH_qor_to_os_dir(t); });
    both("os_to_qor", [&] { return QOR_os_to_qor(t); },
         [&] { return QOR_SH_os_to_qor(t); });
    both(std::string("composite_path with ") + (name ? name : "null"),
         [&] { return QOR_composite_path(t, name); },
         [&] { return QOR_SH_composite_path(t, name); });
    fresh_freestore(0);
}

// The same with chunks of `chunk_size` bytes in the shared freestore, so
// that texts near the length limit can fit a chunk; the chunk size is put
// back afterwards.
inline void fast_path_agrees_in_chunks(const std::string &text,
                                       const char *name, uint32_t fill,
                                       uint32_t chunk_size,
                                       GeneralSwitch general_only,
                                       std::vector<std::string> &problems) {
    const uint32_t before = QOR_SH_fs_allocator.chunk_size;
    QOR_FS_destroy(&QOR_SH_fs_allocator);
    QOR_FS_initialise(&QOR_SH_fs_allocator, chunk_size, 0);
    fast_path_agrees_at(text, name, fill, general_only, problems);
    QOR_FS_destroy(&QOR_SH_fs_allocator);
    QOR_FS_initialise(&QOR_SH_fs_allocator, before, 0);
}

// Absolute, and no ".", ".." or empty component ("/" alone is the root).
inline bool is_normal_absolute(const std::string &p) {
    if (p.empty() || p[0] != '/') return false;
    if (p == "/") return true;
    if (p.back() == '/') return false;
    size_t start = 1;
    for (;;) {
        const size_t slash = p.find('/', start);
        const std::string c = p.substr(
            start, slash == std::string::npos ? std::string::npos
                                              : slash - start);
        if (c.empty() || c == "." || c == "..") return false;
        if (slash == std::string::npos) return true;
        start = slash + 1;
    }
}

// True when some component of a qor path starts with "@" (an embedded host
// path, which the OS form copies as written).
inline bool has_host_part(const std::string &qor) {
    size_t start = 0;
    for (;;) {
        if (start < qor.size() && qor[start] == '@') return true;
        const size_t slash = qor.find('/', start);
        if (slash == std::string::npos) return false;
        start = slash + 1;
    }
}

inline void check_normal(const std::string &what,
                         const std::optional<std::string> &r,
                         std::vector<std::string> &problems) {
    if (!r) return;
    if (r->size() > QOR_PATH_MAX) {
        problems.push_back(what + ": result longer than the limit");
    }
    if (!is_normal_absolute(*r)) {
        problems.push_back(what + ": result \"" + *r + "\" is not normal");
    }
}

// Checks every translation on one input. The text is cut at its first NUL;
// for the concatenation it is split at its first newline into base and
// tail, and its length picks the render mode and the form (0, 1, and now
// and then an invalid 2). With the general switch, the fast path is also
// compared with the general algorithm on the whole text and on the base
// (the tail then the entry name of a composite path), from a freestore
// filled to a level the text picks.
inline std::vector<std::string> check_text(
    const std::string &input, GeneralSwitch general_only = nullptr) {
    std::vector<std::string> problems;
    const std::string text = input.substr(0, input.find('\0'));
    const char *t = text.c_str();

    if (QOR_is_qor_path(t) != 0 && QOR_is_qor_path(t) != 1) {
        problems.push_back("is_qor_path: answer is neither 0 nor 1");
    }

    const auto abs = both_forms(
        "qor_to_absolute_qor", [&] { return QOR_qor_to_absolute_qor(t); },
        [&] { return QOR_SH_qor_to_absolute_qor(t); }, problems);
    check_normal("qor_to_absolute_qor", abs, problems);
    if (abs) {
        // Anchors are fixed for the process and the result has none left
        // (unless a component happens to look like one).
        const auto again = both_forms(
            "qor_to_absolute_qor again",
            [&] { return QOR_qor_to_absolute_qor(abs->c_str()); },
            [&] { return QOR_SH_qor_to_absolute_qor(abs->c_str()); },
            problems);
        const bool anchor_like =
            abs->find("/_") != std::string::npos ||
            abs->find("/#") != std::string::npos ||
            abs->find("/~") != std::string::npos ||
            abs->find("/.0") != std::string::npos ||
            abs->find("/$(") != std::string::npos ||
            abs->find("/@") != std::string::npos ||
            abs->find(':') != std::string::npos;
        if (!anchor_like && again != abs) {
            problems.push_back("qor_to_absolute_qor is not idempotent on \"" +
                               *abs + "\"");
        }
    }

    const unsigned mode = static_cast<unsigned>(text.size() % 5);
    const auto os = both_forms(
        "qor_to_os", [&] { return QOR_qor_to_os(t, mode); },
        [&] { return QOR_SH_qor_to_os(t, mode); }, problems);
    const auto os_dir = both_forms(
        "qor_to_os_dir", [&] { return QOR_qor_to_os_dir(t); },
        [&] { return QOR_SH_qor_to_os_dir(t); }, problems);
    if (os != os_dir) problems.push_back("qor_to_os and qor_to_os_dir differ");
    if (os && os->size() > QOR_PATH_MAX) {
        problems.push_back("qor_to_os: result longer than the limit");
    }
    if (!has_host_part(text)) {
        if (os != abs) {
            problems.push_back("qor_to_os \"" + os.value_or("<null>") +
                               "\" differs from the absolute qor path \"" +
                               abs.value_or("<null>") + "\"");
        }
    } else if (os && os->empty()) {
        problems.push_back("qor_to_os: empty result");
    }

    const auto from_os = both_forms(
        "os_to_qor", [&] { return QOR_os_to_qor(t); },
        [&] { return QOR_SH_os_to_qor(t); }, problems);
    check_normal("os_to_qor", from_os, problems);
    if (from_os) {
        const auto back = both_forms(
            "os_to_qor again", [&] { return QOR_os_to_qor(from_os->c_str()); },
            [&] { return QOR_SH_os_to_qor(from_os->c_str()); }, problems);
        if (back != from_os) {
            problems.push_back("os_to_qor is not idempotent on \"" +
                               *from_os + "\"");
        }
    }

    const auto link = both_forms(
        "os_to_qor_linkname", [&] { return QOR_os_to_qor_linkname(t); },
        [&] { return QOR_SH_os_to_qor_linkname(t); }, problems);
    if (text.size() <= QOR_PATH_MAX ? link != text : link.has_value()) {
        problems.push_back("os_to_qor_linkname did not give its text back");
    }

    const size_t newline = text.find('\n');
    const std::string base = text.substr(0, newline);
    const std::string tail =
        newline == std::string::npos ? "" : text.substr(newline + 1);
    const unsigned form = static_cast<unsigned>(text.size() % 7 == 6 ? 2
                                                : text.size() % 2);
    const auto cat = both_forms(
        "concat_os_paths",
        [&] {
            return QOR_concat_os_paths(base.c_str(), tail.c_str(), mode, form);
        },
        [&] {
            return QOR_SH_concat_os_paths(base.c_str(), tail.c_str(), mode,
                                          form);
        },
        problems);
    check_normal("concat_os_paths", cat, problems);
    if (form > 1 && cat) problems.push_back("concat accepted an unknown form");

    if (general_only != nullptr) {
        uint32_t fill = 0;
        for (const unsigned char c : text) fill = fill * 31 + c;
        fill %= 2100;
        fast_path_agrees_at(text, ".lock", fill, general_only, problems);
        fast_path_agrees_at(base, tail.c_str(), fill, general_only, problems);
        fast_path_agrees_at(base, nullptr, 2016 - fill % 600, general_only,
                            problems);
        if (text.size() > 900) {
            // Long texts fit only a chunk larger than the shared
            // freestore's usual one.
            fast_path_agrees_in_chunks(text, ".lock", fill, 4 * QOR_PATH_MAX,
                                       general_only, problems);
            fast_path_agrees_in_chunks(base, tail.c_str(), 0,
                                       4 * QOR_PATH_MAX, general_only,
                                       problems);
        }
    }
    return problems;
}

inline std::vector<std::string> check_input(
    const uint8_t *data, size_t size, GeneralSwitch general_only = nullptr) {
    return check_text(std::string(reinterpret_cast<const char *>(data), size),
                      general_only);
}

// Replays the seeds in the corpus directory `dir` (files not starting with
// "."): the problems of every seed, each after its file name. `seeds`
// counts the seeds read; -1 when the directory cannot be read.
inline std::vector<std::string> replay_corpus(
    const std::string &dir, int *seeds, GeneralSwitch general_only = nullptr) {
    std::vector<std::string> problems;
    *seeds = -1;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return problems;
    *seeds = 0;
    while (const dirent *e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream in(dir + "/" + e->d_name, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        for (const auto &p : check_text(s.str(), general_only)) {
            problems.push_back(std::string(e->d_name) + ": " + p);
        }
        ++*seeds;
    }
    closedir(d);
    return problems;
}

// The anchors in force while fuzzing and replaying: set before the first
// translation of the process.
inline void set_fuzz_environment() {
    setenv("QOR_ROOT", "/opt/q", 1);
    setenv("QOR_HASH", "/var/q/hash", 1);
    setenv("HOME", "/home/u", 1);
    setenv("X", "/data", 1);
    setenv("Y", "sub", 1);
    setenv("Z", "../up/./z", 1);
    unsetenv("UNSET");
}

}  // namespace path_check
