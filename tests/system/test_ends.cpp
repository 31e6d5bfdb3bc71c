// How the server ends, how it refuses to start, and what it survives.
#include <algorithm>
#include <optional>

#include "harness.h"

namespace systest {
namespace {

Records Sample(int count) {
    Records records;
    for (int i = 0; i < count; ++i) records.push_back({Int32(i % 5), At(9 + i / 10, i), Int32(i)});
    return records;
}

std::string Assertion(std::string const& message, std::string const& site) {
    return "\n\n >>>>>> Internal Error (Assert Failure): " + message + " \n     At file:" + site + " <<<<<<<\n\n";
}

TEST(TerminationEnd, KillsTheServerAndKeepsTheLog) {
    for (bool const ignored : {false, true}) {
        SCOPED_TRACE(ignored ? "SIGINT ignored" : "SIGINT default");
        Records sent;
        for (int i = 0; i < 100; ++i) sent.push_back({Int32(i), At(4, i), Text(std::string(200, 'x'))});
        Session session("4s");
        session.launch.ignoreInterrupt = ignored;
        session.Start();
        session.Send(sent);
        session.producer().Send(Frame(""));
        EXPECT_EQ(ignored ? "exit 8" : "signal 2", session.server().WaitEnd());
        EXPECT_EQ("Received Termination,aborting\n" +
                      Assertion(" ERROR, Organizer destruction without termination!", "uts_stgorganizer.cpp line 233"),
                  session.server().OtherLines());
        EXPECT_EQ(0U, session.server().Told("Shutting down"));
        EXPECT_TRUE(session.Shipped().empty()) << "nothing is shipped any more";
        // Whole blocks are on disk; the tail of the last one is lost with the process.
        Records const logged = DecodeLog(session.types, ReadLog(session.recovery));
        std::size_t const recordBytes = LogRecord(session.types, sent[0]).size();
        EXPECT_GE(logged.size(), (sent.size() * recordBytes - 4095) / recordBytes);
    }
}

TEST(ConnectionEnd, IsOrderlyAlsoAfterAReset) {
    for (bool const byReset : {false, true}) {
        SCOPED_TRACE(byReset ? "reset" : "closed");
        Session session("44");
        session.Start();
        Records const sent = Sample(50);
        session.Send(sent);
        session.WaitCycles(BucketModel().Absorb(sent));  // a reset drops what was not read yet
        if (byReset) session.producer().Reset();
        session.FinishAndCheck(sent);
        EXPECT_EQ(byReset ? "Socket Receiver:: Connection reset by peer\n" : "", session.server().OtherLines());
        for (char const* const line :
             {"Shutting down\n", "TMain: TQ termination ", "TMain Gathered TOrg\n",
              "TOrg -> Termination received, shipping everything.\n", " TShp: Terminating..\n"})
            EXPECT_EQ(1U, session.server().Told(line)) << line;
    }
}

TEST(PortsInUse, EndTheDataServiceButNotTheQueries) {
    char const* const inUse = "Binding socket failed:: Address already in use\n Accept failed:: Invalid argument\n";
    for (int const which : {0, 1, 2, 3}) {
        SCOPED_TRACE((which < 2 ? "data port " : "query port ") + std::to_string(which % 2 + 1));
        Session session("44");
        int& port = (which < 2 ? session.dataPorts : session.queryPorts)[which % 2];
        Socket const held = Socket::Bind(port, true);
        session.takenPort = &port;
        if (which < 2) {
            EXPECT_EQ("exit 0", session.RunToEnd());
            EXPECT_EQ(1U, session.server().Told("Shutting down\n"));
            ASSERT_EQ(1U, session.Shipped().size()) << "an empty cycle";
            session.FinishAndCheck({});
        } else {
            session.Start();
            session.Send(Sample(50));
            session.FinishAndCheck(Sample(50));
        }
        EXPECT_EQ(inUse, session.server().OtherLines());
    }
}

TEST(CommandLineCount, WrongPrintsTheUsageAndTouchesNothing) {
    Session session("44");
    session.recoverFrom = session.recovery;
    Texts words = session.Arguments();
    words.push_back("one too many");
    for (int const count : {0, 1, 9, 12}) {
        Server server({words.begin(), words.begin() + count}, {});
        EXPECT_EQ("exit 8", server.WaitEnd());
        EXPECT_EQ(
            "Args: Specfile RecoveryPath ShipHost ShipPort1 ShipPort2 DataListenPort1 DataListenPort2 TW[sec] "
            "QPort1 QPort2 <RecoverFromPath>\n ",
            server.Errors())
            << count << " arguments";
    }
    EXPECT_TRUE(List(session.recovery).empty());
}

// A start that fails leaves its directory as it was, so the same command works once the cause is gone.
TEST(FailedStarts, LeaveNothingBehind) {
    std::string const badName = "Illegal name in recovery directory!\n";
    std::string const notEmpty = Assertion("ERROR, Recovery directory not empty!\n", "uts_stgrecovery.cpp line 68");
    std::string const badWidth =
        Assertion(" ERROR, Window width has to be multiple of 100!\n", "uts_stgorganizer.cpp line 192");
    std::string const badSpec = Assertion("ERROR, bad spec file!\n", "UTL/C/LIBS/UTS/uts_tsspec.h line 135");
    std::string const corrupt = "Corrupt Recovery Keyfile!\n";
    Files const none;
    Files const noKeys{{"KeyFile", ""}};
    struct {
        char const* name;
        Files recovery;              // what lies in the recovery directory
        std::optional<Files> older;  // what lies in the directory to recover from, when one is named
        char const* window;
        char const* ending;
        std::string error;
        char const* specFile;  // null: the right one
    } const rows[] = {
        {"an earlier run's file", {{"F3", "x"}}, {}, "1", "signal 2", notEmpty, nullptr},
        {"a stray file", {{"notes.txt", "x"}}, {}, "1", "signal 6", badName, nullptr},
        {"a number that no int holds", {{"F99999999999", ""}}, {}, "1", "signal 6", badName, nullptr},
        {"an earlier run's keys", {{"KeyFile", "x"}}, {}, "1", "signal 6", "KeyFile could not be created: ", nullptr},
        {"window 0", none, {}, "0", "signal 2", badWidth, nullptr},
        {"window below 0", none, {}, "-5", "signal 2", badWidth, nullptr},
        {"window of letters", none, {}, "wide", "signal 2", badWidth, nullptr},
        {"window just too wide", none, {}, "9223372036855", "signal 2", badWidth, nullptr},
        {"window that wraps to a good one", none, {}, "92233720368548", "signal 2", badWidth, nullptr},
        {"window beyond all numbers", none, {}, "99999999999999999999", "signal 2", badWidth, nullptr},
        {"bad directory and window", {{"F3", "x"}}, {}, "0", "signal 2", notEmpty, nullptr},
        {"no older key file", none, Files{{"F1", ""}}, "1", "signal 6", corrupt, nullptr},
        {"a cut older key file", none, Files{{"KeyFile", "1234567"}}, "1", "signal 6", corrupt, nullptr},
        {"a replay without a field", none, noKeys, "1", "exit 8", "", "Rec"},
        {"a replay of a bad schema", none, noKeys, "1", "exit 8", "bad type int23\n", "Rec int32 a int23 b"},
        {"an unfinished schema", none, {}, "1", "signal 2", badSpec, "Rec int32 a int64 b float64"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        Session session("44");
        Fill(session.recovery, row.recovery);
        if (row.older) Fill(session.recoverFrom = session.Make("older"), *row.older);
        session.window = row.window;
        if (row.specFile != nullptr) WriteFile(session.specFile, row.specFile);
        EXPECT_EQ(row.ending, session.RunToEnd());
        EXPECT_NE("", session.server().OtherLines()) << "a failed start says why";
        EXPECT_NE(std::string::npos, session.server().Errors().find(row.error)) << session.server().Errors();
        EXPECT_EQ(row.recovery, ReadAll(session.recovery));

        Fill(session.recovery, none);
        session.window = "1";
        WriteFile(session.specFile, SpecFile(session.types));
        if (row.older) Fill(session.recoverFrom, noKeys);
        session.Start();
        session.Send(Sample(20));
        session.FinishAndCheck(Sample(20));
    }
}

TEST(Windows, OfTheGreatestWidthWork) {
    Session session("44");
    session.window = "9223372036854";
    session.Start();
    session.Send(Sample(20));
    EXPECT_TRUE(AllRecords(session.Finish()).empty()) << "no bucket is ever left";
    EXPECT_EQ(Sample(20), DecodeLog(session.types, ReadLog(session.recovery)));
}

// Without a field the server starts all the same: records are refused, queries find nothing.
TEST(Schemas, WithoutAFieldRefuseRecords) {
    struct {
        char const* specFile;  // null: there is none
        char const* line;
    } const rows[] = {
        {nullptr, "ERROR suts_tspec: Cannot open specfile "},
        {"", "ERROR suts_tspec: Incomplete spec file!\n"},
        {"Rec int32 a int64", "ERROR suts_tspec: Incomplete spec file!\n"},
        {"Rec int32 a Int32 b", "ERROR suts_tspec: Syntax, bad type Int32\n"},
        {"Rec\n", ""},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.specFile == nullptr ? "no spec file" : row.specFile);
        Session session("44");
        std::filesystem::remove(session.specFile);
        if (row.specFile != nullptr) WriteFile(session.specFile, row.specFile);
        session.Start();
        std::string const before = session.server().OtherLines();
        EXPECT_EQ(row.line, before.substr(0, std::string(row.line).size()));
        QueryClient const client = session.Query();
        EXPECT_TRUE(client.Ask(Int32(1) + "and more that would be fatal").empty());
        EXPECT_TRUE(client.Ask("").empty());
        session.Send(Sample(1));
        EXPECT_EQ("exit 0", session.server().WaitEnd());
        EXPECT_EQ(Count(before, "\n") + 1, Count(session.server().OtherLines(), "\n")) << session.server().OtherLines();
        session.FinishAndCheck({});
    }
}

TEST(Survival, OfAClosedErrorPipe) {
    Session session("44");
    session.launch.closedErrorPipe = true;
    session.Start();
    session.Send(Sample(200));
    session.FinishAndCheck(Sample(200));
}

// Records count as shipped when they are gathered, whether the consumer got them or not.
TEST(Survival, WithoutAConsumer) {
    Session session("44", Downstream::REFUSES);
    session.Start();
    session.Send(Sample(200));
    session.Finish();
    EXPECT_EQ(1U, session.server().Told("ERROR TCPClient connection failed! : Connection refused\n"));
    EXPECT_GE(session.server().Told("ERROR  Sender:: "), 3U) << "messages are tried and reported all the same";
    EXPECT_EQ(ONLY_KEY_FILE, List(session.recovery));
}

TEST(Survival, OfAConsumerThatVanishes) {
    for (bool const inAMessage : {false, true}) {
        SCOPED_TRACE(inAMessage ? "in the middle of a message" : "between cycles");
        Session session("4s", Downstream::NARROW);
        session.Start();
        session.consumer().Pause(inAMessage);
        session.Send({{Int32(1), At(6), Text(std::string(4 << 20, 'x'))}, {Int32(1), At(8), Text("")}});
        session.server().WaitTold(inAMessage ? "TShp: Keys sent:\n" : "TShp: termination sent\n", 2);
        session.consumer().Vanish();
        session.Send({{Int32(1), At(20), Text("a")}, {Int32(2), At(30), Text("b")}});
        session.Disconnect();
        EXPECT_EQ("exit 0", session.server().WaitEnd());
        EXPECT_GE(session.server().Told("Sender:"), 1U);
        EXPECT_EQ(ONLY_KEY_FILE, List(session.recovery));
    }
}

}  // namespace
}  // namespace systest
