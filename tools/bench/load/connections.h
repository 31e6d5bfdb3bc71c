// Pairs of connections to a server.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <span>

#include "sutl_descriptor.h"

struct bench_Ports {
    unsigned short first = 0;
    unsigned short second = 0;
};

struct bench_Pair {
    sutl_Descriptor first;
    sutl_Descriptor second;

    [[nodiscard]] bool IsOpen() const { return second.IsOpen(); }
};

// Connects both ports, keeping the first; tries again while a port refuses, until the wait is over. None, with errno,
// when that fails.
[[nodiscard]] bench_Pair bench_ConnectPair(in_addr host, bench_Ports const& ports, std::chrono::milliseconds wait);

// Sends all of the bytes in calls of at most `most` bytes each, with these flags. False, with errno, when the peer has
// gone.
[[nodiscard]] bool bench_Send(int connection, std::span<unsigned char const> bytes, std::size_t most, int flags = 0);

// Calls on the connection that wait so long for the peer fail, with EAGAIN.
void bench_SetPatience(int connection, std::chrono::milliseconds patience);
