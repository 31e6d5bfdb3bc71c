// Reporting of internal errors: the one way in which the server ends when it finds itself in the wrong.
#pragma once

// The place of a check as operators know it. The pair is a stable name: it does not follow the code when the code
// moves.
struct sutl_AssertSite {
    char const* file;
    unsigned int line;
};

// Returns at once when the condition holds. Otherwise writes the message, the detail (when there is one) and the site
// to standard error and ends the process: by SIGINT to itself, or, where SIGINT is ignored, with status 8 and without
// running a destructor, since other threads are still at work. Any thread may call it.
void sutl_assertfunc(bool condition, char const* file, unsigned int line, char const* message, char const* detail);

// The same, for a check that has found its fault already.
[[noreturn]] void sutl_AssertFailed(sutl_AssertSite const& site, char const* message, char const* detail = nullptr);

// Makes a failed allocation, anywhere in the process, end it by one line on standard error and abort. Call it once,
// before the threads start.
void sutl_AbortOnAllocationFailure();
