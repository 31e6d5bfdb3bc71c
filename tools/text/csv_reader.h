// Reads comma separated values.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Reads rows as RFC 4180 has them: values in double quotes may hold commas, line ends and doubled quotes; lines end in
// LF or CRLF, the last one perhaps in neither. A byte order mark at the start is skipped, and so are empty lines.
// Reads from a descriptor that belongs to the caller. Memory grows with the longest row. One thread at a time.
class CsvReader {
 public:
    enum Result {
        ROW,
        WAITING,    // no whole row is there and the source has nothing right now; the next call waits for it
        END,        // of the data
        BROKEN,     // the row that begins in Line() is no CSV; Problem() tells why
        READ_ERROR  // errno tells why
    };

    static constexpr std::size_t ROW_BYTES_MAX = 64UL * 1024 * 1024;  // a longer row is taken for a quote left open

    explicit CsvReader(int descriptor) : descriptor_(descriptor) {}

    // Reads the next row; the values are valid until the next call. Blocks only in the call that follows WAITING. After
    // anything but ROW and WAITING there is nothing more to read.
    [[nodiscard]] Result Next(std::vector<std::string_view>& values);

    [[nodiscard]] unsigned long Line() const { return line_; }  // in which the last row begins, from 1
    [[nodiscard]] char const* Problem() const { return problem_; }

 private:
    [[nodiscard]] bool FindRowEnd();  // false when it is not in the buffer yet
    [[nodiscard]] Result Split(std::size_t start, std::size_t end, std::vector<std::string_view>& values);
    [[nodiscard]] Result Refill();  // ROW when the buffer or the knowledge of the source's end has grown
    Result Break(char const* problem);

    int const descriptor_;
    std::string buffer_;              // bytes read
    std::size_t passed_ = 0;          // of these, handed out
    std::size_t scanned_ = 0;         // up to here the next row's end was looked for
    bool inQuotes_ = false;           // whether that place is within quotes
    bool waitAnnounced_ = false;      // the caller knows that the next read may block
    bool sourceEnded_ = false;        // nothing more comes
    unsigned long line_ = 0;          // in which the row handed out begins
    unsigned long linesPassed_ = 0;   // line ends before passed_
    unsigned long linesScanned_ = 0;  // line ends between passed_ and scanned_
    char const* problem_ = "";
};
