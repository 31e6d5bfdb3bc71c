// A line on the terminal that tells how far long work has come.
#pragma once

#include <chrono>
#include <string>

// Shows rows, rows a second and, where the size is known, percent and time left, on standard error. Draws nothing
// unless that is a terminal, and at most a few times a second, so Update may be called for every row. Takes its line
// away at its end. One thread at a time; whoever prints meanwhile calls Clear before.
class Progress {
 public:
    // `what` is counted: "rows", "records".
    Progress(char const* what, bool wanted);
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;
    ~Progress() { Clear(); }

    // `done` of `whole` is the share of the work in any unit; a whole of 0 means that it is not known.
    void Update(unsigned long count, unsigned long done = 0, unsigned long whole = 0) {
        if (!shown_ || ++calls_ % CALLS_PER_LOOK != 0) return;
        Look(count, done, whole);
    }
    // The same for a caller who comes seldom.
    void UpdateNow(unsigned long count) {
        if (shown_) Look(count, 0, 0);
    }
    void Clear();

 private:
    using Clock = std::chrono::steady_clock;

    static constexpr unsigned int CALLS_PER_LOOK = 256;  // calls between two looks at the clock

    void Look(unsigned long count, unsigned long done, unsigned long whole);

    char const* const what_;
    bool const shown_;
    bool drawn_ = false;
    unsigned int calls_ = 0;
    Clock::time_point const start_ = Clock::now();
    Clock::time_point last_ = start_;
};
