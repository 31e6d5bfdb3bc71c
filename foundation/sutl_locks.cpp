#include "sutl_locks.h"

#include <signal.h>

#include <cerrno>

bool sutl_Condition::WaitBefore(std::chrono::steady_clock::time_point deadline, sutl_Mutex& mutex) {
    using namespace std::chrono;
    auto const wholeSeconds = floor<seconds>(deadline);
    timespec const until = {wholeSeconds.time_since_epoch().count(), nanoseconds(deadline - wholeSeconds).count()};
    return pthread_cond_clockwait(&condition_, &mutex.mutex_, CLOCK_MONOTONIC, &until) == 0;
}

bool sutl_Thread::Start(void* (*body)(void*), void* argument, char const* name) {
    sigset_t signals;
    sigset_t before;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    int const error = pthread_create(&thread_, nullptr, body, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
        errno = error;
        return false;
    }
    joinable_ = true;
    pthread_setname_np(thread_, name);
    return true;
}

void sutl_Thread::Join() {
    if (!joinable_) return;
    joinable_ = false;
    pthread_join(thread_, nullptr);
}

void sutl_Thread::Detach() {
    if (!joinable_) return;
    joinable_ = false;
    pthread_detach(thread_);
}
