// A queue of entries on disk.
#pragma once

#include <chrono>
#include <compare>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "sutl_descriptor.h"

// A place between two entries of a spool.
struct SpoolPosition {
    unsigned long segment = 0;
    unsigned long offset = 0;  // bytes from the segment's start

    // The linter takes the 0 of its own comparison for a pointer.
    auto operator<=>(SpoolPosition const&) const = default;  // NOLINT(modernize-use-nullptr)
};

// Keeps entries of bytes in a directory of its own until they are trimmed: files of some megabytes, "1.spool",
// "2.spool"..., each entry behind its length and a checksum over both. One process at a time. One thread appends, syncs
// and trims nothing; another one may read and trim meanwhile: what they share is guarded by the mutex. A system error
// is told by errno.
class Spool {
 public:
    enum OpenResult : std::uint8_t {
        OPENED,
        IN_USE,       // by another process
        NO_SPOOL,     // something else is in the directory
        DAMAGED,      // an entry that was whole once is not any more: Problem() tells where
        OPEN_FAILED,  // errno
    };
    enum ReadResult : std::uint8_t {
        ENTRY,
        AT_END,
        READ_DAMAGED,  // as above
        READ_FAILED,   // errno
    };

    // A spool of more segments syncs and removes more often; one of fewer holds trimmed bytes longer.
    static constexpr unsigned long SEGMENT_BYTES_MAX = 16UL << 20;
    static constexpr unsigned int HEADER_BYTES = 8;  // length and checksum, 4 bytes each, little-endian

    Spool() = default;
    Spool(Spool const&) = delete;
    Spool& operator=(Spool const&) = delete;

    // Makes the directory if there is none, and goes to the end of what it holds. A directory that is no spool and not
    // empty is left alone. An entry that was being written when
    // the process or the machine ended is cut off. With `setAside` what cannot be read is no reason to give up: it
    // stays in a file with another name, which Problem() tells.
    [[nodiscard]] OpenResult Open(std::string const& path, bool setAside);
    [[nodiscard]] std::string const& Problem() const { return problem_; }
    [[nodiscard]] std::string const& Id() const { return id_; }  // of this spool and no other, kept as long as it is

    // Appends one entry made of the pieces. False on failure: nothing of it is in the spool.
    [[nodiscard]] bool Append(std::span<std::span<unsigned char const> const> pieces);
    // Makes what was appended durable.
    [[nodiscard]] bool Sync();

    // Reads the entry at the position, and moves the position behind it.
    [[nodiscard]] ReadResult Read(SpoolPosition& position, std::vector<unsigned char>& entry);

    // What lies before the position is not needed any more: removes the segments of it, but for the last one.
    void Trim(SpoolPosition const& position);

    [[nodiscard]] SpoolPosition Begin() const;
    [[nodiscard]] SpoolPosition End() const;
    [[nodiscard]] unsigned long Bytes() const;  // from where it was trimmed to

    // Waits until there is more behind the position, or Interrupt is called, or the wait is over.
    void WaitFor(SpoolPosition const& position, std::chrono::milliseconds wait) const;
    void Interrupt() const { grown_.notify_all(); }

    // Removes the directory, unless it holds anything but the spool's own files and those named; nothing may be called
    // after it. Whoever is killed meanwhile leaves a directory of another name.
    void Remove(std::vector<std::string> const& names);

 private:
    struct Segment {
        unsigned long number;
        unsigned long bytes;
    };

    [[nodiscard]] OpenResult OpenFailed(std::string const& what);
    [[nodiscard]] OpenResult LoadId();
    [[nodiscard]] OpenResult FindSegments();
    [[nodiscard]] OpenResult CheckLastSegment(bool setAside);
    [[nodiscard]] bool StartSegment(unsigned long number);
    [[nodiscard]] std::string PathOf(unsigned long segment) const;

    std::string path_;
    std::string id_;
    std::string problem_;
    sutl_Descriptor lock_;
    sutl_Descriptor writing_;  // the last segment; owned by the appending thread
    sutl_Descriptor reading_;  // the segment of readingNumber_; owned by the reading thread
    unsigned long readingNumber_ = 0;
    mutable std::mutex mutex_;
    mutable std::condition_variable grown_;
    unsigned long lastNumber_ = 0;   // of all segments, those that were empty included
    std::vector<Segment> segments_;  // guarded by the mutex; in order, never empty once opened
    SpoolPosition trimmed_;          // guarded by the mutex
};
