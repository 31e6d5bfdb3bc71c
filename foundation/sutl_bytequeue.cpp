#include "sutl_bytequeue.h"

#include <algorithm>
#include <utility>

void sutl_ByteQueue::AddBlock(std::size_t bytes) {
    // An emptied block that has stayed in use must not stand before the new one: nothing would ever drop it.
    if (!blocks_.empty() && blocks_.back().begin == blocks_.back().end) {
        idle_ = std::move(blocks_.back());
        blocks_.pop_back();
    }
    if (idle_.room >= bytes) {
        blocks_.push_back(std::exchange(idle_, {}));
        return;
    }
    std::size_t const room = std::max(bytes, BLOCK_BYTES);
    // Not make_unique: bytes about to be written need no zeros first.
    blocks_.push_back({std::unique_ptr<unsigned char[]>(new unsigned char[room]), room, 0, 0});
}

void sutl_ByteQueue::DropBlock() {
    Block& block = blocks_.front();
    block.begin = block.end = 0;
    // The only one stays in use: a queue that is nearly empty keeps to the same few bytes.
    if (blocks_.size() == 1 && block.room == BLOCK_BYTES) return;
    if (block.room == BLOCK_BYTES) idle_ = std::move(block);
    blocks_.pop_front();
}

void sutl_ByteQueue::Clear() {
    while (!blocks_.empty()) {
        Block& block = blocks_.front();
        bool const last = blocks_.size() == 1;
        block.begin = block.end;
        DropBlock();
        if (last) return;
    }
}
