// What the client library does not send, and which addresses it takes. What it does send and take is compared with the
// server's side by the fuzzers and by the tests of brindlectl.
#include <gtest/gtest.h>

#include <memory>

#include "brindle_connection.h"
#include "brindle_records.h"

namespace {

// A schema of a text key and two numbers.
suts_tsspec const& Schema() {
    static suts_tsspec const schema = [] {
        suts_tsspec made;
        made.fieldCount = 3;
        made.types = std::make_unique<int[]>(3);
        made.types[0] = SUTS_STRING64;
        made.types[1] = SUTS_INT32;
        made.types[2] = SUTS_FLOAT64;
        return made;
    }();
    return schema;
}

TEST(RecordsAndQueries, AreRefusedWhenTheServerWouldNotTakeThem) {
    std::vector<brindle_Value> const good = {brindle_Value::Text("k"), brindle_Value::Number(SUTS_INT32, 1),
                                             brindle_Value::Real(3)};
    auto const with = [&good](std::size_t index, brindle_Value const& value) {
        std::vector<brindle_Value> values = good;
        values[index] = value;
        return values;
    };
    struct {
        char const* what;
        long timeUs;
        std::vector<brindle_Value> values;
    } const rows[] = {
        {"a negative time", -1, good},
        {"a field too few", 0, {good.begin(), good.end() - 1}},
        {"another type", 0, with(1, brindle_Value::Number(SUTS_INT64, 1))},
        {"an int32 out of range", 0, with(1, brindle_Value::Number(SUTS_INT32, 2147483648))},
        {"a NUL in the key", 0, with(0, brindle_Value::Text({"a\0", 2}))},
    };
    brindle_Message frame;
    for (auto const& row : rows) {
        EXPECT_EQ(brindle_AppendRecord(frame, Schema(), row.timeUs, row.values), BRINDLE_MALFORMED) << row.what;
        EXPECT_EQ(frame.BodyBytes(), 0U) << row.what;
    }
    EXPECT_EQ(brindle_MakeQuery(frame, Schema(), brindle_Value::Number(SUTS_INT32, 1), 0, 1), BRINDLE_MALFORMED);
    EXPECT_EQ(frame.BodyBytes(), 0U);
}

TEST(Addresses, AreReadWholeOrNotAtAll) {
    struct {
        char const* text;
        char const* host;  // null where the text is no address
        int first;
        int second;
    } const rows[] = {
        {"stage:7001,7002", "stage", 7001, 7002},
        {"7001,7002", "127.0.0.1", 7001, 7002},
        {"*:1,65535", "*", 1, 65535},
        {":7001,7002", nullptr, 0, 0},
        {"stage:0,1", nullptr, 0, 0},
        {"stage:1,65536", nullptr, 0, 0},
        {"", nullptr, 0, 0},
        {"stage:1, 2", nullptr, 0, 0},
    };
    for (auto const& row : rows) {
        brindle_Address address;
        EXPECT_EQ(brindle_ParseAddress(row.text, address), row.host != nullptr) << row.text;
        EXPECT_EQ(address.host, row.host != nullptr ? row.host : "") << row.text;
        EXPECT_EQ(address.firstPort, row.first) << row.text;
        EXPECT_EQ(address.secondPort, row.second) << row.text;
    }
}

}  // namespace
