#include "sutl_netorderbytefield.h"
#include "sutl_rawbytefield.h"
#include "test_support.h"

namespace {

using namespace std::string_literals;

std::string TakeBytes(sutl_NetorderByteField& field, std::size_t count) {
    std::string bytes(count, '\0');
    field.GetNextBytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<unsigned int>(count));
    return bytes;
}

std::string BigEndian(unsigned long value, std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[size - 1 - i] = static_cast<char>(value >> (8 * i));
    return bytes;
}

TEST(NetorderByteField, NumbersTravelMostSignificantByteFirst) {
    sutl_NetorderByteField field;
    unsigned long eights[] = {0x0102030405060708UL, 0xFFFFFFFFFFFFFF80UL};
    unsigned int fours[] = {258, 0xA0B0C0D0U};
    field.Append8Byte(eights, 2);
    field.Append4Byte(fours, 2);
    field.AppendBytes("xyz", 3);
    field.Seal();
    EXPECT_EQ(0, memcmp(eights, "\1\2\3\4\5\6\7\10\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x80", sizeof eights)) << "left swapped";
    EXPECT_EQ(0, memcmp(fours, "\0\0\1\2\xA0\xB0\xC0\xD0", sizeof fours)) << "left swapped";
    field.StartReading();
    EXPECT_EQ("\1\2\3\4\5\6\7\10\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x80\0\0\1\2\xA0\xB0\xC0\xD0xyz"s, TakeBytes(field, 27));
    EXPECT_EQ(0, field.Count());
}

// A message that starts right where the last one ended shows how many words sealing has pushed: one too many or too few
// would shift it.
TEST(NetorderByteField, SealPushesTheLastWordOnlyWhenItIsAPartialOne) {
    sutl_NetorderByteField field;
    for (std::string const message : {"12345678", "thirteenbytes", "87654321", "a", "0123456789abcdef", "end"}) {
        field.AppendBytes(message.data(), message.size());
        field.Seal();
        field.StartReading();
        ASSERT_EQ(message, TakeBytes(field, message.size()));
        ASSERT_EQ(0, field.Count());
    }
}

// One append of random kind and size, on the field and on the model.
void AppendRandomly(test::Random& random, sutl_NetorderByteField& field, std::string& model) {
    std::size_t const n = test::Below(random, 3);
    unsigned long eights[3] = {random(), random(), random()};
    unsigned int fours[3] = {static_cast<unsigned int>(random()), static_cast<unsigned int>(random()), 7};
    std::size_t const kind = test::Below(random, 3);
    if (kind == 0) {
        for (std::size_t i = 0; i < n; ++i) model += BigEndian(eights[i], 8);
        field.Append8Byte(eights, static_cast<unsigned int>(n));
    } else if (kind == 1) {
        for (std::size_t i = 0; i < n; ++i) model += BigEndian(fours[i], 4);
        field.Append4Byte(fours, static_cast<unsigned int>(n));
    } else {
        std::size_t const offset = test::Below(random, 8);  // a source at any address
        std::string const bytes = test::RandomBytes(random, offset + test::Below(random, n == 0 ? 700 : 20));
        model.append(bytes, offset);
        field.AppendBytes(bytes.data() + offset, bytes.size() - offset);
    }
}

// One take of random kind and size, at most so many bytes; returns what came.
std::string TakeRandomly(test::Random& random, sutl_NetorderByteField& field, std::size_t left) {
    std::size_t const kind = test::Below(random, 4);
    std::size_t const size = std::min(left, test::Below(random, test::Below(random, 8) == 0 ? 700 : 20));
    std::size_t const n = std::min<std::size_t>(left / 8, 3);
    unsigned long eights[3];
    unsigned int fours[3];
    std::string taken;
    if (kind == 0) {
        field.GetNext8Byte(eights, static_cast<unsigned int>(n));
        for (std::size_t i = 0; i < n; ++i) taken += BigEndian(eights[i], 8);
    } else if (kind == 1) {
        field.GetNext4Byte(fours, static_cast<unsigned int>(n));
        for (std::size_t i = 0; i < n; ++i) taken += BigEndian(fours[i], 4);
    } else {
        std::size_t const offset = 1 + test::Below(random, 8);  // a destination at any address, with neighbours
        taken.assign(offset + size + 1, '#');
        field.GetNextBytes(reinterpret_cast<unsigned char*>(taken.data() + offset), static_cast<unsigned int>(size));
        EXPECT_TRUE(taken[offset - 1] == '#' && taken.back() == '#');
        taken = taken.substr(offset, size);
    }
    return taken;
}

TEST(NetorderByteField, RandomMessagesComeOutAsTheyWentIn) {
    test::Random random = test::SeededRandom();
    sutl_NetorderByteField field;
    for (int message = 0; message < 1500; ++message) {
        std::string model;
        field.Reset();
        for (std::size_t appends = test::Below(random, 30); appends > 0; --appends) {
            AppendRandomly(random, field, model);
            ASSERT_EQ(static_cast<int>(model.size()), field.Count());
        }
        if (message % 8 == 7) continue;  // dropped unsealed by the next reset
        field.Seal();
        field.StartReading();
        // Every fourth message leaves bytes behind, which the next reset drops.
        std::size_t const end = message % 4 == 0 ? model.size() / 2 : model.size();
        for (std::size_t at = 0; at < end;) {
            std::string const taken = TakeRandomly(random, field, model.size() - at);
            for (char const byte : taken) {
                ASSERT_TRUE(byte == model[at]) << "message " << message << " byte " << at;
                ++at;
            }
            ASSERT_EQ(static_cast<int>(model.size() - at), field.Count());
        }
    }
}

TEST(RawByteField, TwelveBytesLieInsideAndMoreOnTheHeap) {
    for (int const length : {0, 1, 11, 12, 13, 14, 1000}) {
        SCOPED_TRACE(length);
        std::string bytes(static_cast<std::size_t>(length), 'v');
        sutl_RawBytefield field;
        field.Assign(bytes.data(), length);
        auto const* const begin = reinterpret_cast<unsigned char const*>(&field);
        bool const inside = field.Data() >= begin && field.Data() + length <= begin + sizeof field;
        EXPECT_EQ(length <= 12, inside);
        sutl_RawBytefield copy = field;
        EXPECT_EQ(!inside, field.Data() == copy.Data()) << "a copy shares the array, and the array alone";
        if (length > 0) copy.Data()[length - 1] = 'w';
        if (!inside) bytes.back() = 'w';
        EXPECT_EQ(0, memcmp(bytes.data(), field.Data(), bytes.size()));
        field.Clear();  // one of the two: the address sanitizer sees a second release and a missing one
        EXPECT_EQ(0, field.length);
        field.Clear();
    }
}

TEST(RawByteField, KeysCompareByLengthThenAsUnsignedBytes) {
    std::string const ascending[] = {"",
                                     "a",
                                     "b",
                                     "\x7F",
                                     "\x80",
                                     "aa",
                                     "a\0a"s,
                                     "a\0b"s,
                                     "twelve byte1",
                                     "twelve byte2",
                                     "thirteen byte",
                                     "a key on the heap 1",
                                     "a key on the heap 2"};
    std::vector<sutl_RawBytefield> keys;
    for (std::string const& text : ascending) {
        keys.emplace_back().Assign(text.data(), static_cast<int>(text.size()));
    }
    for (std::size_t a = 0; a < keys.size(); ++a) {
        for (std::size_t b = 0; b < keys.size(); ++b) {
            int const order = sutl_CompareKeys(keys[a], keys[b]);
            EXPECT_TRUE(a == b ? order == 0 : (a < b ? order < 0 : order > 0)) << ascending[a] << " " << ascending[b];
        }
    }
    for (sutl_RawBytefield& key : keys) key.Clear();
}

}  // namespace
