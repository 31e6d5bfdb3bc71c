// A place to which the sink writes what is shipped.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "brindle_value.h"
#include "uts_tsspec.h"

// A record on its way to a destination.
struct SinkRecord {
    unsigned long cycle;  // counted from 1 for as long as the destination's state lives
    unsigned long block;  // of one key, within the cycle, counted from 1
    long timeUs;
    std::span<brindle_Value const> values;  // in schema order, the key first
};

// What is told about a cycle when it is committed.
struct SinkCycle {
    unsigned long cycle;
    bool isComplete;  // its end came; otherwise the connection ended before
    unsigned long records;
    unsigned long keys;   // with records
    unsigned long bytes;  // of messages
    long newestUs;        // greatest time of a record; -1 without one
    unsigned long rejected;
};

// Takes records in transactions. What a committed transaction wrote is durable, and so is the state written with it:
// text of the sink's own that says how far it has come. After any status but OK only Close may follow, then Open. Used
// on one thread.
class Destination {
 public:
    enum Status : std::uint8_t {
        OK,
        AWAY,    // not now: the store cannot be reached, is busy or full. Close and Open again later
        REFUSED  // never like this: the table differs, the name cannot be used, the file is another sink's
    };

    Destination() = default;
    Destination(Destination const&) = delete;
    Destination& operator=(Destination const&) = delete;
    virtual ~Destination() = default;

    // Connects, creates what is missing, checks what is there, and gives the state that was committed last; empty when
    // there is none. What an earlier, uncommitted transaction left is gone then. Blocks for seconds at most.
    [[nodiscard]] virtual Status Open(std::string& state) = 0;

    // Begins a transaction. A transaction that is not committed leaves nothing behind.
    [[nodiscard]] virtual Status Begin() = 0;
    // Adds a record. One that the store refuses goes to the rejects of the same transaction, perhaps not before Commit.
    [[nodiscard]] virtual Status Add(SinkRecord const& record) = 0;
    // Adds bytes that are no record to the rejects.
    [[nodiscard]] virtual Status Reject(unsigned long cycle, std::string_view reason, std::string_view bytes) = 0;
    // Writes the cycle and the state and makes all of it durable. After AWAY the transaction may have been committed
    // all the same: the state that Open gives tells.
    [[nodiscard]] virtual Status Commit(SinkCycle const& cycle, std::string_view state) = 0;

    // Gives up the transaction, if there is one, and the connection. Never fails.
    virtual void Close() = 0;

    [[nodiscard]] virtual unsigned long Rejected() const = 0;  // in the last transaction, as known after Commit
    [[nodiscard]] virtual unsigned long Merged() const = 0;    // the same, equal records that were merged
    [[nodiscard]] std::string const& Problem() const { return problem_; }  // why the last call was not OK

 protected:
    Status Fail(Status status, std::string problem) {
        problem_ = std::move(problem);
        return status;
    }

 private:
    std::string problem_;
};

struct DestinationOptions {
    std::string timeName = "time";  // of the column with the record's time
    bool withBlocks = false;        // columns for cycle and block of each record
    bool dedupe = false;            // merge equal records
    int stopDescriptor = -1;        // readable when standard output is not to be waited for any longer
};

// The destination that a text names, for messages and to tell one from another: an absolute path, or server and
// database without user and password.
[[nodiscard]] std::string DestinationName(std::string const& text);

// Makes the destination that a text names: csv:DIR, jsonl:FILE, jsonl:-, sqlite:FILE, postgresql://... None, and the
// problem, when the text names none or the options do not go with it. Nothing is opened yet. The schema must outlive
// it.
[[nodiscard]] std::unique_ptr<Destination> MakeDestination(std::string const& text, suts_tsspec const& spec,
                                                           DestinationOptions const& options, std::string& problem);
