// What the sink's spool holds: the messages of servers, and what happened to their connections.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "brindle_shiplistener.h"
#include "spool.h"
#include "watermark_file.h"

// An entry of the spool: its kind, the connection's number in 8 bytes, the bytes.
enum class ShipEntry : std::uint8_t {
    MESSAGE,    // a whole one
    REST,       // what had come of the last message of a connection that was cut
    ENDED,      // the connection is over; the text tells why, and is empty after an orderly end
    RESTARTED,  // all connections before are over: the sink itself was started again
};
constexpr std::size_t SHIP_ENTRY_HEADER_BYTES = 9;

struct ShipEntryView {
    ShipEntry kind;
    unsigned long connection;
    std::span<unsigned char const> bytes;

    // Of an entry that was read; false when it is none.
    [[nodiscard]] bool Parse(std::span<unsigned char const> entry);
};

// Takes what servers ship into the spool, in a thread of its own, whatever becomes of the destination. Ends when the
// stop descriptor becomes readable or, if so wanted, with the first connection.
class ShipReceiver {
 public:
    using Say = std::function<void(std::string const&)>;  // called on the receiver's thread

    struct Options {
        unsigned long spoolBytesMax;
        bool once;
    };

    ShipReceiver(brindle_ShipListener& listener, Spool& spool, WatermarkWriter& watermarks, Options options, Say say)
        : listener_(listener), spool_(spool), watermarks_(watermarks), options_(options), say_(std::move(say)) {}

    // The thread's body. The spool is its own for appending until it returns.
    void Run(int stopDescriptor);

    [[nodiscard]] bool IsDone() const { return done_.load(); }    // the spool does not grow any more
    [[nodiscard]] bool IsFull() const { return isFull_.load(); }  // the spool: servers have to wait
    [[nodiscard]] bool WasStopped() const { return stopped_.load(); }
    [[nodiscard]] int Error() const { return error_; }                     // errno of what ended it, once it is done
    [[nodiscard]] bool ListenerFailed() const { return listenerFailed_; }  // that was it, and not the spool
    [[nodiscard]] bool WasCut() const { return cut_; }  // a connection ended otherwise than a server ends it
    [[nodiscard]] unsigned long Connections() const { return connections_; }  // that have said something

 private:
    [[nodiscard]] bool TakeEvent(brindle_ShipListener::Event event);
    [[nodiscard]] bool Append(ShipEntry kind, unsigned long connection, std::span<unsigned char const> bytes);
    [[nodiscard]] bool End(std::string const& reason);
    [[nodiscard]] bool SyncIfDue(bool idle);
    void WatchRoom();

    brindle_ShipListener& listener_;
    Spool& spool_;
    WatermarkWriter& watermarks_;
    Options const options_;
    Say const say_;
    int stopDescriptor_ = -1;
    unsigned long unsyncedBytes_ = 0;
    unsigned long connections_ = 0;
    std::atomic<bool> isFull_{false};
    std::atomic<bool> stopped_{false};
    bool listenerFailed_ = false;
    bool cut_ = false;
    int error_ = 0;
    std::atomic<bool> done_{false};
};
