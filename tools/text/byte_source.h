// Where rows come from.
#pragma once

#include <cstddef>
#include <cstdint>

// A stream of bytes that is read without blocking. One thread at a time.
class ByteSource {
 public:
    enum Result : std::uint8_t {
        BYTES,
        WAITING,  // none right now
        END,      // none ever again
        CORRUPT,  // nothing more can be made of it; Problem() tells why
        FAILED    // reading failed; errno tells why
    };

    ByteSource() = default;
    ByteSource(ByteSource const&) = delete;
    ByteSource& operator=(ByteSource const&) = delete;
    virtual ~ByteSource() = default;

    // Reads at most `room` bytes, which is more than 0. `got` counts only with BYTES, and is more than 0 then.
    [[nodiscard]] virtual Result Read(char* to, std::size_t room, std::size_t& got) = 0;
    [[nodiscard]] virtual char const* Problem() const { return ""; }
};
