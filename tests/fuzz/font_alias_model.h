// An independent reading of font alias files, written from the description
// of the format alone and sharing nothing with the library: the oracle of
// the font alias fuzz target and of the tests that load real alias files.
//
// The format: the file is cut into pieces as a 512-byte fgets cuts it (at
// most 511 bytes, a piece ends after a newline), and each piece is a line.
// A line holds two fields separated by spaces or tabs, blanks allowed before
// each; a field is bare (up to an unescaped blank or newline) or quoted (up
// to an unescaped quote that a blank, newline or the end must follow); a
// backslash is dropped and keeps the next character, but an escaped newline
// still ends a bare field. Anything but blanks (and the newline) after the
// second field, an empty field, a bad or unclosed quote: the line does not
// count. A field keeps its first 255 characters. The first line of an
// alias wins.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace font_model {

struct Alias {
    std::string alias;
    std::string font;
    bool operator==(const Alias &) const = default;
};

// The pieces fgets with a 512-byte buffer hands out, in order.
inline std::vector<std::string> pieces(std::string_view data) {
    std::vector<std::string> out;
    std::string current;
    for (char c : data) {
        current.push_back(c);
        if (c == '\n' || current.size() == 511) {
            out.push_back(current);
            current.clear();
        }
    }
    if (!current.empty()) out.push_back(current);
    return out;
}

namespace detail {

inline bool blank(char c) { return c == ' ' || c == '\t'; }

// A tokenizer over one line: the text up to its first NUL, which is all a
// C string of the piece shows.
class Line {
  public:
    explicit Line(std::string_view piece)
        : text_(piece.substr(0, piece.find('\0'))) {}

    // The next field, or nullopt when it is empty or malformed.
    std::optional<std::string> field() {
        while (pos_ < text_.size() && blank(text_[pos_])) ++pos_;
        std::string value;
        if (pos_ < text_.size() && text_[pos_] == '"') {
            size_t j = pos_ + 1;
            for (;;) {
                if (j >= text_.size()) return std::nullopt;  // never closed
                if (text_[j] == '\\') {
                    if (j + 1 >= text_.size()) return std::nullopt;
                    value += text_[j + 1];
                    j += 2;
                } else if (text_[j] == '"') {
                    break;
                } else {
                    value += text_[j++];
                }
            }
            pos_ = j + 1;
            if (pos_ < text_.size() && !blank(text_[pos_]) &&
                text_[pos_] != '\n') {
                return std::nullopt;  // something stuck to the quote
            }
        } else {
            while (pos_ < text_.size() && !blank(text_[pos_]) &&
                   text_[pos_] != '\n') {
                if (text_[pos_] == '\\') {
                    if (pos_ + 1 >= text_.size() || text_[pos_ + 1] == '\n') {
                        ++pos_;
                        break;
                    }
                    value += text_[pos_ + 1];
                    pos_ += 2;
                } else {
                    value += text_[pos_++];
                }
            }
        }
        if (value.empty()) return std::nullopt;
        if (value.size() > 255) value.resize(255);
        return value;
    }

    // True when only blanks, and perhaps the newline, are left.
    bool only_blanks_left() const {
        for (size_t j = pos_; j < text_.size(); ++j) {
            if (!blank(text_[j]) && text_[j] != '\n') return false;
        }
        return true;
    }

  private:
    std::string_view text_;
    size_t pos_ = 0;
};

}  // namespace detail

// The alias a piece defines, if it is a valid line.
inline std::optional<Alias> read_line(std::string_view piece) {
    detail::Line line(piece);
    auto alias = line.field();
    if (!alias) return std::nullopt;
    auto font = line.field();
    if (!font || !line.only_blanks_left()) return std::nullopt;
    return Alias{std::move(*alias), std::move(*font)};
}

// Every valid line of the file, in order (duplicates kept).
inline std::vector<Alias> read_file(std::string_view data) {
    std::vector<Alias> out;
    for (const auto &p : pieces(data)) {
        if (auto a = read_line(p)) out.push_back(std::move(*a));
    }
    return out;
}

// What a lookup of name answers: the font of the first line of that alias,
// else the name itself.
inline std::string resolve(const std::vector<Alias> &table,
                           const std::string &name) {
    for (const auto &a : table) {
        if (a.alias == name) return a.font;
    }
    return name;
}

}  // namespace font_model
