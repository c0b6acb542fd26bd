// One locate checked against the model of locate_model.h, for the fuzz
// target over the two list grammars and for the test that replays its
// corpus. Links the static library: the table of type defaults, read once
// per process otherwise, is dropped before every input.
//
// An input is a flags byte, then QOR_PATH, QOR_PATH_DEFAULTS, the name and
// the extra list, separated by NUL bytes (missing ones are empty):
//   flags bit 0  object type 1 (a directory) instead of 0
//         bit 1  form QOR_FORM_QOR instead of QOR_FORM_OS
//         bit 2  QOR_PATH is set
//         bit 3  QOR_PATH_DEFAULTS is set
//         bit 4  an extra list is given
//         bit 5  the _SH_ form is called
// Directories of the lists are made with the library's own translations
// and probes tested with its accessibility test, so the check covers the
// locator's grammars and order of probes, not the layers below. The trace
// at level 2, on standard error, must be exactly the model's.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "paths/locate_internal.h"
#include <qor/objects.h>
#include "tests/fuzz/locate_model.h"

namespace locate_check {

inline std::optional<std::string> owned(char *text) {
    if (text == nullptr) return std::nullopt;
    std::string s = text;
    QOR_free(text);
    return s;
}

inline void refuse_texts(void *, void *, void *call) {
    static_cast<QOR_give_message_text_record *>(call)->result = 1;
}

// Once per process: the locator's own trace texts, and level 2.
inline void set_up() {
    static bool done = false;
    if (done) return;
    done = true;
    QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", refuse_texts, nullptr);
    QOR_set_locate_trace_level(2);
}

struct Decoded {
    locate_model::Case c;
    bool in_shared = false;
};

inline Decoded decode(const uint8_t *data, size_t size) {
    Decoded d;
    const uint8_t flags = size > 0 ? data[0] : 0;
    std::vector<std::string> fields(4);
    size_t field = 0;
    for (size_t i = 1; i < size && field < fields.size(); ++i) {
        if (data[i] == '\0') {
            ++field;
        } else {
            fields[field] += static_cast<char>(data[i]);
        }
    }
    d.c.type = flags & 1;
    d.c.form = (flags & 2) ? QOR_FORM_QOR : QOR_FORM_OS;
    if (flags & 4) d.c.path = fields[0];
    if (flags & 8) d.c.defaults = fields[1];
    d.c.name = fields[2];
    if (flags & 16) d.c.extra = fields[3];
    d.in_shared = (flags & 32) != 0;
    return d;
}

// Runs the locate with standard error caught; returns the result.
inline std::optional<std::string> run(const Decoded &d, std::string *trace) {
    const int sink = memfd_create("locate-trace", MFD_CLOEXEC);
    if (sink < 0) abort();
    fflush(stderr);
    const int saved = dup(2);
    dup2(sink, 2);

    const locate_model::Case &c = d.c;
    const char *extra = c.extra ? c.extra->c_str() : nullptr;
    std::optional<std::string> result;
    if (d.in_shared) {
        QOR_FS_mark mark;
        QOR_FS_save(&QOR_SH_fs_allocator, &mark);
        const char *r = QOR_SH_locate(c.name.c_str(), c.type, extra, c.form);
        if (r != nullptr) result = r;
        QOR_FS_restore(&QOR_SH_fs_allocator, &mark);
    } else {
        result = owned(QOR_locate(c.name.c_str(), c.type, extra, c.form));
    }

    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    const off_t length = lseek(sink, 0, SEEK_END);
    trace->assign(static_cast<size_t>(length), '\0');
    if (length > 0 && pread(sink, trace->data(), trace->size(), 0) != length) {
        abort();
    }
    close(sink);
    return result;
}

// Problems found with one input; none when the locate agrees with the
// model.
inline std::vector<std::string> check_input(const uint8_t *data,
                                            size_t size) {
    set_up();
    const Decoded d = decode(data, size);
    const locate_model::Case &c = d.c;
    auto set = [](const char *name, const std::optional<std::string> &v) {
        if (v) {
            setenv(name, v->c_str(), 1);
        } else {
            unsetenv(name);
        }
    };
    set("QOR_PATH", c.path);
    set("QOR_PATH_DEFAULTS", c.defaults);
    qor::paths::forget_locate_defaults();

    std::string trace;
    const std::optional<std::string> got = run(d, &trace);

    const locate_model::Expected want = locate_model::expect(
        c,
        [](const std::string &e) { return owned(QOR_os_to_qor(e.c_str())); },
        [](const std::string &e) {
            return owned(QOR_qor_to_absolute_qor(e.c_str()));
        },
        [&](const std::string &p) {
            int32_t flag = 0;
            return QOR_is_accessible(p.c_str(), c.type, QOR_ACCESS_EXISTS,
                                     &flag) == 0 &&
                   flag != 0;
        },
        "-- succeeded", "-- failed");
    std::optional<std::string> result;
    if (want.found) {
        result = owned(c.form == QOR_FORM_QOR
                           ? QOR_qor_to_absolute_qor(want.found->c_str())
                           : QOR_qor_to_os(want.found->c_str(), c.type));
    }

    std::vector<std::string> problems;
    if (trace != want.trace) {
        problems.push_back("trace differs from the model's:\n--- expected\n" +
                           want.trace + "--- got\n" + trace);
    }
    if (got != result) {
        problems.push_back("result \"" + got.value_or("<null>") +
                           "\", the model's \"" + result.value_or("<null>") +
                           "\"");
    }
    if (!problems.empty()) {
        problems.insert(problems.begin(),
                        "QOR_PATH=" + c.path.value_or("<unset>") +
                            " QOR_PATH_DEFAULTS=" +
                            c.defaults.value_or("<unset>") + " name=" +
                            c.name + " extra=" + c.extra.value_or("<null>"));
    }
    return problems;
}

}  // namespace locate_check
