// What was read of a source and not yet handed out.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "byte_source.h"

// How the readers of rows answer.
enum class RowResult : std::uint8_t {
    ROW,
    WAITING,    // no whole row is there and the source has nothing right now
    END,        // of the source
    BROKEN,     // the row that begins in Line() is none; Problem() tells why. The next call goes on behind it
    CORRUPT,    // nothing more can be read; Problem() tells why
    READ_ERROR  // the same; errno tells why
};

// Holds the bytes of a source from the start of the next row on. Memory grows with the longest row. Behind what is held
// there is always room that may be looked at, as simdjson needs it. The source must outlive it. One thread at a time.
class RowBuffer {
 public:
    static constexpr std::size_t ROW_BYTES_MAX = 64UL * 1024 * 1024;
    static constexpr std::size_t ROW_VALUES_MAX = 1000000;  // each takes more memory than its byte in the row

    explicit RowBuffer(ByteSource& source) : source_(source) {}

    // One read; END when nothing more comes. Texts taken before end to be valid. Never blocks.
    [[nodiscard]] ByteSource::Result Fill();

    // The same for a reader of rows: ROW when there is more to look at, and otherwise how the reader answers.
    [[nodiscard]] RowResult FillRow(char const*& problem);

    [[nodiscard]] std::string_view Held() const { return {bytes_.get() + begin_, end_ - begin_}; }
    [[nodiscard]] std::size_t BytesBehind() const { return room_ + PADDING_BYTES - end_; }  // that may be looked at
    void Pass(std::size_t bytes) {
        begin_ += bytes;
        offset_ += bytes;
    }
    // Passes the mark of UTF-8 if it is the very first that is held. False if it is not.
    [[nodiscard]] bool PassByteOrderMark();
    [[nodiscard]] unsigned long Offset() const { return offset_; }  // of what is held, in the source
    [[nodiscard]] bool Ended() const { return ended_; }

    // Forgets what is held: the source was moved to this place.
    void StartAt(unsigned long offset) {
        begin_ = end_ = 0;
        offset_ = offset;
    }

 private:
    static constexpr std::size_t PADDING_BYTES = 64;

    ByteSource& source_;
    std::unique_ptr<char[]> bytes_;
    std::size_t room_ = 0;  // bytes that can be held
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    unsigned long offset_ = 0;
    bool ended_ = false;
};
