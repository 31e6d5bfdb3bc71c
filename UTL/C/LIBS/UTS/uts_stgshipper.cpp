#include "uts_stgshipper.h"

#include <cstdio>
#include <cstdlib>

#include "sutl_resourceusage.h"

suts_StgShipper::suts_StgShipper(suts_StgRecovery& recovery, suts_tsspec const& spec, char const* host,
                                 unsigned short port1, unsigned short port2, std::atomic<bool> const& stop,
                                 long messageBytesMax)
    : recovery_(recovery), spec_(spec), batch_(recovery, spec, messageBytesMax), link_(host, port1, port2, stop) {
    if (!thread_.Start(suts_RunShipper, this, "TShp")) {
        perror("ERROR, ship thread could not be started: ");
        recovery_.RemoveFirstFile();
        abort();
    }
}

// Hand-off with the organizer -------------------------------------------------

void suts_StgShipper::WaitUntilIdle() {
    sutl_MutexLock lock(mutex_);
    while (state_ != IDLE && state_ != FINISHED) condition_.Wait(mutex_);
}

void suts_StgShipper::Post(suts_StgShipJob const& job) {
    sutl_MutexLock lock(mutex_);
    job_ = job;
    state_ = REQUESTED;
    condition_.Signal();
}

void suts_StgShipper::Stop() {
    {
        sutl_MutexLock lock(mutex_);
        // A cycle that was posted is carried out first; the thread that stops twice finds nothing running.
        while (state_ == REQUESTED) condition_.Wait(mutex_);
        state_ = TERMINATE;
        condition_.Signal();
    }
    thread_.Join();
    link_.Close();
}

suts_StgShipper::State suts_StgShipper::WaitForOrder() {
    sutl_MutexLock lock(mutex_);
    while ((state_ & WAKES_THREAD) == 0) condition_.Wait(mutex_);
    running_ = job_;
    return state_;
}

void suts_StgShipper::FinishCycle() {
    sutl_MutexLock lock(mutex_);
    state_ = FINISHED;
    condition_.Signal();
}

// Ship thread -----------------------------------------------------------------

void* suts_RunShipper(void* shipper) {
    auto& self = *static_cast<suts_StgShipper*>(shipper);
    while (self.WaitForOrder() != suts_StgShipper::TERMINATE) {
        self.RunCycle();
        self.FinishCycle();
    }
    fputs(" TShp: Terminating..\n", stderr);
    return nullptr;
}

void suts_StgShipper::Send() {
    batch_.messages.SealLast();
    for (std::size_t i = 0; i < batch_.messages.Used(); ++i) {
        link_.Send(batch_.messages.Message(i), batch_.messages.Records(i));
        batch_.messages.Message(i).Reset();  // of what a failure has left unsent
    }
}

void suts_StgShipper::AnnounceKeys(suts_StgKeyIndex& keys) {
    batch_.messages.Begin(SUTS_SHIP_KEYS);
    {
        sutl_ReadLock lock(keys.lock);
        sutl_list_base_iter at = keys.shipCursor;
        if (at.IsEnd()) {
            at = keys.List().First();
        } else {
            at.StepNext();
        }
        for (; !at.IsEnd(); at.StepNext()) {
            suts_AppendKeyToMessages(batch_.messages, keys.List().Value(at).key, spec_);
            keys.shipCursor = at;
        }
    }
    Send();
}

// Asks for the newest records that the cycle will look at, ahead of their use.
void suts_StgShipper::PrefetchRecords(sutl_list_base_iter const& at) const {
    suts_StgBucketSet& set = sutl_LIST<suts_StgKeyListEntry>::Value(at).node->set;
    for (unsigned long back = 0; back < PREFETCH_BUCKETS; ++back) {
        set.PrefetchNewest((batch_.bucketNumber - back) % suts_StgBucketSet::BUCKETS);
    }
}

void suts_StgShipper::ShipRecords(suts_StgKeyIndex& keys) {
    // The cursor's own link must not be looked at without the lock: a new key may be linked behind it at any time.
    sutl_list_base_iter shipped;  // the last key shipped in this cycle; an end before the first
    while (shipped != keys.shipCursor) {
        // Entries of the list never move or vanish, so they can be used when the lock is released.
        sutl_list_base_iter group[SUTS_SHIP_GROUP_KEYS_MAX];
        int groupKeys = 0;
        {
            sutl_ReadLock lock(keys.lock);
            sutl_list_base_iter at = shipped;
            do {
                if (at.IsEnd()) {
                    at = keys.List().First();
                } else {
                    at.StepNext();
                }
                group[groupKeys++] = at;
            } while (groupKeys < SUTS_SHIP_GROUP_KEYS_MAX && at != keys.shipCursor);
        }
        for (int i = 0; i < groupKeys; ++i) sutl_LIST<suts_StgKeyListEntry>::Value(group[i]).node->Prefetch();
        batch_.messages.Begin(SUTS_SHIP_RECORDS);
        // A group that has filled a message ends early; the next group begins with the key after it.
        for (int i = 0; i < groupKeys && batch_.messages.Used() == 1; ++i) {
            if (i + PREFETCH_KEYS < groupKeys) PrefetchRecords(group[i + PREFETCH_KEYS]);
            suts_StgKeyListEntry const& entry = sutl_LIST<suts_StgKeyListEntry>::Value(group[i]);
            sutl_ReadLock lock(entry.node->set.lock);
            suts_ShipThrdAssembly(batch_, entry.key, entry.node->set);
            shipped = group[i];
        }
        batch_.marks.Flush();
        Send();
    }
}

void suts_StgShipper::RunCycle() {
    batch_.upperTimeBound = running_.upperTimeBound;
    batch_.bucketNumber = running_.bucketNumber;
    batch_.chunks = running_.chunks;
    fputs(" TShp: Starting..\n", stderr);
    sutl_ResourceUsage const usage;
    if (!running_.final && link_.Renew()) running_.keys->shipCursor.MakeEnd();
    AnnounceKeys(*running_.keys);
    fputs("TShp: Keys sent:\n", stderr);
    ShipRecords(*running_.keys);
    char prefix[64];
    snprintf(prefix, sizeof prefix, "TShp: Ship done %llu", static_cast<unsigned long long>(running_.bucketNumber));
    usage.Report(prefix, " ");
    batch_.messages.Begin(SUTS_SHIP_CYCLE_END);
    Send();
    fputs("TShp: termination sent\n", stderr);
}
