// brindlectl as its users run it: command lines, streams and exit statuses, with the real server on the other side.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "harness.h"

namespace {

using namespace systest;
namespace fs = std::filesystem;

// A run of brindlectl. Its standard input is a pipe that a test feeds, its output two files.
class Tool {
 public:
    Tool(fs::path const& directory, Texts const& arguments) {
        static int count = 0;
        fs::path const base = directory / ("tool" + std::to_string(count++));
        outPath_ = base.string() + ".out";
        errorPath_ = base.string() + ".err";
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throw Failure("pipe");
        std::vector<char*> words{const_cast<char*>("brindlectl")};
        for (std::string const& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
        words.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(ends[0], STDIN_FILENO);
            dup2(open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            dup2(open(errorPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600), STDERR_FILENO);
            execv(BRINDLECTL_PATH, words.data());
            _exit(127);
        }
        close(ends[0]);
        input_ = ends[1];
        if (pid_ < 0) throw Failure("fork");
    }
    Tool(Tool const&) = delete;
    Tool& operator=(Tool const&) = delete;
    ~Tool() {
        CloseInput();
        if (status_ == RUNNING) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    void Feed(std::string_view bytes) const {
        EXPECT_EQ(write(input_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void CloseInput() {
        if (input_ >= 0) close(input_);
        input_ = -1;
    }
    void Signal(int number) const { kill(pid_, number); }
    std::string Out() const { return fs::exists(outPath_) ? ReadFile(outPath_) : ""; }
    std::string Errors() const { return fs::exists(errorPath_) ? ReadFile(errorPath_) : ""; }
    bool Running() {
        int status = 0;
        if (status_ == RUNNING && waitpid(pid_, &status, WNOHANG) == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        }
        return status_ == RUNNING;
    }
    // The exit status; 1000 and the number for a signal.
    int WaitEnd() {
        CloseInput();
        WaitUntil("the end of brindlectl", [this](std::string& seen) {
            seen = Errors();
            return !Running();
        });
        return status_;
    }

 private:
    static constexpr int RUNNING = -1;

    std::string outPath_;
    std::string errorPath_;
    pid_t pid_ = -1;
    int input_ = -1;
    int status_ = RUNNING;
};

std::string Ports(int const (&ports)[2]) {
    return "127.0.0.1:" + std::to_string(ports[0]) + "," + std::to_string(ports[1]);
}

// A directory with a schema of a text key and one field of each type.
class Brindlectl : public testing::Test {
 protected:
    Brindlectl() {
        char name[] = "/tmp/brindlectl-test.XXXXXX";
        if (mkdtemp(name) == nullptr) throw Failure("mkdtemp");
        directory_ = name;
        spec_ = File("rec.spec", "Rec string64 key int32 small int64 big float64 real string64 note\n");
    }
    ~Brindlectl() override { fs::remove_all(directory_); }

    std::string File(std::string const& name, std::string_view bytes) const {
        WriteFile(directory_ / name, bytes);
        return directory_ / name;
    }

    // A sink on free ports that listens, and the sockets of a server that has connected to it.
    struct Sink {
        std::unique_ptr<Tool> tool;
        Socket first;
        Socket second;
    };
    Sink StartSink(Texts options) const {
        for (int attempt = 0; attempt < 20; ++attempt) {
            int ports[2];
            { Socket const held[] = {Socket::Bind(ports[0], false), Socket::Bind(ports[1], false)}; }
            Texts arguments{"sink", "--spec", spec_, "--ship", Ports(ports)};
            arguments.insert(arguments.end(), options.begin(), options.end());
            Sink sink;
            sink.tool = std::make_unique<Tool>(directory_, arguments);
            WaitUntil("the sink", [&](std::string& seen) {
                seen = sink.tool->Errors();
                return !sink.tool->Running() || (Listens(ports[0]) && Listens(ports[1]));
            });
            if (!sink.tool->Running()) continue;  // a port was taken meanwhile
            sink.first = Socket::Connect(ports[0]);
            sink.second = Socket::Connect(ports[1]);
            return sink;
        }
        throw Failure("no sink starts");
    }

    fs::path directory_;
    std::string spec_;

 private:
    static bool Listens(int port) {
        char pattern[32];
        snprintf(pattern, sizeof pattern, ":%04X 00000000:0000 0A ", static_cast<unsigned>(port));
        return ReadFile("/proc/net/tcp").find(pattern) != std::string::npos;
    }
};

constexpr char HEADER[] = "note,time,unused,key,real,big,small\n";

TEST_F(Brindlectl, SendsEveryValueOfACsvFile) {
    Session session("s48fs");
    session.Start();
    std::string const csv =
        File("in.csv", std::string("\xEF\xBB\xBF") + HEADER +
                           "\"a,\"\"b\"\"\n2\",2001-01-01T00:00:00.000001Z,,k1,-0,-9223372036854775808,-2147483648\r\n"
                           ",978307200000002,x,,1e-3,9223372036854775807,2147483647\n"
                           "\xFF,978307200000003,x,k1,nan:7ff0000000000001,0,0");
    Tool send(directory_, {"send", "--spec", spec_, "--data", Ports(session.dataPorts), csv});
    EXPECT_EQ(send.WaitEnd(), 0) << send.Errors();
    EXPECT_EQ(send.Errors(), "brindlectl send: 3 records sent in 1 frame\n");
    EXPECT_EQ(session.server().WaitEnd(), "exit 0");
    session.FinishAndCheck(
        {{Text("k1"), 978307200000001, Int32(INT32_MIN) + Int64(INT64_MIN) + Float64(-0.0) + Text("a,\"b\"\n2")},
         {Text(""), 978307200000002, Int32(INT32_MAX) + Int64(INT64_MAX) + Float64(0.001) + Text("")},
         {Text("k1"), 978307200000003, Int32(0) + Int64(0) + Big8(0x7ff0000000000001) + Text("\xFF")}});
}

TEST_F(Brindlectl, SendCutsALongFileIntoFrames) {
    Session session("s48fs");
    session.Start();
    std::string csv = HEADER;
    Records sent;
    std::string const note(500, 'n');
    for (int i = 0; i < 3000; ++i) {
        csv += note + "," + std::to_string(978307200000000 + i) + ",,key" + std::to_string(i % 7) + ",0,0," +
               std::to_string(i) + "\n";
        sent.push_back(
            {Text("key" + std::to_string(i % 7)), 978307200000000 + i, Int32(i) + Int64(0) + Float64(0) + Text(note)});
    }
    Tool send(directory_, {"send", "--spec", spec_, "--data", Ports(session.dataPorts), File("in.csv", csv)});
    EXPECT_EQ(send.WaitEnd(), 0) << send.Errors();
    EXPECT_EQ(session.server().WaitEnd(), "exit 0");
    session.FinishAndCheck(sent);
}

TEST_F(Brindlectl, SendRefusesWhatIsWrongBeforeItConnects) {
    std::string const good = "n,1,,k,1,1,1\n";
    struct {
        std::string csv;
        int status;
        char const* error;
    } const rows[] = {
        {"", 65, ": is empty; the first row must name the columns\n"},
        {"note,time,key,real,big\n", 65,
         ":1: there is no column 'small'; the columns are: note, time, key, real, big\n"},
        {"note,time,key,real,big,small,key\n", 65, ":1: there are two columns 'key'\n"},
        {"note,key,real,big,small\n", 65,
         ":1: there is no column 'time'; the columns are: note, key, real, big, small\n"},
        {HEADER + good + "\"a\nb\",1,,k,1,1,1\nn,1,,k,1,1,x\n", 65, ":5: small: 'x' is not an int32\n"},
        {HEADER + good + "n,1,,k,one,1,1\n", 65, ":3: real: 'one' is not a float64\n"},
        {HEADER + good + "n,-1,,k,1,1,1\n", 65, ":3: time: '-1' is before 1970, which the server refuses\n"},
        {HEADER + good + "n,today,,k,1,1,1\n", 65,
         ":3: time: 'today' is neither an ISO 8601 time nor microseconds since 1970\n"},
        {HEADER + good + "n,1,,k\n", 65, ":3: the row has 4 values, but the header names 7 columns\n"},
        {HEADER + good + "\"n,1,,k,1,1,1\n", 65, ":3: the row ends inside a quoted value\n"},
        {HEADER + good, 69, "Connection refused"},
    };
    int ports[2];
    Socket const held[] = {Socket::Bind(ports[0], false), Socket::Bind(ports[1], false)};
    for (auto const& row : rows) {
        std::string const path = File("in.csv", row.csv);
        Tool send(directory_, {"send", "--spec", spec_, "--data", Ports(ports), "--wait", "0", path});
        EXPECT_EQ(send.WaitEnd(), row.status) << row.csv;
        EXPECT_NE(send.Errors().find((row.status == 65 ? path : "") + row.error), std::string::npos) << send.Errors();
    }
}

TEST_F(Brindlectl, SendPassesOnWhatCameBeforeAPauseAndQueryFindsIt) {
    Session session("s48fs");
    session.Start();
    Tool send(directory_, {"send", "--spec", spec_, "--data", Ports(session.dataPorts), "-"});
    send.Feed(std::string(HEADER) + "one,978307200000000,,k,1.5,1,1\nt\x01wo,978307200000001,,k,inf,2,-2\n");
    Texts const query{"query", "--spec", spec_, "--query", Ports(session.queryPorts), "k"};
    auto const ask = [&](Texts options) {
        Texts arguments = query;
        arguments.insert(arguments.end(), options.begin(), options.end());
        Tool tool(directory_, arguments);
        EXPECT_EQ(tool.WaitEnd(), 0) << tool.Errors();
        return tool.Out();
    };
    WaitUntil("the records", [&](std::string& seen) {
        seen = ask({"--format", "csv"});
        return Count(seen, "\n") == 3;
    });
    EXPECT_EQ(ask({"--format", "csv", "--to", "2001-01-01"}),
              "time,key,small,big,real,note\n"
              "978307200000000,k,1,1,1.5,one\n");
    EXPECT_EQ(ask({}),
              "time                         key  small  big  real  note\n"
              "2001-01-01T00:00:00.000001Z  k       -2    2   inf  t\\x01wo\n"
              "2001-01-01T00:00:00Z         k        1    1   1.5  one\n");
    EXPECT_EQ(send.WaitEnd(), 0) << send.Errors();
    EXPECT_EQ(session.server().WaitEnd(), "exit 0");
    EXPECT_EQ(AllRecords(session.Finish()).size(), 2U);
}

TEST_F(Brindlectl, SendTellsThatTheServerWentAway) {
    Session session("s48fs");
    session.Start();
    Tool send(directory_, {"send", "--spec", spec_, "--data", Ports(session.dataPorts), "-"});
    send.Feed(std::string(HEADER) + "one,978307200000000,,k,1,1,1\n");
    session.server().Wait("the record",
                          [&](std::string&) { return session.server().Told("TOrg: Total recs absorbed 1 ") > 0; });
    session.server().Kill();
    send.Feed("two,978307200000000,,k,1,1,1\n");
    EXPECT_EQ(send.WaitEnd(), 69) << send.Errors();
}

TEST_F(Brindlectl, SendDoesNotSayDoneWhenTheServerRefusedTheLastFrame) {
    Session session("ss");
    session.Start();
    Tool send(directory_, {"send", "--spec", spec_, "--data", Ports(session.dataPorts),
                           File("in.csv", HEADER + std::string("n,1,,k,1,1,1\n"))});
    EXPECT_EQ(send.WaitEnd(), 69) << send.Errors();
    EXPECT_NE(send.Errors().find("it has closed the connection"), std::string::npos) << send.Errors();
}

// The messages of one cycle with a single block.
std::string CycleFrames(std::string_view records, std::uint64_t count) {
    return Frame(Big4(1) + Text("k")) + Frame(Big4(2) + Text("k") + Big8(count) + std::string(records)) +
           Frame(Big4(3));
}

TEST_F(Brindlectl, SinkWritesWhatIsShipped) {
    std::string const records = Big8(7) + Int32(-1) + Int64(1) + Float64(0.1) + Text("a,\"b\"\n") +  //
                                Big8(8) + Int32(1) + Int64(2) + Big8(0x7ff8000000000000) + Text("\xFF");
    struct {
        Texts options;
        char const* out;
    } const rows[] = {
        {{}, "time,key,small,big,real,note\n7,k,-1,1,0.1,\"a,\"\"b\"\"\n\"\n8,k,1,2,nan,\xFF\n"},
        {{"--blocks", "--time", "at"},
         "cycle,block,at,key,small,big,real,note\n1,1,7,k,-1,1,0.1,\"a,\"\"b\"\"\n\"\n1,1,8,k,1,2,nan,\xFF\n"},
        {{"--format", "jsonl"},
         "{\"time\":7,\"key\":\"k\",\"small\":-1,\"big\":1,\"real\":0.1,\"note\":\"a,\\\"b\\\"\\n\"}\n"
         "{\"time\":8,\"key\":\"k\",\"small\":1,\"big\":2,\"real\":\"nan\",\"note\":{\"hex\":\"ff\"}}\n"},
    };
    for (auto const& row : rows) {
        Sink sink = StartSink(row.options);
        sink.first.Send(CycleFrames(records, 2));
        // Without waiting for the end of the stream.
        WaitUntil("the cycle's records", [&](std::string& seen) { return (seen = sink.tool->Out()) == row.out; });
        sink.first.Close();
        sink.second.Close();
        EXPECT_EQ(sink.tool->WaitEnd(), 0) << sink.tool->Errors();
        EXPECT_EQ(sink.tool->Errors(), "brindlectl sink: received: 1 cycles, 1 keys, 2 records\n");
    }
}

TEST_F(Brindlectl, SinkKeepsWhatCameHoweverItEnds) {
    std::string const record = Big8(7) + Int32(1) + Int64(1) + Float64(1) + Text("");
    std::string const good = CycleFrames(record, 1);
    enum End { CLOSES, RESETS, INTERRUPTED };
    struct {
        char const* what;
        std::string stream;
        End end;
        int status;
        char const* error;
    } const rows[] = {
        {"interrupted", good, INTERRUPTED, 0, "stopped while the server was connected"},
        {"interrupted inside a message", good + Big4(100), INTERRUPTED, 0, "stopped while the server was connected"},
        {"cut inside a message", good + Big4(100) + "x", CLOSES, 69, "the server's stream was cut off"},
        {"cut inside a message's second record", good + Big4(500) + Big4(2) + Text("k") + Big8(9) + record + "xyz",
         CLOSES, 69, "the 1 whole records of it are written"},
        {"ended inside a cycle", good + Frame(Big4(1)), CLOSES, 69, "the last cycle has no end"},
        {"reset", good, RESETS, 69, "Connection reset by peer"},
        {"a malformed message between", Frame(Big4(2) + "garbage") + good, CLOSES, 65,
         "message 1 of 11 bytes cannot be read with this schema"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.what);
        Sink sink = StartSink({});
        sink.first.Send(row.stream);
        WaitUntil("the record", [&](std::string& seen) {
            seen = sink.tool->Out();
            return seen == "time,key,small,big,real,note\n7,k,1,1,1,\n";
        });
        if (row.end == INTERRUPTED) sink.tool->Signal(SIGINT);
        if (row.end == RESETS) sink.first.Reset();
        if (row.end == CLOSES) sink.first.Close();
        EXPECT_EQ(sink.tool->WaitEnd(), row.status);
        EXPECT_NE(sink.tool->Errors().find(row.error), std::string::npos) << sink.tool->Errors();
        bool const another = row.stream.ends_with("xyz");
        EXPECT_NE(sink.tool->Errors().find(another ? " 1 keys, 2 records\n" : " 1 keys, 1 records\n"),
                  std::string::npos)
            << sink.tool->Errors();
        EXPECT_EQ(sink.tool->Out().ends_with("7,k,1,1,1,\n7,k,1,1,1,\n"), another);
    }
}

TEST_F(Brindlectl, SinkThatCannotWriteSaysSo) {
    Sink sink = StartSink({"--output", "/dev/full"});
    sink.first.Send(CycleFrames("", 0));
    EXPECT_EQ(sink.tool->WaitEnd(), 74);
    EXPECT_NE(sink.tool->Errors().find("/dev/full: writing failed: No space left on device"), std::string::npos)
        << sink.tool->Errors();
}

TEST_F(Brindlectl, DumpShowsWhatAReplayWouldBringBack) {
    Types const types = "s48fs";
    fs::create_directory(directory_ / "log");
    File("log/KeyFile", "");
    File("log/F2", LogRecord(types, {Text("k"), 5, Int32(-1) + Int64(2) + Float64(0.5) + Text("a,b")}) +
                       LogRecord(types, {Text("k"), 6, Int32(1) + Int64(2) + Float64(0.5) + Text("")}).substr(0, 20));
    Tool csv(directory_, {"dump", "--spec", spec_, "--format", "csv", directory_ / "log"});
    EXPECT_EQ(csv.WaitEnd(), 0);
    EXPECT_EQ(csv.Out(), "time,key,small,big,real,note\n5,k,-1,2,0.5,\"a,b\"\n");
    EXPECT_EQ(csv.Errors(), "WARNING: Incomplete recovery file\nbrindlectl dump: 1 record in " +
                                (directory_ / "log").string() + "\n");
    Tool lines(directory_, {"dump", "--spec", spec_, directory_ / "log"});
    EXPECT_EQ(lines.WaitEnd(), 0);
    EXPECT_EQ(lines.Errors(), " k  -> 5  -1  2  0.500000  a,b \nWARNING: Incomplete recovery file\n");
    File("log/notes.txt", "");
    Tool refused(directory_, {"dump", "--spec", spec_, directory_ / "log"});
    EXPECT_EQ(refused.WaitEnd(), 65);
}

TEST_F(Brindlectl, ExitStatusTellsWhoIsAtFault) {
    std::string const odd = File("odd.spec", "Rec int32 a int64 b float64");
    std::string const empty = File("empty.spec", "Rec");
    struct {
        Texts arguments;
        int status;
    } const rows[] = {
        {{}, 2},
        {{"frobnicate"}, 2},
        {{"--version"}, 0},
        {{"send", "--help"}, 0},
        {{"send", "--spec", spec_, "x.csv"}, 2},
        {{"send", "--spec", spec_, "--data", "nowhere", "x.csv"}, 2},
        {{"send", "--spec", spec_, "--data", "1,2", directory_ / "none.csv"}, 74},
        {{"send", "--spec", directory_ / "none.spec", "--data", "1,2", "-"}, 78},
        {{"send", "--spec", odd, "--data", "1,2", "-"}, 78},
        {{"send", "--spec", empty, "--data", "1,2", "-"}, 78},
        {{"query", "--spec", spec_, "--query", "1,2", "--from", "noon", "k"}, 2},
        {{"query", "--spec", spec_, "--query", "no-such-host.invalid:1,2", "k"}, 69},
        {{"sink", "--spec", spec_, "--ship", "1,2", "--time", "key"}, 2},
        {{"dump", "--spec", spec_, directory_ / "none"}, 74},
    };
    for (auto const& row : rows) {
        Tool tool(directory_, row.arguments);
        EXPECT_EQ(tool.WaitEnd(), row.status) << testing::PrintToString(row.arguments) << "\n" << tool.Errors();
        EXPECT_EQ(tool.Errors().empty(), row.status == 0) << testing::PrintToString(row.arguments);
    }
}

}  // namespace
