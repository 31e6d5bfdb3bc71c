// The server end of a conversation: two listening ports and one accepted connection on each.
#pragma once

#include <atomic>

#include "sutl_descriptor.h"

// The first connection carries messages towards the server, the second is the return channel. A failed step of the
// set-up is reported by perror and skips the rest; the accept that follows then fails. Belongs to one thread, but for
// StopListening.
class sutl_TCPSockServer {
 public:
    // Opens both sockets with TCP_NODELAY, binds them to the IPv4 wildcard address and listens. Addresses are not
    // marked reusable; the connections see to it that they need not be. Ports are in host order.
    void Listen(unsigned short firstPort, unsigned short secondPort);

    // Accepts on the first port, then on the second; blocks. False after a failure, which is reported by perror unless
    // *muted is true by then; a first connection accepted before the failure stays open. The connections have a zero
    // linger.
    [[nodiscard]] bool AcceptPair(std::atomic<bool> const* muted = nullptr);

    // Closes both listening sockets, as far as they were opened; not the connections.
    void ClosePort();
    void CloseConnections();  // in order: see sutl_CloseInOrder

    // Ends the listening without closing a descriptor, so that an accept in progress in another thread returns with a
    // failure. From any thread, after Listen.
    void StopListening() const;

    [[nodiscard]] int FirstListener() const { return firstListener_.Get(); }
    [[nodiscard]] int SecondListener() const { return secondListener_.Get(); }
    [[nodiscard]] int FirstConnection() const { return firstConnection_.Get(); }
    [[nodiscard]] int SecondConnection() const { return secondConnection_.Get(); }

 private:
    sutl_Descriptor firstListener_;
    sutl_Descriptor secondListener_;
    sutl_Descriptor firstConnection_;
    sutl_Descriptor secondConnection_;
};
