// Keeps a fuzz target's recorded failures off standard error: a message
// and its text are answered as handled, so millions of expected failures
// do not flood the fuzzer's output.
#pragma once

#include "qor/foundation.h"

namespace fuzz_support {

inline void quiet_output(void *, void *, void *call) {
    static_cast<QOR_output_message_record *>(call)->result = 0;
}

inline void quiet_text(void *, void *, void *call) {
    auto *rec = static_cast<QOR_give_message_text_record *>(call);
    if (rec->buffer != nullptr && rec->buffer_size > 0) rec->buffer[0] = '\0';
    rec->result = 0;
}

inline void quiet_messages() {
    QOR_set_callback(nullptr, "QOR_OUTPUT_MESSAGE", quiet_output, nullptr);
    QOR_set_callback(nullptr, "QOR_GIVE_MESSAGE_TEXT", quiet_text, nullptr);
}

}  // namespace fuzz_support
