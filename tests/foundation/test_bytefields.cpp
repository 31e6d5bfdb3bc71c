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
    std::string const ascending[] = {"",      "b",     "\x7F",           "\x80",          "aa",
                                     "a\0a"s, "a\0b"s, "thirteen bytea", "thirteen byteb"};
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
