#include "sutl_assert.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

constexpr int STATUS_INTERNAL_ERROR = 8;

[[noreturn]] void AllocationFailed() {
    // Formatted output could allocate, so the line goes out by a plain write.
    constexpr char TEXT[] = "ERROR, out of memory!\n";
    [[maybe_unused]] ssize_t const written = write(STDERR_FILENO, TEXT, sizeof TEXT - 1);
    abort();
}

}  // namespace

void sutl_AssertFailed(sutl_AssertSite const& site, char const* message, char const* detail) {
    // One call per report, so that lines of other threads do not fall between its lines.
    if (detail != nullptr) {
        fprintf(stderr, "\n\n >>>>>> Internal Error (Assert Failure): %s \n   %s \n     At file:%s line %u <<<<<<<\n\n",
                message, detail, site.file, site.line);
    } else {
        fprintf(stderr, "\n\n >>>>>> Internal Error (Assert Failure): %s \n     At file:%s line %u <<<<<<<\n\n",
                message, site.file, site.line);
    }
    kill(getpid(), SIGINT);
    _exit(STATUS_INTERNAL_ERROR);
}

void sutl_assertfunc(bool condition, char const* file, unsigned int line, char const* message, char const* detail) {
    if (!condition) [[unlikely]] { sutl_AssertFailed({file, line}, message, detail); }
}

void sutl_AbortOnAllocationFailure() { std::set_new_handler(AllocationFailed); }
