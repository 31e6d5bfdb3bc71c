// Frames as a network cuts them, and frames that lie.
#include <sys/socket.h>

#include <chrono>
#include <climits>

#include "harness.h"

namespace systest {
namespace {

Records Sample(int count) {
    Records records;
    for (int i = 0; i < count; ++i)
        records.push_back({Int32(i % 3), At(9, i), Text(std::string(static_cast<std::size_t>(i % 61), 'v'))});
    return records;
}

char const* const INCOMPLETE_LENGTH = "Incomplete bytefield length read!\n";
char const* const CLOSED_EARLY = "Socket Receiver: socket closed prematurely!\n";

// What the producer writes last, behind a good frame. The server then ends in order.
TEST(BrokenFrames, EndTheConversationAndKeepWhatCameBefore) {
    std::string const whole = Frame(Payload(Sample(3)));
    struct {
        char const* name;
        std::string bytes;
        bool stays;  // the producer does not close: the server must not wait for more
        std::string line;
    } const rows[] = {
        {"a close at a frame boundary", "", false, ""},
        {"one byte of a header", whole.substr(0, 1), false, INCOMPLETE_LENGTH},
        {"two bytes of a header, then silence", whole.substr(0, 2), true, INCOMPLETE_LENGTH},
        {"a header alone", whole.substr(0, 4), false, CLOSED_EARLY},
        {"a cut body", whole.substr(0, whole.size() - 1), false, CLOSED_EARLY},
        {"a cut body of many reads", Frame(std::string(10000, 'x')).substr(0, 9000), false, CLOSED_EARLY},
        // Memory grows with what comes, not with what is claimed; of 2 GB and more nothing is kept at all.
        {"2 GB less one, a few bytes", Big4(0x7FFFFFFF) + whole, false, CLOSED_EARLY},
        {"2 GB, many bytes", Big4(0x80000000) + std::string(64 << 20, 'x'), false, CLOSED_EARLY},
        {"4 GB less one, many bytes", Big4(0xFFFFFFFF) + std::string(64 << 20, 'x'), false, CLOSED_EARLY},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        Session session("4s");
        session.Start();
        session.Send(Sample(2));
        session.producer().Send(row.bytes);
        EXPECT_LT(session.server().PeakKb(), SANITIZED ? LONG_MAX : 32L * 1024);
        if (row.stays) { EXPECT_EQ("exit 0", session.server().WaitEnd()); }
        session.FinishAndCheck(Sample(2));
        EXPECT_EQ(row.line, session.server().OtherLines());
    }
}

// A frame whose fields do not fit it: one line that says so, the records before the damage kept, an orderly end.
TEST(MalformedRecords, EndTheConversationAndKeepTheRecordsBefore) {
    std::string const head = Text("k") + Int64(At(9)) + Int32(1);
    std::vector<std::pair<std::string, std::string>> rows{
        {"a value longer than the frame", head + Big4(5) + "abc"},
        {"a value of 100,000 bytes in a short frame", head + Big4(100000) + "abc"},
        {"a value of 2 GB less one", head + Big4(0x7FFFFFFF) + "abc"},
        {"a value of 2 GB", head + Big4(0x80000000) + "abc"},
        {"a value of 4 GB less one", head + Big4(0xFFFFFFFF) + "abc"},
        {"a key longer than the frame", Big4(40) + "key"},
        {"a key of 4 GB less one", Big4(0xFFFFFFFF) + "key"},
    };
    // Key 25 bytes, time 8, number 4, text 4 + 4.
    std::string const whole = Payload({{Text("a key of some length"), At(9), Int32(1) + Text("abc")}});
    for (std::size_t const size : {3, 4, 10, 25, 30, 33, 36, 37, 40, 44})
        rows.emplace_back("a record cut after " + std::to_string(size) + " bytes", whole.substr(0, size));
    Records const before{{Text("k"), At(9), Int32(1) + Text("one")}, {Text("k"), At(9), Int32(2) + Text("two")}};
    for (auto const& [name, bytes] : rows) {
        SCOPED_TRACE(name);
        Session session("s4s");
        session.Start();
        session.producer().Send(Frame(Payload(before) + bytes));
        EXPECT_EQ("exit 0", session.server().WaitEnd()) << "the producer need not close";
        session.FinishAndCheck(before);
        EXPECT_EQ(1U, Count(session.server().OtherLines(), "\n")) << session.server().OtherLines();
    }
}

// Texts are normalised when they are received: they end at their first NUL, and get one when they have none.
TEST(StringFields, EndAtTheirFirstNul) {
    using namespace std::string_literals;
    std::string const longer(5000, 'x');
    Texts const sent{"", "\0"s, "\0abc"s, "abc", "twelve chars", longer, "ab\0cd\0"s, "abcdefghijklmn\0cd"s};
    Texts const meant{"", "", "", "abc", "twelve chars", longer, "ab", "abcdefghijklmn"};
    Session session("s4s");
    session.Start();
    Records expected;
    for (std::size_t i = 0; i < sent.size(); ++i) {
        std::string const raw = Frame(sent[i]);  // a length and so many bytes
        session.Send({{raw, At(9), Int32(1) + raw}});
        expected.push_back({Text(meant[i]), At(9), Int32(1) + Text(meant[i])});
    }
    session.FinishAndCheck(expected);
    EXPECT_EQ("", session.server().OtherLines());
}

// A header that the network cuts is put together when the rest follows at once. Only a sender that was itself held up
// for nearly as long as the server waits may see the conversation end; the case is then tried again.
TEST(Headers, CutWithTheRestAtOnceAreReadWhole) {
    Records const sent = Sample(300);
    for (int attempt = 0; attempt < 20; ++attempt) {
        Session session("4s");
        session.Start();
        bool heldUp = false;
        for (std::size_t i = 0; i < sent.size() && !heldUp; ++i) {
            std::string const frame = Frame(Payload({sent[i]}));
            auto const before = std::chrono::steady_clock::now();
            session.producer().TrySend(frame.substr(0, 1 + i % 3));
            session.producer().TrySend(frame.substr(1 + i % 3));
            heldUp = std::chrono::steady_clock::now() - before > std::chrono::milliseconds(15);
        }
        if (heldUp) continue;
        session.FinishAndCheck(sent);
        EXPECT_EQ("", session.server().OtherLines());
        return;
    }
    GTEST_SKIP() << "this machine holds the sender up again and again";
}

// Nothing is read before both ports have a connection, a body may come byte by byte, and what comes on the second
// connection is ignored, as is its end.
TEST(DataPorts, ServeOnePairAndIgnoreTheReturnChannel) {
    Records const sent{{Int32(1), At(9), Text("first")}, {Int32(1), At(12), Text("second")}};
    Session session("4s");
    session.Start();
    Socket const first = Socket::Connect(session.dataPorts[0]);
    std::string const frame = Frame(Payload({sent[0]}));
    first.Send(frame.substr(0, 4));
    for (char const byte : frame.substr(4)) first.Send(std::string(1, byte));
    EXPECT_EQ("", ReadFile(session.recovery + "/KeyFile"));
    Socket second = Socket::Connect(session.dataPorts[1]);
    second.Send(Frame(Payload(Sample(9))) + "nobody reads this");
    session.WaitCycles(1);
    second.Close();
    first.Send(Frame(Payload({sent[1]})));
    session.WaitCycles(2);
    shutdown(first.descriptor(), SHUT_WR);
    EXPECT_EQ("exit 0", session.server().WaitEnd());
    session.FinishAndCheck(sent);
}

}  // namespace
}  // namespace systest
