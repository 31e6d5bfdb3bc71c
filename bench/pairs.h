// Pairs of connections on this machine, as every program of the bench makes them.
#pragma once

#include <string>

#include "connections.h"
#include "sutl_tcpsockserver.h"

// Ends the program with a line that says what it could not do.
[[noreturn]] void bench_Fail(char const* what);

// Connects both ports, keeping the first; tries again while a port refuses, for at most a minute, then fails.
[[nodiscard]] bench_Pair bench_Connect(bench_Ports const& ports);

// What a program that stands in for the server is started with: SPEC DIRECTORY HOST SHIP1 SHIP2 DATA1 DATA2 WINDOW,
// and, for peers, the first query port, which nobody connects to. It ignores further arguments.
struct bench_StandIn {
    bench_StandIn(int argc, char** argv);
    void Open();  // connects to the consumer and accepts the producer

    char const* spec;
    std::string directory;
    bench_Ports ship;
    bench_Ports data;
    long windowUs;
    unsigned short freePort;
    bench_Pair consumer;
    sutl_TCPSockServer producer;
};
