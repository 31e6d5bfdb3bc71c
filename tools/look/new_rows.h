// What a reply holds that the ones before did not.
#pragma once

#include <unordered_map>

#include "log_walker.h"
#include "query_client.h"

// Compares whole replies to one question, record by record. What is gone from a reply has left the window, and is
// forgotten; but where the newest record is gone, and nothing newer came, the server may have been started again and
// not yet have placed its replay, so that everything is remembered for a while. Memory is that of 32 bytes a record of
// the window. One thread at a time.
class NewRows {
 public:
    void LeaveIn(QueryReply& reply);  // those alone

 private:
    struct HashOfHash {
        std::size_t operator()(KeyHash const& hash) const { return hash.low; }
    };
    using Counts = std::unordered_map<KeyHash, unsigned long, HashOfHash>;

    Counts before_;       // of equal records
    long newestUs_ = -1;  // of the last reply
    int keptReplies_ = 0;
};
