// Reads ship messages: what the server sends downstream.
#pragma once

#include <span>
#include <vector>

#include "brindle_message.h"
#include "uts_tsspec.h"

// Walks one message after the other, item by item. Whatever the bytes are, it stays inside the message and every walk
// ends: an item takes at least one byte. The schema must hold at least one field and outlive the reader; the message
// must outlive its walk. One thread at a time; never blocks.
class brindle_ShipReader {
 public:
    enum Item {
        KEY_ANNOUNCED,  // Key() is new in this run
        BLOCK_STARTED,  // Key() and Records() of a block; its records follow, in order of time
        RECORD,         // TimeUs() and Values()
        CYCLE_ENDED,
        MESSAGE_ENDED,  // nothing is left; the next call says the same
        MALFORMED       // the rest of the message is of no use; the next call says the same
    };

    explicit brindle_ShipReader(suts_tsspec const& spec);

    // Goes to the start of a message; an earlier one is forgotten. Of a message that was cut the walk gives every whole
    // item and then MALFORMED.
    void Start(std::span<unsigned char const> message, bool cut = false);
    [[nodiscard]] Item Next();

    // Valid until the next call of Start; texts are views of the message.
    [[nodiscard]] brindle_Value const& Key() const { return values_[0]; }
    [[nodiscard]] std::span<brindle_Value const> Values() const { return values_; }  // in schema order, the key first
    [[nodiscard]] unsigned long Records() const { return records_; }  // of the block; one key may have several blocks
    [[nodiscard]] long TimeUs() const { return timeUs_; }

 private:
    enum State { AT_START, IN_KEYS, IN_BLOCKS, ENDED, BROKEN };

    [[nodiscard]] Item Begin();
    [[nodiscard]] Item TakeKey();
    [[nodiscard]] Item TakeBlock();
    [[nodiscard]] Item TakeRecord();
    Item Break();

    suts_tsspec const& spec_;
    State state_ = ENDED;
    brindle_MessageReader message_;
    std::vector<brindle_Value> values_;  // the fields of the record or, of a key alone, the first
    unsigned long records_ = 0;          // that the current block has
    bool cut_ = false;                   // the message is not whole
    unsigned long recordsLeft_ = 0;      // of these, still to come
    long timeUs_ = 0;
};
