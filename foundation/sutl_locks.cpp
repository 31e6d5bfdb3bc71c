#include "sutl_locks.h"

#include <cerrno>

bool sutl_Thread::Start(void* (*body)(void*), void* argument, char const* name) {
    int const error = pthread_create(&thread_, nullptr, body, argument);
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
