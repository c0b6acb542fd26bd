// Message output through the callbacks the application registers, and the
// fatal-error operations that print a message and then raise.

#include <stdio.h>
#include <string.h>

#include "foundation/internal.h"

// The one operation imported from the suite's message library. Reached
// through a weak reference so the library also runs without it.
extern "C" void MI_set_display_outlet(int outlet) __attribute__((weak));

extern "C" {
constinit const char *const QOR_callback_names[QOR_CALLBACK_SLOTS] = {
    "QOR_OUTPUT_MESSAGE", "QOR_GIVE_MESSAGE_TEXT", "QOR_DISC_FULL_HANDLER"};
constinit QOR_registered_callback
    QOR_registered_callbacks[QOR_CALLBACK_SLOTS] = {};
}

namespace {

// 1 until the first fatal error; from then on fatal messages bypass the
// message system, so a fatal error inside it cannot recurse into it.
constinit int message_system_usable = 1;

// ", $i=text" for each parameter, stopping at the first null or after seven.
void print_parameters(char **parameters) {
    if (parameters == nullptr) return;
    for (int i = 0; i < QOR_MAX_MESSAGE_PARAMETERS && parameters[i] != nullptr;
         ++i) {
        fprintf(stderr, ", $%d=%s", i, parameters[i]);
    }
}

template <class Record>
int call_slot(int slot, Record *record) {
    const QOR_registered_callback &cb = QOR_registered_callbacks[slot];
    if (cb.procedure == nullptr) return -1;
    cb.procedure(nullptr, cb.client_data, record);
    return record->result;
}

}  // namespace

extern "C" {

QOR_API int QOR_set_callback(void *, const char *name,
                             QOR_callback_proc procedure, void *client_data) {
    if (name == nullptr) return QOR_E_INVALID;
    for (int slot = 0; slot < QOR_CALLBACK_SLOTS; ++slot) {
        if (strcmp(name, QOR_callback_names[slot]) == 0) {
            QOR_registered_callbacks[slot].procedure = procedure;
            QOR_registered_callbacks[slot].client_data = client_data;
            return 0;
        }
    }
    return QOR_E_INVALID;
}

QOR_API int QOR_output_message(const char *set, int number, int type,
                               char **parameters) {
    QOR_output_message_record record = {
        QOR_callback_names[QOR_SLOT_OUTPUT_MESSAGE], 0, set, number, type,
        parameters};
    const int result = call_slot(QOR_SLOT_OUTPUT_MESSAGE, &record);
    if (result != -1) return result;

    fputs("Error: QOR Message System unavailable - output_message\n", stderr);
    fprintf(stderr, "Untranslated message: set=%s, number=%d, type=%d",
            set ? set : "(null)", number, type);
    print_parameters(parameters);
    fputc('\n', stderr);
    return QOR_MSG_UNAVAILABLE;
}

QOR_API int QOR_give_message_text(const char *set, int number,
                                  char **parameters, char *buffer, int size) {
    QOR_give_message_text_record record = {
        QOR_callback_names[QOR_SLOT_GIVE_MESSAGE_TEXT],
        0, set, number, parameters, buffer, size};
    const int result = call_slot(QOR_SLOT_GIVE_MESSAGE_TEXT, &record);
    if (result != -1) return result;

    fputs("Error: QOR Message System unavailable - give_message_text\n",
          stderr);
    return QOR_MSG_UNAVAILABLE;
}

QOR_API int QOR_call_disc_full_handler(int os_error, const char *path,
                                       int context) {
    if (QOR_registered_callbacks[QOR_SLOT_DISC_FULL_HANDLER].procedure ==
        nullptr) {
        return -1;
    }
    // The reason names slot 1, not slot 2: kept as the suite expects it.
    QOR_disc_full_record record = {
        QOR_callback_names[QOR_SLOT_GIVE_MESSAGE_TEXT], 0, os_error, context,
        path};
    return call_slot(QOR_SLOT_DISC_FULL_HANDLER, &record);
}

QOR_API void QOR_log_location(int line, const char *file) {
    char number[16];
    snprintf(number, sizeof number, "%d", line);
    char *params[3] = {number, const_cast<char *>(file), nullptr};
    QOR_output_message(qor::kSet, 2, QOR_MSG_INFORMATION, params);
}

QOR_API void QOR_fatal_error(const char *set, int number, char **parameters,
                             int exit_status) {
    const int usable = message_system_usable;
    if (MI_set_display_outlet != nullptr) MI_set_display_outlet(2);
    message_system_usable = 0;

    if (usable == 1) {
        QOR_output_message(set, number, QOR_MSG_FATAL, parameters);
    } else {
        if (number == -1) {
            fputs(set ? set : "(null)", stderr);
        } else {
            fprintf(stderr,
                    "QOR_fatal_error - Untranslated message: set=%s, "
                    "number=%d, type=%d",
                    set ? set : "(null)", number, QOR_MSG_FATAL);
        }
        print_parameters(parameters);
        fputc('\n', stderr);
    }
    QOR_raise_exception(exit_status);
}

QOR_API void QOR_fatal_error_msg(const char *set, int number, int count,
                                 int *parameter_numbers, int exit_status) {
    // Unlike QOR_fatal_error, this one leaves the display outlet alone.
    const int usable = message_system_usable;
    message_system_usable = 0;

    const bool has_params = count >= 1 && parameter_numbers != nullptr;
    const int n = !has_params ? 0
                  : count < QOR_MAX_MESSAGE_PARAMETERS
                      ? count
                      : QOR_MAX_MESSAGE_PARAMETERS;
    if (usable == 1) {
        char texts[QOR_MAX_MESSAGE_PARAMETERS][256];
        char *params[QOR_MAX_MESSAGE_PARAMETERS + 1];
        for (int i = 0; i < n; ++i) {
            texts[i][0] = '\0';
            QOR_give_message_text(set, parameter_numbers[i], nullptr, texts[i],
                                  256);
            params[i] = texts[i];
        }
        params[n] = nullptr;
        QOR_output_message(set, number, QOR_MSG_FATAL,
                           has_params ? params : nullptr);
    } else {
        fprintf(stderr,
                "QOR_fatal_error_msg - Untranslated message: set=%s, "
                "number=%d, type=%d",
                set ? set : "(null)", number, QOR_MSG_FATAL);
        for (int i = 0; i < n; ++i) {
            fprintf(stderr, ", $%d=%d", i, parameter_numbers[i]);
        }
        fputc('\n', stderr);
    }
    QOR_raise_exception(exit_status);
}

QOR_API void QOR_fatal(const char *text, const char *file, int line) {
    // The texts given here are short by construction (a unit name and a
    // fixed sentence); the buffer is generous and the output bounded anyway.
    char message[1024];
    snprintf(message, sizeof message, "File %s, Line %d: %s", file, line,
             text);
    QOR_fatal_error(message, -1, nullptr, 1);
}

}  // extern "C"
