// A first-in first-out queue of plain values in fixed-size blocks.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "sutl_freestore.h"
#include "sutl_list.h"

// Values are added at the front and taken from the end. Blocks hang in a list, newest first; within a block the slots
// fill from the highest index down. One emptied block is kept as the spare, further ones and the list's nodes go to a
// bounded store, so a queue that rises and falls around a steady size does not allocate. Values are copied bitwise and
// not destroyed. Does not lock; no operation checks for an empty queue.
template <typename T>
class sutl_DQUEUE : public sutl_LIST<T*> {
    static_assert(std::is_trivially_copyable_v<T>);
    using Blocks = sutl_LIST<T*>;

 public:
    static constexpr std::size_t IDLE_BLOCKS_MAX = 1024;

    // blockSize: values per block. idleBlocksMax: emptied blocks that are kept beside the spare.
    explicit sutl_DQUEUE(unsigned long blockSize, std::size_t idleBlocksMax = IDLE_BLOCKS_MAX)
        : Blocks(idleBlocksMax),
          blockSize_(static_cast<long>(blockSize)),
          store_(blockSize * sizeof(T), idleBlocksMax) {
        reset();
    }
    ~sutl_DQUEUE() {
        Discard();
        ::operator delete(spare_);
    }

    long size = 0;  // number of values held; read it before taking, never write it

    // Adds the newest value.
    void Addfront(T const& value) { AddfrontInPlace() = value; }

    // The same for a value that the caller writes where it lies.
    T& AddfrontInPlace() {
        if (frontIndex_ < 0) [[unlikely]]
            AddBlock();
        ++size;
        return frontSlots_[frontIndex_--];
    }

    // Takes the oldest value.
    T Getend() {
        T const value = Oldest();
        Dropend();
        return value;
    }

    // Drops the oldest value.
    void Dropend() {
        --endIndex_;
        --size;
        if (size == 0) [[unlikely]] {
            DropEndBlock();
            reset();
        } else if (endIndex_ == 0) [[unlikely]] {
            DropEndBlock();
            SetEndBlock();
        }
    }

    // Adds count values, oldest first: what next returns from call to call.
    template <typename Next>
    void AddfrontMany(long count, Next next) {
        while (count > 0) {
            if (frontIndex_ < 0) AddBlock();
            long const run = std::min(count, frontIndex_ + 1);
            T* const slots = frontSlots_ + frontIndex_;
            for (long i = 0; i < run; ++i) slots[-i] = next();
            frontIndex_ -= run;
            size += run;
            count -= run;
        }
    }

    // Takes count values, oldest first, into bytes that need not be aligned.
    void GetendMany(void* values, long count) {
        auto* to = static_cast<unsigned char*>(values);
        while (count > 0) {
            // The last value of a block is left to Getend, which knows what follows a block.
            long const run = std::min(count, OldestRun() - 1);
            T const* const slots = endSlots_ + endIndex_ - 1;
            for (long i = 0; i < run; ++i) memcpy(to + i * SLOT_BYTES, slots - i, sizeof(T));
            to += run * SLOT_BYTES;
            endIndex_ -= run;
            size -= run;
            count -= run;
            if (count > 0) {
                T const value = Getend();
                memcpy(to, &value, sizeof(T));
                to += SLOT_BYTES;
                --count;
            }
        }
    }

    // The newest and the oldest value in place; the queue must not be empty.
    [[nodiscard]] T& Newest() { return frontSlots_[frontIndex_ + 1]; }
    [[nodiscard]] T& Oldest() {
        // NOLINTNEXTLINE(clang-analyzer-core.uninitialized.UndefReturn): a block is there when a value is
        return endSlots_[endIndex_ - 1];
    }

    // Takes every value out.
    void Discard() {
        if (size == 0) return;
        while (!Blocks::IsEmpty()) DropEndBlock();
        size = 0;
        reset();
    }

 private:
    static constexpr long SLOT_BYTES = sizeof(T);

    // Only for a queue that holds no block.
    void reset() {
        frontIndex_ = -1;
        endIndex_ = blockSize_;
        frontSlots_ = nullptr;
        endSlots_ = nullptr;
    }

    // How many of the oldest values lie in the end block.
    [[nodiscard]] long OldestRun() const {
        return endSlots_ == frontSlots_ ? endIndex_ - (frontIndex_ + 1) : endIndex_;
    }

    void AddBlock() {
        T* const block = spare_ != nullptr ? spare_ : static_cast<T*>(store_.Take());
        spare_ = nullptr;
        this->RawInsert(this->NewNode(block));
        frontSlots_ = block;
        frontIndex_ = blockSize_ - 1;
        if (size == 0) SetEndBlock();
    }

    void SetEndBlock() {
        endSlots_ = Blocks::Value(Blocks::Last());
        endIndex_ = blockSize_;
    }

    void DropEndBlock() {
        dropblock(Blocks::Value(Blocks::Last()));
        Blocks::Delete(Blocks::Last());
    }

    void dropblock(T* block) {
        if (spare_ == nullptr) {
            spare_ = block;
        } else {
            store_.Give(block);
        }
    }

    long frontIndex_;       // next free slot of the front block; -1: none
    long endIndex_;         // one past the slot of the next value to take
    T* frontSlots_;         // slots of the front block, the list's first; null: no block
    T* endSlots_;           // slots of the end block, the list's last; null: no block
    long const blockSize_;  // values per block
    T* spare_ = nullptr;    // one emptied block
    sutl_FreeStore store_;  // further emptied blocks
};
