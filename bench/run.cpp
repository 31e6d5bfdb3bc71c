// Runs a program and tells what it took: bench_run FILE PROGRAM ARGUMENTS... writes "user system peak read written
// status" to the file: seconds, seconds, kilobytes, the bytes of its calls of read and of write, and the exit status,
// or the negative number of the signal.
//
// A process begins with the peak memory of the one that has started it, so this one is small.
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

// The kernel keeps the counts until the process has been waited for.
void ReadTransfers(pid_t child, unsigned long& readBytes, unsigned long& writtenBytes) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/io", child);
    FILE* const counts = fopen(path, "r");
    if (counts == nullptr) return;
    if (fscanf(counts, "rchar: %lu wchar: %lu", &readBytes, &writtenBytes) != 2) readBytes = writtenBytes = 0;
    fclose(counts);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return EXIT_FAILURE;
    pid_t const child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execv(argv[2], argv + 2);
        perror(argv[2]);
        _exit(127);
    }
    int status = 0;
    rusage usage;
    siginfo_t ended;
    unsigned long readBytes = 0;
    unsigned long writtenBytes = 0;
    FILE* const out = fopen(argv[1], "w");
    if (child < 0 || out == nullptr || waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT) != 0) {
        return EXIT_FAILURE;
    }
    ReadTransfers(child, readBytes, writtenBytes);
    if (wait4(child, &status, 0, &usage) != child) return EXIT_FAILURE;
    fprintf(out, "%ld.%06ld %ld.%06ld %ld %lu %lu %d\n", usage.ru_utime.tv_sec, usage.ru_utime.tv_usec,
            usage.ru_stime.tv_sec, usage.ru_stime.tv_usec, usage.ru_maxrss, readBytes, writtenBytes,
            WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status));
    return fclose(out);
}
