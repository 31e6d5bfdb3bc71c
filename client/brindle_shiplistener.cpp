#include "brindle_shiplistener.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "sutl_tcpsocket.h"

namespace {

constexpr int BACKLOG = 8;
constexpr int PAUSE_MS = 100;  // where no descriptor is left for a connection

// Places in what is polled.
enum Place : std::uint8_t { STOP, FIRST, SECOND, SERVERS };

// A server whose machine is gone says nothing any more: the system asks it after half a minute, and every ten seconds.
void KeepAlive(int socket) {
    int const on = 1;
    int const idleSeconds = 30;
    int const pauseSeconds = 10;
    int const probes = 3;
    setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof idleSeconds);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &pauseSeconds, sizeof pauseSeconds);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
}

sutl_Descriptor ListenOn(in_addr host, unsigned short port) {
    sutl_Descriptor socket = sutl_OpenTcpSocket();
    if (!socket.IsOpen()) return {};
    // Connections of an earlier run that still fade away must not keep a consumer from its ports.
    int const on = 1;
    setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(port);
    if (bind(socket.Get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) return {};
    if (listen(socket.Get(), BACKLOG) != 0) return {};
    return socket;
}

}  // namespace

brindle_Result brindle_ListenOnShipPorts(brindle_Address const& address, sutl_Descriptor& first,
                                         sutl_Descriptor& second) {
    in_addr host = {htonl(INADDR_ANY)};
    if (address.host != "*") {
        if (brindle_Result const found = brindle_FindHost(address.host, host); found != BRINDLE_DONE) return found;
    }
    first = ListenOn(host, address.firstPort);
    if (!first.IsOpen()) return BRINDLE_SYSTEM_ERROR;
    second = ListenOn(host, address.secondPort);
    return second.IsOpen() ? BRINDLE_DONE : BRINDLE_SYSTEM_ERROR;
}

brindle_Result brindle_ShipListener::Listen(brindle_Address const& address) {
    return brindle_ListenOnShipPorts(address, firstListener_, secondListener_);
}

brindle_ShipListener::Event brindle_ShipListener::Next(int stopDescriptor, std::chrono::milliseconds wait,
                                                       bool holdBack) {
    gone_ = {};
    for (;;) {
        if (turn_ < servers_.size() && servers_[turn_].frames.Take(body_)) {
            connection_ = servers_[turn_].number;
            return MESSAGE;
        }
        if (toTell_ > 0) {
            --toTell_;
            ++unheard_;
            return CONNECTED;
        }
        if (!Wait(stopDescriptor, wait, holdBack)) return FAILED;
        if (ready_[STOP] != 0) return STOPPED;
        bool anything = false;
        Event event = NOTHING;
        // The next one after the one that was read last comes first.
        for (std::size_t i = 1; i <= servers_.size(); ++i) {
            std::size_t const place = (turn_ + i) % servers_.size();
            if (ready_[SERVERS + place] == 0) continue;
            anything = true;
            turn_ = place;
            if (Read(servers_[place], event)) return event;
            break;
        }
        for (std::size_t i = seconds_.size(); i-- > 0;) {
            // Nothing is sent there, so that it is readable means that it has ended.
            if (ready_[SERVERS + polledServers_ + i] != 0) seconds_.erase(seconds_.begin() + static_cast<long>(i));
        }
        if (ready_[FIRST] != 0 || ready_[SECOND] != 0) {
            AcceptAll();
            anything = true;
        }
        if (!anything) return NOTHING;
    }
}

// One look at all descriptors. False, with errno, when the system refuses.
bool brindle_ShipListener::Wait(int stopDescriptor, std::chrono::milliseconds wait, bool holdBack) {
    bool const hasRoom = servers_.size() < CONNECTIONS_MAX;
    std::vector<pollfd> waited = {{stopDescriptor, POLLIN, 0},
                                  {hasRoom ? firstListener_.Get() : -1, POLLIN, 0},
                                  {seconds_.size() < CONNECTIONS_MAX ? secondListener_.Get() : -1, POLLIN, 0}};
    // A descriptor of -1 is one that poll passes over.
    for (Server const& server : servers_) waited.push_back({holdBack ? -1 : server.socket.Get(), POLLIN, 0});
    for (sutl_Descriptor const& second : seconds_) waited.push_back({second.Get(), POLLIN, 0});
    while (poll(waited.data(), waited.size(), static_cast<int>(wait.count())) < 0) {
        if (errno != EINTR) return false;
    }
    ready_.clear();
    for (pollfd const& one : waited) ready_.push_back(one.revents);
    polledServers_ = servers_.size();
    return true;
}

void brindle_ShipListener::AcceptAll() {
    bool full = false;
    auto const acceptFrom = [&full](sutl_Descriptor const& listener) {
        sutl_Descriptor socket(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        // One that was given up before its accept is none.
        full = full || (!socket.IsOpen() && errno != EINTR && errno != ECONNABORTED);
        return socket;
    };
    if (ready_[FIRST] != 0) {
        if (sutl_Descriptor socket = acceptFrom(firstListener_); socket.IsOpen()) {
            KeepAlive(socket.Get());
            servers_.push_back({std::move(socket), {}, 0});
        }
    }
    if (ready_[SECOND] != 0) {
        if (sutl_Descriptor socket = acceptFrom(secondListener_); socket.IsOpen()) {
            KeepAlive(socket.Get());
            seconds_.push_back(std::move(socket));
            ++toTell_;
        }
    }
    // Those that say nothing must not keep others out.
    if (servers_.size() == CONNECTIONS_MAX) {
        auto const oldest =
            std::find_if(servers_.begin(), servers_.end() - 1, [](Server const& server) { return server.number == 0; });
        if (oldest != servers_.end() - 1) servers_.erase(oldest);
    }
    if (seconds_.size() == CONNECTIONS_MAX) seconds_.erase(seconds_.begin());
    // It would be ready again at once.
    if (full) poll(nullptr, 0, PAUSE_MS);
}

std::vector<std::pair<unsigned long, std::span<unsigned char const>>> brindle_ShipListener::Open() const {
    std::vector<std::pair<unsigned long, std::span<unsigned char const>>> open;
    for (Server const& server : servers_) {
        if (server.number != 0) open.emplace_back(server.number, server.frames.Rest());
    }
    return open;
}

// One read. True when there is something to tell.
bool brindle_ShipListener::Read(Server& server, Event& event) {
    brindle_Result const result = server.frames.Fill(server.socket.Get());
    if (result == BRINDLE_DONE) {
        if (server.number != 0) return false;
        server.number = ++connections_;
        bool const wasTold = unheard_ > 0;
        if (wasTold) --unheard_;
        event = CONNECTED;
        return !wasTold;
    }
    int const error = errno;
    gone_ = std::move(server);
    servers_.erase(servers_.begin() + static_cast<long>(turn_));
    errno = error;
    if (gone_.number == 0) return false;
    connection_ = gone_.number;
    body_ = gone_.frames.Rest();
    end_ = result;
    event = ENDED;
    return true;
}
