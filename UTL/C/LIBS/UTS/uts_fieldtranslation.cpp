#include "uts_fieldtranslation.h"

#include <algorithm>

#include "sutl_assert.h"

namespace {

constexpr sutl_AssertSite SITE_FIELD_TYPE = {"uts_Brindle.cpp", 60};

constexpr long SCRATCH_BYTES_MIN = 1024;

// Takes a number to the place that room(bytes) returns.
template <typename Room>
suts_FieldFault TakeNumber(sutl_NetorderByteField& field, suts_FieldType type, Room room) {
    switch (type) {
        case SUTS_INT32: {
            if (field.Count() < SUTS_INT32_BYTES) return FIELD_CUT;
            unsigned int value;
            field.GetNext4Byte(&value, 1);
            memcpy(room(SUTS_INT32_BYTES), &value, sizeof value);
            return FIELD_WHOLE;
        }
        case SUTS_INT64:
        case SUTS_FLOAT64: {
            if (field.Count() < SUTS_NUMBER8_BYTES) return FIELD_CUT;
            unsigned long value;
            field.GetNext8Byte(&value, 1);
            memcpy(room(SUTS_NUMBER8_BYTES), &value, sizeof value);
            return FIELD_WHOLE;
        }
        default:
            sutl_AssertFailed(SITE_FIELD_TYPE, "ERROR, bad specfield\n");
    }
}

suts_FieldFault TakeString(sutl_NetorderByteField& field, suts_ByteScratch& out) {
    if (field.Count() < SUTS_STRING_LENGTH_BYTES) return FIELD_CUT;
    unsigned int length;
    field.GetNext4Byte(&length, 1);
    if (length > static_cast<unsigned int>(field.Count())) return FIELD_STRING_TOO_LONG;
    int const start = out.Size();
    auto const bytes = static_cast<int>(length);
    unsigned char* const text = out.Grow(bytes + 1);
    field.GetNextBytes(text, length);
    void const* const end = memchr(text, 0, length);
    long const textBytes = end != nullptr ? static_cast<unsigned char const*>(end) - text : bytes;
    text[textBytes] = 0;
    out.Shrink(start + static_cast<int>(textBytes) + 1);
    return FIELD_WHOLE;
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

suts_FieldFault suts_TakeSpecField(sutl_NetorderByteField& field, suts_tsspec const& spec, int index,
                                   suts_ByteScratch& out) {
    suts_FieldType const type = spec.Type(index);
    if (type == SUTS_STRING64) return TakeString(field, out);
    return TakeNumber(field, type, [&](int bytes) { return out.Grow(bytes); });
}

sutl_RawBytefield suts_TranslateSpecField(sutl_NetorderByteField& field, suts_tsspec const& spec, int index,
                                          suts_FieldFault* fault) {
    suts_FieldFault found = FIELD_WHOLE;
    sutl_RawBytefield value;
    value.Prep(0);
    suts_FieldType const type = spec.Type(index);
    if (type == SUTS_STRING64) {
        suts_ByteScratch text;
        found = TakeString(field, text);
        if (found == FIELD_WHOLE) value.Assign(text.Data(), text.Size());
    } else {
        found = TakeNumber(field, type, [&](int bytes) {
            value.Prep(bytes);
            return value.Data();
        });
    }
    if (fault != nullptr) *fault = found;
    return value;
}

void suts_ShpThrdAddBfToShpField(sutl_NetorderByteField& out, sutl_RawBytefield const& in, suts_tsspec const& spec,
                                 int fieldIndex, int& offset) {
    unsigned char const* const bytes = in.Data() + offset;
    switch (spec.Type(fieldIndex)) {
        case SUTS_STRING64: {
            // Every stored string has its NUL; a value that ends before this field has none to offer.
            if (offset >= in.length) return;
            auto const length = static_cast<unsigned int>(
                strnlen(reinterpret_cast<char const*>(bytes), static_cast<std::size_t>(in.length - offset - 1)) + 1);
            unsigned int wireLength = length;
            out.Append4Byte(&wireLength, 1);
            out.AppendBytes(bytes, length);
            offset += static_cast<int>(length);
            return;
        }
        case SUTS_INT32: {
            unsigned int value;
            memcpy(&value, bytes, sizeof value);
            out.Append4Byte(&value, 1);
            offset += SUTS_INT32_BYTES;
            return;
        }
        case SUTS_INT64:
        case SUTS_FLOAT64: {
            unsigned long value;
            memcpy(&value, bytes, sizeof value);
            out.Append8Byte(&value, 1);
            offset += SUTS_NUMBER8_BYTES;
            return;
        }
    }
}

int suts_StringFields(suts_tsspec const& spec, int first, int last) {
    int strings = 0;
    for (int i = first; i < last; ++i) strings += spec.Type(i) == SUTS_STRING64 ? 1 : 0;
    return strings;
}
