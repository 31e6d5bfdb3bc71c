// Reads JSON lines.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "row_buffer.h"

// A member of an object.
struct JsonMember {
    enum Kind : std::uint8_t {
        TEXT,    // a string, a number as it stands, true, false, {"hex":"ff41"}, or the empty text for null
        NESTED,  // an array or another object; the text is its start
    };
    std::string_view name;
    std::string_view text;
    Kind kind;
    bool isString;  // and no number
};

// Reads one object per line, each parsed by itself. Only UTF-8 is taken; bytes that are none stand as an object whose
// only member "hex" has two digits for each of them. A byte order mark at the start is skipped, and so are empty lines;
// lines may end in CRLF. The source must outlive it. One thread at a time.
class JsonLineReader {
 public:
    explicit JsonLineReader(ByteSource& source);
    ~JsonLineReader();

    // Reads the next object; names and texts are valid until the next call. Never blocks.
    [[nodiscard]] RowResult Next(std::vector<JsonMember>& members);

    [[nodiscard]] unsigned long Line() const { return line_; }   // of the last object, from 1
    [[nodiscard]] std::string_view Raw() const { return raw_; }  // that line as it stands, without its end
    [[nodiscard]] char const* Problem() const { return problem_; }
    [[nodiscard]] unsigned long NextLine() const { return nextLine_; }
    [[nodiscard]] unsigned long NextOffset() const { return buffer_.Offset(); }

    // As CsvReader has them.
    void StartAt(unsigned long offset, unsigned long line);
    [[nodiscard]] bool SkipTo(unsigned long offset, unsigned long line);

 private:
    struct Parser;  // keeps the library's header, which is large, out of this one

    [[nodiscard]] RowResult Parse(std::vector<JsonMember>& members, std::size_t bytesBehind);
    RowResult Break(char const* problem);

    RowBuffer buffer_;
    std::unique_ptr<Parser> parser_;
    std::size_t scanned_ = 0;  // up to here the next line's end was looked for
    std::string bytes_;        // decoded from hexadecimal digits
    std::string_view raw_;
    unsigned long line_ = 0;
    unsigned long nextLine_ = 1;
    char const* problem_ = "";
};
