#include "load_query_client.h"

#include <sys/socket.h>

#include <cstring>

#include "sutl_frame.h"

bench_QueryClient::bench_QueryClient(suts_tsspec const& spec, bench_Pair connections)
    : keyShape_(spec, 0, 1), valueShape_(spec, 1, spec.fieldCount), pair_(std::move(connections)) {}

bool bench_QueryClient::Ask(std::string const& key, unsigned long fromUs, unsigned long toUs) {
    constexpr std::size_t BODY = SUTS_QUERY_TYPE_BYTES + 2 * SUTS_NUMBER8_BYTES;
    unsigned char query[256];
    if (SUTL_FRAME_HEADER_BYTES + BODY + key.size() > sizeof query) return Fail("a key too long to ask for", false);
    unsigned char* at = bench_PutNumber4(query, static_cast<unsigned int>(BODY + key.size()));
    at = bench_PutNumber4(at, SUTS_QUERY_RANGE);
    at = bench_PutNumber8(at, fromUs);
    at = bench_PutNumber8(at, toUs);
    memcpy(at, key.data(), key.size());
    if (!bench_Send(pair_.first.Get(), {query, SUTL_FRAME_HEADER_BYTES + BODY + key.size()}, sizeof query)) {
        return Fail("no connection for queries", false);
    }
    unsigned char header[SUTL_FRAME_HEADER_BYTES];
    auto const receive = [this](unsigned char* to, std::size_t bytes) {
        return recv(pair_.second.Get(), to, bytes, MSG_WAITALL) == static_cast<ssize_t>(bytes);
    };
    if (!receive(header, sizeof header)) return Fail("no reply", false);
    reply_.resize(bench_Number4(header));
    if (!reply_.empty() && !receive(reply_.data(), reply_.size())) return Fail("a reply that ends early", false);
    return Check(key, fromUs, toUs);
}

void bench_QueryClient::Leave() { shutdown(pair_.first.Get(), SHUT_WR); }

bool bench_QueryClient::Check(std::string const& key, unsigned long fromUs, unsigned long toUs) {
    records_ = 0;
    unsigned char const* at = reply_.data();
    unsigned char const* const end = at + reply_.size();
    for (; at != end; ++records_) {
        unsigned char const* const behindKey = keyShape_.Behind(at, end);
        if (behindKey == nullptr || end - behindKey < SUTS_NUMBER8_BYTES) return Fail("a reply that is cut", true);
        if (static_cast<std::size_t>(behindKey - at) != key.size() || memcmp(at, key.data(), key.size()) != 0) {
            return Fail("a reply with another key", true);
        }
        unsigned long const time = bench_Number8(behindKey);
        if (time < fromUs || time > toUs) return Fail("a reply with a time out of its range", true);
        at = valueShape_.Behind(behindKey + SUTS_NUMBER8_BYTES, end);
        if (at == nullptr) return Fail("a reply that is cut", true);
    }
    return true;
}

bool bench_QueryClient::Fail(char const* text, bool wrong) {
    fault_ = text;
    wrong_ = wrong;
    return false;
}
