#include "postgresql_destination.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>

#include "brindle_records.h"
#include "destination_tables.h"
#include "postgresql_connection.h"
#include "record_text.h"
#include "sutl_netorder.h"
#include "time_text.h"

namespace {

constexpr TableStyle POSTGRESQL_STYLE = {
    "integer", "bigint", "double precision", "text", "timestamp with time zone", "bytea", "boolean", false, true};
constexpr std::size_t BATCH_BYTES = 4UL << 20;                           // of rows, gathered before they are copied in
constexpr std::size_t REJECT_TEXT_BYTES_MAX = 2 + 2 * REJECT_BYTES_MAX;  // \\x, and two digits for each
constexpr std::size_t NAME_BYTES_MAX = 63;                               // PostgreSQL cuts longer names

// A row of the batch.
struct BatchRow {
    std::size_t rowEnd;   // in the rows
    std::size_t wireEnd;  // in the records
    KnownKey* key;
    unsigned long cycle;
    unsigned long block;
};

class PostgresqlDestination : public Destination {
 public:
    PostgresqlDestination(PostgresqlAddress address, suts_tsspec const& spec, DestinationOptions const& options);

    Status Open(std::string& state) override;
    Status Begin() override;
    Status Add(SinkRecord const& record) override;
    Status Reject(unsigned long cycle, std::string_view reason, std::string_view bytes) override;
    Status Commit(SinkCycle const& cycle, std::string_view state) override;
    void Close() override;
    unsigned long Rejected() const override { return rejected_; }
    unsigned long Merged() const override { return merged_; }

    [[nodiscard]] std::string LongName() const;  // one that is too long; empty when there is none

 private:
    using Outcome = PostgresqlConnection::Outcome;

    Status SetUp(std::string& state);
    Status SetUpTable(Table const& table, std::string const& constraints, bool& isNew);
    Status SetUpView();
    Status Look(std::string const& name, std::string& kind, std::vector<TableColumn>& columns);
    Status LockState(std::string& state);
    Status LoadKeys();
    Status Run(std::string const& sql, std::vector<std::string> const& parameters = {});
    Status Judge(Outcome outcome);
    [[nodiscard]] std::string Qualified(std::string const& name) const { return prefix_ + Quoted(name); }
    [[nodiscard]] std::string CopySql(std::string const& name, Table const& table) const;

    void AppendValue(PostgresqlRows& rows, brindle_Value const& value);
    Status FlushBatch();
    Status StoreRows(std::size_t first, std::size_t last);
    Outcome CopyRows(std::size_t first, std::size_t last);
    Outcome CopyKeys(std::size_t first, std::size_t last, std::vector<KnownKey*>& added);
    [[nodiscard]] std::vector<brindle_Value> const& Record(std::size_t row, long& timeUs);
    Status RejectRow(std::size_t row, std::string const& reason);
    Status AppendReject(unsigned long cycle, std::string_view reason, std::string_view text);
    Status FlushRejects();

    PostgresqlAddress const address_;
    suts_tsspec const& spec_;
    SchemaTables const tables_;
    RecordText const text_;
    PostgresqlConnection connection_;
    std::string prefix_;  // the schema and a dot
    KeyIds keys_;
    std::string state_;  // as committed last
    PostgresqlRows rows_;
    PostgresqlRows keyRows_;
    PostgresqlRows rejectRows_;
    std::vector<BatchRow> batch_;
    std::string wires_;                  // the records of the batch, as on the wire
    brindle_Message wire_;               // of the record being added
    std::vector<brindle_Value> values_;  // of the record being looked at again
    unsigned long rejected_ = 0;
    unsigned long merged_ = 0;
};

PostgresqlDestination::PostgresqlDestination(PostgresqlAddress address, suts_tsspec const& spec,
                                             DestinationOptions const& options)
    : address_(std::move(address)),
      spec_(spec),
      tables_(spec, options, POSTGRESQL_STYLE),
      text_(spec, options.withBlocks ? std::vector<std::string>{"cycle", "block"} : std::vector<std::string>{},
            options.timeName),
      connection_(address_) {}

std::string PostgresqlDestination::LongName() const {
    for (Table const* table : {&tables_.records, &tables_.keys, &tables_.rejects}) {
        if (table->name.size() > NAME_BYTES_MAX) return table->name;
        for (TableColumn const& column : table->columns) {
            if (column.name.size() > NAME_BYTES_MAX) return column.name;
        }
    }
    return {};
}

Destination::Status PostgresqlDestination::Judge(Outcome outcome) {
    if (outcome == Outcome::DONE) return OK;
    return Fail(outcome == Outcome::LOST ? AWAY : REFUSED, address_.Label() + ": " + connection_.Reason());
}

Destination::Status PostgresqlDestination::Run(std::string const& sql, std::vector<std::string> const& parameters) {
    return Judge(connection_.Run(sql, parameters));
}

std::string PostgresqlDestination::CopySql(std::string const& name, Table const& table) const {
    return fmt::format("COPY {} ({}) FROM STDIN (FORMAT binary)", name, ColumnNames(table));
}

Destination::Status PostgresqlDestination::Open(std::string& state) {
    Close();
    if (Status const status = Judge(connection_.Connect()); status != OK) return status;
    if (std::string const encoding = connection_.Setting("server_encoding"); encoding != "UTF8") {
        return Fail(REFUSED, fmt::format("{}: the database's encoding is {}; make one with ENCODING 'UTF8'",
                                         address_.Label(), encoding));
    }
    // A lock that somebody holds for long is waited for later. A commit waits for the disk, whatever the default.
    char const settings[] =
        "SELECT set_config('lock_timeout', '5s', false), set_config('statement_timeout', '100s', false), "
        "set_config('idle_in_transaction_session_timeout', '0', false), "
        "CASE WHEN current_setting('synchronous_commit') = 'off' THEN set_config('synchronous_commit', 'on', false) "
        "END";
    if (Status const status = Run(settings); status != OK) return status;
    if (Status const status = Run("BEGIN ISOLATION LEVEL READ COMMITTED READ WRITE"); status != OK) return status;
    if (Status const status = SetUp(state_); status != OK) return status;
    if (Status const status = LoadKeys(); status != OK) return status;
    if (Status const status = Run("COMMIT"); status != OK) return status;
    if (tables_.dedupe) {
        Status const status = Run(fmt::format("CREATE TEMP TABLE brindle_batch (LIKE {}) ON COMMIT DELETE ROWS",
                                              Qualified(tables_.records.name)));
        if (status != OK) return status;
    }
    state = state_;
    return OK;
}

Destination::Status PostgresqlDestination::SetUp(std::string& state) {
    if (Status const status = Run("SELECT current_schema()"); status != OK) return status;
    if (connection_.IsNull(0, 0)) {
        return Fail(REFUSED, address_.Label() + ": no schema of the search path exists; make one");
    }
    prefix_ = Quoted(connection_.Value(0, 0)) + '.';
    bool isNew = false;
    if (Status const status = SetUpTable(tables_.states, "PRIMARY KEY (name)", isNew); status != OK) return status;
    // With the row there is something to lock, here and in each transaction. An earlier connection of ours whose
    // commit was not answered is waited for by this, so that the state is the last one.
    Status const inserted = Run(fmt::format("INSERT INTO {} (name, state) VALUES ($1, '') ON CONFLICT DO NOTHING",
                                            Qualified(tables_.states.name)),
                                {tables_.view});
    if (inserted != OK) return inserted;
    if (Status const status = LockState(state); status != OK) return status;

    auto const& key = tables_.keys.columns;
    std::string const keyConstraints =
        fmt::format("PRIMARY KEY ({}), UNIQUE ({})", Quoted(key[0].name), Quoted(key[2].name));
    if (Status const status = SetUpTable(tables_.keys, keyConstraints, isNew); status != OK) return status;
    if (isNew) {
        // Holds hashes alone, so that no key is too long for it.
        Status const status =
            Run(fmt::format("CREATE INDEX ON {} USING hash ({})", Qualified(tables_.keys.name), Quoted(key[1].name)));
        if (status != OK) return status;
    }
    auto const& columns = tables_.records.columns;
    std::string const keyAndTime = Quoted(columns[0].name) + ", " + Quoted(columns[1].name);
    std::string const equal =
        tables_.dedupe ? fmt::format("UNIQUE ({}, {})", keyAndTime, Quoted(columns.back().name)) : "";
    if (Status const status = SetUpTable(tables_.records, equal, isNew); status != OK) return status;
    if (isNew && !tables_.dedupe) {
        Status const status = Run(fmt::format("CREATE INDEX ON {} ({})", Qualified(tables_.records.name), keyAndTime));
        if (status != OK) return status;
    }
    if (Status const status = SetUpTable(tables_.cycles, "", isNew); status != OK) return status;
    if (Status const status = SetUpTable(tables_.rejects, "", isNew); status != OK) return status;
    return SetUpView();
}

Destination::Status PostgresqlDestination::Look(std::string const& name, std::string& kind,
                                                std::vector<TableColumn>& columns) {
    char const sql[] =
        "SELECT c.relkind, a.attname, format_type(a.atttypid, a.atttypmod) FROM pg_catalog.pg_class c "
        "JOIN pg_catalog.pg_namespace n ON n.oid = c.relnamespace "
        "LEFT JOIN pg_catalog.pg_attribute a ON a.attrelid = c.oid AND a.attnum > 0 AND NOT a.attisdropped "
        "WHERE n.nspname = current_schema() AND c.relname = $1 ORDER BY a.attnum";
    kind.clear();
    columns.clear();
    if (Status const status = Run(sql, {name}); status != OK) return status;
    for (int row = 0; row < connection_.Rows(); ++row) {
        kind = connection_.Value(row, 0);
        columns.push_back({std::string(connection_.Value(row, 1)), std::string(connection_.Value(row, 2)), {}});
    }
    return OK;
}

Destination::Status PostgresqlDestination::SetUpTable(Table const& table, std::string const& constraints, bool& isNew) {
    std::string kind;
    std::vector<TableColumn> found;
    if (Status const status = Look(table.name, kind, found); status != OK) return status;
    isNew = kind.empty();
    if (isNew) {
        return Run(fmt::format("CREATE TABLE {} ({}{}{})", Qualified(table.name), ColumnDefinitions(table),
                               constraints.empty() ? "" : ", ", constraints));
    }
    if (kind != "r" && kind != "p") {
        return Fail(REFUSED, fmt::format("{}: what is called {} there is no table; use another schema, or rename it",
                                         address_.Label(), table.name));
    }
    std::string const differences = TableDifferences(table, found);
    if (differences.empty()) return OK;
    return Fail(REFUSED, fmt::format("{}: {}; use another schema, or rename the table", address_.Label(), differences));
}

Destination::Status PostgresqlDestination::SetUpView() {
    std::string kind;
    std::vector<TableColumn> found;
    if (Status const status = Look(tables_.view, kind, found); status != OK) return status;
    if (kind.empty()) {
        return Run(fmt::format("CREATE VIEW {} AS {}", Qualified(tables_.view), ViewSelect(tables_, prefix_)));
    }
    if (kind == "v") return OK;
    return Fail(REFUSED, fmt::format("{}: what is called {} there is no view; use another schema, or rename it",
                                     address_.Label(), tables_.view));
}

Destination::Status PostgresqlDestination::LockState(std::string& state) {
    Status const status = Run(
        fmt::format("SELECT state FROM {} WHERE name = $1 FOR UPDATE", Qualified(tables_.states.name)), {tables_.view});
    if (status != OK) return status;
    state = connection_.Rows() > 0 ? std::string(connection_.Value(0, 0)) : std::string();
    return OK;
}

Destination::Status PostgresqlDestination::LoadKeys() {
    auto const& columns = tables_.keys.columns;
    std::string const sql = fmt::format("SELECT {}, {} FROM {}", Quoted(columns[0].name), Quoted(columns[1].name),
                                        Qualified(tables_.keys.name));
    if (Status const status = Judge(connection_.Run(sql, {}, true)); status != OK) return status;
    auto const take8 = [](std::string_view bytes) {
        unsigned long number = 0;
        if (bytes.size() == sizeof number) memcpy(&number, bytes.data(), sizeof number);
        return sutl_ToNetorder(number);
    };
    for (int row = 0; row < connection_.Rows(); ++row) {
        std::string_view const bytes = connection_.Value(row, 1);
        std::string text;
        brindle_Value key = {spec_.Type(0), 0, 0, {}};
        if (key.type == SUTS_STRING64) {
            text = FromStoredText(bytes);
            key.text = text;
        } else if (key.type == SUTS_INT32) {
            unsigned int number = 0;
            if (bytes.size() == sizeof number) memcpy(&number, bytes.data(), sizeof number);
            key.number = static_cast<int>(sutl_ToNetorder(number));
        } else if (key.type == SUTS_INT64) {
            key.number = static_cast<long>(take8(bytes));
        } else {
            key.real = std::bit_cast<double>(take8(bytes));
        }
        unsigned long bits = 0;
        keys_.Load(std::string(KeyIds::Bytes(key, bits)), static_cast<long>(take8(connection_.Value(row, 0))));
    }
    return OK;
}

Destination::Status PostgresqlDestination::Begin() {
    rejected_ = 0;
    merged_ = 0;
    if (Status const status = Run("BEGIN ISOLATION LEVEL READ COMMITTED READ WRITE"); status != OK) return status;
    // A constraint that were checked at the commit could not be laid at a record's door.
    if (Status const status = Run("SET CONSTRAINTS ALL IMMEDIATE"); status != OK) return status;
    std::string state;
    if (Status const status = LockState(state); status != OK) return status;
    // The ids in memory are good only as long as nobody else adds keys.
    if (state == state_) return OK;
    return Fail(REFUSED, fmt::format("{}: another sink writes {} there; end it, or use another database",
                                     address_.Label(), tables_.view));
}

void PostgresqlDestination::AppendValue(PostgresqlRows& rows, brindle_Value const& value) {
    switch (value.type) {
        case SUTS_STRING64:
            return rows.AppendText(value.text);
        case SUTS_INT32:
            return rows.AppendInteger32(value.number);
        case SUTS_INT64:
            return rows.AppendInteger64(value.number);
        case SUTS_FLOAT64:
            return rows.AppendReal(value.real);
    }
}

Destination::Status PostgresqlDestination::Add(SinkRecord const& record) {
    KnownKey& key = keys_.Find(record.values.front());
    WriteWireRecord(wire_, record);
    rows_.StartRow(tables_.records.columns.size());
    rows_.AppendInteger64(key.id);
    rows_.AppendTime(record.timeUs);
    for (brindle_Value const& value : record.values.subspan(1)) AppendValue(rows_, value);
    if (tables_.withBlocks) {
        rows_.AppendInteger64(static_cast<long>(record.cycle));
        rows_.AppendInteger64(static_cast<long>(record.block));
    }
    if (tables_.dedupe) rows_.AppendBytes(ContentHash(wire_.Body()));
    wires_.append(reinterpret_cast<char const*>(wire_.Body().data()), wire_.BodyBytes());
    batch_.push_back({rows_.Bytes().size(), wires_.size(), &key, record.cycle, record.block});
    return rows_.Bytes().size() + wires_.size() < BATCH_BYTES ? OK : FlushBatch();
}

Destination::Status PostgresqlDestination::FlushBatch() {
    Status const status = batch_.empty() ? OK : StoreRows(0, batch_.size());
    batch_.clear();
    rows_.Clear();
    wires_.clear();
    return status;
}

// Stores the rows in halves, and these in halves, as far as the store refuses some.
Destination::Status PostgresqlDestination::StoreRows(std::size_t first, std::size_t last) {
    if (Status const status = Run("SAVEPOINT batch"); status != OK) return status;
    unsigned long const merged = merged_;
    std::vector<KnownKey*> added;
    Outcome outcome = CopyKeys(first, last, added);
    if (outcome == Outcome::DONE) outcome = CopyRows(first, last);
    if (outcome == Outcome::DONE) return Run("RELEASE SAVEPOINT batch");
    if (outcome != Outcome::REFUSED_DATA) return Judge(outcome);

    std::string const reason = connection_.Reason();
    merged_ = merged;
    for (KnownKey* key : added) key->isStored = false;
    if (Status const status = Run("ROLLBACK TO SAVEPOINT batch"); status != OK) return status;
    if (Status const status = Run("RELEASE SAVEPOINT batch"); status != OK) return status;
    if (last - first == 1) return RejectRow(first, reason);
    std::size_t const middle = first + (last - first) / 2;
    if (Status const status = StoreRows(first, middle); status != OK) return status;
    return StoreRows(middle, last);
}

PostgresqlDestination::Outcome PostgresqlDestination::CopyKeys(std::size_t first, std::size_t last,
                                                               std::vector<KnownKey*>& added) {
    keyRows_.Clear();
    for (std::size_t row = first; row < last; ++row) {
        KnownKey& key = *batch_[row].key;
        if (key.isStored) continue;
        key.isStored = true;
        added.push_back(&key);
        long timeUs = 0;
        brindle_Value const& value = Record(row, timeUs).front();
        unsigned long bits = 0;
        std::string_view const bytes = KeyIds::Bytes(value, bits);
        keyRows_.StartRow(tables_.keys.columns.size());
        keyRows_.AppendInteger64(key.id);
        AppendValue(keyRows_, value);
        keyRows_.AppendBytes(ContentHash({reinterpret_cast<unsigned char const*>(bytes.data()), bytes.size()}));
    }
    if (added.empty()) return Outcome::DONE;
    return connection_.Copy(CopySql(Qualified(tables_.keys.name), tables_.keys), keyRows_.Bytes());
}

PostgresqlDestination::Outcome PostgresqlDestination::CopyRows(std::size_t first, std::size_t last) {
    std::size_t const start = first == 0 ? 0 : batch_[first - 1].rowEnd;
    std::string_view const rows = std::string_view(rows_.Bytes()).substr(start, batch_[last - 1].rowEnd - start);
    std::string const table = Qualified(tables_.records.name);
    if (!tables_.dedupe) return connection_.Copy(CopySql(table, tables_.records), rows);
    // COPY itself cannot pass over what is there already.
    Outcome outcome = connection_.Copy(CopySql("pg_temp.brindle_batch", tables_.records), rows);
    if (outcome != Outcome::DONE) return outcome;
    auto const& columns = tables_.records.columns;
    std::string const names = ColumnNames(tables_.records);
    outcome = connection_.Run(fmt::format(
        "INSERT INTO {} ({}) SELECT {} FROM pg_temp.brindle_batch "
        "ON CONFLICT ({}, {}, {}) DO NOTHING",
        table, names, names, Quoted(columns[0].name), Quoted(columns[1].name), Quoted(columns.back().name)));
    if (outcome != Outcome::DONE) return outcome;
    merged_ += last - first - connection_.RowsChanged();
    return connection_.Run("TRUNCATE pg_temp.brindle_batch");
}

std::vector<brindle_Value> const& PostgresqlDestination::Record(std::size_t row, long& timeUs) {
    std::size_t const start = row == 0 ? 0 : batch_[row - 1].wireEnd;
    auto const* const bytes = reinterpret_cast<unsigned char const*>(wires_.data());
    brindle_MessageReader reader(std::span(bytes + start, batch_[row].wireEnd - start));
    // What was written here is read whole again, unless the caller gave values that no record has.
    if (brindle_TakeRecord(reader, spec_, timeUs, values_) != BRINDLE_DONE) {
        values_.resize(static_cast<std::size_t>(spec_.fieldCount));
    }
    return values_;
}

Destination::Status PostgresqlDestination::RejectRow(std::size_t row, std::string const& reason) {
    long timeUs = 0;
    std::vector<brindle_Value> const& values = Record(row, timeUs);
    unsigned long const place[] = {batch_[row].cycle, batch_[row].block};
    std::string json;
    text_.AppendJsonLine(json, std::span(place, tables_.withBlocks ? 2 : 0), timeUs, values);
    json.pop_back();  // the end of the line
    return AppendReject(batch_[row].cycle, reason, json);
}

Destination::Status PostgresqlDestination::Reject(unsigned long cycle, std::string_view reason,
                                                  std::string_view bytes) {
    // In the form of a text that is no UTF-8, whatever the bytes are.
    std::string text = "\\x";
    for (char const c : bytes.substr(0, REJECT_BYTES_MAX)) {
        fmt::format_to(std::back_inserter(text), "{:02x}", static_cast<unsigned char>(c));
    }
    std::string whole(reason);
    if (bytes.size() > REJECT_BYTES_MAX) {
        whole += fmt::format("; the first {} of {} bytes are kept", REJECT_BYTES_MAX, bytes.size());
    }
    return AppendReject(cycle, whole, text);
}

Destination::Status PostgresqlDestination::AppendReject(unsigned long cycle, std::string_view reason,
                                                        std::string_view text) {
    std::string whole(reason);
    if (text.size() > REJECT_TEXT_BYTES_MAX) {
        whole += fmt::format("; the first {} of {} bytes are kept", REJECT_BYTES_MAX, text.size());
        text = text.substr(0, REJECT_BYTES_MAX);
        while (!text.empty() && static_cast<unsigned char>(text.back()) >= 0x80) text.remove_suffix(1);  // a half one
    }
    rejectRows_.StartRow(tables_.rejects.columns.size());
    rejectRows_.AppendInteger64(static_cast<long>(cycle));
    rejectRows_.AppendText(whole);
    rejectRows_.AppendBytes(text);
    ++rejected_;
    return rejectRows_.Bytes().size() < BATCH_BYTES ? OK : FlushRejects();
}

Destination::Status PostgresqlDestination::FlushRejects() {
    if (rejectRows_.Bytes().empty()) return OK;
    Status const status =
        Judge(connection_.Copy(CopySql(Qualified(tables_.rejects.name), tables_.rejects), rejectRows_.Bytes()));
    rejectRows_.Clear();
    return status;
}

Destination::Status PostgresqlDestination::Commit(SinkCycle const& cycle, std::string_view state) {
    if (Status const status = FlushBatch(); status != OK) return status;
    if (Status const status = FlushRejects(); status != OK) return status;
    PostgresqlRows row;
    row.StartRow(tables_.cycles.columns.size());
    row.AppendInteger64(static_cast<long>(cycle.cycle));
    row.AppendBoolean(cycle.isComplete);
    row.AppendInteger64(static_cast<long>(cycle.records));
    row.AppendInteger64(static_cast<long>(cycle.keys));
    row.AppendInteger64(static_cast<long>(cycle.bytes));
    cycle.newestUs < 0 ? row.AppendNull() : row.AppendTime(cycle.newestUs);
    row.AppendInteger64(static_cast<long>(std::max(cycle.rejected, rejected_)));
    row.AppendTime(NowUs());
    Status const copied = Judge(connection_.Copy(CopySql(Qualified(tables_.cycles.name), tables_.cycles), row.Bytes()));
    if (copied != OK) return copied;
    std::string next(state);
    Status const updated = Run(fmt::format("UPDATE {} SET state = $1 WHERE name = $2", Qualified(tables_.states.name)),
                               {next, tables_.view});
    if (updated != OK) return updated;
    if (connection_.RowsChanged() != 1) {
        return Fail(AWAY, fmt::format("{}: the row of {} in brindle_state is gone", address_.Label(), tables_.view));
    }
    if (Status const status = Run("COMMIT"); status != OK) return status;
    state_ = std::move(next);
    return OK;
}

void PostgresqlDestination::Close() {
    connection_.Close();
    keys_.Clear();
    batch_.clear();
    rows_.Clear();
    wires_.clear();
    rejectRows_.Clear();
}

}  // namespace

std::unique_ptr<Destination> MakePostgresqlDestination(std::string const& address, suts_tsspec const& spec,
                                                       DestinationOptions const& options, std::string& problem) {
    PostgresqlAddress read;
    if (!read.Read(address, problem)) return nullptr;
    if (std::string(spec.name.get()) == "brindle_state") {
        problem = read.Label() +
                  ": a schema called brindle_state would need a view called as the table of states; rename the schema";
        return nullptr;
    }
    auto destination = std::make_unique<PostgresqlDestination>(std::move(read), spec, options);
    if (std::string const name = destination->LongName(); !name.empty()) {
        problem = fmt::format("PostgreSQL takes names of at most {} bytes, which {} is not", NAME_BYTES_MAX, name);
        return nullptr;
    }
    return destination;
}
