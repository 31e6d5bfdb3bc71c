// The ship link: the two connections to the downstream consumer.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>

#include "sutl_descriptor.h"
#include "sutl_netorderbytefield.h"

// Connects when it is made. A link whose first connection could not be made, or whose send failed, is lost: what is
// sent is dropped, and each failure reported, until Renew has connected both sockets anew. Owned by suts_StgShipper and
// used by the ship thread alone, but for its construction before and its Close after that thread's life.
class suts_StgShipLink {
 public:
    // Blocks for as long as the system takes to connect, or until stop is true. A failure is reported here and makes a
    // lost link. Ports are in host order.
    suts_StgShipLink(char const* host, unsigned short port1, unsigned short port2, std::atomic<bool> const& stop);

    // Sends one sealed message, which holds so many records, on the first connection. A failure is reported here; it
    // loses the message and the link.
    void Send(sutl_NetorderByteField& message, unsigned long records);

    // Tries once to connect what is missing, to the address found at the construction: nothing when the last attempt is
    // less than 5 s ago; blocks for a second at the most, and a failure is not reported. A success is one line, which
    // says what was lost. True when the first connection is a new one, whose consumer has seen no message.
    [[nodiscard]] bool Renew();

    void Close();

 private:
    using Clock = std::chrono::steady_clock;

    enum State {
        CONNECTED,
        SECOND_MISSING,  // since the start; the first has carried every message
        LOST             // the first has failed, in a connect or a send
    };

    [[nodiscard]] bool LookUp(char const* host, unsigned short port1, unsigned short port2);
    State Connect(char const* host, unsigned short port1, unsigned short port2, std::atomic<bool> const& stop);

    sockaddr_in addresses_[2] = {};       // of the consumer; no family when the host was not found
    sutl_Descriptor firstSocket_;         // carries the messages
    sutl_Descriptor secondSocket_;        // carries nothing
    State state_;                         // set by Connect, after the two sockets
    int stallSecondsMax_ = 0;             // of the first socket: a renewed one is given up when its peer takes nothing
    unsigned long lostMessages_ = 0;      // not sent, or not whole, since the link was lost,
    unsigned long lostRecords_ = 0;       // and the records in them
    Clock::time_point nextAttempt_ = {};  // not before this
};
