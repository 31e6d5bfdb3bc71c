#include "process.h"

#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "front.h"

namespace {

// Null when this process cannot, or need not, become another user.
passwd const* User(char const* name) { return geteuid() != 0 || *name == '\0' ? nullptr : getpwnam(name); }

// The output goes where errors go: nobody reads it but after a failure.
pid_t Start(bench_Command const& command, char const* userName, int deathSignal) {
    std::vector<char*> words;
    for (std::string const& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    passwd const* const user = User(userName);
    pid_t const parent = getpid();
    pid_t const child = fork();
    if (child < 0) bench_Fail("fork");
    if (child > 0) return child;
    signal(SIGCHLD, SIG_DFL);  // which may be ignored, see below
    dup2(STDERR_FILENO, STDOUT_FILENO);
    if (user != nullptr && (setgroups(0, nullptr) != 0 || setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0)) {
        perror(userName);
        _exit(EXIT_FAILURE);
    }
    prctl(PR_SET_PDEATHSIG, deathSignal);  // after the change of user, which would clear it
    if (getppid() != parent) _exit(EXIT_FAILURE);
    execvp(words[0], words.data());
    perror(words[0]);
    _exit(EXIT_FAILURE);
}

}  // namespace

bench_ServerProcess::bench_ServerProcess(bench_Command const& command, char const* user, int endSignal, int deathSignal)
    : endSignal_(endSignal), pid_(Start(command, user, deathSignal)) {}

bench_ServerProcess::~bench_ServerProcess() {
    kill(pid_, endSignal_);
    waitpid(pid_, nullptr, 0);
}

void bench_ServerProcess::Pause() {
    siginfo_t ended = {};
    if (waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 || ended.si_pid != 0) {
        bench_FailStore("server of the store", "it has ended");
    }
    if (--pausesLeft_ == 0) bench_FailStore("server of the store", "it does not answer");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

void bench_RunUncounted(bench_Command const& command, char const* user) {
    // The system forgets the times of children whose end is ignored; a wait then ends, without a status, when the last
    // of them has. That the program has failed shows when the server starts.
    signal(SIGCHLD, SIG_IGN);
    waitpid(Start(command, user, SIGKILL), nullptr, 0);
    signal(SIGCHLD, SIG_DFL);
}

std::string bench_MakeFolder(std::string const& parent, char const* name, char const* userName) {
    std::string path = parent + "/" + name;
    passwd const* const user = User(userName);
    if (mkdir(path.c_str(), 0700) != 0) bench_Fail("make a folder");
    if (user != nullptr && chown(path.c_str(), user->pw_uid, user->pw_gid) != 0) bench_Fail("hand a folder over");
    return path;
}
