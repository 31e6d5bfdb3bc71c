#include "pairs.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

unsigned short Port(char const* text) { return static_cast<unsigned short>(strtoul(text, nullptr, 10)); }

}  // namespace

void bench_Fail(char const* what) {
    perror(what);
    exit(EXIT_FAILURE);
}

bench_Pair bench_Connect(bench_Ports const& ports) {
    in_addr const host = {htonl(INADDR_LOOPBACK)};
    bench_Pair pair = bench_ConnectPair(host, ports, std::chrono::minutes(1));
    if (!pair.IsOpen()) bench_Fail("connect");
    return pair;
}

bench_StandIn::bench_StandIn(int argc, char** argv) {
    constexpr int ARGUMENTS_MIN = 9;
    if (argc < ARGUMENTS_MIN) {
        fprintf(stderr, "Usage: %s SPEC DIRECTORY HOST SHIP1 SHIP2 DATA1 DATA2 WINDOW\n", argv[0]);
        exit(EXIT_FAILURE);
    }
    spec = argv[1];
    directory = argv[2];
    ship = {Port(argv[4]), Port(argv[5])};
    data = {Port(argv[6]), Port(argv[7])};
    windowUs = strtol(argv[8], nullptr, 10) * 1000000;
    freePort = argc > ARGUMENTS_MIN ? Port(argv[ARGUMENTS_MIN]) : 0;
}

void bench_StandIn::Open() {
    consumer = bench_Connect(ship);
    producer.Listen(data.first, data.second);
    if (!producer.AcceptPair()) exit(EXIT_FAILURE);
}
