// Fuzzes the font alias file's line grammar: every input is read as a whole
// alias file, cut into pieces by fgets as the library reads it, and each
// piece parsed by the library's own line parser; the fields it keeps must
// be those of the independent reading in font_alias_model.h, piece by
// piece and for the whole file. Any difference aborts with both readings
// on standard error.

#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <string_view>
#include <vector>

#include "process/font_alias.h"
#include "tests/fuzz/font_alias_model.h"

namespace {

using qor::process::kAliasFieldBytes;
using qor::process::kAliasPieceBytes;

// The library's reading of one piece.
std::optional<font_model::Alias> library_line(const std::string &piece) {
    char alias[kAliasFieldBytes];
    char font[kAliasFieldBytes];
    if (!qor::process::parse_alias_line(piece.c_str(), alias, font)) {
        return std::nullopt;
    }
    return font_model::Alias{alias, font};
}

// The library's reading of the whole file, pieces cut by fgets.
std::vector<font_model::Alias> library_file(const uint8_t *data, size_t size) {
    std::vector<font_model::Alias> out;
    if (size == 0) return out;
    FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "r");
    if (f == nullptr) abort();
    char piece[kAliasPieceBytes];
    char alias[kAliasFieldBytes];
    char font[kAliasFieldBytes];
    while (fgets(piece, sizeof piece, f) != nullptr) {
        if (qor::process::parse_alias_line(piece, alias, font)) {
            out.push_back({alias, font});
        }
    }
    fclose(f);
    return out;
}

[[noreturn]] void differ(const char *what, const std::string &piece) {
    fprintf(stderr, "font alias readings differ (%s) on piece [%s]\n", what,
            piece.c_str());
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    for (const auto &piece : font_model::pieces(text)) {
        if (library_line(piece) != font_model::read_line(piece)) {
            differ("line", piece);
        }
    }
    if (library_file(data, size) != font_model::read_file(text)) {
        differ("file", std::string(text.substr(0, 200)));
    }
    return 0;
}
