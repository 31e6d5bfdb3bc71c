#include "front.h"

#include <malloc.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "checksum.h"
#include "records.h"

namespace {

constexpr std::size_t BATCH_BYTES = 1 << 20;  // at most so many, and less when the producer pauses, are one commit
constexpr std::size_t SHIP_BYTES = 1 << 18;   // blocks of so many make a message, unless there are too many of them
constexpr int MALLOC_KEPT_BYTES = 32 << 20;
constexpr std::size_t MESSAGE_HEAD_BYTES = SUTL_FRAME_HEADER_BYTES + SUTS_SHIP_TYPE_BYTES;

unsigned char* Bytes(std::string& text, std::size_t place) {
    return reinterpret_cast<unsigned char*>(text.data()) + place;
}

std::span<unsigned char const> Bytes(std::string const& text) {
    return {reinterpret_cast<unsigned char const*>(text.data()), text.size()};
}

std::string_view Text(unsigned char const* begin, unsigned char const* end) {
    return {reinterpret_cast<char const*>(begin), static_cast<std::size_t>(end - begin)};
}

class Front {
 public:
    Front(bench_StandIn const& link, suts_tsspec const& spec, bench_PeerStore& store)
        : link_(link), reader_(spec), dues_(link.windowUs), store_(store), handOff_(link.consumer.first.Get()) {}

    int Run() {
        std::vector<unsigned char> buffer(2 * BATCH_BYTES);
        std::size_t kept = 0;
        std::size_t uncommitted = 0;
        while (true) {
            ssize_t const count = recv(link_.producer.FirstConnection(), buffer.data() + kept, BATCH_BYTES,
                                       uncommitted > 0 ? MSG_DONTWAIT : 0);
            if (count < 0 && errno == EINTR) continue;
            if (count < 0 && errno != EAGAIN) bench_Fail("receive");
            if (count == 0) break;
            if (count > 0) {
                unsigned char const* const end = buffer.data() + kept + count;
                unsigned char const* const rest =
                    reader_.Take(buffer.data(), end, [this](bench_WireRecord const& record) { Put(record); });
                kept = static_cast<std::size_t>(end - rest);
                memmove(buffer.data(), rest, kept);
                if (kept > BATCH_BYTES) bench_FailStore("receive", "a record that is too large");
                uncommitted += static_cast<std::size_t>(count);
            }
            if (count < 0 || uncommitted >= BATCH_BYTES) {
                Commit();
                uncommitted = 0;
            }
        }
        HandOff();
        return kept == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }

 private:
    void Put(bench_WireRecord const& record) {
        if (dues_.Due(record.Time())) HandOff();
        unsigned char number[BENCH_NUMBER_BYTES];
        bench_PutNumber4(number, ++records_);
        texts_ += Text(record.key, record.Value());
        texts_ += Text(number, number + sizeof number);
        texts_ += Text(record.Value(), record.end);
        ends_.push_back({texts_.size(), static_cast<std::size_t>(record.behindKey - record.key)});
    }

    void Commit() {
        std::size_t begin = 0;
        for (End const& end : ends_) {
            batch_.emplace_back(std::string_view(texts_).substr(begin, end.place - begin), end.keyBytes);
            begin = end.place;
        }
        std::sort(batch_.begin(), batch_.end());
        for (std::size_t i = 0; i < batch_.size(); ++i) {
            if (i == 0 || batch_[i].Key() != batch_[i - 1].Key()) handOff_.Announce(batch_[i].Key());
        }
        if (!batch_.empty()) store_.Commit(batch_);
        batch_.clear();
        texts_.clear();
        ends_.clear();
    }

    void HandOff() {
        Commit();
        handOff_.Begin();
        store_.Drain(handOff_);
        handOff_.End();
        store_.Clear();
        records_ = 0;
    }

    struct End {
        std::size_t place;
        std::size_t keyBytes;
    };

    bench_StandIn const& link_;
    bench_RecordReader reader_;
    bench_HandOffs dues_;
    bench_PeerStore& store_;
    bench_HandOff handOff_;
    unsigned int records_ = 0;  // since the last hand-off
    std::string texts_;         // of the records that are not committed
    std::vector<End> ends_;     // of each of them
    std::vector<bench_SortedRecord> batch_;
};

}  // namespace

void bench_FailStore(char const* what, char const* why) {
    fprintf(stderr, "%s: %s\n", what, why);
    exit(EXIT_FAILURE);
}

bench_SortedRecord::bench_SortedRecord(std::string_view text, std::size_t keyBytes) : text_(text), keyBytes_(keyBytes) {
    if (text.size() < ValueStart()) bench_FailStore("record", "it is cut");
    auto const* const bytes = reinterpret_cast<unsigned char const*>(text.data());
    first_ = bench_Number8(bytes);
    second_ = bench_Number8(bytes + sizeof first_);
}

bench_SortedRecord bench_RecordForm::Read(std::string_view text) const {
    auto const* const begin = reinterpret_cast<unsigned char const*>(text.data());
    unsigned char const* const behindKey = keyShape_.Behind(begin, begin + text.size());
    if (behindKey == nullptr) bench_FailStore("record", "its key is cut");
    return {text, static_cast<std::size_t>(behindKey - begin)};
}

std::size_t bench_HandOff::Hash::operator()(std::string_view key) const {
    return bench_Checksum(reinterpret_cast<unsigned char const*>(key.data()), key.size());
}

void bench_HandOff::Announce(std::string_view key) {
    if (announced_.find(key) != announced_.end()) return;
    announced_.emplace(key);
    if (keys_.empty()) keys_.resize(MESSAGE_HEAD_BYTES);
    keys_ += key;
}

void bench_HandOff::Begin() { Send(keys_, SUTS_SHIP_KEYS); }

void bench_HandOff::Add(std::string_view key, std::string_view time, std::string_view value) {
    if (records_ == 0 || key != key_) {
        EndBlock();
        if (blockCount_++ == 0) blocks_.resize(MESSAGE_HEAD_BYTES);
        key_ = key;
        blocks_ += key;
        countPlace_ = blocks_.size();
        blocks_.resize(countPlace_ + SUTS_NUMBER8_BYTES);
    }
    ++records_;
    blocks_ += time;
    blocks_ += value;
}

void bench_HandOff::EndBlock() {
    if (records_ > 0) bench_PutNumber8(Bytes(blocks_, countPlace_), records_);
    records_ = 0;
    if (blockCount_ == SUTS_SHIP_GROUP_KEYS_MAX || blocks_.size() >= SHIP_BYTES) Send(blocks_, SUTS_SHIP_RECORDS);
}

void bench_HandOff::End() {
    EndBlock();
    if (blockCount_ > 0) Send(blocks_, SUTS_SHIP_RECORDS);
    Send(blocks_, SUTS_SHIP_CYCLE_END);
}

void bench_HandOff::Send(std::string& message, unsigned int type) {
    if (message.empty()) message.resize(MESSAGE_HEAD_BYTES);
    auto const bodyBytes = static_cast<unsigned int>(message.size() - SUTL_FRAME_HEADER_BYTES);
    bench_PutNumber4(bench_PutNumber4(Bytes(message, 0), bodyBytes), type);
    if (!bench_Send(consumer_, Bytes(message), message.size())) bench_Fail("ship");
    message.clear();
    blockCount_ = 0;
}

int bench_RunPeer(int argc, char** argv, bench_OpenStore* open) {
    // Blocks that are used again and again stay with the process.
    mallopt(M_MMAP_THRESHOLD, MALLOC_KEPT_BYTES);
    mallopt(M_TRIM_THRESHOLD, MALLOC_KEPT_BYTES);
    bench_StandIn link(argc, argv);
    suts_tsspec spec;
    if (spec.Init(link.spec) != suts_tsspec::LOADED) return EXIT_FAILURE;
    std::unique_ptr<bench_PeerStore> const store = open(link, spec);
    link.Open();
    return Front(link, spec, *store).Run();
}
