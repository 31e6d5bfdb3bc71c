// The TCP sockets of a process, as /proc shows them. Nothing is ever connected to.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <set>

// States of a socket, as in the kernel's tables.
constexpr unsigned int SOCKET_ESTABLISHED = 1;
constexpr unsigned int SOCKET_CLOSE_WAIT = 8;
constexpr unsigned int SOCKET_LISTENS = 10;

// One line of /proc/net/tcp or tcp6. Addresses are IPv4, in network order.
struct TcpSocket {
    in_addr localHost = {};
    unsigned short localPort = 0;
    unsigned short remotePort = 0;
    unsigned int state = 0;
    unsigned int inode = 0;    // 0: no process has it any more
    bool isForeignIp = false;  // bound to an IPv6 address that no IPv4 peer can reach
    bool isEveryHost = false;  // bound to every address of the machine
};

// The numbers of the sockets that the process holds; empty when this user may not know.
[[nodiscard]] std::set<unsigned int> SocketsOf(pid_t pid);

// Calls with the TCP sockets of the network namespace in which this process lives, until a call returns false; those
// that listen come first. The kernel writes the table piece by piece, so that one of many may be missing when others
// come and go meanwhile: what is absent must be looked for again. False with errno set when the table cannot be read.
enum class TcpTable : std::uint8_t { IPV4, IPV4_AND_IPV6 };
[[nodiscard]] bool ReadTcpTable(TcpTable table, std::function<bool(TcpSocket const&)> const& take);
