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

void brindle_Message::Append4Byte(unsigned int value) {
    bytes_.resize(bytes_.size() + sizeof value);
    Store(bytes_.data() + bytes_.size() - sizeof value, value);
}

void brindle_Message::Append8Byte(unsigned long value) {
    bytes_.resize(bytes_.size() + sizeof value);
    Store(bytes_.data() + bytes_.size() - sizeof value, value);
}

void brindle_Message::AppendField(brindle_Value const& value) {
    switch (value.type) {
        case SUTS_INT32:
            return Append4Byte(static_cast<unsigned int>(value.number));
        case SUTS_INT64:
            return Append8Byte(static_cast<unsigned long>(value.number));
        case SUTS_FLOAT64:
            return Append8Byte(std::bit_cast<unsigned long>(value.real));
        case SUTS_STRING64:
            Append4Byte(static_cast<unsigned int>(value.text.size() + 1));
            bytes_.insert(bytes_.end(), value.text.begin(), value.text.end());
            bytes_.push_back(0);
            return;
    }
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
