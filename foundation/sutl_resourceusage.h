// What an interval of work has cost: processor time, wall time and peak memory of the process.
#pragma once

#include <sys/resource.h>
#include <sys/time.h>

// Takes the start of the interval at construction. Owned by one thread.
class sutl_ResourceUsage {
 public:
    sutl_ResourceUsage() { Restart(); }
    void Restart();

    // Writes the prefix and then the resource line "LABEL: utime ... kB  \n" for the time since the start, and flushes
    // standard error. The label is an empty text or one blank.
    void Report(char const* prefix, char const* label) const;

 private:
    rusage startUsage_;
    timeval startTime_;  // wall clock
};
