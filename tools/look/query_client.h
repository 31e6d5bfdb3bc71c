// Asks a server for staged records.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "brindle_connection.h"
#include "brindle_value.h"
#include "uts_tsspec.h"

// The records of a reply, by time; of equal times the one that came first is first. Owns their bytes.
class QueryReply {
 public:
    struct Row {
        long timeUs = 0;
        std::size_t offset = 0;  // of the record in the reply
        std::size_t bytes = 0;
    };

    // Takes the body of a reply. False when a record in it cannot be read by the schema; Rows() has those before it.
    [[nodiscard]] bool Take(std::span<unsigned char const> body, suts_tsspec const& spec);

    [[nodiscard]] std::span<Row const> Rows() const { return rows_; }
    [[nodiscard]] std::span<unsigned char const> Bytes(Row const& row) const {
        return std::span(bytes_).subspan(row.offset, row.bytes);
    }
    // The fields of a record; texts are views of the reply.
    void Decode(Row const& row, suts_tsspec const& spec, std::vector<brindle_Value>& values) const;
    // Leaves the newest rows only.
    void KeepNewest(std::size_t rows);
    // Leaves the rows for which the function returns true.
    template <typename Function>
    void KeepIf(Function isKept) {
        std::erase_if(rows_, [&](Row const& row) { return !isKept(row); });
    }

 private:
    std::vector<unsigned char> bytes_;
    std::vector<Row> rows_;
};

// One client of the query ports. The server serves one at a time: a connection that is kept makes all others wait. The
// schema must outlive it. One thread at a time.
class QueryClient {
 public:
    enum Result {
        REPLIED,
        BAD_KEY,  // cannot be asked for
        UNKNOWN_HOST,
        NO_SERVER,        // errno tells what the last try met
        OTHERS_FIRST,     // seen: the server is serving another client
        NO_REPLY,         // within the wait, for whatever reason
        LEFT,             // the server ended the conversation; errno, or 0, tells why
        BAD_REPLY,        // does not fit the schema
        REPLY_OF_ANOTHER  // a client that connected at the same moment has our reply, and we have its
    };

    QueryClient(suts_tsspec const& spec, brindle_Address address, brindle_Connection::Milliseconds wait)
        : spec_(spec), address_(std::move(address)), wait_(wait) {}

    // Connects if there is no connection. Blocks at most as long as the wait, twice over.
    [[nodiscard]] Result Ask(brindle_Value const& key, long fromUs, long toUs, QueryReply& reply);
    // Ends the connection, the replies' side first: the server lets the next client in.
    void Leave() { connection_.reset(); }

 private:
    [[nodiscard]] Result Connect();
    [[nodiscard]] Result Converse(brindle_Message& query, brindle_Value const& key, QueryReply& reply);

    suts_tsspec const& spec_;
    brindle_Address const address_;
    brindle_Connection::Milliseconds const wait_;
    std::optional<brindle_Connection> connection_;  // its end closes the second connection, then the first
};
