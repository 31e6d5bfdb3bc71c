// A source of bytes for tests.
#pragma once

#include <algorithm>
#include <string_view>

#include "byte_source.h"

// Gives a text piece by piece, with a pause before each.
class Pieces : public ByteSource {
 public:
    explicit Pieces(std::string_view text, std::size_t pieceBytes = static_cast<std::size_t>(-1))
        : left_(text), pieceBytes_(pieceBytes) {}

    [[nodiscard]] Result Read(char* to, std::size_t room, std::size_t& got) override {
        pauses_ = !pauses_;
        if (left_.empty()) return END;
        if (pauses_) return WAITING;
        got = left_.copy(to, std::min(room, pieceBytes_));
        left_.remove_prefix(got);
        return BYTES;
    }

 private:
    std::string_view left_;
    std::size_t const pieceBytes_;
    bool pauses_ = false;
};
