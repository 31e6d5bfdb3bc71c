// Processes that a peer starts: the server of its store, and what prepares it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

using bench_Command = std::vector<std::string>;

// A server that lives as long as this object. Its user and system time count as the peer's, because it is waited for.
class bench_ServerProcess {
 public:
    // user: whom it runs as when this process is root's; none when empty. endSignal: what makes it end in order.
    // deathSignal: what the system sends it when this process is gone.
    bench_ServerProcess(bench_Command const& command, char const* user, int endSignal, int deathSignal);
    ~bench_ServerProcess();
    bench_ServerProcess(bench_ServerProcess const&) = delete;
    bench_ServerProcess& operator=(bench_ServerProcess const&) = delete;

    // Calls the function every few milliseconds until it returns true. Fails after half a minute, or when the server
    // has ended.
    template <typename Ready>
    void WaitFor(Ready&& ready) {
        while (!ready()) Pause();
    }

 private:
    void Pause();

    int const endSignal_;
    pid_t const pid_;
    int pausesLeft_ = 6000;  // of 5 ms
};

// Runs a program to its end; its time does not count as the peer's.
void bench_RunUncounted(bench_Command const& command, char const* user);

// A folder of the user's own in this one, and its path.
[[nodiscard]] std::string bench_MakeFolder(std::string const& parent, char const* name, char const* user);
