// Assertions, whole-buffer transfers and the resource line.
#include <fcntl.h>

#include <cstdio>
#include <new>

#include "sutl_assert.h"
#include "sutl_resourceusage.h"
#include "test_support.h"

namespace {

using test::CaptureStderr;
using test::GetCapturedStderr;

constexpr int PIPE_BYTES = 4096;

TEST(Assertion, ReportsAndEndsTheProcess) {
    struct {
        bool ignoreInterrupt;
        void (*fail)();
        char const* text;
    } const rows[] = {
        {false, [] { sutl_assertfunc(false, "a/file.h", 135, "ERROR, bad!\n", nullptr); },
         "\n\n >>>>>> Internal Error (Assert Failure): ERROR, bad!\n \n     At file:a/file.h line 135 <<<<<<<\n\n"},
        {true, [] { sutl_assertfunc(false, "f", 4000000000U, "%s", nullptr); },
         "\n\n >>>>>> Internal Error (Assert Failure): %s \n     At file:f line 4000000000 <<<<<<<\n\n"},
        {true,
         [] {
             sutl_AssertFailed({"site.h", 1}, "m", "d");
         },
         "\n\n >>>>>> Internal Error (Assert Failure): m \n   d \n     At file:site.h line 1 <<<<<<<\n\n"},
    };
    for (auto const& row : rows) {
        test::ChildEnd const end = test::RunInChild([&row] {
            if (row.ignoreInterrupt) signal(SIGINT, SIG_IGN);
            static_cast<void>(atexit([] { fputs("an exit handler has run\n", stderr); }));
            sutl_assertfunc(true, "true", 1, "a condition that holds", "is not reported");
            row.fail();
            return 0;
        });
        EXPECT_EQ(row.text, end.standardError);
        EXPECT_EQ(row.ignoreInterrupt ? 8 << 8 : SIGINT, end.status) << "exit status in the high byte";
    }
}

TEST(Assertion, AFailedAllocationEndsTheProcess) {
    test::ChildEnd const end = test::RunInChild([] {
        sutl_AbortOnAllocationFailure();
        std::get_new_handler()();  // as operator new does; a real shortage would end a sanitized process otherwise
        return 0;
    });
    EXPECT_EQ("ERROR, out of memory!\n", end.standardError);
    EXPECT_EQ(SIGABRT, end.status);
}

TEST(FileTransfer, WhatAFailureLetsThroughIsCounted) {
    auto [readEnd, writeEnd] = test::Pipe();
    ASSERT_EQ(PIPE_BYTES, fcntl(writeEnd.Get(), F_SETPIPE_SZ, PIPE_BYTES));
    for (int const end : {readEnd.Get(), writeEnd.Get()}) ASSERT_EQ(0, fcntl(end, F_SETFL, O_NONBLOCK));
    std::string data(PIPE_BYTES + 10, 'd');
    CaptureStderr();
    EXPECT_EQ(-PIPE_BYTES, sutl_FileWrite(writeEnd.Get(), data.data(), data.size()));
    EXPECT_EQ(test::ErrorText("sutl_FileWrite error: ", EAGAIN), GetCapturedStderr());
    CaptureStderr();
    EXPECT_EQ(PIPE_BYTES, static_cast<int>(sutl_FileRead(readEnd.Get(), data.data(), data.size())));
    EXPECT_EQ(test::ErrorText("sutl_FileRead error: ", EAGAIN), GetCapturedStderr());
}

TEST(ResourceUsage, LineHasItsShapeAndCoversTheInterval) {
    constexpr long WORK_US = 50000;
    auto const start = std::chrono::steady_clock::now();
    auto const elapsed = [&start] { return (std::chrono::steady_clock::now() - start) / std::chrono::microseconds(1); };
    sutl_ResourceUsage usage;
    test::WaitUntil("some work", [&] { return elapsed() > WORK_US; });
    for (bool const restarted : {false, true}) {
        CaptureStderr();
        usage.Report("TShp: 100% ", " ");
        std::string const line = GetCapturedStderr();
        long userUs = -1, systemUs = -1, elapsedUs = -1, rssMax = -1, end = 0;
        sscanf(line.c_str(), "TShp: 100%%  : utime %ld us, stime %ld us, etime %ld us, MaxRSS %ld kB  %ln", &userUs,
               &systemUs, &elapsedUs, &rssMax, &end);
        EXPECT_EQ(static_cast<long>(line.size()), end) << line;
        EXPECT_TRUE(line.ends_with(" kB  \n")) << line;
        // From below by the work done, but for a slewed clock; from above by what a slow machine took for the test.
        EXPECT_TRUE(restarted ? userUs + systemUs < WORK_US : elapsedUs > WORK_US / 10 * 9) << line;
        EXPECT_LE(elapsedUs - 1000, elapsed()) << line;
        EXPECT_GT(rssMax, 0) << line;
        usage.Restart();
    }
}

}  // namespace
