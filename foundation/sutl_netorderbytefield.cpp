#include "sutl_netorderbytefield.h"

void sutl_NetorderByteField::Reset() {
    count_ = 0;
    readPosition_ = WORD_BYTES;
    words_.Discard();
}

void sutl_NetorderByteField::AppendBytes(void const* bytes, std::size_t n) {
    auto const* from = static_cast<unsigned char const*>(bytes);
    std::size_t const words = n / WORD_BYTES;
    if (count_ % WORD_BYTES == 0) {
        words_.AddfrontMany(from, static_cast<long>(words));
        count_ += static_cast<int>(words * WORD_BYTES);
    } else {
        for (std::size_t i = 0; i < words; ++i) {
            unsigned long word;
            memcpy(&word, from + i * WORD_BYTES, WORD_BYTES);
            AppendWord(word);
        }
    }
    int const rest = static_cast<int>(n % WORD_BYTES);
    if (rest > 0) {
        unsigned long word = 0;
        memcpy(&word, from + words * WORD_BYTES, static_cast<std::size_t>(rest));
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
