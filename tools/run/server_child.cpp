#include "server_child.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "start_program.h"

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
    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0) return false;
    output_ = sutl_Descriptor(output[0]);
    sutl_Descriptor const outputWriter(output[1]);
    fcntl(output_.Get(), F_SETFL, O_NONBLOCK);
    sutl_Descriptor const input = sutl_OpenFile("/dev/null", O_RDONLY | O_CLOEXEC);
    if (!input.IsOpen()) return false;
    pid_t const child =
        StartProgram(words, {input.Get(), outputWriter.Get(), outputWriter.Get()}, ProcessGroup::ITS_OWN);
    if (child < 0) return false;
    pid_ = child;
    end_ = sutl_Descriptor(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    if (end_.IsOpen()) return true;
    int const error = errno;
    Signal(SIGKILL);
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
