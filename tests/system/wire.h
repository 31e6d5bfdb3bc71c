// The bytes of the wire and of the recovery files, written out a second time without a line of the server's code: what
// the server and its libraries get wrong together still shows here.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace systest {

// What ends a test that cannot go on; GoogleTest reports the text.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

using Texts = std::vector<std::string>;

// Numbers in network byte order, and the wire form of one field of each type.
std::string Big4(std::uint32_t value);
std::string Big8(std::uint64_t value);
std::string Int32(std::int64_t value);
std::string Int64(std::int64_t value);
std::string Float64(double value);
std::string Text(std::string_view characters);

// A schema, one character a field: 's' string64, '4' int32, '8' int64, 'f' float64. Field 0 is the key.
using Types = std::string;
std::string SpecFile(Types const& types);

// A record, its fields in wire form so that records are compared byte by byte.
struct Record {
    std::string key;
    std::int64_t time = 0;  // microseconds
    std::string rest;       // fields 1 and up

    bool operator==(Record const&) const = default;
    bool operator<(Record const& other) const {
        return std::tie(key, time, rest) < std::tie(other.key, other.time, other.rest);
    }
};
using Records = std::vector<Record>;
std::string Show(Record const& record);
void PrintTo(Record const& record, std::ostream* out);

// One key of a type 2 message, and one cycle from its type 1 message to its type 3.
struct Block {
    std::string key;
    Records records;
};
struct Cycle {
    Texts newKeys;
    std::vector<std::vector<Block>> groups;  // one entry a type 2 message
};
using Cycles = std::vector<Cycle>;

std::string Frame(std::string_view payload);
std::string Payload(Records const& records);
std::string Request(std::string_view key, std::uint64_t from = 0, std::uint64_t to = UINT64_MAX);
std::uint32_t FrameSize(std::string_view header);
Records DecodeReply(Types const& types, std::string_view payload);
// Messages after the last end of a cycle, or in another order than 1, 2..., 3, are a Failure.
Cycles DecodeCycles(Types const& types, Texts const& messages);

// The recovery files. A log record's head takes its value length from the record unless one is given.
std::string LogRecord(Types const& types, Record const& record);
std::string LogRecord(Types const& types, Record const& record, std::int32_t valueBytes);
std::string KeyEntry(Types const& types, std::string_view key);   // as a new key is appended
std::string CopiedKey(Types const& types, std::string_view key);  // as a key of an older file is copied
// The whole records of a log, given as the bytes of its files in their order.
Records DecodeLog(Types const& types, std::string_view bytes);

}  // namespace systest
