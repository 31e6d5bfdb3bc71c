#include "run_check.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>

#include "downstream.h"
#include "durable_file.h"
#include "process_sockets.h"

namespace {

constexpr std::chrono::seconds CONSUMER_PATIENCE{3};
constexpr unsigned long FREE_BYTES_MIN = 64UL << 20;    // less does not hold a start
constexpr unsigned long FREE_BYTES_FEW = 1024UL << 20;  // worth a word

class Check {
 public:
    explicit Check(RunConfig const& config) : config_(config) {}

    void LookAtProgram() {
        if (access(config_.server.c_str(), X_OK) != 0) {
            Add(true, "server: {}: {}; name the program with 'server'", config_.server, strerror(errno));
        }
    }

    // The own server, when it runs, is no fault.
    void LookAtPorts(std::string const& directory) {
        std::map<unsigned short, char const*> const wanted = {{config_.ports.data.firstPort, "data"},
                                                              {config_.ports.data.secondPort, "data"},
                                                              {config_.ports.query.firstPort, "query"},
                                                              {config_.ports.query.secondPort, "query"}};
        std::map<unsigned short, char const*> taken;
        if (!ReadTcpTable(TcpTable::IPV4_AND_IPV6, [&](TcpSocket const& socket) {
                auto const found = wanted.find(socket.localPort);
                if (socket.state == SOCKET_LISTENS && found != wanted.end()) taken.insert(*found);
                return true;
            })) {
            Add(false, "ports: /proc/self/net/tcp cannot be read: {}", strerror(errno));
        }
        for (auto const& [port, key] : taken) {
            if (IsStateInUse(directory)) {
                Add(false, "{}: port {} is in use, as far as can be seen by this server, which runs", key, port);
            } else {
                Add(true, "{}: port {} is in use; end who listens there, or choose another", key, port);
            }
        }
        for (auto const& [port, key] : wanted) {
            constexpr unsigned short EPHEMERAL_FIRST = 32768;
            if (port >= EPHEMERAL_FIRST) {
                Add(false, "{}: port {} may be given to any outgoing connection; choose one below 32768", key, port);
            }
        }
        for (auto const* pair : {&config_.ports.data, &config_.ports.query}) {
            if (pair->host == "*" || pair->host == "127.0.0.1") continue;
            Add(false, "{}: the server listens on every address of this machine, not on {} alone",
                pair == &config_.ports.data ? "data" : "query", pair->host);
        }
    }

    // It is made when it is missing, so the nearest directory that is there counts.
    void LookAtDirectory(char const* key, std::string directory) {
        while (access(directory.c_str(), F_OK) != 0 && errno == ENOENT && FolderOf(directory) != directory) {
            directory = FolderOf(directory);
        }
        struct statvfs space = {};
        if (access(directory.c_str(), R_OK | W_OK | X_OK) != 0 || statvfs(directory.c_str(), &space) != 0) {
            Add(true, "{}: {}: {}; it must be readable and writable for this user", key, directory, strerror(errno));
            return;
        }
        unsigned long const freeBytes = space.f_bavail * space.f_frsize;
        if (freeBytes >= FREE_BYTES_FEW) return;
        Add(freeBytes < FREE_BYTES_MIN, "{}: {}: only {} MiB are free; a run's log may need all its volume", key,
            directory, freeBytes >> 20);
    }

    void LookAtConsumer() {
        brindle_Address const& ship = config_.ports.ship;
        std::string const shown = fmt::format("{}:{},{}", ship.host, ship.firstPort, ship.secondPort);
        switch (AskDownstream(ship, CONSUMER_PATIENCE)) {
            case Downstream::UNKNOWN_HOST:
                Add(true, "ship: the host '{}' is not known; check the name", ship.host);
                return;
            case Downstream::REFUSES:
                Add(false, "ship: nobody listens at {} now; the server is started when somebody does", shown);
                break;
            case Downstream::LISTENS:
                Add(false, "ship: the consumer listens at {}", shown);
                break;
        }
        if (!IsOfThisMachine(ship.host)) {
            Add(false,
                "ship: {} is another machine: a service that may talk to this one alone (IPAddressDeny=any) needs "
                "IPAddressAllow={}, and what is shipped crosses the network as it is",
                ship.host, ship.host);
        } else if (IsTakenByOwnPorts(ship)) {
            Add(true, "ship: a port of 'data' or 'query' cannot be the consumer's on this machine");
        }
    }

    std::vector<RunFinding> findings;

 private:
    template <typename... Arguments>
    void Add(bool isFault, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
        findings.push_back({isFault, fmt::format(format, std::forward<Arguments>(arguments)...)});
    }

    [[nodiscard]] bool IsTakenByOwnPorts(brindle_Address const& ship) const {
        for (unsigned short const port : {ship.firstPort, ship.secondPort}) {
            for (auto const* pair : {&config_.ports.data, &config_.ports.query}) {
                if (port == pair->firstPort || port == pair->secondPort) return true;
            }
        }
        return false;
    }

    RunConfig const& config_;
};

}  // namespace

bool IsStateInUse(std::string const& directory) {
    sutl_Descriptor const lock = sutl_OpenFile((directory + "/lock").c_str(), O_RDONLY | O_CLOEXEC);
    return lock.IsOpen() && flock(lock.Get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

std::vector<RunFinding> CheckRun(RunConfig const& config, std::string const& directory) {
    Check check(config);
    check.LookAtProgram();
    check.LookAtPorts(directory);
    check.LookAtDirectory("state", directory);
    if (!config.log.path.empty()) check.LookAtDirectory("log", FolderOf(config.log.path));
    check.LookAtConsumer();
    return check.findings;
}
