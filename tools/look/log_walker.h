// Walks the records of a recovery log's files without trusting a byte of them.
#pragma once

#include <xxhash.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sutl_descriptor.h"
#include "uts_tsspec.h"

struct LogFile {
    int number = 0;
    std::string path;
};

// A byte of a log.
struct LogPlace {
    std::size_t file = 0;  // index among the walker's files
    long offset = 0;       // bytes from that file's start
};

// Tells keys apart, however long they are.
struct KeyHash {
    unsigned long low = 0;
    unsigned long high = 0;

    bool operator==(KeyHash const&) const = default;
    static KeyHash Of(std::string_view key);  // stored form
};

// The hash of a key that comes piece by piece.
class KeyHasher {
 public:
    KeyHasher() : state_(XXH3_createState(), XXH3_freeState) { Reset(); }
    void Reset() { XXH3_128bits_reset(state_.get()); }
    void Add(void const* bytes, std::size_t count) { XXH3_128bits_update(state_.get(), bytes, count); }
    [[nodiscard]] KeyHash Get() const {
        XXH128_hash_t const hash = XXH3_128bits_digest(state_.get());
        return {hash.low64, hash.high64};
    }

 private:
    std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state_;
};

struct LogRecord {
    LogPlace start;
    long bytes = 0;   // of all of it; they may end in a later file
    long timeUs = 0;  // may be negative
    long keyBytes = 0;
    long valueBytes = 0;     // of the fields behind the key
    long declaredBytes = 0;  // what the head says of them: never less
    KeyHash hash;            // of the key
    std::string_view whole;  // head, key and value; empty where they do not fit into the window
    std::string_view key;    // its first bytes, at most KEY_BYTES_KEPT

    static constexpr std::size_t KEY_BYTES_KEPT = 1024;
    [[nodiscard]] bool IsExact() const { return valueBytes == declaredBytes; }
};

// A run of zero bytes, longer than what records hold.
struct ZeroRun {
    LogPlace start;
    long bytes = 0;
};

// Takes the files as one stream, as a replay does, and finds exactly the records that a replay finds. It reads through
// a window of fixed size: memory does not depend on what the files hold. The schema and the files' list must outlive
// it. Writes and prints nothing. One thread at a time.
class LogWalker {
 public:
    enum Result {
        RECORD,
        END,        // behind a whole record
        TORN,       // the bytes from Torn() on form no record
        READ_ERROR  // of the file FailedFile(); errno tells why
    };
    // Why the bytes form no record.
    enum Reason {
        NO_REASON,
        ENDS_IN_HEAD,       // the log ends within the 12 bytes of a head,
        ENDS_BEFORE_FIELD,  // between two fields, which a replay passes over without a word,
        ENDS_IN_FIELD,      // or within one
        LENGTH_NEGATIVE,    // the head's length is below 0,
        LENGTH_TOO_SMALL,   // or too small for the fields
        KEY_TOO_LONG        // no end within 2^31 bytes
    };

    LogWalker(suts_tsspec const& spec, std::vector<LogFile> const& files);

    // The views in the record are valid until the next call. Every other result is final.
    [[nodiscard]] Result Next(LogRecord& record);

    // Reads what the records did not reach, for FileBytes and ZeroRuns. False on a read error.
    [[nodiscard]] bool ReadRest();

    [[nodiscard]] LogPlace Torn() const { return PlaceOf(recordStart_); }
    [[nodiscard]] Reason TornReason() const { return reason_; }
    [[nodiscard]] std::size_t FailedFile() const { return files_.size() > opened_ ? opened_ : files_.size() - 1; }
    [[nodiscard]] bool CouldNotOpen() const { return couldNotOpen_; }  // the failed file, rather than read it
    [[nodiscard]] long BytesRead() const { return windowStart_ + static_cast<long>(fill_); }
    // Of the files reached; all of them after ReadRest.
    [[nodiscard]] long FileBytes(std::size_t file) const;
    [[nodiscard]] std::vector<ZeroRun> const& ZeroRuns() const { return zeroRuns_; }  // the first few
    [[nodiscard]] unsigned long ZeroRunCount() const { return zeroRunCount_; }
    // The whole record, read anew if it does not fit into the window. False on a read error.
    [[nodiscard]] bool Read(LogRecord const& record, std::string& bytes) const;

    static constexpr std::size_t ZERO_RUNS_KEPT = 20;

 private:
    enum Piece { WHOLE, NOTHING, CUT, TOO_LONG, FAILED };

    [[nodiscard]] LogPlace PlaceOf(long streamOffset) const;
    [[nodiscard]] std::size_t Ahead(std::size_t bytes);  // makes so many bytes readable, or all that are left
    [[nodiscard]] bool ReadMore();
    void NoteZeros(unsigned char const* bytes, std::size_t count);
    void EndZeroRun();
    [[nodiscard]] bool TakeFromWindow(LogRecord& record);
    [[nodiscard]] Result TakePiecewise(LogRecord& record);
    [[nodiscard]] Piece TakeField(int index, long bytesMax, long& taken, LogRecord* keyOf);
    Result End(Result result, Reason reason);
    [[nodiscard]] unsigned char const* Here() const { return window_.data() + position_; }
    void Pass(std::size_t bytes) { position_ += bytes; }

    suts_tsspec const& spec_;
    std::vector<LogFile> const& files_;
    std::size_t opened_ = 0;    // files opened so far and read to their end; the next is the one being read
    std::vector<long> starts_;  // of the files opened, in the stream
    sutl_Descriptor file_;
    bool ended_ = false;  // nothing more to read
    bool failed_ = false;
    bool couldNotOpen_ = false;
    int error_ = 0;  // errno of the failure
    std::vector<unsigned char> window_;
    long windowStart_ = 0;      // its place in the stream
    std::size_t position_ = 0;  // of the next byte, in the window
    std::size_t fill_ = 0;      // bytes in the window
    long recordStart_ = 0;      // in the stream
    Result result_ = RECORD;
    Reason reason_ = NO_REASON;
    std::string keyKept_;  // of a record that does not fit into the window
    KeyHasher hasher_;

    long const zeroRunMin_;  // bytes
    long zeros_ = 0;         // at the end of what was read
    std::vector<ZeroRun> zeroRuns_;
    unsigned long zeroRunCount_ = 0;
};
