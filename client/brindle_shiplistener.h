// The consumer's side of the ship ports.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "brindle_connection.h"
#include "brindle_framereader.h"
#include "brindle_result.h"
#include "sutl_descriptor.h"

// Opens both ports of a consumer, for * on every address of this machine. UNKNOWN_HOST, or SYSTEM_ERROR when a port is
// taken.
[[nodiscard]] brindle_Result brindle_ListenOnShipPorts(brindle_Address const& address, sutl_Descriptor& first,
                                                       sutl_Descriptor& second);

// Listens for servers and receives what they ship, one after the other or several at a time. A connection to the first
// port is read from the moment it is there, whatever comes on the second port, whose connections carry nothing: a
// server must not wait for its consumer. A connection that never says anything is none: a probe of a port does no
// harm. Closes everything at its end. One thread at a time.
class brindle_ShipListener {
 public:
    enum Event : std::uint8_t {
        CONNECTED,  // a server has come: to both ports or, if not, with its first bytes
        MESSAGE,    // Body() is a message's
        ENDED,    // of a connection that has said something: End() tells how, Body() is what has come of a last message
        NOTHING,  // within the wait
        STOPPED,  // the stop descriptor is readable
        FAILED    // of the listener itself; errno
    };

    // Opens both ports; servers can connect from then on. UNKNOWN_HOST, or SYSTEM_ERROR when a port is taken.
    brindle_Result Listen(brindle_Address const& address);

    // Waits for the next event, at most so long. While it is held back it reads nothing, so that servers wait.
    [[nodiscard]] Event Next(int stopDescriptor, std::chrono::milliseconds wait, bool holdBack = false);

    // Of the last event; valid until the next call of Next.
    [[nodiscard]] unsigned long Connection() const { return connection_; }  // counted from 1
    [[nodiscard]] std::span<unsigned char const> Body() const { return body_; }
    // STREAM_ENDED, STREAM_CUT, MALFORMED or SYSTEM_ERROR (errno).
    [[nodiscard]] brindle_Result End() const { return end_; }
    // What has come of a last message of each connection that is still open, with its number. Valid as the above.
    [[nodiscard]] std::vector<std::pair<unsigned long, std::span<unsigned char const>>> Open() const;

 private:
    static constexpr std::size_t CONNECTIONS_MAX = 16;  // more have to wait: a server has one

    struct Server {
        sutl_Descriptor socket;
        brindle_FrameReader frames;
        unsigned long number = 0;  // 0 until its first bytes
    };

    [[nodiscard]] bool Wait(int stopDescriptor, std::chrono::milliseconds wait, bool holdBack);
    void AcceptAll();
    [[nodiscard]] bool Read(Server& server, Event& event);

    sutl_Descriptor firstListener_;
    sutl_Descriptor secondListener_;
    std::vector<Server> servers_;           // of the first port
    std::vector<sutl_Descriptor> seconds_;  // of the second port; only kept open
    std::vector<short> ready_;              // what the last poll told: stop, listeners, servers, second connections
    std::size_t polledServers_ = 0;         // of these
    std::size_t turn_ = 0;                  // of the server that is read, while it has messages
    Server gone_;                           // of the last ENDED
    unsigned long connections_ = 0;
    unsigned long toTell_ = 0;   // connections of the second port, each of which is a server's
    unsigned long unheard_ = 0;  // servers that were told and have not said anything
    unsigned long connection_ = 0;
    std::span<unsigned char const> body_;
    brindle_Result end_ = BRINDLE_DONE;
};
