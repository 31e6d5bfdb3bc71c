// Recycling of memory blocks of one size.
#pragma once

#include <cstddef>
#include <new>

// Hands out blocks of one size and keeps up to a bound of those given back for the next request, so that a container
// that rises and falls around a steady size does not go to the allocator. Every block handed out must be given back, or
// freed with operator delete, by its user. Does not lock: it belongs to the container that owns it.
class sutl_FreeStore {
 public:
    // blockBytes: size of every block, at least one pointer. idleMax: how many unused blocks are kept at most.
    sutl_FreeStore(std::size_t blockBytes, std::size_t idleMax)
        : blockBytes_(blockBytes < sizeof(Idle) ? sizeof(Idle) : blockBytes), idleMax_(idleMax) {}
    sutl_FreeStore(sutl_FreeStore const&) = delete;
    sutl_FreeStore& operator=(sutl_FreeStore const&) = delete;
    ~sutl_FreeStore() {
        while (idle_ != nullptr) {
            Idle* const next = idle_->next;
            ::operator delete(idle_);
            idle_ = next;
        }
    }

    [[nodiscard]] void* Take() {
        if (idle_ == nullptr) return ::operator new(blockBytes_);
        Idle* const block = idle_;
        idle_ = block->next;
        --idleCount_;
        return block;
    }

    void Give(void* block) {
        if (idleCount_ >= idleMax_) {
            ::operator delete(block);
            return;
        }
        idle_ = new (block) Idle{idle_};
        ++idleCount_;
    }

 private:
    struct Idle {
        Idle* next;
    };
    std::size_t const blockBytes_;
    std::size_t const idleMax_;
    Idle* idle_ = nullptr;  // unused blocks, newest first
    std::size_t idleCount_ = 0;
};
