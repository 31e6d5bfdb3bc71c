// Which keys came already.
#pragma once

#include <vector>

#include "brindle_value.h"

// Counts different keys by their hashes of 64 bits: 16 bytes or less for each, however long it is. Two keys are taken
// for one with a chance of one in millions even among millions. One thread at a time.
class KeySet {
 public:
    // No more keys than this are remembered.
    explicit KeySet(std::size_t keysMax) : keysMax_(keysMax), slots_(SLOTS_MIN, 0) {}

    // False for a new key when there are as many as are remembered.
    [[nodiscard]] bool Add(brindle_Value const& key);
    [[nodiscard]] std::size_t Count() const { return count_; }

 private:
    static constexpr std::size_t SLOTS_MIN = 1024;  // a power of two, as all their numbers

    void Grow();
    [[nodiscard]] std::size_t SlotOf(unsigned long hash) const;  // its own, or the empty one for it

    std::size_t keysMax_;
    std::size_t count_ = 0;
    std::vector<unsigned long> slots_;  // 0 where empty
};
