// A first-in first-out queue of byte strings.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>

// Strings are added at one end and dropped at the other. Each lies in one piece and keeps its place while it is held.
// They lie one behind the other in blocks; emptied blocks are used again, up to one. Does not lock: it belongs to
// whoever owns it.
class sutl_ByteQueue {
 public:
    // Room for the bytes of the newest string, which the caller writes; at least one.
    [[nodiscard]] unsigned char* Add(std::size_t bytes) {
        if (blocks_.empty() || blocks_.back().room - blocks_.back().end < bytes) [[unlikely]]
            AddBlock(bytes);
        Block& block = blocks_.back();
        unsigned char* const place = block.bytes.get() + block.end;
        block.end += bytes;
        return place;
    }

    // Drops the oldest string, which has so many bytes.
    void Drop(std::size_t bytes) {
        Block& block = blocks_.front();
        block.begin += bytes;
        if (block.begin == block.end) [[unlikely]]
            DropBlock();
    }

    // Drops everything.
    void Clear();

    [[nodiscard]] std::size_t Blocks() const { return blocks_.size(); }  // in use

 private:
    static constexpr std::size_t BLOCK_BYTES = 1UL << 16;  // a longer string has a block to itself

    struct Block {
        std::unique_ptr<unsigned char[]> bytes;
        std::size_t room;
        std::size_t begin;  // of the oldest string held
        std::size_t end;    // of the newest
    };

    void AddBlock(std::size_t bytes);
    void DropBlock();

    std::deque<Block> blocks_;  // oldest first
    Block idle_ = {};           // an empty one for the next request, or none
};
