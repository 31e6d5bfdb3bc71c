// The key file.
#include <fcntl.h>

#include "fuzz.h"
#include "uts_stgkeyfile.h"

using fuzz::Require;

namespace {

struct Keys {
    std::vector<std::string> keys;
    bool whole;  // the file ended behind the last
};

// Every input uses the one directory anew.
test::Directory const& Directory() {
    static test::Directory const directory;
    return directory;
}

Keys Read(suts_tsspec const& spec, std::size_t fileBytes) {
    Keys read = {};
    fuzz::Messages const messages;
    suts_StgKeyFileReader reader(spec, Directory().Path());
    sutl_RawBytefield key;
    suts_StgKeyFileReader::Result result;
    while ((result = reader.Next(key)) == suts_StgKeyFileReader::KEY) {
        read.keys.push_back(test::TakeBytes(key));
        Require(read.keys.size() <= fileBytes, "a key takes a byte at least");
    }
    Require(messages.Text().empty(), "the reader leaves the report to its caller");
    read.whole = result == suts_StgKeyFileReader::END;
    return read;
}

}  // namespace

int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    fuzz::Input input(data, size);
    suts_tsspec const& spec = fuzz::SchemaOf(input.Byte());
    std::string_view const content = input.Rest();
    std::string const path = Directory() / "KeyFile";
    test::WriteFile(path, content);
    Keys const read = Read(spec, content.size());

    suts_FieldType const type = spec.Type(0);
    std::size_t const keyBytes = type == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
    std::string joined;
    for (std::string const& key : read.keys) {
        joined += key;
        bool const isText = !key.empty() && key.find('\0') == key.size() - 1;
        Require(type == SUTS_STRING64 ? isText : key.size() == keyBytes, "a key is in stored form");
    }
    if (type != SUTS_STRING64) {
        Require(joined == content.substr(0, content.size() / keyBytes * keyBytes), "numbers are read to the byte");
        Require(read.whole == (content.size() % keyBytes == 0), "a cut number is corrupt, and nothing else is");
    }

    // Written as new keys are, the same keys come back.
    {
        std::filesystem::remove(path);
        sutl_Descriptor const file = sutl_OpenFile(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0700);
        suts_StgKeyEntries entries;
        for (std::string const& key : read.keys) entries.Add(test::OwnedField(key), type == SUTS_STRING64);
        entries.Write(file);
    }
    Keys const again = Read(spec, std::filesystem::file_size(path));
    Require(again.whole && again.keys == read.keys, "what was read can be written and read");
    return 0;
}
