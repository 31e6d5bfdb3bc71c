// A peer on PostgreSQL: rows are copied into a logged table and copied out in order.
#include <libpq-fe.h>

#include <csignal>

#include "bytes.h"
#include "front.h"
#include "process.h"

namespace {

constexpr char const* USER = "postgres";
// A crash of a process loses nothing that was committed; one of the machine may. No checkpoint comes in a run, and no
// housekeeping that a table which is emptied all the time has no use for.
constexpr char const* SETTINGS[] = {"fsync=off",
                                    "synchronous_commit=off",
                                    "full_page_writes=off",
                                    "wal_level=minimal",
                                    "max_wal_senders=0",
                                    "shared_buffers=512MB",
                                    "work_mem=512MB",
                                    "max_wal_size=8GB",
                                    "wal_buffers=64MB",
                                    "autovacuum=off",
                                    "checkpoint_timeout=1h",
                                    "max_parallel_workers_per_gather=0",
                                    "listen_addresses=",
                                    "jit=off",
                                    "track_activities=off",
                                    "track_counts=off"};
constexpr std::string_view COPY_HEAD("PGCOPY\n\377\r\n\0\0\0\0\0\0\0\0\0", 19);  // no flags, no extension
constexpr std::string_view COPY_END("\377\377", 2);
// A row of one column is a number of columns, a number of bytes, and these.
constexpr std::size_t COLUMNS_BYTES = 2;
constexpr std::size_t ROW_HEAD_BYTES = COLUMNS_BYTES + 4;

class PostgreSql : public bench_PeerStore {
 public:
    PostgreSql(bench_StandIn const& link, suts_tsspec const& spec)
        : form_(spec),
          folder_(bench_MakeFolder(link.directory, "postgresql", USER)),
          server_(Command(), USER, SIGINT, SIGQUIT) {
        server_.WaitFor([this] {
            connection_.reset(PQconnectdb(("dbname=postgres user=postgres host=" + folder_).c_str()));
            return PQstatus(connection_.get()) == CONNECTION_OK;
        });
        Run("CREATE TABLE records (record bytea)");
        Run("ALTER TABLE records ALTER record SET STORAGE PLAIN");
    }

    // What is waited for is the end of the commit before.
    void Commit(std::span<bench_SortedRecord const> records) override {
        rows_ = COPY_HEAD;
        for (bench_SortedRecord const& record : records) {
            unsigned char head[ROW_HEAD_BYTES] = {0, 1};  // columns
            bench_PutNumber4(head + COLUMNS_BYTES, static_cast<unsigned int>(record.Text().size()));
            rows_.append(reinterpret_cast<char const*>(head), sizeof head);
            rows_ += record.Text();
        }
        rows_ += COPY_END;
        Finish();
        Begin("COPY records FROM STDIN (FORMAT binary)", PGRES_COPY_IN);
        Check(PQputCopyData(connection_.get(), rows_.data(), static_cast<int>(rows_.size())) == 1);
        Check(PQputCopyEnd(connection_.get(), nullptr) == 1);
        finishing_ = true;
    }

    void Drain(bench_HandOff& handOff) override {
        Finish();
        Begin("COPY (SELECT * FROM records ORDER BY record) TO STDOUT (FORMAT binary)", PGRES_COPY_OUT);
        std::size_t skipped = COPY_HEAD.size();  // which comes with the first row
        while (true) {
            char* bytes = nullptr;
            int const count = PQgetCopyData(connection_.get(), &bytes, 0);
            std::unique_ptr<char, Free> const row(bytes);
            Check(count != -2);
            if (count < 0) break;
            std::string_view const text = std::string_view(bytes, static_cast<std::size_t>(count)).substr(skipped);
            if (text != COPY_END) handOff.Add(form_.Read(text.substr(ROW_HEAD_BYTES)));
            skipped = 0;
        }
        finishing_ = true;
        Finish();
    }

    void Clear() override { Run("TRUNCATE records"); }

 private:
    struct Free {
        void operator()(PGconn* connection) const { PQfinish(connection); }
        void operator()(PGresult* result) const { PQclear(result); }
        void operator()(char* bytes) const { PQfreemem(bytes); }
    };

    // Makes the server's files, and returns what starts it.
    [[nodiscard]] bench_Command Command() const {
        bench_RunUncounted({"initdb", "--pgdata", folder_, "--username", USER, "--auth", "trust", "--encoding",
                            "SQL_ASCII", "--locale", "C", "--no-sync"},
                           USER);
        bench_Command command = {"postgres", "-D", folder_, "-k", folder_};
        for (char const* const setting : SETTINGS) command.insert(command.end(), {"-c", setting});
        return command;
    }

    void Check(bool done) const {
        if (!done) bench_FailStore("postgresql", PQerrorMessage(connection_.get()));
    }
    void Begin(char const* text, ExecStatusType status) {
        std::unique_ptr<PGresult, Free> const result(PQexec(connection_.get(), text));
        Check(PQresultStatus(result.get()) == status);
    }
    void Run(char const* text) { Begin(text, PGRES_COMMAND_OK); }
    void Finish() {
        if (!finishing_) return;
        while (PGresult* const next = PQgetResult(connection_.get())) {
            std::unique_ptr<PGresult, Free> const result(next);
            Check(PQresultStatus(next) == PGRES_COMMAND_OK);
        }
        finishing_ = false;
    }

    bench_RecordForm const form_;
    std::string const folder_;
    bench_ServerProcess server_;
    std::unique_ptr<PGconn, Free> connection_;
    std::string rows_;        // of the next commit, as COPY takes them
    bool finishing_ = false;  // a COPY whose result was not taken yet
};

}  // namespace

int main(int argc, char** argv) { return bench_RunPeer<PostgreSql>(argc, argv); }
