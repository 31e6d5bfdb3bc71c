// Cuts a stream of bytes into frames.
#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include "brindle_result.h"

// Collects a connection's bytes and hands out whole frames. Headers and bodies may come in any pieces and at any pace.
// Memory grows with the bytes that have come, not with the length that a header claims. One thread at a time.
class brindle_FrameReader {
 public:
    // Takes the next frame, if it has come whole; its body is valid until the next Fill. Never blocks.
    [[nodiscard]] bool Take(std::span<unsigned char const>& body);

    // What has come of the body of a frame that is not whole; empty when there is none. Valid until the next Fill.
    [[nodiscard]] std::span<unsigned char const> Rest() const;

    // One read from the connection; blocks while there is nothing to read. STREAM_ENDED, STREAM_CUT or SYSTEM_ERROR
    // when nothing more comes; MALFORMED when the frame that has begun is longer than the server ever sends.
    brindle_Result Fill(int connection);

 private:
    void MakeRoom();
    [[nodiscard]] std::size_t Held() const { return end_ - begin_; }
    [[nodiscard]] std::size_t DeclaredBytes() const;  // of the frame at the start; only when its header is held

    std::unique_ptr<unsigned char[]> bytes_;
    std::size_t room_ = 0;   // bytes allocated
    std::size_t begin_ = 0;  // start of what is held
    std::size_t end_ = 0;    // end of what is held
};
