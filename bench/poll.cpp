// What it costs a thread to look for work again and again: bench_poll SECONDS sleeps a microsecond at a time and prints
// the share of one core that this took, in percent.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

double Seconds(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return EXIT_FAILURE;
    double const start = Seconds(CLOCK_MONOTONIC);
    double const cpuStart = Seconds(CLOCK_PROCESS_CPUTIME_ID);
    double const end = start + strtod(argv[1], nullptr);
    while (Seconds(CLOCK_MONOTONIC) < end) usleep(1);
    printf("%.3f\n", 100 * (Seconds(CLOCK_PROCESS_CPUTIME_ID) - cpuStart) / (Seconds(CLOCK_MONOTONIC) - start));
}
