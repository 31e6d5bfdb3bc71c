#include "input_bytes.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace {

constexpr std::size_t PACKED_BYTES = 64UL * 1024;
constexpr std::string_view GZIP_MARK = "\x1F\x8B";
constexpr std::string_view ZSTD_MARK = "\x28\xB5\x2F\xFD";
constexpr int GZIP_WINDOW = 15 + 16;  // the largest, and a gzip header before it

// Whether a frame that zstd passes over, and others may follow, begins so; a shorter start may still become one.
bool MayBeSkipped(std::string_view start) {
    static constexpr std::string_view REST = "\x2A\x4D\x18";
    if (start.empty()) return true;
    std::string_view const rest = start.substr(1, REST.size());
    return start[0] >= '\x50' && start[0] <= '\x5F' && REST.starts_with(rest);
}

bool IsReady(int descriptor) {
    pollfd waited = {descriptor, POLLIN, 0};
    return poll(&waited, 1, 0) != 0;
}

}  // namespace

struct InputBytes::Gzip {
    Gzip() { isUsable = inflateInit2(&stream, GZIP_WINDOW) == Z_OK; }
    Gzip(Gzip const&) = delete;
    Gzip& operator=(Gzip const&) = delete;
    ~Gzip() { inflateEnd(&stream); }

    z_stream stream = {};
    bool isUsable = false;
    bool memberEnded = false;
};

struct InputBytes::Zstd {
    std::unique_ptr<ZSTD_DStream, std::size_t (*)(ZSTD_DStream*)> stream{ZSTD_createDStream(), ZSTD_freeDStream};
    bool frameEnded = false;
};

InputBytes::InputBytes() = default;

InputBytes::~InputBytes() = default;

bool InputBytes::Open(std::string const& path, bool follow) {
    path_ = path;
    follow_ = follow;
    if (path == "-") {
        descriptor_ = STDIN_FILENO;
        fstat(descriptor_, &status_);
        return true;
    }
    return OpenFile() || (follow && errno == ENOENT);
}

bool InputBytes::OpenFile() {
    // Not to wait for the writer of a pipe.
    file_ = sutl_Descriptor(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file_.IsOpen() || fstat(file_.Get(), &status_) != 0) return false;
    if (S_ISDIR(status_.st_mode)) {
        errno = EISDIR;
        return false;
    }
    descriptor_ = file_.Get();
    return true;
}

int InputBytes::Descriptor() const { return follow_ || IsRegular() || stopped_ ? -1 : descriptor_; }

ByteSource::Result InputBytes::Read(char* to, std::size_t room, std::size_t& got) {
    if (stopped_) return WAITING;
    if (!IsOpen() && !OpenFile()) return errno == ENOENT ? WAITING : FAILED;
    if (kind_ == UNKNOWN) {
        if (Result const recognised = Recognise(); recognised != BYTES) return recognised;
    }
    if (kind_ == GZIP) return ReadGzip(to, room, got);
    if (kind_ == ZSTD) return ReadZstd(to, room, got);
    if (packedBegin_ == packedEnd_) return ReadFile(to, room, got);
    got = std::min(room, packedEnd_ - packedBegin_);
    memcpy(to, packed_.data() + packedBegin_, got);
    packedBegin_ += got;
    return BYTES;
}

// BYTES once the kind is known.
ByteSource::Result InputBytes::Recognise() {
    packed_.resize(PACKED_BYTES);
    for (;;) {
        std::string_view const start(packed_.data(), packedEnd_);
        if (start.starts_with(GZIP_MARK)) {
            kind_ = GZIP;
            gzip_ = std::make_unique<Gzip>();
        } else if (start.starts_with(ZSTD_MARK) || (start.size() >= ZSTD_MARK.size() && MayBeSkipped(start))) {
            kind_ = ZSTD;
            zstd_ = std::make_unique<Zstd>();
        } else if (!GZIP_MARK.starts_with(start) && !ZSTD_MARK.starts_with(start) && !MayBeSkipped(start)) {
            kind_ = PLAIN;
        }
        if (kind_ != UNKNOWN) break;
        std::size_t got = 0;
        Result const result = ReadFile(packed_.data() + packedEnd_, packed_.size() - packedEnd_, got);
        if (result == END && packedEnd_ > 0) {
            kind_ = PLAIN;
            break;
        }
        if (result != BYTES) return result;
        packedEnd_ += got;
    }
    if (follow_ && kind_ != PLAIN) return Fail("is compressed, and only plain files can be followed");
    return BYTES;
}

ByteSource::Result InputBytes::ReadFile(char* to, std::size_t room, std::size_t& got) {
    if (!IsRegular() && !IsReady(descriptor_)) return WAITING;
    long const read = sutl_ReadSome(descriptor_, to, room);
    if (read < 0) return errno == EAGAIN ? WAITING : FAILED;
    if (read == 0) return follow_ ? AtFileEnd() : END;
    got = static_cast<std::size_t>(read);
    bytesRead_ += got;
    replaced_ = false;  // whoever has it open still writes to it
    return BYTES;
}

ByteSource::Result InputBytes::AtFileEnd() {
    struct stat now = {};
    if (fstat(descriptor_, &now) != 0) return FAILED;
    if (static_cast<unsigned long>(now.st_size) < bytesRead_) {
        cutOff_ = true;
        return Fail("was cut off");
    }
    // While nothing has the name, the old file may still grow.
    if (stat(path_.c_str(), &now) != 0 || (now.st_ino == status_.st_ino && now.st_dev == status_.st_dev)) {
        return WAITING;
    }
    // Once more after a pause, since whoever writes may have it open still.
    if (replaced_) return END;
    replaced_ = true;
    return WAITING;
}

ByteSource::Result InputBytes::FillPacked() {
    if (packedBegin_ < packedEnd_) return BYTES;
    packedBegin_ = packedEnd_ = 0;
    std::size_t got = 0;
    Result const result = ReadFile(packed_.data(), packed_.size(), got);
    if (result == BYTES) packedEnd_ = got;
    return result;
}

ByteSource::Result InputBytes::ReadGzip(char* to, std::size_t room, std::size_t& got) {
    if (!gzip_->isUsable) return Fail("cannot be unpacked: no memory");
    z_stream& stream = gzip_->stream;
    for (;;) {
        Result const filled = FillPacked();
        if (filled == END) return gzip_->memberEnded ? END : Fail("ends inside its gzip data");
        if (filled != BYTES) return filled;
        if (gzip_->memberEnded) {
            // Another member, or zeros that fill up a block.
            if (packed_[packedBegin_] == 0) {
                ++packedBegin_;
                continue;
            }
            inflateReset(&stream);
            gzip_->memberEnded = false;
        }
        stream.next_in = reinterpret_cast<Bytef*>(packed_.data() + packedBegin_);
        stream.avail_in = static_cast<uInt>(packedEnd_ - packedBegin_);
        stream.next_out = reinterpret_cast<Bytef*>(to);
        stream.avail_out = static_cast<uInt>(std::min<std::size_t>(room, 1UL << 30));
        uInt const asked = stream.avail_out;
        int const code = inflate(&stream, Z_NO_FLUSH);
        packedBegin_ = packedEnd_ - stream.avail_in;
        got = asked - stream.avail_out;
        if (code == Z_STREAM_END) {
            gzip_->memberEnded = true;
        } else if (code != Z_OK && code != Z_BUF_ERROR) {
            return Fail("holds gzip data that are damaged");
        }
        if (got > 0) return BYTES;
    }
}

ByteSource::Result InputBytes::ReadZstd(char* to, std::size_t room, std::size_t& got) {
    if (zstd_->stream == nullptr) return Fail("cannot be unpacked: no memory");
    for (;;) {
        Result const filled = FillPacked();
        // Without input, what the library still holds comes out.
        if (filled != BYTES && filled != END) return filled;
        ZSTD_inBuffer in = {packed_.data() + packedBegin_, packedEnd_ - packedBegin_, 0};
        ZSTD_outBuffer out = {to, room, 0};
        if (filled == END && zstd_->frameEnded) return END;
        std::size_t const code = ZSTD_decompressStream(zstd_->stream.get(), &out, &in);
        packedBegin_ += in.pos;
        if (ZSTD_getErrorCode(code) == ZSTD_error_frameParameter_windowTooLarge) {
            return Fail("holds zstd data whose window is too large; pack them with one of 128 MiB at most");
        }
        if (ZSTD_isError(code) != 0) return Fail("holds zstd data that are damaged");
        zstd_->frameEnded = code == 0;
        got = out.pos;
        if (got > 0) return BYTES;
        if (filled == END) return zstd_->frameEnded ? END : Fail("ends inside its zstd data");
    }
}

ByteSource::Result InputBytes::Fail(char const* problem) {
    problem_ = problem;
    return CORRUPT;
}

bool InputBytes::SeekTo(unsigned long offset) {
    if (kind_ != PLAIN || !IsRegular() || descriptor_ == STDIN_FILENO) return false;
    struct stat now = {};
    if (fstat(descriptor_, &now) != 0 || static_cast<unsigned long>(now.st_size) < offset) return false;
    if (lseek(descriptor_, static_cast<off_t>(offset), SEEK_SET) < 0) return false;
    packedBegin_ = packedEnd_ = 0;
    bytesRead_ = offset;
    return true;
}
