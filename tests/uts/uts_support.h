// What the tests of the staging library share: schemas, directories, bytes spelled out, and random records.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "../foundation/test_support.h"
#include "sutl_netorderbytefield.h"
#include "sutl_rawbytefield.h"
#include "uts_stgrecovery.h"
#include "uts_tsspec.h"

namespace test {

using Types = std::vector<suts_FieldType>;
using Texts = std::vector<std::string>;
using Names = std::set<std::string>;

// A schema of these types with the field names f0, f1, ...
struct Schema : suts_tsspec {
    explicit Schema(Types const& fieldTypes) {
        fieldCount = static_cast<int>(fieldTypes.size());
        types = std::make_unique<int[]>(fieldTypes.size());
        fieldNames = std::make_unique<std::unique_ptr<char[]>[]>(fieldTypes.size());
        for (std::size_t i = 0; i < fieldTypes.size(); ++i) {
            std::string const fieldName = "f" + std::to_string(i);
            types[i] = fieldTypes[i];
            fieldNames[i] = std::make_unique<char[]>(fieldName.size() + 1);
            fieldName.copy(fieldNames[i].get(), fieldName.size());
        }
    }
};

inline Types const ALL_TYPES = {SUTS_STRING64, SUTS_INT32, SUTS_INT64, SUTS_FLOAT64};

inline Types RandomTypes(Random& random) {
    Types types(1 + Below(random, 6));
    for (suts_FieldType& type : types) type = ALL_TYPES[Below(random, ALL_TYPES.size())];
    return types;
}

// Bytes ---------------------------------------------------------------------------------------------------------------

template <typename Number>
std::string Host(Number value) {
    return std::string(reinterpret_cast<char const*>(&value), sizeof value);
}

// Most significant byte first.
template <typename Number>
std::string Net(Number value) {
    std::string bytes;
    for (int shift = 8 * static_cast<int>(sizeof value) - 8; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

inline sutl_RawBytefield Field(std::string_view bytes) {
    sutl_RawBytefield field;
    field.Assign(bytes.data(), static_cast<int>(bytes.size()));
    return field;
}

// Frees its array itself.
struct OwnedField : sutl_RawBytefield {
    explicit OwnedField(std::string_view bytes) : sutl_RawBytefield(Field(bytes)) {}
    OwnedField(OwnedField const&) = delete;
    OwnedField& operator=(OwnedField const&) = delete;
    ~OwnedField() { Clear(); }
};

inline std::string BytesOf(sutl_RawBytefield const& field) {
    return std::string(reinterpret_cast<char const*>(field.Data()), static_cast<std::size_t>(field.length));
}

// Its bytes, and nothing left to free.
inline std::string TakeBytes(sutl_RawBytefield& field) {
    std::string bytes = BytesOf(field);
    field.Clear();
    return bytes;
}

// A message ready to be read, in blocks that a longer one has used before: what lies behind its end is not zero.
inline void Fill(sutl_NetorderByteField& field, std::string_view bytes) {
    std::string const stale(bytes.size() + 64, '\x55');
    for (std::string_view const content : {std::string_view(stale), bytes}) {
        field.Reset();
        field.AppendBytes(content.data(), content.size());
        field.Seal();
    }
    field.StartReading();
}

// Everything that is left of a message.
inline std::string Drain(sutl_NetorderByteField& field) {
    std::string bytes(static_cast<std::size_t>(field.Count()), '\0');
    field.GetNextBytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<unsigned int>(bytes.size()));
    return bytes;
}

// Records -------------------------------------------------------------------------------------------------------------

// A field's stored form; mostly short strings, now and then one of several blocks.
inline std::string RandomStored(Random& random, suts_FieldType type) {
    if (type == SUTS_INT32) return RandomBytes(random, 4);
    if (type != SUTS_STRING64) return RandomBytes(random, 8);
    std::string text = RandomBytes(random, Below(random, Below(random, 50) == 0 ? 10000 : 20));
    std::replace(text.begin(), text.end(), '\0', 'x');
    return text + '\0';
}

// The wire form of a stored field, on a host that is little-endian.
inline std::string Wire(suts_FieldType type, std::string const& stored) {
    if (type == SUTS_STRING64) return Net(static_cast<unsigned int>(stored.size())) + stored;
    return std::string(stored.rbegin(), stored.rend());
}

struct Record {
    long time = 0;
    std::string key = {};  // stored form, as the value
    std::string value = {};
    std::string wireKey = {};  // the same on a wire
    std::string wireValue = {};

    [[nodiscard]] std::string InLog() const { return Host(time) + Host(static_cast<int>(value.size())) + key + value; }
    [[nodiscard]] std::string InFrame() const { return wireKey + Net(time) + wireValue; }
    [[nodiscard]] std::string InShipMessage() const { return Net(time) + wireValue; }
    bool operator==(Record const& other) const {
        return time == other.time && key == other.key && value == other.value;
    }
};

inline std::ostream& operator<<(std::ostream& out, Record const& record) {
    return out << "time " << record.time << ", key of " << record.key.size() << ", value of " << record.value.size();
}

inline Record RandomRecord(Random& random, Types const& types) {
    Record record;
    record.time = static_cast<long>(random() >> 1);
    for (std::size_t i = 0; i < types.size(); ++i) {
        std::string const stored = RandomStored(random, types[i]);
        (i == 0 ? record.key : record.value) += stored;
        (i == 0 ? record.wireKey : record.wireValue) += Wire(types[i], stored);
    }
    return record;
}

// Appends a record to the log and counts it, as the stager does for each. Its recovery handle.
inline suts_StgFileRecord* Log(suts_StgRecovery& log, Record const& record, suts_StgLogPosition* position = nullptr) {
    suts_StgLogPosition const at = log.AppendRecord(record.time, OwnedField(record.key), OwnedField(record.value));
    if (position != nullptr) *position = at;
    return log.CountRecord();
}

// Files ---------------------------------------------------------------------------------------------------------------

inline std::string ReadFile(std::filesystem::path const& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return std::move(content).str();
}

// Always a new file: some file systems wait for the disk when one is cut and written again.
inline void WriteFile(std::filesystem::path const& path, std::string_view content) {
    std::filesystem::remove(path);
    std::ofstream(path, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
}

// An empty directory of its own, removed with all that is in it.
class Directory {
 public:
    Directory() {
        std::string pattern = std::filesystem::temp_directory_path() / "brindle-uts-XXXXXX";
        path_ = mkdtemp(pattern.data());
    }
    Directory(Directory const&) = delete;
    Directory& operator=(Directory const&) = delete;
    ~Directory() { std::filesystem::remove_all(path_); }

    [[nodiscard]] char const* Path() const { return path_.c_str(); }
    [[nodiscard]] std::string operator/(std::string const& name) const { return path_ / name; }
    // What lies in it.
    [[nodiscard]] test::Names Names() const {
        test::Names names;
        for (auto const& entry : std::filesystem::directory_iterator(path_)) names.insert(entry.path().filename());
        return names;
    }

 private:
    std::filesystem::path path_;
};

// Ends ----------------------------------------------------------------------------------------------------------------

inline std::string AssertionText(std::string const& message, std::string const& file, int line) {
    return "\n\n >>>>>> Internal Error (Assert Failure): " + message + " \n     At file:" + file + " line " +
           std::to_string(line) + " <<<<<<<\n\n";
}

// The process has written this and was ended by the signal.
inline void ExpectKilled(ChildEnd const& end, int signal, std::string const& standardError) {
    EXPECT_EQ(standardError, end.standardError);
    EXPECT_TRUE(WIFSIGNALED(end.status) && WTERMSIG(end.status) == signal) << end.status;
}

// What the action writes to standard error.
template <typename Action>
std::string StandardErrorOf(Action action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

}  // namespace test
