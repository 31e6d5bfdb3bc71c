#include "query_client.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <thread>

#include "brindle_records.h"
#include "own_address.h"
#include "sutl_tcpsocket.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds TURN_PAUSE{50};  // between two looks whether the other client has left

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};

// Whether a program of this machine has accepted a connection on a port. One that still waits to be accepted, as ours
// does behind another client's, belongs to no inode.
bool HasAcceptedConnection(unsigned short port) {
    static constexpr unsigned int LISTENING = 0x0A;
    std::unique_ptr<FILE, FileCloser> const table(fopen("/proc/net/tcp", "re"));
    char line[512];
    while (table != nullptr && fgets(line, sizeof line, table.get()) != nullptr) {
        unsigned int localPort = 0;
        unsigned int state = 0;
        unsigned long inode = 0;
        int const fields =
            sscanf(line, " %*u: %*x:%x %*x:%*x %x %*x:%*x %*x:%*x %*x %*u %*u %lu", &localPort, &state, &inode);
        if (fields == 3 && localPort == port && state != LISTENING && inode != 0) return true;
    }
    return false;
}

bool IsSame(brindle_Value const& a, brindle_Value const& b) {
    return a.type == b.type && a.number == b.number &&
           std::bit_cast<unsigned long>(a.real) == std::bit_cast<unsigned long>(b.real) && a.text == b.text;
}

}  // namespace

bool QueryReply::Take(std::span<unsigned char const> body, suts_tsspec const& spec) {
    bytes_.assign(body.begin(), body.end());
    rows_.clear();
    brindle_MessageReader message(bytes_);
    std::vector<brindle_Value> values;
    bool whole = true;
    while (whole && message.BytesLeft() > 0) {
        Row row = {0, bytes_.size() - message.BytesLeft(), 0};
        whole = brindle_TakeRecord(message, spec, row.timeUs, values) == BRINDLE_DONE;
        row.bytes = bytes_.size() - message.BytesLeft() - row.offset;
        if (whole) rows_.push_back(row);
    }
    // Within a bucket the latest arrival comes first.
    std::reverse(rows_.begin(), rows_.end());
    std::stable_sort(rows_.begin(), rows_.end(), [](Row const& a, Row const& b) { return a.timeUs < b.timeUs; });
    return whole;
}

void QueryReply::Decode(Row const& row, suts_tsspec const& spec, std::vector<brindle_Value>& values) const {
    brindle_MessageReader message(Bytes(row));
    long timeUs = 0;
    static_cast<void>(brindle_TakeRecord(message, spec, timeUs, values));  // it was read once
}

void QueryReply::KeepNewest(std::size_t rows) {
    if (rows_.size() > rows) rows_.erase(rows_.begin(), rows_.end() - static_cast<long>(rows));
}

QueryClient::Result QueryClient::Connect() {
    in_addr host = {};
    if (brindle_FindHost(address_.host, host) != BRINDLE_DONE) return UNKNOWN_HOST;
    // To wait in the line would be harmless, but would not tell whom for.
    if (IsOwnAddress(host)) {
        Clock::time_point const deadline = Clock::now() + wait_;
        while (HasAcceptedConnection(address_.firstPort)) {
            if (Clock::now() + TURN_PAUSE > deadline) return OTHERS_FIRST;
            std::this_thread::sleep_for(TURN_PAUSE);
        }
    }
    connection_.emplace();
    brindle_Result const opened = connection_->Open(address_, wait_);
    if (opened == BRINDLE_DONE) {
        connection_->EndSecondFirst();
        return REPLIED;
    }
    int const error = errno;
    Leave();
    errno = error;
    return opened == BRINDLE_UNKNOWN_HOST ? UNKNOWN_HOST : NO_SERVER;
}

QueryClient::Result QueryClient::Converse(brindle_Message& query, brindle_Value const& key, QueryReply& reply) {
    std::span<unsigned char const> body;
    brindle_Result result = connection_->Send(query);
    if (result == BRINDLE_DONE) result = connection_->Receive(body, wait_);
    if (result == BRINDLE_TIMED_OUT) return NO_REPLY;
    if (result != BRINDLE_DONE) {
        if (result != BRINDLE_SYSTEM_ERROR) errno = 0;
        return LEFT;
    }
    if (!reply.Take(body, spec_)) return BAD_REPLY;
    std::vector<brindle_Value> values;
    for (QueryReply::Row const& row : reply.Rows()) {
        reply.Decode(row, spec_, values);
        if (!IsSame(values[0], key)) return REPLY_OF_ANOTHER;
    }
    return REPLIED;
}

QueryClient::Result QueryClient::Ask(brindle_Value const& key, long fromUs, long toUs, QueryReply& reply) {
    brindle_Message query;
    if (brindle_MakeQuery(query, spec_, key, fromUs, toUs) != BRINDLE_DONE) return BAD_KEY;
    if (!connection_.has_value()) {
        if (Result const connected = Connect(); connected != REPLIED) return connected;
    }
    Result const result = Converse(query, key, reply);
    int const error = errno;
    if (result != REPLIED) Leave();
    errno = error;
    return result;
}
