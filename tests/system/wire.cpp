#include "wire.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <ostream>

namespace systest {

namespace {

// The recovery files hold numbers as this machine does; tests run on the machine of the server.
template <class Number>
std::string Host(Number value) {
    return {reinterpret_cast<char const*>(&value), sizeof value};
}

// Takes fields from the front of some bytes; a field that is not all there is a Failure.
class Cursor {
 public:
    explicit Cursor(std::string_view bytes) : bytes_(bytes) {}
    bool Empty() const { return bytes_.empty(); }
    std::string Take(std::size_t size) {
        if (size > bytes_.size()) throw Failure("the bytes end inside a field");
        std::string taken(bytes_.substr(0, size));
        bytes_.remove_prefix(size);
        return taken;
    }
    std::uint64_t TakeBig(std::size_t size) {
        std::uint64_t value = 0;
        for (char const byte : Take(size)) value = value << 8 | static_cast<unsigned char>(byte);
        return value;
    }
    template <class Number>
    Number TakeHost() {
        Number value;
        std::memcpy(&value, Take(sizeof value).data(), sizeof value);
        return value;
    }
    std::string TakeWireFields(std::string_view types) {
        std::string wire;
        for (char const type : types) {
            std::size_t const size = type == 's' ? TakeBig(4) : type == '4' ? 4 : 8;
            if (type == 's') wire += Big4(static_cast<std::uint32_t>(size));
            wire += Take(size);
            if (type == 's' && (size == 0 || wire.find('\0', wire.size() - size) != wire.size() - 1))
                throw Failure("a string whose only NUL is not its last byte");
        }
        return wire;
    }
    // Taken in stored form, returned in wire form.
    std::string TakeStoredFields(std::string_view types) {
        std::string wire;
        for (char const type : types) {
            if (type == 's') {
                std::string const text = Take(std::min(bytes_.find('\0'), bytes_.size()));
                Take(1);
                wire += Text(text);
            } else {
                wire += type == '4' ? Big4(TakeHost<std::uint32_t>()) : Big8(TakeHost<std::uint64_t>());
            }
        }
        return wire;
    }

 private:
    std::string_view bytes_;
};

std::string Stored(std::string_view types, std::string_view wire) {
    std::string stored;
    Cursor cursor(wire);
    for (char const type : types)
        stored += type == '4'   ? Host(static_cast<std::uint32_t>(cursor.TakeBig(4)))
                  : type != 's' ? Host(cursor.TakeBig(8))
                                : cursor.TakeWireFields("s").substr(4);
    return stored;
}

std::string BigEndian(std::uint64_t value, int size) {
    std::string bytes;
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) bytes.push_back(static_cast<char>(value >> shift & 0xFF));
    return bytes;
}

}  // namespace

std::string Big4(std::uint32_t value) { return BigEndian(value, 4); }
std::string Big8(std::uint64_t value) { return BigEndian(value, 8); }
std::string Int32(std::int64_t value) { return Big4(static_cast<std::uint32_t>(value)); }
std::string Int64(std::int64_t value) { return Big8(static_cast<std::uint64_t>(value)); }
std::string Float64(double value) { return Big8(std::bit_cast<std::uint64_t>(value)); }
std::string Text(std::string_view characters) {
    return Big4(static_cast<std::uint32_t>(characters.size()) + 1) + std::string(characters) + '\0';
}

std::string SpecFile(Types const& types) {
    std::string text = "Rec";
    for (char const type : types) {
        char const* const word = type == 's' ? "string64" : type == '4' ? "int32" : type == '8' ? "int64" : "float64";
        text += std::string("\n") + word + " field" + std::to_string(text.size());
    }
    return text + "\n";
}

std::string Frame(std::string_view payload) {
    return Big4(static_cast<std::uint32_t>(payload.size())) + std::string(payload);
}

std::string Payload(Records const& records) {
    std::string bytes;
    for (Record const& record : records) bytes += record.key + Int64(record.time) + record.rest;
    return bytes;
}

std::string Request(std::string_view key, std::uint64_t from, std::uint64_t to) {
    return Big4(1) + Big8(from) + Big8(to) + std::string(key);
}

std::uint32_t FrameSize(std::string_view header) { return static_cast<std::uint32_t>(Cursor(header).TakeBig(4)); }

Records DecodeReply(Types const& types, std::string_view payload) {
    Records records;
    for (Cursor cursor(payload); !cursor.Empty();) {
        Record& record = records.emplace_back();
        record.key = cursor.TakeWireFields(types.substr(0, 1));
        record.time = static_cast<std::int64_t>(cursor.TakeBig(8));
        record.rest = cursor.TakeWireFields(types.substr(1));
    }
    return records;
}

Cycles DecodeCycles(Types const& types, Texts const& messages) {
    std::string const keyType = types.substr(0, 1);
    Cycles cycles;
    bool inCycle = false;
    for (std::string const& message : messages) {
        Cursor cursor(message);
        std::uint64_t const type = cursor.TakeBig(4);
        if ((type == 1) == inCycle || type < 1 || type > 3 || (type == 3 && !cursor.Empty()))
            throw Failure("message of type " + std::to_string(type) + " and " + std::to_string(message.size()) +
                          " bytes " + (inCycle ? "inside" : "between") + " cycles");
        inCycle = type != 3;
        if (type == 1) {
            cycles.emplace_back();
            while (!cursor.Empty()) cycles.back().newKeys.push_back(cursor.TakeWireFields(keyType));
            continue;
        }
        if (type == 2) cycles.back().groups.emplace_back();
        while (!cursor.Empty()) {
            Block& block = cycles.back().groups.back().emplace_back(Block{cursor.TakeWireFields(keyType), {}});
            for (std::uint64_t count = cursor.TakeBig(8); count > 0; --count) {
                auto const time = static_cast<std::int64_t>(cursor.TakeBig(8));
                block.records.push_back({block.key, time, cursor.TakeWireFields(types.substr(1))});
            }
        }
    }
    if (inCycle) throw Failure("the last cycle has no end");
    return cycles;
}

std::string LogRecord(Types const& types, Record const& record) {
    return LogRecord(types, record, static_cast<std::int32_t>(Stored(types.substr(1), record.rest).size()));
}

std::string LogRecord(Types const& types, Record const& record, std::int32_t valueBytes) {
    return Host(record.time) + Host(valueBytes) + Stored(types, record.key + record.rest);
}

std::string CopiedKey(Types const& types, std::string_view key) { return Stored(types.substr(0, 1), key); }

std::string KeyEntry(Types const& types, std::string_view key) {
    std::string const stored = CopiedKey(types, key);
    return types[0] == 's' ? Host(static_cast<std::int32_t>(stored.size())) + stored : stored;
}

Records DecodeLog(Types const& types, std::string_view bytes) {
    Records records;
    try {
        for (Cursor cursor(bytes); !cursor.Empty();) {
            Record record;
            record.time = cursor.TakeHost<std::int64_t>();
            cursor.Take(4);
            record.key = cursor.TakeStoredFields(types.substr(0, 1));
            record.rest = cursor.TakeStoredFields(types.substr(1));
            records.push_back(record);
        }
    } catch (Failure const&) {
        // The last record was cut: the records before it are the log.
    }
    return records;
}

std::string Show(Record const& record) {
    auto const hex = [](std::string_view bytes) {
        std::string text = std::to_string(bytes.size()) + " bytes";
        for (unsigned char const byte : bytes.substr(0, 40))
            text += {' ', "0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
        return text;
    };
    return "{key: " + hex(record.key) + ", time: " + std::to_string(record.time) + ", rest: " + hex(record.rest) + "}";
}

void PrintTo(Record const& record, std::ostream* out) { *out << Show(record); }

}  // namespace systest
