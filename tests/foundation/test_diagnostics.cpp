// Assertions, whole-buffer transfers and the resource line.
#include <fcntl.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <new>

#include "sutl_assert.h"
#include "sutl_resourceusage.h"
#include "test_support.h"

namespace {

using test::CaptureStderr;
using test::GetCapturedStderr;

constexpr int PIPE_BYTES = 4096;

int BytesWaiting(sutl_Descriptor const& descriptor) {
    int bytes = 0;
    ioctl(descriptor.Get(), FIONREAD, &bytes);
    return bytes;
}

TEST(Assertion, ReportsAndEndsTheProcess) {
    struct {
        bool ignoreInterrupt;
        void (*fail)();
        char const* text;
    } const rows[] = {
        {false, [] { sutl_assertfunc(false, "a/file.h", 135, "ERROR, bad!\n", nullptr); },
         "\n\n >>>>>> Internal Error (Assert Failure): ERROR, bad!\n \n     At file:a/file.h line 135 <<<<<<<\n\n"},
        {false, [] { sutl_assertfunc(false, "file.cpp", 7, "ERROR", "the detail"); },
         "\n\n >>>>>> Internal Error (Assert Failure): ERROR \n   the detail \n     At file:file.cpp line 7 "
         "<<<<<<<\n\n"},
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

TEST(FileTransfer, WriteGoesOnAfterPartialAndInterruptedCalls) {
    test::Random random = test::SeededRandom();
    std::string const data = test::RandomBytes(random, 20 * PIPE_BYTES + 77);
    auto [readEnd, writeEnd] = test::Pipe();
    ASSERT_EQ(PIPE_BYTES, fcntl(writeEnd.Get(), F_SETPIPE_SZ, PIPE_BYTES));
    std::string got;
    CaptureStderr();
    {
        test::Interruptions interruptions;
        std::jthread const reader = test::QuietThread([&got, &from = readEnd] {
            // The first interruption of a blocked write ends it early, the next ones find nothing written.
            test::WaitUntil("a full pipe", [&from] { return BytesWaiting(from) == PIPE_BYTES; });
            test::Interruptions::Await(5);
            got = test::ReadToEnd(from.Get());
        });
        EXPECT_EQ(static_cast<long>(data.size()), sutl_FileWrite(writeEnd.Get(), data.data(), data.size()));
        writeEnd.Close();
    }
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_TRUE(data == got);
}

TEST(FileTransfer, ReadGoesOnUntilTheFileEnds) {
    auto [writer, reader] = test::SocketPair(SOCK_SEQPACKET);  // each read takes one piece
    for (std::string const piece : {"one", "t", "wo", "three"})
        sutl_FileWrite(writer.Get(), piece.data(), piece.size());
    writer.Close();
    char buffer[20];
    CaptureStderr();
    EXPECT_EQ(6U, sutl_FileRead(reader.Get(), buffer, 6));
    EXPECT_EQ(5U, sutl_FileRead(reader.Get(), buffer + 6, 14));
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_EQ("onetwothree", std::string(buffer, 11));
}

TEST(FileTransfer, ErrorsAreReportedAndEndIt) {
    auto const onWrite = [](int error) { return test::ErrorText("sutl_FileWrite error: ", error); };
    auto const onRead = [](int error) { return test::ErrorText("sutl_FileRead error: ", error); };
    auto [readEnd, writeEnd] = test::Pipe();
    ASSERT_EQ(PIPE_BYTES, fcntl(writeEnd.Get(), F_SETPIPE_SZ, PIPE_BYTES));
    for (int const end : {readEnd.Get(), writeEnd.Get()}) ASSERT_EQ(0, fcntl(end, F_SETFL, O_NONBLOCK));
    sutl_Descriptor const empty = sutl_OpenFile("/dev/null", O_RDONLY);
    sutl_Descriptor const full = sutl_OpenFile("/dev/full", O_WRONLY);
    sutl_Descriptor const directory = sutl_OpenFile(".", O_RDONLY);
    struct {
        char const* name;
        bool write;
        int descriptor;
        std::size_t bytes;
        long result;
        std::string text;
    } const rows[] = {
        {"nothing to write", true, -1, 0, 0, ""},
        {"not for writing", true, empty.Get(), 10, 0, onWrite(EBADF)},
        {"no room", true, full.Get(), 10, 0, onWrite(ENOSPC)},
        {"write of which a part succeeds", true, writeEnd.Get(), PIPE_BYTES + 10, -PIPE_BYTES, onWrite(EAGAIN)},
        {"nothing to read", false, -1, 0, 0, ""},
        {"end of file", false, empty.Get(), 10, 0, ""},
        {"directory", false, directory.Get(), 10, 0, onRead(EISDIR)},
        {"read of which a part succeeds", false, readEnd.Get(), PIPE_BYTES + 10, PIPE_BYTES, onRead(EAGAIN)},
    };
    std::string data(PIPE_BYTES + 10, 'd');
    for (auto const& row : rows) {
        CaptureStderr();
        long const result = row.write ? sutl_FileWrite(row.descriptor, data.data(), row.bytes)
                                      : static_cast<long>(sutl_FileRead(row.descriptor, data.data(), row.bytes));
        EXPECT_EQ(row.text, GetCapturedStderr()) << row.name;
        EXPECT_EQ(row.result, result) << row.name;
    }
}

TEST(ResourceUsage, LineHasItsShapeAndCoversTheInterval) {
    auto const cpuUs = [] {
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000L + usage.ru_utime.tv_usec +
               usage.ru_stime.tv_usec;
    };
    constexpr long WORK_US = 50000;
    auto const wallStart = std::chrono::system_clock::now();
    sutl_ResourceUsage usage;
    test::WaitUntil("processor time", [&, start = cpuUs()] { return cpuUs() - start >= WORK_US; });
    for (std::string const label : {"", " "}) {
        CaptureStderr();
        usage.Report("TShp: 100% ", label.c_str());
        std::string const line = GetCapturedStderr();
        long userUs = -1, systemUs = -1, elapsedUs = -1, rssMax = -1;
        sscanf(line.c_str(), "TShp: 100%% : utime %ld us, stime %ld us, etime %ld us, MaxRSS %ld", &userUs, &systemUs,
               &elapsedUs, &rssMax);
        EXPECT_EQ("TShp: 100% " + label + ": utime " + std::to_string(userUs) + " us, stime " +
                      std::to_string(systemUs) + " us, etime " + std::to_string(elapsedUs) + " us, MaxRSS " +
                      std::to_string(rssMax) + " kB  \n",
                  line);
        bool const restarted = label == " ";
        EXPECT_EQ(restarted, userUs + systemUs < WORK_US) << line;
        // From below by the work done, but for a slewed clock; from above by what a slow machine took for the test.
        EXPECT_TRUE(restarted || elapsedUs > WORK_US / 10 * 9) << line;
        EXPECT_LE(std::chrono::microseconds(elapsedUs - 1), std::chrono::system_clock::now() - wallStart);
        EXPECT_GT(rssMax, 0) << line;
        usage.Restart();
    }
}

}  // namespace
