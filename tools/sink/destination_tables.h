// What destinations with SQL tables share: the tables that a schema needs, and the ids of keys.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "brindle_message.h"
#include "destination.h"

constexpr std::size_t REJECT_BYTES_MAX = 64UL << 20;  // of a record kept among the rejects

// What a store calls the types, and its habits.
struct TableStyle {
    char const* integer32;
    char const* integer64;
    char const* real;
    char const* text;
    char const* time;
    char const* bytes;
    char const* boolean;
    bool foldsCase;   // names that differ only in case are one
    bool hashesKeys;  // a column with the hash of the key stands for the key in the index
};

struct TableColumn {
    std::string name;
    std::string type;        // in SQL
    std::string schemaType;  // of the field; empty for a column of our own
};

struct Table {
    std::string name;
    std::vector<TableColumn> columns;
};

// The tables of a schema. Where fields are called as columns of ours, ours give way and get a number; where the store
// takes two fields for one, the later one gets it.
struct SchemaTables {
    SchemaTables(suts_tsspec const& spec, DestinationOptions const& options, TableStyle const& style);

    std::string view;
    Table keys;     // id, key field, hash if there is one
    Table records;  // key_id, time, other fields, cycle and block if asked for, content if asked for
    Table cycles;
    Table rejects;
    Table states;
    std::vector<std::string> viewColumns;  // cycle and block if asked for, time, fields
    bool withBlocks;
    bool dedupe;
};

// The name as an SQL identifier.
[[nodiscard]] std::string Quoted(std::string_view name);
// The columns of the table between commas; with their types as well.
[[nodiscard]] std::string ColumnNames(Table const& table);
[[nodiscard]] std::string ColumnDefinitions(Table const& table);
// The body of the view, the tables' names with this before them.
[[nodiscard]] std::string ViewSelect(SchemaTables const& tables, std::string const& prefix);

// What keeps a table with these columns from being used, column by column; empty when nothing does.
[[nodiscard]] std::string TableDifferences(Table const& wanted, std::vector<TableColumn> const& found);

struct KnownKey {
    long id;
    bool isStored;  // its row is in the store or in the open transaction
};

// The ids of all keys, by the bytes of the key.
class KeyIds {
 public:
    void Clear() {
        keys_.clear();
        newestId_ = 0;
    }
    void Load(std::string bytes, long id);
    // The key's entry, which stays where it is until Clear. A key that is not known gets the next id.
    KnownKey& Find(brindle_Value const& key);

    // A text as it is, the bits of a number.
    [[nodiscard]] static std::string_view Bytes(brindle_Value const& key, unsigned long& bits);

 private:
    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    std::unordered_map<std::string, KnownKey, Hash, std::equal_to<>> keys_;
    long newestId_ = 0;
};

// A record as producers send it: the key, the time, the other fields.
void WriteWireRecord(brindle_Message& wire, SinkRecord const& record);

constexpr std::size_t CONTENT_BYTES = 16;
// The XXH3 hash of 128 bits, most significant byte first.
[[nodiscard]] std::string ContentHash(std::span<unsigned char const> bytes);
