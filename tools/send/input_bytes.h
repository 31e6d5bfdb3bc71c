// The bytes of a file to send, whatever it is packed in.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "byte_source.h"
#include "sutl_descriptor.h"

// Reads a plain, gzip or zstd file, recognised by its first bytes, or standard input. A followed file is read like
// tail -F does: it may not be there yet, it grows, and when another file takes its name it is read to its end, which is
// the end of these bytes. One thread at a time.
class InputBytes : public ByteSource {
 public:
    InputBytes();
    ~InputBytes() override;

    // "-" is standard input. False on failure, with errno; a followed file need not be there.
    [[nodiscard]] bool Open(std::string const& path, bool follow);

    [[nodiscard]] Result Read(char* to, std::size_t room, std::size_t& got) override;
    [[nodiscard]] char const* Problem() const override { return problem_; }

    // From now on only what was read already is given, and then there is nothing more for now.
    void Stop() { stopped_ = true; }

    // Goes to a place of a plain regular file. False when it is none, or fails, or ends before.
    [[nodiscard]] bool SeekTo(unsigned long offset);

    // What can be polled for more; -1 where time alone tells.
    [[nodiscard]] int Descriptor() const;
    [[nodiscard]] bool WasCutOff() const { return cutOff_; }  // the followed file became shorter
    [[nodiscard]] bool IsOpen() const { return descriptor_ >= 0; }
    [[nodiscard]] bool IsRegular() const { return S_ISREG(status_.st_mode); }
    [[nodiscard]] struct stat const& Status() const { return status_; }   // when it was opened
    [[nodiscard]] unsigned long BytesRead() const { return bytesRead_; }  // of the file, packed as it is

 private:
    enum Kind : std::uint8_t { UNKNOWN, PLAIN, GZIP, ZSTD };
    struct Gzip;
    struct Zstd;

    [[nodiscard]] bool OpenFile();
    [[nodiscard]] Result Recognise();
    [[nodiscard]] Result ReadFile(char* to, std::size_t room, std::size_t& got);
    [[nodiscard]] Result AtFileEnd();
    [[nodiscard]] Result FillPacked();  // BYTES when there are packed bytes
    [[nodiscard]] Result ReadGzip(char* to, std::size_t room, std::size_t& got);
    [[nodiscard]] Result ReadZstd(char* to, std::size_t room, std::size_t& got);
    Result Fail(char const* problem);

    std::string path_;
    bool follow_ = false;
    bool stopped_ = false;
    sutl_Descriptor file_;  // none for standard input
    int descriptor_ = -1;
    struct stat status_ = {};
    unsigned long bytesRead_ = 0;
    bool replaced_ = false;  // another file has the followed one's name
    bool cutOff_ = false;
    Kind kind_ = UNKNOWN;
    std::vector<char> packed_;  // read of the file and not yet unpacked
    std::size_t packedBegin_ = 0;
    std::size_t packedEnd_ = 0;
    std::unique_ptr<Gzip> gzip_;
    std::unique_ptr<Zstd> zstd_;
    char const* problem_ = "";
};
