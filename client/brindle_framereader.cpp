#include "brindle_framereader.h"

#include <algorithm>
#include <cstring>

#include "sutl_descriptor.h"
#include "sutl_frame.h"
#include "uts_formats.h"

namespace {

constexpr std::size_t READ_BYTES = 256UL * 1024;  // room made for each read
constexpr std::size_t FRAME_BYTES_MAX = SUTS_MESSAGE_BYTES_MAX;

}  // namespace

std::size_t brindle_FrameReader::DeclaredBytes() const {
    unsigned char const* const header = bytes_.get() + begin_;
    return static_cast<std::size_t>(header[0]) << 24 | static_cast<std::size_t>(header[1]) << 16 |
           static_cast<std::size_t>(header[2]) << 8 | header[3];
}

bool brindle_FrameReader::Take(std::span<unsigned char const>& body) {
    if (Held() < SUTL_FRAME_HEADER_BYTES) return false;
    std::size_t const declared = DeclaredBytes();
    if (Held() - SUTL_FRAME_HEADER_BYTES < declared) return false;
    body = {bytes_.get() + begin_ + SUTL_FRAME_HEADER_BYTES, declared};
    begin_ += SUTL_FRAME_HEADER_BYTES + declared;
    return true;
}

std::span<unsigned char const> brindle_FrameReader::Rest() const {
    if (Held() <= SUTL_FRAME_HEADER_BYTES) return {};
    return {bytes_.get() + begin_ + SUTL_FRAME_HEADER_BYTES, Held() - SUTL_FRAME_HEADER_BYTES};
}

void brindle_FrameReader::MakeRoom() {
    if (room_ - end_ >= READ_BYTES) return;
    std::size_t const held = Held();
    if (room_ - held >= READ_BYTES && begin_ >= held) {
        memcpy(bytes_.get(), bytes_.get() + begin_, held);
    } else {
        std::size_t const room = std::max(2 * room_, held + 2 * READ_BYTES);
        auto grown = std::make_unique_for_overwrite<unsigned char[]>(room);
        if (held > 0) memcpy(grown.get(), bytes_.get() + begin_, held);
        bytes_ = std::move(grown);
        room_ = room;
    }
    begin_ = 0;
    end_ = held;
}

brindle_Result brindle_FrameReader::Fill(int connection) {
    if (Held() >= SUTL_FRAME_HEADER_BYTES && DeclaredBytes() > FRAME_BYTES_MAX) return BRINDLE_MALFORMED;
    MakeRoom();
    long const got = sutl_ReadSome(connection, bytes_.get() + end_, READ_BYTES);
    if (got < 0) return BRINDLE_SYSTEM_ERROR;
    if (got == 0) return Held() == 0 ? BRINDLE_STREAM_ENDED : BRINDLE_STREAM_CUT;
    end_ += static_cast<std::size_t>(got);
    return BRINDLE_DONE;
}
