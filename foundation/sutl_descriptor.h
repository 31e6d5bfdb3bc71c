// Ownership of file descriptors, and whole-buffer transfers on them.
#pragma once

#include <cstddef>

// Owns one file descriptor and closes it at its end. -1 stands for none: a descriptor that was never opened is never
// closed. One thread at a time.
class sutl_Descriptor {
 public:
    sutl_Descriptor() = default;
    explicit sutl_Descriptor(int descriptor) : descriptor_(descriptor) {}
    sutl_Descriptor(sutl_Descriptor&& other) noexcept : descriptor_(other.Release()) {}
    sutl_Descriptor& operator=(sutl_Descriptor&& other) noexcept;
    sutl_Descriptor(sutl_Descriptor const&) = delete;
    sutl_Descriptor& operator=(sutl_Descriptor const&) = delete;
    ~sutl_Descriptor() { Close(); }

    [[nodiscard]] int Get() const { return descriptor_; }
    [[nodiscard]] bool IsOpen() const { return descriptor_ >= 0; }
    void Close();                 // closes it, if one is held; errno is left as it was
    [[nodiscard]] int Release();  // gives it up unclosed

 private:
    int descriptor_ = -1;
};

// Opens a file, EINTR retried: none with errno set on failure. The mode counts where the flags create one.
[[nodiscard]] sutl_Descriptor sutl_OpenFile(char const* path, int flags, unsigned int mode = 0);

// Writes all of the bytes, whatever the system takes per call; EINTR is retried. Returns the number written; after a
// system error, which is reported by perror, that number negated.
long sutl_FileWrite(int descriptor, void const* data, std::size_t bytes);

// Reads until all of the bytes are there, the file ends or a system error, which is reported by perror, stops it; EINTR
// is retried. Returns the number read.
std::size_t sutl_FileRead(int descriptor, void* data, std::size_t bytes);

// One read, EINTR retried. Returns what read returns: the number of bytes, 0 at the end, -1 with errno set.
long sutl_ReadSome(int descriptor, void* data, std::size_t bytes);
