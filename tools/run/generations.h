// The recovery directories of a server's successive runs.
#pragma once

#include <string>
#include <vector>

#include "generation_log.h"
#include "uts_tsspec.h"

// What the server of one start is given.
struct GenerationStart {
    unsigned number = 0;   // of the new generation
    std::string schema;    // its own copy of the schema
    std::string recovery;  // its empty recovery directory
    std::string replay;    // the directory to replay; empty when there is nothing to replay
};

// Every start gets a generation, a fresh recovery directory of its own, and replays all older ones whose records are
// not known to be safe elsewhere. The state directory holds
//
//     lock             see StateLock, which the owner of this object must hold
//     gen-000001/      a start
//         schema.spec      the schema it was written under
//         recovery/        the server's recovery directory; never changed by us
//         mended/          what of it replays, if there was damage inside; made from recovery/ once
//         unread           marks that some of recovery/ could not be read when mended/ was made
//     replay-000003/   what start 3 replays, unless that is one generation's directory as it stands: hard links, and
//                      copies where only a part of a file is to be read
//     aside-000001/    what was cut out of generation 1 to make mended/; only people remove it
//     kept-000001/     generation 1, which is done with but holds something that was never read: foreign files,
//                      unreadable ones, an unreadable schema; only people remove it
//     new-000003/      a generation in the making, and
//     gone-000001/     one in the removing: left-overs of an end in between, which the next preparation removes
//
// A generation comes and goes by one rename, so that it is there whole or not at all. It goes only when its records are
// on disk elsewhere, so an end at any point can make doubles, but no loss. One thread at a time. Everything blocks on
// the disk; a preparation reads all that is to be replayed.
class Generations {
 public:
    enum Result {
        READY,
        SCHEMA_CHANGED,  // older generations hold records of another schema; nothing was made
        FAILED           // Error() tells; nothing is lost, and the next try may succeed
    };

    // The state directory, made when it is missing. False: Error() tells.
    [[nodiscard]] bool Open(std::string const& directory);

    // Makes the next generation under this schema file and prepares what it must replay. Lines for the operator are
    // added to the notes. Whatever an earlier start left is judged anew, so this follows any end of the server.
    [[nodiscard]] Result PrepareStart(std::string const& schemaFile, GenerationStart& start,
                                      std::vector<std::string>& notes);
    // The same under the schema of the oldest generation with records, replaying only generations of that schema: what
    // to do after SCHEMA_CHANGED, once per schema, until PrepareStart no longer says so. FAILED when there is none.
    [[nodiscard]] Result PrepareDrain(GenerationStart& start, std::vector<std::string>& notes);

    // Both data ports of the newest start's server listen: it has replayed everything.
    void ReplayFinished();
    // To be called now and then behind ReplayFinished: true once everything that was replayed is on disk in the new
    // generation; what was replayed is removed then. False: not yet, or Error() is not empty and tells what failed.
    [[nodiscard]] bool Settle(std::vector<std::string>& notes);
    // The newest start's server has ended. shippedAll: it had been ready and ended orderly with its consumer connected,
    // so that its generation, unless records are left in it, and what it replayed are removed; what a drain leaves is
    // kept aside, since no other one would ship it. False: Error() tells;
    // what could not be removed is replayed again.
    [[nodiscard]] bool Ended(bool shippedAll, std::vector<std::string>& notes);

    [[nodiscard]] std::string const& Error() const { return error_; }  // of the last call

 private:
    // A generation that holds records.
    struct Older {
        unsigned number = 0;
        std::string schemaText;
        suts_tsspec spec;
        GenerationLog log;
    };
    // How far a log has come on disk.
    struct Mark {
        int file = 0;    // number of the newest file; 0: not known
        long bytes = 0;  // of that file
    };
    using Notes = std::vector<std::string>;

    [[nodiscard]] std::string PathOf(char const* kind, unsigned number) const;
    [[nodiscard]] std::string RecoveryOf(unsigned number) const;
    bool Fail(std::string const& what);  // false; with the text of errno
    [[nodiscard]] bool RemoveAll(std::string const& path);
    [[nodiscard]] bool CleanUp(std::vector<unsigned>& numbers, Notes& notes);
    [[nodiscard]] bool FindOlder(std::vector<unsigned> const& numbers, std::vector<Older>& older, Notes& notes);
    [[nodiscard]] bool Judge(Older& generation, Notes& notes);
    [[nodiscard]] bool Mend(Older const& generation, std::string const& damage, Notes& notes);
    [[nodiscard]] bool DropRepeated(suts_tsspec const& spec, std::vector<Older>& older, Notes& notes);
    [[nodiscard]] bool MakeNew(std::string const& schemaText);
    [[nodiscard]] Result Prepare(std::string const* schemaFile, GenerationStart& start, Notes& notes);
    [[nodiscard]] bool PrepareReplay(suts_tsspec const& spec, std::vector<Older>& older, GenerationStart& start,
                                     Notes& notes);
    [[nodiscard]] bool Finish(GenerationStart& start);
    [[nodiscard]] bool SyncLog(std::string const& recovery);
    [[nodiscard]] bool SyncNewest();
    [[nodiscard]] bool FindNewestFile(Mark& newest);
    [[nodiscard]] bool Keep(unsigned number, std::string const& why, Notes& notes);
    [[nodiscard]] bool Remove(unsigned number, Notes& notes);
    [[nodiscard]] bool RemoveReplayed(Notes& notes);

    std::string directory_;
    std::string error_;
    unsigned newest_ = 0;             // of the newest start, while its server may run; 0: none
    unsigned last_ = 0;               // the greatest number met or given
    std::vector<unsigned> replayed_;  // by the newest start, and not yet removed
    bool replayFinished_ = false;
    bool isDrain_ = false;  // the newest start is
    Mark mark_;             // of the newest generation when its replay was known to be finished
};
