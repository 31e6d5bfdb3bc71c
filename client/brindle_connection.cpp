#include "brindle_connection.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <thread>

#include "brindle_producers.h"
#include "sutl_tcpsocket.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = brindle_Connection::Milliseconds;

constexpr Milliseconds RETRY_PAUSE{20};      // between two tries to connect, or two looks at the queue
constexpr Milliseconds PROGRESS_PAUSE{500};  // between two looks at what the other side has not taken

bool ParsePort(std::string_view text, unsigned short& port) {
    auto const [end, error] = std::from_chars(text.begin(), text.end(), port);
    return error == std::errc() && end == text.end() && port != 0;
}

// Waits for one of the events before the deadline. DONE, TIMED_OUT or SYSTEM_ERROR.
brindle_Result WaitFor(int descriptor, short events, Clock::time_point deadline) {
    for (;;) {
        long const left = std::chrono::ceil<Milliseconds>(deadline - Clock::now()).count();
        pollfd waited = {descriptor, events, 0};
        int const ready = poll(&waited, 1, static_cast<int>(std::clamp<long>(left, 0, INT_MAX)));
        if (ready > 0) return BRINDLE_DONE;
        if (ready == 0) return BRINDLE_TIMED_OUT;
        if (errno != EINTR) return BRINDLE_SYSTEM_ERROR;
    }
}

// Pauses, but only until the descriptor is readable; whether it is. -1 is none.
bool IsStopped(int descriptor, Milliseconds pause) {
    if (descriptor >= 0) return WaitFor(descriptor, POLLIN, Clock::now() + pause) == BRINDLE_DONE;
    std::this_thread::sleep_for(pause);
    return false;
}

// A port that nobody listens on, tried long enough, can be given to the trying socket itself.
bool IsConnectedToItself(int socket) {
    sockaddr_in own = {};
    sockaddr_in peer = {};
    socklen_t ownBytes = sizeof own;
    socklen_t peerBytes = sizeof peer;
    return getsockname(socket, reinterpret_cast<sockaddr*>(&own), &ownBytes) == 0 &&
           getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &peerBytes) == 0 && own.sin_port == peer.sin_port &&
           own.sin_addr.s_addr == peer.sin_addr.s_addr;
}

// One try. None, with errno set, when it failed or did not come about before the deadline.
sutl_Descriptor ConnectOnce(sockaddr_in const& address, Clock::time_point deadline) {
    sutl_Descriptor socket = sutl_OpenTcpSocket();
    if (!socket.IsOpen()) return {};
    sutl_SetNoDelay(socket);
    int const flags = fcntl(socket.Get(), F_GETFL);
    fcntl(socket.Get(), F_SETFL, flags | O_NONBLOCK);
    if (connect(socket.Get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
        if (errno != EINPROGRESS && errno != EINTR) return {};
        brindle_Result const waited = WaitFor(socket.Get(), POLLOUT, deadline);
        if (waited == BRINDLE_TIMED_OUT) errno = ETIMEDOUT;
        if (waited != BRINDLE_DONE) return {};
        int error = 0;
        socklen_t errorBytes = sizeof error;
        getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &errorBytes);
        errno = error;
        if (error != 0) return {};
    }
    errno = ECONNREFUSED;
    if (IsConnectedToItself(socket.Get())) return {};
    fcntl(socket.Get(), F_SETFL, flags);
    timeval const stall = {brindle_Connection::SEND_STALL_MAX.count(), 0};
    setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &stall, sizeof stall);
    return socket;
}

sutl_Descriptor ConnectBefore(in_addr host, unsigned short port, Clock::time_point deadline, int stopDescriptor) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(port);
    for (;;) {
        sutl_Descriptor socket = ConnectOnce(address, deadline);
        if (socket.IsOpen() || Clock::now() + RETRY_PAUSE > deadline) return socket;
        if (IsStopped(stopDescriptor, RETRY_PAUSE)) {
            errno = ECANCELED;
            return {};
        }
    }
}

}  // namespace

bool brindle_ParseAddress(std::string_view text, brindle_Address& address) {
    std::size_t const colon = text.rfind(':');
    std::string_view const host = colon == std::string_view::npos ? "127.0.0.1" : text.substr(0, colon);
    std::string_view const ports = colon == std::string_view::npos ? text : text.substr(colon + 1);
    std::size_t const comma = ports.find(',');
    unsigned short first = 0;
    unsigned short second = 0;
    if (host.empty() || comma == std::string_view::npos || !ParsePort(ports.substr(0, comma), first) ||
        !ParsePort(ports.substr(comma + 1), second)) {
        return false;
    }
    address = {std::string(host), first, second};
    return true;
}

brindle_Result brindle_FindHost(std::string const& host, in_addr& found) {
    addrinfo wanted = {};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &wanted, &list) != 0) return BRINDLE_UNKNOWN_HOST;
    found = reinterpret_cast<sockaddr_in const*>(list->ai_addr)->sin_addr;
    freeaddrinfo(list);
    return BRINDLE_DONE;
}

brindle_Result brindle_Connection::Open(brindle_Address const& address, Milliseconds wait, int stopDescriptor) {
    Close();
    in_addr host = {};
    if (brindle_Result const found = brindle_FindHost(address.host, host); found != BRINDLE_DONE) return found;
    Clock::time_point const deadline = Clock::now() + wait;
    first_ = ConnectBefore(host, address.firstPort, deadline, stopDescriptor);
    if (first_.IsOpen()) second_ = ConnectBefore(host, address.secondPort, deadline, stopDescriptor);
    if (second_.IsOpen()) return BRINDLE_DONE;
    int const error = errno;
    first_.Close();
    errno = error;
    return error == ECANCELED ? BRINDLE_STOPPED : BRINDLE_TIMED_OUT;
}

// The server never writes to the first connection: that it can be read means that it has ended.
bool brindle_Connection::ServerLeft(Milliseconds wait) const {
    return WaitFor(first_.Get(), POLLIN, Clock::now() + wait) == BRINDLE_DONE;
}

bool brindle_Connection::StaysInQueue(Milliseconds wait, int stopDescriptor) const {
    sockaddr_in own = {};
    sockaddr_in peer = {};
    socklen_t ownBytes = sizeof own;
    socklen_t peerBytes = sizeof peer;
    if (getsockname(first_.Get(), reinterpret_cast<sockaddr*>(&own), &ownBytes) != 0 ||
        getpeername(first_.Get(), reinterpret_cast<sockaddr*>(&peer), &peerBytes) != 0) {
        return false;
    }
    Clock::time_point const deadline = Clock::now() + wait;
    while (brindle_IsQueued(own, peer)) {
        if (Clock::now() > deadline || IsStopped(stopDescriptor, RETRY_PAUSE)) return true;
    }
    return false;
}

brindle_Result brindle_Connection::Send(brindle_Message& message) {
    if (message.BodyBytes() == 0 || message.BodyBytes() > INT_MAX) return BRINDLE_MALFORMED;
    return SendFrame(message.Frame());
}

brindle_Result brindle_Connection::SendFrame(std::span<unsigned char const> left) {
    if (ServerLeft()) return BRINDLE_STREAM_ENDED;
    while (!left.empty()) {
        // The mark at the end makes the system begin a new segment with the next header, so that none is ever cut.
        ssize_t const sent = send(first_.Get(), left.data(), left.size(), MSG_NOSIGNAL | MSG_EOR);
        if (sent >= 0) {
            left = left.subspan(static_cast<std::size_t>(sent));
        } else if (errno != EINTR) {
            return errno == EAGAIN ? BRINDLE_TIMED_OUT : BRINDLE_SYSTEM_ERROR;
        }
    }
    return BRINDLE_DONE;
}

brindle_Result brindle_Connection::Receive(std::span<unsigned char const>& body, Milliseconds wait) {
    Clock::time_point const deadline = Clock::now() + wait;
    while (!replies_.Take(body)) {
        brindle_Result result = WaitFor(second_.Get(), POLLIN, deadline);
        if (result == BRINDLE_DONE) result = replies_.Fill(second_.Get());
        if (result != BRINDLE_DONE) return result;
    }
    return BRINDLE_DONE;
}

brindle_Result brindle_Connection::Finish(Milliseconds stallMax) {
    if (ServerLeft(REFUSAL_WAIT)) {
        Close();
        return BRINDLE_STREAM_ENDED;
    }
    brindle_Result result = shutdown(first_.Get(), SHUT_WR) == 0 ? BRINDLE_DONE : BRINDLE_SYSTEM_ERROR;
    char ignored[64];
    long got = 1;
    int unsentBytes = -1;
    Clock::time_point deadline = Clock::now() + stallMax;
    while (result == BRINDLE_DONE && got > 0) {
        // What still waits here becomes less while the other side takes something.
        int waitingBytes = 0;
        if (ioctl(first_.Get(), SIOCOUTQ, &waitingBytes) == 0 && waitingBytes != unsentBytes) {
            unsentBytes = waitingBytes;
            deadline = Clock::now() + stallMax;
        }
        result = WaitFor(first_.Get(), POLLIN, std::min(deadline, Clock::now() + PROGRESS_PAUSE));
        if (result == BRINDLE_TIMED_OUT && Clock::now() < deadline) {
            result = BRINDLE_DONE;
        } else if (result == BRINDLE_DONE) {
            got = sutl_ReadSome(first_.Get(), ignored, sizeof ignored);
        }
    }
    if (got < 0) result = BRINDLE_SYSTEM_ERROR;
    int const error = errno;
    Close();
    errno = error;
    return result;
}

void brindle_Connection::EndSecondFirst() {
    if (first_.Get() > second_.Get()) return;
    // The system closes what a process leaves behind in the order of the numbers.
    sutl_Descriptor behind(fcntl(first_.Get(), F_DUPFD_CLOEXEC, second_.Get() + 1));
    if (behind.IsOpen()) first_ = std::move(behind);
}

void brindle_Connection::Close() {
    first_.Close();
    second_.Close();
    replies_ = {};
}
