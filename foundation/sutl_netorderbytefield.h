// A message on its way: a stream of bytes, filled and sealed, then drained.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "sutl_dqueue.h"

// Bytes leave in the order in which they came, numbers most significant byte first. Byte k of the stream is byte k mod
// 8 of its word in memory, and words move whole, so the stream does not depend on the host's byte order.
//
// A field serves message after message: Reset; append; Seal; then StartReading and take until Count is 0. Appends and
// takes must not be mixed within a message, since both use the current word. Nothing checks for an empty field: callers
// never take more than Count. A message holds at most 2^31 - 1 bytes. Belongs to one thread at a time.
class sutl_NetorderByteField {
 public:
    sutl_NetorderByteField() : words_(WORDS_PER_BLOCK, IDLE_BLOCKS_MAX) {}

    void Reset();                                             // empty, whatever the last message left behind
    void Append8Byte(unsigned long* values, unsigned int n);  // swaps the caller's array in place to network order
    void Append4Byte(unsigned int* values, unsigned int n);   // the same
    void AppendBytes(void const* bytes, std::size_t n);
    void Seal();  // after the last append: pushes the last word if it is a partial one

    void StartReading() { readPosition_ = WORD_BYTES; }
    void GetNext8Byte(unsigned long* out, unsigned int n);
    void GetNext4Byte(unsigned int* out, unsigned int n);
    void GetNextBytes(unsigned char* out, unsigned int n);

    [[nodiscard]] int Count() const { return count_; }  // bytes appended and not yet taken

 private:
    static constexpr int WORD_BYTES = 8;
    static constexpr unsigned long WORDS_PER_BLOCK = 32;
    static constexpr std::size_t IDLE_BLOCKS_MAX = 1UL << 16;  // 16 MiB of message bytes are recycled
    static constexpr bool LITTLE_ENDIAN_HOST = std::endian::native == std::endian::little;
    static_assert(LITTLE_ENDIAN_HOST || std::endian::native == std::endian::big);

    // Bytes of a word counted from its first in memory: what lies before byte n, and the word moved so that its first
    // byte becomes byte n, or byte n its first.
    static unsigned long BytesBefore(unsigned long word, int n) {
        unsigned long const low = (1UL << (8 * n)) - 1;
        return word & (LITTLE_ENDIAN_HOST ? low : ~(~0UL >> (8 * n)));
    }
    static unsigned long MoveUp(unsigned long word, int n) {
        return LITTLE_ENDIAN_HOST ? word << (8 * n) : word >> (8 * n);
    }
    static unsigned long MoveDown(unsigned long word, int n) {
        return LITTLE_ENDIAN_HOST ? word >> (8 * n) : word << (8 * n);
    }

    void AppendWord(unsigned long word);                 // eight bytes as they lie in memory
    void AppendPartialWord(unsigned long word, int n);   // the first n bytes of a word, 0 < n < 8
    [[nodiscard]] unsigned long TakeWord();              // eight bytes
    [[nodiscard]] unsigned long TakePartialWord(int n);  // n bytes, 0 < n < 8, at the start of a word

    int count_ = 0;                     // bytes held
    int readPosition_ = WORD_BYTES;     // next byte of the current word to take; 8: none is left in it
    sutl_DQUEUE<unsigned long> words_;  // full words, oldest at the end
    unsigned long current_ = 0;         // the word being filled or being read
};

inline void sutl_NetorderByteField::AppendWord(unsigned long word) {
    int const filled = count_ % WORD_BYTES;
    count_ += WORD_BYTES;
    if (filled == 0) {
        words_.Addfront(word);
        return;
    }
    words_.Addfront(BytesBefore(current_, filled) | MoveUp(word, filled));
    current_ = MoveDown(word, WORD_BYTES - filled);
}

inline void sutl_NetorderByteField::AppendPartialWord(unsigned long word, int n) {
    int const filled = count_ % WORD_BYTES;
    count_ += n;
    unsigned long const joined = filled == 0 ? word : BytesBefore(current_, filled) | MoveUp(word, filled);
    if (filled + n < WORD_BYTES) {
        current_ = joined;
        return;
    }
    words_.Addfront(joined);
    current_ = MoveDown(word, WORD_BYTES - filled);
}

inline unsigned long sutl_NetorderByteField::TakeWord() {
    count_ -= WORD_BYTES;
    if (readPosition_ == WORD_BYTES) return words_.Getend();
    unsigned long const next = words_.Getend();
    unsigned long const word = MoveDown(current_, readPosition_) | MoveUp(next, WORD_BYTES - readPosition_);
    current_ = next;
    return word;
}

inline unsigned long sutl_NetorderByteField::TakePartialWord(int n) {
    count_ -= n;
    if (readPosition_ == WORD_BYTES) {
        current_ = words_.Getend();
        readPosition_ = 0;
    }
    int const left = WORD_BYTES - readPosition_;
    unsigned long word = MoveDown(current_, readPosition_);
    if (n <= left) {
        readPosition_ += n;
        return word;
    }
    current_ = words_.Getend();
    word |= MoveUp(current_, left);
    readPosition_ = n - left;
    return word;
}

inline void sutl_NetorderByteField::Append8Byte(unsigned long* values, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i) {
        if constexpr (LITTLE_ENDIAN_HOST) values[i] = __builtin_bswap64(values[i]);
        AppendWord(values[i]);
    }
}

inline void sutl_NetorderByteField::Append4Byte(unsigned int* values, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i) {
        if constexpr (LITTLE_ENDIAN_HOST) values[i] = __builtin_bswap32(values[i]);
        unsigned long word = 0;
        memcpy(&word, &values[i], sizeof values[i]);
        AppendPartialWord(word, sizeof values[i]);
    }
}

inline void sutl_NetorderByteField::GetNext8Byte(unsigned long* out, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i) {
        out[i] = TakeWord();
        if constexpr (LITTLE_ENDIAN_HOST) out[i] = __builtin_bswap64(out[i]);
    }
}

inline void sutl_NetorderByteField::GetNext4Byte(unsigned int* out, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i) {
        unsigned long const word = TakePartialWord(sizeof out[i]);
        memcpy(&out[i], &word, sizeof out[i]);
        if constexpr (LITTLE_ENDIAN_HOST) out[i] = __builtin_bswap32(out[i]);
    }
}
