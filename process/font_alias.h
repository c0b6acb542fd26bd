// The line grammar of the font alias file, for the library's own font unit
// and for the fuzz target that checks it against an independent reading.
// Not installed and not exported: the fuzz target links the static library.
#pragma once

namespace qor::process {

// The file is read in pieces of at most this many bytes with their
// terminator (fgets), each piece treated as a line of its own.
inline constexpr int kAliasPieceBytes = 512;
// Each field is collected in a buffer of this many bytes: a longer field
// keeps its first kAliasFieldBytes - 1 characters, the rest is read past
// and dropped.
inline constexpr int kAliasFieldBytes = 256;

// Parses one piece: true when it holds exactly two non-empty fields (alias,
// then font name) and nothing after them but spaces, tabs and the newline;
// the fields, without their quotes and escapes, are then in alias and font.
bool parse_alias_line(const char *piece, char (&alias)[kAliasFieldBytes],
                      char (&font)[kAliasFieldBytes]);

}  // namespace qor::process
