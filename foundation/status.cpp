// Status codes, error recording and the exception that carries a fatal
// error out of the library.

#include <errno.h>
#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "foundation/internal.h"

extern "C" {
constinit uint32_t QOR_exception_handler_state = 0;
constinit jmp_buf QOR_fatal_handler = {};
}

namespace {

// errno value -> status code, by the number (Linux values). Everything not
// listed, 0 included, is "any other OS error".
constexpr int status_of_errno(int e) {
    switch (e) {
        case 1: case 13: case 30: return QOR_E_PERMISSION;
        case 2: case 6: case 19: return QOR_E_MISSING;
        case 3: case 15: case 18: case 20: case 21: case 25: case 38:
            return QOR_E_WRONG_KIND;
        case 4: return QOR_E_INTERRUPTED;
        case 5: case 8: case 10: case 16: case 26: case 29: case 32: case 43:
            return QOR_E_IO;
        case 7: case 11: case 12: case 23: case 24: case 27: case 28: case 31:
        case 36: case 37:
            return QOR_E_RESOURCE;
        case 9: return QOR_E_BAD_DESCRIPTOR;
        case 14: case 22: case 33: case 34: case 42: return QOR_E_INVALID;
        case 17: return QOR_E_EXISTS;
        case 35: return QOR_E_DEADLOCK;
        case 39: return QOR_E_NOT_EMPTY;
        default: return QOR_E_OTHER;
    }
}
static_assert(status_of_errno(0) == QOR_E_OTHER);
static_assert(status_of_errno(EINTR) == QOR_E_INTERRUPTED);
static_assert(status_of_errno(ENOSPC) == QOR_E_RESOURCE);

constexpr int kTextSize = 256;

// Text of a context code, through the message system, into buf.
void context_text(int context, char *buf) {
    buf[0] = '\0';
    QOR_give_message_text(qor::kSet, context - 2000, nullptr, buf, kTextSize);
}

}  // namespace

extern "C" {

QOR_API int QOR_record_qor_error(int status, const char *name, int context) {
    char ctx[kTextSize];
    context_text(context, ctx);
    char empty[1] = "";
    char *params[4] = {const_cast<char *>(name), ctx, empty, nullptr};
    QOR_output_message(qor::kSet, status - 2000, QOR_MSG_RECORDED, params);
    return status;
}

QOR_API int QOR_record_os_error(int os_error, const char *name, int context) {
    const int status = status_of_errno(os_error);
    char ctx[kTextSize];
    context_text(context, ctx);

    errno = 0;
    char *os_text = strerror(os_error);
    char empty[1] = "";
    if (errno != 0) os_text = empty;

    char number[16];
    snprintf(number, sizeof number, "%d", os_error);
    char *number_params[2] = {number, nullptr};
    char wording[kTextSize];
    wording[0] = '\0';
    QOR_give_message_text(qor::kSet, 3, number_params, wording, kTextSize);

    char *params[5] = {const_cast<char *>(name), ctx, os_text, wording,
                       nullptr};
    QOR_output_message(qor::kSet, status - 2000, QOR_MSG_RECORDED, params);
    return status;
}

QOR_API void QOR_raise_exception(int status) {
    switch (QOR_exception_handler_state) {
        case 1:
            QOR_exception_handler_state = 2;
            longjmp(QOR_fatal_handler, status);
        case 0:
            exit(3);
        case 2:
            fprintf(stderr,
                    "QOR_raise_exception:\tEXCEPTION HANDLER ALREADY ACTIVE"
                    "\tstatus=%d\n",
                    status);
            exit(3);
        default:
            return;
    }
}

}  // extern "C"
