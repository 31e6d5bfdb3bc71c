// Preloaded into the server by the fault injection scenarios: system calls, opens, removals and allocations fail, fall
// short or are interrupted where BRINDLE_FAULTS says so. Nothing is done before main begins or after it returns.
//
// BRINDLE_FAULTS holds rules, separated by commas. A rule is a function's name and conditions, separated by colons.
// Several names, separated by bars, are as many rules.
//
//   on=TEXT       only descriptors and paths whose path holds the text; of sockets the text is "socket:"
//   argument=N    only sockets with the port that is the N-th argument of the command line at either end
//   at=N          only the N-th call that the rule is about, counted from 1
//   from=N        from the N-th call on; with times=N no more than N times
//   every=N       every N-th call
//   chance=N      N calls out of 1000, drawn from seed=N and the number of the call
//   errno=NAME    effect: the call fails
//   short=N       effect: the call transfers at most N bytes
//
// A rule without an effect only counts. Every rule counts the calls that it is about, whatever other rules do to them;
// the first that fires decides. counts=PATH names a file of two 8-byte numbers per rule, calls and firings, which is
// mapped, so that it is right even after a kill.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The allocator behind malloc, which cannot be looked up by name: the look-up itself may allocate.
extern "C" {
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void* __libc_memalign(std::size_t alignment, std::size_t bytes);
void* __libc_realloc(void* block, std::size_t bytes);
}

namespace {

using Number = std::uint64_t;

struct Rule {
    std::string function;
    std::string on;
    Number argument = 0, at = 0, from = 0, every = 0, chance = 0, seed = 0;
    Number times = UINT64_MAX;
    Number bytesMax = SIZE_MAX;
    int error = 0;
    unsigned short port = 0;               // of the argument
    std::atomic<Number>* calls = nullptr;  // in the mapped file, as the next; written by any thread
    std::atomic<Number>* firings = nullptr;
};

// What is to happen to a call.
struct Verdict {
    int error = 0;  // 0: it goes through
    std::size_t bytesMax = SIZE_MAX;
};

// Set before main begins, and left standing at the end, when threads may still be about.
std::vector<Rule>& Rules() {
    static auto* const rules = new std::vector<Rule>;
    return *rules;
}
std::atomic<bool> armed{false};

constexpr std::pair<char const*, int> ERRORS[] = {
    {"EACCES", EACCES},         {"EAGAIN", EAGAIN}, {"ECONNABORTED", ECONNABORTED},
    {"ECONNRESET", ECONNRESET}, {"EINTR", EINTR},   {"EIO", EIO},
    {"EMFILE", EMFILE},         {"ENOMEM", ENOMEM}, {"ENOSPC", ENOSPC},
    {"EPIPE", EPIPE},           {"EROFS", EROFS}};

[[noreturn]] void Refuse(std::string_view what) {
    dprintf(STDERR_FILENO, "faultshim: cannot make out %.*s\n", static_cast<int>(what.size()), what.data());
    _exit(99);
}

std::string_view NextPart(std::string_view& text, char delimiter) {
    std::string_view const part = text.substr(0, text.find(delimiter));
    text.remove_prefix(std::min(part.size() + 1, text.size()));
    return part;
}

void TakeCondition(Rule& rule, std::string_view condition) {
    std::string_view value = condition;
    std::string_view const name = NextPart(value, '=');
    if (name == "on") {
        rule.on = value;
    } else if (name == "errno") {
        for (auto const& [text, number] : ERRORS) {
            if (value == text) rule.error = number;
        }
        if (rule.error == 0) Refuse(condition);
    } else {
        std::pair<char const*, Number*> const numbers[] = {
            {"argument", &rule.argument}, {"at", &rule.at},     {"from", &rule.from},   {"every", &rule.every},
            {"chance", &rule.chance},     {"seed", &rule.seed}, {"times", &rule.times}, {"short", &rule.bytesMax}};
        auto const* const known = std::find_if(std::begin(numbers), std::end(numbers),
                                               [&](auto const& number) { return name == number.first; });
        if (known == std::end(numbers)) Refuse(condition);
        auto const end = value.data() + value.size();
        if (std::from_chars(value.data(), end, *known->second).ptr != end || value.empty()) Refuse(condition);
    }
}

void MapCounts(std::string const& path) {
    std::size_t const bytes = 2 * sizeof(Number) * std::max<std::size_t>(Rules().size(), 1);
    void* counts = MAP_FAILED;
    int const file = path.empty() ? -1 : open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file >= 0 && ftruncate(file, static_cast<off_t>(bytes)) != 0) Refuse(path);
    counts = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, file < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED, file, 0);
    if (counts == MAP_FAILED || (file < 0 && !path.empty())) Refuse(path);
    if (file >= 0) close(file);
    auto* next = static_cast<std::atomic<Number>*>(counts);
    for (Rule& rule : Rules()) {
        rule.calls = next++;
        rule.firings = next++;
    }
}

void ReadRules() {
    char const* const text = getenv("BRINDLE_FAULTS");
    std::string_view rules = text == nullptr ? "" : text;
    std::string countsPath;
    while (!rules.empty()) {
        std::string_view part = NextPart(rules, ',');
        if (part.starts_with("counts=")) {
            countsPath = part.substr(part.find('=') + 1);
            continue;
        }
        std::string_view functions = NextPart(part, ':');
        while (!functions.empty()) {
            Rule& rule = Rules().emplace_back();
            rule.function = NextPart(functions, '|');
            for (std::string_view left = part; !left.empty();) TakeCondition(rule, NextPart(left, ':'));
        }
    }
    MapCounts(countsPath);
}

bool HasPort(int descriptor, unsigned short port) {
    sockaddr_in address = {};
    for (auto* const ask : {getsockname, getpeername}) {
        socklen_t bytes = sizeof address;
        if (ask(descriptor, reinterpret_cast<sockaddr*>(&address), &bytes) == 0 && address.sin_family == AF_INET &&
            ntohs(address.sin_port) == port) {
            return true;
        }
    }
    return false;
}

bool IsAbout(Rule const& rule, int descriptor, char const* path) {
    if (rule.port != 0 && !HasPort(descriptor, rule.port)) return false;
    if (rule.on.empty()) return true;
    char found[PATH_MAX];
    if (path == nullptr) {
        char link[32];
        snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
        ssize_t const bytes = readlink(link, found, sizeof found - 1);
        found[std::max<ssize_t>(bytes, 0)] = 0;
        path = found;
    }
    return std::string_view(path).find(rule.on) != std::string_view::npos;
}

// Well mixed bits of a number.
Number Mixed(Number value) {
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9u;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebu;
    return value ^ (value >> 31);
}

bool IsDue(Rule const& rule, Number call) {
    if (rule.error == 0 && rule.bytesMax == SIZE_MAX) return false;
    if (rule.at != 0 && call != rule.at) return false;
    if (call < rule.from || (rule.every != 0 && call % rule.every != 0)) return false;
    return rule.chance == 0 || Mixed(rule.seed * 0x9e3779b97f4a7c15u + call) % 1000 < rule.chance;
}

// Allocates nothing and leaves errno alone. Standard input, output and error are never touched.
Verdict Judge(std::string_view function, int descriptor, char const* path = nullptr) {
    Verdict verdict;
    if (!armed.load(std::memory_order_acquire) || (descriptor >= 0 && descriptor <= STDERR_FILENO)) return verdict;
    int const savedError = errno;
    bool decided = false;
    for (Rule const& rule : Rules()) {
        if (rule.function != function || !IsAbout(rule, descriptor, path)) continue;
        Number const call = rule.calls->fetch_add(1) + 1;
        if (decided || !IsDue(rule, call)) continue;
        if (rule.firings->fetch_add(1) >= rule.times) continue;
        verdict = {rule.error, rule.bytesMax};
        decided = true;
    }
    errno = savedError;
    return verdict;
}

// The verdict on a call that has no length: true, with errno set, where it fails.
bool Fails(std::string_view function, int descriptor, char const* path = nullptr) {
    int const error = Judge(function, descriptor, path).error;
    if (error != 0) errno = error;
    return error != 0;
}

// A transfer, whose result is a number of bytes.
template <class Call>
ssize_t Transfer(std::string_view function, int descriptor, std::size_t bytes, Call call) {
    Verdict const verdict = Judge(function, descriptor);
    if (verdict.error == 0) return call(std::min(bytes, verdict.bytesMax));
    errno = verdict.error;
    return -1;
}

template <class Function>
Function* Next(Function* /*like*/, char const* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

using Main = int(int, char**, char**);
Main* serverMain = nullptr;

int FaultyMain(int count, char** arguments, char** environment) {
    ReadRules();
    for (Rule& rule : Rules()) {
        if (rule.argument == 0 || rule.argument >= static_cast<Number>(count)) continue;
        rule.port = static_cast<unsigned short>(atoi(arguments[rule.argument]));
    }
    armed.store(true, std::memory_order_release);
    int const status = serverMain(count, arguments, environment);
    armed.store(false);
    return status;
}

ssize_t ReadCookie(void* cookie, char* to, std::size_t bytes) { return read(*static_cast<int*>(cookie), to, bytes); }
int CloseCookie(void* cookie) {
    std::unique_ptr<int> const file(static_cast<int*>(cookie));
    return close(*file);
}

}  // namespace

// The body of a wrapper, inside which `next` is the function that is wrapped.
#define BRINDLE_NEXT(function) static auto* const next = Next(&(function), #function)

extern "C" {

int __libc_start_main(Main* main, int count, char** arguments, void (*init)(), void (*fini)(), void (*last)(),
                      void* stackEnd) {
    BRINDLE_NEXT(__libc_start_main);
    serverMain = main;
    return next(FaultyMain, count, arguments, init, fini, last, stackEnd);
}

ssize_t read(int descriptor, void* to, std::size_t bytes) {
    BRINDLE_NEXT(read);
    return Transfer("read", descriptor, bytes, [&](std::size_t most) { return next(descriptor, to, most); });
}
ssize_t write(int descriptor, void const* from, std::size_t bytes) {
    BRINDLE_NEXT(write);
    return Transfer("write", descriptor, bytes, [&](std::size_t most) { return next(descriptor, from, most); });
}
ssize_t send(int descriptor, void const* from, std::size_t bytes, int flags) {
    BRINDLE_NEXT(send);
    return Transfer("send", descriptor, bytes, [&](std::size_t most) { return next(descriptor, from, most, flags); });
}

int accept(int descriptor, sockaddr* __restrict peer, socklen_t* __restrict bytes) {
    BRINDLE_NEXT(accept);
    return Fails("accept", descriptor) ? -1 : next(descriptor, peer, bytes);
}
int socket(int domain, int type, int protocol) noexcept {
    BRINDLE_NEXT(socket);
    return Fails("socket", -1) ? -1 : next(domain, type, protocol);
}
int bind(int descriptor, sockaddr const* address, socklen_t bytes) noexcept {
    BRINDLE_NEXT(bind);
    return Fails("bind", descriptor) ? -1 : next(descriptor, address, bytes);
}
int listen(int descriptor, int backlog) noexcept {
    BRINDLE_NEXT(listen);
    return Fails("listen", descriptor) ? -1 : next(descriptor, backlog);
}
int poll(pollfd* waited, nfds_t count, int milliseconds) {
    BRINDLE_NEXT(poll);
    return Fails("poll", -1) ? -1 : next(waited, count, milliseconds);
}
off_t lseek(int descriptor, off_t offset, int whence) noexcept {
    BRINDLE_NEXT(lseek);
    return Fails("lseek", descriptor) ? -1 : next(descriptor, offset, whence);
}
int remove(char const* path) noexcept {
    BRINDLE_NEXT(remove);
    return Fails("remove", -1, path) ? -1 : next(path);
}
DIR* opendir(char const* path) {
    BRINDLE_NEXT(opendir);
    return Fails("opendir", -1, path) ? nullptr : next(path);
}
dirent* readdir(DIR* directory) {
    BRINDLE_NEXT(readdir);
    return Fails("readdir", dirfd(directory)) ? nullptr : next(directory);
}

int open(char const* path, int flags, ...) {
    BRINDLE_NEXT(open);
    va_list rest;
    va_start(rest, flags);
    mode_t const mode = va_arg(rest, mode_t);
    va_end(rest);
    return Fails("open", -1, path) ? -1 : next(path, flags, mode);
}

// A stream over the wrapped calls: the library's own streams call the system directly.
FILE* fopen(char const* path, char const* mode) {
    BRINDLE_NEXT(fopen);
    if (!armed.load() || std::string_view(mode) != "rb") return next(path, mode);
    int const file = open(path, O_RDONLY, 0);
    return file < 0 ? nullptr : fopencookie(new int(file), mode, {ReadCookie, nullptr, nullptr, CloseCookie});
}

// The system has let go of the number whatever it answers.
int close(int descriptor) {
    BRINDLE_NEXT(close);
    int const error = Judge("close", descriptor).error;
    int const result = next(descriptor);
    if (error == 0) return result;
    errno = error;
    return -1;
}

// An interrupted connect goes on in the background.
int connect(int descriptor, sockaddr const* address, socklen_t bytes) {
    BRINDLE_NEXT(connect);
    bool const fails = Fails("connect", descriptor);
    if (fails && errno != EINTR) return -1;
    int const result = next(descriptor, address, bytes);
    if (!fails || result != 0) return result;
    errno = EINTR;
    return -1;
}

int pthread_create(pthread_t* __restrict thread, pthread_attr_t const* __restrict attributes, void* (*body)(void*),
                   void* __restrict argument) noexcept {
    BRINDLE_NEXT(pthread_create);
    int const error = Judge("pthread_create", -1).error;
    return error != 0 ? error : next(thread, attributes, body, argument);
}

void* malloc(std::size_t bytes) { return Fails("malloc", -1) ? nullptr : __libc_malloc(bytes); }
void* calloc(std::size_t count, std::size_t bytes) {
    return Fails("malloc", -1) ? nullptr : __libc_calloc(count, bytes);
}
void* aligned_alloc(std::size_t alignment, std::size_t bytes) {
    return Fails("malloc", -1) ? nullptr : __libc_memalign(alignment, bytes);
}
void* realloc(void* block, std::size_t bytes) { return Fails("malloc", -1) ? nullptr : __libc_realloc(block, bytes); }

}  // extern "C"
