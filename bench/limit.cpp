// The limit: the whole job by one thread, with no queries, no locks and nothing that could be left out. It reads, logs
// and sends in transfers of the server's size and in its forms, and keeps no record longer than half a window.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "bytes.h"
#include "checksum.h"
#include "pairs.h"
#include "records.h"

namespace {

// Collects bytes and hands them over in blocks of 4096.
template <typename Hand>
class Blocks {
 public:
    explicit Blocks(Hand hand) : hand_(hand), bytes_(2 * BLOCK) {}

    // Room for bytes that are written in place; Took tells where they end.
    unsigned char* Room(std::size_t most) {
        if (bytes_.size() < fill_ + most) bytes_.resize(fill_ + most);
        return bytes_.data() + fill_;
    }
    void Took(unsigned char const* end) {
        fill_ = static_cast<std::size_t>(end - bytes_.data());
        if (fill_ < BLOCK) return;
        std::size_t const rest = HandBlocks(bytes_.data(), fill_);
        memmove(bytes_.data(), end - rest, rest);
        fill_ = rest;
    }
    void Put(void const* bytes, std::size_t count) {
        auto const* from = static_cast<unsigned char const*>(bytes);
        if (fill_ + count >= BLOCK) {
            std::size_t const part = BLOCK - fill_;
            memcpy(bytes_.data() + fill_, from, part);
            hand_(bytes_.data(), BLOCK);
            fill_ = 0;
            std::size_t const rest = HandBlocks(from + part, count - part);
            from += count - rest;
            count = rest;
        }
        memcpy(bytes_.data() + fill_, from, count);
        fill_ += count;
    }
    void Flush() {
        if (fill_ > 0) hand_(bytes_.data(), fill_);
        fill_ = 0;
    }

 private:
    static constexpr std::size_t BLOCK = SUTL_TRANSFER_BYTES_MAX;
    static_assert(BLOCK == SUTS_LOG_BLOCK_BYTES);

    std::size_t HandBlocks(unsigned char const* bytes, std::size_t count) {
        for (; count >= BLOCK; bytes += BLOCK, count -= BLOCK) hand_(bytes, BLOCK);
        return count;
    }

    Hand hand_;
    std::size_t fill_ = 0;
    std::vector<unsigned char> bytes_;
};

struct Key {
    std::string wire;
    std::string staged;         // its records as they are shipped, in the order of arrival
    unsigned long records = 0;  // of these
    unsigned long latest = 0;   // the greatest of their times
    bool inOrder = true;        // of time
};

// Keys in the order first seen, and a table with linear probing over them.
class Keys {
 public:
    Key& Find(std::string_view wire) {
        unsigned long const hash = bench_Checksum(reinterpret_cast<unsigned char const*>(wire.data()), wire.size());
        std::size_t i = hash & (slots_.size() - 1);
        for (; slots_[i].key != nullptr; i = (i + 1) & (slots_.size() - 1)) {
            if (slots_[i].hash == hash && slots_[i].key->wire == wire) return *slots_[i].key;
        }
        Key& key = keys_.emplace_back();
        key.wire = wire;
        slots_[i] = {hash, &key};
        if (2 * keys_.size() > slots_.size()) Grow();
        return key;
    }
    [[nodiscard]] std::deque<Key>& All() { return keys_; }

 private:
    struct Slot {
        unsigned long hash = 0;
        Key* key = nullptr;
    };

    void Grow() {
        std::vector<Slot> const before = std::move(slots_);
        slots_ = std::vector<Slot>(2 * before.size());
        for (Slot const& slot : before) {
            if (slot.key == nullptr) continue;
            std::size_t i = slot.hash & (slots_.size() - 1);
            while (slots_[i].key != nullptr) i = (i + 1) & (slots_.size() - 1);
            slots_[i] = slot;
        }
    }

    std::deque<Key> keys_;
    std::vector<Slot> slots_ = std::vector<Slot>(1024);
};

class Limit {
 public:
    Limit(bench_StandIn const& link, suts_tsspec const& spec)
        : link_(link), spec_(spec), reader_(spec), dues_(link.windowUs), valueShape_(spec, 1, spec.fieldCount) {
        OpenLog();
    }

    int Run() {
        constexpr std::size_t ROOM = 1UL << 16;  // for the start of a record, and a read
        std::vector<unsigned char> buffer(ROOM);
        std::size_t kept = 0;
        while (true) {
            long const count =
                sutl_ReadSome(link_.producer.FirstConnection(), buffer.data() + kept, SUTL_TRANSFER_BYTES_MAX);
            if (count < 0 || (count == 0 && kept > 0)) return EXIT_FAILURE;
            if (count == 0) break;
            unsigned char const* const end = buffer.data() + kept + count;
            unsigned char const* const rest =
                reader_.Take(buffer.data(), end, [this](bench_WireRecord const& record) { TakeRecord(record); });
            kept = static_cast<std::size_t>(end - rest);
            if (kept + SUTL_TRANSFER_BYTES_MAX > ROOM) return EXIT_FAILURE;
            memmove(buffer.data(), rest, kept);
        }
        Ship();
        return EXIT_SUCCESS;
    }

 private:
    struct Place {
        unsigned long time;
        char const* begin;
        char const* end;
    };

    void TakeRecord(bench_WireRecord const& record) {
        unsigned long const time = record.Time();
        Log(time, record.key, record.Value(), record.end);
        if (dues_.Due(time)) Ship();
        Key& key = keys_.Find(
            {reinterpret_cast<char const*>(record.key), static_cast<std::size_t>(record.behindKey - record.key)});
        key.staged.append(reinterpret_cast<char const*>(record.behindKey),
                          static_cast<std::size_t>(record.end - record.behindKey));
        key.inOrder = key.inOrder && time >= key.latest;
        key.latest = std::max(key.latest, time);
        ++key.records;
    }

    // Logs in stored form: time, size of the value, key, value.
    void Log(unsigned long time, unsigned char const* key, unsigned char const* value, unsigned char const* end) {
        unsigned char* const head = log_.Room(static_cast<std::size_t>(end - key) + SUTS_LOG_HEAD_BYTES);
        unsigned char* const storedValue = Store(head + SUTS_LOG_HEAD_BYTES, key, 0, 1);
        unsigned char* const storedEnd = Store(storedValue, value, 1, spec_.fieldCount);
        auto const valueBytes = static_cast<int>(storedEnd - storedValue);
        memcpy(head, &time, sizeof time);
        memcpy(head + sizeof time, &valueBytes, sizeof valueBytes);
        log_.Took(storedEnd);
    }

    unsigned char* Store(unsigned char* to, unsigned char const* from, int first, int last) {
        for (int i = first; i < last; ++i) {
            if (spec_.Type(i) == SUTS_STRING64) {
                unsigned int const bytes = bench_Number4(from);
                memcpy(to, from + SUTS_STRING_LENGTH_BYTES, bytes);
                to += bytes;
                from += SUTS_STRING_LENGTH_BYTES + bytes;
            } else if (spec_.Type(i) == SUTS_INT32) {
                unsigned int const number = bench_Number4(from);
                memcpy(to, &number, sizeof number);
                to += sizeof number;
                from += sizeof number;
            } else {
                unsigned long const number = bench_Number8(from);
                memcpy(to, &number, sizeof number);
                to += sizeof number;
                from += sizeof number;
            }
        }
        return to;
    }

    // A whole cycle with everything that is there; the log of it is of no more use then.
    void Ship() {
        std::deque<Key>& keys = keys_.All();
        std::size_t bytes = 0;
        for (std::size_t i = announced_; i < keys.size(); ++i) bytes += keys[i].wire.size();
        PutMessage(SUTS_SHIP_KEYS, bytes);
        for (; announced_ < keys.size(); ++announced_) PutBytes(keys[announced_].wire);
        for (std::size_t first = 0; first < keys.size(); first += SUTS_SHIP_GROUP_KEYS_MAX) {
            std::size_t const last = std::min<std::size_t>(keys.size(), first + SUTS_SHIP_GROUP_KEYS_MAX);
            bytes = 0;
            for (std::size_t i = first; i < last; ++i) {
                bytes += keys[i].wire.size() + SUTS_NUMBER8_BYTES + keys[i].staged.size();
            }
            PutMessage(SUTS_SHIP_RECORDS, bytes);
            for (std::size_t i = first; i < last; ++i) ShipKey(keys[i]);
        }
        PutMessage(SUTS_SHIP_CYCLE_END, 0);
        out_.Flush();
        log_.Flush();
        unlink(logPath_.c_str());
        OpenLog();
    }

    void ShipKey(Key& key) {
        PutBytes(key.wire);
        out_.Took(bench_PutNumber8(out_.Room(SUTS_NUMBER8_BYTES), key.records));
        if (key.inOrder) {
            PutBytes(key.staged);
        } else {
            Sort(key);
            for (Place const& place : places_) out_.Put(place.begin, static_cast<std::size_t>(place.end - place.begin));
        }
        key.staged.clear();
        key.records = key.latest = 0;
        key.inOrder = true;
    }

    void Sort(Key const& key) {
        places_.clear();
        auto const* at = reinterpret_cast<unsigned char const*>(key.staged.data());
        unsigned char const* const end = at + key.staged.size();
        while (at != end) {
            unsigned char const* const next = valueShape_.Behind(at + SUTS_NUMBER8_BYTES, end);
            if (next == nullptr) break;  // which no record of a key does
            places_.push_back(
                {bench_Number8(at), reinterpret_cast<char const*>(at), reinterpret_cast<char const*>(next)});
            at = next;
        }
        std::stable_sort(places_.begin(), places_.end(),
                         [](Place const& a, Place const& b) { return a.time < b.time; });
    }

    void PutMessage(unsigned int type, std::size_t payloadBytes) {
        unsigned char* const at = out_.Room(SUTL_FRAME_HEADER_BYTES + SUTS_SHIP_TYPE_BYTES);
        auto const bodyBytes = static_cast<unsigned int>(SUTS_SHIP_TYPE_BYTES + payloadBytes);
        out_.Took(bench_PutNumber4(bench_PutNumber4(at, bodyBytes), type));
    }
    void PutBytes(std::string const& bytes) { out_.Put(bytes.data(), bytes.size()); }

    void OpenLog() {
        logPath_ = link_.directory + "/F" + std::to_string(++logNumber_);
        logFile_ = sutl_OpenFile(logPath_.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0700);
        if (!logFile_.IsOpen()) bench_Fail("open the log");
    }

    struct ToLog {
        Limit& limit;
        void operator()(unsigned char const* bytes, std::size_t count) const {
            if (sutl_FileWrite(limit.logFile_.Get(), bytes, count) < 0) exit(EXIT_FAILURE);
        }
    };
    struct ToConsumer {
        Limit& limit;
        void operator()(unsigned char const* bytes, std::size_t count) const {
            if (!bench_Send(limit.link_.consumer.first.Get(), {bytes, count}, count)) bench_Fail("ship");
        }
    };

    bench_StandIn const& link_;
    suts_tsspec const& spec_;
    bench_RecordReader reader_;
    bench_HandOffs dues_;
    bench_Shape const valueShape_;
    Keys keys_;
    std::size_t announced_ = 0;  // of the keys
    std::vector<Place> places_;  // of the records being sorted
    unsigned long logNumber_ = 0;
    std::string logPath_;
    sutl_Descriptor logFile_;
    Blocks<ToLog> log_{ToLog{*this}};
    Blocks<ToConsumer> out_{ToConsumer{*this}};
};

}  // namespace

int main(int argc, char** argv) {
    bench_StandIn link(argc, argv);
    link.Open();
    suts_tsspec spec;
    if (spec.Init(link.spec) != suts_tsspec::LOADED) return EXIT_FAILURE;
    return Limit(link, spec).Run();
}
