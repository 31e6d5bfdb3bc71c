// The checksum by which the driver tells that every record came once and unharmed.
#pragma once

#include <cstddef>
#include <cstring>

// A hash of the bytes; the sum of the hashes of many records does not depend on their order. A multiplication for every
// 16 bytes, since the driver shares the machine with what it measures.
[[nodiscard]] inline unsigned long bench_Checksum(unsigned char const* bytes, std::size_t count) {
    __extension__ using Wide = unsigned __int128;
    constexpr unsigned long A = 0xa0761d6478bd642f;
    constexpr unsigned long B = 0xe7037ed1a0b428db;
    unsigned long hash = A ^ count;
    auto const mix = [&hash](unsigned long first, unsigned long second) {
        Wide const product = static_cast<Wide>(first ^ hash) * (second ^ B);
        hash = static_cast<unsigned long>(product) ^ static_cast<unsigned long>(product >> 64);
    };
    unsigned long words[2];
    for (; count >= sizeof words; bytes += sizeof words, count -= sizeof words) {
        memcpy(words, bytes, sizeof words);
        mix(words[0], words[1]);
    }
    words[0] = words[1] = 0;
    memcpy(words, bytes, count);
    mix(words[0], words[1]);
    return hash;
}
