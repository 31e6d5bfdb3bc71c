#include <sys/mman.h>

#include <chrono>
#include <thread>

#include "sutl_frame.h"
#include "sutl_tcpsocket.h"
#include "test_support.h"

namespace {

using namespace std::string_literals;
using test::CaptureStderr;
using test::GetCapturedStderr;

constexpr char const* INCOMPLETE_HEADER = "Incomplete bytefield length read!\n";
constexpr char const* CLOSED_PREMATURELY = "Socket Receiver: socket closed prematurely!\n";
constexpr char const* SIZE_MISMATCH = "ERROR, bytefield size doesn't match declaration!\n";

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

// A connection over loopback.
struct TcpLink {
    TcpLink() {
        test::Ports const ports = test::ListenOnFreePorts(server);
        sender = test::ConnectTo(ports.first);
        unused = test::ConnectTo(ports.second);
        EXPECT_TRUE(server.AcceptPair());
    }
    sutl_TCPSockServer server;  // its first connection receives
    sutl_Descriptor sender, unused;
};

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
        {"header 2 + 2", {"\0\0"s, "\0\3"s, "abc"}, STAYS, FRAME_READY, "abc", ""},
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
    test::Interruptions interruptions;
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
}

// A file that is all hole stands for two gigabytes on a connection: the reads are real, the memory is not.
TEST(ReceiveFrame, ALengthThatCannotBeIsReadAndDropped) {
    constexpr long TOO_LONG = 1L << 31;
    struct {
        char const *name, *header;
        long bodyBytes, bytesBehind;
        int countKept;
        char const* text;
    } const rows[] = {
        {"2^31, whole", "\x80\0\0\0", TOO_LONG, 100, 0, SIZE_MISMATCH},
        {"2^32 - 1, cut", "\xFF\xFF\xFF\xFF", 10, 0, 0, CLOSED_PREMATURELY},
        {"2^31 - 1, cut", "\x7F\xFF\xFF\xFF", 10, 0, 10, CLOSED_PREMATURELY},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        sutl_Descriptor const file(memfd_create("frame", 0));
        ASSERT_EQ(4, sutl_FileWrite(file.Get(), row.header, 4));
        ASSERT_EQ(0, ftruncate(file.Get(), 4 + row.bodyBytes + row.bytesBehind));
        ASSERT_EQ(0, lseek(file.Get(), 0, SEEK_SET));
        sutl_NetorderByteField field;
        CaptureStderr();
        EXPECT_EQ(FRAME_BROKEN, sutl_ReceiveFrame(file.Get(), field));
        EXPECT_EQ(row.text, GetCapturedStderr());
        EXPECT_EQ(4 + row.bodyBytes, lseek(file.Get(), 0, SEEK_CUR)) << "what lies behind the frame is left alone";
        EXPECT_EQ(row.countKept, field.Count());
    }
}

TEST(Frames, FollowEachOtherThroughInterruptions) {
    test::Random random = test::SeededRandom();
    std::vector<std::string> messages;
    for (std::size_t const size : {1, 8, 13, 4095, 4096, 4097, 10000, 1000000}) {
        messages.push_back(test::RandomBytes(random, size));
    }
    for (int i = 0; i < 200; ++i) messages.push_back(test::RandomBytes(random, 1 + test::Below(random, 5000)));
    TcpLink link;
    CaptureStderr();
    {
        test::Interruptions interruptions;
        std::jthread const sending = test::QuietThread([&messages, &link] {
            sutl_NetorderByteField field;
            for (std::string const& message : messages) {
                Fill(field, message);
                if (message.size() < 20) test::Interruptions::Await(3);  // the receiver is blocked meanwhile
                EXPECT_TRUE(sutl_SendFrame(link.sender.Get(), field, nullptr, MSG_EOR));
                EXPECT_EQ(0, field.Count());
            }
            Fill(field, "");
            EXPECT_TRUE(sutl_SendFrame(link.sender.Get(), field));
            link.sender.Close();
        });
        sutl_NetorderByteField field;
        int const receiver = link.server.FirstConnection();
        for (std::string const& message : messages) {
            bool const arrived = sutl_ReceiveFrame(receiver, field) == FRAME_READY && message == Drain(field);
            EXPECT_TRUE(arrived) << message.size() << " bytes";
            if (!arrived) link.server.CloseConnections();  // so that the sender, and the test, end
            if (!arrived) break;
        }
        EXPECT_EQ(FRAME_TERMINATION, sutl_ReceiveFrame(receiver, field));
        EXPECT_EQ(FRAME_STREAM_ENDED, sutl_ReceiveFrame(receiver, field));
    }
    EXPECT_EQ("", GetCapturedStderr());
}

TEST(SendFrame, TheWireHoldsExactlyTheMessageWhenSendsArePartialAndInterrupted) {
    test::Random random = test::SeededRandom();
    std::string const message = test::RandomBytes(random, 6000000);  // more than the buffers on the way hold
    TcpLink link;
    int const bufferBytes = 10000;
    setsockopt(link.sender.Get(), SOL_SOCKET, SO_SNDBUF, &bufferBytes, sizeof bufferBytes);
    std::string wire;
    CaptureStderr();
    {
        test::Interruptions interruptions;
        std::jthread const slowReader = test::QuietThread([&wire, from = link.server.FirstConnection()] {
            char buffer[50000];
            for (int reads = 0; reads < 40; ++reads) {
                test::Interruptions::Await(3);
                wire.append(buffer, static_cast<std::size_t>(std::max(sutl_ReadSome(from, buffer, sizeof buffer), 0L)));
            }
            wire += test::ReadToEnd(from);
        });
        sutl_NetorderByteField field;
        Fill(field, message);
        EXPECT_TRUE(sutl_SendFrame(link.sender.Get(), field));
        link.sender.Close();
    }
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_TRUE(wire == "\0\x5B\x8D\x80"s + message) << wire.size();
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
        {big, 0, {"\0\0\x10\0"s, big}, ""},
        {big + big + "c", 0, {"\0\0\x20\1"s, big, big, "c"}, ""},
        {"", MSG_OOB, {}, header},
        {big, MSG_OOB, {"\0\0\x10\0"s}, body},
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

TEST(SendFrame, AClosedPeerIsReportedAndEndsNoProcess) {
    sutl_NetorderByteField field;
    auto [sender, receiver] = test::SocketPair(SOCK_STREAM);
    Fill(field, std::string(4000000, 'x'));  // more than the buffers on the way hold
    CaptureStderr();
    {
        std::jthread const peer = test::QuietThread([&from = receiver] {
            char header[4];
            EXPECT_EQ(4, recv(from.Get(), header, sizeof header, MSG_WAITALL));
            shutdown(from.Get(), SHUT_RD);
        });
        EXPECT_FALSE(sutl_SendFrame(sender.Get(), field));
    }
    EXPECT_EQ(test::ErrorText("Socket Sender:", EPIPE), GetCapturedStderr());
    Fill(field, "abc");
    CaptureStderr();
    EXPECT_FALSE(sutl_SendFrame(sender.Get(), field));
    EXPECT_EQ(test::ErrorText("ERROR  Sender:", EPIPE), GetCapturedStderr());
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
        std::jthread const peer = test::QuietThread([&got, reads, from = receiver.Get()] {
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
