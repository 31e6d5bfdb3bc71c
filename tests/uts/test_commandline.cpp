// The conversion of the command line.
#include "uts_commandline.h"
#include "uts_support.h"

namespace {

using test::Texts;

// Program name, Specfile, RecoveryPath, ShipHost, four ports, TW[sec], two query ports, RecoverFromPath.
std::vector<char const*> const ARGUMENTS = {"brindle", "spec", "dir", "host", "1", "2", "3", "4", "5", "6", "7", "old"};

bool Read(std::vector<char const*> arguments, suts_Settings& settings) {
    return suts_ReadCommandLine(static_cast<int>(arguments.size()), const_cast<char* const*>(arguments.data()),
                                settings);
}

TEST(CommandLine, TakesTenOrElevenArguments) {
    for (std::size_t const count : {1, 10, 11, 12, 13}) {
        SCOPED_TRACE(count);
        std::vector<char const*> arguments = ARGUMENTS;
        arguments.resize(count, "more");
        suts_Settings settings = {};
        bool const expected = count == 11 || count == 12;
        EXPECT_EQ(expected ? ""
                           : "Args: Specfile RecoveryPath ShipHost ShipPort1 ShipPort2 DataListenPort1 DataListenPort2 "
                             "TW[sec] QPort1 QPort2 <RecoverFromPath>\n ",
                  test::StandardErrorOf([&] { EXPECT_EQ(expected, Read(arguments, settings)); }));
        if (!expected) continue;
        EXPECT_EQ(Texts({"spec", "dir", "host"}), Texts({settings.specFile, settings.recoveryPath, settings.shipHost}));
        EXPECT_EQ(std::vector<long>({1, 2, 3, 4, 5000000, 6, 7}),
                  std::vector<long>({settings.shipPort1, settings.shipPort2, settings.dataPort1, settings.dataPort2,
                                     settings.windowWidthUs, settings.queryPort1, settings.queryPort2}));
        EXPECT_STREQ(count == 12 ? "old" : nullptr, settings.recoverFromPath);
    }
}

TEST(CommandLine, ConvertsNumbersAsFarAsTheyAreNumbers) {
    struct {
        char const* text;
        unsigned short port;
        int queryPort;
        long windowWidthUs;
    } const rows[] = {
        {"", 0, 0, 0},
        {"port", 0, 0, 0},
        {" 12x", 12, 12, 12000000},
        {"65537", 1, 65537, 65537000000},
        {"-1", 65535, -1, -1000000},
        {"9223372036854", 23286, 2077252342, 9223372036854000000},
        {"9223372036855", 23287, 2077252343, 0},  // the product is beyond 64 bits
        {"99999999999999999999", 65535, -1, 0},   // the number is
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.text);
        std::vector<char const*> arguments = ARGUMENTS;
        std::fill(arguments.begin() + 4, arguments.end(), row.text);
        suts_Settings settings = {};
        ASSERT_TRUE(Read(arguments, settings));
        EXPECT_EQ(row.port, settings.shipPort1);
        EXPECT_EQ(row.port, settings.dataPort2);
        EXPECT_EQ(row.queryPort, settings.queryPort2);
        EXPECT_EQ(row.windowWidthUs, settings.windowWidthUs);
    }
}

}  // namespace
