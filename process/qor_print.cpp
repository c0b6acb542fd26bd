// Printing a file of the object store: the host's print spooler, lp, run
// through the shell.
//
// The command is formatted as it stands, with nothing quoted: a printer
// name or a path holding blanks or shell syntax reaches the shell as such.
// Callers that take those texts from users must check them first. The
// spooler's own exit status is not looked at; only a shell that could not
// be run makes printing fail.

#include <stdio.h>

#include "foundation/internal.h"
#include "objects/object_paths.h"
#include "qor/paths.h"
#include "qor/process.h"

namespace {

constexpr const char kPrintCommand[] = "lp -s -c -d%s -n%d %s";

// Room for the command with the longest OS path a translation gives and a
// printer name of up to kPrinterRoom characters. A longer printer name is
// formatted into basic space instead, so nothing is ever cut.
constexpr size_t kPrinterRoom = 256;
constexpr size_t kCommandRoom =
    sizeof kPrintCommand + kPrinterRoom + 11 /* any int */ + QOR_PATH_MAX;

int run(const char *command) {
    return QOR_execute(command, nullptr) != 0 ? QOR_E_PRINT : 0;
}

}  // namespace

extern "C" {

int QOR_print(const char *path, const char *printer, int copies) {
    QOR_ASSERT(printer != nullptr, "qor_print", "no printer name");
    char command[kCommandRoom];
    int length = 0;
    char *long_command = nullptr;
    const int status = qor::objects::bracketed([&]() -> int {
        const char *os_path = QOR_SH_qor_to_os(path, 0);
        if (os_path == nullptr) return QOR_E_UNTRANSLATABLE;
        length = snprintf(command, sizeof command, kPrintCommand, printer,
                          copies, os_path);
        if (static_cast<size_t>(length) >= sizeof command) {
            // Only a printer name longer than the room kept for it gets
            // here: the copy outlives the bracket in basic space.
            long_command = static_cast<char *>(QOR_malloc(length + 1));
            snprintf(long_command, length + 1, kPrintCommand, printer, copies,
                     os_path);
        }
        return 0;
    });
    if (status != 0) return status;
    if (long_command == nullptr) return run(command);
    const int result = run(long_command);
    QOR_free(long_command);
    return result;
}

}  // extern "C"
