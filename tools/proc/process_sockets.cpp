#include "process_sockets.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "sutl_descriptor.h"

namespace {

constexpr std::size_t IPV4_DIGITS = 8;
constexpr std::size_t IPV6_DIGITS = 32;
constexpr char MAPPED_IPV4[] = "0000000000000000FFFF0000";  // in the digits of an IPv6 address before an IPv4 one

// Reads an address as the table writes it: words of the memory in hexadecimal.
bool ParseHost(std::string const& digits, TcpSocket& socket) {
    if (digits.size() == IPV6_DIGITS) {
        socket.isEveryHost = digits.find_first_not_of('0') == std::string::npos;
        socket.isForeignIp = !socket.isEveryHost && !digits.starts_with(MAPPED_IPV4);
    } else if (digits.size() != IPV4_DIGITS) {
        return false;
    }
    std::string const last = digits.substr(digits.size() - IPV4_DIGITS);
    socket.localHost.s_addr = static_cast<in_addr_t>(strtoul(last.c_str(), nullptr, 16));
    if (digits.size() == IPV4_DIGITS) socket.isEveryHost = socket.localHost.s_addr == htonl(INADDR_ANY);
    return true;
}

// False for the line with the names of the columns, too.
bool ParseLine(char const* line, TcpSocket& socket) {
    char local[IPV6_DIGITS + 1] = {};
    char remote[IPV6_DIGITS + 1] = {};
    unsigned int localPort = 0;
    unsigned int remotePort = 0;
    int const found = sscanf(line, " %*u: %32[0-9A-F]:%X %32[0-9A-F]:%X %X %*s %*s %*s %*u %*u %u", local, &localPort,
                             remote, &remotePort, &socket.state, &socket.inode);
    constexpr int FIELDS = 6;
    socket.localPort = static_cast<unsigned short>(localPort);
    socket.remotePort = static_cast<unsigned short>(remotePort);
    return found == FIELDS && ParseHost(local, socket);
}

}  // namespace

std::set<unsigned int> SocketsOf(pid_t pid) {
    std::set<unsigned int> sockets;
    std::string const folder = fmt::format("/proc/{}/fd", pid);
    std::unique_ptr<DIR, int (*)(DIR*)> const names(opendir(folder.c_str()), closedir);
    if (names == nullptr) return sockets;
    while (dirent const* const entry = readdir(names.get())) {
        char target[64] = {};
        if (readlink(fmt::format("{}/{}", folder, entry->d_name).c_str(), target, sizeof target - 1) <= 0) continue;
        unsigned int inode = 0;
        if (sscanf(target, "socket:[%u]", &inode) == 1) sockets.insert(inode);
    }
    return sockets;
}

bool ReadTcpTable(TcpTable table, std::function<bool(TcpSocket const&)> const& take) {
    for (char const* const path : {"/proc/self/net/tcp", "/proc/self/net/tcp6"}) {
        std::unique_ptr<FILE, int (*)(FILE*)> const file(fopen(path, "re"), fclose);
        // A kernel without IPv6 has no such table.
        if (file == nullptr && errno == ENOENT) continue;
        if (file == nullptr) return false;
        char line[512];
        while (fgets(line, sizeof line, file.get()) != nullptr) {
            TcpSocket socket;
            if (ParseLine(line, socket) && !take(socket)) return true;
        }
        if (ferror(file.get()) != 0) return false;
        if (table == TcpTable::IPV4) break;
    }
    return true;
}
