#include "sutl_stopsignal.h"

#include <signal.h>

#include <cerrno>

#include "sutl_tcpsocket.h"

namespace {

// A handler is given nothing, so these two stand alone. Both belong to the main thread, on which the handler runs.
std::atomic<bool> ordered{false};
std::atomic<sutl_StopScope const*> innermost{nullptr};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<sutl_StopScope const*>::is_always_lock_free);

void HandleStopSignal(int /*number*/) {
    int const savedError = errno;
    ordered.store(true);
    sutl_StopScope::EndAll();
    errno = savedError;
}

}  // namespace

std::atomic<bool> const& sutl_CatchStopSignal() {
    struct sigaction action = {};
    action.sa_handler = HandleStopSignal;
    // No call is restarted by the system: each is made again here where it is interrupted, and a blocked read that is
    // restarted would hold the signal back under the thread sanitizer.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    return ordered;
}

// The handler finds either the scope or no scope; where it found none, the flag is seen here.
sutl_StopScope::sutl_StopScope(int descriptor) : descriptor_(descriptor), outer_(innermost.load()) {
    innermost.store(this);
    if (ordered.load()) sutl_TakeNoMore(descriptor_);
}

sutl_StopScope::~sutl_StopScope() { innermost.store(outer_); }

void sutl_StopScope::EndAll() {
    for (sutl_StopScope const* scope = innermost.load(); scope != nullptr; scope = scope->outer_) {
        sutl_TakeNoMore(scope->descriptor_);
    }
}
