#include "record_output.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iterator>

#include "terminal_text.h"
#include "time_text.h"
#include "value_text.h"

namespace {

constexpr std::size_t WRITE_BYTES = 64UL * 1024;  // gathered before a write
constexpr mode_t FILE_MODE = 0666;                // as far as the user's mask lets

bool IsNumber(suts_FieldType type) { return type != SUTS_STRING64; }

}  // namespace

RecordFormat FormatOf(std::string_view name) {
    if (name == "csv") return RecordFormat::CSV;
    return name == "jsonl" ? RecordFormat::JSONL : RecordFormat::TABLE;
}

RecordOutput::RecordOutput(RecordFormat format, suts_tsspec const& spec, std::vector<std::string> leadingNames,
                           std::string timeName)
    : format_(format), spec_(spec), record_(spec, std::move(leadingNames), std::move(timeName)) {}

bool RecordOutput::Open(std::string const& path) {
    descriptor_ = STDOUT_FILENO;
    if (path != "-") {
        file_ = sutl_Descriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, FILE_MODE));
        if (!file_.IsOpen()) return false;
        descriptor_ = file_.Get();
    }
    struct stat status = {};
    regularFile_ = fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode);
    AddHeader();
    return true;
}

void RecordOutput::AddHeader() {
    if (format_ == RecordFormat::TABLE) tableRows_.push_back(record_.Names());
    if (format_ == RecordFormat::CSV) record_.AppendCsvHeader(text_);
}

void RecordOutput::Add(std::span<unsigned long const> leading, long timeUs, std::span<brindle_Value const> values) {
    switch (format_) {
        case RecordFormat::TABLE:
            return AddTableRow(leading, timeUs, values);
        case RecordFormat::JSONL:
            record_.AppendJsonLine(text_, leading, timeUs, values);
            break;
        case RecordFormat::CSV:
            record_.AppendCsvRow(text_, leading, timeUs, values);
            break;
    }
    if (text_.size() >= WRITE_BYTES) Write();
}

void RecordOutput::AddTableRow(std::span<unsigned long const> leading, long timeUs,
                               std::span<brindle_Value const> values) {
    std::vector<std::string> row;
    for (unsigned long const number : leading) row.push_back(std::to_string(number));
    if (record_.HasTime()) AppendIsoTime(row.emplace_back(), timeUs);
    for (brindle_Value const& value : values) {
        std::string text;
        AppendPlain(text, value);
        row.push_back(ForTerminal(text));
    }
    tableRows_.push_back(std::move(row));
    if (tableRows_.size() < TABLE_PAGE_ROWS) return;
    LayOutTable();
    Write();
}

void RecordOutput::LayOutTable() {
    std::size_t const columns = record_.Names().size();
    std::size_t const fieldColumns = columns - static_cast<std::size_t>(spec_.fieldCount);
    widths_.resize(columns);
    for (auto const& row : tableRows_) {
        for (std::size_t i = 0; i < row.size(); ++i) widths_[i] = std::max(widths_[i], WidthOf(row[i]));
    }
    for (auto const& row : tableRows_) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            std::string const padding(widths_[i] - WidthOf(row[i]), ' ');
            bool const rightAligned = i >= fieldColumns && IsNumber(spec_.Type(static_cast<int>(i - fieldColumns)));
            if (i > 0) text_ += "  ";
            if (rightAligned) text_ += padding;
            text_ += row[i];
            if (!rightAligned && i + 1 < row.size()) text_ += padding;
        }
        text_ += '\n';
    }
    tableRows_.clear();
}

int RecordOutput::Flush() {
    if (format_ == RecordFormat::TABLE) LayOutTable();
    Write();
    return error_;
}

void RecordOutput::Write() {
    // A pipe that can be written to takes this much at once, so that no write ever waits where a stop is not seen.
    std::size_t const bytesMax = regularFile_ ? text_.size() : PIPE_BUF;
    std::string_view left = text_;
    while (error_ == 0 && !left.empty()) {
        if (!regularFile_ && !WaitUntilWritable()) {
            error_ = ECANCELED;
            break;
        }
        ssize_t const written = write(descriptor_, left.data(), std::min(left.size(), bytesMax));
        if (written >= 0) {
            left.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            error_ = errno;
        }
    }
    text_.clear();
}

bool RecordOutput::WaitUntilWritable() const {
    for (;;) {
        pollfd waited[] = {{descriptor_, POLLOUT, 0}, {stopDescriptor_, POLLIN, 0}};
        if (poll(waited, std::size(waited), -1) < 0 && errno == EINTR) continue;
        return waited[0].revents != 0 || waited[1].revents == 0;
    }
}
