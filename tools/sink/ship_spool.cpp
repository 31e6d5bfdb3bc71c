#include "ship_spool.h"

#include <fmt/format.h>
#include <poll.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr std::chrono::milliseconds LOOK_PAUSE{200};      // between two looks at the spool's room
constexpr unsigned long UNSYNCED_BYTES_MAX = 16UL << 20;  // synced at the latest then, and in every pause

}  // namespace

bool ShipEntryView::Parse(std::span<unsigned char const> entry) {
    if (entry.size() < SHIP_ENTRY_HEADER_BYTES || entry[0] > static_cast<unsigned char>(ShipEntry::RESTARTED)) {
        return false;
    }
    kind = static_cast<ShipEntry>(entry[0]);
    memcpy(&connection, entry.data() + 1, sizeof connection);
    bytes = entry.subspan(SHIP_ENTRY_HEADER_BYTES);
    return true;
}

void ShipReceiver::Run(int stopDescriptor) {
    stopDescriptor_ = stopDescriptor;
    bool goesOn = spool_.Bytes() == 0 || Append(ShipEntry::RESTARTED, 0, {});
    while (goesOn) {
        WatchRoom();
        // While bytes wait to be synced, a look that does not wait tells whether more come at once.
        auto const wait = unsyncedBytes_ > 0 && !isFull_ ? std::chrono::milliseconds(0) : LOOK_PAUSE;
        brindle_ShipListener::Event const event = listener_.Next(stopDescriptor, wait, isFull_);
        stopped_ = event == brindle_ShipListener::STOPPED;
        goesOn = !stopped_ && TakeEvent(event) && SyncIfDue(event == brindle_ShipListener::NOTHING);
    }
    // What the open connections have brought is kept like that of those which were cut.
    for (auto const& [connection, rest] : listener_.Open()) {
        if (error_ == 0 && !rest.empty()) (void)Append(ShipEntry::REST, connection, rest);
    }
    if (error_ == 0 && spool_.Bytes() > 0) (void)Append(ShipEntry::RESTARTED, 0, {});
    if (error_ == 0 && !SyncIfDue(true)) error_ = errno;
    done_.store(true);
    spool_.Interrupt();
}

bool ShipReceiver::TakeEvent(brindle_ShipListener::Event event) {
    switch (event) {
        case brindle_ShipListener::CONNECTED:
            ++connections_;
            if (int const error = watermarks_.RaiseEpoch(); error != 0) {
                say_(fmt::format("the watermark file cannot be written: {}", strerror(error)));
            }
            return true;
        case brindle_ShipListener::MESSAGE:
            return Append(ShipEntry::MESSAGE, listener_.Connection(), listener_.Body());
        case brindle_ShipListener::ENDED:
            break;
        case brindle_ShipListener::FAILED:
            error_ = errno;
            listenerFailed_ = true;
            return false;
        default:
            return true;
    }
    switch (listener_.End()) {
        case BRINDLE_STREAM_ENDED:
            return End("");
        case BRINDLE_MALFORMED:
            return End("a message is longer than any that a server sends; is this a Brindle server?");
        case BRINDLE_SYSTEM_ERROR:
            return End(strerror(errno));
        default:
            return End("the connection was closed inside a message");
    }
}

bool ShipReceiver::End(std::string const& reason) {
    cut_ = cut_ || !reason.empty();
    auto const* const text = reinterpret_cast<unsigned char const*>(reason.data());
    bool const kept = listener_.Body().empty() || Append(ShipEntry::REST, listener_.Connection(), listener_.Body());
    return kept && Append(ShipEntry::ENDED, listener_.Connection(), {text, reason.size()}) && !options_.once;
}

bool ShipReceiver::Append(ShipEntry kind, unsigned long connection, std::span<unsigned char const> bytes) {
    unsigned char header[SHIP_ENTRY_HEADER_BYTES] = {static_cast<unsigned char>(kind)};
    memcpy(header + 1, &connection, sizeof connection);
    std::span<unsigned char const> const pieces[] = {header, bytes};
    // A server that is made to wait has its records in its own log.
    bool saidSo = false;
    while (!spool_.Append(pieces)) {
        if (errno != ENOSPC && errno != EDQUOT) {
            error_ = errno;
            return false;
        }
        if (!saidSo) say_("no room is left on the disk of the spool: the server has to wait; make room");
        saidSo = true;
        isFull_ = true;
        pollfd stop = {stopDescriptor_, POLLIN, 0};
        if (poll(&stop, 1, static_cast<int>(LOOK_PAUSE.count())) > 0) {
            error_ = ENOSPC;
            return false;
        }
    }
    if (saidSo) say_("the disk of the spool has room again");
    unsyncedBytes_ += sizeof header + bytes.size();
    return true;
}

bool ShipReceiver::SyncIfDue(bool idle) {
    if (unsyncedBytes_ == 0 || (!idle && unsyncedBytes_ < UNSYNCED_BYTES_MAX)) return true;
    unsyncedBytes_ = 0;
    if (spool_.Sync()) return true;
    error_ = errno;
    return false;
}

void ShipReceiver::WatchRoom() {
    unsigned long const bytes = spool_.Bytes();
    bool const isFull = bytes >= options_.spoolBytesMax;
    if (isFull != isFull_) {
        say_(isFull
                 ? fmt::format("the spool is full ({} bytes): the server has to wait until the destination takes more",
                               bytes)
                 : "the spool has room again");
    }
    isFull_ = isFull;
}
