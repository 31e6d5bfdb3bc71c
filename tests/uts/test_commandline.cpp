// The conversion of the command line.
#include "uts_commandline.h"
#include "uts_support.h"

namespace {

// Program name, Specfile, RecoveryPath, ShipHost, four ports, TW[sec], two query ports, RecoverFromPath.
std::vector<char const*> const ARGUMENTS = {"brindle", "spec", "dir", "host", "1", "2", "3", "4", "5", "6", "7", "old"};

bool Read(std::vector<char const*> arguments, suts_Settings& settings) {
    return suts_ReadCommandLine(static_cast<int>(arguments.size()), const_cast<char* const*>(arguments.data()),
                                settings);
}

TEST(CommandLine, TakesTenOrElevenArguments) {
    for (std::size_t count = 1; count < 15; ++count) {
        SCOPED_TRACE(count);
        std::vector<char const*> arguments = ARGUMENTS;
        arguments.resize(count, "more");
        suts_Settings settings = {};
        bool read = false;
        std::string const text = test::StandardErrorOf([&] { read = Read(arguments, settings); });
        bool const expected = count == 11 || count == 12;
        EXPECT_EQ(expected, read);
        EXPECT_EQ(expected ? ""
                           : "Args: Specfile RecoveryPath ShipHost ShipPort1 ShipPort2 DataListenPort1 DataListenPort2 "
                             "TW[sec] QPort1 QPort2 <RecoverFromPath>\n ",
                  text);
        if (!expected) continue;
        EXPECT_STREQ("spec", settings.specFile);
        EXPECT_STREQ("dir", settings.recoveryPath);
        EXPECT_STREQ("host", settings.shipHost);
        EXPECT_EQ(1, settings.shipPort1);
        EXPECT_EQ(2, settings.shipPort2);
        EXPECT_EQ(3, settings.dataPort1);
        EXPECT_EQ(4, settings.dataPort2);
        EXPECT_EQ(5000000, settings.windowWidthUs);
        EXPECT_EQ(6, settings.queryPort1);
        EXPECT_EQ(7, settings.queryPort2);
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
        std::fill(arguments.begin() + 4, arguments.begin() + 11, row.text);
        suts_Settings settings = {};
        ASSERT_TRUE(Read(arguments, settings));
        for (unsigned short const port :
             {settings.shipPort1, settings.shipPort2, settings.dataPort1, settings.dataPort2}) {
            EXPECT_EQ(row.port, port);
        }
        EXPECT_EQ(row.queryPort, settings.queryPort1);
        EXPECT_EQ(row.queryPort, settings.queryPort2);
        EXPECT_EQ(row.windowWidthUs, settings.windowWidthUs);
    }
}

}  // namespace
