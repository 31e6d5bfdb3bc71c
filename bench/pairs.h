// Pairs of connections on this machine, as every program of the bench makes them.
#pragma once

#include <span>
#include <string>

#include "sutl_descriptor.h"
#include "sutl_tcpsockserver.h"

struct bench_Ports {
    unsigned short first = 0;
    unsigned short second = 0;
};

struct bench_Pair {
    sutl_Descriptor first;
    sutl_Descriptor second;
};

// Ends the program with a line that says what it could not do.
[[noreturn]] void bench_Fail(char const* what);

// Connects both ports, keeping the first; tries again while a port refuses, for at most a minute, then fails.
[[nodiscard]] bench_Pair bench_Connect(bench_Ports const& ports);

// Sends all of the bytes in calls of at most `most` bytes each, with these flags. False when the peer has gone.
[[nodiscard]] bool bench_Send(int connection, std::span<unsigned char const> bytes, std::size_t most, int flags = 0);

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
