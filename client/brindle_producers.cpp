#include "brindle_producers.h"

#include <arpa/inet.h>
#include <ifaddrs.h>

#include <cstdio>
#include <memory>

namespace {

// States of the table.
constexpr unsigned int ESTABLISHED = 1;
constexpr unsigned int HANDSHAKE = 3;  // also of a connection that found the queue full
constexpr unsigned int CLOSE_WAIT = 8;

struct Row {
    unsigned int localAddress;  // as it stands in memory, in network order
    unsigned int localPort;
    unsigned int peerAddress;
    unsigned int peerPort;
    unsigned int state;
    unsigned long inode;  // 0 until somebody has accepted it
};

// Whether a row of the table meets the condition.
template <typename Condition>
bool HasRow(Condition condition) {
    std::unique_ptr<FILE, int (*)(FILE*)> const table(fopen("/proc/net/tcp", "re"), fclose);
    if (table == nullptr) return false;
    char line[512];
    while (fgets(line, sizeof line, table.get()) != nullptr) {
        Row row = {};
        int const taken = sscanf(line, " %*u: %8X:%4X %8X:%4X %2X %*X:%*X %*X:%*X %*X %*u %*u %lu", &row.localAddress,
                                 &row.localPort, &row.peerAddress, &row.peerPort, &row.state, &row.inode);
        if (taken == 6 && condition(row)) return true;
    }
    return false;
}

bool IsThisMachine(in_addr host) {
    constexpr unsigned int LOOPBACK_NET = 127;
    if (ntohl(host.s_addr) >> 24 == LOOPBACK_NET) return true;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return false;
    std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> const owner(list, freeifaddrs);
    for (ifaddrs const* each = list; each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET) continue;
        if (reinterpret_cast<sockaddr_in const*>(each->ifa_addr)->sin_addr.s_addr == host.s_addr) return true;
    }
    return false;
}

}  // namespace

bool brindle_HasProducer(brindle_Address const& address) {
    in_addr host = {};
    if (brindle_FindHost(address.host, host) != BRINDLE_DONE || !IsThisMachine(host)) return false;
    // By whichever of this machine's addresses the producer came.
    return HasRow([&](Row const& row) {
        bool const isServed = row.state == ESTABLISHED || row.state == CLOSE_WAIT;
        return isServed && row.localPort == address.firstPort && row.inode != 0;
    });
}

bool brindle_IsQueued(sockaddr_in const& own, sockaddr_in const& peer) {
    return HasRow([&](Row const& row) {
        bool const isOurs = row.localAddress == peer.sin_addr.s_addr && row.localPort == ntohs(peer.sin_port) &&
                            row.peerAddress == own.sin_addr.s_addr && row.peerPort == ntohs(own.sin_port);
        return isOurs && row.inode == 0 && (row.state == ESTABLISHED || row.state == HANDSHAKE);
    });
}
