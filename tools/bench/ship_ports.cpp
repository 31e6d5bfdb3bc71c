#include "ship_ports.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "brindle_shiplistener.h"

namespace {

using Clock = std::chrono::steady_clock;

brindle_Result AcceptOne(sutl_Descriptor const& listener, Clock::time_point deadline, int stopDescriptor,
                         sutl_Descriptor& connection) {
    while (!connection.IsOpen()) {
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waited[] = {{stopDescriptor, POLLIN, 0}, {listener.Get(), POLLIN, 0}};
        int const ready = poll(waited, 2, static_cast<int>(std::max(left, 0L)));
        if (ready < 0 && errno != EINTR) return BRINDLE_SYSTEM_ERROR;
        if (ready == 0) return BRINDLE_TIMED_OUT;
        if (ready < 0) continue;
        if (waited[0].revents != 0) return BRINDLE_STOPPED;
        connection = sutl_Descriptor(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    return BRINDLE_DONE;
}

}  // namespace

brindle_Result ShipPorts::Listen(brindle_Address const& address) {
    return brindle_ListenOnShipPorts(address, first_, second_);
}

brindle_Result ShipPorts::Accept(std::chrono::milliseconds wait, int stopDescriptor, bench_Pair& pair) {
    auto const deadline = Clock::now() + wait;
    brindle_Result const accepted = AcceptOne(first_, deadline, stopDescriptor, pair.first);
    return accepted != BRINDLE_DONE ? accepted : AcceptOne(second_, deadline, stopDescriptor, pair.second);
}
