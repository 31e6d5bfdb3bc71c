// Reads comma separated values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "row_buffer.h"

// Reads rows as RFC 4180 has them: values in double quotes may hold delimiters, line ends and doubled quotes; lines end
// in LF or CRLF, the last one perhaps in neither. A byte order mark at the start is skipped, and so are empty lines.
// The source must outlive it. One thread at a time.
class CsvReader {
 public:
    explicit CsvReader(ByteSource& source, char delimiter = ',') : buffer_(source), delimiter_(delimiter) {}

    // Reads the next row; the values are valid until the next call. Never blocks.
    [[nodiscard]] RowResult Next(std::vector<std::string_view>& values);

    [[nodiscard]] unsigned long Line() const { return line_; }   // in which the last row begins, from 1
    [[nodiscard]] std::string_view Raw() const { return raw_; }  // that row as it stands, without its line end
    [[nodiscard]] char const* Problem() const { return problem_; }
    [[nodiscard]] unsigned long NextLine() const { return nextLine_; }           // in which the next row begins
    [[nodiscard]] unsigned long NextOffset() const { return buffer_.Offset(); }  // at which the next row begins

    // The source was moved to the start of a row.
    void StartAt(unsigned long offset, unsigned long line);
    // Passes over everything before a row. False when the source ends, fails or waits before.
    [[nodiscard]] bool SkipTo(unsigned long offset, unsigned long line);

 private:
    enum State : std::uint8_t { AT_VALUE, IN_PLAIN, IN_QUOTES, BEHIND_QUOTE };

    [[nodiscard]] bool FindRowEnd();  // false when it is not in the buffer yet
    [[nodiscard]] RowResult Split(std::vector<std::string_view>& values);
    RowResult Break(char const* problem);

    RowBuffer buffer_;
    char const delimiter_;
    std::size_t scanned_ = 0;  // up to here the next row's end was looked for
    State state_ = AT_VALUE;   // of that place
    bool hasQuotes_ = false;   // whether there are any before it
    std::string unquoted_;     // values of the last row that held doubled quotes
    std::string_view raw_;
    unsigned long line_ = 0;
    unsigned long nextLine_ = 1;
    char const* problem_ = "";
};
