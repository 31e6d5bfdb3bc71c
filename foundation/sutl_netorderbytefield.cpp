#include "sutl_netorderbytefield.h"

void sutl_NetorderByteField::Reset() {
    count_ = 0;
    readPosition_ = WORD_BYTES;
    words_.Discard();
}

void sutl_NetorderByteField::AppendBytes(void const* bytes, std::size_t n) {
    auto const* from = static_cast<unsigned char const*>(bytes);
    auto const words = static_cast<long>(n / WORD_BYTES);
    auto const next = [&from] {
        unsigned long word;
        memcpy(&word, from, WORD_BYTES);
        from += WORD_BYTES;
        return word;
    };
    int const filled = count_ % WORD_BYTES;
    if (filled == 0) {
        words_.AddfrontMany(words, next);
    } else {
        unsigned long pending = BytesBefore(current_, filled);
        words_.AddfrontMany(words, [&] {
            unsigned long const word = next();
            unsigned long const joined = pending | MoveUp(word, filled);
            pending = MoveDown(word, WORD_BYTES - filled);
            return joined;
        });
        current_ = pending;
    }
    count_ += static_cast<int>(words * WORD_BYTES);
    int const rest = static_cast<int>(n % WORD_BYTES);
    if (rest > 0) {
        unsigned long word = 0;
        memcpy(&word, from, static_cast<std::size_t>(rest));
        AppendPartialWord(word, rest);
    }
}

void sutl_NetorderByteField::Seal() {
    if (count_ % WORD_BYTES != 0) words_.Addfront(current_);
}

void sutl_NetorderByteField::GetNextBytes(unsigned char* out, unsigned int n) {
    std::size_t const words = n / WORD_BYTES;
    if (readPosition_ == WORD_BYTES) {
        words_.GetendMany(out, static_cast<long>(words));
        count_ -= static_cast<int>(words * WORD_BYTES);
    } else {
        for (std::size_t i = 0; i < words; ++i) {
            unsigned long const word = TakeWord();
            memcpy(out + i * WORD_BYTES, &word, WORD_BYTES);
        }
    }
    int const rest = static_cast<int>(n % WORD_BYTES);
    if (rest > 0) {
        unsigned long const word = TakePartialWord(rest);
        memcpy(out + words * WORD_BYTES, &word, static_cast<std::size_t>(rest));
    }
}
