// The query ports: what a query finds, what it may not do to the server, and what it meets while records stream in.
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "harness.h"

namespace systest {
namespace {

using namespace std::string_literals;

// Two records of one key, and the way a query finds them.
Records const TWO{{Text("key"), At(9), Int32(1) + Text("one")}, {Text("key"), At(9, 5), Int32(2) + Text("two")}};
Records const TWO_FOUND{TWO[1], TWO[0]};

TEST(Queries, FindTheOpenBucketsNewestFirst) {
    Session session("s4s");
    session.Start();
    QueryClient const client = session.Query();
    Records sent;
    auto const send = [&](std::string const& key, std::int64_t time) {
        sent.push_back({Text(key), time, Int32(static_cast<int>(sent.size())) + Text(key + "!")});
        session.Send({sent.back()});
    };
    auto const found = [&](std::initializer_list<std::size_t> numbers) {
        Records records;
        for (std::size_t const number : numbers) records.push_back(sent[number]);
        return records;
    };
    auto const ask = [&](std::int64_t from, std::int64_t to) {
        return client.Ask(Text("a"), static_cast<std::uint64_t>(from), static_cast<std::uint64_t>(to));
    };
    send("a", At(4, 7));  // before the first advance nothing is found, however long one waits for it
    session.WaitKeyFile(KeyEntry("s", Text("a")));
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(client.Ask(Text("a")).empty());

    send("a", At(8));           // 1: the first advance
    send("a", At(4, 9));        // 2: bucket 4 is still open
    send("a", At(6, 3));        // 3
    send("a", At(8, 1));        // 4
    send("a", At(6, 1));        // 5: newest is what came last, not the greatest time
    send("longer key", At(7));  // 6
    send("a", At(3));           // 7: late, in the oldest open bucket
    EXPECT_EQ(found({4, 1, 5, 3, 7, 2, 0}), client.AskUntil(Text("a"), 7));
    EXPECT_EQ(found({6}), client.Ask(Text("longer key")));
    EXPECT_EQ(found({5, 3}), ask(At(6, 1), At(6, 3))) << "both bounds belong to the range";
    EXPECT_EQ(found({}), ask(At(6, 4), At(8) - 1));
    EXPECT_EQ(found({}), ask(At(8, 1), At(6, 1))) << "an upside-down range";
    EXPECT_EQ(found({}), ask(-5, -1)) << "bounds are unsigned";
    EXPECT_EQ(found({7}), ask(0, At(3)));
    for (char const* const other : {"", "b", "A", "ab", "longer ke", "longer key."})
        EXPECT_TRUE(client.Ask(Text(other)).empty()) << other;

    send("a", At(9));  // 8: bucket 4 is recycled
    EXPECT_EQ(found({8, 4, 1, 5, 3}), client.AskUntil(Text("a"), 5)) << "retired contents are not searched";
    send("b", At(10));  // 9: hands off the buckets before 10
    session.WaitCycles(2);
    EXPECT_EQ(found({8, 4, 1, 5, 3}), client.AskUntil(Text("a"), 5)) << "what was shipped is still found";
    send("c", At(1000));  // 10
    EXPECT_EQ(found({10}), client.AskUntil(Text("c"), 1));
    EXPECT_TRUE(client.Ask(Text("a")).empty());
    session.FinishAndCheck(sent);
}

// String keys with and without their NUL counted; a request that is no query, or ends inside its fields, is not
// answered, and the same connections serve the next.
TEST(QueryRequests, OddOnesAreHarmless) {
    std::string const range = Big8(0) + Big8(UINT64_MAX);
    std::string const query = Big4(1) + range;
    enum Answer { NONE, EMPTY, FOUND };
    struct {
        char const* name;
        std::string payload;
        Answer answer;
        std::string::size_type lines;  // on standard error
    } const rows[] = {
        {"a key without its NUL", query + Big4(3) + "key", FOUND, 0},
        {"a key with its NUL", query + Big4(4) + "key\0"s, FOUND, 0},
        {"a key with an inner NUL", query + Big4(6) + "key\0ab"s, EMPTY, 0},
        {"a key with two NULs at its end", query + Big4(5) + "key\0\0"s, EMPTY, 0},
        {"a long key with an inner NUL", query + Big4(2000) + "key" + std::string(1997, '\0'), EMPTY, 0},
        {"a key of no byte", query + Big4(0), EMPTY, 0},
        {"another type", Big4(2) + range + Big4(3) + "key", NONE, 0},
        {"another type and nothing else", Big4(0), NONE, 0},
        {"another type with more than any query", Big4(0xFFFFFFFF) + std::string(9000, 'x'), NONE, 0},
        {"the termination message", "", NONE, 1},
        {"a type alone", Big4(1), NONE, 1},
        {"a cut time", query.substr(0, 19), NONE, 1},
        {"no key", query, NONE, 1},
        {"a cut key length", query + "\0\0"s, NONE, 1},
        {"a cut key", query + Big4(4) + "key", NONE, 1},
        {"a key of 2 GB", query + Big4(0x80000000) + "key", NONE, 1},
        {"a key of 4 GB less one", query + Big4(0xFFFFFFFF) + "key", NONE, 1},
    };
    Session session("s4s");
    session.Start();
    session.Send(TWO);
    QueryClient const client = session.Query();
    client.AskUntil(Text("key"), 2);
    std::size_t lines = 0;
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        client.Send(row.payload);
        if (row.answer != NONE) { EXPECT_EQ(row.answer == FOUND ? TWO_FOUND : Records{}, client.Receive()); }
        lines += row.lines;
        EXPECT_EQ(TWO_FOUND, client.Ask(Text("key"))) << "the same connections go on";
        EXPECT_EQ(lines, Count(session.server().OtherLines(), "\n")) << session.server().OtherLines();
    }
    for (std::string const payload : {"\1", "abc"}) {  // too short to name a type
        client.Send(payload);
        EXPECT_EQ(TWO_FOUND, client.Ask(Text("key")));
    }
    EXPECT_EQ(1U, session.server().Told("Received Termination,aborting\n"));
    session.FinishAndCheck(TWO);
}

TEST(QueryRequests, WithExcessDataEndTheServer) {
    for (bool const ignored : {false, true})
        for (std::size_t const excess : {1, 9000}) {
            SCOPED_TRACE((ignored ? "SIGINT ignored, " : "SIGINT default, ") + std::to_string(excess) + " bytes");
            Session session("s4s");
            session.launch.ignoreInterrupt = ignored;
            session.Start();
            session.Query().Send(Request(Text("key")) + std::string(excess, 'x'));
            EXPECT_EQ(ignored ? "exit 8" : "signal 2", session.server().WaitEnd());
            EXPECT_EQ(
                "\n\n >>>>>> Internal Error (Assert Failure):  WARNING: Excess data in query !\n \n"
                "     At file:uts_stgqueries.cpp line 31 <<<<<<<\n\n",
                session.server().OtherLines());
        }
}

// However a conversation ends, both of its connections are closed and the next client is served.
TEST(QueryConversations, EndAndLetTheNextClientIn) {
    std::string const request = Frame(Request(Text("key")));
    std::string const closedEarly = "Socket Receiver: socket closed prematurely!\n";
    struct {
        char const* name;
        std::string bytes;
        bool stays;  // the client does not close
        std::string line;
    } const rows[] = {
        {"a close between requests", "", false, ""},
        {"a header of two bytes, then silence", request.substr(0, 2), true, "Incomplete bytefield length read!\n"},
        {"a header of three bytes", request.substr(0, 3), false, "Incomplete bytefield length read!\n"},
        {"a cut body", request.substr(0, 20), false, closedEarly},
        {"a length of 4 GB less one", Big4(0xFFFFFFFF) + request, false, closedEarly},
    };
    Session session("s4s");
    session.Start();
    session.Send(TWO);
    std::string lines, byte;
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        QueryClient const first = session.Query();
        EXPECT_EQ(TWO_FOUND, first.AskUntil(Text("key"), 2));
        QueryClient const second = session.Query();  // waits, and is answered when the first is gone
        second.Send(Request(Text("key")));
        EXPECT_EQ(TWO_FOUND, first.Ask(Text("key")));
        char early = 0;
        EXPECT_EQ(-1, recv(second.replies.descriptor(), &early, 1, MSG_DONTWAIT)) << "one pair at a time";
        first.requests.Send(row.bytes);
        if (!row.stays) shutdown(first.requests.descriptor(), SHUT_WR);
        EXPECT_TRUE(!first.requests.TryReceive(byte, 1) && errno == 0) << "the request connection is closed";
        EXPECT_TRUE(!first.replies.TryReceive(byte, 1) && errno == 0) << "the reply connection is closed";
        EXPECT_EQ(TWO_FOUND, second.Receive());
        lines += row.line;
        EXPECT_EQ(lines, session.server().OtherLines());
    }
    session.FinishAndCheck(TWO);
}

// A client asks for megabytes and does not read them: the server goes on, and ends when it is told to.
TEST(QueryConversations, WithAClientThatDoesNotReadHoldUpNothing) {
    Session session("s4s");
    session.Start();
    Records sent;
    for (int i = 0; i < 8; ++i) sent.push_back({Text("key"), At(9, i), Int32(i) + Text(std::string(1 << 20, 'x'))});
    session.Send(sent, 1);
    QueryClient const client = session.Query();
    client.AskUntil(Text("key"), sent.size());
    client.Send(Request(Text("key")));
    client.replies.Receive(4);
    session.FinishAndCheck(sent);
}

// Every reply, whatever is absorbed, advanced or shipped meanwhile, is made of sent records of the key and the range,
// the newest first.
TEST(QueriesUnderLoad, AreConsistent) {
    constexpr int KEYS = 8;
    Session session("44s");
    session.Start();
    Records sent;
    for (int i = 0; i < (SANITIZED ? 20000 : 150000); ++i)
        sent.push_back({Int32(i % KEYS), At(6) + i * std::int64_t{500}, Int32(i) + Text("value " + std::to_string(i))});
    Socket const& producer = session.producer();
    std::atomic<bool> sending = true;
    std::thread feeder([&] {
        for (auto at = sent.begin(); at != sent.end(); at += 500) producer.TrySend(Frame(Payload({at, at + 500})));
        sending = false;
    });
    std::size_t hits = 0;
    std::string fault;
    try {
        QueryClient const client = session.Query();
        for (int round = 0; sending || round < 10; ++round) {
            std::int64_t const from = At(6 + round % 300);  // follows the stream
            std::int64_t const to = round % 2 == 0 ? INT64_MAX : from + 400000;
            std::string const key = Int32(round % KEYS);
            std::int64_t last = to;
            for (Record const& record :
                 client.Ask(key, static_cast<std::uint64_t>(from), static_cast<std::uint64_t>(to))) {
                std::size_t const number = FrameSize(record.rest.substr(0, 4));
                bool const known = number < sent.size() && record == sent[number];
                if (!known || record.key != key || record.time < from || record.time > last) fault = Show(record);
                last = record.time;
                ++hits;
            }
        }
    } catch (Failure const& failure) { fault = failure.what(); }
    feeder.join();
    EXPECT_EQ("", fault);
    EXPECT_GT(hits, 0U);
    session.FinishAndCheck(sent);
}

// Keeps asking until the server is gone: on one pair with many requests under way, or with a new pair for each.
void Storm(Session const& session, bool reconnects, std::atomic<bool> const& stop, std::atomic<int>& answers) {
    int const requests = reconnects ? 1 : 50;
    std::string batch;
    for (int i = 0; i < requests; ++i) batch += Frame(Request(Int32(1)));
    try {
        while (!stop) {
            QueryClient const client = session.Query();
            do {
                client.requests.Send(batch);
                for (int i = 0; i < requests; ++i, ++answers) client.Receive();
            } while (!stop && !reconnects);
        }
    } catch (Failure const&) {
        // The connection went down with the server.
    }
}

// The query thread is inside a search, a send or an accept when the server is taken down under it.
TEST(OrderlyEnds, UnderAStormOfQueriesReturnZero) {
    Records sent;
    for (int i = 0; i < 600; ++i) sent.push_back({Int32(i % 3), At(9 + i / 100, i), Int32(i)});
    for (int round = 0; round < (SANITIZED ? 20 : 100) && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Session session("44");
        session.Start();
        session.Send(sent);
        std::atomic<bool> stop = false;
        std::atomic<int> answers = 0;
        std::thread storm([&] { Storm(session, round % 2 == 1, stop, answers); });
        std::string ending;
        try {
            session.server().Wait("the storm", [&](std::string&) { return answers > round; });
            session.Disconnect();
            ending = session.server().WaitEnd();
        } catch (Failure const& failure) {
            ending = failure.what();
            session.server().Kill();
        }
        stop = true;
        storm.join();
        EXPECT_EQ("exit 0", ending);
        session.FinishAndCheck(sent);
    }
}

}  // namespace
}  // namespace systest
