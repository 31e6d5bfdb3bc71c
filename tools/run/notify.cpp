#include "notify.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

// The value of a variable, which is removed; empty when it is not set.
std::string TakeVariable(char const* name) {
    char const* const value = getenv(name);
    std::string text = value == nullptr ? "" : value;
    unsetenv(name);
    return text;
}

}  // namespace

Notifier::Notifier() : path_(TakeVariable("NOTIFY_SOCKET")) {
    std::string const watchdog = TakeVariable("WATCHDOG_USEC");
    std::string const process = TakeVariable("WATCHDOG_PID");
    if (path_.size() < 2 || path_.size() >= sizeof sockaddr_un{}.sun_path) return;
    if (path_.front() != '/' && path_.front() != '@') return;
    socket_ = sutl_Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!watchdog.empty() && (process.empty() || process == std::to_string(getpid()))) {
        // Twice within the time after which this process is taken for stuck.
        watchdogInterval_ = std::chrono::microseconds(strtol(watchdog.c_str(), nullptr, 10) / 2);
    }
}

void Notifier::Send(std::string_view text) const {
    if (!IsWanted()) return;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path_.data(), path_.size());
    if (address.sun_path[0] == '@') address.sun_path[0] = '\0';
    auto const bytes = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_.size());
    // A message that is lost costs nothing but a state shown late: the next one comes soon.
    static_cast<void>(sendto(socket_.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                             reinterpret_cast<sockaddr const*>(&address), bytes));
}

TimeExtender::TimeExtender(Notifier const& notifier) : notifier_(notifier) {
    if (notifier_.IsWanted()) thread_ = std::jthread([this](std::stop_token const& stop) { Extend(stop); });
}

void TimeExtender::Extend(std::stop_token const& stop) {
    std::chrono::microseconds pause = TIME_EXTENSION_PAUSE;
    std::string text = fmt::format("EXTEND_TIMEOUT_USEC={}", std::chrono::microseconds(TIME_EXTENSION).count());
    if (notifier_.WatchdogInterval().count() > 0) {
        pause = std::min(pause, notifier_.WatchdogInterval());
        text += "\nWATCHDOG=1";
    }
    std::unique_lock lock(mutex_);
    do {
        notifier_.Send(text);
        stopped_.wait_for(lock, stop, pause, [] { return false; });
    } while (!stop.stop_requested());
}
