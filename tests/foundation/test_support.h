// What the tests of the foundation share: seeded randomness, waiting, interruptions, child processes and sockets.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sutl_tcpsocket.h"
#include "sutl_tcpsockserver.h"

namespace test {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using Random = std::mt19937_64;
using Pair = std::pair<sutl_Descriptor, sutl_Descriptor>;

// Another seed in every run, printed so that BRINDLE_SEED in the environment repeats a run that failed.
inline Random SeededRandom() {
    char const* const given = getenv("BRINDLE_SEED");
    unsigned long const seed = given != nullptr ? strtoul(given, nullptr, 10) : std::random_device{}();
    std::cout << "BRINDLE_SEED=" << seed << std::endl;
    return Random(seed);
}
inline std::size_t Below(Random& random, std::size_t bound) { return random() % bound; }
inline std::string RandomBytes(Random& random, std::size_t count) {
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

// What perror writes for an error number.
inline std::string ErrorText(char const* text, int error) { return std::string(text) + ": " + strerror(error) + "\n"; }

// False, and a failure that says what was awaited, when the condition has not come true after 30 s.
template <typename Condition>
bool WaitUntil(char const* awaited, Condition condition) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "still waiting: " << awaited;
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

inline std::string ReadToEnd(int descriptor) {
    std::string all;
    char buffer[4096];
    for (long got; (got = sutl_ReadSome(descriptor, buffer, sizeof buffer)) > 0;) {
        all.append(buffer, static_cast<std::size_t>(got));
    }
    return all;
}

// The read end and the write end.
inline Pair Pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(0, pipe(ends));
    return {sutl_Descriptor(ends[0]), sutl_Descriptor(ends[1])};
}

inline Pair SocketPair(int type) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(0, socketpair(AF_UNIX, type, 0, ends));
    return {sutl_Descriptor(ends[0]), sutl_Descriptor(ends[1])};
}

struct ChildEnd {
    int status;  // as waitpid reports it
    std::string standardError;
};

// Runs the body in a child process, which ends with the status that the body returns, and after a minute at the latest.
template <typename Body>
ChildEnd RunInChild(Body body) {
    auto [readEnd, writeEnd] = Pipe();
    pid_t const child = fork();
    if (child == 0) {
        dup2(writeEnd.Get(), STDERR_FILENO);
        writeEnd.Close();
        rlimit const noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        signal(SIGINT, SIG_DFL);  // a shell may have started the tests with SIGINT ignored
        signal(SIGALRM, SIG_DFL);
        alarm(60);
        _exit(body());
    }
    writeEnd.Close();
    ChildEnd end = {-1, ReadToEnd(readEnd.Get())};
    while (waitpid(child, &end.status, 0) < 0 && errno == EINTR) continue;
    return end;
}

struct Ports {
    unsigned short first, second;
};

// Makes the server listen on two ports below the system's own range, tried again until both are free.
inline Ports ListenOnFreePorts(sutl_TCPSockServer& server) {
    static Random random(std::random_device{}());
    for (;;) {
        auto const port = [] { return static_cast<unsigned short>(10000 + Below(random, 22000)); };
        Ports const ports = {port(), port()};
        CaptureStderr();
        server.Listen(ports.first, ports.second);
        std::string const text = GetCapturedStderr();
        if (text.empty()) return ports;
        EXPECT_EQ(ErrorText("Binding socket failed:", EADDRINUSE), text);
    }
}

inline sutl_Descriptor ConnectTo(unsigned short port) {
    sutl_Descriptor connection = sutl_OpenTcpSocket();
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    EXPECT_TRUE(sutl_Connect(connection, address)) << port;
    return connection;
}

}  // namespace test
