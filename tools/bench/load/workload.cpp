#include "workload.h"

#include <algorithm>

#include "bytes.h"
#include "checksum.h"
#include "sutl_frame.h"

namespace {

struct Kind {
    std::string_view name;
    std::string_view schema;
    long records;
    long keys;
    long stepUs;  // event time from record to record
    long latenessUs;
    bool zipf;  // the k-th key has a share of 1 / k; else all have the same
};

constexpr long STEP_MIN_US = 2;  // or nothing would tell the times of late records from the others
constexpr int LATE_SHARE = 50;   // one record in so many is late
constexpr int WIDE_TEXT_MIN = 40;
constexpr int WIDE_TEXT_MAX = 200;

constexpr Kind KINDS[] = {
    {"ticks", "Tick string64 symbol int64 sequence float64 price int32 size\n", 2000000, 1000, 10, 2000000, true},
    {"many", "Meter int64 meter float64 value\n", 2000000, 200000, 5, 0, false},
    {"wide",
     "Wide string64 device float64 a float64 b float64 c float64 d float64 e float64 f int64 g int64 h string64 note\n",
     500000, 100, 20, 0, false},
};

Kind const* FindKind(std::string_view name) {
    auto const* const kind =
        std::find_if(std::begin(KINDS), std::end(KINDS), [&](Kind const& k) { return k.name == name; });
    return kind == std::end(KINDS) ? nullptr : kind;
}

// Small and the same everywhere, unlike the distributions of the standard library.
class Random {
 public:
    explicit Random(unsigned long seed) : state_(seed) {}
    unsigned long Next() {
        unsigned long x = state_ += 0x9e3779b97f4a7c15;
        x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
        x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
        return x ^ (x >> 31);
    }
    long Below(long bound) { return static_cast<long>(Next() % static_cast<unsigned long>(bound)); }
    double Unit() { return static_cast<double>(Next() >> 11) * 0x1p-53; }

 private:
    unsigned long state_;
};

// Chooses a key's rank, from 0.
class Ranks {
 public:
    Ranks(long keys, bool zipf) : keys_(keys) {
        if (!zipf) return;
        double sum = 0;
        for (long k = 1; k <= keys; ++k) upTo_.push_back(sum += 1 / static_cast<double>(k));
        for (double& share : upTo_) share /= sum;
    }
    long Choose(Random& random) const {
        if (upTo_.empty()) return random.Below(keys_);
        return std::min(keys_ - 1, std::lower_bound(upTo_.begin(), upTo_.end(), random.Unit()) - upTo_.begin());
    }

 private:
    long keys_;
    std::vector<double> upTo_;  // share of all keys up to this one; empty when all have the same
};

// Field 0 of the key of a rank: an int64, or a text of 4 to 8 characters. Neighbours by rank do not look alike.
std::string WireKey(suts_FieldType type, long rank, Random& random) {
    unsigned char number[SUTS_NUMBER8_BYTES];
    if (type != SUTS_STRING64) {
        bench_PutNumber8(number, static_cast<unsigned long>(rank) * 0x9e3779b97f4a7c15 >> 1);
        return {reinterpret_cast<char const*>(number), sizeof number};
    }
    constexpr std::string_view DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    constexpr long NAMES = 36L * 36 * 36 * 36;  // of four digits: more than any run has keys
    std::string text;
    for (long rest = rank * 1000003 % NAMES; text.size() < 4; rest /= 36)
        text += DIGITS[static_cast<std::size_t>(rest % 36)];
    for (long further = random.Below(5); further > 0; --further)
        text += DIGITS[static_cast<std::size_t>(random.Below(36))];
    text += '\0';
    bench_PutNumber4(number, static_cast<unsigned int>(text.size()));
    return std::string(reinterpret_cast<char const*>(number), SUTS_STRING_LENGTH_BYTES) + text;
}

unsigned char* PutField(unsigned char* at, suts_FieldType type, long record, Random& random) {
    double const value = 100 * random.Unit();
    unsigned long bits;
    long textBytes;
    switch (type) {
        case SUTS_INT32:
            return bench_PutNumber4(at, static_cast<unsigned int>(random.Next()));
        case SUTS_INT64:
            return bench_PutNumber8(at, static_cast<unsigned long>(record));
        case SUTS_FLOAT64:
            memcpy(&bits, &value, sizeof bits);
            return bench_PutNumber8(at, bits);
        case SUTS_STRING64:
            textBytes = WIDE_TEXT_MIN + random.Below(WIDE_TEXT_MAX - WIDE_TEXT_MIN + 1);
            at = bench_PutNumber4(at, static_cast<unsigned int>(textBytes + 1));
            while (textBytes-- > 0) *at++ = static_cast<unsigned char>('a' + random.Below(26));
            *at++ = 0;
            return at;
    }
    return at;
}

}  // namespace

std::string_view bench_Workload::Schema(std::string_view name) {
    Kind const* const kind = FindKind(name);
    return kind == nullptr ? std::string_view() : kind->schema;
}

std::vector<std::string> bench_Workload::Names() {
    std::vector<std::string> names;
    for (Kind const& kind : KINDS) names.emplace_back(kind.name);
    return names;
}

long bench_Workload::UsualRecords(std::string_view name) { return FindKind(name)->records; }

bench_Workload::bench_Workload(bench_WorkloadOptions const& options, suts_tsspec const& spec)
    : keyShape_(spec, 0, 1), valueShape_(spec, 1, spec.fieldCount) {
    Kind const& kind = *FindKind(options.name);
    records_ = options.records > 0 ? options.records : kind.records;
    stepUs_ = options.stepUs > 0 ? std::max(options.stepUs, STEP_MIN_US) : kind.stepUs;
    long const keys = options.keys > 0 ? options.keys : kind.keys;
    long const latenessUs = options.latenessUs >= 0 ? options.latenessUs : kind.latenessUs;
    Random random(options.seed);
    Ranks const ranks(keys, kind.zipf);
    std::vector<std::string> wireKeys;
    for (long rank = 0; rank < keys; ++rank) wireKeys.push_back(WireKey(spec.Type(0), rank, random));
    std::vector<long> places(static_cast<std::size_t>(keys), -1);  // of a rank in keys_

    long recordBytesMax = 2 * SUTS_NUMBER8_BYTES + SUTS_STRING_LENGTH_BYTES;
    for (int i = 1; i < spec.fieldCount; ++i) {
        recordBytesMax +=
            spec.Type(i) == SUTS_STRING64 ? WIDE_TEXT_MAX + 1 + SUTS_STRING_LENGTH_BYTES : SUTS_NUMBER8_BYTES;
    }
    constexpr long FRAME_HEADERS = SUTL_FRAME_HEADER_BYTES;  // at most one a record
    std::size_t const room = static_cast<std::size_t>((recordBytesMax + FRAME_HEADERS) * records_);
    bytes_ = std::make_unique_for_overwrite<unsigned char[]>(room);  // pages that are not written cost nothing
    unsigned char* at = bytes_.get();
    unsigned char* frame = nullptr;
    std::size_t probeKey = 0;
    unsigned long probeUs = 0;
    keyOf_.reserve(static_cast<std::size_t>(records_));
    for (long record = 0; record < records_; ++record) {
        if (frame == nullptr) {
            frame = at;
            at += SUTL_FRAME_HEADER_BYTES;
        }
        auto const rank = static_cast<std::size_t>(ranks.Choose(random));
        if (places[rank] < 0) {
            places[rank] = static_cast<long>(keys_.size());
            keys_.push_back({wireKeys[rank]});
        }
        Key& key = keys_[static_cast<std::size_t>(places[rank])];
        auto const place = static_cast<std::size_t>(places[rank]);
        keyOf_.push_back(static_cast<unsigned int>(place));
        long timeUs = START_US + record * stepUs_;
        if (latenessUs > 0 && random.Below(LATE_SHARE) == 0) {
            long const late = random.Below(latenessUs);
            timeUs -= late % stepUs_ == 0 ? late + 1 : late;
        } else {
            probeKey = place;
            probeUs = static_cast<unsigned long>(timeUs);
        }
        at = std::copy(key.wire.begin(), key.wire.end(), at);
        unsigned char const* const shipped = at;
        at = bench_PutNumber8(at, static_cast<unsigned long>(timeUs));
        for (int i = 1; i < spec.fieldCount; ++i) at = PutField(at, spec.Type(i), record, random);
        ++key.records;
        key.checksum += bench_Checksum(shipped, static_cast<std::size_t>(at - shipped));
        auto const body = static_cast<std::size_t>(at - frame) - SUTL_FRAME_HEADER_BYTES;
        if (body + static_cast<std::size_t>(recordBytesMax) > options.frameBodyBytes || record + 1 == records_) {
            bench_PutNumber4(frame, static_cast<unsigned int>(body));
            frames_.push_back({static_cast<std::size_t>(at - bytes_.get()), record + 1, probeKey, probeUs});
            frame = nullptr;
            probeUs = 0;
        }
    }
    size_ = static_cast<std::size_t>(at - bytes_.get());
}

bench_Workload::Key const& bench_Workload::HottestKey() const {
    return *std::max_element(keys_.begin(), keys_.end(),
                             [](Key const& a, Key const& b) { return a.records < b.records; });
}

std::span<unsigned char const> bench_Workload::FrameBytes(std::size_t frame) const {
    std::size_t const begin = frame == 0 ? 0 : frames_[frame - 1].end;
    return Bytes().subspan(begin, frames_[frame].end - begin);
}

unsigned long bench_Workload::FrameRecords(std::size_t frame) const {
    return static_cast<unsigned long>(frames_[frame].recordsEnd - (frame == 0 ? 0 : frames_[frame - 1].recordsEnd));
}

template <typename Call>
void bench_Workload::ForRecords(std::size_t frame, Call call) {
    auto const bytes = FrameBytes(frame);
    unsigned char* const begin = bytes_.get() + (bytes.data() - bytes_.get());
    unsigned char const* const end = begin + bytes.size();
    unsigned char const* at = begin + SUTL_FRAME_HEADER_BYTES;
    while (at != end) {
        unsigned char const* const time = keyShape_.Behind(at, end);
        if (time == nullptr) return;
        at = valueShape_.Behind(time + SUTS_NUMBER8_BYTES, end);
        if (at == nullptr) return;  // never: the frame was made here
        call(begin + (time - begin), at);
    }
}

void bench_Workload::ShiftLap(std::size_t frame, long laps) {
    unsigned long const us = LapUs() * static_cast<unsigned long>(laps);  // a negative one wraps, and so does the sum
    ForRecords(frame,
               [us](unsigned char* time, unsigned char const*) { bench_PutNumber8(time, bench_Number8(time) + us); });
}

void bench_Workload::SumUp(unsigned long frames) {
    for (Key& key : keys_) key.records = key.checksum = 0;
    std::size_t const perLap = frames_.size();
    for (std::size_t frame = 0; frame < perLap && frame < frames; ++frame) {
        auto const laps = static_cast<long>((frames - frame + perLap - 1) / perLap);
        ShiftLap(frame, 1 - laps);
        for (long lap = 0; lap < laps; ++lap) {
            if (lap > 0) ShiftLap(frame, 1);
            auto record = static_cast<std::size_t>(frame == 0 ? 0 : frames_[frame - 1].recordsEnd);
            ForRecords(frame, [this, &record](unsigned char const* time, unsigned char const* end) {
                Key& key = keys_[keyOf_[record++]];
                ++key.records;
                key.checksum += bench_Checksum(time, static_cast<std::size_t>(end - time));
            });
        }
    }
}

bool bench_Workload::FrameOf(unsigned long timeUs, unsigned long& frame) const {
    auto const start = static_cast<unsigned long>(START_US);
    auto const step = static_cast<unsigned long>(stepUs_);
    if (timeUs < start || (timeUs - start) % step != 0) return false;
    unsigned long const record = (timeUs - start) / step;
    auto const perLap = static_cast<unsigned long>(records_);
    auto const inLap = static_cast<long>(record % perLap);
    auto const found = std::upper_bound(frames_.begin(), frames_.end(), inLap,
                                        [](long number, Frame const& one) { return number < one.recordsEnd; });
    frame = record / perLap * frames_.size() + static_cast<unsigned long>(found - frames_.begin());
    return true;
}
