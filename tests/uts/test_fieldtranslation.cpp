// What is said of a schema or a frame that cannot be decoded; the bytes themselves are what the `formats` scenarios
// compare.
#include "uts_fieldtranslation.h"
#include "uts_recorddecoder.h"
#include "uts_support.h"

namespace {

using test::Net;
using namespace std::string_literals;

// A string on the wire whose length says so much.
std::string Text(unsigned int length, std::string const& bytes) { return Net(length) + bytes; }

TEST(FieldTranslation, AnUnknownTypeEndsTheProcess) {
    test::ChildEnd const end = test::RunInChild([] {
        sutl_NetorderByteField field;
        test::Fill(field, "12345678");
        static_cast<void>(suts_TranslateSpecField(field, test::Schema({static_cast<suts_FieldType>(5)}), 0));
        return 0;
    });
    test::ExpectKilled(end, SIGINT, test::AssertionText("ERROR, bad specfield\n", "uts_Brindle.cpp", 60));
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
        sutl_NetorderByteField field;
        test::Fill(field, row.frame);
        decoder.StartFrame(field);
        EXPECT_EQ(row.text, test::StandardErrorOf([&] {
                      long time;
                      sutl_RawBytefield key, value;
                      while (decoder.Next(time, key, value)) continue;
                  }));
    }
}

}  // namespace
