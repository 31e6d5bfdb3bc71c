#include "sutl_resourceusage.h"

#include <cstdio>

namespace {

long MicrosecondsBetween(timeval const& start, timeval const& end) {
    return (end.tv_sec - start.tv_sec) * 1000000L + (end.tv_usec - start.tv_usec);
}

}  // namespace

void sutl_ResourceUsage::Restart() {
    getrusage(RUSAGE_SELF, &startUsage_);
    gettimeofday(&startTime_, nullptr);
}

void sutl_ResourceUsage::Report(char const* prefix, char const* label) const {
    rusage endUsage;
    timeval endTime;
    getrusage(RUSAGE_SELF, &endUsage);
    gettimeofday(&endTime, nullptr);
    // Prefix and line in one call: other threads report too.
    fprintf(stderr, "%s%s: utime %ld us, stime %ld us, etime %ld us, MaxRSS %ld kB  \n", prefix, label,
            MicrosecondsBetween(startUsage_.ru_utime, endUsage.ru_utime),
            MicrosecondsBetween(startUsage_.ru_stime, endUsage.ru_stime), MicrosecondsBetween(startTime_, endTime),
            endUsage.ru_maxrss);
    fflush(stderr);
}
