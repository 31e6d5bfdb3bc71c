#include "server_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <memory>

#include "sutl_descriptor.h"

namespace {

constexpr std::size_t ARGUMENTS_MIN = 11;  // of a server, its program included
constexpr std::size_t ARGUMENTS_MAX = 12;
constexpr long US_PER_SECOND = 1000000;
constexpr std::size_t SMALL_BYTES_MAX = 16UL << 20;

// Calls with the name of each entry that is a number.
template <typename Call>
void ForNumbers(std::string const& directory, Call call) {
    std::unique_ptr<DIR, int (*)(DIR*)> const names(opendir(directory.c_str()), closedir);
    if (names == nullptr) return;
    while (dirent const* const entry = readdir(names.get())) {
        std::string_view const name = entry->d_name;
        pid_t number = 0;
        auto const [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
        if (error == std::errc() && end == name.data() + name.size()) call(number);
    }
}

std::vector<std::string> ReadArguments(pid_t pid) {
    std::string const text = ReadSmallFile(fmt::format("/proc/{}/cmdline", pid));
    std::vector<std::string> arguments;
    for (std::size_t from = 0; from < text.size();) {
        std::size_t const end = std::min(text.find('\0', from), text.size());
        arguments.push_back(text.substr(from, end - from));
        from = end + 1;
    }
    return arguments;
}

// What stat says of a process or thread: its state, and numbers by their place in proc(5), where the state is 3.
struct Stat {
    char state = 'X';
    std::vector<unsigned long> numbers;

    [[nodiscard]] unsigned long At(std::size_t place) const {
        return place - 4 < numbers.size() ? numbers[place - 4] : 0;
    }
};

constexpr std::size_t USER_TICKS = 14;
constexpr std::size_t SYSTEM_TICKS = 15;
constexpr std::size_t START_TICKS = 22;

Stat ReadStat(std::string const& path) {
    Stat stat;
    std::string const text = ReadSmallFile(path);
    std::size_t at = text.rfind(')');  // the name before it may hold anything
    if (at == std::string::npos || at + 2 >= text.size()) return stat;
    stat.state = text[at + 2];
    at += 3;
    while (at < text.size()) {
        char* end = nullptr;
        stat.numbers.push_back(strtoul(text.c_str() + at, &end, 10));
        at = static_cast<std::size_t>(end - text.c_str()) + 1;
    }
    return stat;
}

double CpuSeconds(Stat const& stat) {
    auto const ticksPerSecond = static_cast<double>(sysconf(_SC_CLK_TCK));
    return static_cast<double>(stat.At(USER_TICKS) + stat.At(SYSTEM_TICKS)) / ticksPerSecond;
}

// The number behind a name at the start of a line; -1 when there is none.
long NumberOf(std::string const& text, std::string const& name) {
    std::size_t at = text.starts_with(name) ? 0 : text.find('\n' + name);
    if (at == std::string::npos) return -1;
    at += name.size() + (at == 0 ? 0 : 1);
    return strtol(text.c_str() + at, nullptr, 10);
}

std::string SeenFromHere(pid_t pid, std::string const& path) {
    if (path.starts_with('/')) return path;
    return fmt::format("/proc/{}/cwd/{}", pid, path);
}

}  // namespace

std::string ReadSmallFile(std::string const& path) {
    // Never waits: the paths come from others' arguments, too.
    sutl_Descriptor const file = sutl_OpenFile(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    std::string text;
    char piece[4096];
    for (long got = file.IsOpen() ? 1 : 0; got > 0 && text.size() < SMALL_BYTES_MAX;) {
        got = sutl_ReadSome(file.Get(), piece, sizeof piece);
        if (got > 0) text.append(piece, static_cast<std::size_t>(got));
    }
    return text;
}

bool IsSameFile(std::string const& one, std::string const& other) {
    struct stat first = {};
    struct stat second = {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

bool ReadServer(pid_t pid, ServerProcess& server) {
    Stat const stat = ReadStat(fmt::format("/proc/{}/stat", pid));
    if (stat.state == 'X' || stat.state == 'Z') return false;
    server = {};
    server.pid = pid;
    server.startTicks = stat.At(START_TICKS);
    std::vector<std::string> const arguments = ReadArguments(pid);
    if (arguments.size() != ARGUMENTS_MIN && arguments.size() != ARGUMENTS_MAX) return true;
    auto const number = [&arguments](std::size_t place) { return strtol(arguments[place].c_str(), nullptr, 10); };
    server.specPath = SeenFromHere(pid, arguments[1]);
    server.recoveryPath = SeenFromHere(pid, arguments[2]);
    server.shipPort = static_cast<unsigned short>(number(4));
    server.dataPort = static_cast<unsigned short>(number(6));
    server.queryPort = static_cast<unsigned short>(number(9));
    if (__builtin_mul_overflow(number(8), US_PER_SECOND, &server.windowUs)) server.windowUs = 0;
    server.replays = arguments.size() == ARGUMENTS_MAX;
    return true;
}

std::vector<ServerProcess> FindServers(std::string const& programName) {
    std::vector<ServerProcess> servers;
    ForNumbers("/proc", [&](pid_t pid) {
        std::vector<std::string> const arguments = ReadArguments(pid);
        if (arguments.empty() || arguments[0].substr(arguments[0].rfind('/') + 1) != programName) return;
        ServerProcess server;
        if (ReadServer(pid, server) && server.dataPort != 0) servers.push_back(server);
    });
    return servers;
}

bool ReadUsage(pid_t pid, ProcessUsage& usage) {
    std::string const base = fmt::format("/proc/{}", pid);
    Stat const stat = ReadStat(base + "/stat");
    if (stat.state == 'X' || stat.state == 'Z') return false;
    usage = {};
    usage.cpuSeconds = CpuSeconds(stat);
    constexpr long KB = 1024;
    std::string const status = ReadSmallFile(base + "/status");
    usage.memoryBytes = std::max(0L, NumberOf(status, "VmRSS:")) * KB;
    usage.peakBytes = std::max(0L, NumberOf(status, "VmHWM:")) * KB;
    usage.writtenBytes = NumberOf(ReadSmallFile(base + "/io"), "wchar:");
    ForNumbers(base + "/task", [&](pid_t thread) {
        std::string const task = fmt::format("{}/task/{}", base, thread);
        std::string name = ReadSmallFile(task + "/comm");
        if (name.ends_with('\n')) name.pop_back();
        usage.threads.push_back({name, CpuSeconds(ReadStat(task + "/stat"))});
    });
    return true;
}
