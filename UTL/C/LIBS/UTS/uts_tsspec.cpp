#include "uts_tsspec.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sutl_assert.h"
#include "sutl_descriptor.h"

namespace {

constexpr sutl_AssertSite SITE_TYPES_COUNT = {"UTL/C/LIBS/UTS/uts_tsspec.h", 135};
constexpr sutl_AssertSite SITE_NAMES_COUNT = {"UTL/C/LIBS/UTS/uts_tsspec.h", 139};
constexpr char TEXT_BAD_FILE[] = "ERROR, bad spec file!\n";

constexpr std::size_t PIECE_BYTES_MAX = 3999;  // a token across two pieces becomes two
constexpr char DELIMITERS[] = " \t\r\n";

std::unique_ptr<char[]> CopyText(std::string_view text) {
    auto copy = std::make_unique<char[]>(text.size() + 1);
    text.copy(copy.get(), text.size());
    return copy;
}

int TypeOf(std::string_view keyword) {
    if (keyword == "string64") return SUTS_STRING64;
    if (keyword == "int32") return SUTS_INT32;
    if (keyword == "int64") return SUTS_INT64;
    if (keyword == "float64") return SUTS_FLOAT64;
    return 0;
}

// Takes the tokens of a file one by one: a name, then pairs of a type and a field name.
class TokenReader {
 public:
    // False for a token that is not a type where one is expected; reported here.
    bool Take(std::string_view token) {
        switch (state_) {
            case EXPECT_NAME:
                name = CopyText(token);
                state_ = EXPECT_TYPE;
                return true;
            case EXPECT_TYPE:
                types.push_back(TypeOf(token));
                if (types.back() == 0) {
                    fprintf(stderr, "ERROR suts_tspec: Syntax, bad type %s\n", std::string(token).c_str());
                    return false;
                }
                state_ = EXPECT_FIELD_NAME;
                return true;
            case EXPECT_FIELD_NAME:
                fieldNames.push_back(CopyText(token));
                state_ = EXPECT_TYPE;
                return true;
        }
        return false;
    }

    [[nodiscard]] bool ExpectsType() const { return state_ == EXPECT_TYPE; }

    std::unique_ptr<char[]> name;
    std::vector<int> types;
    std::vector<std::unique_ptr<char[]>> fieldNames;

 private:
    enum { EXPECT_NAME, EXPECT_TYPE, EXPECT_FIELD_NAME } state_ = EXPECT_NAME;
};

// The file in pieces: up to the end of a line, or the greatest length.
class PieceReader {
 public:
    explicit PieceReader(char const* path) : file_(sutl_OpenFile(path, O_RDONLY)) {}

    [[nodiscard]] bool IsOpen() const { return file_.IsOpen(); }
    [[nodiscard]] bool HasFailed() const { return fill_ < 0; }

    // False at the end of the file, or when it cannot be read any further.
    bool Next(std::string& piece) {
        piece.clear();
        while (piece.size() < PIECE_BYTES_MAX && !piece.ends_with('\n') && (position_ < fill_ || Refill())) {
            char const* const from = block_ + position_;
            auto const there = std::min(static_cast<std::size_t>(fill_ - position_), PIECE_BYTES_MAX - piece.size());
            auto const* const lineEnd = static_cast<char const*>(memchr(from, '\n', there));
            std::size_t const taken = lineEnd != nullptr ? static_cast<std::size_t>(lineEnd - from) + 1 : there;
            piece.append(from, taken);
            position_ += static_cast<long>(taken);
        }
        return !piece.empty() && !HasFailed();
    }

 private:
    bool Refill() {
        position_ = 0;
        fill_ = sutl_ReadSome(file_.Get(), block_, sizeof block_);
        return fill_ > 0;
    }

    sutl_Descriptor file_;
    char block_[4096];
    long position_ = 0;
    long fill_ = 0;  // negative after a failed read
};

// Hands every token of the piece to the reader.
bool TakeTokens(std::string_view piece, TokenReader& reader) {
    for (;;) {
        std::size_t const start = piece.find_first_not_of(DELIMITERS);
        if (start == std::string_view::npos) return true;
        piece.remove_prefix(start);
        std::size_t const length = std::min(piece.find_first_of(DELIMITERS), piece.size());
        if (!reader.Take(piece.substr(0, length))) return false;
        piece.remove_prefix(length);
    }
}

}  // namespace

int suts_tsspec::Init(char const* path) {
    PieceReader file(path);
    if (!file.IsOpen()) {
        fprintf(stderr, "ERROR suts_tspec: Cannot open specfile %s\n", path);
        return UNREADABLE;
    }
    Clear();

    TokenReader reader;
    bool typesKnown = true;
    std::string piece;
    while (typesKnown && file.Next(piece)) typesKnown = TakeTokens(piece.c_str(), reader);
    name = std::move(reader.name);
    fieldCount = static_cast<int>(reader.fieldNames.size());
    if (!typesKnown) return UNREADABLE;
    if (file.HasFailed() || (!reader.ExpectsType() && fieldCount < 2)) {
        fputs("ERROR suts_tspec: Incomplete spec file!\n", stderr);
        return INCOMPLETE;
    }

    auto const fields = static_cast<std::size_t>(fieldCount);
    if (reader.types.size() != fields) sutl_AssertFailed(SITE_TYPES_COUNT, TEXT_BAD_FILE);
    types = std::make_unique<int[]>(fields);
    std::copy(reader.types.begin(), reader.types.end(), types.get());
    if (reader.fieldNames.size() != fields) sutl_AssertFailed(SITE_NAMES_COUNT, TEXT_BAD_FILE);
    fieldNames = std::make_unique<std::unique_ptr<char[]>[]>(fields);
    std::move(reader.fieldNames.begin(), reader.fieldNames.end(), fieldNames.get());
    return LOADED;
}

void suts_tsspec::Clear() {
    types.reset();
    fieldNames.reset();
    name.reset();
    fieldCount = 0;
}

void suts_tsspec::CopyFrom(suts_tsspec const& other) {
    Clear();
    if (other.name != nullptr) name = CopyText(other.name.get());
    fieldCount = other.fieldCount;
    if (!other.HasKeyField()) return;
    auto const fields = static_cast<std::size_t>(fieldCount);
    types = std::make_unique<int[]>(fields);
    fieldNames = std::make_unique<std::unique_ptr<char[]>[]>(fields);
    for (std::size_t i = 0; i < fields; ++i) {
        types[i] = other.types[i];
        fieldNames[i] = CopyText(other.fieldNames[i].get());
    }
}
