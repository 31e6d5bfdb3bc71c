#include <fcntl.h>
#include <netinet/tcp.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <vector>

#include "test_support.h"

namespace {

using test::CaptureStderr;
using test::GetCapturedStderr;

std::string AcceptText(int error) { return test::ErrorText(" Accept failed:", error); }

// Whether the thread of this process waits inside the system.
bool IsAsleep(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::stringstream content;
    content << stat.rdbuf();
    return content.str().find(") S ") != std::string::npos;
}

TEST(TcpSockServer, AcceptsPairAfterPairInAnyOrder) {
    sutl_TCPSockServer server;
    test::Ports const ports = test::ListenOnFreePorts(server);
    for (int pair = 0; pair < 2; ++pair) {
        sutl_Descriptor first, second;
        {
            std::jthread const client([&] {
                second = test::ConnectTo(ports.second);
                first = test::ConnectTo(ports.first);
            });
            ASSERT_TRUE(server.AcceptPair());
        }
        sutl_FileWrite(first.Get(), "1", 1);
        sutl_FileWrite(second.Get(), "2", 1);
        char got[2] = {};
        EXPECT_EQ(1, sutl_ReadSome(server.FirstConnection(), &got[0], 1));
        EXPECT_EQ(1, sutl_ReadSome(server.SecondConnection(), &got[1], 1));
        EXPECT_EQ("12", std::string(got, 2));
        int noDelay = 0;
        socklen_t size = sizeof noDelay;
        EXPECT_EQ(0, getsockopt(server.SecondConnection(), IPPROTO_TCP, TCP_NODELAY, &noDelay, &size));
        EXPECT_NE(0, noDelay);
        server.CloseConnections();
        EXPECT_EQ("", test::ReadToEnd(first.Get()) + test::ReadToEnd(second.Get())) << "the clients see the end";
    }
}

TEST(TcpSockServer, APortWhoseConnectionsLiveOnIsBusy) {
    sutl_TCPSockServer former;  // stops listening, but addresses are not marked reusable
    test::Ports const ports = test::ListenOnFreePorts(former);
    sutl_Descriptor const first = test::ConnectTo(ports.first);
    sutl_Descriptor const second = test::ConnectTo(ports.second);
    ASSERT_TRUE(former.AcceptPair());
    former.ClosePort();
    // In a child, which is ended when the ports are taken over and the accept waits.
    test::ChildEnd const end = test::RunInChild([ports] {
        sutl_TCPSockServer server;
        server.Listen(ports.first, ports.second);
        return server.AcceptPair() ? 1 : 0;
    });
    EXPECT_EQ(test::ErrorText("Binding socket failed:", EADDRINUSE) + AcceptText(EINVAL), end.standardError);
    EXPECT_EQ(0, end.status);
}

TEST(TcpSockServer, WhatIsNotOpenIsNotClosed) {
    sutl_TCPSockServer server;
    server.ClosePort();
    server.StopListening();
    server.CloseConnections();
    CaptureStderr();
    EXPECT_FALSE(server.AcceptPair());
    EXPECT_EQ(AcceptText(EBADF), GetCapturedStderr());
    test::Ports const ports = test::ListenOnFreePorts(server);
    server.ClosePort();
    sutl_TCPSockServer successor;
    CaptureStderr();
    successor.Listen(ports.first, ports.second);  // on both ports, with the numbers that are free again
    server.ClosePort();
    server.StopListening();
    EXPECT_EQ("", GetCapturedStderr());
    sutl_Descriptor const first = test::ConnectTo(ports.first);
    sutl_Descriptor const second = test::ConnectTo(ports.second);
    EXPECT_TRUE(successor.AcceptPair()) << "still listens";
    errno = EDOM;
    successor.CloseConnections();
    EXPECT_EQ(EDOM, errno) << "closing leaves the error of the call before it to perror";
}

TEST(TcpSockServer, StopListeningWakesAnAcceptInAnotherThread) {
    for (bool const muted : {false, true}) {
        for (bool const firstConnected : {false, true}) {
            SCOPED_TRACE(testing::Message() << "muted " << muted << ", first connected " << firstConnected);
            sutl_TCPSockServer server;
            test::Ports const ports = test::ListenOnFreePorts(server);
            sutl_Descriptor const first = firstConnected ? test::ConnectTo(ports.first) : sutl_Descriptor();
            std::atomic<bool> const mute = muted;
            std::atomic<pid_t> accepting = 0;
            std::atomic<bool> returned = false;
            CaptureStderr();
            {
                std::jthread const acceptor([&] {
                    accepting = gettid();
                    EXPECT_FALSE(server.AcceptPair(&mute));
                    returned = true;
                });
                test::WaitUntil("a blocked accept", [&] { return accepting != 0 && IsAsleep(accepting); });
                server.StopListening();
                if (!test::WaitUntil("the end of the accept", [&] { return returned.load(); })) {
                    // Lets the thread go, so that the test ends.
                    test::ConnectTo(ports.first).Close();
                    test::ConnectTo(ports.second).Close();
                }
            }
            EXPECT_EQ(muted ? "" : AcceptText(EINVAL), GetCapturedStderr());
            EXPECT_EQ(firstConnected, server.FirstConnection() >= 0);
        }
    }
}

TEST(ConnectBefore, GivesUpAtItsDeadline) {
    sutl_TCPSockServer server;
    test::Ports const ports = test::ListenOnFreePorts(server);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(ports.first);
    auto const connect = [&](sutl_Descriptor const& socket) {
        return sutl_ConnectBefore(std::chrono::steady_clock::now() + std::chrono::milliseconds(300), socket, address);
    };
    // Nobody accepts: the system answers until its queue is full.
    std::vector<sutl_Descriptor> connections;
    do {
        ASSERT_LT(connections.size(), 20U);
        connections.push_back(sutl_OpenTcpSocket());
    } while (connect(connections.back()));
    EXPECT_EQ(ETIMEDOUT, errno);
    ASSERT_GT(connections.size(), 1U);
    EXPECT_EQ(0, fcntl(connections[0].Get(), F_GETFL) & O_NONBLOCK);
    server.ClosePort();
    EXPECT_FALSE(connect(sutl_OpenTcpSocket()));
    EXPECT_EQ(ECONNREFUSED, errno);
}

}  // namespace
