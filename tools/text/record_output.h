// Records as rows of text, to a file or standard output.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "brindle_value.h"
#include "record_text.h"
#include "sutl_descriptor.h"
#include "uts_tsspec.h"

enum class RecordFormat : std::uint8_t {
    CSV,    // a header row, then a row per record
    JSONL,  // an object per line
    TABLE   // aligned columns for people; the time as ISO 8601
};

// The format of a name: csv, jsonl, and a table for any other.
[[nodiscard]] RecordFormat FormatOf(std::string_view name);

// Writes records, each with its time and, before that, further numbers if the caller has some. What was added is
// written when enough has come together and at Flush; a table in pages of TABLE_PAGE_ROWS, whose columns are as wide as
// the widest value so far. After a failed write everything further is dropped. One thread at a time.
class RecordOutput {
 public:
    static constexpr std::size_t TABLE_PAGE_ROWS = 1000;

    // The schema must outlive the output. The names of all columns must differ from each other in JSON lines. Without a
    // name the time is left out.
    RecordOutput(RecordFormat format, suts_tsspec const& spec, std::vector<std::string> leadingNames,
                 std::string timeName);

    // Creates the file, in place of an older one; "-" stands for standard output. False on failure, with errno.
    [[nodiscard]] bool Open(std::string const& path);

    // Adds a record; values in schema order, the key first. May block in a write.
    void Add(std::span<unsigned long const> leading, long timeUs, std::span<brindle_Value const> values);

    // Writes what was added. Returns 0, or the errno of the first write that failed: this one or an earlier one.
    [[nodiscard]] int Flush();

    // What is added is lost, as Flush will tell.
    [[nodiscard]] bool HasFailed() const { return error_ != 0; }

    // Gives writing up (ECANCELED) while the reader of the output does not take it and this descriptor is readable.
    void StopOn(int descriptor) { stopDescriptor_ = descriptor; }

 private:
    void AddHeader();
    void AddTableRow(std::span<unsigned long const> leading, long timeUs, std::span<brindle_Value const> values);
    void LayOutTable();
    void Write();
    [[nodiscard]] bool WaitUntilWritable() const;

    RecordFormat const format_;
    suts_tsspec const& spec_;
    RecordText const record_;
    sutl_Descriptor file_;      // none for standard output
    int descriptor_ = -1;       // written to
    bool regularFile_ = false;  // whose writes do not wait for anybody
    int stopDescriptor_ = -1;
    int error_ = 0;                                    // errno of the first failed write
    std::string text_;                                 // not yet written
    std::vector<std::vector<std::string>> tableRows_;  // not yet laid out
    std::vector<std::size_t> widths_;                  // of the table's columns
};
