// Records, queries and ship messages against bytes that are written out a second time, and against bytes that are none.
#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <random>

#include "brindle_connection.h"
#include "brindle_framereader.h"
#include "brindle_records.h"
#include "brindle_shipreader.h"

namespace {

std::string BigEndian(std::uint64_t value, int bytes) {
    std::string out;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out.push_back(static_cast<char>(value >> shift & 0xFF));
    return out;
}
std::string Big4(std::uint32_t value) { return BigEndian(value, 4); }
std::string Big8(std::uint64_t value) { return BigEndian(value, 8); }
std::string Int32(std::int64_t value) { return Big4(static_cast<std::uint32_t>(value)); }
std::string Int64(std::int64_t value) { return Big8(static_cast<std::uint64_t>(value)); }
std::string Float64(double value) { return Big8(std::bit_cast<std::uint64_t>(value)); }
std::string Frame(std::string_view body) { return Big4(static_cast<std::uint32_t>(body.size())) + std::string(body); }
std::string Text(std::string_view characters) { return Frame(std::string(characters) + '\0'); }

// A schema of a text key and one field of each type.
suts_tsspec const& Schema() {
    static suts_tsspec const schema = [] {
        suts_tsspec made;
        made.fieldCount = 5;
        made.types = std::make_unique<int[]>(5);
        int const types[] = {SUTS_STRING64, SUTS_INT32, SUTS_INT64, SUTS_FLOAT64, SUTS_STRING64};
        std::copy(std::begin(types), std::end(types), made.types.get());
        return made;
    }();
    return schema;
}

std::string BodyOf(brindle_Message const& message) { return {message.Body().begin(), message.Body().end()}; }

// A copy that ends where its memory ends, so that the address sanitizer sees every byte read behind it.
class Exact {
 public:
    explicit Exact(std::string_view bytes) : bytes_(new unsigned char[bytes.size()]), size_(bytes.size()) {
        std::copy(bytes.begin(), bytes.end(), bytes_.get());
    }
    [[nodiscard]] std::span<unsigned char const> Span() const { return {bytes_.get(), size_}; }

 private:
    std::unique_ptr<unsigned char[]> bytes_;
    std::size_t size_;
};

std::vector<brindle_Value> Values(char const* key, long int32, long int64, double real, std::string_view text) {
    return {brindle_Value::Text(key), brindle_Value::Number(SUTS_INT32, int32),
            brindle_Value::Number(SUTS_INT64, int64), brindle_Value::Real(real), brindle_Value::Text(text)};
}

TEST(Records, AreWrittenAndReadToTheByte) {
    constexpr long LONG_MAX_VALUE = std::numeric_limits<long>::max();
    constexpr long LONG_MIN_VALUE = std::numeric_limits<long>::min();
    std::string const longText(5000, 'x');
    struct {
        long timeUs;
        std::vector<brindle_Value> values;
    } const rows[] = {
        {0, Values("", 0, 0, -0.0, "")},
        {LONG_MAX_VALUE, Values("key", 2147483647, LONG_MAX_VALUE, std::numeric_limits<double>::max(), longText)},
        {1, Values("\xFF\n", -2147483648, LONG_MIN_VALUE, std::numeric_limits<double>::denorm_min(), "\xC3")},
        {2, Values("k", -1, -1, std::bit_cast<double>(0x7ff0000000000001), "a,b")},
    };
    brindle_Message frame;
    std::string expected;
    for (auto const& row : rows) {
        ASSERT_EQ(brindle_AppendRecord(frame, Schema(), row.timeUs, row.values), BRINDLE_DONE);
        expected += Text(row.values[0].text) + Int64(row.timeUs) + Int32(row.values[1].number) +
                    Int64(row.values[2].number) + Float64(row.values[3].real) + Text(row.values[4].text);
    }
    EXPECT_EQ(BodyOf(frame), expected);
    std::span<unsigned char const> const sent = frame.Frame();
    EXPECT_EQ(std::string(sent.begin(), sent.begin() + 4), Big4(static_cast<std::uint32_t>(expected.size())));

    Exact const bytes(expected);
    brindle_MessageReader reader(bytes.Span());
    brindle_Message again;
    for (auto const& row : rows) {
        long timeUs = -1;
        std::vector<brindle_Value> values;
        ASSERT_EQ(brindle_TakeRecord(reader, Schema(), timeUs, values), BRINDLE_DONE);
        EXPECT_EQ(timeUs, row.timeUs);
        ASSERT_EQ(brindle_AppendRecord(again, Schema(), timeUs, values), BRINDLE_DONE);
    }
    EXPECT_EQ(reader.BytesLeft(), 0U);
    EXPECT_EQ(BodyOf(again), expected);
}

TEST(Records, AreRefusedWhenTheServerWouldNotTakeThem) {
    std::vector<brindle_Value> const good = Values("k", 1, 2, 3, "t");
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
}

TEST(Queries, EndExactlyWithTheirKey) {
    brindle_Message query;
    ASSERT_EQ(brindle_MakeQuery(query, Schema(), brindle_Value::Text("ORD"), 5, 9), BRINDLE_DONE);
    EXPECT_EQ(BodyOf(query), Big4(1) + Big8(5) + Big8(9) + Text("ORD"));
    EXPECT_EQ(brindle_MakeQuery(query, Schema(), brindle_Value::Number(SUTS_INT32, 1), 0, 1), BRINDLE_MALFORMED);
    EXPECT_EQ(query.BodyBytes(), 0U);
}

// What a walk over a message met, an item a line.
std::string Walk(std::span<unsigned char const> message) {
    brindle_ShipReader reader(Schema());
    reader.Start(message);
    std::string met;
    for (std::size_t items = 0; items <= message.size() + 1; ++items) {
        switch (reader.Next()) {
            case brindle_ShipReader::KEY_ANNOUNCED:
                met += "key " + std::string(reader.Key().text) + "\n";
                break;
            case brindle_ShipReader::BLOCK_STARTED:
                met += "block " + std::string(reader.Key().text) + " " + std::to_string(reader.Records()) + "\n";
                break;
            case brindle_ShipReader::RECORD:
                met += "record " + std::to_string(reader.TimeUs()) + " " + std::to_string(reader.Values()[1].number) +
                       " " + std::string(reader.Values()[4].text) + "\n";
                break;
            case brindle_ShipReader::CYCLE_ENDED:
                met += "cycle end\n";
                break;
            case brindle_ShipReader::MESSAGE_ENDED:
                return met + "end";
            case brindle_ShipReader::MALFORMED:
                return met + "malformed";
        }
    }
    return met + "endless";
}

std::string WireRecord(long timeUs, int number, std::string_view text) {
    return Big8(static_cast<std::uint64_t>(timeUs)) + Int32(number) + Int64(0) + Float64(0) + Text(text);
}

TEST(ShipMessages, AreWalkedItemByItem) {
    struct {
        char const* what;
        std::string message;
        char const* met;
    } const rows[] = {
        {"keys", Big4(1) + Text("a") + Text(""), "key a\nkey \nend"},
        {"no key", Big4(1), "end"},
        {"blocks, one empty, one key twice",
         Big4(2) + Text("a") + Big8(0) + Text("b") + Big8(2) + WireRecord(7, -1, "x") + WireRecord(8, 1, "") +
             Text("b") + Big8(1) + WireRecord(9, 2, "y"),
         "block a 0\nblock b 2\nrecord 7 -1 x\nrecord 8 1 \nblock b 1\nrecord 9 2 y\nend"},
        {"end of cycle", Big4(3), "cycle end\nend"},
        {"empty", "", "malformed"},
        {"unknown type", Big4(4), "malformed"},
        {"end of cycle with more", Big4(3) + "x", "malformed"},
        {"length 0 of a key", Big4(1) + Big4(0), "malformed"},
        {"key without its NUL", Big4(1) + Big4(1) + "a", "malformed"},
        {"key with two NULs", Big4(1) + Big4(2) + std::string(2, '\0'), "malformed"},
        {"key longer than the message", Big4(1) + Big4(0xFFFFFFFF) + "a", "malformed"},
        {"more records than bytes", Big4(2) + Text("a") + Big8(UINT64_MAX), "malformed"},
        {"count that overflows when multiplied", Big4(2) + Text("a") + Big8(1UL << 61) + WireRecord(1, 1, ""),
         "malformed"},
    };
    for (auto const& row : rows) EXPECT_EQ(Walk(Exact(row.message).Span()), row.met) << row.what;
}

TEST(ShipMessages, AreNeverReadBeyondTheirEnd) {
    std::string const message =
        Big4(2) + Text("a") + Big8(2) + WireRecord(7, -1, "xyz") + WireRecord(8, 1, "") + Text("b") + Big8(0);
    std::size_t const wholeBlock = message.size() - Text("b").size() - 8;
    for (std::size_t size = 0; size < message.size(); ++size) {
        std::string const met = Walk(Exact(message.substr(0, size)).Span());
        bool const atBoundary = size == 4 || size == wholeBlock;
        EXPECT_TRUE(met.ends_with(atBoundary ? "end" : "malformed")) << size << " bytes: " << met;
    }
    std::random_device seeds;
    unsigned long const seed = seeds();
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    for (int i = 0; i < 20000; ++i) {
        std::string damaged = message.substr(0, random() % (message.size() + 1));
        for (auto changes = random() % 4; changes > 0 && !damaged.empty(); --changes) {
            damaged[random() % damaged.size()] = static_cast<char>(random() % 3 == 0 ? random() : random() % 10);
        }
        std::string const met = Walk(Exact(damaged).Span());
        EXPECT_FALSE(met.ends_with("endless"));
        Exact const bytes(damaged);
        brindle_MessageReader reader(bytes.Span());
        long timeUs = 0;
        std::vector<brindle_Value> values;
        while (reader.BytesLeft() > 0 && brindle_TakeRecord(reader, Schema(), timeUs, values) == BRINDLE_DONE) {}
    }
}

TEST(FrameReader, CollectsFramesFromAnyPieces) {
    std::string const big(300000, 'b');
    std::string const stream = Frame("one") + Frame("") + Frame(big) + Frame("last");
    for (std::size_t const pieceBytes : {1UL, 3UL, 5000UL, 60000UL}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        sutl_Descriptor const reading(ends[0]);
        sutl_Descriptor writing(ends[1]);
        brindle_FrameReader frames;
        std::vector<std::string> bodies;
        for (std::size_t at = 0; at < stream.size(); at += pieceBytes) {
            std::string const piece = stream.substr(at, pieceBytes);
            ASSERT_EQ(write(writing.Get(), piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
            ASSERT_EQ(frames.Fill(reading.Get()), BRINDLE_DONE);
            std::span<unsigned char const> body;
            while (frames.Take(body)) bodies.emplace_back(body.begin(), body.end());
        }
        EXPECT_EQ(bodies, (std::vector<std::string>{"one", "", big, "last"})) << pieceBytes;
        ASSERT_EQ(write(writing.Get(), "\0\0", 2), 2);
        EXPECT_EQ(frames.Fill(reading.Get()), BRINDLE_DONE);
        writing.Close();
        EXPECT_EQ(frames.Fill(reading.Get()), BRINDLE_STREAM_CUT);
    }
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
        {"stage:7001", nullptr, 0, 0},
        {":7001,7002", nullptr, 0, 0},
        {"stage:0,1", nullptr, 0, 0},
        {"stage:1,65536", nullptr, 0, 0},
        {"stage:1,2,3", nullptr, 0, 0},
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
