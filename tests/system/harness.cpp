#include "harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <set>

namespace systest {

namespace {

// A sanitizer slows the server up to fifteen times; BRINDLE_TEST_TIME_FACTOR stretches every deadline further.
int DeadlineSeconds() {
    char const* const text = std::getenv("BRINDLE_TEST_TIME_FACTOR");
    return 20 * (text != nullptr ? std::max(1, std::atoi(text)) : 1) * (SANITIZED ? 5 : 1);
}

[[noreturn]] void FailCall(std::string const& call) { throw Failure(call + ": " + std::strerror(errno)); }

std::string Tail(std::string const& text) {
    return text.substr(text.size() - std::min<std::size_t>(text.size(), 3000));
}

// How much of the text's beginning the pattern takes, in which # stands for a number; 0 when it does not match.
std::size_t MatchedSize(std::string_view text, std::string_view pattern) {
    std::size_t at = 0;
    for (char const expected : pattern) {
        if (expected == '#')
            at = std::min(text.find_first_not_of("-0123456789", at), text.size());
        else if (at == text.size() || text[at++] != expected)
            return 0;
    }
    return at;
}

template <class Call>
bool WithAddress(Call call, int descriptor, int port, bool everyAddress) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(everyAddress ? INADDR_ANY : INADDR_LOOPBACK);
    return call(descriptor, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

Socket NewSocket() {
    Socket made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (made.descriptor() < 0) FailCall("socket");
    timeval const limit{DeadlineSeconds(), 0};
    setsockopt(made.descriptor(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(made.descriptor(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    int const on = 1;
    setsockopt(made.descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return made;
}

}  // namespace

void WaitUntil(std::string const& what, Condition const& condition) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(DeadlineSeconds());
    for (std::string seen;;) {
        bool const late = std::chrono::steady_clock::now() > end;
        if (condition(seen)) return;
        if (late) throw Failure(std::string("waited in vain for ").append(what).append("; last seen: ").append(seen));
        poll(nullptr, 0, 1);
    }
}

void WriteFile(std::filesystem::path const& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary);
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush()) FailCall(path.string());
}

std::string ReadFile(std::filesystem::path const& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

Texts List(std::filesystem::path const& directory) {
    Texts names;
    for (auto const& entry : std::filesystem::directory_iterator(directory)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::string ReadLog(std::filesystem::path const& directory) {
    std::map<long, std::string> files;
    for (auto const& [name, bytes] : ReadAll(directory))
        if (name[0] == 'F') files[std::atol(name.c_str() + 1)] = bytes;
    std::string joined;
    for (auto const& file : files) joined += file.second;
    return joined;
}

Files ReadAll(std::filesystem::path const& directory) {
    Files files;
    for (std::string const& name : List(directory)) files.emplace_back(name, ReadFile(directory / name));
    return files;
}

void Fill(std::filesystem::path const& directory, Files const& files) {
    for (std::string const& name : List(directory)) std::filesystem::remove(directory / name);
    for (auto const& [name, bytes] : files) WriteFile(directory / name, bytes);
}

std::size_t Count(std::string_view text, std::string_view part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) ++count;
    return count;
}

Socket& Socket::operator=(Socket&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

void Socket::Close() {
    if (descriptor_ >= 0) close(std::exchange(descriptor_, -1));
}

void Socket::Reset() {
    linger const atOnce{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    Close();
}

Socket Socket::Connect(int port) {
    Socket socket = NewSocket();
    if (!WithAddress(connect, socket.descriptor_, port, false)) FailCall("connection to port " + std::to_string(port));
    return socket;
}

// Below 32768, where the system takes no port of its own accord.
Socket Socket::Bind(int& port, bool everyAddress) {
    static std::mt19937 random(std::random_device{}());
    for (int attempt = 0; attempt < 1000; ++attempt) {
        Socket socket = NewSocket();
        port = std::uniform_int_distribution<int>(10000, 32767)(random);
        if (WithAddress(bind, socket.descriptor_, port, everyAddress)) return socket;
    }
    throw Failure("no free port");
}

bool Socket::TrySend(std::string_view bytes) const {
    while (!bytes.empty()) {
        ssize_t const sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

void Socket::Send(std::string_view bytes) const {
    if (!TrySend(bytes)) FailCall("send");
}

bool Socket::TryReceive(std::string& bytes, std::size_t size) const {
    bytes.resize(size);
    errno = 0;
    ssize_t const got = size == 0 ? 0 : recv(descriptor_, bytes.data(), size, MSG_WAITALL);
    return got == static_cast<ssize_t>(size);
}

std::string Socket::Receive(std::size_t size) const {
    std::string bytes;
    if (!TryReceive(bytes, size)) FailCall("receiving " + std::to_string(size) + " bytes");
    return bytes;
}

Server::Server(Texts const& arguments, Launch const& launch) : errorFile_(memfd_create("errors", MFD_CLOEXEC)) {
    int pipeEnds[2] = {-1, -1};
    if (errorFile_ < 0 || (launch.closedErrorPipe && pipe2(pipeEnds, O_CLOEXEC) != 0)) FailCall("standard error");
    std::vector<char*> words{const_cast<char*>(BRINDLE_PATH)};
    for (std::string const& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is killed takes its server along
        rlimit const noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        signal(SIGINT, launch.ignoreInterrupt ? SIG_IGN : SIG_DFL);
        signal(SIGPIPE, SIG_DFL);
        dup2(launch.closedErrorPipe ? pipeEnds[1] : errorFile_, STDERR_FILENO);
        execv(BRINDLE_PATH, words.data());
        _exit(127);
    }
    for (int const end : pipeEnds) Socket const closed(end);
    if (pid_ < 0) FailCall("fork");
}

Server::~Server() {
    Kill();
    close(errorFile_);
}

std::string const& Server::Errors() {
    char buffer[65536];
    for (;;) {
        ssize_t const got = pread(errorFile_, buffer, sizeof buffer, static_cast<off_t>(errors_.size()));
        if (got <= 0) return errors_;
        errors_.append(buffer, static_cast<std::size_t>(got));
    }
}

// A line that is written with several calls may hold another thread's line, so its pieces are taken out one by one.
std::string Server::OtherLines() {
    std::string others;
    for (std::string_view rest = Errors(); !rest.empty();) {
        std::size_t taken = 0;
        for (char const* const piece :
             {"TOrg: Total recs absorbed # delta # ", "TOrg: Advanced buckets from # to # ", "TShp: Keys sent:\n",
              ": utime # us, stime # us, etime # us, MaxRSS # kB  \n",
              " : utime # us, stime # us, etime # us, MaxRSS # kB  \n", " TShp: Starting..\n", "TShp: Ship done #",
              "TShp: termination sent\n", " TShp: Terminating..\n", "TMain: TQ termination #\n",
              "TMain Gathered TOrg\n", "TOrg -> Termination received, shipping everything.\n", "Shutting down\n",
              " --- Recovered # records\n"})
            taken = std::max(taken, MatchedSize(rest, piece));
        if (taken == 0) others += rest[0];
        rest.remove_prefix(std::max<std::size_t>(taken, 1));
    }
    return others;
}

bool Server::Running() {
    int status = 0;
    if (!ending_.empty() || waitpid(pid_, &status, WNOHANG) != pid_) return ending_.empty();
    ending_ = WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                                : "signal " + std::to_string(WTERMSIG(status));
    EXPECT_EQ(0U, Told("Sanitizer")) << Errors();
    return false;
}

// The socket that listens on the port must be one of this process, so nobody else's is ever taken for it.
bool Server::ListensOn(int port) const {
    std::ifstream table("/proc/net/tcp");
    std::error_code gone;
    for (std::string line; std::getline(table, line);) {
        unsigned int localPort = 0, state = 0;
        unsigned long inode = 0;
        constexpr unsigned int LISTENING = 10;
        int const fields =
            std::sscanf(line.c_str(), "%*s %*8s:%x %*s %x %*s %*s %*s %*s %*s %lu", &localPort, &state, &inode);
        if (fields != 3 || state != LISTENING || localPort != static_cast<unsigned int>(port)) continue;
        std::string const target = "socket:[" + std::to_string(inode) + "]";
        for (auto const& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/fd", gone))
            if (std::error_code closed; std::filesystem::read_symlink(entry.path(), closed) == target) return true;
    }
    return false;
}

long Server::PeakKb() const {
    std::string const status = ReadFile("/proc/" + std::to_string(pid_) + "/status");
    std::size_t const at = status.find("VmHWM:");
    return at == status.npos ? 0 : std::stol(status.substr(at + 6));
}

std::string Server::WaitEnd() {
    WaitUntil("the end of the server", [&](std::string& seen) {
        seen = Tail(Errors());
        return !Running();
    });
    return ending_;
}

void Server::Kill() {
    if (!Running()) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    ending_ = "killed";
}

void Server::Wait(std::string const& what, Condition const& condition) {
    std::string lastSeen;
    WaitUntil(what, [&](std::string& seen) {
        bool const running = Running();
        if (condition(lastSeen)) return true;
        seen = lastSeen + "\nstandard error: " + Tail(Errors());
        if (!running) throw Failure("the server ended (" + ending_ + ") before " + what + ": " + seen);
        return false;
    });
}

void Server::WaitTold(std::string const& text, std::size_t times) {
    Wait("'" + text + "'", [&](std::string&) { return Told(text) >= times; });
}

Consumer::Consumer(bool narrow) : wake_(eventfd(0, EFD_CLOEXEC)) {
    for (int which = 0; which < 2; ++which) {
        listeners_[which] = Socket::Bind(ports[which], false);
        int const segmentBytes = 1200;
        int const windowBytes = 32768;
        if (narrow) {
            setsockopt(listeners_[which].descriptor(), IPPROTO_TCP, TCP_MAXSEG, &segmentBytes, sizeof segmentBytes);
            setsockopt(listeners_[which].descriptor(), SOL_SOCKET, SO_RCVBUF, &windowBytes, sizeof windowBytes);
        }
        if (listen(listeners_[which].descriptor(), 4) != 0) FailCall("listen");
    }
    thread_ = std::thread([this] { Run(); });
}

void Consumer::Pause(bool paused) {
    paused_ = paused;
    eventfd_write(wake_, 1);
}

void Consumer::Stop(bool reset) {
    if (!thread_.joinable()) return;
    stop_ = true;
    eventfd_write(wake_, 1);
    thread_.join();
    close(wake_);
    for (int which = 0; which < 2; ++which) {
        listeners_[which].Close();
        reset ? connections_[which].Reset() : connections_[which].Close();
    }
}

// False when the consumer is to stop; a paused one waits here.
bool Consumer::WaitReadable(Socket const& socket) const {
    for (;;) {
        pollfd polled[2] = {{paused_ ? -1 : socket.descriptor(), POLLIN, 0}, {wake_, POLLIN, 0}};
        poll(polled, 2, -1);
        eventfd_t tokens = 0;
        if (polled[1].revents != 0) eventfd_read(wake_, &tokens);
        if (stop_ || polled[0].revents != 0) return !stop_;
    }
}

void Consumer::Run() {
    for (int which = 0; which < 2; ++which) {
        if (!WaitReadable(listeners_[which])) return;
        connections_[which] = Socket(accept4(listeners_[which].descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    std::string buffer(1 << 18, '\0');
    while (WaitReadable(connections_[0])) {
        ssize_t const got = recv(connections_[0].descriptor(), buffer.data(), buffer.size(), 0);
        if (got <= 0) break;
        Take(std::string_view(buffer).substr(0, static_cast<std::size_t>(got)));
    }
    ended_ = true;
}

void Consumer::Take(std::string_view bytes) {
    partial_ += bytes;
    std::size_t at = 0;
    while (partial_.size() - at >= 4) {
        std::size_t const size = FrameSize(std::string_view(partial_).substr(at));
        if (partial_.size() - at - 4 < size) break;
        messages_.push_back(partial_.substr(at + 4, size));
        at += 4 + size;
        if (messages_.back() == Big4(3)) ++cycles_;
    }
    partial_.erase(0, at);
}

Texts Consumer::WaitMessages() const {
    WaitUntil("the end of the shipments", [&](std::string& seen) {
        seen = std::to_string(cycles_) + " cycles";
        return ended_.load();
    });
    EXPECT_EQ("", partial_) << "bytes that belong to no message";
    char byte = 0;
    EXPECT_GE(0, recv(connections_[1].descriptor(), &byte, 1, MSG_DONTWAIT)) << "the second connection carries nothing";
    return messages_;
}

Records QueryClient::Ask(std::string_view key, std::uint64_t from, std::uint64_t to) const {
    Send(Request(key, from, to));
    return Receive();
}

Records QueryClient::AskUntil(std::string_view key, std::size_t records) const {
    Records reply;
    WaitUntil(std::to_string(records) + " records in a reply", [&](std::string& seen) {
        reply = Ask(key);
        seen = std::to_string(reply.size()) + " records";
        return reply.size() == records;
    });
    return reply;
}

Session::Session(Types schema, Downstream downstream) : types(std::move(schema)), downstream_(downstream) {
    std::string pattern = testing::TempDir() + "brindle.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) FailCall("mkdtemp");
    directory_ = pattern;
    specFile = directory_ / "spec";
    WriteFile(specFile, SpecFile(types));
    recovery = Make("recovery");
}

Session::~Session() {
    server_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::filesystem::path Session::Make(std::string const& name) const {
    std::filesystem::create_directory(directory_ / name);
    return directory_ / name;
}

Texts Session::Arguments() const {
    auto const text = [](int port) { return std::to_string(port); };
    int const both[2] = {refusingPort_, refusingPort_};
    int const* const ship = consumer_ != nullptr ? consumer_->ports : both;
    Texts words{specFile,           recovery,           "127.0.0.1", text(ship[0]),       text(ship[1]),
                text(dataPorts[0]), text(dataPorts[1]), window,      text(queryPorts[0]), text(queryPorts[1])};
    if (!recoverFrom.empty()) words.push_back(recoverFrom);
    return words;
}

void Session::Spawn() {
    if (downstream_ == Downstream::REFUSES)
        refusing_ = Socket::Bind(refusingPort_, true);
    else
        consumer_ = std::make_unique<Consumer>(downstream_ == Downstream::NARROW);
    for (int* const port : {&dataPorts[0], &dataPorts[1], &queryPorts[0], &queryPorts[1]})
        if (port != takenPort) Socket::Bind(*port, true);
    server_ = std::make_unique<Server>(Arguments(), launch);
    connected_ = false;
}

void Session::Start() {
    Files const before = ReadAll(recovery);
    for (int attempt = 0; attempt < 20; ++attempt) {
        Spawn();
        WaitUntil("the data ports", [&](std::string& seen) {
            seen = Tail(server_->Errors());
            return server_->ListensOn(dataPorts[1]) || !server_->Running();
        });
        bool const unseen = launch.closedErrorPipe && !server_->Running();
        if (!unseen && (takenPort != nullptr || server_->Told("Binding socket failed:") == 0)) {
            if (server_->Running()) return;
            throw Failure("the server ended (" + server_->WaitEnd() + "): " + server_->Errors());
        }
        // Somebody took a port in between: the next attempt finds what the first found.
        server_->Kill();
        Fill(recovery, before);
    }
    throw Failure("every start met a taken port");
}

std::string Session::RunToEnd() {
    Spawn();
    return server_->WaitEnd();
}

Socket& Session::producer() {
    for (int which = 0; which < 2 && !connected_; ++which) producer_[which] = Socket::Connect(dataPorts[which]);
    connected_ = true;
    return producer_[0];
}

void Session::Send(Records const& records, std::size_t perFrame) {
    for (std::size_t i = 0; i < records.size();) {
        std::size_t const count = std::min(perFrame, records.size() - i);
        auto const begin = records.begin() + static_cast<std::ptrdiff_t>(i);
        producer().Send(Frame(Payload({begin, begin + static_cast<std::ptrdiff_t>(count)})));
        i += count;
    }
}

void Session::Disconnect() {
    for (Socket& connection : producer_) connection.Close();
}

void Session::WaitCycles(std::size_t cycles) {
    server_->Wait(std::to_string(cycles) + " cycles", [&](std::string& seen) {
        seen = std::to_string(consumer_->CycleCount()) + " cycles";
        return consumer_->CycleCount() >= cycles;
    });
}

void Session::WaitKeyFile(std::string const& bytes) {
    server_->Wait("the key file", [&](std::string& seen) {
        seen = std::to_string(ReadFile(recovery + "/KeyFile").size()) + " bytes";
        return ReadFile(recovery + "/KeyFile") == bytes;
    });
}

Cycles Session::Finish() {
    if (server_->Running()) producer();
    Disconnect();
    EXPECT_EQ("exit 0", server_->WaitEnd()) << Tail(server_->Errors());
    return consumer_ != nullptr ? Shipped() : Cycles();
}

Cycles Session::FinishAndCheck(Records const& sent) {
    Cycles cycles = Finish();
    ExpectSameRecords(sent, AllRecords(cycles));
    ExpectOrderedBlocks(cycles, sent);
    Texts keys;
    std::set<std::string> known;
    std::string keyFile;
    for (Record const& record : sent) {
        if (!known.insert(record.key).second) continue;
        keys.push_back(record.key);
        keyFile += KeyEntry(types, record.key);
    }
    EXPECT_EQ(keys, AnnouncedKeys(cycles));
    EXPECT_EQ(ONLY_KEY_FILE, List(recovery));
    EXPECT_EQ(keyFile, ReadFile(recovery + "/KeyFile"));
    return cycles;
}

Records AllRecords(Cycles const& cycles) {
    Records records;
    for (Cycle const& cycle : cycles)
        for (auto const& group : cycle.groups)
            for (Block const& block : group) records.insert(records.end(), block.records.begin(), block.records.end());
    return records;
}

Texts AnnouncedKeys(Cycles const& cycles) {
    Texts keys;
    for (Cycle const& cycle : cycles) keys.insert(keys.end(), cycle.newKeys.begin(), cycle.newKeys.end());
    return keys;
}

void ExpectSameRecords(Records expected, Records shipped) {
    std::sort(expected.begin(), expected.end());
    std::sort(shipped.begin(), shipped.end());
    Records missing, extra;
    std::set_difference(expected.begin(), expected.end(), shipped.begin(), shipped.end(), std::back_inserter(missing));
    std::set_difference(shipped.begin(), shipped.end(), expected.begin(), expected.end(), std::back_inserter(extra));
    EXPECT_TRUE(missing.empty()) << missing.size() << " of " << expected.size() << " missing: " << Show(missing[0]);
    EXPECT_TRUE(extra.empty()) << extra.size() << " of " << shipped.size() << " too many: " << Show(extra[0]);
}

void ExpectOrderedBlocks(Cycles const& cycles, Records const& sent) {
    std::map<Record, std::size_t> order;
    for (std::size_t i = 0; i < sent.size(); ++i) order[sent[i]] = i;
    for (Cycle const& cycle : cycles)
        for (auto const& group : cycle.groups)
            for (Block const& block : group)
                for (std::size_t i = 1; i < block.records.size(); ++i) {
                    Record const& before = block.records[i - 1];
                    Record const& after = block.records[i];
                    ASSERT_LE(std::pair(before.time, order[before]), std::pair(after.time, order[after]))
                        << Show(before) << " stands before " << Show(after);
                }
}

std::size_t BucketModel::Absorb(Records const& records) {
    for (Record const& record : records) {
        std::int64_t const opened = std::max<std::int64_t>(record.time / BUCKET_WIDTH_US - current_, 0);
        current_ += opened;
        pending_ += opened;
        if (pending_ <= 1) continue;
        pending_ = 0;
        ++cycles_;
    }
    return cycles_;
}

}  // namespace systest
