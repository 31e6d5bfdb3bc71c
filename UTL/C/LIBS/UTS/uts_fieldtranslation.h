// Fields between their wire form and their stored form.
#pragma once

#include <cstddef>
#include <memory>

#include "sutl_bytequeue.h"
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

// Takes the fields from first to last, exclusive, in wire form off the bytes from from to end, and puts their stored
// form at to, which takes no more room than their wire form. Moves from and to behind what was taken. A string ends at
// its first NUL, which is added where it is missing. Returns last, or the number of the first field that is not whole,
// with its fault; from then stands behind the length of a string that is too long, and to is of no use. A type code
// that does not exist is an assertion.
[[nodiscard]] int suts_StoreFields(unsigned char const*& from, unsigned char const* end, suts_tsspec const& spec,
                                   int first, int last, unsigned char*& to, suts_FieldFault& fault);

// Takes field number index of the schema off the message, by the same rules, as a value whose heap array the caller
// clears. Never takes more than the message holds. A field that is not whole gives an empty value and sets *fault, when
// it is asked for; what was left of the message is then of no use.
[[nodiscard]] sutl_RawBytefield suts_TranslateSpecField(sutl_NetorderByteField& field, suts_tsspec const& spec,
                                                        int index, suts_FieldFault* fault = nullptr);

// Appends field number fieldIndex in wire form. Takes its stored form from in, at offset, and advances the offset
// behind it. A type code that does not exist appends nothing.
void suts_ShpThrdAddBfToShpField(sutl_NetorderByteField& out, sutl_RawBytefield const& in, suts_tsspec const& spec,
                                 int fieldIndex, int& offset);

// Puts the fields from first to last, exclusive, whose stored form is in, at to in wire form: the bytes of in and
// SUTS_STRING_LENGTH_BYTES per string. Returns the place behind them.
unsigned char* suts_EncodeFields(unsigned char* to, sutl_RawBytefield const& in, suts_tsspec const& spec, int first,
                                 int last);

// Copies the field, with its bytes into the queue as far as they do not lie in the field.
inline void suts_KeepBytes(sutl_RawBytefield& copy, sutl_RawBytefield const& field, sutl_ByteQueue& bytes) {
    if (field.length <= sutl_RawBytefield::INLINE_BYTES_MAX) {
        copy = field;
        return;
    }
    auto const count = static_cast<std::size_t>(field.length);
    unsigned char* const place = bytes.Add(count);
    memcpy(place, field.Data(), count);
    copy.Share(place, field.length);
}

// The place behind the stored fields from first to last, exclusive, which begin at from; null where they do not end
// before end.
[[nodiscard]] unsigned char const* suts_BehindStored(unsigned char const* from, unsigned char const* end,
                                                     suts_tsspec const& spec, int first, int last);

// The bytes of these fields in stored form; -1 where a string among them makes them differ.
[[nodiscard]] int suts_FixedBytes(suts_tsspec const& spec, int first, int last);

// How many of the fields from first to last, exclusive, are strings: each takes SUTS_STRING_LENGTH_BYTES more on a wire
// than stored.
[[nodiscard]] int suts_StringFields(suts_tsspec const& spec, int first, int last);
