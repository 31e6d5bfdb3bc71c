#include "brindle_message.h"

#include <bit>
#include <concepts>
#include <cstring>

namespace {

template <std::unsigned_integral T>
void Store(unsigned char* to, T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i) to[i] = static_cast<unsigned char>(value >> (8 * (sizeof(T) - 1 - i)));
}

template <std::unsigned_integral T>
bool Take(std::span<unsigned char const>& from, T& value) {
    if (from.size() < sizeof(T)) return false;
    value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) value = static_cast<T>(value << 8 | from[i]);
    from = from.subspan(sizeof(T));
    return true;
}

}  // namespace

unsigned char* brindle_Message::Extend(std::size_t bytes) {
    std::size_t const before = bytes_.size();
    bytes_.resize(before + bytes);
    return bytes_.data() + before;
}

unsigned char* brindle_StoreField(unsigned char* to, brindle_Value const& value) {
    switch (value.type) {
        case SUTS_INT32:
            Store(to, static_cast<unsigned int>(value.number));
            return to + sizeof(unsigned int);
        case SUTS_INT64:
            Store(to, static_cast<unsigned long>(value.number));
            return to + sizeof(unsigned long);
        case SUTS_FLOAT64:
            Store(to, std::bit_cast<unsigned long>(value.real));
            return to + sizeof(unsigned long);
        case SUTS_STRING64: {
            std::size_t const bytes = value.text.size();
            Store(to, static_cast<unsigned int>(bytes + 1));
            to += sizeof(unsigned int);
            if (bytes > 0) memcpy(to, value.text.data(), bytes);
            to[bytes] = 0;
            return to + bytes + 1;
        }
    }
    return to;
}

void brindle_Message::Append4Byte(unsigned int value) { Store(Extend(sizeof value), value); }

void brindle_Message::Append8Byte(unsigned long value) { Store(Extend(sizeof value), value); }

void brindle_Message::AppendField(brindle_Value const& value) {
    brindle_StoreField(Extend(brindle_FieldBytes(value)), value);
}

std::span<unsigned char const> brindle_Message::Frame() {
    Store(bytes_.data(), static_cast<unsigned int>(BodyBytes()));
    return bytes_;
}

bool brindle_MessageReader::Take4Byte(unsigned int& value) { return Take(left_, value); }

bool brindle_MessageReader::Take8Byte(unsigned long& value) { return Take(left_, value); }

bool brindle_MessageReader::TakeField(suts_FieldType type, brindle_Value& value) {
    unsigned int four = 0;
    unsigned long eight = 0;
    switch (type) {
        case SUTS_INT32:
            if (!Take4Byte(four)) return false;
            value = brindle_Value::Number(type, static_cast<int>(four));
            return true;
        case SUTS_INT64:
            if (!Take8Byte(eight)) return false;
            value = brindle_Value::Number(type, static_cast<long>(eight));
            return true;
        case SUTS_FLOAT64:
            if (!Take8Byte(eight)) return false;
            value = brindle_Value::Real(std::bit_cast<double>(eight));
            return true;
        case SUTS_STRING64: {
            if (!Take4Byte(four) || four == 0 || four > left_.size()) return false;
            auto const* const text = reinterpret_cast<char const*>(left_.data());
            if (memchr(text, 0, four) != text + four - 1) return false;
            value = brindle_Value::Text({text, four - 1});
            left_ = left_.subspan(four);
            return true;
        }
    }
    return false;
}
