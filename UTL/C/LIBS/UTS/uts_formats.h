// Numbers of the wire and file formats, and of the limits that readers and writers share.
#pragma once

// A record on the data port, behind others in the body of a frame; numbers most significant byte first:
// | content                         | size                                                                    |
// | field 0 of the schema, the key  | by its type, below                                                      |
// | time stamp, microseconds        | 8, signed                                                               |
// | fields 1 ... in schema order    | by their types, below                                                   |
//
// A field on every wire, and its stored form (in memory, in the recovery log), which is in host byte order:
// | type     | code | wire                                             | stored                            |
// | string64 |    1 | 4: length with the NUL, then text and NUL        | text and NUL                      |
// | int32    |    2 | 4                                                | 4                                 |
// | int64    |    3 | 8                                                | 8                                 |
// | float64  |    4 | 8: IEEE 754 bits                                 | 8                                 |
enum suts_FieldType : int { SUTS_STRING64 = 1, SUTS_INT32 = 2, SUTS_INT64 = 3, SUTS_FLOAT64 = 4 };

constexpr int SUTS_INT32_BYTES = 4;
constexpr int SUTS_NUMBER8_BYTES = 8;        // int64, float64, time stamps, counts
constexpr int SUTS_STRING_LENGTH_BYTES = 4;  // before the text of a string64 on a wire

// A record in the recovery log:
// | offset | size | content                                     |
// |      0 |    8 | time stamp, signed, microseconds            |
// |      8 |    4 | length L of the value, signed               |
// |     12 |    K | key, stored form; its type tells its size   |
// | 12 + K |    L | value: the other fields, stored form        |
constexpr int SUTS_LOG_HEAD_BYTES = 12;
constexpr int SUTS_LOG_BLOCK_BYTES = 4096;  // the log is written, and read, in blocks of this size

// A ship message: 4 bytes of type, then
// | type | payload                                                                                              |
// |    1 | keys new since the last cycle, as field 0                                                            |
// |    2 | key blocks: the key as field 0, an 8-byte record count, per record an 8-byte time and fields 1 ...   |
// |    3 | nothing: end of the cycle                                                                            |
constexpr unsigned int SUTS_SHIP_KEYS = 1;
constexpr unsigned int SUTS_SHIP_RECORDS = 2;
constexpr unsigned int SUTS_SHIP_CYCLE_END = 3;
constexpr int SUTS_SHIP_TYPE_BYTES = 4;
constexpr int SUTS_SHIP_GROUP_KEYS_MAX = 100;  // key blocks of a type 2 message
// No ship message and no query reply is longer. A record that would not fit into a message of its own is refused.
constexpr long SUTS_MESSAGE_BYTES_MAX = 1L << 30;

// A query:
// | offset | size   | content                                                        |
// |      0 | 4      | type, 1 is served                                              |
// |      4 | 8      | time from, unsigned                                            |
// |     12 | 8      | time to, unsigned, inclusive                                   |
// |     20 | varies | key: numbers as on every wire; a string as 4: L, then L bytes  |
constexpr unsigned int SUTS_QUERY_RANGE = 1;
constexpr int SUTS_QUERY_TYPE_BYTES = 4;
