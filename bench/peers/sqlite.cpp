// A peer on SQLite: rows in the order of arrival, sorted when they are drained.
#include <sqlite3.h>

#include "front.h"

namespace {

constexpr char const* SETTINGS =
    "PRAGMA page_size = 16384; PRAGMA journal_mode = WAL; PRAGMA synchronous = OFF; PRAGMA locking_mode = EXCLUSIVE;"
    "PRAGMA temp_store = MEMORY; PRAGMA cache_size = -524288; PRAGMA wal_autocheckpoint = 16384;";
constexpr char const* TABLE = "CREATE TABLE records (record BLOB)";

class Sqlite : public bench_PeerStore {
 public:
    Sqlite(bench_StandIn const& link, suts_tsspec const& spec) : form_(spec) {
        constexpr int FLAGS = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
        Check(sqlite3_open_v2((link.directory + "/sqlite").c_str(), &database_, FLAGS, nullptr));
        Check(sqlite3_exec(database_, SETTINGS, nullptr, nullptr, nullptr));
        Check(sqlite3_exec(database_, TABLE, nullptr, nullptr, nullptr));
        Prepare("BEGIN", begin_);
        Prepare("COMMIT", commit_);
        Prepare("INSERT INTO records VALUES (?)", insert_);
        Prepare("SELECT record FROM records ORDER BY record", drain_);
        Prepare("DELETE FROM records", clear_);
    }
    ~Sqlite() override {
        for (sqlite3_stmt* const statement : {begin_, commit_, insert_, drain_, clear_}) sqlite3_finalize(statement);
        sqlite3_close(database_);
    }
    Sqlite(Sqlite const&) = delete;
    Sqlite& operator=(Sqlite const&) = delete;

    void Commit(std::span<bench_SortedRecord const> records) override {
        Run(begin_);
        for (bench_SortedRecord const& record : records) {
            auto const bytes = static_cast<int>(record.Text().size());
            Check(sqlite3_bind_blob(insert_, 1, record.Text().data(), bytes, SQLITE_STATIC));
            Run(insert_);
        }
        Run(commit_);
    }

    void Drain(bench_HandOff& handOff) override {
        while (sqlite3_step(drain_) == SQLITE_ROW) {
            auto const* const bytes = static_cast<char const*>(sqlite3_column_blob(drain_, 0));
            handOff.Add(form_.Read({bytes, static_cast<std::size_t>(sqlite3_column_bytes(drain_, 0))}));
        }
        Check(sqlite3_reset(drain_));
    }

    void Clear() override { Run(clear_); }

 private:
    void Check(int result) const {
        if (result != SQLITE_OK) bench_FailStore("sqlite", sqlite3_errmsg(database_));
    }
    void Prepare(char const* text, sqlite3_stmt*& statement) {
        Check(sqlite3_prepare_v3(database_, text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
    }
    void Run(sqlite3_stmt* statement) const {
        sqlite3_step(statement);
        Check(sqlite3_reset(statement));  // which has the result of the step
    }

    bench_RecordForm const form_;
    sqlite3* database_ = nullptr;
    sqlite3_stmt* begin_ = nullptr;
    sqlite3_stmt* commit_ = nullptr;
    sqlite3_stmt* insert_ = nullptr;
    sqlite3_stmt* drain_ = nullptr;
    sqlite3_stmt* clear_ = nullptr;
};

}  // namespace

int main(int argc, char** argv) { return bench_RunPeer<Sqlite>(argc, argv); }
