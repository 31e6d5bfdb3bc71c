#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <set>

#include "../foundation/test_support.h"
#include "durable_file.h"
#include "numbers.h"
#include "spool.h"

namespace {

namespace fs = std::filesystem;

struct Directory {
    Directory() {
        std::string pattern = fs::temp_directory_path() / "brindle-spool-XXXXXX";
        path = mkdtemp(pattern.data());
    }
    ~Directory() { fs::remove_all(path); }

    fs::path path;
};

bool Append(Spool& spool, std::string const& entry) {
    std::span<unsigned char const> const pieces[] = {
        std::span(reinterpret_cast<unsigned char const*>(entry.data()), entry.size() / 2),
        std::span(reinterpret_cast<unsigned char const*>(entry.data()), entry.size()).subspan(entry.size() / 2)};
    return spool.Append(pieces) && spool.Sync();
}

std::vector<std::string> ReadAll(Spool& spool, SpoolPosition& at) {
    std::vector<std::string> entries;
    std::vector<unsigned char> entry;
    while (spool.Read(at, entry) == Spool::ENTRY) entries.emplace_back(entry.begin(), entry.end());
    return entries;
}

std::vector<std::string> ReadAll(Spool& spool) {
    SpoolPosition at = spool.Begin();
    return ReadAll(spool, at);
}

using Texts = std::vector<std::string>;

TEST(Spool, KeepsItsEntriesUntilTheyAreTrimmed) {
    Directory const directory;
    std::string const path = directory.path / "spool";
    std::string const large(Spool::SEGMENT_BYTES_MAX, 'x');
    SpoolPosition at;
    {
        Spool spool;
        ASSERT_EQ(spool.Open(path, false), Spool::OPENED);
        at = spool.Begin();
        for (std::string const& entry : Texts{"first", large, "", "last"}) ASSERT_TRUE(Append(spool, entry));
        EXPECT_EQ(ReadAll(spool, at), (Texts{"first", large, "", "last"}));
        ASSERT_TRUE(Append(spool, "more"));
        EXPECT_EQ(ReadAll(spool, at), Texts{"more"}) << "a reader goes on where it was";
        Spool second;
        EXPECT_EQ(second.Open(path, false), Spool::IN_USE);
    }
    Spool spool;
    ASSERT_EQ(spool.Open(path, false), Spool::OPENED) << spool.Problem();
    EXPECT_EQ(ReadAll(spool), (Texts{"first", large, "", "last", "more"}));
    ASSERT_TRUE(Append(spool, "new"));
    spool.Trim(at);
    EXPECT_EQ(ReadAll(spool), Texts{"new"});
    EXPECT_EQ(spool.Bytes(), Spool::HEADER_BYTES + 3);
    std::ofstream(path + "/other");
    spool.Remove({});
    EXPECT_TRUE(fs::exists(path)) << "with what is not its own";
    spool.Remove({"other"});
    EXPECT_FALSE(fs::exists(path));
}

// Whatever a crash has left of the last entry goes; a damage before it is no crash.
TEST(Spool, TellsATornEndFromDamage) {
    Directory const directory;
    std::string const path = directory.path / "spool";
    std::string const file = path + "/1.spool";
    {
        Spool spool;
        ASSERT_EQ(spool.Open(path, false), Spool::OPENED);
        for (std::string const& entry : Texts{"one", "two", "three"}) ASSERT_TRUE(Append(spool, entry));
    }
    std::string const whole = ReadFile(file).value();
    std::size_t const two = Spool::HEADER_BYTES + 3;
    auto const reopen = [&](std::string const& bytes, bool setAside, Texts& entries) {
        fs::remove(path + "/2.spool");
        std::ofstream(file, std::ios::binary) << bytes;
        Spool spool;
        Spool::OpenResult const result = spool.Open(path, setAside);
        if (result == Spool::OPENED) entries = ReadAll(spool);
        return result;
    };
    for (std::size_t bytes = 0; bytes <= whole.size(); ++bytes) {
        Texts entries;
        ASSERT_EQ(reopen(whole.substr(0, bytes), false, entries), Spool::OPENED) << bytes;
        EXPECT_EQ(entries.size(), bytes < two ? 0 : bytes < 2 * two ? 1 : bytes < whole.size() ? 2 : 3) << bytes;
    }
    Texts entries;
    EXPECT_EQ(reopen(whole + std::string(100, '\0'), false, entries), Spool::OPENED);
    EXPECT_EQ(entries.size(), 3) << "room that was never written";
    std::string damaged = whole;
    damaged[two + Spool::HEADER_BYTES] ^= 1;
    EXPECT_EQ(reopen(damaged, false, entries), Spool::DAMAGED);
    EXPECT_EQ(reopen(damaged, true, entries), Spool::OPENED);
    EXPECT_EQ(entries, Texts{"one"});
    EXPECT_EQ(ReadFile(file + ".damaged").value(), damaged);
}

TEST(StreamNumbers, AreRememberedLikeASet) {
    test::Random random(std::random_device{}());
    for (int round = 0; round < 50; ++round) {
        StreamRanges ranges;
        std::set<unsigned long> model;
        for (int i = 0; i < 300; ++i) {
            auto const count = test::Below(random, 200) + 1;
            EXPECT_EQ(ranges.Has(count), model.contains(count));
            EXPECT_EQ(ranges.Add(count), model.insert(count).second);
            unsigned long watermark = 0;
            while (model.contains(watermark + 1)) ++watermark;
            ASSERT_EQ(ranges.Watermark(), watermark);
        }
        auto const again = StreamRanges::Of(ranges.Text());
        ASSERT_TRUE(again.has_value()) << ranges.Text();
        EXPECT_EQ(again->Text(), ranges.Text());
        for (unsigned long count = 1; count <= 201; ++count) EXPECT_EQ(again->Has(count), model.contains(count));
    }
    for (char const* text : {"0", "1-", "-1", "2-1", "1,2", "3,2", "1,,4", "1,", "x", "1 3"}) {
        EXPECT_FALSE(StreamRanges::Of(text).has_value()) << text;
    }
}

}  // namespace
