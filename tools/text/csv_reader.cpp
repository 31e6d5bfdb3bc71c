#include "csv_reader.h"

#include <poll.h>

#include "sutl_descriptor.h"

namespace {

constexpr std::size_t READ_BYTES = 64UL * 1024;
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

// Whether a read would return at once. A source that cannot be polled is taken as ready.
bool IsReady(int descriptor) {
    pollfd waited = {descriptor, POLLIN, 0};
    return poll(&waited, 1, 0) != 0;
}

}  // namespace

CsvReader::Result CsvReader::Next(std::vector<std::string_view>& values) {
    for (;;) {
        bool const wholeRow = FindRowEnd();
        line_ = linesPassed_ + 1;
        if (!wholeRow && scanned_ - passed_ > ROW_BYTES_MAX)
            return Break("is longer than 64 MiB; is a quote left open?");
        if (!wholeRow && !sourceEnded_) {
            Result const refilled = Refill();
            if (refilled != ROW) return refilled;
            continue;
        }
        if (passed_ == buffer_.size()) return END;
        if (inQuotes_) return Break("ends inside a quoted value");

        std::size_t start = passed_;
        std::size_t end = scanned_;
        bool const isFirst = linesPassed_ == 0;
        passed_ = scanned_;
        linesPassed_ += linesScanned_;
        linesScanned_ = 0;
        std::string_view const row = std::string_view(buffer_).substr(start, end - start);
        if (isFirst && row.starts_with(BYTE_ORDER_MARK)) start += BYTE_ORDER_MARK.size();
        if (end > start && buffer_[end - 1] == '\n') --end;
        if (end > start && buffer_[end - 1] == '\r') --end;
        if (end > start) return Split(start, end, values);
    }
}

bool CsvReader::FindRowEnd() {
    while (scanned_ < buffer_.size()) {
        char const c = buffer_[scanned_++];
        // A doubled quote leaves the quotes and enters them again, which comes to the same.
        if (c == '"') inQuotes_ = !inQuotes_;
        if (c != '\n') continue;
        ++linesScanned_;
        if (!inQuotes_) return true;
    }
    return false;
}

CsvReader::Result CsvReader::Split(std::size_t start, std::size_t end, std::vector<std::string_view>& values) {
    values.clear();
    char* const bytes = buffer_.data();
    for (std::size_t at = start;; ++at) {
        std::size_t const first = at;
        std::size_t past = first;  // one past the value's last byte
        if (at < end && bytes[at] == '"') {
            // The value moves down over its quotes.
            for (++at;; ++at) {
                if (at == end) return Break("ends inside a quoted value");
                if (bytes[at] == '"') {
                    if (at + 1 == end || bytes[at + 1] != '"') break;
                    ++at;
                }
                bytes[past++] = bytes[at];
            }
            ++at;
            if (at < end && bytes[at] != ',') return Break("has text behind the closing quote of a value");
        } else {
            for (; at < end && bytes[at] != ','; ++at) {
                if (bytes[at] == '"') return Break("has a quote inside a value that is not quoted");
            }
            past = at;
        }
        values.emplace_back(bytes + first, past - first);
        if (at == end) return ROW;
    }
}

CsvReader::Result CsvReader::Refill() {
    if (!waitAnnounced_ && !IsReady(descriptor_)) {
        waitAnnounced_ = true;
        return WAITING;
    }
    waitAnnounced_ = false;
    buffer_.erase(0, passed_);
    scanned_ -= passed_;
    passed_ = 0;
    std::size_t const held = buffer_.size();
    buffer_.resize(held + READ_BYTES);
    long const got = sutl_ReadSome(descriptor_, buffer_.data() + held, READ_BYTES);
    buffer_.resize(held + static_cast<std::size_t>(got > 0 ? got : 0));
    if (got < 0) return READ_ERROR;
    sourceEnded_ = got == 0;
    return ROW;
}

CsvReader::Result CsvReader::Break(char const* problem) {
    problem_ = problem;
    return BROKEN;
}
