// The data receiver: the producer's conversation.
#pragma once

#include <atomic>

#include "sutl_frame.h"
#include "sutl_netorderbytefield.h"
#include "sutl_tcpsockserver.h"
#include "uts_recorddecoder.h"
#include "uts_stager.h"
#include "uts_tsspec.h"

// Serves one producer, the only one of the process's life, on the main thread: records come on its first connection,
// the second is accepted and stays unused. Nothing is sent back. Owned by the entry, as everything it is given.
class suts_DataReceiver {
 public:
    // How a run ends.
    enum RunEnd {
        TERMINATION_END,  // the producer orders an immediate stop; both connections stay open
        CONNECTION_END,   // the producer's first connection, or its taking by SIGTERM, is over; both are closed
        ACCEPT_END        // a connection could not be accepted; one accepted before stays open
    };

    suts_DataReceiver(sutl_TCPSockServer& endpoint, sutl_NetorderByteField& field, suts_tsspec const& spec,
                      suts_Stager& stager, std::atomic<bool> const& stop)
        : endpoint_(endpoint), field_(field), spec_(spec), stager_(stager), stop_(stop), decoder_(spec) {}

    // Accepts the producer and passes its records to the stager until the run ends. Blocks. SIGTERM ends what it waits
    // for: whole frames that have arrived by then are still taken.
    [[nodiscard]] RunEnd Run();

 private:
    [[nodiscard]] bool AcceptProducer();
    [[nodiscard]] sutl_FrameResult TakeFrames();
    [[nodiscard]] bool TakeRecords();

    sutl_TCPSockServer& endpoint_;
    sutl_NetorderByteField& field_;  // the frame at hand
    suts_tsspec const& spec_;
    suts_Stager& stager_;
    std::atomic<bool> const& stop_;  // by SIGTERM
    suts_RecordDecoder decoder_;
};
