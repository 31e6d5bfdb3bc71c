// The lines of a log that is being written.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

#include "sutl_descriptor.h"

// Reads what has come since the last time. A file may be cut, or moved away and made anew under its name; what stood in
// it before is read to its end then. One thread at a time; memory is bounded by the longest line that is kept.
class LogFollower {
 public:
    // "-" is standard input; anything else is a path, of a pipe or of a file that need not exist yet.
    void Follow(std::string const& path);
    // The same, while the process of this number writes its errors to the file that was open last, that one is read on
    // wherever it was moved. 0: none.
    void SetWriter(pid_t writer) { writer_ = writer; }

    // Calls with each line that is whole, without its end.
    void Read(std::function<void(std::string_view)> const& take);

    [[nodiscard]] bool IsOpen() const { return file_.IsOpen(); }
    [[nodiscard]] int Pipe() const { return isPipe_ ? file_.Get() : -1; }  // something to wait for

 private:
    void ReadToEnd(std::function<void(std::string_view)> const& take);
    [[nodiscard]] bool WriterHoldsFile() const;

    std::string path_;
    pid_t writer_ = 0;
    bool isPipe_ = false;
    sutl_Descriptor file_;
    off_t position_ = 0;
    std::string rest_;  // the start of a line that is not whole
};
