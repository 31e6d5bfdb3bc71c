#include "server_look.h"

#include <dirent.h>
#include <fmt/format.h>

#include <memory>
#include <string>

#include "process_sockets.h"
#include "server_process.h"

namespace {

constexpr char SHIP_THREAD[] = "TShp\n";

bool HasShipThread(pid_t server) {
    std::string const folder = fmt::format("/proc/{}/task", server);
    std::unique_ptr<DIR, int (*)(DIR*)> const threads(opendir(folder.c_str()), closedir);
    if (threads == nullptr) return false;
    while (dirent const* const entry = readdir(threads.get())) {
        if (ReadSmallFile(fmt::format("{}/{}/comm", folder, entry->d_name)) == SHIP_THREAD) return true;
    }
    return false;
}

}  // namespace

ServerLook LookAtServer(pid_t server, ServerPorts const& ports) {
    ServerLook look;
    std::set<unsigned int> const own = SocketsOf(server);
    std::set<unsigned short> listens;
    // The server knows IPv4 alone.
    bool const isRead = ReadTcpTable(TcpTable::IPV4, [&](TcpSocket const& socket) {
        if (own.count(socket.inode) == 0) return true;
        if (socket.state == SOCKET_LISTENS) listens.insert(socket.localPort);
        // The peer of a client's connection may have any port.
        bool const isClient = socket.localPort == ports.data.firstPort || socket.localPort == ports.data.secondPort ||
                              socket.localPort == ports.query.firstPort || socket.localPort == ports.query.secondPort;
        if (isClient || socket.remotePort != ports.ship.firstPort) return true;
        look.link = socket.state == SOCKET_ESTABLISHED ? ServerLook::ESTABLISHED : ServerLook::BROKEN;
        look.linkInode = socket.inode;
        return look.link != ServerLook::ESTABLISHED;
    });
    if (!isRead) return {};
    auto const haveBoth = [&listens](brindle_Address const& pair) {
        return listens.count(pair.firstPort) != 0 && listens.count(pair.secondPort) != 0;
    };
    look.dataListens = haveBoth(ports.data);
    look.queryListens = haveBoth(ports.query);
    // Looked at last: the server ends the thread before it closes the connection. A thread that lives now has not
    // been followed by the close when the connection was looked at.
    look.shipperRuns = HasShipThread(server);
    return look;
}
