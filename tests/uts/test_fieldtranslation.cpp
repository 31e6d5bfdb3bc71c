// Fields and records between the wire and their stored form.
#include "uts_fieldtranslation.h"
#include "uts_recorddecoder.h"
#include "uts_support.h"

namespace {

using test::Net;
using namespace std::string_literals;

std::string const TEXT_2000 = std::string(1999, 't') + '\0';

// A string on the wire whose length says so much.
std::string Text(unsigned int length, std::string const& bytes) { return Net(length) + bytes; }

struct Case {
    char const* name;
    suts_FieldType type;
    std::string wire;
    suts_FieldFault fault;
    std::string stored;
};

Case const CASES[] = {
    {"int32", SUTS_INT32, "\xff\xff\xff\xfe"s, FIELD_WHOLE, "\xfe\xff\xff\xff"s},
    {"int64", SUTS_INT64, "\x01\x02\x03\x04\x05\x06\x07\x08"s, FIELD_WHOLE, "\x08\x07\x06\x05\x04\x03\x02\x01"s},
    {"float64", SUTS_FLOAT64, "\x3f\xf0\0\0\0\0\0\0"s, FIELD_WHOLE, test::Host(1.0)},
    {"string", SUTS_STRING64, "\0\0\0\x06hello\0"s, FIELD_WHOLE, "hello\0"s},
    {"longest inline string", SUTS_STRING64, Text(12, "elevenchars\0"s), FIELD_WHOLE, "elevenchars\0"s},
    {"shortest string on the heap", SUTS_STRING64, Text(13, "twelve chars\0"s), FIELD_WHOLE, "twelve chars\0"s},
    {"long string", SUTS_STRING64, Text(2000, TEXT_2000), FIELD_WHOLE, TEXT_2000},
    {"length 0", SUTS_STRING64, Text(0, ""), FIELD_WHOLE, "\0"s},
    {"no NUL", SUTS_STRING64, Text(5, "hello"), FIELD_WHOLE, "hello\0"s},
    {"no NUL, on the heap only with it", SUTS_STRING64, Text(12, "twelve chars"), FIELD_WHOLE, "twelve chars\0"s},
    {"inner NUL", SUTS_STRING64, Text(6, "ab\0cd\0"s), FIELD_WHOLE, "ab\0"s},
    {"inner NUL, none at the end", SUTS_STRING64, Text(16, "ab\0and much more"s), FIELD_WHOLE, "ab\0"s},
    {"NUL first", SUTS_STRING64, Text(3, "\0ab"s), FIELD_WHOLE, "\0"s},
    {"int32 cut", SUTS_INT32, "\1\2\3"s, FIELD_CUT, ""},
    {"int64 cut", SUTS_INT64, "\1\2\3\4\5\6\7"s, FIELD_CUT, ""},
    {"float64 missing", SUTS_FLOAT64, "", FIELD_CUT, ""},
    {"string length cut", SUTS_STRING64, "\0\0\0"s, FIELD_CUT, ""},
    {"string cut by one byte", SUTS_STRING64, Text(5, "1234"), FIELD_STRING_TOO_LONG, ""},
    {"length 2^31", SUTS_STRING64, Text(0x80000000, "1234"), FIELD_STRING_TOO_LONG, ""},
    {"length 2^32 - 1", SUTS_STRING64, Text(0xffffffff, ""), FIELD_STRING_TOO_LONG, ""},
};

TEST(FieldTranslation, WireBytesBecomeStoredBytes) {
    sutl_NetorderByteField field;
    for (Case const& row : CASES) {
        test::Schema const schema({SUTS_INT32, row.type});
        // At every place within a word, and with other bytes behind a field that is whole.
        for (std::size_t before = 0; before < 8; ++before) {
            SCOPED_TRACE(std::string(row.name) + " behind " + std::to_string(before) + " bytes");
            std::string const behind = row.fault == FIELD_WHOLE ? "behind" : "";
            test::Fill(field, std::string(before, 'b') + row.wire + behind);
            unsigned char skipped[8];
            field.GetNextBytes(skipped, static_cast<unsigned int>(before));
            suts_FieldFault fault;
            sutl_RawBytefield value = suts_TranslateSpecField(field, schema, 1, &fault);
            EXPECT_EQ(row.fault, fault);
            EXPECT_EQ(row.stored, test::TakeBytes(value));
            EXPECT_GE(field.Count(), 0);
            if (row.fault == FIELD_WHOLE) { EXPECT_EQ(behind, test::Drain(field)); }
        }
    }
}

TEST(FieldTranslation, AnUnknownTypeEndsTheProcess) {
    test::ChildEnd const end = test::RunInChild([] {
        sutl_NetorderByteField field;
        test::Fill(field, "12345678");
        static_cast<void>(suts_TranslateSpecField(field, test::Schema({static_cast<suts_FieldType>(5)}), 0));
        return 0;
    });
    test::ExpectKilled(end, SIGINT, test::AssertionText("ERROR, bad specfield\n", "uts_Brindle.cpp", 60));
}

// Decodes the frame; the records before its end or its fault.
std::vector<test::Record> Decode(suts_RecordDecoder& decoder, std::string const& frame, bool& wellFormed) {
    std::vector<test::Record> records;
    sutl_NetorderByteField field;
    test::Fill(field, frame);
    decoder.StartFrame();
    long time;
    sutl_RawBytefield key;
    sutl_RawBytefield value;
    for (wellFormed = true; field.Count() > 0 && (wellFormed = decoder.Next(field, time, key, value));) {
        std::string const keyBytes = test::TakeBytes(key);
        records.push_back({time, keyBytes, test::TakeBytes(value)});
    }
    EXPECT_GE(field.Count(), 0);
    return records;
}

TEST(RecordDecoder, RecordsComeBackAsTheyWereSent) {
    test::Random random = test::SeededRandom();
    for (int run = 0; run < 100; ++run) {
        test::Types const types = test::RandomTypes(random);
        test::Schema const schema(types);
        suts_RecordDecoder decoder(schema);
        std::vector<test::Record> records(1 + test::Below(random, 20));
        std::string frame;
        for (test::Record& record : records) {
            record = test::RandomRecord(random, types);
            if (test::Below(random, 9) == 0) record.time = -record.time;
            frame += record.InFrame();
        }
        bool wellFormed;
        EXPECT_EQ(records, Decode(decoder, frame, wellFormed));
        EXPECT_TRUE(wellFormed);
    }
}

TEST(RecordDecoder, AFrameThatEndsInsideARecordKeepsThoseBefore) {
    test::Random random = test::SeededRandom();
    test::Types const types = {SUTS_STRING64, SUTS_INT32, SUTS_FLOAT64, SUTS_STRING64, SUTS_INT64};
    test::Schema const schema(types);
    suts_RecordDecoder decoder(schema);
    std::vector<test::Record> records;
    std::vector<std::size_t> ends = {0};
    std::string frame;
    for (int i = 0; i < 3; ++i) {
        records.push_back(test::RandomRecord(random, types));
        frame += records.back().InFrame();
        ends.push_back(frame.size());
    }
    for (std::size_t cut = 0; cut <= frame.size(); ++cut) {
        auto const whole = static_cast<std::size_t>(std::upper_bound(ends.begin(), ends.end(), cut) - ends.begin()) - 1;
        bool wellFormed = false;
        std::vector<test::Record> got;
        std::string const text =
            test::StandardErrorOf([&] { got = Decode(decoder, frame.substr(0, cut), wellFormed); });
        ASSERT_EQ(std::vector(records.begin(), records.begin() + static_cast<long>(whole)), got) << cut;
        ASSERT_EQ(ends[whole] == cut, wellFormed) << cut;
        ASSERT_EQ(wellFormed ? 0 : 1, std::count(text.begin(), text.end(), '\n')) << text;
    }
}

TEST(RecordDecoder, TellsWhatIsWrong) {
    test::Schema const schema({SUTS_STRING64, SUTS_INT32, SUTS_STRING64});
    suts_RecordDecoder decoder(schema);
    std::string const whole = Text(2, "a\0"s) + Net(1L) + Net(5) + Text(2, "b\0"s);
    struct {
        std::string frame;
        char const* text;
    } const rows[] = {
        {"\0"s, "ERROR, malformed frame: it ends inside field f0 of record 1\n"},
        {whole + Text(2, "a\0"s) + "1234567", "ERROR, malformed frame: it ends inside the time stamp of record 2\n"},
        {whole + whole + Text(2, "a\0"s) + Net(1L) + "123",
         "ERROR, malformed frame: it ends inside field f1 of record 3\n"},
        {whole + Text(2, "a\0"s) + Net(1L) + Net(5) + Text(0xffffffff, "four"),
         "ERROR, malformed frame: field f2 of record 2 claims more bytes than the 4 that are left\n"},
    };
    for (auto const& row : rows) {
        bool wellFormed = true;
        EXPECT_EQ(row.text, test::StandardErrorOf([&] { Decode(decoder, row.frame, wellFormed); }));
        EXPECT_FALSE(wellFormed);
    }
}

TEST(RecordDecoder, GarbageGivesNoMoreThanItHolds) {
    test::Random random = test::SeededRandom();
    for (int run = 0; run < 2000; ++run) {
        test::Types const types = test::RandomTypes(random);
        test::Schema const schema(types);
        suts_RecordDecoder decoder(schema);
        // Small numbers look like lengths.
        std::string garbage = test::RandomBytes(random, test::Below(random, 200));
        for (char& byte : garbage) byte = static_cast<char>(test::Below(random, 4) == 0 ? byte : byte & 3);
        bool wellFormed;
        std::size_t stored = 0;
        static_cast<void>(test::StandardErrorOf([&] {
            for (test::Record const& record : Decode(decoder, garbage, wellFormed)) {
                stored += 8 + record.key.size() + record.value.size();
            }
        }));
        // A string's length takes four bytes of the frame, the NUL that may be added only one of the stored form.
        EXPECT_LE(stored, garbage.size());
    }
}

}  // namespace
