#include "brindle_records.h"

#include <climits>
#include <limits>

namespace {

bool Fits(brindle_Value const& value, suts_FieldType type) {
    if (value.type != type) return false;
    if (type == SUTS_INT32) return value.number == static_cast<int>(value.number);
    return type != SUTS_STRING64 || value.text.find('\0') == std::string_view::npos;
}

}  // namespace

brindle_Result brindle_AppendRecord(brindle_Message& frame, suts_tsspec const& spec, long timeUs,
                                    std::span<brindle_Value const> values) {
    if (timeUs < 0 || values.size() != static_cast<std::size_t>(spec.fieldCount)) return BRINDLE_MALFORMED;
    std::size_t bytes = SUTS_NUMBER8_BYTES;
    for (int i = 0; i < spec.fieldCount; ++i) {
        auto const& value = values[static_cast<std::size_t>(i)];
        if (!Fits(value, spec.Type(i))) return BRINDLE_MALFORMED;
        bytes += brindle_FieldBytes(value);
    }
    if (frame.BodyBytes() + bytes > INT_MAX) return BRINDLE_MALFORMED;

    unsigned char* to = brindle_StoreField(frame.Extend(bytes), values[0]);
    to = brindle_StoreField(to, brindle_Value::Number(SUTS_INT64, timeUs));
    for (brindle_Value const& value : values.subspan(1)) to = brindle_StoreField(to, value);
    return BRINDLE_DONE;
}

brindle_Result brindle_TakeRecord(brindle_MessageReader& message, suts_tsspec const& spec, long& timeUs,
                                  std::vector<brindle_Value>& values) {
    values.resize(static_cast<std::size_t>(spec.fieldCount));
    unsigned long time = 0;
    if (!message.TakeField(spec.Type(0), values[0]) || !message.Take8Byte(time)) return BRINDLE_MALFORMED;
    timeUs = static_cast<long>(time);
    for (int i = 1; i < spec.fieldCount; ++i) {
        if (!message.TakeField(spec.Type(i), values[static_cast<std::size_t>(i)])) return BRINDLE_MALFORMED;
    }
    return BRINDLE_DONE;
}

brindle_Result brindle_MakeQuery(brindle_Message& query, suts_tsspec const& spec, brindle_Value const& key, long fromUs,
                                 long toUs) {
    query.Clear();
    bool const tooLong = key.text.size() >= static_cast<std::size_t>(SUTS_MESSAGE_BYTES_MAX);
    if (fromUs < 0 || toUs < 0 || tooLong || !Fits(key, spec.Type(0))) return BRINDLE_MALFORMED;
    query.Append4Byte(SUTS_QUERY_RANGE);
    query.Append8Byte(static_cast<unsigned long>(fromUs));
    query.Append8Byte(static_cast<unsigned long>(toUs));
    query.AppendField(key);
    return BRINDLE_DONE;
}
