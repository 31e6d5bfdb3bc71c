#include "spec_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "terminal_text.h"

namespace {

constexpr std::string_view DELIMITERS = " \t\r\n";
constexpr std::string_view TYPES[] = {"string64", "int32", "int64", "float64"};
constexpr std::size_t PIECE_BYTES_MAX = 3999;  // the server reads lines in pieces, and a piece ends a token

struct Token {
    std::string_view text;
    unsigned long line;
    unsigned long column;
    bool cut;  // the server ends it here though no delimiter follows
};

std::vector<Token> Split(std::string_view text) {
    std::vector<Token> tokens;
    unsigned long line = 0;
    while (!text.empty()) {
        ++line;
        std::size_t const end = std::min(text.find('\n'), text.size() - 1) + 1;
        std::string_view const whole = text.substr(0, end);
        text.remove_prefix(end);
        for (std::size_t from = 0; from < whole.size(); from += PIECE_BYTES_MAX) {
            std::string_view const piece = whole.substr(from, PIECE_BYTES_MAX);
            std::size_t at = piece.find_first_not_of(DELIMITERS);
            while (at != std::string_view::npos) {
                std::size_t const past = std::min(piece.find_first_of(DELIMITERS, at), piece.size());
                bool const cut = past == PIECE_BYTES_MAX && from + past < whole.size() &&
                                 DELIMITERS.find(whole[from + past]) == std::string_view::npos;
                tokens.push_back({piece.substr(at, past - at), line, from + at + 1, cut});
                at = piece.find_first_not_of(DELIMITERS, past);
            }
        }
    }
    return tokens;
}

// The type that was probably meant, or nothing.
std::string Meant(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
    for (std::string_view const type : TYPES) {
        if (lower == type) return fmt::format("; did you mean {}?", type);
    }
    if (lower.starts_with('#') || lower.starts_with("//")) return "; a schema has no comments";
    return "";
}

}  // namespace

std::vector<SpecProblem> CheckSpec(std::string_view text) {
    std::vector<SpecProblem> problems;
    auto const add = [&problems](Token const& token, std::string what) {
        problems.push_back({token.line, token.column, std::move(what)});
    };
    if (std::size_t const nul = text.find('\0'); nul != std::string_view::npos) {
        std::string_view const before = text.substr(0, nul);
        auto const line = static_cast<unsigned long>(std::count(before.begin(), before.end(), '\n')) + 1;
        unsigned long const column = nul - (before.rfind('\n') + 1) + 1;
        return {{line, column, "a byte that is zero: this is no text file"}};
    }
    std::vector<Token> const tokens = Split(text);
    if (tokens.empty()) return {{1, 1, "the file is empty; it must hold a name, and a type and a name for each field"}};
    for (Token const& token : tokens) {
        if (token.cut)
            add(token, "the server cuts a line after 3,999 bytes, here inside a word; break the line before");
    }
    // The server takes any bytes, but in JSON a name must be a text.
    auto const checkText = [&add](Token const& name) {
        if (!IsUtf8(name.text)) {
            add(name, fmt::format("'{}' is no UTF-8, which these tools want of names", Shown(name.text)));
        }
    };
    checkText(tokens[0]);
    if (tokens.size() == 1) add(tokens[0], "the schema has no field; the first one, the key, is needed");
    std::vector<std::string_view> names;
    for (std::size_t i = 1; i < tokens.size(); i += 2) {
        Token const& type = tokens[i];
        if (std::find(std::begin(TYPES), std::end(TYPES), type.text) == std::end(TYPES)) {
            add(type, fmt::format("'{}' is no type; the types are {}{}", Shown(type.text), fmt::join(TYPES, ", "),
                                  Meant(type.text)));
            return problems;  // what follows may be shifted
        }
        if (i + 1 == tokens.size()) {
            add(type, "the last field has a type but no name; add the name");
            return problems;
        }
        Token const& name = tokens[i + 1];
        if (std::find(names.begin(), names.end(), name.text) != names.end()) {
            add(name, fmt::format("two fields are called '{}'", Shown(name.text)));
        }
        checkText(name);
        names.push_back(name.text);
    }
    return problems;
}
