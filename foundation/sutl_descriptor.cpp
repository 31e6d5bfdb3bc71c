#include "sutl_descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

sutl_Descriptor& sutl_Descriptor::operator=(sutl_Descriptor&& other) noexcept {
    if (this != &other) {
        Close();
        descriptor_ = other.Release();
    }
    return *this;
}

void sutl_Descriptor::Close() {
    if (descriptor_ < 0) return;
    int const savedError = errno;
    // Not retried on EINTR: the system has let go of the number by then, and another thread may own it already.
    close(std::exchange(descriptor_, -1));
    errno = savedError;
}

int sutl_Descriptor::Release() { return std::exchange(descriptor_, -1); }

sutl_Descriptor sutl_OpenFile(char const* path, int flags, unsigned int mode) {
    for (;;) {
        int const descriptor = open(path, flags, mode);
        if (descriptor >= 0 || errno != EINTR) return sutl_Descriptor(descriptor);
    }
}

long sutl_FileWrite(int descriptor, void const* data, std::size_t bytes) {
    auto const* from = static_cast<unsigned char const*>(data);
    std::size_t written = 0;
    while (written < bytes) {
        ssize_t const result = write(descriptor, from + written, bytes - written);
        if (result < 0) {
            if (errno == EINTR) continue;
            perror("sutl_FileWrite error: ");
            return -static_cast<long>(written);
        }
        if (result == 0) {
            fputs("sutl_FileWrite error: zero bytes written but no error\n", stderr);
            return static_cast<long>(written);
        }
        written += static_cast<std::size_t>(result);
    }
    return static_cast<long>(written);
}

std::size_t sutl_FileRead(int descriptor, void* data, std::size_t bytes) {
    auto* to = static_cast<unsigned char*>(data);
    std::size_t got = 0;
    while (got < bytes) {
        long const result = sutl_ReadSome(descriptor, to + got, bytes - got);
        if (result < 0) perror("sutl_FileRead error: ");
        if (result <= 0) break;
        got += static_cast<std::size_t>(result);
    }
    return got;
}

long sutl_ReadSome(int descriptor, void* data, std::size_t bytes) {
    for (;;) {
        ssize_t const result = read(descriptor, data, bytes);
        if (result >= 0 || errno != EINTR) return result;
    }
}
