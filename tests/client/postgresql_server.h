// A PostgreSQL server of a test's own.
#pragma once

#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

// Makes a data directory and runs a server on it, reached by a socket in the directory alone, as an unprivileged user
// when the test is root. Ended and removed with the object.
class PostgresqlServer {
 public:
    PostgresqlServer() {
        if (access((BINARIES + "postgres").c_str(), X_OK) != 0) return;
        char path[] = "/tmp/brindle_pgXXXXXX";
        if (mkdtemp(path) == nullptr) return;
        folder_ = path;
        if (getuid() == 0) {
            passwd const* const user = getpwnam("postgres");
            if (user == nullptr || chown(path, user->pw_uid, user->pw_gid) != 0) return;
            asUser_ = "setpriv --reuid=postgres --regid=postgres --clear-groups ";
        }
        std::string const make = asUser_ + BINARIES + "initdb -D " + folder_ +
                                 "/data -U test -A trust -E UTF8 --no-locale --no-sync >/dev/null 2>&1";
        if (std::system(make.c_str()) == 0) Start();
    }
    PostgresqlServer(PostgresqlServer const&) = delete;
    PostgresqlServer& operator=(PostgresqlServer const&) = delete;
    ~PostgresqlServer() {
        Stop();
        if (!folder_.empty()) std::filesystem::remove_all(folder_);
    }

    [[nodiscard]] bool IsRunning() const { return process_ > 0; }
    [[nodiscard]] std::string Address() const { return "postgresql://test:secret@/postgres?host=" + folder_; }

    void Start() {
        std::string const run = "exec " + asUser_ + BINARIES + "postgres -D " + folder_ + "/data -k " + folder_ +
                                " -c listen_addresses= >" + folder_ + "/log 2>&1";
        process_ = fork();
        if (process_ == 0) {
            execl("/bin/sh", "sh", "-c", run.c_str(), nullptr);
            _exit(127);
        }
        // Says when it takes connections.
        std::string const wait = BINARIES + "pg_isready -q -h " + folder_;
        for (int i = 0; i < 200 && std::system(wait.c_str()) != 0; ++i) usleep(50'000);
    }
    // At once, as a crash does.
    void Stop() {
        if (process_ <= 0) return;
        kill(process_, SIGQUIT);
        waitpid(process_, nullptr, 0);
        process_ = -1;
    }

 private:
    inline static std::string const BINARIES = "/usr/lib/postgresql/15/bin/";
    std::string folder_;
    std::string asUser_;
    pid_t process_ = -1;
};
