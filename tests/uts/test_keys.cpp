// The index of keys, and the key file across generations of recovery.
#include <fcntl.h>

#include <map>

#include "uts_stgkeyfile.h"
#include "uts_stgkeyindex.h"
#include "uts_support.h"

namespace {

using test::Directory;
using test::Host;
using test::Texts;
using namespace std::string_literals;

// Shorter keys first, keys of equal length by unsigned bytes.
struct KeyOrder {
    bool operator()(std::string const& a, std::string const& b) const {
        if (a.size() != b.size()) return a.size() < b.size();
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
            return static_cast<unsigned char>(x) < static_cast<unsigned char>(y);
        });
    }
};

TEST(KeyIndex, FindsOrdersAndListsAsAPlainModel) {
    test::Random random = test::SeededRandom();
    for (int run = 0; run < 20; ++run) {
        suts_StgKeyIndex index;
        EXPECT_TRUE(index.shipCursor.IsEnd());
        std::map<std::string, suts_StgKeyNode*, KeyOrder> model;
        Texts list;
        sutl_WriteLock const lock(index.lock);
        for (int step = 0; step < 600; ++step) {
            // Few different bytes, of both signs: many duplicates, and prefixes of each other.
            std::string text = test::RandomBytes(random, test::Below(random, run < 10 ? 5 : 20));
            for (char& byte : text) byte = static_cast<char>(byte & 0x81);
            test::OwnedField const key(text);
            auto const known = model.find(text);
            ASSERT_EQ(known == model.end() ? nullptr : known->second, index.Find(key));
            ASSERT_EQ(index.Find(key), index.FindAsWriter(key, suts_StgKeyTable::Hash(key)));
            if (test::Below(random, 4) == 0) continue;
            suts_StgKeyNode* const node = index.Insert(key);
            ASSERT_EQ(text, test::BytesOf(node->key));
            ASSERT_EQ(node, model.try_emplace(text, node).first->second);
            list.push_back(text);
        }
        Texts ordered;
        for (suts_StgKeyNode const* const node : index.InOrder()) ordered.push_back(test::BytesOf(node->key));
        Texts expected;
        for (auto const& [text, node] : model) expected.push_back(text);
        EXPECT_EQ(expected, ordered);
        Texts listed;
        for (sutl_list_base_iter at = index.List().First(); !at.IsEnd(); at.StepNext()) {
            listed.push_back(test::BytesOf(index.List().Value(at).key));
            EXPECT_EQ(model[listed.back()], index.List().Value(at).node);
        }
        EXPECT_EQ(list, listed);
    }
}

TEST(KeyFile, AnEntryIsOneWrite) {
    struct {
        std::string key;
        bool withLength;
        std::string entry;
    } const rows[] = {
        {"key\0"s, true, "\4\0\0\0key\0"s},
        {"key\0"s, false, "key\0"s},
        {"\0"s, true, "\1\0\0\0\0"s},
        {"1234", false, "1234"},
        {"12345678", false, "12345678"},
        {std::string(5000, 'k') + '\0', true, "\x89\x13\0\0"s + std::string(5000, 'k') + '\0'},
        {"", true, "\0\0\0\0"s},
    };
    // A socket that keeps the writes apart.
    auto const [reader, writer] = test::SocketPair(SOCK_SEQPACKET);
    std::string written(10000, '\0');
    for (auto const& row : rows) {
        suts_AppendKey(writer, test::OwnedField(row.key), row.withLength);
        long const got = recv(reader.Get(), written.data(), written.size(), MSG_DONTWAIT);
        ASSERT_EQ(static_cast<long>(row.entry.size()), got);
        EXPECT_EQ(row.entry, written.substr(0, row.entry.size()));
        EXPECT_EQ(-1, recv(reader.Get(), written.data(), written.size(), MSG_DONTWAIT));
    }
    EXPECT_EQ(test::ErrorText("sutl_FileWrite error: ", EBADF),
              test::StandardErrorOf([] { suts_AppendKey(sutl_Descriptor(), test::OwnedField("key"), true); }));
}

struct Read {
    Texts keys;  // stored form
    suts_StgKeyFileReader::Result result;
};

Read ReadKeys(Directory const& directory, suts_FieldType type) {
    Read read = {};
    test::Schema const schema({type});
    suts_StgKeyFileReader reader(schema, directory.Path());
    sutl_RawBytefield key;
    while ((read.result = reader.Next(key)) == suts_StgKeyFileReader::KEY) read.keys.push_back(test::TakeBytes(key));
    return read;
}

TEST(KeyFile, IsReadKeyByKey) {
    constexpr auto END = suts_StgKeyFileReader::END;
    constexpr auto CORRUPT = suts_StgKeyFileReader::CORRUPT;
    std::string const text1023 = std::string(1022, 'k') + '\0';
    std::string const text1024 = std::string(1023, 'k') + '\0';
    std::string const text70000 = std::string(69999, 'k') + '\0';
    struct {
        char const* name;
        suts_FieldType type;
        suts_StgKeyFileReader::Result result;
        std::string content;
        Texts keys;
    } const rows[] = {
        {"no key", SUTS_INT32, END, "", {}},
        {"int32", SUTS_INT32, END, "abcdefghabcd", {"abcd", "efgh", "abcd"}},
        {"int32, cut", SUTS_INT32, CORRUPT, "abcdef", {"abcd"}},
        {"float64, cut", SUTS_FLOAT64, CORRUPT, "abcdefgh1234567", {"abcdefgh"}},
        {"with lengths", SUTS_STRING64, END, "\2\0\0\0a\0\1\0\0\0\0\2\0\0\0a\0"s, {"a\0"s, "\0"s, "a\0"s}},
        {"length cut", SUTS_STRING64, CORRUPT, "\2\0\0\0a\0\2\0"s, {"a\0"s}},
        {"text cut", SUTS_STRING64, CORRUPT, "\5\0\0\0abc"s, {}},
        {"text without NUL", SUTS_STRING64, END, "\2\0\0\0ab"s, {"ab\0"s}},
        {"text with inner NUL", SUTS_STRING64, END, "\4\0\0\0a\0b\0"s, {"a\0"s}},
        {"length 1023", SUTS_STRING64, END, Host(1023) + text1023, {text1023}},
        {"length 1023, cut", SUTS_STRING64, CORRUPT, Host(1023) + text1023.substr(1), {}},
        {"length 1024", SUTS_STRING64, END, Host(1024) + text1024 + "\2\0\0\0b\0"s, {text1024, "b\0"s}},
        {"length 1024, cut", SUTS_STRING64, END, Host(1024) + "kkk", {"kkk\0"s}},
        {"length 1024, cut behind a NUL", SUTS_STRING64, END, Host(1024) + "kk\0k"s, {"kk\0"s}},
        {"length 1024, nothing behind", SUTS_STRING64, END, Host(1024), {"\0"s}},
        {"greatest length that may be cut", SUTS_STRING64, END, Host(65535) + "kkk", {"kkk\0"s}},
        {"length 70000", SUTS_STRING64, END, Host(70000) + text70000, {text70000}},
        {"no length: greater, and cut", SUTS_STRING64, END, Host(0x01020304) + "kk\0"s, {Host(0x01020304) + "kk\0"s}},
        {"no length: a second NUL",
         SUTS_STRING64,
         END,
         "\1\5\0\0"s + text1024 + text1024.substr(767),
         {"\1\5\0"s, "\0"s, text1024, text1024.substr(767)}},
        {"no length: its last byte is no NUL",
         SUTS_STRING64,
         CORRUPT,
         "\1\1\1\0"s + std::string(65793, 'k'),
         {"\1\1\1\0"s}},
        {"no length: negative", SUTS_STRING64, END, "\xff\xff\xff\xff..\0"s, {"\xff\xff\xff\xff..\0"s}},
        {"no length, no NUL", SUTS_STRING64, CORRUPT, "copied", {}},
        {"copied, then with length", SUTS_STRING64, END, "copied\0\2\0\0\0a\0"s, {"copied\0"s, "a\0"s}},
        {"copied, one short last", SUTS_STRING64, END, "copied\0ab\0"s, {"copied\0"s, "ab\0"s}},
        {"copied, two short last", SUTS_STRING64, END, "copied\0a\0\0"s, {"copied\0"s, "a\0"s, "\0"s}},
        {"copied, the empty one last", SUTS_STRING64, END, "copied\0\0"s, {"copied\0"s, "\0"s}},
        {"copied, a cut one last", SUTS_STRING64, CORRUPT, "copied\0ab"s, {"copied\0"s}},
        {"a short one before any that is surely copied", SUTS_STRING64, CORRUPT, "ab\0"s, {}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        Directory const directory;
        test::WriteFile(directory / "KeyFile", row.content);
        Read const read = ReadKeys(directory, row.type);
        EXPECT_EQ(row.keys, read.keys);
        EXPECT_EQ(row.result, read.result);
    }
    Directory const none;
    EXPECT_EQ(test::ErrorText("sutl_FileRead error: ", EBADF), test::StandardErrorOf([&none] {
                  EXPECT_EQ(suts_StgKeyFileReader::CORRUPT, ReadKeys(none, SUTS_STRING64).result);
              }));
}

// Three runs, each started from the directory of the one before, and each with new keys of its own.
TEST(KeyFile, StringKeysSurviveGenerationsAndNoCutCrashes) {
    test::Random random = test::SeededRandom();
    for (int run = 0; run < 40; ++run) {
        Texts keys;
        std::string content;
        for (int generation = 0; generation < 4; ++generation) {
            Directory const directory;
            sutl_Descriptor const file(open((directory / "KeyFile").c_str(), O_WRONLY | O_CREAT, 0700));
            for (std::string const& key : keys) suts_AppendKey(file, test::OwnedField(key), false);
            for (std::size_t i = test::Below(random, 8) + (generation == 0 ? 1 : 0); i > 0; --i) {
                // A copied text of fewer than three characters can be taken for a length, and one alone in a file must
                // be longer.
                std::size_t const longest = test::Below(random, 10) == 0 ? 6000 : 12;
                std::size_t const least = keys.empty() ? 4 : 3;
                std::string text = test::RandomBytes(random, least + test::Below(random, longest));
                std::replace(text.begin(), text.end(), '\0', 'x');
                keys.push_back(text + '\0');
                suts_AppendKey(file, test::OwnedField(keys.back()), true);
            }
            Read const read = ReadKeys(directory, SUTS_STRING64);
            ASSERT_EQ(keys, read.keys) << "generation " << generation;
            ASSERT_EQ(suts_StgKeyFileReader::END, read.result);
            content = test::ReadFile(directory / "KeyFile");
        }
        if (run > 2) continue;
        Directory const directory;
        for (std::size_t cut = 0; cut < content.size(); ++cut) {
            test::WriteFile(directory / "KeyFile", content.substr(0, cut));
            Read const read = ReadKeys(directory, SUTS_STRING64);
            // What was read is right up to the cut; the rest of a length there can look like two keys.
            std::size_t const right = read.keys.size() - std::min<std::size_t>(read.keys.size(), 2);
            ASSERT_LE(right, keys.size());
            ASSERT_EQ(Texts(keys.begin(), keys.begin() + static_cast<long>(right)),
                      Texts(read.keys.begin(), read.keys.begin() + static_cast<long>(right)))
                << cut;
        }
    }
}

}  // namespace
