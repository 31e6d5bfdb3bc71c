// The key file: every distinct key of a recovery directory, in the order in which the keys were first seen.
//
// A sequence of entries without header or trailer: the key's stored form, for a string64 key behind its 4-byte length
// in host byte order. Keys copied from an earlier key file at a start stand there without a length, strings too.
#pragma once

#include <string>
#include <vector>

#include "sutl_descriptor.h"
#include "sutl_rawbytefield.h"
#include "uts_tsspec.h"

// Entries on their way to a key file. Owned by one thread.
class suts_StgKeyEntries {
 public:
    void Add(sutl_RawBytefield const& key, bool withLength);
    // Writes them all, in one write, to the end of an open key file. Where that fails the rest is written entry by
    // entry: each that cannot be written as a whole is reported and left out, which has no other consequence.
    void Write(sutl_Descriptor const& keyFile);

 private:
    [[nodiscard]] std::size_t WriteFrom(sutl_Descriptor const& keyFile, std::size_t first, std::size_t last);

    std::vector<unsigned char> bytes_;
    std::vector<std::size_t> ends_;  // of the entries among the bytes
};

// Reads a key file key by key. Owned by one thread.
class suts_StgKeyFileReader {
 public:
    enum Result { KEY, END, CORRUPT };

    // Opens "KeyFile" of the directory. A failure shows at the first Next.
    suts_StgKeyFileReader(suts_tsspec const& spec, char const* directory);

    // KEY: the next key in stored form, whose heap array the caller owns. CORRUPT: what follows is not a whole entry; a
    // read error counts as that and is reported.
    [[nodiscard]] Result Next(sutl_RawBytefield& key);

 private:
    static constexpr std::size_t NOT_FOUND = static_cast<std::size_t>(-1);

    [[nodiscard]] Result NextNumber(std::size_t bytes, sutl_RawBytefield& key);
    [[nodiscard]] Result NextString(sutl_RawBytefield& key);
    [[nodiscard]] bool IsLength(long length);
    [[nodiscard]] Result TakeText(std::size_t start, std::size_t bytes, sutl_RawBytefield& key);
    std::size_t Fill(std::size_t bytes);
    [[nodiscard]] std::size_t FindNul(std::size_t from, std::size_t to);
    [[nodiscard]] unsigned char const* Ahead() const { return buffer_.data() + position_; }

    suts_tsspec const& spec_;
    sutl_Descriptor file_;
    bool ended_ = false;                 // nothing more to read from the file
    bool failed_ = false;                // because of a read error
    bool copiedSeen_ = false;            // an entry without a length was seen
    std::vector<unsigned char> buffer_;  // read ahead
    std::size_t position_ = 0;           // of the next entry in it
};
