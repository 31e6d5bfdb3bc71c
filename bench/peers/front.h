// The part of every peer that is not its store: takes the producer's records, has the store keep them, and hands them
// on in the server's ship messages.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "layout.h"
#include "pairs.h"

// A record as one text, whose first bytes sort by key, time (which is not negative) and order of arrival:
// | size       | content                                                        |
// | the key's  | field 0, as it is on the wire                                  |
// |          8 | time, most significant byte first                              |
// |          4 | number of the record in its hand-off, most significant first   |
// | the rest   | the other fields, as they are on the wire                      |
constexpr std::size_t BENCH_NUMBER_BYTES = 4;

class bench_SortedRecord {
 public:
    // The bytes of the text are the caller's.
    bench_SortedRecord(std::string_view text, std::size_t keyBytes);

    [[nodiscard]] std::string_view Text() const { return text_; }
    [[nodiscard]] std::string_view Key() const { return text_.substr(0, keyBytes_); }
    [[nodiscard]] std::string_view Place() const { return text_.substr(0, ValueStart()); }  // what sorts
    [[nodiscard]] std::string_view Value() const { return text_.substr(ValueStart()); }
    [[nodiscard]] std::string_view Time() const { return text_.substr(keyBytes_, SUTS_NUMBER8_BYTES); }

    // The first 16 bytes, which every record has, decide most comparisons.
    [[nodiscard]] bool operator<(bench_SortedRecord const& other) const {
        if (first_ != other.first_) return first_ < other.first_;
        return second_ != other.second_ ? second_ < other.second_ : text_ < other.text_;
    }

 private:
    [[nodiscard]] std::size_t ValueStart() const { return keyBytes_ + SUTS_NUMBER8_BYTES + BENCH_NUMBER_BYTES; }

    unsigned long first_;
    unsigned long second_;
    std::string_view text_;
    std::size_t keyBytes_;
};

// Finds the key in the text of a record that comes back from a store.
class bench_RecordForm {
 public:
    explicit bench_RecordForm(suts_tsspec const& spec) : keyShape_(spec, 0, 1) {}
    [[nodiscard]] bench_SortedRecord Read(std::string_view text) const;

 private:
    bench_Shape const keyShape_;
};

// Sends the ship messages of one hand-off after the other.
class bench_HandOff {
 public:
    explicit bench_HandOff(int consumer) : consumer_(consumer) {}

    void Announce(std::string_view key);  // in the next hand-off, if it was in none before
    void Begin();
    // Records of a key come one behind the other, in the order of time. Every key has been announced.
    void Add(std::string_view key, std::string_view time, std::string_view value);
    void Add(bench_SortedRecord const& record) { Add(record.Key(), record.Time(), record.Value()); }
    void End();

 private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view key) const;
    };

    void EndBlock();
    void Send(std::string& message, unsigned int type);  // and empties it

    int const consumer_;
    std::unordered_set<std::string, Hash, std::equal_to<>> announced_;  // keys
    std::string keys_;                                                  // a message with those that are new
    std::string blocks_;                                                // a message with records
    std::string key_;                                                   // of the block at hand
    std::size_t countPlace_ = 0;                                        // of the block's number of records
    unsigned long records_ = 0;                                         // in the block; 0 when there is none
    int blockCount_ = 0;                                                // in the message
};

// Where a peer keeps its records. A call that fails ends the program.
class bench_PeerStore {
 public:
    virtual ~bench_PeerStore() = default;

    // Puts records into the store; they are in order, so that neighbours go to places that are still at hand. Need not
    // wait until the store has done so. Their bytes are the caller's.
    virtual void Commit(std::span<bench_SortedRecord const> records) = 0;
    // Hands on all records that were put since the last Clear, out of the store.
    virtual void Drain(bench_HandOff& handOff) = 0;
    // They have been handed on: removes them.
    virtual void Clear() = 0;
};

// Ends the program with a line that says what it could not do, and why.
[[noreturn]] void bench_FailStore(char const* what, char const* why);

// The whole program. The store is opened, in the recovery directory, before anybody connects.
using bench_OpenStore = std::unique_ptr<bench_PeerStore>(bench_StandIn const& link, suts_tsspec const& spec);
int bench_RunPeer(int argc, char** argv, bench_OpenStore* open);

template <typename Store>
int bench_RunPeer(int argc, char** argv) {
    return bench_RunPeer(argc, argv, [](auto const& link, auto const& spec) -> std::unique_ptr<bench_PeerStore> {
        return std::make_unique<Store>(link, spec);
    });
}
