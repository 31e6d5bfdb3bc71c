// Many lengths of time in little memory.
#pragma once

#include <array>
#include <chrono>

// Counts lengths of time in buckets that are at most 1/64 of their values wide, so that its size depends neither on how
// many it counts nor on how far they lie apart. One thread at a time.
class bench_Histogram {
 public:
    using Nanoseconds = std::chrono::nanoseconds;

    void Add(Nanoseconds value);  // a negative one counts as 0
    // Adds a wait, and what those would have waited who were due at this interval behind it and had no turn.
    void AddWithMissed(Nanoseconds value, Nanoseconds interval);
    void Merge(bench_Histogram const& other);

    [[nodiscard]] unsigned long Count() const { return count_; }
    [[nodiscard]] Nanoseconds Max() const { return Nanoseconds(max_); }
    // The value that this share of all does not exceed, rounded up to the end of its bucket. 0 when there is none.
    [[nodiscard]] Nanoseconds Quantile(double share) const;

 private:
    static constexpr int PART_BITS = 6;                     // of a power of two
    static constexpr unsigned long PARTS = 1 << PART_BITS;  // buckets to each power of two, and the exact ones at first
    static constexpr std::size_t BUCKETS = (64 - PART_BITS) * PARTS;

    [[nodiscard]] static std::size_t BucketOf(unsigned long value);
    [[nodiscard]] static unsigned long EndOf(std::size_t bucket);  // the greatest value in it

    std::array<unsigned long, BUCKETS> counts_ = {};
    unsigned long count_ = 0;
    long max_ = 0;
};
