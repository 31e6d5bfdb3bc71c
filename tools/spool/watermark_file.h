// The file by which a sink tells a sender what its destination holds.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>

// What the file says: for each stream the watermark, up to which no number is missing in the destination, and an epoch,
// which is raised whenever the sink accepts a server. It may lag behind the destination; it never leads.
struct Watermarks {
    unsigned long epoch = 0;
    std::map<unsigned long, unsigned long> streams;

    bool operator==(Watermarks const&) const = default;
};

// None when there is no file, or none that can be read: errno tells, EBADMSG for a text that is not the file's.
[[nodiscard]] std::optional<Watermarks> ReadWatermarks(std::string const& path);

// The sink's side. RaiseEpoch is for the thread that accepts servers, the rest for the one that writes; a mutex is
// between them. Without a path nothing is written.
class WatermarkWriter {
 public:
    // Goes on from the epoch that the file has. DONE or errno: 0 for done.
    [[nodiscard]] int Open(std::string const& path);

    // Each returns 0, or the errno of a file that could not be written; it is tried again with the next call.
    int RaiseEpoch();
    int Set(std::map<unsigned long, unsigned long> const& streams);  // written at once, or a little later
    int Flush();                                                     // what was set and is not yet written

 private:
    int Write();

    std::string path_;
    std::mutex mutex_;
    Watermarks current_;  // guarded by the mutex, as what follows
    bool isWritten_ = true;
    std::chrono::steady_clock::time_point lastWrite_;
};
