// The shipper: the connection to the downstream consumer, and the ship thread.
#pragma once

#include <atomic>

#include "sutl_locks.h"
#include "uts_stgkeyindex.h"
#include "uts_stgrecovery.h"
#include "uts_stgshipassembly.h"
#include "uts_stgshiplink.h"
#include "uts_tsspec.h"

// What the organizer asks the ship thread to do in one cycle. Set before the cycle starts, read only by the ship thread
// while it runs.
struct suts_StgShipJob {
    suts_StgKeyIndex* keys = nullptr;
    suts_StgChunkStore* chunks = nullptr;  // where the memory of shipped records goes
    unsigned long upperTimeBound = 0;      // microseconds; records at or after it stay in the buckets
    unsigned long bucketNumber = 0;        // the newest bucket to ship
    bool final = false;                    // no cycle follows
};

// Sends, per cycle, the keys that are new, the records of every key, and an end-of-cycle message, all on the first of
// its two connections. Owned by suts_Stager. The organizer thread posts jobs and stops it; a second stop does nothing.
//
// While the connection is lost, records are marked and dropped all the same, as a server without a consumer has no
// other use for them. A cycle, but for the final one, begins with an attempt to make a lost connection anew; every key
// is then announced again.
class suts_StgShipper {
 public:
    // Connects and starts the ship thread, connected or not. Blocks for as long as the system takes to connect, or
    // until stop is true. Where the thread cannot be started it cleans up what this start has created, and aborts.
    // Ports are in host order.
    suts_StgShipper(suts_StgRecovery& recovery, suts_tsspec const& spec, char const* host, unsigned short port1,
                    unsigned short port2, std::atomic<bool> const& stop, long messageBytesMax = SUTS_MESSAGE_BYTES_MAX);
    suts_StgShipper(suts_StgShipper const&) = delete;
    suts_StgShipper& operator=(suts_StgShipper const&) = delete;

    // Blocks until no cycle runs.
    void WaitUntilIdle() SUTL_EXCLUDES(mutex_);
    // Starts a cycle; none must be running.
    void Post(suts_StgShipJob const& job) SUTL_EXCLUDES(mutex_);
    // Ends the ship thread after the cycle that runs, if one does, joins it and closes both connections.
    void Stop() SUTL_EXCLUDES(mutex_);

 private:
    friend void* suts_RunShipper(void* shipper);

    enum State { IDLE = 0, REQUESTED = 1, FINISHED = 2, TERMINATE = 3 };
    static constexpr int WAKES_THREAD = 1;                // the bit that REQUESTED and TERMINATE share
    static constexpr int PREFETCH_KEYS = 8;               // how far ahead of its use memory is asked for
    static constexpr unsigned long PREFETCH_BUCKETS = 2;  // as many as are new in most cycles

    State WaitForOrder() SUTL_EXCLUDES(mutex_);
    void FinishCycle() SUTL_EXCLUDES(mutex_);
    // Ship thread only, as the rest.
    void RunCycle();
    void AnnounceKeys(suts_StgKeyIndex& keys);
    void PrefetchRecords(sutl_list_base_iter const& at) const;
    void ShipRecords(suts_StgKeyIndex& keys);
    void Send();

    suts_StgRecovery& recovery_;
    suts_tsspec const& spec_;
    sutl_Mutex mutex_;
    sutl_Condition condition_;  // the state has changed
    State state_ SUTL_GUARDED_BY(mutex_) = IDLE;
    suts_StgShipJob job_ SUTL_GUARDED_BY(mutex_);
    suts_StgShipJob running_;  // ship thread: the job of the cycle that runs
    suts_StgShipBatch batch_;  // ship thread: messages and records being assembled
    suts_StgShipLink link_;    // ship thread, until it has ended
    sutl_Thread thread_;       // started last
};

// Body of the ship thread.
void* suts_RunShipper(void* shipper);
