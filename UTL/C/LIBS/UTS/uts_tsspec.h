// The record schema.
#pragma once

#include <memory>

#include "uts_formats.h"

// Name, types and names of a record's fields, loaded from the spec file. Field 0 is the record's key. The owner loads
// it on one thread before others start; afterwards it is only read, by all threads, without a lock. Readers use
// fieldCount and types directly.
class suts_tsspec {
 public:
    // Results of Init.
    enum : int { LOADED = 0, UNREADABLE = 1, INCOMPLETE = 2 };

    std::unique_ptr<char[]> name;                           // NUL-terminated; null when empty
    int fieldCount = 0;                                     // number of fields
    std::unique_ptr<int[]> types;                           // a suts_FieldType per field
    std::unique_ptr<std::unique_ptr<char[]>[]> fieldNames;  // a NUL-terminated name per field

    // Loads the file in place of the former content. LOADED; UNREADABLE when it cannot be opened (the former content
    // stays) or holds an unknown type; INCOMPLETE when it ends too early. Each is reported on standard error. After an
    // error behind the opening the schema must not be used for records: it holds no types. A file that ends after a
    // type without a name, behind at least two fields, ends the process by an assertion.
    [[nodiscard]] int Init(char const* path);

    // Makes it empty.
    void Clear();

    // Takes over a copy of another schema's content.
    void CopyFrom(suts_tsspec const& other);

    [[nodiscard]] bool HasKeyField() const { return fieldCount > 0 && types != nullptr; }
    [[nodiscard]] suts_FieldType Type(int index) const { return static_cast<suts_FieldType>(types[index]); }
};
