#include "csv_reader.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char TOO_MANY[] = "has more than 1,000,000 values";

char const* Find(char const* from, char const* end, char wanted) {
    auto const* const found = static_cast<char const*>(memchr(from, wanted, static_cast<std::size_t>(end - from)));
    return found == nullptr ? end : found;
}

}  // namespace

RowResult CsvReader::Next(std::vector<std::string_view>& values) {
    for (;;) {
        // The mark is no part of the first row; it comes in the first bytes or not at all.
        if (buffer_.PassByteOrderMark()) {
            scanned_ = 0;
            state_ = AT_VALUE;
        }
        line_ = nextLine_;
        if (!FindRowEnd()) {
            raw_ = buffer_.Held().substr(0, scanned_);
            if (scanned_ > RowBuffer::ROW_BYTES_MAX) {
                problem_ = "is longer than 64 MiB; is a quote left open?";
                return RowResult::CORRUPT;
            }
            if (!buffer_.Ended()) {
                RowResult const filled = buffer_.FillRow(problem_);
                if (filled == RowResult::ROW) continue;
                return filled;
            }
            if (scanned_ == 0) return RowResult::END;
        }
        bool const isOpen = state_ == IN_QUOTES;
        raw_ = buffer_.Held().substr(0, scanned_);
        if (hasQuotes_) {
            nextLine_ += static_cast<unsigned long>(std::count(raw_.begin(), raw_.end(), '\n'));
        } else if (raw_.back() == '\n') {
            ++nextLine_;
        }
        if (raw_.back() == '\n' && !isOpen) raw_.remove_suffix(1);
        if (!raw_.empty() && raw_.back() == '\r') raw_.remove_suffix(1);
        bool const isEmpty = raw_.empty();
        RowResult const result = isOpen    ? Break("ends inside a quoted value")
                                 : isEmpty ? RowResult::WAITING
                                           : Split(values);
        // Passing on leaves the bytes where they are: the values stay valid until the next read.
        buffer_.Pass(scanned_);
        scanned_ = 0;
        state_ = AT_VALUE;
        hasQuotes_ = false;
        if (!isEmpty) return result;
    }
}

bool CsvReader::FindRowEnd() {
    std::string_view const held = buffer_.Held();
    if (held.empty()) return false;
    char const* const start = held.data();
    char const* const end = start + held.size();
    char const* at = start + scanned_;
    if (scanned_ == 0) {
        // Most rows have no quotes, and then their first line end is their end.
        char const* const lineEnd = Find(start, end, '\n');
        if (lineEnd != end && Find(start, lineEnd, '"') == lineEnd) {
            scanned_ = static_cast<std::size_t>(lineEnd - start) + 1;
            return true;
        }
    }
    while (at < end) {
        char const c = *at;
        switch (state_) {
            case IN_QUOTES:
                at = Find(at, end, '"');
                if (at == end) continue;
                state_ = BEHIND_QUOTE;
                break;
            case BEHIND_QUOTE:
            case AT_VALUE:
                if (c == '"') {
                    state_ = IN_QUOTES;
                    hasQuotes_ = true;
                    break;
                }
                [[fallthrough]];
            case IN_PLAIN:
                state_ = c == delimiter_ || c == '\n' ? AT_VALUE : IN_PLAIN;
                break;
        }
        ++at;
        if (c == '\n' && state_ == AT_VALUE) {
            scanned_ = static_cast<std::size_t>(at - start);
            return true;
        }
    }
    scanned_ = held.size();
    return false;
}

RowResult CsvReader::Split(std::vector<std::string_view>& values) {
    values.clear();
    char const* at = raw_.data();
    char const* const end = at + raw_.size();
    bool const mayQuote = Find(at, end, '"') != end;
    if (!mayQuote) {
        for (;;) {
            char const* const past = Find(at, end, delimiter_);
            if (values.size() == RowBuffer::ROW_VALUES_MAX) return Break(TOO_MANY);
            values.emplace_back(at, past - at);
            if (past == end) return RowResult::ROW;
            at = past + 1;
        }
    }
    // Room for all of the row, so that values before stay where they are.
    unquoted_.clear();
    unquoted_.reserve(raw_.size());
    for (;;) {
        if (values.size() == RowBuffer::ROW_VALUES_MAX) return Break(TOO_MANY);
        if (at < end && *at == '"') {
            char const* first = ++at;
            std::size_t const copied = unquoted_.size();
            bool isCopy = false;
            for (;;) {
                at = Find(at, end, '"');
                if (at == end) return Break("ends inside a quoted value");
                if (at + 1 == end || at[1] != '"') break;
                unquoted_.append(first, at + 1);
                isCopy = true;
                at += 2;
                first = at;
            }
            if (isCopy) {
                unquoted_.append(first, at);
                values.push_back(std::string_view(unquoted_).substr(copied));
            } else {
                values.emplace_back(first, at - first);
            }
            ++at;
            if (at < end && *at != delimiter_) return Break("has text behind the closing quote of a value");
        } else {
            char const* const past = Find(at, end, delimiter_);
            if (Find(at, past, '"') != past) return Break("has a quote inside a value that is not quoted");
            values.emplace_back(at, past - at);
            at = past;
        }
        if (at == end) return RowResult::ROW;
        ++at;
    }
}

RowResult CsvReader::Break(char const* problem) {
    problem_ = problem;
    return RowResult::BROKEN;
}

void CsvReader::StartAt(unsigned long offset, unsigned long line) {
    buffer_.StartAt(offset);
    scanned_ = 0;
    state_ = AT_VALUE;
    hasQuotes_ = false;
    nextLine_ = line;
}

bool CsvReader::SkipTo(unsigned long offset, unsigned long line) {
    while (buffer_.Offset() < offset) {
        buffer_.Pass(std::min<std::size_t>(buffer_.Held().size(), offset - buffer_.Offset()));
        if (buffer_.Offset() < offset && buffer_.Fill() != ByteSource::BYTES) return false;
    }
    scanned_ = 0;
    nextLine_ = line;
    return true;
}
