#include "key_set.h"

#include <xxhash.h>

#include <bit>

bool KeySet::Add(brindle_Value const& key) {
    unsigned long const bits =
        key.type == SUTS_FLOAT64 ? std::bit_cast<unsigned long>(key.real) : static_cast<unsigned long>(key.number);
    unsigned long hash =
        key.type == SUTS_STRING64 ? XXH3_64bits(key.text.data(), key.text.size()) : XXH3_64bits(&bits, sizeof bits);
    hash |= 1;  // which tells it from an empty slot
    std::size_t const slot = SlotOf(hash);
    if (slots_[slot] == hash) return true;
    if (count_ == keysMax_) return false;
    slots_[slot] = hash;
    ++count_;
    if (2 * count_ > slots_.size()) Grow();
    return true;
}

std::size_t KeySet::SlotOf(unsigned long hash) const {
    // The lowest bit is the same in all.
    std::size_t slot = (hash >> 1) & (slots_.size() - 1);
    while (slots_[slot] != 0 && slots_[slot] != hash) slot = (slot + 1) & (slots_.size() - 1);
    return slot;
}

void KeySet::Grow() {
    std::vector<unsigned long> old(2 * slots_.size(), 0);
    old.swap(slots_);
    for (unsigned long const hash : old) {
        if (hash != 0) slots_[SlotOf(hash)] = hash;
    }
}
