#include "own_server.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "start_program.h"
#include "sutl_descriptor.h"

bool OwnServer::Start(std::string const& program, std::vector<std::string> const& arguments,
                      std::string const& errorPath) {
    sutl_Descriptor const errors(open(errorPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!errors.IsOpen()) return false;
    std::vector<std::string> words = {program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    pid_t const child = StartProgram(words, {-1, -1, errors.Get()}, ProcessGroup::OURS);
    pid_ = std::max(child, 0);
    return child > 0;
}

bool OwnServer::HasEnded() const {
    siginfo_t ended = {};
    return pid_ == 0 ||
           (waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid == pid_);
}

int OwnServer::Wait(int secondsMax) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(secondsMax);
    while (!HasEnded() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (!HasEnded()) kill(pid_, SIGKILL);
    return Reap();
}

void OwnServer::Kill() {
    if (pid_ == 0) return;
    kill(pid_, SIGKILL);
    Reap();
}

int OwnServer::Reap() {
    int status = 0;
    rusage usage = {};
    while (wait4(pid_, &status, 0, &usage) < 0 && errno == EINTR) {}
    pid_ = 0;
    auto const seconds = [](timeval const& t) {
        return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
    };
    cpuSeconds_ = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
