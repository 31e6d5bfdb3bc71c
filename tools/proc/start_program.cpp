#include "start_program.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "sutl_descriptor.h"

namespace {

bool Replace(int standard, int by) { return by < 0 || dup2(by, standard) >= 0; }

// In the child. Nothing here allocates. Returns on failure.
void BecomeProgram(pid_t parent, ProgramStreams const& streams, ProcessGroup group, char* const* words) {
    // The order closes the race: a parent that has died before the request was made is noticed behind it.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) return;
    if (group == ProcessGroup::ITS_OWN) setpgid(0, 0);
    for (int signal = 1; signal < NSIG; ++signal) ::signal(signal, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (!Replace(STDIN_FILENO, streams.input) || !Replace(STDOUT_FILENO, streams.output) ||
        !Replace(STDERR_FILENO, streams.errors)) {
        return;
    }
    execv(words[0], words);
}

}  // namespace

pid_t StartProgram(std::vector<std::string> const& words, ProgramStreams const& streams, ProcessGroup group) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string const& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    int failure[2];  // closed by a program that starts, or told why it does not
    if (pipe2(failure, O_CLOEXEC) != 0) return -1;
    sutl_Descriptor const told(failure[0]);
    sutl_Descriptor telling(failure[1]);
    pid_t const parent = getpid();
    pid_t const child = fork();
    if (child < 0) return -1;
    if (child == 0) {
        BecomeProgram(parent, streams, group, pointers.data());
        int const error = errno;
        static_cast<void>(!write(telling.Get(), &error, sizeof error));
        _exit(127);
    }
    telling.Close();
    int error = 0;
    if (sutl_FileRead(told.Get(), &error, sizeof error) == 0) return child;
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {}
    errno = error;
    return -1;
}
