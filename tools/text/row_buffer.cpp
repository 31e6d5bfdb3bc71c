#include "row_buffer.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t READ_BYTES = 256UL * 1024;

}  // namespace

ByteSource::Result RowBuffer::Fill() {
    std::size_t const held = end_ - begin_;
    if (begin_ > 0 && held > 0) memmove(bytes_.get(), bytes_.get() + begin_, held);
    begin_ = 0;
    end_ = held;
    if (room_ - end_ < READ_BYTES / 2) {
        // Doubled, so that a long row is not copied for every piece of it.
        room_ = std::max(2 * room_, READ_BYTES);
        auto larger = std::make_unique<char[]>(room_ + PADDING_BYTES);
        if (held > 0) memcpy(larger.get(), bytes_.get(), held);
        bytes_ = std::move(larger);
    }
    std::size_t got = 0;
    ByteSource::Result const result = source_.Read(bytes_.get() + end_, room_ - end_, got);
    if (result == ByteSource::BYTES) end_ += got;
    ended_ = result == ByteSource::END;
    return result;
}

RowResult RowBuffer::FillRow(char const*& problem) {
    switch (Fill()) {
        case ByteSource::BYTES:
        case ByteSource::END:
            break;
        case ByteSource::WAITING:
            return RowResult::WAITING;
        case ByteSource::CORRUPT:
            problem = source_.Problem();
            return RowResult::CORRUPT;
        case ByteSource::FAILED:
            return RowResult::READ_ERROR;
    }
    return RowResult::ROW;
}

bool RowBuffer::PassByteOrderMark() {
    constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
    if (offset_ != 0 || !Held().starts_with(BYTE_ORDER_MARK)) return false;
    Pass(BYTE_ORDER_MARK.size());
    return true;
}
