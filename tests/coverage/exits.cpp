// Keeps the counters of processes that end themselves the hard way. The linker puts these in the place of the calls;
// see BRINDLE_COVERAGE.
#include <sys/resource.h>
#include <sys/types.h>

extern "C" {
void __gcov_dump();

[[noreturn]] void __real_abort();
[[noreturn]] void __real__exit(int status);
int __real_kill(pid_t process, int signal);

static void Dump() {
    // A test may have left the process without room in files.
    rlimit const fileBytes = {RLIM_INFINITY, RLIM_INFINITY};
    static_cast<void>(setrlimit(RLIMIT_FSIZE, &fileBytes));
    __gcov_dump();
}

[[noreturn]] void __wrap_abort() {
    Dump();
    __real_abort();
}

[[noreturn]] void __wrap__exit(int status) {
    Dump();
    __real__exit(status);
}

int __wrap_kill(pid_t process, int signal) {
    Dump();
    return __real_kill(process, signal);
}
}
