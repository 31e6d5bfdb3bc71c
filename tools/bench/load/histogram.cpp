#include "histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

std::size_t bench_Histogram::BucketOf(unsigned long value) {
    if (value < PARTS) return value;
    int const shift = static_cast<int>(std::bit_width(value)) - 1 - PART_BITS;
    // The leading one of the shifted value stands for the power of two.
    return static_cast<std::size_t>(shift) * PARTS + (value >> shift);
}

unsigned long bench_Histogram::EndOf(std::size_t bucket) {
    if (bucket < 2 * PARTS) return bucket;
    std::size_t const shift = bucket / PARTS - 1;
    return ((bucket - shift * PARTS + 1) << shift) - 1;
}

void bench_Histogram::Add(Nanoseconds value) {
    long const count = std::max(value.count(), 0L);
    ++counts_[BucketOf(static_cast<unsigned long>(count))];
    ++count_;
    max_ = std::max(max_, count);
}

void bench_Histogram::AddWithMissed(Nanoseconds value, Nanoseconds interval) {
    for (; value > Nanoseconds(0); value -= interval) Add(value);
}

void bench_Histogram::Merge(bench_Histogram const& other) {
    for (std::size_t i = 0; i < BUCKETS; ++i) counts_[i] += other.counts_[i];
    count_ += other.count_;
    max_ = std::max(max_, other.max_);
}

bench_Histogram::Nanoseconds bench_Histogram::Quantile(double share) const {
    auto const rank = static_cast<unsigned long>(std::ceil(share * static_cast<double>(count_)));
    unsigned long upTo = 0;
    for (std::size_t bucket = 0; bucket < BUCKETS; ++bucket) {
        upTo += counts_[bucket];
        if (upTo < rank || upTo == 0) continue;
        return Nanoseconds(std::min(max_, static_cast<long>(EndOf(bucket))));
    }
    return Nanoseconds(0);
}
