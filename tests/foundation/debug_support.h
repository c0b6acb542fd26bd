// Helpers for the debug allocator tests: the exact lines of the freestore
// dump and of the free check, and a probe telling whether the debug
// allocator really kept a block.
#pragma once

#include <gtest/gtest.h>
#include <setjmp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <functional>
#include <string>
#include <vector>

#include "harness.h"

#if defined(__SANITIZE_ADDRESS__)
#define QOR_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QOR_TEST_ASAN 1
#endif
#endif

namespace debug_test {

inline constexpr unsigned char kGuard[4] = {0x0F, 0x09, 0x17, 0x7F};

inline const std::string kDumpHeader = "\n\nDUMPING FREESTORE LOG ... \n";
inline const std::string kDumpEnd = "END OF FREESTORE DUMP\n";

inline std::string hex(const void *p) {
    char text[32];
    snprintf(text, sizeof text, "%lx",
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

// A dump line of an allocated block.
inline std::string allocated_line(const void *p, int count, int unit_size,
                                  int line, const std::string &file) {
    return hex(p) + ": " + std::to_string(count) + " units of " +
           std::to_string(unit_size) + " bytes allocated at " +
           std::to_string(line) + " of " + file + "\n";
}

// A dump line of a block whose record is no longer in use.
inline std::string deallocated_line(const void *p, int count, int unit_size,
                                    int line, const std::string &file,
                                    int free_line,
                                    const std::string &free_file) {
    return hex(p) + ": " + std::to_string(count) + " units of " +
           std::to_string(unit_size) + " bytes allocated at " +
           std::to_string(line) + " of " + file + " and deallocated at " +
           std::to_string(free_line) + " of " + free_file + "\n";
}

inline std::string already_freed_line(int line, const std::string &file) {
    return "error: " + std::to_string(line) + " of " + file +
           ": memory has already been freed\n";
}

inline std::string last_use_line(int line, const std::string &file,
                                 int free_line, const std::string &free_file) {
    return "\tLast use was possibly: allocation at " + std::to_string(line) +
           " of " + file + " and free at " + std::to_string(free_line) +
           " of " + free_file + "\n";
}

inline std::string overrun_line(int line, const std::string &file) {
    return "Error: " + std::to_string(line) + " of " + file +
           ": memory written beyond original allocation boundary\n";
}

// What QOR_freestore_dump writes.
inline std::string dump() {
    qor_test::StderrCapture capture;
    QOR_freestore_dump();
    return capture.take();
}

// What fn writes to standard error.
inline std::string stderr_of(const std::function<void()> &fn) {
    qor_test::StderrCapture capture;
    fn();
    return capture.take();
}

#if defined(QOR_TEST_ASAN)
// The sanitizer's allocator knows which of its blocks are live.
extern "C" int __sanitizer_get_ownership(const volatile void *p);

inline bool still_allocated(const void *block, size_t) {
    return __sanitizer_get_ownership(block) != 0;
}
#else
// True when `bytes`-sized system allocations do not land on block. glibc
// hands a block that was just freed straight back to the next allocation
// of its size, so a block the debug allocator had really released would
// be found here.
inline bool still_allocated(const void *block, size_t bytes) {
    std::vector<void *> probes;
    bool found = false;
    for (int i = 0; i < 8; ++i) {
        void *p = malloc(bytes);
        if (p == block) found = true;
        probes.push_back(p);
    }
    for (void *p : probes) free(p);
    return !found;
}
#endif

// The value a fatal error jumps with when fn raises one with the handler
// armed; 0 when fn returns.
inline int fatal_jump_value(const std::function<void()> &fn) {
    QOR_exception_handler_state = 1;
    const int value = setjmp(QOR_fatal_handler);
    if (value == 0) fn();
    QOR_exception_handler_state = 0;
    return value;
}

// The fallback text of the exhaustion fatal error when no message callback
// is registered.
inline const std::string kExhaustedStderr =
    "Error: QOR Message System unavailable - output_message\n"
    "Untranslated message: set=qor, number=11, type=4\n";

}  // namespace debug_test
