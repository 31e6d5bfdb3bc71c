// The bytes of one value: a key, the packed fields of a record, one translated field.
#pragma once

#include <bit>
#include <cstring>
#include <type_traits>

// A plain value of 16 bytes. Up to 12 bytes lie inside it, longer values elsewhere: in a heap array of its own, made by
// Prep or Assign, or among the bytes of somebody else, who keeps them, after Share. It has no constructor, destructor
// or copy operation of its own: copies are bitwise and share what lies elsewhere. Of the copies of a value with an
// array exactly one must be cleared, of a shared one none; each hand-over says which it is. Belongs to one thread at a
// time.
struct alignas(8) sutl_RawBytefield {
    static constexpr int INLINE_BYTES_MAX = 12;

    int length;  // bytes of the value; decides alone where they lie

    // Sets the length and, above 12 bytes, allocates the array. Neither clears the bytes nor releases an earlier array.
    void Prep(int bytes) {
        length = bytes;
        if (bytes > INLINE_BYTES_MAX) SetHeap(new unsigned char[static_cast<unsigned int>(bytes)]);
    }

    // Releases the array, if there is one; the length becomes 0.
    void Clear() {
        if (length > INLINE_BYTES_MAX) delete[] Heap();
        length = 0;
    }

    // Preps for the bytes and copies them in. An earlier array is not released.
    void Assign(void const* bytes, int count) {
        if (count <= INLINE_BYTES_MAX) {
            Share(static_cast<unsigned char const*>(bytes), count);
            return;
        }
        Prep(count);
        memcpy(Heap(), bytes, static_cast<unsigned int>(count));
    }

    // Becomes a value that shares the bytes with their owner, who keeps them: not to be cleared. Up to 12 bytes are
    // copied, and zeros behind them. An earlier array is not released.
    void Share(unsigned char const* bytes, int count);

    // The value as two words, of which values of up to 12 bytes that were shared or assigned are equal when they are.
    // Not for one that was filled after Prep: what lies behind its bytes is not known.
    struct Words {
        unsigned long first, last;
        bool operator==(Words const&) const = default;
    };
    [[nodiscard]] Words AsWords() const { return std::bit_cast<Words>(*this); }

    [[nodiscard]] unsigned char* Data() { return length > INLINE_BYTES_MAX ? Heap() : storage_; }
    [[nodiscard]] unsigned char const* Data() const { return length > INLINE_BYTES_MAX ? Heap() : storage_; }

 private:
    // The pointer to the heap array shares the inline bytes' place; its offset of 8 keeps it aligned.
    static constexpr int POINTER_OFFSET = 4;
    [[nodiscard]] unsigned char* Heap() const {
        unsigned char* heap;
        memcpy(&heap, storage_ + POINTER_OFFSET, sizeof heap);
        return heap;
    }
    void SetHeap(unsigned char* heap) { memcpy(storage_ + POINTER_OFFSET, &heap, sizeof heap); }

    unsigned char storage_[INLINE_BYTES_MAX];
};

static_assert(sizeof(sutl_RawBytefield) == 16 && std::is_trivial_v<sutl_RawBytefield>);

// Written in whole words. A value that is written in pieces and copied at once makes the processor wait until every
// write before it has reached the cache.
inline void sutl_RawBytefield::Share(unsigned char const* bytes, int count) {
    auto const load4 = [bytes](int at) {
        unsigned int word;
        memcpy(&word, bytes + at, sizeof word);
        return static_cast<unsigned long>(word);
    };
    auto const write = [this](unsigned long first, unsigned long last) {
        unsigned long const words[] = {first, last};
        memcpy(static_cast<void*>(this), &words[0], sizeof first);
        memcpy(reinterpret_cast<unsigned char*>(this) + sizeof first, &words[1], sizeof last);
    };
    constexpr bool LITTLE_ENDIAN_HOST = std::endian::native == std::endian::little;
    if (LITTLE_ENDIAN_HOST && count > INLINE_BYTES_MAX) {
        write(static_cast<unsigned long>(count), reinterpret_cast<unsigned long>(bytes));
    } else if (LITTLE_ENDIAN_HOST && count >= 4) {
        // The last four bytes overlap those before them with the same content.
        unsigned long const last4 = load4(count - 4);
        unsigned long const last8 = count < 8 ? last4 >> (8 * (8 - count)) : load4(4) | last4 << (8 * (count - 8));
        write(static_cast<unsigned long>(count) | load4(0) << 32, last8);
    } else {
        write(0, 0);
        length = count;
        if (count > INLINE_BYTES_MAX) {
            SetHeap(const_cast<unsigned char*>(bytes));
        } else if (count > 0) {
            memcpy(storage_, bytes, static_cast<unsigned int>(count));
        }
    }
}

// The order of keys: a shorter key sorts before a longer one, keys of equal length compare as unsigned bytes.
// Negative, 0 or positive, as memcmp.
[[nodiscard]] inline int sutl_CompareKeys(sutl_RawBytefield const& a, sutl_RawBytefield const& b) {
    if (a.length != b.length) return a.length < b.length ? -1 : 1;
    return memcmp(a.Data(), b.Data(), static_cast<unsigned int>(a.length));
}
