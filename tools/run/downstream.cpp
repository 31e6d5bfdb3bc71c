#include "downstream.h"

#include <arpa/inet.h>

#include "own_address.h"
#include "process_sockets.h"
#include "sutl_tcpsocket.h"

namespace {

Downstream LookAtOwn(in_addr host, brindle_Address const& ship) {
    bool first = false;
    bool second = false;
    // A table that cannot be read shows nobody, and the look is repeated.
    static_cast<void>(ReadTcpTable(TcpTable::IPV4_AND_IPV6, [&](TcpSocket const& socket) {
        if (socket.state != SOCKET_LISTENS || socket.isForeignIp) return true;
        if (!socket.isEveryHost && socket.localHost.s_addr != host.s_addr) return true;
        first = first || socket.localPort == ship.firstPort;
        second = second || socket.localPort == ship.secondPort;
        return !(first && second);
    }));
    return first && second ? Downstream::LISTENS : Downstream::REFUSES;
}

}  // namespace

bool IsOfThisMachine(std::string const& host) {
    in_addr found = {};
    return brindle_FindHost(host, found) == BRINDLE_DONE && IsOwnAddress(found);
}

Downstream AskDownstream(brindle_Address const& ship, std::chrono::milliseconds patience) {
    in_addr host = {};
    if (brindle_FindHost(ship.host, host) != BRINDLE_DONE) return Downstream::UNKNOWN_HOST;
    if (IsOwnAddress(host)) return LookAtOwn(host, ship);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(ship.secondPort);
    sutl_Descriptor const probe = sutl_OpenTcpSocket();
    bool const connected =
        probe.IsOpen() && sutl_ConnectBefore(std::chrono::steady_clock::now() + patience, probe, address);
    return connected ? Downstream::LISTENS : Downstream::REFUSES;
}
