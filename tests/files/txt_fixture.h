// Helpers of the txt protocol tests: saving and reading whole contents
// through the protocol, and what a save leaves beside the file.
#pragma once

#include <string>
#include <vector>

#include "files_fixture.h"

namespace files_test {

// Saves the contents through the protocol on an open writable handle.
inline void save_with(QOR_txt_handle *t, const std::string &contents) {
    QOR_txt_start_save(t);
    QOR_txt_clear_file(t);
    QOR_txt_write_string(t, contents.c_str());
    QOR_txt_end_save(t);
}

// Opens the file as a writer (update right taken), saves, closes.
inline void save_file(const std::string &p, const std::string &contents) {
    QOR_txt_handle *t = QOR_txt_open(p.c_str(), 0, 1);
    if (t == nullptr) abort();
    save_with(t, contents);
    QOR_txt_close(t);
}

// Reads the whole contents through the protocol on an open handle, with a
// buffer of the given size.
inline std::string read_with(QOR_txt_handle *t, uint32_t size = 4096) {
    std::vector<char> buffer(size);
    std::string out;
    QOR_txt_start_read(t);
    while (QOR_txt_read_line(t, buffer.data(), size) == 1) {
        out += buffer.data();
    }
    QOR_txt_end_read(t);
    return out;
}

// Opens, reads and closes: a writable reader takes no update right, so it
// can repair while a writer of another process holds the file open.
inline std::string read_file_txt(const std::string &p, bool read_only) {
    QOR_txt_handle *t = QOR_txt_open(p.c_str(), read_only ? 1 : 0, 0);
    if (t == nullptr) return "<null>";
    std::string s = read_with(t);
    QOR_txt_close(t);
    return s;
}

// Contents made of lines of a given length (newline included), total
// bytes about `bytes`; `tag` makes two versions differ in every line.
inline std::string lines_of(size_t line_length, size_t bytes, char tag) {
    std::string out;
    out.reserve(bytes + line_length);
    size_t n = 0;
    while (out.size() < bytes) {
        std::string line = std::to_string(n++) + tag;
        line.resize(line_length - 1, tag);
        out += line + "\n";
    }
    return out;
}

}  // namespace files_test
