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
    suts_FieldFault fault;
    std::string wire;
    std::string stored;
};

Case const CASES[] = {
    {"int32", SUTS_INT32, FIELD_WHOLE, "\xff\xff\xff\xfe"s, "\xfe\xff\xff\xff"s},
    {"int64", SUTS_INT64, FIELD_WHOLE, "\x01\x02\x03\x04\x05\x06\x07\x08"s, "\x08\x07\x06\x05\x04\x03\x02\x01"s},
    {"float64", SUTS_FLOAT64, FIELD_WHOLE, "\x3f\xf0\0\0\0\0\0\0"s, test::Host(1.0)},
    {"string", SUTS_STRING64, FIELD_WHOLE, "\0\0\0\x06hello\0"s, "hello\0"s},
    {"longest inline string", SUTS_STRING64, FIELD_WHOLE, Text(12, "elevenchars\0"s), "elevenchars\0"s},
    {"shortest string on the heap", SUTS_STRING64, FIELD_WHOLE, Text(13, "twelve chars\0"s), "twelve chars\0"s},
    {"long string", SUTS_STRING64, FIELD_WHOLE, Text(2000, TEXT_2000), TEXT_2000},
    {"length 0", SUTS_STRING64, FIELD_WHOLE, Text(0, ""), "\0"s},
    {"no NUL", SUTS_STRING64, FIELD_WHOLE, Text(5, "hello"), "hello\0"s},
    {"no NUL, on the heap only with it", SUTS_STRING64, FIELD_WHOLE, Text(12, "twelve chars"), "twelve chars\0"s},
    {"inner NUL", SUTS_STRING64, FIELD_WHOLE, Text(6, "ab\0cd\0"s), "ab\0"s},
    {"inner NUL, none at the end", SUTS_STRING64, FIELD_WHOLE, Text(16, "ab\0and much more"s), "ab\0"s},
    {"NUL first", SUTS_STRING64, FIELD_WHOLE, Text(3, "\0ab"s), "\0"s},
    {"int32 cut", SUTS_INT32, FIELD_CUT, "\1\2\3"s, ""},
    {"int64 cut", SUTS_INT64, FIELD_CUT, "\1\2\3\4\5\6\7"s, ""},
    {"float64 missing", SUTS_FLOAT64, FIELD_CUT, "", ""},
    {"string length cut", SUTS_STRING64, FIELD_CUT, "\0\0\0"s, ""},
    {"string cut by one byte", SUTS_STRING64, FIELD_STRING_TOO_LONG, Text(5, "1234"), ""},
    {"length 2^31", SUTS_STRING64, FIELD_STRING_TOO_LONG, Text(0x80000000, "1234"), ""},
    {"length 2^32 - 1", SUTS_STRING64, FIELD_STRING_TOO_LONG, Text(0xffffffff, ""), ""},
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
    decoder.StartFrame(field);
    long time;
    sutl_RawBytefield key;
    sutl_RawBytefield value;
    for (wellFormed = true; !decoder.FrameIsDone() && (wellFormed = decoder.Next(time, key, value));) {
        records.push_back({time, test::BytesOf(key), test::BytesOf(value)});
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
