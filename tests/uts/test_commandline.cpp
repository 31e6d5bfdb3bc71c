// The conversion of the command line.
#include "uts_commandline.h"
#include "uts_support.h"

namespace {

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
        std::vector<char const*> const arguments(11, row.text);
        suts_Settings settings = {};
        ASSERT_TRUE(suts_ReadCommandLine(static_cast<int>(arguments.size()), const_cast<char* const*>(arguments.data()),
                                         settings));
        EXPECT_EQ(row.port, settings.shipPort1);
        EXPECT_EQ(row.port, settings.dataPort2);
        EXPECT_EQ(row.queryPort, settings.queryPort2);
        EXPECT_EQ(row.windowWidthUs, settings.windowWidthUs);
    }
}

}  // namespace
