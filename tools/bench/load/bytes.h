// Numbers of the wire in memory that need not be aligned.
#pragma once

#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "the bench reads and writes the wire by swapping");

[[nodiscard]] inline unsigned int bench_Number4(unsigned char const* at) {
    unsigned int value;
    memcpy(&value, at, sizeof value);
    return __builtin_bswap32(value);
}

[[nodiscard]] inline unsigned long bench_Number8(unsigned char const* at) {
    unsigned long value;
    memcpy(&value, at, sizeof value);
    return __builtin_bswap64(value);
}

inline unsigned char* bench_PutNumber4(unsigned char* at, unsigned int value) {
    value = __builtin_bswap32(value);
    memcpy(at, &value, sizeof value);
    return at + sizeof value;
}

inline unsigned char* bench_PutNumber8(unsigned char* at, unsigned long value) {
    value = __builtin_bswap64(value);
    memcpy(at, &value, sizeof value);
    return at + sizeof value;
}
