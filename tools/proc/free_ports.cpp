#include "free_ports.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <random>

#include "sutl_descriptor.h"

std::vector<unsigned short> FindFreePorts(std::size_t count) {
    // Below those that the system gives to connections.
    constexpr int FIRST = 10000;
    constexpr int LAST = 32767;
    constexpr int TRIES = 1000;
    std::random_device seed;
    std::minstd_rand random(seed());
    std::uniform_int_distribution<int> choose(FIRST, LAST);
    std::vector<unsigned short> ports;
    for (int i = 0; i < TRIES && ports.size() < count; ++i) {
        auto const port = static_cast<unsigned short>(choose(random));
        sutl_Descriptor const socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        if (bind(socket.Get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) continue;
        if (std::find(ports.begin(), ports.end(), port) == ports.end()) ports.push_back(port);
    }
    return ports;
}
