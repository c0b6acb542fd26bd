// Shared set-up of the directory tests: a scratch store, the fatal errors
// of unit qor_dir as a child sees them, and the lock another process would
// meet on a directory's ".lock".
#pragma once

#include <regex>
#include <set>
#include <string>
#include <vector>

#include "files_fixture.h"

namespace dir_test {

using objects_test::conflicting_lock;
using objects_test::make_dir;
using objects_test::make_file;
using objects_test::Partner;
using qor_test::catch_fatal;
using qor_test::ChildResult;
using qor_test::Message;
using qor_test::MessageLog;
using qor_test::read_file;
using qor_test::run_in_child;
using qor_test::write_file;

class Dirs : public objects_test::Store {
  protected:
    // A directory of the store with its (empty) ".lock".
    std::string locked_dir(const std::string &name) {
        make_dir(os(name));
        make_file(os(name) + "/.lock");
        return os(name);
    }
};

// The kind of whole-file lock another process meets on the file: F_UNLCK,
// F_RDLCK or F_WRLCK (asked from a child, since a process never conflicts
// with its own locks). A read lock is asked about as a write request
// would meet it.
inline short lock_seen_elsewhere(const std::string &os_path) {
    const ChildResult r = run_in_child(
        [&] { printf("%d", conflicting_lock(os_path, F_WRLCK)); });
    return static_cast<short>(std::stoi(r.out));
}

// What a second process gets from QOR_lock_dir on the directory with the
// mode: "granted" or "refused" (the child ends, letting go of the lock).
inline std::string lock_elsewhere(const std::string &dir, int mode) {
    const ChildResult r = run_in_child([&] {
        QOR_file_handle *h = nullptr;
        const int got = QOR_lock_dir(dir.c_str(), mode, &h);
        printf("%s", got == 1 ? "granted" : "refused");
        if (got == 1) QOR_unlock_dir(h);
    });
    return r.out;
}

// True when the message is the fatal error of unit qor_dir with the text,
// as the output callback receives it.
inline bool is_dir_fatal(const Message &m, const std::string &text) {
    return m.number == -1 && m.type == 4 && m.null_parameters &&
           std::regex_match(m.set,
                            std::regex("File qor_dir, Line [0-9]+: " + text));
}

// What an unarmed child wrote when the failure was recorded with no
// message system, before anything else: the two text requests of the
// record and its untranslated line.
inline std::string recorded_untranslated(int status, const std::string &os,
                                         int err) {
    return "Error: QOR Message System unavailable - give_message_text\n"
           "Error: QOR Message System unavailable - give_message_text\n"
           "Error: QOR Message System unavailable - output_message\n"
           "Untranslated message: set=qor, number=" +
           std::to_string(status - 2000) + ", type=71, $0=" + os + ", $1=, $2=" +
           strerror(err) + ", $3=\n";
}

}  // namespace dir_test
