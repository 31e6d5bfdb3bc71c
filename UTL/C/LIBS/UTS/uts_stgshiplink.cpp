#include "uts_stgshiplink.h"

#include <netdb.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "sutl_frame.h"
#include "sutl_tcpsocket.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds ATTEMPT_INTERVAL(5);
constexpr milliseconds ATTEMPT_TIME(1000);  // for both connects together
// A listener that nobody accepts from takes a first few messages and then no more.
constexpr int RENEWED_STALL_SECONDS_MAX = 10;
constexpr int SEND_TIMEOUT_S = 1;  // between two looks at whether the peer takes anything

}  // namespace

suts_StgShipLink::suts_StgShipLink(char const* host, unsigned short port1, unsigned short port2,
                                   std::atomic<bool> const& stop)
    : state_(Connect(host, port1, port2, stop)) {}

// The host's first address with either port. False when it has none.
bool suts_StgShipLink::LookUp(char const* host, unsigned short port1, unsigned short port2) {
    hostent const* const found = gethostbyname(host);
    if (found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr) return false;
    unsigned short const ports[] = {port1, port2};
    for (int i = 0; i < 2; ++i) {
        addresses_[i].sin_family = AF_INET;
        memcpy(&addresses_[i].sin_addr, found->h_addr_list[0], sizeof addresses_[i].sin_addr);
        addresses_[i].sin_port = htons(ports[i]);
    }
    return true;
}

suts_StgShipLink::State suts_StgShipLink::Connect(char const* host, unsigned short port1, unsigned short port2,
                                                  std::atomic<bool> const& stop) {
    for (sutl_Descriptor* socket : {&firstSocket_, &secondSocket_}) {
        *socket = sutl_OpenTcpSocket();
        if (socket->IsOpen()) continue;
        perror("Socket open failed:");
        static_cast<void>(LookUp(host, port1, port2));  // for a later attempt
        return LOST;
    }
    sutl_SetNoDelay(firstSocket_);
    sutl_SetNoDelay(secondSocket_);
    if (!LookUp(host, port1, port2)) {
        fprintf(stderr, "ERROR: Hostname lookup for %s failed! \n", host);
        return LOST;
    }
    bool const firstConnected = sutl_ConnectUnless(stop, firstSocket_, addresses_[0]);
    if (firstConnected && sutl_ConnectUnless(stop, secondSocket_, addresses_[1])) return CONNECTED;
    perror("ERROR TCPClient connection failed! ");
    return firstConnected ? SECOND_MISSING : LOST;
}

void suts_StgShipLink::Send(sutl_NetorderByteField& message, unsigned long records) {
    if (sutl_SendFrame(firstSocket_.Get(), message, nullptr, 0, stallSecondsMax_)) return;
    state_ = LOST;
    ++lostMessages_;
    lostRecords_ += records;
    // Part of the message may be on its way: nothing must follow it that would be taken for its rest.
    shutdown(firstSocket_.Get(), SHUT_RDWR);
}

bool suts_StgShipLink::Renew() {
    if (state_ == CONNECTED || addresses_[0].sin_family != AF_INET) return false;
    Clock::time_point const now = Clock::now();
    if (now < nextAttempt_) return false;
    nextAttempt_ = now + ATTEMPT_INTERVAL;
    Clock::time_point const deadline = now + ATTEMPT_TIME;

    // The second first: where it is refused, no stray connection has met the first port, whose consumer would have
    // taken it for the one with the messages.
    bool const renewsFirst = state_ == LOST;
    sutl_Descriptor first = renewsFirst ? sutl_OpenTcpSocket() : sutl_Descriptor();
    sutl_Descriptor second = sutl_OpenTcpSocket();
    if (first.IsOpen() != renewsFirst || !second.IsOpen()) return false;
    if (!sutl_ConnectBefore(deadline, second, addresses_[1])) return false;
    if (renewsFirst) {
        if (!sutl_ConnectBefore(deadline, first, addresses_[0])) return false;
        sutl_SetNoDelay(first);
        sutl_SetSendTimeout(first, SEND_TIMEOUT_S);
        stallSecondsMax_ = RENEWED_STALL_SECONDS_MAX;
        firstSocket_ = std::move(first);
    }
    sutl_SetNoDelay(second);
    secondSocket_ = std::move(second);
    fprintf(stderr, "TShp: Connected again, at least %lu messages with %lu records were lost\n", lostMessages_,
            lostRecords_);
    state_ = CONNECTED;
    lostMessages_ = 0;
    lostRecords_ = 0;
    return renewsFirst;
}

void suts_StgShipLink::Close() {
    firstSocket_.Close();
    secondSocket_.Close();
}
