#include "ship_check.h"

#include <algorithm>

#include "bytes.h"
#include "checksum.h"
#include "sutl_frame.h"

bench_ShipCheck::bench_ShipCheck(bench_Workload const& workload, suts_tsspec const& spec,
                                 std::function<void(unsigned long)> onRecord)
    : workload_(workload),
      onRecord_(std::move(onRecord)),
      keyShape_(spec, 0, 1),
      valueShape_(spec, 1, spec.fieldCount),
      seen_(workload.Keys().size()) {
    for (std::size_t i = 0; i < seen_.size(); ++i) index_.emplace(workload.Keys()[i].wire, i);
}

unsigned char const* bench_ShipCheck::Take(unsigned char const* at, unsigned char const* end) {
    while (true) {
        unsigned char const* next;
        if (!fault_.empty()) return end;
        if (bodyLeft_ == 0) {
            next = TakeHeader(at, end);
        } else if (recordsLeft_ > 0) {
            next = TakeRecords(at, end);
            if (next == at) return at;
        } else {
            next = TakeKey(at, end);
        }
        if (next == nullptr) return at;
        at = next;
    }
}

unsigned char const* bench_ShipCheck::TakeHeader(unsigned char const* at, unsigned char const* end) {
    constexpr int BYTES = SUTL_FRAME_HEADER_BYTES + SUTS_SHIP_TYPE_BYTES;
    if (end - at < BYTES) return nullptr;
    bodyLeft_ = static_cast<long>(bench_Number4(at)) - SUTS_SHIP_TYPE_BYTES;
    lastType_ = type_;
    type_ = bench_Number4(at + SUTL_FRAME_HEADER_BYTES);
    bool const inTurn = lastType_ == 0 || lastType_ == SUTS_SHIP_CYCLE_END
                            ? type_ == SUTS_SHIP_KEYS
                            : type_ == lastType_ || type_ == SUTS_SHIP_RECORDS || type_ == SUTS_SHIP_CYCLE_END;
    if (bodyLeft_ < 0 || !inTurn) return Refuse("a message of no type, or out of its turn", end);
    if (type_ == SUTS_SHIP_CYCLE_END) {
        ++cycles_;
        if (bodyLeft_ != 0) return Refuse("bytes behind the end of a cycle", end);
    }
    return at + BYTES;
}

unsigned char const* bench_ShipCheck::TakeKey(unsigned char const* at, unsigned char const* end) {
    unsigned char const* next = keyShape_.Behind(at, end);
    if (next == nullptr) return nullptr;
    std::string_view const key(reinterpret_cast<char const*>(at), static_cast<std::size_t>(next - at));
    bool const isBlock = type_ == SUTS_SHIP_RECORDS;
    if (isBlock) {
        if (end - next < SUTS_NUMBER8_BYTES) return nullptr;
        recordsLeft_ = bench_Number8(next);
        next += SUTS_NUMBER8_BYTES;
        latest_ = 0;
    }
    if (!Find(key)) return Refuse("a key that was never sent", end);
    if (seen_[key_].announced != isBlock) return Refuse("a key that is announced late or twice", end);
    seen_[key_].announced = true;
    bodyLeft_ -= next - at;
    return bodyLeft_ < 0 ? Refuse("a key beyond the end of its message", end) : next;
}

unsigned char const* bench_ShipCheck::TakeRecords(unsigned char const* at, unsigned char const* end) {
    unsigned char const* const start = at;
    unsigned long const before = recordsLeft_;
    unsigned long sum = 0;
    while (recordsLeft_ > 0 && end - at >= SUTS_NUMBER8_BYTES) {
        unsigned char const* const next = valueShape_.Behind(at + SUTS_NUMBER8_BYTES, end);
        if (next == nullptr) break;
        unsigned long const time = bench_Number8(at);
        if (time < latest_) return Refuse("records of a block that are not in the order of time", end);
        latest_ = time;
        if (onRecord_) onRecord_(time);
        sum += bench_Checksum(at, static_cast<std::size_t>(next - at));
        at = next;
        --recordsLeft_;
    }
    Seen& seen = seen_[key_];
    seen.records += before - recordsLeft_;
    seen.checksum += sum;
    records_ += before - recordsLeft_;
    latestUs_ = std::max(latestUs_, latest_);
    bodyLeft_ -= at - start;
    return bodyLeft_ < 0 ? Refuse("a record beyond the end of its message", end) : at;
}

// Keys come in the same order in every cycle, the one in which the workload numbers them.
bool bench_ShipCheck::Find(std::string_view key) {
    std::size_t const next = key_ + 1 < seen_.size() ? key_ + 1 : 0;
    if (workload_.Keys()[next].wire == key) {
        key_ = next;
        return true;
    }
    auto const found = index_.find(key);
    if (found == index_.end()) return false;
    key_ = found->second;
    return true;
}

unsigned char const* bench_ShipCheck::Refuse(char const* text, unsigned char const* end) {
    fault_ = text;
    return end;
}

std::string bench_ShipCheck::Verdict() {
    if (!fault_.empty()) return fault_;
    if (type_ != SUTS_SHIP_CYCLE_END || bodyLeft_ != 0) return "a stream that does not end with a cycle";
    for (std::size_t i = 0; i < seen_.size(); ++i) {
        bench_Workload::Key const& key = workload_.Keys()[i];
        if (seen_[i].records != key.records) {
            return "key " + std::to_string(i) + ": " + std::to_string(seen_[i].records) + " records in place of " +
                   std::to_string(key.records);
        }
        if (seen_[i].checksum != key.checksum) return "key " + std::to_string(i) + ": records that differ";
    }
    return "";
}
