#include "log_follower.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr std::size_t READ_BYTES = 64UL * 1024;
constexpr int PIPE_READS_MAX = 256;           // in one go: its writer may never pause
constexpr std::size_t LINE_BYTES_MAX = 4096;  // what is longer is cut into pieces

bool AreSame(struct stat const& one, struct stat const& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace

void LogFollower::Follow(std::string const& path) {
    path_ = path;
    position_ = 0;
    rest_.clear();
    struct stat status = {};
    bool const isStandardInput = path == "-";
    isPipe_ = isStandardInput || (stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode));
    file_ = sutl_Descriptor();
    if (isStandardInput) {
        file_ = sutl_Descriptor(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
    } else if (isPipe_) {
        // Open to write as well, it does not end with its writer.
        file_ = sutl_Descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    }
}

void LogFollower::Read(std::function<void(std::string_view)> const& take) {
    if (isPipe_ || path_.empty()) {
        ReadToEnd(take);
        return;
    }
    struct stat held = {};
    struct stat named = {};
    if (file_.IsOpen()) {
        if (fstat(file_.Get(), &held) == 0 && held.st_size < position_) {
            position_ = 0;
            rest_.clear();
        }
        ReadToEnd(take);
        bool const moved = stat(path_.c_str(), &named) == 0 && !AreSame(held, named);
        if (!moved || WriterHoldsFile()) return;
        // What came before it was moved, and since it was read.
        ReadToEnd(take);
        rest_.clear();
    }
    file_ = sutl_Descriptor(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    position_ = 0;
    ReadToEnd(take);
}

bool LogFollower::WriterHoldsFile() const {
    struct stat held = {};
    struct stat written = {};
    return writer_ != 0 && fstat(file_.Get(), &held) == 0 &&
           stat(fmt::format("/proc/{}/fd/2", writer_).c_str(), &written) == 0 && AreSame(held, written);
}

void LogFollower::ReadToEnd(std::function<void(std::string_view)> const& take) {
    std::string piece(READ_BYTES, '\0');
    for (int reads = 0; file_.IsOpen() && !(isPipe_ && reads == PIPE_READS_MAX); ++reads) {
        if (isPipe_) {
            pollfd waited = {file_.Get(), POLLIN, 0};
            if (poll(&waited, 1, 0) <= 0) return;
        }
        ssize_t const got = isPipe_ ? read(file_.Get(), piece.data(), piece.size())
                                    : pread(file_.Get(), piece.data(), piece.size(), position_);
        if (got <= 0) {
            if (isPipe_ && (got == 0 || (errno != EINTR && errno != EAGAIN))) file_.Close();
            return;
        }
        position_ += got;
        for (char const c : std::string_view(piece).substr(0, static_cast<std::size_t>(got))) {
            if (c == '\n' || rest_.size() == LINE_BYTES_MAX) {
                take(rest_);
                rest_.clear();
            }
            // What a file that was cut has before its new bytes are zeros.
            if (c != '\n' && c != '\0') rest_ += c;
        }
    }
}
