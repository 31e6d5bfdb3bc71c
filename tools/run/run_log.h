// Where the supervisor's lines and its server's go.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

#include "sutl_descriptor.h"

// Standard error, or a file of bounded size with a bounded number of older ones beside it: FILE.1 is the newest of
// them. Lines begin with the time, but in the journal, which has it, and then the program that says them. What cannot
// be written is dropped and counted: a full disk or a stuck reader must not stop the server. One thread at a time.
class RunLog {
 public:
    struct Options {
        std::string path;           // empty: standard error
        long bytesMax = 10L << 20;  // of one file
        long filesMax = 5;          // the one that is written included
    };

    // False with errno when the file cannot be opened.
    [[nodiscard]] bool Open(Options const& options);
    // Opens the file anew, after somebody has moved it. False with errno; the one at hand is written on then.
    [[nodiscard]] bool Reopen();
    [[nodiscard]] bool IsFile() const { return !options_.path.empty(); }

    void WriteOwn(std::string_view line) { Write("brindlectl run", line); }
    // Takes what a server has written to a descriptor that does not block, and calls with every whole line. False at
    // its end. Returns after a bounded number of bytes.
    [[nodiscard]] bool TakeServerOutput(int descriptor, std::function<void(std::string_view)> const& look);
    // The server has ended: what it left of a line is one.
    void EndServerOutput(std::function<void(std::string_view)> const& look);

 private:
    void Write(std::string_view program, std::string_view line);
    [[nodiscard]] bool Append(std::string_view text);
    void Rotate();

    Options options_;
    sutl_Descriptor file_;
    off_t bytes_ = 0;  // in the file
    bool isJournal_ = false;
    std::string rest_;  // of the server's output behind its last whole line
    unsigned long dropped_ = 0;
};
