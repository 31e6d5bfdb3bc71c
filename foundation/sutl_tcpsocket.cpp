#include "sutl_tcpsocket.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds STOP_LOOK_INTERVAL(100);  // between two looks at an order to stop
// A peer that reads a few kilobytes a second makes room in great steps, many seconds apart.
constexpr int CLOSE_STALL_SECONDS_MAX = 30;
constexpr milliseconds CLOSE_LOOK_MAX(16);  // between two looks at what the peer has taken

bool Start(sutl_Descriptor const& socket, sockaddr_in const& address) {
    return connect(socket.Get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

// How a connection that was being made has turned out.
bool Outcome(sutl_Descriptor const& socket) {
    int error = 0;
    socklen_t errorBytes = sizeof error;
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &errorBytes) != 0) return false;
    errno = error;
    return error == 0;
}

// Waits for a connection that is being made; a second connect would only say so.
bool Finish(sutl_Descriptor const& socket, Clock::time_point deadline) {
    return sutl_PollBefore(deadline, socket.Get(), POLLOUT) && Outcome(socket);
}

bool FinishUnless(std::atomic<bool> const& stop, sutl_Descriptor const& socket) {
    while (!sutl_PollBefore(Clock::now() + STOP_LOOK_INTERVAL, socket.Get(), POLLOUT)) {
        if (errno != ETIMEDOUT) return false;
        if (stop.load()) {
            errno = EINTR;
            return false;
        }
    }
    return Outcome(socket);
}

// Does the rest of a connect without blocking in the connect itself.
template <typename Wait>
bool ConnectAndWait(sutl_Descriptor const& socket, sockaddr_in const& address, Wait wait) {
    int const flags = fcntl(socket.Get(), F_GETFL);
    if (flags < 0 || fcntl(socket.Get(), F_SETFL, flags | O_NONBLOCK) < 0) return false;
    bool const connected = Start(socket, address) || ((errno == EINPROGRESS || errno == EINTR) && wait());
    return connected && fcntl(socket.Get(), F_SETFL, flags) == 0;
}

bool IsOver(int connection) {
    tcp_info info = {};
    socklen_t infoBytes = sizeof info;
    return getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &infoBytes) != 0 || info.tcpi_state == TCP_CLOSE;
}

bool IsTaken(int connection) {
    int waiting = 0;
    return ioctl(connection, SIOCOUTQ, &waiting) != 0 || waiting == 0;
}

void WaitUntilTaken(int connection) {
    sutl_Stall stall(CLOSE_STALL_SECONDS_MAX);
    milliseconds pause(1);
    while (!IsTaken(connection) && !IsOver(connection) && stall.IsBearable(connection)) {
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, CLOSE_LOOK_MAX);
    }
}

// Nothing that arrives counts any more, not even the end of the peer's stream.
void DropArriving(int descriptor) {
    sock_filter dropAll = {BPF_RET | BPF_K, 0, 0, 0};
    sock_fprog const program = {1, &dropAll};
    setsockopt(descriptor, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
}

}  // namespace

sutl_Descriptor sutl_OpenTcpSocket() { return sutl_Descriptor(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)); }

void sutl_SetNoDelay(sutl_Descriptor const& socket) {
    int const on = 1;
    setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool sutl_Connect(sutl_Descriptor const& socket, sockaddr_in const& address) {
    return Start(socket, address) || (errno == EINTR && Finish(socket, Clock::time_point::max()));
}

bool sutl_ConnectBefore(Clock::time_point deadline, sutl_Descriptor const& socket, sockaddr_in const& address) {
    return ConnectAndWait(socket, address, [&] { return Finish(socket, deadline); });
}

bool sutl_ConnectUnless(std::atomic<bool> const& stop, sutl_Descriptor const& socket, sockaddr_in const& address) {
    return ConnectAndWait(socket, address, [&] { return FinishUnless(stop, socket); });
}

void sutl_SetSendTimeout(sutl_Descriptor const& socket, int seconds) {
    timeval const timeout = {seconds, 0};
    setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

bool sutl_PollBefore(Clock::time_point deadline, int descriptor, short event) {
    for (;;) {
        int leftMs = -1;
        if (deadline != Clock::time_point::max()) {
            auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            leftMs = static_cast<int>(std::clamp<long>(left, 0, INT_MAX));
        }
        pollfd waited = {descriptor, event, 0};
        int const ready = poll(&waited, 1, leftMs);
        if (ready > 0) return true;
        if (ready == 0) errno = ETIMEDOUT;
        if (errno != EINTR) return false;
    }
}

bool sutl_Stall::IsBearable(int connection) {
    int const savedError = errno;
    int waiting = 0;
    bool const known = ioctl(connection, SIOCOUTQ, &waiting) == 0;
    errno = savedError;
    Clock::time_point const now = Clock::now();
    if (waiting < waiting_) {
        waiting_ = waiting;
        since_ = now;
    }
    return known && now - since_ < timeMax_;
}

void sutl_SetZeroLinger(sutl_Descriptor const& connection) {
    linger const zero = {1, 0};
    setsockopt(connection.Get(), SOL_SOCKET, SO_LINGER, &zero, sizeof zero);
}

void sutl_TakeNoMore(int descriptor) {
    DropArriving(descriptor);
    shutdown(descriptor, SHUT_RD);
}

void sutl_CloseInOrder(sutl_Descriptor& connection) {
    if (!connection.IsOpen()) return;
    int const savedError = errno;
    WaitUntilTaken(connection.Get());
    // The peer gets the end of the stream, and behind it the reset of the close. Were its own end to arrive between the
    // two, as it does for every other peer that closes at once, the port would be blocked for a minute after all.
    DropArriving(connection.Get());
    shutdown(connection.Get(), SHUT_WR);
    connection.Close();
    errno = savedError;
}
