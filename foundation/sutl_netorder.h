// Numbers in network order, most significant byte first, in memory that need not be aligned.
#pragma once

#include <bit>
#include <cstring>

[[nodiscard]] inline unsigned int sutl_ToNetorder(unsigned int value) {
    return std::endian::native == std::endian::little ? __builtin_bswap32(value) : value;
}
[[nodiscard]] inline unsigned long sutl_ToNetorder(unsigned long value) {
    return std::endian::native == std::endian::little ? __builtin_bswap64(value) : value;
}

// Copies a number of the type from one order to the other; returns the place behind it at the destination.
template <typename Number>
unsigned char* sutl_CopyNetorder(unsigned char* to, unsigned char const* from) {
    Number value;
    memcpy(&value, from, sizeof value);
    value = sutl_ToNetorder(value);
    memcpy(to, &value, sizeof value);
    return to + sizeof value;
}
