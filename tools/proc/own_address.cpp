#include "own_address.h"

#include <sys/socket.h>

#include "sutl_descriptor.h"

bool IsOwnAddress(in_addr host) {
    sutl_Descriptor const probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    return bind(probe.Get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}
