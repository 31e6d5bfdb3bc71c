#include "server_child.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

// In the child: gives every signal back its default, and runs the program. Nothing here allocates. Returns on failure.
void BecomeServer(pid_t parent, int output, char* const* words) {
    // The order closes the race: a parent that has died before the request was made is noticed behind it.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) return;
    setpgid(0, 0);
    for (int signal = 1; signal < NSIG; ++signal) ::signal(signal, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    int const input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (input < 0 || dup2(input, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
        dup2(output, STDERR_FILENO) < 0) {
        return;
    }
    execv(words[0], words);
}

}  // namespace

std::string ChildEnd::Text() const {
    if (byExit) return fmt::format("ended with status {}", number);
    char const* const name = sigabbrev_np(number);
    return fmt::format("was ended by signal {}{}", name == nullptr ? "" : "SIG",
                       name == nullptr ? std::to_string(number) : name);
}

ServerChild::~ServerChild() {
    if (!Runs()) return;
    Signal(SIGKILL);
    static_cast<void>(Reap());
}

bool ServerChild::Start(std::vector<std::string> const& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string const& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0) return false;
    output_ = sutl_Descriptor(output[0]);
    sutl_Descriptor outputWriter(output[1]);
    fcntl(output_.Get(), F_SETFL, O_NONBLOCK);
    int failure[2];  // closed by a program that starts, or told why it does not
    if (pipe2(failure, O_CLOEXEC) != 0) return false;
    sutl_Descriptor const told(failure[0]);
    sutl_Descriptor telling(failure[1]);
    pid_t const parent = getpid();
    pid_t const child = fork();
    if (child < 0) return false;
    if (child == 0) {
        BecomeServer(parent, outputWriter.Get(), pointers.data());
        int const error = errno;
        static_cast<void>(!write(telling.Get(), &error, sizeof error));
        _exit(127);
    }
    pid_ = child;
    telling.Close();
    outputWriter.Close();
    int error = 0;
    bool const isTold = sutl_FileRead(told.Get(), &error, sizeof error) != 0;
    if (!isTold) {
        end_ = sutl_Descriptor(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
        if (end_.IsOpen()) return true;
        error = errno;
        Signal(SIGKILL);
    }
    static_cast<void>(Reap());
    errno = error;
    return false;
}

void ServerChild::Signal(int signal) const {
    // Not yet reaped, so the number is still its own.
    if (Runs()) kill(pid_, signal);
}

ChildEnd ServerChild::Reap() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {}
    pid_ = 0;
    end_.Close();
    if (WIFEXITED(status)) return {true, WEXITSTATUS(status)};
    return {false, WTERMSIG(status)};
}
