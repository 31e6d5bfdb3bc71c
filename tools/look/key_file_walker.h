// Walks the entries of a key file without trusting a byte of it.
#pragma once

#include <string>
#include <vector>

#include "log_walker.h"
#include "sutl_descriptor.h"
#include "uts_tsspec.h"

// Finds exactly the keys that a start finds which replays the directory, and the place where that start would give up.
// It reads through a window of fixed size: memory does not depend on what the file holds. The schema must outlive it.
// Prints nothing. One thread at a time.
class KeyFileWalker {
 public:
    enum Result {
        KEY,
        END,
        CORRUPT,    // what stands at Offset() is no whole entry
        READ_ERROR  // errno tells why; a start takes it for a corrupt file
    };

    // A key in stored form.
    struct Key {
        long textOffset = 0;  // in the file
        long bytes = 0;       // with the NUL of a text, which may be missing in the file
        KeyHash hash;         // as that of the same key in a log
        std::string start;    // its first bytes, at most LogRecord::KEY_BYTES_KEPT
    };

    KeyFileWalker(suts_tsspec const& spec, std::string const& path);

    [[nodiscard]] Result Next(Key& key);                   // every result but KEY is final
    [[nodiscard]] long Offset() const { return offset_; }  // of the entry to come
    [[nodiscard]] bool IsCut() const { return cut_; }      // the last entry claims more bytes than the file holds

 private:
    static constexpr long NOT_FOUND = -1;

    [[nodiscard]] Result NextNumber(Key& key);
    [[nodiscard]] Result NextText(Key& key);
    [[nodiscard]] Result TakeText(Key& key, long start, long bytes);
    [[nodiscard]] long At(long offset, unsigned char* to, long bytes);
    [[nodiscard]] long FindNul(long from, long to);
    [[nodiscard]] unsigned char const* Window(long offset, long& bytes);

    suts_tsspec const& spec_;
    sutl_Descriptor file_;
    int error_ = 0;            // of the open or a read
    bool copiedSeen_ = false;  // an entry without a length was seen
    bool cut_ = false;
    long offset_ = 0;
    Result result_ = KEY;
    KeyHasher hasher_;
    std::vector<unsigned char> window_;
    long windowStart_ = 0;  // in the file
    long windowBytes_ = 0;
};
