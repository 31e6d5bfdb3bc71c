// The query service: answers queries on the staged records of one key.
#pragma once

#include <atomic>
#include <memory>

#include "sutl_dqueue.h"
#include "sutl_locks.h"
#include "sutl_netorderbytefield.h"
#include "sutl_rawbytefield.h"
#include "sutl_tcpsockserver.h"
#include "uts_fieldtranslation.h"
#include "uts_stager.h"
#include "uts_tsspec.h"

// One query thread serves one client pair at a time: requests come on the first connection, replies leave on the
// second. The thread is never joined; it may be inside a search or come back from an accept while the engine and the
// stager are destroyed. So everything it uses is here, shared by the engine and the thread, and the stager is reached
// through a gate that the engine's destructor closes.
class suts_StgQueryService {
 public:
    suts_StgQueryService(suts_Stager* stager, suts_tsspec const& spec, long replyBytesMax);

    void Listen(unsigned short requestPort, unsigned short replyPort) { endpoint_.Listen(requestPort, replyPort); }

    // Ends the service: waits for a search in progress, which reads memory only; afterwards the stager is not touched
    // any more and nothing is printed. From the thread that destroys the engine.
    void Close() SUTL_EXCLUDES(gate_);

    // Closes the service and ends the conversation at hand, as if the client had left, when the request at hand is
    // answered. Waits until the client's connections are closed in order, but for no longer than 10 s. The query thread
    // must have been started.
    void Finish() SUTL_EXCLUDES(gate_, threadMutex_);

    // Body of the query thread: serves client after client until an accept fails or the service is closed.
    void Run();

 private:
    static constexpr unsigned long HITS_PER_BLOCK = 8;

    // A staged record found by a search; the value is a copy, whose bytes lie in hitBytes_.
    struct Hit {
        unsigned long time;  // microseconds
        sutl_RawBytefield value;
    };

    struct Request {
        unsigned long timeFrom;
        unsigned long timeTo;   // inclusive
        sutl_RawBytefield key;  // stored form; owned
        bool keyCanMatch;       // false for a text that no staged key can equal
    };

    enum SearchResult { SEARCHED, REPLY_TOO_LONG, GATE_CLOSED };

    [[nodiscard]] bool BeginConversation() SUTL_EXCLUDES(threadMutex_);
    void EndConversation() SUTL_EXCLUDES(threadMutex_);
    void ServeClient();
    [[nodiscard]] bool ServeRequest();
    void RefuseExcess() SUTL_EXCLUDES(gate_);
    [[nodiscard]] bool DecodeRequest(Request& request);
    [[nodiscard]] bool DecodeStringKey(Request& request);
    [[nodiscard]] SearchResult Search(Request const& request) SUTL_EXCLUDES(gate_);
    [[nodiscard]] SearchResult SearchSet(Request const& request, suts_StgBucketSet& set,
                                         suts_StgOrganizer const& organizer) SUTL_REQUIRES(gate_);
    void BuildReply(Request const& request);
    void AppendFields(sutl_RawBytefield const& stored, int first, int last, int strings);
    void DropHits();

    suts_tsspec spec_;  // a copy, since the entry clears its own
    long const replyBytesMax_;
    int const keyStrings_;                        // strings among the key's and
    int const valueStrings_;                      // the value's fields
    sutl_TCPSockServer endpoint_;                 // query thread, but for StopListening and Finish
    sutl_Mutex gate_;                             // held during a search
    suts_Stager* stager_ SUTL_GUARDED_BY(gate_);  // null once the gate is closed
    std::atomic<bool> closed_{false};             // nothing is printed any more; written by the thread that closes
    sutl_Mutex threadMutex_;
    sutl_Condition threadEnded_;
    bool serves_ SUTL_GUARDED_BY(threadMutex_) = false;  // the query thread has a client, whose connections stay open
    bool ended_ SUTL_GUARDED_BY(threadMutex_) = false;   // it has closed everything
    // Query thread only.
    sutl_NetorderByteField field_;  // a request while it is decoded, then its reply
    sutl_DQUEUE<Hit> hits_;
    sutl_ByteQueue hitBytes_;
    suts_ByteScratch reply_;  // hits on their way into the field; empty between requests
    long replyBytes_ = 0;     // what the hits take in a reply
    suts_ByteScratch keyText_;
};

// Opens the query ports and starts the query thread. Owned by the entry, which destroys it before the stager.
class suts_StgQueryEngine {
 public:
    // Failures of the set-up are reported and leave a server without a query service. The schema is copied.
    suts_StgQueryEngine(suts_Stager* stager, suts_tsspec* spec, int port1, int port2,
                        long replyBytesMax = SUTS_MESSAGE_BYTES_MAX);
    suts_StgQueryEngine(suts_StgQueryEngine const&) = delete;
    suts_StgQueryEngine& operator=(suts_StgQueryEngine const&) = delete;
    // Ends the listening and closes the gate; does not wait for the thread.
    ~suts_StgQueryEngine();

    // Ends the service in order, before the destruction: see suts_StgQueryService.
    void Finish();

 private:
    bool hasThread_ = false;
    std::shared_ptr<suts_StgQueryService> service_;
};

// Body of the query thread. service: a heap-allocated std::shared_ptr<suts_StgQueryService>, which it takes over.
void* suts_StgRunQueries(void* service);
