#include "uts_fieldtranslation.h"

#include <algorithm>

#include "sutl_assert.h"
#include "sutl_netorder.h"

namespace {

constexpr sutl_AssertSite SITE_FIELD_TYPE = {"uts_Brindle.cpp", 60};

constexpr long SCRATCH_BYTES_MIN = 1024;

// Copies a text up to its first NUL, or all of its bytes, and ends it by a NUL. Returns the place behind that.
unsigned char* StoreText(unsigned char* to, unsigned char const* text, std::size_t bytes) {
    auto const* const end = static_cast<unsigned char const*>(memchr(text, 0, bytes));
    std::size_t const textBytes = end != nullptr ? static_cast<std::size_t>(end - text) : bytes;
    memcpy(to, text, textBytes);
    to[textBytes] = 0;
    return to + textBytes + 1;
}

// Takes a string off the bytes; as suts_StoreFields.
suts_FieldFault StoreString(unsigned char const*& from, unsigned char const* end, unsigned char*& to) {
    if (end - from < SUTS_STRING_LENGTH_BYTES) return FIELD_CUT;
    unsigned int bytes;
    memcpy(&bytes, from, sizeof bytes);
    bytes = sutl_ToNetorder(bytes);
    from += SUTS_STRING_LENGTH_BYTES;
    if (end - from < static_cast<long>(bytes)) return FIELD_STRING_TOO_LONG;
    to = StoreText(to, from, bytes);
    from += bytes;
    return FIELD_WHOLE;
}

inline int NumberBytes(suts_FieldType type) {
    switch (type) {
        case SUTS_INT32:
            return SUTS_INT32_BYTES;
        case SUTS_INT64:
        case SUTS_FLOAT64:
            return SUTS_NUMBER8_BYTES;
        default:
            sutl_AssertFailed(SITE_FIELD_TYPE, "ERROR, bad specfield\n");
    }
}

inline unsigned char* CopyNumber(unsigned char* to, unsigned char const* from, int bytes) {
    return bytes == SUTS_INT32_BYTES ? sutl_CopyNetorder<unsigned int>(to, from)
                                     : sutl_CopyNetorder<unsigned long>(to, from);
}

sutl_RawBytefield TakeText(sutl_NetorderByteField& field, suts_FieldFault& fault) {
    sutl_RawBytefield value = {};
    fault = FIELD_CUT;
    if (field.Count() < SUTS_STRING_LENGTH_BYTES) return value;
    unsigned int bytes;
    field.GetNext4Byte(&bytes, 1);
    fault = FIELD_STRING_TOO_LONG;
    if (bytes > static_cast<unsigned int>(field.Count())) return value;
    fault = FIELD_WHOLE;
    suts_ByteScratch text;
    unsigned char* const wire = text.Grow(static_cast<int>(bytes) + 1);
    field.GetNextBytes(wire, bytes);
    wire[bytes] = 0;
    value.Assign(wire, static_cast<int>(strlen(reinterpret_cast<char const*>(wire))) + 1);
    return value;
}

// Where wire forms go: a message, and plain memory.
struct ToMessage {
    sutl_NetorderByteField& out;

    void Number4(unsigned int value) { out.Append4Byte(&value, 1); }
    void Number8(unsigned long value) { out.Append8Byte(&value, 1); }
    void Bytes(unsigned char const* bytes, unsigned int count) { out.AppendBytes(bytes, count); }
};
struct ToMemory {
    unsigned char* at;

    void Number4(unsigned int value) { Number(sutl_ToNetorder(value)); }
    void Number8(unsigned long value) { Number(sutl_ToNetorder(value)); }
    void Bytes(unsigned char const* bytes, unsigned int count) {
        memcpy(at, bytes, count);
        at += count;
    }
    template <typename Value>
    void Number(Value value) {
        memcpy(at, &value, sizeof value);
        at += sizeof value;
    }
};

// Puts a field out in wire form. Returns the bytes of its stored form, which begins at bytes and ends by left.
template <typename Out>
int PutField(Out& out, unsigned char const* bytes, int left, suts_FieldType type) {
    switch (type) {
        case SUTS_STRING64: {
            // Every stored string has its NUL; a value that ends before this field has none to offer.
            if (left <= 0) return 0;
            auto const length = static_cast<unsigned int>(
                strnlen(reinterpret_cast<char const*>(bytes), static_cast<std::size_t>(left - 1)) + 1);
            out.Number4(length);
            out.Bytes(bytes, length);
            return static_cast<int>(length);
        }
        case SUTS_INT32: {
            unsigned int value;
            memcpy(&value, bytes, sizeof value);
            out.Number4(value);
            return SUTS_INT32_BYTES;
        }
        case SUTS_INT64:
        case SUTS_FLOAT64: {
            unsigned long value;
            memcpy(&value, bytes, sizeof value);
            out.Number8(value);
            return SUTS_NUMBER8_BYTES;
        }
    }
    return 0;
}

}  // namespace

void suts_ByteScratch::Enlarge(int count) {
    long const room = std::max({size_ + static_cast<long>(count), 2 * room_, SCRATCH_BYTES_MIN});
    // Not make_unique: bytes about to be written need no zeros first.
    std::unique_ptr<unsigned char[]> larger(new unsigned char[static_cast<std::size_t>(room)]);
    if (size_ > 0) memcpy(larger.get(), bytes_.get(), static_cast<std::size_t>(size_));
    bytes_ = std::move(larger);
    room_ = room;
}

void suts_ByteScratch::Release() {
    bytes_.reset();
    room_ = 0;
}

int suts_StoreFields(unsigned char const*& from, unsigned char const* end, suts_tsspec const& spec, int first, int last,
                     unsigned char*& to, suts_FieldFault& fault) {
    for (int i = first; i < last; ++i) {
        suts_FieldType const type = spec.Type(i);
        if (type == SUTS_STRING64) {
            fault = StoreString(from, end, to);
        } else {
            int const bytes = NumberBytes(type);
            fault = end - from < bytes ? FIELD_CUT : FIELD_WHOLE;
            if (fault == FIELD_WHOLE) {
                to = CopyNumber(to, from, bytes);
                from += bytes;
            }
        }
        if (fault != FIELD_WHOLE) [[unlikely]]
            return i;
    }
    return last;
}

sutl_RawBytefield suts_TranslateSpecField(sutl_NetorderByteField& field, suts_tsspec const& spec, int index,
                                          suts_FieldFault* fault) {
    suts_FieldFault found = FIELD_WHOLE;
    sutl_RawBytefield value = {};
    suts_FieldType const type = spec.Type(index);
    if (type == SUTS_STRING64) {
        value = TakeText(field, found);
    } else {
        int const bytes = NumberBytes(type);
        found = field.Count() < bytes ? FIELD_CUT : FIELD_WHOLE;
        if (found == FIELD_WHOLE) {
            unsigned char wire[SUTS_NUMBER8_BYTES];
            field.GetNextBytes(wire, static_cast<unsigned int>(bytes));
            value.Prep(bytes);
            CopyNumber(value.Data(), wire, bytes);
        }
    }
    if (fault != nullptr) *fault = found;
    return value;
}

void suts_ShpThrdAddBfToShpField(sutl_NetorderByteField& out, sutl_RawBytefield const& in, suts_tsspec const& spec,
                                 int fieldIndex, int& offset) {
    ToMessage message = {out};
    offset += PutField(message, in.Data() + offset, in.length - offset, spec.Type(fieldIndex));
}

unsigned char* suts_EncodeFields(unsigned char* to, sutl_RawBytefield const& in, suts_tsspec const& spec, int first,
                                 int last) {
    ToMemory memory = {to};
    unsigned char const* const bytes = in.Data();
    int offset = 0;
    for (int i = first; i < last; ++i) { offset += PutField(memory, bytes + offset, in.length - offset, spec.Type(i)); }
    return memory.at;
}

unsigned char const* suts_BehindStored(unsigned char const* from, unsigned char const* end, suts_tsspec const& spec,
                                       int first, int last) {
    for (int i = first; i < last; ++i) {
        if (spec.Type(i) == SUTS_STRING64) {
            auto const* const nul =
                static_cast<unsigned char const*>(memchr(from, 0, static_cast<std::size_t>(end - from)));
            if (nul == nullptr) return nullptr;
            from = nul + 1;
        } else {
            int const bytes = spec.Type(i) == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
            if (end - from < bytes) return nullptr;
            from += bytes;
        }
    }
    return from;
}

int suts_FixedBytes(suts_tsspec const& spec, int first, int last) {
    int bytes = 0;
    for (int i = first; i < last; ++i) {
        if (spec.Type(i) == SUTS_STRING64) return -1;
        bytes += spec.Type(i) == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
    }
    return bytes;
}

int suts_StringFields(suts_tsspec const& spec, int first, int last) {
    int strings = 0;
    for (int i = first; i < last; ++i) strings += spec.Type(i) == SUTS_STRING64 ? 1 : 0;
    return strings;
}
