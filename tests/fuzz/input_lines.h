// Splits a fuzz input into the C strings a target hands to the library:
// the bytes cut at each newline, a zero byte cutting like a newline (no
// C string can hold one). There is always at least one piece.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace fuzz_support {

inline std::vector<std::string> input_lines(const uint8_t *data,
                                            size_t size) {
    std::vector<std::string> lines(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '\n' || data[i] == '\0') {
            lines.emplace_back();
        } else {
            lines.back() += static_cast<char>(data[i]);
        }
    }
    return lines;
}

}  // namespace fuzz_support
