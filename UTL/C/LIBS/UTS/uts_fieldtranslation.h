// Fields between their wire form and their stored form.
#pragma once

#include <cstddef>
#include <memory>

#include "sutl_netorderbytefield.h"
#include "sutl_rawbytefield.h"
#include "uts_tsspec.h"

// A growing array of bytes that keeps its room from use to use. Owned by one thread.
class suts_ByteScratch {
 public:
    [[nodiscard]] unsigned char const* Data() const { return bytes_.get(); }
    [[nodiscard]] int Size() const { return size_; }
    void Reset() {
        size_ = 0;
        if (room_ > KEPT_BYTES_MAX) [[unlikely]] { Release(); }
    }
    // Room for count more bytes; returns where they go. Earlier places move.
    unsigned char* Grow(int count) {
        if (size_ + static_cast<long>(count) > room_) [[unlikely]]
            Enlarge(count);
        unsigned char* const place = bytes_.get() + size_;
        size_ += count;
        return place;
    }
    void Append(void const* bytes, int count) {
        if (count > 0) memcpy(Grow(count), bytes, static_cast<std::size_t>(count));
    }
    void Shrink(int size) { size_ = size; }  // to fewer bytes than it holds

 private:
    static constexpr long KEPT_BYTES_MAX = 1L << 20;  // a single huge use must not hold on to its room

    void Enlarge(int count);
    void Release();

    std::unique_ptr<unsigned char[]> bytes_;
    int size_ = 0;   // bytes in use
    long room_ = 0;  // bytes allocated
};

// What is wrong with the next field of a message.
enum suts_FieldFault {
    FIELD_WHOLE,
    FIELD_CUT,             // the message ends inside the field
    FIELD_STRING_TOO_LONG  // a string claims more bytes than the message still holds
};

// Takes field number index of the schema off the message and appends its stored form. A string ends at its first NUL,
// which is added where it is missing. Never takes more than the message holds: after a fault what was left of the
// message is of no use. A type code that does not exist is an assertion.
[[nodiscard]] suts_FieldFault suts_TakeSpecField(sutl_NetorderByteField& field, suts_tsspec const& spec, int index,
                                                 suts_ByteScratch& out);

// The same as a value of its own, whose heap array the caller clears. A field that is not whole gives an empty value
// and sets *fault, when it is asked for.
[[nodiscard]] sutl_RawBytefield suts_TranslateSpecField(sutl_NetorderByteField& field, suts_tsspec const& spec,
                                                        int index, suts_FieldFault* fault = nullptr);

// Appends field number fieldIndex in wire form. Takes its stored form from in, at offset, and advances the offset
// behind it. A type code that does not exist appends nothing.
void suts_ShpThrdAddBfToShpField(sutl_NetorderByteField& out, sutl_RawBytefield const& in, suts_tsspec const& spec,
                                 int fieldIndex, int& offset);

// How many of the fields from first to last, exclusive, are strings: each takes SUTS_STRING_LENGTH_BYTES more on a wire
// than stored.
[[nodiscard]] int suts_StringFields(suts_tsspec const& spec, int first, int last);
