#include "sqlite_destination.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>

#include "destination_tables.h"
#include "record_text.h"
#include "sqlite_connection.h"
#include "time_text.h"

namespace {

constexpr TableStyle SQLITE_STYLE = {"INTEGER", "INTEGER", "REAL", "TEXT", "INTEGER", "BLOB", "INTEGER", true, false};
constexpr int BUSY_MS = 5000;

class SqliteDestination : public Destination {
 public:
    SqliteDestination(std::string path, suts_tsspec const& spec, DestinationOptions const& options);

    Status Open(std::string& state) override;
    Status Begin() override;
    Status Add(SinkRecord const& record) override;
    Status Reject(unsigned long cycle, std::string_view reason, std::string_view bytes) override;
    Status Commit(SinkCycle const& cycle, std::string_view state) override;
    void Close() override;
    unsigned long Rejected() const override { return rejected_; }
    unsigned long Merged() const override { return merged_; }

 private:
    Status Connect();
    Status SetUp();
    Status SetUpTable(Table const& table, std::string const& constraints, bool& isNew);
    Status SetUpView();
    // The kind and the exact name of what has the name, whatever its case; both empty when there is nothing.
    Status Look(std::string const& name, std::string& kind, std::string& exactName);
    Status LoadState(std::string& state);
    Status LoadKeys();
    Status PrepareStatements();
    Status Execute(std::string const& sql);
    Status Prepare(SqliteStatement& statement, std::string const& sql);
    Status RejectRecord(int result, SinkRecord const& record);
    Status InsertReject(unsigned long cycle, std::string_view reason, std::string_view text, bool isText);
    // SQLite's words for the failure of the last call.
    [[nodiscard]] std::string Reason(int result);
    // The status of a failed call.
    Status Failed(int result);
    [[nodiscard]] bool IsRefusal(int result);

    std::string const path_;
    suts_tsspec const& spec_;
    SchemaTables const tables_;
    RecordText const text_;
    std::string const insertRecordSql_;
    SqliteDatabase database_;
    SqliteStatement insertKey_;
    SqliteStatement insertRecord_;
    SqliteStatement insertReject_;
    KeyIds keys_;
    std::string state_;     // as committed last
    brindle_Message wire_;  // of the record whose content is hashed
    std::string json_;      // of the record that is refused
    unsigned long rejected_ = 0;
    unsigned long merged_ = 0;
};

std::string Placeholders(std::size_t count) {
    std::string list;
    for (std::size_t i = 0; i < count; ++i) list += i == 0 ? "?" : ", ?";
    return list;
}

std::string InsertSql(Table const& table) {
    return fmt::format("INSERT INTO {} ({}) VALUES ({})", Quoted(table.name), ColumnNames(table),
                       Placeholders(table.columns.size()));
}

// Key, time and content: what makes records equal.
std::string EqualColumns(SchemaTables const& tables) {
    auto const& columns = tables.records.columns;
    return fmt::format("{}, {}, {}", Quoted(columns[0].name), Quoted(columns[1].name), Quoted(columns.back().name));
}

std::string InsertRecordSql(SchemaTables const& tables) {
    std::string sql = InsertSql(tables.records);
    // Equal records alone are passed over: another constraint of the user's still refuses.
    if (tables.dedupe) sql += fmt::format(" ON CONFLICT ({}) DO NOTHING", EqualColumns(tables));
    return sql;
}

SqliteDestination::SqliteDestination(std::string path, suts_tsspec const& spec, DestinationOptions const& options)
    : path_(std::move(path)),
      spec_(spec),
      tables_(spec, options, SQLITE_STYLE),
      text_(spec, options.withBlocks ? std::vector<std::string>{"cycle", "block"} : std::vector<std::string>{},
            options.timeName),
      insertRecordSql_(InsertRecordSql(tables_)) {}

std::string SqliteDestination::Reason(int result) {
    bool const isLast = database_ != nullptr && sqlite3_extended_errcode(database_.get()) == result;
    return isLast ? sqlite3_errmsg(database_.get()) : sqlite3_errstr(result);
}

Destination::Status SqliteDestination::Failed(int result) {
    std::string const text = Reason(result);
    switch (result & 0xFF) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_NOMEM:
        case SQLITE_READONLY:
        case SQLITE_INTERRUPT:
        case SQLITE_IOERR:
        case SQLITE_FULL:
        case SQLITE_CANTOPEN:
        case SQLITE_PROTOCOL:
        case SQLITE_SCHEMA:
        case SQLITE_PERM:
            return Fail(AWAY, fmt::format("{}: {}", path_, text));
        default:
            return Fail(REFUSED, fmt::format("{}: {}", path_, text));
    }
}

// Whether the store refuses this record and would take another one.
bool SqliteDestination::IsRefusal(int result) {
    switch (result & 0xFF) {
        case SQLITE_CONSTRAINT:
        case SQLITE_TOOBIG:
        case SQLITE_MISMATCH:
            break;
        case SQLITE_ERROR: {
            // A trigger of the user's that failed over this record, or a table that is no longer as it was.
            SqliteStatement again;
            if (again.Prepare(database_.get(), insertRecordSql_) != SQLITE_OK) return false;
            break;
        }
        default:
            return false;
    }
    return sqlite3_get_autocommit(database_.get()) == 0;  // the transaction was not rolled back as a whole
}

Destination::Status SqliteDestination::Execute(std::string const& sql) {
    int const result = sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr);
    return result == SQLITE_OK ? OK : Failed(result);
}

Destination::Status SqliteDestination::Prepare(SqliteStatement& statement, std::string const& sql) {
    int const result = statement.Prepare(database_.get(), sql);
    return result == SQLITE_OK ? OK : Failed(result);
}

Destination::Status SqliteDestination::Open(std::string& state) {
    Close();
    if (Status const status = Connect(); status != OK) return status;
    if (Status const status = Execute("BEGIN IMMEDIATE"); status != OK) return status;
    if (Status const status = SetUp(); status != OK) return status;
    if (Status const status = LoadState(state_); status != OK) return status;
    if (Status const status = LoadKeys(); status != OK) return status;
    if (Status const status = Execute("COMMIT"); status != OK) return status;
    state = state_;
    return PrepareStatements();
}

Destination::Status SqliteDestination::Connect() {
    // A path that starts so has no other meaning to SQLite, such as :memory:.
    std::string const path = path_.starts_with('/') ? path_ : "./" + path_;
    struct stat about = {};
    if (path.ends_with('/') || (stat(path.c_str(), &about) == 0 && S_ISDIR(about.st_mode))) {
        return Fail(REFUSED, fmt::format("{}: is a directory; give the name of a file", path_));
    }
    sqlite3* database = nullptr;
    int const flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    int const opened = sqlite3_open_v2(path.c_str(), &database, flags, nullptr);
    database_.reset(database);
    if (opened != SQLITE_OK) return Failed(opened);
    sqlite3_busy_timeout(database, BUSY_MS);
    // FULL makes a commit wait for the disk. The cache holds the upper parts of the index.
    return Execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA cache_size=-65536");
}

Destination::Status SqliteDestination::SetUp() {
    bool isNew = false;
    if (Status const status = SetUpTable(tables_.states, "PRIMARY KEY (\"name\")", isNew); status != OK) return status;
    std::string const& id = tables_.keys.columns[0].name;
    std::string const& key = tables_.keys.columns[1].name;
    std::string const keyConstraints = fmt::format("PRIMARY KEY ({}), UNIQUE ({})", Quoted(id), Quoted(key));
    if (Status const status = SetUpTable(tables_.keys, keyConstraints, isNew); status != OK) return status;
    std::string const equal = tables_.dedupe ? fmt::format("UNIQUE ({})", EqualColumns(tables_)) : "";
    if (Status const status = SetUpTable(tables_.records, equal, isNew); status != OK) return status;
    if (isNew && !tables_.dedupe) {
        auto const& columns = tables_.records.columns;
        Status const status =
            Execute(fmt::format("CREATE INDEX {} ON {} ({}, {})", Quoted(tables_.records.name + "_index"),
                                Quoted(tables_.records.name), Quoted(columns[0].name), Quoted(columns[1].name)));
        if (status != OK) return status;
    }
    if (Status const status = SetUpTable(tables_.cycles, "", isNew); status != OK) return status;
    if (Status const status = SetUpTable(tables_.rejects, "", isNew); status != OK) return status;
    return SetUpView();
}

Destination::Status SqliteDestination::Look(std::string const& name, std::string& kind, std::string& exactName) {
    kind.clear();
    exactName.clear();
    SqliteStatement look;
    char const sql[] = "SELECT type, name FROM sqlite_master WHERE name = ? COLLATE NOCASE";
    if (Status const status = Prepare(look, sql); status != OK) return status;
    int const result = look.Bind(name).Step();
    if (result == SQLITE_DONE) return OK;
    if (result != SQLITE_ROW) return Failed(result);
    kind = look.Bytes(0);
    exactName = look.Bytes(1);
    return OK;
}

Destination::Status SqliteDestination::SetUpTable(Table const& table, std::string const& constraints, bool& isNew) {
    std::string kind;
    std::string name;
    if (Status const status = Look(table.name, kind, name); status != OK) return status;
    isNew = kind.empty();
    if (isNew) {
        return Execute(fmt::format("CREATE TABLE {} ({}{}{})", Quoted(table.name), ColumnDefinitions(table),
                                   constraints.empty() ? "" : ", ", constraints));
    }
    if (kind != "table" || name != table.name) {
        return Fail(REFUSED, fmt::format("{}: the {} {} is in the way of table {}; use another database, or rename it",
                                         path_, kind, name, table.name));
    }
    SqliteStatement look;
    if (Status const status = Prepare(look, "SELECT name, type FROM pragma_table_xinfo(?)"); status != OK)
        return status;
    look.Bind(table.name);
    std::vector<TableColumn> found;
    int result = look.Step();
    for (; result == SQLITE_ROW; result = look.Step()) {
        found.push_back({std::string(look.Bytes(0)), std::string(look.Bytes(1)), {}});
    }
    if (result != SQLITE_DONE) return Failed(result);
    std::string const differences = TableDifferences(table, found);
    if (differences.empty()) return OK;
    return Fail(REFUSED, fmt::format("{}: {}; use another database, or rename the table", path_, differences));
}

Destination::Status SqliteDestination::SetUpView() {
    std::string kind;
    std::string name;
    if (Status const status = Look(tables_.view, kind, name); status != OK) return status;
    if (kind.empty()) {
        return Execute(fmt::format("CREATE VIEW {} AS {}", Quoted(tables_.view), ViewSelect(tables_, "")));
    }
    if (kind == "view" && name == tables_.view) return OK;
    return Fail(REFUSED, fmt::format("{}: the {} {} is in the way of view {}; use another database, or rename it",
                                     path_, kind, name, tables_.view));
}

Destination::Status SqliteDestination::LoadState(std::string& state) {
    state.clear();
    SqliteStatement look;
    if (Status const status = Prepare(look, "SELECT state FROM brindle_state WHERE name = ?"); status != OK)
        return status;
    int const result = look.Bind(tables_.view).Step();
    if (result == SQLITE_ROW) state = look.Bytes(0);
    return result == SQLITE_ROW || result == SQLITE_DONE ? OK : Failed(result);
}

Destination::Status SqliteDestination::LoadKeys() {
    SqliteStatement look;
    Status const status =
        Prepare(look, fmt::format("SELECT {} FROM {}", ColumnNames(tables_.keys), Quoted(tables_.keys.name)));
    if (status != OK) return status;
    int result = look.Step();
    for (; result == SQLITE_ROW; result = look.Step()) {
        unsigned long bits = 0;
        keys_.Load(std::string(KeyIds::Bytes(look.Value(1, spec_.Type(0)), bits)), look.Number(0));
    }
    return result == SQLITE_DONE ? OK : Failed(result);
}

Destination::Status SqliteDestination::PrepareStatements() {
    if (Status const status = Prepare(insertKey_, InsertSql(tables_.keys)); status != OK) return status;
    if (Status const status = Prepare(insertRecord_, insertRecordSql_); status != OK) return status;
    return Prepare(insertReject_, InsertSql(tables_.rejects));
}

Destination::Status SqliteDestination::Begin() {
    rejected_ = 0;
    merged_ = 0;
    if (Status const status = Execute("BEGIN IMMEDIATE"); status != OK) return status;
    std::string state;
    if (Status const status = LoadState(state); status != OK) return status;
    // The ids in memory are good only as long as nobody else adds keys.
    if (state == state_) return OK;
    return Fail(REFUSED,
                fmt::format("{}: another sink writes {} there; end it, or use another database", path_, tables_.view));
}

Destination::Status SqliteDestination::Add(SinkRecord const& record) {
    KnownKey& key = keys_.Find(record.values.front());
    if (!key.isStored) {
        int const stored = insertKey_.Bind(key.id).Bind(record.values.front()).Run();
        if (stored != SQLITE_DONE) return RejectRecord(stored, record);
        key.isStored = true;
    }
    insertRecord_.Bind(key.id).Bind(record.timeUs);
    for (brindle_Value const& value : record.values.subspan(1)) insertRecord_.Bind(value);
    if (tables_.withBlocks) {
        insertRecord_.Bind(static_cast<long>(record.cycle)).Bind(static_cast<long>(record.block));
    }
    std::string content;
    if (tables_.dedupe) {
        WriteWireRecord(wire_, record);
        content = ContentHash(wire_.Body());
        insertRecord_.BindBlob(content);
    }
    int const result = insertRecord_.Run();
    if (result != SQLITE_DONE) return RejectRecord(result, record);
    if (tables_.dedupe && sqlite3_changes64(database_.get()) == 0) ++merged_;
    return OK;
}

Destination::Status SqliteDestination::RejectRecord(int result, SinkRecord const& record) {
    std::string const reason = Reason(result);
    if (!IsRefusal(result)) return Fail(Failed(result), fmt::format("{}: {}", path_, reason));
    unsigned long const place[] = {record.cycle, record.block};
    json_.clear();
    text_.AppendJsonLine(json_, std::span(place, tables_.withBlocks ? 2 : 0), record.timeUs, record.values);
    json_.pop_back();  // the end of the line
    return InsertReject(record.cycle, reason, json_, true);
}

Destination::Status SqliteDestination::Reject(unsigned long cycle, std::string_view reason, std::string_view bytes) {
    return InsertReject(cycle, reason, bytes, false);
}

Destination::Status SqliteDestination::InsertReject(unsigned long cycle, std::string_view reason, std::string_view text,
                                                    bool isText) {
    std::string whole(reason);
    if (text.size() > REJECT_BYTES_MAX) {
        whole += fmt::format("; the first {} of {} bytes are kept", REJECT_BYTES_MAX, text.size());
        text = text.substr(0, REJECT_BYTES_MAX);
    }
    insertReject_.Bind(static_cast<long>(cycle)).Bind(whole);
    int const result = isText ? insertReject_.Bind(text).Run() : insertReject_.BindBlob(text).Run();
    if (result != SQLITE_DONE) return Failed(result);
    ++rejected_;
    return OK;
}

Destination::Status SqliteDestination::Commit(SinkCycle const& cycle, std::string_view state) {
    SqliteStatement insert;
    if (Status const status = Prepare(insert, InsertSql(tables_.cycles)); status != OK) return status;
    insert.Bind(static_cast<long>(cycle.cycle)).Bind(cycle.isComplete ? 1L : 0L).Bind(static_cast<long>(cycle.records));
    insert.Bind(static_cast<long>(cycle.keys)).Bind(static_cast<long>(cycle.bytes));
    cycle.newestUs < 0 ? insert.BindNull() : insert.Bind(cycle.newestUs);
    insert.Bind(static_cast<long>(std::max(cycle.rejected, rejected_))).Bind(NowUs());
    if (int const result = insert.Run(); result != SQLITE_DONE) return Failed(result);
    Status const prepared = Prepare(insert, "INSERT OR REPLACE INTO brindle_state (name, state) VALUES (?, ?)");
    if (prepared != OK) return prepared;
    if (int const result = insert.Bind(tables_.view).Bind(state).Run(); result != SQLITE_DONE) return Failed(result);
    if (Status const status = Execute("COMMIT"); status != OK) return status;
    state_ = state;
    return OK;
}

void SqliteDestination::Close() {
    insertKey_ = {};
    insertRecord_ = {};
    insertReject_ = {};
    keys_.Clear();
    database_.reset();  // rolls back
}

}  // namespace

std::unique_ptr<Destination> MakeSqliteDestination(std::string const& path, suts_tsspec const& spec,
                                                   DestinationOptions const& options, std::string& problem) {
    std::string name = spec.name.get();
    if (sqlite3_stricmp(name.c_str(), "brindle_state") == 0) {
        problem = fmt::format(
            "{}: a schema called {} would need a view called as the table of states; rename the schema", path, name);
        return nullptr;
    }
    return std::make_unique<SqliteDestination>(path, spec, options);
}
