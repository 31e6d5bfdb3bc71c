// The rows of the files to send.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "csv_reader.h"
#include "input_bytes.h"
#include "json_line_reader.h"

// What a row has for one of the wanted columns.
struct Cell {
    enum Kind : std::uint8_t {
        TEXT,
        ABSENT,  // the object has no such member
        NESTED   // an array or an object
    };
    std::string_view text;
    Kind kind;
};

// The format of a file: the chosen one or, by the ending of its path, csv, tsv or jsonl.
[[nodiscard]] std::string FormatOfPath(std::string_view path, std::string const& chosen);

// Takes a text for the character that divides the values of csv; the empty one stands for a comma. False for what
// cannot be told from values.
[[nodiscard]] bool ReadDelimiter(std::string const& text, char& delimiter);

// Reads files one after the other and finds the wanted columns of each by name: by the first row, or the names of the
// members in JSON lines. One thread at a time; never blocks.
class SendInput {
 public:
    struct Options {
        std::vector<std::string> paths;    // "-" is standard input
        std::string format;                // csv, tsv or jsonl; empty: by the ending of each path, else csv
        char delimiter = ',';              // of csv
        bool follow = false;               // the last file
        std::vector<std::string> columns;  // whose cells are wanted; they may not be empty
    };

    enum Result : std::uint8_t {
        ROW,
        BROKEN_ROW,  // Problem() tells why; the next call goes on behind it
        WAITING,
        FILE_END,  // of the current file; the next call opens the next
        NEW_FILE,  // the followed file was replaced or cut off; Problem() tells
        END,
        BAD_INPUT,  // nothing more can be read: Problem(), which says where
        BAD_FILE,   // the same: a file cannot be read
        BAD_POSITION
    };

    void Set(Options options);

    // Takes a text that Position gave: the next row is the one behind that position. False, and Problem(), when the
    // files are not what they were. An earlier run that was finished does not ask for the same files.
    [[nodiscard]] bool StartAt(std::string_view position, bool wasFinished);

    [[nodiscard]] Result Next();

    // Of the last row; valid until the next call of Next.
    [[nodiscard]] std::vector<Cell> const& Cells() const { return cells_; }  // in the order of the columns
    [[nodiscard]] std::string_view Raw() const { return json_ ? json_->Raw() : csv_->Raw(); }
    [[nodiscard]] unsigned long Line() const { return json_ ? json_->Line() : csv_ ? csv_->Line() : 0; }
    [[nodiscard]] std::string const& Problem() const { return problem_; }

    // Of the current file.
    [[nodiscard]] std::string const& Name() const { return name_; }
    [[nodiscard]] bool IsJson() const { return json_ != nullptr; }
    [[nodiscard]] char Delimiter() const { return delimiter_; }
    [[nodiscard]] std::string const& Header() const { return header_; }  // its first row as it stands; none in JSON
    [[nodiscard]] InputBytes const& Bytes() const { return *bytes_; }

    // Where the next row stands, or the last one, as JSON text. `rejectsBytes` is kept with it.
    [[nodiscard]] std::string Position(unsigned long rejectsBytes, bool ofLastRow = false) const;
    [[nodiscard]] unsigned long StartRejectsBytes() const { return start_.rejectsBytes; }  // as StartAt was given

    void Stop();
    [[nodiscard]] int Descriptor() const { return bytes_ ? bytes_->Descriptor() : -1; }
    [[nodiscard]] unsigned long BytesRead() const { return bytesBefore_ + (bytes_ ? bytes_->BytesRead() : 0); }
    [[nodiscard]] unsigned long BytesInAll() const;  // 0 when that is not known

 private:
    struct Place {
        std::string path;
        unsigned long device = 0;
        unsigned long inode = 0;
        unsigned long offset = 0;
        unsigned long line = 0;
        unsigned long rejectsBytes = 0;
    };

    [[nodiscard]] Place CurrentPlace() const;
    [[nodiscard]] Result OpenNext();
    [[nodiscard]] Result ReadHeader();
    [[nodiscard]] Result GoToStart();
    [[nodiscard]] Result NextCsv();
    [[nodiscard]] Result NextJson();
    [[nodiscard]] Result EndFile(RowResult result);
    [[nodiscard]] bool FindColumns();
    [[nodiscard]] bool IsFollowed() const { return options_.follow && file_ + 1 == options_.paths.size(); }
    Result Fail(Result result, std::string problem);

    Options options_;
    std::size_t file_ = 0;  // of the paths, the current one
    bool isOpen_ = false;
    Place start_;                  // to go to; without a path there is none
    unsigned long rowOffset_ = 0;  // of the last row, or of empty lines before it
    unsigned long rowLine_ = 0;
    Place behindFile_;  // the end of the last file, which counts until the next one's header is read
    std::unique_ptr<InputBytes> bytes_;
    std::unique_ptr<CsvReader> csv_;  // one of both
    std::unique_ptr<JsonLineReader> json_;
    std::string name_;  // as errors call it
    char delimiter_ = ',';
    bool headerRead_ = false;
    std::string header_;
    std::size_t columnCount_ = 0;       // of the header
    std::vector<std::size_t> columns_;  // of the header, per wanted column
    std::vector<std::string_view> row_;
    std::vector<JsonMember> members_;
    std::vector<std::size_t> wantedOfMember_;  // by its place in the last object: which column, or none
    std::vector<std::string> namesOfMembers_;  // the same: its name
    std::unordered_map<std::string_view, std::size_t> wantedOfName_;  // the first of these wanted columns
    std::vector<std::size_t> nextOfName_;  // per wanted column: the next of its name, or none
    std::vector<Cell> cells_;
    unsigned long bytesBefore_ = 0;  // of the files before the current one
    std::string problem_;
};
