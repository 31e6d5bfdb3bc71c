// SIGTERM as the order to end: a flag, and descriptors on which nothing is waited for any longer.
#pragma once

#include <atomic>

// From now on the first SIGTERM makes the flag true, whatever the process was started with: ignored or blocked. The
// second one has its default action and ends the process at once. From the main thread, which handles the signal:
// threads of sutl_Thread hold it back. The flag is valid for the life of the process.
std::atomic<bool> const& sutl_CatchStopSignal();

// While it lives the signal ends what is received on the descriptor, or accepted, as sutl_TakeNoMore does; one that
// came before does so at once. The descriptor must stay open meanwhile, since its number may become another's when it
// is closed. -1 stands for none. On the stack of the main thread.
class sutl_StopScope {
 public:
    explicit sutl_StopScope(int descriptor);
    sutl_StopScope(sutl_StopScope const&) = delete;
    sutl_StopScope& operator=(sutl_StopScope const&) = delete;
    ~sutl_StopScope();

    // For the signal handler.
    static void EndAll();

 private:
    int const descriptor_;
    sutl_StopScope const* const outer_;  // the one that was innermost before
};
