// The index of keys, and the key file across generations of recovery.
#include <fcntl.h>
#include <sys/resource.h>

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

// A server that is killed between two writes would leave a length without its key.
TEST(KeyFile, AnEntryIsOneWrite) {
    auto const [reader, writer] = test::SocketPair(SOCK_SEQPACKET);
    suts_StgKeyEntries entries;
    entries.Add(test::OwnedField("key\0"s), true);
    entries.Write(writer);
    char written[20];
    ASSERT_EQ(8, recv(reader.Get(), written, sizeof written, MSG_DONTWAIT));
    EXPECT_EQ("\4\0\0\0key\0"s, std::string(written, 8));
}

// A file that takes so many bytes: what is written beyond is refused, part of a write is taken.
TEST(KeyFile, OnlyEntriesThatCannotBeWrittenAsAWholeAreLeftOut) {
    Directory const directory;
    for (rlim_t const room : {0UL, 1UL, 10UL, 11UL, 12UL, 14UL, 20UL, 30UL}) {
        SCOPED_TRACE(room);
        test::ChildEnd const end = test::RunInChild([&] {
            signal(SIGXFSZ, SIG_IGN);
            rlimit const limit = {room, room};
            setrlimit(RLIMIT_FSIZE, &limit);
            sutl_Descriptor const file = sutl_OpenFile((directory / "KeyFile").c_str(), O_WRONLY | O_CREAT, 0600);
            suts_StgKeyEntries entries;
            for (char const* const key : {"ten bytes", "a longer key", "b"}) {
                entries.Add(test::OwnedField(key + "\0"s), false);
            }
            entries.Write(file);
            entries.Write(file);  // nothing is left
            return 0;
        });
        std::string expected;
        std::string text;
        for (std::string const& entry : {"ten bytes\0"s, "a longer key\0"s, "b\0"s}) {
            if (expected.size() + entry.size() <= room) {
                expected += entry;
            } else {
                text += test::ErrorText("sutl_FileWrite error: ", EFBIG);
            }
        }
        EXPECT_EQ(expected, test::ReadFile(directory / "KeyFile"));
        EXPECT_EQ(text, end.standardError);
        std::filesystem::remove(directory / "KeyFile");
    }
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
        {"int32", SUTS_INT32, END, "abcdefghabcd", {"abcd", "efgh", "abcd"}},
        {"float64, cut", SUTS_FLOAT64, CORRUPT, "abcdefgh1234567", {"abcdefgh"}},
        {"with lengths", SUTS_STRING64, END, "\2\0\0\0a\0\1\0\0\0\0\2\0\0\0a\0"s, {"a\0"s, "\0"s, "a\0"s}},
        {"text cut", SUTS_STRING64, CORRUPT, "\5\0\0\0abc"s, {}},
        {"text without NUL", SUTS_STRING64, END, "\2\0\0\0ab"s, {"ab\0"s}},
        {"length 1023", SUTS_STRING64, END, Host(1023) + text1023, {text1023}},
        {"length 1023, cut", SUTS_STRING64, CORRUPT, Host(1023) + text1023.substr(1), {}},
        {"length 1024", SUTS_STRING64, END, Host(1024) + text1024 + "\2\0\0\0b\0"s, {text1024, "b\0"s}},
        {"length 1024, cut behind a NUL", SUTS_STRING64, END, Host(1024) + "kk\0k"s, {"kk\0"s}},
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

}  // namespace
