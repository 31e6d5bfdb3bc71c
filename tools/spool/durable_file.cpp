#include "durable_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "sutl_descriptor.h"

namespace {}  // namespace

std::string FolderOf(std::string const& path) {
    std::string const folder = std::filesystem::path(path).parent_path().string();
    return folder.empty() ? "." : folder;
}

bool SyncDirectory(std::string const& path) {
    sutl_Descriptor const directory = sutl_OpenFile(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return directory.IsOpen() && fsync(directory.Get()) == 0;
}

bool ReplaceFile(std::string const& path, std::string_view text) {
    // The process id keeps two writers from each other's half-written file.
    std::string const temporary = fmt::format("{}.{}.tmp", path, getpid());
    sutl_Descriptor file = sutl_OpenFile(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, FILE_MODE);
    if (!file.IsOpen()) return false;
    std::string_view left = text;
    bool done = true;
    while (done && !left.empty()) {
        ssize_t const written = write(file.Get(), left.data(), left.size());
        if (written > 0) left.remove_prefix(static_cast<std::size_t>(written));
        done = written > 0 || (written < 0 && errno == EINTR);
    }
    done = done && fsync(file.Get()) == 0 && rename(temporary.c_str(), path.c_str()) == 0;
    if (!done) {
        int const error = errno;
        unlink(temporary.c_str());
        errno = error;
        return false;
    }
    return SyncDirectory(FolderOf(path));
}

std::optional<std::string> ReadFile(std::string const& path, std::size_t bytesMax) {
    sutl_Descriptor const file = sutl_OpenFile(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (!file.IsOpen()) return std::nullopt;
    std::string text;
    char piece[4096];
    for (;;) {
        long const got = sutl_ReadSome(file.Get(), piece, sizeof piece);
        if (got < 0) return std::nullopt;
        if (got == 0) return text;
        text.append(piece, static_cast<std::size_t>(got));
        if (text.size() > bytesMax) {
            errno = EFBIG;
            return std::nullopt;
        }
    }
}
