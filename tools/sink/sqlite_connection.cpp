#include "sqlite_connection.h"

#include <bit>
#include <cmath>
#include <cstring>

#include "destination_tables.h"
#include "sutl_netorder.h"
#include "terminal_text.h"

int SqliteStatement::Prepare(sqlite3* database, std::string const& sql) {
    sqlite3_stmt* statement = nullptr;
    int const result = sqlite3_prepare_v3(database, sql.c_str(), static_cast<int>(sql.size() + 1),
                                          SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    statement_.reset(statement);
    parameter_ = 0;
    bound_ = SQLITE_OK;
    return result;
}

SqliteStatement& SqliteStatement::Bind(long number) {
    Note(sqlite3_bind_int64(statement_.get(), ++parameter_, number));
    return *this;
}

SqliteStatement& SqliteStatement::Bind(std::string_view text) {
    if (!IsUtf8(text)) return BindBlob(text);
    // An empty view may have no address, which would bind NULL.
    char const* const from = text.empty() ? "" : text.data();
    Note(sqlite3_bind_text64(statement_.get(), ++parameter_, from, text.size(), SQLITE_STATIC, SQLITE_UTF8));
    return *this;
}

SqliteStatement& SqliteStatement::Bind(brindle_Value const& value) {
    switch (value.type) {
        case SUTS_STRING64:
            return Bind(value.text);
        case SUTS_INT32:
        case SUTS_INT64:
            return Bind(value.number);
        case SUTS_FLOAT64:
            break;
    }
    // NaN would become NULL, and -0.0 the integer 0.
    if (std::isnan(value.real) || (value.real == 0 && std::signbit(value.real))) {
        unsigned long const bits = sutl_ToNetorder(std::bit_cast<unsigned long>(value.real));
        Note(sqlite3_bind_blob64(statement_.get(), ++parameter_, &bits, sizeof bits, SQLITE_TRANSIENT));
    } else {
        Note(sqlite3_bind_double(statement_.get(), ++parameter_, value.real));
    }
    return *this;
}

SqliteStatement& SqliteStatement::BindBlob(std::span<char const> bytes) {
    char const* const from = bytes.empty() ? "" : bytes.data();
    Note(sqlite3_bind_blob64(statement_.get(), ++parameter_, from, bytes.size(), SQLITE_STATIC));
    return *this;
}

SqliteStatement& SqliteStatement::BindNull() {
    Note(sqlite3_bind_null(statement_.get(), ++parameter_));
    return *this;
}

int SqliteStatement::Step() {
    if (bound_ != SQLITE_OK) return bound_;
    return sqlite3_step(statement_.get());
}

int SqliteStatement::Run() {
    int result = Step();
    while (result == SQLITE_ROW) result = sqlite3_step(statement_.get());
    Reset();
    return result;
}

void SqliteStatement::Reset() {
    sqlite3_reset(statement_.get());
    parameter_ = 0;
    bound_ = SQLITE_OK;
}

std::string_view SqliteStatement::Bytes(int column) const {
    auto const* const bytes = static_cast<char const*>(sqlite3_column_blob(statement_.get(), column));
    return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

brindle_Value SqliteStatement::Value(int column, suts_FieldType type) const {
    if (type == SUTS_STRING64) return brindle_Value::Text(Bytes(column));
    if (type != SUTS_FLOAT64) return brindle_Value::Number(type, Number(column));
    if (sqlite3_column_type(statement_.get(), column) != SQLITE_BLOB) {
        return brindle_Value::Real(sqlite3_column_double(statement_.get(), column));
    }
    unsigned long bits = 0;
    std::string_view const bytes = Bytes(column);
    if (bytes.size() == sizeof bits) memcpy(&bits, bytes.data(), sizeof bits);
    return brindle_Value::Real(std::bit_cast<double>(sutl_ToNetorder(bits)));
}
