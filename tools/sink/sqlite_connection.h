// SQLite's calls with scoped ownership.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "brindle_value.h"

struct SqliteCloser {
    void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using SqliteDatabase = std::unique_ptr<sqlite3, SqliteCloser>;

// A prepared statement. Parameters are bound in their order; what is bound must last until the statement has run. A
// value that SQLite cannot hold by itself is bound as a BLOB. One thread at a time.
class SqliteStatement {
 public:
    // An SQLite result code.
    [[nodiscard]] int Prepare(sqlite3* database, std::string const& sql);

    SqliteStatement& Bind(long number);
    SqliteStatement& Bind(std::string_view text);  // BLOB when it is no UTF-8
    SqliteStatement& Bind(brindle_Value const& value);
    SqliteStatement& BindBlob(std::span<char const> bytes);
    SqliteStatement& BindNull();

    // Runs the statement up to its next row: SQLITE_ROW, or what Reset gives.
    [[nodiscard]] int Step();
    // Runs the statement to its end, and makes it ready for the next binding. SQLITE_DONE, or the code of the failure.
    [[nodiscard]] int Run();
    void Reset();

    [[nodiscard]] long Number(int column) const { return sqlite3_column_int64(statement_.get(), column); }
    [[nodiscard]] std::string_view Bytes(int column) const;
    // A value as Bind took it.
    [[nodiscard]] brindle_Value Value(int column, suts_FieldType type) const;

 private:
    void Note(int result) {
        if (bound_ == SQLITE_OK) bound_ = result;
    }

    std::unique_ptr<sqlite3_stmt, SqliteCloser> statement_;
    int parameter_ = 0;      // bound last
    int bound_ = SQLITE_OK;  // first failure to bind
};
