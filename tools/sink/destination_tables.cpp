#include "destination_tables.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>

#include "value_text.h"

namespace {

std::string Folded(std::string_view name, bool foldsCase) {
    std::string folded(name);
    if (!foldsCase) return folded;
    for (char& c : folded) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return folded;
}

// Gives out names that differ from each other.
class Names {
 public:
    explicit Names(bool foldsCase) : foldsCase_(foldsCase) {}

    std::string Take(std::string const& wanted) {
        std::string name = wanted;
        for (int number = 2; !Insert(name); ++number) name = fmt::format("{}_{}", wanted, number);
        return name;
    }

 private:
    bool Insert(std::string_view name) {
        std::string folded = Folded(name, foldsCase_);
        if (std::find(taken_.begin(), taken_.end(), folded) != taken_.end()) return false;
        taken_.push_back(std::move(folded));
        return true;
    }

    bool const foldsCase_;
    std::vector<std::string> taken_;
};

TableColumn FieldColumn(std::string name, suts_FieldType type, TableStyle const& style) {
    char const* sqlType = style.text;
    if (type == SUTS_INT32) sqlType = style.integer32;
    if (type == SUTS_INT64) sqlType = style.integer64;
    if (type == SUTS_FLOAT64) sqlType = style.real;
    return {std::move(name), sqlType, TypeName(type)};
}

}  // namespace

SchemaTables::SchemaTables(suts_tsspec const& spec, DestinationOptions const& options, TableStyle const& style)
    : view(spec.name.get()), withBlocks(options.withBlocks), dedupe(options.dedupe) {
    keys.name = view + "_keys";
    records.name = view + "_records";
    cycles = {view + "_cycles",
              {{"cycle", style.integer64, {}},
               {"complete", style.boolean, {}},
               {"records", style.integer64, {}},
               {"keys", style.integer64, {}},
               {"bytes", style.integer64, {}},
               {"newest", style.time, {}},
               {"rejected", style.integer64, {}},
               {"committed", style.time, {}}}};
    rejects = {view + "_rejects",
               {{"cycle", style.integer64, {}}, {"reason", style.text, {}}, {"record", style.text, {}}}};
    states = {"brindle_state", {{"name", style.text, {}}, {"state", style.text, {}}}};

    // The view names all fields, so their names differ from each other in both tables.
    Names names(style.foldsCase);
    if (withBlocks) {
        viewColumns.push_back(names.Take("cycle"));
        viewColumns.push_back(names.Take("block"));
    }
    viewColumns.push_back(names.Take(options.timeName));
    std::string const& time = viewColumns.back();
    std::vector<TableColumn> fields;
    fields.reserve(static_cast<std::size_t>(spec.fieldCount));
    for (int i = 0; i < spec.fieldCount; ++i) {
        fields.push_back(
            FieldColumn(names.Take(spec.fieldNames[static_cast<std::size_t>(i)].get()), spec.Type(i), style));
    }

    keys.columns = {{names.Take("id"), style.integer64, {}}, fields.front()};
    if (style.hashesKeys) keys.columns.push_back({names.Take("hash"), style.bytes, {}});
    records.columns = {{names.Take("key_id"), style.integer64, {}}, {time, style.time, {}}};
    records.columns.insert(records.columns.end(), fields.begin() + 1, fields.end());
    if (withBlocks) {
        records.columns.push_back({viewColumns[0], style.integer64, {}});
        records.columns.push_back({viewColumns[1], style.integer64, {}});
    }
    if (dedupe) records.columns.push_back({names.Take("content"), style.bytes, {}});
    for (TableColumn const& field : fields) viewColumns.push_back(field.name);
}

std::string Quoted(std::string_view name) {
    std::string quoted = "\"";
    for (char const c : name) {
        if (c == '"') quoted += '"';
        quoted += c;
    }
    return quoted + '"';
}

std::string ColumnNames(Table const& table) {
    std::string list;
    for (TableColumn const& column : table.columns) list += (list.empty() ? "" : ", ") + Quoted(column.name);
    return list;
}

std::string ColumnDefinitions(Table const& table) {
    std::string list;
    for (TableColumn const& column : table.columns) {
        list += (list.empty() ? "" : ", ") + Quoted(column.name) + ' ' + column.type;
    }
    return list;
}

std::string ViewSelect(SchemaTables const& tables, std::string const& prefix) {
    std::string list;
    for (std::string const& name : tables.viewColumns) {
        char const table = name == tables.keys.columns[1].name ? 'k' : 'r';
        list += fmt::format("{}{}.{}", list.empty() ? "" : ", ", table, Quoted(name));
    }
    return fmt::format("SELECT {} FROM {}{} r JOIN {}{} k ON k.{} = r.{}", list, prefix, Quoted(tables.records.name),
                       prefix, Quoted(tables.keys.name), Quoted(tables.keys.columns[0].name),
                       Quoted(tables.records.columns[0].name));
}

std::string TableDifferences(Table const& wanted, std::vector<TableColumn> const& found) {
    std::string text;
    auto const add = [&](std::string const& difference) { text += (text.empty() ? "" : "; ") + difference; };
    auto const find = [](std::vector<TableColumn> const& columns, std::string const& name) {
        return std::find_if(columns.begin(), columns.end(), [&](auto const& column) { return column.name == name; });
    };
    for (TableColumn const& column : wanted.columns) {
        auto const same = find(found, column.name);
        std::string const asked = column.schemaType.empty()
                                      ? fmt::format("{} is needed", column.type)
                                      : fmt::format("the schema says {} {}", column.schemaType, column.type);
        if (same == found.end()) {
            add(fmt::format("{} has no column {}, but {}", wanted.name, column.name, asked));
        } else if (same->type != column.type) {
            add(fmt::format("{} has column {} {}, but {}", wanted.name, column.name, same->type, asked));
        }
    }
    for (TableColumn const& column : found) {
        if (find(wanted.columns, column.name) != wanted.columns.end()) continue;
        add(fmt::format("{} has column {} {}, which is not wanted", wanted.name, column.name, column.type));
    }
    return text;
}

void KeyIds::Load(std::string bytes, long id) {
    keys_.insert_or_assign(std::move(bytes), KnownKey{id, true});
    newestId_ = std::max(newestId_, id);
}

KnownKey& KeyIds::Find(brindle_Value const& key) {
    unsigned long bits = 0;
    std::string_view const bytes = Bytes(key, bits);
    auto const known = keys_.find(bytes);
    if (known != keys_.end()) return known->second;
    return keys_.emplace(bytes, KnownKey{++newestId_, false}).first->second;
}

std::string_view KeyIds::Bytes(brindle_Value const& key, unsigned long& bits) {
    if (key.type == SUTS_STRING64) return key.text;
    bits = key.type == SUTS_FLOAT64 ? std::bit_cast<unsigned long>(key.real) : static_cast<unsigned long>(key.number);
    return {reinterpret_cast<char const*>(&bits), sizeof bits};
}

void WriteWireRecord(brindle_Message& wire, SinkRecord const& record) {
    wire.Clear();
    wire.AppendField(record.values.front());
    wire.Append8Byte(static_cast<unsigned long>(record.timeUs));
    for (brindle_Value const& value : record.values.subspan(1)) wire.AppendField(value);
}

std::string ContentHash(std::span<unsigned char const> bytes) {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits(bytes.data(), bytes.size()));
    static_assert(sizeof canonical == CONTENT_BYTES);
    return {reinterpret_cast<char const*>(&canonical), sizeof canonical};
}
