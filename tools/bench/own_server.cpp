#include "own_server.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "sutl_descriptor.h"

bool OwnServer::Start(std::string const& program, std::vector<std::string> const& arguments,
                      std::string const& errorPath) {
    sutl_Descriptor const errors(open(errorPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!errors.IsOpen()) return false;
    std::vector<char*> words = {const_cast<char*>(program.c_str())};
    for (std::string const& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    sigset_t none;
    sigemptyset(&none);
    int failure[2];  // closed by a program that starts, or told why it does not
    if (pipe2(failure, O_CLOEXEC) != 0) return false;
    sutl_Descriptor const told(failure[0]);
    sutl_Descriptor telling(failure[1]);
    pid_t const parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        // Its signals are its own: it ends itself by one.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        signal(SIGINT, SIG_DFL);
        if (getppid() == parent && dup2(errors.Get(), STDERR_FILENO) >= 0) execv(program.c_str(), words.data());
        int const error = errno;
        static_cast<void>(!write(telling.Get(), &error, sizeof error));
        _exit(127);
    }
    telling.Close();
    int error = 0;
    if (pid_ > 0 && sutl_FileRead(told.Get(), &error, sizeof error) == 0) return true;
    if (pid_ > 0) Reap();
    pid_ = 0;
    errno = error != 0 ? error : errno;
    return false;
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
