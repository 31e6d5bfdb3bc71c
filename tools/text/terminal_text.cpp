#include "terminal_text.h"

#include <fmt/format.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <wchar.h>

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace {

constexpr std::size_t USUAL_COLUMNS = 80;
constexpr std::size_t COLUMNS_MIN = 20;
constexpr std::size_t COLUMNS_MAX = 1000;
constexpr std::size_t SHOWN_BYTES_MAX = 60;
constexpr std::size_t SHOWN_TEXTS_MAX = 20;
constexpr char32_t NO_CHARACTER = 0xFFFFFFFF;

unsigned char At(std::string_view text, std::size_t index) { return static_cast<unsigned char>(text[index]); }

// Takes the character that the text begins with and sets its bytes. NO_CHARACTER, of one byte, for what is not UTF-8.
char32_t FirstOf(std::string_view text, std::size_t& bytes) {
    static constexpr char32_t LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
    unsigned char const first = At(text, 0);
    bytes = 1;
    if (first < 0x80) return first;
    std::size_t const length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) return NO_CHARACTER;
    char32_t character = first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((At(text, i) & 0xC0U) != 0x80) return NO_CHARACTER;
        character = character << 6 | (At(text, i) & 0x3FU);
    }
    bool const isSurrogate = character >= 0xD800 && character < 0xE000;
    if (character < LEAST[length] || character > 0x10FFFF || isSurrogate) return NO_CHARACTER;
    bytes = length;
    return character;
}

// Characters that change the direction or the place of others, beside the control characters.
bool MovesOthers(char32_t character) {
    return (character >= 0x200E && character <= 0x200F) || (character >= 0x2028 && character <= 0x202E) ||
           (character >= 0x2066 && character <= 0x2069);
}

}  // namespace

bool HasUtf8Locale() {
    static bool const has = [] {
        static_cast<void>(setlocale(LC_CTYPE, ""));
        return std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    }();
    return has;
}

std::string ForTerminal(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        std::size_t bytes = 0;
        char32_t const character = FirstOf(text, bytes);
        bool const isControl = character < ' ' || (character >= 0x7F && character < 0xA0);
        if (character == NO_CHARACTER || isControl || MovesOthers(character)) {
            for (char const c : text.substr(0, bytes)) {
                fmt::format_to(std::back_inserter(shown), "\\x{:02x}", static_cast<unsigned char>(c));
            }
        } else {
            shown += text.substr(0, bytes);
        }
        text.remove_prefix(bytes);
    }
    return shown;
}

std::string Count(unsigned long number, std::string_view what) {
    return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

void WriteToErrors(std::string const& text) {
    fputs(text.c_str(), stderr);
    fflush(stderr);
}

bool IsUtf8(std::string_view text) {
    auto const* at = reinterpret_cast<unsigned char const*>(text.data());
    auto const* const end = at + text.size();
    while (at < end) {
        if (*at < 0x80) {
            ++at;
            continue;
        }
        // The bounds of the second byte keep out the overlong, the surrogates and what lies beyond the last character.
        int following = 0;
        unsigned char low = 0x80;
        unsigned char high = 0xBF;
        if (*at >= 0xC2 && *at <= 0xDF) {
            following = 1;
        } else if (*at >= 0xE0 && *at <= 0xEF) {
            following = 2;
            if (*at == 0xE0) low = 0xA0;
            if (*at == 0xED) high = 0x9F;
        } else if (*at >= 0xF0 && *at <= 0xF4) {
            following = 3;
            if (*at == 0xF0) low = 0x90;
            if (*at == 0xF4) high = 0x8F;
        } else {
            return false;
        }
        if (end - at <= following || at[1] < low || at[1] > high) return false;
        for (int i = 2; i <= following; ++i) {
            if ((at[i] & 0xC0) != 0x80) return false;
        }
        at += following + 1;
    }
    return true;
}

std::string Shown(std::string_view text) {
    std::size_t kept = 0;
    for (std::size_t bytes = 0; kept < text.size(); kept += bytes) {
        FirstOf(text.substr(kept), bytes);
        if (kept + bytes > SHOWN_BYTES_MAX) break;
    }
    return ForTerminal(text.substr(0, kept));
}

std::string ShownList(std::span<std::string_view const> texts) {
    std::string list;
    for (std::string_view const text : texts.first(std::min(texts.size(), SHOWN_TEXTS_MAX))) {
        list += (list.empty() ? "" : ", ") + Shown(text);
    }
    if (texts.size() > SHOWN_TEXTS_MAX) list += fmt::format(" and {} more", texts.size() - SHOWN_TEXTS_MAX);
    return list;
}

std::size_t WidthOf(std::string_view text) {
    static_cast<void>(HasUtf8Locale());  // for wcwidth
    std::size_t columns = 0;
    while (!text.empty()) {
        std::size_t bytes = 0;
        char32_t const character = FirstOf(text, bytes);
        int const width = character < 0x80 ? 1 : wcwidth(static_cast<wchar_t>(character));
        // A terminal shows something for what the locale does not know, and most know UTF-8 where the locale does not.
        columns += static_cast<std::size_t>(width < 0 ? 1 : width);
        text.remove_prefix(bytes);
    }
    return columns;
}

std::size_t TerminalColumns(int descriptor) {
    winsize size = {};
    std::size_t columns = 0;
    char const* const wanted = getenv("COLUMNS");
    if (wanted != nullptr) {
        std::string_view const text = wanted;
        std::from_chars(text.data(), text.data() + text.size(), columns);
    } else if (ioctl(descriptor, TIOCGWINSZ, &size) == 0) {
        columns = size.ws_col;
    }
    return columns == 0 ? USUAL_COLUMNS : std::clamp(columns, COLUMNS_MIN, COLUMNS_MAX);
}
