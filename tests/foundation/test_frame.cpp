#include <sys/mman.h>

#include <chrono>
#include <thread>

#include "sutl_frame.h"
#include "test_support.h"

namespace {

using namespace std::string_literals;
using test::CaptureStderr;
using test::GetCapturedStderr;

constexpr char const* INCOMPLETE_HEADER = "Incomplete bytefield length read!\n";
constexpr char const* CLOSED_PREMATURELY = "Socket Receiver: socket closed prematurely!\n";

std::string Drain(sutl_NetorderByteField& field) {
    std::string bytes(static_cast<std::size_t>(field.Count()), '\0');
    field.GetNextBytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<unsigned int>(bytes.size()));
    return bytes;
}

void Fill(sutl_NetorderByteField& field, std::string const& message) {
    field.Reset();
    field.AppendBytes(message.data(), message.size());
    field.Seal();
}

// A socket of type SOCK_SEQPACKET delivers one piece per read, which cuts the stream in chosen places without any
// timing. Resets are made on SOCK_STREAM, where the pieces come before the error.
TEST(ReceiveFrame, EveryOutcome) {
    enum Ending { STAYS, CLOSES, RESETS };  // what the peer does behind the pieces
    std::string const reset = test::ErrorText("Socket Receiver:", ECONNRESET);
    std::string const full(4096, 'l');
    std::string const rest(1808, 'm');
    struct {
        char const* name;
        std::vector<std::string> pieces;
        Ending ending;
        sutl_FrameResult result;
        std::string message, text;
    } const rows[] = {
        {"whole", {"\0\0\0\3"s, "abc"}, STAYS, FRAME_READY, "abc", ""},
        {"termination", {"\0\0\0\0"s}, STAYS, FRAME_TERMINATION, "", ""},
        {"closed at the boundary", {}, CLOSES, FRAME_STREAM_ENDED, "", ""},
        {"reset at the boundary", {}, RESETS, FRAME_BROKEN, "", reset},
        {"header byte by byte", {"\0"s, "\0"s, "\0"s, "\4"s, "abcd"}, STAYS, FRAME_READY, "abcd", ""},
        {"rest of the header too late", {"\0"s, "\0\0"s}, STAYS, FRAME_BROKEN, "", INCOMPLETE_HEADER},
        {"closed in the header", {"\0\0\0"s}, CLOSES, FRAME_BROKEN, "", INCOMPLETE_HEADER},
        {"reset in the header", {"\0"s}, RESETS, FRAME_BROKEN, "", INCOMPLETE_HEADER},
        {"closed before the body", {"\0\0\0\3"s}, CLOSES, FRAME_BROKEN, "", CLOSED_PREMATURELY},
        {"closed in the body", {"\0\0\0\3"s, "a", "b"}, CLOSES, FRAME_BROKEN, "", CLOSED_PREMATURELY},
        {"reset in the body", {"\0\0\0\3"s, "ab"}, RESETS, FRAME_BROKEN, "", reset},
        {"10000 bytes", {"\0\0\x27\x10"s, full, full, rest}, STAYS, FRAME_READY, full + full + rest, ""},
    };
    sutl_NetorderByteField field;  // one for all, so that what a row leaves behind meets the next one
    // A signal every millisecond interrupts what waits.
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    itimerval const everyMillisecond = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &everyMillisecond, nullptr);
    for (bool const muted : {false, true}) {
        std::atomic<bool> const mute = muted;
        for (auto const& row : rows) {
            SCOPED_TRACE(row.name);
            auto [peer, connection] = test::SocketPair(row.ending == RESETS ? SOCK_STREAM : SOCK_SEQPACKET);
            for (std::string const& piece : row.pieces) sutl_FileWrite(peer.Get(), piece.data(), piece.size());
            if (row.ending == RESETS) sutl_FileWrite(connection.Get(), "?", 1);  // unread when the peer closes
            if (row.ending != STAYS) peer.Close();
            auto const start = std::chrono::steady_clock::now();
            CaptureStderr();
            EXPECT_EQ(row.result, sutl_ReceiveFrame(connection.Get(), field, &mute));
            EXPECT_EQ(muted ? "" : row.text, GetCapturedStderr());
            bool const waits = row.ending == STAYS && row.result == FRAME_BROKEN;
            EXPECT_TRUE(!waits || std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(20));
            EXPECT_TRUE(row.result != FRAME_READY || row.message == Drain(field));
        }
    }
    itimerval const never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
}

// A file that is all hole stands for two gigabytes on a connection: the reads are real, the memory is not.
TEST(ReceiveFrame, ALengthThatCannotBeIsReadAndDropped) {
    constexpr long TOO_LONG = 1L << 31;
    sutl_Descriptor const file(memfd_create("frame", 0));
    ASSERT_EQ(4, sutl_FileWrite(file.Get(), "\x80\0\0\0", 4));
    ASSERT_EQ(0, ftruncate(file.Get(), 4 + TOO_LONG + 100));
    ASSERT_EQ(0, lseek(file.Get(), 0, SEEK_SET));
    sutl_NetorderByteField field;
    CaptureStderr();
    EXPECT_EQ(FRAME_BROKEN, sutl_ReceiveFrame(file.Get(), field));
    EXPECT_EQ("ERROR, bytefield size doesn't match declaration!\n", GetCapturedStderr());
    EXPECT_EQ(4 + TOO_LONG, lseek(file.Get(), 0, SEEK_CUR)) << "what lies behind the frame is left alone";
    EXPECT_EQ(0, field.Count());
}

// Each send is one packet. The system refuses the last flags of some rows, which shows the one send that carries them
// and the text of its failure.
TEST(SendFrame, SendsTheHeaderAndChunksAndMarksTheLastOne) {
    std::string const big(4096, 'b');
    std::string const header = test::ErrorText("ERROR  Sender:", EOPNOTSUPP);
    std::string const body = test::ErrorText("Socket Sender:", EOPNOTSUPP);
    struct {
        std::string message;
        int lastFlags;
        std::vector<std::string> packets;
        std::string text;
    } const rows[] = {
        {"", 0, {"\0\0\0\0"s}, ""},
        {big + big + "c", 0, {"\0\0\x20\1"s, big, big, "c"}, ""},
        {"", MSG_OOB, {}, header},
        {big + "c", MSG_OOB, {"\0\0\x10\1"s, big}, body},
    };
    for (bool const muted : {false, true}) {
        std::atomic<bool> const mute = muted;
        for (auto const& row : rows) {
            SCOPED_TRACE(testing::Message() << row.message.size() << " bytes, flags " << row.lastFlags);
            auto [sender, receiver] = test::SocketPair(SOCK_SEQPACKET);
            sutl_NetorderByteField field;
            Fill(field, row.message);
            CaptureStderr();
            EXPECT_EQ(row.text.empty(), sutl_SendFrame(sender.Get(), field, &mute, row.lastFlags));
            EXPECT_EQ(muted ? "" : row.text, GetCapturedStderr());
            sender.Close();
            char buffer[5000];
            for (std::string const& packet : row.packets) {
                long const got = sutl_ReadSome(receiver.Get(), buffer, sizeof buffer);
                EXPECT_EQ(packet, std::string(buffer, static_cast<std::size_t>(std::max(got, 0L))));
            }
            EXPECT_EQ(0, sutl_ReadSome(receiver.Get(), buffer, sizeof buffer));
        }
    }
}

// The buffer of the sender gets room in great steps only: a slow reader keeps it waiting for longer than one that takes
// nothing may.
TEST(SendFrame, WaitsForASlowPeerButNotForADeadOne) {
    constexpr int STALL_SECONDS_MAX = 2;
    constexpr int SLOW_READS = 16;
    std::string const message(300000, 'x');
    for (bool const reads : {true, false}) {
        auto [sender, receiver] = test::SocketPair(SOCK_STREAM);
        int const bufferBytes = 100000;
        setsockopt(sender.Get(), SOL_SOCKET, SO_SNDBUF, &bufferBytes, sizeof bufferBytes);
        sutl_SetSendTimeout(sender, 1);
        std::string got;
        std::jthread const peer([&got, reads, from = receiver.Get()] {
            char buffer[4096];
            for (int i = 0; reads && i < SLOW_READS; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(250));  // its pace
                got.append(buffer, static_cast<std::size_t>(std::max(sutl_ReadSome(from, buffer, sizeof buffer), 0L)));
            }
            if (reads) got += test::ReadToEnd(from);
        });
        sutl_NetorderByteField field;
        Fill(field, message);
        CaptureStderr();
        EXPECT_EQ(reads, sutl_SendFrame(sender.Get(), field, nullptr, 0, STALL_SECONDS_MAX));
        EXPECT_EQ(reads ? "" : test::ErrorText("Socket Sender:", EAGAIN), GetCapturedStderr());
        sender.Close();
    }
}

}  // namespace
