#include "recovery_file_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr mode_t LOG_FILE_MODE = 0700;  // as the server's own files
constexpr std::size_t PIECE_BYTES = 64UL * 1024;

}  // namespace

bool RecoveryFileWriter::Create(std::string const& path) {
    file_ = sutl_OpenFile(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, LOG_FILE_MODE);
    return file_.IsOpen();
}

bool RecoveryFileWriter::Append(std::string_view bytes) {
    buffer_ += bytes;
    return buffer_.size() < PIECE_BYTES || Flush();
}

bool RecoveryFileWriter::CopyFrom(sutl_Descriptor const& from, long offset, long bytes, long& copied) {
    std::string piece(PIECE_BYTES, '\0');
    for (copied = 0; copied < bytes;) {
        auto const wanted = static_cast<std::size_t>(std::min<long>(PIECE_BYTES, bytes - copied));
        ssize_t const got = pread(from.Get(), piece.data(), wanted, offset + copied);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) break;
        copied += got;
        if (!Append({piece.data(), static_cast<std::size_t>(got)})) return false;
    }
    return true;
}

bool RecoveryFileWriter::Finish() {
    if (!Flush() || fsync(file_.Get()) != 0) return false;
    file_.Close();
    return true;
}

bool RecoveryFileWriter::Flush() {
    std::string_view left = buffer_;
    while (!left.empty()) {
        ssize_t const written = write(file_.Get(), left.data(), left.size());
        if (written < 0 && errno != EINTR) return false;
        left.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
    buffer_.clear();
    return true;
}
